// binderd fed by rogue connections, built twice (see CMakeLists.txt).
//
// Without BINDERD_FUZZ_LOOP: byte streams from four connections of two
// processes go to the frame decoder and the driver, whose tables must agree
// after every frame. Input: records of [selector byte][frame bytes]; the
// selector's low two bits pick the connection, bit 2 disconnects it instead,
// bit 3 lets pending lookups time out and watchers catch up. Any connection
// may watch, every other watcher too far behind to be sent anything; a
// connection the driver cuts is replaced.
//
// With BINDERD_FUZZ_LOOP: the event loop through real sockets. Up to eight
// clients queue frames or raw bytes, write them in pieces of any size, read
// some of what binderd sent or nothing, and close, while the loop runs a
// round when the input asks. Input: records of [op][client][argument] (and a
// frame's payload): op % 7: 0 connect; 1 queue a frame (argument: payload
// size, command from the next byte); 2 queue `argument` raw bytes; 3 write up
// to `argument` * 64 queued bytes; 4 read up to `argument` * 256; 5 close; 6 a round.
//
// Either way binderd must never crash, leak, read outside a frame, grow
// without bound or touch a connection after it is gone. A HelloThread whose
// first byte is a connection's (or client's) number gets that one's session token.
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <android/log.h>

#include "Driver.h"
#include "EventLoop.h"
#include "PeerPolicy.h"

namespace {

using android::binderd::ConnectionId;
using namespace android::hostbinder;

// binderd's log would drown the fuzzer's own output.
[[maybe_unused]] const bool kQuiet =
    (__android_log_set_logger([](const struct __android_logger_data*, const char*) {}), true);

// A thread hello whose first byte names a connection (or client) below
// `count` gets the token `tokenOf(that number)`.
template <typename TokenOf>
void giveSessionToken(uint32_t command, uint8_t* payload, size_t size, size_t count, TokenOf tokenOf) {
    if (command == kHelloThread && size == sizeof(uint64_t) && payload[0] < count) {
        const uint64_t token = tokenOf(payload[0]);
        std::memcpy(payload, &token, sizeof(token));
    }
}

#ifndef BINDERD_FUZZ_LOOP

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
        std::vector<uint8_t> payload(frame.payload, frame.payload + frame.payloadSize);
        giveSessionToken(frame.command, payload.data(), payload.size(), kConnections,
                         [&](uint64_t number) { return outbox.mTokens[ids[number]]; });
        frame.payload = payload.data();
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

#else  // BINDERD_FUZZ_LOOP

constexpr size_t kClients = 8;

sockaddr_un listeningAddress() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    // An abstract name: nothing on disk to clean up.
    const std::string name = "tivra-binderd-loop-fuzz-" + std::to_string(getpid());
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    return address;
}

int listeningSocket() {
    const sockaddr_un address = listeningAddress();
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    listen(fd, 64);
    return fd;
}

struct Client {
    int fd = -1;
    std::vector<uint8_t> queued;  // written to the socket in pieces
    std::vector<uint8_t> received;
    uint64_t token = 0;

    void connect() {
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const sockaddr_un address = listeningAddress();
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            disconnect();
        }
    }
    void disconnect() {
        if (fd >= 0) {
            close(fd);
        }
        *this = Client{};
    }
    void write(size_t most) {
        const ssize_t n = fd < 0 ? -1 : send(fd, queued.data(), std::min(most, queued.size()), MSG_NOSIGNAL);
        if (n > 0) {
            queued.erase(queued.begin(), queued.begin() + n);
        }
    }
    // Reads and keeps the token of a process welcome.
    void read(size_t most) {
        const size_t had = received.size();
        received.resize(had + most);
        const ssize_t n = fd < 0 ? -1 : recv(fd, received.data() + had, most, 0);
        received.resize(had + static_cast<size_t>(std::max<ssize_t>(n, 0)));
        Frame frame;
        size_t consumed = 0;
        while (decodeFrame(received.data(), received.size(), &frame, &consumed) == DecodeStatus::kComplete) {
            if (frame.command == kWelcome && frame.payloadSize == sizeof(token)) {
                std::memcpy(&token, frame.payload, sizeof(token));
            }
            received.erase(received.begin(), received.begin() + static_cast<std::ptrdiff_t>(consumed));
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int listenFd = listeningSocket();
    static const int stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);

    android::binderd::EventLoop loop(listenFd, stopFd, android::binderd::PeerPolicy(), false);
    Client clients[kClients];
    size_t at = 0;
    while (at + 3 <= size) {
        const uint8_t op = data[at] % 7;
        Client& client = clients[data[at + 1] % kClients];
        const size_t argument = data[at + 2];
        at += 3;
        if (op == 0) {
            client.disconnect();
            client.connect();
        } else if (op == 1 && at < size) {
            // Every command a process sends, but for watching the traffic.
            const uint32_t next = kHelloProcess + data[at++] % (kHoldingNow - 1);
            const uint32_t command = next < kHelloMonitor ? next : next + 1;
            std::vector<uint8_t> payload(data + at, data + std::min(size, at + argument));
            at += payload.size();
            giveSessionToken(command, payload.data(), payload.size(), kClients,
                             [&](uint64_t number) { return clients[number].token; });
            appendFrame(&client.queued, command, payload.data(), payload.size());
        } else if (op == 2) {
            const size_t count = std::min(size - at, argument);
            client.queued.insert(client.queued.end(), data + at, data + at + count);
            at += count;
        } else if (op == 3) {
            client.write(argument * 64 + 1);
        } else if (op == 4) {
            client.read(argument * 256 + 1);
        } else if (op == 5) {
            client.disconnect();
        } else if (op == 6) {
            loop.runOnce(0);
        }
    }
    // Everyone leaves; the loop takes in every departure before it goes.
    for (Client& client : clients) {
        client.disconnect();
    }
    for (int round = 0; round < 4; ++round) {
        loop.runOnce(0);
    }
    return 0;
}

#endif  // BINDERD_FUZZ_LOOP
