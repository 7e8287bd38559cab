// What the connections watching the traffic hear: one record per call and per
// reply, told from the driver's own state. Reached only while someone watches.
#include "Driver.h"

namespace android::binderd {

using namespace hostbinder;

namespace {

void setEnds(TrafficRecord* record, const Process* sender, const Process* receiver) {
    if (sender != nullptr) {
        record->senderPid = sender->pid;
        record->senderUid = sender->uid;
    }
    if (receiver != nullptr) {
        record->receiverPid = receiver->pid;
        record->receiverUid = receiver->uid;
    }
}

}  // namespace

bool Driver::startWatching(ConnectionId id, Peer& peer, const Frame& frame) {
    if (frame.payloadSize != 0) {
        return false;
    }
    const uint32_t refusal = mTraffic.admit(id, peer.pid, peer.uid);
    if (refusal != 0) {
        mOutbox.send(id, kConnectionRefused, &refusal, sizeof(refusal));
        mOutbox.finish(id);
        return true;
    }
    peer.watcher = true;
    mOutbox.send(id, kWelcome, nullptr, 0);
    if (mTraffic.watcherCount() == 1) {
        // Every call goes through binderd from now on, so that it is seen.
        broadcastWatchState();
    }
    return true;
}

const std::u16string* Driver::describeTarget(const Node* target, TrafficRecord* record) const {
    if (target == nullptr) {
        record->target = kTargetUnknown;
        return nullptr;
    }
    if (target == mContextNode.get()) {
        record->target = kTargetServiceManager;
        return nullptr;
    }
    record->target = kTargetNode;
    record->node = target->address;
    if (target->owner == nullptr) {
        return nullptr;
    }
    auto registered = mServiceManager.handleOfNode.find(target);
    return registered == mServiceManager.handleOfNode.end() ? nullptr : mServices.registry().nameOf(registered->second);
}

void Driver::reportCall(const Process& sender, const Transaction& call, uint32_t handle) {
    TrafficRecord record{};
    record.kind = kTrafficCall;
    record.id = call.id;
    record.handle = handle;
    record.code = call.header.code;
    record.flags = call.header.flags;
    record.dataSize = static_cast<uint32_t>(call.data.size());
    record.objects = static_cast<uint32_t>(call.offsets.size());
    setEnds(&record, &sender, call.target->owner);
    const std::u16string* name = describeTarget(call.target.get(), &record);
    mTraffic.report(record, name, call.data.data(), call.data.size());
}

void Driver::reportReply(const Transaction& call, status_t status, const Process* from, const Process& to,
                         const TransactionView* view) {
    TrafficRecord record{};
    record.kind = kTrafficReply;
    record.id = call.id;
    record.code = call.header.code;
    record.status = status;
    if (view != nullptr) {
        record.dataSize = view->header.dataSize;
        record.objects = view->header.offsetsCount;
    }
    // Without a replier, binderd answers.
    setEnds(&record, from != nullptr ? from : &mServiceManager, &to);
    const std::u16string* name = describeTarget(call.target.get(), &record);
    mTraffic.report(record, name, call.data.data(), call.data.size());
}

void Driver::reportRefusal(const Thread& thread, const TransactionView& view, const Node* target,
                           status_t status) {
    TrafficRecord record{};
    record.kind = kTrafficCall;
    record.id = ++mLastTransactionId;
    record.handle = static_cast<uint32_t>(view.header.target);
    record.code = view.header.code;
    record.flags = view.header.flags & kFlagOneway;
    record.dataSize = view.header.dataSize;
    record.objects = view.header.offsetsCount;
    setEnds(&record, thread.process, target != nullptr ? target->owner : nullptr);
    const std::u16string* name = describeTarget(target, &record);
    mTraffic.report(record, name, view.data, view.header.dataSize);

    TrafficRecord reply = record;
    reply.kind = kTrafficReply;
    reply.status = status;
    reply.dataSize = reply.objects = 0;
    setEnds(&reply, &mServiceManager, thread.process);
    mTraffic.report(reply, name, view.data, view.header.dataSize);
}

}  // namespace android::binderd
