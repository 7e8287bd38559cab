// Calls over direct channels: calls without binder objects go straight to
// the process that owns their target, over a channel binderd made: a thread's
// own for its two-way calls, its process's shared one for one-way calls.
// Everything else goes through binderd.
#include <binder/IPCThreadState.h>

#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include <binder/Binder.h>

#include "OnewayChannels.h"
#include "OnewayCredits.h"
#include "OutgoingChannel.h"
#include "RingBells.h"
#include "protocol/Connection.h"

namespace android {

using hostbinder::kGoRelay;

namespace {

// How long a caller waits for the owner to take a new channel's end before
// it calls through binderd instead.
constexpr int kWelcomeWaitMs = 5000;
// The ring of one-way calls: a burst of a few hundred small calls, while the
// owner catches up. A full ring sends calls through binderd, in order.
constexpr size_t kRingBytes = 64 * 1024;
// A two-way channel's rings each hold one call or reply at a time; larger
// ones (beyond half the ring) take the socket, where the copy costs more
// than the system calls the ring saves. Every thread has such a pair for
// each process it calls, so they stay small.
constexpr size_t kTwoWayRingBytes = 16 * 1024;
// How long a one-way call waits for the owner to make room in the ring.
constexpr auto kRingPatience = std::chrono::milliseconds(2);
constexpr auto kForever = std::chrono::hours(24 * 365);

// Pushes a call into the channel's ring, waking the owner when it sleeps.
hostbinder::SharedRing::Push pushCall(OutgoingChannel& channel, const hostbinder::DirectCall& call,
                                      const Parcel& data) {
    const hostbinder::FrameHeader header{static_cast<uint32_t>(sizeof(call) + data.dataSize()),
                                         hostbinder::kDirectCall};
    uint8_t prefix[sizeof(header) + sizeof(call)];
    std::memcpy(prefix, &header, sizeof(header));
    std::memcpy(prefix + sizeof(header), &call, sizeof(call));
    bool wake = false;
    const hostbinder::SharedRing::Push pushed =
        channel.ring->push(prefix, sizeof(prefix), data.data(), data.dataSize(), &wake);
    if (wake) {
        const uint64_t ring = 1;
        (void)!write(channel.doorbell.fd(), &ring, sizeof(ring));
    }
    return pushed;
}

// Whether `frame` is the reply to call `sequence`; if so, its status, and its
// data in `reply` when given.
bool isReplyTo(uint32_t sequence, const hostbinder::Frame& frame, Parcel* reply, status_t* status) {
    hostbinder::DirectReply answer;
    if (frame.command != hostbinder::kDirectReply || frame.payloadSize < sizeof(answer)) {
        return false;
    }
    std::memcpy(&answer, frame.payload, sizeof(answer));
    if (answer.sequence != sequence || frame.payloadSize - sizeof(answer) != answer.dataSize) {
        return false;
    }
    if (answer.status == OK && reply != nullptr) {
        reply->setData(frame.payload + sizeof(answer), answer.dataSize);
    }
    *status = answer.status;
    return true;
}

}  // namespace

void IPCThreadState::forgetChannels() {
    mRoutes.clear();
    mChannels.clear();
    mChannelDone.clear();
    mChannelPosted.clear();
    mReachDropped.clear();
}

std::shared_ptr<OutgoingChannel> IPCThreadState::openChannel(int32_t handle, uint32_t kind) {
    const hostbinder::OpenChannel request{static_cast<uint32_t>(handle), kind};
    uint32_t command = 0;
    std::vector<uint8_t> payload;
    if (!mConnection->send(hostbinder::kOpenChannel, &request, sizeof(request)) ||
        !awaitFrame({hostbinder::kChannelReady, hostbinder::kRefused}, &command, &payload)) {
        return nullptr;
    }
    hostbinder::ChannelReady ready{};
    const hostbinder::Frame frame{command, payload.data(), static_cast<uint32_t>(payload.size())};
    if (command != hostbinder::kChannelReady || !hostbinder::parseFixed(frame, &ready)) {
        return nullptr;
    }
    if (ready.newDescriptor == 0) {
        return kind == hostbinder::kOneWayChannel ? mProcess->onewayChannels().byId(ready.channel)
                                                  : mChannels[ready.channel];
    }
    const int fd = mConnection->takeDescriptor();
    if (fd < 0) {
        // This process had no descriptor to spare for it.
        return nullptr;
    }
    auto channel = std::make_shared<OutgoingChannel>(ready.channel, fd);
    // The owner answers the hello once it holds its end, and says which
    // rings it took; calls wait for that answer. Without descriptors or
    // memory to spare, calls and replies go on the socket.
    int memory = -1;
    int replyMemory = -1;
    const bool twoWay = kind == hostbinder::kTwoWayChannel;
    channel->doorbell = mProcess->ringBells().make();
    if (channel->doorbell) {
        channel->ring = hostbinder::SharedRing::create(twoWay ? kTwoWayRingBytes : kRingBytes, &memory);
    }
    if (channel->ring != nullptr && twoWay) {
        channel->replyBell = mProcess->ringBells().make();
        if (channel->replyBell) {
            channel->replies = hostbinder::SharedRing::create(kTwoWayRingBytes, &replyMemory);
        }
    }
    const hostbinder::FrameHeader hello{0, hostbinder::kDirectHello};
    const std::vector<uint8_t> bytes(reinterpret_cast<const uint8_t*>(&hello),
                                     reinterpret_cast<const uint8_t*>(&hello) + sizeof(hello));
    // In order: the owner takes them by position.
    if (!hostbinder::sendWithDescriptors(fd, bytes,
                                         {memory, memory >= 0 ? channel->doorbell.fd() : -1, replyMemory,
                                          replyMemory >= 0 ? channel->replyBell.fd() : -1})) {
        channel->state = OutgoingChannel::State::kBroken;
    }
    for (int shared : {memory, replyMemory}) {
        if (shared >= 0) {
            close(shared);
        }
    }
    if (kind == hostbinder::kTwoWayChannel) {
        mChannels[ready.channel] = channel;
    }
    return channel;
}

OutgoingChannel* IPCThreadState::twoWayChannelFor(int32_t handle) {
    auto route = mRoutes.find(handle);
    if (route == mRoutes.end()) {
        route = mRoutes.emplace(handle, openChannel(handle, hostbinder::kTwoWayChannel)).first;
    }
    OutgoingChannel* channel = route->second.get();
    return channel == nullptr || channel->state == OutgoingChannel::State::kBroken ? nullptr : channel;
}

std::shared_ptr<OutgoingChannel> IPCThreadState::onewayChannelFor(int32_t handle) {
    bool known = false;
    std::shared_ptr<OutgoingChannel> channel = mProcess->onewayChannels().find(handle, &known);
    if (!known) {
        channel = openChannel(handle, hostbinder::kOneWayChannel);
        mProcess->onewayChannels().route(handle, channel);
    }
    return channel;
}

bool IPCThreadState::welcomed(OutgoingChannel& channel, bool wait) {
    while (channel.state == OutgoingChannel::State::kAwaitingWelcome) {
        hostbinder::Frame frame;
        uint32_t taken = 0;
        if (channel.reader.next(&frame)) {
            const bool welcome = frame.command == hostbinder::kDirectWelcome && hostbinder::parseFixed(frame, &taken);
            channel.state = welcome ? OutgoingChannel::State::kReady : OutgoingChannel::State::kBroken;
            // A ring the owner did not take goes, with its bell.
            if ((taken & hostbinder::kCallRingTaken) == 0) {
                channel.ring.reset();
                channel.doorbell = {};
            }
            if ((taken & hostbinder::kReplyRingTaken) == 0 || channel.ring == nullptr) {
                channel.replies.reset();
                channel.replyBell = {};
            }
            break;
        }
        pollfd ready{channel.fd, POLLIN, 0};
        if (poll(&ready, 1, wait ? kWelcomeWaitMs : 0) <= 0) {
            return false;
        }
        if (channel.reader.readAvailable(channel.fd) == hostbinder::FrameReader::Read::kEnded ||
            channel.reader.malformed()) {
            channel.state = OutgoingChannel::State::kBroken;
        }
    }
    return channel.state == OutgoingChannel::State::kReady;
}

status_t IPCThreadState::callDirect(OutgoingChannel& channel, int32_t handle, uint32_t code, const Parcel& data,
                                    Parcel* reply) {
    if (!welcomed(channel, true)) {
        return kGoRelay;
    }
    const hostbinder::DirectCall call{++channel.sequence, static_cast<uint32_t>(handle), code, 0,
                                      static_cast<uint32_t>(data.dataSize()), 0};
    // Through shared memory when the call fits the ring, else on the socket.
    const hostbinder::SharedRing::Push pushed =
        channel.ring != nullptr ? pushCall(channel, call, data) : hostbinder::SharedRing::Push::kFull;
    if (pushed == hostbinder::SharedRing::Push::kBroken ||
        (pushed == hostbinder::SharedRing::Push::kFull &&
         !hostbinder::writeFrame(channel.fd, hostbinder::kDirectCall, &call, sizeof(call), data.data(),
                                 data.dataSize(), kForever))) {
        return channelLost(channel, handle);
    }
    // The reply comes in the reply ring or on the channel, or through binderd
    // when it carries binder objects; calls back along the chain come through
    // binderd.
    status_t status = OK;
    for (;;) {
        hostbinder::Frame frame;
        size_t consumed = 0;
        if (channel.replies != nullptr) {
            switch (channel.replies->pop(&channel.replyFrame)) {
                case hostbinder::SharedRing::Pop::kFrame:
                    if (hostbinder::decodeFrame(channel.replyFrame.data(), channel.replyFrame.size(), &frame,
                                                &consumed) == hostbinder::DecodeStatus::kComplete &&
                        consumed == channel.replyFrame.size() && isReplyTo(call.sequence, frame, reply, &status)) {
                        return status;
                    }
                    return channelLost(channel, handle);
                case hostbinder::SharedRing::Pop::kBroken:
                    return channelLost(channel, handle);
                case hostbinder::SharedRing::Pop::kEmpty:
                    break;
            }
        }
        while (channel.reader.next(&frame)) {
            if (isReplyTo(call.sequence, frame, reply, &status)) {
                return status;
            }
        }
        if (channel.reader.malformed()) {
            return channelLost(channel, handle);
        }
        uint32_t command = 0;
        std::vector<uint8_t> payload;
        if (!mConnection->frameBuffered()) {
            // The owner rings the reply bell only once this thread said it sleeps.
            if (channel.replies != nullptr && !channel.replies->sleep()) {
                continue;
            }
            pollfd ready[3] = {{channel.fd, POLLIN, 0}, {mConnection->fd(), POLLIN, 0},
                               {channel.replies != nullptr ? channel.replyBell.fd() : -1, POLLIN, 0}};
            mConnection->flush();
            if (poll(ready, 3, -1) < 0) {
                continue;
            }
            if (ready[2].revents != 0) {
                uint64_t rings = 0;
                (void)!read(channel.replyBell.fd(), &rings, sizeof(rings));
            }
            if (ready[0].revents != 0 &&
                channel.reader.readAvailable(channel.fd) == hostbinder::FrameReader::Read::kEnded) {
                return channelLost(channel, handle);
            }
            if (ready[1].revents == 0) {
                continue;
            }
        }
        if (!mConnection->receiveIfReady(&command, &payload)) {
            if (mConnection->broken()) {
                connectionLost();
                return DEAD_OBJECT;
            }
            continue;
        }
        const hostbinder::Frame incoming{command, payload.data(), static_cast<uint32_t>(payload.size())};
        hostbinder::TransactionView view;
        if (command == hostbinder::kIncomingChannelReply && hostbinder::parseTransaction(incoming, &view) &&
            view.header.target == channel.id && view.header.code == call.sequence) {
            if (view.header.status != OK) {
                return view.header.status;
            }
            if (reply != nullptr) {
                fillParcelFrom(view, reply);
            }
            return OK;
        }
        if (command == hostbinder::kIncomingTransaction && hostbinder::parseTransaction(incoming, &view) &&
            (view.header.flags & IBinder::FLAG_ONEWAY) == 0) {
            // A call back along the chain of the call this thread waits for.
            executeTransaction(incoming);
            continue;
        }
        handleStray(command, payload);
    }
}

status_t IPCThreadState::sendDirectOneway(int32_t handle, uint32_t code, const Parcel& data) {
    const std::shared_ptr<OutgoingChannel> channel = onewayChannelFor(handle);
    if (channel == nullptr || data.dataSize() > hostbinder::kMaxDirectOnewayBytes) {
        return kGoRelay;
    }
    std::unique_lock<std::mutex> lock(channel->lock);
    if (channel->state == OutgoingChannel::State::kBroken) {
        lock.unlock();
        mProcess->onewayChannels().route(handle, nullptr);
        return kGoRelay;
    }
    if (channel->relaying || !welcomed(*channel, false)) {
        return kGoRelay;
    }
    const size_t charge = hostbinder::bufferCharge(data.dataSize(), 0, true);
    if (channel->credit < charge) {
        const status_t status = requestCredit(*channel, charge - channel->credit);
        if (status != OK) {
            return status;
        }
    }
    const hostbinder::DirectCall call{0, static_cast<uint32_t>(handle), code, IBinder::FLAG_ONEWAY,
                                      static_cast<uint32_t>(data.dataSize()), 0};
    const status_t status = channel->ring != nullptr ? pushToRing(*channel, call, data)
                                                     : sendOnSocket(*channel, call, data);
    if (status == OK) {
        channel->credit -= charge;
        channel->sentCharge += charge;
    }
    lock.unlock();
    // The handle's calls take the channel now: credit that binderd keeps for
    // relayed ones would only take room in the owner's buffer.
    if (status == OK && mProcess->onewayCredits().holdsAny()) {
        mProcess->giveBackOnewayCredit(handle);
    }
    return status;
}

status_t IPCThreadState::pushToRing(OutgoingChannel& channel, const hostbinder::DirectCall& call,
                                    const Parcel& data) {
    const auto deadline = std::chrono::steady_clock::now() + kRingPatience;
    for (;;) {
        switch (pushCall(channel, call, data)) {
            case hostbinder::SharedRing::Push::kDone:
                return OK;
            case hostbinder::SharedRing::Push::kBroken:
                channel.state = OutgoingChannel::State::kBroken;
                return kGoRelay;
            case hostbinder::SharedRing::Push::kFull:
                // The owner is behind: give it the processor a moment, then
                // let the call wait in binderd, behind the others.
                if (std::chrono::steady_clock::now() >= deadline) {
                    return kGoRelay;
                }
                sched_yield();
                break;
        }
    }
}

status_t IPCThreadState::sendOnSocket(OutgoingChannel& channel, const hostbinder::DirectCall& call,
                                      const Parcel& data) {
    std::vector<uint8_t> bytes;
    hostbinder::buildFrame(&bytes, hostbinder::kDirectCall, &call, sizeof(call), data.data(), data.dataSize());
    // A frame this small goes in one piece or not at all.
    ssize_t sent;
    do {
        sent = send(channel.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        // The owner is behind: this call waits in binderd, behind the others.
        return kGoRelay;
    }
    if (sent < 0 || (static_cast<size_t>(sent) < bytes.size() &&
                     !hostbinder::writeFully(channel.fd, bytes.data() + sent, bytes.size() - sent, kForever))) {
        channel.state = OutgoingChannel::State::kBroken;
        return kGoRelay;
    }
    return OK;
}

status_t IPCThreadState::requestCredit(OutgoingChannel& channel, size_t bytes) {
    const hostbinder::ChannelCredit request{channel.id, static_cast<uint32_t>(bytes), 0};
    uint32_t command = 0;
    std::vector<uint8_t> payload;
    if (!mConnection->send(hostbinder::kChannelCredit, &request, sizeof(request)) ||
        !awaitFrame({hostbinder::kCreditGranted, hostbinder::kRefused}, &command, &payload)) {
        return DEAD_OBJECT;
    }
    const hostbinder::Frame frame{command, payload.data(), static_cast<uint32_t>(payload.size())};
    uint32_t granted = 0;
    if (command == hostbinder::kCreditGranted && hostbinder::parseFixed(frame, &granted)) {
        channel.credit += granted;
        return OK;
    }
    status_t refused = FAILED_TRANSACTION;
    hostbinder::parseFixed(frame, &refused);
    return refused == OK ? FAILED_TRANSACTION : refused;
}

bool IPCThreadState::fenceRelayedOneway(int32_t handle, hostbinder::ChannelProgress* fence) {
    bool known = false;
    const std::shared_ptr<OutgoingChannel> channel = mProcess->onewayChannels().find(handle, &known);
    if (channel == nullptr) {
        return false;
    }
    std::lock_guard<std::mutex> lock(channel->lock);
    if (!channel->relaying) {
        channel->relaying = true;
        // binderd takes back what is left of the credit with the fence.
        channel->credit = 0;
    }
    ++channel->relayedSent;
    *fence = hostbinder::ChannelProgress{channel->id, channel->sentCharge};
    return true;
}

void IPCThreadState::unfenceRefusedOneway(int32_t handle) {
    bool known = false;
    if (const std::shared_ptr<OutgoingChannel> channel = mProcess->onewayChannels().find(handle, &known)) {
        std::lock_guard<std::mutex> lock(channel->lock);
        --channel->relayedSent;
    }
}

status_t IPCThreadState::channelLost(OutgoingChannel& channel, int32_t handle) {
    // Closed once the caller, which still holds it, is done with it.
    const std::shared_ptr<OutgoingChannel> closing = mChannels[channel.id];
    mChannels.erase(channel.id);
    channel.state = OutgoingChannel::State::kBroken;
    for (auto& route : mRoutes) {
        if (route.second.get() == &channel) {
            route.second = nullptr;
        }
    }
    // Whether the owner died, or only the channel ended, binderd knows.
    Parcel ping;
    Parcel answer;
    const status_t alive = transactThroughBinderd(handle, IBinder::PING_TRANSACTION, ping, &answer, 0);
    return alive == DEAD_OBJECT ? DEAD_OBJECT : FAILED_TRANSACTION;
}

}  // namespace android
