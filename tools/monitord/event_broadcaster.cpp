#include "event_broadcaster.h"

namespace tivra_monitord {

EventBroadcaster::EventBroadcaster(SimulatedNetwork& network, ListenerRegistry& listeners)
    : network_(network), listeners_(listeners) {}

EventBroadcaster::Outcome EventBroadcaster::Emit(TimelineEvent event) {
    std::lock_guard<std::mutex> lock(mutex_);
    Outcome outcome;
    outcome.error = network_.Apply(event);
    if (!outcome.error) {
        outcome.delivered = listeners_.Deliver(event);
    }
    return outcome;
}

}  // namespace tivra_monitord
