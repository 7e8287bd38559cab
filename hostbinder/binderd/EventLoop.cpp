#include "EventLoop.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <log/log.h>

namespace android::binderd {

using namespace hostbinder;

namespace {

constexpr const char* kTag = "binderd";
constexpr ConnectionId kListenId = 0;
constexpr ConnectionId kStopId = 1;
constexpr size_t kReadChunk = 256 * 1024;
// A peer that does not read its frames is cut rather than buffered forever:
// a few largest transactions plus its notices is all an honest one lags.
constexpr size_t kMaxPendingOutput = 8 * kMaxPayload;

void watch(int epollFd, int fd, ConnectionId id, uint32_t events, int operation) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    epoll_ctl(epollFd, operation, fd, &event);
}

}  // namespace

EventLoop::EventLoop(int listenFd, int stopFd, bool verbose)
    : mListenFd(listenFd),
      mStopFd(stopFd),
      mEpollFd(epoll_create1(EPOLL_CLOEXEC)),
      mDriver(*this, verbose),
      mNextId(kStopId + 1) {
    watch(mEpollFd, mListenFd, kListenId, EPOLLIN, EPOLL_CTL_ADD);
    watch(mEpollFd, mStopFd, kStopId, EPOLLIN, EPOLL_CTL_ADD);
}

EventLoop::~EventLoop() {
    for (auto& entry : mPeers) {
        close(entry.second.fd);
    }
    close(mEpollFd);
}

int EventLoop::run() {
    constexpr int kMaxEvents = 64;
    epoll_event events[kMaxEvents];
    for (;;) {
        const int count = epoll_wait(mEpollFd, events, kMaxEvents, epollTimeout());
        if (count < 0 && errno != EINTR) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "epoll_wait failed: %d", errno);
            return 1;
        }
        for (int i = 0; i < count; ++i) {
            const ConnectionId id = events[i].data.u64;
            if (id == kStopId) {
                return 0;
            }
            if (id == kListenId) {
                accept();
                continue;
            }
            auto peer = mPeers.find(id);
            if (peer == mPeers.end()) {
                continue;
            }
            if ((events[i].events & EPOLLOUT) != 0) {
                flush(id, peer->second);
            }
            if ((events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
                readFrom(id);
            }
        }
        mDriver.expireTimers(Driver::Clock::now());
        flushDirty();
    }
}

int EventLoop::epollTimeout() const {
    const Driver::Clock::time_point deadline = mDriver.nextDeadline();
    if (deadline == Driver::Clock::time_point::max()) {
        return -1;
    }
    const auto wait =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Driver::Clock::now()).count() + 1;
    return static_cast<int>(std::clamp<int64_t>(wait, 0, 60000));
}

void EventLoop::accept() {
    for (;;) {
        const int fd = accept4(mListenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            return;
        }
        ucred credentials{};
        socklen_t length = sizeof(credentials);
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
            close(fd);
            continue;
        }
        const ConnectionId id = mNextId++;
        mPeers[id].fd = fd;
        watch(mEpollFd, fd, id, EPOLLIN, EPOLL_CTL_ADD);
        mDriver.onConnect(id, credentials.pid, credentials.uid);
    }
}

bool EventLoop::readFrom(ConnectionId id) {
    // At most one chunk per wake-up, so one busy peer cannot starve the rest.
    Peer& peer = mPeers.at(id);
    // The buffer only grows, so reads never pay for zero-filling.
    if (peer.in.size() < peer.inUsed + kReadChunk) {
        peer.in.resize(peer.inUsed + kReadChunk);
    }
    ssize_t n;
    do {
        n = recv(peer.fd, peer.in.data() + peer.inUsed, kReadChunk, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        return false;
    }
    if (n <= 0) {
        drop(id);
        return false;
    }
    peer.inUsed += static_cast<size_t>(n);
    size_t start = 0;
    for (;;) {
        Frame frame;
        size_t consumed = 0;
        const DecodeStatus status = decodeFrame(peer.in.data() + start, peer.inUsed - start, &frame, &consumed);
        if (status == DecodeStatus::kIncomplete) {
            break;
        }
        if (status == DecodeStatus::kMalformed || !mDriver.onFrame(id, frame)) {
            drop(id);
            return false;
        }
        start += consumed;
        // The driver may have cut this very connection.
        if (mPeers.find(id) == mPeers.end()) {
            return false;
        }
    }
    std::memmove(peer.in.data(), peer.in.data() + start, peer.inUsed - start);
    peer.inUsed -= start;
    return true;
}

void EventLoop::drain(ConnectionId id) {
    while (mPeers.count(id) != 0 && readFrom(id)) {
    }
}

EventLoop::Peer* EventLoop::outputPeer(ConnectionId id) {
    auto it = mPeers.find(id);
    if (it == mPeers.end()) {
        return nullptr;
    }
    if (it->second.out.size() == it->second.outStart) {
        it->second.out.clear();
        it->second.outStart = 0;
        mDirty.push_back(id);
    }
    return &it->second;
}

void EventLoop::send(ConnectionId to, uint32_t command, const void* payload, size_t size) {
    if (Peer* peer = outputPeer(to)) {
        appendFrame(&peer->out, command, payload, size);
    }
}

void EventLoop::sendTransaction(ConnectionId to, uint32_t command, const TransactionHeader& header,
                                const uint8_t* data, const uint64_t* offsets) {
    if (Peer* peer = outputPeer(to)) {
        appendTransaction(&peer->out, command, header, data, offsets);
    }
}

void EventLoop::cut(ConnectionId id) {
    auto it = mPeers.find(id);
    if (it == mPeers.end()) {
        return;
    }
    close(it->second.fd);
    mPeers.erase(it);
}

void EventLoop::drop(ConnectionId id) {
    cut(id);
    mDriver.onDisconnect(id);
}

void EventLoop::flushDirty() {
    // Dropping a peer can queue notices for others, so drain until stable.
    while (!mDirty.empty()) {
        std::vector<ConnectionId> dirty;
        dirty.swap(mDirty);
        for (ConnectionId id : dirty) {
            auto it = mPeers.find(id);
            if (it != mPeers.end()) {
                flush(id, it->second);
            }
        }
    }
}

void EventLoop::flush(ConnectionId id, Peer& peer) {
    while (peer.outStart < peer.out.size()) {
        const ssize_t n =
            ::send(peer.fd, peer.out.data() + peer.outStart, peer.out.size() - peer.outStart, MSG_NOSIGNAL);
        if (n > 0) {
            peer.outStart += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        }
        drop(id);
        return;
    }
    const size_t pending = peer.out.size() - peer.outStart;
    if (pending > kMaxPendingOutput) {
        __android_log_print(ANDROID_LOG_WARN, kTag, "cutting a connection that stopped reading");
        drop(id);
        return;
    }
    if (pending == 0) {
        peer.out.clear();
        peer.outStart = 0;
    }
    const bool wantWrites = pending > 0;
    if (wantWrites != peer.watchingWrites) {
        peer.watchingWrites = wantWrites;
        watch(mEpollFd, peer.fd, id, wantWrites ? (EPOLLIN | EPOLLOUT) : EPOLLIN, EPOLL_CTL_MOD);
    }
}

}  // namespace android::binderd
