// The client side of the service manager at handle 0.
#include <binder/IServiceManager.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include <android/os/BnServiceCallback.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <binder/Status.h>
#include <log/log.h>

#include "protocol/Protocol.h"

namespace android {

namespace {
constexpr const char* kTag = "hostbinder";
}  // namespace

const String16 IServiceManager::descriptor("android.os.IServiceManager");

const String16& IServiceManager::getInterfaceDescriptor() const { return descriptor; }

IServiceManager::IServiceManager() = default;
IServiceManager::~IServiceManager() = default;

namespace {

using namespace hostbinder;

// Hears of one name, or of binderd going away, whichever comes first.
class RegistrationWaiter : public os::BnServiceCallback, public IBinder::DeathRecipient {
public:
    binder::Status onRegistration(const std::string& /*name*/, const sp<IBinder>& binder) override {
        std::lock_guard<std::mutex> lock(mLock);
        if (!mDone) {
            mBinder = binder;
            mDone = true;
        }
        mChanged.notify_all();
        return binder::Status::ok();
    }

    void binderDied(const wp<IBinder>& /*who*/) override {
        std::lock_guard<std::mutex> lock(mLock);
        mDone = true;
        mChanged.notify_all();
    }

    // False when nothing was heard within the timeout; else true, with the
    // registered binder, or null once binderd went away.
    bool waitFor(std::chrono::milliseconds timeout, sp<IBinder>* binder) {
        std::unique_lock<std::mutex> lock(mLock);
        if (!mChanged.wait_for(lock, timeout, [this] { return mDone; })) {
            return false;
        }
        *binder = mBinder;
        return true;
    }

private:
    std::mutex mLock;
    std::condition_variable mChanged;
    bool mDone = false;
    sp<IBinder> mBinder;
};

class BpServiceManager : public BpInterface<IServiceManager> {
public:
    explicit BpServiceManager(const sp<IBinder>& remote) : BpInterface<IServiceManager>(remote) {}

    sp<IBinder> getService(const String16& name) const override { return lookup(kGetService, name); }
    sp<IBinder> checkService(const String16& name) const override { return lookup(kCheckService, name); }

    status_t addService(const String16& name, const sp<IBinder>& service, bool allowIsolated,
                        int dumpsysFlags) override {
        Parcel data;
        data.writeInterfaceToken(descriptor);
        data.writeString16(name);
        data.writeStrongBinder(service);
        data.writeBool(allowIsolated);
        data.writeInt32(dumpsysFlags);
        return statusCall(kAddService, "addService", name, data);
    }

    status_t registerForNotifications(const String16& name, const sp<os::IServiceCallback>& callback) override {
        return callbackCall(kRegisterForNotifications, "registerForNotifications", name, callback);
    }

    status_t unregisterForNotifications(const String16& name, const sp<os::IServiceCallback>& callback) override {
        return callbackCall(kUnregisterForNotifications, "unregisterForNotifications", name, callback);
    }

    sp<IBinder> waitForService(const String16& name) override {
        if (sp<IBinder> found = checkService(name); found != nullptr) {
            return found;
        }
        // Linked before registering: a registration binderd forgets as it
        // goes must not leave the wait without an end.
        const sp<RegistrationWaiter> waiter = new RegistrationWaiter();
        if (remote()->linkToDeath(waiter) != OK) {
            return nullptr;
        }
        sp<IBinder> found;
        if (registerForNotifications(name, waiter) == OK) {
            // As the platform's wait does, it looks again each second: a
            // notice binderd could not deliver must not leave it waiting for ever.
            while (!waiter->waitFor(std::chrono::seconds(1), &found) && (found = checkService(name)) == nullptr) {
            }
            if (found != nullptr) {
                unregisterForNotifications(name, waiter);
            }
        }
        remote()->unlinkToDeath(waiter);
        return found;
    }

    bool isDeclared(const String16& name) override {
        Parcel data;
        data.writeInterfaceToken(descriptor);
        data.writeString16(name);
        Parcel reply;
        binder::Status status;
        bool declared = false;
        return call(kIsDeclared, data, &reply, &status) == OK && status.isOk() && reply.readBool(&declared) == OK &&
               declared;
    }

    Vector<String16> listServices(int dumpsysFlags) override {
        Vector<String16> names;
        Parcel data;
        data.writeInterfaceToken(descriptor);
        data.writeInt32(dumpsysFlags);
        Parcel reply;
        binder::Status status;
        int32_t count = 0;
        const status_t transport = call(kListServices, data, &reply, &status);
        if (transport != OK || !status.isOk() || reply.readInt32(&count) != OK) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "listServices failed: %d %s", transport,
                                status.toString8().string());
            return names;
        }
        for (int32_t i = 0; i < count; ++i) {
            String16 name;
            if (reply.readString16(&name) != OK) {
                break;
            }
            names.push_back(name);
        }
        return names;
    }

private:
    // A call answered by a status alone: OK, else the transport error or the
    // exception code.
    status_t statusCall(uint32_t code, const char* what, const String16& name, const Parcel& data) {
        Parcel reply;
        binder::Status status;
        const status_t transport = call(code, data, &reply, &status);
        if (transport != OK) {
            return transport;
        }
        logOutcome(status.isOk() ? std::string()
                                 : std::string(what) + " " + String8(name).string() + ": " +
                                       status.toString8().string());
        return status.isOk() ? OK : status.exceptionCode();
    }

    // Logs a refusal, once while the same one repeats: a process that tries
    // again and again while another holds a name says so once.
    void logOutcome(const std::string& refusal) {
        std::lock_guard<std::mutex> lock(mLogLock);
        if (!refusal.empty() && refusal != mLastRefusal) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "%s", refusal.c_str());
        }
        mLastRefusal = refusal;
    }

    std::mutex mLogLock;
    std::string mLastRefusal;

    status_t callbackCall(uint32_t code, const char* what, const String16& name,
                          const sp<os::IServiceCallback>& callback) {
        Parcel data;
        data.writeInterfaceToken(descriptor);
        data.writeString16(name);
        data.writeStrongBinder(IInterface::asBinder(callback));
        return statusCall(code, what, name, data);
    }

    status_t call(uint32_t code, const Parcel& data, Parcel* reply, binder::Status* status) const {
        const status_t transport = remote()->transact(code, data, reply);
        if (transport != OK) {
            return transport;
        }
        return status->readFromParcel(*reply);
    }

    sp<IBinder> lookup(uint32_t code, const String16& name) const {
        Parcel data;
        data.writeInterfaceToken(descriptor);
        data.writeString16(name);
        Parcel reply;
        binder::Status status;
        sp<IBinder> binder;
        if (call(code, data, &reply, &status) != OK || !status.isOk() ||
            reply.readNullableStrongBinder(&binder) != OK) {
            return nullptr;
        }
        return binder;
    }
};

}  // namespace

sp<IServiceManager> defaultServiceManager() {
    static std::mutex lock;
    static sp<IServiceManager>* manager = nullptr;
    std::lock_guard<std::mutex> guard(lock);
    if (manager == nullptr) {
        manager = new sp<IServiceManager>(new BpServiceManager(ProcessState::self()->getContextObject(nullptr)));
    }
    return *manager;
}

}  // namespace android
