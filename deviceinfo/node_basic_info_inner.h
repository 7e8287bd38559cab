#pragma once

#include <string>

#include <binder/Parcel.h>
#include <binder/Parcelable.h>

#include "tivra/tivra_adapter.h"

namespace com {
namespace solvane {
namespace pravik {
namespace deviceinfo {

// One node of the network: the record the service sends and the object a
// client receives as a NodeBasicInfo. On the wire: name, type code, node id.
class NodeBasicInfoInner : public android::Parcelable, public Communication::NodeBasicInfo {
public:
    NodeBasicInfoInner() = default;
    NodeBasicInfoInner(const std::string& name, Communication::DeviceType deviceType, const std::string& nodeId);
    NodeBasicInfoInner(const NodeBasicInfoInner&) = default;
    NodeBasicInfoInner& operator=(const NodeBasicInfoInner&) = default;
    ~NodeBasicInfoInner() override = default;

    android::status_t writeToParcel(android::Parcel* parcel) const override;
    android::status_t readFromParcel(const android::Parcel* parcel) override;

    std::string GetName() const override;
    Communication::DeviceType GetDeviceType() const override;
    std::string GetNodeId() const override;

    // The known kind for a one-byte code; DEVICE_TYPE_UNKNOWN (with an error
    // line) for any other byte.
    static Communication::DeviceType DeviceTypeFromValue(unsigned char value);

private:
    std::string name_;
    Communication::DeviceType deviceType_ = Communication::DEVICE_TYPE_UNKNOWN;
    std::string nodeId_;
};

}  // namespace deviceinfo
}  // namespace pravik
}  // namespace solvane
}  // namespace com
