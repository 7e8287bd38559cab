// Where each transaction and reply goes.
#include "Driver.h"

namespace android::binderd {

using namespace hostbinder;

bool Driver::startTransaction(Thread& thread, const TransactionView& view) {
    if (thread.awaiting != nullptr) {
        return false;
    }
    // The thread's client dropped its one-way credit when it sent this.
    endCredit(thread);
    Process& sender = *thread.process;
    std::shared_ptr<Node> target;
    if (view.header.target == 0) {
        target = mContextNode;
    } else {
        auto handle = view.header.target <= UINT32_MAX ? sender.handles.find(static_cast<uint32_t>(view.header.target))
                                                        : sender.handles.end();
        if (handle == sender.handles.end()) {
            refuse(thread, view, nullptr, FAILED_TRANSACTION);
            return true;
        }
        target = handle->second.node;
    }
    if (target->owner == nullptr) {
        refuse(thread, view, target.get(), DEAD_OBJECT);
        return true;
    }
    Process& receiver = *target->owner;
    const bool oneway = (view.header.flags & kFlagOneway) != 0;
    const size_t size = size_t{view.header.dataSize} + size_t{view.header.offsetsCount} * sizeof(uint64_t);
    if (!objectsValid(sender, receiver, view) ||
        (&receiver != &mServiceManager && !bufferFits(receiver, size, oneway))) {
        refuse(thread, view, target.get(), FAILED_TRANSACTION);
        return true;
    }
    std::vector<std::shared_ptr<Node>> transit;
    std::shared_ptr<Transaction> transaction = makeTransaction(sender, target, view, &transit);
    if (&receiver == &mServiceManager) {
        if (oneway) {
            const OnewayAccepted accepted{0, 0, sender.revocations};
            mOutbox.send(thread.connection, kTransactionComplete, &accepted, sizeof(accepted));
            releaseRequestHandles(*transaction, 0);
            dropNodeRef(target);
            return true;
        }
        thread.awaiting = transaction;
        transaction->from = &thread;
        serveServiceManager(thread, transaction);
        return true;
    }
    // Until delivery the transaction keeps its owner-bound binders alive.
    transaction->transit = std::move(transit);
    if (oneway) {
        acceptOneway(thread, static_cast<uint32_t>(view.header.target), transaction);
        return true;
    }
    transaction->from = &thread;
    thread.awaiting = transaction;
    transaction->charged = true;
    receiver.pendingBytes += size;
    // A call back into a process that is waiting in this chain goes to the
    // thread that waits, not to its pool.
    for (auto it = thread.serving.rbegin(); it != thread.serving.rend(); ++it) {
        Thread* waiter = (*it)->from;
        if (waiter != nullptr && waiter->process == &receiver) {
            deliver(*waiter, transaction);
            return true;
        }
    }
    enqueueWork(receiver, transaction);
    return true;
}

std::shared_ptr<Transaction> Driver::makeTransaction(Process& sender, const std::shared_ptr<Node>& target,
                                                     const TransactionView& view,
                                                     std::vector<std::shared_ptr<Node>>* transit) {
    auto transaction = std::make_shared<Transaction>();
    translate(sender, *target->owner, view, transaction.get(), transit);
    transaction->target = target;
    transaction->header.target = target->cookie;
    transaction->header.code = view.header.code;
    transaction->header.flags = view.header.flags & kFlagOneway;
    transaction->header.senderPid = sender.pid;
    transaction->header.senderUid = sender.uid;
    transaction->id = ++mLastTransactionId;
    takeNodeRef(*target);
    if (mTraffic.watched()) {
        reportCall(sender, *transaction, static_cast<uint32_t>(view.header.target));
    }
    return transaction;
}

bool Driver::finishReply(Thread& thread, const TransactionView& view) {
    if (thread.serving.empty() || thread.serving.back()->oneway()) {
        return false;
    }
    std::shared_ptr<Transaction> call = thread.serving.back();
    thread.serving.pop_back();
    releaseCall(*call);
    Thread* caller = call->from;
    if (caller != nullptr) {
        status_t status = view.header.status;
        if (status == OK && !objectsValid(*thread.process, *caller->process, view)) {
            status = FAILED_TRANSACTION;
        }
        deliverReply(*call, status, thread.process, status == OK ? &view : nullptr);
    }
    dropNodeRef(call->target);
    becomeIdle(thread);
    return true;
}

void Driver::deliverReply(Transaction& call, status_t status, Process* from, const TransactionView* view) {
    Thread& caller = *call.from;
    call.from = nullptr;
    caller.awaiting = nullptr;
    Transaction reply;
    reply.header.status = status;
    if (view != nullptr) {
        translate(*from, *caller.process, *view, &reply, &caller.transit);
    }
    reply.header.dataSize = static_cast<uint32_t>(reply.data.size());
    reply.header.offsetsCount = static_cast<uint32_t>(reply.offsets.size());
    mOutbox.sendTransaction(caller.connection, kIncomingReply, reply.header, reply.data.data(),
                            reply.offsets.data());
    if (mTraffic.watched()) {
        reportReply(call, status, from, *caller.process, view);
    }
}

void Driver::enqueueWork(Process& process, const std::shared_ptr<Transaction>& transaction) {
    if (!process.idleLoopers.empty()) {
        Thread* looper = process.idleLoopers.front();
        process.idleLoopers.pop_front();
        deliver(*looper, transaction);
        return;
    }
    process.todo.push_back(transaction);
    if (process.loopers + process.pendingSpawns < process.maxThreads) {
        ++process.pendingSpawns;
        mOutbox.send(process.control, kSpawnLooper, nullptr, 0);
    }
}

void Driver::deliver(Thread& thread, const std::shared_ptr<Transaction>& transaction) {
    thread.idle = false;
    thread.serving.push_back(transaction);
    keepTransit(thread, *transaction);
    sendIncoming(thread, *transaction);
    if (transaction->oneway()) {
        transaction->target->onewayThread = &thread;
        fillPipeline(*transaction->target);
    }
}

void Driver::keepTransit(Thread& thread, Transaction& transaction) {
    for (auto& node : transaction.transit) {
        thread.transit.push_back(node);
    }
    transaction.transit.clear();
}

void Driver::sendIncoming(Thread& thread, const Transaction& transaction) {
    TransactionHeader header = transaction.header;
    header.dataSize = static_cast<uint32_t>(transaction.data.size());
    header.offsetsCount = static_cast<uint32_t>(transaction.offsets.size());
    mOutbox.sendTransaction(thread.connection, kIncomingTransaction, header, transaction.data.data(),
                            transaction.offsets.data());
}

void Driver::becomeIdle(Thread& thread) {
    if (!thread.looper || !thread.serving.empty() || thread.awaiting != nullptr) {
        return;
    }
    Process& process = *thread.process;
    if (!process.todo.empty()) {
        std::shared_ptr<Transaction> next = process.todo.front();
        process.todo.pop_front();
        deliver(thread, next);
        return;
    }
    thread.idle = true;
    process.idleLoopers.push_back(&thread);
}

void Driver::refuse(Thread& thread, const TransactionView& view, const Node* target, status_t status) {
    if (mTraffic.watched()) {
        reportRefusal(thread, view, target, status);
    }
    mOutbox.send(thread.connection, kRefused, &status, sizeof(status));
}

bool Driver::bufferFits(const Process& receiver, size_t size, bool oneway) const {
    const size_t oneways = receiver.queuedOnewayBytes + receiver.reservedOnewayBytes;
    return receiver.pendingBytes + oneways + size <= kMaxTransactionBytes &&
           (!oneway || oneways + size <= kMaxQueuedOnewayBytes);
}

void Driver::releaseCall(Transaction& call) {
    if (call.charged && call.target->owner != nullptr) {
        call.target->owner->pendingBytes -= call.size();
    }
    call.charged = false;
}

void Driver::abandon(const std::shared_ptr<Transaction>& transaction) {
    releaseCall(*transaction);
    if (transaction->from != nullptr) {
        deliverReply(*transaction, DEAD_OBJECT, nullptr, nullptr);
    }
    if (transaction->oneway()) {
        retireOneway(*transaction);
        advanceOneway(*transaction->target);
    }
    for (auto& node : transaction->transit) {
        dropNodeRef(node);
    }
    transaction->transit.clear();
    dropNodeRef(transaction->target);
}

void Driver::releaseTransit(Thread& thread) {
    std::vector<std::shared_ptr<Node>> transit;
    transit.swap(thread.transit);
    for (auto& node : transit) {
        dropNodeRef(node);
    }
}

}  // namespace android::binderd
