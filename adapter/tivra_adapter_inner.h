#pragma once

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <binder/Status.h>
#include <utils/StrongPointer.h>

#include "i_device_monitor_service.h"
#include "tivra/tivra_adapter.h"
#include "tivra_death_notifier_inner.h"
#include "tivra_device_listener.h"
#include "tivra_listener_inner.h"

namespace Communication {

// The adapter: a cached proxy of the device monitor service, looked up on
// first use and again after each death, and three registries of client
// objects. No two of its mutexes are ever held at once, and none while client
// code runs.
class TivraAdapterInner : public TivraAdapter {
public:
    TivraAdapterInner();
    ~TivraAdapterInner() override;

    void Init();
    android::sp<com::solvane::pravik::service::IDeviceMonitorService> InitPravikService();


    bool RegisterCallback(std::shared_ptr<TivraListener> listener) override;
    bool UnregisterCallback(std::shared_ptr<TivraListener> listener) override;
    std::shared_ptr<TivraDeviceInfo> GetLocalDevice(int& errCode) override;
    std::vector<std::shared_ptr<TivraDeviceInfo>> GetAllDevices(int& errCode) override;
    bool LinkToDeath(std::shared_ptr<TivraDeathNotifier> notifier) override;
    bool UnlinkToDeath(std::shared_ptr<TivraDeathNotifier> notifier) override;
    bool AddDeviceChangeListener(const std::shared_ptr<DeviceListener>& listener) override;
    void RemoveDeviceChangeListener(const std::shared_ptr<DeviceListener>& listener) override;
    std::shared_ptr<NodeBasicInfo> GetLocalBasicInfo() override;
    std::shared_ptr<NodeBasicInfo> GetRemoteNodeBasicInfo(const std::string& nodeId) override;
    std::list<std::shared_ptr<NodeBasicInfo>> GetRemoteNodesBasicInfo() override;
    std::string GetNodeExtInfo(const std::string& nodeId, const std::string& key) override;
    std::string GetUdidByNodeId(const std::string& nodeId) override;
    std::string GetUuidByNodeId(const std::string& nodeId) override;

    // Called by every recipient linked to the dead service: drops both listener
    // registries and the proxy, and the entry of `notifier` if it has one.
    void ForgetDeadService(const std::shared_ptr<TivraDeathNotifier>& notifier);

private:
    using Service = android::sp<com::solvane::pravik::service::IDeviceMonitorService>;
    using ServiceCall = std::function<android::binder::Status(const Service&)>;
    using StringCall = std::function<android::binder::Status(const Service&, android::String16*)>;

    // One service call of a node query: looks the service up, calls it, and
    // logs the matching message on failure. True only when the call succeeded.
    bool CallService(const char* serviceFailed, const char* callFailed, const ServiceCall& call);
    // The string queries: argument check, one call, UTF-8 result.
    std::string QueryString(bool argumentsPresent, const char* argumentsEmpty, const char* serviceFailed,
                            const char* callFailed, const StringCall& call);

    std::map<std::shared_ptr<TivraListener>, android::sp<TivraListenerInner>> listenerMap_;
    std::map<std::shared_ptr<TivraDeathNotifier>, android::sp<TivraDeathNotifierInner>> deathNotifierMap_;
    std::map<std::shared_ptr<DeviceListener>, android::sp<TivraDeviceListener>> deviceListenerMap_;
    Service pravikService_;
    android::sp<TivraDeathNotifierInner> serviceDeathNotifier_;

    static std::mutex listenerMapMutex_;
    static std::mutex deathNotifierMapMutex_;
    static std::mutex serviceInitMutex_;
    static std::mutex deviceListenerMapMutex_;
};

}  // namespace Communication
