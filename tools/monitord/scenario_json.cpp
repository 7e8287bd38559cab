#include "scenario_json.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <iterator>

namespace tivra_monitord {
namespace {

using nlohmann::json;

constexpr struct {
    EventKind kind;
    const char* name;
} kEventNames[] = {
    {EventKind::DeviceOnline, "deviceOnline"}, {EventKind::DeviceOffline, "deviceOffline"},
    {EventKind::NodeOnline, "nodeOnline"},     {EventKind::NodeOffline, "nodeOffline"},
    {EventKind::NodeInfoChanged, "nodeInfoChanged"},
};

// Scenario times are seconds from start, up to a day.
constexpr double kMaxEventSeconds = 86400;

}  // namespace

const char* EventKindName(EventKind kind) {
    for (const auto& entry : kEventNames) {
        if (entry.kind == kind) return entry.name;
    }
    return "unknown";
}

JsonFields::JsonFields(const json& value, std::string path, std::string source)
    : value_(value), path_(std::move(path)), source_(std::move(source)) {
    if (!value_.is_object()) {
        Fail("expected an object");
    }
}

void JsonFields::Fail(const std::string& what, const std::string& field) const {
    const std::string where = field.empty() ? path_ : Path(field);
    throw ScenarioError(source_ + ": field '" + (where.empty() ? "(top level)" : where) + "': " + what);
}

std::string JsonFields::Path(const std::string& field) const { return path_.empty() ? field : path_ + "." + field; }

const json* JsonFields::Find(const std::string& field) const {
    const auto it = value_.find(field);
    return it == value_.end() ? nullptr : &*it;
}

const json& JsonFields::Require(const std::string& field) const {
    const json* found = Find(field);
    if (found == nullptr) {
        Fail("missing", field);
    }
    return *found;
}

std::string JsonFields::String(const std::string& field, bool required) const {
    const json* found = required ? &Require(field) : Find(field);
    if (found == nullptr) {
        return std::string();
    }
    if (!found->is_string()) {
        Fail("expected a string", field);
    }
    return found->get<std::string>();
}

int32_t JsonFields::Int32(const std::string& field) const {
    const json& found = Require(field);
    // An unsigned number past INT64_MAX would read as negative.
    if (!found.is_number_integer() || (found.is_number_unsigned() && found.get<uint64_t>() > INT32_MAX) ||
        found.get<int64_t>() < INT32_MIN || found.get<int64_t>() > INT32_MAX) {
        Fail("expected a 32-bit integer", field);
    }
    return static_cast<int32_t>(found.get<int64_t>());
}

DeviceEntry DeviceFromJson(const json& value, const std::string& path, const std::string& source) {
    const JsonFields fields(value, path, source);
    return DeviceEntry{fields.String("name"), fields.String("id"), fields.String("type"), fields.String("ip")};
}

NodeEntry NodeFromJson(const json& value, const std::string& path, const std::string& source) {
    const JsonFields fields(value, path, source);
    NodeEntry node;
    node.name = fields.String("name");
    node.deviceType = fields.Int32("deviceType");
    node.nodeId = fields.String("nodeId");
    node.udid = fields.String("udid", false);
    node.uuid = fields.String("uuid", false);
    if (const json* ext = fields.Find("extInfo")) {
        const JsonFields extFields(*ext, fields.Path("extInfo"), source);
        for (const auto& item : ext->items()) {
            node.extInfo[item.key()] = extFields.String(item.key());
        }
    }
    return node;
}

TimelineEvent EventFromJson(const json& value, const std::string& path, const std::string& source) {
    const JsonFields fields(value, path, source);
    TimelineEvent event;
    const json& at = fields.Require("at");
    if (!at.is_number() || !std::isfinite(at.get<double>()) || at.get<double>() < 0 ||
        at.get<double>() > kMaxEventSeconds) {
        fields.Fail("expected seconds from start, 0 to 86400", "at");
    }
    event.at = std::chrono::milliseconds(std::llround(at.get<double>() * 1000));
    const std::string name = fields.String("event");
    const auto* known = std::find_if(std::begin(kEventNames), std::end(kEventNames),
                                     [&name](const auto& entry) { return name == entry.name; });
    if (known == std::end(kEventNames)) {
        fields.Fail("unknown event '" + name +
                        "' (expected deviceOnline, deviceOffline, nodeOnline, nodeOffline or nodeInfoChanged)",
                    "event");
    }
    event.kind = known->kind;
    switch (event.kind) {
        case EventKind::DeviceOnline:
            event.device = DeviceFromJson(fields.Require("device"), fields.Path("device"), source);
            break;
        case EventKind::DeviceOffline:
            event.device.id = fields.String("deviceId");
            break;
        case EventKind::NodeOnline:
            event.node = NodeFromJson(fields.Require("node"), fields.Path("node"), source);
            break;
        case EventKind::NodeOffline:
            event.node.nodeId = fields.String("nodeId");
            break;
        case EventKind::NodeInfoChanged:
            event.node.nodeId = fields.String("nodeId");
            event.changeKind = fields.Int32("kind");
            break;
    }
    return event;
}

json ToJson(const DeviceEntry& device) {
    return json{{"name", device.name}, {"id", device.id}, {"type", device.type}, {"ip", device.ip}};
}

json ToJson(const NodeEntry& node) {
    return json{{"name", node.name}, {"deviceType", node.deviceType}, {"nodeId", node.nodeId},
                {"udid", node.udid}, {"uuid", node.uuid}, {"extInfo", node.extInfo}};
}

json ToJson(const TimelineEvent& event) {
    json out{{"at", static_cast<double>(event.at.count()) / 1000.0}, {"event", EventKindName(event.kind)}};
    switch (event.kind) {
        case EventKind::DeviceOnline: out["device"] = ToJson(event.device); break;
        case EventKind::DeviceOffline: out["deviceId"] = event.device.id; break;
        case EventKind::NodeOnline: out["node"] = ToJson(event.node); break;
        case EventKind::NodeOffline: out["nodeId"] = event.node.nodeId; break;
        case EventKind::NodeInfoChanged:
            out["nodeId"] = event.node.nodeId;
            out["kind"] = event.changeKind;
            break;
    }
    return out;
}

}  // namespace tivra_monitord
