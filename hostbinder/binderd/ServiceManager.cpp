// The service manager at handle 0, speaking the platform's IServiceManager
// transactions.
#include "Driver.h"

#include <linux/android/binder.h>

#include <algorithm>
#include <cstring>

#include <binder/Parcel.h>
#include <binder/Status.h>

namespace android::binderd {

using namespace hostbinder;

namespace {

constexpr auto kLookupWait = std::chrono::seconds(5);
constexpr size_t kMaxNameLength = 127;
constexpr uint32_t kObjectFlags = 0x13 | FLAT_BINDER_FLAG_ACCEPTS_FDS;
constexpr int32_t kStabilitySystem = 12;

const String16& serviceManagerDescriptor() {
    static const String16 descriptor("android.os.IServiceManager");
    return descriptor;
}

bool validName(const std::u16string& name) {
    if (name.empty() || name.size() > kMaxNameLength) {
        return false;
    }
    return std::all_of(name.begin(), name.end(), [](char16_t c) {
        return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') || c == u'_' ||
               c == u'.' || c == u'-' || c == u'/';
    });
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
                if (mServices.count(name) == 0 && request->header.code == kGetService) {
                    mLookupWaiters.push_back({request, name, Clock::now() + kLookupWait});
                    releaseRequestHandles(*request, 0);
                    return;
                }
                answerLookup(caller, request, name);
                releaseRequestHandles(*request, 0);
                return;
            }
            case kAddService: {
                const std::u16string name = toU16(data.readString16());
                const uint32_t handle = readHandle(data);
                if (handle == 0 || !validName(name)) {
                    binder::Status::fromExceptionCode(binder::Status::EX_ILLEGAL_ARGUMENT, "invalid service")
                        .writeToParcel(&reply);
                    break;
                }
                auto previous = mServices.find(name);
                if (previous != mServices.end()) {
                    releaseHandle(mServiceManager, previous->second.handle, 1);
                }
                const Process& registrant = *caller.process;
                mServices[name] = ServiceEntry{handle, registrant.token};
                keptHandle = handle;
                binder::Status::ok().writeToParcel(&reply);
                break;
            }
            case kListServices:
                binder::Status::ok().writeToParcel(&reply);
                reply.writeInt32(static_cast<int32_t>(mServices.size()));
                for (const auto& entry : mServices) {
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
        // Waiters for the name get it now that it exists.
        auto waiting = mLookupWaiters.begin();
        while (waiting != mLookupWaiters.end()) {
            if (mServices.count(waiting->name) != 0 && waiting->request->from != nullptr) {
                answerLookup(*waiting->request->from, waiting->request, waiting->name);
                waiting = mLookupWaiters.erase(waiting);
            } else {
                ++waiting;
            }
        }
    }
}

void Driver::answerLookup(Thread& caller, const std::shared_ptr<Transaction>& request, const std::u16string& name) {
    Parcel reply;
    binder::Status::ok().writeToParcel(&reply);
    auto found = mServices.find(name);
    writeBinder(&reply, found == mServices.end() ? 0 : found->second.handle);
    replyFromServiceManager(caller, request, reply, OK);
}

void Driver::replyFromServiceManager(Thread& caller, const std::shared_ptr<Transaction>& request,
                                     const Parcel& reply, status_t status) {
    if (request->from != &caller) {
        return;
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
    for (auto it = mServices.begin(); it != mServices.end();) {
        if (it->second.registrant == process.token) {
            releaseHandle(mServiceManager, it->second.handle, 1);
            it = mServices.erase(it);
        } else {
            ++it;
        }
    }
}

void Driver::expireTimers(Clock::time_point now) {
    auto waiting = mLookupWaiters.begin();
    while (waiting != mLookupWaiters.end()) {
        if (waiting->request->from == nullptr) {
            waiting = mLookupWaiters.erase(waiting);
        } else if (waiting->deadline <= now) {
            Thread& caller = *waiting->request->from;
            std::shared_ptr<Transaction> request = waiting->request;
            std::u16string name = waiting->name;
            waiting = mLookupWaiters.erase(waiting);
            answerLookup(caller, request, name);
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
