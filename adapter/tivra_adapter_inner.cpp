#include "tivra_adapter_inner.h"

#include <binder/IInterface.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <utils/String16.h>

#include "device_info_external_list.h"
#include "node_basic_info_list.h"
#include "text_conversion.h"
#include "tivra_log.h"

namespace Communication {
namespace {

using com::solvane::pravik::deviceinfo::DeviceInfoExternal;
using com::solvane::pravik::deviceinfo::DeviceInfoExternalList;
using com::solvane::pravik::deviceinfo::NodeBasicInfoInner;
using com::solvane::pravik::deviceinfo::NodeBasicInfoList;
using com::solvane::pravik::deviceinfo::ToString16;
using com::solvane::pravik::deviceinfo::ToUtf8;
using com::solvane::pravik::service::IDeviceChangeListener;
using com::solvane::pravik::service::IDeviceListener;
using com::solvane::pravik::service::IDeviceMonitorService;

const char* const kServiceName = "PravikDeviceMonitorService";

void LogServiceFailed(const char* operation) { TIVRA_LOGE("%s: get pravik service failed", operation); }

}  // namespace

TivraAdapterInner::TivraAdapterInner() { Init(); }

TivraAdapterInner::~TivraAdapterInner() {
    // No lock and no remote call: this runs at process exit, possibly after
    // the mutexes and the service are gone.
    listenerMap_.clear();
    deathNotifierMap_.clear();
    deviceListenerMap_.clear();
    serviceDeathNotifier_.clear();
    pravikService_.clear();
}

void TivraAdapterInner::Init() { android::ProcessState::self()->startThreadPool(); }

android::sp<IDeviceMonitorService> TivraAdapterInner::InitPravikService() {
    std::lock_guard<std::mutex> lock(serviceInitMutex_);
    if (pravikService_ != nullptr) {
        return pravikService_;
    }
    const android::sp<android::IBinder> binder =
        android::defaultServiceManager()->checkService(android::String16(kServiceName));
    if (binder == nullptr) {
        return nullptr;
    }
    serviceDeathNotifier_ = new TivraDeathNotifierInner(nullptr, this);
    if (binder->linkToDeath(serviceDeathNotifier_, nullptr, 0) != android::NO_ERROR) {
        return nullptr;
    }
    pravikService_ = IDeviceMonitorService::asInterface(binder);
    return pravikService_;
}

void TivraAdapterInner::ForgetDeadService(const std::shared_ptr<TivraDeathNotifier>& notifier) {
    // The registries are emptied under their locks but destroyed after: the
    // last reference to a client's listener may go with them, and its
    // destructor is client code, which never runs under an adapter lock.
    decltype(listenerMap_) droppedListeners;
    {
        std::lock_guard<std::mutex> lock(listenerMapMutex_);
        droppedListeners.swap(listenerMap_);
    }
    decltype(deviceListenerMap_) droppedDeviceListeners;
    {
        std::lock_guard<std::mutex> lock(deviceListenerMapMutex_);
        droppedDeviceListeners.swap(deviceListenerMap_);
    }
    {
        std::lock_guard<std::mutex> lock(serviceInitMutex_);
        pravikService_.clear();
    }
    if (notifier != nullptr) {
        std::lock_guard<std::mutex> lock(deathNotifierMapMutex_);
        deathNotifierMap_.erase(notifier);
    }
}

// Device change callbacks.

bool TivraAdapterInner::RegisterCallback(std::shared_ptr<TivraListener> listener) {
    const Service service = InitPravikService();
    if (service == nullptr) {
        LogServiceFailed("RegisterCallback");
        return false;
    }
    if (listener == nullptr) {
        TIVRA_LOGE("register callback is null pointer");
        return false;
    }
    std::lock_guard<std::mutex> lock(listenerMapMutex_);
    if (listenerMap_.count(listener) != 0) {
        TIVRA_LOGE("the listener has already registed");
        return false;
    }
    const android::sp<TivraListenerInner> wrapper = new TivraListenerInner(listener);
    if (!service->addOnDeviceChangeListener(wrapper).isOk()) {
        TIVRA_LOGE("register callback binder invoke failed");
        return false;
    }
    return listenerMap_.emplace(listener, wrapper).second;
}

bool TivraAdapterInner::UnregisterCallback(std::shared_ptr<TivraListener> listener) {
    const Service service = InitPravikService();
    if (service == nullptr) {
        LogServiceFailed("UnregisterCallback");
        return false;
    }
    if (listener == nullptr) {
        TIVRA_LOGE("unregister callback is null pointer");
        return false;
    }
    std::lock_guard<std::mutex> lock(listenerMapMutex_);
    const auto entry = listenerMap_.find(listener);
    if (entry == listenerMap_.end()) {
        TIVRA_LOGE("the listener do not register yet");
        return false;
    }
    const android::sp<TivraListenerInner> wrapper = entry->second;
    if (!service->removeOnDeviceChangeListener(wrapper).isOk()) {
        TIVRA_LOGE("unregister callback binder invoke failed");
        return false;
    }
    listenerMap_.erase(listener);
    return true;
}

// Device queries.

std::shared_ptr<TivraDeviceInfo> TivraAdapterInner::GetLocalDevice(int& errCode) {
    const Service service = InitPravikService();
    if (service == nullptr) {
        LogServiceFailed("GetLocalDevice");
        errCode = TIVRA_ERR_SERVICE_UNAVAILABLE;
        return nullptr;
    }
    auto device = std::make_shared<DeviceInfoExternal>();
    if (!service->getLocalDevice(device.get()).isOk()) {
        TIVRA_LOGE("get local device info binder invoke failed");
        errCode = TIVRA_ERR_CALL_FAILED;
        return nullptr;
    }
    errCode = TIVRA_ERR_OK;
    return device;
}

std::vector<std::shared_ptr<TivraDeviceInfo>> TivraAdapterInner::GetAllDevices(int& errCode) {
    std::vector<std::shared_ptr<TivraDeviceInfo>> devices;
    const Service service = InitPravikService();
    if (service == nullptr) {
        LogServiceFailed("GetAllDevices");
        errCode = TIVRA_ERR_SERVICE_UNAVAILABLE;
        return devices;
    }
    DeviceInfoExternalList list;
    if (!service->getAllDevices(&list).isOk()) {
        TIVRA_LOGE("get all same count device info binder invoke failed");
        errCode = TIVRA_ERR_CALL_FAILED;
        return devices;
    }
    const std::vector<DeviceInfoExternal> records = list.GetDeviceInfoExternalList();
    devices.reserve(records.size());
    for (const DeviceInfoExternal& record : records) {
        devices.push_back(std::make_shared<DeviceInfoExternal>(record.GetDeviceName(), record.GetDeviceId(),
                                                               record.GetDeviceType(), record.GetDeviceIp()));
    }
    errCode = TIVRA_ERR_OK;
    return devices;
}

// Death notifiers.

bool TivraAdapterInner::LinkToDeath(std::shared_ptr<TivraDeathNotifier> notifier) {
    const Service service = InitPravikService();
    if (service == nullptr) {
        LogServiceFailed("LinkToDeath");
        return false;
    }
    if (notifier == nullptr) {
        TIVRA_LOGE("link to death is null pointer");
        return false;
    }
    std::lock_guard<std::mutex> lock(deathNotifierMapMutex_);
    if (deathNotifierMap_.count(notifier) != 0) {
        TIVRA_LOGE("the notifier has already linked to death");
        return false;
    }
    const android::sp<TivraDeathNotifierInner> recipient = new TivraDeathNotifierInner(notifier, this);
    if (android::IInterface::asBinder(service)->linkToDeath(recipient, nullptr, 0) != android::NO_ERROR) {
        TIVRA_LOGE("failed to linkToDeath");
        return false;
    }
    return deathNotifierMap_.emplace(notifier, recipient).second;
}

bool TivraAdapterInner::UnlinkToDeath(std::shared_ptr<TivraDeathNotifier> notifier) {
    const Service service = InitPravikService();
    if (service == nullptr) {
        LogServiceFailed("UnlinkToDeath");
        return false;
    }
    if (notifier == nullptr) {
        TIVRA_LOGE("unlink to death is null pointer");
        return false;
    }
    std::lock_guard<std::mutex> lock(deathNotifierMapMutex_);
    const auto entry = deathNotifierMap_.find(notifier);
    if (entry == deathNotifierMap_.end()) {
        TIVRA_LOGE("the notifier do not link to death yet");
        return false;
    }
    const android::sp<TivraDeathNotifierInner> recipient = entry->second;
    if (android::IInterface::asBinder(service)->unlinkToDeath(recipient, nullptr, 0, nullptr) != android::NO_ERROR) {
        TIVRA_LOGE("failed to unlinkToDeath");
        return false;
    }
    deathNotifierMap_.erase(notifier);
    return true;
}

// Node change listeners.

bool TivraAdapterInner::AddDeviceChangeListener(const std::shared_ptr<DeviceListener>& listener) {
    if (listener == nullptr) {
        TIVRA_LOGE("AddDeviceChangeListener: listener is nullptr");
        return false;
    }
    const Service service = InitPravikService();
    if (service == nullptr) {
        TIVRA_LOGE("AddDeviceChangeListener: get pravik service failed");
        return false;
    }
    std::lock_guard<std::mutex> lock(deviceListenerMapMutex_);
    if (deviceListenerMap_.count(listener) != 0) {
        TIVRA_LOGE("AddDeviceChangeListener: the listener has already been added to remote service");
        return false;
    }
    const android::sp<TivraDeviceListener> wrapper = new TivraDeviceListener(listener);
    bool added = false;
    if (!service->addDeviceChangeListener(wrapper, &added).isOk()) {
        TIVRA_LOGE("AddDeviceChangeListener: add device change listener binder invoke failed");
        return false;
    }
    if (!added) {
        TIVRA_LOGE("AddDeviceChangeListener: service add listener failed");
        return false;
    }
    return deviceListenerMap_.emplace(listener, wrapper).second;
}

void TivraAdapterInner::RemoveDeviceChangeListener(const std::shared_ptr<DeviceListener>& listener) {
    if (listener == nullptr) {
        TIVRA_LOGE("RemoveDeviceChangeListener: listener is nullptr");
        return;
    }
    const Service service = InitPravikService();
    if (service == nullptr) {
        TIVRA_LOGE("RemoveDeviceChangeListener: get pravik service failed");
        return;
    }
    std::lock_guard<std::mutex> lock(deviceListenerMapMutex_);
    const auto entry = deviceListenerMap_.find(listener);
    if (entry == deviceListenerMap_.end()) {
        TIVRA_LOGE("RemoveDeviceChangeListener: the listener has not been added to remote service yet");
        return;
    }
    const android::sp<TivraDeviceListener> wrapper = entry->second;
    if (!service->removeDeviceChangeListener(wrapper).isOk()) {
        TIVRA_LOGE("RemoveDeviceChangeListener: remove device change listener binder invoke failed");
        return;
    }
    deviceListenerMap_.erase(listener);
}

// Node queries.

bool TivraAdapterInner::CallService(const char* serviceFailed, const char* callFailed, const ServiceCall& call) {
    const Service service = InitPravikService();
    if (service == nullptr) {
        TIVRA_LOGE("%s", serviceFailed);
        return false;
    }
    if (!call(service).isOk()) {
        TIVRA_LOGE("%s", callFailed);
        return false;
    }
    return true;
}

std::string TivraAdapterInner::QueryString(bool argumentsPresent, const char* argumentsEmpty,
                                           const char* serviceFailed, const char* callFailed,
                                           const StringCall& call) {
    if (!argumentsPresent) {
        TIVRA_LOGE("%s", argumentsEmpty);
        return std::string();
    }
    android::String16 value;
    const bool ok = CallService(serviceFailed, callFailed,
                                [&call, &value](const Service& service) { return call(service, &value); });
    return ok ? ToUtf8(value) : std::string();
}

std::shared_ptr<NodeBasicInfo> TivraAdapterInner::GetLocalBasicInfo() {
    auto node = std::make_shared<NodeBasicInfoInner>();
    const bool ok = CallService("GetLocalBasicInfo: get pravik service failed",
                                "GetLocalBasicInfo: get local node basic info binder invoke failed",
                                [&node](const Service& service) { return service->getLocalBasicInfo(node.get()); });
    return ok ? node : nullptr;
}

std::shared_ptr<NodeBasicInfo> TivraAdapterInner::GetRemoteNodeBasicInfo(const std::string& nodeId) {
    if (nodeId.empty()) {
        TIVRA_LOGE("GetRemoteNodeBasicInfo: nodeId is empty");
        return nullptr;
    }
    auto node = std::make_shared<NodeBasicInfoInner>();
    const bool ok = CallService(
        "getRemoteNodeBasicInfo: get pravik service failed",
        "getRemoteNodeBasicInfo: get remote node basic info by nodeId binder invoke failed",
        [&](const Service& service) { return service->getRemoteNodeBasicInfo(ToString16(nodeId), node.get()); });
    return ok ? node : nullptr;
}

std::list<std::shared_ptr<NodeBasicInfo>> TivraAdapterInner::GetRemoteNodesBasicInfo() {
    std::list<std::shared_ptr<NodeBasicInfo>> nodes;
    NodeBasicInfoList list;
    const bool ok =
        CallService("getRemoteNodesBasicInfo: get pravik service failed",
                    "getRemoteNodesBasicInfo: get remote nodes basic info list binder invoke failed",
                    [&list](const Service& service) { return service->getRemoteNodesBasicInfo(&list); });
    if (!ok) {
        return nodes;
    }
    for (const NodeBasicInfoInner& record : list.GetNodeBasicInfoList()) {
        nodes.push_back(
            std::make_shared<NodeBasicInfoInner>(record.GetName(), record.GetDeviceType(), record.GetNodeId()));
    }
    return nodes;
}

std::string TivraAdapterInner::GetNodeExtInfo(const std::string& nodeId, const std::string& key) {
    return QueryString(!nodeId.empty() && !key.empty(), "GetNodeExtInfo: nodeId or key is empty",
                       "GetNodeExtInfo: get pravik service failed",
                       "GetNodeExtInfo: get node extinfo binder invoke failed",
                       [&](const Service& service, android::String16* value) {
                           return service->getNodeExtInfo(ToString16(nodeId), ToString16(key), value);
                       });
}

std::string TivraAdapterInner::GetUdidByNodeId(const std::string& nodeId) {
    return QueryString(!nodeId.empty(), "GetUdidByNodeId: nodeId is empty",
                       "GetUdidByNodeId: get pravik service failed",
                       "GetUdidByNodeId: get udid by nodeId binder invoke failed",
                       [&](const Service& service, android::String16* value) {
                           return service->getUdidByNodeId(ToString16(nodeId), value);
                       });
}

std::string TivraAdapterInner::GetUuidByNodeId(const std::string& nodeId) {
    return QueryString(!nodeId.empty(), "GetUuidByNodeId: nodeId is empty",
                       "GetUuidByNodeId: get pravik service failed",
                       "GetUuidByNodeId: get uuid by nodeId binder invoke failed",
                       [&](const Service& service, android::String16* value) {
                           return service->getUuidByNodeId(ToString16(nodeId), value);
                       });
}

}  // namespace Communication
