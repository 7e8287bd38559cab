// The client side of the service manager at handle 0.
#include <binder/IServiceManager.h>

#include <mutex>

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
        Parcel reply;
        binder::Status status;
        const status_t transport = call(kAddService, data, &reply, &status);
        if (transport != OK) {
            return transport;
        }
        if (!status.isOk()) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "addService %s: %s", String8(name).string(),
                                status.toString8().string());
        }
        return status.isOk() ? OK : status.exceptionCode();
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
