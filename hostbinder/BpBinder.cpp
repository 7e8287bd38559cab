#include <binder/BpBinder.h>

#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

namespace android {

BpBinder* BpBinder::create(int32_t handle) { return new BpBinder(handle); }

BpBinder::BpBinder(int32_t handle) : mHandle(handle) {}

BpBinder::~BpBinder() = default;

int32_t BpBinder::handle() const { return mHandle; }

BpBinder* BpBinder::remoteBinder() { return this; }

const String16& BpBinder::getInterfaceDescriptor() const {
    std::lock_guard<std::mutex> lock(mLock);
    if (!mDescriptorCached) {
        Parcel data;
        Parcel reply;
        // The lock is not held across the call: a nested call may ask again.
        mLock.unlock();
        const status_t status = const_cast<BpBinder*>(this)->transact(INTERFACE_TRANSACTION, data, &reply);
        String16 descriptor;
        const bool ok = status == OK && reply.readString16(&descriptor) == OK;
        mLock.lock();
        if (ok && !mDescriptorCached) {
            mDescriptor = descriptor;
            mDescriptorCached = true;
        }
    }
    return mDescriptor;
}

bool BpBinder::isBinderAlive() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mAlive;
}

status_t BpBinder::pingBinder() {
    Parcel data;
    Parcel reply;
    return transact(PING_TRANSACTION, data, &reply);
}

status_t BpBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (!isBinderAlive()) {
        return DEAD_OBJECT;
    }
    const status_t status = IPCThreadState::self()->transact(mHandle, code, data, reply, flags);
    if (status == DEAD_OBJECT && mHandle != 0) {
        std::lock_guard<std::mutex> lock(mLock);
        mAlive = false;
    }
    return status;
}

status_t BpBinder::linkToDeath(const sp<DeathRecipient>& recipient, void* cookie, uint32_t /*flags*/) {
    if (recipient == nullptr) {
        return BAD_VALUE;
    }
    bool firstRequest = false;
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (!mAlive) {
            return DEAD_OBJECT;
        }
        mObituaries.push_back({recipient, cookie});
        firstRequest = !mDeathRequested;
        mDeathRequested = true;
    }
    if (firstRequest) {
        const status_t status = ProcessState::self()->requestDeathNotification(mHandle);
        if (status != OK) {
            std::lock_guard<std::mutex> lock(mLock);
            mObituaries.clear();
            mDeathRequested = false;
            // The context object outlives any one binderd session.
            mAlive = mHandle == 0;
            return status;
        }
    }
    return OK;
}

status_t BpBinder::unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie, uint32_t /*flags*/,
                                 wp<DeathRecipient>* outRecipient) {
    bool lastOne = false;
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (!mAlive) {
            return DEAD_OBJECT;
        }
        auto it = mObituaries.begin();
        while (it != mObituaries.end() && !(it->recipient == recipient && it->cookie == cookie)) {
            ++it;
        }
        if (it == mObituaries.end()) {
            return NAME_NOT_FOUND;
        }
        if (outRecipient != nullptr) {
            *outRecipient = it->recipient;
        }
        mObituaries.erase(it);
        lastOne = mObituaries.empty();
        if (lastOne) {
            mDeathRequested = false;
        }
    }
    if (lastOne) {
        ProcessState::self()->clearDeathNotification(mHandle);
    }
    return OK;
}

void BpBinder::sendObituary() {
    std::vector<Obituary> obituaries;
    {
        std::lock_guard<std::mutex> lock(mLock);
        // The context object outlives any one binderd session.
        mAlive = mHandle == 0;
        obituaries.swap(mObituaries);
        mDeathRequested = false;
    }
    const wp<IBinder> who(this);
    for (const Obituary& obituary : obituaries) {
        const sp<DeathRecipient> recipient = obituary.recipient.promote();
        if (recipient != nullptr) {
            recipient->binderDied(who);
        }
    }
}

void BpBinder::onLastStrongRef(const void* /*id*/) {
    const sp<ProcessState> process = ProcessState::selfOrNull();
    if (process != nullptr) {
        process->expungeHandle(mHandle, this);
    }
}

}  // namespace android
