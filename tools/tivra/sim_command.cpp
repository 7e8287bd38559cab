#include "sim_command.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <binder/IServiceManager.h>
#include <nlohmann/json.hpp>
#include <utils/String8.h>

#include "exit_codes.h"
#include "monitor_control_client.h"
#include "monitor_control_protocol.h"
#include "service_diagnosis.h"

namespace tivra_cli {
namespace {

using nlohmann::json;
using Args = std::vector<std::string>;

constexpr const char* kSimUsage =
    "Usage: tivra sim COMMAND [ARGS]   (drives a running tivra-monitord)\n"
    "  device-online NAME ID TYPE IP     a device joins and listeners are told\n"
    "  device-offline ID                 a device leaves\n"
    "  node-online NAME TYPE_CODE NODE_ID  a node joins\n"
    "  node-offline NODE_ID              a node leaves\n"
    "  node-changed NODE_ID KIND         a node's information changed (kind 1 to 3)\n"
    "  fault METHOD KIND [CODE] [TIMES]  make METHOD fail: KIND is exception (CODE: exception code),\n"
    "                                    transport (CODE: status code), refuse or corruptReply;\n"
    "                                    TIMES calls (default: until cleared)\n"
    "  clear-faults                      every method answers normally again\n"
    "  counts                            how often each method was called\n"
    "  listeners                         how many listeners are registered\n"
    "  raw JSON                          any control command, e.g. '{\"op\":\"counts\"}'\n"
    "  stop [CODE]                       end the service process\n";

std::optional<int32_t> ToInt(const std::string& text) {
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || value < INT32_MIN || value > INT32_MAX) {
        return std::nullopt;
    }
    return static_cast<int32_t>(value);
}

bool IsFaultKind(const std::string& kind) {
    return std::any_of(std::begin(tivra_control::kFaultKindNames), std::end(tivra_control::kFaultKindNames),
                       [&kind](const char* name) { return kind == name; });
}

struct SimCommand {
    size_t minArgs;
    size_t maxArgs;
    // Builds the control command, or nothing when an argument is malformed.
    std::function<std::optional<json>(const Args&)> build;
};

std::optional<json> Emit(json event) { return json{{"op", "emit"}, {"event", std::move(event)}}; }

const std::map<std::string, SimCommand>& SimCommands() {
    static const std::map<std::string, SimCommand> commands = {
        {"device-online", {4, 4, [](const Args& a) {
             return Emit({{"event", "deviceOnline"},
                          {"device", {{"name", a[0]}, {"id", a[1]}, {"type", a[2]}, {"ip", a[3]}}}});
         }}},
        {"device-offline", {1, 1, [](const Args& a) { return Emit({{"event", "deviceOffline"}, {"deviceId", a[0]}}); }}},
        {"node-online", {3, 3, [](const Args& a) -> std::optional<json> {
             const auto type = ToInt(a[1]);
             if (!type) return std::nullopt;
             return Emit({{"event", "nodeOnline"}, {"node", {{"name", a[0]}, {"deviceType", *type}, {"nodeId", a[2]}}}});
         }}},
        {"node-offline", {1, 1, [](const Args& a) { return Emit({{"event", "nodeOffline"}, {"nodeId", a[0]}}); }}},
        {"node-changed", {2, 2, [](const Args& a) -> std::optional<json> {
             const auto kind = ToInt(a[1]);
             if (!kind) return std::nullopt;
             return Emit({{"event", "nodeInfoChanged"}, {"nodeId", a[0]}, {"kind", *kind}});
         }}},
        {"fault", {2, 4, [](const Args& a) -> std::optional<json> {
             if (!IsFaultKind(a[1])) return std::nullopt;
             json command{{"op", "fault"}, {"method", a[0]}, {"kind", a[1]}};
             for (size_t i = 2; i < a.size(); ++i) {
                 const auto number = ToInt(a[i]);
                 if (!number) return std::nullopt;
                 command[i == 2 ? "code" : "times"] = *number;
             }
             return command;
         }}},
        {"clear-faults", {0, 0, [](const Args&) { return std::optional<json>(json{{"op", "clearFaults"}}); }}},
        {"counts", {0, 0, [](const Args&) { return std::optional<json>(json{{"op", "counts"}}); }}},
        {"listeners", {0, 0, [](const Args&) { return std::optional<json>(json{{"op", "listeners"}}); }}},
        {"raw", {1, 1, [](const Args& a) -> std::optional<json> {
             json command = json::parse(a[0], nullptr, false);
             if (command.is_discarded()) return std::nullopt;
             return command;
         }}},
        {"stop", {0, 1, [](const Args& a) -> std::optional<json> {
             const auto code = a.empty() ? std::optional<int32_t>(0) : ToInt(a[0]);
             if (!code) return std::nullopt;
             return json{{"op", "exit"}, {"code", *code}};
         }}},
    };
    return commands;
}

}  // namespace

int RunSim(const Args& args, const Options& options) {
    if (args.empty() || args[0] == "--help" || args[0] == "-h") {
        std::fputs(kSimUsage, args.empty() ? stderr : stdout);
        return args.empty() ? kExitUsage : kExitOk;
    }
    const auto found = SimCommands().find(args[0]);
    const Args rest(args.begin() + 1, args.end());
    if (found == SimCommands().end() || rest.size() < found->second.minArgs || rest.size() > found->second.maxArgs) {
        std::fprintf(stderr, "tivra: bad sim command\n%s", kSimUsage);
        return kExitUsage;
    }
    const std::optional<json> command = found->second.build(rest);
    if (!command) {
        std::fprintf(stderr, "tivra: malformed argument for 'sim %s'\n%s", args[0].c_str(), kSimUsage);
        return kExitUsage;
    }
    const tivra_control::MonitorControlClient control;
    if (!control.Connected()) {
        std::fprintf(stderr, "tivra: tivra-monitord's control interface is not registered: start tivra-monitord "
                             "(%s)\n", ExplainUnavailableService().c_str());
        return kExitServiceUnavailable;
    }
    if (args[0] == "stop") {
        return control.Exit(command->value("code", 0)) ? kExitOk : kExitCallFailed;
    }
    const tivra_control::MonitorControlClient::Result result = control.Run(*command);
    if (!result.ok) {
        std::fprintf(stderr, "tivra: %s\n", result.error.c_str());
        return kExitCallFailed;
    }
    // Commands that only act answer an empty object: nothing to show a person.
    if (options.json || !result.value.empty()) {
        std::printf("%s\n", result.value.dump(options.json ? -1 : 2).c_str());
    }
    return kExitOk;
}

int RunServices(const Args& args, const Options& options) {
    if (!args.empty()) {
        const bool help = args[0] == "--help" || args[0] == "-h";
        std::fprintf(help ? stdout : stderr, "Usage: tivra services [--json]\n");
        return help ? kExitOk : kExitUsage;
    }
    const android::sp<android::IServiceManager> manager = android::defaultServiceManager();
    const android::Vector<android::String16> names =
        manager != nullptr ? manager->listServices() : android::Vector<android::String16>();
    json list = json::array();
    for (size_t i = 0; i < names.size(); ++i) {
        list.push_back(android::String8(names[i]).c_str());
    }
    // An empty list is an answer only when binderd gave it.
    if (list.empty() && !BinderdIsRunning()) {
        std::fprintf(stderr, "tivra: %s\n", ExplainUnavailableService().c_str());
        return kExitServiceUnavailable;
    }
    for (const auto& name : list) {
        if (!options.json) std::printf("%s\n", name.get<std::string>().c_str());
    }
    if (options.json) std::printf("%s\n", list.dump(2).c_str());
    return kExitOk;
}

}  // namespace tivra_cli
