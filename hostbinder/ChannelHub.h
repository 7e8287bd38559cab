#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include <binder/Binder.h>

#include "OnewayTurns.h"
#include "RingBells.h"
#include "protocol/ChannelIo.h"
#include "protocol/SharedRing.h"

namespace android {

// The ends of direct channels that other processes' threads opened to this
// one, and the threads that serve them. All idle channel threads wait on one
// epoll set, each channel held by one reader at a time (an event for a held
// channel has its holder go round again), so a channel's calls run in the
// order written.
//
// A call names the caller's handle; which object of this process it reaches
// is binderd's answer (asked once, remembered until binderd withdraws it),
// never the caller's say. The caller's pid and uid are binderd's too.
class ChannelHub {
public:
    // `tell` writes a frame to binderd on the control connection: that a
    // channel binderd closed has nothing left on it, or progress it asked for.
    ChannelHub(RingBells& bells, std::function<void(uint32_t command, const void* payload, size_t size)> tell);
    ~ChannelHub();
    ChannelHub(const ChannelHub&) = delete;
    ChannelHub& operator=(const ChannelHub&) = delete;

    // From the control connection. `maxThreads` bounds the channel threads.
    void open(uint64_t id, int fd, pid_t peerPid, uid_t peerUid, size_t maxThreads);
    // The caller's end is gone: its calls already sent still run.
    void close(uint64_t id);
    void revoke(uint64_t id, uint32_t handle);
    // binderd asks how much of the channel's one-way calls ran: told at
    // once, and again once `total` is reached.
    void progressWanted(uint64_t id, uint64_t total);
    // binderd asks for every channel's total that changed since told; the
    // answer ends with channel 0's.
    void everyProgressWanted();
    // binderd went: every channel ends.
    void closeAll();

    OnewayTurns& turns() { return mTurns; }

private:
    struct Channel {
        explicit Channel(ChannelHub& hub) : hub(hub) {}
        ~Channel();
        ChannelHub& hub;
        uint64_t id = 0;
        int fd = -1;
        pid_t peerPid = 0;
        uid_t peerUid = 0;
        // Only the thread holding the channel reads these.
        hostbinder::FrameReader reader{hostbinder::kMaxDescriptorsPerFrame};
        std::unique_ptr<hostbinder::SharedRing> ring;
        RingBells::Bell doorbell;  // rings when the caller's calls come
        // A two-way channel's replies, and the caller's doorbell.
        std::unique_ptr<hostbinder::SharedRing> replies;
        RingBells::Bell replyBell;
        std::vector<uint8_t> ringFrame;
        // What handles of the caller name here, as binderd answered; only the
        // thread holding the channel reads or changes it.
        std::map<uint32_t, sp<BBinder>> reach;
        // Under the hub's lock: whether a thread holds the channel, and the
        // handles binderd withdrew, to forget once the calls before are in.
        bool held = false;
        std::vector<uint32_t> revoked;
        // binderd closed it: what is on it is taken in, then it goes.
        bool closing = false;
        // Its doorbell rang, or bytes came on its socket, while a thread held
        // it: that thread goes round again, reading both.
        bool stirred = false;
        // Charge units of the channel's one-way calls finished; the total
        // binderd waits to hear of (0: none); and the last total told on
        // the control connection.
        std::atomic<uint64_t> finished{0};
        std::atomic<uint64_t> wanted{0};
        std::atomic<uint64_t> told{0};
        // What its reader holds beyond its usual size, for a large call.
        size_t largeBytes = 0;
    };

    void work();
    // Serves the claimed channel, forgets what binderd withdrew, and lets
    // the channel go. Woken by its doorbell alone, it looks at the ring only.
    void serveClaimed(const std::shared_ptr<Channel>& channel, bool readSocket);
    // Runs the calls the channel has now; false when it ended.
    bool serve(const std::shared_ptr<Channel>& channel, bool readSocket);
    // The one-way calls waiting in the channel's ring, in order.
    bool drainRing(const std::shared_ptr<Channel>& channel);
    bool serveFrame(const std::shared_ptr<Channel>& channel, const hostbinder::Frame& frame);
    bool welcome(Channel& channel);
    bool serveCall(const std::shared_ptr<Channel>& channel, const hostbinder::Frame& frame);
    // Sends a two-way call's reply: in the ring when it fits, else on the socket.
    bool sendReply(Channel& channel, const hostbinder::DirectReply& header, const uint8_t* data);
    sp<BBinder> reach(Channel& channel, uint32_t handle, status_t* status);
    // Counts a one-way call of the channel as finished.
    void finishOneway(Channel& channel, uint64_t charge);
    void tellProgress(Channel& channel, uint64_t total);
    // Arms the one-shot attention event (EPOLL_CTL_ADD the first time, then MOD).
    void armAttention(int operation);
    // Has a thread serve the channel soon; under mLock.
    void attend(Channel& channel);
    void forget(uint64_t id);

    RingBells& mBells;
    const std::function<void(uint32_t, const void*, size_t)> mTell;
    const int mEpoll;
    // Wakes a thread to serve the channels in mAttention: a withdrawal for a
    // channel nobody holds must not wait for the channel's next call.
    const int mAttentionEvent;
    std::vector<uint64_t> mAttention;
    std::mutex mLock;
    std::map<uint64_t, std::shared_ptr<Channel>> mChannels;
    size_t mThreads = 0;
    size_t mIdleThreads = 0;
    size_t mMaxThreads = 1;
    // Large calls read in part, over all channels: a caller cannot make this
    // process hold more; the channel that would go beyond is closed.
    size_t mLargeBytes = 0;
    OnewayTurns mTurns;
};

}  // namespace android
