// One-way calls: the receiver's buffer limit, the senders' credit, the order
// per node, and calls sent ahead to the thread that serves the node.
#include "Driver.h"

namespace android::binderd {

using namespace hostbinder;

void Driver::acceptOneway(Thread& sender, uint32_t handle, const std::shared_ptr<Transaction>& transaction) {
    Process& receiver = *transaction->target->owner;
    if (const Channel* channel = onewayChannelTo(*sender.process, receiver)) {
        transaction->channel = channel->id;
    }
    queueOneway(transaction);
    OnewayAccepted accepted{0, 0, sender.process->revocations};
    // Credit never makes anyone give way.
    if (mLedger.held(receiver.holder(), kOnewayBytes) + kOnewayCreditBytes <= kCreditGrantCeiling &&
        fits(receiver, kBufferBytes, kOnewayCreditBytes) && fits(receiver, kOnewayBytes, kOnewayCreditBytes)) {
        sender.credit = OnewayCredit{transaction->target, handle, 0};
        reserveCredit(sender.credit, kOnewayCreditBytes);
        accepted.creditBytes = static_cast<uint32_t>(kOnewayCreditBytes);
    }
    mOutbox.send(sender.connection, kTransactionComplete, &accepted, sizeof(accepted));
}

bool Driver::startCreditedOneway(Thread& thread, const TransactionView& view) {
    if (view.header.offsetsCount != 0 || (view.header.flags & kFlagOneway) == 0) {
        return false;
    }
    OnewayCredit& credit = thread.credit;
    if (credit.node == nullptr) {
        // Voided when the node's owner died, after the thread sent this call:
        // it goes down with the owner, as if it had been queued.
        return true;
    }
    // Spent as the call is charged in the buffer, from the room it reserved.
    const size_t charge = bufferCharge(view.header.dataSize, 0, true);
    if (view.header.target != credit.handle || charge > credit.bytes) {
        return false;
    }
    Process& receiver = *credit.node->owner;
    releaseCredit(credit, charge);
    std::vector<std::shared_ptr<Node>> noTransit;
    std::shared_ptr<Transaction> transaction = makeTransaction(*thread.process, credit.node, view, &noTransit);
    if (const Channel* channel = onewayChannelTo(*thread.process, receiver)) {
        transaction->channel = channel->id;
    }
    queueOneway(transaction);
    return true;
}

void Driver::endCredit(Thread& thread) {
    OnewayCredit& credit = thread.credit;
    releaseCredit(credit, credit.bytes);
    credit = OnewayCredit{};
}

void Driver::settleCredits(Process& process, uint32_t handle) {
    std::vector<ConnectionId> holders;
    for (const Thread* thread : process.threads) {
        if (thread->credit.node != nullptr && thread->credit.handle == handle) {
            holders.push_back(thread->connection);
        }
    }
    for (ConnectionId id : holders) {
        // Calls paid from this credit were written before the release.
        mOutbox.drain(id);
        auto thread = mThreads.find(id);
        if (thread != mThreads.end() && thread->second->credit.handle == handle) {
            endCredit(*thread->second);
        }
    }
}

void Driver::revokeCreditsOn(const Process& dying) {
    for (auto& entry : mThreads) {
        Thread& thread = *entry.second;
        if (thread.credit.node == nullptr || thread.credit.node->owner != &dying) {
            continue;
        }
        endCredit(thread);
        Process& holder = *thread.process;
        if (&holder != &dying) {
            ++holder.revocations;
            mOutbox.send(holder.control, kCreditRevoked, &holder.revocations, sizeof(holder.revocations));
        }
    }
}

void Driver::queueOneway(const std::shared_ptr<Transaction>& transaction) {
    chargeBuffer(*transaction, bufferCharge(transaction->data.size(), transaction->offsets.size(), true));
    // Behind the direct calls its sender made before it, when there are any.
    if (transaction->channel != 0 && holdBehindChannel(transaction)) {
        return;
    }
    dispatchOneway(transaction);
}

void Driver::dispatchOneway(const std::shared_ptr<Transaction>& transaction) {
    Node& node = *transaction->target;
    if (node.oneway == Node::Oneway::kIdle) {
        node.oneway = Node::Oneway::kQueued;
        enqueueWork(*node.owner, transaction);
        return;
    }
    node.onewayQueue.push_back(transaction);
    fillPipeline(node);
}

void Driver::fillPipeline(Node& node) {
    // Bounded in frames and in their bytes, headers included, so that calls
    // of no data cannot pile up in the thread's connection either; a call
    // larger than the bound goes ahead alone.
    Thread* thread = node.onewayThread;
    while (thread != nullptr && !node.onewayQueue.empty() && thread->pipeline.size() < kMaxPipelinedCalls &&
           (thread->pipeline.empty() ||
            thread->pipelinedBytes + node.onewayQueue.front()->frameBytes() <= kMaxPipelinedBytes)) {
        std::shared_ptr<Transaction> next = node.onewayQueue.front();
        node.onewayQueue.pop_front();
        thread->pipelinedBytes += next->frameBytes();
        thread->pipeline.push_back(next);
        sendIncoming(*thread, *next);
    }
}

bool Driver::finishOneway(Thread& thread) {
    if (thread.serving.empty() || !thread.serving.back()->oneway() || thread.waiting()) {
        return false;
    }
    std::shared_ptr<Transaction> done = thread.serving.back();
    thread.serving.pop_back();
    retireOneway(*done);
    if (thread.pipeline.empty()) {
        advanceOneway(*done->target);
    } else {
        std::shared_ptr<Transaction> next = thread.pipeline.front();
        thread.pipeline.pop_front();
        thread.pipelinedBytes -= next->frameBytes();
        thread.serving.push_back(next);
        keepTransit(thread, *next);
        fillPipeline(*done->target);
    }
    dropNodeRef(done->target);
    becomeIdle(thread);
    return true;
}

void Driver::advanceOneway(Node& node) {
    node.oneway = Node::Oneway::kIdle;
    node.onewayThread = nullptr;
    if (!node.onewayQueue.empty() && node.owner != nullptr) {
        std::shared_ptr<Transaction> next = node.onewayQueue.front();
        node.onewayQueue.pop_front();
        node.oneway = Node::Oneway::kQueued;
        enqueueWork(*node.owner, next);
    }
}

void Driver::retireOneway(Transaction& transaction) {
    releaseCharge(transaction);
    if (transaction.channel != 0) {
        relayedOnewayDone(transaction);
    }
}

void Driver::requeuePipeline(Thread& thread) {
    // Sent ahead but not started: back to the front of their node's line.
    for (auto it = thread.pipeline.rbegin(); it != thread.pipeline.rend(); ++it) {
        (*it)->target->onewayQueue.push_front(*it);
    }
    thread.pipeline.clear();
    thread.pipelinedBytes = 0;
}

}  // namespace android::binderd
