#pragma once

#include <cstddef>
#include <mutex>
#include <optional>
#include <string>

#include "listener_registry.h"
#include "simulated_network.h"

namespace tivra_monitord {

// Applies events to the network and tells the listeners, one event at a time,
// so that every listener sees the timeline's and the control interface's
// events in the order in which they changed the network.
class EventBroadcaster {
public:
    EventBroadcaster(SimulatedNetwork& network, ListenerRegistry& listeners);

    struct Outcome {
        std::optional<std::string> error;  // the event did not fit the network
        size_t delivered = 0;               // listeners told
    };
    Outcome Emit(TimelineEvent event);

private:
    std::mutex mutex_;
    SimulatedNetwork& network_;
    ListenerRegistry& listeners_;
};

}  // namespace tivra_monitord
