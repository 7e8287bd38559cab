#include "device_info_external.h"

#include <iterator>
#include <utility>

#include "text_conversion.h"
#include "tivra_log.h"

// The public interface's anchor: its vtable and type information live with
// the records, once, and libtivra.so exports them.
Communication::TivraDeviceInfo::~TivraDeviceInfo() = default;

namespace com {
namespace solvane {
namespace pravik {
namespace deviceinfo {

// The wire order of the fields, which is not their declaration order.
const DeviceInfoExternal::WireField DeviceInfoExternal::kWireOrder[4] = {
    {&DeviceInfoExternal::deviceId_, "write deviceId to parcel failed", "read deviceId from parcel failed"},
    {&DeviceInfoExternal::deviceName_, "write deviceName to parcel failed", "read deviceName from parcel failed"},
    {&DeviceInfoExternal::deviceType_, "write deviceType to parcel failed", "read deviceType from parcel failed"},
    {&DeviceInfoExternal::deviceIp_, "write deviceIp to parcel failed", "read deviceIp from parcel failed"},
};

DeviceInfoExternal::DeviceInfoExternal(std::string deviceName, std::string deviceId, std::string deviceType,
                                       std::string deviceIp)
    : deviceName_(std::move(deviceName)),
      deviceId_(std::move(deviceId)),
      deviceType_(std::move(deviceType)),
      deviceIp_(std::move(deviceIp)) {}

android::status_t DeviceInfoExternal::writeToParcel(android::Parcel* parcel) const {
    // All four at once when they can be; else one by one, which tells which failed.
    const std::string* texts[std::size(kWireOrder)];
    for (size_t i = 0; i < std::size(kWireOrder); ++i) {
        texts[i] = &(this->*kWireOrder[i].member);
    }
    if (WriteUtf8sAsString16s(parcel, texts, std::size(kWireOrder))) {
        return android::OK;
    }
    for (const WireField& field : kWireOrder) {
        const android::status_t status = WriteUtf8AsString16(parcel, this->*field.member);
        if (status != android::OK) {
            TIVRA_LOGE("%s", field.writeFailed);
            return status;
        }
    }
    return android::OK;
}

android::status_t DeviceInfoExternal::readFromParcel(const android::Parcel* parcel) {
    for (const WireField& field : kWireOrder) {
        const android::status_t status = ReadString16AsUtf8(parcel, &(this->*field.member));
        if (status != android::OK) {
            TIVRA_LOGE("%s", field.readFailed);
            return status;
        }
    }
    return android::OK;
}

std::string DeviceInfoExternal::GetDeviceName() const { return deviceName_; }
std::string DeviceInfoExternal::GetDeviceId() const { return deviceId_; }
std::string DeviceInfoExternal::GetDeviceType() const { return deviceType_; }
std::string DeviceInfoExternal::GetDeviceIp() const { return deviceIp_; }

void DeviceInfoExternal::SetDeviceName(const std::string& deviceName) { deviceName_ = deviceName; }
void DeviceInfoExternal::SetDeviceId(const std::string& deviceId) { deviceId_ = deviceId; }
void DeviceInfoExternal::SetDeviceType(const std::string& deviceType) { deviceType_ = deviceType; }
void DeviceInfoExternal::SetDeviceIp(const std::string& deviceIp) { deviceIp_ = deviceIp; }

}  // namespace deviceinfo
}  // namespace pravik
}  // namespace solvane
}  // namespace com
