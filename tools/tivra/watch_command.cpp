#include "watch_command.h"

#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>

#include <android/os/BnServiceCallback.h>
#include <binder/IServiceManager.h>
#include <nlohmann/json.hpp>

#include "binderd_watch.h"
#include "command_line.h"
#include "duration.h"
#include "event_time.h"
#include "exit_codes.h"
#include "record_output.h"
#include "service_diagnosis.h"
#include "text_width.h"
#include "tivra/tivra_adapter.h"
#include "written_output.h"

namespace tivra_cli {
namespace {

using Communication::TivraAdapter;
using nlohmann::json;

const android::String16 kServiceName("PravikDeviceMonitorService");

// Events come from several Binder threads; each one is printed whole. People
// read the time of day; programs get RFC 3339 with the date and the offset.
// When a line cannot be written (a full disk), the main thread is woken to
// stop: watching on serves no one.
class EventPrinter {
public:
    explicit EventPrinter(const Options& options) : options_(options) {}

    // `text` is shown as it is: what came from the service in it is escaped.
    void Print(const std::string& event, const json& details, const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto now = std::chrono::system_clock::now();
        if (options_.json) {
            json line = details;
            line["time"] = Rfc3339(now);
            line["event"] = event;
            std::printf("%s\n", JsonText(line, options_).c_str());
        } else {
            char head[64];
            std::snprintf(head, sizeof(head), "%s  %-18s", TimeOfDay(now).c_str(), event.c_str());
            std::string line = head;
            line += text.empty() ? "" : " " + text;
            line.erase(line.find_last_not_of(' ') + 1);
            std::printf("%s\n", line.c_str());
        }
        if (!tivra_tools::StdoutWritten() && !failed_.exchange(true)) {
            tivra_tools::WakeMainThread();
        }
    }

    bool Failed() const { return failed_; }

private:
    std::mutex mutex_;
    const Options options_;
    std::atomic<bool> failed_{false};
};

std::string DeviceText(const Communication::TivraDeviceInfo& device) {
    return Printable(device.GetDeviceName()) + " (" + Printable(device.GetDeviceId()) + ", " +
           Printable(device.GetDeviceType()) + ", " + Printable(device.GetDeviceIp()) + ")";
}

std::string NodeText(const Communication::NodeBasicInfo& node) {
    return Printable(node.GetName()) + " (" + Printable(node.GetNodeId()) + ", " +
           DeviceTypeName(node.GetDeviceType()) + ")";
}

class DevicePrinter : public Communication::TivraListener {
public:
    explicit DevicePrinter(EventPrinter& printer) : printer_(printer) {}
    void OnDeviceOnline(std::shared_ptr<Communication::TivraDeviceInfo> device) override {
        printer_.Print("device-online", json{{"device", ToJson(*device)}}, DeviceText(*device));
    }
    void OnDeviceOffline(std::shared_ptr<Communication::TivraDeviceInfo> device) override {
        printer_.Print("device-offline", json{{"device", ToJson(*device)}}, DeviceText(*device));
    }

private:
    EventPrinter& printer_;
};

class NodePrinter : public Communication::DeviceListener {
public:
    explicit NodePrinter(EventPrinter& printer) : printer_(printer) {}
    void OnDeviceOnline(std::shared_ptr<Communication::NodeBasicInfo> node) override {
        printer_.Print("node-online", json{{"node", ToJson(*node)}}, NodeText(*node));
    }
    void OnDeviceOffline(std::shared_ptr<Communication::NodeBasicInfo> node) override {
        printer_.Print("node-offline", json{{"node", ToJson(*node)}}, NodeText(*node));
    }
    void OnDeviceInfoChanged(std::string nodeId, Communication::DeviceInfoType type) override {
        printer_.Print("node-info-changed", json{{"nodeId", nodeId}, {"kind", static_cast<int>(type)}},
                       Printable(nodeId) + " (kind " + std::to_string(static_cast<int>(type)) + ")");
    }

private:
    EventPrinter& printer_;
};

// Each of these hears something on a Binder thread and wakes the main thread.
class DeathWatcher : public Communication::TivraDeathNotifier {
public:
    void OnServiceDied() override {
        died_ = true;
        tivra_tools::WakeMainThread();
    }
    bool TakeDeath() { return died_.exchange(false); }

private:
    std::atomic<bool> died_{false};
};

class ServiceArrival : public android::os::BnServiceCallback {
public:
    android::binder::Status onRegistration(const std::string& /*name*/,
                                           const android::sp<android::IBinder>& /*binder*/) override {
        arrived_ = true;
        tivra_tools::WakeMainThread();
        return android::binder::Status::ok();
    }
    bool TakeArrival() { return arrived_.exchange(false); }

private:
    std::atomic<bool> arrived_{false};
};

// Follows the device monitor service: while it lives, the listeners are
// registered with it; while it is away, binderd tells when it registers; while
// binderd itself is away, tries to reach the next one a short while apart.
class ServiceFollower {
public:
    ServiceFollower(EventPrinter& printer, const Options& options)
        : printer_(printer), options_(options), devices_(std::make_shared<DevicePrinter>(printer)),
          nodes_(std::make_shared<NodePrinter>(printer)), death_(std::make_shared<DeathWatcher>()),
          adapter_(TivraAdapter::GetInstance()) {}

    // Registers the listeners, or waits for the service when binderd runs
    // without it; false when binderd does not run.
    bool Start() {
        if (RegisterAll()) {
            return true;
        }
        if (!BinderdIsRunning()) {
            return false;
        }
        if (options_.json) {
            printer_.Print("waiting", json::object(), "");
        } else {
            std::fprintf(stderr, "tivra: waiting for the device monitor service to register (Ctrl-C to stop)\n");
        }
        Wait();
        return true;
    }

    // How long the main thread may wait for a signal before Step: forever
    // (negative) unless binderd is away.
    std::chrono::milliseconds NextWait() const {
        return phase_ == kNoBinderd ? retryDelay_ : std::chrono::milliseconds(-1);
    }

    // Acts on whatever woke the main thread, or on the end of NextWait.
    void Step() {
        switch (phase_) {
            case kWatching:
                if (death_->TakeDeath()) {
                    printer_.Print("service-died", json::object(),
                                   "waiting for the device monitor service to come back");
                    Wait();
                }
                break;
            case kWaiting:
                if (binderd_->TakeLoss()) {
                    phase_ = kNoBinderd;
                    retryDelay_ = tivra_tools::kFirstRetryDelay;
                } else if (arrival_->TakeArrival() && RegisterAll()) {
                    StopWaiting();
                }
                break;
            case kNoBinderd:
                Wait();
                retryDelay_ = std::min(retryDelay_ * 2, tivra_tools::kMaxRetryDelay);
                break;
        }
    }

    bool EverWatched() const { return everWatched_; }

private:
    enum Phase { kWatching, kWaiting, kNoBinderd };

    // The library forgets registrations when the service dies; the watcher
    // makes them again. True when all three were accepted; otherwise whatever
    // was accepted is undone, so that the next try starts clean.
    bool RegisterAll() {
        if (adapter_->LinkToDeath(death_) && adapter_->RegisterCallback(devices_) &&
            adapter_->AddDeviceChangeListener(nodes_)) {
            // A program learns from "watching" that registration is done; a
            // person gets the banner on stderr, away from the events.
            if (everWatched_) {
                printer_.Print("service-back", json::object(), "registered again");
            } else if (options_.json) {
                printer_.Print("watching", json::object(), "");
            } else {
                std::fprintf(stderr, "tivra: watching device and node events (Ctrl-C to stop)\n");
            }
            everWatched_ = true;
            phase_ = kWatching;
            return true;
        }
        adapter_->UnlinkToDeath(death_);
        adapter_->UnregisterCallback(devices_);
        adapter_->RemoveDeviceChangeListener(nodes_);
        return false;
    }

    // Asks binderd to tell when the service registers (at once if it is
    // there), then links to binderd's death, which ends that registration.
    // The call comes first: it is what reaches a new binderd.
    void Wait() {
        arrival_->TakeArrival();
        binderd_->TakeLoss();
        if (android::defaultServiceManager()->registerForNotifications(kServiceName, arrival_) == android::OK &&
            binderd_->Link()) {
            phase_ = kWaiting;
            return;
        }
        if (phase_ != kNoBinderd) {
            phase_ = kNoBinderd;
            retryDelay_ = tivra_tools::kFirstRetryDelay;
        }
    }

    void StopWaiting() {
        android::defaultServiceManager()->unregisterForNotifications(kServiceName, arrival_);
        binderd_->Unlink();
    }

    EventPrinter& printer_;
    const Options options_;
    const std::shared_ptr<DevicePrinter> devices_;
    const std::shared_ptr<NodePrinter> nodes_;
    const std::shared_ptr<DeathWatcher> death_;
    const std::shared_ptr<TivraAdapter> adapter_;
    const android::sp<ServiceArrival> arrival_ = new ServiceArrival();
    const android::sp<tivra_tools::BinderdWatch> binderd_ = new tivra_tools::BinderdWatch();
    Phase phase_ = kWatching;
    bool everWatched_ = false;
    std::chrono::milliseconds retryDelay_ = tivra_tools::kFirstRetryDelay;
};

}  // namespace

int RunWatch(const std::vector<std::string>& args, Options& options) {
    std::optional<std::chrono::milliseconds> limit;
    const Parsed parsed = Parse({"tivra watch",
                                 "Usage: tivra watch [--for DURATION] [--json|--pretty]\n"
                                 "Prints device and node events until Ctrl-C or for DURATION (500ms, 10s, 2m,\n"
                                 "1h; a bare number is seconds; at most a day).\n"
                                 "Waits for the service when it is not registered yet (exit status 3 when it\n"
                                 "has not come within DURATION). When the service dies or binderd restarts,\n"
                                 "says so, waits for the service and registers again.\n",
                                 {ForOption("tivra watch", &limit)}},
                                args, options);
    if (parsed.exit) {
        return *parsed.exit;
    }
    if (!parsed.words.empty()) {
        return UsageError("tivra watch", "unexpected argument '" + parsed.words[0] + "'");
    }

    const sigset_t signals = tivra_tools::BlockMainThreadSignals();

    EventPrinter printer(options);
    ServiceFollower follower(printer, options);
    if (!follower.Start()) {
        std::fprintf(stderr, "tivra: %s\n", ExplainUnavailableService().c_str());
        return kExitServiceUnavailable;
    }
    using Clock = std::chrono::steady_clock;
    const auto deadline = limit ? Clock::now() + *limit : Clock::time_point::max();
    for (;;) {
        std::chrono::milliseconds wait = follower.NextWait();
        if (limit) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) {
                break;
            }
            wait = wait.count() < 0 ? left : std::min(wait, left);
        }
        const int signal = tivra_tools::AwaitSignal(signals, wait);
        if (signal == SIGINT || signal == SIGTERM || printer.Failed()) {
            break;
        }
        follower.Step();
    }
    if (printer.Failed()) {
        return kExitCallFailed;  // main says why
    }
    printer.Print("stopped", json::object(), "");
    if (!follower.EverWatched() && Clock::now() >= deadline) {
        std::fprintf(stderr, "tivra: %s\n", ExplainUnavailableService().c_str());
        return kExitServiceUnavailable;
    }
    return kExitOk;
}

}  // namespace tivra_cli
