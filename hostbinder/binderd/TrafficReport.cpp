#include "TrafficReport.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "Limits.h"

namespace android::binderd {

using namespace hostbinder;

namespace {

constexpr size_t kTokenHeaderBytes = 3 * sizeof(int32_t);
constexpr size_t kLostFrameBytes = sizeof(FrameHeader) + sizeof(uint64_t);

int64_t nowNanos() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

}  // namespace

const uint8_t* interfaceDescriptor(const uint8_t* parcel, size_t size, size_t* units) {
    constexpr size_t kUnitsStart = kTokenHeaderBytes + sizeof(int32_t);
    if (size < kUnitsStart ||
        !std::all_of(parcel + 8, parcel + kTokenHeaderBytes, [](uint8_t c) { return c >= 'A' && c <= 'Z'; })) {
        return nullptr;
    }
    int32_t length = 0;
    std::memcpy(&length, parcel + kTokenHeaderBytes, sizeof(length));
    if (length < 0 || static_cast<size_t>(length) > kMaxReportedDescriptorUnits ||
        (size - kUnitsStart) / sizeof(char16_t) < static_cast<size_t>(length) + 1) {
        return nullptr;
    }
    char16_t terminator = 1;
    std::memcpy(&terminator, parcel + kUnitsStart + length * sizeof(char16_t), sizeof(terminator));
    if (terminator != 0) {
        return nullptr;
    }
    *units = static_cast<size_t>(length);
    return parcel + kUnitsStart;
}

TrafficReport::TrafficReport(Outbox& outbox, uid_t owner)
    : mOutbox(outbox), mOwner(owner), mPlaces({{kMaxWatchersPerProcess}, {kMaxWatchers}, {kMaxWatchers}}) {}

uint32_t TrafficReport::admit(ConnectionId id, pid_t pid, uid_t uid) {
    if (uid != mOwner && uid != 0) {
        return kNotAllowedToWatch;
    }
    const Places::Holder holder{uid, pid};
    for (;;) {
        const Places::Judgement judgement = mPlaces.judge(holder, 0, 1);
        if (judgement.verdict == Places::Verdict::kFits) {
            break;
        }
        if (judgement.verdict == Places::Verdict::kRefused) {
            return kTooManyConnections;
        }
        auto newest = std::find_if(mWatchers.rbegin(), mWatchers.rend(),
                                   [&](const Watcher& watcher) { return watcher.holder == judgement.victim; });
        const ConnectionId victim = newest->id;
        const uint32_t reason = kTooManyConnections;
        mOutbox.send(victim, kConnectionRefused, &reason, sizeof(reason));
        mOutbox.finish(victim);
        forget(victim);
    }
    mPlaces.take(holder, 0, 1);
    mWatchers.push_back({id, 0, holder});
    return 0;
}

void TrafficReport::forget(ConnectionId id) {
    auto it = std::find_if(mWatchers.begin(), mWatchers.end(), [id](const Watcher& watcher) { return watcher.id == id; });
    if (it != mWatchers.end()) {
        mPlaces.give(it->holder, 0, 1);
        mWatchers.erase(it);
    }
}

void TrafficReport::report(TrafficRecord record, const std::u16string* name, const uint8_t* parcel,
                           size_t parcelSize) {
    size_t descriptorUnits = 0;
    const uint8_t* descriptor = parcel != nullptr ? interfaceDescriptor(parcel, parcelSize, &descriptorUnits) : nullptr;
    // Registered names have at most 127 units.
    const size_t nameUnits = name != nullptr ? name->size() : 0;
    record.timeNanos = nowNanos();
    record.nameUnits = static_cast<uint16_t>(nameUnits);
    record.descriptorUnits = static_cast<uint16_t>(descriptorUnits);
    mPayload.resize(sizeof(record) + (nameUnits + descriptorUnits) * sizeof(char16_t));
    uint8_t* cursor = mPayload.data();
    std::memcpy(cursor, &record, sizeof(record));
    cursor += sizeof(record);
    if (nameUnits > 0) {
        std::memcpy(cursor, name->data(), nameUnits * sizeof(char16_t));
        cursor += nameUnits * sizeof(char16_t);
    }
    if (descriptorUnits > 0) {
        std::memcpy(cursor, descriptor, descriptorUnits * sizeof(char16_t));
    }
    for (Watcher& watcher : mWatchers) {
        if (makeRoom(watcher, sizeof(FrameHeader) + mPayload.size())) {
            mOutbox.send(watcher.id, kTrafficRecord, mPayload.data(), mPayload.size());
        } else {
            ++watcher.lost;
        }
    }
}

void TrafficReport::catchUp() {
    for (Watcher& watcher : mWatchers) {
        if (watcher.lost > 0) {
            makeRoom(watcher, 0);
        }
    }
}

bool TrafficReport::makeRoom(Watcher& watcher, size_t bytes) {
    if (watcher.lost == 0) {
        if (mOutbox.backlog(watcher.id) + bytes <= kMaxWatcherBacklog) {
            return true;
        }
        // What the socket takes now frees room.
        mOutbox.writeNow(watcher.id);
        return mOutbox.backlog(watcher.id) + bytes <= kMaxWatcherBacklog;
    }
    // A watcher that fell behind resumes once half of its backlog is gone,
    // so that it hears of its losses in few, large counts.
    if (mOutbox.backlog(watcher.id) + kLostFrameBytes + bytes > kMaxWatcherBacklog / 2) {
        return false;
    }
    mOutbox.send(watcher.id, kTrafficLost, &watcher.lost, sizeof(watcher.lost));
    watcher.lost = 0;
    return true;
}

}  // namespace android::binderd
