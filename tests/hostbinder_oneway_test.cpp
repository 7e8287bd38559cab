// One-way calls that return before binderd has seen them (paid from credit)
// and calls sent ahead to the thread serving a node: results, limits and
// order must stay those of a call that waited for binderd.
#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include "binderd_fixture.h"
#include "protocol/Protocol.h"
#include "hostbinder_test_service.h"

namespace {

using namespace android;
using namespace tivra_test;

status_t sendRecord(const sp<IBinder>& service, uint32_t code, int32_t stream, int32_t sequence) {
    Parcel data;
    data.writeInt32(stream);
    data.writeInt32(sequence);
    return service->transact(code, data, nullptr, IBinder::FLAG_ONEWAY);
}

// The service's record count and order violations.
std::pair<int32_t, int32_t> stats(const sp<IBinder>& service) {
    Parcel reply;
    if (service->transact(TestService::kStats, Parcel(), &reply) != OK) {
        return {-1, -1};
    }
    const int32_t records = reply.readInt32();
    return {records, reply.readInt32()};
}

class DeathCounter : public IBinder::DeathRecipient {
public:
    void binderDied(const wp<IBinder>& /*who*/) override { ++deaths; }
    std::atomic<int> deaths{0};
};

class HostBinderOneway : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(session.started()) << session.error(); }

    pid_t startService(Channel* release = nullptr) {
        const pid_t pid = spawnTestService(session, events, kTestServiceName, release);
        EXPECT_EQ(events.next(), "ready");
        return pid;
    }

    BinderdSession session;
    Channel events;
};

TEST_F(HostBinderOneway, SmallCallsFillTheReceiversBufferToTheByte) {
    Channel release;
    startService(&release);
    EXPECT_EQ(session.waitExit(session.spawn([&release] {
        sp<IBinder> service = lookUpTestService();
        // The node is stuck in its first (empty) call, so every later one stays queued.
        CHILD_CHECK(service->transact(TestService::kBlockOneway, Parcel(), nullptr, IBinder::FLAG_ONEWAY) == OK);
        const std::vector<uint8_t> bytes(1000, 0x33);
        // Each call is charged as the platform counts it, the first (empty)
        // one included: credit never makes one fail early.
        using namespace android::hostbinder;
        const int fits = static_cast<int>((kMaxQueuedOnewayBytes - bufferCharge(0, 0, true)) /
                                          bufferCharge(bytes.size(), 0, true));
        int accepted = 0;
        status_t status = OK;
        while (status == OK && accepted <= fits) {
            Parcel chunk;
            chunk.write(bytes.data(), bytes.size());
            status = service->transact(TestService::kRecord, chunk, nullptr, IBinder::FLAG_ONEWAY);
            accepted += status == OK;
        }
        CHILD_CHECK(status == FAILED_TRANSACTION);
        CHILD_CHECK(accepted == fits);
        release.post("go");
        // Once the queue drains, the same calls are taken again.
        CHILD_CHECK(waitUntil([&] { return stats(service).first == fits; }));
        CHILD_CHECK(sendRecord(service, TestService::kRecord, 2, 0) == OK);
        return 0;
    })), 0);
}

TEST_F(HostBinderOneway, CallsFailWithDeadObjectAsSoonAsTheOwnersDeathIsKnown) {
    // Two objects of one process; the client watches only the second, so the
    // first's proxy cannot know of the death by itself.
    const pid_t service = session.spawn([this] {
        ProcessState::self()->startThreadPool();
        CHILD_CHECK(defaultServiceManager()->addService(kTestServiceName, new TestService()) == OK);
        CHILD_CHECK(defaultServiceManager()->addService(String16("tivra.test.sentinel"), new BBinder()) == OK);
        events.post("ready");
        IPCThreadState::self()->joinThreadPool();
        return 0;
    });
    ASSERT_EQ(events.next(), "ready");
    Channel control;
    const pid_t client = session.spawn([&control] {
        sp<IBinder> target = lookUpTestService();
        sp<IBinder> sentinel = defaultServiceManager()->checkService(String16("tivra.test.sentinel"));
        sp<DeathCounter> recipient = new DeathCounter();
        CHILD_CHECK(sentinel->linkToDeath(recipient) == OK);
        // The first call earns credit that would cover all of the next ones.
        for (int i = 0; i < 10; ++i) {
            CHILD_CHECK(sendRecord(target, TestService::kRecord, 1, i) == OK);
        }
        control.post("sent");
        CHILD_CHECK(waitUntil([&] { return recipient->deaths == 1; }));
        CHILD_CHECK(sendRecord(target, TestService::kRecord, 1, 10) == DEAD_OBJECT);
        CHILD_CHECK(sendRecord(target, TestService::kRecord, 1, 11) == DEAD_OBJECT);
        return 0;
    });
    ASSERT_EQ(control.next(), "sent");
    session.kill(service, SIGKILL);
    EXPECT_EQ(session.waitExit(client), 0);
}

TEST_F(HostBinderOneway, CallsOfASenderThatExitsAtOnceAreStillDelivered) {
    startService();
    constexpr int kCalls = 200;
    EXPECT_EQ(session.waitExit(session.spawn([] {
        sp<IBinder> service = lookUpTestService();
        for (int i = 0; i < kCalls; ++i) {
            CHILD_CHECK(sendRecord(service, TestService::kRecord, 1, i) == OK);
        }
        _exit(0);  // no goodbye: the connections just close
        return 0;
    })), 0);
    EXPECT_EQ(session.waitExit(session.spawn([] {
        sp<IBinder> service = lookUpTestService();
        CHILD_CHECK(waitUntil([&] { return stats(service).first == kCalls; }));
        CHILD_CHECK(stats(service).second == 0);
        return 0;
    })), 0);
}

TEST_F(HostBinderOneway, CallsSentAheadWaitWhileTheirThreadMakesACallOfItsOwn) {
    startService();
    constexpr int kCalls = 400;
    EXPECT_EQ(session.waitExit(session.spawn([] {
        sp<IBinder> service = lookUpTestService();
        for (int i = 0; i < kCalls; ++i) {
            CHILD_CHECK(sendRecord(service, TestService::kLookUpAndRecord, 1, i) == OK);
        }
        CHILD_CHECK(waitUntil([&] { return stats(service).first == kCalls; }));
        CHILD_CHECK(stats(service).second == 0);
        return 0;
    })), 0);
}

TEST_F(HostBinderOneway, CallsKeepSendOrderWhicheverPathEachTakesAndWhicheverThreadSendsThem) {
    Channel release;
    startService(&release);
    // Every 50 calls, one carries a binder and one is too large for the
    // channel: both go through binderd, behind the calls sent before. The
    // receiver is held from kHeldFrom until kHeldTo is sent: the calls
    // between overflow the channel's ring and wait in binderd behind it.
    constexpr int kCalls = 800;
    constexpr int kHeldFrom = 400;
    constexpr int kHeldTo = 500;
    EXPECT_EQ(session.waitExit(session.spawn([&release] {
        sp<IBinder> service = lookUpTestService();
        const sp<IBinder> token = new BBinder();
        const std::vector<uint8_t> large(hostbinder::kMaxDirectOnewayBytes + 1, 1);
        const std::vector<uint8_t> burst(2048, 2);
        std::mutex lock;
        std::condition_variable turn;
        int next = 0;
        bool sent = true;
        // Two threads take turns of three calls, each handing over to the
        // other once its calls returned.
        auto sender = [&](int me) {
            std::unique_lock<std::mutex> hold(lock);
            for (;;) {
                turn.wait(hold, [&] { return next == kCalls || (next / 3) % 2 == me; });
                if (next == kCalls) {
                    return;
                }
                if (next == kHeldFrom) {
                    // On the channel again once binderd's calls are done.
                    sent = sent && waitUntil([&] { return stats(service).first == kHeldFrom; });
                    sent = sent && service->transact(TestService::kBlockOneway, Parcel(), nullptr,
                                                     IBinder::FLAG_ONEWAY) == OK;
                }
                if (next == kHeldTo) {
                    release.post("go");
                }
                Parcel data;
                data.writeInt32(1);
                data.writeInt32(next);
                if (next >= kHeldFrom && next < kHeldTo) {
                    data.write(burst.data(), burst.size());
                } else if (next % 50 == 20) {
                    data.writeStrongBinder(token);
                } else if (next % 50 == 45) {
                    data.write(large.data(), large.size());
                }
                sent = sent && service->transact(TestService::kRecord, data, nullptr, IBinder::FLAG_ONEWAY) == OK;
                ++next;
                turn.notify_all();
            }
        };
        std::thread other(sender, 1);
        sender(0);
        other.join();
        CHILD_CHECK(sent);
        CHILD_CHECK(waitUntil([&] { return stats(service).first == kCalls; }));
        CHILD_CHECK(stats(service).second == 0);
        return 0;
    })), 0);
}

// Counts the calls it runs; says how many when it is destroyed.
class EventCounter : public BBinder {
public:
    EventCounter(std::atomic<int>* events, std::atomic<bool>* destroyed) : mEvents(events), mDestroyed(destroyed) {}
    ~EventCounter() override { *mDestroyed = true; }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != TestListener::kListenerEvent) {
            return BBinder::onTransact(code, data, reply, flags);
        }
        ++*mEvents;
        return OK;
    }

private:
    std::atomic<int>* mEvents;
    std::atomic<bool>* mDestroyed;
};

TEST_F(HostBinderOneway, CallsSentJustBeforeTheLastReferenceGoesReachTheObject) {
    startService();
    Channel handed;
    constexpr int kEvents = 300;
    const pid_t owner = session.spawn([&handed] {
        ProcessState::self()->startThreadPool();
        std::atomic<int> events{0};
        std::atomic<bool> destroyed{false};
        {
            Parcel data;
            data.writeStrongBinder(sp<IBinder>(new EventCounter(&events, &destroyed)));
            Parcel ignored;
            CHILD_CHECK(lookUpTestService()->transact(TestService::kHold, data, &ignored) == OK);
        }
        handed.post("held");
        // The sender takes the object, has the service drop it, calls it and
        // lets its proxy go: the object may go only after all those calls ran.
        CHILD_CHECK(waitUntil([&] { return destroyed.load(); }, 20s));
        CHILD_CHECK(events == kEvents);
        return 0;
    });
    ASSERT_EQ(handed.next(), "held");
    EXPECT_EQ(session.waitExit(session.spawn([] {
        sp<IBinder> service = lookUpTestService();
        Parcel held;
        CHILD_CHECK(service->transact(TestService::kGiveHeld, Parcel(), &held) == OK);
        sp<IBinder> object = held.readStrongBinder();
        CHILD_CHECK(object != nullptr);
        Parcel ignored;
        CHILD_CHECK(service->transact(TestService::kDrop, Parcel(), &ignored) == OK);
        for (int i = 0; i < kEvents; ++i) {
            Parcel event;
            event.writeInt32(i);
            CHILD_CHECK(object->transact(TestListener::kListenerEvent, event, nullptr, IBinder::FLAG_ONEWAY) == OK);
        }
        object.clear();
        return 0;
    })), 0);
    EXPECT_EQ(session.waitExit(owner), 0);
}

}  // namespace
