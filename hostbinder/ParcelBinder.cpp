// The binder-object part of Parcel: flat_binder_object framing and the
// translation of delivered objects into this process's binders.
#include <binder/Parcel.h>

#include <linux/android/binder.h>

#include <algorithm>
#include <cstring>

#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/ProcessState.h>

#include "protocol/BinderObject.h"

namespace android {

using hostbinder::isKnownStability;
using hostbinder::kObjectFlags;
using hostbinder::kStabilitySystem;
using hostbinder::kStabilityUndeclared;

static_assert(sizeof(flat_binder_object) == Parcel::kObjectSize, "object table entries are flat binder objects");

void Parcel::holdBinder(const sp<IBinder>& binder) { mHeldBinders.push_back(binder); }

int32_t Parcel::stabilityToWrite(BpBinder* proxy) {
    // A proxy that never arrived in a parcel (the context manager's) is
    // taken to be of this process's own level from its first write on.
    int32_t level = kStabilityUndeclared;
    proxy->mStability.compare_exchange_strong(level, kStabilitySystem);
    return level == kStabilityUndeclared ? kStabilitySystem : level;
}

bool Parcel::acceptStability(const sp<IBinder>& binder, int32_t level) {
    if (binder == nullptr) {
        return level == kStabilityUndeclared;
    }
    if (!isKnownStability(level)) {
        return false;
    }
    BpBinder* proxy = binder->remoteBinder();
    if (proxy == nullptr) {
        return true;
    }
    // A binder's level never changes: the first one a proxy arrives with stays.
    int32_t known = kStabilityUndeclared;
    return proxy->mStability.compare_exchange_strong(known, level) || known == level;
}

status_t Parcel::writeStrongBinder(const sp<IBinder>& val) {
    flat_binder_object object{};
    object.hdr.type = BINDER_TYPE_BINDER;
    object.flags = kObjectFlags;
    int32_t stability = kStabilityUndeclared;
    if (val != nullptr) {
        if (BBinder* local = val->localBinder(); local != nullptr) {
            object.binder = reinterpret_cast<uintptr_t>(local->getWeakRefs());
            object.cookie = reinterpret_cast<uintptr_t>(local);
            stability = kStabilitySystem;
        } else if (BpBinder* proxy = val->remoteBinder(); proxy != nullptr) {
            object.hdr.type = BINDER_TYPE_HANDLE;
            object.handle = static_cast<uint32_t>(proxy->handle());
            stability = stabilityToWrite(proxy);
        } else {
            return BAD_TYPE;
        }
    }
    const size_t offset = dataPosition();
    status_t status = write(&object, sizeof(object));
    if (status != OK) {
        return status;
    }
    // The table lists the objects that name a node or a handle other than the
    // context manager's 0: those are all that the driver translates.
    if (object.binder != 0 && (status = appendObject(offset)) != OK) {
        return status;
    }
    if (val != nullptr) {
        holdBinder(val);
    }
    return writeInt32(stability);
}

status_t Parcel::readBinderObject(sp<IBinder>* val, bool nullable) const {
    const size_t start = dataPosition();
    if (dataSize() < start || dataSize() - start < kObjectSize) {
        return BAD_TYPE;
    }
    flat_binder_object object;
    std::memcpy(&object, data() + start, sizeof(object));
    const bool listed = std::binary_search(objects(), objects() + objectsCount(), uint64_t{start});
    if ((object.binder != 0 || object.cookie != 0) && !listed) {
        return BAD_TYPE;
    }
    // Read by type: a local object without a cookie is null, and handle 0 is
    // this process's own proxy of the context manager.
    sp<IBinder> binder;
    if (object.hdr.type == BINDER_TYPE_BINDER) {
        binder = reinterpret_cast<BBinder*>(object.cookie);
    } else if (object.hdr.type == BINDER_TYPE_HANDLE) {
        binder = ProcessState::self()->getStrongProxyForHandle(static_cast<int32_t>(object.handle));
    } else {
        return BAD_TYPE;
    }
    setDataPosition(start + kObjectSize);
    int32_t stability = kStabilityUndeclared;
    if (const status_t status = readInt32(&stability); status != OK) {
        setDataPosition(start);
        return status;
    }
    if (!acceptStability(binder, stability)) {
        setDataPosition(start);
        return BAD_TYPE;
    }
    *val = binder;
    return binder == nullptr && !nullable ? UNEXPECTED_NULL : OK;
}

status_t Parcel::readStrongBinder(sp<IBinder>* val) const { return readBinderObject(val, false); }

status_t Parcel::readNullableStrongBinder(sp<IBinder>* val) const { return readBinderObject(val, true); }

sp<IBinder> Parcel::readStrongBinder() const {
    sp<IBinder> binder;
    readNullableStrongBinder(&binder);
    return binder;
}

void Parcel::takeDeliveredBinders() {
    for (size_t i = 0; i < objectsCount(); ++i) {
        flat_binder_object object;
        std::memcpy(&object, data() + objects()[i], sizeof(object));
        if (object.hdr.type == BINDER_TYPE_HANDLE) {
            holdBinder(ProcessState::self()->takeDeliveredHandle(static_cast<int32_t>(object.handle)));
        } else if (object.hdr.type == BINDER_TYPE_BINDER && object.cookie != 0) {
            holdBinder(reinterpret_cast<BBinder*>(object.cookie));
        }
    }
}

}  // namespace android
