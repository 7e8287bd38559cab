#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <binder/IBinder.h>

namespace android {

class BBinder;
class ChannelHub;
class OnewayChannels;
class OnewayCredits;
class RingBells;

namespace hostbinder {
class Connection;
}

// This process's session with binderd: the control connection (identity,
// thread-pool requests, reference and death notices) and the handle table.
class ProcessState : public virtual RefBase {
public:
    static sp<ProcessState> self();
    static sp<ProcessState> selfOrNull();

    sp<IBinder> getContextObject(const sp<IBinder>& caller);
    void startThreadPool();
    status_t setThreadPoolMaxThreadCount(size_t maxThreads);
    void spawnPooledThread(bool isMain);

    // The one proxy of `handle` in this process, created when needed.
    sp<IBinder> getStrongProxyForHandle(int32_t handle);

    // --- runtime internals used by IPCThreadState and BpBinder ---

    // Connects when needed. Returns the session token and generation, or false
    // when binderd is unreachable.
    bool ensureSession(uint64_t* token, uint64_t* generation);
    uint64_t generation() const;
    // A thread found binderd gone: end the session now rather than when the
    // control connection notices, so that the next use reconnects.
    void sessionBroken(uint64_t generation);
    // Counts one arrival of `handle` in an incoming parcel and gives its proxy.
    sp<IBinder> takeDeliveredHandle(int32_t handle);
    // Called by a proxy that lost its last strong reference.
    void expungeHandle(int32_t handle, IBinder* binder);
    // One strong reference per local binder sent, until binderd hands it back.
    void noteSendRefs(const std::vector<BBinder*>& nodes);
    void dropNodeRef(BBinder* node);
    status_t requestDeathNotification(int32_t handle);
    status_t clearDeathNotification(int32_t handle);
    // The control connection and its session's generation; null when there
    // is no session.
    std::shared_ptr<hostbinder::Connection> control(uint64_t* generation) const;
    OnewayCredits& onewayCredits();
    // Gives back the one-way credit binderd holds for the handle's relayed calls.
    void giveBackOnewayCredit(int32_t handle);
    // The direct channels other processes opened to this one, and this
    // process's one-way channels to others.
    ChannelHub& channels();
    OnewayChannels& onewayChannels();
    // The eventfds of this process's channels' shared rings, bounded.
    RingBells& ringBells();
    // Whether calls may take direct channels: not while someone watches
    // binderd's traffic (every call goes through binderd to be seen), nor
    // when turned off (HOSTBINDER_DIRECT=0 in the environment, or here, for
    // measuring and debugging the relayed path).
    bool directCallsAllowed() const { return mDirectCalls && !mTrafficWatched; }
    void setDirectCalls(bool enabled) { mDirectCalls = enabled; }
    // Why binderd last turned this process away or did not answer it, as
    // logged ("binderd at PATH refused this process: REASON", "binderd at
    // PATH did not answer", ...); "" since a session began, or when binderd
    // was simply not there.
    std::string lastConnectionError() const;
    void noteConnectionError(const std::string& error);

private:
    ProcessState();
    ~ProcessState() override;

    struct HandleEntry {
        wp<IBinder> proxy;
        uint32_t deliveries = 0;
    };

    bool connectLocked();
    status_t sendControl(uint32_t command, const void* payload, size_t size);
    void controlLoop(std::shared_ptr<hostbinder::Connection> control, uint64_t generation);
    // binderd went away: every proxy dies once and the next use reconnects.
    void onSessionLost(uint64_t generation);

    mutable std::mutex mLock;
    std::shared_ptr<hostbinder::Connection> mControl;
    std::condition_variable mSessionEnded;
    uint64_t mToken = 0;
    std::atomic<uint64_t> mGeneration{0};
    std::atomic<bool> mTrafficWatched{false};
    std::atomic<bool> mDirectCalls{true};
    std::unique_ptr<RingBells> mRingBells;  // before the channels that take from it
    std::unique_ptr<ChannelHub> mChannels;
    std::unique_ptr<OnewayChannels> mOnewayChannels;
    std::unique_ptr<OnewayCredits> mOnewayCredits;
    std::string mLastConnectionError;
    std::map<int32_t, HandleEntry> mHandles;
    std::map<BBinder*, uint32_t> mNodeRefs;
    size_t mMaxThreads = 15;
    bool mThreadPoolStarted = false;
    size_t mSpawnedThreads = 0;
};

}  // namespace android
