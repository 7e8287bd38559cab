#include "OnewayCredits.h"

#include <algorithm>

#include "protocol/Connection.h"
#include "protocol/Protocol.h"

namespace android {

bool OnewayCredits::current(uint64_t generation) {
    if (generation > mGeneration) {
        mGeneration = generation;
        mRevocations = 0;
        mCredits.clear();
        mHandlesHeld.store(0, std::memory_order_relaxed);
    }
    return generation == mGeneration;
}

bool OnewayCredits::sendPaid(hostbinder::Connection& control, uint64_t generation, int32_t handle,
                             const hostbinder::TransactionHeader& header, const uint8_t* data,
                             const hostbinder::ChannelProgress* fence) {
    std::lock_guard<std::mutex> lock(mLock);
    if (!current(generation)) {
        return false;
    }
    auto credit = mCredits.find(handle);
    if (credit == mCredits.end()) {
        return false;
    }
    // Spent as binderd counts the call in the receiver's buffer.
    const uint64_t charge = hostbinder::bufferCharge(header.dataSize, header.offsetsCount, true);
    if (header.offsetsCount != 0 || charge > credit->second.bytes || mRevocations > credit->second.revocations) {
        giveBack(control, credit);
        return false;
    }
    // Under the lock: calls paid from credit reach binderd in the order they
    // were paid, each right behind its fence.
    if (fence != nullptr) {
        control.post(hostbinder::kChannelFence, fence, sizeof(*fence));
    }
    if (!control.sendTransaction(hostbinder::kOnewayCredited, header, data, nullptr)) {
        return false;
    }
    credit->second.bytes -= charge;
    return true;
}

void OnewayCredits::accepted(uint64_t generation, int32_t handle, const hostbinder::OnewayAccepted& accepted) {
    std::lock_guard<std::mutex> lock(mLock);
    if (!current(generation)) {
        return;
    }
    if (accepted.creditBytes == 0 && mCredits.count(handle) == 0) {
        return;
    }
    // Grants come in any order across threads; each shows the node alive
    // when binderd made it.
    Credit& credit = mCredits[handle];
    credit.bytes += accepted.creditBytes;
    credit.revocations = std::max(credit.revocations, accepted.revocations);
    mHandlesHeld.store(mCredits.size(), std::memory_order_relaxed);
}

void OnewayCredits::revoked(uint64_t generation, uint64_t revocations) {
    std::lock_guard<std::mutex> lock(mLock);
    if (current(generation)) {
        mRevocations = std::max(mRevocations, revocations);
    }
}

void OnewayCredits::giveBack(hostbinder::Connection& control, uint64_t generation, int32_t handle) {
    std::lock_guard<std::mutex> lock(mLock);
    if (!current(generation)) {
        return;
    }
    auto credit = mCredits.find(handle);
    if (credit != mCredits.end()) {
        giveBack(control, credit);
    }
}

void OnewayCredits::giveBack(hostbinder::Connection& control, std::map<int32_t, Credit>::iterator credit) {
    // binderd ignores what it voided already.
    const hostbinder::CreditReturn given{static_cast<uint32_t>(credit->first),
                                         static_cast<uint32_t>(credit->second.bytes)};
    if (given.bytes > 0) {
        control.send(hostbinder::kReturnCredit, &given, sizeof(given));
    }
    mCredits.erase(credit);
    mHandlesHeld.store(mCredits.size(), std::memory_order_relaxed);
}

}  // namespace android
