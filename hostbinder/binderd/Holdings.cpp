// What each process holds in binderd, within its bounds, and who gives way
// when a bound shared by a uid or by everyone is reached.
#include "Driver.h"

#include <log/log.h>

namespace android::binderd {

using namespace hostbinder;

namespace {

constexpr const char* kTag = "binderd";

const char* holdingName(Holding kind) {
    switch (kind) {
        case kHandlesHeld:
            return "handles";
        case kNodesHeld:
            return "binders known to others";
        case kBufferBytes:
        case kOnewayBytes:
            return "transaction buffer";
        case kLookupsWaiting:
            return "lookups waiting";
        case kCallbacksHeld:
            return "callbacks";
        case kNamesHeld:
            return "service names";
        case kHoldings:
            break;
    }
    return "?";
}

}  // namespace

size_t Driver::heldBytes() const {
    // A table entry costs binderd about this much.
    constexpr size_t kEntryBytes = 128;
    return mLedger.total(kBufferBytes) + kEntryBytes * (mLedger.total(kHandlesHeld) + mLedger.total(kNodesHeld));
}

bool Driver::makeRoom(const Process& taker, Holding kind, size_t amount) {
    for (;;) {
        const DriverLedger::Judgement judgement = mLedger.judge(taker.holder(), kind, amount);
        if (judgement.verdict != DriverLedger::Verdict::kGiveWay) {
            return judgement.verdict == DriverLedger::Verdict::kFits;
        }
        evict(judgement.victim, kind);
    }
}

bool Driver::fits(const Process& taker, Holding kind, size_t amount) const {
    return mLedger.judge(taker.holder(), kind, amount).verdict == DriverLedger::Verdict::kFits;
}

bool Driver::fitsAhead(const Process& receiver, size_t oneway) const {
    return mLedger.fitsAhead(receiver.holder(), kBufferBytes, oneway) &&
           mLedger.fitsAhead(receiver.holder(), kOnewayBytes, oneway);
}

void Driver::evict(const DriverLedger::Holder& victim, Holding kind) {
    // Its holdings no longer count; they come back when its sessions end,
    // which the driver hears of after the frame it is handling.
    mLedger.giveWay(victim);
    for (auto& entry : mProcesses) {
        Process& process = *entry.second;
        if (process.evicted || process.holder() != victim) {
            continue;
        }
        process.evicted = true;
        const uint32_t reason = kEvicted;
        mOutbox.send(process.control, kConnectionRefused, &reason, sizeof(reason));
        mOutbox.finish(process.control);
    }
    const Clock::time_point now = Clock::now();
    if (now - mLastEvictionWarning >= std::chrono::seconds(1)) {
        mLastEvictionWarning = now;
        __android_log_print(ANDROID_LOG_WARN, kTag,
                            "ending process %d (uid %u): it holds the most %s when a shared bound is reached",
                            victim.pid, victim.uid, holdingName(kind));
    }
}

bool Driver::roomInBuffer(Process& receiver, size_t charge, bool oneway) {
    if (makeRoom(receiver, kBufferBytes, charge) && (!oneway || makeRoom(receiver, kOnewayBytes, charge))) {
        return true;
    }
    // Part of what binderd counts may be finished and not reported yet.
    askForProgress(receiver);
    return false;
}

void Driver::chargeBuffer(Transaction& transaction, size_t charge) {
    const DriverLedger::Holder& holder = transaction.target->ownerHolder;
    mLedger.take(holder, kBufferBytes, charge);
    if (transaction.oneway()) {
        mLedger.take(holder, kOnewayBytes, charge);
    }
    transaction.charge = static_cast<uint32_t>(charge);
}

void Driver::releaseCharge(Transaction& transaction) {
    if (transaction.charge == 0) {
        return;
    }
    const DriverLedger::Holder& holder = transaction.target->ownerHolder;
    mLedger.give(holder, kBufferBytes, transaction.charge);
    if (transaction.oneway()) {
        mLedger.give(holder, kOnewayBytes, transaction.charge);
    }
    transaction.charge = 0;
}

void Driver::reserveCredit(OnewayCredit& credit, size_t bytes) {
    mLedger.take(credit.node->ownerHolder, kBufferBytes, bytes);
    mLedger.take(credit.node->ownerHolder, kOnewayBytes, bytes);
    credit.bytes += bytes;
}

void Driver::releaseCredit(OnewayCredit& credit, size_t bytes) {
    if (bytes == 0) {
        return;
    }
    mLedger.give(credit.node->ownerHolder, kBufferBytes, bytes);
    mLedger.give(credit.node->ownerHolder, kOnewayBytes, bytes);
    decrease(credit.bytes, bytes);
}

}  // namespace android::binderd
