// Binder IPC between real processes through a private binderd.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <binder/Status.h>

#include "binderd_fixture.h"
#include "hostbinder_test_service.h"
#include "log_capture.h"

namespace {

using namespace android;
using namespace tivra_test;

class HostBinderIpc : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(session.started()) << session.error(); }

    // A child serving TestService under `name`; it posts "ready" once registered.
    pid_t startService(const String16& name = kTestServiceName, Channel* release = nullptr) {
        return spawnTestService(session, events, name, release);
    }

    void expectChildPasses(pid_t child) { EXPECT_EQ(session.waitExit(child), 0); }

    BinderdSession session;
    Channel events;
};

status_t call(const sp<IBinder>& target, uint32_t code, const std::function<void(Parcel*)>& fill, Parcel* reply) {
    Parcel data;
    if (fill) {
        fill(&data);
    }
    return target->transact(code, data, reply);
}

TEST_F(HostBinderIpc, ServiceManagerRegistersListsAndForgetsServicesOfDeadProcesses) {
    const pid_t service = startService();
    ASSERT_EQ(events.next(), "ready");
    expectChildPasses(session.spawn([] {
        sp<IServiceManager> manager = defaultServiceManager();
        CHILD_CHECK(manager->checkService(kTestServiceName) != nullptr);
        CHILD_CHECK(manager->getService(kTestServiceName) != nullptr);
        CHILD_CHECK(manager->checkService(String16("tivra.test.absent")) == nullptr);
        const Vector<String16> names = manager->listServices();
        CHILD_CHECK(names.size() == 1 && names[0] == kTestServiceName);
        sp<IBinder> local = new BBinder();
        {
            // Refused again and again, which is logged once.
            LogCapture log;
            for (int i = 0; i < 3; ++i) {
                CHILD_CHECK(manager->addService(kTestServiceName, local) == binder::Status::EX_SECURITY);
            }
            CHILD_CHECK(log.Lines().size() == 1);
        }
        CHILD_CHECK(manager->addService(String16("bad name!"), local) != OK);
        CHILD_CHECK(manager->addService(String16(""), local) != OK);
        CHILD_CHECK(manager->addService(String16("tivra.test.null"), nullptr) != OK);
        return 0;
    }));
    session.kill(service, SIGKILL);
    EXPECT_EQ(session.waitExit(service), -1);
    expectChildPasses(session.spawn([] {
        CHILD_CHECK(waitUntil([] { return lookUpTestService() == nullptr; }));
        CHILD_CHECK(defaultServiceManager()->listServices().size() == 0);
        return 0;
    }));
}

TEST_F(HostBinderIpc, GetServiceAndWaitForServiceWaitForALaterRegistrationButCheckServiceDoesNot) {
    Channel waiting;
    std::vector<pid_t> clients;
    enum Wait { kGet, kNotified, kNeverNotified };
    for (Wait wait : {kGet, kNotified, kNeverNotified}) {
        clients.push_back(session.spawn([&waiting, wait] {
            // No thread pool started: binderd asks for the thread that hears
            // of the name, unless none may be made; then the notice never
            // comes and the wait finds the name by looking again.
            if (wait == kNeverNotified) {
                ProcessState::self()->setThreadPoolMaxThreadCount(0);
            }
            CHILD_CHECK(lookUpTestService() == nullptr);
            waiting.post("looking");
            const sp<IServiceManager> manager = defaultServiceManager();
            CHILD_CHECK((wait == kGet ? manager->getService(kTestServiceName)
                                      : manager->waitForService(kTestServiceName)) != nullptr);
            return 0;
        }));
    }
    for (size_t i = 0; i < clients.size(); ++i) {
        ASSERT_EQ(waiting.next(), "looking");
    }
    startService();
    ASSERT_EQ(events.next(), "ready");
    for (pid_t client : clients) {
        expectChildPasses(client);
    }
}

TEST_F(HostBinderIpc, TwoWayCallsCarryDataAndTheCallersIdentity) {
    startService();
    ASSERT_EQ(events.next(), "ready");
    expectChildPasses(session.spawn([] {
        sp<IBinder> service = lookUpTestService();
        CHILD_CHECK(service != nullptr);
        CHILD_CHECK(service->pingBinder() == OK);
        CHILD_CHECK(service->getInterfaceDescriptor() == String16("tivra.test.IService"));
        Parcel reply;
        CHILD_CHECK(call(service, TestService::kEcho, [](Parcel* p) { p->writeInt32(7); p->writeString16(String16("hi")); }, &reply) == OK);
        CHILD_CHECK(reply.readInt32() == 7 && reply.readString16() == String16("hi"));
        Parcel identity;
        CHILD_CHECK(call(service, TestService::kWhoCalls, nullptr, &identity) == OK);
        CHILD_CHECK(identity.readInt32() == getpid());
        CHILD_CHECK(identity.readInt32() == static_cast<int32_t>(getuid()));
        Parcel unknown;
        CHILD_CHECK(call(service, 0x00ffff00, nullptr, &unknown) == UNKNOWN_TRANSACTION);
        // Only a negative status fails the call; with any other the reply arrives.
        for (const status_t answer : {status_t{1}, status_t{BAD_VALUE}}) {
            Parcel answered;
            CHILD_CHECK(call(service, TestService::kAnswerWith, [answer](Parcel* p) { p->writeInt32(answer); },
                             &answered) == std::min<status_t>(answer, OK));
            CHILD_CHECK(answered.readInt32() == std::max<status_t>(answer, OK));
        }
        // Outside any transaction, the caller is this process itself.
        CHILD_CHECK(IPCThreadState::self()->getCallingPid() == getpid());
        return 0;
    }));
}

TEST_F(HostBinderIpc, OneWayCallsToANodeRunInSendOrder) {
    startService();
    ASSERT_EQ(events.next(), "ready");
    constexpr int kCalls = 3000;
    expectChildPasses(session.spawn([] {
        sp<IBinder> service = lookUpTestService();
        CHILD_CHECK(service != nullptr);
        for (int i = 0; i < kCalls; ++i) {
            Parcel data;
            data.writeInt32(1);
            data.writeInt32(i);
            CHILD_CHECK(service->transact(TestService::kRecord, data, nullptr, IBinder::FLAG_ONEWAY) == OK);
        }
        int32_t records = 0;
        int32_t violations = -1;
        CHILD_CHECK(waitUntil([&] {
            Parcel stats;
            call(service, TestService::kStats, nullptr, &stats);
            records = stats.readInt32();
            violations = stats.readInt32();
            return records == kCalls;
        }));
        CHILD_CHECK(violations == 0);
        return 0;
    }));
}

// One hop of a call chain through three processes. A call carries the calls
// left to make, the index of the next hop, whether the last hop stalls, and
// the hop of each process. A hop calls the next one and answers with the
// answer it got plus its mark and level, and "!" when it ran on another
// thread than the one its process waits on in the chain. A hop that rejoins
// waits, once its call found binderd gone, for the next binderd and registers
// itself there before it answers.
class ChainHop : public BBinder {
public:
    static constexpr uint32_t kHop = IBinder::FIRST_CALL_TRANSACTION;

    // The process waits on `home` when given, else on the thread of its first hop.
    ChainHop(char mark, std::thread::id home = {}, Channel* deep = nullptr, Channel* release = nullptr,
             bool rejoins = false)
        : mMark(mark), mFixedHome(home), mDeep(deep), mRelease(release), mRejoins(rejoins) {}

    static String16 name(char mark) { return String16((std::string("tivra.test.hop.") + mark).c_str()); }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != kHop) {
            return BBinder::onTransact(code, data, reply, flags);
        }
        const int32_t left = data.readInt32();
        const int32_t next = data.readInt32();
        const int32_t stall = data.readInt32();
        std::vector<sp<IBinder>> hops(3);
        for (sp<IBinder>& hop : hops) {
            if (data.readStrongBinder(&hop) != OK) {
                return BAD_VALUE;
            }
        }
        const bool home = enter();
        String16 answer;
        status_t status = OK;
        if (left > 0) {
            Parcel request;
            request.writeInt32(left - 1);
            request.writeInt32((next + 1) % 3);
            request.writeInt32(stall);
            for (const sp<IBinder>& hop : hops) {
                request.writeStrongBinder(hop);
            }
            Parcel back;
            status = hops[next]->transact(kHop, request, &back);
            answer = back.readString16();
            if (status == DEAD_OBJECT && mRejoins) {
                waitUntil([this] { return defaultServiceManager()->addService(name(mMark), this) == OK; });
            }
        } else if (stall != 0 && mDeep != nullptr) {
            mDeep->post("deep");
            mRelease->next(20s);
        }
        leave();
        answer += String16((std::string(1, mMark) + std::to_string(left) + (home ? "" : "!")).c_str());
        return status != OK ? status : reply->writeString16(answer);
    }

private:
    bool enter() {
        std::lock_guard<std::mutex> lock(mLock);
        if (mActive++ == 0) {
            mHome = mFixedHome == std::thread::id() ? std::this_thread::get_id() : mFixedHome;
        }
        return std::this_thread::get_id() == mHome;
    }
    void leave() {
        std::lock_guard<std::mutex> lock(mLock);
        --mActive;
    }

    const char mMark;
    const std::thread::id mFixedHome;
    Channel* const mDeep;
    Channel* const mRelease;
    const bool mRejoins;
    std::mutex mLock;
    int mActive = 0;
    std::thread::id mHome;
};

TEST_F(HostBinderIpc, ChainsOfNestedCallsAnswerEveryLevelAndSurviveTheLossOfBinderd) {
    Channel deep;
    Channel release;
    auto serveHop = [this](char mark, Channel* stalls, Channel* release) {
        return session.spawn([this, mark, stalls, release] {
            CHILD_CHECK(defaultServiceManager()->addService(ChainHop::name(mark), new ChainHop(mark, {}, stalls, release)) ==
                        OK);
            events.post("ready");
            IPCThreadState::self()->joinThreadPool();
            return 0;
        });
    };
    const pid_t b = serveHop('B', nullptr, nullptr);
    const pid_t c = serveHop('C', &deep, &release);
    ASSERT_EQ(events.next(), "ready");
    ASSERT_EQ(events.next(), "ready");
    const pid_t a = session.spawn([] {
        // No thread pool: the calls back into this process can run only on
        // the thread that waits.
        const std::vector<sp<IBinder>> hops{new ChainHop('A', std::this_thread::get_id(), nullptr, nullptr, true),
                                            lookUpTestService(ChainHop::name('B')),
                                            lookUpTestService(ChainHop::name('C'))};
        // Eight calls, from here to B, C, A, B, C, A, B and C.
        auto chain = [&hops](int32_t stall, Parcel* answer) {
            return call(hops[1], ChainHop::kHop, [&](Parcel* p) {
                p->writeInt32(7);
                p->writeInt32(2);
                p->writeInt32(stall);
                for (const sp<IBinder>& hop : hops) {
                    p->writeStrongBinder(hop);
                }
            }, answer);
        };
        Parcel answer;
        CHILD_CHECK(chain(0, &answer) == OK);
        CHILD_CHECK(answer.readString16() == String16("C0B1A2C3B4A5C6B7"));
        // binderd goes while the chain stands at its deepest: each level
        // fails, also after the levels here that answer later reconnected to
        // the next binderd, and the session they made stands.
        CHILD_CHECK(chain(1, &answer) == DEAD_OBJECT);
        CHILD_CHECK(lookUpTestService(ChainHop::name('A')) != nullptr);
        return 0;
    });
    ASSERT_EQ(deep.next(), "deep");
    ASSERT_TRUE(session.stopBinderd());
    ASSERT_TRUE(session.startBinderd()) << session.error();
    release.post("go");
    for (pid_t process : {a, b, c}) {
        EXPECT_EQ(session.waitExit(process), 0);
    }
}

TEST_F(HostBinderIpc, CallbacksRunOnTheClientsThreadPool) {
    startService();
    ASSERT_EQ(events.next(), "ready");
    expectChildPasses(session.spawn([] {
        ProcessState::self()->startThreadPool();
        sp<IBinder> service = lookUpTestService();
        sp<TestListener> listener = new TestListener();
        Parcel added;
        CHILD_CHECK(call(service, TestService::kAddListener, [&](Parcel* p) { p->writeStrongBinder(listener); }, &added) == OK);
        CHILD_CHECK(added.readInt32() == 1);
        Parcel notified;
        CHILD_CHECK(call(service, TestService::kNotify, [](Parcel* p) { p->writeInt32(99); }, &notified) == OK);
        CHILD_CHECK(notified.readInt32() == 1);
        CHILD_CHECK(waitUntil([&] { return listener->events() == 1; }));
        CHILD_CHECK(listener->lastValue() == 99 && listener->lastThread() != std::this_thread::get_id());
        // The service recognises the same listener: one proxy per node.
        Parcel removed;
        CHILD_CHECK(call(service, TestService::kRemoveListener, [&](Parcel* p) { p->writeStrongBinder(listener); }, &removed) == OK);
        CHILD_CHECK(removed.readBool());
        return 0;
    }));
}

TEST_F(HostBinderIpc, BindersTravelBetweenThreeProcessesAndReturnToTheirOwner) {
    startService();
    ASSERT_EQ(events.next(), "ready");
    Channel ownerSays;
    Channel thirdIsDone;
    const pid_t owner = session.spawn([&ownerSays, &thirdIsDone] {
        ProcessState::self()->startThreadPool();
        sp<IBinder> service = lookUpTestService();
        CHILD_CHECK(service == lookUpTestService());
        sp<TestListener> object = new TestListener();
        Parcel ignored;
        CHILD_CHECK(call(service, TestService::kHold, [&](Parcel* p) { p->writeStrongBinder(object); }, &ignored) == OK);
        Parcel back;
        CHILD_CHECK(call(service, TestService::kGiveHeld, nullptr, &back) == OK);
        sp<IBinder> returned = back.readStrongBinder();
        CHILD_CHECK(returned.get() == object.get());
        ownerSays.post("holding");
        // Stay alive, serving, until the third process has its answer: the
        // event is counted before the reply leaves this process.
        CHILD_CHECK(thirdIsDone.next() == "done");
        CHILD_CHECK(object->events() == 1);
        return 0;
    });
    ASSERT_EQ(ownerSays.next(), "holding");
    expectChildPasses(session.spawn([] {
        sp<IBinder> service = lookUpTestService();
        Parcel held;
        CHILD_CHECK(call(service, TestService::kGiveHeld, nullptr, &held) == OK);
        sp<IBinder> object = held.readStrongBinder();
        CHILD_CHECK(object != nullptr && object->remoteBinder() != nullptr);
        Parcel answer;
        CHILD_CHECK(call(object, TestListener::kListenerEvent, [](Parcel* p) { p->writeInt32(5); }, &answer) == OK);
        CHILD_CHECK(answer.readInt32() == 6);
        Parcel same;
        CHILD_CHECK(call(service, TestService::kIsHeld, [&](Parcel* p) { p->writeStrongBinder(object); }, &same) == OK);
        CHILD_CHECK(same.readBool());
        return 0;
    }));
    thirdIsDone.post("done");
    expectChildPasses(owner);
}

TEST_F(HostBinderIpc, RemoteReferencesKeepANodeAliveUntilDroppedOrTheHolderDies) {
    const pid_t service = startService();
    ASSERT_EQ(events.next(), "ready");
    Channel control;
    const pid_t owner = session.spawn([&control] {
        ProcessState::self()->startThreadPool();
        std::atomic<int> live{0};
        sp<IBinder> service = lookUpTestService();
        {
            sp<TestListener> object = new TestListener(&live);
            Parcel ignored;
            CHILD_CHECK(call(service, TestService::kHold, [&](Parcel* p) { p->writeStrongBinder(object); }, &ignored) == OK);
        }
        CHILD_CHECK(live == 1);
        Parcel ignored;
        CHILD_CHECK(call(service, TestService::kDrop, nullptr, &ignored) == OK);
        CHILD_CHECK(waitUntil([&] { return live == 0; }));
        {
            sp<TestListener> object = new TestListener(&live);
            Parcel held;
            CHILD_CHECK(call(service, TestService::kHold, [&](Parcel* p) { p->writeStrongBinder(object); }, &held) == OK);
        }
        // Checked before the parent hears "held" and kills the holder.
        CHILD_CHECK(live == 1);
        control.post("held");
        // The holder is killed now; its reference goes with it.
        CHILD_CHECK(waitUntil([&] { return live == 0; }));
        return 0;
    });
    ASSERT_EQ(control.next(), "held");
    session.kill(service, SIGKILL);
    expectChildPasses(owner);
}

class CountingRecipient : public IBinder::DeathRecipient {
public:
    void binderDied(const wp<IBinder>& /*who*/) override {
        thread = std::this_thread::get_id();
        ++deaths;
    }
    std::atomic<int> deaths{0};
    std::atomic<std::thread::id> thread;
};

TEST_F(HostBinderIpc, KilledServiceIsReportedOnceAndItsCallsFailWithDeadObject) {
    const pid_t service = startService();
    ASSERT_EQ(events.next(), "ready");
    Channel control;
    const pid_t client = session.spawn([&control] {
        sp<IBinder> target = lookUpTestService();
        sp<CountingRecipient> first = new CountingRecipient();
        sp<CountingRecipient> second = new CountingRecipient();
        CHILD_CHECK(target->linkToDeath(first) == OK);
        CHILD_CHECK(target->linkToDeath(second) == OK);
        CHILD_CHECK(target->isBinderAlive());
        control.post("linked");
        CHILD_CHECK(waitUntil([&] { return first->deaths == 1 && second->deaths == 1; }));
        CHILD_CHECK(first->thread.load() != std::this_thread::get_id());
        Parcel reply;
        CHILD_CHECK(call(target, TestService::kEcho, nullptr, &reply) == DEAD_OBJECT);
        CHILD_CHECK(!target->isBinderAlive());
        CHILD_CHECK(target->linkToDeath(new CountingRecipient()) == DEAD_OBJECT);
        CHILD_CHECK(first->deaths == 1 && second->deaths == 1);
        return 0;
    });
    ASSERT_EQ(control.next(), "linked");
    session.kill(service, SIGKILL);
    expectChildPasses(client);
}

TEST_F(HostBinderIpc, OversizedTransactionsAndOneWayFloodsFailWithFailedTransaction) {
    Channel release;
    startService(kTestServiceName, &release);
    ASSERT_EQ(events.next(), "ready");
    expectChildPasses(session.spawn([&release] {
        sp<IBinder> service = lookUpTestService();
        std::vector<uint8_t> big(100 * 1024, 0x5a);
        Parcel reply;
        CHILD_CHECK(call(service, TestService::kEcho, [&](Parcel* p) { p->write(big.data(), big.size()); }, &reply) == OK);
        CHILD_CHECK(reply.dataSize() == big.size() && std::memcmp(reply.data(), big.data(), big.size()) == 0);
        std::vector<uint8_t> tooBig(1024 * 1024 - 8 * 1024 + 4, 1);
        Parcel none;
        CHILD_CHECK(call(service, TestService::kEcho, [&](Parcel* p) { p->write(tooBig.data(), tooBig.size()); }, &none) == FAILED_TRANSACTION);
        // The node is stuck in its first one-way call, so later ones queue up
        // in binderd until the per-process half-buffer limit refuses them.
        Parcel block;
        CHILD_CHECK(service->transact(TestService::kBlockOneway, block, nullptr, IBinder::FLAG_ONEWAY) == OK);
        int accepted = 0;
        status_t status = OK;
        while (status == OK && accepted < 100) {
            Parcel chunk;
            chunk.write(big.data(), big.size());
            status = service->transact(TestService::kRecord, chunk, nullptr, IBinder::FLAG_ONEWAY);
            accepted += status == OK;
        }
        CHILD_CHECK(status == FAILED_TRANSACTION);
        CHILD_CHECK(accepted == 5);
        release.post("go");
        CHILD_CHECK(call(service, TestService::kEcho, nullptr, &reply) == OK);
        return 0;
    }));
}

TEST_F(HostBinderIpc, WithoutBinderdLookupsAreNullAndCallsDeadThenTheNextUseReconnects) {
    startService();
    ASSERT_EQ(events.next(), "ready");
    Channel control;
    Channel restarted;
    const pid_t client = session.spawn([&control, &restarted] {
        sp<IBinder> target = lookUpTestService();
        sp<CountingRecipient> recipient = new CountingRecipient();
        CHILD_CHECK(target->linkToDeath(recipient) == OK);
        control.post("linked");
        CHILD_CHECK(waitUntil([&] { return recipient->deaths == 1; }));
        CHILD_CHECK(lookUpTestService() == nullptr);
        Parcel reply;
        CHILD_CHECK(call(target, TestService::kEcho, nullptr, &reply) == DEAD_OBJECT);
        control.post("checked");
        CHILD_CHECK(restarted.next(20s) == "up");
        // A new binderd on the same socket: the session starts over.
        sp<BBinder> local = new BBinder();
        CHILD_CHECK(defaultServiceManager()->addService(String16("tivra.test.again"), local) == OK);
        CHILD_CHECK(lookUpTestService(String16("tivra.test.again")) == local);
        CHILD_CHECK(recipient->deaths == 1);
        return 0;
    });
    ASSERT_EQ(control.next(), "linked");
    ASSERT_TRUE(session.stopBinderd());
    ASSERT_EQ(control.next(), "checked");
    ASSERT_TRUE(session.startBinderd()) << session.error();
    restarted.post("up");
    expectChildPasses(client);
}

}  // namespace
