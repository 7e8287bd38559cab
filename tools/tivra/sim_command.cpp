#include "sim_command.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <binder/IBinder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <nlohmann/json.hpp>
#include <utils/String8.h>

#include "exit_codes.h"
#include "monitor_control_client.h"
#include "monitor_control_protocol.h"
#include "protocol/Protocol.h"
#include "service_diagnosis.h"
#include "text_width.h"
#include "traffic_names.h"

namespace tivra_cli {
namespace {

using nlohmann::json;
using Args = std::vector<std::string>;
using Values = std::map<std::string, std::string>;

// A control command, or why the arguments do not make one.
struct Built {
    std::optional<json> command;
    std::string error;
};

Built Command(json command) { return Built{std::move(command), ""}; }
Built Refuse(std::string error) { return Built{std::nullopt, std::move(error)}; }
Built Emit(json event) { return Command(json{{"op", "emit"}, {"event", std::move(event)}}); }

// A 32-bit number in decimal or, after "0x", in hexadecimal (a leading zero
// does not mean octal); nothing else, not even a space.
std::optional<int32_t> ToInt(const std::string& text) {
    const size_t digits = text.find_first_not_of("+-");
    if (text.empty() || digits > 1 || digits == text.size() || !std::isxdigit(static_cast<unsigned char>(text[digits]))) {
        return std::nullopt;
    }
    const bool hex = text.compare(digits, 2, "0x") == 0 || text.compare(digits, 2, "0X") == 0;
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, hex ? 16 : 10);
    if (*end != '\0' || errno == ERANGE || value < INT32_MIN || value > INT32_MAX) {
        return std::nullopt;
    }
    return static_cast<int32_t>(value);
}

std::string Joined(const std::vector<std::string>& names) {
    std::string joined;
    for (const std::string& name : names) joined += (joined.empty() ? "" : ", ") + name;
    return joined;
}

// The service's methods, several to a line, for a help text.
std::string MethodList() {
    std::string list;
    std::string line = " ";
    for (const std::string& name : ServiceMethodNames()) {
        if (line.size() + name.size() + 1 > 78) {
            list += line + "\n";
            line = " ";
        }
        line += " " + name;
    }
    return list + line + "\n";
}

std::string FaultKinds() {
    std::string names;
    for (const char* name : tivra_control::kFaultKindNames) {
        names += names.empty() ? name : std::string(", ") + name;
    }
    return names;
}

struct SimCommand {
    const char* arguments;  // after the command's name, for its usage line
    std::string summary;  // its first line goes in the list of commands
    size_t minArgs;
    size_t maxArgs;
    std::vector<const char*> valueOptions;  // its own --name=VALUE options
    std::function<Built(const Args&, const Values&)> build;
};

const std::map<std::string, SimCommand>& SimCommands() {
    static const std::map<std::string, SimCommand> commands = {
        {"device-online", {"NAME ID TYPE IP", "A device joins and the listeners are told.", 4, 4, {},
                           [](const Args& a, const Values&) {
                               return Emit({{"event", "deviceOnline"},
                                            {"device", {{"name", a[0]}, {"id", a[1]}, {"type", a[2]}, {"ip", a[3]}}}});
                           }}},
        {"device-offline", {"ID", "A device leaves.", 1, 1, {},
                            [](const Args& a, const Values&) {
                                return Emit({{"event", "deviceOffline"}, {"deviceId", a[0]}});
                            }}},
        {"node-online", {"NAME TYPE_CODE NODE_ID", "A node joins; TYPE_CODE is the device kind's number (14, 0x0E).",
                         3, 3, {},
                         [](const Args& a, const Values&) {
                             const auto type = ToInt(a[1]);
                             if (!type) return Refuse("TYPE_CODE must be a 32-bit number such as 14 or 0x0E, not '" + a[1] + "'");
                             return Emit({{"event", "nodeOnline"},
                                          {"node", {{"name", a[0]}, {"deviceType", *type}, {"nodeId", a[2]}}}});
                         }}},
        {"node-offline", {"NODE_ID", "A node leaves.", 1, 1, {},
                          [](const Args& a, const Values&) {
                              return Emit({{"event", "nodeOffline"}, {"nodeId", a[0]}});
                          }}},
        {"node-changed", {"NODE_ID KIND", "A node's information changed; KIND is 1, 2 or 3.", 2, 2, {},
                          [](const Args& a, const Values&) {
                              const auto kind = ToInt(a[1]);
                              if (!kind || *kind < 1 || *kind > 3) return Refuse("KIND must be 1, 2 or 3, not '" + a[1] + "'");
                              return Emit({{"event", "nodeInfoChanged"}, {"nodeId", a[0]}, {"kind", *kind}});
                          }}},
        {"fault", {"METHOD KIND [--code=N] [--times=N] [--message=TEXT]",
                   "Makes METHOD of the service fail, the way KIND says:\n"
                   "  exception     the call answers an exception; --code is its code (e.g. -3)\n"
                   "  transport     the transaction fails with the status code --code\n"
                   "  refuse        addDeviceChangeListener answers false\n"
                   "  corruptReply  the answer cannot be read\n"
                   "--code=N: not 0, needed by exception and transport.\n"
                   "--times=N: only the next N calls; 0 or no --times: every call until clear-faults.\n"
                   "--message=TEXT: the exception's text.\n"
                   "\n"
                   "METHOD is one of:\n" + MethodList(),
                   2, 2, {"code", "times", "message"},
                   [](const Args& a, const Values& values) {
                       const std::vector<std::string> methods = ServiceMethodNames();
                       if (std::find(methods.begin(), methods.end(), a[0]) == methods.end()) {
                           return Refuse("unknown method '" + a[0] + "' (accepted: " + Joined(methods) + ")");
                       }
                       const auto* kinds = std::begin(tivra_control::kFaultKindNames);
                       if (std::find_if(kinds, std::end(tivra_control::kFaultKindNames),
                                        [&a](const char* name) { return a[1] == name; }) ==
                           std::end(tivra_control::kFaultKindNames)) {
                           return Refuse("unknown fault kind '" + a[1] + "' (accepted: " + FaultKinds() + ")");
                       }
                       if (a[1] == "refuse" && a[0] != "addDeviceChangeListener") {
                           return Refuse("only addDeviceChangeListener can refuse, not " + a[0]);
                       }
                       json command{{"op", "fault"}, {"method", a[0]}, {"kind", a[1]}};
                       for (const char* name : {"code", "times"}) {
                           const auto value = values.find(name);
                           if (value == values.end()) continue;
                           const auto number = ToInt(value->second);
                           if (!number) return Refuse(std::string("--") + name + " must be a 32-bit number, not '" + value->second + "'");
                           command[name] = *number;
                       }
                       const bool needsCode = a[1] == "exception" || a[1] == "transport";
                       if (needsCode && command.value("code", 0) == 0) {
                           return Refuse("a fault of kind " + a[1] + " needs --code=N, a number other than 0");
                       }
                       if (command.value("times", 0) < 0) {
                           return Refuse("--times must be 0 (every call until clear-faults) or more, not '" + values.at("times") + "'");
                       }
                       if (values.count("message") != 0) command["message"] = values.at("message");
                       return Command(command);
                   }}},
        {"clear-faults", {"", "Every method answers normally again.", 0, 0, {},
                          [](const Args&, const Values&) { return Command({{"op", "clearFaults"}}); }}},
        {"counts", {"", "How often each method of the service was called.", 0, 0, {},
                    [](const Args&, const Values&) { return Command({{"op", "counts"}}); }}},
        {"listeners", {"", "How many listeners of each kind are registered.", 0, 0, {},
                       [](const Args&, const Values&) { return Command({{"op", "listeners"}}); }}},
        {"raw", {"JSON", "Any control command, e.g. '{\"op\":\"counts\"}' (see docs/scenarios.md).", 1, 1, {},
                 [](const Args& a, const Values&) {
                     try {
                         return Command(json::parse(a[0]));
                     } catch (const json::exception& error) {
                         return Refuse(std::string("not a JSON document: ") + error.what());
                     }
                 }}},
        {"stop", {"[CODE]", "Ends the service process, with exit status CODE (0 to 255, default 0).", 0, 1, {},
                  [](const Args& a, const Values&) {
                      const auto code = a.empty() ? std::optional<int32_t>(0) : ToInt(a[0]);
                      if (!code || *code < 0 || *code > 255) {
                          return Refuse("CODE must be an exit status from 0 to 255, not '" + a[0] + "'");
                      }
                      return Command({{"op", "exit"}, {"code", *code}});
                  }}},
    };
    return commands;
}

std::string Synopsis(const std::string& name, const SimCommand& command) {
    return *command.arguments != '\0' ? name + " " + command.arguments : name;
}

std::string SimUsage() {
    constexpr size_t kColumn = 28;
    std::string usage = "Usage: tivra sim COMMAND [ARGS]\nDrives a running tivra-monitord through its control interface.\n\n";
    for (const auto& [name, command] : SimCommands()) {
        std::string line = "  " + Synopsis(name, command);
        line += line.size() < kColumn ? std::string(kColumn - line.size(), ' ') : "\n" + std::string(kColumn, ' ');
        const std::string summary = command.summary;
        usage += line + summary.substr(0, summary.find('\n')) + "\n";
    }
    return usage + "\nEach command takes --help.\n";
}

std::string CommandNames() {
    std::string names;
    for (const auto& entry : SimCommands()) names += (names.empty() ? "" : ", ") + entry.first;
    return names;
}

// Sends `command` to tivra-monitord and prints its answer.
int Send(const std::string& name, const json& command, const Options& options) {
    const tivra_control::MonitorControlClient control;
    if (!control.Connected()) {
        std::fprintf(stderr, "tivra: tivra-monitord's control interface is not registered: start tivra-monitord "
                             "(%s)\n", ExplainUnavailableService().c_str());
        return kExitServiceUnavailable;
    }
    if (name == "stop") {
        return control.Exit(command.value("code", 0)) ? kExitOk : kExitCallFailed;
    }
    const tivra_control::MonitorControlClient::Result result = control.Run(command);
    if (!result.ok) {
        std::fprintf(stderr, "tivra: %s\n", result.error.c_str());
        return kExitCallFailed;
    }
    // Commands that only act answer an empty object: nothing to show a person.
    if (options.json || !result.value.empty()) {
        std::printf("%s\n", JsonText(result.value, options).c_str());
    }
    return kExitOk;
}

}  // namespace

int RunSim(const Args& args, Options& options) {
    const Parsed top = Parse({"tivra sim", SimUsage(), {}, true}, args, options);
    if (top.exit) {
        return *top.exit;
    }
    if (top.words.empty()) {
        std::fputs(SimUsage().c_str(), stderr);
        return kExitUsage;
    }
    const std::string& name = top.words[0];
    const auto found = SimCommands().find(name);
    if (found == SimCommands().end()) {
        return UsageError("tivra sim", "unknown command '" + name + "' (accepted: " + CommandNames() + ")");
    }
    const SimCommand& sim = found->second;
    const std::string command = "tivra sim " + name;
    Values values;
    std::vector<CommandOption> valueOptions;
    for (const char* option : sim.valueOptions) {
        valueOptions.push_back({option, "VALUE", [&values, option](const std::string& value) {
                                    values[option] = value;
                                    return true;
                                }});
    }
    const std::string usage = "Usage: tivra sim " + Synopsis(name, sim) + "\n" + sim.summary + "\n";
    const Parsed parsed = Parse({command, usage, valueOptions}, Args(top.words.begin() + 1, top.words.end()), options);
    if (parsed.exit) {
        return *parsed.exit;
    }
    if (parsed.words.size() < sim.minArgs || parsed.words.size() > sim.maxArgs) {
        return UsageError(command, std::string("expected ") + (*sim.arguments != '\0' ? sim.arguments : "no arguments"));
    }
    if (const int refused = RefuseEmptyArguments(command, sim.arguments, parsed.words); refused != kExitOk) {
        return refused;
    }
    const Built built = sim.build(parsed.words, values);
    if (!built.command) {
        return UsageError(command, built.error);
    }
    return Send(name, *built.command, options);
}

int RunServices(const Args& args, Options& options) {
    const Parsed parsed = Parse({"tivra services", "Usage: tivra services [--json|--pretty]\n"
                                                   "The names registered with binderd.\n", {}},
                                args, options);
    if (parsed.exit) {
        return *parsed.exit;
    }
    if (!parsed.words.empty()) {
        return UsageError("tivra services", "unexpected argument '" + parsed.words[0] + "'");
    }
    // The service manager's own call, so that a failure is told apart from
    // an empty list.
    android::Parcel data;
    android::Parcel reply;
    data.writeInterfaceToken(android::String16("android.os.IServiceManager"));
    data.writeInt32(android::IServiceManager::DUMP_FLAG_PRIORITY_ALL);
    const android::status_t status =
        android::ProcessState::self()->getContextObject(nullptr)->transact(android::hostbinder::kListServices, data,
                                                                           &reply);
    if (status == android::DEAD_OBJECT) {
        std::fprintf(stderr, "tivra: %s\n", ExplainUnavailableService().c_str());
        return kExitServiceUnavailable;
    }
    int32_t exception = 0;
    int32_t count = 0;
    if (status != android::OK || reply.readInt32(&exception) != android::OK || exception != 0 ||
        reply.readInt32(&count) != android::OK || count < 0) {
        std::fprintf(stderr, "tivra: binderd could not list the services: %s\n",
                     status != android::OK ? StatusName(status).c_str()
                                           : ("exception " + std::to_string(exception)).c_str());
        return kExitCallFailed;
    }
    json list = json::array();
    for (int32_t i = 0; i < count; ++i) {
        android::String16 name;
        if (reply.readString16(&name) != android::OK) {
            std::fprintf(stderr, "tivra: binderd's list of services is cut short\n");
            return kExitCallFailed;
        }
        list.push_back(android::String8(name).c_str());
    }
    if (options.json) {
        std::printf("%s\n", JsonText(list, options).c_str());
        return kExitOk;
    }
    for (const auto& name : list) {
        std::printf("%s\n", Printable(name.get<std::string>()).c_str());
    }
    return kExitOk;
}

}  // namespace tivra_cli
