// One-way calls: the receiver's buffer limit, the senders' credit, the order
// per node, and calls sent ahead to the thread that serves the node.
#include "Driver.h"

namespace android::binderd {

using namespace hostbinder;

void Driver::acceptOneway(Thread& sender, uint32_t handle, const std::shared_ptr<Transaction>& transaction) {
    Process& process = *sender.process;
    Process& receiver = *transaction->target->owner;
    if (const Channel* channel = onewayChannelTo(process, receiver)) {
        transaction->channel = channel->id;
    }
    queueOneway(transaction);
    OnewayAccepted accepted{0, 0, process.revocations};
    // Topped up to one step per handle (grants the process has yet to read
    // may still be held); credit is taken ahead of need, so it never makes
    // anyone give way nor crowds out calls made.
    auto held = process.credits.find(handle);
    const size_t step = kOnewayCreditBytes - (held != process.credits.end() ? held->second.bytes : 0);
    if (step > 0 && mLedger.held(receiver.holder(), kOnewayBytes) + step <= kCreditGrantCeiling &&
        fitsAhead(receiver, step)) {
        OnewayCredit& credit = process.credits[handle];
        credit.node = transaction->target;
        reserveCredit(credit, step);
        accepted.creditBytes = static_cast<uint32_t>(step);
    }
    mOutbox.send(sender.connection, kTransactionComplete, &accepted, sizeof(accepted));
}

bool Driver::startCreditedOneway(Process& process, const TransactionView& view) {
    if (view.header.offsetsCount != 0 || (view.header.flags & kFlagOneway) == 0 || view.header.target > UINT32_MAX) {
        return false;
    }
    auto credit = process.credits.find(static_cast<uint32_t>(view.header.target));
    if (credit == process.credits.end()) {
        // Voided when the node's owner died, after the call was sent: it goes
        // down with the owner, as if it had been queued.
        return true;
    }
    // Spent as the call is charged in the buffer, from the room it reserved.
    const size_t charge = bufferCharge(view.header.dataSize, 0, true);
    if (charge > credit->second.bytes) {
        return false;
    }
    const std::shared_ptr<Node> node = credit->second.node;
    Process& receiver = *node->owner;
    releaseCredit(credit->second, charge);
    std::vector<std::shared_ptr<Node>> noTransit;
    std::shared_ptr<Transaction> transaction = makeTransaction(process, node, view, &noTransit);
    if (const Channel* channel = onewayChannelTo(process, receiver)) {
        transaction->channel = channel->id;
    }
    queueOneway(transaction);
    return true;
}

bool Driver::returnCredit(Process& process, const CreditReturn& given) {
    auto credit = process.credits.find(given.handle);
    if (credit == process.credits.end()) {
        // Voided with the owner's death before the process heard of it.
        return true;
    }
    if (given.bytes > credit->second.bytes) {
        return false;
    }
    releaseCredit(credit->second, given.bytes);
    if (credit->second.bytes == 0) {
        process.credits.erase(credit);
    }
    return true;
}

void Driver::endCredit(Process& process, uint32_t handle) {
    auto credit = process.credits.find(handle);
    if (credit != process.credits.end()) {
        releaseCredit(credit->second, credit->second.bytes);
        process.credits.erase(credit);
    }
}

void Driver::revokeCreditsOn(const Process& dying) {
    for (auto& entry : mProcesses) {
        Process& holder = *entry.second;
        bool voided = false;
        for (auto credit = holder.credits.begin(); credit != holder.credits.end();) {
            if (credit->second.node->owner != &dying) {
                ++credit;
                continue;
            }
            releaseCredit(credit->second, credit->second.bytes);
            credit = holder.credits.erase(credit);
            voided = true;
        }
        if (voided && &holder != &dying) {
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
        decrease(thread.pipelinedBytes, next->frameBytes());
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
