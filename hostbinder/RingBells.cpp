#include "RingBells.h"

#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <utility>

namespace android {

RingBells::Bell::Bell(Bell&& other) noexcept
    : mBells(std::exchange(other.mBells, nullptr)), mFd(std::exchange(other.mFd, -1)) {}

RingBells::Bell& RingBells::Bell::operator=(Bell&& other) noexcept {
    if (this != &other) {
        release();
        mBells = std::exchange(other.mBells, nullptr);
        mFd = std::exchange(other.mFd, -1);
    }
    return *this;
}

RingBells::Bell::~Bell() { release(); }

void RingBells::Bell::release() {
    if (mFd >= 0) {
        close(mFd);
        mBells->give();
        mFd = -1;
    }
}

RingBells::Bell RingBells::make() {
    if (!take()) {
        return {};
    }
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) {
        give();
        return {};
    }
    return Bell(this, fd);
}

RingBells::Bell RingBells::adopt(int fd) {
    if (fd < 0) {
        return {};
    }
    if (!take()) {
        close(fd);
        return {};
    }
    return Bell(this, fd);
}

bool RingBells::take() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return false;
    }
    // Read each time: the process may change its limit.
    const size_t bound = limit.rlim_cur == RLIM_INFINITY ? SIZE_MAX / 4 : static_cast<size_t>(limit.rlim_cur) / 4;
    std::lock_guard<std::mutex> lock(mLock);
    if (mHeld >= bound) {
        return false;
    }
    ++mHeld;
    return true;
}

void RingBells::give() {
    std::lock_guard<std::mutex> lock(mLock);
    --mHeld;
}

}  // namespace android
