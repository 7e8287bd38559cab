#pragma once

// The parcel layouts that binderd's service manager writes and reads, the
// same that the client's Parcel uses: 4-byte little-endian slots, UTF-16
// strings (length in units, the units, a terminating zero, padded to 4),
// interface tokens, binder objects with their stability level, and the
// status a reply starts with.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace android::hostbinder {

// An interface token: strict-mode policy, work source, partition header,
// then the descriptor.
constexpr int32_t kStrictModePenaltyGather = static_cast<int32_t>(0x80000000u);
constexpr int32_t kUnsetWorkSourceUid = -1;
constexpr int32_t kSystemHeader = 0x53595354;  // 'SYST'

// The exception codes a reply's status carries.
constexpr int32_t kExNone = 0;
constexpr int32_t kExSecurity = -1;
constexpr int32_t kExIllegalArgument = -3;
constexpr int32_t kExNullPointer = -4;
constexpr int32_t kExIllegalState = -5;

class ParcelWriter {
public:
    void writeInt32(int32_t value);
    void writeString16(const std::u16string& text);
    void writeInterfaceToken(const std::u16string& descriptor);
    // A handle of the writer's table with its stability level, or a null
    // binder for handle 0.
    void writeHandle(uint32_t handle, int32_t stability);
    // A reply's status: the exception code and, unless kExNone, its message
    // (ASCII) and an empty remote stack trace.
    void writeStatus(int32_t exception, const std::string& message = "");

    const std::vector<uint8_t>& data() const { return mData; }
    const std::vector<uint64_t>& objects() const { return mObjects; }

private:
    uint8_t* grow(size_t bytes);

    std::vector<uint8_t> mData;
    std::vector<uint64_t> mObjects;
};

class ParcelReader {
public:
    ParcelReader(const uint8_t* data, size_t size, const uint64_t* objects, size_t objectCount);

    // False, and nothing consumed, when the parcel ends first.
    bool readInt32(int32_t* value);
    // False for a null or malformed string.
    bool readString16(std::u16string* text);
    // Whether an interface token for `descriptor` comes next.
    bool enforceInterface(const std::u16string& descriptor);
    // The binder object and level at the position. `handle` is 0 for a null
    // binder, or for one that is missing, not listed in the object table or
    // not a handle; false when a handle comes with a level no binder has.
    bool readHandle(uint32_t* handle, int32_t* stability);

private:
    const uint8_t* mData;
    size_t mSize;
    const uint64_t* mObjects;
    size_t mObjectCount;
    size_t mPosition = 0;
};

}  // namespace android::hostbinder
