#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include <binder/Parcel.h>
#include <binder/ProcessState.h>

namespace android {

namespace hostbinder {
struct Frame;
}

// The calling thread's own connection to binderd: it sends this thread's
// transactions and, while it waits for a reply, serves the calls that come
// back to it (nested calls), as a pool thread does.
class IPCThreadState {
public:
    static IPCThreadState* self();

    sp<ProcessState> process();

    // The sender of the transaction being served on this thread; this
    // process's own identity outside any transaction.
    pid_t getCallingPid() const;
    uid_t getCallingUid() const;

    // Writes what this thread queued for binderd (finished one-way calls).
    void flushCommands();
    void joinThreadPool(bool isMain = true);

    status_t transact(int32_t handle, uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags);

    ~IPCThreadState();

private:
    IPCThreadState();

    // Opens (or reopens after binderd went away) this thread's connection.
    bool connect();
    void connectionLost();
    // Whether the connection numbered `serial` is still this thread's.
    bool stillConnected(uint64_t serial) const;
    // Takes the call's bytes from this thread's one-way credit when it covers
    // them (and binderd has not voided it since).
    bool paidFromCredit(int32_t handle, const Parcel& data);
    // Reads frames until the reply of the pending call arrives, serving any
    // two-way transaction delivered meanwhile; one-way calls sent ahead wait
    // their turn.
    status_t waitForResponse(Parcel* reply);
    void executeTransaction(const hostbinder::Frame& frame);
    void sendReply(const Parcel& reply, status_t status);

    struct OnewayCredit {
        int32_t handle = -1;
        size_t bytes = 0;
        uint64_t revocations = 0;
    };

    sp<ProcessState> mProcess;
    std::unique_ptr<hostbinder::Connection> mConnection;
    uint64_t mGeneration = 0;
    // Counts the connections this thread opened.
    uint64_t mConnectionSerial = 0;
    OnewayCredit mCredit;
    // Payloads of one-way calls that arrived while this thread waited.
    std::deque<std::vector<uint8_t>> mOnewayAhead;
    status_t mRefusedStatus = OK;
    pid_t mCallingPid;
    uid_t mCallingUid;
};

}  // namespace android
