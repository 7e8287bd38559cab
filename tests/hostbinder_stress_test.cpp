// Many threads in many processes calling one service through binderd at once,
// while another process keeps registering and dropping listeners that the
// service notifies: every reply must be the right one, one-way calls must
// keep their order per node, and references must still be released.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include "binderd_fixture.h"
#include "hostbinder_test_service.h"

namespace {

using namespace android;
using namespace tivra_test;

constexpr int kClients = 4;
constexpr int kThreadsPerClient = 4;
constexpr int kCallsPerThread = 150;
constexpr int kListenerThreads = 2;
constexpr int kListenerRounds = 25;
constexpr int kNotifiesPerRound = 4;
// Generous: the same cases run under ThreadSanitizer on a loaded machine.
constexpr auto kWorkerDeadline = 90s;

const String16 kServiceName("tivra.test.stress");

// A listener event carries (stream, sequence): the stream names the thread
// that asked for the notice, the sequence grows with each of its notices.
constexpr int kSequenceBits = 20;
int32_t eventValue(int32_t stream, int32_t sequence) { return (stream << kSequenceBits) | sequence; }

// Checks that the notices of each stream arrive in the order they were sent:
// they reach this node one-way, through whichever service thread sent them.
class SequencedListener : public BBinder {
public:
    explicit SequencedListener(std::atomic<int>* live) : mLive(live) { ++*mLive; }
    ~SequencedListener() override { --*mLive; }

    int eventsOf(int32_t stream) const {
        std::lock_guard<std::mutex> lock(mLock);
        auto it = mCounts.find(stream);
        return it == mCounts.end() ? 0 : it->second;
    }
    int orderViolations() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mViolations;
    }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != TestListener::kListenerEvent) {
            return BBinder::onTransact(code, data, reply, flags);
        }
        const int32_t value = data.readInt32();
        const int32_t stream = value >> kSequenceBits;
        const int32_t sequence = value & ((1 << kSequenceBits) - 1);
        std::lock_guard<std::mutex> lock(mLock);
        auto last = mLastSequence.find(stream);
        mViolations += last != mLastSequence.end() && sequence <= last->second ? 1 : 0;
        mLastSequence[stream] = sequence;
        ++mCounts[stream];
        return OK;
    }

private:
    std::atomic<int>* mLive;
    mutable std::mutex mLock;
    std::map<int32_t, int32_t> mLastSequence;
    std::map<int32_t, int> mCounts;
    int mViolations = 0;
};

status_t call(const sp<IBinder>& target, uint32_t code, const std::function<void(Parcel*)>& fill, Parcel* reply) {
    Parcel data;
    fill(&data);
    return target->transact(code, data, reply);
}

// Runs `body(i)` on `count` threads and waits for all of them.
void onThreads(int count, const std::function<void(int)>& body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back(body, i);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// One client thread: echoes whose replies must be byte-exact copies of their
// requests, each followed by a one-way record of this thread's stream.
void hammer(const sp<IBinder>& service, int32_t stream) {
    for (int32_t i = 0; i < kCallsPerThread; ++i) {
        Parcel request;
        request.writeInt32(stream);
        request.writeInt32(i);
        request.writeString16(String16(("call " + std::to_string(stream) + "/" + std::to_string(i)).c_str()));
        // Sizes vary so that frames of different threads interleave unevenly.
        const std::vector<uint8_t> blob(static_cast<size_t>((stream * 131 + i * 17) % 3000),
                                        static_cast<uint8_t>(stream * 7 + i));
        request.write(blob.data(), blob.size());
        Parcel reply;
        CHILD_CHECK(service->transact(TestService::kEcho, request, &reply) == OK);
        CHILD_CHECK(reply.dataSize() == request.dataSize());
        CHILD_CHECK(std::memcmp(reply.data(), request.data(), request.dataSize()) == 0);

        Parcel record;
        record.writeInt32(stream);
        record.writeInt32(i);
        CHILD_CHECK(service->transact(TestService::kRecord, record, nullptr, IBinder::FLAG_ONEWAY) == OK);

        if (i % 25 == 0) {
            Parcel identity;
            CHILD_CHECK(call(service, TestService::kWhoCalls, [](Parcel*) {}, &identity) == OK);
            CHILD_CHECK(identity.readInt32() == getpid());
        }
    }
}

// One listener thread: each round registers a fresh listener, has the service
// notify every listener a few times, waits for its own notices, unregisters
// and checks that the listener is released once nobody else holds it.
void churnListeners(const sp<IBinder>& service, int32_t stream) {
    std::atomic<int> live{0};
    for (int round = 0; round < kListenerRounds; ++round) {
        sp<SequencedListener> listener = new SequencedListener(&live);
        Parcel added;
        CHILD_CHECK(call(service, TestService::kAddListener, [&](Parcel* p) { p->writeStrongBinder(listener); }, &added) == OK);
        CHILD_CHECK(added.readInt32() >= 1);
        for (int n = 0; n < kNotifiesPerRound; ++n) {
            const int32_t value = eventValue(stream, round * kNotifiesPerRound + n);
            Parcel notified;
            CHILD_CHECK(call(service, TestService::kNotify, [&](Parcel* p) { p->writeInt32(value); }, &notified) == OK);
            CHILD_CHECK(notified.readInt32() >= 1);
        }
        CHILD_CHECK(waitUntil([&] { return listener->eventsOf(stream) == kNotifiesPerRound; }, 30s));
        Parcel removed;
        CHILD_CHECK(call(service, TestService::kRemoveListener, [&](Parcel* p) { p->writeStrongBinder(listener); }, &removed) == OK);
        CHILD_CHECK(removed.readBool());
        CHILD_CHECK(listener->orderViolations() == 0);
        listener.clear();
        // The service and binderd may still hold it for a notice in flight.
        CHILD_CHECK(waitUntil([&] { return live == 0; }, 30s));
    }
}

class HostBinderStress : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(session.started()) << session.error(); }

    BinderdSession session;
    Channel events;
};

TEST_F(HostBinderStress, ConcurrentCallsAndListenerChurnKeepRepliesAndOneWayOrder) {
    session.spawn([this] {
        sp<TestService> service = new TestService();
        ProcessState::self()->startThreadPool();
        CHILD_CHECK(defaultServiceManager()->addService(kServiceName, service) == OK);
        events.post("ready");
        IPCThreadState::self()->joinThreadPool();
        return 0;
    });
    ASSERT_EQ(events.next(), "ready");

    std::vector<pid_t> workers;
    for (int client = 0; client < kClients; ++client) {
        workers.push_back(session.spawn([client] {
            sp<IBinder> service = defaultServiceManager()->checkService(kServiceName);
            CHILD_CHECK(service != nullptr);
            onThreads(kThreadsPerClient, [&](int thread) { hammer(service, client * kThreadsPerClient + thread); });
            return 0;
        }));
    }
    workers.push_back(session.spawn([] {
        // Notices run on this process's pool, not on the threads that wait.
        ProcessState::self()->startThreadPool();
        sp<IBinder> service = defaultServiceManager()->checkService(kServiceName);
        CHILD_CHECK(service != nullptr);
        onThreads(kListenerThreads, [&](int thread) { churnListeners(service, thread); });
        return 0;
    }));
    for (pid_t worker : workers) {
        EXPECT_EQ(session.waitExit(worker, kWorkerDeadline), 0);
    }

    // Every one-way record reached the service, each stream in send order.
    EXPECT_EQ(session.waitExit(session.spawn([] {
        sp<IBinder> service = defaultServiceManager()->checkService(kServiceName);
        CHILD_CHECK(service != nullptr);
        constexpr int32_t kExpected = kClients * kThreadsPerClient * kCallsPerThread;
        int32_t records = 0;
        int32_t violations = -1;
        CHILD_CHECK(waitUntil([&] {
            Parcel stats;
            CHILD_CHECK(call(service, TestService::kStats, [](Parcel*) {}, &stats) == OK);
            records = stats.readInt32();
            violations = stats.readInt32();
            return records == kExpected;
        }, 30s));
        CHILD_CHECK(violations == 0);
        return 0;
    })), 0);
}

}  // namespace
