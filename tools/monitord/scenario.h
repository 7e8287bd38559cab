#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace tivra_monitord {

struct DeviceEntry {
    std::string name;
    std::string id;
    std::string type;
    std::string ip;
};

struct NodeEntry {
    std::string name;
    int32_t deviceType = 0;
    std::string nodeId;
    std::string udid;
    std::string uuid;
    // Extended attributes by key: the twelve published keys and any others.
    std::map<std::string, std::string> extInfo;
};

enum class EventKind { DeviceOnline, DeviceOffline, NodeOnline, NodeOffline, NodeInfoChanged };

// One change of the simulated network. Online events carry the whole record
// that joins; offline and info-changed events name a record already present.
struct TimelineEvent {
    std::chrono::milliseconds at{0};
    EventKind kind = EventKind::DeviceOnline;
    DeviceEntry device;     // DeviceOnline; DeviceOffline fills only `id`
    NodeEntry node;         // NodeOnline; NodeOffline and NodeInfoChanged fill only `nodeId`
    int32_t changeKind = 0;  // NodeInfoChanged
};

// A simulated device network: what the service answers at start, and the
// events it plays afterwards, in time order.
struct Scenario {
    DeviceEntry localDevice;
    NodeEntry localNode;
    std::vector<DeviceEntry> devices;
    std::vector<NodeEntry> nodes;
    std::vector<TimelineEvent> timeline;
};

// A scenario that cannot be used; what() names the source, the line or the
// field, and what is wrong.
class ScenarioError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

Scenario ParseScenario(const std::string& text, const std::string& sourceName);
Scenario LoadScenario(const std::string& path);

const char* EventKindName(EventKind kind);

}  // namespace tivra_monitord
