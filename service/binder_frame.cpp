#include "binder_frame.h"

namespace com {
namespace solvane {
namespace pravik {
namespace service {
namespace frame {

android::status_t Write(android::Parcel& parcel, const android::String16& value) { return parcel.writeString16(value); }
android::status_t Write(android::Parcel& parcel, int32_t value) { return parcel.writeInt32(value); }
android::status_t Write(android::Parcel& parcel, int64_t value) { return parcel.writeInt64(value); }
android::status_t Write(android::Parcel& parcel, bool value) { return parcel.writeBool(value); }
android::status_t Write(android::Parcel& parcel, const android::Parcelable& record) {
    return parcel.writeParcelable(record);
}

android::status_t Read(const android::Parcel& parcel, android::String16* value) { return parcel.readString16(value); }
android::status_t Read(const android::Parcel& parcel, int32_t* value) { return parcel.readInt32(value); }
android::status_t Read(const android::Parcel& parcel, int64_t* value) { return parcel.readInt64(value); }
android::status_t Read(const android::Parcel& parcel, bool* value) { return parcel.readBool(value); }
android::status_t Read(const android::Parcel& parcel, android::Parcelable* record) {
    return parcel.readParcelable(record);
}

android::status_t NullToException(android::status_t result, android::Parcel* reply) {
    if (result != android::UNEXPECTED_NULL) {
        return result;
    }
    return android::binder::Status::fromExceptionCode(android::binder::Status::EX_NULL_POINTER).writeToParcel(reply);
}

}  // namespace frame
}  // namespace service
}  // namespace pravik
}  // namespace solvane
}  // namespace com
