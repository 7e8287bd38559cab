// The service manager at handle 0, speaking the platform's IServiceManager
// transactions.
#include "ServiceManager.h"

#include <linux/android/binder.h>

#include <algorithm>
#include <cstring>

#include <log/log.h>

namespace android::binderd {

using namespace hostbinder;

namespace {

constexpr const char* kTag = "binderd";
constexpr auto kLookupWait = std::chrono::seconds(5);
// IServiceCallback's one method, one-way.
constexpr uint32_t kOnRegistration = 1;
const std::u16string kServiceManagerDescriptor = u"android.os.IServiceManager";
const std::u16string kServiceCallbackDescriptor = u"android.os.IServiceCallback";
constexpr const char* kNameRule = "a name is 1 to 127 characters of [A-Za-z0-9_.-/]";

}  // namespace

void ServiceManager::serve(Thread& caller, const std::shared_ptr<Transaction>& request) {
    ParcelReader data(request->data.data(), request->data.size(), request->offsets.data(), request->offsets.size());
    ParcelWriter reply;
    uint32_t keptHandle = 0;
    status_t status = OK;
    // Names to tell callbacks of once the caller has its answer: all of a
    // name just added, or one just registered for a name already there.
    std::u16string added;
    std::u16string watched;
    if (!data.enforceInterface(kServiceManagerDescriptor)) {
        status = BAD_TYPE;
    } else {
        const uint32_t code = request->header.code;
        std::u16string name;
        switch (code) {
            case kGetService:
            case kCheckService: {
                data.readString16(&name);
                releaseRequestHandles(*request, 0);
                Process& process = *caller.process;
                if (mRegistry.find(name) == nullptr && code == kGetService &&
                    mHost.takeOne(process, kLookupsWaiting)) {
                    // The request's bytes are not needed to answer it.
                    request->data = {};
                    request->offsets = {};
                    mLookupWaiters.push_back({request, name, Clock::now() + kLookupWait, process.holder()});
                    return;
                }
                answerLookup(caller, request, name);
                return;
            }
            case kAddService:
            case kRegisterForNotifications:
            case kUnregisterForNotifications: {
                data.readString16(&name);
                uint32_t handle = 0;
                int32_t stability = 0;
                if (!data.readHandle(&handle, &stability)) {
                    status = BAD_TYPE;
                    break;
                }
                std::string message;
                const Process& registrant = *caller.process;
                const int32_t exception =
                    code == kAddService ? addService(registrant, name, handle, stability, &message)
                    : code == kRegisterForNotifications ? registerCallback(registrant, name, handle, &message)
                                                        : unregisterCallback(name, handle, &message);
                reply.writeStatus(exception, message);
                if (exception == kExNone && code != kUnregisterForNotifications) {
                    keptHandle = handle;
                    (code == kAddService ? added : watched) = name;
                }
                break;
            }
            case kListServices:
                reply.writeStatus(kExNone);
                reply.writeInt32(static_cast<int32_t>(mRegistry.entries().size()));
                for (const auto& entry : mRegistry.entries()) {
                    reply.writeString16(entry.first);
                }
                break;
            case kIsDeclared:
                reply.writeStatus(kExNone);
                reply.writeInt32(0);  // false: no service is declared in a manifest
                break;
            default:
                status = UNKNOWN_TRANSACTION;
                break;
        }
    }
    mHost.reply(caller, request, reply, status);
    releaseRequestHandles(*request, keptHandle);
    if (!added.empty()) {
        answerWaiters();
        for (uint32_t callback : mRegistry.callbacksOf(added)) {
            notifyRegistration(added, callback);
        }
    } else if (!watched.empty()) {
        notifyRegistration(watched, keptHandle);
    }
}

int32_t ServiceManager::addService(const Process& registrant, const std::u16string& name, uint32_t handle,
                                     int32_t stability, std::string* message) {
    if (handle == 0) {
        *message = "a null binder cannot be added";
        return kExIllegalArgument;
    }
    // A new name counts against the process, its uid and everyone.
    const bool newName = ServiceRegistry::validName(name) && mRegistry.find(name) == nullptr;
    if (newName && !mHost.takeOne(registrant, kNamesHeld)) {
        *message = "too many service names";
        return kExIllegalState;
    }
    ServiceRegistry::Entry previous;
    const ServiceRegistry::Owner owner{registrant.token, registrant.pid, registrant.uid};
    switch (mRegistry.add(name, {handle, stability, owner}, &previous)) {
        case ServiceRegistry::Added::kReplaced:
            mHost.releaseServiceHandle(previous.handle, 1);
            return kExNone;
        case ServiceRegistry::Added::kNew:
            return kExNone;
        case ServiceRegistry::Added::kInvalidName:
            *message = kNameRule;
            return kExIllegalArgument;
        case ServiceRegistry::Added::kTaken:
            *message = "the name belongs to process " + std::to_string(previous.owner.pid);
            __android_log_print(ANDROID_LOG_WARN, kTag, "process %d may not take a service name of process %d",
                                registrant.pid, previous.owner.pid);
            return kExSecurity;
    }
    return kExIllegalState;
}

int32_t ServiceManager::registerCallback(const Process& registrant, const std::u16string& name, uint32_t handle,
                                           std::string* message) {
    if (!ServiceRegistry::validName(name)) {
        *message = kNameRule;
        return kExIllegalArgument;
    }
    if (handle == 0) {
        *message = "a null callback";
        return kExNullPointer;
    }
    if (!mHost.takeOne(registrant, kCallbacksHeld)) {
        *message = "too many callbacks";
        return kExIllegalState;
    }
    mRegistry.addCallback(name, {handle, {registrant.token, registrant.pid, registrant.uid}});
    return kExNone;
}

int32_t ServiceManager::unregisterCallback(const std::u16string& name, uint32_t handle, std::string* message) {
    const std::vector<ServiceRegistry::Owner> registrants =
        handle == 0 ? std::vector<ServiceRegistry::Owner>{} : mRegistry.removeCallback(name, handle);
    if (registrants.empty()) {
        *message = "the callback is not registered for the name";
        return kExIllegalState;
    }
    uncountRegistrations(registrants, kCallbacksHeld);
    mHost.releaseServiceHandle(handle, static_cast<uint32_t>(registrants.size()));
    return kExNone;
}

void ServiceManager::uncountRegistrations(const std::vector<ServiceRegistry::Owner>& owners, Holding kind) {
    for (const ServiceRegistry::Owner& owner : owners) {
        mHost.giveBack({owner.uid, owner.pid}, kind, 1);
    }
}

void ServiceManager::notifyRegistration(const std::u16string& name, uint32_t callback) {
    const ServiceRegistry::Entry* service = mRegistry.find(name);
    if (service == nullptr) {
        return;
    }
    ParcelWriter data;
    data.writeInterfaceToken(kServiceCallbackDescriptor);
    data.writeString16(name);
    data.writeHandle(service->handle, service->stability);
    mHost.sendOneway(callback, kOnRegistration, data);
}

void ServiceManager::answerWaiters() {
    auto waiting = mLookupWaiters.begin();
    while (waiting != mLookupWaiters.end()) {
        if (mRegistry.find(waiting->name) != nullptr && waiting->request->from != nullptr) {
            const LookupWaiter waiter = *waiting;
            waiting = dropWaiter(waiting);
            answerLookup(*waiter.request->from, waiter.request, waiter.name);
        } else {
            ++waiting;
        }
    }
}

std::vector<ServiceManager::LookupWaiter>::iterator ServiceManager::dropWaiter(
    std::vector<LookupWaiter>::iterator it) {
    mHost.giveBack(it->holder, kLookupsWaiting, 1);
    return mLookupWaiters.erase(it);
}

void ServiceManager::answerLookup(Thread& caller, const std::shared_ptr<Transaction>& request,
                                  const std::u16string& name) {
    ParcelWriter reply;
    reply.writeStatus(kExNone);
    const ServiceRegistry::Entry* found = mRegistry.find(name);
    reply.writeHandle(found == nullptr ? 0 : found->handle, found == nullptr ? 0 : found->stability);
    mHost.reply(caller, request, reply, OK);
}

void ServiceManager::releaseRequestHandles(const Transaction& request, uint32_t keptHandle) {
    bool keptOne = false;
    for (uint64_t offset : request.offsets) {
        flat_binder_object object;
        std::memcpy(&object, request.data.data() + offset, sizeof(object));
        if (object.hdr.type != BINDER_TYPE_HANDLE) {
            continue;
        }
        if (object.handle == keptHandle && !keptOne) {
            keptOne = true;
            continue;
        }
        mHost.releaseServiceHandle(object.handle, 1);
    }
}

void ServiceManager::removeServicesOf(const Process& process) {
    const std::vector<uint32_t> names = mRegistry.removeOwner(process.token);
    mHost.giveBack(process.holder(), kNamesHeld, names.size());
    for (uint32_t handle : names) {
        mHost.releaseServiceHandle(handle, 1);
    }
    const auto gone = [&](const ServiceRegistry::Callback& callback) {
        const Process* owner = mHost.ownerOf(callback.handle);
        return callback.owner.token == process.token || owner == nullptr || owner == &process;
    };
    for (const ServiceRegistry::Callback& callback : mRegistry.removeCallbacks(gone)) {
        mHost.giveBack({callback.owner.uid, callback.owner.pid}, kCallbacksHeld, 1);
        mHost.releaseServiceHandle(callback.handle, 1);
    }
}

void ServiceManager::expireTimers(Clock::time_point now) {
    auto waiting = mLookupWaiters.begin();
    while (waiting != mLookupWaiters.end()) {
        if (waiting->request->from == nullptr) {
            waiting = dropWaiter(waiting);
        } else if (waiting->deadline <= now) {
            const LookupWaiter waiter = *waiting;
            waiting = dropWaiter(waiting);
            answerLookup(*waiter.request->from, waiter.request, waiter.name);
        } else {
            ++waiting;
        }
    }
}

ServiceManager::Clock::time_point ServiceManager::nextDeadline() const {
    Clock::time_point next = Clock::time_point::max();
    for (const auto& waiter : mLookupWaiters) {
        next = std::min(next, waiter.deadline);
    }
    return next;
}

}  // namespace android::binderd
