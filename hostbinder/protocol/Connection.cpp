#include "Connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "protocol/UnixSocket.h"

namespace android::hostbinder {

std::unique_ptr<Connection> Connection::connect(const std::string& path, uint32_t helloCommand, const void* hello,
                                                size_t size, std::vector<uint8_t>* welcome, std::string* error,
                                                uint32_t* refusal) {
    error->clear();
    const std::string silent = "binderd at " + path + " did not answer";
    // A stopped binderd fills its listen queue: connect then waits too.
    const int fd = connectUnixSocket(path, kHelloTimeout);
    if (fd < 0) {
        const int failure = errno;
        if (failure == ENAMETOOLONG) {
            *error = "the socket path " + path + " is too long";
        } else if (failure == EAGAIN || failure == ETIMEDOUT) {
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
    setSocketTimeouts(fd, std::chrono::seconds(0));
    return connection;
}

Connection::Connection(int fd) : mFd(fd) {}

Connection::~Connection() {
    close(mFd);
    for (int descriptor : mDescriptors) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
}

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

void Connection::post(uint32_t command, const void* payload, size_t size) {
    std::lock_guard<std::mutex> lock(mSendLock);
    appendFrame(&mOut, command, payload, size);
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

bool Connection::takeBufferedFrame(uint32_t* command, std::vector<uint8_t>* payload) {
    Frame frame;
    size_t consumed = 0;
    const DecodeStatus status = decodeFrame(mIn.data() + mInStart, mInUsed - mInStart, &frame, &consumed);
    if (status == DecodeStatus::kMalformed) {
        mBroken = true;
        return false;
    }
    if (status != DecodeStatus::kComplete) {
        return false;
    }
    *command = frame.command;
    payload->assign(frame.payload, frame.payload + frame.payloadSize);
    mInStart += consumed;
    return true;
}

bool Connection::frameBuffered() const {
    Frame frame;
    size_t consumed = 0;
    return decodeFrame(mIn.data() + mInStart, mInUsed - mInStart, &frame, &consumed) != DecodeStatus::kIncomplete;
}

bool Connection::readSome(bool wait) {
    constexpr size_t kReadChunk = 64 * 1024;
    constexpr size_t kMaxDescriptors = 8;
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
    iovec chunk{mIn.data() + mInUsed, kReadChunk};
    alignas(cmsghdr) char control[CMSG_SPACE(kMaxDescriptors * sizeof(int))];
    msghdr message{};
    message.msg_iov = &chunk;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    ssize_t n;
    do {
        n = recvmsg(mFd, &message, MSG_CMSG_CLOEXEC | (wait ? 0 : MSG_DONTWAIT));
    } while (n < 0 && errno == EINTR);
    if (n < 0 && !wait && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        return true;
    }
    if (n <= 0) {
        mBroken = true;
        return false;
    }
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr; header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
            const size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (size_t i = 0; i < count; ++i) {
                int descriptor;
                std::memcpy(&descriptor, CMSG_DATA(header) + i * sizeof(int), sizeof(int));
                mDescriptors.push_back(descriptor);
            }
        }
    }
    // A descriptor this process had no room for is lost; the frame that
    // announces it finds -1 in its place.
    if ((message.msg_flags & MSG_CTRUNC) != 0) {
        mDescriptors.push_back(-1);
    }
    mInUsed += static_cast<size_t>(n);
    return true;
}

bool Connection::receive(uint32_t* command, std::vector<uint8_t>* payload) {
    while (!takeBufferedFrame(command, payload)) {
        if (mBroken || !flush() || !readSome(true)) {
            return false;
        }
    }
    return true;
}

bool Connection::receiveIfReady(uint32_t* command, std::vector<uint8_t>* payload) {
    if (takeBufferedFrame(command, payload)) {
        return true;
    }
    return !mBroken && readSome(false) && takeBufferedFrame(command, payload);
}

int Connection::takeDescriptor() {
    if (mDescriptors.empty()) {
        return -1;
    }
    const int descriptor = mDescriptors.front();
    mDescriptors.pop_front();
    return descriptor;
}

}  // namespace android::hostbinder
