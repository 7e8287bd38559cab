#include "Connection.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace android::hostbinder {

namespace {

void setTimeouts(int fd, std::chrono::seconds timeout) {
    const timeval interval{static_cast<time_t>(timeout.count()), 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &interval, sizeof(interval));
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &interval, sizeof(interval));
}

}  // namespace

std::unique_ptr<Connection> Connection::connect(const std::string& path, uint32_t helloCommand, const void* hello,
                                                size_t size, std::vector<uint8_t>* welcome, std::string* error,
                                                uint32_t* refusal) {
    error->clear();
    sockaddr_un address{};
    if (path.size() >= sizeof(address.sun_path)) {
        *error = "the socket path " + path + " is too long";
        return nullptr;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *error = std::string("cannot open a socket: ") + std::strerror(errno);
        return nullptr;
    }
    const std::string silent = "binderd at " + path + " did not answer";
    // A stopped binderd fills its listen queue: connect then waits too.
    setTimeouts(fd, kHelloTimeout);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int failure = errno;
        close(fd);
        if (failure == EAGAIN || failure == ETIMEDOUT) {
            *error = silent;
        } else if (failure != ENOENT && failure != ECONNREFUSED) {
            *error = "cannot connect to binderd at " + path + ": " + std::strerror(failure);
        }
        return nullptr;
    }
    std::unique_ptr<Connection> connection(new Connection(fd));
    // A refused connection may be closed before the hello is written; the
    // refusal is still there to read.
    connection->send(helloCommand, hello, size);
    uint32_t command = 0;
    if (!connection->receive(&command, welcome)) {
        *error = errno == EAGAIN ? silent : "binderd at " + path + " closed the connection";
        return nullptr;
    }
    uint32_t reason = 0;
    if (command == kConnectionRefused && welcome->size() == sizeof(reason)) {
        std::memcpy(&reason, welcome->data(), sizeof(reason));
        *error = "binderd at " + path + " refused this process: " + refusalText(reason);
        if (refusal != nullptr) {
            *refusal = reason;
        }
        return nullptr;
    }
    if (command != kWelcome) {
        *error = "binderd at " + path + " answered the hello with frame " + std::to_string(command);
        return nullptr;
    }
    setTimeouts(fd, std::chrono::seconds(0));
    return connection;
}

Connection::Connection(int fd) : mFd(fd) {}

Connection::~Connection() { close(mFd); }

void Connection::shutdown() { ::shutdown(mFd, SHUT_RDWR); }

bool Connection::flushLocked() {
    size_t sent = 0;
    while (sent < mOut.size()) {
        const ssize_t n = ::send(mFd, mOut.data() + sent, mOut.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            mOut.clear();
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    mOut.clear();
    return true;
}

void Connection::post(uint32_t command) {
    std::lock_guard<std::mutex> lock(mSendLock);
    appendFrame(&mOut, command, nullptr, 0);
}

bool Connection::flush() {
    std::lock_guard<std::mutex> lock(mSendLock);
    return flushLocked();
}

bool Connection::send(uint32_t command, const void* payload, size_t size) {
    std::lock_guard<std::mutex> lock(mSendLock);
    appendFrame(&mOut, command, payload, size);
    return flushLocked();
}

bool Connection::sendTransaction(uint32_t command, const TransactionHeader& header, const uint8_t* data,
                                 const uint64_t* offsets) {
    std::lock_guard<std::mutex> lock(mSendLock);
    appendTransaction(&mOut, command, header, data, offsets);
    return flushLocked();
}

bool Connection::receive(uint32_t* command, std::vector<uint8_t>* payload) {
    constexpr size_t kReadChunk = 64 * 1024;
    for (;;) {
        Frame frame;
        size_t consumed = 0;
        const DecodeStatus status = decodeFrame(mIn.data() + mInStart, mInUsed - mInStart, &frame, &consumed);
        if (status == DecodeStatus::kMalformed) {
            return false;
        }
        if (status == DecodeStatus::kComplete) {
            *command = frame.command;
            payload->assign(frame.payload, frame.payload + frame.payloadSize);
            mInStart += consumed;
            return true;
        }
        if (!flush()) {
            return false;
        }
        // Keep the partial frame at the front (the buffer is empty at first).
        if (mInStart > 0) {
            std::memmove(mIn.data(), mIn.data() + mInStart, mInUsed - mInStart);
            mInUsed -= mInStart;
            mInStart = 0;
        }
        // The buffer only grows, so reads never pay for zero-filling.
        if (mIn.size() < mInUsed + kReadChunk) {
            mIn.resize(mInUsed + kReadChunk);
        }
        ssize_t n;
        do {
            n = recv(mFd, mIn.data() + mInUsed, kReadChunk, 0);
        } while (n < 0 && errno == EINTR);
        if (n <= 0) {
            return false;
        }
        mInUsed += static_cast<size_t>(n);
    }
}

}  // namespace android::hostbinder
