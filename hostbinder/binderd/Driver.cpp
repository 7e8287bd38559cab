#include "Driver.h"

#include <unistd.h>

#include <log/log.h>

#include <algorithm>

#include "Limits.h"

namespace android::binderd {

using namespace hostbinder;

namespace {
constexpr const char* kTag = "binderd";
}  // namespace

Driver::Driver(Outbox& outbox, bool verbose, uid_t owner)
    : mOutbox(outbox), mVerbose(verbose), mTokens(std::random_device{}()), mTraffic(outbox, owner) {
    // binderd itself answers for the service manager.
    mServiceManager.pid = getpid();
    mServiceManager.uid = geteuid();
    mServiceManager.maxThreads = 0;
    // The calls the service manager makes come from binderd itself.
    mServiceManager.pid = getpid();
    mServiceManager.uid = getuid();
    mContextNode = std::make_shared<Node>();
    mContextNode->owner = &mServiceManager;
    // Never released: the context object lives as long as binderd.
    mContextNode->refs = 1;
}

Driver::~Driver() {
    // One-way calls queued on a node hold the node: let go of them, so that
    // both go with sessions that never ended.
    for (auto& entry : mProcesses) {
        for (auto& node : entry.second->nodes) {
            node.second->onewayQueue.clear();
        }
        for (auto& handle : entry.second->handles) {
            handle.second.node->onewayQueue.clear();
        }
    }
}

void Driver::onConnect(ConnectionId id, pid_t pid, uid_t uid) {
    Peer& peer = mPeers[id];
    peer.pid = pid;
    peer.uid = uid;
}

bool Driver::onFrame(ConnectionId id, const Frame& frame) {
    auto it = mPeers.find(id);
    if (it == mPeers.end()) {
        return false;
    }
    Peer& peer = it->second;
    if (peer.process != nullptr) {
        return onControlFrame(*peer.process, frame);
    }
    if (peer.thread != nullptr) {
        return onThreadFrame(*peer.thread, frame);
    }
    // A watcher only listens.
    return !peer.watcher && startSession(id, peer, frame);
}

bool Driver::startSession(ConnectionId id, Peer& peer, const Frame& frame) {
    if (frame.command == kHelloProcess) {
        HelloProcess hello;
        if (!parseFixed(frame, &hello)) {
            return false;
        }
        auto process = std::make_unique<Process>();
        do {
            process->token = mTokens();
        } while (process->token == 0 || mProcesses.count(process->token) != 0);
        process->pid = peer.pid;
        process->uid = peer.uid;
        process->control = id;
        process->maxThreads = std::min(hello.maxThreads, kMaxPoolThreads);
        peer.process = process.get();
        const HelloThread welcome{process->token};
        mOutbox.send(id, kWelcome, &welcome, sizeof(welcome));
        if (mTraffic.watched()) {
            const uint32_t watched = 1;
            mOutbox.send(id, kWatchState, &watched, sizeof(watched));
        }
        if (mVerbose) {
            __android_log_print(ANDROID_LOG_INFO, kTag, "process %d (uid %u) joined", peer.pid, peer.uid);
        }
        mProcesses.emplace(process->token, std::move(process));
        return true;
    }
    if (frame.command == kHelloThread) {
        HelloThread hello;
        if (!parseFixed(frame, &hello)) {
            return false;
        }
        auto owner = mProcesses.find(hello.token);
        // The token proves the session; the peer pid proves the thread runs
        // in that session's process.
        if (owner == mProcesses.end() || owner->second->pid != peer.pid) {
            return false;
        }
        auto thread = std::make_unique<Thread>();
        thread->connection = id;
        thread->process = owner->second.get();
        owner->second->threads.push_back(thread.get());
        peer.thread = thread.get();
        mThreads.emplace(id, std::move(thread));
        mOutbox.send(id, kWelcome, nullptr, 0);
        return true;
    }
    if (frame.command == kHelloMonitor) {
        return startWatching(id, peer, frame);
    }
    return false;
}

bool Driver::onControlFrame(Process& process, const Frame& frame) {
    HandleCount request;
    switch (frame.command) {
        case kReleaseHandle:
            if (!parseFixed(frame, &request)) {
                return false;
            }
            return releaseHandle(process, request.handle, request.count);
        case kRequestDeath:
            return parseFixed(frame, &request) && requestDeath(process, request.handle);
        case kClearDeath:
            return parseFixed(frame, &request) && clearDeath(process, request.handle);
        case kOnewayCredited: {
            TransactionView view;
            return parseTransaction(frame, &view) && startCreditedOneway(process, view);
        }
        case kChannelFence: {
            ChannelProgress progress;
            return parseFixed(frame, &progress) && fenceOneway(process, progress);
        }
        case kChannelDone: {
            ChannelProgress progress;
            return parseFixed(frame, &progress) && channelDone(process, progress);
        }
        case kReturnCredit: {
            CreditReturn given;
            return parseFixed(frame, &given) && returnCredit(process, given);
        }
        case kChannelDrained: {
            uint64_t id = 0;
            if (!parseFixed(frame, &id)) {
                return false;
            }
            drainedChannel(process, id);
            return true;
        }
        case kSetMaxThreads: {
            uint32_t count = 0;
            if (!parseFixed(frame, &count)) {
                return false;
            }
            process.maxThreads = std::min(count, kMaxPoolThreads);
            return true;
        }
        default:
            return false;
    }
}

bool Driver::onThreadFrame(Thread& thread, const Frame& frame) {
    releaseTransit(thread);
    TransactionView view;
    switch (frame.command) {
        case kTransaction:
            if (!parseTransaction(frame, &view)) {
                return false;
            }
            if ((view.header.flags & kFlagOneway) != 0) {
                // One-way calls its process paid from credit, or fences, sent
                // before this one on the control connection come first: the
                // drain hands their frames to the driver now (they cannot end
                // this thread).
                mOutbox.drain(thread.process->control);
            }
            return startTransaction(thread, view);
        case kReply:
            return parseTransaction(frame, &view) && finishReply(thread, view);
        case kOnewayDone:
            return frame.payloadSize == 0 && finishOneway(thread);
        case kHoldingNow:
            return frame.payloadSize == 0;
        case kEnterLooper:
            if (frame.payloadSize != 0 || thread.looper) {
                return false;
            }
            thread.looper = true;
            ++thread.process->loopers;
            if (thread.process->pendingSpawns > 0) {
                decrease(thread.process->pendingSpawns);
            }
            becomeIdle(thread);
            return true;
        default:
            return onChannelFrame(thread, frame);
    }
}

void Driver::onDisconnect(ConnectionId id) {
    auto it = mPeers.find(id);
    if (it == mPeers.end()) {
        return;
    }
    Peer peer = it->second;
    mPeers.erase(it);
    if (peer.process != nullptr) {
        processDied(*peer.process);
    } else if (peer.thread != nullptr) {
        threadGone(*peer.thread);
    } else if (peer.watcher) {
        mTraffic.forget(id);
        if (!mTraffic.watched()) {
            broadcastWatchState();
        }
    }
}

void Driver::threadGone(Thread& thread) {
    Process& process = *thread.process;
    const std::vector<uint64_t> channels = thread.channels;
    for (uint64_t id : channels) {
        closeChannel(id, false);
    }
    releaseTransit(thread);
    requeuePipeline(thread);
    for (OutgoingCall& outgoing : thread.awaiting) {
        outgoing.call->from = nullptr;
    }
    thread.awaiting.clear();
    // Everyone waiting on this thread's work learns that it will never come.
    for (auto it = thread.serving.rbegin(); it != thread.serving.rend(); ++it) {
        abandon(*it);
    }
    thread.serving.clear();
    if (thread.looper) {
        decrease(process.loopers);
    }
    process.idleLoopers.erase(std::remove(process.idleLoopers.begin(), process.idleLoopers.end(), &thread),
                              process.idleLoopers.end());
    process.threads.erase(std::remove(process.threads.begin(), process.threads.end(), &thread),
                          process.threads.end());
    mThreads.erase(thread.connection);
}

void Driver::drainThreads(const Process& process) {
    std::vector<ConnectionId> connections;
    for (const Thread* thread : process.threads) {
        connections.push_back(thread->connection);
    }
    for (ConnectionId id : connections) {
        mOutbox.drain(id);
    }
}

void Driver::processDied(Process& process) {
    if (mVerbose) {
        __android_log_print(ANDROID_LOG_INFO, kTag, "process %d left", process.pid);
    }
    // What its threads sent before the end still counts, one-way calls above all.
    drainThreads(process);
    revokeCreditsOn(process);
    closeChannelsOf(process);
    const std::vector<Thread*> threads = process.threads;
    for (Thread* thread : threads) {
        mPeers.erase(thread->connection);
        mOutbox.cut(thread->connection);
        threadGone(*thread);
    }
    while (!process.todo.empty()) {
        std::shared_ptr<Transaction> transaction = process.todo.front();
        process.todo.pop_front();
        abandon(transaction);
    }
    mServices.removeServicesOf(process);
    const auto nodes = process.nodes;
    for (const auto& entry : nodes) {
        notifyDeath(*entry.second);
    }
    while (!process.nodes.empty()) {
        forgetNode(process, process.nodes.begin());
    }
    while (!process.handles.empty()) {
        auto first = process.handles.begin();
        releaseHandle(process, first->first, first->second.count);
    }
    mProcesses.erase(process.token);
}

}  // namespace android::binderd
