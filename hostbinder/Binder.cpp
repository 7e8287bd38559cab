#include <binder/Binder.h>

#include <binder/Parcel.h>

namespace android {

BBinder::BBinder() = default;
BBinder::~BBinder() = default;

const String16& BBinder::getInterfaceDescriptor() const {
    static const String16 kEmpty;
    return kEmpty;
}

bool BBinder::isBinderAlive() const { return true; }

status_t BBinder::pingBinder() { return OK; }

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    data.setDataPosition(0);
    const status_t status = code == PING_TRANSACTION ? OK : onTransact(code, data, reply, flags);
    if (reply != nullptr) {
        reply->setDataPosition(0);
    }
    return status;
}

status_t BBinder::onTransact(uint32_t code, const Parcel& /*data*/, Parcel* reply, uint32_t /*flags*/) {
    switch (code) {
        case PING_TRANSACTION:
            return OK;
        case INTERFACE_TRANSACTION:
            return reply == nullptr ? BAD_VALUE : reply->writeString16(getInterfaceDescriptor());
        default:
            return UNKNOWN_TRANSACTION;
    }
}

status_t BBinder::linkToDeath(const sp<DeathRecipient>& /*recipient*/, void* /*cookie*/, uint32_t /*flags*/) {
    return INVALID_OPERATION;
}

status_t BBinder::unlinkToDeath(const wp<DeathRecipient>& /*recipient*/, void* /*cookie*/, uint32_t /*flags*/,
                                wp<DeathRecipient>* /*outRecipient*/) {
    return INVALID_OPERATION;
}

BBinder* BBinder::localBinder() { return this; }

BpRefBase::BpRefBase(const sp<IBinder>& o) : mRemote(o.get()), mRemoteRef(o) {}

BpRefBase::~BpRefBase() = default;

}  // namespace android
