#pragma once

// The log of a recording stub read from another process: the stub's process
// serves a CallLogControl next to the stub, and a RemoteCallLog in the test
// process talks to it with the same operations that CallLog offers locally.

#include <binder/Binder.h>
#include <binder/Parcel.h>

#include <chrono>

#include "service_test_doubles.h"

namespace tivra_service_test {

class CallLogControl : public android::BBinder {
public:
    enum Code : uint32_t {
        kTake = android::IBinder::FIRST_CALL_TRANSACTION,  // int32 calls -> the CallRecord
        kAnswer,                                            // Status -> nothing
    };

    // Keeps the stub alive while its log is served.
    template <typename Stub>
    explicit CallLogControl(const android::sp<Stub>& stub) : stub_(stub), log_(*stub) {}

protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;

private:
    const android::sp<android::IBinder> stub_;
    CallLog& log_;
};

class RemoteCallLog {
public:
    explicit RemoteCallLog(android::sp<android::IBinder> control) : control_(std::move(control)) {}

    // As CallLog::Take; the wait happens in the stub's process. A failed
    // transaction is reported as a test failure and gives an empty record.
    CallRecord Take(size_t calls = 0);
    void Answer(const Status& answer);

private:
    android::sp<android::IBinder> control_;
};

}  // namespace tivra_service_test
