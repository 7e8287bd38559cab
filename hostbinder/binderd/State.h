#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <utils/Errors.h>

#include "Limits.h"
#include "Outbox.h"
#include "protocol/Protocol.h"

namespace android::binderd {

struct Process;
struct Thread;

// A local binder of some process, known to others through handles.
struct Node {
    Process* owner = nullptr;  // null once the owner died
    // The owner's pid and uid, kept after its death: what was charged to it
    // for the node's calls goes back there.
    DriverLedger::Holder ownerHolder;
    uint64_t address = 0;
    uint64_t cookie = 0;
    // Handle entries of other processes plus transactions and deliveries in
    // flight; while non-zero the owner holds one strong reference for them.
    uint32_t refs = 0;
    // Where the node's one-way calls stand: one at a time is out, first
    // waiting in its process's queue for a pool thread, then running on
    // `onewayThread`; the others wait in `onewayQueue`.
    enum class Oneway { kIdle, kQueued, kRunning };
    Oneway oneway = Oneway::kIdle;
    Thread* onewayThread = nullptr;  // kRunning only
    std::deque<std::shared_ptr<struct Transaction>> onewayQueue;
    // (process token, handle) of every pending death request: at most one
    // per process, as each process has one handle for the node.
    std::vector<std::pair<uint64_t, uint32_t>> deathWatchers;
};

struct Transaction {
    uint64_t id = 0;  // binderd's serial number, for watchers
    Thread* from = nullptr;  // the waiting thread; null for one-way or once it left
    // The two-way call its sender was serving when it made this one: the
    // chain along which a call back into a waiting process finds its thread.
    std::weak_ptr<Transaction> parent;
    uint32_t depth = 1;  // two-way calls in the chain, this one included
    // What it holds of its receiver's buffer (the target's owner) until it
    // ends; 0 when nothing (given back, or to the service manager).
    uint32_t charge = 0;
    std::shared_ptr<Node> target;
    hostbinder::TransactionHeader header{};
    std::vector<uint8_t> data;
    std::vector<uint64_t> offsets;
    // Owner-bound binders in the data, kept alive until delivery.
    std::vector<std::shared_ptr<Node>> transit;
    // A one-way call relayed by a process that also has a one-way channel to
    // the receiver: the channel that keeps its order with the direct ones;
    // fenced when its sender announced it (kChannelFence) and counts it.
    uint64_t channel = 0;
    bool fenced = false;
    bool oneway() const { return (header.flags & hostbinder::kFlagOneway) != 0; }
    // Its frame's bytes, headers included, when delivered.
    size_t frameBytes() const {
        return sizeof(hostbinder::FrameHeader) + sizeof(header) + data.size() + offsets.size() * sizeof(uint64_t);
    }
};

// A queued one-way call costs binderd its Transaction in one allocation with
// the shared pointer's counts (and the allocator's header), its place in a
// queue, and the allocator's rounding of its data (up to 24 bytes) and object
// table (up to 16): its buffer charge covers that beyond its data.
static_assert(((sizeof(Transaction) + 16 + 8 + 15) & ~size_t{15}) + sizeof(std::shared_ptr<Transaction>) + 24 + 16 <=
              hostbinder::kOnewayBufferOverhead);

struct HandleRef {
    std::shared_ptr<Node> node;
    uint32_t count = 0;
    bool deathRequested = false;
};

// Room reserved for a process's one-way calls to one handle in the
// receiver's buffer (the node owner's), charged to it while it lasts.
struct OnewayCredit {
    std::shared_ptr<Node> node;
    size_t bytes = 0;
};

// A two-way call a thread made and waits for. Calls delivered to the thread
// since (back along the chain) sit above it in `serving`, and its reply waits
// until they are done.
struct OutgoingCall {
    std::shared_ptr<Transaction> call;
    size_t servingBelow = 0;  // the thread's serving count when it made the call
    // A failure that came while calls above it still ran; OK while waiting.
    status_t failure = OK;
};

struct Thread {
    ConnectionId connection = 0;
    // The two-way channels this thread asked for, one per process it calls.
    std::vector<uint64_t> channels;
    // The channel whose call this thread serves outside binderd's sight: a
    // call it makes continues that call's chain.
    uint64_t servingChannel = 0;
    Process* process = nullptr;
    bool looper = false;
    std::vector<std::shared_ptr<Transaction>> serving;
    // One-way calls of the node being served, sent ahead to run next in
    // order, and their frames' bytes.
    std::deque<std::shared_ptr<Transaction>> pipeline;
    size_t pipelinedBytes = 0;
    // Its outgoing calls, innermost last.
    std::vector<OutgoingCall> awaiting;
    // Owner-bound binders just delivered to this thread, kept alive until it
    // speaks again (by then it holds its own references).
    std::vector<std::shared_ptr<Node>> transit;

    // Whether its latest act was a call it now waits for: it can send
    // nothing until the reply or a call back along the chain comes.
    bool waiting() const { return !awaiting.empty() && awaiting.back().servingBelow == serving.size(); }
};

// One session: a control connection and its threads. The sessions of one pid
// share its holdings (the driver's ledger), its buffer above all.
struct Process {
    uint64_t token = 0;
    pid_t pid = 0;
    uid_t uid = 0;
    // Its pid held the most of something shared when it ran out: the
    // session is ending.
    bool evicted = false;
    ConnectionId control = 0;
    uint32_t maxThreads = 15;
    uint32_t loopers = 0;
    uint32_t pendingSpawns = 0;
    std::map<uint32_t, HandleRef> handles;
    std::map<const Node*, uint32_t> handleOfNode;
    uint32_t nextHandle = 1;
    std::map<uint64_t, std::shared_ptr<Node>> nodes;  // by address
    std::deque<std::shared_ptr<Transaction>> todo;
    std::deque<Thread*> idleLoopers;
    std::vector<Thread*> threads;
    // Its one-way credit, by handle: calls paid from it come on the control
    // connection, one stream for all its threads, so that binderd takes them
    // in the order they were made; credit voided by an owner's death counts
    // in `revocations`, sent to it so far.
    std::map<uint32_t, OnewayCredit> credits;
    uint64_t revocations = 0;
    // Direct channels with this process at either end.
    size_t channels = 0;
    // The channels of its handles (two-way ones of its threads included),
    // and its one-way channel to each process it sends one-way calls to.
    std::vector<uint64_t> heldChannels;
    std::map<const Process*, uint64_t> onewayChannels;
    // The open one-way channels whose calls it serves, and whether it was
    // asked for their progress (its buffer looked full) and has not answered.
    std::vector<uint64_t> servedChannels;
    bool progressAsked = false;

    DriverLedger::Holder holder() const { return {uid, pid}; }
};

// A direct channel to the process that owns what its holder calls: a
// thread's two-way calls, or all one-way calls of a process (one channel
// for all its threads, so that their calls keep the order they were made in).
struct Channel {
    uint64_t id = 0;
    bool oneway = false;
    Process* holder = nullptr;  // whose handles the calls name
    Thread* caller = nullptr;   // the thread of a two-way channel; null once gone
    Process* owner = nullptr;
    // The owner's pid and uid: its credit reserved in the ledger is theirs.
    DriverLedger::Holder ownerHolder;
    // Nodes of the owner that the holder's handles name, as the owner asked,
    // or that a released handle named until the owner took in the calls sent
    // before the release; each node held meanwhile.
    std::map<uint32_t, std::shared_ptr<Node>> reach;
    // One-way channels. Charge units of one-way calls: reserved for the
    // holder in the owner's buffer in all, and reported finished by the
    // owner; the difference is still in the owner's buffer.
    uint64_t granted = 0;
    uint64_t finished = 0;
    // The largest fence the owner was asked to say it reached.
    uint64_t fenceAsked = 0;
    // A relayed one-way call of the holder waits until the owner finished
    // the charge sent directly before it (its fence, announced just before
    // it on the same connection); it and every later one wait in line here.
    // Threads announce and send on connections of their own, so fences may
    // come in before calls of other threads: they are counted, and each call
    // takes one.
    uint64_t fence = 0;
    uint64_t fencesArmed = 0;
    std::deque<std::pair<uint64_t, std::shared_ptr<Transaction>>> held;
    // Fenced one-way calls the holder relayed to the owner: accepted, and finished.
    uint64_t relayedAccepted = 0;
    uint64_t relayedDone = 0;
    // Two-way channels. Stands for the caller's call in the chain of a call
    // its serving thread makes: a call back into the caller's process
    // reaches the caller.
    std::shared_ptr<Transaction> chainLink;
};

// The number for a new entry of a handle table: the next at or after `*next`
// that is neither 0 nor in use, so that numbers that wrapped around never
// overwrite a live entry (a table holds far fewer entries than there are
// numbers).
inline uint32_t newHandleNumber(const std::map<uint32_t, HandleRef>& handles, uint32_t* next) {
    uint32_t number = *next;
    while (number == 0 || handles.count(number) != 0) {
        ++number;
    }
    *next = number + 1;
    return number;
}

}  // namespace android::binderd
