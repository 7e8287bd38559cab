#include "watch_command.h"

#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>

#include <nlohmann/json.hpp>

#include "command_line.h"
#include "duration.h"
#include "event_time.h"
#include "exit_codes.h"
#include "record_output.h"
#include "service_diagnosis.h"
#include "tivra/tivra_adapter.h"

namespace tivra_cli {
namespace {

using Communication::TivraAdapter;
using nlohmann::json;

constexpr auto kPollInterval = std::chrono::milliseconds(200);

// Events come from several Binder threads; each one is printed whole. People
// read the time of day; programs get RFC 3339 with the date and the offset.
class EventPrinter {
public:
    explicit EventPrinter(const Options& options) : options_(options) {}

    void Print(const std::string& event, const json& details, const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto now = std::chrono::system_clock::now();
        if (options_.json) {
            json line = details;
            line["time"] = Rfc3339(now);
            line["event"] = event;
            std::printf("%s\n", JsonText(line, options_).c_str());
        } else {
            std::printf("%s  %-18s %s\n", TimeOfDay(now).c_str(), event.c_str(), text.c_str());
        }
        std::fflush(stdout);
    }

private:
    std::mutex mutex_;
    const Options options_;
};

std::string DeviceText(const Communication::TivraDeviceInfo& device) {
    return device.GetDeviceName() + " (" + device.GetDeviceId() + ", " + device.GetDeviceType() + ", " +
           device.GetDeviceIp() + ")";
}

std::string NodeText(const Communication::NodeBasicInfo& node) {
    return node.GetName() + " (" + node.GetNodeId() + ", " + DeviceTypeName(node.GetDeviceType()) + ")";
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
                       nodeId + " (kind " + std::to_string(static_cast<int>(type)) + ")");
    }

private:
    EventPrinter& printer_;
};

class DeathWatcher : public Communication::TivraDeathNotifier {
public:
    void OnServiceDied() override { died_ = true; }
    bool TakeDeath() { return died_.exchange(false); }

private:
    std::atomic<bool> died_{false};
};

// The library forgets registrations when the service dies; the watcher makes
// them again. True when all three were accepted; otherwise whatever was
// accepted is undone, so that the next try starts clean.
bool RegisterAll(TivraAdapter& adapter, const std::shared_ptr<DevicePrinter>& devices,
                 const std::shared_ptr<NodePrinter>& nodes, const std::shared_ptr<DeathWatcher>& death) {
    if (adapter.LinkToDeath(death) && adapter.RegisterCallback(devices) && adapter.AddDeviceChangeListener(nodes)) {
        return true;
    }
    adapter.UnlinkToDeath(death);
    adapter.UnregisterCallback(devices);
    adapter.RemoveDeviceChangeListener(nodes);
    return false;
}

}  // namespace

int RunWatch(const std::vector<std::string>& args, Options& options) {
    std::optional<std::chrono::milliseconds> limit;
    const Parsed parsed = Parse({"tivra watch",
                                 "Usage: tivra watch [--for DURATION] [--json|--pretty]\n"
                                 "Prints device and node events until Ctrl-C or for DURATION (500ms, 10s, 2m).\n"
                                 "When the service dies, says so, waits for it and registers again.\n",
                                 {ForOption("tivra watch", &limit)}},
                                args, options);
    if (parsed.exit) {
        return *parsed.exit;
    }
    if (!parsed.words.empty()) {
        return UsageError("tivra watch", "unexpected argument '" + parsed.words[0] + "'");
    }

    // Block the stop signals before the Binder threads start, so that only the
    // wait below receives them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    EventPrinter printer(options);
    const auto devices = std::make_shared<DevicePrinter>(printer);
    const auto nodes = std::make_shared<NodePrinter>(printer);
    const auto death = std::make_shared<DeathWatcher>();
    const std::shared_ptr<TivraAdapter> adapter = TivraAdapter::GetInstance();
    if (!RegisterAll(*adapter, devices, nodes, death)) {
        std::fprintf(stderr, "tivra: %s\n", ExplainUnavailableService().c_str());
        return kExitServiceUnavailable;
    }
    // A program learns from this event that registration is done; a person
    // gets the banner on stderr, away from the events.
    if (options.json) {
        printer.Print("watching", json::object(), "");
    } else {
        std::fprintf(stderr, "tivra: watching device and node events (Ctrl-C to stop)\n");
    }

    const auto deadline = limit ? std::chrono::steady_clock::now() + *limit : std::chrono::steady_clock::time_point::max();
    bool waitingForService = false;
    while (std::chrono::steady_clock::now() < deadline) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        const auto wait = std::min<std::chrono::milliseconds>(kPollInterval, left);
        const timespec timeout{static_cast<time_t>(wait.count() / 1000), static_cast<long>(wait.count() % 1000) * 1000000};
        if (sigtimedwait(&stopSignals, nullptr, &timeout) > 0) {
            break;
        }
        if (death->TakeDeath()) {
            printer.Print("service-died", json::object(), "waiting for the device monitor service to come back");
            waitingForService = true;
        }
        if (waitingForService && RegisterAll(*adapter, devices, nodes, death)) {
            printer.Print("service-back", json::object(), "registered again");
            waitingForService = false;
        }
    }
    printer.Print("stopped", json::object(), "");
    return kExitOk;
}

}  // namespace tivra_cli
