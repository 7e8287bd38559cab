#include "scenario.h"

#include <fstream>
#include <set>
#include <sstream>

#include "scenario_json.h"

namespace tivra_monitord {
namespace {

using nlohmann::json;

template <typename Entry, typename Parse>
std::vector<Entry> ArrayFromJson(const JsonFields& top, const std::string& field, Parse parse) {
    std::vector<Entry> entries;
    const json* array = top.Find(field);
    if (array == nullptr) {
        return entries;
    }
    if (!array->is_array()) {
        top.Fail("expected an array", field);
    }
    entries.reserve(array->size());
    for (size_t i = 0; i < array->size(); ++i) {
        entries.push_back(parse((*array)[i], field + "[" + std::to_string(i) + "]", top.source()));
    }
    return entries;
}

template <typename Entry, typename Key>
void RequireUniqueIds(const std::vector<Entry>& entries, Key key, const std::string& field, const std::string& source) {
    std::set<std::string> ids;
    for (const Entry& entry : entries) {
        if (!ids.insert(entry.*key).second) {
            throw ScenarioError(source + ": field '" + field + "': id '" + entry.*key + "' appears twice");
        }
    }
}

// Plays the timeline against the starting network so that a scenario that
// takes offline a device that is not there fails at load, not at run time.
void CheckTimeline(const Scenario& scenario, const std::string& source) {
    std::set<std::string> devices;
    std::set<std::string> nodes;
    for (const DeviceEntry& device : scenario.devices) devices.insert(device.id);
    for (const NodeEntry& node : scenario.nodes) nodes.insert(node.nodeId);
    for (size_t i = 0; i < scenario.timeline.size(); ++i) {
        const TimelineEvent& event = scenario.timeline[i];
        const auto require = [&](bool ok, const std::string& what) {
            if (!ok) throw ScenarioError(source + ": field 'timeline[" + std::to_string(i) + "]': " + what);
        };
        require(i == 0 || scenario.timeline[i - 1].at <= event.at, "events must be listed in time order");
        const std::string& deviceId = event.device.id;
        const std::string& nodeId = event.node.nodeId;
        switch (event.kind) {
            case EventKind::DeviceOnline:
                require(devices.insert(deviceId).second, "device '" + deviceId + "' is already online");
                break;
            case EventKind::DeviceOffline:
                require(devices.erase(deviceId) == 1, "device '" + deviceId + "' is not online");
                break;
            case EventKind::NodeOnline:
                require(nodes.insert(nodeId).second, "node '" + nodeId + "' is already online");
                break;
            case EventKind::NodeOffline:
                require(nodes.erase(nodeId) == 1, "node '" + nodeId + "' is not online");
                break;
            case EventKind::NodeInfoChanged:
                require(nodes.count(nodeId) == 1, "node '" + nodeId + "' is not online");
                break;
        }
    }
}

}  // namespace

Scenario ParseScenario(const std::string& text, const std::string& sourceName) {
    json document;
    try {
        document = json::parse(text);
    } catch (const json::exception& error) {
        // The parser's own message names the line and column, or the number
        // that does not fit (1e400).
        throw ScenarioError(sourceName + ": " + error.what());
    }
    const JsonFields top(document, "", sourceName);
    Scenario scenario;
    scenario.localDevice = DeviceFromJson(top.Require("localDevice"), "localDevice", sourceName);
    scenario.localNode = NodeFromJson(top.Require("localNode"), "localNode", sourceName);
    scenario.devices = ArrayFromJson<DeviceEntry>(top, "devices", DeviceFromJson);
    scenario.nodes = ArrayFromJson<NodeEntry>(top, "nodes", NodeFromJson);
    scenario.timeline = ArrayFromJson<TimelineEvent>(top, "timeline", EventFromJson);
    RequireUniqueIds(scenario.devices, &DeviceEntry::id, "devices", sourceName);
    RequireUniqueIds(scenario.nodes, &NodeEntry::nodeId, "nodes", sourceName);
    CheckTimeline(scenario, sourceName);
    return scenario;
}

Scenario LoadScenario(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw ScenarioError(path + ": cannot open the scenario file");
    }
    std::ostringstream text;
    text << in.rdbuf();
    return ParseScenario(text.str(), path);
}

}  // namespace tivra_monitord
