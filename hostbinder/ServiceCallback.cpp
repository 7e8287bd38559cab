// IServiceCallback, spoken by the service manager and heard by waiters.
#include <android/os/BnServiceCallback.h>

#include <binder/Parcel.h>

namespace android::os {

namespace {

class BpServiceCallback : public BpInterface<IServiceCallback> {
public:
    explicit BpServiceCallback(const sp<IBinder>& remote) : BpInterface<IServiceCallback>(remote) {}

    binder::Status onRegistration(const std::string& name, const sp<IBinder>& binder) override {
        Parcel data;
        data.writeInterfaceToken(descriptor);
        data.writeUtf8AsUtf16(name);
        data.writeStrongBinder(binder);
        return binder::Status::fromStatusT(remote()->transact(TRANSACTION_onRegistration, data, nullptr,
                                                              IBinder::FLAG_ONEWAY));
    }
};

}  // namespace

IMPLEMENT_META_INTERFACE(ServiceCallback, "android.os.IServiceCallback")

status_t BnServiceCallback::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (code != TRANSACTION_onRegistration) {
        return BBinder::onTransact(code, data, reply, flags);
    }
    if (!data.checkInterface(this)) {
        return BAD_TYPE;
    }
    std::string name;
    sp<IBinder> binder;
    status_t status = data.readUtf8FromUtf16(&name);
    if (status == OK) {
        status = data.readStrongBinder(&binder);
    }
    if (status != OK) {
        return status;
    }
    onRegistration(name, binder);
    return OK;
}

}  // namespace android::os
