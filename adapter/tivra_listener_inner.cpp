#include "tivra_listener_inner.h"

#include <utility>

namespace Communication {
namespace {

using com::solvane::pravik::deviceinfo::DeviceInfoExternal;

// The listener gets a record of its own, never the one read from the parcel.
std::shared_ptr<TivraDeviceInfo> CopyRecord(const DeviceInfoExternal& info) {
    return std::make_shared<DeviceInfoExternal>(info.GetDeviceName(), info.GetDeviceId(), info.GetDeviceType(),
                                                info.GetDeviceIp());
}

}  // namespace

TivraListenerInner::TivraListenerInner(std::shared_ptr<TivraListener> listener) : listener_(std::move(listener)) {}

TivraListenerInner::~TivraListenerInner() = default;

android::IBinder* TivraListenerInner::onAsBinder() { return this; }

android::binder::Status TivraListenerInner::onDeviceOnline(const DeviceInfoExternal& info) {
    listener_->OnDeviceOnline(CopyRecord(info));
    return android::binder::Status::ok();
}

android::binder::Status TivraListenerInner::onDeviceOffline(const DeviceInfoExternal& info) {
    listener_->OnDeviceOffline(CopyRecord(info));
    return android::binder::Status::ok();
}

}  // namespace Communication
