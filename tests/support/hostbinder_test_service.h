#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include <binder/Binder.h>
#include <binder/Parcel.h>

#include "binderd_fixture.h"

namespace tivra_test {

// The service that hostbinder's tests run in a child process. Each code
// exercises one behaviour of the runtime from the service's side.
class TestService : public android::BBinder {
public:
    enum Code : uint32_t {
        kEcho = android::IBinder::FIRST_CALL_TRANSACTION,  // returns the request's bytes
        kWhoCalls,       // -> int32 pid, int32 uid of the caller
        kRecord,         // one-way: int32 stream, int32 sequence (must grow by one per stream; a reply parcel given)
        kStats,          // -> int32 records, int32 order violations
        kAddListener,    // binder -> int32 listener count
        kRemoveListener, // binder -> bool whether it was registered (same proxy)
        kNotify,         // int32 value: one-way kListenerEvent to every listener -> int32 count
        kHold,           // binder: keeps it
        kDrop,           // forgets the kept binder
        kGiveHeld,       // -> the kept binder
        kIsHeld,         // binder -> bool whether it is the kept one (same proxy)
        kBlockOneway,    // one-way: blocks this node until release() is called
        kLookUpAndRecord, // one-way: a two-way service lookup first, then as kRecord
        kAnswerWith,     // int32 status -> that int32, and onTransact returns the status
    };

    explicit TestService(std::function<void()> waitForRelease = {}) : mWaitForRelease(std::move(waitForRelease)) {}

    const android::String16& getInterfaceDescriptor() const override;

protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;

private:
    std::function<void()> mWaitForRelease;
    std::mutex mLock;
    std::map<int32_t, int32_t> mLastSequence;
    int32_t mRecords = 0;
    int32_t mViolations = 0;
    std::vector<android::sp<android::IBinder>> mListeners;
    android::sp<android::IBinder> mHeld;
};

// A client-side callback object: counts one-way events and answers two-way
// calls with the value plus one, remembering the threads it ran on.
class TestListener : public android::BBinder {
public:
    static constexpr uint32_t kListenerEvent = android::IBinder::FIRST_CALL_TRANSACTION;

    explicit TestListener(std::atomic<int>* liveCount = nullptr);
    ~TestListener() override;

    int events() const { return mEvents; }
    int lastValue() const { return mLastValue; }
    std::thread::id lastThread() const;

protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;

private:
    std::atomic<int>* mLiveCount;
    std::atomic<int> mEvents{0};
    std::atomic<int> mLastValue{0};
    mutable std::mutex mLock;
    std::thread::id mLastThread;
};

// The name the tests register TestService under.
extern const android::String16 kTestServiceName;

// Forks a child of `session` that serves a TestService under `name` and posts
// "ready" on `ready` once registered. Its kBlockOneway calls (one-way or
// two-way) post "blocked" on `ready` and wait for a line on `release` when
// one is given.
pid_t spawnTestService(BinderdSession& session, Channel& ready, const android::String16& name = kTestServiceName,
                       Channel* release = nullptr);

android::sp<android::IBinder> lookUpTestService(const android::String16& name = kTestServiceName);

}  // namespace tivra_test
