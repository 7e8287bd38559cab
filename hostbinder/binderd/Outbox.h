#pragma once

#include <cstddef>
#include <cstdint>

#include "protocol/Protocol.h"

namespace android::binderd {

using ConnectionId = uint64_t;

// Where the driver's frames go. Sends never block: they are buffered per
// connection and written when the peer can take them.
class Outbox {
public:
    virtual ~Outbox() = default;
    virtual void send(ConnectionId to, uint32_t command, const void* payload, size_t size) = 0;
    virtual void sendTransaction(ConnectionId to, uint32_t command, const hostbinder::TransactionHeader& header,
                                 const uint8_t* data, const uint64_t* offsets) = 0;
    // Closes the connection without telling the driver back.
    virtual void cut(ConnectionId id) = 0;
    // Feeds the driver, before it goes on, every whole frame the connection
    // has already sent: frames a peer wrote earlier on another connection must
    // not be overtaken by what the driver is about to do.
    virtual void drain(ConnectionId id) = 0;
};

}  // namespace android::binderd
