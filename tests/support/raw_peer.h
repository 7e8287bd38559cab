#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "protocol/Protocol.h"

namespace tivra_test {

using std::chrono::milliseconds;

// A hand-driven connection to binderd that can say anything, for tests and
// benchmarks that play a hostile or broken process.
class RawPeer {
public:
    explicit RawPeer(const std::string& path);
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
    void finishSending();
    // Closes at once, dropping whatever binderd sent and was not read.
    void close();

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
    static std::vector<uint8_t> listServicesRequest();

private:
    RawPeer mControl;
    RawPeer mThread;
    uint64_t mToken = 0;
    bool mReady = false;
};

}  // namespace tivra_test
