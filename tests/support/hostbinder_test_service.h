#pragma once

#include <chrono>
#include <map>

#include <binder/IBinder.h>

#include "binderd_fixture.h"

namespace tivra_test {

// Calls of numbered streams: how many came, per stream and in all, and how
// many did not follow the one before on their stream by one.
struct StreamOrder {
    void note(int32_t stream, int32_t sequence, bool wrong = false);
    int countOf(int32_t stream) const;

    std::map<int32_t, std::pair<int32_t, int>> streams;  // the last sequence and the count
    int total = 0;
    int violations = 0;
};

// The codes of the service that hostbinder's tests run in a child process
// (spawnTestService). Each exercises one behaviour of the runtime from the
// service's side.
struct TestService {
    // The code a listener's events come with.
    static constexpr uint32_t kListenerEvent = android::IBinder::FIRST_CALL_TRANSACTION;
    enum Code : uint32_t {
        kEcho = android::IBinder::FIRST_CALL_TRANSACTION,  // returns the request's bytes
        kWhoCalls,       // -> int32 pid, int32 uid of the caller
        kRecord,         // one-way: int32 stream, int32 sequence (must grow by one per stream; a reply parcel given)
        kStats,          // -> int32 records, int32 order violations
        kAddListener,    // binder: keeps it
        kRemoveListener, // binder -> bool whether it was kept (same proxy)
        kNotify,         // int32 value: one-way kListenerEvent, with that value, to every listener
        kGiveListener,   // -> the newest listener
        kBlockOneway,    // one-way or two-way: blocks this node until released (see spawnTestService)
        kLookUpAndRecord, // one-way: a two-way service lookup first, then as kRecord
        kAnswerWith,     // int32 status -> that int32, and onTransact returns the status
    };
};

// The name the tests register TestService under.
extern const android::String16 kTestServiceName;

// Forks a child of `session` that serves a TestService under `name` and posts
// "ready" on `ready` once registered. Its kBlockOneway calls (one-way or
// two-way) post "blocked" on `ready` and wait for a line on `release` when
// one is given.
pid_t spawnTestService(BinderdSession& session, Channel& ready, const android::String16& name = kTestServiceName,
                       Channel* release = nullptr);

android::sp<android::IBinder> lookUpTestService(const android::String16& name = kTestServiceName);

// Whether the service has counted `records` kRecord calls within `timeout`, all in order.
bool recordsArrive(const android::sp<android::IBinder>& service, int32_t records,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace tivra_test
