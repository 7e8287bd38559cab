#include "ServiceRegistry.h"

#include <algorithm>

namespace android::binderd {

namespace {

constexpr size_t kMaxNameLength = 127;

}  // namespace

bool ServiceRegistry::validName(const std::u16string& name) {
    if (name.empty() || name.size() > kMaxNameLength) {
        return false;
    }
    return std::all_of(name.begin(), name.end(), [](char16_t c) {
        return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') || c == u'_' ||
               c == u'.' || c == u'-' || c == u'/';
    });
}

ServiceRegistry::Added ServiceRegistry::add(const std::u16string& name, const Entry& entry, Entry* previous) {
    if (!validName(name)) {
        return Added::kInvalidName;
    }
    auto existing = mEntries.find(name);
    if (existing != mEntries.end()) {
        *previous = existing->second;
        if (existing->second.owner.token != entry.owner.token) {
            return Added::kTaken;
        }
        unindex(existing->second.handle, existing->first);
        existing->second = entry;
        mNamesOfHandle.emplace(entry.handle, &existing->first);
        return Added::kReplaced;
    }
    const auto added = mEntries.emplace(name, entry).first;
    mNamesOfHandle.emplace(entry.handle, &added->first);
    return Added::kNew;
}

const ServiceRegistry::Entry* ServiceRegistry::find(const std::u16string& name) const {
    auto it = mEntries.find(name);
    return it == mEntries.end() ? nullptr : &it->second;
}

const std::u16string* ServiceRegistry::nameOf(uint32_t handle) const {
    auto it = mNamesOfHandle.find(handle);
    return it == mNamesOfHandle.end() ? nullptr : it->second;
}

void ServiceRegistry::unindex(uint32_t handle, const std::u16string& name) {
    const auto [first, last] = mNamesOfHandle.equal_range(handle);
    for (auto it = first; it != last; ++it) {
        if (it->second == &name) {
            mNamesOfHandle.erase(it);
            return;
        }
    }
}

std::vector<uint32_t> ServiceRegistry::removeOwner(uint64_t token) {
    std::vector<uint32_t> handles;
    for (auto it = mEntries.begin(); it != mEntries.end();) {
        if (it->second.owner.token != token) {
            ++it;
            continue;
        }
        handles.push_back(it->second.handle);
        unindex(it->second.handle, it->first);
        it = mEntries.erase(it);
    }
    return handles;
}

void ServiceRegistry::addCallback(const std::u16string& name, const Callback& callback) {
    mCallbacks.emplace(name, callback);
}

std::vector<uint32_t> ServiceRegistry::callbacksOf(const std::u16string& name) const {
    std::vector<uint32_t> handles;
    const auto [first, last] = mCallbacks.equal_range(name);
    for (auto it = first; it != last; ++it) {
        handles.push_back(it->second.handle);
    }
    return handles;
}

std::vector<ServiceRegistry::Owner> ServiceRegistry::removeCallback(const std::u16string& name, uint32_t handle) {
    std::vector<Owner> removed;
    auto [it, last] = mCallbacks.equal_range(name);
    while (it != last) {
        if (it->second.handle != handle) {
            ++it;
            continue;
        }
        removed.push_back(it->second.owner);
        it = mCallbacks.erase(it);
    }
    return removed;
}

std::vector<ServiceRegistry::Callback> ServiceRegistry::removeCallbacks(
    const std::function<bool(const Callback&)>& drop) {
    std::vector<Callback> removed;
    for (auto it = mCallbacks.begin(); it != mCallbacks.end();) {
        if (!drop(it->second)) {
            ++it;
            continue;
        }
        removed.push_back(it->second);
        it = mCallbacks.erase(it);
    }
    return removed;
}

}  // namespace android::binderd
