#pragma once

#include <string>

#include <binder/IInterface.h>
#include <binder/Status.h>

namespace android::os {

// What the service manager calls to tell of a name registered for
// notifications (IServiceManager::registerForNotifications): at once when the
// name is registered already, and on every later registration of it.
class IServiceCallback : public IInterface {
public:
    DECLARE_META_INTERFACE(ServiceCallback)

    enum : uint32_t { TRANSACTION_onRegistration = IBinder::FIRST_CALL_TRANSACTION };

    // One-way.
    virtual binder::Status onRegistration(const std::string& name, const sp<IBinder>& binder) = 0;
};

}  // namespace android::os
