// Every transaction of the three interfaces between real processes: the
// recording stubs live in a child registered with a private binderd, the
// proxies in this process.

#include <gtest/gtest.h>

#include <vector>

#include "service_byte_layouts.h"
#include "service_ipc_host.h"
#include "service_remote_call_log.h"
#include "service_test_doubles.h"
#include "service_transaction_table.h"

namespace tivra_service_test {
namespace {

ServiceHost& ReachableHost() {
    ServiceHost& host = ServiceHost::Shared();
    EXPECT_EQ(host.error(), "");
    return host;
}

// The proxy's remote is the host's recording stub of the interface; the stub
// is shared, so each test starts it afresh.
template <typename P>
class CrossProcessTransport {
public:
    using Protocol = P;
    static constexpr bool kListenerCallsTravel = true;

    CrossProcessTransport()
        : stub_(ReachableHost().StubOf(P::I::descriptor)), log_(ReachableHost().LogOf(P::I::descriptor)) {
        if (stub_ != nullptr) {
            log_.Answer(Status::ok());
            log_.Take();
        }
    }

    android::sp<typename P::I> proxy() const { return P::I::asInterface(stub_); }
    CallRecord Take(size_t calls) { return log_.Take(calls); }
    void Answer(const Status& answer) { log_.Answer(answer); }

private:
    const android::sp<android::IBinder> stub_;
    RemoteCallLog log_;
};

INSTANTIATE_TYPED_TEST_SUITE_P(AcrossProcesses, TransactionTable, ForEachProtocol<CrossProcessTransport>);

TEST(TransactionBytesAcrossProcesses, StubReceivesTheDataParcelAsSent) {
    ServiceHost& host = ReachableHost();
    for (const ByteCase& byteCase : ByteCases()) {
        SCOPED_TRACE(byteCase.call);
        const android::sp<android::IBinder> stub = host.StubOf(byteCase.descriptor);
        ASSERT_NE(stub, nullptr);
        RemoteCallLog log(host.LogOf(byteCase.descriptor));
        log.Answer(Status::ok());
        log.Take();
        // The stub answers in full, so every call completes.
        const Status status = byteCase.send(stub);
        EXPECT_TRUE(status.isOk()) << status.toString8().c_str();
        const CallRecord calls = log.Take(1);
        ASSERT_EQ(calls.transactions.size(), 1u);
        EXPECT_EQ(calls.transactions[0].code, byteCase.code);
        EXPECT_EQ(calls.transactions[0].flags, byteCase.flags);
        EXPECT_EQ(calls.transactions[0].data, ExpectedBytes(byteCase));
        EXPECT_EQ(calls.received.size(), 1u);
    }
}

// A one-way call whose record is null is answered by the stub with an
// EX_NULL_POINTER status in a reply that nobody reads; the receiving process
// must live on and serve the next call.
TEST(OnewayAcrossProcesses, NullRecordIsDroppedAndTheReceiverServesOn) {
    ServiceHost& host = ReachableHost();
    const android::sp<android::IBinder> stub = host.StubOf(IDeviceListener::descriptor);
    ASSERT_NE(stub, nullptr);
    RemoteCallLog log(host.LogOf(IDeviceListener::descriptor));
    log.Answer(Status::ok());
    log.Take();
    android::Parcel nullRecord;
    nullRecord.writeInterfaceToken(IDeviceListener::descriptor);
    nullRecord.writeInt32(0);  // the record's presence marker
    ASSERT_EQ(stub->transact(android::IBinder::FIRST_CALL_TRANSACTION, nullRecord, nullptr,
                             android::IBinder::FLAG_ONEWAY),
              android::OK);
    // One-way calls to one object run in order: this one comes second.
    EXPECT_TRUE(IDeviceListener::asInterface(stub)->onDeviceOnline(NodeBasicInfoInner()).isOk());
    const CallRecord calls = log.Take(1);
    EXPECT_EQ(calls.transactions.size(), 2u);
    EXPECT_EQ(calls.received.size(), 1u);
}

}  // namespace
}  // namespace tivra_service_test
