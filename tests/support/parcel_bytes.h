#pragma once

// Bytes of parcels, as tests write and compare them.
#include <cstdint>
#include <initializer_list>
#include <vector>

#include <binder/Parcel.h>

namespace tivra_test {

using Bytes = std::vector<uint8_t>;

// What the parcel holds, start to end.
inline Bytes Contents(const android::Parcel& parcel) { return Bytes(parcel.data(), parcel.data() + parcel.dataSize()); }

// Replaces what the parcel holds with `bytes`, positioned at the start.
inline android::status_t Load(android::Parcel* parcel, const Bytes& bytes) {
    return parcel->setData(bytes.data(), bytes.size());
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

}  // namespace tivra_test
