#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace android::binderd {

// The service manager's names: which process registered each, and the rules
// a name obeys. A name belongs to its registrant while that process lives.
class ServiceRegistry {
public:
    struct Owner {
        uint64_t token = 0;  // the process's session
        pid_t pid = 0;
        uid_t uid = 0;
    };
    struct Entry {
        uint32_t handle = 0;  // in the service manager's handle table
        Owner owner;
    };
    enum class Added {
        kNew,
        kReplaced,     // the owner's previous binder for the name is in `previous`
        kInvalidName,  // not 1 to 127 characters of [A-Za-z0-9_.-/]
        kTaken,        // another live process owns it, given in `previous`
        kTooMany,      // a bound on names of the process, its uid or in total
    };

    ServiceRegistry() = default;
    // The index by handle points into the entries.
    ServiceRegistry(const ServiceRegistry&) = delete;
    ServiceRegistry& operator=(const ServiceRegistry&) = delete;

    Added add(const std::u16string& name, uint32_t handle, const Owner& owner, Entry* previous);
    const Entry* find(const std::u16string& name) const;
    // A name registered for the binder at `handle`, or null.
    const std::u16string* nameOf(uint32_t handle) const;
    // Forgets every name of the process and returns their handles.
    std::vector<uint32_t> removeOwner(uint64_t token);
    const std::map<std::u16string, Entry>& entries() const { return mEntries; }

    static bool validName(const std::u16string& name);

private:
    void unindex(uint32_t handle, const std::u16string& name);

    std::map<std::u16string, Entry> mEntries;
    // The names by handle, each pointing into mEntries.
    std::multimap<uint32_t, const std::u16string*> mNamesOfHandle;
    std::map<uint64_t, size_t> mNamesOfProcess;
    std::map<uid_t, size_t> mNamesOfUid;
};

}  // namespace android::binderd
