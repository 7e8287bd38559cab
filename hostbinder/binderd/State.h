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

#include "Outbox.h"
#include "protocol/Protocol.h"

namespace android::binderd {

struct Process;
struct Thread;

// A local binder of some process, known to others through handles.
struct Node {
    Process* owner = nullptr;  // null once the owner died
    uint64_t address = 0;
    uint64_t cookie = 0;
    // Handle entries of other processes plus transactions and deliveries in
    // flight; while non-zero the owner holds one strong reference for them.
    uint32_t refs = 0;
    bool onewayBusy = false;
    // The thread running the node's current one-way call, once delivered.
    Thread* onewayThread = nullptr;
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
    std::shared_ptr<Node> target;
    hostbinder::TransactionHeader header{};
    std::vector<uint8_t> data;
    std::vector<uint64_t> offsets;
    // Owner-bound binders in the data, kept alive until delivery.
    std::vector<std::shared_ptr<Node>> transit;
    // A two-way call counted in its receiver's pendingBytes until it ends.
    bool charged = false;
    // A one-way call relayed by a process that also has a one-way channel to
    // the receiver: the channel that keeps its order with the direct ones;
    // fenced when its sender announced it (kChannelFence) and counts it.
    uint64_t channel = 0;
    bool fenced = false;
    bool oneway() const { return (header.flags & 1u) != 0; }
    size_t size() const { return data.size() + offsets.size() * sizeof(uint64_t); }
};

struct HandleRef {
    std::shared_ptr<Node> node;
    uint32_t count = 0;
    bool deathRequested = false;
};

// Room reserved for a thread's one-way calls in the receiver's buffer.
struct OnewayCredit {
    std::shared_ptr<Node> node;  // null: no credit
    uint32_t handle = 0;
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
    bool idle = false;
    std::vector<std::shared_ptr<Transaction>> serving;
    // One-way calls of the node being served, sent ahead to run next in order.
    std::deque<std::shared_ptr<Transaction>> pipeline;
    size_t pipelinedBytes = 0;
    OnewayCredit credit;
    // Its outgoing calls, innermost last.
    std::vector<OutgoingCall> awaiting;
    // Owner-bound binders just delivered to this thread, kept alive until it
    // speaks again (by then it holds its own references).
    std::vector<std::shared_ptr<Node>> transit;

    // Whether its latest act was a call it now waits for: it can send
    // nothing until the reply or a call back along the chain comes.
    bool waiting() const { return !awaiting.empty() && awaiting.back().servingBelow == serving.size(); }
};

struct Process {
    uint64_t token = 0;
    pid_t pid = 0;
    uid_t uid = 0;
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
    // Two-way calls queued for or delivered to this process and not yet
    // answered; one-way calls accepted for it and not yet finished; and the
    // credit other threads hold for more. Together they are its buffer.
    size_t pendingBytes = 0;
    size_t queuedOnewayBytes = 0;
    size_t reservedOnewayBytes = 0;
    // getService calls of this process waiting for a name.
    size_t lookupWaiters = 0;
    // Credit revocations sent to this process so far.
    uint64_t revocations = 0;
    // Direct channels with this process at either end.
    size_t channels = 0;
    // The channels of its handles (two-way ones of its threads included),
    // and its one-way channel to each process it sends one-way calls to.
    std::vector<uint64_t> heldChannels;
    std::map<const Process*, uint64_t> onewayChannels;
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
    // Nodes of the owner that the holder's handles name, as the owner asked,
    // or that a released handle named until the owner took in the calls sent
    // before the release; each node held meanwhile.
    std::map<uint32_t, std::shared_ptr<Node>> reach;
    // One-way channels. Charge units of one-way calls: reserved for the
    // holder in the owner's buffer in all, and reported finished by the
    // owner; the difference is still in the owner's buffer.
    uint64_t granted = 0;
    uint64_t finished = 0;
    // A relayed one-way call of the holder waits until the owner finished
    // the charge sent directly before it (its fence, announced just before
    // it); it and every later one wait in line here.
    uint64_t fence = 0;
    bool fenceArmed = false;
    std::deque<std::pair<uint64_t, std::shared_ptr<Transaction>>> held;
    // Fenced one-way calls the holder relayed to the owner: accepted, and finished.
    uint64_t relayedAccepted = 0;
    uint64_t relayedDone = 0;
    // Two-way channels. Stands for the caller's call in the chain of a call
    // its serving thread makes: a call back into the caller's process
    // reaches the caller.
    std::shared_ptr<Transaction> chainLink;
};

}  // namespace android::binderd
