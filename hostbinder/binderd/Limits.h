#pragma once

// Every bound binderd keeps on what its peers can make it hold, in one place
// (docs/binderd.md lists them with what happens beyond each). A "process" is
// a peer pid (with its uid) as SO_PEERCRED gives it: all the sessions and
// connections of one pid count together, and its connections count before
// they say hello. Per-process bounds keep one process from starving another
// of the same uid; per-uid bounds keep one uid from starving another. A
// shared bound (per uid, in total) is never a lever against a process that
// holds little: when it is reached, the process holding the most gives way
// (Ledger.h), and only when that is the taker is the take refused.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "Ledger.h"
#include "protocol/Protocol.h"

namespace android::binderd {

constexpr size_t kMiB = 1024 * 1024;

// Connections; beyond a bound the new connection is refused
// (kConnectionRefused). The total also stays below the descriptor limit.
constexpr size_t kMaxConnections = 16384;
constexpr size_t kMaxConnectionsPerUid = 4096;
constexpr size_t kMaxConnectionsPerProcess = 256;  // its control connection and its threads
// A connection that has not said hello by then is closed.
constexpr std::chrono::seconds kHelloDeadline{5};

// Bytes binderd buffers for connections: the part of a frame read so far
// (in a buffer that grows as its bytes arrive, to at most twice what arrived
// and never beyond the frame) and frames not yet written. A connection over
// its own bound, or whose process holds the most when a shared bound is
// reached, is cut; a process holding the most of its uid's (or everyone's)
// bytes loses its heaviest connections so that another's fit.
constexpr size_t kMaxBufferedPerConnection = 4 * kMiB;
constexpr size_t kMaxBufferedPerProcess = 32 * kMiB;
constexpr size_t kMaxBufferedPerUid = 128 * kMiB;
constexpr size_t kMaxBuffered = 512 * kMiB;

// What the driver's ledger counts, each per process, per uid and in total.
enum Holding : size_t {
    kHandlesHeld,      // entries of a process's handle table
    kNodesHeld,        // its binders known to other processes
    kBufferBytes,      // its transaction buffer: work queued for or delivered to it, one-way credit
    kOnewayBytes,      // the one-way part of it
    kLookupsWaiting,   // its getService calls waiting for a name
    kCallbacksHeld,    // callbacks it registered for names
    kNamesHeld,        // service names it registered
    kHoldings,
};

// Transactions queued for or delivered to a process and not yet finished,
// two-way and one-way together, as the platform's per-process buffer counts
// them (hostbinder::bufferCharge: data and object table rounded up to 8
// bytes, at least 8; a one-way call also hostbinder::kOnewayBufferOverhead):
// hostbinder::kMaxTransactionBytes, one-way within
// hostbinder::kMaxQueuedOnewayBytes. Beyond: FAILED_TRANSACTION. A uid's
// processes together, and all processes, hold a bounded number of such bytes.
constexpr size_t kMaxBufferBytesPerUid = 32 * kMiB;
constexpr size_t kMaxBufferBytes = 128 * kMiB;

// Two-way calls in one chain (a call made while serving one, and so on), and
// so on each thread's stack of calls waiting for their replies; a deeper
// call fails with FAILED_TRANSACTION.
constexpr uint32_t kMaxCallDepth = 64;

// A process's thread pool, whatever it asks for.
constexpr uint32_t kMaxPoolThreads = 128;
// Handles a process holds and nodes (local binders known to others) it owns;
// a transaction that could take either beyond fails with FAILED_TRANSACTION.
constexpr size_t kMaxHandlesPerProcess = 32768;
constexpr size_t kMaxHandlesPerUid = 131072;
constexpr size_t kMaxHandles = 262144;
constexpr size_t kMaxNodesPerProcess = 32768;
constexpr size_t kMaxNodesPerUid = 131072;
constexpr size_t kMaxNodes = 262144;

// Service names: beyond a count addService fails with EX_ILLEGAL_STATE. The
// total keeps a listServices reply (each name at most 127 characters, so 260
// bytes) within one transaction.
constexpr size_t kMaxNamesPerProcess = 256;
constexpr size_t kMaxNamesPerUid = 1024;
constexpr size_t kMaxNames = 4000;
static_assert(8 + kMaxNames * 260 <= hostbinder::kMaxTransactionBytes);
// getService calls waiting for a name; beyond, a lookup answers at once, as
// checkService.
constexpr size_t kMaxLookupWaitersPerProcess = 32;
constexpr size_t kMaxLookupWaitersPerUid = 256;
constexpr size_t kMaxLookupWaiters = 1024;
// Callbacks registered for names (registerForNotifications); beyond a count
// the registration fails with EX_ILLEGAL_STATE. Names and callbacks together
// leave most of the service manager's handle table to the binders in transit.
constexpr size_t kMaxCallbacksPerProcess = 256;
constexpr size_t kMaxCallbacksPerUid = 1024;
constexpr size_t kMaxCallbacks = 8192;
static_assert(kMaxNames + kMaxCallbacks <= kMaxHandlesPerProcess / 2);

// Direct channels: each costs its two processes a descriptor each, so they
// count per process (either end), per uid and in total; beyond a bound the
// thread that asked keeps calling through binderd. Channel ends waiting in
// binderd to be handed over hold binderd's own descriptors: a connection has
// at most this many waiting, and binderd keeps room for all of them.
constexpr size_t kMaxChannelsPerProcess = 1024;
constexpr size_t kMaxChannelsPerUid = 8192;
constexpr size_t kMaxChannels = 16384;
constexpr size_t kMaxDescriptorsInFlightPerConnection = 4;
// Handles an owner may have resolved on one channel (each holds its node);
// beyond, a call naming another fails with FAILED_TRANSACTION. A released
// handle keeps its entry until the owner took in the calls before the release.
constexpr size_t kMaxReachPerChannel = 1024;
constexpr size_t kMaxDescriptorsInFlight = 256;
// The driver's bounds by holding, per process, per uid and in total.
constexpr size_t kUnbounded = std::numeric_limits<size_t>::max() / 2;
using DriverLedger = Ledger<kHoldings>;
inline const DriverLedger::Bounds kHoldingBounds{
    {kMaxHandlesPerProcess, kMaxNodesPerProcess, hostbinder::kMaxTransactionBytes, hostbinder::kMaxQueuedOnewayBytes,
     kMaxLookupWaitersPerProcess, kMaxCallbacksPerProcess, kMaxNamesPerProcess},
    {kMaxHandlesPerUid, kMaxNodesPerUid, kMaxBufferBytesPerUid, kUnbounded, kMaxLookupWaitersPerUid,
     kMaxCallbacksPerUid, kMaxNamesPerUid},
    {kMaxHandles, kMaxNodes, kMaxBufferBytes, kUnbounded, kMaxLookupWaiters, kMaxCallbacks, kMaxNames},
};

// Watching the traffic (only binderd's own uid and root may): connections
// that watch at once, per process and in all, beyond which the next is
// refused (when all are taken, the process watching with the most gives its
// newest up to a process with fewer); and the records
// waiting in binderd for a watcher's socket to take them, beyond which its
// records are dropped and counted until half of them are gone. An interface
// descriptor longer than its bound is not reported.
constexpr size_t kMaxWatchers = 64;
constexpr size_t kMaxWatchersPerProcess = 4;
constexpr size_t kMaxWatcherBacklog = 256 * 1024;
constexpr size_t kMaxReportedDescriptorUnits = 256;

}  // namespace android::binderd
