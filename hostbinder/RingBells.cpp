#include "RingBells.h"

#include <sys/resource.h>

namespace android {

bool RingBells::take(size_t count) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return false;
    }
    // Read each time: the process may change its limit.
    const size_t bound = limit.rlim_cur == RLIM_INFINITY ? SIZE_MAX / 4 : static_cast<size_t>(limit.rlim_cur) / 4;
    std::lock_guard<std::mutex> lock(mLock);
    if (mHeld + count > bound) {
        return false;
    }
    mHeld += count;
    return true;
}

void RingBells::give(size_t count) {
    std::lock_guard<std::mutex> lock(mLock);
    mHeld -= count;
}

}  // namespace android
