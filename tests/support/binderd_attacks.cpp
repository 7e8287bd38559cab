#include "binderd_attacks.h"

#include <dirent.h>
#include <linux/android/binder.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <thread>

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <utils/Errors.h>
#include <utils/String16.h>

#include "Limits.h"
#include "hostbinder_test_service.h"
#include "raw_peer.h"

namespace tivra_test {

using namespace android::hostbinder;
using std::chrono::milliseconds;

namespace {

constexpr int32_t kExSecurity = -1;

size_t scaled(const AttackTarget& target, double full, size_t least) {
    return std::max(least, static_cast<size_t>(full * target.scale));
}

std::string longName(size_t index) {
    std::string name = "attack." + std::to_string(index) + ".";
    name.resize(127, 'x');
    return name;
}

// Registers as many 127-character names as binderd takes; true when it
// refused some.
bool registerManyNames(RawSession& session, size_t count) {
    bool refused = false;
    for (size_t i = 0; i < count; ++i) {
        refused |= session.addService(longName(i), 0x10000 + 16 * i) != 0;
    }
    return refused;
}

// A service whose only thread has entered the pool and never reads.
struct DeafService {
    explicit DeafService(const AttackTarget& target, const std::string& name) : session(target.socketPath) {
        registered = session.ready() && session.addService(name, 0x4000) == 0 &&
                     session.thread().sendFrame(kEnterLooper);
    }
    RawSession session;
    bool registered = false;
};

// A service that stopped reading dies while binderd still holds part of a
// large call for it.
Outcome queuedOutputThenDeath(const AttackTarget& target) {
    bool allDead = true;
    for (size_t i = 0; i < scaled(target, 10, 2); ++i) {
        auto sink = std::make_unique<DeafService>(target, "attack.sink");
        RawSession caller(target.socketPath);
        const uint32_t handle = caller.checkService("attack.sink");
        if (!sink->registered || !caller.ready() || handle == 0 ||
            !caller.thread().sendTransaction(handle, 1, std::vector<uint8_t>(300 * 1024, 0x5a))) {
            return Outcome::kBroken;
        }
        // Once the first bytes arrived, the rest waits in binderd.
        pollfd readable{sink->session.thread().fd(), POLLIN, 0};
        poll(&readable, 1, 2000);
        sink.reset();
        allDead &= caller.answer() == android::DEAD_OBJECT;
    }
    return allDead ? Outcome::kRefused : Outcome::kAbsorbed;
}

Outcome manyLongNames(const AttackTarget& target) {
    RawSession session(target.socketPath);
    if (!session.ready()) {
        return Outcome::kBroken;
    }
    const bool refused = registerManyNames(session, scaled(target, 4500, 300));
    if (!session.thread().sendTransaction(0, kListServices, RawSession::listServicesRequest()) ||
        session.answer() < -1) {
        return Outcome::kBroken;
    }
    return refused ? Outcome::kRefused : Outcome::kAbsorbed;
}

Outcome listBurstUnread(const AttackTarget& target) {
    RawSession session(target.socketPath);
    if (!session.ready()) {
        return Outcome::kBroken;
    }
    registerManyNames(session, scaled(target, 4500, 300));
    std::vector<uint8_t> burst;
    const std::vector<uint8_t> request = RawSession::listServicesRequest();
    while (burst.size() < scaled(target, 273 * 1024, 64 * 1024)) {
        TransactionHeader header{};
        header.code = kListServices;
        header.dataSize = static_cast<uint32_t>(request.size());
        appendTransaction(&burst, kTransaction, header, request.data(), nullptr);
    }
    session.thread().sendBytes(burst.data(), burst.size());
    return session.thread().closedByBinderd(milliseconds(10000)) ? Outcome::kCut : Outcome::kAbsorbed;
}

Outcome floodUnread(const AttackTarget& target) {
    RawSession session(target.socketPath);
    if (!session.ready()) {
        return Outcome::kBroken;
    }
    std::vector<uint8_t> batch;
    const std::vector<uint8_t> request = RawSession::listServicesRequest();
    for (int i = 0; i < 512; ++i) {
        TransactionHeader header{};
        header.code = kListServices;
        header.dataSize = static_cast<uint32_t>(request.size());
        appendTransaction(&batch, kTransaction, header, request.data(), nullptr);
    }
    // Long enough for a slow binderd (sanitizers, a busy machine) to reach
    // its bound on output; the cut ends the flood sooner.
    const auto end = std::chrono::steady_clock::now() + milliseconds(scaled(target, 8000, 5000));
    while (std::chrono::steady_clock::now() < end) {
        if (!session.thread().sendBytes(batch.data(), batch.size())) {
            return Outcome::kCut;
        }
    }
    return session.thread().closedByBinderd(milliseconds(5000)) ? Outcome::kCut : Outcome::kAbsorbed;
}

// Opens connections that each say hello as a new process; true when binderd
// turned some away.
bool helloFlood(const AttackTarget& target, size_t count, std::vector<std::unique_ptr<RawPeer>>* peers) {
    bool refused = false;
    for (size_t i = 0; i < count; ++i) {
        auto peer = std::make_unique<RawPeer>(target.socketPath);
        const HelloProcess hello{15, 0};
        std::vector<uint8_t> payload;
        refused |= !peer->sendFrame(kHelloProcess, &hello, sizeof(hello)) || peer->nextCommand(&payload) != kWelcome;
        peers->push_back(std::move(peer));
    }
    return refused;
}

Outcome manyHellos(const AttackTarget& target) {
    std::vector<std::unique_ptr<RawPeer>> peers;
    return helloFlood(target, scaled(target, 5000, 300), &peers) ? Outcome::kRefused : Outcome::kAbsorbed;
}

Outcome deathRequests(const AttackTarget& target) {
    RawSession session(target.socketPath);
    const uint32_t handle = session.checkService(target.victimName);
    if (handle == 0) {
        return Outcome::kBroken;
    }
    std::vector<uint8_t> batch;
    const HandleCount request{handle, 0};
    for (int i = 0; i < 65536; ++i) {
        appendFrame(&batch, kRequestDeath, &request, sizeof(request));
    }
    const size_t total = scaled(target, 20e6, 200000);
    for (size_t sent = 0; sent < total; sent += 65536) {
        if (!session.control().sendBytes(batch.data(), batch.size())) {
            return Outcome::kCut;
        }
    }
    // Still a healthy session: the repeats cost binderd nothing.
    return session.checkService(target.victimName) == handle ? Outcome::kAbsorbed : Outcome::kCut;
}

size_t openDescriptors(pid_t pid) {
    size_t count = 0;
    if (DIR* fds = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str())) {
        while (readdir(fds) != nullptr) {
            ++count;
        }
        closedir(fds);
    }
    return count;
}

// binderd at its descriptor limit, held there by connections that never
// speak: a newcomer must still get an answer.
Outcome descriptorExhaustion(const AttackTarget& target) {
    rlimit lowered{openDescriptors(target.binderd) + 16, 0};
    rlimit original{};
    if (prlimit(target.binderd, RLIMIT_NOFILE, nullptr, &original) != 0) {
        return Outcome::kBroken;
    }
    lowered.rlim_max = original.rlim_max;
    if (prlimit(target.binderd, RLIMIT_NOFILE, &lowered, nullptr) != 0) {
        return Outcome::kBroken;
    }
    std::vector<std::unique_ptr<RawPeer>> silent;
    for (int i = 0; i < 64; ++i) {
        silent.push_back(std::make_unique<RawPeer>(target.socketPath));
    }
    RawPeer newcomer(target.socketPath);
    const HelloProcess hello{15, 0};
    std::vector<uint8_t> payload;
    newcomer.sendFrame(kHelloProcess, &hello, sizeof(hello));
    const bool answered = newcomer.nextCommand(&payload, milliseconds(3000)) >= 0;
    prlimit(target.binderd, RLIMIT_NOFILE, &original, nullptr);
    return answered ? Outcome::kRefused : Outcome::kUnanswered;
}

Outcome silentConnections(const AttackTarget& target) {
    std::vector<std::unique_ptr<RawPeer>> silent;
    for (size_t i = 0; i < scaled(target, 100, 20); ++i) {
        silent.push_back(std::make_unique<RawPeer>(target.socketPath));
    }
    // Half a hello is no hello.
    const FrameHeader header{sizeof(HelloProcess), kHelloProcess};
    silent.front()->sendBytes(&header, sizeof(header));
    for (const auto& peer : silent) {
        if (!peer->closedByBinderd(milliseconds(15000))) {
            return Outcome::kAbsorbed;
        }
    }
    return Outcome::kCut;
}

Outcome nameTheft(const AttackTarget& target) {
    RawSession session(target.socketPath);
    const int32_t exception = session.addService(target.victimName, 0x5000);
    if (exception == kExSecurity) {
        return Outcome::kRefused;
    }
    // Taken: callers now reach this session, which never answers.
    std::this_thread::sleep_for(milliseconds(scaled(target, 2000, 500)));
    return exception == 0 ? Outcome::kAbsorbed : Outcome::kBroken;
}

// Many threads each send a near-largest call to a service that never reads.
Outcome slowReceiverFlood(const AttackTarget& target) {
    DeafService sink(target, "attack.slow");
    RawSession caller(target.socketPath);
    const uint32_t handle = caller.checkService("attack.slow");
    if (!sink.registered || handle == 0) {
        return Outcome::kBroken;
    }
    const std::vector<uint8_t> call(1000 * 1000, 0x5a);
    std::vector<std::unique_ptr<RawPeer>> threads;
    bool refused = false;
    for (size_t i = 0; i < scaled(target, 200, 20); ++i) {
        auto thread = std::make_unique<RawPeer>(target.socketPath);
        if (!caller.addThread(*thread) || !thread->sendTransaction(handle, 1, call)) {
            refused = true;
        }
        threads.push_back(std::move(thread));
    }
    for (auto& thread : threads) {
        std::vector<uint8_t> payload;
        int64_t command;
        do {
            command = thread->nextCommand(&payload, milliseconds(200));
        } while (command == kWelcome);
        refused |= command == kRefused || command == 0;
    }
    return refused ? Outcome::kRefused : Outcome::kAbsorbed;
}

// Many threads each send all but the last byte of a largest transaction.
Outcome partialFrames(const AttackTarget& target) {
    RawSession session(target.socketPath);
    if (!session.ready()) {
        return Outcome::kBroken;
    }
    TransactionHeader header{};
    header.dataSize = static_cast<uint32_t>(kMaxTransactionBytes);
    std::vector<uint8_t> frame;
    const std::vector<uint8_t> data(kMaxTransactionBytes, 0);
    appendTransaction(&frame, kTransaction, header, data.data(), nullptr);
    frame.pop_back();
    std::vector<std::unique_ptr<RawPeer>> threads;
    bool cut = false;
    for (size_t i = 0; i < scaled(target, 200, 40) && !cut; ++i) {
        auto thread = std::make_unique<RawPeer>(target.socketPath);
        cut = !session.addThread(*thread) || !thread->sendBytes(frame.data(), frame.size());
        threads.push_back(std::move(thread));
    }
    for (auto& thread : threads) {
        cut |= thread->closedByBinderd(milliseconds(0));
    }
    return cut ? Outcome::kCut : Outcome::kAbsorbed;
}

// Starts `body` in `count` child processes of the attacker, each its own
// process for binderd.
std::vector<pid_t> startProcesses(size_t count, const std::function<int(size_t)>& body) {
    std::vector<pid_t> children;
    for (size_t i = 0; i < count; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(body(i));
        }
        children.push_back(child);
    }
    return children;
}

// Their exit statuses (-1: killed, or still running at the timeout).
std::vector<int> exitStatuses(const std::vector<pid_t>& children, std::chrono::milliseconds timeout) {
    std::vector<int> statuses;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (pid_t child : children) {
        int status = 0;
        pid_t done = 0;
        while ((done = waitpid(child, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(milliseconds(5));
        }
        if (done == 0) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
        }
        statuses.push_back(done == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    }
    return statuses;
}

// One process of the uid holds what binderd buffers for a process, to within
// a few bytes, in frames that never end: each connection sends all but the
// last byte of a frame, a largest one first, half as large after binderd cut
// one for going over. Then it holds them while others need room. 1 when
// binderd then cut one of them.
int holdPartialFrames(const AttackTarget& target) {
    RawSession session(target.socketPath);
    if (!session.ready()) {
        return 2;
    }
    std::vector<uint8_t> frame(sizeof(FrameHeader) + kMaxPayload, 0);
    std::vector<std::unique_ptr<RawPeer>> held;
    size_t size = frame.size();
    while (size >= 16 && held.size() < android::binderd::kMaxConnectionsPerProcess - 8) {
        const FrameHeader header{static_cast<uint32_t>(size - sizeof(FrameHeader)), kTransaction};
        std::memcpy(frame.data(), &header, sizeof(header));
        auto thread = std::make_unique<RawPeer>(target.socketPath);
        std::vector<uint8_t> welcome;
        if (!session.addThread(*thread) || thread->nextCommand(&welcome) != kWelcome ||
            !thread->sendBytes(frame.data(), size - 1) || thread->closedByBinderd(milliseconds(20))) {
            size /= 2;
            continue;
        }
        held.push_back(std::move(thread));
    }
    for (int wait = 0; wait < 100; ++wait) {
        for (const auto& thread : held) {
            if (thread->closedByBinderd(milliseconds(0))) {
                return 1;
            }
        }
        std::this_thread::sleep_for(milliseconds(20));
    }
    return 0;
}

// Processes of the uid fill the bytes binderd buffers for the uid with
// partial frames, each to its own bound and one more beyond the uid's.
Outcome uidFilledWithPartialFrames(const AttackTarget& target) {
    using namespace android::binderd;
    const size_t processes = kMaxBufferedPerUid / kMaxBufferedPerProcess + 1;
    const std::vector<int> statuses = exitStatuses(
        startProcesses(processes, [&](size_t) { return holdPartialFrames(target); }), milliseconds(60000));
    if (std::count(statuses.begin(), statuses.end(), 2) > 0) {
        return Outcome::kBroken;
    }
    return std::count(statuses.begin(), statuses.end(), 1) > 0 ? Outcome::kCut : Outcome::kAbsorbed;
}

// The first of a stream of one-way calls of no data, waiting for binderd's
// answer: the credit it grants (0 when none), or -1 when refused.
int64_t firstOnewayCall(RawSession& session, uint32_t handle) {
    std::vector<uint8_t> payload;
    if (!session.thread().sendTransaction(handle, 1, {}, {}, kFlagOneway)) {
        return -1;
    }
    for (;;) {
        const int64_t command = session.thread().nextCommand(&payload);
        OnewayAccepted accepted{};
        if (command == kTransactionComplete && payload.size() == sizeof(accepted)) {
            std::memcpy(&accepted, payload.data(), sizeof(accepted));
            return accepted.creditBytes;
        }
        if (command != kWelcome) {
            return -1;
        }
    }
}

// A service of the attacker's that never takes its calls, and a stream of
// one-way calls of no data at it, paid from credit as if credit never ended.
Outcome zeroByteOnewayFlood(const AttackTarget& target) {
    RawSession sink(target.socketPath);
    RawSession sender(target.socketPath);
    if (!sink.ready() || sink.addService("attack.zero", 0x4000) != 0) {
        return Outcome::kBroken;
    }
    const uint32_t handle = sender.checkService("attack.zero");
    if (handle == 0 || firstOnewayCall(sender, handle) <= 0) {
        return Outcome::kBroken;
    }
    TransactionHeader header{};
    header.target = handle;
    header.code = 1;
    header.flags = kFlagOneway;
    std::vector<uint8_t> batch;
    for (int i = 0; i < 4096; ++i) {
        appendTransaction(&batch, kOnewayCredited, header, nullptr, nullptr);
    }
    const size_t total = scaled(target, 20e6, 100000);
    for (size_t sent = 0; sent < total; sent += 4096) {
        if (!sender.control().sendBytes(batch.data(), batch.size())) {
            return Outcome::kCut;
        }
    }
    return sender.control().closedByBinderd(milliseconds(5000)) ? Outcome::kCut : Outcome::kAbsorbed;
}

// The victim service stops (as under a debugger) while one-way calls of no
// data pour in for it; then it goes on. Its connections must not be cut for
// what others sent it: calls beyond its buffer are refused to their sender.
Outcome onewayFloodAtAStoppedService(const AttackTarget& target) {
    RawSession sender(target.socketPath);
    const uint32_t handle = sender.checkService(target.victimName);
    if (handle == 0 || target.victimPid <= 0 || kill(target.victimPid, SIGSTOP) != 0) {
        return Outcome::kBroken;
    }
    struct Resume {
        pid_t pid;
        ~Resume() { kill(pid, SIGCONT); }
    } resume{target.victimPid};
    TransactionHeader header{};
    header.target = handle;
    header.code = 1;
    header.flags = kFlagOneway;
    std::vector<uint8_t> batch;
    constexpr size_t kBatch = 1024;
    for (size_t i = 0; i < kBatch; ++i) {
        appendTransaction(&batch, kTransaction, header, nullptr, nullptr);
    }
    size_t refused = 0;
    const size_t total = scaled(target, 1e6, 20000);
    std::vector<uint8_t> payload;
    for (size_t sent = 0; sent < total; sent += kBatch) {
        if (!sender.thread().sendBytes(batch.data(), batch.size())) {
            return Outcome::kCut;
        }
        for (size_t answered = 0; answered < kBatch;) {
            const int64_t command = sender.thread().nextCommand(&payload);
            if (command <= 0) {
                return command == 0 ? Outcome::kCut : Outcome::kUnanswered;
            }
            refused += command == kRefused ? 1 : 0;
            answered += command == kRefused || command == kTransactionComplete ? 1 : 0;
        }
    }
    return refused > 0 ? Outcome::kRefused : Outcome::kAbsorbed;
}

// Processes of the uid register all the names the uid may have, and one
// more; then a process holding none registers one. It must get it: the uid's
// bound is taken back from a process holding the most.
Outcome namesOfManyProcesses(const AttackTarget& target) {
    using namespace android::binderd;
    const size_t processes = kMaxNamesPerUid / kMaxNamesPerProcess + 1;
    Channel registered;
    const std::vector<pid_t> hogs = startProcesses(processes, [&](size_t index) {
        RawSession session(target.socketPath);
        for (size_t i = 0; i < kMaxNamesPerProcess; ++i) {
            session.addService("attack.hog" + std::to_string(index) + "." + std::to_string(i), 0x1000 + 16 * i);
        }
        registered.post("done");
        // 1 when binderd ended this process's session.
        return session.control().closedByBinderd(milliseconds(3000)) ? 1 : 0;
    });
    for (size_t i = 0; i < processes; ++i) {
        registered.next(milliseconds(20000));
    }
    RawSession fresh(target.socketPath);
    const int32_t exception = fresh.addService("attack.fresh", 0x7000);
    const std::vector<int> statuses = exitStatuses(hogs, milliseconds(10000));
    if (exception != 0) {
        return Outcome::kRefused;
    }
    return std::count(statuses.begin(), statuses.end(), 1) > 0 ? Outcome::kCut : Outcome::kAbsorbed;
}

// One process opens session pairs; in each, one session sends the other
// (which never reads) a call carrying as many new binders as a call holds.
// Its sessions share the process's bound on nodes and handles.
Outcome nodesFromManySessions(const AttackTarget& target) {
    const size_t objects = kMaxTransactionBytes / (sizeof(flat_binder_object) + sizeof(uint64_t));
    std::vector<std::unique_ptr<RawSession>> sessions;
    for (size_t pair = 0; pair < scaled(target, 60, 2); ++pair) {
        auto receiver = std::make_unique<RawSession>(target.socketPath);
        auto sender = std::make_unique<RawSession>(target.socketPath);
        const std::string name = "attack.pair." + std::to_string(pair);
        if (!receiver->ready() || !sender->ready() || receiver->addService(name, 0x4000) != 0) {
            return Outcome::kBroken;
        }
        const uint32_t handle = sender->checkService(name);
        std::vector<uint8_t> data(objects * sizeof(flat_binder_object));
        std::vector<uint64_t> offsets(objects);
        for (size_t i = 0; i < objects; ++i) {
            flat_binder_object object{};
            object.hdr.type = BINDER_TYPE_BINDER;
            object.binder = object.cookie = 0x100000 + 0x100 * (pair * objects + i);
            std::memcpy(data.data() + i * sizeof(object), &object, sizeof(object));
            offsets[i] = i * sizeof(object);
        }
        if (handle == 0 || !sender->thread().sendTransaction(handle, 1, data, offsets)) {
            return Outcome::kBroken;
        }
        // The first pair's call waits in its receiver; a later one is refused.
        if (sender->answer(nullptr, milliseconds(pair == 0 ? 200 : 5000)) == android::FAILED_TRANSACTION) {
            return Outcome::kRefused;
        }
        sessions.push_back(std::move(receiver));
        sessions.push_back(std::move(sender));
    }
    return Outcome::kAbsorbed;
}

}  // namespace

const char* outcomeName(Outcome outcome) {
    // In the order of Outcome; anything else is broken.
    static const char* const kNames[] = {"cut", "refused", "absorbed", "unanswered", "broken"};
    return kNames[std::min(static_cast<size_t>(outcome), std::size(kNames) - 1)];
}

const std::vector<Attack>& binderdAttacks() {
    static const std::vector<Attack> attacks{
        {"receiver_dies_with_output_queued", Outcome::kRefused, queuedOutputThenDeath},
        {"names_4500_of_127_chars", Outcome::kRefused, manyLongNames},
        {"list_burst_never_read", Outcome::kCut, listBurstUnread},
        {"request_flood_never_read", Outcome::kCut, floodUnread},
        {"connections_5000_with_hello", Outcome::kRefused, manyHellos},
        {"death_requests_20M_one_handle", Outcome::kAbsorbed, deathRequests},
        {"descriptor_exhaustion", Outcome::kRefused, descriptorExhaustion},
        {"connections_without_hello", Outcome::kCut, silentConnections},
        {"name_theft", Outcome::kRefused, nameTheft},
        {"calls_to_a_service_that_never_reads", Outcome::kRefused, slowReceiverFlood},
        {"partial_frames_on_200_threads", Outcome::kCut, partialFrames},
        {"uid_buffer_filled_by_5_processes", Outcome::kCut, uidFilledWithPartialFrames},
        {"zero_byte_oneway_flood_20M", Outcome::kCut, zeroByteOnewayFlood},
        {"oneway_flood_at_a_stopped_service_1M", Outcome::kRefused, onewayFloodAtAStoppedService},
        {"names_of_5_processes", Outcome::kCut, namesOfManyProcesses},
        {"nodes_from_60_session_pairs_of_one_process", Outcome::kRefused, nodesFromManySessions},
    };
    return attacks;
}

Outcome runAttack(BinderdSession& session, const Attack& attack, const AttackTarget& target,
                  std::chrono::milliseconds timeout) {
    const pid_t attacker = session.spawn([&] { return static_cast<int>(attack.run(target)); });
    const int status = session.waitExit(attacker, timeout);
    return status >= 0 && status <= static_cast<int>(Outcome::kBroken) ? static_cast<Outcome>(status)
                                                                        : Outcome::kBroken;
}

LegitimateClient::LegitimateClient(BinderdSession& session, const std::string& victimName) : mSession(session) {
    mPid = session.spawn([this, victimName] {
        const android::String16 name(victimName.c_str());
        Window window;
        for (int32_t i = 0;; ++i) {
            const auto start = std::chrono::steady_clock::now();
            bool answered = false;
            if (android::sp<android::IBinder> service = android::defaultServiceManager()->checkService(name)) {
                android::Parcel data;
                android::Parcel reply;
                data.writeInt32(i);
                answered = service->transact(TestService::kEcho, data, &reply) == android::OK &&
                           reply.readInt32() == i;
            }
            const auto took = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
            ++window.calls;
            window.failures += answered ? 0 : 1;
            window.worst = std::max(window.worst, took);
            // A call a millisecond, as a busy but ordinary client.
            const std::string command = mCommands.next(milliseconds(1));
            if (!command.empty()) {
                mReports.post(std::to_string(window.calls) + " " + std::to_string(window.failures) + " " +
                              std::to_string(window.worst.count()));
                window = Window{};
                if (command == "quit") {
                    return 0;
                }
            }
        }
    });
}

LegitimateClient::~LegitimateClient() {
    if (mPid > 0) {
        mCommands.post("quit");
        mReports.next(milliseconds(5000));
        mSession.waitExit(mPid, milliseconds(5000));
    }
}

LegitimateClient::Window LegitimateClient::report() {
    mCommands.post("report");
    Window window;
    long worst = -1;
    if (std::sscanf(mReports.next(milliseconds(30000)).c_str(), "%ld %ld %ld", &window.calls, &window.failures,
                    &worst) != 3) {
        window.failures = -1;
    }
    window.worst = std::chrono::microseconds(worst);
    return window;
}

}  // namespace tivra_test
