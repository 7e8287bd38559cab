#include <binder/IPCThreadState.h>

#include <linux/android/binder.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include <binder/Binder.h>
#include <hostbinder/Socket.h>
#include <log/log.h>

#include "ChannelHub.h"
#include "OnewayChannels.h"
#include "OnewayCredits.h"
#include "OutgoingChannel.h"
#include "protocol/Connection.h"

namespace android {

using hostbinder::Connection;
using hostbinder::TransactionHeader;

namespace {

// The local binders listed in a parcel's object table, each of which travels
// with one strong reference until binderd hands it back.
std::vector<BBinder*> localBindersIn(const Parcel& parcel) {
    std::vector<BBinder*> nodes;
    for (size_t i = 0; i < parcel.objectsCount(); ++i) {
        flat_binder_object object;
        std::memcpy(&object, parcel.data() + parcel.objects()[i], sizeof(object));
        if (object.hdr.type == BINDER_TYPE_BINDER && object.cookie != 0) {
            nodes.push_back(reinterpret_cast<BBinder*>(object.cookie));
        }
    }
    return nodes;
}

TransactionHeader headerFor(const Parcel& parcel) {
    TransactionHeader header{};
    header.dataSize = static_cast<uint32_t>(parcel.dataSize());
    header.offsetsCount = static_cast<uint32_t>(parcel.objectsCount());
    return header;
}

bool fitsLimit(const Parcel& parcel) {
    return parcel.dataSize() + parcel.objectsCount() * sizeof(uint64_t) <= hostbinder::kMaxTransactionBytes;
}

// Fills `parcel` from a delivered transaction, taking the binders it carries.
void fillParcel(const hostbinder::TransactionView& view, Parcel* parcel) {
    parcel->setData(view.data, view.header.dataSize);
    std::vector<uint64_t> offsets(view.header.offsetsCount);
    if (!offsets.empty()) {  // the table arrives unaligned, so it is copied out
        std::memcpy(offsets.data(), view.offsets, offsets.size() * sizeof(uint64_t));
    }
    parcel->setObjects(offsets.data(), offsets.size());
    parcel->takeDeliveredBinders();
}

}  // namespace

void IPCThreadState::fillParcelFrom(const hostbinder::TransactionView& view, Parcel* parcel) {
    fillParcel(view, parcel);
}

IPCThreadState* IPCThreadState::self() {
    thread_local std::unique_ptr<IPCThreadState> state(new IPCThreadState());
    return state.get();
}

IPCThreadState::IPCThreadState()
    : mProcess(ProcessState::self()), mCallingPid(getpid()), mCallingUid(getuid()) {}

IPCThreadState::~IPCThreadState() = default;

sp<ProcessState> IPCThreadState::process() { return mProcess; }

pid_t IPCThreadState::getCallingPid() const { return mCallingPid; }

uid_t IPCThreadState::getCallingUid() const { return mCallingUid; }

void IPCThreadState::flushCommands() {
    if ((!mChannelDone.empty() || !mReachDropped.empty()) && connect()) {
        postChannelDone();
    }
    if (mConnection != nullptr) {
        mConnection->flush();
    }
}

void IPCThreadState::noteChannelDone(uint64_t channel, uint64_t total) {
    uint64_t& latest = mChannelDone[channel];
    latest = std::max(latest, total);
}

bool IPCThreadState::channelReportDue() const {
    // Progress is told in batches: a report costs binderd a wake-up, and an
    // owner of many channels (a listener of a busy service) would otherwise
    // send one per call. binderd needs it soon only to free room in the
    // buffer, which a batch well under the credit step leaves plenty of, or
    // for a call it holds, and then it asks (ChannelHub::progressWanted).
    constexpr uint64_t kReportEvery = hostbinder::kOnewayCreditBytes / 4;
    if (!mReachDropped.empty()) {
        return true;
    }
    for (const auto& [channel, total] : mChannelDone) {
        auto posted = mChannelPosted.find(channel);
        if (total - (posted == mChannelPosted.end() ? 0 : posted->second) >= kReportEvery) {
            return true;
        }
    }
    return false;
}

void IPCThreadState::noteReachDropped(uint64_t channel, uint32_t handle) { mReachDropped.emplace_back(channel, handle); }

void IPCThreadState::postChannelDone() {
    // Progress first: a withdrawal is answered only once the calls before it are counted.
    for (const auto& [channel, total] : mChannelDone) {
        const hostbinder::ChannelProgress progress{channel, total};
        mConnection->post(hostbinder::kChannelDone, &progress, sizeof(progress));
        mChannelPosted[channel] = total;
    }
    mChannelDone.clear();
    for (const auto& [channel, handle] : mReachDropped) {
        const hostbinder::ChannelReach dropped{channel, handle, 0};
        mConnection->post(hostbinder::kReachDropped, &dropped, sizeof(dropped));
    }
    mReachDropped.clear();
}

bool IPCThreadState::connect() {
    if (mConnection != nullptr && mGeneration == mProcess->generation()) {
        return true;
    }
    mConnection.reset();
    mOnewayAhead.clear();
    // A thread's first connection keeps what it noted for this session; a
    // new session after a lost one starts afresh.
    if (mGeneration != 0) {
        forgetChannels();
    }
    hostbinder::HelloThread hello{};
    uint64_t generation = 0;
    if (!mProcess->ensureSession(&hello.token, &generation)) {
        return false;
    }
    std::vector<uint8_t> welcome;
    std::string error;
    mConnection = Connection::connect(hostbinder::defaultSocketPath(), hostbinder::kHelloThread, &hello,
                                      sizeof(hello), &welcome, &error);
    if (mConnection == nullptr) {
        if (!error.empty()) {
            __android_log_print(ANDROID_LOG_ERROR, "hostbinder", "%s", error.c_str());
            mProcess->noteConnectionError(error);
        }
        return false;
    }
    mGeneration = generation;
    ++mConnectionSerial;
    return true;
}

bool IPCThreadState::stillConnected(uint64_t serial) const {
    return mConnection != nullptr && mConnectionSerial == serial;
}

status_t IPCThreadState::transact(int32_t handle, uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (!fitsLimit(data)) {
        return FAILED_TRANSACTION;
    }
    if (!connect()) {
        return DEAD_OBJECT;
    }
    const bool oneway = (flags & IBinder::FLAG_ONEWAY) != 0;
    // Straight to the owner when binderd has nothing to translate or show,
    // and, for a two-way call, no chain to follow: a thread serving a call
    // calls through binderd, which routes calls back along the chain.
    if (handle != 0 && data.objectsCount() == 0 && mProcess->directCallsAllowed()) {
        status_t status = hostbinder::kGoRelay;
        if (oneway) {
            status = sendDirectOneway(handle, code, data);
        } else if (mServingDepth == 0) {
            if (OutgoingChannel* channel = twoWayChannelFor(handle)) {
                status = callDirect(*channel, handle, code, data, reply);
            }
        }
        if (status != hostbinder::kGoRelay) {
            return status;
        }
    }
    return transactThroughBinderd(handle, code, data, reply, flags);
}

status_t IPCThreadState::transactThroughBinderd(int32_t handle, uint32_t code, const Parcel& data, Parcel* reply,
                                                uint32_t flags) {
    if (!connect()) {
        return DEAD_OBJECT;
    }
    TransactionHeader header = headerFor(data);
    header.target = static_cast<uint32_t>(handle);
    header.code = code;
    header.flags = flags & IBinder::FLAG_ONEWAY;
    const bool oneway = header.flags != 0;
    // A relayed one-way call goes right behind its fence, on the same connection.
    hostbinder::ChannelProgress fence{};
    bool fenced = false;
    if (oneway) {
        fenced = fenceRelayedOneway(handle, &fence);
    } else if (mServingChannel != 0 && !mServingChannelTold) {
        // This call continues the chain of the call this thread serves.
        mConnection->post(hostbinder::kServingChannel, &mServingChannel, sizeof(mServingChannel));
        mServingChannelTold = true;
    }
    if (!mChannelDone.empty() || !mReachDropped.empty()) {
        postChannelDone();
    }
    if (oneway && paidFromCredit(header, data, fenced ? &fence : nullptr)) {
        // The call went on the control connection; what was posted here goes now.
        mConnection->flush();
        return OK;
    }
    if (fenced) {
        mConnection->post(hostbinder::kChannelFence, &fence, sizeof(fence));
    }
    const std::vector<BBinder*> sentNodes = localBindersIn(data);
    mProcess->noteSendRefs(sentNodes);
    if (!mConnection->sendTransaction(hostbinder::kTransaction, header, data.data(), data.objects())) {
        connectionLost();
        return DEAD_OBJECT;
    }
    Parcel unusedReply;
    hostbinder::OnewayAccepted accepted{};
    const status_t status = waitForResponse(reply != nullptr ? reply : &unusedReply, oneway ? &accepted : nullptr);
    if (oneway && status == OK) {
        mProcess->onewayCredits().accepted(mGeneration, handle, accepted);
    }
    if (status == hostbinder::kRefusedMarker) {
        for (BBinder* node : sentNodes) {
            mProcess->dropNodeRef(node);
        }
        if (fenced) {
            unfenceRefusedOneway(handle);
        }
        return mRefusedStatus;
    }
    return status;
}

bool IPCThreadState::paidFromCredit(const TransactionHeader& header, const Parcel& data,
                                    const hostbinder::ChannelProgress* fence) {
    uint64_t generation = 0;
    const std::shared_ptr<hostbinder::Connection> control = mProcess->control(&generation);
    // The thread's connection must belong to the same session.
    return control != nullptr && generation == mGeneration &&
           mProcess->onewayCredits().sendPaid(*control, generation, static_cast<int32_t>(header.target), header,
                                              data.data(), fence);
}

status_t IPCThreadState::waitForResponse(Parcel* reply, hostbinder::OnewayAccepted* accepted) {
    // A call served while waiting may lose the connection, or make a new
    // one: either way this call's reply can no longer come.
    const uint64_t serial = mConnectionSerial;
    uint32_t command = 0;
    std::vector<uint8_t> payload;
    while (stillConnected(serial) && mConnection->receive(&command, &payload)) {
        const hostbinder::Frame frame{command, payload.data(), static_cast<uint32_t>(payload.size())};
        switch (command) {
            case hostbinder::kTransactionComplete: {
                if (accepted != nullptr && !hostbinder::parseFixed(frame, accepted)) {
                    *accepted = hostbinder::OnewayAccepted{};
                }
                return OK;
            }
            case hostbinder::kRefused:
                if (!hostbinder::parseFixed(frame, &mRefusedStatus)) {
                    mRefusedStatus = FAILED_TRANSACTION;
                }
                return hostbinder::kRefusedMarker;
            case hostbinder::kIncomingReply: {
                hostbinder::TransactionView view;
                if (!hostbinder::parseTransaction(frame, &view)) {
                    return FAILED_TRANSACTION;
                }
                if (view.header.status != OK) {
                    return view.header.status;
                }
                fillParcel(view, reply);
                return OK;
            }
            case hostbinder::kIncomingTransaction: {
                hostbinder::TransactionView view;
                if (hostbinder::parseTransaction(frame, &view) && (view.header.flags & IBinder::FLAG_ONEWAY) != 0) {
                    mOnewayAhead.push_back(payload);
                } else {
                    executeTransaction(frame);
                }
                break;
            }
            default:
                handleStray(command, payload);
                break;
        }
    }
    if (stillConnected(serial)) {
        connectionLost();
    }
    return DEAD_OBJECT;
}

bool IPCThreadState::awaitFrame(std::initializer_list<uint32_t> wanted, uint32_t* command,
                                std::vector<uint8_t>* payload) {
    const uint64_t serial = mConnectionSerial;
    while (stillConnected(serial) && mConnection->receive(command, payload)) {
        for (uint32_t one : wanted) {
            if (*command == one) {
                return true;
            }
        }
        handleStray(*command, *payload);
    }
    if (stillConnected(serial)) {
        connectionLost();
    }
    return false;
}

bool IPCThreadState::handleStray(uint32_t command, const std::vector<uint8_t>& payload) {
    const hostbinder::Frame frame{command, payload.data(), static_cast<uint32_t>(payload.size())};
    switch (command) {
        case hostbinder::kIncomingTransaction: {
            hostbinder::TransactionView view;
            if (!hostbinder::parseTransaction(frame, &view)) {
                return true;
            }
            if ((view.header.flags & IBinder::FLAG_ONEWAY) != 0) {
                // Sent ahead to a pool thread: it runs in its turn.
                mOnewayAhead.push_back(payload);
            } else {
                // Only a thread waiting in a chain takes calls back along it.
                sendReply(Parcel(), FAILED_TRANSACTION);
            }
            return true;
        }
        case hostbinder::kIncomingChannelReply:
            // The answer to a call this thread gave up on.
            return true;
        default:
            return false;
    }
}

void IPCThreadState::connectionLost() {
    mConnection.reset();
    mProcess->sessionBroken(mGeneration);
}

void IPCThreadState::executeTransaction(const hostbinder::Frame& frame) {
    hostbinder::TransactionView view;
    if (!hostbinder::parseTransaction(frame, &view)) {
        return;
    }
    Parcel data;
    fillParcel(view, &data);
    const uint64_t serial = mConnectionSerial;
    const pid_t outerPid = mCallingPid;
    const uid_t outerUid = mCallingUid;
    const uint64_t outerChannel = mServingChannel;
    const bool outerTold = mServingChannelTold;
    mCallingPid = view.header.senderPid;
    mCallingUid = view.header.senderUid;
    mServingChannel = 0;
    mServingChannelTold = false;
    ++mServingDepth;
    const sp<BBinder> target(reinterpret_cast<BBinder*>(view.header.target));
    const bool oneway = (view.header.flags & IBinder::FLAG_ONEWAY) != 0;
    // As on the platform, onTransact always gets a reply parcel; a one-way
    // call's is dropped unread.
    Parcel reply;
    status_t status = OK;
    if (oneway) {
        // In turn with the object's one-way calls that came over channels.
        mProcess->channels().turns().runOrWait(
            target.get(), [&] { status = target->transact(view.header.code, data, &reply, view.header.flags); });
    } else {
        status = target->transact(view.header.code, data, &reply, view.header.flags);
    }
    --mServingDepth;
    mServingChannel = outerChannel;
    mServingChannelTold = outerTold;
    mCallingPid = outerPid;
    mCallingUid = outerUid;
    // The answer belongs on the connection the call came on, if it still stands.
    if (!stillConnected(serial)) {
        return;
    }
    if (oneway) {
        // Told with this thread's next frame: a burst of calls costs no write each.
        mConnection->post(hostbinder::kOnewayDone);
        return;
    }
    // As on the platform, only a negative status is an error; with any other
    // the reply goes back as written.
    if (status >= OK && !fitsLimit(reply)) {
        status = FAILED_TRANSACTION;
    }
    sendReply(reply, std::min<status_t>(status, OK));
}

void IPCThreadState::sendReply(const Parcel& reply, status_t status) {
    static const Parcel kEmpty;
    const Parcel& sent = status == OK ? reply : kEmpty;
    TransactionHeader header = headerFor(sent);
    header.status = status;
    mProcess->noteSendRefs(localBindersIn(sent));
    mConnection->sendTransaction(hostbinder::kReply, header, sent.data(), sent.objects());
}

void IPCThreadState::joinThreadPool(bool /*isMain*/) {
    if (!connect() || !mConnection->send(hostbinder::kEnterLooper, nullptr, 0)) {
        return;
    }
    const uint64_t serial = mConnectionSerial;
    uint32_t command = 0;
    std::vector<uint8_t> payload;
    while (stillConnected(serial)) {
        if (!mOnewayAhead.empty()) {
            payload = std::move(mOnewayAhead.front());
            mOnewayAhead.pop_front();
            command = hostbinder::kIncomingTransaction;
        } else {
            if (!mChannelDone.empty() || !mReachDropped.empty()) {
                postChannelDone();
            }
            if (!mConnection->receive(&command, &payload)) {
                break;
            }
        }
        if (command == hostbinder::kIncomingTransaction) {
            executeTransaction({command, payload.data(), static_cast<uint32_t>(payload.size())});
        } else {
            handleStray(command, payload);
        }
    }
    mConnection.reset();
}

status_t IPCThreadState::executeDirect(pid_t pid, uid_t uid, uint64_t channel, const sp<BBinder>& target,
                                       uint32_t code, const Parcel& data, Parcel* reply) {
    const pid_t outerPid = mCallingPid;
    const uid_t outerUid = mCallingUid;
    const uint64_t outerChannel = mServingChannel;
    const bool outerTold = mServingChannelTold;
    mCallingPid = pid;
    mCallingUid = uid;
    mServingChannel = channel;
    mServingChannelTold = false;
    ++mServingDepth;
    Parcel unusedReply;
    status_t status = target->transact(code, data, reply != nullptr ? reply : &unusedReply,
                                       reply != nullptr ? 0 : IBinder::FLAG_ONEWAY);
    --mServingDepth;
    if (mServingChannelTold && mConnection != nullptr) {
        const uint64_t none = 0;
        mConnection->post(hostbinder::kServingChannel, &none, sizeof(none));
    }
    mServingChannel = outerChannel;
    mServingChannelTold = outerTold;
    mCallingPid = outerPid;
    mCallingUid = outerUid;
    if (reply != nullptr && status == OK && !fitsLimit(*reply)) {
        status = FAILED_TRANSACTION;
    }
    return status;
}

status_t IPCThreadState::resolveReach(uint64_t channel, uint32_t handle, sp<BBinder>* target) {
    if (!connect()) {
        return DEAD_OBJECT;
    }
    const hostbinder::ChannelReach request{channel, handle, 0};
    if (!mChannelDone.empty() || !mReachDropped.empty()) {
        postChannelDone();
    }
    if (!mConnection->send(hostbinder::kResolveReach, &request, sizeof(request))) {
        connectionLost();
        return DEAD_OBJECT;
    }
    uint32_t command = 0;
    std::vector<uint8_t> payload;
    if (!awaitFrame({hostbinder::kReachResolved, hostbinder::kRefused}, &command, &payload)) {
        return DEAD_OBJECT;
    }
    const hostbinder::Frame frame{command, payload.data(), static_cast<uint32_t>(payload.size())};
    uint64_t cookie = 0;
    if (command == hostbinder::kReachResolved && hostbinder::parseFixed(frame, &cookie)) {
        // binderd keeps the object alive until this thread speaks again: it
        // does so at once, or an idle thread would keep it alive for good.
        *target = reinterpret_cast<BBinder*>(cookie);
        mConnection->send(hostbinder::kHoldingNow, nullptr, 0);
        return OK;
    }
    status_t refused = FAILED_TRANSACTION;
    hostbinder::parseFixed(frame, &refused);
    return refused == OK ? FAILED_TRANSACTION : refused;
}

void IPCThreadState::replyThroughBinderd(uint64_t channel, uint32_t sequence, const Parcel& reply) {
    if (!connect()) {
        return;
    }
    TransactionHeader header = headerFor(reply);
    header.target = channel;
    header.code = sequence;
    mProcess->noteSendRefs(localBindersIn(reply));
    mConnection->sendTransaction(hostbinder::kChannelReply, header, reply.data(), reply.objects());
}

}  // namespace android
