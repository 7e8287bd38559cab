#include "binderd_attacks.h"

#include <linux/android/binder.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

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
#include "protocol/BinderObject.h"

namespace tivra_test {

using namespace android::hostbinder;

bool RawPeer::sendBytes(const void* bytes, size_t size) {
    const auto* cursor = static_cast<const uint8_t*>(bytes);
    for (ssize_t n = 0; size > 0; cursor += n, size -= static_cast<size_t>(n)) {
        if ((n = send(mFd, cursor, size, MSG_NOSIGNAL)) <= 0) {
            return false;
        }
    }
    return true;
}

bool RawPeer::sendFrame(uint32_t command, const void* payload, size_t size) {
    std::vector<uint8_t> frame;
    appendFrame(&frame, command, payload, size);
    return sendBytes(frame);
}

std::vector<uint8_t> RawPeer::transaction(uint64_t handle, uint32_t code, const std::vector<uint8_t>& data,
                                          const std::vector<uint64_t>& offsets, uint32_t flags) {
    const TransactionHeader header{handle, code, flags, 0, 0, 0, static_cast<uint32_t>(data.size()),
                                   static_cast<uint32_t>(offsets.size()), 0};
    std::vector<uint8_t> frame;
    appendTransaction(&frame, kTransaction, header, data.data(), offsets.data());
    return frame;
}

int64_t RawPeer::hello(uint32_t command, std::vector<uint8_t>* answer, milliseconds timeout) {
    const HelloProcess hello{15, 0};
    std::vector<uint8_t> ignored;
    sendFrame(command, &hello, command == kHelloProcess ? sizeof(hello) : 0);
    return nextCommand(answer != nullptr ? answer : &ignored, timeout);
}

int64_t RawPeer::nextCommand(std::vector<uint8_t>* payload, milliseconds timeout) {
    FrameHeader header;
    if (!readExactly(&header, sizeof(header), timeout)) {
        return mClosed ? 0 : -1;
    }
    payload->resize(header.payloadSize);
    if (!readExactly(payload->data(), payload->size(), timeout)) {
        return mClosed ? 0 : -1;
    }
    return header.command;
}

bool RawPeer::closedByBinderd(milliseconds timeout) {
    pollfd hangup{mFd, POLLRDHUP, 0};
    return poll(&hangup, 1, static_cast<int>(timeout.count())) > 0 && (hangup.revents & (POLLRDHUP | POLLHUP)) != 0;
}

bool RawPeer::readExactly(void* out, size_t size, milliseconds timeout) {
    auto* bytes = static_cast<uint8_t*>(out);
    while (size > 0) {
        pollfd readable{mFd, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(timeout.count())) <= 0) {
            return false;
        }
        // Descriptors binderd hands over (a channel's end) are not wanted:
        // a plain read has the system close them.
        const ssize_t n = recv(mFd, bytes, size, 0);
        if (n <= 0) {
            mClosed = true;
            return false;
        }
        bytes += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

RawSession::RawSession(const std::string& path) : mControl(path), mThread(path) {
    std::vector<uint8_t> welcome;
    if (mControl.hello(kHelloProcess, &welcome) == kWelcome && welcome.size() == sizeof(mToken)) {
        std::memcpy(&mToken, welcome.data(), sizeof(mToken));
        mReady = addThread(mThread);
    }
}

bool RawSession::addThread(RawPeer& peer) const { return peer.sendFrame(kHelloThread, &mToken, sizeof(mToken)); }

int64_t RawSession::answer(std::vector<uint8_t>* reply, milliseconds timeout) {
    std::vector<uint8_t> payload;
    for (;;) {
        const int64_t command = mThread.nextCommand(&payload, timeout);
        int32_t status = 0;
        TransactionView view;
        if (command <= 0) {
            return -1;
        } else if (command == kRefused && payload.size() == sizeof(status)) {
            std::memcpy(&status, payload.data(), sizeof(status));
            return status;
        } else if (command == kIncomingReply &&
                   parseTransaction({kIncomingReply, payload.data(), static_cast<uint32_t>(payload.size())}, &view)) {
            if (reply != nullptr) {
                reply->assign(view.data, view.data + view.header.dataSize + view.header.offsetsCount * 8);
            }
            return view.header.status;
        }
        // Anything else (a thread welcome) is not the answer.
    }
}

namespace {

// The interface token, then the name when one is given.
std::vector<uint8_t> serviceManagerRequest(const std::string* name) {
    android::Parcel data;
    data.writeInterfaceToken(android::String16("android.os.IServiceManager"));
    if (name != nullptr) {
        data.writeString16(android::String16(name->c_str()));
    } else {
        data.writeInt32(0);
    }
    return std::vector<uint8_t>(data.data(), data.data() + data.dataSize());
}

// The exception code that starts a reply (INT32_MIN: none), after a transaction's status.
int32_t exceptionOf(int64_t status, const std::vector<uint8_t>& reply) {
    int32_t exception = status == 0 ? INT32_MIN : static_cast<int32_t>(status);
    if (status == 0 && reply.size() >= sizeof(exception)) {
        std::memcpy(&exception, reply.data(), sizeof(exception));
    }
    return exception;
}

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

int32_t RawSession::addService(const std::string& name, uint64_t address) {
    std::vector<uint8_t> bytes = serviceManagerRequest(&name);
    flat_binder_object object{};
    object.hdr.type = BINDER_TYPE_BINDER;
    object.flags = kObjectFlags;
    object.binder = object.cookie = address;
    const uint64_t offset = bytes.size();
    // The object, then its stability word and two zero words.
    const int32_t stability[3] = {kStabilitySystem, 0, 0};
    bytes.resize(offset + sizeof(object) + sizeof(stability));
    std::memcpy(bytes.data() + offset, &object, sizeof(object));
    std::memcpy(bytes.data() + offset + sizeof(object), stability, sizeof(stability));
    std::vector<uint8_t> reply;
    if (!mThread.sendTransaction(0, kAddService, bytes, {offset})) {
        return INT32_MIN;
    }
    return exceptionOf(answer(&reply), reply);
}

uint32_t RawSession::checkService(const std::string& name) {
    std::vector<uint8_t> reply;
    flat_binder_object object{};
    if (!mThread.sendTransaction(0, kCheckService, serviceManagerRequest(&name)) ||
        exceptionOf(answer(&reply), reply) != 0 || reply.size() < sizeof(int32_t) + sizeof(object)) {
        return 0;
    }
    std::memcpy(&object, reply.data() + sizeof(int32_t), sizeof(object));
    return object.hdr.type == BINDER_TYPE_HANDLE ? object.handle : 0;
}

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
            const auto request = RawPeer::transaction(0, kListServices, serviceManagerRequest(nullptr));
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
            shutdown(a.peers.back()->fd(), SHUT_WR);
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
    mPid = session.spawn([this, victimName]() -> int {
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
            }
        }
    });
}

// Killed: it has nothing to finish.
LegitimateClient::~LegitimateClient() { mSession.waitExit(mPid, milliseconds(0)); }

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
