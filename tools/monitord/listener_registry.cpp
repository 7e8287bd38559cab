#include "listener_registry.h"

#include <vector>

#include <binder/IInterface.h>
#include <utils/String16.h>

#include "device_info_external.h"
#include "device_info_type_inner.h"
#include "node_basic_info_inner.h"

namespace tivra_monitord {
namespace {

using com::solvane::pravik::deviceinfo::DeviceInfoExternal;
using com::solvane::pravik::deviceinfo::DeviceInfoTypeInner;
using com::solvane::pravik::deviceinfo::NodeBasicInfoInner;

DeviceInfoExternal ToRecord(const DeviceEntry& device) {
    return DeviceInfoExternal(device.name, device.id, device.type, device.ip);
}

// Any code goes on the wire as it is, so a scenario can send codes the client
// does not know.
NodeBasicInfoInner ToRecord(const NodeEntry& node) {
    return NodeBasicInfoInner(node.name, static_cast<Communication::DeviceType>(node.deviceType), node.nodeId);
}

template <typename Map>
auto Snapshot(std::mutex& mutex, const Map& map) {
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<typename Map::mapped_type> listeners;
    listeners.reserve(map.size());
    for (const auto& entry : map) listeners.push_back(entry.second);
    return listeners;
}

}  // namespace

class ListenerRegistry::DeathWatcher : public android::IBinder::DeathRecipient {
public:
    explicit DeathWatcher(ListenerRegistry* registry) : registry_(registry) {}
    void binderDied(const android::wp<android::IBinder>& who) override { registry_->Forget(who.unsafe_get()); }

private:
    // The registry unlinks nothing at exit but outlives the Binder threads'
    // use of it: both live until the process ends.
    ListenerRegistry* registry_;
};

ListenerRegistry::ListenerRegistry() : deathWatcher_(new DeathWatcher(this)) {}

ListenerRegistry::~ListenerRegistry() = default;

template <typename Map, typename Listener>
bool ListenerRegistry::AddTo(Map& map, const Listener& listener) {
    const android::sp<android::IBinder> binder = android::IInterface::asBinder(listener);
    if (binder == nullptr) {
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (map.count(binder.get()) != 0) {
        return false;
    }
    // A listener in this very process has no death to watch.
    if (binder->remoteBinder() != nullptr && binder->linkToDeath(deathWatcher_) != android::OK) {
        return false;
    }
    map.emplace(binder.get(), listener);
    return true;
}

template <typename Map, typename Listener>
bool ListenerRegistry::RemoveFrom(Map& map, const Listener& listener) {
    const android::sp<android::IBinder> binder = android::IInterface::asBinder(listener);
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = map.find(binder.get());
    if (found == map.end()) {
        return false;
    }
    if (binder->remoteBinder() != nullptr) {
        binder->unlinkToDeath(deathWatcher_);
    }
    map.erase(found);
    return true;
}

bool ListenerRegistry::Add(const DeviceChangeListener& listener) { return AddTo(deviceChangeListeners_, listener); }
bool ListenerRegistry::Add(const DeviceListener& listener) { return AddTo(deviceListeners_, listener); }
bool ListenerRegistry::Remove(const DeviceChangeListener& listener) {
    return RemoveFrom(deviceChangeListeners_, listener);
}
bool ListenerRegistry::Remove(const DeviceListener& listener) { return RemoveFrom(deviceListeners_, listener); }

void ListenerRegistry::Forget(const android::IBinder* binder) {
    std::lock_guard<std::mutex> lock(mutex_);
    deviceChangeListeners_.erase(binder);
    deviceListeners_.erase(binder);
}

size_t ListenerRegistry::DeviceChangeListenerCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return deviceChangeListeners_.size();
}

size_t ListenerRegistry::DeviceListenerCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return deviceListeners_.size();
}

size_t ListenerRegistry::Deliver(const TimelineEvent& event) const {
    switch (event.kind) {
        case EventKind::DeviceOnline:
        case EventKind::DeviceOffline: {
            const DeviceInfoExternal record = ToRecord(event.device);
            const auto listeners = Snapshot(mutex_, deviceChangeListeners_);
            for (const auto& listener : listeners) {
                event.kind == EventKind::DeviceOnline ? listener->onDeviceOnline(record)
                                                      : listener->onDeviceOffline(record);
            }
            return listeners.size();
        }
        case EventKind::NodeOnline:
        case EventKind::NodeOffline: {
            const NodeBasicInfoInner record = ToRecord(event.node);
            const auto listeners = Snapshot(mutex_, deviceListeners_);
            for (const auto& listener : listeners) {
                event.kind == EventKind::NodeOnline ? listener->onDeviceOnline(record)
                                                    : listener->onDeviceOffline(record);
            }
            return listeners.size();
        }
        case EventKind::NodeInfoChanged: {
            const android::String16 nodeId(event.node.nodeId.c_str());
            const DeviceInfoTypeInner kind(event.changeKind);
            const auto listeners = Snapshot(mutex_, deviceListeners_);
            for (const auto& listener : listeners) {
                listener->onDeviceInfoChanged(nodeId, kind);
            }
            return listeners.size();
        }
    }
    return 0;
}

}  // namespace tivra_monitord
