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
    // One bell: its eventfd and its room in the bound, both given back when
    // it goes. Empty when the bound or the system said no.
    class Bell {
    public:
        Bell() = default;
        Bell(Bell&& other) noexcept;
        Bell& operator=(Bell&& other) noexcept;
        ~Bell();
        int fd() const { return mFd; }
        explicit operator bool() const { return mFd >= 0; }

    private:
        friend class RingBells;
        Bell(RingBells* bells, int fd) : mBells(bells), mFd(fd) {}
        void release();
        RingBells* mBells = nullptr;
        int mFd = -1;
    };

    // A new eventfd, handed to the other end with its ring.
    Bell make();
    // Keeps `fd`, a bell the other end handed over, or closes it at once.
    Bell adopt(int fd);

private:
    bool take();
    void give();

    std::mutex mLock;
    size_t mHeld = 0;
};

}  // namespace android
