#pragma once

#include <vector>

#include <binder/Parcel.h>
#include <binder/Parcelable.h>

#include "device_info_external.h"

namespace com {
namespace solvane {
namespace pravik {
namespace deviceinfo {

// An ordered list of devices, as the service answers queries for several
// devices. Order is kept across the parcel and duplicates are never merged.
class DeviceInfoExternalList : public android::Parcelable {
public:
    DeviceInfoExternalList() = default;
    ~DeviceInfoExternalList() override = default;

    android::status_t writeToParcel(android::Parcel* parcel) const override;
    android::status_t readFromParcel(const android::Parcel* parcel) override;

    std::vector<DeviceInfoExternal> GetDeviceInfoExternalList() const;
    void SetDeviceInfoExternalList(const std::vector<DeviceInfoExternal>& list);
    void AddListToDeviceInfoExternalList(const std::vector<DeviceInfoExternal>& list);
    void AddDeviceInfoExternalToList(const DeviceInfoExternal& info);

private:
    std::vector<DeviceInfoExternal> deviceInfoExternalList_;
};

}  // namespace deviceinfo
}  // namespace pravik
}  // namespace solvane
}  // namespace com
