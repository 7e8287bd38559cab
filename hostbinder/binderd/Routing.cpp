// Where each transaction and reply goes.
#include "Driver.h"

#include "Limits.h"

namespace android::binderd {

using namespace hostbinder;

bool Driver::startTransaction(Thread& thread, const TransactionView& view) {
    if (thread.waiting()) {
        return false;
    }
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
    const size_t charge = bufferCharge(view.header.dataSize, view.header.offsetsCount, oneway);
    // A two-way call made while serving one continues that call's chain.
    std::shared_ptr<Transaction> parent;
    if (!oneway && !thread.serving.empty() && !thread.serving.back()->oneway()) {
        parent = thread.serving.back();
    } else if (!oneway && thread.serving.empty() && thread.servingChannel != 0) {
        Channel* channel = ownedChannel(*thread.process, thread.servingChannel);
        if (channel != nullptr && !channel->oneway) {
            parent = chainLinkOf(*channel);
        }
    }
    if (!objectsValid(sender, receiver, view) ||
        (&receiver != &mServiceManager && !roomInBuffer(receiver, charge, oneway)) ||
        (parent != nullptr && parent->depth >= kMaxCallDepth)) {
        refuse(thread, view, target.get(), FAILED_TRANSACTION);
        return true;
    }
    std::vector<std::shared_ptr<Node>> transit;
    std::shared_ptr<Transaction> transaction = makeTransaction(sender, target, view, &transit);
    if (parent != nullptr) {
        transaction->parent = parent;
        transaction->depth = parent->depth + 1;
    }
    if (&receiver == &mServiceManager) {
        if (oneway) {
            const OnewayAccepted accepted{0, 0, sender.revocations};
            mOutbox.send(thread.connection, kTransactionComplete, &accepted, sizeof(accepted));
            mServices.releaseRequestHandles(*transaction, 0);
            dropNodeRef(target);
            return true;
        }
        awaitReply(thread, transaction);
        mServices.serve(thread, transaction);
        return true;
    }
    // Until delivery the transaction keeps its owner-bound binders alive.
    transaction->transit = std::move(transit);
    if (oneway) {
        acceptOneway(thread, static_cast<uint32_t>(view.header.target), transaction);
        return true;
    }
    awaitReply(thread, transaction);
    chargeBuffer(*transaction, charge);
    // A call back into a process that is waiting in this chain, at any level,
    // goes to the thread that waits there, not to its pool.
    for (std::shared_ptr<Transaction> link = parent; link != nullptr; link = link->parent.lock()) {
        Thread* waiter = link->from;
        if (waiter != nullptr && waiter->process == &receiver) {
            deliver(*waiter, transaction);
            return true;
        }
    }
    enqueueWork(receiver, transaction);
    return true;
}

void Driver::awaitReply(Thread& thread, const std::shared_ptr<Transaction>& call) {
    call->from = &thread;
    thread.awaiting.push_back({call, thread.serving.size()});
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
    if (thread.serving.empty() || thread.serving.back()->oneway() || thread.waiting()) {
        return false;
    }
    std::shared_ptr<Transaction> call = thread.serving.back();
    thread.serving.pop_back();
    resumeWaiting(thread);
    releaseCall(*call);
    Thread* caller = call->from;
    if (caller != nullptr) {
        status_t status = view.header.status;
        if (status == OK && !objectsValid(*thread.process, *caller->process, view)) {
            status = FAILED_TRANSACTION;
        }
        deliverReply(*call, status, thread.process, status == OK ? &view : nullptr);
    } else if (objectsWellFormed(*thread.process, view)) {
        returnSendRefs(*thread.process, view);
    }
    dropNodeRef(call->target);
    becomeIdle(thread);
    return true;
}

void Driver::deliverReply(Transaction& call, status_t status, Process* from, const TransactionView* view) {
    Thread& caller = *call.from;
    call.from = nullptr;
    if (!caller.waiting() || caller.awaiting.back().call.get() != &call) {
        // Calls back along the chain still run above this one on the caller,
        // so the chain broke (a thread in it went): the call fails when the
        // caller is back at it, and the reply cannot reach a wrong level.
        for (OutgoingCall& outgoing : caller.awaiting) {
            if (outgoing.call.get() == &call) {
                outgoing.failure = status == OK ? DEAD_OBJECT : status;
            }
        }
        if (view != nullptr) {
            returnSendRefs(*from, *view);
        }
        return;
    }
    caller.awaiting.pop_back();
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

void Driver::resumeWaiting(Thread& thread) {
    if (!thread.waiting() || thread.awaiting.back().failure == OK) {
        return;
    }
    const OutgoingCall failed = thread.awaiting.back();
    thread.awaiting.pop_back();
    TransactionHeader header{};
    header.status = failed.failure;
    mOutbox.sendTransaction(thread.connection, kIncomingReply, header, nullptr, nullptr);
    if (mTraffic.watched()) {
        reportReply(*failed.call, failed.failure, nullptr, *thread.process, nullptr);
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
    thread.serving.push_back(transaction);
    keepTransit(thread, *transaction);
    sendIncoming(thread, *transaction);
    if (transaction->oneway()) {
        transaction->target->oneway = Node::Oneway::kRunning;
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
    if (!thread.looper || !thread.serving.empty() || !thread.awaiting.empty()) {
        return;
    }
    Process& process = *thread.process;
    if (!process.todo.empty()) {
        std::shared_ptr<Transaction> next = process.todo.front();
        process.todo.pop_front();
        deliver(thread, next);
        return;
    }
    process.idleLoopers.push_back(&thread);
}

void Driver::refuse(Thread& thread, const TransactionView& view, const Node* target, status_t status) {
    if (mTraffic.watched()) {
        reportRefusal(thread, view, target, status);
    }
    mOutbox.send(thread.connection, kRefused, &status, sizeof(status));
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
