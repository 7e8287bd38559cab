#pragma once
// Client objects that record what the adapter told them, for the adapter's
// tests: Binder threads add, the test waits with a timeout.
#include <android/log.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "log_capture.h"
#include "tivra/tivra_adapter.h"

namespace tivra_test {

inline std::shared_ptr<Communication::TivraAdapter> Adapter() { return Communication::TivraAdapter::GetInstance(); }

template <typename Event>
class EventLog {
public:
    void Add(Event event) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            events_.push_back(std::move(event));
        }
        changed_.notify_all();
    }
    std::vector<Event> Events() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    size_t Size() const { return Events().size(); }
    bool WaitForSize(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return events_.size() >= count; });
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Event> events_;
};

struct DeviceEvent {
    bool online;
    std::shared_ptr<Communication::TivraDeviceInfo> device;
};

// Records its calls, then runs an optional hook (a listener that calls the
// adapter from inside a callback).
class RecordingListener : public Communication::TivraListener {
public:
    using Hook = std::function<void(const DeviceEvent&)>;
    explicit RecordingListener(Hook hook = nullptr) : hook_(std::move(hook)) {}
    void OnDeviceOnline(std::shared_ptr<Communication::TivraDeviceInfo> device) override { Record({true, device}); }
    void OnDeviceOffline(std::shared_ptr<Communication::TivraDeviceInfo> device) override { Record({false, device}); }

    EventLog<DeviceEvent> log;

private:
    void Record(const DeviceEvent& event) {
        log.Add(event);
        if (hook_) hook_(event);
    }
    Hook hook_;
};

struct NodeEvent {
    enum Kind { Online, Offline, InfoChanged } kind;
    std::shared_ptr<Communication::NodeBasicInfo> node;  // online and offline
    std::string nodeId;                                  // info changed
    Communication::DeviceInfoType type = Communication::DEVICE_INFO_TYPE_UNKNOWN;
};

class RecordingNodeListener : public Communication::DeviceListener {
public:
    void OnDeviceOnline(std::shared_ptr<Communication::NodeBasicInfo> node) override {
        log.Add({NodeEvent::Online, node, "", Communication::DEVICE_INFO_TYPE_UNKNOWN});
    }
    void OnDeviceOffline(std::shared_ptr<Communication::NodeBasicInfo> node) override {
        log.Add({NodeEvent::Offline, node, "", Communication::DEVICE_INFO_TYPE_UNKNOWN});
    }
    void OnDeviceInfoChanged(std::string nodeId, Communication::DeviceInfoType type) override {
        log.Add({NodeEvent::InfoChanged, nullptr, std::move(nodeId), type});
    }

    EventLog<NodeEvent> log;
};

// Counts deaths and runs an optional hook inside OnServiceDied.
class RecordingNotifier : public Communication::TivraDeathNotifier {
public:
    explicit RecordingNotifier(std::function<void()> hook = nullptr) : hook_(std::move(hook)) {}
    void OnServiceDied() override {
        deaths.Add(true);
        if (hook_) hook_();
    }

    EventLog<bool> deaths;

private:
    std::function<void()> hook_;
};

// Failures the library logged (notes at info priority do not count).
inline size_t ErrorLines(const LogCapture& log) {
    const std::vector<LogLine> lines = log.Lines();
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(),
                                             [](const LogLine& line) { return line.priority == ANDROID_LOG_ERROR; }));
}

}  // namespace tivra_test
