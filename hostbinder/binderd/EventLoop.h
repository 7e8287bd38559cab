#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <unordered_map>
#include <vector>

#include "Driver.h"
#include "Ledger.h"
#include "Outbox.h"
#include "PeerPolicy.h"

namespace android::binderd {

// One thread, one epoll set: accepts the connections its policy and bounds
// allow, reads frames into the driver and writes the driver's frames without
// ever blocking on a peer.
//
// A connection's state lives until the end of the round in which it was
// closed: closing only marks it (descriptor closed, nothing read or written
// any more, the driver told once), so no caller up the stack ever holds a
// connection that is gone; closed connections are forgotten at one point,
// after the round's events.
class EventLoop : public Outbox {
public:
    EventLoop(int listenFd, int stopFd, const PeerPolicy& policy, bool verbose);
    ~EventLoop() override;
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // Serves until stopFd becomes readable; returns the exit status.
    int run();
    // One round: waits up to `timeoutMs` (-1: until something happens) and
    // handles what happened; false once stopped or failed.
    bool runOnce(int timeoutMs);

    void send(ConnectionId to, uint32_t command, const void* payload, size_t size) override;
    void sendTransaction(ConnectionId to, uint32_t command, const hostbinder::TransactionHeader& header,
                         const uint8_t* data, const uint64_t* offsets) override;
    void sendDescriptor(ConnectionId to, uint32_t command, const void* payload, size_t size,
                        int descriptor) override;
    bool takesDescriptor(ConnectionId id) const override;
    void cut(ConnectionId id) override;
    void finish(ConnectionId id) override;
    size_t backlog(ConnectionId id) const override;
    void writeNow(ConnectionId id) override;
    void drain(ConnectionId id) override;

private:
    using Clock = std::chrono::steady_clock;

    // What the connections of each process hold: themselves and the bytes
    // buffered for them.
    enum Kind : size_t { kConnectionsHeld, kBytesBuffered, kKinds };
    using Holdings = Ledger<kKinds>;

    struct Connection {
        int fd = -1;
        Holdings::Holder holder;  // its process's pid and uid
        bool open = true;
        // False once a write failed: the peer is gone or reads no more. What
        // it sent before still counts, so the connection is read to its end
        // (one-way calls of a process that exits at once stay delivered).
        bool writable = true;
        bool greeted = false;  // its first frame, the hello, was handled
        bool reading = false;  // its frames are being handed to the driver
        // The frame that arrived in part: while its header is incomplete the
        // few bytes there are; then a buffer that grows as the frame's bytes
        // arrive (to at most twice what arrived), never beyond the frame.
        std::unique_ptr<uint8_t[]> partial;
        size_t partialCapacity = 0;
        size_t partialUsed = 0;
        std::vector<uint8_t> out;
        size_t outStart = 0;
        // Descriptors to hand over, each with the position in `out` of the
        // frame it goes with.
        std::deque<std::pair<size_t, int>> descriptors;
        bool watchingWrites = false;
        bool dirty = false;
        bool trimPending = false;
        // The partial frame's buffer plus the output not yet written.
        size_t buffered = 0;
    };

    void accept();
    void admit(int fd);
    bool shedOneConnection();
    // Tells a peer why it is turned away and closes the descriptor.
    static void refuse(int fd, uint32_t reason);

    // Reads what the peer sent (one chunk, or more of a frame that arrived
    // in part) and hands whole frames to the driver; false when nothing was
    // read or the connection ended.
    bool readFrom(ConnectionId id);
    bool readIntoPartial(ConnectionId id, Connection& connection);
    void handFrames(ConnectionId id, Connection& connection, const uint8_t* bytes, size_t size);
    void keepPartial(ConnectionId id, Connection& connection, const uint8_t* bytes, size_t size);
    void releasePartial(Connection& connection);
    uint8_t* readBuffer();

    // The connection that takes `size` more output bytes, or null: gone,
    // closed, or cut now for going over its bounds.
    Connection* outputTo(ConnectionId id, size_t size);
    void flushDirty();
    void flush(ConnectionId id, Connection& connection);
    void stopWriting(ConnectionId id, Connection& connection);
    // Writes out[outStart, end), the first byte carrying `descriptor` when it
    // is not -1; the bytes written, 0 when the socket is full, -1 when broken.
    static ssize_t write(const Connection& connection, size_t end, int descriptor);
    void dropDescriptors(Connection& connection);

    // Takes `bytes` more for the connection within its bounds. Where a shared
    // bound (its uid's, or the total) would be crossed, the process holding
    // the most loses its heaviest connections first; false when the charging
    // connection must go itself: over its own bound, or its process holding
    // the most.
    bool charge(Connection& connection, size_t bytes);
    void refund(Connection& connection, size_t bytes);
    // Cuts the connection of `victim` that holds the most bytes, or its
    // newest connection, so that another process's take fits.
    void cutToMakeRoom(const Holdings::Holder& victim, Kind kind);
    // Gives freed memory back to the system once much of it is free.
    void returnMemory(Clock::time_point now);
    void close(ConnectionId id, Connection& connection, bool tellDriver);
    // Tells the driver of the connections closed since it last heard.
    void settle();
    // In builds that check (TIVRA_CHECK_INVARIANTS), stops binderd at once
    // when the driver's tables disagree with each other.
    void checkDriver();
    void expireHellos(Clock::time_point now);
    // Gives back the output buffers of connections that have gone quiet.
    void trimIdleBuffers(Clock::time_point now);
    void reap();
    int epollTimeout() const;
    // At most one warning a second, so a peer cannot flood the log.
    bool mayWarn();

    const int mListenFd;
    const int mStopFd;
    const int mEpollFd;
    const PeerPolicy mPolicy;
    Driver mDriver;
    ConnectionId mNextId;
    size_t mMaxConnections;
    int mReserveFd;
    int mStatus = 0;
    std::unordered_map<ConnectionId, Connection> mConnections;
    Holdings mHoldings;
    std::vector<ConnectionId> mDirty;
    std::deque<ConnectionId> mUntold;
    std::vector<ConnectionId> mClosed;
    std::deque<std::pair<Clock::time_point, ConnectionId>> mAwaitingHello;
    std::vector<ConnectionId> mToTrim;
    Clock::time_point mNextTrim;
    // One read buffer per level of drain() nesting.
    std::vector<std::unique_ptr<uint8_t[]>> mReadBuffers;
    size_t mDepth = 0;
    size_t mDescriptorsInFlight = 0;
    [[maybe_unused]] size_t mUncheckedFrames = 0;
    // Bytes held at most since memory was last given back to the system,
    // and when it may be given back next.
    size_t mHeldPeak = 0;
    bool mReturnPending = false;
    Clock::time_point mNextReturn;
    Clock::time_point mLastWarning;
    unsigned mSuppressedWarnings = 0;
};

}  // namespace android::binderd
