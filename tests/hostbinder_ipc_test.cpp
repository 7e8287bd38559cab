// Binder IPC between real processes through a private binderd: what only
// real processes show (sockets, kill -9, credentials, threads, channels,
// chains of nested calls) and the client runtime's own logic. The driver's
// routing, reference and death rules are pinned frame by frame in
// binderd_driver_test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <binder/Status.h>

#include "binderd_fixture.h"
#include "hostbinder_test_service.h"
#include "log_capture.h"
#include "RingBells.h"
#include "protocol/Protocol.h"

namespace {

using namespace android;
using namespace tivra_test;

status_t call(const sp<IBinder>& target, uint32_t code, const std::function<void(Parcel*)>& fill, Parcel* reply,
              uint32_t flags = 0) {
    Parcel data;
    if (fill) {
        fill(&data);
    }
    return target->transact(code, data, reply, flags);
}

// Whether every other thread of this process has started and sleeps. A thread
// that starts once no descriptor is left trips the sanitizers, which check the
// thread's start through a pipe.
bool otherThreadsSleep() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream stat(task.path() / "stat");
        const std::string text(std::istreambuf_iterator<char>(stat), {});
        const size_t name = text.rfind(')');
        if (task.path().filename() != std::to_string(gettid()) && (name == std::string::npos || text[name + 2] != 'S')) {
            return false;
        }
    }
    return true;
}

class HostBinderIpc : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(session.started()) << session.error(); }

    // A child serving TestService under `name`, once it is registered.
    pid_t serve(const String16& name = kTestServiceName, Channel* release = nullptr) {
        const pid_t child = spawnTestService(session, events, name, release);
        EXPECT_EQ(events.next(), "ready");
        return child;
    }

    void expectChildPasses(pid_t child, std::chrono::milliseconds timeout = 20s) {
        EXPECT_EQ(session.waitExit(child, timeout), 0);
    }
    void handOver(int events, const std::function<void(const sp<IBinder>&)>& use);

    BinderdSession session;
    Channel events;
};

TEST_F(HostBinderIpc, ServiceManagerWaitsForLaterNamesRefusesTakenOnesAndForgetsThoseOfDeadProcesses) {
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
        ASSERT_EQ(waiting.next(), "looking");
    }
    const pid_t service = serve();
    for (pid_t client : clients) {
        expectChildPasses(client);
    }
    expectChildPasses(session.spawn([] {
        sp<IServiceManager> manager = defaultServiceManager();
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
        CHILD_CHECK(manager->addService(String16("tivra.test.null"), nullptr) != OK);
        return 0;
    }));
    kill(service, SIGKILL);
    EXPECT_EQ(session.waitExit(service), -1);
    expectChildPasses(session.spawn([] {
        CHILD_CHECK(waitUntil([] { return lookUpTestService() == nullptr; }));
        CHILD_CHECK(defaultServiceManager()->listServices().size() == 0);
        return 0;
    }));
}

// Calls served over a direct channel and, when the caller has no descriptor
// to spare for one, through binderd: the two paths of both runtimes.
TEST_F(HostBinderIpc, CallsCarryDataStatusAndTheCallersIdentityWithOrWithoutAChannel) {
    serve();
    for (const bool channels : {true, false}) {
        SCOPED_TRACE(channels ? "over a channel" : "through binderd");
        expectChildPasses(session.spawn([channels] {
            sp<IBinder> service = lookUpTestService();
            CHILD_CHECK(service != nullptr);
            if (!channels) {
                // The channels' ends binderd hands over are lost on the way in.
                CHILD_CHECK(waitUntil(otherThreadsSleep));
                const int spare = dup(STDERR_FILENO);
                rlimit limit{};
                CHILD_CHECK(spare >= 0 && close(spare) == 0 && getrlimit(RLIMIT_NOFILE, &limit) == 0);
                limit.rlim_cur = static_cast<rlim_t>(spare);
                CHILD_CHECK(setrlimit(RLIMIT_NOFILE, &limit) == 0 && dup(STDERR_FILENO) < 0);
            }
            CHILD_CHECK(service->pingBinder() == OK);
            CHILD_CHECK(service->getInterfaceDescriptor() == String16("tivra.test.IService"));
            const std::vector<uint8_t> big(100 * 1024, 0x5a);
            Parcel reply;
            CHILD_CHECK(call(service, TestService::kEcho, [&](Parcel* p) { p->write(big.data(), big.size()); },
                             &reply) == OK);
            CHILD_CHECK(reply.dataSize() == big.size() && std::memcmp(reply.data(), big.data(), big.size()) == 0);
            const std::vector<uint8_t> tooBig(1024 * 1024 - 8 * 1024 + 4, 1);
            CHILD_CHECK(call(service, TestService::kEcho, [&](Parcel* p) { p->write(tooBig.data(), tooBig.size()); },
                             &reply) == FAILED_TRANSACTION);
            Parcel identity;
            CHILD_CHECK(call(service, TestService::kWhoCalls, nullptr, &identity) == OK);
            CHILD_CHECK(identity.readInt32() == getpid());
            CHILD_CHECK(identity.readInt32() == static_cast<int32_t>(getuid()));
            // Only a negative status fails the call; with any other the reply arrives.
            for (const status_t answer : {status_t{1}, status_t{BAD_VALUE}}) {
                Parcel answered;
                CHILD_CHECK(call(service, TestService::kAnswerWith, [answer](Parcel* p) { p->writeInt32(answer); },
                                 &answered) == std::min<status_t>(answer, OK));
                CHILD_CHECK(answered.readInt32() == std::max<status_t>(answer, OK));
            }
            // Outside any transaction, the caller is this process itself.
            CHILD_CHECK(IPCThreadState::self()->getCallingPid() == getpid());
            // One-way records keep their order across paths. The first opens the channel, the next go
            // on it, each run before the next is sent, and the last carries a binder: binderd holds it
            // until the otherwise idle service says it ran those before it. (Not with the descriptor
            // limit lowered: the sanitizers need a descriptor to check a new object's type.)
            constexpr int32_t kRecords = 5;
            for (int32_t i = 0; channels && i < kRecords; ++i) {
                CHILD_CHECK(call(service, TestService::kRecord, [&](Parcel* p) {
                    p->writeInt32(getpid());
                    p->writeInt32(i);
                    if (i == kRecords - 1) {
                        p->writeStrongBinder(sp<IBinder>(new BBinder()));
                    }
                }, nullptr, IBinder::FLAG_ONEWAY) == OK);
                CHILD_CHECK(recordsArrive(service, i + 1, 10s));
            }
            return 0;
        }));
    }
}

// One hop of a call chain through three processes, A, B and C. A call
// carries the calls left to make and the three hops. A hop calls the next one
// and answers with the answer it got plus its mark and level, and "!" when it
// ran on another thread than the one its process waits on in the chain. The
// hop given `deep` stalls at the end of the second chain. The hop given `home`
// registers itself again, once its call found binderd gone.
class ChainHop : public BBinder {
public:
    static constexpr uint32_t kHop = IBinder::FIRST_CALL_TRANSACTION;

    // The process waits on `home` when given, else on the thread of its first hop.
    ChainHop(char mark, std::thread::id home = {}, Channel* deep = nullptr, Channel* release = nullptr)
        : mMark(mark), mFixedHome(home), mDeep(deep), mRelease(release) {}

    static String16 name(char mark) { return String16((std::string("tivra.test.hop.") + mark).c_str()); }

    // A request with `left` calls to go.
    static void fill(Parcel* p, int32_t left, const std::vector<sp<IBinder>>& hops) {
        p->writeInt32(left);
        for (const sp<IBinder>& hop : hops) {
            p->writeStrongBinder(hop);
        }
    }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != kHop) {
            return BBinder::onTransact(code, data, reply, flags);
        }
        const int32_t left = data.readInt32();
        std::vector<sp<IBinder>> hops(3);
        for (sp<IBinder>& hop : hops) {
            hop = data.readStrongBinder();
        }
        if (mActive++ == 0) {
            mHome = mFixedHome == std::thread::id() ? std::this_thread::get_id() : mFixedHome;
        }
        const bool home = std::this_thread::get_id() == mHome.load();
        String16 answer;
        status_t status = OK;
        if (left > 0) {
            Parcel back;
            status = call(hops[(mMark - 'A' + 1) % 3], kHop, [&](Parcel* p) { fill(p, left - 1, hops); }, &back);
            answer = back.readString16();
            if (status == DEAD_OBJECT && mFixedHome != std::thread::id()) {
                waitUntil([this] { return defaultServiceManager()->addService(name(mMark), this) == OK; });
            }
        } else if (mDeep != nullptr && ++mChainEnds == 2) {
            mDeep->post("deep");
            mRelease->next(20s);
        }
        --mActive;
        answer += String16((std::string(1, mMark) + std::to_string(left) + (home ? "" : "!")).c_str());
        return status != OK ? status : reply->writeString16(answer);
    }

private:
    const char mMark;
    const std::thread::id mFixedHome;
    Channel* const mDeep;
    Channel* const mRelease;
    std::atomic<int> mActive{0};
    std::atomic<int> mChainEnds{0};
    std::atomic<std::thread::id> mHome;
};

class CountingRecipient : public IBinder::DeathRecipient {
public:
    void binderDied(const wp<IBinder>& /*who*/) override {
        thread = std::this_thread::get_id();
        ++deaths;
    }
    std::atomic<int> deaths{0};
    std::atomic<std::thread::id> thread;
};

TEST_F(HostBinderIpc, ChainsOfNestedCallsAnswerEveryLevelAndSurviveTheLossOfBinderd) {
    Channel deep;
    Channel release;
    for (const char mark : {'B', 'C'}) {
        session.spawn([this, mark, &deep, &release] {
            const sp<IBinder> hop = new ChainHop(mark, {}, mark == 'C' ? &deep : nullptr, &release);
            CHILD_CHECK(defaultServiceManager()->addService(ChainHop::name(mark), hop) == OK);
            events.post("ready");
            IPCThreadState::self()->joinThreadPool();
            return 0;
        });
        ASSERT_EQ(events.next(), "ready");
    }
    const pid_t a = session.spawn([] {
        // No thread pool: the calls back into this process can run only on
        // the thread that waits.
        const std::vector<sp<IBinder>> hops{new ChainHop('A', std::this_thread::get_id()),
                                            lookUpTestService(ChainHop::name('B')),
                                            lookUpTestService(ChainHop::name('C'))};
        const sp<CountingRecipient> recipient = new CountingRecipient();
        CHILD_CHECK(hops[1]->linkToDeath(recipient) == OK);
        // Eight calls, from here to B, C, A, B, C, A, B and C.
        Parcel answer;
        CHILD_CHECK(call(hops[1], ChainHop::kHop, [&](Parcel* p) { ChainHop::fill(p, 7, hops); }, &answer) == OK);
        CHILD_CHECK(answer.readString16() == String16("C0B1A2C3B4A5C6B7"));
        // binderd goes while the chain stands at its deepest: each level
        // fails, also after the levels here that answer later reconnected to
        // the next binderd, and the session they made stands. Proxies of the
        // old session are dead for good and their watchers hear it once.
        CHILD_CHECK(call(hops[1], ChainHop::kHop, [&](Parcel* p) { ChainHop::fill(p, 7, hops); }, &answer) ==
                    DEAD_OBJECT);
        CHILD_CHECK(lookUpTestService(ChainHop::name('A')) != nullptr);
        CHILD_CHECK(waitUntil([&] { return recipient->deaths == 1; }));
        CHILD_CHECK(hops[1]->pingBinder() == DEAD_OBJECT);
        return 0;
    });
    ASSERT_EQ(deep.next(), "deep");
    ASSERT_TRUE(session.stopBinderd());
    ASSERT_TRUE(session.startBinderd()) << session.error();
    release.post("go");
    expectChildPasses(a);
}

// A callback object that counts itself in `live` while it exists. An event's
// value is a stream in its upper bits and a sequence below (see eventValue):
// it keeps their order, counts an event run on the thread that made it (which
// only ever waits in calls) as out of order, and tells `report`, when it goes,
// how many events it ran, or -1 when some came out of order.
class TestListener : public BBinder {
public:
    static constexpr int kSequenceBits = 20;
    static int32_t eventValue(int32_t stream, int32_t sequence) { return (stream << kSequenceBits) | sequence; }

    explicit TestListener(std::atomic<int>* live, std::atomic<int>* report = nullptr) : mLive(live), mReport(report) {
        ++*mLive;
    }
    ~TestListener() override {
        // Told before `live` drops: the owner reads it once no listener is left.
        if (mReport != nullptr) {
            *mReport = mHeard.violations == 0 ? mHeard.total : -1;
        }
        --*mLive;
    }

    StreamOrder heard() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mHeard;
    }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != TestService::kListenerEvent) {
            return BBinder::onTransact(code, data, reply, flags);
        }
        const int32_t value = data.readInt32();
        std::lock_guard<std::mutex> lock(mLock);
        mHeard.note(value >> kSequenceBits, value & ((1 << kSequenceBits) - 1), std::this_thread::get_id() == mMaker);
        return OK;
    }

private:
    const std::thread::id mMaker = std::this_thread::get_id();
    std::atomic<int>* const mLive;
    std::atomic<int>* const mReport;
    mutable std::mutex mLock;
    StreamOrder mHeard;
};

// An object goes from its owner to the service, which gives it back as the
// object itself, and on to a third process, which has the service drop it and
// runs `use` with it. The owner holds no reference of its own: the object
// lives until the last remote reference is dropped, and then goes, having run
// `events` one-way events after the owner's own notice, in order.
void HostBinderIpc::handOver(int events, const std::function<void(const sp<IBinder>&)>& use) {
    Channel held;
    const pid_t owner = session.spawn([&held, events] {
        ProcessState::self()->startThreadPool();
        std::atomic<int> live{0};
        std::atomic<int> report{0};
        {
            sp<TestListener> object = new TestListener(&live, &report);
            Parcel reply;
            CHILD_CHECK(call(lookUpTestService(), TestService::kAddListener,
                             [&](Parcel* p) { p->writeStrongBinder(object); }, &reply) == OK);
            CHILD_CHECK(call(lookUpTestService(), TestService::kGiveListener, nullptr, &reply) == OK);
            CHILD_CHECK(reply.readStrongBinder() == object);
            // Once a notice came, this process serves calls: the user gets
            // channels. The call also ends what binderd kept alive for this
            // thread (the binder of the reply before).
            CHILD_CHECK(call(lookUpTestService(), TestService::kNotify, [](Parcel* p) { p->writeInt32(0); },
                             &reply) == OK);
            CHILD_CHECK(waitUntil([&] { return object->heard().total == 1; }, 20s));
        }
        // Checked before the test hears of it and acts.
        CHILD_CHECK(live == 1);
        held.post("held");
        CHILD_CHECK(waitUntil([&] { return live == 0; }, 20s));
        CHILD_CHECK(report == events + 1);
        return 0;
    });
    ASSERT_EQ(held.next(), "held");
    expectChildPasses(session.spawn([&use] {
        sp<IBinder> service = lookUpTestService();
        Parcel reply;
        CHILD_CHECK(call(service, TestService::kGiveListener, nullptr, &reply) == OK);
        sp<IBinder> object = reply.readStrongBinder();
        CHILD_CHECK(object != nullptr && object->remoteBinder() != nullptr);
        CHILD_CHECK(call(service, TestService::kRemoveListener, [&](Parcel* p) { p->writeStrongBinder(object); },
                         &reply) == OK && reply.readBool());
        use(object);
        return 0;
    }));
    expectChildPasses(owner);
}

// One-way calls sent just before the last reference goes still reach the
// object. A call over a channel leaves nothing alive behind it, over a few
// rounds: a channel thread that speaks to binderd anyway (a report due) hides a leak.
TEST_F(HostBinderIpc, BindersTravelAndLiveUntilTheLastRemoteReferenceIsDroppedAlsoAfterACallOverAChannel) {
    constexpr int kEvents = 300;
    serve();
    handOver(kEvents, [](const sp<IBinder>& object) {
        for (int i = 1; i <= kEvents; ++i) {
            CHILD_CHECK(call(object, TestService::kListenerEvent, [i](Parcel* p) { p->writeInt32(i); }, nullptr,
                             IBinder::FLAG_ONEWAY) == OK);
        }
    });
    for (int round = 0; round < 3; ++round) {
        handOver(0, [](const sp<IBinder>& object) { CHILD_CHECK(object->pingBinder() == OK); });
    }
}

TEST_F(HostBinderIpc, PeersKilledMidCallLeaveTheOtherStandingAndAServicesDeathFailsCallsIsReportedOnceAndDropsItsReferences) {
    Channel release;
    const pid_t service = serve(kTestServiceName, &release);
    // The caller dies while its call runs in the service, which answers into
    // the closed channel.
    const pid_t caller = session.spawn([] {
        Parcel reply;
        lookUpTestService()->transact(TestService::kBlockOneway, Parcel(), &reply);
        return 0;
    });
    ASSERT_EQ(events.next(), "blocked");
    kill(caller, SIGKILL);
    EXPECT_EQ(session.waitExit(caller), -1);
    release.post("go");
    const pid_t client = session.spawn([] {
        sp<IBinder> target = lookUpTestService();
        // An object of this process that the service holds goes with it.
        std::atomic<int> live{0};
        Parcel reply;
        CHILD_CHECK(call(target, TestService::kAddListener,
                         [&](Parcel* p) { p->writeStrongBinder(new TestListener(&live)); }, &reply) == OK);
        sp<CountingRecipient> recipient = new CountingRecipient();
        CHILD_CHECK(target->linkToDeath(recipient) == OK);
        // The service dies while this call runs in it.
        CHILD_CHECK(call(target, TestService::kBlockOneway, nullptr, &reply) == DEAD_OBJECT);
        CHILD_CHECK(waitUntil([&] { return recipient->deaths == 1 && live == 0; }));
        CHILD_CHECK(recipient->thread.load() != std::this_thread::get_id());
        CHILD_CHECK(call(target, TestService::kEcho, nullptr, &reply) == DEAD_OBJECT && !target->isBinderAlive());
        CHILD_CHECK(target->linkToDeath(new CountingRecipient()) == DEAD_OBJECT);
        CHILD_CHECK(recipient->deaths == 1);
        return 0;
    });
    ASSERT_EQ(events.next(), "blocked");
    kill(service, SIGKILL);
    expectChildPasses(client);
}

// The eventfds of shared rings stay within a quarter of the descriptor limit,
// read at each take, whether made here or handed over; one that goes gives
// its room back. Beyond, channels carry their calls on their sockets.
TEST(RingBells, StayWithinAQuarterOfTheDescriptorLimit) {
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit lowered = saved;
    lowered.rlim_cur = 40;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    RingBells bells;
    std::vector<RingBells::Bell> held;
    for (int i = 0; i < 9; ++i) {
        held.push_back(bells.make());
        EXPECT_TRUE(held.back()) << "bell " << i;
    }
    held.push_back(bells.adopt(dup(STDERR_FILENO)));
    EXPECT_TRUE(held.back());
    EXPECT_FALSE(bells.make());
    const int refused = dup(STDERR_FILENO);
    EXPECT_FALSE(bells.adopt(refused));
    EXPECT_EQ(fcntl(refused, F_GETFD), -1) << "a bell kept out is closed";
    held.pop_back();
    EXPECT_TRUE(bells.make());
    lowered.rlim_cur = 20;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    EXPECT_FALSE(bells.make());
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
}

// The node is stuck in a one-way call that came over the channel, so later
// ones (too large for it) queue up in binderd behind it until the per-process
// half-buffer bound refuses them; the credit the sender holds must go back
// first, or fewer would fit. Once the stuck call ends, the service tells
// binderd, which asked while it was running, and the queued calls follow.
TEST_F(HostBinderIpc, OneWayFloodsFailWithFailedTransactionOnceTheyFillHalfTheBuffer) {
    Channel release;
    serve(kTestServiceName, &release);
    expectChildPasses(session.spawn([&release] {
        sp<IBinder> service = lookUpTestService();
        int32_t sequence = 0;
        const auto record = [&](const std::vector<uint8_t>& bytes) {
            return call(service, TestService::kRecord, [&](Parcel* p) {
                p->writeInt32(getpid());
                p->writeInt32(sequence);
                p->write(bytes.data(), bytes.size());
            }, nullptr, IBinder::FLAG_ONEWAY);
        };
        // The first opens the channel.
        CHILD_CHECK(record({}) == OK && recordsArrive(service, ++sequence, 10s));
        CHILD_CHECK(call(service, TestService::kBlockOneway, nullptr, nullptr, IBinder::FLAG_ONEWAY) == OK);
        const std::vector<uint8_t> chunk(100 * 1024, 0x5a);
        status_t status = OK;
        while (status == OK && sequence < 100) {
            status = record(chunk);
            sequence += status == OK;
        }
        CHILD_CHECK(status == FAILED_TRANSACTION);
        CHILD_CHECK(sequence == 6);
        release.post("go");
        CHILD_CHECK(recordsArrive(service, sequence, 10s));
        return 0;
    }));
}

// Many threads in many processes call one service at once, while another
// process keeps registering and dropping listeners that the service
// notifies: every reply must be the right one, one-way calls must keep their
// order per stream (also behind a two-way call the service makes while later
// ones wait for its thread), notices run on the listener's pool and
// references must still be released.
TEST_F(HostBinderIpc, ConcurrentCallsAndListenerChurnKeepRepliesOneWayOrderAndReferences) {
    constexpr int kClients = 4;
    constexpr int kThreads = 4;
    constexpr int kCalls = 150;
    constexpr int kRounds = 25;
    constexpr int kNotifies = 4;
    // Generous: the same case runs under ThreadSanitizer on a loaded machine.
    constexpr auto kDeadline = 90s;
    serve();
    // Runs `body(i)` on `count` threads of a child, with a thread pool when `pool`.
    auto onThreads = [this](int count, bool pool, const std::function<void(const sp<IBinder>&, int)>& body) {
        return session.spawn([count, pool, body] {
            if (pool) {
                ProcessState::self()->startThreadPool();
            }
            const sp<IBinder> service = lookUpTestService();
            CHILD_CHECK(service != nullptr);
            std::vector<std::thread> threads;
            for (int i = 0; i < count; ++i) {
                threads.emplace_back(body, service, i);
            }
            for (std::thread& thread : threads) {
                thread.join();
            }
            return 0;
        });
    };
    std::vector<pid_t> workers;
    for (int client = 0; client < kClients; ++client) {
        // Echoes whose replies must be byte-exact copies of their requests,
        // each followed by a one-way record of the process's stream. Its
        // threads take turns on the stream: a record goes once the one
        // before returned, whichever thread sent that, over the channel or,
        // with a binder or too large for it, through binderd behind them.
        workers.push_back(onThreads(kThreads, false, [client](const sp<IBinder>& service, int thread) {
            static std::mutex turn;
            static int32_t next = 0;
            const sp<IBinder> token = new BBinder();
            const std::vector<uint8_t> large(hostbinder::kMaxDirectOnewayBytes + 1, 1);
            for (int32_t i = 0; i < kCalls; ++i) {
                Parcel request;
                request.writeInt32(thread);
                request.writeInt32(i);
                // Sizes vary so that frames of different threads interleave unevenly.
                const std::vector<uint8_t> blob(static_cast<size_t>((thread * 131 + i * 17) % 3000),
                                                static_cast<uint8_t>(thread * 7 + i));
                request.write(blob.data(), blob.size());
                Parcel reply;
                CHILD_CHECK(service->transact(TestService::kEcho, request, &reply) == OK);
                CHILD_CHECK(reply.dataSize() == request.dataSize());
                CHILD_CHECK(std::memcmp(reply.data(), request.data(), request.dataSize()) == 0);
                std::lock_guard<std::mutex> hold(turn);
                const uint32_t code = next % 25 == 3 ? TestService::kLookUpAndRecord : TestService::kRecord;
                // The service may fall far behind on a loaded machine, and a
                // full buffer refuses a one-way call: the record waits until it fits.
                status_t sent = FAILED_TRANSACTION;
                CHILD_CHECK(waitUntil([&] {
                    sent = call(service, code, [&](Parcel* p) {
                        p->writeInt32(client);
                        p->writeInt32(next);
                        if (next % 50 == 20) {
                            p->writeStrongBinder(token);
                        } else if (next % 50 == 45) {
                            p->write(large.data(), large.size());
                        }
                    }, nullptr, IBinder::FLAG_ONEWAY);
                    return sent != FAILED_TRANSACTION;
                }, 30s) && sent == OK);
                ++next;
            }
        }));
    }
    // Each round registers a fresh listener, has the service notify every
    // listener, waits for its own notices (on this process's pool, not on
    // the thread that waits), unregisters it and waits for its release.
    workers.push_back(onThreads(2, true, [](const sp<IBinder>& service, int stream) {
        std::atomic<int> live{0};
        for (int round = 0; round < kRounds; ++round) {
            sp<TestListener> listener = new TestListener(&live);
            Parcel reply;
            CHILD_CHECK(call(service, TestService::kAddListener, [&](Parcel* p) { p->writeStrongBinder(listener); },
                             &reply) == OK);
            for (int n = 0; n < kNotifies; ++n) {
                const int32_t value = TestListener::eventValue(stream, round * kNotifies + n);
                CHILD_CHECK(call(service, TestService::kNotify, [&](Parcel* p) { p->writeInt32(value); }, &reply) ==
                            OK);
            }
            CHILD_CHECK(waitUntil([&] { return listener->heard().countOf(stream) == kNotifies; }, 30s));
            CHILD_CHECK(call(service, TestService::kRemoveListener, [&](Parcel* p) { p->writeStrongBinder(listener); },
                             &reply) == OK);
            CHILD_CHECK(reply.readBool());
            CHILD_CHECK(listener->heard().violations == 0);
            listener.clear();
            // The service and binderd may still hold it for a notice in flight.
            CHILD_CHECK(waitUntil([&] { return live == 0; }, 30s));
        }
    }));
    for (pid_t worker : workers) {
        expectChildPasses(worker, kDeadline);
    }
    expectChildPasses(session.spawn([] {
        CHILD_CHECK(recordsArrive(lookUpTestService(), kClients * kThreads * kCalls, 30s));
        return 0;
    }));
}

}  // namespace
