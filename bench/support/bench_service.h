#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include <binder/Binder.h>
#include <binder/Parcel.h>

namespace tivra_bench {

// The service end of the Binder benchmarks.
class BenchService : public android::BBinder {
public:
    enum Code : uint32_t {
        kEcho = android::IBinder::FIRST_CALL_TRANSACTION,  // returns the request's bytes
        kCount,        // one-way: counted on arrival
        kAwaitCount,   // int64 target: waits (bounded) until that many arrived -> int64 count
    };

protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;

private:
    std::mutex mLock;
    std::condition_variable mArrived;
    int64_t mCount = 0;
};

}  // namespace tivra_bench
