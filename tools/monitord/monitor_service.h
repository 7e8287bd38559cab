#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "fault_plan.h"
#include "i_device_monitor_service.h"
#include "listener_registry.h"
#include "simulated_network.h"

namespace tivra_monitord {

// The device monitor service over the simulated network. Every call is
// counted and may be turned into a fault by the control interface before the
// stub dispatches it.
class MonitorService : public com::solvane::pravik::service::BnDeviceMonitorService {
public:
    MonitorService(SimulatedNetwork& network, ListenerRegistry& listeners, FaultPlan& faults);

    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;

    using Status = android::binder::Status;
    using String16 = android::String16;
    using DeviceChangeListener = android::sp<com::solvane::pravik::service::IDeviceChangeListener>;
    using DeviceListener = android::sp<com::solvane::pravik::service::IDeviceListener>;
    using DeviceInfoExternal = com::solvane::pravik::deviceinfo::DeviceInfoExternal;
    using DeviceInfoExternalList = com::solvane::pravik::deviceinfo::DeviceInfoExternalList;
    using NodeBasicInfoInner = com::solvane::pravik::deviceinfo::NodeBasicInfoInner;
    using NodeBasicInfoList = com::solvane::pravik::deviceinfo::NodeBasicInfoList;

    Status addOnDeviceChangeListener(const DeviceChangeListener& listener) override;
    Status removeOnDeviceChangeListener(const DeviceChangeListener& listener) override;
    Status getAllDevices(DeviceInfoExternalList* devices) override;
    Status getLocalDevice(DeviceInfoExternal* device) override;
    Status getPeripherals(const String16& deviceId) override;
    Status onDeviceFound(const String16& deviceId, int32_t state) override;
    Status startDiscovery() override;
    Status stopDiscovery() override;
    Status setRequestFlag(bool flag) override;
    Status deviceMonitorEnable(bool enable) override;
    Status addOnDeviceChangeListenerPassive(const DeviceChangeListener& listener) override;
    Status removeOnDeviceChangeListenerPassive(const DeviceChangeListener& listener) override;
    Status getBatteryInfo(const String16& deviceId, int32_t* level) override;
    Status setDistributedAbilityStatus(const String16& ability, bool enabled) override;
    Status isDistributedAbilityEnabled(const String16& ability, bool* enabled) override;
    Status setDiscoveryMode(int32_t mode, int64_t duration) override;
    Status getVistroDeviceIDByMac(const String16& mac, String16* deviceId) override;
    Status getVistroDeviceMACByID(const String16& deviceId, String16* mac) override;
    Status flushDevice(const String16& deviceId, bool force, int32_t* result) override;
    Status getNearFieldDevices(DeviceInfoExternalList* devices) override;
    Status getVersionType(const String16& nodeId, String16* version) override;
    Status getLocalNodeBasicInfo() override;
    Status getNodeBasicInfo(const String16& nodeId) override;
    Status getAllNodeBasicInfo() override;
    Status getDeviceId(const String16& nodeId, String16* deviceId) override;
    Status getGroupNodeBasicInfo(int32_t group) override;
    Status getNodeInfo(const String16& nodeId, const String16& key, String16* value) override;
    Status connectDevice() override;
    Status connectVerifiedDevice() override;
    Status disconnectDevice() override;
    Status verifyDevice() override;
    Status setTivraPolicy(int32_t policy, int64_t value) override;
    Status triggerDeviceJoinNetworking() override;
    Status triggerDeviceQuitNetworking() override;
    Status addDeviceChangeListener(const DeviceListener& listener, bool* added) override;
    Status removeDeviceChangeListener(const DeviceListener& listener) override;
    Status addDeviceChangeListenerPassive(const DeviceListener& listener) override;
    Status removeDeviceChangeListenerPassive(const DeviceListener& listener) override;
    Status getLocalBasicInfo(NodeBasicInfoInner* node) override;
    Status getRemoteNodeBasicInfo(const String16& nodeId, NodeBasicInfoInner* node) override;
    Status getRemoteNodesBasicInfo(NodeBasicInfoList* nodes) override;
    Status getNodeExtInfo(const String16& nodeId, const String16& key, String16* value) override;
    Status getUdidByNodeId(const String16& nodeId, String16* udid) override;
    Status getUuidByNodeId(const String16& nodeId, String16* uuid) override;

private:
    // Looks a node up (local or remote) and answers with one of its texts,
    // or EX_ILLEGAL_ARGUMENT naming the unknown node.
    Status AnswerNodeText(const String16& nodeId, String16* out,
                          const std::function<std::optional<std::string>(const NodeEntry&)>& pick);

    SimulatedNetwork& network_;
    ListenerRegistry& listeners_;
    FaultPlan& faults_;

    // Settings that clients may set and read back; nothing else depends on them.
    std::mutex settingsMutex_;
    std::map<std::string, bool> abilities_;
};

}  // namespace tivra_monitord
