#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
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
    // Queues a frame that goes out with the next send, or before the next
    // receive blocks.
    void post(uint32_t command, const void* payload = nullptr, size_t size = 0);
    // Writes the posted frames now.
    bool flush();
    bool sendTransaction(uint32_t command, const TransactionHeader& header, const uint8_t* data,
                         const uint64_t* offsets);
    // Blocks for the next frame; false once the connection is closed or broken.
    bool receive(uint32_t* command, std::vector<uint8_t>* payload);
    // Takes the next frame if one is already here, without blocking; false
    // when none is (or the connection broke: see broken()).
    bool receiveIfReady(uint32_t* command, std::vector<uint8_t>* payload);
    bool broken() const { return mBroken; }
    // Whether a whole frame waits in this side's buffer (poll cannot see it).
    bool frameBuffered() const;
    // The descriptor that came with a frame (binderd hands over channel ends
    // so), in arrival order; -1 when none came or this process could not
    // take it (at its descriptor limit).
    int takeDescriptor();
    int fd() const { return mFd; }
    // Wakes a thread blocked in receive and makes it fail.
    void shutdown();

private:
    explicit Connection(int fd);
    // Writes the queued frames plus whatever was appended; under mSendLock.
    bool flushLocked();
    bool takeBufferedFrame(uint32_t* command, std::vector<uint8_t>* payload);
    // Reads once into the buffer; false when the connection ended.
    bool readSome(bool wait);

    const int mFd;
    std::mutex mSendLock;
    std::vector<uint8_t> mOut;  // posted frames, then the one being sent
    std::vector<uint8_t> mIn;
    size_t mInStart = 0;
    size_t mInUsed = 0;
    std::deque<int> mDescriptors;
    bool mBroken = false;
};

}  // namespace android::hostbinder
