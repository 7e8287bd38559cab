#include "traffic_watcher.h"

#include <cstring>
#include <vector>

#include "protocol/Connection.h"

namespace tivra_bench {

using namespace android::hostbinder;

TrafficWatcher::TrafficWatcher(const std::string& socketPath) {
    std::vector<uint8_t> welcome;
    std::string error;
    mConnection = Connection::connect(socketPath, kHelloMonitor, nullptr, 0, &welcome, &error);
    if (mConnection == nullptr) {
        return;
    }
    mReader = std::thread([this] {
        uint32_t command = 0;
        std::vector<uint8_t> payload;
        while (mConnection->receive(&command, &payload)) {
            uint64_t lost = 0;
            if (command == kTrafficRecord) {
                ++mRecords;
            } else if (command == kTrafficLost && payload.size() == sizeof(lost)) {
                std::memcpy(&lost, payload.data(), sizeof(lost));
                mLost += lost;
            }
        }
    });
}

TrafficWatcher::~TrafficWatcher() { stop(); }

void TrafficWatcher::stop() {
    if (mReader.joinable()) {
        mConnection->shutdown();
        mReader.join();
    }
}

}  // namespace tivra_bench
