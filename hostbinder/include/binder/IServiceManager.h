#pragma once

#include <binder/IInterface.h>
#include <utils/String16.h>
#include <utils/Vector.h>

namespace android {

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
};

// The service manager of this process's binderd session.
sp<IServiceManager> defaultServiceManager();

}  // namespace android
