#pragma once

// Frames between libhostbinder and binderd.
//
// Why this shape: binderd plays a kernel driver, so every frame is one driver
// command with a fixed header and, for transactions, the parcel's bytes and
// object table copied verbatim. A single layout (TransactionHeader) serves
// outgoing calls, delivered calls and replies, so one decoder validates them
// all and the fuzzer reaches every path. Lengths are checked against the
// platform's buffer limit before any allocation, so a hostile length prefix
// costs nothing. Reference counts travel as "send-refs": a process takes one
// strong reference per local binder it sends and binderd hands it back (DecNode)
// unless it becomes the node's remote reference; every reference change for a
// process then flows through its one control connection in order, which keeps
// counting free of races between threads.
//
// One-way calls would cost a round trip each if every one waited for binderd
// to accept it. Instead binderd reserves room in the receiver's one-way buffer
// for the sending process, per handle ("credit", granted with
// kTransactionComplete); while the credit lasts the process's threads send
// kOnewayCredited on the control connection and return at once, since the
// call can no longer be refused for lack of room. One stream for all threads
// keeps the calls in the order they were made. The process gives credit back
// (kReturnCredit) before a one-way call that waits for binderd, and when the
// handle goes; binderd takes in the control connection's frames before such a
// call, and voids credit when the node's owner dies (kCreditRevoked, ahead of
// any death notice on the same control connection).
// On the receiving side, one-way calls of a node that a thread is already
// serving are sent to that thread ahead of time; it runs them in order.
//
// Every hello is answered (kWelcome), so a client knows within its timeout
// whether binderd took the connection; a connection binderd turns away gets
// kConnectionRefused with the reason before it is closed.
//
// A connection that says kHelloMonitor watches the traffic: binderd writes it
// one TrafficRecord per transaction and per reply it routes. A watcher that
// does not keep up loses records rather than holding binderd back; it is told
// how many (kTrafficLost) before the next record that reaches it.
//
// Direct channels. A relayed call costs two socket hops each way; so a thread
// may ask binderd for a channel to the process that owns a handle
// (kOpenChannel): one for its own two-way calls, or the one its process sends
// all its one-way calls on, so that they keep the order they were made in
// whichever thread made them. binderd makes a socket pair and hands one end
// to the thread (kChannelReady) and the other to the owner (kChannelOpened,
// with the caller's pid and uid, which the owner trusts instead of anything
// written on the channel). The thread then writes calls without binder objects straight
// to the owner (DirectCall, naming its own handle); the owner asks binderd
// once which of its nodes a handle of that thread names (kResolveReach), so a
// thread reaches only what its process holds; the node stays alive until the
// owner's thread holds it (kHoldingNow). When the handle goes, binderd
// withdraws that answer (kReachRevoked) but keeps the node until the owner
// has taken in the calls already on the channel and says so (kReachDropped):
// a call made before the release still reaches its object, as it would had
// it been queued in binderd. Likewise a one-way channel that binderd closes
// (its caller's process ended) keeps what its calls may reach until the owner
// has taken them all in (kChannelDrained). What binderd must still see goes through it: calls that carry
// binder objects, every call while someone watches the traffic, a reply with
// binder objects (kChannelReply, to the caller's connection), and a call back
// along a chain that ran over a channel (kServingChannel names the channel
// whose call the thread serves, so binderd routes a call back to the thread
// waiting on it).
//
// One-way calls keep their order per sender whichever way they go: a
// thread's direct one-way calls are paid from channel credit that binderd
// reserves in the owner's buffer (kChannelCredit), the owner reports what it
// has finished (kChannelDone, a running total), and a relayed one-way call that
// follows direct ones comes after a fence (kChannelFence, just before it on
// the connection that carries it) that binderd holds it behind until the
// owner has finished them. An owner reports by volume only, since a report
// costs binderd a wake-up and an idle owner one more; binderd asks when it
// needs the total sooner (kProgressWanted): for a call held behind a fence,
// or when a call or a grant would not fit the owner's buffer. The owner
// answers on its control connection at once, and again once it has finished
// what the fence waits for.
// The process goes back to direct calls once binderd says all of its relayed
// one-way calls are done (kChannelQuiet, with their running count).

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace android::hostbinder {

// The platform's per-process transaction buffer.
constexpr size_t kMaxTransactionBytes = 1024 * 1024 - 8 * 1024;
constexpr size_t kMaxQueuedOnewayBytes = kMaxTransactionBytes / 2;
constexpr size_t kMaxObjects = kMaxTransactionBytes / 24;
// Room a sending thread may hold in one receiver's one-way buffer; granted
// only while the buffer is at most half full, so that reservations never make
// a sender fail before the buffer is really short.
constexpr size_t kOnewayCreditBytes = 64 * 1024;
constexpr size_t kCreditGrantCeiling = kMaxQueuedOnewayBytes / 2;
// One-way calls sent to a thread ahead of time, at most: their frames'
// bytes, headers included, and their number.
constexpr size_t kMaxPipelinedBytes = 64 * 1024;
constexpr size_t kMaxPipelinedCalls = 1024;
// What a transaction takes of its receiver's buffer, as the platform's driver
// counts it: the data and the object table each rounded up to 8 bytes, at
// least 8 bytes in all; a one-way call also a fixed amount for the buffer's
// bookkeeping. The platform counts its own struct for that (about a hundred
// bytes); binderd counts what a queued call costs binderd itself, so that
// the bound on one-way bytes bounds its memory too. A one-way credit is spent
// by the same count.
constexpr size_t kOnewayBufferOverhead = 272;
constexpr size_t bufferCharge(size_t dataSize, size_t offsetsCount, bool oneway) {
    const size_t rounded = ((dataSize + 7) & ~size_t{7}) + offsetsCount * sizeof(uint64_t);
    return (rounded < 8 ? 8 : rounded) + (oneway ? kOnewayBufferOverhead : 0);
}
// IBinder::FLAG_ONEWAY, for binderd which does not use the client headers.
constexpr uint32_t kFlagOneway = 1;

enum Command : uint32_t {
    // process -> binderd
    kHelloProcess = 1,   // control connection: HelloProcess
    kHelloThread,        // thread connection: HelloThread
    kEnterLooper,        // empty: this thread serves the pool
    kTransaction,        // TransactionHeader (target = handle) + data + offsets
    kReply,              // TransactionHeader (status) + data + offsets
    kOnewayDone,         // empty: the one-way call delivered last has finished
    kReleaseHandle,      // HandleCount
    kRequestDeath,       // HandleCount (count ignored)
    kClearDeath,         // HandleCount (count ignored)
    kSetMaxThreads,      // u32
    kOnewayCredited,     // control connection: TransactionHeader (one-way, no objects) + data, paid from credit
    kHelloMonitor,       // empty: this connection watches the traffic
    kOpenChannel,        // OpenChannel: a direct channel for this handle, please
    kChannelCredit,      // ChannelCredit: reserve room for the channel's one-way calls
    kChannelDone,        // ChannelProgress: the owner finished this much of the channel's one-way calls (any connection)
    kResolveReach,       // ChannelReach: which node of mine does the peer's handle name?
    kServingChannel,     // u64 channel (0: none): the chain of the call being served ran over it
    kChannelReply,       // ChannelReplyHeader + TransactionHeader (status) + data + offsets
    kChannelFence,       // ChannelProgress, before a relayed one-way call: it waits until the owner finished this much
    kReachDropped,       // ChannelReach: the owner took in every call before a withdrawal and forgot the handle
    kChannelDrained,     // u64 channel, control connection: the owner took in every call of a closed channel
    kReturnCredit,       // CreditReturn, control connection: one-way credit the process gives back
    kHoldingNow,         // empty: the thread holds what binderd handed it (binderd keeps it alive until then)
    // binderd -> process
    kWelcome = 100,         // HelloThread (the session token) to a process; empty to a thread
    kIncomingTransaction,   // TransactionHeader (target = cookie) + data + offsets
    kIncomingReply,         // TransactionHeader (status) + data + offsets
    kTransactionComplete,   // OnewayAccepted: a one-way call was accepted
    kRefused,               // i32 status: nothing was delivered or translated
    kDecNode,               // u64 cookie: drop one strong reference
    kDeadBinder,            // u32 handle
    kSpawnLooper,           // empty
    kCreditRevoked,         // u64: revocations so far; older grants are void
    kConnectionRefused,     // u32 RefusalReason, then binderd closes the connection
    kTrafficRecord,         // TrafficRecord + service name + interface descriptor, to a watcher
    kTrafficLost,           // u64: records dropped since the watcher last heard, to a watcher
    kChannelReady,          // ChannelReady (+ the channel's end when new), to the asking thread
    kChannelOpened,         // ChannelOpened + the channel's end, to the owner's control connection
    kChannelClosed,         // u64 channel, to the control connection of the end that lives on
    kReachRevoked,          // ChannelReach, to the owner's control connection
    kCreditGranted,         // u32 bytes
    kReachResolved,         // u64 cookie of the node
    kIncomingChannelReply,  // ChannelReplyHeader + TransactionHeader (status) + data + offsets
    kChannelQuiet,          // ChannelProgress: relayed one-way calls of the thread all done
    kWatchState,            // u32: 1 while the traffic is watched, then 0
    kProgressWanted,        // ChannelProgress, to the owner's control connection: say kChannelDone now, and again once `total` is reached; channel 0: for every channel, then kChannelDone for channel 0
};

// Frames on a direct channel.
enum DirectCommand : uint32_t {
    kDirectCall = 200,  // DirectCall + data: thread -> owner
    kDirectReply,       // DirectReply + data: owner -> thread
    kDirectHello,       // empty, maybe with a SharedRing's memory and its doorbell (an eventfd), then a ring for replies and its doorbell: thread -> owner, first
    kDirectWelcome,     // u32: kCallRingTaken, kReplyRingTaken: owner -> thread
};

// What a kDirectWelcome says the owner took.
constexpr uint32_t kCallRingTaken = 1;
constexpr uint32_t kReplyRingTaken = 2;

enum RefusalReason : uint32_t {
    kRefusedByPolicy = 1,   // the peer's uid may not use this binderd
    kTooManyConnections,    // a bound on connections of the process, its uid or in total
    kOutOfDescriptors,      // binderd reached its descriptor limit
    kNoHello,               // the hello did not arrive in time
    kNotAllowedToWatch,     // only binderd's own uid and root may watch the traffic
    kEvicted,               // the process held the most of what its uid (or everyone) shares, when it ran out
};
// What a refusal means, for messages.
const char* refusalText(uint32_t reason);

// Transaction codes of the service manager at handle 0 (the platform's
// IServiceManager protocol), spoken by the client and answered by binderd.
enum ServiceManagerCode : uint32_t {
    kGetService = 1,
    kCheckService = 2,
    kAddService = 3,
    kListServices = 4,
    kRegisterForNotifications = 5,
    kUnregisterForNotifications = 6,
    kIsDeclared = 7,
};

// Internal to the client: waitForResponse's way of saying "refused, see the
// status", distinct from every status_t a service can return.
constexpr int32_t kRefusedMarker = INT32_MIN + 100;
// Internal to the client: a call the direct channel did not take, to go
// through binderd instead.
constexpr int32_t kGoRelay = INT32_MIN + 101;

struct FrameHeader {
    uint32_t payloadSize;
    uint32_t command;
};

struct HelloProcess {
    uint32_t maxThreads;
    uint32_t reserved;
};

struct HelloThread {
    uint64_t token;
};

struct HandleCount {
    uint32_t handle;
    uint32_t count;
};

struct CreditReturn {
    uint32_t handle;
    uint32_t bytes;
};

struct OnewayAccepted {
    // Credit for further one-way calls to the same handle, in bytes (0: none)...
    uint32_t creditBytes;
    uint32_t reserved;
    // ...valid while the process has seen no more revocations than this.
    uint64_t revocations;
};

enum TrafficKind : uint32_t {
    kTrafficCall = 1,  // a transaction; one binderd refused is followed by its reply from binderd
    kTrafficReply,     // the answer a caller gets: the receiver's, or binderd's on refusal or death
};

enum TrafficTarget : uint32_t {
    kTargetUnknown = 0,     // a handle the caller does not hold
    kTargetServiceManager,  // handle 0, answered by binderd
    kTargetNode,            // a binder of some process, `node` being its address there
};

// What a watcher hears of one call or reply. The payload goes on with the
// target's service name (nameUnits UTF-16 units; none when the target is not
// registered) and the interface descriptor read from the call's parcel
// (descriptorUnits units; none when the parcel starts with no interface token).
struct TrafficRecord {
    int64_t timeNanos;  // CLOCK_REALTIME
    uint64_t id;        // the call's; its reply carries the same
    uint64_t node;
    uint32_t kind;    // TrafficKind
    uint32_t target;  // TrafficTarget
    uint32_t handle;  // the target as the caller named it
    uint32_t code;    // the call's, in its reply too
    uint32_t flags;   // kFlagOneway
    int32_t status;   // a reply's status_t
    int32_t senderPid;
    uint32_t senderUid;
    int32_t receiverPid;  // 0 when the target is unknown or its owner died
    uint32_t receiverUid;
    uint32_t dataSize;
    uint32_t objects;
    uint16_t nameUnits;
    uint16_t descriptorUnits;
    uint32_t reserved;
};

enum ChannelKind : uint32_t {
    kTwoWayChannel = 0,  // the asking thread's two-way calls
    kOneWayChannel = 1,  // the one-way calls of all threads of the asking process
};

struct OpenChannel {
    uint32_t handle;
    uint32_t kind;  // ChannelKind
};

struct ChannelReady {
    uint64_t channel;
    uint32_t handle;
    uint32_t newDescriptor;  // 1: the channel's end comes with this frame
};

struct ChannelOpened {
    uint64_t channel;
    int32_t peerPid;
    uint32_t peerUid;
};

struct ChannelCredit {
    uint64_t channel;
    uint32_t bytes;
    uint32_t reserved;
};

// A running total on a channel: charge units of one-way calls (sent, or
// finished), or relayed one-way calls (kChannelQuiet).
struct ChannelProgress {
    uint64_t channel;
    uint64_t total;
};

struct ChannelReach {
    uint64_t channel;
    uint32_t handle;
    uint32_t reserved;
};

struct ChannelReplyHeader {
    uint64_t channel;
    uint32_t sequence;
    uint32_t reserved;
};

struct DirectCall {
    uint32_t sequence;
    uint32_t handle;  // the caller's handle
    uint32_t code;
    uint32_t flags;
    uint32_t dataSize;
    uint32_t reserved;
};

struct DirectReply {
    uint32_t sequence;
    int32_t status;
    uint32_t dataSize;
    uint32_t reserved;
};

// One-way calls that go straight to a channel: small enough for one socket
// write that never splits.
constexpr size_t kMaxDirectOnewayBytes = 16 * 1024;

struct TransactionHeader {
    uint64_t target;  // a handle going out, the node's cookie coming in
    uint32_t code;
    uint32_t flags;
    int32_t senderPid;
    uint32_t senderUid;
    int32_t status;
    uint32_t dataSize;
    uint32_t offsetsCount;
    uint32_t reserved;
};

constexpr size_t kMaxPayload = sizeof(TransactionHeader) + kMaxTransactionBytes;

struct Frame {
    uint32_t command = 0;
    const uint8_t* payload = nullptr;
    uint32_t payloadSize = 0;
};

enum class DecodeStatus { kIncomplete, kMalformed, kComplete };

// Takes one frame from the front of `buffer`; on kComplete, `consumed` is the
// frame's whole length and `frame` points into `buffer`.
DecodeStatus decodeFrame(const uint8_t* buffer, size_t size, Frame* frame, size_t* consumed);

struct TransactionView {
    TransactionHeader header;
    const uint8_t* data;
    const uint8_t* offsets;  // offsetsCount little-endian u64, maybe unaligned
};

// Checks the sizes of a transaction or reply payload: data plus object table
// within the limit and exactly filling the payload.
bool parseTransaction(const Frame& frame, TransactionView* view);

// Checks that a fixed-size payload has exactly sizeof(T) bytes and copies it.
template <typename T>
bool parseFixed(const Frame& frame, T* out) {
    if (frame.payloadSize != sizeof(T)) {
        return false;
    }
    std::memcpy(out, frame.payload, sizeof(T));
    return true;
}

// Appends a whole frame to `out`.
void appendFrame(std::vector<uint8_t>* out, uint32_t command, const void* payload, size_t size);
// Appends a transaction or reply frame.
void appendTransaction(std::vector<uint8_t>* out, uint32_t command, const TransactionHeader& header,
                       const uint8_t* data, const uint64_t* offsets);

// Whether the path is the user's explicit choice ($HOSTBINDER_SOCKET).
bool socketChosenByUser();
// Why a client must not connect to `path`, or "" when it may: a socket the
// user chose only has to be a socket; a default one must sit in a folder of
// the user's own (or root's) that no one else can write.
std::string unsafeSocketReason(const std::string& path, bool chosenByUser);

}  // namespace android::hostbinder
