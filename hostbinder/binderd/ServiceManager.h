#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Limits.h"
#include "ServiceRegistry.h"
#include "State.h"
#include "protocol/ParcelWire.h"

namespace android::binderd {

// The service manager at handle 0: names of services, callbacks waiting for
// names, and lookups waiting for a name to come. It speaks the platform's
// IServiceManager calls; what it holds of processes, their references and
// their buffers stays the driver's, reached through Host.
class ServiceManager {
public:
    using Clock = std::chrono::steady_clock;

    // What the service manager needs of the driver. Handles are those of the
    // service manager's own handle table.
    class Host {
    public:
        // Takes one of `kind` for the process if it fits, someone else
        // giving way at a shared bound if need be.
        virtual bool takeOne(const Process& process, Holding kind) = 0;
        virtual void giveBack(const DriverLedger::Holder& holder, Holding kind, size_t amount) = 0;
        virtual void releaseServiceHandle(uint32_t handle, uint32_t count) = 0;
        // The process that owns the node of `handle`; null when none does.
        virtual const Process* ownerOf(uint32_t handle) const = 0;
        // Answers `request` of `caller` with `reply` (or only `status`).
        virtual void reply(Thread& caller, const std::shared_ptr<Transaction>& request,
                           const hostbinder::ParcelWriter& reply, status_t status) = 0;
        // A one-way call to the node of `handle`; a receiver whose buffer
        // has no room misses it.
        virtual void sendOneway(uint32_t handle, uint32_t code, const hostbinder::ParcelWriter& data) = 0;

    protected:
        ~Host() = default;
    };

    struct LookupWaiter {
        std::shared_ptr<Transaction> request;
        std::u16string name;
        Clock::time_point deadline;
        DriverLedger::Holder holder;
    };

    explicit ServiceManager(Host& host) : mHost(host) {}

    // A two-way call at handle 0 from `caller`, already waiting for its reply.
    void serve(Thread& caller, const std::shared_ptr<Transaction>& request);
    // The binders a call brought, but for `keptHandle` (once) that a name or
    // callback now holds.
    void releaseRequestHandles(const Transaction& request, uint32_t keptHandle);
    // Its names, and the callbacks it registered or that it owns.
    void removeServicesOf(const Process& process);
    // Lookups whose wait is over are answered; those of gone callers dropped.
    void expireTimers(Clock::time_point now);
    Clock::time_point nextDeadline() const;

    const ServiceRegistry& registry() const { return mRegistry; }
    const std::vector<LookupWaiter>& lookupWaiters() const { return mLookupWaiters; }

private:
    // Each call's answer: the exception code, with a message beside it.
    int32_t addService(const Process& registrant, const std::u16string& name, uint32_t handle,
                                     int32_t stability, std::string* message);
    int32_t registerCallback(const Process& registrant, const std::u16string& name, uint32_t handle,
                                           std::string* message);
    int32_t unregisterCallback(const std::u16string& name, uint32_t handle, std::string* message);
    // Tells the callback at `callback` of the service under `name`, one-way.
    void notifyRegistration(const std::u16string& name, uint32_t callback);
    void answerLookup(Thread& caller, const std::shared_ptr<Transaction>& request, const std::u16string& name);
    void answerWaiters();
    // Removes the waiter at `it`, uncounting it from its process.
    std::vector<LookupWaiter>::iterator dropWaiter(std::vector<LookupWaiter>::iterator it);
    // Gives back what the registry forgot: names or callbacks of their registrants.
    void uncountRegistrations(const std::vector<ServiceRegistry::Owner>& owners, Holding kind);

    Host& mHost;
    ServiceRegistry mRegistry;
    std::vector<LookupWaiter> mLookupWaiters;
};

}  // namespace android::binderd
