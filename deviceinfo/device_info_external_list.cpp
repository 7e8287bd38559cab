#include "device_info_external_list.h"

#include "typed_list_parcel.h"

namespace com {
namespace solvane {
namespace pravik {
namespace deviceinfo {
namespace {

// The largest element count the vector holds on the 32-bit target.
constexpr int32_t kMaxDeviceCount = 76695844;

// Presence flag plus four empty strings (length and terminator each).
constexpr size_t kMinDeviceEntryBytes = 4 + 4 * 8;

const TypedListMessages kDeviceListMessages = {
    "device info list",
    "write tivraDeviceInfos size to parcel failed, size = %d",
    "write one tivraDeviceInfo to parcel failed",
    "read tivraDeviceInfos size from parcel failed, size = %d",
    "parcel size = %d",
    "read device info list size is oversize",
    "read one tivraDeviceInfo from parcel failed",
};

}  // namespace

android::status_t DeviceInfoExternalList::writeToParcel(android::Parcel* parcel) const {
    return WriteTypedList(parcel, deviceInfoExternalList_, kDeviceListMessages);
}

android::status_t DeviceInfoExternalList::readFromParcel(const android::Parcel* parcel) {
    return ReadTypedList(parcel, &deviceInfoExternalList_, kMaxDeviceCount, kMinDeviceEntryBytes,
                         kDeviceListMessages);
}

std::vector<DeviceInfoExternal> DeviceInfoExternalList::GetDeviceInfoExternalList() const {
    return deviceInfoExternalList_;
}

void DeviceInfoExternalList::SetDeviceInfoExternalList(const std::vector<DeviceInfoExternal>& list) {
    if (&list != &deviceInfoExternalList_) {
        deviceInfoExternalList_ = list;
    }
}

void DeviceInfoExternalList::AddListToDeviceInfoExternalList(const std::vector<DeviceInfoExternal>& list) {
    if (&list == &deviceInfoExternalList_) {
        // Inserting a vector's own range into it is not allowed: double it
        // from a copy.
        const std::vector<DeviceInfoExternal> copy(list);
        deviceInfoExternalList_.insert(deviceInfoExternalList_.end(), copy.begin(), copy.end());
        return;
    }
    deviceInfoExternalList_.insert(deviceInfoExternalList_.end(), list.begin(), list.end());
}

void DeviceInfoExternalList::AddDeviceInfoExternalToList(const DeviceInfoExternal& info) {
    deviceInfoExternalList_.push_back(info);
}

}  // namespace deviceinfo
}  // namespace pravik
}  // namespace solvane
}  // namespace com
