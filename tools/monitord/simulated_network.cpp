#include "simulated_network.h"

#include <algorithm>

namespace tivra_monitord {
namespace {

template <typename Entry, typename Key>
typename std::vector<Entry>::iterator FindEntry(std::vector<Entry>& entries, Key key, const std::string& id) {
    return std::find_if(entries.begin(), entries.end(), [&](const Entry& entry) { return entry.*key == id; });
}

// Replaces the entry with the same id in place (keeping list order), or
// appends a new one.
template <typename Entry, typename Key>
void Upsert(std::vector<Entry>& entries, Key key, const Entry& entry) {
    const auto found = FindEntry(entries, key, entry.*key);
    if (found != entries.end()) {
        *found = entry;
    } else {
        entries.push_back(entry);
    }
}

template <typename Entry, typename Key>
std::optional<Entry> Take(std::vector<Entry>& entries, Key key, const std::string& id) {
    const auto found = FindEntry(entries, key, id);
    if (found == entries.end()) {
        return std::nullopt;
    }
    Entry taken = *found;
    entries.erase(found);
    return taken;
}

}  // namespace

SimulatedNetwork::SimulatedNetwork(const Scenario& scenario)
    : localDevice_(scenario.localDevice),
      localNode_(scenario.localNode),
      devices_(scenario.devices),
      nodes_(scenario.nodes) {}

DeviceEntry SimulatedNetwork::LocalDevice() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return localDevice_;
}

NodeEntry SimulatedNetwork::LocalNode() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return localNode_;
}

std::vector<DeviceEntry> SimulatedNetwork::Devices() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return devices_;
}

std::vector<NodeEntry> SimulatedNetwork::RemoteNodes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return nodes_;
}

std::optional<NodeEntry> SimulatedNetwork::FindNode(const std::string& nodeId) const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (localNode_.nodeId == nodeId) {
        return localNode_;
    }
    for (const NodeEntry& node : nodes_) {
        if (node.nodeId == nodeId) {
            return node;
        }
    }
    return std::nullopt;
}

std::optional<std::string> SimulatedNetwork::Apply(TimelineEvent& event) {
    std::lock_guard<std::mutex> lock(mutex_);
    switch (event.kind) {
        case EventKind::DeviceOnline:
            if (FindEntry(devices_, &DeviceEntry::id, event.device.id) != devices_.end()) {
                return "device '" + event.device.id + "' is already online";
            }
            devices_.push_back(event.device);
            return std::nullopt;
        case EventKind::DeviceOffline: {
            const auto taken = Take(devices_, &DeviceEntry::id, event.device.id);
            if (!taken) {
                return "device '" + event.device.id + "' is not online";
            }
            event.device = *taken;
            return std::nullopt;
        }
        case EventKind::NodeOnline:
            if (FindEntry(nodes_, &NodeEntry::nodeId, event.node.nodeId) != nodes_.end()) {
                return "node '" + event.node.nodeId + "' is already online";
            }
            nodes_.push_back(event.node);
            return std::nullopt;
        case EventKind::NodeOffline: {
            const auto taken = Take(nodes_, &NodeEntry::nodeId, event.node.nodeId);
            if (!taken) {
                return "node '" + event.node.nodeId + "' is not online";
            }
            event.node = *taken;
            return std::nullopt;
        }
        case EventKind::NodeInfoChanged: {
            const auto found = FindEntry(nodes_, &NodeEntry::nodeId, event.node.nodeId);
            if (found == nodes_.end()) {
                return "node '" + event.node.nodeId + "' is not online";
            }
            event.node = *found;
            return std::nullopt;
        }
    }
    return "unknown event";
}

void SimulatedNetwork::SetDevice(const DeviceEntry& device) {
    std::lock_guard<std::mutex> lock(mutex_);
    Upsert(devices_, &DeviceEntry::id, device);
}

bool SimulatedNetwork::RemoveDevice(const std::string& id) {
    std::lock_guard<std::mutex> lock(mutex_);
    return Take(devices_, &DeviceEntry::id, id).has_value();
}

void SimulatedNetwork::SetNode(const NodeEntry& node) {
    std::lock_guard<std::mutex> lock(mutex_);
    Upsert(nodes_, &NodeEntry::nodeId, node);
}

bool SimulatedNetwork::RemoveNode(const std::string& nodeId) {
    std::lock_guard<std::mutex> lock(mutex_);
    return Take(nodes_, &NodeEntry::nodeId, nodeId).has_value();
}

void SimulatedNetwork::SetLocalDevice(const DeviceEntry& device) {
    std::lock_guard<std::mutex> lock(mutex_);
    localDevice_ = device;
}

void SimulatedNetwork::SetLocalNode(const NodeEntry& node) {
    std::lock_guard<std::mutex> lock(mutex_);
    localNode_ = node;
}

}  // namespace tivra_monitord
