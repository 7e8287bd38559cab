// Reaches binderd's event loop through real sockets: up to eight clients
// connect to a private listening socket, queue frames or raw bytes, write
// what they queued in pieces of any size, read some of what binderd sent or
// nothing at all, and close, in the order the input says, while the loop runs
// a round whenever the input asks. Whatever happens, binderd must not crash,
// leak, or touch a connection after it is gone.
//
// Input: records of [op][client][argument] and, for a frame, its payload:
//   op % 7: 0 connect; 1 queue a frame (argument: payload size, command from
//   the next byte); 2 queue `argument` raw bytes; 3 write up to `argument` *
//   64 queued bytes; 4 read up to `argument` * 256 bytes; 5 close; 6 a round.
// A HelloThread whose token is below 8 gets the token of that client's
// welcome, so thread sessions can be reached.
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <android/log.h>

#include "EventLoop.h"
#include "PeerPolicy.h"

namespace {

using namespace android::hostbinder;

void DiscardLog(const struct __android_logger_data*, const char*) {}

constexpr size_t kClients = 8;
constexpr uint32_t kCommands[] = {kHelloProcess,  kHelloThread,   kEnterLooper,   kTransaction,   kReply,
                                  kOnewayDone,    kReleaseHandle, kRequestDeath,  kClearDeath,    kSetMaxThreads,
                                  kOnewayCredited, kOpenChannel,  kChannelCredit, kChannelDone,   kResolveReach,
                                  kServingChannel, kChannelReply, kChannelFence,  kReachDropped,  kChannelDrained,
                                  kReturnCredit};

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
        std::vector<uint8_t> bytes(most);
        const ssize_t n = fd < 0 ? -1 : recv(fd, bytes.data(), bytes.size(), 0);
        if (n <= 0) {
            return;
        }
        received.insert(received.end(), bytes.begin(), bytes.begin() + n);
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
    static const bool quiet = (__android_log_set_logger(DiscardLog), true);
    static const int listenFd = listeningSocket();
    static const int stopFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    (void)quiet;

    android::binderd::EventLoop loop(listenFd, stopFd, android::binderd::PeerPolicy(), false);
    Client clients[kClients];
    size_t at = 0;
    while (at + 3 <= size) {
        const uint8_t op = data[at] % 7;
        Client& client = clients[data[at + 1] % kClients];
        const size_t argument = data[at + 2];
        at += 3;
        switch (op) {
            case 0:
                client.disconnect();
                client.connect();
                break;
            case 1: {
                if (at >= size) {
                    break;
                }
                const uint32_t command = kCommands[data[at++] % std::size(kCommands)];
                std::vector<uint8_t> payload(data + at, data + std::min(size, at + argument));
                at += payload.size();
                if (command == kHelloThread && payload.size() == sizeof(uint64_t) && payload[0] < kClients) {
                    std::memcpy(payload.data(), &clients[payload[0]].token, sizeof(uint64_t));
                }
                appendFrame(&client.queued, command, payload.data(), payload.size());
                break;
            }
            case 2: {
                const size_t count = std::min(size - at, argument);
                client.queued.insert(client.queued.end(), data + at, data + at + count);
                at += count;
                break;
            }
            case 3:
                client.write(argument * 64 + 1);
                break;
            case 4:
                client.read(argument * 256 + 1);
                break;
            case 5:
                client.disconnect();
                break;
            default:
                loop.runOnce(0);
                break;
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
