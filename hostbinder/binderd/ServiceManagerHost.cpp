// The driver as the service manager's host: the service manager's holdings,
// its handle table, its replies and its one-way calls go through the driver's
// own rules like any process's.
#include "Driver.h"

#include <log/log.h>

namespace android::binderd {

using namespace hostbinder;

namespace {

constexpr const char* kTag = "binderd";

TransactionView viewOf(const ParcelWriter& parcel) {
    TransactionView view{};
    view.header.dataSize = static_cast<uint32_t>(parcel.data().size());
    view.header.offsetsCount = static_cast<uint32_t>(parcel.objects().size());
    view.data = parcel.data().data();
    view.offsets = reinterpret_cast<const uint8_t*>(parcel.objects().data());
    return view;
}

}  // namespace

bool Driver::takeOne(const Process& process, Holding kind) {
    if (!makeRoom(process, kind, 1)) {
        return false;
    }
    mLedger.take(process.holder(), kind, 1);
    return true;
}

void Driver::giveBack(const DriverLedger::Holder& holder, Holding kind, size_t amount) {
    mLedger.give(holder, kind, amount);
}

void Driver::releaseServiceHandle(uint32_t handle, uint32_t count) { releaseHandle(mServiceManager, handle, count); }

const Process* Driver::ownerOf(uint32_t handle) const {
    auto ref = mServiceManager.handles.find(handle);
    return ref == mServiceManager.handles.end() ? nullptr : ref->second.node->owner;
}

void Driver::reply(Thread& caller, const std::shared_ptr<Transaction>& request, const ParcelWriter& reply,
                   status_t status) {
    if (request->from != &caller) {
        return;
    }
    // Never a reply the caller could not read, nor one with a binder its
    // table has no room for.
    if (reply.data().size() + reply.objects().size() * sizeof(uint64_t) > kMaxTransactionBytes ||
        (status == OK && !roomForObjects(mServiceManager, *caller.process, reply.objects().size()))) {
        status = FAILED_TRANSACTION;
    }
    TransactionView view = viewOf(reply);
    view.header.status = status;
    deliverReply(*request, status, &mServiceManager, status == OK ? &view : nullptr);
    dropNodeRef(request->target);
}

void Driver::sendOneway(uint32_t handle, uint32_t code, const ParcelWriter& data) {
    auto ref = mServiceManager.handles.find(handle);
    if (ref == mServiceManager.handles.end() || ref->second.node->owner == nullptr) {
        return;
    }
    const std::shared_ptr<Node> node = ref->second.node;
    Process& receiver = *node->owner;
    TransactionView view = viewOf(data);
    view.header.code = code;
    view.header.flags = kFlagOneway;
    // A receiver that does not take its one-way calls misses the call.
    if (!objectsValid(mServiceManager, receiver, view) ||
        !roomInBuffer(receiver, bufferCharge(data.data().size(), data.objects().size(), true), true)) {
        if (mVerbose) {
            __android_log_print(ANDROID_LOG_INFO, kTag, "process %d missed a registration: its buffer is full",
                                receiver.pid);
        }
        return;
    }
    std::vector<std::shared_ptr<Node>> transit;
    std::shared_ptr<Transaction> call = makeTransaction(mServiceManager, node, view, &transit);
    call->transit = std::move(transit);
    queueOneway(call);
}

}  // namespace android::binderd
