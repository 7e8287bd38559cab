#pragma once

#include "binder_frame.h"
#include "device_info_external.h"

namespace com {
namespace solvane {
namespace pravik {
namespace service {

constexpr char kDeviceChangeListenerDescriptor[] = "com.solvane.pravik.service.IDeviceChangeListener";

// A device came online or went offline; one-way calls from the service.
#define TIVRA_DEVICE_CHANGE_LISTENER_TRANSACTIONS(X, C)                                                    \
    X(C, 1, onDeviceOnline, frame::kOneWay, (const deviceinfo::DeviceInfoExternal& deviceInfo), (deviceInfo)) \
    X(C, 2, onDeviceOffline, frame::kOneWay, (const deviceinfo::DeviceInfoExternal& deviceInfo), (deviceInfo))

TIVRA_FRAME_DECLARE_INTERFACE(DeviceChangeListener, TIVRA_DEVICE_CHANGE_LISTENER_TRANSACTIONS)

}  // namespace service
}  // namespace pravik
}  // namespace solvane
}  // namespace com
