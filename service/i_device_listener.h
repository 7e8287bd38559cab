#pragma once

#include "binder_frame.h"
#include "device_info_type_inner.h"
#include "node_basic_info_inner.h"

namespace com {
namespace solvane {
namespace pravik {
namespace service {

constexpr char kDeviceListenerDescriptor[] = "com.solvane.pravik.service.IDeviceListener";

// A node came online, went offline or changed; one-way calls from the service.
#define TIVRA_DEVICE_LISTENER_TRANSACTIONS(X, C)                                                         \
    X(C, 1, onDeviceOnline, frame::kOneWay, (const deviceinfo::NodeBasicInfoInner& nodeInfo), (nodeInfo))  \
    X(C, 2, onDeviceOffline, frame::kOneWay, (const deviceinfo::NodeBasicInfoInner& nodeInfo), (nodeInfo)) \
    X(C, 3, onDeviceInfoChanged, frame::kOneWay,                                                         \
      (const android::String16& nodeId, const deviceinfo::DeviceInfoTypeInner& type), (nodeId, type))

TIVRA_FRAME_DECLARE_INTERFACE(DeviceListener, TIVRA_DEVICE_LISTENER_TRANSACTIONS)

}  // namespace service
}  // namespace pravik
}  // namespace solvane
}  // namespace com
