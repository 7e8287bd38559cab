// Every transaction of the three interfaces through proxy, parcels and stub in
// one process, plus the interfaces' default implementations and the bytes of a
// few calls.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "service_byte_layouts.h"
#include "service_test_doubles.h"
#include "service_transaction_table.h"
#include "service_wire_table.h"

namespace tivra_service_test {
namespace {

// The proxy's remote is the recording stub itself, in this process.
template <typename P>
class InProcessTransport {
public:
    using Protocol = P;
    static constexpr bool kListenerCallsTravel = false;

    android::sp<typename P::I> proxy() const { return proxy_; }
    CallRecord Take(size_t calls) { return stub_->Take(calls); }
    void Answer(const Status& answer) { stub_->Answer(answer); }

private:
    const android::sp<typename P::Recording> stub_ = new typename P::Recording();
    const android::sp<typename P::I> proxy_ = new typename P::Bp(stub_);
};

INSTANTIATE_TYPED_TEST_SUITE_P(InProcess, TransactionTable, ForEachProtocol<InProcessTransport>);

template <typename P>
class WireTable : public ::testing::Test {
protected:
    using I = typename P::I;

    const std::vector<WireRow> rows_ = RowsOf(Tag<I>{});
    const std::vector<NamedCaller<I>> callers_ = CallersOf(Tag<I>{});
};

TYPED_TEST_SUITE(WireTable, Protocols);

TYPED_TEST(WireTable, InterfaceHasExactlyTheTableMethods) {
    ASSERT_EQ(this->callers_.size(), this->rows_.size());
    ASSERT_EQ(this->rows_.size(), TypeParam::kLastCode);
    for (const WireRow& row : this->rows_) {
        EXPECT_NE(CallerFor(this->callers_, row), nullptr);
    }
}

TYPED_TEST(WireTable, DefaultImplementationAnswersEveryMethodWithUnknownTransaction) {
    const android::sp<typename TypeParam::I> fallback = new typename TypeParam::Default();
    for (const WireRow& row : this->rows_) {
        SCOPED_TRACE(row.method);
        const NamedCaller<typename TypeParam::I>* caller = CallerFor(this->callers_, row);
        ASSERT_NE(caller, nullptr);
        const Outcome outcome = caller->call(*fallback, row.code);
        EXPECT_EQ(outcome.status.exceptionCode(), Status::EX_TRANSACTION_FAILED);
        EXPECT_EQ(outcome.status.transactionError(), android::UNKNOWN_TRANSACTION);
        EXPECT_EQ(outcome.output, outcome.untouchedOutput);
    }
}

// The recording binder replies with an OK status alone.
TEST(TransactionBytes, DataParcelsFollowThePublishedLayouts) {
    for (const ByteCase& byteCase : ByteCases()) {
        SCOPED_TRACE(byteCase.call);
        const android::sp<RecordingBinder> remote = new RecordingBinder(android::OK);
        const Status status = byteCase.send(remote);
        EXPECT_EQ(remote->code, byteCase.code);
        EXPECT_EQ(remote->flags, byteCase.flags);
        EXPECT_EQ(remote->data, ExpectedBytes(byteCase));
        if (byteCase.completeWithStatusAlone) {
            EXPECT_TRUE(status.isOk()) << status.toString8().c_str();
        } else {
            // Reading the missing output fails the call.
            EXPECT_EQ(status.exceptionCode(), Status::EX_TRANSACTION_FAILED);
            EXPECT_NE(status.transactionError(), android::OK);
        }
    }
}

TEST(TransactionBytes, Int64TravelsLittleEndianInFull) {
    const android::sp<RecordingBinder> remote = new RecordingBinder(android::OK);
    ASSERT_TRUE(ProxyOn<BpDeviceMonitorService>(remote)->setTivraPolicy(1, (int64_t{1} << 32) + 0x12345678).isOk());
    ASSERT_GE(remote->data.size(), 8u);
    const std::vector<uint8_t> tail(remote->data.end() - 8, remote->data.end());
    EXPECT_EQ(tail, (std::vector<uint8_t>{0x78, 0x56, 0x34, 0x12, 0x01, 0x00, 0x00, 0x00}));
    EXPECT_EQ(remote->code, 32u);
}

}  // namespace
}  // namespace tivra_service_test
