#include "device_info_type_inner.h"

#include "tivra_log.h"

namespace com {
namespace solvane {
namespace pravik {
namespace deviceinfo {

DeviceInfoTypeInner::DeviceInfoTypeInner(int value) : value_(value) {}

android::status_t DeviceInfoTypeInner::writeToParcel(android::Parcel* parcel) const {
    const android::status_t status = parcel->writeInt32(value_);
    if (status != android::OK) {
        TIVRA_LOGE("write deviceType to parcel failed");
    }
    return status;
}

android::status_t DeviceInfoTypeInner::readFromParcel(const android::Parcel* parcel) {
    int32_t value = 0;
    const android::status_t status = parcel->readInt32(&value);
    if (status != android::OK) {
        TIVRA_LOGE("read deviceType from parcel failed");
        return status;
    }
    value_ = value;
    return android::OK;
}

int32_t DeviceInfoTypeInner::getValue() const { return value_; }

}  // namespace deviceinfo
}  // namespace pravik
}  // namespace solvane
}  // namespace com
