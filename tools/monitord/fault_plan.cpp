#include "fault_plan.h"

#include <algorithm>
#include <iterator>

namespace tivra_monitord {
namespace {

// Index = transaction code of the service interface.
const char* const kMethodNames[kMethodCount + 1] = {
    nullptr,
    "addOnDeviceChangeListener", "removeOnDeviceChangeListener", "getAllDevices", "getLocalDevice",
    "getPeripherals", "onDeviceFound", "startDiscovery", "stopDiscovery", "setRequestFlag",
    "deviceMonitorEnable", "addOnDeviceChangeListenerPassive", "removeOnDeviceChangeListenerPassive",
    "getBatteryInfo", "setDistributedAbilityStatus", "isDistributedAbilityEnabled", "setDiscoveryMode",
    "getVistroDeviceIDByMac", "getVistroDeviceMACByID", "flushDevice", "getNearFieldDevices",
    "getVersionType", "getLocalNodeBasicInfo", "getNodeBasicInfo", "getAllNodeBasicInfo", "getDeviceId",
    "getGroupNodeBasicInfo", "getNodeInfo", "connectDevice", "connectVerifiedDevice", "disconnectDevice",
    "verifyDevice", "setTivraPolicy", "triggerDeviceJoinNetworking", "triggerDeviceQuitNetworking",
    "addDeviceChangeListener", "removeDeviceChangeListener", "addDeviceChangeListenerPassive",
    "removeDeviceChangeListenerPassive", "getLocalBasicInfo", "getRemoteNodeBasicInfo",
    "getRemoteNodesBasicInfo", "getNodeExtInfo", "getUdidByNodeId", "getUuidByNodeId",
};

}  // namespace

const char* MethodName(uint32_t code) { return code >= 1 && code <= kMethodCount ? kMethodNames[code] : nullptr; }

uint32_t MethodCode(const std::string& name) {
    for (uint32_t code = 1; code <= kMethodCount; ++code) {
        if (name == kMethodNames[code]) {
            return code;
        }
    }
    return 0;
}

void FaultPlan::Set(uint32_t code, const Fault& fault) {
    std::lock_guard<std::mutex> lock(mutex_);
    faults_.at(code) = fault;
}

void FaultPlan::ClearAll() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::fill(faults_.begin(), faults_.end(), std::nullopt);
}

template <typename Wanted>
std::optional<Fault> FaultPlan::Take(uint32_t code, Wanted wanted) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::optional<Fault>& fault = faults_[code];
    if (!fault || !wanted(*fault)) {
        return std::nullopt;
    }
    const Fault applied = *fault;
    if (fault->times == 1) {
        fault.reset();
    } else if (fault->times > 1) {
        --fault->times;
    }
    return applied;
}

std::optional<Fault> FaultPlan::OnCall(uint32_t code) {
    if (code > kMethodCount) {
        return std::nullopt;
    }
    calls_[code].fetch_add(1, std::memory_order_relaxed);
    return Take(code, [](const Fault& fault) { return fault.kind != Fault::Kind::Refuse; });
}

bool FaultPlan::TakeRefusal(uint32_t code) {
    return code <= kMethodCount &&
           Take(code, [](const Fault& fault) { return fault.kind == Fault::Kind::Refuse; }).has_value();
}

uint64_t FaultPlan::CallCount(uint32_t code) const {
    return code <= kMethodCount ? calls_[code].load(std::memory_order_relaxed) : 0;
}

}  // namespace tivra_monitord
