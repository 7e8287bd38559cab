#pragma once

#include <memory>

#include "device_info_type_inner.h"
#include "i_device_listener.h"
#include "node_basic_info_inner.h"
#include "tivra/tivra_adapter.h"

namespace Communication {

// The Binder object that stands for one registered DeviceListener at the
// service. It turns node events into calls on the listener.
class TivraDeviceListener : public com::solvane::pravik::service::BnDeviceListener {
public:
    explicit TivraDeviceListener(const std::shared_ptr<DeviceListener>& listener);
    ~TivraDeviceListener() override;

    android::binder::Status onDeviceOnline(
        const com::solvane::pravik::deviceinfo::NodeBasicInfoInner& info) override;
    android::binder::Status onDeviceOffline(
        const com::solvane::pravik::deviceinfo::NodeBasicInfoInner& info) override;
    android::binder::Status onDeviceInfoChanged(
        const android::String16& nodeId, const com::solvane::pravik::deviceinfo::DeviceInfoTypeInner& type) override;

protected:
    android::IBinder* onAsBinder() override;

private:
    std::shared_ptr<DeviceListener> listener_;
};

}  // namespace Communication
