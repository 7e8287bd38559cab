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

namespace android::binderd {

using namespace hostbinder;

namespace {

constexpr const char* kTag = "binderd";
constexpr auto kLookupWait = std::chrono::seconds(5);
constexpr uint32_t kObjectFlags = 0x13 | FLAT_BINDER_FLAG_ACCEPTS_FDS;
constexpr int32_t kStabilitySystem = 12;

const String16& serviceManagerDescriptor() {
    static const String16 descriptor("android.os.IServiceManager");
    return descriptor;
}

std::u16string toU16(const String16& text) { return std::u16string(text.string(), text.size()); }

// Writes a binder reply field: the service's handle, or a null binder.
void writeBinder(Parcel* reply, uint32_t handle) {
    flat_binder_object object{};
    object.hdr.type = handle == 0 ? BINDER_TYPE_BINDER : BINDER_TYPE_HANDLE;
    object.flags = kObjectFlags;
    object.handle = handle;
    const size_t offset = reply->dataPosition();
    reply->write(&object, sizeof(object));
    if (handle != 0) {
        reply->appendObject(offset);
    }
    reply->writeInt32(handle == 0 ? 0 : kStabilitySystem);
}

// The handle of the binder object at the parcel's position, or 0 when the
// object is missing, null or not a handle of the service manager's table.
uint32_t readHandle(const Parcel& data) {
    const size_t offset = data.dataPosition();
    if (data.dataSize() < offset || data.dataSize() - offset < sizeof(flat_binder_object)) {
        return 0;
    }
    flat_binder_object object;
    std::memcpy(&object, data.data() + offset, sizeof(object));
    const bool listed = std::binary_search(data.objects(), data.objects() + data.objectsCount(), uint64_t{offset});
    data.setDataPosition(offset + sizeof(object));
    data.readInt32();
    return listed && object.hdr.type == BINDER_TYPE_HANDLE ? object.handle : 0;
}

}  // namespace

void Driver::serveServiceManager(Thread& caller, const std::shared_ptr<Transaction>& request) {
    Parcel data;
    data.setData(request->data.data(), request->data.size());
    data.setObjects(request->offsets.data(), request->offsets.size());
    Parcel reply;
    uint32_t keptHandle = 0;
    status_t status = OK;
    if (!data.enforceInterface(serviceManagerDescriptor())) {
        status = BAD_TYPE;
    } else {
        switch (request->header.code) {
            case kGetService:
            case kCheckService: {
                const std::u16string name = toU16(data.readString16());
                releaseRequestHandles(*request, 0);
                Process& process = *caller.process;
                if (mRegistry.find(name) == nullptr && request->header.code == kGetService &&
                    process.lookupWaiters < kMaxLookupWaitersPerProcess) {
                    // The request's bytes are not needed to answer it.
                    request->data = {};
                    request->offsets = {};
                    ++process.lookupWaiters;
                    mLookupWaiters.push_back({request, name, Clock::now() + kLookupWait, process.token});
                    return;
                }
                answerLookup(caller, request, name);
                return;
            }
            case kAddService: {
                const std::u16string name = toU16(data.readString16());
                const uint32_t handle = readHandle(data);
                std::string message;
                const int32_t exception = addService(*caller.process, name, handle, &message);
                binder::Status::fromExceptionCode(exception, String8(message.c_str())).writeToParcel(&reply);
                keptHandle = exception == binder::Status::EX_NONE ? handle : 0;
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
    if (keptHandle != 0) {
        answerWaiters();
    }
}

int32_t Driver::addService(const Process& registrant, const std::u16string& name, uint32_t handle,
                           std::string* message) {
    if (handle == 0) {
        *message = "a null binder cannot be added";
        return binder::Status::EX_ILLEGAL_ARGUMENT;
    }
    ServiceRegistry::Entry previous;
    switch (mRegistry.add(name, handle, {registrant.token, registrant.pid, registrant.uid}, &previous)) {
        case ServiceRegistry::Added::kReplaced:
            releaseHandle(mServiceManager, previous.handle, 1);
            [[fallthrough]];
        case ServiceRegistry::Added::kNew:
            return binder::Status::EX_NONE;
        case ServiceRegistry::Added::kInvalidName:
            *message = "a name is 1 to 127 characters of [A-Za-z0-9_.-/]";
            return binder::Status::EX_ILLEGAL_ARGUMENT;
        case ServiceRegistry::Added::kTaken:
            *message = "the name belongs to process " + std::to_string(previous.owner.pid);
            __android_log_print(ANDROID_LOG_WARN, kTag, "process %d may not take a service name of process %d",
                                registrant.pid, previous.owner.pid);
            return binder::Status::EX_SECURITY;
        case ServiceRegistry::Added::kTooMany:
            break;
    }
    *message = "too many service names";
    return binder::Status::EX_ILLEGAL_STATE;
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
    auto process = mProcesses.find(it->process);
    if (process != mProcesses.end()) {
        --process->second->lookupWaiters;
    }
    return mLookupWaiters.erase(it);
}

void Driver::answerLookup(Thread& caller, const std::shared_ptr<Transaction>& request, const std::u16string& name) {
    Parcel reply;
    binder::Status::ok().writeToParcel(&reply);
    const ServiceRegistry::Entry* found = mRegistry.find(name);
    writeBinder(&reply, found == nullptr ? 0 : found->handle);
    replyFromServiceManager(caller, request, reply, OK);
}

void Driver::replyFromServiceManager(Thread& caller, const std::shared_ptr<Transaction>& request,
                                     const Parcel& reply, status_t status) {
    if (request->from != &caller) {
        return;
    }
    // Never a reply the caller could not read.
    if (reply.dataSize() + reply.objectsCount() * sizeof(uint64_t) > kMaxTransactionBytes) {
        status = FAILED_TRANSACTION;
    }
    TransactionView view{};
    view.header.status = status;
    view.header.dataSize = static_cast<uint32_t>(reply.dataSize());
    view.header.offsetsCount = static_cast<uint32_t>(reply.objectsCount());
    view.data = reply.data();
    view.offsets = reinterpret_cast<const uint8_t*>(reply.objects());
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
    for (uint32_t handle : mRegistry.removeOwner(process.token)) {
        releaseHandle(mServiceManager, handle, 1);
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
