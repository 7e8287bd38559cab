#pragma once

#include <binder/IInterface.h>
#include <utils/String16.h>
#include <utils/Vector.h>

namespace android {

namespace os {
class IServiceCallback;
}

// The context manager at handle 0, which maps service names to binders.
class IServiceManager : public IInterface {
public:
    static const String16 descriptor;
    const String16& getInterfaceDescriptor() const;

    IServiceManager();
    ~IServiceManager() override;

    static const int DUMP_FLAG_PRIORITY_CRITICAL = 1 << 0;
    static const int DUMP_FLAG_PRIORITY_HIGH = 1 << 1;
    static const int DUMP_FLAG_PRIORITY_NORMAL = 1 << 2;
    static const int DUMP_FLAG_PRIORITY_DEFAULT = 1 << 3;
    static const int DUMP_FLAG_PRIORITY_ALL =
        DUMP_FLAG_PRIORITY_CRITICAL | DUMP_FLAG_PRIORITY_HIGH | DUMP_FLAG_PRIORITY_NORMAL | DUMP_FLAG_PRIORITY_DEFAULT;
    static const int DUMP_FLAG_PROTO = 1 << 4;

    // Waits a bounded time for the name to be registered.
    virtual sp<IBinder> getService(const String16& name) const = 0;
    // Never waits.
    virtual sp<IBinder> checkService(const String16& name) const = 0;
    // NOLINTNEXTLINE(google-default-arguments)
    virtual status_t addService(const String16& name, const sp<IBinder>& service, bool allowIsolated = false,
                                int dumpsysFlags = DUMP_FLAG_PRIORITY_DEFAULT) = 0;
    // NOLINTNEXTLINE(google-default-arguments)
    virtual Vector<String16> listServices(int dumpsysFlags = DUMP_FLAG_PRIORITY_ALL) = 0;

    // Waits until the name is registered. Null when the name is invalid or
    // binderd is not there or goes away meanwhile. The news comes as a
    // one-way call, so the process needs a thread for it (binderd asks for
    // one unless the pool's maximum is 0); without the news, as when the
    // process's buffer was full, the name is checked again each second.
    virtual sp<IBinder> waitForService(const String16& name) = 0;
    // Always false: binderd knows no manifest.
    virtual bool isDeclared(const String16& name) = 0;

    // The service manager's own calls (codes 5 and 6) behind waitForService:
    // `callback` hears of `name` at once when it is registered and on every
    // later registration, until unregistered or this process ends. OK, else
    // the transport error or the exception code (EX_NULL_POINTER for a null
    // callback, EX_ILLEGAL_ARGUMENT for an invalid name, EX_ILLEGAL_STATE when
    // unregistering a callback not registered for the name, or beyond binderd's
    // bounds), as addService returns them.
    virtual status_t registerForNotifications(const String16& name, const sp<os::IServiceCallback>& callback) = 0;
    virtual status_t unregisterForNotifications(const String16& name, const sp<os::IServiceCallback>& callback) = 0;
};

// The service manager of this process's binderd session.
sp<IServiceManager> defaultServiceManager();

template <typename INTERFACE>
sp<INTERFACE> waitForService(const String16& name) {
    return interface_cast<INTERFACE>(defaultServiceManager()->waitForService(name));
}

}  // namespace android
