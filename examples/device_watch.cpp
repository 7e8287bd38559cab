// A small client of libtivra: prints the local device, every device and every
// remote node of the network, then reports device changes for a while.
//
// Build against an installed libtivra with either
//   c++ -std=c++17 device_watch.cpp $(pkg-config --cflags --libs tivra) -o device_watch
// or the CMakeLists.txt beside this file (find_package(tivra)).
#include <tivra/tivra_adapter.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>

using namespace Communication;

namespace {

// Callbacks arrive on the library's Binder threads: keep them short and
// hand work over under a lock.
class PrintingListener : public TivraListener {
public:
    void OnDeviceOnline(std::shared_ptr<TivraDeviceInfo> device) override { Report("online", *device); }
    void OnDeviceOffline(std::shared_ptr<TivraDeviceInfo> device) override { Report("offline", *device); }

    // Waits until `count` events arrived or the time is up.
    bool WaitForEvents(int count, std::chrono::seconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return events_ >= count; });
    }

private:
    void Report(const char* what, const TivraDeviceInfo& device) {
        std::lock_guard<std::mutex> lock(mutex_);
        std::printf("device %s: %s (%s)\n", what, device.GetDeviceName().c_str(), device.GetDeviceId().c_str());
        std::fflush(stdout);
        ++events_;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    int events_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    // Usage: device_watch [EVENTS [SECONDS]]: wait for EVENTS device changes
    // (default 1), at most SECONDS (default 10).
    const int wanted = argc > 1 ? std::atoi(argv[1]) : 1;
    const int seconds = argc > 2 ? std::atoi(argv[2]) : 10;

    std::shared_ptr<TivraAdapter> adapter = TivraAdapter::GetInstance();

    int errCode = TIVRA_ERR_OK;
    std::shared_ptr<TivraDeviceInfo> local = adapter->GetLocalDevice(errCode);
    if (errCode != TIVRA_ERR_OK) {
        std::fprintf(stderr, "device_watch: %s\n",
                     errCode == TIVRA_ERR_SERVICE_UNAVAILABLE ? "no device monitor service is running"
                                                              : "the service call failed");
        return 1;
    }
    std::printf("local device: %s (%s)\n", local->GetDeviceName().c_str(), local->GetDeviceId().c_str());

    for (const std::shared_ptr<TivraDeviceInfo>& device : adapter->GetAllDevices(errCode)) {
        std::printf("device: %s (%s, %s, %s)\n", device->GetDeviceName().c_str(), device->GetDeviceId().c_str(),
                    device->GetDeviceType().c_str(), device->GetDeviceIp().c_str());
    }
    for (const std::shared_ptr<NodeBasicInfo>& node : adapter->GetRemoteNodesBasicInfo()) {
        std::printf("node: %s (%s), network %s\n", node->GetName().c_str(), node->GetNodeId().c_str(),
                    adapter->GetNodeExtInfo(node->GetNodeId(), NETWORK_TYPE).c_str());
    }
    std::fflush(stdout);

    auto listener = std::make_shared<PrintingListener>();
    if (!adapter->RegisterCallback(listener)) {
        std::fprintf(stderr, "device_watch: could not register for device changes\n");
        return 1;
    }
    const bool heard = listener->WaitForEvents(wanted, std::chrono::seconds(seconds));
    adapter->UnregisterCallback(listener);
    return heard ? 0 : 2;
}
