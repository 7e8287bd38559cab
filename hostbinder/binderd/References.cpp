// Binder objects in parcels: validation, translation between processes,
// cross-process reference counts and death notices.
#include "Driver.h"

#include <linux/android/binder.h>

#include <algorithm>
#include <cstring>

#include "Limits.h"

namespace android::binderd {

using namespace hostbinder;

namespace {

uint64_t offsetAt(const TransactionView& view, size_t index) {
    uint64_t offset;
    std::memcpy(&offset, view.offsets + index * sizeof(uint64_t), sizeof(offset));
    return offset;
}

}  // namespace

bool Driver::objectsValid(const Process& from, const Process& to, const TransactionView& view) {
    return objectsWellFormed(from, view) && roomForObjects(from, to, view.header.offsetsCount);
}

bool Driver::roomForObjects(const Process& from, const Process& to, size_t count) {
    // Counted as if every object were new to both tables. The service
    // manager's table is bounded by the names and callbacks it keeps; it
    // owns no nodes.
    if (count == 0) {
        return true;
    }
    const bool handlesFit = &to == &mServiceManager ? to.handles.size() + count <= kMaxHandlesPerProcess
                                                    : makeRoom(to, kHandlesHeld, count);
    return handlesFit && (&from == &mServiceManager || makeRoom(from, kNodesHeld, count));
}

bool Driver::objectsWellFormed(const Process& from, const TransactionView& view) const {
    uint64_t nextFree = 0;
    for (size_t i = 0; i < view.header.offsetsCount; ++i) {
        const uint64_t offset = offsetAt(view, i);
        if (offset < nextFree || offset % 4 != 0 || offset > view.header.dataSize ||
            view.header.dataSize - offset < sizeof(flat_binder_object)) {
            return false;
        }
        flat_binder_object object;
        std::memcpy(&object, view.data + offset, sizeof(object));
        if (object.hdr.type == BINDER_TYPE_BINDER) {
            if (object.binder == 0 || object.cookie == 0) {
                return false;
            }
        } else if (object.hdr.type == BINDER_TYPE_HANDLE) {
            // A process can only name handles it was given.
            if (from.handles.count(object.handle) == 0) {
                return false;
            }
        } else {
            return false;
        }
        nextFree = offset + sizeof(object);
    }
    return true;
}

void Driver::translate(Process& from, Process& to, const TransactionView& view, Transaction* out,
                       std::vector<std::shared_ptr<Node>>* transit) {
    out->data.assign(view.data, view.data + view.header.dataSize);
    out->offsets.resize(view.header.offsetsCount);
    for (size_t i = 0; i < out->offsets.size(); ++i) {
        const uint64_t offset = offsetAt(view, i);
        out->offsets[i] = offset;
        flat_binder_object object;
        std::memcpy(&object, out->data.data() + offset, sizeof(object));
        if (object.hdr.type == BINDER_TYPE_BINDER) {
            std::shared_ptr<Node> node = nodeFor(from, object.binder, object.cookie);
            const bool firstReference = node->refs == 0;
            object.hdr.type = BINDER_TYPE_HANDLE;
            object.binder = 0;
            object.handle = addHandleRef(to, node);
            object.cookie = 0;
            // The sender's reference becomes the node's remote reference only
            // when it is the first; otherwise it goes straight back.
            if (!firstReference) {
                sendDecNode(*node);
            }
        } else {
            std::shared_ptr<Node> node = from.handles.at(object.handle).node;
            if (node->owner == &to) {
                object.hdr.type = BINDER_TYPE_BINDER;
                object.binder = node->address;
                object.cookie = node->cookie;
                takeNodeRef(*node);
                transit->push_back(node);
            } else {
                object.handle = addHandleRef(to, node);
            }
        }
        std::memcpy(out->data.data() + offset, &object, sizeof(object));
    }
}

void Driver::returnSendRefs(const Process& from, const TransactionView& view) {
    for (size_t i = 0; i < view.header.offsetsCount; ++i) {
        flat_binder_object object;
        std::memcpy(&object, view.data + offsetAt(view, i), sizeof(object));
        if (object.hdr.type == BINDER_TYPE_BINDER) {
            mOutbox.send(from.control, kDecNode, &object.cookie, sizeof(object.cookie));
        }
    }
}

std::shared_ptr<Node> Driver::nodeFor(Process& owner, uint64_t address, uint64_t cookie) {
    std::shared_ptr<Node>& node = owner.nodes[address];
    if (node == nullptr) {
        node = std::make_shared<Node>();
        node->owner = &owner;
        node->ownerHolder = owner.holder();
        mLedger.take(owner.holder(), kNodesHeld, 1);
        node->address = address;
        node->cookie = cookie;
    }
    return node;
}

uint32_t Driver::addHandleRef(Process& process, const std::shared_ptr<Node>& node) {
    auto known = process.handleOfNode.find(node.get());
    if (known != process.handleOfNode.end()) {
        ++process.handles[known->second].count;
        return known->second;
    }
    const uint32_t handle = newHandleNumber(process.handles, &process.nextHandle);
    process.handles[handle] = HandleRef{node, 1};
    process.handleOfNode[node.get()] = handle;
    if (&process != &mServiceManager) {
        mLedger.take(process.holder(), kHandlesHeld, 1);
    }
    takeNodeRef(*node);
    return handle;
}

bool Driver::releaseHandle(Process& process, uint32_t handle, uint32_t count) {
    auto it = process.handles.find(handle);
    if (it == process.handles.end() || count == 0 || count > it->second.count) {
        return false;
    }
    if (count == it->second.count && !process.threads.empty()) {
        // A reply naming the handle that a thread wrote before its process
        // let the handle go comes first (the parcel held the handle until it
        // was sent); it may deliver the handle again, never take it away.
        drainThreads(process);
        it = process.handles.find(handle);
    }
    decrease(it->second.count, count);
    if (it->second.count > 0) {
        return true;
    }
    std::shared_ptr<Node> node = it->second.node;
    endCredit(process, handle);
    revokeReach(process, node, handle);
    process.handleOfNode.erase(node.get());
    process.handles.erase(it);
    if (&process != &mServiceManager) {
        mLedger.give(process.holder(), kHandlesHeld, 1);
    }
    auto& watchers = node->deathWatchers;
    const std::pair<uint64_t, uint32_t> mine{process.token, handle};
    watchers.erase(std::remove(watchers.begin(), watchers.end(), mine), watchers.end());
    dropNodeRef(node);
    return true;
}

void Driver::takeNodeRef(Node& node) { ++node.refs; }

void Driver::dropNodeRef(const std::shared_ptr<Node>& node) {
    decrease(node->refs);
    if (node->refs > 0 || node->owner == nullptr) {
        return;
    }
    sendDecNode(*node);
    auto it = node->owner->nodes.find(node->address);
    if (it != node->owner->nodes.end() && it->second == node) {
        forgetNode(*node->owner, it);
    }
}

void Driver::forgetNode(Process& owner, std::map<uint64_t, std::shared_ptr<Node>>::iterator node) {
    owner.nodes.erase(node);
    mLedger.give(owner.holder(), kNodesHeld, 1);
}

void Driver::sendDecNode(const Node& node) {
    if (node.owner != nullptr && node.owner != &mServiceManager) {
        mOutbox.send(node.owner->control, kDecNode, &node.cookie, sizeof(node.cookie));
    }
}

bool Driver::requestDeath(Process& process, uint32_t handle) {
    if (handle == 0) {
        // The context manager lives as long as binderd; its end is the
        // connection's end.
        return true;
    }
    auto it = process.handles.find(handle);
    if (it == process.handles.end()) {
        return false;
    }
    HandleRef& ref = it->second;
    if (ref.node->owner == nullptr) {
        mOutbox.send(process.control, kDeadBinder, &handle, sizeof(handle));
    } else if (!ref.deathRequested) {
        // One pending request per handle, as the kernel keeps one per reference.
        ref.deathRequested = true;
        ref.node->deathWatchers.emplace_back(process.token, handle);
    }
    return true;
}

bool Driver::clearDeath(Process& process, uint32_t handle) {
    auto it = process.handles.find(handle);
    if (it == process.handles.end()) {
        return handle == 0;
    }
    if (it->second.deathRequested) {
        it->second.deathRequested = false;
        auto& watchers = it->second.node->deathWatchers;
        watchers.erase(std::find(watchers.begin(), watchers.end(), std::make_pair(process.token, handle)));
    }
    return true;
}

void Driver::notifyDeath(Node& node) {
    node.owner = nullptr;
    for (const auto& [token, handle] : node.deathWatchers) {
        auto watcher = mProcesses.find(token);
        if (watcher == mProcesses.end()) {
            continue;
        }
        auto ref = watcher->second->handles.find(handle);
        if (ref != watcher->second->handles.end()) {
            ref->second.deathRequested = false;
        }
        mOutbox.send(watcher->second->control, kDeadBinder, &handle, sizeof(handle));
    }
    node.deathWatchers.clear();
    while (!node.onewayQueue.empty()) {
        std::shared_ptr<Transaction> pending = node.onewayQueue.front();
        node.onewayQueue.pop_front();
        abandon(pending);
    }
}

}  // namespace android::binderd
