#include "binderd_attacks.h"

#include <poll.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <utils/Errors.h>
#include <utils/String16.h>

#include "hostbinder_test_service.h"
#include "raw_peer.h"

namespace tivra_test {

using namespace android::hostbinder;

// What an attack works with in its own process: its target, a raw session
// and the connections it opens.
struct Attacker {
    explicit Attacker(const AttackTarget& target) : target(target), session(target.socketPath) {}

    // `full` scaled to the run, at least `least`.
    size_t scaled(double full, size_t least) const {
        return std::max(least, static_cast<size_t>(full * target.scale));
    }
    // A new connection that has said nothing yet.
    RawPeer& connect() {
        peers.push_back(std::make_unique<RawPeer>(target.socketPath));
        return *peers.back();
    }
    // A new thread connection of the session.
    RawPeer& thread() {
        RawPeer& peer = connect();
        session.addThread(peer);
        return peer;
    }

    const AttackTarget& target;
    RawSession session;
    std::vector<std::unique_ptr<RawPeer>> peers;
};

namespace {

Outcome cutIf(bool cut) { return cut ? Outcome::kCut : Outcome::kAbsorbed; }
Outcome refusedIf(bool refused) { return refused ? Outcome::kRefused : Outcome::kAbsorbed; }

// A service whose only thread has entered the pool and never reads.
struct DeafService {
    DeafService(const std::string& path, const std::string& name) : session(path) {
        registered = session.ready() && session.addService(name, 0x4000) == 0 &&
                     session.thread().sendFrame(kEnterLooper);
    }
    RawSession session;
    bool registered = false;
};

}  // namespace

const char* outcomeName(Outcome outcome) {
    // In the order of Outcome; anything else is broken.
    static const char* const kNames[] = {"cut", "refused", "absorbed", "unanswered", "broken"};
    return kNames[std::min(static_cast<size_t>(outcome), std::size(kNames) - 1)];
}

// Each attack fails against a binderd without the bound or rule it aims at.
const std::vector<Attack>& binderdAttacks() {
    static const std::vector<Attack> attacks{
        // A service that stopped reading dies while binderd still holds part
        // of a large call for it; its name is free again for the next one.
        {"receiver_dies_with_output_queued", Outcome::kRefused, [](Attacker& a) {
            bool allDead = true;
            for (size_t i = 0; i < a.scaled(10, 2); ++i) {
                auto sink = std::make_unique<DeafService>(a.target.socketPath, "attack.sink");
                const uint32_t handle = a.session.checkService("attack.sink");
                if (!sink->registered || handle == 0 ||
                    !a.session.thread().sendTransaction(handle, 1, std::vector<uint8_t>(300 * 1024, 0x5a))) {
                    return Outcome::kBroken;
                }
                // Once the first bytes arrived, the rest waits in binderd.
                pollfd readable{sink->session.thread().fd(), POLLIN, 0};
                poll(&readable, 1, 2000);
                sink.reset();
                allDead &= a.session.answer() == android::DEAD_OBJECT;
            }
            return refusedIf(allDead);
        }},
        // Requests whose replies are never read, on one thread.
        {"request_flood_never_read", Outcome::kCut, [](Attacker& a) {
            const auto request = RawPeer::transaction(0, kListServices, RawSession::listServicesRequest());
            std::vector<uint8_t> batch;
            for (int i = 0; i < 512; ++i) {
                batch.insert(batch.end(), request.begin(), request.end());
            }
            // Long enough for a slow binderd (sanitizers, a busy machine) to
            // reach its bound on output; the cut ends the flood sooner.
            const auto end = std::chrono::steady_clock::now() + milliseconds(a.scaled(8000, 5000));
            while (std::chrono::steady_clock::now() < end) {
                if (!a.session.thread().sendBytes(batch)) {
                    return Outcome::kCut;
                }
            }
            return cutIf(a.session.thread().closedByBinderd(milliseconds(5000)));
        }},
        // Connections of one process that each say hello as a new process.
        {"connections_5000_with_hello", Outcome::kRefused, [](Attacker& a) {
            bool refused = false;
            for (size_t i = 0; i < a.scaled(5000, 300); ++i) {
                refused |= a.connect().hello() != kWelcome;
            }
            return refusedIf(refused);
        }},
        // binderd at its descriptor limit, held there by connections that
        // never speak: a newcomer must still get an answer.
        {"descriptor_exhaustion", Outcome::kRefused, [](Attacker& a) {
            const pid_t binderd = a.target.binderd;
            const std::string descriptors = "/proc/" + std::to_string(binderd) + "/fd";
            const auto open = std::distance(std::filesystem::directory_iterator(descriptors), {});
            rlimit original{};
            if (prlimit(binderd, RLIMIT_NOFILE, nullptr, &original) != 0) {
                return Outcome::kBroken;
            }
            const rlimit lowered{static_cast<rlim_t>(open) + 16, original.rlim_max};
            if (prlimit(binderd, RLIMIT_NOFILE, &lowered, nullptr) != 0) {
                return Outcome::kBroken;
            }
            for (int i = 0; i < 64; ++i) {
                a.connect();
            }
            const bool answered = a.connect().hello(kHelloProcess, nullptr, milliseconds(3000)) >= 0;
            prlimit(binderd, RLIMIT_NOFILE, &original, nullptr);
            return answered ? Outcome::kRefused : Outcome::kUnanswered;
        }},
        {"connections_without_hello", Outcome::kCut, [](Attacker& a) {
            for (size_t i = 0; i < a.scaled(100, 20); ++i) {
                a.connect();
            }
            // Half a hello is no hello.
            const FrameHeader header{sizeof(HelloProcess), kHelloProcess};
            a.peers.front()->sendBytes(&header, sizeof(header));
            return cutIf(std::all_of(a.peers.begin(), a.peers.end(),
                                     [](const auto& peer) { return peer->closedByBinderd(milliseconds(15000)); }));
        }},
        // Many threads each send a near-largest call to a service that never
        // reads. What others send it must not cost it its connection: calls
        // beyond its buffer are refused to their senders.
        {"calls_to_a_service_that_never_reads", Outcome::kRefused, [](Attacker& a) {
            DeafService sink(a.target.socketPath, "attack.slow");
            const uint32_t handle = a.session.checkService("attack.slow");
            if (!sink.registered || handle == 0) {
                return Outcome::kBroken;
            }
            const std::vector<uint8_t> call(1000 * 1000, 0x5a);
            bool refused = false;
            for (size_t i = 0; i < a.scaled(200, 20); ++i) {
                refused |= !a.thread().sendTransaction(handle, 1, call);
            }
            for (auto& thread : a.peers) {
                std::vector<uint8_t> payload;
                int64_t command;
                do {
                    command = thread->nextCommand(&payload, milliseconds(200));
                } while (command == kWelcome);
                refused |= command == kRefused || command == 0;
            }
            return sink.session.thread().closedByBinderd(milliseconds(0)) ? Outcome::kCut : refusedIf(refused);
        }},
        // A frame too large to be one, a frame cut short, a thread with a
        // forged token, and a well-framed release of what the session was
        // never given (what the driver makes of other well-framed nonsense is
        // binderd_driver_test's): each connection is cut, the release's whole session.
        {"malformed_frames", Outcome::kCut, [](Attacker& a) {
            const FrameHeader twoGigabytes{0x80000000u, kTransaction};
            const FrameHeader promise{64, kHelloProcess};
            const HelloThread forgedToken{0x1234567890abcdefULL};
            const HandleCount forgedRelease{99, 1};
            a.connect().sendBytes(&twoGigabytes, sizeof(twoGigabytes));
            a.connect().sendBytes(&promise, sizeof(promise));
            a.peers.back()->sendBytes("short", 5);
            a.peers.back()->finishSending();
            a.connect().sendFrame(kHelloThread, &forgedToken, sizeof(forgedToken));
            a.session.control().sendFrame(kReleaseHandle, &forgedRelease, sizeof(forgedRelease));
            const auto cut = [](RawPeer& peer) { return peer.closedByBinderd(milliseconds(5000)); };
            return cutIf(cut(a.session.control()) && cut(a.session.thread()) &&
                         std::all_of(a.peers.begin(), a.peers.end(), [&](const auto& peer) { return cut(*peer); }));
        }},
        // Many threads each send all but the last byte of a largest frame.
        {"partial_frames_on_200_threads", Outcome::kCut, [](Attacker& a) {
            std::vector<uint8_t> frame(sizeof(FrameHeader) + kMaxPayload - 1, 0);
            const FrameHeader header{static_cast<uint32_t>(kMaxPayload), kTransaction};
            std::memcpy(frame.data(), &header, sizeof(header));
            bool cut = false;
            for (size_t i = 0; i < a.scaled(200, 40) && !cut; ++i) {
                cut = !a.thread().sendBytes(frame);
            }
            for (auto& thread : a.peers) {
                cut |= thread->closedByBinderd(milliseconds(0));
            }
            return cutIf(cut);
        }},
    };
    return attacks;
}

Outcome runAttack(BinderdSession& session, const Attack& attack, const AttackTarget& target,
                  std::chrono::milliseconds timeout) {
    const pid_t attacker = session.spawn([&] {
        Attacker self(target);
        return static_cast<int>(self.session.ready() ? attack.run(self) : Outcome::kBroken);
    });
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
            ++window.calls;
            window.failures += answered ? 0 : 1;
            window.worst = std::max(window.worst, std::chrono::duration_cast<std::chrono::microseconds>(
                                                      std::chrono::steady_clock::now() - start));
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
