#pragma once

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
    // Null when nothing listens at `path`.
    static std::unique_ptr<Connection> open(const std::string& path);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool send(uint32_t command, const void* payload, size_t size);
    bool sendTransaction(uint32_t command, const TransactionHeader& header, const uint8_t* data,
                         const uint64_t* offsets);
    // Blocks for the next frame; false once the connection is closed or broken.
    bool receive(uint32_t* command, std::vector<uint8_t>* payload);
    // Wakes a thread blocked in receive and makes it fail.
    void shutdown();

private:
    explicit Connection(int fd);
    bool sendBytes(const std::vector<uint8_t>& bytes);

    const int mFd;
    std::mutex mSendLock;
    std::vector<uint8_t> mOut;
    std::vector<uint8_t> mIn;
    size_t mInStart = 0;
    size_t mInUsed = 0;
};

}  // namespace android::hostbinder
