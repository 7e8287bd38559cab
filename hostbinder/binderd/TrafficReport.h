#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Ledger.h"
#include "Outbox.h"
#include "protocol/Protocol.h"

namespace android::binderd {

// The connections watching the traffic and what each is sent. A watcher that
// does not read loses records instead of holding binderd back or growing its
// memory: past its backlog bound a record is counted, not queued, and the
// count goes out once half of the backlog is gone, ahead of further records.
//
// Nothing here runs while nobody watches: the driver asks watched() first.
class TrafficReport {
public:
    TrafficReport(Outbox& outbox, uid_t owner);

    bool watched() const { return !mWatchers.empty(); }
    size_t watcherCount() const { return mWatchers.size(); }

    // Takes a connection that asked to watch: 0, or why it is refused. When
    // all the watchers' places are taken, the process watching with the most
    // connections gives its newest up (unless that is the newcomer's).
    uint32_t admit(ConnectionId id, pid_t pid, uid_t uid);
    void forget(ConnectionId id);

    // Sends the record, stamped with the time, to every watcher. `name` is
    // the target's service name (may be null); `parcel` the call's bytes, for
    // its interface descriptor (may be null).
    void report(hostbinder::TrafficRecord record, const std::u16string* name, const uint8_t* parcel,
                size_t parcelSize);
    // Tells watchers that lost records how many, where there is room now.
    void catchUp();

private:
    using Places = Ledger<1>;
    struct Watcher {
        ConnectionId id = 0;
        uint64_t lost = 0;
        Places::Holder holder;
    };

    // Whether `bytes` more fit the watcher's backlog, once it heard of its losses.
    bool makeRoom(Watcher& watcher, size_t bytes);

    Outbox& mOutbox;
    const uid_t mOwner;
    std::vector<Watcher> mWatchers;
    Places mPlaces;
    std::vector<uint8_t> mPayload;  // reused: no allocation per record
};

// The interface descriptor at the start of a call's parcel: strict-mode
// policy, work source (int32 each), a header of four capital letters, then
// the descriptor as a String16 (int32 length in units, the units, a
// terminating zero). Sets `units` (at most kMaxReportedDescriptorUnits) and
// returns where the units start; null when the parcel does not start so.
const uint8_t* interfaceDescriptor(const uint8_t* parcel, size_t size, size_t* units);

}  // namespace android::binderd
