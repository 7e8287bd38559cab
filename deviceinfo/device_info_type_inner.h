#pragma once

#include <cstdint>

#include <binder/Parcel.h>
#include <binder/Parcelable.h>

namespace com {
namespace solvane {
namespace pravik {
namespace deviceinfo {

// The kind of a node information change, one int32 on the wire. The record
// does not judge the value; the client side maps it to DeviceInfoType.
class DeviceInfoTypeInner : public android::Parcelable {
public:
    DeviceInfoTypeInner() = default;
    explicit DeviceInfoTypeInner(int value);
    ~DeviceInfoTypeInner() override = default;

    android::status_t writeToParcel(android::Parcel* parcel) const override;
    android::status_t readFromParcel(const android::Parcel* parcel) override;

    int32_t getValue() const;

private:
    int32_t value_ = 0;
};

}  // namespace deviceinfo
}  // namespace pravik
}  // namespace solvane
}  // namespace com
