#pragma once

#include <atomic>

#include <binder/IBinder.h>

namespace android {

// A binder object that lives in this process. Transactions from other
// processes arrive on the Binder thread pool and are dispatched to onTransact.
class BBinder : public IBinder {
public:
    BBinder();

    const String16& getInterfaceDescriptor() const override;
    bool isBinderAlive() const override;
    status_t pingBinder() override;
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) final;

    // A local object never dies while this process lives.
    status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                         uint32_t flags = 0) override;
    status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                           uint32_t flags = 0, wp<DeathRecipient>* outRecipient = nullptr) override;

    BBinder* localBinder() override;

protected:
    ~BBinder() override;

    // Answers the ping and interface-descriptor transactions; anything else is
    // UNKNOWN_TRANSACTION.
    virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0);
};

// Base of interface proxies: holds the remote binder strongly for the proxy's
// whole life.
class BpRefBase : public virtual RefBase {
protected:
    explicit BpRefBase(const sp<IBinder>& o);
    ~BpRefBase() override;

    inline IBinder* remote() { return mRemote; }
    inline IBinder* remote() const { return mRemote; }

private:
    BpRefBase(const BpRefBase& o) = delete;
    BpRefBase& operator=(const BpRefBase& o) = delete;

    IBinder* const mRemote;
    const sp<IBinder> mRemoteRef;
};

}  // namespace android
