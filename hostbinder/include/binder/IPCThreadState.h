#pragma once

#include <sys/types.h>

#include <cstdint>
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

    // Every command is written at once here, so there is nothing to flush.
    void flushCommands();
    void joinThreadPool(bool isMain = true);

    status_t transact(int32_t handle, uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags);

    ~IPCThreadState();

private:
    IPCThreadState();

    // Opens (or reopens after binderd went away) this thread's connection.
    bool connect();
    void connectionLost();
    // Reads frames until the reply of the pending call arrives, serving any
    // transaction delivered meanwhile.
    status_t waitForResponse(Parcel* reply);
    void executeTransaction(const hostbinder::Frame& frame);
    void sendReply(const Parcel& reply, status_t status);

    sp<ProcessState> mProcess;
    std::unique_ptr<hostbinder::Connection> mConnection;
    uint64_t mGeneration = 0;
    status_t mRefusedStatus = OK;
    pid_t mCallingPid;
    uid_t mCallingUid;
};

}  // namespace android
