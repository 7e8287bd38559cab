#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>

namespace android {

namespace hostbinder {
class Connection;
struct ChannelProgress;
struct OnewayAccepted;
struct TransactionHeader;
}

// This process's one-way credit, by handle: room binderd reserved in the
// receivers' buffers for its one-way calls. Calls paid from it go on the
// control connection, one stream for all threads, so that binderd takes them
// in the order they were made in. Each table belongs to one session
// (`generation`): what an older session granted is void in a newer one.
class OnewayCredits {
public:
    // Sends the call on `control` when the handle's credit covers it and
    // binderd voided no credit since it was granted. Otherwise gives the
    // credit back (so that a lone sender fills the receiver's buffer to the
    // byte) and returns false: the call waits for binderd. A `fence` goes
    // just before the call.
    bool sendPaid(hostbinder::Connection& control, uint64_t generation, int32_t handle,
                  const hostbinder::TransactionHeader& header, const uint8_t* data,
                  const hostbinder::ChannelProgress* fence);
    // binderd accepted a one-way call to the handle that waited for it.
    void accepted(uint64_t generation, int32_t handle, const hostbinder::OnewayAccepted& accepted);
    // binderd voided credit for nodes whose owner died, `revocations` times so far.
    void revoked(uint64_t generation, uint64_t revocations);
    // Gives the handle's credit back before the handle goes, or when its
    // calls take a direct channel.
    void giveBack(hostbinder::Connection& control, uint64_t generation, int32_t handle);
    // Whether any handle has credit, without taking the lock.
    bool holdsAny() const { return mHandlesHeld.load(std::memory_order_relaxed) != 0; }

private:
    struct Credit {
        uint64_t bytes = 0;
        // The revocations binderd had sent when it last showed the handle's
        // node alive; a later one may have voided the credit.
        uint64_t revocations = 0;
    };

    // Whether `generation` is the table's session, starting a new table for a newer one.
    bool current(uint64_t generation);
    void giveBack(hostbinder::Connection& control, std::map<int32_t, Credit>::iterator credit);

    std::mutex mLock;
    uint64_t mGeneration = 0;
    uint64_t mRevocations = 0;
    std::map<int32_t, Credit> mCredits;
    std::atomic<size_t> mHandlesHeld{0};  // mCredits.size()
};

}  // namespace android
