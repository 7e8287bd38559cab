// Direct channels: binderd introduces a caller to the process that owns what
// it calls, stays the authority over which nodes the caller may reach and
// over the owner's buffer, and keeps one-way calls in order across the
// channel and the relayed path.
#include "Driver.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "Limits.h"

namespace android::binderd {

using namespace hostbinder;

namespace {

// Room for a 100 KiB call in one write, where the system allows it.
constexpr int kChannelSocketBuffer = 1024 * 1024;

}  // namespace

bool Driver::onChannelFrame(Thread& thread, const Frame& frame) {
    switch (frame.command) {
        case kOpenChannel: {
            OpenChannel request;
            if (!parseFixed(frame, &request) || thread.waiting() || request.kind > kOneWayChannel) {
                return false;
            }
            openChannel(thread, request.handle, request.kind == kOneWayChannel);
            return true;
        }
        case kChannelCredit: {
            ChannelCredit request;
            if (!parseFixed(frame, &request) || thread.waiting()) {
                return false;
            }
            grantChannelCredit(thread, request);
            return true;
        }
        case kChannelFence: {
            ChannelProgress progress;
            return parseFixed(frame, &progress) && fenceOneway(*thread.process, progress);
        }
        case kChannelDone: {
            ChannelProgress progress;
            return parseFixed(frame, &progress) && channelDone(*thread.process, progress);
        }
        case kResolveReach: {
            ChannelReach request;
            if (!parseFixed(frame, &request) || thread.waiting()) {
                return false;
            }
            resolveReach(thread, request);
            return true;
        }
        case kReachDropped: {
            ChannelReach dropped;
            if (!parseFixed(frame, &dropped)) {
                return false;
            }
            if (Channel* channel = ownedChannel(*thread.process, dropped.channel)) {
                auto entry = channel->reach.find(dropped.handle);
                if (entry != channel->reach.end()) {
                    const std::shared_ptr<Node> node = entry->second;
                    channel->reach.erase(entry);
                    dropNodeRef(node);
                }
            }
            return true;
        }
        case kServingChannel: {
            uint64_t id = 0;
            if (!parseFixed(frame, &id)) {
                return false;
            }
            // A channel closed meanwhile leaves nothing to continue.
            const Channel* channel = id != 0 ? ownedChannel(*thread.process, id) : nullptr;
            thread.servingChannel = channel != nullptr && !channel->oneway ? id : 0;
            return true;
        }
        case kChannelReply: {
            TransactionView view;
            return parseTransaction(frame, &view) && channelReply(thread, view);
        }
        default:
            return false;
    }
}

Channel* Driver::ownedChannel(const Process& owner, uint64_t id) {
    auto it = mChannels.find(id);
    if (it == mChannels.end()) {
        it = mDrainingChannels.find(id);
        if (it == mDrainingChannels.end()) {
            return nullptr;
        }
    }
    return it->second->owner == &owner ? it->second.get() : nullptr;
}

Channel* Driver::onewayChannelOf(const Thread& thread, uint64_t id) {
    auto it = mChannels.find(id);
    return it != mChannels.end() && it->second->oneway && it->second->holder == thread.process ? it->second.get()
                                                                                                : nullptr;
}

Channel* Driver::onewayChannelTo(const Process& holder, const Process& owner) {
    auto known = holder.onewayChannels.find(&owner);
    return known == holder.onewayChannels.end() ? nullptr : channel(known->second);
}

Channel* Driver::channel(uint64_t id) {
    auto it = mChannels.find(id);
    return it == mChannels.end() ? nullptr : it->second.get();
}

void Driver::openChannel(Thread& thread, uint32_t handle, bool oneway) {
    Process& process = *thread.process;
    auto ref = process.handles.find(handle);
    Process* owner = ref == process.handles.end() ? nullptr : ref->second.node->owner;
    if (owner == nullptr) {
        const status_t status = ref == process.handles.end() ? FAILED_TRANSACTION : DEAD_OBJECT;
        mOutbox.send(thread.connection, kRefused, &status, sizeof(status));
        return;
    }
    Channel* existing = oneway ? onewayChannelTo(process, *owner) : nullptr;
    for (uint64_t id : thread.channels) {
        Channel* mine = channel(id);
        if (!oneway && mine != nullptr && mine->owner == owner) {
            existing = mine;
        }
    }
    if (existing != nullptr) {
        const ChannelReady ready{existing->id, handle, 0};
        mOutbox.send(thread.connection, kChannelReady, &ready, sizeof(ready));
        return;
    }
    // Calls to the service manager, to a process that serves no calls, or
    // while the traffic is watched go through binderd; so do calls beyond a
    // bound on channels or when a descriptor cannot be had.
    int ends[2] = {-1, -1};
    const bool allowed = owner != &mServiceManager && owner != &process && owner->loopers > 0 &&
                         !mTraffic.watched() && process.channels < kMaxChannelsPerProcess &&
                         owner->channels < kMaxChannelsPerProcess &&
                         mChannelsOfUid[process.uid] < kMaxChannelsPerUid &&
                         mChannelsOfUid[owner->uid] < kMaxChannelsPerUid && mChannels.size() < kMaxChannels &&
                         mOutbox.takesDescriptor(thread.connection) && mOutbox.takesDescriptor(owner->control) &&
                         socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0;
    if (!allowed) {
        const status_t status = FAILED_TRANSACTION;
        mOutbox.send(thread.connection, kRefused, &status, sizeof(status));
        return;
    }
    for (int end : ends) {
        setsockopt(end, SOL_SOCKET, SO_SNDBUF, &kChannelSocketBuffer, sizeof(kChannelSocketBuffer));
    }
    auto channel = std::make_unique<Channel>();
    channel->id = ++mLastChannelId;
    channel->oneway = oneway;
    channel->holder = &process;
    channel->owner = owner;
    channel->ownerHolder = owner->holder();
    if (oneway) {
        process.onewayChannels[owner] = channel->id;
        owner->servedChannels.push_back(channel->id);
    } else {
        channel->caller = &thread;
        thread.channels.push_back(channel->id);
    }
    process.heldChannels.push_back(channel->id);
    ++process.channels;
    ++owner->channels;
    ++mChannelsOfUid[process.uid];
    ++mChannelsOfUid[owner->uid];
    const ChannelOpened opened{channel->id, process.pid, process.uid};
    mOutbox.sendDescriptor(owner->control, kChannelOpened, &opened, sizeof(opened), ends[1]);
    const ChannelReady ready{channel->id, handle, 1};
    mOutbox.sendDescriptor(thread.connection, kChannelReady, &ready, sizeof(ready), ends[0]);
    mChannels.emplace(channel->id, std::move(channel));
}

void Driver::grantChannelCredit(Thread& thread, const ChannelCredit& request) {
    Channel* channel = onewayChannelOf(thread, request.channel);
    // Credit never makes anyone give way.
    if (channel == nullptr || request.bytes > kMaxQueuedOnewayBytes ||
        !fits(*channel->owner, kBufferBytes, request.bytes) || !fits(*channel->owner, kOnewayBytes, request.bytes)) {
        if (channel != nullptr) {
            askForProgress(*channel->owner);
        }
        const status_t status = FAILED_TRANSACTION;
        mOutbox.send(thread.connection, kRefused, &status, sizeof(status));
        return;
    }
    const Process& owner = *channel->owner;
    // As with a thread's credit: ahead while the buffer has room to spare,
    // else exactly what the call needs, so that a lone sender fills the
    // buffer to the byte.
    size_t grant = request.bytes;
    if (request.bytes < kOnewayCreditBytes &&
        mLedger.held(owner.holder(), kOnewayBytes) + kOnewayCreditBytes <= kCreditGrantCeiling &&
        fitsAhead(owner, kOnewayCreditBytes)) {
        grant = kOnewayCreditBytes;
    }
    mLedger.take(channel->ownerHolder, kBufferBytes, grant);
    mLedger.take(channel->ownerHolder, kOnewayBytes, grant);
    channel->granted += grant;
    const uint32_t granted = static_cast<uint32_t>(grant);
    mOutbox.send(thread.connection, kCreditGranted, &granted, sizeof(granted));
}

void Driver::giveBackCredit(Channel& channel, uint64_t bytes) {
    if (bytes > 0) {
        mLedger.give(channel.ownerHolder, kBufferBytes, static_cast<size_t>(bytes));
        mLedger.give(channel.ownerHolder, kOnewayBytes, static_cast<size_t>(bytes));
    }
}

bool Driver::fenceOneway(Process& process, const ChannelProgress& progress) {
    auto it = mChannels.find(progress.channel);
    Channel* channel = it != mChannels.end() && it->second->oneway && it->second->holder == &process
                           ? it->second.get()
                           : nullptr;
    if (channel == nullptr) {
        return true;
    }
    if (progress.total < channel->finished || progress.total > channel->granted) {
        return false;
    }
    // The holder gives back the credit it did not spend, so that a lone
    // sender fills the owner's buffer to the byte.
    giveBackCredit(*channel, channel->granted - progress.total);
    channel->granted = progress.total;
    channel->fence = std::max(channel->fence, progress.total);
    ++channel->fencesArmed;
    return true;
}

bool Driver::channelDone(Process& owner, const ChannelProgress& progress) {
    if (progress.channel == 0) {
        // The end of the owner's answer to askForProgress.
        owner.progressAsked = false;
        return true;
    }
    Channel* channel = ownedChannel(owner, progress.channel);
    // Several threads of the owner report; an older total may come last.
    if (channel == nullptr || progress.total <= channel->finished) {
        return true;
    }
    // An owner cannot finish more than it was sent room for.
    const uint64_t finished = std::min(progress.total, channel->granted);
    giveBackCredit(*channel, finished - channel->finished);
    channel->finished = finished;
    releaseHeld(*channel);
    return true;
}

void Driver::resolveReach(Thread& thread, const ChannelReach& request) {
    Channel* channel = ownedChannel(*thread.process, request.channel);
    status_t status = FAILED_TRANSACTION;
    if (channel != nullptr) {
        auto known = channel->reach.find(request.handle);
        const std::shared_ptr<Node>* found = known != channel->reach.end() ? &known->second : nullptr;
        if (found == nullptr && channel->holder != nullptr) {
            auto ref = channel->holder->handles.find(request.handle);
            found = ref != channel->holder->handles.end() ? &ref->second.node : nullptr;
        }
        const bool fits = known != channel->reach.end() || channel->reach.size() < kMaxReachPerChannel;
        if (found != nullptr && (*found)->owner == thread.process && fits) {
            const std::shared_ptr<Node> node = *found;
            if (channel->reach.emplace(request.handle, node).second) {
                takeNodeRef(*node);
            }
            // Alive at least until the owner's thread speaks again, by when it
            // holds the object itself.
            takeNodeRef(*node);
            thread.transit.push_back(node);
            mOutbox.send(thread.connection, kReachResolved, &node->cookie, sizeof(node->cookie));
            return;
        }
        if (found != nullptr && (*found)->owner == nullptr) {
            status = DEAD_OBJECT;
        }
    }
    mOutbox.send(thread.connection, kRefused, &status, sizeof(status));
}

bool Driver::channelReply(Thread& thread, const TransactionView& view) {
    auto open = mChannels.find(view.header.target);
    Channel* channel = open != mChannels.end() && open->second->owner == thread.process ? open->second.get() : nullptr;
    if (channel == nullptr || channel->caller == nullptr) {
        if (objectsValid(*thread.process, *thread.process, view)) {
            returnSendRefs(*thread.process, view);
        }
        return true;
    }
    Thread& caller = *channel->caller;
    Transaction reply;
    reply.header.target = channel->id;
    reply.header.code = view.header.code;  // the call's sequence number on the channel
    reply.header.status = view.header.status;
    if (reply.header.status == OK && objectsValid(*thread.process, *caller.process, view)) {
        translate(*thread.process, *caller.process, view, &reply, &caller.transit);
    } else {
        if (reply.header.status == OK) {
            reply.header.status = FAILED_TRANSACTION;
        }
        if (objectsValid(*thread.process, *thread.process, view)) {
            returnSendRefs(*thread.process, view);
        }
    }
    reply.header.dataSize = static_cast<uint32_t>(reply.data.size());
    reply.header.offsetsCount = static_cast<uint32_t>(reply.offsets.size());
    mOutbox.sendTransaction(caller.connection, kIncomingChannelReply, reply.header, reply.data.data(),
                            reply.offsets.data());
    return true;
}

std::shared_ptr<Transaction> Driver::chainLinkOf(Channel& channel) {
    if (channel.chainLink == nullptr) {
        channel.chainLink = std::make_shared<Transaction>();
        channel.chainLink->from = channel.caller;
    }
    // The caller's own chain goes on above its call: what it serves now.
    Thread* caller = channel.caller;
    channel.chainLink->parent.reset();
    channel.chainLink->depth = 1;
    if (caller != nullptr && !caller->serving.empty() && !caller->serving.back()->oneway()) {
        channel.chainLink->parent = caller->serving.back();
        channel.chainLink->depth = caller->serving.back()->depth + 1;
    }
    return channel.chainLink;
}

bool Driver::holdBehindChannel(const std::shared_ptr<Transaction>& transaction) {
    auto it = mChannels.find(transaction->channel);
    if (it == mChannels.end()) {
        return false;
    }
    Channel& channel = *it->second;
    const uint64_t fence = channel.fencesArmed > 0 ? channel.fence : 0;
    if (channel.fencesArmed > 0) {
        transaction->fenced = true;
        ++channel.relayedAccepted;
        decrease(channel.fencesArmed);
    }
    if (channel.held.empty() && fence <= channel.finished) {
        return false;
    }
    channel.held.emplace_back(fence, transaction);
    askForFence(channel);
    return true;
}

void Driver::releaseHeld(Channel& channel) {
    while (!channel.held.empty() && channel.held.front().first <= channel.finished) {
        std::shared_ptr<Transaction> next = channel.held.front().second;
        channel.held.pop_front();
        dispatchOneway(next);
    }
    askForFence(channel);
}

void Driver::askForFence(Channel& channel) {
    if (channel.held.empty()) {
        return;
    }
    const uint64_t fence = channel.held.front().first;
    if (fence > channel.finished && fence > channel.fenceAsked) {
        channel.fenceAsked = fence;
        const ChannelProgress wanted{channel.id, fence};
        mOutbox.send(channel.owner->control, kProgressWanted, &wanted, sizeof(wanted));
    }
}

void Driver::askForProgress(Process& owner) {
    // One question covers all its channels, and none is asked until it
    // answered: calls refused meanwhile cost it nothing.
    if (!owner.progressAsked && !owner.servedChannels.empty()) {
        owner.progressAsked = true;
        const ChannelProgress wanted{0, 0};
        mOutbox.send(owner.control, kProgressWanted, &wanted, sizeof(wanted));
    }
}

void Driver::relayedOnewayDone(const Transaction& transaction) {
    auto it = mChannels.find(transaction.channel);
    if (it == mChannels.end()) {
        return;
    }
    Channel& channel = *it->second;
    if (transaction.fenced && ++channel.relayedDone == channel.relayedAccepted) {
        const ChannelProgress quiet{channel.id, channel.relayedAccepted};
        mOutbox.send(channel.holder->control, kChannelQuiet, &quiet, sizeof(quiet));
    }
}

void Driver::revokeReach(Process& holder, const std::shared_ptr<Node>& node, uint32_t handle) {
    if (node->owner == nullptr) {
        return;
    }
    std::vector<uint64_t> overfull;
    for (uint64_t id : holder.heldChannels) {
        Channel* held = channel(id);
        if (held == nullptr || held->owner != node->owner) {
            continue;
        }
        // Calls on the channel may still name the handle: the node stays
        // until the owner has taken them in. An owner that never says so
        // loses the channel rather than binderd growing without bound.
        if (held->reach.count(handle) == 0 && held->reach.size() >= kMaxReachPerChannel) {
            overfull.push_back(id);
            continue;
        }
        if (held->reach.emplace(handle, node).second) {
            takeNodeRef(*node);
        }
        const ChannelReach revoked{held->id, handle, 0};
        mOutbox.send(node->owner->control, kReachRevoked, &revoked, sizeof(revoked));
    }
    for (uint64_t id : overfull) {
        closeChannel(id, false);
    }
}

void Driver::closeChannel(uint64_t id, bool ownerDying) {
    auto it = mChannels.find(id);
    if (it == mChannels.end()) {
        return;
    }
    std::unique_ptr<Channel> channel = std::move(it->second);
    mChannels.erase(it);
    if (channel->chainLink != nullptr) {
        channel->chainLink->from = nullptr;
    }
    Process& holder = *channel->holder;
    Process& owner = *channel->owner;
    if (Thread* caller = channel->caller) {
        auto& ids = caller->channels;
        ids.erase(std::remove(ids.begin(), ids.end(), id), ids.end());
    }
    auto& held = holder.heldChannels;
    held.erase(std::remove(held.begin(), held.end(), id), held.end());
    if (channel->oneway) {
        holder.onewayChannels.erase(&owner);
        auto& served = owner.servedChannels;
        served.erase(std::remove(served.begin(), served.end(), id), served.end());
    }
    decrease(holder.channels);
    decrease(mChannelsOfUid[holder.uid]);
    // The end that lives on hears of it: the owner takes in what is on the
    // channel and closes its end; a holder of a one-way channel whose owner
    // died stops using it, told ahead of any death notice on the same
    // connection.
    if (!ownerDying) {
        mOutbox.send(owner.control, kChannelClosed, &id, sizeof(id));
    } else if (channel->oneway) {
        mOutbox.send(holder.control, kChannelClosed, &id, sizeof(id));
    }
    giveBackCredit(*channel, channel->granted - channel->finished);
    channel->granted = channel->finished;
    // Calls accepted from the holder still reach a living owner, in order.
    for (auto& waiting : channel->held) {
        const std::shared_ptr<Transaction>& transaction = waiting.second;
        transaction->channel = 0;
        if (!ownerDying) {
            dispatchOneway(transaction);
            continue;
        }
        retireOneway(*transaction);
        for (auto& node : transaction->transit) {
            dropNodeRef(node);
        }
        transaction->transit.clear();
        dropNodeRef(transaction->target);
    }
    channel->held.clear();
    if (!ownerDying && channel->oneway) {
        // One-way calls may still be on their way to the owner: whatever the
        // holder's handles name there stays reachable until it took them in.
        for (const auto& [handle, ref] : holder.handles) {
            if (ref.node->owner == &owner && channel->reach.emplace(handle, ref.node).second) {
                takeNodeRef(*ref.node);
            }
        }
        channel->holder = nullptr;
        mDrainingChannels.emplace(id, std::move(channel));
        return;
    }
    decrease(owner.channels);
    decrease(mChannelsOfUid[owner.uid]);
    for (auto& entry : channel->reach) {
        dropNodeRef(entry.second);
    }
}

void Driver::drainedChannel(const Process& owner, uint64_t id) {
    auto it = mDrainingChannels.find(id);
    if (it == mDrainingChannels.end() || it->second->owner != &owner) {
        return;
    }
    std::unique_ptr<Channel> channel = std::move(it->second);
    mDrainingChannels.erase(it);
    decrease(channel->owner->channels);
    decrease(mChannelsOfUid[channel->owner->uid]);
    for (auto& entry : channel->reach) {
        dropNodeRef(entry.second);
    }
}

void Driver::closeChannelsOf(const Process& process) {
    std::vector<std::pair<uint64_t, bool>> ending;
    for (const auto& entry : mChannels) {
        if (entry.second->owner == &process || entry.second->holder == &process) {
            ending.emplace_back(entry.first, entry.second->owner == &process);
        }
    }
    for (const auto& [id, ownerDying] : ending) {
        closeChannel(id, ownerDying);
    }
    std::vector<uint64_t> draining;
    for (const auto& entry : mDrainingChannels) {
        if (entry.second->owner == &process) {
            draining.push_back(entry.first);
        }
    }
    for (uint64_t id : draining) {
        drainedChannel(process, id);
    }
}

void Driver::broadcastWatchState() {
    const uint32_t watched = mTraffic.watched() ? 1 : 0;
    for (const auto& entry : mProcesses) {
        mOutbox.send(entry.second->control, kWatchState, &watched, sizeof(watched));
    }
}

}  // namespace android::binderd
