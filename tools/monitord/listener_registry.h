#pragma once

#include <cstddef>
#include <map>
#include <mutex>

#include <binder/IBinder.h>
#include <utils/StrongPointer.h>

#include "i_device_change_listener.h"
#include "i_device_listener.h"
#include "scenario.h"

namespace tivra_monitord {

// The clients' listeners that the service calls back, one registration per
// binder. A listener whose process dies is dropped through its death notice,
// so a dead client leaves nothing behind.
class ListenerRegistry {
public:
    using DeviceChangeListener = android::sp<com::solvane::pravik::service::IDeviceChangeListener>;
    using DeviceListener = android::sp<com::solvane::pravik::service::IDeviceListener>;

    ListenerRegistry();
    ~ListenerRegistry();

    // False when that binder is already registered (or cannot be watched).
    bool Add(const DeviceChangeListener& listener);
    bool Add(const DeviceListener& listener);
    // False when that binder was not registered.
    bool Remove(const DeviceChangeListener& listener);
    bool Remove(const DeviceListener& listener);

    size_t DeviceChangeListenerCount() const;
    size_t DeviceListenerCount() const;

    // Sends the event one-way to every listener of its kind; returns how many.
    size_t Deliver(const TimelineEvent& event) const;

private:
    class DeathWatcher;

    template <typename Map, typename Listener>
    bool AddTo(Map& map, const Listener& listener);
    template <typename Map, typename Listener>
    bool RemoveFrom(Map& map, const Listener& listener);
    void Forget(const android::IBinder* binder);

    mutable std::mutex mutex_;
    std::map<const android::IBinder*, DeviceChangeListener> deviceChangeListeners_;
    std::map<const android::IBinder*, DeviceListener> deviceListeners_;
    android::sp<DeathWatcher> deathWatcher_;
};

}  // namespace tivra_monitord
