#include "EventLoop.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/ioctl.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <log/log.h>

#include "Limits.h"

namespace android::binderd {

using namespace hostbinder;

namespace {

constexpr const char* kTag = "binderd";
constexpr ConnectionId kListenId = 0;
constexpr ConnectionId kStopId = 1;
// Whole frames up to this size go to the driver straight from the loop's
// read buffer; a larger one is gathered in a buffer of its own size.
constexpr size_t kReadChunk = 256 * 1024;
constexpr int kMaxAcceptsPerRound = 64;
// Descriptors kept free of connections: the listening socket, epoll, the
// signal descriptor, standard streams, the reserve and the lock, plus the
// channel ends on their way to their processes and a pair being made.
constexpr size_t kSpareDescriptors = 32 + kMaxDescriptorsInFlight + 2;
// A connection keeps a larger output buffer while it is busy; a second
// after its output was last written the buffer shrinks to this.
constexpr size_t kKeptOutputCapacity = 4096;
constexpr std::chrono::seconds kTrimDelay{1};

void watch(int epollFd, int fd, ConnectionId id, uint32_t events, int operation) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    epoll_ctl(epollFd, operation, fd, &event);
}

// Bytes read; 0 once the peer is gone or broken; -1 when nothing is there.
ssize_t receiveSome(int fd, uint8_t* into, size_t size) {
    ssize_t n;
    do {
        n = recv(fd, into, size, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        return errno == EAGAIN || errno == EWOULDBLOCK ? -1 : 0;
    }
    return n;
}

size_t connectionLimit() {
    rlimit descriptors{};
    if (getrlimit(RLIMIT_NOFILE, &descriptors) != 0 || descriptors.rlim_cur == RLIM_INFINITY) {
        return kMaxConnections;
    }
    const size_t usable = descriptors.rlim_cur > kSpareDescriptors ? descriptors.rlim_cur - kSpareDescriptors : 1;
    return std::min(kMaxConnections, usable);
}

}  // namespace

EventLoop::EventLoop(int listenFd, int stopFd, const PeerPolicy& policy, bool verbose)
    : mListenFd(listenFd),
      mStopFd(stopFd),
      mEpollFd(epoll_create1(EPOLL_CLOEXEC)),
      mPolicy(policy),
      mDriver(*this, verbose),
      mNextId(kStopId + 1),
      mMaxConnections(connectionLimit()),
      mReserveFd(open("/dev/null", O_RDONLY | O_CLOEXEC)),
      mHoldings({{kMaxConnectionsPerProcess, kMaxBufferedPerProcess},
                 {kMaxConnectionsPerUid, kMaxBufferedPerUid},
                 {mMaxConnections, kMaxBuffered}}) {
    watch(mEpollFd, mListenFd, kListenId, EPOLLIN, EPOLL_CTL_ADD);
    watch(mEpollFd, mStopFd, kStopId, EPOLLIN, EPOLL_CTL_ADD);
}

EventLoop::~EventLoop() {
    // Every session ends as if its peer had gone, so the driver lets go of
    // all it holds.
    for (auto& entry : mConnections) {
        close(entry.first, entry.second, true);
    }
    settle();
    if (mReserveFd >= 0) {
        ::close(mReserveFd);
    }
    ::close(mEpollFd);
}

int EventLoop::run() {
    while (runOnce(epollTimeout())) {
    }
    return mStatus;
}

bool EventLoop::runOnce(int timeoutMs) {
    constexpr int kMaxEvents = 64;
    epoll_event events[kMaxEvents];
    const int count = epoll_wait(mEpollFd, events, kMaxEvents, timeoutMs);
    if (count < 0 && errno != EINTR) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "epoll_wait failed: %s", std::strerror(errno));
        mStatus = 1;
        return false;
    }
    for (int i = 0; i < count; ++i) {
        const ConnectionId id = events[i].data.u64;
        if (id == kStopId) {
            return false;
        }
        if (id == kListenId) {
            accept();
            continue;
        }
        auto it = mConnections.find(id);
        if (it == mConnections.end()) {
            continue;
        }
        Connection& connection = it->second;
        if (connection.open && (events[i].events & EPOLLOUT) != 0) {
            flush(id, connection);
        }
        if (connection.open && (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
            readFrom(id);
        }
        settle();
    }
    const Clock::time_point now = Clock::now();
    mDriver.expireTimers(now);
    mDriver.catchUpWatchers();
    expireHellos(now);
    settle();
    flushDirty();
    trimIdleBuffers(now);
    reap();
    returnMemory(now);
    return true;
}

void EventLoop::trimIdleBuffers(Clock::time_point now) {
    if (mToTrim.empty() || now < mNextTrim) {
        return;
    }
    for (ConnectionId id : mToTrim) {
        auto it = mConnections.find(id);
        if (it == mConnections.end()) {
            continue;
        }
        it->second.trimPending = false;
        if (it->second.out.empty()) {
            std::vector<uint8_t>().swap(it->second.out);
        }
    }
    mToTrim.clear();
}

void EventLoop::returnMemory(Clock::time_point now) {
    // The allocator keeps what was freed for later; after an attack (or a
    // burst) that may be hundreds of megabytes. Once a few megabytes of what
    // was held are gone, they go back to the system, at most once a second.
    constexpr size_t kWorthReturning = 4 * kMiB;
    const size_t held = mHoldings.total(kBytesBuffered) + mDriver.heldBytes();
    mHeldPeak = std::max(mHeldPeak, held);
    mReturnPending = mHeldPeak - held >= kWorthReturning;
    if (mReturnPending && now >= mNextReturn) {
        malloc_trim(0);
        mHeldPeak = held;
        mNextReturn = now + std::chrono::seconds(1);
        mReturnPending = false;
    }
}

int EventLoop::epollTimeout() const {
    Clock::time_point deadline = mDriver.nextDeadline();
    if (!mAwaitingHello.empty()) {
        deadline = std::min(deadline, mAwaitingHello.front().first);
    }
    if (!mToTrim.empty()) {
        deadline = std::min(deadline, mNextTrim);
    }
    if (mReturnPending) {
        deadline = std::min(deadline, mNextReturn);
    }
    if (deadline == Clock::time_point::max()) {
        return -1;
    }
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count() + 1;
    return static_cast<int>(std::clamp<int64_t>(wait, 0, 60000));
}

bool EventLoop::mayWarn() {
    const Clock::time_point now = Clock::now();
    if (now - mLastWarning < std::chrono::seconds(1)) {
        ++mSuppressedWarnings;
        return false;
    }
    if (mSuppressedWarnings > 0) {
        __android_log_print(ANDROID_LOG_WARN, kTag, "(%u more warnings in the last second)", mSuppressedWarnings);
    }
    mLastWarning = now;
    mSuppressedWarnings = 0;
    return true;
}

// --- connections coming and going ---

void EventLoop::accept() {
    for (int i = 0; i < kMaxAcceptsPerRound; ++i) {
        const int fd = accept4(mListenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            admit(fd);
        } else if (errno == EMFILE || errno == ENFILE) {
            if (!shedOneConnection()) {
                return;
            }
        } else if (errno != EINTR && errno != ECONNABORTED) {
            return;
        }
    }
}

bool EventLoop::shedOneConnection() {
    // The reserve descriptor makes room to take the waiting connection and
    // turn it away: it learns why, and the listening socket does not stay
    // readable for a loop that cannot accept.
    if (mReserveFd < 0) {
        return false;
    }
    ::close(mReserveFd);
    const int fd = accept4(mListenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
        refuse(fd, kOutOfDescriptors);
    }
    mReserveFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd >= 0 && mayWarn()) {
        __android_log_print(ANDROID_LOG_WARN, kTag, "out of file descriptors: turning a connection away");
    }
    return fd >= 0;
}

void EventLoop::refuse(int fd, uint32_t reason) {
    std::vector<uint8_t> frame;
    appendFrame(&frame, kConnectionRefused, &reason, sizeof(reason));
    // A fresh socket's buffer always takes these few bytes.
    (void)!::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    ::close(fd);
}

void EventLoop::admit(int fd) {
    ucred peer{};
    socklen_t length = sizeof(peer);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        ::close(fd);
        return;
    }
    if (!mPolicy.admits(fd, peer)) {
        if (mayWarn()) {
            __android_log_print(ANDROID_LOG_WARN, kTag, "refused process %d: uid %u may not connect", peer.pid,
                                peer.uid);
        }
        refuse(fd, kRefusedByPolicy);
        return;
    }
    const Holdings::Holder holder{peer.uid, peer.pid};
    for (;;) {
        const Holdings::Judgement judgement = mHoldings.judge(holder, kConnectionsHeld, 1);
        if (judgement.verdict == Holdings::Verdict::kFits) {
            break;
        }
        if (judgement.verdict == Holdings::Verdict::kRefused) {
            if (mayWarn()) {
                __android_log_print(ANDROID_LOG_WARN, kTag, "refused a connection of process %d (uid %u): too many",
                                    peer.pid, peer.uid);
            }
            refuse(fd, kTooManyConnections);
            return;
        }
        cutToMakeRoom(judgement.victim, kConnectionsHeld);
    }
    const ConnectionId id = mNextId++;
    Connection& connection = mConnections[id];
    connection.fd = fd;
    connection.holder = holder;
    mHoldings.take(holder, kConnectionsHeld, 1);
    mAwaitingHello.emplace_back(Clock::now() + kHelloDeadline, id);
    watch(mEpollFd, fd, id, EPOLLIN, EPOLL_CTL_ADD);
    mDriver.onConnect(id, peer.pid, peer.uid);
}

void EventLoop::expireHellos(Clock::time_point now) {
    while (!mAwaitingHello.empty()) {
        auto it = mConnections.find(mAwaitingHello.front().second);
        const bool waiting = it != mConnections.end() && it->second.open && !it->second.greeted;
        // Entries of connections that said hello or went go at once.
        if (waiting && mAwaitingHello.front().first > now) {
            break;
        }
        mAwaitingHello.pop_front();
        if (waiting) {
            const uint32_t reason = kNoHello;
            send(it->first, kConnectionRefused, &reason, sizeof(reason));
            finish(it->first);
        }
    }
}

void EventLoop::close(ConnectionId id, Connection& connection, bool tellDriver) {
    if (!connection.open) {
        return;
    }
    connection.open = false;
    epoll_ctl(mEpollFd, EPOLL_CTL_DEL, connection.fd, nullptr);
    ::close(connection.fd);
    connection.fd = -1;
    refund(connection, connection.buffered);
    dropDescriptors(connection);
    connection.partial.reset();
    connection.partialCapacity = connection.partialUsed = 0;
    std::vector<uint8_t>().swap(connection.out);
    connection.outStart = 0;
    mHoldings.give(connection.holder, kConnectionsHeld, 1);
    if (tellDriver) {
        mUntold.push_back(id);
    }
    mClosed.push_back(id);
}

void EventLoop::settle() {
    while (!mUntold.empty()) {
        const ConnectionId id = mUntold.front();
        mUntold.pop_front();
        mDriver.onDisconnect(id);
        checkDriver();
    }
}

void EventLoop::checkDriver() {
#ifdef TIVRA_CHECK_INVARIANTS
    // Every frame while the tables are small; under a flood of entries (the
    // attack tests), every thousandth, so that the check stays cheap.
    const auto& holdings = mDriver.holdings();
    if (holdings.total(kHandlesHeld) + holdings.total(kNodesHeld) > 4096 && ++mUncheckedFrames % 1024 != 0) {
        return;
    }
    const std::string broken = mDriver.checkInvariants();
    if (!broken.empty()) {
        __android_log_print(ANDROID_LOG_FATAL, kTag, "the driver's tables disagree: %s", broken.c_str());
        abort();
    }
#endif
}

void EventLoop::cut(ConnectionId id) {
    auto it = mConnections.find(id);
    if (it != mConnections.end()) {
        close(id, it->second, false);
    }
}

void EventLoop::finish(ConnectionId id) {
    auto it = mConnections.find(id);
    if (it != mConnections.end()) {
        flush(id, it->second);
        close(id, it->second, true);
    }
}

void EventLoop::reap() {
    for (ConnectionId id : mClosed) {
        mConnections.erase(id);
    }
    mClosed.clear();
}

// --- bytes held for connections ---

bool EventLoop::charge(Connection& connection, size_t bytes) {
    if (connection.buffered + bytes > kMaxBufferedPerConnection) {
        return false;
    }
    for (;;) {
        const Holdings::Judgement judgement = mHoldings.judge(connection.holder, kBytesBuffered, bytes);
        if (judgement.verdict == Holdings::Verdict::kFits) {
            break;
        }
        if (judgement.verdict == Holdings::Verdict::kRefused) {
            return false;
        }
        cutToMakeRoom(judgement.victim, kBytesBuffered);
    }
    connection.buffered += bytes;
    mHoldings.take(connection.holder, kBytesBuffered, bytes);
    return true;
}

void EventLoop::refund(Connection& connection, size_t bytes) {
    decrease(connection.buffered, bytes);
    mHoldings.give(connection.holder, kBytesBuffered, bytes);
}

void EventLoop::cutToMakeRoom(const Holdings::Holder& victim, Kind kind) {
    // Closing gives the connection's holdings back at once.
    ConnectionId chosen = 0;
    Connection* cut = nullptr;
    for (auto& [id, connection] : mConnections) {
        if (!connection.open || connection.holder != victim) {
            continue;
        }
        const bool better = cut == nullptr || (kind == kBytesBuffered ? connection.buffered > cut->buffered : id > chosen);
        if (better) {
            chosen = id;
            cut = &connection;
        }
    }
    if (cut == nullptr) {
        return;
    }
    if (mayWarn()) {
        __android_log_print(ANDROID_LOG_WARN, kTag,
                            "cutting a connection of process %d: it holds the most %s of uid %u, which reached its bound",
                            victim.pid, kind == kBytesBuffered ? "buffered bytes" : "connections", victim.uid);
    }
    close(chosen, *cut, true);
}

// --- input ---

uint8_t* EventLoop::readBuffer() {
    while (mReadBuffers.size() <= mDepth) {
        mReadBuffers.emplace_back(new uint8_t[kReadChunk]);
    }
    return mReadBuffers[mDepth].get();
}

bool EventLoop::readFrom(ConnectionId id) {
    auto it = mConnections.find(id);
    if (it == mConnections.end() || !it->second.open || it->second.reading) {
        return false;
    }
    Connection& connection = it->second;
    if (connection.partialUsed >= sizeof(FrameHeader)) {
        return readIntoPartial(id, connection);
    }
    // The few bytes of a header that came go in front of the new bytes.
    uint8_t* buffer = readBuffer();
    const size_t kept = connection.partialUsed;
    if (kept > 0) {
        std::memcpy(buffer, connection.partial.get(), kept);
    }
    const ssize_t n = receiveSome(connection.fd, buffer + kept, kReadChunk - kept);
    if (n < 0) {
        return false;
    }
    if (n == 0) {
        close(id, connection, true);
        return false;
    }
    releasePartial(connection);
    handFrames(id, connection, buffer, kept + static_cast<size_t>(n));
    return connection.open;
}

bool EventLoop::readIntoPartial(ConnectionId id, Connection& connection) {
    FrameHeader header;
    std::memcpy(&header, connection.partial.get(), sizeof(header));
    // decodeFrame already refused a length beyond the largest frame.
    const size_t frameSize = sizeof(header) + header.payloadSize;
    int waiting = 0;
    if (ioctl(connection.fd, FIONREAD, &waiting) != 0 || waiting <= 0) {
        // Nothing waits, or the peer is gone: a byte tells which.
        uint8_t byte;
        const ssize_t peeked = recv(connection.fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        if (peeked < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
            return false;
        }
        if (peeked <= 0) {
            close(id, connection, true);
            return false;
        }
        waiting = 1;
    }
    // The buffer grows with what has arrived, by doubling so that a frame
    // sent a byte at a time costs no more than one sent whole.
    const size_t needed = connection.partialUsed + std::min(frameSize - connection.partialUsed, size_t(waiting));
    if (needed > connection.partialCapacity) {
        const size_t capacity = std::min(frameSize, std::max(needed, 2 * connection.partialCapacity));
        if (!charge(connection, capacity - connection.partialCapacity)) {
            if (mayWarn()) {
                __android_log_print(ANDROID_LOG_WARN, kTag, "cutting a connection of process %d: too much buffered",
                                    connection.holder.pid);
            }
            close(id, connection, true);
            return false;
        }
        std::unique_ptr<uint8_t[]> grown(new uint8_t[capacity]);
        std::memcpy(grown.get(), connection.partial.get(), connection.partialUsed);
        connection.partial = std::move(grown);
        connection.partialCapacity = capacity;
    }
    const ssize_t n = receiveSome(connection.fd, connection.partial.get() + connection.partialUsed,
                                  std::min(connection.partialCapacity, frameSize) - connection.partialUsed);
    if (n < 0) {
        return false;
    }
    if (n == 0) {
        close(id, connection, true);
        return false;
    }
    connection.partialUsed += static_cast<size_t>(n);
    if (connection.partialUsed < frameSize) {
        return true;
    }
    // Charged until the driver is done with it.
    const std::unique_ptr<uint8_t[]> frame = std::move(connection.partial);
    handFrames(id, connection, frame.get(), frameSize);
    if (connection.open) {
        releasePartial(connection);
    }
    return connection.open;
}

void EventLoop::handFrames(ConnectionId id, Connection& connection, const uint8_t* bytes, size_t size) {
    // Frames handed from here may make the driver drain other connections:
    // those reads use the next buffer.
    ++mDepth;
    connection.reading = true;
    size_t start = 0;
    while (connection.open) {
        Frame frame;
        size_t consumed = 0;
        const DecodeStatus status = decodeFrame(bytes + start, size - start, &frame, &consumed);
        if (status == DecodeStatus::kIncomplete) {
            keepPartial(id, connection, bytes + start, size - start);
            break;
        }
        if (status == DecodeStatus::kMalformed || !mDriver.onFrame(id, frame)) {
            close(id, connection, true);
            break;
        }
        connection.greeted = true;
        start += consumed;
        // The driver hears of connections closed by this frame before the next.
        if (mDepth == 1) {
            settle();
            checkDriver();
        }
    }
    connection.reading = false;
    decrease(mDepth);
}

void EventLoop::keepPartial(ConnectionId id, Connection& connection, const uint8_t* bytes, size_t size) {
    if (size == 0) {
        return;
    }
    // Charged by what arrived, never by the length the header announces.
    if (!charge(connection, size)) {
        if (mayWarn()) {
            __android_log_print(ANDROID_LOG_WARN, kTag, "cutting a connection of process %d: too much buffered",
                                connection.holder.pid);
        }
        close(id, connection, true);
        return;
    }
    connection.partial.reset(new uint8_t[size]);
    std::memcpy(connection.partial.get(), bytes, size);
    connection.partialCapacity = size;
    connection.partialUsed = size;
}

void EventLoop::releasePartial(Connection& connection) {
    refund(connection, connection.partialCapacity);
    connection.partial.reset();
    connection.partialCapacity = connection.partialUsed = 0;
}

void EventLoop::drain(ConnectionId id) {
    while (readFrom(id)) {
    }
}

// --- output ---

EventLoop::Connection* EventLoop::outputTo(ConnectionId id, size_t size) {
    auto it = mConnections.find(id);
    if (it == mConnections.end() || !it->second.open || !it->second.writable) {
        return nullptr;
    }
    Connection& connection = it->second;
    if (!charge(connection, size)) {
        // What the peer has read already frees its share.
        flush(id, connection);
        if (!connection.open) {
            return nullptr;
        }
        if (!charge(connection, size)) {
            if (mayWarn()) {
                __android_log_print(ANDROID_LOG_WARN, kTag,
                                    "cutting a connection of process %d: it does not read what it is sent",
                                    connection.holder.pid);
            }
            close(id, connection, true);
            return nullptr;
        }
    }
    if (!connection.dirty) {
        connection.dirty = true;
        mDirty.push_back(id);
    }
    return &connection;
}

void EventLoop::send(ConnectionId to, uint32_t command, const void* payload, size_t size) {
    if (Connection* connection = outputTo(to, sizeof(FrameHeader) + size)) {
        appendFrame(&connection->out, command, payload, size);
    }
}

void EventLoop::sendTransaction(ConnectionId to, uint32_t command, const TransactionHeader& header,
                                const uint8_t* data, const uint64_t* offsets) {
    const size_t size = sizeof(FrameHeader) + sizeof(header) + header.dataSize + header.offsetsCount * sizeof(uint64_t);
    if (Connection* connection = outputTo(to, size)) {
        appendTransaction(&connection->out, command, header, data, offsets);
    }
}

void EventLoop::sendDescriptor(ConnectionId to, uint32_t command, const void* payload, size_t size,
                               int descriptor) {
    Connection* connection = takesDescriptor(to) ? outputTo(to, sizeof(FrameHeader) + size) : nullptr;
    if (connection == nullptr) {
        ::close(descriptor);
        return;
    }
    connection->descriptors.emplace_back(connection->out.size(), descriptor);
    ++mDescriptorsInFlight;
    appendFrame(&connection->out, command, payload, size);
}

bool EventLoop::takesDescriptor(ConnectionId id) const {
    auto it = mConnections.find(id);
    return it != mConnections.end() && it->second.open && it->second.writable &&
           it->second.descriptors.size() < kMaxDescriptorsInFlightPerConnection &&
           mDescriptorsInFlight < kMaxDescriptorsInFlight;
}

size_t EventLoop::backlog(ConnectionId id) const {
    auto it = mConnections.find(id);
    return it == mConnections.end() || !it->second.open ? 0 : it->second.out.size() - it->second.outStart;
}

void EventLoop::writeNow(ConnectionId id) {
    auto it = mConnections.find(id);
    if (it != mConnections.end()) {
        flush(id, it->second);
    }
}

void EventLoop::flushDirty() {
    // Closing a connection can make the driver queue notices for others.
    while (!mDirty.empty()) {
        std::vector<ConnectionId> dirty;
        dirty.swap(mDirty);
        for (ConnectionId id : dirty) {
            auto it = mConnections.find(id);
            if (it != mConnections.end()) {
                it->second.dirty = false;
                flush(id, it->second);
            }
        }
        settle();
    }
}

ssize_t EventLoop::write(const Connection& connection, size_t end, int descriptor) {
    iovec bytes{const_cast<uint8_t*>(connection.out.data()) + connection.outStart, end - connection.outStart};
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    if (descriptor >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &descriptor, sizeof(int));
    }
    for (;;) {
        const ssize_t n = sendmsg(connection.fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            return n;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? 0 : -1;
    }
}

void EventLoop::dropDescriptors(Connection& connection) {
    for (const auto& pending : connection.descriptors) {
        ::close(pending.second);
    }
    decrease(mDescriptorsInFlight, connection.descriptors.size());
    connection.descriptors.clear();
}

void EventLoop::stopWriting(ConnectionId id, Connection& connection) {
    connection.writable = false;
    refund(connection, connection.out.size() - connection.outStart);
    dropDescriptors(connection);
    std::vector<uint8_t>().swap(connection.out);
    connection.outStart = 0;
    if (connection.watchingWrites) {
        connection.watchingWrites = false;
        watch(mEpollFd, connection.fd, id, EPOLLIN, EPOLL_CTL_MOD);
    }
}

void EventLoop::flush(ConnectionId id, Connection& connection) {
    if (!connection.open || !connection.writable) {
        return;
    }
    std::vector<uint8_t>& out = connection.out;
    while (connection.outStart < out.size()) {
        // A descriptor travels with the first byte of its frame, so a write
        // never runs from before its frame into it.
        int descriptor = -1;
        size_t end = out.size();
        if (!connection.descriptors.empty()) {
            const size_t at = connection.descriptors.front().first;
            if (at == connection.outStart) {
                descriptor = connection.descriptors.front().second;
                end = connection.descriptors.size() > 1 ? connection.descriptors[1].first : out.size();
            } else {
                end = at;
            }
        }
        const ssize_t n = write(connection, end, descriptor);
        if (n < 0) {
            stopWriting(id, connection);
            return;
        }
        if (n == 0) {
            break;
        }
        if (descriptor >= 0) {
            ::close(descriptor);
            connection.descriptors.pop_front();
            decrease(mDescriptorsInFlight);
        }
        connection.outStart += static_cast<size_t>(n);
        refund(connection, static_cast<size_t>(n));
    }
    const size_t pending = out.size() - connection.outStart;
    if (pending == 0) {
        out.clear();
        connection.outStart = 0;
        if (out.capacity() > kKeptOutputCapacity && !connection.trimPending) {
            connection.trimPending = true;
            if (mToTrim.empty()) {
                mNextTrim = Clock::now() + kTrimDelay;
            }
            mToTrim.push_back(id);
        }
    } else if (connection.outStart > pending) {
        // Written bytes are dropped before they outgrow what is still to go.
        out.erase(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(connection.outStart));
        for (auto& waiting : connection.descriptors) {
            waiting.first -= connection.outStart;
        }
        connection.outStart = 0;
    }
    const bool wantWrites = pending > 0;
    if (wantWrites != connection.watchingWrites) {
        connection.watchingWrites = wantWrites;
        watch(mEpollFd, connection.fd, id, wantWrites ? (EPOLLIN | EPOLLOUT) : EPOLLIN, EPOLL_CTL_MOD);
    }
}

}  // namespace android::binderd
