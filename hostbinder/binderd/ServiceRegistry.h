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

    // The counts of names and callbacks per process are the driver's to keep.
    void addCallback(const std::u16string& name, const Callback& callback);
    // The handles of the name's callbacks, one per registration.
    std::vector<uint32_t> callbacksOf(const std::u16string& name) const;
    // Forgets the registrations of `handle` for the name; returns their registrants.
    std::vector<Owner> removeCallback(const std::u16string& name, uint32_t handle);
    // Forgets the registrations `drop` picks and returns them.
    std::vector<Callback> removeCallbacks(const std::function<bool(const Callback&)>& drop);

    static bool validName(const std::u16string& name);

private:
    void unindex(uint32_t handle, const std::u16string& name);

    std::map<std::u16string, Entry> mEntries;
    // The names by handle, each pointing into mEntries.
    std::multimap<uint32_t, const std::u16string*> mNamesOfHandle;
    std::multimap<std::u16string, Callback> mCallbacks;
};

}  // namespace android::binderd
