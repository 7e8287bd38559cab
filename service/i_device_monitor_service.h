#pragma once

#include "binder_frame.h"
#include "device_info_external.h"
#include "device_info_external_list.h"
#include "i_device_change_listener.h"
#include "i_device_listener.h"
#include "node_basic_info_inner.h"
#include "node_basic_info_list.h"

namespace com {
namespace solvane {
namespace pravik {
namespace service {

constexpr char kDeviceMonitorServiceDescriptor[] = "com.solvane.pravik.service.IDeviceMonitorService";

// The device monitor service: 44 two-way transactions, codes in row order.
#define TIVRA_DEVICE_MONITOR_SERVICE_TRANSACTIONS(X, C)                                                       \
    X(C, 1, addOnDeviceChangeListener, frame::kTwoWay,                                                        \
      (const android::sp<IDeviceChangeListener>& listener), (listener))                                       \
    X(C, 2, removeOnDeviceChangeListener, frame::kTwoWay,                                                     \
      (const android::sp<IDeviceChangeListener>& listener), (listener))                                       \
    X(C, 3, getAllDevices, frame::kTwoWay, (deviceinfo::DeviceInfoExternalList* devices), (devices))         \
    X(C, 4, getLocalDevice, frame::kTwoWay, (deviceinfo::DeviceInfoExternal* device), (device))              \
    X(C, 5, getPeripherals, frame::kTwoWay, (const android::String16& deviceId), (deviceId))                  \
    X(C, 6, onDeviceFound, frame::kTwoWay, (const android::String16& deviceId, int32_t state), (deviceId, state)) \
    X(C, 7, startDiscovery, frame::kTwoWay, (), ())                                                           \
    X(C, 8, stopDiscovery, frame::kTwoWay, (), ())                                                            \
    X(C, 9, setRequestFlag, frame::kTwoWay, (bool flag), (flag))                                              \
    X(C, 10, deviceMonitorEnable, frame::kTwoWay, (bool enable), (enable))                                    \
    X(C, 11, addOnDeviceChangeListenerPassive, frame::kTwoWay,                                                \
      (const android::sp<IDeviceChangeListener>& listener), (listener))                                       \
    X(C, 12, removeOnDeviceChangeListenerPassive, frame::kTwoWay,                                             \
      (const android::sp<IDeviceChangeListener>& listener), (listener))                                       \
    X(C, 13, getBatteryInfo, frame::kTwoWay, (const android::String16& deviceId, int32_t* level), (deviceId, level)) \
    X(C, 14, setDistributedAbilityStatus, frame::kTwoWay, (const android::String16& ability, bool enabled),  \
      (ability, enabled))                                                                                     \
    X(C, 15, isDistributedAbilityEnabled, frame::kTwoWay, (const android::String16& ability, bool* enabled), \
      (ability, enabled))                                                                                     \
    X(C, 16, setDiscoveryMode, frame::kTwoWay, (int32_t mode, int64_t duration), (mode, duration))           \
    X(C, 17, getVistroDeviceIDByMac, frame::kTwoWay, (const android::String16& mac, android::String16* deviceId), \
      (mac, deviceId))                                                                                        \
    X(C, 18, getVistroDeviceMACByID, frame::kTwoWay, (const android::String16& deviceId, android::String16* mac), \
      (deviceId, mac))                                                                                        \
    X(C, 19, flushDevice, frame::kTwoWay, (const android::String16& deviceId, bool force, int32_t* result),  \
      (deviceId, force, result))                                                                              \
    X(C, 20, getNearFieldDevices, frame::kTwoWay, (deviceinfo::DeviceInfoExternalList* devices), (devices))  \
    X(C, 21, getVersionType, frame::kTwoWay, (const android::String16& nodeId, android::String16* version),  \
      (nodeId, version))                                                                                      \
    X(C, 22, getLocalNodeBasicInfo, frame::kTwoWay, (), ())                                                   \
    X(C, 23, getNodeBasicInfo, frame::kTwoWay, (const android::String16& nodeId), (nodeId))                   \
    X(C, 24, getAllNodeBasicInfo, frame::kTwoWay, (), ())                                                     \
    X(C, 25, getDeviceId, frame::kTwoWay, (const android::String16& nodeId, android::String16* deviceId),    \
      (nodeId, deviceId))                                                                                     \
    X(C, 26, getGroupNodeBasicInfo, frame::kTwoWay, (int32_t group), (group))                                 \
    X(C, 27, getNodeInfo, frame::kTwoWay,                                                                     \
      (const android::String16& nodeId, const android::String16& key, android::String16* value),             \
      (nodeId, key, value))                                                                                   \
    X(C, 28, connectDevice, frame::kTwoWay, (), ())                                                           \
    X(C, 29, connectVerifiedDevice, frame::kTwoWay, (), ())                                                   \
    X(C, 30, disconnectDevice, frame::kTwoWay, (), ())                                                        \
    X(C, 31, verifyDevice, frame::kTwoWay, (), ())                                                            \
    X(C, 32, setTivraPolicy, frame::kTwoWay, (int32_t policy, int64_t value), (policy, value))               \
    X(C, 33, triggerDeviceJoinNetworking, frame::kTwoWay, (), ())                                             \
    X(C, 34, triggerDeviceQuitNetworking, frame::kTwoWay, (), ())                                             \
    X(C, 35, addDeviceChangeListener, frame::kTwoWay,                                                         \
      (const android::sp<IDeviceListener>& listener, bool* added), (listener, added))                         \
    X(C, 36, removeDeviceChangeListener, frame::kTwoWay, (const android::sp<IDeviceListener>& listener),     \
      (listener))                                                                                             \
    X(C, 37, addDeviceChangeListenerPassive, frame::kTwoWay, (const android::sp<IDeviceListener>& listener), \
      (listener))                                                                                             \
    X(C, 38, removeDeviceChangeListenerPassive, frame::kTwoWay,                                               \
      (const android::sp<IDeviceListener>& listener), (listener))                                             \
    X(C, 39, getLocalBasicInfo, frame::kTwoWay, (deviceinfo::NodeBasicInfoInner* node), (node))              \
    X(C, 40, getRemoteNodeBasicInfo, frame::kTwoWay,                                                          \
      (const android::String16& nodeId, deviceinfo::NodeBasicInfoInner* node), (nodeId, node))               \
    X(C, 41, getRemoteNodesBasicInfo, frame::kTwoWay, (deviceinfo::NodeBasicInfoList* nodes), (nodes))       \
    X(C, 42, getNodeExtInfo, frame::kTwoWay,                                                                  \
      (const android::String16& nodeId, const android::String16& key, android::String16* value),             \
      (nodeId, key, value))                                                                                   \
    X(C, 43, getUdidByNodeId, frame::kTwoWay, (const android::String16& nodeId, android::String16* udid),    \
      (nodeId, udid))                                                                                         \
    X(C, 44, getUuidByNodeId, frame::kTwoWay, (const android::String16& nodeId, android::String16* uuid),    \
      (nodeId, uuid))

TIVRA_FRAME_DECLARE_INTERFACE(DeviceMonitorService, TIVRA_DEVICE_MONITOR_SERVICE_TRANSACTIONS)

}  // namespace service
}  // namespace pravik
}  // namespace solvane
}  // namespace com
