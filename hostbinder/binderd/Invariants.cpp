// The driver's tables against each other: what every counter says is what
// the tables hold. Run after every frame by the fuzzer, the driver's tests
// and the sanitizer builds of binderd.
#include "Driver.h"

#include <algorithm>
#include <map>
#include <set>
#include <sstream>

namespace android::binderd {

namespace {

using Amounts = DriverLedger::Amounts;

struct HolderLess {
    bool operator()(const DriverLedger::Holder& a, const DriverLedger::Holder& b) const {
        return a.uid != b.uid ? a.uid < b.uid : a.pid < b.pid;
    }
};

// Collects the first violation found.
class Findings {
public:
    template <typename... Parts>
    void expect(bool holds, const Parts&... parts) {
        if (!holds && mFirst.empty()) {
            std::ostringstream text;
            (text << ... << parts);
            mFirst = text.str();
        }
    }
    std::string first() const { return mFirst; }

private:
    std::string mFirst;
};

}  // namespace

std::string Driver::checkInvariants() const {
    Findings findings;
    // Every live transaction, once, from wherever it is kept.
    std::set<const Transaction*> transactions;
    const auto keep = [&](const std::shared_ptr<Transaction>& transaction) {
        if (transaction != nullptr) {
            transactions.insert(transaction.get());
        }
    };
    std::map<const Node*, uint32_t> holds;  // references each node's holders account for
    std::map<DriverLedger::Holder, Amounts, HolderLess> expected;
    std::vector<const Node*> ownNodes;
    std::vector<const Process*> processes{&mServiceManager};
    for (const auto& entry : mProcesses) {
        processes.push_back(entry.second.get());
    }
    for (const Process* process : processes) {
        const bool counted = process != &mServiceManager;
        findings.expect(process->handles.size() == process->handleOfNode.size(), "process ", process->pid,
                        ": its handle table and its index differ in size");
        for (const auto& [handle, ref] : process->handles) {
            findings.expect(handle != 0 && ref.node != nullptr && ref.count > 0, "process ", process->pid,
                            ": handle ", handle, " is empty");
            auto index = process->handleOfNode.find(ref.node.get());
            findings.expect(index != process->handleOfNode.end() && index->second == handle, "process ",
                            process->pid, ": handle ", handle, " is not indexed by its node");
            ++holds[ref.node.get()];
        }
        for (const auto& [address, node] : process->nodes) {
            findings.expect(node->owner == process && node->address == address && node->refs > 0, "process ",
                            process->pid, ": node ", address, " is not its own or is held by nobody");
            ownNodes.push_back(node.get());
        }
        if (counted) {
            Amounts& amounts = expected[process->holder()];
            amounts[kHandlesHeld] += process->handles.size();
            amounts[kNodesHeld] += process->nodes.size();
        }
        for (const auto& transaction : process->todo) {
            keep(transaction);
        }
        for (const auto& [handle, credit] : process->credits) {
            findings.expect(credit.node != nullptr, "process ", process->pid, ": credit for handle ", handle,
                            " names no node");
            Amounts& amounts = expected[credit.node->ownerHolder];
            amounts[kBufferBytes] += credit.bytes;
            amounts[kOnewayBytes] += credit.bytes;
        }
    }
    for (const auto& entry : mThreads) {
        const Thread& thread = *entry.second;
        size_t below = 0;
        for (const OutgoingCall& outgoing : thread.awaiting) {
            findings.expect(outgoing.servingBelow >= below && outgoing.servingBelow <= thread.serving.size(),
                            "thread ", thread.connection, ": its calls and what it serves are out of order");
            findings.expect(outgoing.call->from == &thread || (outgoing.call->from == nullptr && outgoing.failure != OK),
                            "thread ", thread.connection, ": a call it waits for names another caller");
            below = outgoing.servingBelow;
            // A call whose failure waits to go out is over for its callee.
            if (outgoing.failure == OK) {
                keep(outgoing.call);
            }
        }
        for (const auto& transaction : thread.serving) {
            keep(transaction);
        }
        for (const auto& transaction : thread.pipeline) {
            findings.expect(transaction->oneway(), "thread ", thread.connection, ": a two-way call was sent ahead");
            keep(transaction);
        }
        for (const auto& node : thread.transit) {
            ++holds[node.get()];
        }
    }
    for (const ServiceManager::LookupWaiter& waiter : mServices.lookupWaiters()) {
        keep(waiter.request);
        ++expected[waiter.holder][kLookupsWaiting];
    }
    std::map<const Process*, size_t> channelEnds;
    std::map<const Process*, size_t> served;
    for (const auto& [id, channel] : mChannels) {
        ++channelEnds[channel->holder];
        ++channelEnds[channel->owner];
        findings.expect(channel->finished <= channel->granted && channel->relayedDone <= channel->relayedAccepted,
                        "channel ", id, ": more finished than was given room");
        const auto& held = channel->holder->heldChannels;
        findings.expect(std::find(held.begin(), held.end(), id) != held.end(), "channel ", id,
                        " is not among its holder's");
        if (channel->oneway) {
            auto listed = channel->holder->onewayChannels.find(channel->owner);
            findings.expect(listed != channel->holder->onewayChannels.end() && listed->second == id, "channel ", id,
                            " is not its holder's one-way channel to its owner");
            const auto& mine = channel->owner->servedChannels;
            findings.expect(std::find(mine.begin(), mine.end(), id) != mine.end(), "channel ", id,
                            " is not among those its owner serves");
            ++served[channel->owner];
        } else if (channel->caller != nullptr) {
            const auto& mine = channel->caller->channels;
            findings.expect(channel->caller->process == channel->holder &&
                                std::find(mine.begin(), mine.end(), id) != mine.end(),
                            "channel ", id, " is not among its thread's");
        }
        for (const auto& entry : channel->reach) {
            findings.expect(entry.second->owner == channel->owner || entry.second->owner == nullptr, "channel ", id,
                            " reaches a node of another process");
            ++holds[entry.second.get()];
        }
        for (const auto& waiting : channel->held) {
            keep(waiting.second);
        }
        Amounts& amounts = expected[channel->ownerHolder];
        amounts[kBufferBytes] += channel->granted - channel->finished;
        amounts[kOnewayBytes] += channel->granted - channel->finished;
    }
    for (const auto& [id, channel] : mDrainingChannels) {
        findings.expect(channel->holder == nullptr && channel->held.empty() && channel->granted == channel->finished,
                        "draining channel ", id, " still has a holder, calls or credit");
        ++channelEnds[channel->owner];
        for (const auto& entry : channel->reach) {
            ++holds[entry.second.get()];
        }
    }
    for (const auto& [process, count] : channelEnds) {
        findings.expect(process->channels == count, "process ", process->pid, " counts ", process->channels,
                        " channels, not ", count);
    }
    for (const auto& entry : mProcesses) {
        const Process& process = *entry.second;
        findings.expect(process.servedChannels.size() == served[&process], "process ", process.pid, " serves ",
                        process.servedChannels.size(), " one-way channels, not ", served[&process]);
    }
    // Nodes' queues, reached through the transactions' targets and handles.
    std::set<const Node*> nodes(ownNodes.begin(), ownNodes.end());
    for (const auto& [node, count] : holds) {
        nodes.insert(node);
    }
    for (const Transaction* transaction : transactions) {
        nodes.insert(transaction->target.get());
    }
    for (const Node* node : nodes) {
        for (const auto& transaction : node->onewayQueue) {
            keep(transaction);
        }
        findings.expect(node->oneway != Node::Oneway::kIdle || node->onewayQueue.empty() || node->owner == nullptr,
                        "node ", node->address, ": one-way calls wait while none is out");
        findings.expect((node->oneway == Node::Oneway::kRunning) == (node->onewayThread != nullptr), "node ",
                        node->address, ": its one-way state and its thread disagree");
    }
    for (const Transaction* transaction : transactions) {
        ++holds[transaction->target.get()];
        for (const auto& node : transaction->transit) {
            ++holds[node.get()];
        }
        if (transaction->charge > 0) {
            Amounts& amounts = expected[transaction->target->ownerHolder];
            amounts[kBufferBytes] += transaction->charge;
            if (transaction->oneway()) {
                amounts[kOnewayBytes] += transaction->charge;
            }
        }
    }
    ++holds[mContextNode.get()];  // binderd's own, for its whole life
    for (const auto& [node, count] : holds) {
        findings.expect(node->refs == count, "node ", node->address, " has ", node->refs, " references, its holders ",
                        count);
    }
    // The ledger against the tables, kind by kind (names and callbacks are
    // the registry's own to count).
    for (size_t kind : {kHandlesHeld, kNodesHeld, kBufferBytes, kOnewayBytes, kLookupsWaiting}) {
        size_t sum = 0;
        for (const auto& [holder, amounts] : expected) {
            sum += amounts[kind];
            findings.expect(mLedger.held(holder, kind) == amounts[kind], "pid ", holder.pid, " holds ",
                            mLedger.held(holder, kind), " of kind ", kind, " by the ledger, ", amounts[kind],
                            " by the tables");
        }
        findings.expect(mLedger.total(kind) == sum, "the ledger's total of kind ", kind, " is ",
                        mLedger.total(kind), ", the tables' ", sum);
    }
    return findings.first();
}

}  // namespace android::binderd
