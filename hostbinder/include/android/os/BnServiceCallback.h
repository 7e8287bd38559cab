#pragma once

#include <android/os/IServiceCallback.h>

namespace android::os {

// A local IServiceCallback: unpacks onRegistration calls.
class BnServiceCallback : public BnInterface<IServiceCallback> {
public:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) override;
};

}  // namespace android::os
