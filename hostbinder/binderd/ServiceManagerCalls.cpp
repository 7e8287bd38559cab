// The service manager at handle 0, speaking the platform's IServiceManager
// transactions.
#include "Driver.h"

#include <linux/android/binder.h>

#include <algorithm>
#include <cstring>

#include <binder/Parcel.h>
#include <binder/Status.h>
#include <log/log.h>

#include "Limits.h"
#include "protocol/BinderObject.h"

namespace android::binderd {

using namespace hostbinder;

namespace {

constexpr const char* kTag = "binderd";
constexpr auto kLookupWait = std::chrono::seconds(5);
// IServiceCallback's one method, one-way.
constexpr uint32_t kOnRegistration = 1;

const String16& serviceManagerDescriptor() {
    static const String16 descriptor("android.os.IServiceManager");
    return descriptor;
}

const String16& serviceCallbackDescriptor() {
    static const String16 descriptor("android.os.IServiceCallback");
    return descriptor;
}

std::u16string toU16(const String16& text) { return std::u16string(text.string(), text.size()); }

// A binder field: a handle of the service manager's table (0 for none) and
// the stability level written after it.
struct BinderField {
    uint32_t handle = 0;
    int32_t stability = 0;
};

// Writes a binder field: the handle with its level, or a null binder.
void writeBinder(Parcel* parcel, const BinderField& binder) {
    flat_binder_object object{};
    object.hdr.type = binder.handle == 0 ? BINDER_TYPE_BINDER : BINDER_TYPE_HANDLE;
    object.flags = kObjectFlags;
    object.handle = binder.handle;
    const size_t offset = parcel->dataPosition();
    parcel->write(&object, sizeof(object));
    if (binder.handle != 0) {
        parcel->appendObject(offset);
    }
    parcel->writeInt32(binder.handle == 0 ? kStabilityUndeclared : binder.stability);
}

// The binder field at the parcel's position; a null one when the object is
// missing, null or not a handle of the service manager's table. False when a
// binder comes with a level no binder has (the platform's read fails so).
bool readBinder(const Parcel& data, BinderField* binder) {
    const size_t offset = data.dataPosition();
    if (data.dataSize() < offset || data.dataSize() - offset < sizeof(flat_binder_object)) {
        return true;
    }
    flat_binder_object object;
    std::memcpy(&object, data.data() + offset, sizeof(object));
    const bool listed = std::binary_search(data.objects(), data.objects() + data.objectsCount(), uint64_t{offset});
    data.setDataPosition(offset + sizeof(object));
    const int32_t stability = data.readInt32();
    if (!listed || object.hdr.type != BINDER_TYPE_HANDLE) {
        return true;
    }
    *binder = {object.handle, stability};
    return isKnownStability(stability);
}

TransactionView viewOf(const Parcel& parcel) {
    TransactionView view{};
    view.header.dataSize = static_cast<uint32_t>(parcel.dataSize());
    view.header.offsetsCount = static_cast<uint32_t>(parcel.objectsCount());
    view.data = parcel.data();
    view.offsets = reinterpret_cast<const uint8_t*>(parcel.objects());
    return view;
}

}  // namespace

void Driver::serveServiceManager(Thread& caller, const std::shared_ptr<Transaction>& request) {
    Parcel data;
    data.setData(request->data.data(), request->data.size());
    data.setObjects(request->offsets.data(), request->offsets.size());
    Parcel reply;
    uint32_t keptHandle = 0;
    status_t status = OK;
    // Names to tell callbacks of once the caller has its answer: all of a
    // name just added, or one just registered for a name already there.
    std::u16string added;
    std::u16string watched;
    if (!data.enforceInterface(serviceManagerDescriptor())) {
        status = BAD_TYPE;
    } else {
        const uint32_t code = request->header.code;
        switch (code) {
            case kGetService:
            case kCheckService: {
                const std::u16string name = toU16(data.readString16());
                releaseRequestHandles(*request, 0);
                Process& process = *caller.process;
                if (mRegistry.find(name) == nullptr && code == kGetService &&
                    makeRoom(process, kLookupsWaiting, 1)) {
                    // The request's bytes are not needed to answer it.
                    request->data = {};
                    request->offsets = {};
                    mLedger.take(process.holder(), kLookupsWaiting, 1);
                    mLookupWaiters.push_back(
                        {request, name, Clock::now() + kLookupWait, process.token, process.holder()});
                    return;
                }
                answerLookup(caller, request, name);
                return;
            }
            case kAddService:
            case kRegisterForNotifications:
            case kUnregisterForNotifications: {
                const std::u16string name = toU16(data.readString16());
                BinderField binder;
                if (!readBinder(data, &binder)) {
                    status = BAD_TYPE;
                    break;
                }
                std::string message;
                const Process& registrant = *caller.process;
                const int32_t exception =
                    code == kAddService ? addService(registrant, name, binder.handle, binder.stability, &message)
                    : code == kRegisterForNotifications ? registerCallback(registrant, name, binder.handle, &message)
                                                        : unregisterCallback(name, binder.handle, &message);
                binder::Status::fromExceptionCode(exception, String8(message.c_str())).writeToParcel(&reply);
                if (exception == binder::Status::EX_NONE && code != kUnregisterForNotifications) {
                    keptHandle = binder.handle;
                    (code == kAddService ? added : watched) = name;
                }
                break;
            }
            case kListServices:
                binder::Status::ok().writeToParcel(&reply);
                reply.writeInt32(static_cast<int32_t>(mRegistry.entries().size()));
                for (const auto& entry : mRegistry.entries()) {
                    reply.writeString16(entry.first.data(), entry.first.size());
                }
                break;
            case kIsDeclared:
                binder::Status::ok().writeToParcel(&reply);
                reply.writeBool(false);
                break;
            default:
                status = UNKNOWN_TRANSACTION;
                break;
        }
    }
    replyFromServiceManager(caller, request, reply, status);
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

int32_t Driver::addService(const Process& registrant, const std::u16string& name, uint32_t handle,
                           int32_t stability, std::string* message) {
    if (handle == 0) {
        *message = "a null binder cannot be added";
        return binder::Status::EX_ILLEGAL_ARGUMENT;
    }
    // A new name counts against the process, its uid and everyone.
    if (ServiceRegistry::validName(name) && mRegistry.find(name) == nullptr &&
        !makeRoom(registrant, kNamesHeld, 1)) {
        *message = "too many service names";
        return binder::Status::EX_ILLEGAL_STATE;
    }
    ServiceRegistry::Entry previous;
    const ServiceRegistry::Owner owner{registrant.token, registrant.pid, registrant.uid};
    switch (mRegistry.add(name, {handle, stability, owner}, &previous)) {
        case ServiceRegistry::Added::kReplaced:
            releaseHandle(mServiceManager, previous.handle, 1);
            return binder::Status::EX_NONE;
        case ServiceRegistry::Added::kNew:
            mLedger.take(registrant.holder(), kNamesHeld, 1);
            return binder::Status::EX_NONE;
        case ServiceRegistry::Added::kInvalidName:
            *message = "a name is 1 to 127 characters of [A-Za-z0-9_.-/]";
            return binder::Status::EX_ILLEGAL_ARGUMENT;
        case ServiceRegistry::Added::kTaken:
            *message = "the name belongs to process " + std::to_string(previous.owner.pid);
            __android_log_print(ANDROID_LOG_WARN, kTag, "process %d may not take a service name of process %d",
                                registrant.pid, previous.owner.pid);
            return binder::Status::EX_SECURITY;
    }
    return binder::Status::EX_ILLEGAL_STATE;
}

int32_t Driver::registerCallback(const Process& registrant, const std::u16string& name, uint32_t handle,
                                 std::string* message) {
    if (!ServiceRegistry::validName(name)) {
        *message = "a name is 1 to 127 characters of [A-Za-z0-9_.-/]";
        return binder::Status::EX_ILLEGAL_ARGUMENT;
    }
    if (handle == 0) {
        *message = "a null callback";
        return binder::Status::EX_NULL_POINTER;
    }
    if (!makeRoom(registrant, kCallbacksHeld, 1)) {
        *message = "too many callbacks";
        return binder::Status::EX_ILLEGAL_STATE;
    }
    mRegistry.addCallback(name, {handle, {registrant.token, registrant.pid, registrant.uid}});
    mLedger.take(registrant.holder(), kCallbacksHeld, 1);
    return binder::Status::EX_NONE;
}

int32_t Driver::unregisterCallback(const std::u16string& name, uint32_t handle, std::string* message) {
    const std::vector<ServiceRegistry::Owner> registrants =
        handle == 0 ? std::vector<ServiceRegistry::Owner>{} : mRegistry.removeCallback(name, handle);
    if (registrants.empty()) {
        *message = "the callback is not registered for the name";
        return binder::Status::EX_ILLEGAL_STATE;
    }
    uncountRegistrations(registrants, kCallbacksHeld);
    releaseHandle(mServiceManager, handle, static_cast<uint32_t>(registrants.size()));
    return binder::Status::EX_NONE;
}

void Driver::uncountRegistrations(const std::vector<ServiceRegistry::Owner>& owners, Holding kind) {
    for (const ServiceRegistry::Owner& owner : owners) {
        mLedger.give({owner.uid, owner.pid}, kind, 1);
    }
}

void Driver::notifyRegistration(const std::u16string& name, uint32_t callback) {
    const ServiceRegistry::Entry* service = mRegistry.find(name);
    auto ref = mServiceManager.handles.find(callback);
    if (service == nullptr || ref == mServiceManager.handles.end() || ref->second.node->owner == nullptr) {
        return;
    }
    const std::shared_ptr<Node> node = ref->second.node;
    Process& receiver = *node->owner;
    Parcel data;
    data.writeInterfaceToken(serviceCallbackDescriptor());
    data.writeString16(name.data(), name.size());
    writeBinder(&data, {service->handle, service->stability});
    TransactionView view = viewOf(data);
    view.header.code = kOnRegistration;
    view.header.flags = kFlagOneway;
    // A receiver that does not take its one-way calls misses the notice.
    if (!objectsValid(mServiceManager, receiver, view) ||
        !roomInBuffer(receiver, bufferCharge(data.dataSize(), data.objectsCount(), true), true)) {
        if (mVerbose) {
            __android_log_print(ANDROID_LOG_INFO, kTag, "process %d missed a registration: its buffer is full",
                                receiver.pid);
        }
        return;
    }
    std::vector<std::shared_ptr<Node>> transit;
    std::shared_ptr<Transaction> notice = makeTransaction(mServiceManager, node, view, &transit);
    notice->transit = std::move(transit);
    queueOneway(notice);
}

void Driver::answerWaiters() {
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

std::vector<Driver::LookupWaiter>::iterator Driver::dropWaiter(std::vector<LookupWaiter>::iterator it) {
    mLedger.give(it->holder, kLookupsWaiting, 1);
    return mLookupWaiters.erase(it);
}

void Driver::answerLookup(Thread& caller, const std::shared_ptr<Transaction>& request, const std::u16string& name) {
    Parcel reply;
    binder::Status::ok().writeToParcel(&reply);
    const ServiceRegistry::Entry* found = mRegistry.find(name);
    writeBinder(&reply, found == nullptr ? BinderField{} : BinderField{found->handle, found->stability});
    replyFromServiceManager(caller, request, reply, OK);
}

void Driver::replyFromServiceManager(Thread& caller, const std::shared_ptr<Transaction>& request,
                                     const Parcel& reply, status_t status) {
    if (request->from != &caller) {
        return;
    }
    // Never a reply the caller could not read, nor one with a binder its
    // table has no room for.
    if (reply.dataSize() + reply.objectsCount() * sizeof(uint64_t) > kMaxTransactionBytes ||
        (status == OK && !roomForObjects(mServiceManager, *caller.process, reply.objectsCount()))) {
        status = FAILED_TRANSACTION;
    }
    TransactionView view = viewOf(reply);
    view.header.status = status;
    deliverReply(*request, status, &mServiceManager, status == OK ? &view : nullptr);
    dropNodeRef(request->target);
}

void Driver::releaseRequestHandles(const Transaction& request, uint32_t keptHandle) {
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
        releaseHandle(mServiceManager, object.handle, 1);
    }
}

void Driver::removeServicesOf(const Process& process) {
    const std::vector<uint32_t> names = mRegistry.removeOwner(process.token);
    mLedger.give(process.holder(), kNamesHeld, names.size());
    for (uint32_t handle : names) {
        releaseHandle(mServiceManager, handle, 1);
    }
    const auto gone = [&](const ServiceRegistry::Callback& callback) {
        auto ref = mServiceManager.handles.find(callback.handle);
        return callback.owner.token == process.token || ref == mServiceManager.handles.end() ||
               ref->second.node->owner == &process;
    };
    for (const ServiceRegistry::Callback& callback : mRegistry.removeCallbacks(gone)) {
        mLedger.give({callback.owner.uid, callback.owner.pid}, kCallbacksHeld, 1);
        releaseHandle(mServiceManager, callback.handle, 1);
    }
}

void Driver::expireTimers(Clock::time_point now) {
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

Driver::Clock::time_point Driver::nextDeadline() const {
    Clock::time_point next = Clock::time_point::max();
    for (const auto& waiter : mLookupWaiters) {
        next = std::min(next, waiter.deadline);
    }
    return next;
}

}  // namespace android::binderd
