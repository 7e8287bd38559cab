#include "ChannelHub.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>

namespace android {

using namespace hostbinder;

namespace {
// How long a reply may wait for a caller that does not read its channel.
constexpr std::chrono::seconds kReplyPatience{2};
// Large calls read in part over all channels, at most.
constexpr size_t kMaxLargeBytes = 16 * 1024 * 1024;
// The epoll identity of the attention event; channels count from 1, and
// their rings' doorbells have the top bit set.
constexpr uint64_t kAttention = 0;
constexpr uint64_t kDoorbell = uint64_t{1} << 63;
}  // namespace

ChannelHub::ChannelHub(RingBells& bells, std::function<void(uint32_t, const void*, size_t)> tell)
    : mBells(bells),
      mTell(std::move(tell)),
      mEpoll(epoll_create1(EPOLL_CLOEXEC)),
      mAttentionEvent(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    armAttention(EPOLL_CTL_ADD);
}

ChannelHub::~ChannelHub() {
    ::close(mAttentionEvent);
    ::close(mEpoll);
}

ChannelHub::Channel::~Channel() {
    ::close(fd);
    std::lock_guard<std::mutex> lock(hub.mLock);
    hub.mLargeBytes -= largeBytes;
}

void ChannelHub::open(uint64_t id, int fd, pid_t peerPid, uid_t peerUid, size_t maxThreads) {
    auto channel = std::make_shared<Channel>(*this);
    channel->id = id;
    channel->fd = fd;
    channel->peerPid = peerPid;
    channel->peerUid = peerUid;
    bool spawn = false;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mChannels[id] = channel;
        mMaxThreads = maxThreads > 0 ? maxThreads : 1;
        spawn = mThreads == 0;
        if (spawn) {
            ++mThreads;
            ++mIdleThreads;
        }
    }
    epoll_event event{};
    // Edge-triggered: each arrival wakes one thread, which claims the
    // channel, or finds it held and has its holder go round again.
    event.events = EPOLLIN | EPOLLET;
    event.data.u64 = id;
    epoll_ctl(mEpoll, EPOLL_CTL_ADD, fd, &event);
    if (spawn) {
        std::thread(&ChannelHub::work, this).detach();
    }
}

void ChannelHub::close(uint64_t id) {
    {
        std::lock_guard<std::mutex> lock(mLock);
        auto it = mChannels.find(id);
        if (it != mChannels.end()) {
            it->second->closing = true;
            attend(*it->second);
            return;
        }
    }
    // Gone already (its caller's end closed first): nothing is left on it.
    mTell(kChannelDrained, &id, sizeof(id));
}

void ChannelHub::attend(Channel& channel) {
    if (!channel.held) {
        channel.held = true;
        mAttention.push_back(channel.id);
        const uint64_t one = 1;
        (void)!write(mAttentionEvent, &one, sizeof(one));
    }
}

void ChannelHub::closeAll() {
    std::lock_guard<std::mutex> lock(mLock);
    for (auto& entry : mChannels) {
        // binderd is gone, and with it every caller's session.
        shutdown(entry.second->fd, SHUT_RDWR);
        entry.second->closing = true;
        attend(*entry.second);
    }
}

void ChannelHub::revoke(uint64_t id, uint32_t handle) {
    std::lock_guard<std::mutex> lock(mLock);
    auto it = mChannels.find(id);
    if (it == mChannels.end()) {
        return;
    }
    Channel& channel = *it->second;
    channel.revoked.push_back(handle);
    // A thread holding the channel forgets the handle when it is done; else
    // a thread is woken to take in what is there and then forget it.
    attend(channel);
}

void ChannelHub::progressWanted(uint64_t id, uint64_t total) {
    std::shared_ptr<Channel> channel;
    {
        std::lock_guard<std::mutex> lock(mLock);
        auto it = mChannels.find(id);
        if (it == mChannels.end()) {
            return;  // closed: binderd took back its room itself
        }
        channel = it->second;
    }
    // Set before the total is read: a call finishing meanwhile either counts
    // in what is read, or sees the wish and tells binderd itself.
    channel->wanted = std::max(channel->wanted.load(), total);
    const uint64_t finished = channel->finished;
    uint64_t wanted = channel->wanted;
    if (wanted != 0 && finished >= wanted) {
        channel->wanted.compare_exchange_strong(wanted, 0);
    }
    tellProgress(*channel, finished);
}

void ChannelHub::everyProgressWanted() {
    std::vector<std::shared_ptr<Channel>> channels;
    {
        std::lock_guard<std::mutex> lock(mLock);
        for (const auto& entry : mChannels) {
            channels.push_back(entry.second);
        }
    }
    for (const auto& channel : channels) {
        const uint64_t finished = channel->finished;
        if (finished > channel->told) {
            tellProgress(*channel, finished);
        }
    }
    const ChannelProgress end{0, 0};
    mTell(kChannelDone, &end, sizeof(end));
}

void ChannelHub::finishOneway(Channel& channel, uint64_t charge) {
    const uint64_t finished = channel.finished += charge;
    IPCThreadState::self()->noteChannelDone(channel.id, finished);
    uint64_t wanted = channel.wanted;
    if (wanted != 0 && finished >= wanted && channel.wanted.compare_exchange_strong(wanted, 0)) {
        tellProgress(channel, finished);
    }
}

void ChannelHub::tellProgress(Channel& channel, uint64_t total) {
    channel.told = std::max(channel.told.load(), total);
    const ChannelProgress progress{channel.id, total};
    mTell(kChannelDone, &progress, sizeof(progress));
}

void ChannelHub::forget(uint64_t id) {
    std::shared_ptr<Channel> gone;
    bool closed = false;
    {
        std::lock_guard<std::mutex> lock(mLock);
        auto it = mChannels.find(id);
        if (it != mChannels.end()) {
            gone = std::move(it->second);  // destroyed once the lock is let go
            closed = gone->closing;
            mChannels.erase(it);
        }
    }
    if (closed) {
        mTell(kChannelDrained, &id, sizeof(id));
    }
}

void ChannelHub::armAttention(int operation) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLONESHOT;
    event.data.u64 = kAttention;
    epoll_ctl(mEpoll, operation, mAttentionEvent, &event);
}

void ChannelHub::serveClaimed(const std::shared_ptr<Channel>& channel, bool readSocket) {
    // What binderd said before this round takes effect once the round has
    // taken in everything on the channel, which includes every call made
    // before binderd said it; what it says meanwhile waits for the next round.
    std::vector<uint32_t> revoked;
    bool closing = false;
    {
        std::lock_guard<std::mutex> lock(mLock);
        revoked.swap(channel->revoked);
        closing = channel->closing;
    }
    const bool open = serve(channel, readSocket || closing) && !closing;
    for (uint32_t handle : revoked) {
        channel->reach.erase(handle);
        IPCThreadState::self()->noteReachDropped(channel->id, handle);
    }
    if (!open) {
        forget(channel->id);
        return;
    }
    std::lock_guard<std::mutex> lock(mLock);
    channel->held = false;
    if (!channel->revoked.empty() || channel->closing || channel->stirred) {
        channel->stirred = false;
        attend(*channel);
    }
}

void ChannelHub::work() {
    for (;;) {
        // What this thread's calls finished goes to binderd in batches;
        // binderd asks for the rest when it needs it.
        IPCThreadState* self = IPCThreadState::self();
        if (self->channelReportDue()) {
            self->flushCommands();
        }
        epoll_event event{};
        if (epoll_wait(mEpoll, &event, 1, -1) != 1) {
            continue;
        }
        // Each with whether its socket is to be read.
        std::vector<std::pair<std::shared_ptr<Channel>, bool>> claimed;
        bool spawn = false;
        {
            std::lock_guard<std::mutex> lock(mLock);
            if (event.data.u64 == kAttention) {
                uint64_t count = 0;
                (void)!read(mAttentionEvent, &count, sizeof(count));
                for (uint64_t id : mAttention) {
                    auto it = mChannels.find(id);
                    if (it != mChannels.end()) {
                        claimed.emplace_back(it->second, true);  // held already
                    }
                }
                mAttention.clear();
                armAttention(EPOLL_CTL_MOD);
            } else {
                auto it = mChannels.find(event.data.u64 & ~kDoorbell);
                const bool doorbell = (event.data.u64 & kDoorbell) != 0;
                // The holder of a held channel goes round again for what
                // came meanwhile: a ring of its bell, or bytes on its socket.
                if (it != mChannels.end() && it->second->held) {
                    it->second->stirred = true;
                } else if (it != mChannels.end()) {
                    it->second->held = true;
                    claimed.emplace_back(it->second, !doorbell);
                }
            }
            if (claimed.empty()) {
                continue;
            }
            // Someone must be left to take the next channel's call.
            if (--mIdleThreads == 0 && mThreads < mMaxThreads) {
                ++mThreads;
                ++mIdleThreads;
                spawn = true;
            }
        }
        if (spawn) {
            std::thread(&ChannelHub::work, this).detach();
        }
        for (const auto& [channel, readSocket] : claimed) {
            serveClaimed(channel, readSocket);
        }
        std::lock_guard<std::mutex> lock(mLock);
        ++mIdleThreads;
    }
}

bool ChannelHub::serve(const std::shared_ptr<Channel>& channel, bool readSocket) {
    // One-way calls in the ring were written before any call that follows on
    // the socket, so the ring is drained first, before every socket frame.
    const auto mayGrow = [this, &channel](size_t bytes) {
        std::lock_guard<std::mutex> lock(mLock);
        if (mLargeBytes + bytes > kMaxLargeBytes) {
            return false;
        }
        mLargeBytes += bytes;
        channel->largeBytes += bytes;
        return true;
    };
    for (;;) {
        if (!drainRing(channel)) {
            return false;
        }
        if (!readSocket) {
            // Anything on the socket fires its own event.
            if (channel->ring->sleep()) {
                return true;
            }
            continue;
        }
        const FrameReader::Read read = channel->reader.readAvailable(channel->fd, mayGrow);
        Frame frame;
        while (channel->reader.next(&frame)) {
            if (!drainRing(channel) || !serveFrame(channel, frame)) {
                return false;
            }
        }
        if (channel->reader.malformed()) {
            return false;
        }
        if (read == FrameReader::Read::kEnded) {
            // The caller closed its end after its last push: calls it left
            // in the ring since the last look still run.
            drainRing(channel);
            return false;
        }
        const bool nothingMore = read == FrameReader::Read::kNothing ||
                                 (read == FrameReader::Read::kSome && channel->reader.drained());
        if (nothingMore && (channel->ring == nullptr || channel->ring->sleep())) {
            if (channel->reader.shrink() > 0) {
                std::lock_guard<std::mutex> lock(mLock);
                mLargeBytes -= channel->largeBytes;
                channel->largeBytes = 0;
            }
            return true;
        }
    }
}

bool ChannelHub::drainRing(const std::shared_ptr<Channel>& channel) {
    if (channel->ring == nullptr) {
        return true;
    }
    for (;;) {
        switch (channel->ring->pop(&channel->ringFrame)) {
            case SharedRing::Pop::kEmpty:
                return true;
            case SharedRing::Pop::kBroken:
                return false;
            case SharedRing::Pop::kFrame:
                break;
        }
        Frame frame;
        size_t consumed = 0;
        // The ring carries calls only.
        if (decodeFrame(channel->ringFrame.data(), channel->ringFrame.size(), &frame, &consumed) !=
                DecodeStatus::kComplete ||
            consumed != channel->ringFrame.size() || !serveCall(channel, frame)) {
            return false;
        }
    }
}

bool ChannelHub::serveFrame(const std::shared_ptr<Channel>& channel, const Frame& frame) {
    if (frame.command != kDirectHello) {
        // Only the hello may bring a descriptor.
        channel->reader.dropDescriptors();
    }
    switch (frame.command) {
        case kDirectHello:
            return welcome(*channel);
        case kDirectCall:
            return serveCall(channel, frame);
        default:
            return false;
    }
}

bool ChannelHub::welcome(Channel& channel) {
    // A ring is taken with its bell, within the process's bound; what is not
    // kept is closed on the way out.
    const int memory = channel.reader.takeDescriptor();
    RingBells::Bell doorbell = mBells.adopt(channel.reader.takeDescriptor());
    const int replyMemory = channel.reader.takeDescriptor();
    RingBells::Bell replyBell = mBells.adopt(channel.reader.takeDescriptor());
    if (channel.ring == nullptr && doorbell && memory >= 0) {
        channel.ring = SharedRing::attach(memory);
        if (channel.ring != nullptr) {
            // Edge-triggered: a ring only ever wakes one thread per ring of
            // the bell, and the bell is never read.
            channel.doorbell = std::move(doorbell);
            epoll_event event{};
            event.events = EPOLLIN | EPOLLET;
            event.data.u64 = channel.id | kDoorbell;
            epoll_ctl(mEpoll, EPOLL_CTL_ADD, channel.doorbell.fd(), &event);
        }
    }
    // Replies in shared memory too, for a caller whose calls come that way.
    if (channel.ring != nullptr && channel.replies == nullptr && replyBell && replyMemory >= 0) {
        channel.replies = SharedRing::attach(replyMemory);
        if (channel.replies != nullptr) {
            channel.replyBell = std::move(replyBell);
        }
    }
    for (int shared : {memory, replyMemory}) {
        if (shared >= 0) {
            ::close(shared);
        }
    }
    const uint32_t taken = (channel.ring != nullptr ? kCallRingTaken : 0) |
                           (channel.replies != nullptr ? kReplyRingTaken : 0);
    return writeFrame(channel.fd, kDirectWelcome, &taken, sizeof(taken), nullptr, 0, kReplyPatience);
}

bool ChannelHub::serveCall(const std::shared_ptr<Channel>& channel, const Frame& frame) {
    DirectCall call;
    if (frame.command != kDirectCall || frame.payloadSize < sizeof(call)) {
        return false;
    }
    // Ring frames are copied out before they are read: only the copy counts.
    std::memcpy(&call, frame.payload, sizeof(call));
    if (frame.payloadSize - sizeof(call) != call.dataSize) {
        return false;
    }
    const uint8_t* data = frame.payload + sizeof(call);
    status_t status = OK;
    const sp<BBinder> target = reach(*channel, call.handle, &status);
    if ((call.flags & IBinder::FLAG_ONEWAY) != 0) {
        const uint64_t charge = bufferCharge(call.dataSize, 0, true);
        if (target == nullptr) {
            finishOneway(*channel, charge);
            return true;
        }
        auto parcel = std::make_shared<Parcel>();
        parcel->setData(data, call.dataSize);
        const uint32_t code = call.code;
        mTurns.runOrLeave(target.get(), [this, channel, target, parcel, code, charge] {
            IPCThreadState::self()->executeDirect(channel->peerPid, channel->peerUid, 0, target, code, *parcel,
                                                  nullptr);
            finishOneway(*channel, charge);
        });
        return true;
    }
    // Kept from call to call: a large call's buffers are not given back to
    // the system and taken again each time. They let go of what they hold
    // (binders above all) as soon as the reply is out.
    thread_local Parcel parcel;
    thread_local Parcel reply;
    if (target != nullptr) {
        parcel.setData(data, call.dataSize);
        status = IPCThreadState::self()->executeDirect(channel->peerPid, channel->peerUid, channel->id, target,
                                                      call.code, parcel, &reply);
    }
    // As on the platform, only a negative status fails the call.
    status = std::min<status_t>(status, OK);
    bool sent = true;
    if (status == OK && reply.objectsCount() > 0) {
        // Binder objects in a reply need binderd to translate them.
        IPCThreadState::self()->replyThroughBinderd(channel->id, call.sequence, reply);
    } else {
        const DirectReply header{call.sequence, status, status == OK ? static_cast<uint32_t>(reply.dataSize()) : 0,
                                 0};
        sent = sendReply(*channel, header, reply.data());
    }
    parcel.setData(nullptr, 0);
    reply.setData(nullptr, 0);
    return sent;
}

bool ChannelHub::sendReply(Channel& channel, const DirectReply& header, const uint8_t* data) {
    if (channel.replies != nullptr) {
        const FrameHeader frame{static_cast<uint32_t>(sizeof(header) + header.dataSize), kDirectReply};
        uint8_t prefix[sizeof(frame) + sizeof(header)];
        std::memcpy(prefix, &frame, sizeof(frame));
        std::memcpy(prefix + sizeof(frame), &header, sizeof(header));
        bool wake = false;
        switch (channel.replies->push(prefix, sizeof(prefix), data, header.dataSize, &wake)) {
            case SharedRing::Push::kDone:
                if (wake) {
                    const uint64_t ring = 1;
                    (void)!write(channel.replyBell.fd(), &ring, sizeof(ring));
                }
                return true;
            case SharedRing::Push::kBroken:
                return false;
            case SharedRing::Push::kFull:
                break;  // a large reply, or one the caller left unread: on the socket
        }
    }
    // A caller that does not read its reply loses its channel.
    return writeFrame(channel.fd, kDirectReply, &header, sizeof(header), data, header.dataSize, kReplyPatience);
}

sp<BBinder> ChannelHub::reach(Channel& channel, uint32_t handle, status_t* status) {
    auto known = channel.reach.find(handle);
    if (known != channel.reach.end()) {
        return known->second;
    }
    sp<BBinder> target;
    *status = IPCThreadState::self()->resolveReach(channel.id, handle, &target);
    if (*status != OK) {
        return nullptr;
    }
    channel.reach.emplace(handle, target);
    return target;
}

}  // namespace android
