#pragma once

#include <cstddef>
#include <cstdint>

#include "protocol/Protocol.h"

namespace android::binderd {

using ConnectionId = uint64_t;

// Where the driver's frames go, and the rules that keep the driver and the
// event loop from pulling connections out from under each other:
//
// - Sends never block and never call back into the driver. A connection whose
//   output goes over its bound is closed at once, but the driver hears of it
//   (onDisconnect) only after the frame it is handling, never in the middle.
// - A send to a connection that is gone or closed is dropped silently; the
//   driver may name any id it still knows.
// - cut() closes a connection without telling the driver back: the driver
//   cuts only what it has already forgotten or is forgetting.
// - finish() writes what is queued for a connection, as far as its socket
//   takes it at once, and closes it; the driver hears of it after the frame.
// - drain() is the one re-entry: it feeds the driver, before it goes on, the
//   whole frames the connection has already sent.
class Outbox {
public:
    virtual ~Outbox() = default;
    virtual void send(ConnectionId to, uint32_t command, const void* payload, size_t size) = 0;
    virtual void sendTransaction(ConnectionId to, uint32_t command, const hostbinder::TransactionHeader& header,
                                 const uint8_t* data, const uint64_t* offsets) = 0;
    // Sends a frame with a descriptor that the peer receives with it; the
    // outbox owns `descriptor` from then on, sent or not.
    virtual void sendDescriptor(ConnectionId to, uint32_t command, const void* payload, size_t size,
                                int descriptor) = 0;
    // Whether the connection may take another descriptor now: it is open and
    // has few enough of them waiting to go out.
    virtual bool takesDescriptor(ConnectionId id) const = 0;
    virtual void cut(ConnectionId id) = 0;
    virtual void finish(ConnectionId id) = 0;
    // Bytes queued for the connection that its socket has not taken yet; 0
    // once it is gone.
    virtual size_t backlog(ConnectionId id) const = 0;
    // Writes what is queued for the connection, as far as its socket takes it
    // at once; a connection found broken is closed, as by a send.
    virtual void writeNow(ConnectionId id) = 0;
    // Frames a peer wrote earlier on another connection must not be overtaken
    // by what the driver is about to do.
    virtual void drain(ConnectionId id) = 0;
};

}  // namespace android::binderd
