#pragma once

#include <memory>

#include "device_info_external.h"
#include "i_device_change_listener.h"
#include "tivra/tivra_adapter.h"

namespace Communication {

// The Binder object that stands for one registered TivraListener at the
// service. It hands each device event to the listener as a new record.
class TivraListenerInner : public com::solvane::pravik::service::BnDeviceChangeListener {
public:
    explicit TivraListenerInner(std::shared_ptr<TivraListener> listener);
    ~TivraListenerInner() override;

    android::binder::Status onDeviceOnline(
        const com::solvane::pravik::deviceinfo::DeviceInfoExternal& info) override;
    android::binder::Status onDeviceOffline(
        const com::solvane::pravik::deviceinfo::DeviceInfoExternal& info) override;

protected:
    android::IBinder* onAsBinder() override;

private:
    std::shared_ptr<TivraListener> listener_;
};

}  // namespace Communication
