#pragma once

#include <atomic>
#include <mutex>
#include <vector>

#include <binder/IBinder.h>

namespace android {

// The proxy of a binder object owned by another process, addressed by a handle
// of this process's table. ProcessState keeps one proxy per handle.
class BpBinder : public IBinder {
public:
    static BpBinder* create(int32_t handle);

    int32_t handle() const;

    const String16& getInterfaceDescriptor() const override;
    bool isBinderAlive() const override;
    status_t pingBinder() override;
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) override;

    // Recipients are held weakly, as on the platform: a recipient that nobody
    // else keeps alive is silently dropped.
    status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                         uint32_t flags = 0) override;
    status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                           uint32_t flags = 0, wp<DeathRecipient>* outRecipient = nullptr) override;

    BpBinder* remoteBinder() override;

    // Marks the node dead and tells every linked recipient, once.
    void sendObituary();

protected:
    explicit BpBinder(int32_t handle);
    ~BpBinder() override;
    void onLastStrongRef(const void* id) override;

private:
    friend class Parcel;

    struct Obituary {
        wp<DeathRecipient> recipient;
        void* cookie;
    };

    const int32_t mHandle;
    mutable std::mutex mLock;
    bool mAlive = true;
    bool mDeathRequested = false;
    std::vector<Obituary> mObituaries;
    mutable bool mDescriptorCached = false;
    mutable String16 mDescriptor;
    // The stability level read with this proxy when it arrived, written back
    // whenever it travels on; 0 until known.
    std::atomic<int32_t> mStability{0};
};

}  // namespace android
