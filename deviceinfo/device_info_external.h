#pragma once

#include <string>

#include <binder/Parcel.h>
#include <binder/Parcelable.h>

#include "tivra/tivra_adapter.h"

namespace com {
namespace solvane {
namespace pravik {
namespace deviceinfo {

// One device of the network: the record the service sends and the object a
// client receives as a TivraDeviceInfo. On the wire it is four strings in the
// order identifier, name, type, IP address.
class DeviceInfoExternal : public android::Parcelable, public Communication::TivraDeviceInfo {
public:
    DeviceInfoExternal() = default;
    DeviceInfoExternal(std::string deviceName, std::string deviceId, std::string deviceType, std::string deviceIp);
    DeviceInfoExternal(const DeviceInfoExternal&) = default;
    DeviceInfoExternal& operator=(const DeviceInfoExternal&) = default;
    ~DeviceInfoExternal() override = default;

    android::status_t writeToParcel(android::Parcel* parcel) const override;
    android::status_t readFromParcel(const android::Parcel* parcel) override;

    std::string GetDeviceName() const override;
    std::string GetDeviceId() const override;
    std::string GetDeviceType() const override;
    std::string GetDeviceIp() const override;

    void SetDeviceName(const std::string& deviceName);
    void SetDeviceId(const std::string& deviceId);
    void SetDeviceType(const std::string& deviceType);
    void SetDeviceIp(const std::string& deviceIp);

private:
    // One string of the wire layout with its failure messages.
    struct WireField {
        std::string DeviceInfoExternal::*member;
        const char* writeFailed;
        const char* readFailed;
    };
    static const WireField kWireOrder[4];

    std::string deviceName_;
    std::string deviceId_;
    std::string deviceType_;
    std::string deviceIp_;
};

}  // namespace deviceinfo
}  // namespace pravik
}  // namespace solvane
}  // namespace com
