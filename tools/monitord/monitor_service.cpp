#include "monitor_service.h"

#include <climits>

#include <utils/String8.h>

namespace tivra_monitord {
namespace {

using android::binder::Status;

constexpr uint32_t kAddDeviceChangeListener = 35;

std::string ToUtf8(const android::String16& text) { return std::string(android::String8(text).c_str()); }
android::String16 ToUtf16(const std::string& text) { return android::String16(text.c_str()); }

Status UnknownNode(const std::string& nodeId) {
    return Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, ("no node with id '" + nodeId + "'").c_str());
}

// The simulated network has nothing to connect to or verify.
Status NoConnections() {
    return Status::fromExceptionCode(Status::EX_UNSUPPORTED_OPERATION,
                                     "the simulated network does not connect or verify devices");
}

std::optional<std::string> ExtInfo(const NodeEntry& node, const std::string& key) {
    const auto found = node.extInfo.find(key);
    return found == node.extInfo.end() ? std::string() : found->second;
}

com::solvane::pravik::deviceinfo::DeviceInfoExternal ToRecord(const DeviceEntry& device) {
    return {device.name, device.id, device.type, device.ip};
}

com::solvane::pravik::deviceinfo::NodeBasicInfoInner ToRecord(const NodeEntry& node) {
    return {node.name, static_cast<Communication::DeviceType>(node.deviceType), node.nodeId};
}

}  // namespace

MonitorService::MonitorService(SimulatedNetwork& network, ListenerRegistry& listeners, FaultPlan& faults)
    : network_(network), listeners_(listeners), faults_(faults) {}

android::status_t MonitorService::onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                             uint32_t flags) {
    const std::optional<Fault> fault = faults_.OnCall(code);
    if (fault) {
        switch (fault->kind) {
            case Fault::Kind::Transport:
                return fault->code;
            case Fault::Kind::Exception: {
                const Status status = fault->code == Status::EX_SERVICE_SPECIFIC
                                          ? Status::fromServiceSpecificError(fault->serviceCode, fault->message.c_str())
                                          : Status::fromExceptionCode(fault->code, fault->message.c_str());
                return status.writeToParcel(reply);
            }
            case Fault::Kind::CorruptReply: {
                // An OK status, then a count or length that no reader accepts.
                const android::status_t status = Status::ok().writeToParcel(reply);
                return status != android::OK ? status : reply->writeInt32(INT32_MAX);
            }
            case Fault::Kind::Refuse:
                break;
        }
    }
    return BnDeviceMonitorService::onTransact(code, data, reply, flags);
}

Status MonitorService::AnswerNodeText(const String16& nodeId, String16* out,
                                      const std::function<std::optional<std::string>(const NodeEntry&)>& pick) {
    const std::string id = ToUtf8(nodeId);
    const std::optional<NodeEntry> node = network_.FindNode(id);
    if (!node) {
        return UnknownNode(id);
    }
    const std::optional<std::string> text = pick(*node);
    if (!text) {
        return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, ("node '" + id + "' has no such value").c_str());
    }
    *out = ToUtf16(*text);
    return Status::ok();
}

// Listener registration. Adding a binder twice keeps one registration;
// removing one that is not registered changes nothing.

Status MonitorService::addOnDeviceChangeListener(const DeviceChangeListener& listener) {
    listeners_.Add(listener);
    return Status::ok();
}

Status MonitorService::removeOnDeviceChangeListener(const DeviceChangeListener& listener) {
    listeners_.Remove(listener);
    return Status::ok();
}

Status MonitorService::addOnDeviceChangeListenerPassive(const DeviceChangeListener& listener) {
    return addOnDeviceChangeListener(listener);
}

Status MonitorService::removeOnDeviceChangeListenerPassive(const DeviceChangeListener& listener) {
    return removeOnDeviceChangeListener(listener);
}

Status MonitorService::addDeviceChangeListener(const DeviceListener& listener, bool* added) {
    *added = !faults_.TakeRefusal(kAddDeviceChangeListener) && listeners_.Add(listener);
    return Status::ok();
}

Status MonitorService::removeDeviceChangeListener(const DeviceListener& listener) {
    listeners_.Remove(listener);
    return Status::ok();
}

Status MonitorService::addDeviceChangeListenerPassive(const DeviceListener& listener) {
    listeners_.Add(listener);
    return Status::ok();
}

Status MonitorService::removeDeviceChangeListenerPassive(const DeviceListener& listener) {
    return removeDeviceChangeListener(listener);
}

// Devices.

Status MonitorService::getAllDevices(DeviceInfoExternalList* devices) {
    for (const DeviceEntry& device : network_.Devices()) {
        devices->AddDeviceInfoExternalToList(ToRecord(device));
    }
    return Status::ok();
}

Status MonitorService::getLocalDevice(DeviceInfoExternal* device) {
    *device = ToRecord(network_.LocalDevice());
    return Status::ok();
}

Status MonitorService::getNearFieldDevices(DeviceInfoExternalList* devices) {
    const std::string localId = network_.LocalDevice().id;
    for (const DeviceEntry& device : network_.Devices()) {
        if (device.id != localId) {
            devices->AddDeviceInfoExternalToList(ToRecord(device));
        }
    }
    return Status::ok();
}

Status MonitorService::getBatteryInfo(const String16& deviceId, int32_t* level) {
    const std::string id = ToUtf8(deviceId);
    for (const DeviceEntry& device : network_.Devices()) {
        if (device.id == id) {
            *level = 100;  // simulated devices are always charged
            return Status::ok();
        }
    }
    return Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, ("no device with id '" + id + "'").c_str());
}

Status MonitorService::flushDevice(const String16& /*deviceId*/, bool /*force*/, int32_t* result) {
    *result = 0;
    return Status::ok();
}

// Nodes.

Status MonitorService::getLocalBasicInfo(NodeBasicInfoInner* node) {
    *node = ToRecord(network_.LocalNode());
    return Status::ok();
}

Status MonitorService::getRemoteNodeBasicInfo(const String16& nodeId, NodeBasicInfoInner* node) {
    const std::string id = ToUtf8(nodeId);
    for (const NodeEntry& entry : network_.RemoteNodes()) {
        if (entry.nodeId == id) {
            *node = ToRecord(entry);
            return Status::ok();
        }
    }
    return UnknownNode(id);
}

Status MonitorService::getRemoteNodesBasicInfo(NodeBasicInfoList* nodes) {
    for (const NodeEntry& node : network_.RemoteNodes()) {
        nodes->AddNodeBasicInfoToList(ToRecord(node));
    }
    return Status::ok();
}

Status MonitorService::getNodeExtInfo(const String16& nodeId, const String16& key, String16* value) {
    const std::string name = ToUtf8(key);
    return AnswerNodeText(nodeId, value, [&name](const NodeEntry& node) { return ExtInfo(node, name); });
}

Status MonitorService::getNodeInfo(const String16& nodeId, const String16& key, String16* value) {
    return getNodeExtInfo(nodeId, key, value);
}

Status MonitorService::getUdidByNodeId(const String16& nodeId, String16* udid) {
    return AnswerNodeText(nodeId, udid, [](const NodeEntry& node) { return std::optional<std::string>(node.udid); });
}

Status MonitorService::getDeviceId(const String16& nodeId, String16* deviceId) {
    return getUdidByNodeId(nodeId, deviceId);
}

Status MonitorService::getUuidByNodeId(const String16& nodeId, String16* uuid) {
    return AnswerNodeText(nodeId, uuid, [](const NodeEntry& node) { return std::optional<std::string>(node.uuid); });
}

Status MonitorService::getVersionType(const String16& nodeId, String16* version) {
    return AnswerNodeText(nodeId, version, [](const NodeEntry& node) { return ExtInfo(node, "VERSION_TYPE"); });
}

Status MonitorService::getVistroDeviceMACByID(const String16& deviceId, String16* mac) {
    return AnswerNodeText(deviceId, mac, [](const NodeEntry& node) -> std::optional<std::string> {
        const auto found = node.extInfo.find("BR_MAC");
        return found == node.extInfo.end() ? std::nullopt : std::optional<std::string>(found->second);
    });
}

Status MonitorService::getVistroDeviceIDByMac(const String16& mac, String16* deviceId) {
    const std::string wanted = ToUtf8(mac);
    std::vector<NodeEntry> nodes = network_.RemoteNodes();
    nodes.push_back(network_.LocalNode());
    for (const NodeEntry& node : nodes) {
        const auto found = node.extInfo.find("BR_MAC");
        if (found != node.extInfo.end() && found->second == wanted) {
            *deviceId = ToUtf16(node.nodeId);
            return Status::ok();
        }
    }
    return Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, ("no node with MAC '" + wanted + "'").c_str());
}

// Settings and requests that the simulation accepts and keeps no state for.

Status MonitorService::getPeripherals(const String16& /*deviceId*/) { return Status::ok(); }
Status MonitorService::onDeviceFound(const String16& /*deviceId*/, int32_t /*state*/) { return Status::ok(); }
Status MonitorService::startDiscovery() { return Status::ok(); }
Status MonitorService::stopDiscovery() { return Status::ok(); }
Status MonitorService::setRequestFlag(bool /*flag*/) { return Status::ok(); }
Status MonitorService::deviceMonitorEnable(bool /*enable*/) { return Status::ok(); }
Status MonitorService::setDiscoveryMode(int32_t /*mode*/, int64_t /*duration*/) { return Status::ok(); }
Status MonitorService::getLocalNodeBasicInfo() { return Status::ok(); }
Status MonitorService::getNodeBasicInfo(const String16& /*nodeId*/) { return Status::ok(); }
Status MonitorService::getAllNodeBasicInfo() { return Status::ok(); }
Status MonitorService::getGroupNodeBasicInfo(int32_t /*group*/) { return Status::ok(); }
Status MonitorService::setTivraPolicy(int32_t /*policy*/, int64_t /*value*/) { return Status::ok(); }
Status MonitorService::triggerDeviceJoinNetworking() { return Status::ok(); }
Status MonitorService::triggerDeviceQuitNetworking() { return Status::ok(); }

Status MonitorService::setDistributedAbilityStatus(const String16& ability, bool enabled) {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    abilities_[ToUtf8(ability)] = enabled;
    return Status::ok();
}

Status MonitorService::isDistributedAbilityEnabled(const String16& ability, bool* enabled) {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    const auto found = abilities_.find(ToUtf8(ability));
    *enabled = found != abilities_.end() && found->second;
    return Status::ok();
}

Status MonitorService::connectDevice() { return NoConnections(); }
Status MonitorService::connectVerifiedDevice() { return NoConnections(); }
Status MonitorService::disconnectDevice() { return NoConnections(); }
Status MonitorService::verifyDevice() { return NoConnections(); }

}  // namespace tivra_monitord
