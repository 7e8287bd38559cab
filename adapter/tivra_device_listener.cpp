#include "tivra_device_listener.h"

#include "text_conversion.h"
#include "tivra_log.h"

namespace Communication {
namespace {

using com::solvane::pravik::deviceinfo::DeviceInfoTypeInner;
using com::solvane::pravik::deviceinfo::NodeBasicInfoInner;

std::shared_ptr<NodeBasicInfo> CopyRecord(const NodeBasicInfoInner& info) {
    return std::make_shared<NodeBasicInfoInner>(info.GetName(), info.GetDeviceType(), info.GetNodeId());
}

// Kinds 1 to 3 pass through; the service may grow kinds the library does not
// know, and those arrive as unknown.
DeviceInfoType MapChangeKind(int32_t value) {
    if (value >= DEVICE_INFO_TYPE_1 && value <= DEVICE_INFO_TYPE_3) {
        return static_cast<DeviceInfoType>(value);
    }
    TIVRA_LOGE("onDeviceInfoChanged: type is unknown");
    return DEVICE_INFO_TYPE_UNKNOWN;
}

// Online and offline take the same road: note the event, copy the record,
// call the listener.
android::binder::Status DeliverNode(const std::shared_ptr<DeviceListener>& listener, const char* event,
                                    void (DeviceListener::*call)(std::shared_ptr<NodeBasicInfo>),
                                    const NodeBasicInfoInner& info) {
    if (listener == nullptr) {
        TIVRA_LOGE("%s: listener is nullptr", event);
        return android::binder::Status::ok();
    }
    TIVRA_LOGI("%s", event);
    ((*listener).*call)(CopyRecord(info));
    return android::binder::Status::ok();
}

}  // namespace

TivraDeviceListener::TivraDeviceListener(const std::shared_ptr<DeviceListener>& listener) : listener_(listener) {}

TivraDeviceListener::~TivraDeviceListener() = default;

android::IBinder* TivraDeviceListener::onAsBinder() { return this; }

android::binder::Status TivraDeviceListener::onDeviceOnline(const NodeBasicInfoInner& info) {
    return DeliverNode(listener_, "onDeviceOnline", &DeviceListener::OnDeviceOnline, info);
}

android::binder::Status TivraDeviceListener::onDeviceOffline(const NodeBasicInfoInner& info) {
    return DeliverNode(listener_, "onDeviceOffline", &DeviceListener::OnDeviceOffline, info);
}

android::binder::Status TivraDeviceListener::onDeviceInfoChanged(const android::String16& nodeId,
                                                                 const DeviceInfoTypeInner& type) {
    if (listener_ == nullptr) {
        TIVRA_LOGE("onDeviceInfoChanged: listener is nullptr");
        return android::binder::Status::ok();
    }
    TIVRA_LOGI("onDeviceInfoChanged: type is %d", type.getValue());
    const DeviceInfoType kind = MapChangeKind(type.getValue());
    listener_->OnDeviceInfoChanged(com::solvane::pravik::deviceinfo::ToUtf8(nodeId), kind);
    return android::binder::Status::ok();
}

}  // namespace Communication
