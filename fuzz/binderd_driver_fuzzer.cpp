// Feeds arbitrary byte streams from four connections of two processes to
// binderd's frame decoder and driver. Whatever arrives, the driver must never
// crash, read outside a frame or grow without bound; a connection it cuts is
// replaced by a fresh one so the run goes on.
//
// Input: records of [selector byte][frame bytes]. The selector's low two bits
// pick the connection; bit 2 disconnects it instead; bit 3 lets pending
// service lookups time out and watchers catch up. A HelloThread whose token is
// below 4 is given the token of that connection's last welcome, so thread
// sessions can be reached; any connection may watch the traffic, and every
// other watcher is too far behind to be sent anything.
#include <cstddef>
#include <cstdint>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

#include <android/log.h>

#include "Driver.h"

namespace {

using android::binderd::ConnectionId;
using namespace android::hostbinder;

void DiscardLog(const struct __android_logger_data*, const char*) {}

constexpr size_t kConnections = 4;

class RecordingOutbox : public android::binderd::Outbox {
public:
    void send(ConnectionId to, uint32_t command, const void* payload, size_t size) override {
        if (command == kWelcome && size == sizeof(HelloThread)) {
            std::memcpy(&mTokens[to], payload, sizeof(uint64_t));
        }
    }
    void sendTransaction(ConnectionId, uint32_t, const TransactionHeader& header, const uint8_t* data,
                         const uint64_t* offsets) override {
        // Touch every byte handed out, so a bad pointer shows under ASan.
        volatile uint8_t sink = 0;
        for (uint32_t i = 0; i < header.dataSize; ++i) sink = sink ^ data[i];
        for (uint32_t i = 0; i < header.offsetsCount; ++i) sink = sink ^ static_cast<uint8_t>(offsets[i]);
    }
    void sendDescriptor(ConnectionId to, uint32_t command, const void* payload, size_t size,
                        int descriptor) override {
        send(to, command, payload, size);
        close(descriptor);
    }
    bool takesDescriptor(ConnectionId) const override { return true; }
    void cut(ConnectionId id) override { mCut.insert(id); }
    void finish(ConnectionId id) override { mFinished.insert(id); }
    // Watchers are always behind, half of the time by too much.
    size_t backlog(ConnectionId id) const override { return id % 2 == 0 ? 0 : 1024 * 1024; }
    void writeNow(ConnectionId) override {}
    // The input's order is the arrival order: nothing is waiting elsewhere.
    void drain(ConnectionId) override {}

    std::map<ConnectionId, uint64_t> mTokens;
    std::set<ConnectionId> mCut;
    std::set<ConnectionId> mFinished;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = (__android_log_set_logger(DiscardLog), true);
    (void)quiet;

    RecordingOutbox outbox;
    // Every connection's uid may watch the traffic.
    android::binderd::Driver driver(outbox, false, 1000);
    // Connection slot i currently has id `ids[i]`; ids are never reused.
    ConnectionId ids[kConnections];
    ConnectionId nextId = 0;
    const auto connect = [&](size_t slot) {
        ids[slot] = nextId++;
        driver.onConnect(ids[slot], slot < 2 ? 100 : 200, 1000);
    };
    for (size_t slot = 0; slot < kConnections; ++slot) connect(slot);

    size_t at = 0;
    while (at < size) {
        const uint8_t selector = data[at++];
        const size_t slot = selector & 3;
        if (selector & 8) {
            driver.expireTimers(android::binderd::Driver::Clock::time_point::max());
            driver.catchUpWatchers();
        }
        const bool wasCut = outbox.mCut.erase(ids[slot]) != 0;
        if (selector & 4 || wasCut) {
            if (!wasCut) driver.onDisconnect(ids[slot]);
            connect(slot);
            continue;
        }
        Frame frame;
        size_t consumed = 0;
        if (decodeFrame(data + at, size - at, &frame, &consumed) != DecodeStatus::kComplete) {
            break;
        }
        at += consumed;
        // Give token-less thread hellos a real session token.
        uint8_t patched[sizeof(HelloThread)];
        if (frame.command == kHelloThread && frame.payloadSize == sizeof(HelloThread)) {
            HelloThread hello;
            std::memcpy(&hello, frame.payload, sizeof(hello));
            if (hello.token < kConnections) {
                hello.token = outbox.mTokens[ids[hello.token]];
                std::memcpy(patched, &hello, sizeof(hello));
                frame.payload = patched;
            }
        }
        if (!driver.onFrame(ids[slot], frame) || outbox.mFinished.erase(ids[slot]) != 0) {
            outbox.mCut.erase(ids[slot]);
            driver.onDisconnect(ids[slot]);
            connect(slot);
        }
        const std::string broken = driver.checkInvariants();
        if (!broken.empty()) {
            std::fprintf(stderr, "the driver's tables disagree: %s\n", broken.c_str());
            std::abort();
        }
    }
    for (size_t slot = 0; slot < kConnections; ++slot) {
        if (outbox.mCut.erase(ids[slot]) == 0) driver.onDisconnect(ids[slot]);
    }
    return 0;
}
