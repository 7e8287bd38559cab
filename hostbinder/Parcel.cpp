#include <binder/Parcel.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include <binder/IBinder.h>
#include <binder/Parcelable.h>

#include "protocol/ParcelWire.h"

namespace android {

using hostbinder::kStrictModePenaltyGather;
using hostbinder::kSystemHeader;
using hostbinder::kUnsetWorkSourceUid;

namespace {

// A parcel never grows past what a signed 32-bit size can describe.
constexpr size_t kMaxDataSize = static_cast<size_t>(std::numeric_limits<int32_t>::max());

}  // namespace

Parcel::Parcel() = default;
Parcel::~Parcel() = default;

void Parcel::FreeDeleter::operator()(uint8_t* data) const { std::free(data); }

const uint8_t* Parcel::data() const { return mData.get(); }
size_t Parcel::dataSize() const { return mDataSize; }
size_t Parcel::dataAvail() const { return mDataPos < mDataSize ? mDataSize - mDataPos : 0; }
size_t Parcel::dataPosition() const { return mDataPos; }
size_t Parcel::dataCapacity() const { return mDataCapacity; }

bool Parcel::reserveData(size_t needed) {
    if (needed <= mDataCapacity) {
        return true;
    }
    // Grow by half again so that a run of small writes costs amortized O(1).
    const size_t grown = mDataCapacity + mDataCapacity / 2;
    const size_t capacity = std::min(kMaxDataSize, std::max({needed, grown, size_t{256}}));
    void* data = std::realloc(mData.get(), capacity);
    if (data == nullptr) {
        return false;
    }
    mData.release();
    mData.reset(static_cast<uint8_t*>(data));
    mDataCapacity = capacity;
    return true;
}

void Parcel::setDataPosition(size_t pos) const { mDataPos = pos; }

status_t Parcel::setData(const uint8_t* buffer, size_t len) {
    if (len > kMaxDataSize || (buffer == nullptr && len != 0)) {
        return BAD_VALUE;
    }
    mDataSize = 0;
    if (!reserveData(len)) {
        return NO_MEMORY;
    }
    if (len != 0) {
        std::memmove(mData.get(), buffer, len);  // the buffer may be our own data
    }
    mDataSize = len;
    mObjects.clear();
    // As on the platform, the parcel lets go of the binders it held.
    mHeldBinders.clear();
    mDataPos = 0;
    return OK;
}

void Parcel::freeData() {
    mData.reset();
    mDataSize = 0;
    mDataCapacity = 0;
    mObjects.clear();
    mHeldBinders.clear();
    mDataPos = 0;
}

size_t Parcel::padded(size_t len) {
    if (len > std::numeric_limits<size_t>::max() - 3) {
        return 0;
    }
    return (len + 3) & ~static_cast<size_t>(3);
}

uint8_t* Parcel::writeSlot(size_t len) {
    const size_t padLen = padded(len);
    if ((padLen == 0 && len != 0) || mDataPos > kMaxDataSize || padLen > kMaxDataSize - mDataPos) {
        return nullptr;
    }
    const size_t end = mDataPos + padLen;
    if (end > mDataSize) {
        if (!reserveData(end)) {
            return nullptr;
        }
        // A position set past the end leaves a gap that must read as zeros.
        if (mDataPos > mDataSize) {
            std::memset(mData.get() + mDataSize, 0, mDataPos - mDataSize);
        }
        mDataSize = end;
    }
    uint8_t* slot = mData.get() + mDataPos;
    if (padLen != len) {
        // Zero the last word whole: the caller's bytes then cover its start.
        const uint32_t zero = 0;
        std::memcpy(slot + padLen - sizeof(zero), &zero, sizeof(zero));
    }
    mDataPos = end;
    return slot;
}

void* Parcel::writeInplace(size_t len) { return writeSlot(len); }

status_t Parcel::checkRead(size_t len) const {
    const size_t padLen = padded(len);
    if ((padLen == 0 && len != 0) || mDataPos > mDataSize || padLen > mDataSize - mDataPos) {
        return NOT_ENOUGH_DATA;
    }
    // The first object that ends after the read starts is the only candidate
    // for an overlap, because the table is sorted and objects do not overlap.
    const auto it = std::upper_bound(mObjects.begin(), mObjects.end(), mDataPos,
                                     [](size_t pos, uint64_t offset) { return pos < offset + kObjectSize; });
    if (it != mObjects.end() && *it < mDataPos + padLen) {
        return PERMISSION_DENIED;
    }
    return OK;
}

status_t Parcel::write(const void* data, size_t len) {
    if (len == 0) {
        return OK;  // nothing to write and nothing to pad
    }
    if (data == nullptr) {
        return BAD_VALUE;
    }
    uint8_t* slot = writeSlot(len);
    if (slot == nullptr) {
        return BAD_VALUE;
    }
    std::memcpy(slot, data, len);
    return OK;
}

status_t Parcel::read(void* outData, size_t len) const {
    const status_t status = checkRead(len);
    if (status != OK) {
        return status;
    }
    if (len != 0) {
        std::memcpy(outData, mData.get() + mDataPos, len);
    }
    mDataPos += padded(len);
    return OK;
}

const void* Parcel::readInplace(size_t len) const {
    if (checkRead(len) != OK) {
        return nullptr;
    }
    const void* where = mData.get() + mDataPos;
    mDataPos += padded(len);
    return where;
}

// Values are whole words, so they need no padding.
template <typename T>
status_t Parcel::writeValue(T value) {
    static_assert(sizeof(T) % 4 == 0, "a value fills whole words");
    uint8_t* slot = writeSlot(sizeof(T));
    if (slot == nullptr) {
        return BAD_VALUE;
    }
    std::memcpy(slot, &value, sizeof(T));
    return OK;
}

template <typename T>
status_t Parcel::readValue(T* out) const {
    static_assert(sizeof(T) % 4 == 0, "a value fills whole words");
    const status_t status = checkRead(sizeof(T));
    if (status != OK) {
        return status;
    }
    std::memcpy(out, mData.get() + mDataPos, sizeof(T));
    mDataPos += sizeof(T);
    return OK;
}

template <typename T>
T Parcel::readValueOrZero() const {
    T value{};
    return readValue(&value) == OK ? value : T{};
}

status_t Parcel::writeInt32(int32_t val) { return writeValue(val); }
status_t Parcel::writeUint32(uint32_t val) { return writeValue(val); }
status_t Parcel::writeInt64(int64_t val) { return writeValue(val); }
status_t Parcel::writeUint64(uint64_t val) { return writeValue(val); }
status_t Parcel::writeBool(bool val) { return writeInt32(val ? 1 : 0); }
status_t Parcel::writeFloat(float val) { return writeValue(val); }
status_t Parcel::writeDouble(double val) { return writeValue(val); }
status_t Parcel::writeChar(char16_t val) { return writeInt32(val); }
status_t Parcel::writeByte(int8_t val) { return writeInt32(val); }

status_t Parcel::readInt32(int32_t* pArg) const { return readValue(pArg); }
status_t Parcel::readUint32(uint32_t* pArg) const { return readValue(pArg); }
status_t Parcel::readInt64(int64_t* pArg) const { return readValue(pArg); }
status_t Parcel::readUint64(uint64_t* pArg) const { return readValue(pArg); }
int32_t Parcel::readInt32() const { return readValueOrZero<int32_t>(); }
uint32_t Parcel::readUint32() const { return readValueOrZero<uint32_t>(); }
int64_t Parcel::readInt64() const { return readValueOrZero<int64_t>(); }
uint64_t Parcel::readUint64() const { return readValueOrZero<uint64_t>(); }
status_t Parcel::readFloat(float* pArg) const { return readValue(pArg); }
status_t Parcel::readDouble(double* pArg) const { return readValue(pArg); }
float Parcel::readFloat() const { return readValueOrZero<float>(); }
double Parcel::readDouble() const { return readValueOrZero<double>(); }

status_t Parcel::readChar(char16_t* pArg) const {
    int32_t value = 0;
    const status_t status = readInt32(&value);
    if (status == OK) {
        *pArg = static_cast<char16_t>(value);
    }
    return status;
}

status_t Parcel::readByte(int8_t* pArg) const {
    int32_t value = 0;
    const status_t status = readInt32(&value);
    if (status == OK) {
        *pArg = static_cast<int8_t>(value);
    }
    return status;
}

char16_t Parcel::readChar() const { return static_cast<char16_t>(readInt32()); }
int8_t Parcel::readByte() const { return static_cast<int8_t>(readInt32()); }

status_t Parcel::readBool(bool* pArg) const {
    int32_t value = 0;
    const status_t status = readInt32(&value);
    if (status == OK) {
        *pArg = value != 0;
    }
    return status;
}

bool Parcel::readBool() const { return readInt32() != 0; }

status_t Parcel::writeString16(const String16& str) { return writeString16(str.string(), str.size()); }

status_t Parcel::writeString16(const std::unique_ptr<String16>& str) {
    if (!str) {
        return writeInt32(-1);
    }
    return writeString16(*str);
}

status_t Parcel::writeString16(const char16_t* str, size_t len) {
    if (str == nullptr) {
        return writeInt32(-1);
    }
    if (len > static_cast<size_t>(std::numeric_limits<int32_t>::max()) / sizeof(char16_t) - 1) {
        return BAD_VALUE;
    }
    // One slot for length, units and terminator: a single bounds check and growth.
    const int32_t length = static_cast<int32_t>(len);
    const size_t bytes = len * sizeof(char16_t);
    uint8_t* slot = writeSlot(sizeof(length) + bytes + sizeof(char16_t));
    if (slot == nullptr) {
        return BAD_VALUE;
    }
    std::memcpy(slot, &length, sizeof(length));
    std::memcpy(slot + sizeof(length), str, bytes);
    std::memset(slot + sizeof(length) + bytes, 0, sizeof(char16_t));
    return OK;
}

const char16_t* Parcel::readString16Inplace(size_t* outLen) const {
    *outLen = 0;
    const int32_t len = readInt32();
    if (len < 0 || static_cast<size_t>(len) >= kMaxDataSize / sizeof(char16_t)) {
        return nullptr;
    }
    const auto* units = static_cast<const uint8_t*>(readInplace((static_cast<size_t>(len) + 1) * sizeof(char16_t)));
    if (units == nullptr) {
        return nullptr;
    }
    // Copy the terminator out rather than dereferencing: the data is only
    // guaranteed byte-aligned when it came from setData.
    char16_t terminator = 0;
    std::memcpy(&terminator, units + static_cast<size_t>(len) * sizeof(char16_t), sizeof(terminator));
    if (terminator != 0) {
        return nullptr;
    }
    *outLen = static_cast<size_t>(len);
    return reinterpret_cast<const char16_t*>(units);
}

status_t Parcel::readString16(String16* pArg) const {
    size_t len = 0;
    const char16_t* units = readString16Inplace(&len);
    if (units == nullptr) {
        *pArg = String16();
        return UNEXPECTED_NULL;
    }
    if (reinterpret_cast<uintptr_t>(units) % alignof(char16_t) == 0) {
        *pArg = String16(units, len);
        return OK;
    }
    // Misaligned after an odd setDataPosition: hand String16 an aligned copy.
    std::u16string aligned(len, u'\0');
    std::memcpy(&aligned[0], units, len * sizeof(char16_t));
    *pArg = String16(aligned.data(), len);
    return OK;
}

String16 Parcel::readString16() const {
    String16 value;
    readString16(&value);
    return value;
}

status_t Parcel::writeInterfaceToken(const String16& interface) {
    status_t status = writeInt32(kStrictModePenaltyGather);
    if (status == OK) status = writeInt32(kUnsetWorkSourceUid);
    if (status == OK) status = writeInt32(kSystemHeader);
    if (status == OK) status = writeString16(interface);
    return status;
}

bool Parcel::enforceInterface(const String16& interface, IPCThreadState* /*threadState*/) const {
    readInt32();  // strict-mode policy: hostbinder has no strict mode
    readInt32();  // work-source uid: not propagated
    if (readInt32() != kSystemHeader) {
        return false;
    }
    String16 descriptor;
    if (readString16(&descriptor) != OK) {
        return false;
    }
    return descriptor.size() == interface.size() &&
           std::memcmp(descriptor.string(), interface.string(), interface.size() * sizeof(char16_t)) == 0;
}

bool Parcel::checkInterface(IBinder* binder) const {
    return binder != nullptr && enforceInterface(binder->getInterfaceDescriptor());
}

status_t Parcel::writeParcelable(const Parcelable& parcelable) {
    const status_t status = writeInt32(1);
    if (status != OK) {
        return status;
    }
    return parcelable.writeToParcel(this);
}

status_t Parcel::readParcelable(Parcelable* parcelable) const {
    int32_t present = 0;
    const status_t status = readInt32(&present);
    if (status != OK) {
        return status;
    }
    if (present == 0) {
        return UNEXPECTED_NULL;
    }
    return parcelable->readFromParcel(this);
}

size_t Parcel::objectsCount() const { return mObjects.size(); }
const uint64_t* Parcel::objects() const { return mObjects.data(); }

status_t Parcel::appendObject(uint64_t offset) {
    if (offset % 4 != 0 || offset > mDataSize || mDataSize - offset < kObjectSize) {
        return BAD_VALUE;
    }
    if (!mObjects.empty() && offset < mObjects.back() + kObjectSize) {
        return BAD_VALUE;
    }
    mObjects.push_back(offset);
    return OK;
}

status_t Parcel::setObjects(const uint64_t* offsets, size_t count) {
    mObjects.clear();
    for (size_t i = 0; i < count; ++i) {
        const status_t status = appendObject(offsets[i]);
        if (status != OK) {
            mObjects.clear();
            return status;
        }
    }
    return OK;
}

}  // namespace android
