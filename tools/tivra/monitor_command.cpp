#include "monitor_command.h"

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <thread>

#include <nlohmann/json.hpp>
#include <hostbinder/Socket.h>
#include <utils/String8.h>

#include "command_line.h"
#include "duration.h"
#include "event_time.h"
#include "exit_codes.h"
#include "protocol/Connection.h"
#include "service_diagnosis.h"
#include "text_width.h"
#include "traffic_names.h"
#include "written_output.h"

namespace tivra_cli {
namespace {

using namespace android::hostbinder;
using nlohmann::json;

constexpr const char* kCommand = "tivra monitor";
constexpr const char* kUsage =
    "Usage: tivra monitor [--for DURATION] [--service NAME]... [--pid PID]... [--interface DESC]...\n"
    "                     [--oneway|--twoway] [--json|--pretty]\n"
    "Prints every transaction and reply passing through binderd, until Ctrl-C or for\n"
    "DURATION (500ms, 10s, 2m, 1h; a bare number is seconds; at most a day).\n"
    "Only binderd's own user and root may watch.\n"
    "\n"
    "      --service NAME     traffic to the service registered as NAME\n"
    "      --pid PID          traffic from or to process PID\n"
    "      --interface DESC   calls of the interface DESC (a descriptor, or its last part\n"
    "                         such as IDeviceMonitorService), and their replies\n"
    "      --oneway           one-way calls only\n"
    "      --twoway           two-way calls and their replies only\n"
    "Each filter may be repeated (any of its values matches); different filters must all match.\n";
constexpr auto kPollInterval = std::chrono::milliseconds(200);

// One record as binderd sent it, its texts in UTF-8.
struct Traffic {
    TrafficRecord record{};
    std::string service;
    std::string descriptor;
};

std::string Utf8(const uint8_t* units, size_t count) {
    std::u16string text(count, u'\0');
    std::memcpy(text.data(), units, count * sizeof(char16_t));
    const android::String8 converted(text.data(), text.size());
    return std::string(converted.c_str(), converted.size());
}

bool Decode(const std::vector<uint8_t>& payload, Traffic* traffic) {
    if (payload.size() < sizeof(TrafficRecord)) {
        return false;
    }
    std::memcpy(&traffic->record, payload.data(), sizeof(TrafficRecord));
    const size_t nameUnits = traffic->record.nameUnits;
    const size_t descriptorUnits = traffic->record.descriptorUnits;
    if (payload.size() != sizeof(TrafficRecord) + (nameUnits + descriptorUnits) * sizeof(char16_t)) {
        return false;
    }
    const uint8_t* text = payload.data() + sizeof(TrafficRecord);
    traffic->service = Utf8(text, nameUnits);
    traffic->descriptor = Utf8(text + nameUnits * sizeof(char16_t), descriptorUnits);
    return true;
}

bool Oneway(const Traffic& traffic) { return (traffic.record.flags & kFlagOneway) != 0; }

struct Filter {
    std::vector<std::string> services;
    std::vector<pid_t> pids;
    std::vector<std::string> interfaces;
    std::optional<bool> oneway;

    bool Matches(const Traffic& traffic) const {
        const TrafficRecord& record = traffic.record;
        const std::string& descriptor = traffic.descriptor;
        const auto anyOf = [](const auto& values, const auto& match) {
            return values.empty() || std::any_of(values.begin(), values.end(), match);
        };
        return anyOf(services, [&](const std::string& name) { return name == traffic.service; }) &&
               anyOf(pids, [&](pid_t pid) { return pid == record.senderPid || pid == record.receiverPid; }) &&
               anyOf(interfaces,
                     [&](const std::string& name) {
                         return name == descriptor || name == descriptor.substr(descriptor.rfind('.') + 1);
                     }) &&
               (!oneway || *oneway == Oneway(traffic));
    }
};

std::string TargetText(const Traffic& traffic) {
    if (!traffic.service.empty()) {
        return traffic.service;
    }
    switch (traffic.record.target) {
        case kTargetServiceManager:
            return "servicemanager";
        case kTargetNode: {
            char node[32];
            std::snprintf(node, sizeof(node), "node 0x%llx", static_cast<unsigned long long>(traffic.record.node));
            return node;
        }
        default:
            return "handle " + std::to_string(traffic.record.handle);
    }
}

std::string Method(const Traffic& traffic) {
    return MethodName(traffic.descriptor, traffic.record.code, traffic.record.target == kTargetServiceManager);
}

std::chrono::system_clock::time_point When(const TrafficRecord& record) {
    return std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::nanoseconds(record.timeNanos)));
}

json Peer(pid_t pid, uid_t uid) { return pid == 0 ? json(nullptr) : json{{"pid", pid}, {"uid", uid}}; }

std::string PeerText(pid_t pid, uid_t uid) {
    return pid == 0 ? "?" : std::to_string(pid) + "/" + std::to_string(uid);
}

json ToJson(const Traffic& traffic) {
    const TrafficRecord& record = traffic.record;
    const bool reply = record.kind == kTrafficReply;
    json line{{"time", Rfc3339(When(record))},
              {"event", reply ? "reply" : "call"},
              {"id", record.id},
              {"from", Peer(record.senderPid, record.senderUid)},
              {"to", Peer(record.receiverPid, record.receiverUid)},
              {"target", TargetText(traffic)},
              {"code", record.code},
              {"method", Method(traffic)},
              {"oneway", Oneway(traffic)},
              {"size", record.dataSize},
              {"objects", record.objects}};
    if (!traffic.service.empty()) {
        line["service"] = traffic.service;
    }
    if (!traffic.descriptor.empty()) {
        line["interface"] = traffic.descriptor;
    }
    if (reply) {
        line["status"] = record.status;
        line["statusName"] = StatusName(record.status);
    }
    return line;
}

// 17:07:01.123  #41 call   4242/1000 -> 5678/1000  PravikDeviceMonitorService  IDeviceMonitorService.getAllDevices  two-way  84 B
std::string Text(const Traffic& traffic) {
    const TrafficRecord& record = traffic.record;
    const bool reply = record.kind == kTrafficReply;
    const std::string outcome = reply ? StatusName(record.status) : Oneway(traffic) ? "one-way" : "two-way";
    return TimeOfDay(When(record)) + "  #" + std::to_string(record.id) + (reply ? " reply  " : " call   ") +
           PeerText(record.senderPid, record.senderUid) + " -> " + PeerText(record.receiverPid, record.receiverUid) +
           "  " + Printable(TargetText(traffic)) + "  " + Printable(Method(traffic)) + "  " + outcome + "  " +
           std::to_string(record.dataSize) + " B";
}

// A line of the tool's own between the records: JSON with the time and the
// event's name, or the time of day and `text`. False when it could not be
// written.
bool PrintNotice(const Options& options, const char* event, json details, const std::string& text) {
    const auto now = std::chrono::system_clock::now();
    if (options.json) {
        details["time"] = Rfc3339(now);
        details["event"] = event;
        std::printf("%s\n", JsonText(details, options).c_str());
    } else {
        std::printf("%s  %s\n", TimeOfDay(now).c_str(), text.c_str());
    }
    return tivra_tools::StdoutWritten();
}

// Prints what binderd reports until the connection ends or a line cannot be
// written; true in the second case.
bool PrintTraffic(Connection& connection, const Filter& filter, const Options& options) {
    uint32_t command = 0;
    std::vector<uint8_t> payload;
    Traffic traffic;
    while (connection.receive(&command, &payload)) {
        uint64_t lost = 0;
        if (command == kTrafficLost && payload.size() == sizeof(lost)) {
            std::memcpy(&lost, payload.data(), sizeof(lost));
            PrintNotice(options, "lost", json{{"count", lost}},
                        "lost " + std::to_string(lost) + " events: this watcher fell behind");
        } else if (command == kTrafficRecord && Decode(payload, &traffic) && filter.Matches(traffic)) {
            std::printf("%s\n", options.json ? JsonText(ToJson(traffic), options).c_str() : Text(traffic).c_str());
        }
        if (!tivra_tools::StdoutWritten()) {
            return true;
        }
    }
    return false;
}

std::optional<pid_t> ParsePid(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != 0 || errno != 0 || value <= 0 || value > INT32_MAX) {
        return std::nullopt;
    }
    return static_cast<pid_t>(value);
}

}  // namespace

int RunMonitor(const std::vector<std::string>& args, Options& options) {
    std::optional<std::chrono::milliseconds> limit;
    Filter filter;
    bool oneway = false;
    bool twoway = false;
    const std::vector<CommandOption> commandOptions{
        ForOption(kCommand, &limit),
        {"service", "NAME",
         [&](const std::string& value) {
             filter.services.push_back(value);
             return true;
         }},
        {"pid", "PID",
         [&](const std::string& value) {
             const std::optional<pid_t> pid = ParsePid(value);
             if (!pid) {
                 UsageError(kCommand, "--pid must be a process id, not '" + value + "'");
                 return false;
             }
             filter.pids.push_back(*pid);
             return true;
         }},
        {"interface", "DESC",
         [&](const std::string& value) {
             filter.interfaces.push_back(value);
             return true;
         }},
        {"oneway", nullptr, [&](const std::string&) { return oneway = true; }},
        {"twoway", nullptr, [&](const std::string&) { return twoway = true; }},
    };
    const Parsed parsed = Parse({kCommand, kUsage, commandOptions}, args, options);
    if (parsed.exit) {
        return *parsed.exit;
    }
    if (!parsed.words.empty()) {
        return UsageError(kCommand, "unexpected argument '" + parsed.words[0] + "'");
    }
    if (oneway && twoway) {
        return UsageError(kCommand, "--oneway and --twoway exclude each other");
    }
    if (oneway || twoway) {
        filter.oneway = oneway;
    }

    const std::string path = defaultSocketPath();
    const std::string unsafe = unsafeSocketReason(path, socketChosenByUser());
    if (!unsafe.empty()) {
        std::fprintf(stderr, "tivra: will not use binderd at %s: %s\n", path.c_str(), unsafe.c_str());
        return kExitServiceUnavailable;
    }
    std::vector<uint8_t> welcome;
    std::string error;
    uint32_t refusal = 0;
    const std::unique_ptr<Connection> connection =
        Connection::connect(path, kHelloMonitor, nullptr, 0, &welcome, &error, &refusal);
    if (connection == nullptr) {
        std::fprintf(stderr, "tivra: %s\n", error.empty() ? ExplainUnavailableService().c_str() : error.c_str());
        return refusal != 0 ? kExitCallFailed : kExitServiceUnavailable;
    }

    // Only the wait below receives the stop signals, not the printing thread.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    // A program learns from this event that binderd took the watcher; a
    // person gets the banner on stderr, away from the records.
    if (options.json && !PrintNotice(options, "watching", json::object(), "")) {
        return kExitCallFailed;  // main says why
    }
    if (!options.json) {
        std::fprintf(stderr, "tivra: watching the traffic of binderd at %s (Ctrl-C to stop)\n", path.c_str());
    }
    std::atomic<bool> ended{false};
    std::atomic<bool> writeFailed{false};
    std::thread printer([&] {
        writeFailed = PrintTraffic(*connection, filter, options);
        ended = true;
    });
    const auto deadline =
        limit ? std::chrono::steady_clock::now() + *limit : std::chrono::steady_clock::time_point::max();
    while (!ended && std::chrono::steady_clock::now() < deadline) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        const auto wait = std::min<std::chrono::milliseconds>(kPollInterval, left);
        const timespec timeout{static_cast<time_t>(wait.count() / 1000), static_cast<long>(wait.count() % 1000) * 1000000};
        if (sigtimedwait(&stopSignals, nullptr, &timeout) > 0) {
            break;
        }
    }
    const bool binderdGone = ended;
    connection->shutdown();
    printer.join();
    if (writeFailed) {
        return kExitCallFailed;  // main says why
    }
    if (binderdGone) {
        std::fprintf(stderr, "tivra: binderd at %s went away\n", path.c_str());
        return kExitServiceUnavailable;
    }
    PrintNotice(options, "stopped", json::object(), "stopped");
    return kExitOk;
}

}  // namespace tivra_cli
