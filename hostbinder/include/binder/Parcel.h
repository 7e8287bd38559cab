#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <binder/IInterface.h>
#include <binder/Parcelable.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>

namespace android {

class BpBinder;
class IBinder;
class IPCThreadState;

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
    // Reserves `len` bytes at the position, padded to four with zeros, for
    // the caller to fill; null when the parcel cannot grow so far.
    void* writeInplace(size_t len);
    status_t writeInt32(int32_t val);
    status_t writeUint32(uint32_t val);
    status_t writeInt64(int64_t val);
    status_t writeUint64(uint64_t val);
    status_t writeBool(bool val);
    status_t writeString16(const String16& str);
    status_t writeString16(const std::unique_ptr<String16>& str);
    status_t writeString16(const char16_t* str, size_t len);
    status_t writeFloat(float val);
    status_t writeDouble(double val);
    status_t writeChar(char16_t val);  // as an int32
    status_t writeByte(int8_t val);    // as an int32
    status_t writeParcelable(const Parcelable& parcelable);
    // Null is written as a presence marker of 0.
    template <typename T>
    status_t writeNullableParcelable(const std::unique_ptr<T>& parcelable);

    // UTF-8 text carried as a String16, converted by libutils; text that is
    // not UTF-8 is refused with BAD_VALUE. Null is written as length -1.
    status_t writeUtf8AsUtf16(const std::string& str);
    status_t writeUtf8AsUtf16(const std::unique_ptr<std::string>& str);

    // Vectors: an int32 count (-1 for a null vector), then each element as
    // its own write frames it, except bytes, which are packed and padded once.
    status_t writeByteVector(const std::unique_ptr<std::vector<int8_t>>& val);
    status_t writeByteVector(const std::vector<int8_t>& val);
    status_t writeByteVector(const std::unique_ptr<std::vector<uint8_t>>& val);
    status_t writeByteVector(const std::vector<uint8_t>& val);
    status_t writeInt32Vector(const std::unique_ptr<std::vector<int32_t>>& val);
    status_t writeInt32Vector(const std::vector<int32_t>& val);
    status_t writeInt64Vector(const std::unique_ptr<std::vector<int64_t>>& val);
    status_t writeInt64Vector(const std::vector<int64_t>& val);
    status_t writeUint64Vector(const std::unique_ptr<std::vector<uint64_t>>& val);
    status_t writeUint64Vector(const std::vector<uint64_t>& val);
    status_t writeFloatVector(const std::unique_ptr<std::vector<float>>& val);
    status_t writeFloatVector(const std::vector<float>& val);
    status_t writeDoubleVector(const std::unique_ptr<std::vector<double>>& val);
    status_t writeDoubleVector(const std::vector<double>& val);
    status_t writeBoolVector(const std::unique_ptr<std::vector<bool>>& val);
    status_t writeBoolVector(const std::vector<bool>& val);
    status_t writeCharVector(const std::unique_ptr<std::vector<char16_t>>& val);
    status_t writeCharVector(const std::vector<char16_t>& val);
    status_t writeString16Vector(const std::unique_ptr<std::vector<std::unique_ptr<String16>>>& val);
    status_t writeString16Vector(const std::vector<String16>& val);
    status_t writeUtf8VectorAsUtf16Vector(const std::unique_ptr<std::vector<std::unique_ptr<std::string>>>& val);
    status_t writeUtf8VectorAsUtf16Vector(const std::vector<std::string>& val);
    status_t writeStrongBinderVector(const std::unique_ptr<std::vector<sp<IBinder>>>& val);
    status_t writeStrongBinderVector(const std::vector<sp<IBinder>>& val);
    template <typename T>
    status_t writeParcelableVector(const std::unique_ptr<std::vector<std::unique_ptr<T>>>& val);
    template <typename T>
    status_t writeParcelableVector(const std::shared_ptr<std::vector<std::unique_ptr<T>>>& val);
    template <typename T>
    status_t writeParcelableVector(const std::vector<T>& val);
    // Only the count, for a vector the callee fills (an out parameter).
    template <typename T>
    status_t writeVectorSize(const std::vector<T>& val);
    template <typename T>
    status_t writeVectorSize(const std::unique_ptr<std::vector<T>>& val);

    // Binder objects, framed as flat_binder_object plus a stability level.
    status_t writeStrongBinder(const sp<IBinder>& val);
    status_t readStrongBinder(sp<IBinder>* val) const;
    status_t readNullableStrongBinder(sp<IBinder>* val) const;
    sp<IBinder> readStrongBinder() const;
    // The interface of the binder read (interface_cast); a binder that gives
    // none is UNKNOWN_ERROR.
    template <typename T>
    status_t readStrongBinder(sp<T>* val) const;
    template <typename T>
    status_t readNullableStrongBinder(sp<T>* val) const;
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
    // A negative length (a null string) reads as null; anything else as readString16.
    status_t readString16(std::unique_ptr<String16>* pArg) const;
    status_t readUtf8FromUtf16(std::string* str) const;
    status_t readUtf8FromUtf16(std::unique_ptr<std::string>* str) const;
    float readFloat() const;
    status_t readFloat(float* pArg) const;
    double readDouble() const;
    status_t readDouble(double* pArg) const;
    char16_t readChar() const;
    status_t readChar(char16_t* pArg) const;
    int8_t readByte() const;
    status_t readByte(int8_t* pArg) const;
    status_t readParcelable(Parcelable* parcelable) const;
    // A presence marker of 0 reads as null.
    template <typename T>
    status_t readParcelable(std::unique_ptr<T>* parcelable) const;

    // A negative count is UNEXPECTED_NULL for a vector and null for a
    // std::unique_ptr of one.
    status_t readByteVector(std::unique_ptr<std::vector<int8_t>>* val) const;
    status_t readByteVector(std::vector<int8_t>* val) const;
    status_t readByteVector(std::unique_ptr<std::vector<uint8_t>>* val) const;
    status_t readByteVector(std::vector<uint8_t>* val) const;
    status_t readInt32Vector(std::unique_ptr<std::vector<int32_t>>* val) const;
    status_t readInt32Vector(std::vector<int32_t>* val) const;
    status_t readInt64Vector(std::unique_ptr<std::vector<int64_t>>* val) const;
    status_t readInt64Vector(std::vector<int64_t>* val) const;
    status_t readUint64Vector(std::unique_ptr<std::vector<uint64_t>>* val) const;
    status_t readUint64Vector(std::vector<uint64_t>* val) const;
    status_t readFloatVector(std::unique_ptr<std::vector<float>>* val) const;
    status_t readFloatVector(std::vector<float>* val) const;
    status_t readDoubleVector(std::unique_ptr<std::vector<double>>* val) const;
    status_t readDoubleVector(std::vector<double>* val) const;
    status_t readBoolVector(std::unique_ptr<std::vector<bool>>* val) const;
    status_t readBoolVector(std::vector<bool>* val) const;
    status_t readCharVector(std::unique_ptr<std::vector<char16_t>>* val) const;
    status_t readCharVector(std::vector<char16_t>* val) const;
    status_t readString16Vector(std::unique_ptr<std::vector<std::unique_ptr<String16>>>* val) const;
    status_t readString16Vector(std::vector<String16>* val) const;
    status_t readUtf8VectorFromUtf16Vector(std::unique_ptr<std::vector<std::unique_ptr<std::string>>>* val) const;
    status_t readUtf8VectorFromUtf16Vector(std::vector<std::string>* val) const;
    // Elements of the nullable form may be null; those of the other may not.
    status_t readStrongBinderVector(std::unique_ptr<std::vector<sp<IBinder>>>* val) const;
    status_t readStrongBinderVector(std::vector<sp<IBinder>>* val) const;
    template <typename T>
    status_t readParcelableVector(std::unique_ptr<std::vector<std::unique_ptr<T>>>* val) const;
    template <typename T>
    status_t readParcelableVector(std::vector<T>* val) const;
    // Sizes the vector a callee fills from the count writeVectorSize wrote.
    template <typename T>
    status_t resizeOutVector(std::vector<T>* val) const;
    template <typename T>
    status_t resizeOutVector(std::unique_ptr<std::vector<T>>* val) const;

    // The object table: byte offsets of the binder objects in the data, in
    // increasing order.
    size_t objectsCount() const;
    const uint64_t* objects() const;
    // Every object is a flat binder object of this many bytes.
    static constexpr size_t kObjectSize = 24;
    // The most elements an out vector may ask for: the largest transaction
    // (1 MiB less 8 KiB) holds no more bytes.
    static constexpr size_t kMaxOutVectorCount = 1040384;
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

    status_t writeBytes(const void* bytes, size_t count);
    template <typename T>
    status_t readBytes(std::vector<T>* val) const;
    template <typename T>
    status_t readNullableBytes(std::unique_ptr<std::vector<T>>* val) const;

    status_t writeVectorCount(size_t count);
    // A vector's count; a negative one (a null vector) is UNEXPECTED_NULL.
    status_t readVectorCount(size_t* count) const;
    template <typename T, typename Element>
    status_t writeTypedVector(const std::vector<T>& val, status_t (Parcel::*write)(Element));
    template <typename T, typename Element>
    status_t writeNullableTypedVector(const std::unique_ptr<std::vector<T>>& val,
                                      status_t (Parcel::*write)(Element));
    template <typename T, typename Read>
    status_t readTypedVector(std::vector<T>* val, Read read) const;
    template <typename T, typename Read>
    status_t readNullableTypedVector(std::unique_ptr<std::vector<T>>* val, Read read) const;
    // `read` is called as read(this, element), so it may be a member reader.
    // readNullable reads a value whose leading int32 says when it is null;
    // `read` reads it from the start otherwise.
    enum class NullWhen { kNegative, kZero };
    template <typename T, typename Read>
    status_t readNullable(std::unique_ptr<T>* val, NullWhen nullWhen, Read read) const;

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

// ---- Templates of the forms that generated interface code uses ----------

template <typename T>
status_t Parcel::writeNullableParcelable(const std::unique_ptr<T>& parcelable) {
    return parcelable ? writeParcelable(*parcelable) : writeInt32(0);
}

template <typename T>
status_t Parcel::readParcelable(std::unique_ptr<T>* parcelable) const {
    return readNullable(parcelable, NullWhen::kZero,
                        [](const Parcel* parcel, T* value) { return parcel->readParcelable(static_cast<Parcelable*>(value)); });
}

template <typename T>
status_t Parcel::readStrongBinder(sp<T>* val) const {
    sp<IBinder> binder;
    const status_t status = readStrongBinder(&binder);
    if (status == OK && (*val = interface_cast<T>(binder)) == nullptr) {
        return UNKNOWN_ERROR;
    }
    return status;
}

template <typename T>
status_t Parcel::readNullableStrongBinder(sp<T>* val) const {
    sp<IBinder> binder;
    const status_t status = readNullableStrongBinder(&binder);
    if (status == OK && (*val = interface_cast<T>(binder)) == nullptr && binder != nullptr) {
        return UNKNOWN_ERROR;
    }
    return status;
}

template <typename T>
status_t Parcel::writeVectorSize(const std::vector<T>& val) {
    return writeVectorCount(val.size());
}

template <typename T>
status_t Parcel::writeVectorSize(const std::unique_ptr<std::vector<T>>& val) {
    return val ? writeVectorSize(*val) : writeInt32(-1);
}

template <typename T>
status_t Parcel::resizeOutVector(std::vector<T>* val) const {
    size_t count = 0;
    if (const status_t status = readVectorCount(&count); status != OK) {
        return status;
    }
    // No reply could carry more elements than a parcel has bytes.
    if (count > kMaxOutVectorCount) {
        return BAD_VALUE;
    }
    val->resize(count);
    return OK;
}

template <typename T>
status_t Parcel::resizeOutVector(std::unique_ptr<std::vector<T>>* val) const {
    return readNullable(val, NullWhen::kNegative,
                        [](const Parcel* parcel, std::vector<T>* vector) { return parcel->resizeOutVector(vector); });
}

template <typename T>
status_t Parcel::writeParcelableVector(const std::vector<T>& val) {
    return writeTypedVector(val, &Parcel::writeParcelable);
}

template <typename T>
status_t Parcel::writeParcelableVector(const std::unique_ptr<std::vector<std::unique_ptr<T>>>& val) {
    return writeNullableTypedVector(val, &Parcel::writeNullableParcelable<T>);
}

template <typename T>
status_t Parcel::writeParcelableVector(const std::shared_ptr<std::vector<std::unique_ptr<T>>>& val) {
    return val ? writeTypedVector(*val, &Parcel::writeNullableParcelable<T>) : writeInt32(-1);
}

template <typename T>
status_t Parcel::readParcelableVector(std::vector<T>* val) const {
    return readTypedVector(
        val, [](const Parcel* parcel, T* element) { return parcel->readParcelable(static_cast<Parcelable*>(element)); });
}

template <typename T>
status_t Parcel::readParcelableVector(std::unique_ptr<std::vector<std::unique_ptr<T>>>* val) const {
    return readNullableTypedVector(
        val, [](const Parcel* parcel, std::unique_ptr<T>* element) { return parcel->readParcelable(element); });
}

template <typename T, typename Element>
status_t Parcel::writeTypedVector(const std::vector<T>& val, status_t (Parcel::*write)(Element)) {
    status_t status = writeVectorCount(val.size());
    for (auto it = val.begin(); status == OK && it != val.end(); ++it) {
        status = (this->*write)(*it);
    }
    return status;
}

template <typename T, typename Element>
status_t Parcel::writeNullableTypedVector(const std::unique_ptr<std::vector<T>>& val,
                                          status_t (Parcel::*write)(Element)) {
    return val ? writeTypedVector(*val, write) : writeInt32(-1);
}

template <typename T, typename Read>
status_t Parcel::readTypedVector(std::vector<T>* val, Read read) const {
    size_t count = 0;
    status_t status = readVectorCount(&count);
    if (status != OK) {
        return status;
    }
    if (count > dataAvail()) {
        // Every element takes at least four bytes, so this count cannot be
        // met: read to the element that fails, as a sized vector would, but
        // without trusting the count with an allocation.
        T element{};
        while ((status = std::invoke(read, this, &element)) == OK) {
        }
        return status;
    }
    val->resize(count);
    for (size_t i = 0; status == OK && i < val->size(); ++i) {
        if constexpr (std::is_same_v<T, bool>) {
            bool element = false;  // std::vector<bool> has no element to point at
            status = std::invoke(read, this, &element);
            (*val)[i] = element;
        } else {
            status = std::invoke(read, this, &(*val)[i]);
        }
    }
    return status;
}

template <typename T, typename Read>
status_t Parcel::readNullableTypedVector(std::unique_ptr<std::vector<T>>* val, Read read) const {
    return readNullable(val, NullWhen::kNegative,
                        [read](const Parcel* parcel, std::vector<T>* vector) { return parcel->readTypedVector(vector, read); });
}

template <typename T, typename Read>
status_t Parcel::readNullable(std::unique_ptr<T>* val, NullWhen nullWhen, Read read) const {
    const size_t start = dataPosition();
    int32_t lead = 0;
    const status_t status = readInt32(&lead);
    val->reset();
    const bool isNull = nullWhen == NullWhen::kNegative ? lead < 0 : lead == 0;
    if (status != OK || isNull) {
        return status;
    }
    setDataPosition(start);
    auto value = std::make_unique<T>();
    const status_t result = std::invoke(read, this, value.get());
    if (result == OK) {
        *val = std::move(value);
    }
    return result;
}

}  // namespace android
