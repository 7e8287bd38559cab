#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include <memory>
#include <mutex>
#include <vector>

#include "RingBells.h"
#include "protocol/ChannelIo.h"
#include "protocol/SharedRing.h"

namespace android {

// The caller's end of a direct channel to the process that owns what it
// calls: a thread's own, for its two-way calls, or its process's one-way
// channel, shared by all threads under `lock`.
struct OutgoingChannel {
    enum class State {
        kAwaitingWelcome,  // the owner has not said yet that it holds its end
        kReady,
        kBroken,           // ended: calls go through binderd
    };

    OutgoingChannel(uint64_t id, int fd) : id(id), fd(fd) {}
    ~OutgoingChannel() {
        ::close(fd);
    }
    OutgoingChannel(const OutgoingChannel&) = delete;
    OutgoingChannel& operator=(const OutgoingChannel&) = delete;

    const uint64_t id;
    const int fd;
    std::mutex lock;  // one-way channels: everything below
    State state = State::kAwaitingWelcome;
    uint32_t sequence = 0;
    hostbinder::FrameReader reader;
    // Calls go through shared memory once the owner took it, and a two-way
    // channel's replies come back that way.
    std::unique_ptr<hostbinder::SharedRing> ring;
    RingBells::Bell doorbell;  // the ring's: wakes the owner when it sleeps
    std::unique_ptr<hostbinder::SharedRing> replies;
    RingBells::Bell replyBell;  // the owner rings it when this thread sleeps
    std::vector<uint8_t> replyFrame;
    // Room binderd reserved for this thread's one-way calls in the owner's
    // buffer, and the charge units sent on the channel so far.
    size_t credit = 0;
    uint64_t sentCharge = 0;
    // Set once a one-way call went through binderd: later ones follow it
    // there until binderd says every one of them is done.
    bool relaying = false;
    uint64_t relayedSent = 0;
};

}  // namespace android
