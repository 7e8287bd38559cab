#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Protocol.h"

namespace android::hostbinder {

// A blocking client connection to binderd carrying whole frames. Sends may come
// from several threads; receives from one thread at a time.
class Connection {
public:
    // How long binderd has to take a connection and answer its hello.
    static constexpr std::chrono::seconds kHelloTimeout{5};

    // Connects to binderd at `path` and says hello: binderd must take the
    // connection (its kWelcome payload goes to `welcome`) or refuse it in
    // time. Null otherwise, with the reason in `error`; `error` stays empty
    // when nothing listens at `path` (binderd is simply not running). When
    // binderd refused the connection, its RefusalReason goes to `refusal`.
    static std::unique_ptr<Connection> connect(const std::string& path, uint32_t helloCommand, const void* hello,
                                               size_t size, std::vector<uint8_t>* welcome, std::string* error,
                                               uint32_t* refusal = nullptr);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool send(uint32_t command, const void* payload, size_t size);
    // Queues a payload-free frame that goes out with the next send, or before
    // the next receive blocks.
    void post(uint32_t command);
    // Writes the posted frames now.
    bool flush();
    bool sendTransaction(uint32_t command, const TransactionHeader& header, const uint8_t* data,
                         const uint64_t* offsets);
    // Blocks for the next frame; false once the connection is closed or broken.
    bool receive(uint32_t* command, std::vector<uint8_t>* payload);
    // Wakes a thread blocked in receive and makes it fail.
    void shutdown();

private:
    explicit Connection(int fd);
    // Writes the queued frames plus whatever was appended; under mSendLock.
    bool flushLocked();

    const int mFd;
    std::mutex mSendLock;
    std::vector<uint8_t> mOut;  // posted frames, then the one being sent
    std::vector<uint8_t> mIn;
    size_t mInStart = 0;
    size_t mInUsed = 0;
};

}  // namespace android::hostbinder
