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

// A client-side callback object. An event's value is a stream in its upper
// bits and a sequence below (see eventValue): it counts the events of each
// stream and those that arrived out of order, and answers a two-way event
// with the value plus one.
class TestListener : public android::BBinder {
public:
    static constexpr uint32_t kListenerEvent = android::IBinder::FIRST_CALL_TRANSACTION;
    static constexpr int kSequenceBits = 20;
    static int32_t eventValue(int32_t stream, int32_t sequence) { return (stream << kSequenceBits) | sequence; }

    explicit TestListener(std::atomic<int>* liveCount = nullptr);
    ~TestListener() override;

    int events() const { return mEvents; }
    int lastValue() const { return mLastValue; }
    std::thread::id lastThread() const;
    int eventsOf(int32_t stream) const;
    int orderViolations() const;

protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;

private:
    std::atomic<int>* mLiveCount;
    std::atomic<int> mEvents{0};
    std::atomic<int> mLastValue{0};
    mutable std::mutex mLock;
    std::thread::id mLastThread;
    std::map<int32_t, int32_t> mLastSequence;
    std::map<int32_t, int> mCounts;
    int mViolations = 0;
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
