// The forms of Parcel that generated interface code uses beyond the basic
// ones: UTF-8 strings, nullable strings and vectors of every element type.
#include <binder/Parcel.h>

#include <utils/Unicode.h>

#include <limits>

namespace android {

namespace {

// A member reader or writer of one element, picked out of its overloads.
template <typename T>
using Reader = status_t (Parcel::*)(T*) const;
template <typename Arg>
using Writer = status_t (Parcel::*)(Arg);

}  // namespace

status_t Parcel::writeUtf8AsUtf16(const std::string& str) {
    // libutils measures an empty text as invalid (-1).
    if (str.empty()) {
        return writeString16(u"", 0);
    }
    const auto* utf8 = reinterpret_cast<const uint8_t*>(str.data());
    const ssize_t units = utf8_to_utf16_length(utf8, str.size());
    if (units < 0 || static_cast<size_t>(units) > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
        return BAD_VALUE;
    }
    std::u16string utf16(static_cast<size_t>(units), u'\0');
    utf8_to_utf16(utf8, str.size(), &utf16[0], utf16.size() + 1);
    return writeString16(utf16.data(), utf16.size());
}

status_t Parcel::writeUtf8AsUtf16(const std::unique_ptr<std::string>& str) {
    return str ? writeUtf8AsUtf16(*str) : writeInt32(-1);
}

status_t Parcel::readUtf8FromUtf16(std::string* str) const {
    String16 utf16;
    if (const status_t status = readString16(&utf16); status != OK) {
        return status;
    }
    if (utf16.size() == 0) {
        str->clear();
        return OK;
    }
    const ssize_t bytes = utf16_to_utf8_length(utf16.string(), utf16.size());
    if (bytes < 0) {
        return BAD_VALUE;
    }
    str->resize(static_cast<size_t>(bytes));
    if (bytes > 0) {
        utf16_to_utf8(utf16.string(), utf16.size(), &(*str)[0], str->size() + 1);
    }
    return OK;
}

status_t Parcel::readUtf8FromUtf16(std::unique_ptr<std::string>* str) const {
    return readNullable(str, NullWhen::kNegative, Reader<std::string>(&Parcel::readUtf8FromUtf16));
}

status_t Parcel::readString16(std::unique_ptr<String16>* pArg) const {
    return readNullable(pArg, NullWhen::kNegative, Reader<String16>(&Parcel::readString16));
}

status_t Parcel::writeVectorCount(size_t count) {
    if (count > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
        return BAD_VALUE;
    }
    return writeInt32(static_cast<int32_t>(count));
}

status_t Parcel::readVectorCount(size_t* count) const {
    int32_t value = 0;
    if (const status_t status = readInt32(&value); status != OK) {
        return status;
    }
    if (value < 0) {
        return UNEXPECTED_NULL;
    }
    *count = static_cast<size_t>(value);
    return OK;
}

// ---- Bytes: one count, then the bytes packed and padded once ---------------

status_t Parcel::writeBytes(const void* bytes, size_t count) {
    const status_t status = writeVectorCount(count);
    return status == OK ? write(bytes, count) : status;
}

template <typename T>
status_t Parcel::readBytes(std::vector<T>* val) const {
    size_t count = 0;
    if (const status_t status = readVectorCount(&count); status != OK) {
        return status;
    }
    const auto* bytes = static_cast<const T*>(readInplace(count));
    if (bytes == nullptr) {
        return BAD_VALUE;
    }
    val->assign(bytes, bytes + count);
    return OK;
}

template <typename T>
status_t Parcel::readNullableBytes(std::unique_ptr<std::vector<T>>* val) const {
    return readNullable(val, NullWhen::kNegative, Reader<std::vector<T>>(&Parcel::readByteVector));
}

status_t Parcel::writeByteVector(const std::vector<int8_t>& val) { return writeBytes(val.data(), val.size()); }
status_t Parcel::writeByteVector(const std::vector<uint8_t>& val) { return writeBytes(val.data(), val.size()); }
status_t Parcel::writeByteVector(const std::unique_ptr<std::vector<int8_t>>& val) {
    return val ? writeByteVector(*val) : writeInt32(-1);
}
status_t Parcel::writeByteVector(const std::unique_ptr<std::vector<uint8_t>>& val) {
    return val ? writeByteVector(*val) : writeInt32(-1);
}
status_t Parcel::readByteVector(std::vector<int8_t>* val) const { return readBytes(val); }
status_t Parcel::readByteVector(std::vector<uint8_t>* val) const { return readBytes(val); }
status_t Parcel::readByteVector(std::unique_ptr<std::vector<int8_t>>* val) const { return readNullableBytes(val); }
status_t Parcel::readByteVector(std::unique_ptr<std::vector<uint8_t>>* val) const { return readNullableBytes(val); }

// ---- Vectors of framed elements ----------------------------------------------

status_t Parcel::writeInt32Vector(const std::vector<int32_t>& val) { return writeTypedVector(val, &Parcel::writeInt32); }
status_t Parcel::writeInt64Vector(const std::vector<int64_t>& val) { return writeTypedVector(val, &Parcel::writeInt64); }
status_t Parcel::writeUint64Vector(const std::vector<uint64_t>& val) {
    return writeTypedVector(val, &Parcel::writeUint64);
}
status_t Parcel::writeFloatVector(const std::vector<float>& val) { return writeTypedVector(val, &Parcel::writeFloat); }
status_t Parcel::writeDoubleVector(const std::vector<double>& val) { return writeTypedVector(val, &Parcel::writeDouble); }
status_t Parcel::writeBoolVector(const std::vector<bool>& val) { return writeTypedVector(val, &Parcel::writeBool); }
status_t Parcel::writeCharVector(const std::vector<char16_t>& val) { return writeTypedVector(val, &Parcel::writeChar); }
status_t Parcel::writeString16Vector(const std::vector<String16>& val) {
    return writeTypedVector(val, Writer<const String16&>(&Parcel::writeString16));
}
status_t Parcel::writeUtf8VectorAsUtf16Vector(const std::vector<std::string>& val) {
    return writeTypedVector(val, Writer<const std::string&>(&Parcel::writeUtf8AsUtf16));
}
status_t Parcel::writeStrongBinderVector(const std::vector<sp<IBinder>>& val) {
    return writeTypedVector(val, &Parcel::writeStrongBinder);
}

status_t Parcel::writeInt32Vector(const std::unique_ptr<std::vector<int32_t>>& val) {
    return writeNullableTypedVector(val, &Parcel::writeInt32);
}
status_t Parcel::writeInt64Vector(const std::unique_ptr<std::vector<int64_t>>& val) {
    return writeNullableTypedVector(val, &Parcel::writeInt64);
}
status_t Parcel::writeUint64Vector(const std::unique_ptr<std::vector<uint64_t>>& val) {
    return writeNullableTypedVector(val, &Parcel::writeUint64);
}
status_t Parcel::writeFloatVector(const std::unique_ptr<std::vector<float>>& val) {
    return writeNullableTypedVector(val, &Parcel::writeFloat);
}
status_t Parcel::writeDoubleVector(const std::unique_ptr<std::vector<double>>& val) {
    return writeNullableTypedVector(val, &Parcel::writeDouble);
}
status_t Parcel::writeBoolVector(const std::unique_ptr<std::vector<bool>>& val) {
    return writeNullableTypedVector(val, &Parcel::writeBool);
}
status_t Parcel::writeCharVector(const std::unique_ptr<std::vector<char16_t>>& val) {
    return writeNullableTypedVector(val, &Parcel::writeChar);
}
status_t Parcel::writeString16Vector(const std::unique_ptr<std::vector<std::unique_ptr<String16>>>& val) {
    return writeNullableTypedVector(val, Writer<const std::unique_ptr<String16>&>(&Parcel::writeString16));
}
status_t Parcel::writeUtf8VectorAsUtf16Vector(const std::unique_ptr<std::vector<std::unique_ptr<std::string>>>& val) {
    return writeNullableTypedVector(val, Writer<const std::unique_ptr<std::string>&>(&Parcel::writeUtf8AsUtf16));
}
status_t Parcel::writeStrongBinderVector(const std::unique_ptr<std::vector<sp<IBinder>>>& val) {
    return writeNullableTypedVector(val, &Parcel::writeStrongBinder);
}

status_t Parcel::readInt32Vector(std::vector<int32_t>* val) const {
    return readTypedVector(val, Reader<int32_t>(&Parcel::readInt32));
}
status_t Parcel::readInt64Vector(std::vector<int64_t>* val) const {
    return readTypedVector(val, Reader<int64_t>(&Parcel::readInt64));
}
status_t Parcel::readUint64Vector(std::vector<uint64_t>* val) const {
    return readTypedVector(val, Reader<uint64_t>(&Parcel::readUint64));
}
status_t Parcel::readFloatVector(std::vector<float>* val) const {
    return readTypedVector(val, Reader<float>(&Parcel::readFloat));
}
status_t Parcel::readDoubleVector(std::vector<double>* val) const {
    return readTypedVector(val, Reader<double>(&Parcel::readDouble));
}
status_t Parcel::readBoolVector(std::vector<bool>* val) const {
    return readTypedVector(val, Reader<bool>(&Parcel::readBool));
}
status_t Parcel::readCharVector(std::vector<char16_t>* val) const {
    return readTypedVector(val, Reader<char16_t>(&Parcel::readChar));
}
status_t Parcel::readString16Vector(std::vector<String16>* val) const {
    return readTypedVector(val, Reader<String16>(&Parcel::readString16));
}
status_t Parcel::readUtf8VectorFromUtf16Vector(std::vector<std::string>* val) const {
    return readTypedVector(val, Reader<std::string>(&Parcel::readUtf8FromUtf16));
}
status_t Parcel::readStrongBinderVector(std::vector<sp<IBinder>>* val) const {
    return readTypedVector(val, Reader<sp<IBinder>>(&Parcel::readStrongBinder));
}

status_t Parcel::readInt32Vector(std::unique_ptr<std::vector<int32_t>>* val) const {
    return readNullableTypedVector(val, Reader<int32_t>(&Parcel::readInt32));
}
status_t Parcel::readInt64Vector(std::unique_ptr<std::vector<int64_t>>* val) const {
    return readNullableTypedVector(val, Reader<int64_t>(&Parcel::readInt64));
}
status_t Parcel::readUint64Vector(std::unique_ptr<std::vector<uint64_t>>* val) const {
    return readNullableTypedVector(val, Reader<uint64_t>(&Parcel::readUint64));
}
status_t Parcel::readFloatVector(std::unique_ptr<std::vector<float>>* val) const {
    return readNullableTypedVector(val, Reader<float>(&Parcel::readFloat));
}
status_t Parcel::readDoubleVector(std::unique_ptr<std::vector<double>>* val) const {
    return readNullableTypedVector(val, Reader<double>(&Parcel::readDouble));
}
status_t Parcel::readBoolVector(std::unique_ptr<std::vector<bool>>* val) const {
    return readNullableTypedVector(val, Reader<bool>(&Parcel::readBool));
}
status_t Parcel::readCharVector(std::unique_ptr<std::vector<char16_t>>* val) const {
    return readNullableTypedVector(val, Reader<char16_t>(&Parcel::readChar));
}
status_t Parcel::readString16Vector(std::unique_ptr<std::vector<std::unique_ptr<String16>>>* val) const {
    return readNullableTypedVector(val, Reader<std::unique_ptr<String16>>(&Parcel::readString16));
}
status_t Parcel::readUtf8VectorFromUtf16Vector(std::unique_ptr<std::vector<std::unique_ptr<std::string>>>* val) const {
    return readNullableTypedVector(val, Reader<std::unique_ptr<std::string>>(&Parcel::readUtf8FromUtf16));
}
status_t Parcel::readStrongBinderVector(std::unique_ptr<std::vector<sp<IBinder>>>* val) const {
    return readNullableTypedVector(val, Reader<sp<IBinder>>(&Parcel::readNullableStrongBinder));
}

}  // namespace android
