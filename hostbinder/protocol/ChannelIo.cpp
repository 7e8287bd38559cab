#include "ChannelIo.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstring>

namespace android::hostbinder {

namespace {
constexpr size_t kChunk = 16 * 1024;
}  // namespace

size_t FrameReader::shrink() {
    if (mUsed != mStart || mBuffer.size() <= 2 * kChunk) {
        return 0;
    }
    const size_t before = mBuffer.size();
    std::vector<uint8_t>(2 * kChunk).swap(mBuffer);
    mStart = mUsed = 0;
    return before - mBuffer.size();
}

FrameReader::Read FrameReader::readAvailable(int fd, const std::function<bool(size_t)>& mayGrow) {
    if (mStart > 0) {
        std::memmove(mBuffer.data(), mBuffer.data() + mStart, mUsed - mStart);
        mUsed -= mStart;
        mStart = 0;
    }
    // Room for the rest of a large frame in one read, else for a chunk.
    size_t wanted = mUsed + kChunk;
    if (mUsed >= sizeof(FrameHeader)) {
        FrameHeader header;
        std::memcpy(&header, mBuffer.data(), sizeof(header));
        if (header.payloadSize <= kMaxPayload) {
            wanted = std::max(wanted, sizeof(header) + size_t{header.payloadSize});
        }
    }
    if (mBuffer.size() < wanted) {
        if (wanted > 2 * kChunk && mayGrow != nullptr && !mayGrow(wanted - std::max(mBuffer.size(), 2 * kChunk))) {
            return Read::kEnded;
        }
        mBuffer.resize(wanted);
    }
    iovec chunk{mBuffer.data() + mUsed, mBuffer.size() - mUsed};
    alignas(cmsghdr) char control[CMSG_SPACE(kMaxDescriptorsPerFrame * sizeof(int))];
    msghdr message{};
    message.msg_iov = &chunk;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    ssize_t n;
    do {
        n = recvmsg(fd, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    } while (n < 0 && errno == EINTR);
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); n > 0 && header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
            for (size_t i = 0; i < (header->cmsg_len - CMSG_LEN(0)) / sizeof(int); ++i) {
                int descriptor;
                std::memcpy(&descriptor, CMSG_DATA(header) + i * sizeof(int), sizeof(int));
                if (mDescriptors.size() < mMaxDescriptors) {
                    mDescriptors.push_back(descriptor);
                } else {
                    close(descriptor);
                }
            }
        }
    }
    if (n < 0) {
        return errno == EAGAIN || errno == EWOULDBLOCK ? Read::kNothing : Read::kEnded;
    }
    if (n == 0) {
        return Read::kEnded;
    }
    mDrained = static_cast<size_t>(n) < chunk.iov_len;
    mUsed += static_cast<size_t>(n);
    return Read::kSome;
}

FrameReader::~FrameReader() { dropDescriptors(); }

void FrameReader::dropDescriptors() {
    for (int descriptor : mDescriptors) {
        close(descriptor);
    }
    mDescriptors.clear();
}

int FrameReader::takeDescriptor() {
    if (mDescriptors.empty()) {
        return -1;
    }
    const int descriptor = mDescriptors.front();
    mDescriptors.pop_front();
    return descriptor;
}

bool FrameReader::next(Frame* frame) {
    size_t consumed = 0;
    const DecodeStatus status = decodeFrame(mBuffer.data() + mStart, mUsed - mStart, frame, &consumed);
    if (status == DecodeStatus::kMalformed) {
        mMalformed = true;
        return false;
    }
    if (status != DecodeStatus::kComplete) {
        return false;
    }
    mStart += consumed;
    return true;
}

bool writeFully(int fd, const uint8_t* bytes, size_t size, std::chrono::milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    size_t sent = 0;
    while (sent < size) {
        const ssize_t n = send(fd, bytes + sent, size - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            return false;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd room{fd, POLLOUT, 0};
        if (left.count() <= 0 || poll(&room, 1, static_cast<int>(left.count())) <= 0) {
            return false;
        }
    }
    return true;
}

bool writeFrame(int fd, uint32_t command, const void* header, size_t headerSize, const uint8_t* data,
                size_t dataSize, std::chrono::milliseconds patience) {
    const FrameHeader frameHeader{static_cast<uint32_t>(headerSize + dataSize), command};
    iovec parts[3] = {{const_cast<FrameHeader*>(&frameHeader), sizeof(frameHeader)},
                      {const_cast<void*>(header), headerSize},
                      {const_cast<uint8_t*>(data), dataSize}};
    const size_t total = sizeof(frameHeader) + headerSize + dataSize;
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = dataSize > 0 ? 3 : 2;
    ssize_t sent;
    do {
        sent = sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    if (sent == static_cast<ssize_t>(total)) {
        return true;
    }
    if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
        return false;
    }
    // The rest, gathered: rare, for a call larger than the socket takes at once.
    std::vector<uint8_t> rest;
    buildFrame(&rest, command, header, headerSize, data, dataSize);
    const size_t done = sent > 0 ? static_cast<size_t>(sent) : 0;
    return writeFully(fd, rest.data() + done, rest.size() - done, patience);
}

bool sendWithDescriptors(int fd, const std::vector<uint8_t>& frame, std::initializer_list<int> descriptors) {
    iovec bytes{const_cast<uint8_t*>(frame.data()), frame.size()};
    int sent[kMaxDescriptorsPerFrame];
    size_t count = 0;
    for (int descriptor : descriptors) {
        if (descriptor >= 0 && count < kMaxDescriptorsPerFrame) {
            sent[count++] = descriptor;
        }
    }
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(sent))];
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    if (count > 0) {
        message.msg_control = control;
        message.msg_controllen = CMSG_SPACE(count * sizeof(int));
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(count * sizeof(int));
        std::memcpy(CMSG_DATA(header), sent, count * sizeof(int));
    }
    ssize_t n;
    do {
        n = sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(frame.size());
}

void buildFrame(std::vector<uint8_t>* out, uint32_t command, const void* header, size_t headerSize,
                const uint8_t* data, size_t dataSize) {
    const FrameHeader frameHeader{static_cast<uint32_t>(headerSize + dataSize), command};
    out->resize(sizeof(frameHeader) + headerSize + dataSize);
    std::memcpy(out->data(), &frameHeader, sizeof(frameHeader));
    std::memcpy(out->data() + sizeof(frameHeader), header, headerSize);
    if (dataSize > 0) {
        std::memcpy(out->data() + sizeof(frameHeader) + headerSize, data, dataSize);
    }
}

}  // namespace android::hostbinder
