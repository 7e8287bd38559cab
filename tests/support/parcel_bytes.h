#pragma once

// Bytes of parcels, as tests write and compare them.
#include <cstdint>
#include <initializer_list>
#include <vector>

#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <utils/String16.h>

namespace tivra_test {

using Bytes = std::vector<uint8_t>;

// What the parcel holds, start to end.
inline Bytes Contents(const android::Parcel& parcel) { return Bytes(parcel.data(), parcel.data() + parcel.dataSize()); }

// Replaces what the parcel holds with `bytes`, positioned at the start.
inline void Load(android::Parcel* parcel, const Bytes& bytes) {
    ASSERT_EQ(parcel->setData(bytes.data(), bytes.size()), android::OK);
}

// 32-bit words, little-endian, as a parcel lays them out.
inline Bytes Le(std::initializer_list<int32_t> words) {
    Bytes bytes;
    for (int32_t word : words) {
        for (int shift = 0; shift < 32; shift += 8) bytes.push_back(static_cast<uint8_t>(word >> shift));
    }
    return bytes;
}

inline Bytes Cat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Values laid out by the platform's own parcel operations, one after another:
// text as a String16, int as an int32, bool or a binder.
inline void Put(android::Parcel& parcel, const char* text) { parcel.writeString16(android::String16(text)); }
inline void Put(android::Parcel& parcel, int32_t value) { parcel.writeInt32(value); }
inline void Put(android::Parcel& parcel, bool value) { parcel.writeBool(value); }
inline void Put(android::Parcel& parcel, const android::sp<android::IBinder>& binder) { parcel.writeStrongBinder(binder); }

template <typename... V>
Bytes Wire(const V&... values) {
    android::Parcel parcel;
    (Put(parcel, values), ...);
    return Contents(parcel);
}

// What a record's or a status's writeToParcel puts down.
template <typename T>
Bytes Written(const T& value) {
    android::Parcel parcel;
    value.writeToParcel(&parcel);
    return Contents(parcel);
}

}  // namespace tivra_test
