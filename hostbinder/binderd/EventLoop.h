#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "Driver.h"
#include "Outbox.h"

namespace android::binderd {

// One thread, one epoll set: accepts connections, reads frames into the
// driver and writes the driver's frames without ever blocking on a peer.
class EventLoop : public Outbox {
public:
    EventLoop(int listenFd, int stopFd, bool verbose);
    ~EventLoop() override;
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // Serves until stopFd becomes readable; returns the exit status.
    int run();

    void send(ConnectionId to, uint32_t command, const void* payload, size_t size) override;
    void sendTransaction(ConnectionId to, uint32_t command, const hostbinder::TransactionHeader& header,
                         const uint8_t* data, const uint64_t* offsets) override;
    void cut(ConnectionId id) override;
    void drain(ConnectionId id) override;

private:
    struct Peer {
        int fd = -1;
        std::vector<uint8_t> in;
        size_t inUsed = 0;
        std::vector<uint8_t> out;
        size_t outStart = 0;
        bool watchingWrites = false;
    };

    void accept();
    // Reads what the peer sent and feeds whole frames to the driver; false
    // when nothing was there or the connection ended.
    bool readFrom(ConnectionId id);
    void flushDirty();
    void flush(ConnectionId id, Peer& peer);
    Peer* outputPeer(ConnectionId id);
    // Ends a connection after a fault of the peer: the driver forgets it.
    void drop(ConnectionId id);
    int epollTimeout() const;

    const int mListenFd;
    const int mStopFd;
    const int mEpollFd;
    Driver mDriver;
    ConnectionId mNextId;
    std::unordered_map<ConnectionId, Peer> mPeers;
    std::vector<ConnectionId> mDirty;
};

}  // namespace android::binderd
