#include "node_basic_info_inner.h"

#include <algorithm>
#include <iterator>

#include "text_conversion.h"
#include "tivra_log.h"

// The public interface's anchor: its vtable and type information live with
// the records, once, and libtivra.so exports them.
Communication::NodeBasicInfo::~NodeBasicInfo() = default;

namespace com {
namespace solvane {
namespace pravik {
namespace deviceinfo {
namespace {

using Communication::DeviceType;

constexpr DeviceType kKnownDeviceTypes[] = {
    Communication::DEVICE_TYPE_03, Communication::DEVICE_TYPE_0A, Communication::DEVICE_TYPE_0B,
    Communication::DEVICE_TYPE_0C, Communication::DEVICE_TYPE_0E, Communication::DEVICE_TYPE_11,
    Communication::DEVICE_TYPE_2E, Communication::DEVICE_TYPE_6D, Communication::DEVICE_TYPE_83,
    Communication::DEVICE_TYPE_85, Communication::DEVICE_TYPE_98, Communication::DEVICE_TYPE_9C,
    Communication::DEVICE_TYPE_9D, Communication::DEVICE_TYPE_9E, Communication::DEVICE_TYPE_A0,
    Communication::DEVICE_TYPE_A7, Communication::DEVICE_TYPE_AE, Communication::DEVICE_TYPE_B1,
    Communication::DEVICE_TYPE_B2, Communication::DEVICE_TYPE_F0, Communication::DEVICE_TYPE_F1,
};

// The code that the service sends when it has no type for a node at all.
constexpr int32_t kInvalidDeviceTypeCode = -1;

}  // namespace

NodeBasicInfoInner::NodeBasicInfoInner(const std::string& name, DeviceType deviceType, const std::string& nodeId)
    : name_(name), deviceType_(deviceType), nodeId_(nodeId) {}

DeviceType NodeBasicInfoInner::DeviceTypeFromValue(unsigned char value) {
    const auto* found = std::find(std::begin(kKnownDeviceTypes), std::end(kKnownDeviceTypes),
                                  static_cast<DeviceType>(value));
    if (found == std::end(kKnownDeviceTypes)) {
        TIVRA_LOGE("DeviceTypeFromValue: unknown device type value=%x", value);
        return Communication::DEVICE_TYPE_UNKNOWN;
    }
    return *found;
}

android::status_t NodeBasicInfoInner::writeToParcel(android::Parcel* parcel) const {
    android::status_t status = WriteUtf8AsString16(parcel, name_);
    if (status != android::OK) {
        TIVRA_LOGE("write name to parcel failed");
        return status;
    }
    status = parcel->writeInt32(deviceType_);
    if (status != android::OK) {
        TIVRA_LOGE("write deviceType to parcel failed");
        return status;
    }
    status = WriteUtf8AsString16(parcel, nodeId_);
    if (status != android::OK) {
        TIVRA_LOGE("write nodeId to parcel failed");
        return status;
    }
    return android::OK;
}

android::status_t NodeBasicInfoInner::readFromParcel(const android::Parcel* parcel) {
    android::status_t status = ReadString16AsUtf8(parcel, &name_);
    if (status != android::OK) {
        TIVRA_LOGE("read name from parcel failed");
        return status;
    }

    int32_t code = 0;
    status = parcel->readInt32(&code);
    if (status != android::OK) {
        TIVRA_LOGE("read deviceType from parcel failed");
        return status;
    }
    if (code == kInvalidDeviceTypeCode) {
        TIVRA_LOGE("read deviceType from parcel is invalid value");
        return -1;
    }
    // Only the low byte carries the kind; the upper bits are ignored.
    deviceType_ = DeviceTypeFromValue(static_cast<unsigned char>(code & 0xFF));

    status = ReadString16AsUtf8(parcel, &nodeId_);
    if (status != android::OK) {
        TIVRA_LOGE("read nodeId from parcel failed");
        return status;
    }
    return android::OK;
}

std::string NodeBasicInfoInner::GetName() const { return name_; }
DeviceType NodeBasicInfoInner::GetDeviceType() const { return deviceType_; }
std::string NodeBasicInfoInner::GetNodeId() const { return nodeId_; }

}  // namespace deviceinfo
}  // namespace pravik
}  // namespace solvane
}  // namespace com
