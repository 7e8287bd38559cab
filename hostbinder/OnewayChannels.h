#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

namespace android {

struct OutgoingChannel;

// This process's one-way channels, one per process it sends one-way calls
// to, shared by all its threads so that their calls keep the order they were
// made in; and which handle's calls go on which (or through binderd).
class OnewayChannels {
public:
    // The channel for `handle`: set when known, `known` false when nobody
    // asked binderd yet.
    std::shared_ptr<OutgoingChannel> find(int32_t handle, bool* known);
    // Records binderd's answer for the handle: a channel (maybe new) or none.
    void route(int32_t handle, std::shared_ptr<OutgoingChannel> channel);
    std::shared_ptr<OutgoingChannel> byId(uint64_t id);
    // binderd says the relayed one-way calls on `id` are all done, `total` of them.
    void quiet(uint64_t id, uint64_t total);
    // binderd says the channel's owner is gone.
    void voided(uint64_t id);
    // binderd went: the channels with it.
    void clear();

private:
    std::mutex mLock;
    std::map<int32_t, std::shared_ptr<OutgoingChannel>> mRoutes;
    std::map<uint64_t, std::shared_ptr<OutgoingChannel>> mById;
};

}  // namespace android
