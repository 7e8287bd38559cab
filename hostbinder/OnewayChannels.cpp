#include "OnewayChannels.h"

#include "OutgoingChannel.h"

namespace android {

std::shared_ptr<OutgoingChannel> OnewayChannels::find(int32_t handle, bool* known) {
    std::lock_guard<std::mutex> lock(mLock);
    auto route = mRoutes.find(handle);
    *known = route != mRoutes.end();
    return *known ? route->second : nullptr;
}

void OnewayChannels::route(int32_t handle, std::shared_ptr<OutgoingChannel> channel) {
    std::lock_guard<std::mutex> lock(mLock);
    if (channel != nullptr) {
        mById.emplace(channel->id, channel);
    }
    mRoutes[handle] = std::move(channel);
}

std::shared_ptr<OutgoingChannel> OnewayChannels::byId(uint64_t id) {
    std::lock_guard<std::mutex> lock(mLock);
    auto it = mById.find(id);
    return it == mById.end() ? nullptr : it->second;
}

void OnewayChannels::quiet(uint64_t id, uint64_t total) {
    const std::shared_ptr<OutgoingChannel> channel = byId(id);
    if (channel == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> lock(channel->lock);
    if (channel->relayedSent == total) {
        channel->relaying = false;
    }
}

void OnewayChannels::voided(uint64_t id) {
    if (const std::shared_ptr<OutgoingChannel> channel = byId(id)) {
        std::lock_guard<std::mutex> lock(channel->lock);
        channel->state = OutgoingChannel::State::kBroken;
    }
}

void OnewayChannels::clear() {
    std::lock_guard<std::mutex> lock(mLock);
    mRoutes.clear();
    mById.clear();
}

}  // namespace android
