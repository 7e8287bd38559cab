#include <binder/ProcessState.h>

#include <cstdlib>
#include <cstring>

#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <hostbinder/Socket.h>
#include <log/log.h>

#include "ChannelHub.h"
#include "RingBells.h"
#include "OnewayChannels.h"
#include "OnewayCredits.h"
#include "protocol/Connection.h"

namespace android {

using hostbinder::Connection;

namespace {
constexpr const char* kTag = "hostbinder";
}  // namespace

sp<ProcessState> ProcessState::self() {
    // Never destroyed: pool threads and proxies may outlive static teardown.
    static ProcessState* const instance = [] {
        auto* state = new ProcessState();
        state->incStrong(state);
        return state;
    }();
    return instance;
}

sp<ProcessState> ProcessState::selfOrNull() { return self(); }

ProcessState::ProcessState()
    : mRingBells(std::make_unique<RingBells>()),
      mChannels(std::make_unique<ChannelHub>(*mRingBells,
                                             [this](uint32_t command, const void* payload, size_t size) {
                                                 sendControl(command, payload, size);
                                             })),
      mOnewayChannels(std::make_unique<OnewayChannels>()),
      mOnewayCredits(std::make_unique<OnewayCredits>()) {
    const char* direct = std::getenv("HOSTBINDER_DIRECT");
    mDirectCalls = direct == nullptr || std::strcmp(direct, "0") != 0;
}
ProcessState::~ProcessState() = default;

sp<IBinder> ProcessState::getContextObject(const sp<IBinder>& /*caller*/) { return getStrongProxyForHandle(0); }

bool ProcessState::connectLocked() {
    const std::string path = hostbinder::defaultSocketPath();
    std::string error = hostbinder::unsafeSocketReason(path, hostbinder::socketChosenByUser());
    if (!error.empty()) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "not using binderd at %s: %s", path.c_str(), error.c_str());
        mLastConnectionError = "not using binderd at " + path + ": " + error;
        return false;
    }
    const hostbinder::HelloProcess hello{static_cast<uint32_t>(mMaxThreads), 0};
    std::vector<uint8_t> payload;
    hostbinder::HelloThread welcome{};
    std::shared_ptr<Connection> control =
        Connection::connect(path, hostbinder::kHelloProcess, &hello, sizeof(hello), &payload, &error);
    if (!error.empty()) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%s", error.c_str());
    }
    mLastConnectionError = error;
    if (control == nullptr || payload.size() != sizeof(welcome)) {
        return false;
    }
    std::memcpy(&welcome, payload.data(), sizeof(welcome));
    mControl = control;
    mToken = welcome.token;
    const uint64_t generation = ++mGeneration;
    mSpawnedThreads = 0;
    std::thread(&ProcessState::controlLoop, this, control, generation).detach();
    return true;
}

bool ProcessState::ensureSession(uint64_t* token, uint64_t* generation) {
    bool restartPool = false;
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mControl == nullptr) {
            if (!connectLocked()) {
                return false;
            }
            restartPool = mThreadPoolStarted;
        }
        *token = mToken;
        *generation = mGeneration;
    }
    if (restartPool) {
        spawnPooledThread(true);
    }
    return true;
}

uint64_t ProcessState::generation() const { return mGeneration; }

void ProcessState::sessionBroken(uint64_t generation) {
    // The control thread reports the loss (recipients hear of it on that
    // binder thread); this thread only hurries it along.
    std::unique_lock<std::mutex> lock(mLock);
    if (mGeneration != generation || mControl == nullptr) {
        return;
    }
    mControl->shutdown();
    mSessionEnded.wait_for(lock, std::chrono::seconds(2),
                           [&] { return mGeneration != generation || mControl == nullptr; });
}

void ProcessState::startThreadPool() {
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mThreadPoolStarted) {
            return;
        }
        mThreadPoolStarted = true;
    }
    spawnPooledThread(true);
}

status_t ProcessState::setThreadPoolMaxThreadCount(size_t maxThreads) {
    uint32_t count = 0;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mMaxThreads = maxThreads;
        count = static_cast<uint32_t>(maxThreads);
    }
    // Before the first connection the count travels in the hello.
    const status_t status = sendControl(hostbinder::kSetMaxThreads, &count, sizeof(count));
    return status == DEAD_OBJECT ? OK : status;
}

void ProcessState::spawnPooledThread(bool isMain) {
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (!isMain && mSpawnedThreads >= mMaxThreads) {
            return;
        }
        ++mSpawnedThreads;
    }
    std::thread([isMain] { IPCThreadState::self()->joinThreadPool(isMain); }).detach();
}

sp<IBinder> ProcessState::getStrongProxyForHandle(int32_t handle) {
    std::lock_guard<std::mutex> lock(mLock);
    HandleEntry& entry = mHandles[handle];
    sp<IBinder> proxy = entry.proxy.promote();
    if (proxy == nullptr) {
        proxy = BpBinder::create(handle);
        entry.proxy = proxy;
    }
    return proxy;
}

sp<IBinder> ProcessState::takeDeliveredHandle(int32_t handle) {
    std::lock_guard<std::mutex> lock(mLock);
    HandleEntry& entry = mHandles[handle];
    ++entry.deliveries;
    sp<IBinder> proxy = entry.proxy.promote();
    if (proxy == nullptr) {
        proxy = BpBinder::create(handle);
        entry.proxy = proxy;
    }
    return proxy;
}

void ProcessState::expungeHandle(int32_t handle, IBinder* binder) {
    hostbinder::HandleCount release{static_cast<uint32_t>(handle), 0};
    // The session the handle belongs to.
    std::shared_ptr<Connection> control;
    uint64_t generation = 0;
    {
        std::lock_guard<std::mutex> lock(mLock);
        auto it = mHandles.find(handle);
        // A newer proxy may already have replaced this one for the handle.
        if (it == mHandles.end() || it->second.proxy != binder) {
            return;
        }
        release.count = it->second.deliveries;
        mHandles.erase(it);
        control = mControl;
        generation = mGeneration;
    }
    if (control != nullptr) {
        // Credit for the handle goes back first, after the calls paid from it.
        mOnewayCredits->giveBack(*control, generation, handle);
        if (release.count > 0) {
            control->send(hostbinder::kReleaseHandle, &release, sizeof(release));
        }
    }
}

void ProcessState::noteSendRefs(const std::vector<BBinder*>& nodes) {
    std::lock_guard<std::mutex> lock(mLock);
    for (BBinder* node : nodes) {
        node->incStrong(this);
        ++mNodeRefs[node];
    }
}

void ProcessState::dropNodeRef(BBinder* node) {
    {
        std::lock_guard<std::mutex> lock(mLock);
        auto it = mNodeRefs.find(node);
        if (it == mNodeRefs.end()) {
            return;
        }
        if (--it->second == 0) {
            mNodeRefs.erase(it);
        }
    }
    node->decStrong(this);
}

status_t ProcessState::requestDeathNotification(int32_t handle) {
    const hostbinder::HandleCount request{static_cast<uint32_t>(handle), 0};
    return sendControl(hostbinder::kRequestDeath, &request, sizeof(request));
}

status_t ProcessState::clearDeathNotification(int32_t handle) {
    const hostbinder::HandleCount request{static_cast<uint32_t>(handle), 0};
    return sendControl(hostbinder::kClearDeath, &request, sizeof(request));
}

std::shared_ptr<Connection> ProcessState::control(uint64_t* generation) const {
    std::lock_guard<std::mutex> lock(mLock);
    *generation = mGeneration;
    return mControl;
}

OnewayCredits& ProcessState::onewayCredits() { return *mOnewayCredits; }

ChannelHub& ProcessState::channels() { return *mChannels; }

RingBells& ProcessState::ringBells() { return *mRingBells; }

OnewayChannels& ProcessState::onewayChannels() { return *mOnewayChannels; }
std::string ProcessState::lastConnectionError() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mLastConnectionError;
}

void ProcessState::noteConnectionError(const std::string& error) {
    std::lock_guard<std::mutex> lock(mLock);
    mLastConnectionError = error;
}

void ProcessState::giveBackOnewayCredit(int32_t handle) {
    uint64_t generation = 0;
    if (const std::shared_ptr<Connection> control = this->control(&generation)) {
        mOnewayCredits->giveBack(*control, generation, handle);
    }
}

status_t ProcessState::sendControl(uint32_t command, const void* payload, size_t size) {
    uint64_t generation = 0;
    const std::shared_ptr<Connection> control = this->control(&generation);
    if (control == nullptr || !control->send(command, payload, size)) {
        return DEAD_OBJECT;
    }
    return OK;
}

void ProcessState::controlLoop(std::shared_ptr<Connection> control, uint64_t generation) {
    uint32_t command = 0;
    std::vector<uint8_t> payload;
    while (control->receive(&command, &payload)) {
        if (command == hostbinder::kSpawnLooper) {
            spawnPooledThread(false);
        } else if (command == hostbinder::kDecNode && payload.size() == sizeof(uint64_t)) {
            uint64_t cookie = 0;
            std::memcpy(&cookie, payload.data(), sizeof(cookie));
            dropNodeRef(reinterpret_cast<BBinder*>(cookie));
        } else if (command == hostbinder::kCreditRevoked && payload.size() == sizeof(uint64_t)) {
            uint64_t revocations = 0;
            std::memcpy(&revocations, payload.data(), sizeof(revocations));
            mOnewayCredits->revoked(generation, revocations);
        } else if (command == hostbinder::kChannelOpened) {
            hostbinder::ChannelOpened opened{};
            const int fd = control->takeDescriptor();
            if (fd >= 0 && payload.size() == sizeof(opened)) {
                std::memcpy(&opened, payload.data(), sizeof(opened));
                size_t maxThreads = 0;
                {
                    std::lock_guard<std::mutex> lock(mLock);
                    maxThreads = mMaxThreads;
                }
                mChannels->open(opened.channel, fd, opened.peerPid, opened.peerUid, maxThreads);
            } else if (fd >= 0) {
                close(fd);
            }
        } else if (command == hostbinder::kChannelClosed && payload.size() == sizeof(uint64_t)) {
            uint64_t channel = 0;
            std::memcpy(&channel, payload.data(), sizeof(channel));
            // This process is one of the two ends: the owner's, or a caller's.
            mChannels->close(channel);
            mOnewayChannels->voided(channel);
        } else if (command == hostbinder::kReachRevoked && payload.size() == sizeof(hostbinder::ChannelReach)) {
            hostbinder::ChannelReach revoked{};
            std::memcpy(&revoked, payload.data(), sizeof(revoked));
            mChannels->revoke(revoked.channel, revoked.handle);
        } else if (command == hostbinder::kProgressWanted &&
                   payload.size() == sizeof(hostbinder::ChannelProgress)) {
            hostbinder::ChannelProgress wanted{};
            std::memcpy(&wanted, payload.data(), sizeof(wanted));
            if (wanted.channel == 0) {
                mChannels->everyProgressWanted();
            } else {
                mChannels->progressWanted(wanted.channel, wanted.total);
            }
        } else if (command == hostbinder::kChannelQuiet && payload.size() == sizeof(hostbinder::ChannelProgress)) {
            hostbinder::ChannelProgress quiet{};
            std::memcpy(&quiet, payload.data(), sizeof(quiet));
            mOnewayChannels->quiet(quiet.channel, quiet.total);
        } else if (command == hostbinder::kWatchState && payload.size() == sizeof(uint32_t)) {
            uint32_t watched = 0;
            std::memcpy(&watched, payload.data(), sizeof(watched));
            mTrafficWatched = watched != 0;
        } else if (command == hostbinder::kConnectionRefused && payload.size() == sizeof(uint32_t)) {
            // binderd ends the session, and says why.
            uint32_t reason = 0;
            std::memcpy(&reason, payload.data(), sizeof(reason));
            const std::string error = "binderd at " + hostbinder::defaultSocketPath() +
                                      " ended this process's session: " + hostbinder::refusalText(reason);
            __android_log_print(ANDROID_LOG_ERROR, kTag, "%s", error.c_str());
            noteConnectionError(error);
        } else if (command == hostbinder::kDeadBinder && payload.size() == sizeof(uint32_t)) {
            int32_t handle = 0;
            std::memcpy(&handle, payload.data(), sizeof(handle));
            sp<IBinder> proxy;
            {
                std::lock_guard<std::mutex> lock(mLock);
                auto it = mHandles.find(handle);
                if (it != mHandles.end()) {
                    proxy = it->second.proxy.promote();
                }
            }
            if (proxy != nullptr) {
                proxy->remoteBinder()->sendObituary();
            }
        }
    }
    onSessionLost(generation);
}

void ProcessState::onSessionLost(uint64_t generation) {
    std::vector<sp<IBinder>> proxies;
    std::map<BBinder*, uint32_t> nodeRefs;
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mGeneration != generation) {
            return;
        }
        __android_log_print(ANDROID_LOG_WARN, kTag, "binderd connection lost");
        if (mControl != nullptr) {
            mControl->shutdown();
        }
        mControl.reset();
        mSessionEnded.notify_all();
        for (auto it = mHandles.begin(); it != mHandles.end();) {
            sp<IBinder> proxy = it->second.proxy.promote();
            if (proxy != nullptr) {
                proxies.push_back(proxy);
            }
            // The context object's proxy serves the next session too, and
            // hears of its end as well.
            if (it->first == 0) {
                it->second.deliveries = 0;
                ++it;
            } else {
                it = mHandles.erase(it);
            }
        }
        nodeRefs.swap(mNodeRefs);
        mTrafficWatched = false;
    }
    mChannels->closeAll();
    mOnewayChannels->clear();
    for (const sp<IBinder>& proxy : proxies) {
        proxy->remoteBinder()->sendObituary();
    }
    for (const auto& [node, count] : nodeRefs) {
        for (uint32_t i = 0; i < count; ++i) {
            node->decStrong(this);
        }
    }
}

}  // namespace android
