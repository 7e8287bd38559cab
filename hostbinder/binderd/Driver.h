#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <utils/Errors.h>

#include "Outbox.h"
#include "ServiceManager.h"
#include "State.h"
#include "TrafficReport.h"

namespace android::binderd {

// The driver's whole state and behaviour, fed one frame at a time by the event
// loop: sessions, routing of transactions, object translation, references,
// death notices, the service manager at handle 0 and reports to the
// connections watching the traffic.
class Driver : private ServiceManager::Host {
public:
    using Clock = std::chrono::steady_clock;

    // `owner` (with root) may watch the traffic.
    Driver(Outbox& outbox, bool verbose, uid_t owner = geteuid());
    ~Driver();

    void onConnect(ConnectionId id, pid_t pid, uid_t uid);
    // False when the frame breaks the protocol: the caller cuts the connection.
    bool onFrame(ConnectionId id, const hostbinder::Frame& frame);
    void onDisconnect(ConnectionId id);

    // Bounded waits (getService) that are due.
    void expireTimers(Clock::time_point now) { mServices.expireTimers(now); }
    // When expireTimers next has work; max() when nothing waits.
    Clock::time_point nextDeadline() const { return mServices.nextDeadline(); }

    // "" when every table agrees with every counter, else the first
    // disagreement found (a bug in the driver, whatever its peers did).
    std::string checkInvariants() const;
    // What every process holds, by pid, uid and in total.
    const DriverLedger& holdings() const { return mLedger; }
    // About how many bytes of binderd's memory the holdings stand for.
    size_t heldBytes() const;

    // Once a round: watchers that lost records hear how many, where there is room.
    void catchUpWatchers() {
        if (mTraffic.watched()) {
            mTraffic.catchUp();
        }
    }

private:
    struct Peer {
        pid_t pid = 0;
        uid_t uid = 0;
        Process* process = nullptr;  // set for a control connection
        Thread* thread = nullptr;    // set for a thread connection
        bool watcher = false;        // set for a connection watching the traffic
    };

    // --- sessions (Driver.cpp) ---
    bool startSession(ConnectionId id, Peer& peer, const hostbinder::Frame& frame);
    bool onControlFrame(Process& process, const hostbinder::Frame& frame);
    bool onThreadFrame(Thread& thread, const hostbinder::Frame& frame);
    void processDied(Process& process);
    void threadGone(Thread& thread);
    // Takes in what the process's threads wrote so far. Draining hands their
    // frames to this driver now, re-entrantly: a drained frame may end one of
    // these threads (so callers look threads up again by connection), never
    // the process.
    void drainThreads(const Process& process);

    // --- routing (Routing.cpp) ---
    bool startTransaction(Thread& thread, const hostbinder::TransactionView& view);
    // A copy of the sender's parcel for the target's owner, holding the node.
    std::shared_ptr<Transaction> makeTransaction(Process& sender, const std::shared_ptr<Node>& target,
                                                 const hostbinder::TransactionView& view,
                                                 std::vector<std::shared_ptr<Node>>* transit);
    // The thread now waits for `call`, above whatever it serves.
    void awaitReply(Thread& thread, const std::shared_ptr<Transaction>& call);
    bool finishReply(Thread& thread, const hostbinder::TransactionView& view);
    // The reply goes to its caller when the call is the caller's innermost
    // level; otherwise the call fails once the caller is back at it.
    void deliverReply(Transaction& call, status_t status, Process* from, const hostbinder::TransactionView* view);
    // The thread finished a call it served: the failure of the call it is
    // back to waiting for, if one came meanwhile, goes out now.
    void resumeWaiting(Thread& thread);
    void enqueueWork(Process& process, const std::shared_ptr<Transaction>& transaction);
    void deliver(Thread& thread, const std::shared_ptr<Transaction>& transaction);
    // Owner-bound binders of a transaction the thread is about to run stay
    // alive until the thread speaks again.
    void keepTransit(Thread& thread, Transaction& transaction);
    void sendIncoming(Thread& thread, const Transaction& transaction);
    void becomeIdle(Thread& thread);
    // The call goes no further: the sender hears `status`. `target` is null
    // when the handle names nothing.
    void refuse(Thread& thread, const hostbinder::TransactionView& view, const Node* target, status_t status);
    void abandon(const std::shared_ptr<Transaction>& transaction);
    void releaseTransit(Thread& thread);

    // --- what processes hold (Holdings.cpp) ---
    // Whether `amount` more of `kind` fits for the process. Where a shared
    // bound would be crossed, the pid holding the most gives way (its
    // sessions end, after the frame) unless that is the taker's own.
    bool makeRoom(const Process& taker, Holding kind, size_t amount);
    // A check alone: true only when it fits with no one giving way.
    bool fits(const Process& taker, Holding kind, size_t amount) const;
    // Whether one-way credit of `oneway` bytes may be reserved in the
    // receiver's buffer ahead of need (Ledger::fitsAhead).
    bool fitsAhead(const Process& receiver, size_t oneway) const;
    void evict(const DriverLedger::Holder& victim, Holding kind);
    // Whether the receiver's buffer takes a transaction charged `charge`
    // bytes: everything pending within the platform's per-process buffer,
    // one-way within half, and within its uid's and everyone's bounds.
    bool roomInBuffer(Process& receiver, size_t charge, bool oneway);
    // The transaction holds `charge` bytes of its target owner's buffer
    // until releaseCharge (when it ends, whatever way).
    void chargeBuffer(Transaction& transaction, size_t charge);
    void releaseCharge(Transaction& transaction);
    // Credit held in a receiver's buffer, taken and given back.
    void reserveCredit(OnewayCredit& credit, size_t bytes);
    void releaseCredit(OnewayCredit& credit, size_t bytes);
    // A two-way call ended: its bytes leave the receiver's buffer.
    void releaseCall(Transaction& call) { releaseCharge(call); }

    // --- one-way calls (Oneway.cpp) ---
    // Queues an accepted one-way call and tells the sender, granting credit
    // while the receiver's buffer has room to spare.
    void acceptOneway(Thread& sender, uint32_t handle, const std::shared_ptr<Transaction>& transaction);
    // A one-way call paid from the process's credit, on its control connection.
    bool startCreditedOneway(Process& process, const hostbinder::TransactionView& view);
    bool returnCredit(Process& process, const hostbinder::CreditReturn& given);
    // What is left of the process's credit for a handle it no longer holds.
    void endCredit(Process& process, uint32_t handle);
    // Voids every credit for the dying process's nodes, telling the holders.
    void revokeCreditsOn(const Process& dying);
    void queueOneway(const std::shared_ptr<Transaction>& transaction);
    // Starts the call now if its node is free, else queues it behind the node's.
    void dispatchOneway(const std::shared_ptr<Transaction>& transaction);
    // Sends the node's waiting calls ahead to the thread serving it.
    void fillPipeline(Node& node);
    bool finishOneway(Thread& thread);
    // The node's previous one-way call is over: start the next one.
    void advanceOneway(Node& node);
    void retireOneway(Transaction& transaction);
    void requeuePipeline(Thread& thread);

    // --- objects and references (References.cpp) ---
    // Every object well formed and naming what the sender may name, and room
    // for them in both processes' tables.
    bool objectsValid(const Process& from, const Process& to, const hostbinder::TransactionView& view);
    bool objectsWellFormed(const Process& from, const hostbinder::TransactionView& view) const;
    bool roomForObjects(const Process& from, const Process& to, size_t count);
    // Copies the parcel for `to`, translating every object; owner-bound
    // binders are kept alive in `transit`.
    void translate(Process& from, Process& to, const hostbinder::TransactionView& view, Transaction* out,
                   std::vector<std::shared_ptr<Node>>* transit);
    // For a valid parcel dropped undelivered: the references the sender gave
    // with its own binders go back.
    void returnSendRefs(const Process& from, const hostbinder::TransactionView& view);
    std::shared_ptr<Node> nodeFor(Process& owner, uint64_t address, uint64_t cookie);
    uint32_t addHandleRef(Process& process, const std::shared_ptr<Node>& node);
    // The node leaves its owner's table.
    void forgetNode(Process& owner, std::map<uint64_t, std::shared_ptr<Node>>::iterator node);
    bool releaseHandle(Process& process, uint32_t handle, uint32_t count);
    void takeNodeRef(Node& node);
    void dropNodeRef(const std::shared_ptr<Node>& node);
    void sendDecNode(const Node& node);
    bool requestDeath(Process& process, uint32_t handle);
    bool clearDeath(Process& process, uint32_t handle);
    void notifyDeath(Node& node);

    // --- direct channels (Channels.cpp) ---
    bool onChannelFrame(Thread& thread, const hostbinder::Frame& frame);
    void openChannel(Thread& thread, uint32_t handle, bool oneway);
    void grantChannelCredit(Thread& thread, const hostbinder::ChannelCredit& request);
    bool fenceOneway(Process& process, const hostbinder::ChannelProgress& progress);
    // Credit reserved in the owner's buffer for the channel goes back.
    void giveBackCredit(Channel& channel, uint64_t bytes);
    bool channelDone(Process& owner, const hostbinder::ChannelProgress& progress);
    // Asks the owner for the totals of its channels, before its buffer is
    // judged full again; one question at a time.
    void askForProgress(Process& owner);
    // Asks the owner to say when it finished what the channel's first
    // held call waits for.
    void askForFence(Channel& channel);
    void resolveReach(Thread& thread, const hostbinder::ChannelReach& request);
    bool channelReply(Thread& thread, const hostbinder::TransactionView& view);
    // The channel `owner` owns the far end of, if any.
    Channel* ownedChannel(const Process& owner, uint64_t id);
    // The one-way channel of `thread`'s process, if `id` names it.
    Channel* onewayChannelOf(const Thread& thread, uint64_t id);
    Channel* onewayChannelTo(const Process& holder, const Process& owner);
    // The link that makes calls of a thread serving the channel's call part
    // of the caller's chain.
    std::shared_ptr<Transaction> chainLinkOf(Channel& channel);
    // Whether a relayed one-way call waits in its channel's line; takes it if so.
    bool holdBehindChannel(const std::shared_ptr<Transaction>& transaction);
    void releaseHeld(Channel& channel);
    void relayedOnewayDone(const Transaction& transaction);
    // The handle of `holder` goes: owners stop honouring it on channels once
    // they took in the calls already sent.
    void revokeReach(Process& holder, const std::shared_ptr<Node>& node, uint32_t handle);
    Channel* channel(uint64_t id);
    void closeChannel(uint64_t id, bool ownerDying);
    // A closed one-way channel whose owner took in all its calls.
    void drainedChannel(const Process& owner, uint64_t id);
    // Every channel the process holds or owns.
    void closeChannelsOf(const Process& process);
    void broadcastWatchState();

    // --- reports to watchers (Traffic.cpp), called only while watched ---
    bool startWatching(ConnectionId id, Peer& peer, const hostbinder::Frame& frame);
    void reportCall(const Process& sender, const Transaction& call, uint32_t handle);
    void reportReply(const Transaction& call, status_t status, const Process* from, const Process& to,
                     const hostbinder::TransactionView* view);
    void reportRefusal(const Thread& thread, const hostbinder::TransactionView& view, const Node* target,
                       status_t status);
    // Fills in the record's target and returns its service name, if any.
    const std::u16string* describeTarget(const Node* target, hostbinder::TrafficRecord* record) const;

    // --- the service manager's host (ServiceManagerHost.cpp) ---
    bool takeOne(const Process& process, Holding kind) override;
    void giveBack(const DriverLedger::Holder& holder, Holding kind, size_t amount) override;
    void releaseServiceHandle(uint32_t handle, uint32_t count) override;
    const Process* ownerOf(uint32_t handle) const override;
    void reply(Thread& caller, const std::shared_ptr<Transaction>& request, const hostbinder::ParcelWriter& reply,
               status_t status) override;
    void sendOneway(uint32_t handle, uint32_t code, const hostbinder::ParcelWriter& data) override;

    Outbox& mOutbox;
    const bool mVerbose;
    DriverLedger mLedger{kHoldingBounds};
    Clock::time_point mLastEvictionWarning;
    std::mt19937_64 mTokens;
    std::map<ConnectionId, Peer> mPeers;
    std::map<uint64_t, std::unique_ptr<Process>> mProcesses;  // by token
    std::map<ConnectionId, std::unique_ptr<Thread>> mThreads;
    // The service manager is a process without connections: its handle table
    // holds the registered binders, and handle 0 of everyone is its node.
    Process mServiceManager;
    std::shared_ptr<Node> mContextNode;
    ServiceManager mServices{*this};
    TrafficReport mTraffic;
    uint64_t mLastTransactionId = 0;
    std::map<uint64_t, std::unique_ptr<Channel>> mChannels;
    // Closed one-way channels whose owner has not taken in all their calls
    // yet: only what they may reach is kept, with the owner.
    std::map<uint64_t, std::unique_ptr<Channel>> mDrainingChannels;
    std::map<uid_t, size_t> mChannelsOfUid;
    uint64_t mLastChannelId = 0;
};

}  // namespace android::binderd
