#pragma once

#include <cstdint>

#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>

// Packs four characters big-endian into a transaction code. Spelled exactly
// as in the kernel's binder header, so that both can be included.
#define B_PACK_CHARS(c1, c2, c3, c4) \
	((((c1)<<24)) | (((c2)<<16)) | (((c3)<<8)) | (c4))

namespace android {

class BBinder;
class BpBinder;
class IInterface;
class Parcel;

// A Binder object: either a local one (BBinder) or a proxy of an object in
// another process (BpBinder).
class IBinder : public virtual RefBase {
public:
    enum {
        FIRST_CALL_TRANSACTION = 0x00000001,
        LAST_CALL_TRANSACTION = 0x00ffffff,

        PING_TRANSACTION = B_PACK_CHARS('_', 'P', 'N', 'G'),
        DUMP_TRANSACTION = B_PACK_CHARS('_', 'D', 'M', 'P'),
        SHELL_COMMAND_TRANSACTION = B_PACK_CHARS('_', 'C', 'M', 'D'),
        INTERFACE_TRANSACTION = B_PACK_CHARS('_', 'N', 'T', 'F'),
        SYSPROPS_TRANSACTION = B_PACK_CHARS('_', 'S', 'P', 'R'),

        FLAG_ONEWAY = 0x00000001,
    };

    IBinder();

    // The local interface object when this binder lives in this process and
    // implements `descriptor`; null otherwise.
    virtual sp<IInterface> queryLocalInterface(const String16& descriptor);

    virtual const String16& getInterfaceDescriptor() const = 0;
    virtual bool isBinderAlive() const = 0;
    virtual status_t pingBinder() = 0;
    virtual status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) = 0;

    class DeathRecipient : public virtual RefBase {
    public:
        virtual void binderDied(const wp<IBinder>& who) = 0;
    };

    virtual status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                                 uint32_t flags = 0) = 0;
    virtual status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                                   uint32_t flags = 0, wp<DeathRecipient>* outRecipient = nullptr) = 0;

    virtual BBinder* localBinder();
    virtual BpBinder* remoteBinder();

protected:
    virtual ~IBinder();
};

}  // namespace android
