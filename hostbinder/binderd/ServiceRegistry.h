#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Limits.h"

namespace android::binderd {

// The service manager's names: which process registered each, with what
// binder, and the rules a name obeys; and the callbacks registered to hear
// of names. A name belongs to its registrant while that process lives.
class ServiceRegistry {
public:
    struct Owner {
        uint64_t token = 0;  // the process's session
        pid_t pid = 0;
        uid_t uid = 0;
    };
    struct Entry {
        uint32_t handle = 0;     // in the service manager's handle table
        int32_t stability = 0;   // the level it was registered with
        Owner owner;
    };
    enum class Added {
        kNew,
        kReplaced,     // the owner's previous binder for the name is in `previous`
        kInvalidName,  // not 1 to 127 characters of [A-Za-z0-9_.-/]
        kTaken,        // another live process owns it, given in `previous`
        kTooMany,      // a bound on names of the process, its uid or in total
    };
    struct Callback {
        uint32_t handle = 0;  // in the service manager's handle table
        Owner owner;          // who registered it
    };

    ServiceRegistry() = default;
    // The index by handle points into the entries.
    ServiceRegistry(const ServiceRegistry&) = delete;
    ServiceRegistry& operator=(const ServiceRegistry&) = delete;

    Added add(const std::u16string& name, const Entry& entry, Entry* previous);
    const Entry* find(const std::u16string& name) const;
    // A name registered for the binder at `handle`, or null.
    const std::u16string* nameOf(uint32_t handle) const;
    // Forgets every name of the process and returns their handles.
    std::vector<uint32_t> removeOwner(uint64_t token);
    const std::map<std::u16string, Entry>& entries() const { return mEntries; }

    // False beyond a bound on callbacks of the process, its uid or in total.
    bool addCallback(const std::u16string& name, const Callback& callback);
    // The handles of the name's callbacks, one per registration.
    std::vector<uint32_t> callbacksOf(const std::u16string& name) const;
    // Forgets the registrations of `handle` for the name; returns how many.
    uint32_t removeCallback(const std::u16string& name, uint32_t handle);
    // Forgets the registrations `drop` picks and returns their handles.
    std::vector<uint32_t> removeCallbacks(const std::function<bool(const Callback&)>& drop);

    static bool validName(const std::u16string& name);

private:
    void unindex(uint32_t handle, const std::u16string& name);

    // What each process and uid holds of one kind, within its bounds.
    class Quota {
    public:
        Quota(size_t perProcess, size_t perUid, size_t total)
            : mPerProcess(perProcess), mPerUid(perUid), mTotal(total) {}
        bool take(const Owner& owner);
        void give(const Owner& owner);
        bool holdsAny(uint64_t token) const { return mOfProcess.count(token) != 0; }

    private:
        const size_t mPerProcess;
        const size_t mPerUid;
        const size_t mTotal;
        std::map<uint64_t, size_t> mOfProcess;
        std::map<uid_t, size_t> mOfUid;
        size_t mCount = 0;
    };

    std::map<std::u16string, Entry> mEntries;
    // The names by handle, each pointing into mEntries.
    std::multimap<uint32_t, const std::u16string*> mNamesOfHandle;
    std::multimap<std::u16string, Callback> mCallbacks;
    Quota mNameQuota{kMaxNamesPerProcess, kMaxNamesPerUid, kMaxNames};
    Quota mCallbackQuota{kMaxCallbacksPerProcess, kMaxCallbacksPerUid, kMaxCallbacks};
};

}  // namespace android::binderd
