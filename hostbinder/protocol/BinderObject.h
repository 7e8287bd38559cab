#pragma once

// What a parcel writes around every binder object, as the platform writes it:
// the object's flags and the stability level that follows it. Clients and
// binderd's service manager write and check objects by these alone.
#include <linux/android/binder.h>

#include <cstdint>

namespace android::hostbinder {

// The lowest scheduling priority (19), descriptors accepted.
constexpr uint32_t kObjectFlags = 0x13 | FLAT_BINDER_FLAG_ACCEPTS_FDS;

constexpr int32_t kStabilityUndeclared = 0;
constexpr int32_t kStabilityVendor = 3;
constexpr int32_t kStabilitySystem = 12;
constexpr int32_t kStabilityVintf = 63;

// Whether a binder may travel with `level`: only the levels a binder can have.
constexpr bool isKnownStability(int32_t level) {
    return level == kStabilityVendor || level == kStabilitySystem || level == kStabilityVintf;
}

}  // namespace android::hostbinder
