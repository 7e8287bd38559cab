#pragma once

#include <cstddef>
#include <mutex>

namespace android {

// The eventfds that wake the readers of this process's shared rings, at
// either end of its channels: one per one-way channel, two per thread's
// two-way channel. A process with many channels would otherwise run out of
// descriptors for everything else, so the bells stay within a quarter of
// its descriptor limit; a channel that gets none carries its calls and
// replies on its socket.
class RingBells {
public:
    // Room for `count` more bells, if the bound allows.
    bool take(size_t count);
    void give(size_t count);

private:
    std::mutex mLock;
    size_t mHeld = 0;
};

}  // namespace android
