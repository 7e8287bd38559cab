#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "scenario.h"

namespace tivra_monitord {

// The network as the service currently sees it. Binder threads read it while
// the timeline and the control interface change it, so every access locks.
class SimulatedNetwork {
public:
    explicit SimulatedNetwork(const Scenario& scenario);

    DeviceEntry LocalDevice() const;
    NodeEntry LocalNode() const;
    std::vector<DeviceEntry> Devices() const;
    std::vector<NodeEntry> RemoteNodes() const;
    // The local node or a remote one.
    std::optional<NodeEntry> FindNode(const std::string& nodeId) const;

    // Applies an event's change. Offline and info-changed events get the full
    // record of the device or node they name, for the listeners. Returns an
    // error text when the event does not fit the network (nothing changes).
    std::optional<std::string> Apply(TimelineEvent& event);

    // Quiet changes, told to no listener: add or replace by id, or remove.
    void SetDevice(const DeviceEntry& device);
    bool RemoveDevice(const std::string& id);
    void SetNode(const NodeEntry& node);
    bool RemoveNode(const std::string& nodeId);
    void SetLocalDevice(const DeviceEntry& device);
    void SetLocalNode(const NodeEntry& node);

private:
    mutable std::mutex mutex_;
    DeviceEntry localDevice_;
    NodeEntry localNode_;
    std::vector<DeviceEntry> devices_;
    std::vector<NodeEntry> nodes_;
};

}  // namespace tivra_monitord
