#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

namespace android::hostbinder {
class Connection;
}

namespace tivra_bench {

// A connection watching binderd's traffic, as `tivra monitor` does, read by
// a thread of its own that counts what arrives and drops it.
class TrafficWatcher {
public:
    explicit TrafficWatcher(const std::string& socketPath);
    ~TrafficWatcher();
    TrafficWatcher(const TrafficWatcher&) = delete;
    TrafficWatcher& operator=(const TrafficWatcher&) = delete;

    bool attached() const { return mConnection != nullptr; }
    // Stops reading; the counts are final afterwards.
    void stop();
    uint64_t records() const { return mRecords; }
    uint64_t lost() const { return mLost; }

private:
    std::unique_ptr<android::hostbinder::Connection> mConnection;
    std::thread mReader;
    std::atomic<uint64_t> mRecords{0};
    std::atomic<uint64_t> mLost{0};
};

}  // namespace tivra_bench
