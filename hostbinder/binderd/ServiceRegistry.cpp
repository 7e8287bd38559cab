#include "ServiceRegistry.h"

#include <algorithm>

#include "Limits.h"

namespace android::binderd {

namespace {

constexpr size_t kMaxNameLength = 127;

template <typename Key>
size_t countOf(const std::map<Key, size_t>& counts, Key key) {
    auto it = counts.find(key);
    return it == counts.end() ? 0 : it->second;
}

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

ServiceRegistry::Added ServiceRegistry::add(const std::u16string& name, uint32_t handle, const Owner& owner,
                                            Entry* previous) {
    if (!validName(name)) {
        return Added::kInvalidName;
    }
    auto existing = mEntries.find(name);
    if (existing != mEntries.end()) {
        *previous = existing->second;
        if (existing->second.owner.token != owner.token) {
            return Added::kTaken;
        }
        unindex(existing->second.handle, existing->first);
        existing->second.handle = handle;
        mNamesOfHandle.emplace(handle, &existing->first);
        return Added::kReplaced;
    }
    if (countOf(mNamesOfProcess, owner.token) >= kMaxNamesPerProcess ||
        countOf(mNamesOfUid, owner.uid) >= kMaxNamesPerUid || mEntries.size() >= kMaxNames) {
        return Added::kTooMany;
    }
    ++mNamesOfProcess[owner.token];
    ++mNamesOfUid[owner.uid];
    const auto added = mEntries.emplace(name, Entry{handle, owner}).first;
    mNamesOfHandle.emplace(handle, &added->first);
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
    auto names = mNamesOfProcess.find(token);
    if (names == mNamesOfProcess.end()) {
        return handles;
    }
    for (auto it = mEntries.begin(); it != mEntries.end();) {
        if (it->second.owner.token != token) {
            ++it;
            continue;
        }
        handles.push_back(it->second.handle);
        unindex(it->second.handle, it->first);
        auto ofUid = mNamesOfUid.find(it->second.owner.uid);
        if (--ofUid->second == 0) {
            mNamesOfUid.erase(ofUid);
        }
        it = mEntries.erase(it);
    }
    mNamesOfProcess.erase(names);
    return handles;
}

}  // namespace android::binderd
