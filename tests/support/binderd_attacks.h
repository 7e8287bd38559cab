#pragma once

// Hostile and broken processes, written with raw frames: the connections
// they speak on, and the attacks on binderd they make.
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "binderd_fixture.h"
#include "protocol/Protocol.h"
#include "protocol/UnixSocket.h"

namespace tivra_test {

using std::chrono::milliseconds;

// A hand-driven connection to binderd that can say anything, for tests and
// benchmarks that play a hostile or broken process.
class RawPeer {
public:
    explicit RawPeer(const std::string& path) : mFd(android::hostbinder::connectUnixSocket(path)) {}
    ~RawPeer() { close(); }
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    bool connected() const { return mFd >= 0; }
    int fd() const { return mFd; }
    // False once binderd stopped taking bytes (closed the connection).
    bool sendBytes(const void* bytes, size_t size);
    bool sendBytes(const std::vector<uint8_t>& bytes) { return sendBytes(bytes.data(), bytes.size()); }
    bool sendFrame(uint32_t command, const void* payload = nullptr, size_t size = 0);
    bool sendTransaction(uint64_t handle, uint32_t code, const std::vector<uint8_t>& data,
                         const std::vector<uint64_t>& offsets = {}, uint32_t flags = 0) {
        return sendBytes(transaction(handle, code, data, offsets, flags));
    }
    // The frame sendTransaction sends.
    static std::vector<uint8_t> transaction(uint64_t handle, uint32_t code, const std::vector<uint8_t>& data,
                                            const std::vector<uint64_t>& offsets = {}, uint32_t flags = 0);
    // Says hello as a new process (or, given kHelloMonitor, as a watcher):
    // binderd's answer, as nextCommand.
    int64_t hello(uint32_t command = android::hostbinder::kHelloProcess, std::vector<uint8_t>* answer = nullptr,
                  milliseconds timeout = milliseconds(5000));
    // Closes at once, dropping whatever binderd sent and was not read.
    void close() { ::close(std::exchange(mFd, -1)); }

    // The next frame's command; 0 once binderd closed the connection, -1 when
    // it said nothing within the timeout.
    int64_t nextCommand(std::vector<uint8_t>* payload, milliseconds timeout = milliseconds(5000));
    // Whether binderd closed its end within the timeout, without reading
    // what it sent.
    bool closedByBinderd(milliseconds timeout);

private:
    bool readExactly(void* out, size_t size, milliseconds timeout);

    int mFd;
    bool mClosed = false;
};

// A process session opened by hand: its control connection and one thread.
class RawSession {
public:
    explicit RawSession(const std::string& path);

    bool ready() const { return mReady; }
    RawPeer& control() { return mControl; }
    RawPeer& thread() { return mThread; }
    // Opens one more thread connection of this session.
    bool addThread(RawPeer& peer) const;

    // binderd's answer to the thread's last transaction: the status of a
    // refusal or of a reply, -1 without an answer. The reply's bytes and
    // object table go to `reply` when given.
    int64_t answer(std::vector<uint8_t>* reply = nullptr, milliseconds timeout = milliseconds(5000));

    // The service manager's calls, as the platform's client writes them.
    // addService registers a local binder at `address` and answers the
    // reply's exception code (0: accepted); the lookup answers the handle
    // (0: none).
    int32_t addService(const std::string& name, uint64_t address);
    uint32_t checkService(const std::string& name);

private:
    RawPeer mControl;
    RawPeer mThread;
    uint64_t mToken = 0;
    bool mReady = false;
};

// What binderd did to an attacking process.
enum class Outcome {
    kCut,         // closed the attacker's connection(s)
    kRefused,     // answered with a refusal or failing status
    kAbsorbed,    // took everything without objection
    kUnanswered,  // left the attacker waiting
    kBroken,      // the attacker itself failed (crashed, timed out, could not set up)
};
const char* outcomeName(Outcome outcome);

struct AttackTarget {
    std::string socketPath;
    pid_t binderd = -1;
    // 1 runs each attack at the sizes it was first seen at; tests run small.
    double scale = 1;
};

struct Attacker;

// The attacks of a hostile local process on binderd, written with raw frames.
struct Attack {
    const char* name;
    Outcome expected;
    Outcome (*run)(Attacker& attacker);
};
const std::vector<Attack>& binderdAttacks();

// Runs the attack in a child process of the session and returns its outcome.
Outcome runAttack(BinderdSession& session, const Attack& attack, const AttackTarget& target,
                  std::chrono::milliseconds timeout);

// A well-behaved process of the same uid that keeps looking up the victim
// service and calling its echo, checking every answer.
class LegitimateClient {
public:
    struct Window {
        long calls = 0;
        long failures = 0;
        std::chrono::microseconds worst{0};
    };

    LegitimateClient(BinderdSession& session, const std::string& victimName);
    ~LegitimateClient();
    // What happened since the last report.
    Window report();

private:
    BinderdSession& mSession;
    Channel mCommands;
    Channel mReports;
    pid_t mPid = -1;
};

}  // namespace tivra_test
