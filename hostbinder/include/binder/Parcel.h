#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>

namespace android {

class BpBinder;
class IBinder;
class IPCThreadState;
class Parcelable;

// A flat, little-endian byte container with the platform's framing: every item
// is padded to a multiple of four bytes, and binder objects embedded in the
// data are listed in an object table of byte offsets so that the driver can
// find and translate them.
//
// Reads never touch a byte outside the data: a read that does not fit fails
// (or, for the no-argument forms, yields a zero value) and leaves the position
// where it was.
class Parcel {
public:
    Parcel();
    ~Parcel();
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;

    const uint8_t* data() const;
    size_t dataSize() const;
    size_t dataAvail() const;
    size_t dataPosition() const;
    size_t dataCapacity() const;

    void setDataPosition(size_t pos) const;
    // Replaces the contents with a copy of the buffer; the object table is
    // emptied, so binder objects cannot be forged through raw bytes.
    status_t setData(const uint8_t* buffer, size_t len);
    void freeData();

    status_t writeInterfaceToken(const String16& interface);
    bool enforceInterface(const String16& interface, IPCThreadState* threadState = nullptr) const;
    bool checkInterface(IBinder* binder) const;

    status_t write(const void* data, size_t len);
    status_t writeInt32(int32_t val);
    status_t writeUint32(uint32_t val);
    status_t writeInt64(int64_t val);
    status_t writeUint64(uint64_t val);
    status_t writeBool(bool val);
    status_t writeString16(const String16& str);
    status_t writeString16(const std::unique_ptr<String16>& str);
    status_t writeString16(const char16_t* str, size_t len);
    status_t writeParcelable(const Parcelable& parcelable);

    // Binder objects, framed as flat_binder_object plus a stability level.
    status_t writeStrongBinder(const sp<IBinder>& val);
    status_t readStrongBinder(sp<IBinder>* val) const;
    status_t readNullableStrongBinder(sp<IBinder>* val) const;
    sp<IBinder> readStrongBinder() const;
    // For the runtime: takes the binders of a parcel that binderd delivered,
    // counting each handle's arrival, and keeps them alive with the parcel.
    void takeDeliveredBinders();

    status_t read(void* outData, size_t len) const;
    const void* readInplace(size_t len) const;
    int32_t readInt32() const;
    status_t readInt32(int32_t* pArg) const;
    uint32_t readUint32() const;
    status_t readUint32(uint32_t* pArg) const;
    int64_t readInt64() const;
    status_t readInt64(int64_t* pArg) const;
    uint64_t readUint64() const;
    status_t readUint64(uint64_t* pArg) const;
    bool readBool() const;
    status_t readBool(bool* pArg) const;
    String16 readString16() const;
    status_t readString16(String16* pArg) const;
    // The units of a String16 inside the data, or null on the failures of
    // readString16. The pointer may be misaligned after an odd setDataPosition,
    // so copy units out with memcpy rather than dereferencing it.
    const char16_t* readString16Inplace(size_t* outLen) const;
    status_t readParcelable(Parcelable* parcelable) const;

    // The object table: byte offsets of the binder objects in the data, in
    // increasing order.
    size_t objectsCount() const;
    const uint64_t* objects() const;
    // Every object is a flat binder object of this many bytes.
    static constexpr size_t kObjectSize = 24;
    // Records an object written at `offset`. Offsets must come in increasing
    // order without overlap, aligned to four, with the object inside the data.
    status_t appendObject(uint64_t offset);
    // Replaces the table; checked entry by entry the same way. On failure the
    // table is left empty.
    status_t setObjects(const uint64_t* offsets, size_t count);

private:
    // Bytes needed for `len` once padded to four, or 0 when that overflows.
    static size_t padded(size_t len);
    // Reserves `len` padded bytes at the position, zeroing the padding, and
    // returns where to put them (null when the parcel would grow too large).
    uint8_t* writeSlot(size_t len);
    // Checks that `len` padded bytes can be read at the position without
    // leaving the data or reading into a binder object.
    status_t checkRead(size_t len) const;
    template <typename T> status_t writeValue(T value);
    template <typename T> status_t readValue(T* out) const;
    template <typename T> T readValueOrZero() const;

    status_t readBinderObject(sp<IBinder>* val, bool nullable) const;
    void holdBinder(const sp<IBinder>& binder);
    // The stability level a proxy travels with, and whether `level` may come
    // with `binder` (which then keeps it when it is a proxy new to any level).
    static int32_t stabilityToWrite(BpBinder* proxy);
    static bool acceptStability(const sp<IBinder>& binder, int32_t level);

    // Grows the buffer to hold at least `needed` bytes; false when memory runs out.
    bool reserveData(size_t needed);

    struct FreeDeleter {
        void operator()(uint8_t* data) const;
    };
    // Grown with realloc, as the platform's parcel is: large buffers are moved
    // by remapping pages rather than copying them, and nothing is zero-filled
    // that a write is about to cover.
    std::unique_ptr<uint8_t, FreeDeleter> mData;
    size_t mDataSize = 0;
    size_t mDataCapacity = 0;
    std::vector<uint64_t> mObjects;
    // Binders whose objects this parcel carries, alive while it is.
    std::vector<sp<RefBase>> mHeldBinders;
    mutable size_t mDataPos = 0;
};

}  // namespace android
