// Binder IPC between real processes through a private binderd: what only
// real processes show (sockets, kill -9, credentials, threads, channels) and
// the client runtime's own logic (proxies, nested calls, credit).
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
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
#include "protocol/Protocol.h"
#include "raw_peer.h"

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

// The service's record count and order violations.
std::pair<int32_t, int32_t> stats(const sp<IBinder>& service) {
    Parcel reply;
    if (service->transact(TestService::kStats, Parcel(), &reply) != OK) {
        return {-1, -1};
    }
    const int32_t records = reply.readInt32();
    return {records, reply.readInt32()};
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

// Calls served over a direct channel and, when the caller has no descriptor
// to spare for one, through binderd: the two paths of both runtimes.
TEST_F(HostBinderIpc, CallsCarryDataStatusAndTheCallersIdentityWithOrWithoutAChannel) {
    startService();
    ASSERT_EQ(events.next(), "ready");
    for (const bool channels : {true, false}) {
        SCOPED_TRACE(channels ? "over a channel" : "through binderd");
        expectChildPasses(session.spawn([channels] {
            sp<IBinder> service = lookUpTestService();
            CHILD_CHECK(service != nullptr);
            if (!channels) {
                // The channels' ends binderd hands over are lost on the way in.
                const int spare = dup(STDERR_FILENO);
                rlimit limit{};
                CHILD_CHECK(spare >= 0 && close(spare) == 0 && getrlimit(RLIMIT_NOFILE, &limit) == 0);
                limit.rlim_cur = static_cast<rlim_t>(spare);
                CHILD_CHECK(setrlimit(RLIMIT_NOFILE, &limit) == 0 && dup(STDERR_FILENO) < 0);
            }
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
            Parcel record;
            record.writeInt32(channels ? 1 : 2);
            record.writeInt32(0);
            CHILD_CHECK(service->transact(TestService::kRecord, record, nullptr, IBinder::FLAG_ONEWAY) == OK);
            CHILD_CHECK(waitUntil([&] { return stats(service).first == (channels ? 1 : 2); }));
            CHILD_CHECK(stats(service).second == 0);
            // Outside any transaction, the caller is this process itself.
            CHILD_CHECK(IPCThreadState::self()->getCallingPid() == getpid());
            return 0;
        }));
    }
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

TEST_F(HostBinderIpc, PeersKilledMidCallLeaveTheOtherStandingAndAServicesDeathFailsCallsAndIsReportedOnce) {
    Channel release;
    const pid_t service = startService(kTestServiceName, &release);
    ASSERT_EQ(events.next(), "ready");
    // The caller dies while its call runs in the service, which answers into
    // the closed channel.
    const pid_t caller = session.spawn([] {
        Parcel reply;
        lookUpTestService()->transact(TestService::kBlockOneway, Parcel(), &reply);
        return 0;
    });
    ASSERT_EQ(events.next(), "blocked");
    session.kill(caller, SIGKILL);
    EXPECT_EQ(session.waitExit(caller), -1);
    release.post("go");
    const pid_t client = session.spawn([] {
        sp<IBinder> target = lookUpTestService();
        sp<CountingRecipient> first = new CountingRecipient();
        sp<CountingRecipient> second = new CountingRecipient();
        CHILD_CHECK(target->linkToDeath(first) == OK);
        CHILD_CHECK(target->linkToDeath(second) == OK);
        CHILD_CHECK(target->isBinderAlive() && target->pingBinder() == OK);
        // The service dies while this call runs in it.
        Parcel reply;
        CHILD_CHECK(call(target, TestService::kBlockOneway, nullptr, &reply) == DEAD_OBJECT);
        CHILD_CHECK(waitUntil([&] { return first->deaths == 1 && second->deaths == 1; }));
        CHILD_CHECK(first->thread.load() != std::this_thread::get_id());
        CHILD_CHECK(call(target, TestService::kEcho, nullptr, &reply) == DEAD_OBJECT);
        CHILD_CHECK(!target->isBinderAlive());
        CHILD_CHECK(target->linkToDeath(new CountingRecipient()) == DEAD_OBJECT);
        CHILD_CHECK(first->deaths == 1 && second->deaths == 1);
        return 0;
    });
    ASSERT_EQ(events.next(), "blocked");
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

TEST_F(HostBinderIpc, OnAChannelTheCallerIsWhoBinderdSaysReachesOnlyWhatItHoldsAndGarbageCostsItTheChannel) {
    using namespace android::hostbinder;
    startService();
    ASSERT_EQ(events.next(), "ready");
    startService(String16("tivra.test.other"));
    ASSERT_EQ(events.next(), "ready");
    RawSession raw(session.socketPath());
    ASSERT_TRUE(raw.ready());
    const uint32_t mine = raw.checkService("tivra.test.service");
    const uint32_t others = raw.checkService("tivra.test.other");
    ASSERT_TRUE(mine != 0 && others != 0);
    // Refused until the service's thread pool has told binderd it serves.
    std::vector<uint8_t> payload;
    const OpenChannel request{mine, kTwoWayChannel};
    ASSERT_TRUE(waitUntil([&] {
        return raw.thread().sendFrame(kOpenChannel, &request, sizeof(request)) &&
               raw.thread().nextCommand(&payload) == kChannelReady;
    }));
    RawPeer channel(raw.thread().takeDescriptor());
    ASSERT_TRUE(channel.connected());
    ASSERT_TRUE(channel.sendFrame(kDirectHello));
    ASSERT_EQ(channel.nextCommand(&payload), kDirectWelcome);
    // A call naming `handle` as the caller's, with a record's data; the
    // reply's status, and its data in `payload`.
    uint32_t sequence = 0;
    auto callOn = [&](uint32_t handle, uint32_t code) -> int64_t {
        const DirectCall call{++sequence, handle, code, 0, 8, 0};
        std::vector<uint8_t> bytes(sizeof(call) + 8, 0);
        std::memcpy(bytes.data(), &call, sizeof(call));
        DirectReply answer{};
        if (!channel.sendFrame(kDirectCall, bytes.data(), bytes.size()) ||
            channel.nextCommand(&payload) != kDirectReply || payload.size() < sizeof(answer)) {
            return -1;
        }
        std::memcpy(&answer, payload.data(), sizeof(answer));
        payload.erase(payload.begin(), payload.begin() + sizeof(answer));
        return answer.sequence == sequence ? answer.status : -1;
    };
    ASSERT_EQ(callOn(mine, TestService::kWhoCalls), OK);
    int32_t identity[2] = {};
    ASSERT_EQ(payload.size(), sizeof(identity));
    std::memcpy(identity, payload.data(), sizeof(identity));
    EXPECT_EQ(identity[0], getpid());
    EXPECT_EQ(identity[1], static_cast<int32_t>(getuid()));
    // A handle it does not hold, and one it holds of another process's object.
    EXPECT_EQ(callOn(mine + others + 1, TestService::kRecord), FAILED_TRANSACTION);
    EXPECT_EQ(callOn(others, TestService::kRecord), FAILED_TRANSACTION);
    const std::vector<uint8_t> garbage(64, 0xff);
    channel.sendBytes(garbage.data(), garbage.size());
    EXPECT_TRUE(channel.closedByBinderd(5s));  // here, by the service
    expectChildPasses(session.spawn([] {
        Parcel stats;
        CHILD_CHECK(call(lookUpTestService(), TestService::kStats, nullptr, &stats) == OK);
        CHILD_CHECK(stats.readInt32() == 0);
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

// One-way calls that return before binderd has seen them (paid from credit)
// and calls sent ahead to the thread serving a node keep the order of calls
// that waited for binderd.
TEST_F(HostBinderIpc, CallsKeepSendOrderWhicheverPathEachTakesAndWhicheverThreadSendsThem) {
    Channel release;
    startService(kTestServiceName, &release);
    ASSERT_EQ(events.next(), "ready");
    // Every 5 calls, one makes a two-way call of its own in the service while
    // the calls sent ahead to its thread wait. Every 50 calls, one carries a
    // binder and one is too large for the channel: both go through binderd,
    // behind the calls sent before. The receiver is held from kHeldFrom until
    // kHeldTo is sent: the calls between overflow the channel's ring and wait
    // in binderd behind it.
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
                const uint32_t code = next % 5 == 3 ? TestService::kLookUpAndRecord : TestService::kRecord;
                sent = sent && service->transact(code, data, nullptr, IBinder::FLAG_ONEWAY) == OK;
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

TEST_F(HostBinderIpc, CallsSentJustBeforeTheLastReferenceGoesReachTheObject) {
    startService();
    ASSERT_EQ(events.next(), "ready");
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
