#include "protocol/ParcelWire.h"

#include <linux/android/binder.h>

#include <algorithm>
#include <cstring>

#include "protocol/BinderObject.h"

namespace android::hostbinder {

namespace {

size_t padded(size_t bytes) { return (bytes + 3) & ~size_t{3}; }

}  // namespace

uint8_t* ParcelWriter::grow(size_t bytes) {
    const size_t at = mData.size();
    mData.resize(at + padded(bytes), 0);
    return mData.data() + at;
}

void ParcelWriter::writeInt32(int32_t value) { std::memcpy(grow(sizeof(value)), &value, sizeof(value)); }

void ParcelWriter::writeString16(const std::u16string& text) {
    const int32_t length = static_cast<int32_t>(text.size());
    const size_t bytes = text.size() * sizeof(char16_t);
    uint8_t* slot = grow(sizeof(length) + bytes + sizeof(char16_t));
    std::memcpy(slot, &length, sizeof(length));
    std::memcpy(slot + sizeof(length), text.data(), bytes);
}

void ParcelWriter::writeInterfaceToken(const std::u16string& descriptor) {
    writeInt32(kStrictModePenaltyGather);
    writeInt32(kUnsetWorkSourceUid);
    writeInt32(kSystemHeader);
    writeString16(descriptor);
}

void ParcelWriter::writeHandle(uint32_t handle, int32_t stability) {
    flat_binder_object object{};
    object.hdr.type = handle == 0 ? BINDER_TYPE_BINDER : BINDER_TYPE_HANDLE;
    object.flags = kObjectFlags;
    object.handle = handle;
    const size_t offset = mData.size();
    std::memcpy(grow(sizeof(object)), &object, sizeof(object));
    if (handle != 0) {
        mObjects.push_back(offset);
    }
    writeInt32(handle == 0 ? kStabilityUndeclared : stability);
}

void ParcelWriter::writeStatus(int32_t exception, const std::string& message) {
    writeInt32(exception);
    if (exception != kExNone) {
        writeString16(std::u16string(message.begin(), message.end()));
        writeInt32(0);
    }
}

ParcelReader::ParcelReader(const uint8_t* data, size_t size, const uint64_t* objects, size_t objectCount)
    : mData(data), mSize(size), mObjects(objects), mObjectCount(objectCount) {}

bool ParcelReader::readInt32(int32_t* value) {
    if (mSize - mPosition < sizeof(*value)) {
        return false;
    }
    std::memcpy(value, mData + mPosition, sizeof(*value));
    mPosition += sizeof(*value);
    return true;
}

bool ParcelReader::readString16(std::u16string* text) {
    const size_t start = mPosition;
    int32_t length = 0;
    if (!readInt32(&length) || length < 0 ||
        (mSize - mPosition) / sizeof(char16_t) < static_cast<size_t>(length) + 1) {
        mPosition = start;
        return false;
    }
    const size_t bytes = static_cast<size_t>(length) * sizeof(char16_t);
    char16_t terminator = 0;
    std::memcpy(&terminator, mData + mPosition + bytes, sizeof(terminator));
    if (terminator != 0 || padded(bytes + sizeof(char16_t)) > mSize - mPosition) {
        mPosition = start;
        return false;
    }
    text->resize(static_cast<size_t>(length));
    std::memcpy(&(*text)[0], mData + mPosition, bytes);
    mPosition += padded(bytes + sizeof(char16_t));
    return true;
}

bool ParcelReader::enforceInterface(const std::u16string& descriptor) {
    int32_t ignored = 0;
    int32_t header = 0;
    std::u16string found;
    return readInt32(&ignored) && readInt32(&ignored) && readInt32(&header) && header == kSystemHeader &&
           readString16(&found) && found == descriptor;
}

bool ParcelReader::readHandle(uint32_t* handle, int32_t* stability) {
    *handle = 0;
    *stability = kStabilityUndeclared;
    const size_t offset = mPosition;
    flat_binder_object object;
    if (mSize - offset < sizeof(object)) {
        return true;
    }
    std::memcpy(&object, mData + offset, sizeof(object));
    mPosition += sizeof(object);
    int32_t level = kStabilityUndeclared;
    readInt32(&level);
    const bool listed = std::binary_search(mObjects, mObjects + mObjectCount, uint64_t{offset});
    if (!listed || object.hdr.type != BINDER_TYPE_HANDLE) {
        return true;
    }
    *handle = object.handle;
    *stability = level;
    return isKnownStability(level);
}

}  // namespace android::hostbinder
