#pragma once

// Calls whose data parcels are checked byte for byte: each parcel must equal
// one built by hand with the platform primitives in the published order,
// after the interface token.

#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <utils/String16.h>

#include <functional>
#include <string>
#include <vector>

namespace tivra_service_test {

struct ByteCase {
    std::string call;
    android::String16 descriptor;
    uint32_t code;
    uint32_t flags;
    std::function<android::binder::Status(const android::sp<android::IBinder>& remote)> send;
    std::function<void(android::Parcel& expected)> layout;
    // Whether a reply of an OK status alone completes the call.
    bool completeWithStatusAlone;
};

std::vector<ByteCase> ByteCases();

// The interface token of the case and then its layout.
std::vector<uint8_t> ExpectedBytes(const ByteCase& byteCase);

}  // namespace tivra_service_test
