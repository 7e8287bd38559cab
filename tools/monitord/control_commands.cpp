#include "control_commands.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "monitor_control_protocol.h"
#include "scenario_json.h"

namespace tivra_monitord {
namespace {

using nlohmann::json;

constexpr const char* kSource = "control command";

// Indexed like kFaultKindNames.
constexpr Fault::Kind kFaultKinds[] = {Fault::Kind::Exception, Fault::Kind::Transport, Fault::Kind::Refuse,
                                       Fault::Kind::CorruptReply};
static_assert(std::size(kFaultKinds) == std::size(tivra_control::kFaultKindNames));

std::string MethodNames() {
    std::string names;
    for (uint32_t code = 1; code <= kMethodCount; ++code) {
        names += (code == 1 ? "" : ", ") + std::string(MethodName(code));
    }
    return names;
}

}  // namespace

ControlCommands::ControlCommands(SimulatedNetwork& network, ListenerRegistry& listeners, FaultPlan& faults,
                                 EventBroadcaster& broadcaster)
    : network_(network), listeners_(listeners), faults_(faults), broadcaster_(broadcaster) {}

json ControlCommands::SetFault(const JsonFields& fields) {
    const std::string method = fields.String("method");
    const uint32_t code = MethodCode(method);
    if (code == 0) {
        fields.Fail("unknown method '" + method + "' (accepted: " + MethodNames() + ")", "method");
    }
    const std::string kindName = fields.String("kind");
    Fault fault;
    bool known = false;
    for (size_t i = 0; i < std::size(kFaultKinds); ++i) {
        if (kindName == tivra_control::kFaultKindNames[i]) {
            fault.kind = kFaultKinds[i];
            known = true;
        }
    }
    if (!known) {
        fields.Fail("unknown fault kind '" + kindName + "' (accepted: exception, transport, refuse, corruptReply)", "kind");
    }
    if (fault.kind == Fault::Kind::Refuse && code != MethodCode("addDeviceChangeListener")) {
        fields.Fail("only addDeviceChangeListener can refuse", "kind");
    }
    if (fault.kind == Fault::Kind::Exception || fault.kind == Fault::Kind::Transport) {
        fault.code = fields.Int32("code");
        if (fault.code == 0) {
            fields.Fail("a fault needs a non-zero code", "code");
        }
    }
    if (fields.Find("serviceCode") != nullptr) fault.serviceCode = fields.Int32("serviceCode");
    fault.message = fields.String("message", false);
    if (fields.Find("times") != nullptr) {
        const int32_t times = fields.Int32("times");
        if (times < 0) fields.Fail("expected 0 (until cleared) or more", "times");
        fault.times = static_cast<uint32_t>(times);
    }
    faults_.Set(code, fault);
    return json::object();
}

json ControlCommands::Run(const json& command) {
    const JsonFields fields(command, "", kSource);
    const std::string op = fields.String("op");
    if (op == "emit") {
        json event = fields.Require("event");
        if (event.is_object() && !event.contains("at")) {
            event["at"] = 0;
        }
        const EventBroadcaster::Outcome outcome =
            broadcaster_.Emit(EventFromJson(event, fields.Path("event"), kSource));
        if (outcome.error) {
            fields.Fail(*outcome.error, "event");
        }
        return json{{"delivered", outcome.delivered}};
    }
    if (op == "setDevice") {
        network_.SetDevice(DeviceFromJson(fields.Require("device"), "device", kSource));
        return json::object();
    }
    if (op == "setLocalDevice") {
        network_.SetLocalDevice(DeviceFromJson(fields.Require("device"), "device", kSource));
        return json::object();
    }
    if (op == "setNode") {
        network_.SetNode(NodeFromJson(fields.Require("node"), "node", kSource));
        return json::object();
    }
    if (op == "setLocalNode") {
        network_.SetLocalNode(NodeFromJson(fields.Require("node"), "node", kSource));
        return json::object();
    }
    if (op == "removeDevice") {
        if (!network_.RemoveDevice(fields.String("deviceId"))) fields.Fail("no such device", "deviceId");
        return json::object();
    }
    if (op == "removeNode") {
        if (!network_.RemoveNode(fields.String("nodeId"))) fields.Fail("no such node", "nodeId");
        return json::object();
    }
    if (op == "fault") {
        return SetFault(fields);
    }
    if (op == "clearFaults") {
        faults_.ClearAll();
        return json::object();
    }
    if (op == "counts") {
        json counts = json::object();
        for (uint32_t code = 1; code <= kMethodCount; ++code) {
            counts[MethodName(code)] = faults_.CallCount(code);
        }
        return counts;
    }
    if (op == "listeners") {
        return json{{"deviceChange", listeners_.DeviceChangeListenerCount()},
                    {"device", listeners_.DeviceListenerCount()}};
    }
    if (op == "exit") {
        const int32_t code = fields.Find("code") != nullptr ? fields.Int32("code") : 0;
        // An exit status is one byte: 256 would look like success.
        if (code < 0 || code > 255) {
            fields.Fail("expected an exit status from 0 to 255", "code");
        }
        std::fflush(nullptr);
        // Leave at once, like a crash would, without running static destructors
        // under live Binder threads; the caller sees the service die.
        _exit(code);
    }
    if (op == "abort") {
        std::abort();
    }
    fields.Fail("unknown op '" + op + "'", "op");
}

}  // namespace tivra_monitord
