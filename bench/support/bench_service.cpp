#include "bench_service.h"

#include <chrono>

namespace tivra_bench {

using android::OK;
using android::Parcel;
using android::status_t;

status_t BenchService::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    switch (code) {
        case kEcho:
            return reply->write(data.data(), data.dataSize());
        case kCount: {
            std::lock_guard<std::mutex> lock(mLock);
            ++mCount;
            // Cheap without waiters: no system call unless someone awaits.
            mArrived.notify_all();
            return OK;
        }
        case kAwaitCount: {
            const int64_t target = data.readInt64();
            std::unique_lock<std::mutex> lock(mLock);
            // A lost one-way call must fail the benchmark, not hang it.
            mArrived.wait_for(lock, std::chrono::seconds(10), [&] { return mCount >= target; });
            return reply->writeInt64(mCount);
        }
        default:
            return BBinder::onTransact(code, data, reply, flags);
    }
}

}  // namespace tivra_bench
