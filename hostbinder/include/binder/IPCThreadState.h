#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <initializer_list>
#include <map>
#include <memory>
#include <vector>

#include <binder/Parcel.h>
#include <binder/ProcessState.h>

namespace android {

class BBinder;
struct OutgoingChannel;

namespace hostbinder {
struct ChannelProgress;
struct Frame;
struct DirectCall;
struct OnewayAccepted;
struct TransactionHeader;
struct TransactionView;
}

// The calling thread's own connection to binderd: it sends this thread's
// transactions and, while it waits for a reply, serves the calls that come
// back to it (nested calls), as a pool thread does.
class IPCThreadState {
public:
    static IPCThreadState* self();

    sp<ProcessState> process();

    // The sender of the transaction being served on this thread; this
    // process's own identity outside any transaction.
    pid_t getCallingPid() const;
    uid_t getCallingUid() const;

    // Writes what this thread queued for binderd (finished one-way calls).
    void flushCommands();
    void joinThreadPool(bool isMain = true);

    status_t transact(int32_t handle, uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags);

    // --- runtime internals: this process's end of direct channels ---

    // Runs a call that came over channel `channel` (0 for a one-way call)
    // from pid/uid, as binderd named them; `reply` is null for a one-way call.
    status_t executeDirect(pid_t pid, uid_t uid, uint64_t channel, const sp<BBinder>& target, uint32_t code,
                           const Parcel& data, Parcel* reply);
    // Which object of this process the channel's caller names by `handle`,
    // held here before binderd lets go of it.
    status_t resolveReach(uint64_t channel, uint32_t handle, sp<BBinder>* target);
    // A reply with binder objects goes through binderd, which translates them.
    void replyThroughBinderd(uint64_t channel, uint32_t sequence, const Parcel& reply);
    // The channel's one-way calls finished so far; told to binderd with the
    // thread's next frame or flush.
    void noteChannelDone(uint64_t channel, uint64_t total);
    // Whether what it noted is due at binderd before a channel thread sleeps.
    bool channelReportDue() const;
    // The owner took in the channel's calls from before binderd withdrew the
    // handle, and forgot it; told to binderd like noteChannelDone.
    void noteReachDropped(uint64_t channel, uint32_t handle);

    ~IPCThreadState();

private:
    IPCThreadState();

    // Opens (or reopens after binderd went away) this thread's connection.
    bool connect();
    void connectionLost();
    // Whether the connection numbered `serial` is still this thread's.
    bool stillConnected(uint64_t serial) const;
    // Sends the one-way call paid from the process's credit for its handle,
    // when that covers it.
    bool paidFromCredit(const hostbinder::TransactionHeader& header, const Parcel& data,
                        const hostbinder::ChannelProgress* fence);
    // Reads frames until the reply of the pending call arrives, serving any
    // two-way transaction delivered meanwhile; one-way calls sent ahead wait
    // their turn. A one-way call's acceptance (and credit) goes to `accepted`.
    status_t waitForResponse(Parcel* reply, hostbinder::OnewayAccepted* accepted);
    void executeTransaction(const hostbinder::Frame& frame);
    void sendReply(const Parcel& reply, status_t status);
    // The relayed path through binderd.
    status_t transactThroughBinderd(int32_t handle, uint32_t code, const Parcel& data, Parcel* reply,
                                    uint32_t flags);
    // Blocks for a frame on this thread's connection, dealing with those
    // that may come at any time, until one of `wanted` arrives.
    bool awaitFrame(std::initializer_list<uint32_t> wanted, uint32_t* command, std::vector<uint8_t>* payload);
    // Deals with a frame that came outside any exchange; false when it is
    // not one of those.
    bool handleStray(uint32_t command, const std::vector<uint8_t>& payload);
    // Posts what noteChannelDone gathered.
    void postChannelDone();

    // --- calls over direct channels (DirectCalls.cpp) ---
    // Asks binderd for a channel for `handle` of the given kind; null: none.
    std::shared_ptr<OutgoingChannel> openChannel(int32_t handle, uint32_t kind);
    // This thread's two-way channel for `handle`, opened on first use; null:
    // through binderd.
    OutgoingChannel* twoWayChannelFor(int32_t handle);
    // This process's one-way channel for `handle`, opened on first use.
    std::shared_ptr<OutgoingChannel> onewayChannelFor(int32_t handle);
    // kGoRelay when the call should go through binderd instead.
    status_t callDirect(OutgoingChannel& channel, int32_t handle, uint32_t code, const Parcel& data,
                        Parcel* reply);
    status_t sendDirectOneway(int32_t handle, uint32_t code, const Parcel& data);
    status_t pushToRing(OutgoingChannel& channel, const hostbinder::DirectCall& call, const Parcel& data);
    status_t sendOnSocket(OutgoingChannel& channel, const hostbinder::DirectCall& call, const Parcel& data);
    // Before a relayed one-way call: it must not overtake the direct ones.
    // False when the handle has no one-way channel; else `fence` goes just
    // before the call, on the connection that carries it.
    bool fenceRelayedOneway(int32_t handle, hostbinder::ChannelProgress* fence);
    void unfenceRefusedOneway(int32_t handle);
    bool welcomed(OutgoingChannel& channel, bool wait);
    status_t requestCredit(OutgoingChannel& channel, size_t bytes);
    // The channel ended mid-call: the call's status, and later calls go
    // through binderd.
    status_t channelLost(OutgoingChannel& channel, int32_t handle);
    void forgetChannels();
    static void fillParcelFrom(const hostbinder::TransactionView& view, Parcel* parcel);

    sp<ProcessState> mProcess;
    std::unique_ptr<hostbinder::Connection> mConnection;
    uint64_t mGeneration = 0;
    // Counts the connections this thread opened.
    uint64_t mConnectionSerial = 0;
    // Payloads of one-way calls that arrived while this thread waited.
    std::deque<std::vector<uint8_t>> mOnewayAhead;
    status_t mRefusedStatus = OK;
    pid_t mCallingPid;
    uid_t mCallingUid;
    // Calls being served on this thread, and the channel of the one served
    // now when it came directly (0 otherwise), and whether binderd was told.
    int mServingDepth = 0;
    uint64_t mServingChannel = 0;
    bool mServingChannelTold = false;
    // Handles to their channel (null: through binderd), and channels by id.
    std::map<int32_t, std::shared_ptr<OutgoingChannel>> mRoutes;
    std::map<uint64_t, std::shared_ptr<OutgoingChannel>> mChannels;
    std::map<uint64_t, uint64_t> mChannelDone;
    std::map<uint64_t, uint64_t> mChannelPosted;
    std::vector<std::pair<uint64_t, uint32_t>> mReachDropped;
};

}  // namespace android
