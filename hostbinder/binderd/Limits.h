#pragma once

// Every bound binderd keeps on what its peers can make it hold, in one place
// (docs/binderd.md lists them with what happens beyond each). A "process" is
// a peer pid as SO_PEERCRED gives it, so its connections count before they
// say hello. Per-process bounds keep one process from starving another of
// the same uid; per-uid bounds keep one uid from starving another.

#include <chrono>
#include <cstddef>
#include <cstdint>

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
// (held in a buffer sized to that frame) and frames not yet written. The
// connection whose frame would go beyond a bound is cut.
constexpr size_t kMaxBufferedPerConnection = 4 * kMiB;
constexpr size_t kMaxBufferedPerProcess = 32 * kMiB;
constexpr size_t kMaxBufferedPerUid = 128 * kMiB;
constexpr size_t kMaxBuffered = 512 * kMiB;

// Transactions queued for or delivered to a process and not yet finished,
// two-way and one-way together: hostbinder::kMaxTransactionBytes, one-way
// within hostbinder::kMaxQueuedOnewayBytes. Beyond: FAILED_TRANSACTION.

// Two-way calls in one chain (a call made while serving one, and so on), and
// so on each thread's stack of calls waiting for their replies; a deeper
// call fails with FAILED_TRANSACTION.
constexpr uint32_t kMaxCallDepth = 64;

// A process's thread pool, whatever it asks for.
constexpr uint32_t kMaxPoolThreads = 128;
// Handles a process holds and nodes (local binders known to others) it owns;
// a transaction that could take either beyond fails with FAILED_TRANSACTION.
constexpr size_t kMaxHandlesPerProcess = 32768;
constexpr size_t kMaxNodesPerProcess = 32768;

// Service names: beyond a count addService fails with EX_ILLEGAL_STATE. The
// total keeps a listServices reply (each name at most 127 characters, so 260
// bytes) within one transaction.
constexpr size_t kMaxNamesPerProcess = 256;
constexpr size_t kMaxNamesPerUid = 1024;
constexpr size_t kMaxNames = 4000;
static_assert(8 + kMaxNames * 260 <= hostbinder::kMaxTransactionBytes);
// getService calls of one process waiting for a name; beyond, a lookup
// answers at once, as checkService.
constexpr size_t kMaxLookupWaitersPerProcess = 32;
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

// Watching the traffic (only binderd's own uid and root may): connections
// that watch at once, beyond which the next is refused; and the records
// waiting in binderd for a watcher's socket to take them, beyond which its
// records are dropped and counted until half of them are gone. An interface
// descriptor longer than its bound is not reported.
constexpr size_t kMaxWatchers = 64;
constexpr size_t kMaxWatcherBacklog = 256 * 1024;
constexpr size_t kMaxReportedDescriptorUnits = 256;

}  // namespace android::binderd
