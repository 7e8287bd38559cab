#pragma once

// Every transaction of the three interfaces, row by row, through a proxy to a
// recording stub. The pattern is instantiated once per transport: a transport
// gives a proxy whose calls reach a recording stub of interface Protocol::I,
// and reads that stub's log:
//
//   using Protocol;                          the interface under test
//   static constexpr bool kListenerCallsTravel;  whether a listener passed in
//                                            reaches the stub as a proxy,
//                                            so that calls on it travel back
//   android::sp<I> proxy();                  null when the stub is unreachable
//   CallRecord Take(size_t calls);           the stub's log, once it has seen
//                                            `calls` methods
//   void Answer(const Status& answer);       what the stub's methods answer

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "service_test_doubles.h"
#include "service_wire_table.h"

namespace tivra_service_test {

template <typename Transport>
class TransactionTable : public ::testing::Test {
protected:
    using P = typename Transport::Protocol;
    using I = typename P::I;

    void SetUp() override {
        ASSERT_NE(transport_.proxy(), nullptr) << "the recording stub is out of reach";
        // The sample listeners serve every test: start from empty logs.
        LogOf(SampleInput<android::sp<IDeviceChangeListener>>(0, 0)).Take();
        LogOf(SampleInput<android::sp<IDeviceListener>>(0, 0)).Take();
    }

    Outcome CallThroughProxy(const WireRow& row) {
        const NamedCaller<I>* caller = CallerFor(callers_, row);
        return caller == nullptr ? Outcome{} : caller->call(*transport_.proxy(), row.code);
    }

    // Each listener passed in was called back once, on the caller's own object.
    static void ExpectListenersCalledBack(const Outcome& outcome) {
        for (const ListenerSent& listener : outcome.listeners) {
            const CallRecord calls = listener.log->Take(1);
            ASSERT_EQ(calls.received.size(), 1u);
            EXPECT_EQ(calls.received[0].method, listener.callBack.method);
            EXPECT_EQ(calls.received[0].inputs, listener.callBack.inputs);
            if (Transport::kListenerCallsTravel) {
                ASSERT_EQ(calls.transactions.size(), 1u);
                EXPECT_EQ(calls.transactions[0].code, android::IBinder::FIRST_CALL_TRANSACTION);
                EXPECT_EQ(calls.transactions[0].flags, android::IBinder::FLAG_ONEWAY);
            } else {
                // The stub got the caller's own object and called it directly.
                EXPECT_TRUE(calls.transactions.empty());
            }
        }
    }

    const std::vector<WireRow> rows_ = RowsOf(Tag<I>{});
    const std::vector<NamedCaller<I>> callers_ = CallersOf(Tag<I>{});
    Transport transport_;
};

TYPED_TEST_SUITE_P(TransactionTable);

TYPED_TEST_P(TransactionTable, EveryCodeCarriesItsInputsAndOutput) {
    for (const WireRow& row : this->rows_) {
        SCOPED_TRACE(row.method);
        const Outcome outcome = this->CallThroughProxy(row);
        EXPECT_EQ(outcome.shape, row.shape);
        EXPECT_TRUE(outcome.status.isOk()) << outcome.status.toString8().c_str();
        const CallRecord calls = this->transport_.Take(1);
        ASSERT_EQ(calls.transactions.size(), 1u);
        EXPECT_EQ(calls.transactions[0].code, row.code);
        EXPECT_EQ(calls.transactions[0].flags, TypeParam::Protocol::kFlags);
        ASSERT_EQ(calls.received.size(), 1u);
        EXPECT_EQ(calls.received[0].method, row.method);
        EXPECT_EQ(calls.received[0].inputs, outcome.sent);
        EXPECT_EQ(outcome.output, outcome.producedOutput);
        this->ExpectListenersCalledBack(outcome);
    }
}

TYPED_TEST_P(TransactionTable, RemoteFailureComesBackUnchangedAndOutputIsUntouched) {
    for (const WireRow& row : this->rows_) {
        SCOPED_TRACE(row.method);
        this->transport_.Answer(Status::fromServiceSpecificError(static_cast<int32_t>(row.code) + 500,
                                                                 ("refused " + std::string(row.method)).c_str()));
        const Outcome outcome = this->CallThroughProxy(row);
        ASSERT_EQ(this->transport_.Take(1).received.size(), 1u);
        EXPECT_EQ(outcome.output, outcome.untouchedOutput);
        if (TypeParam::Protocol::kFlags == android::IBinder::FLAG_ONEWAY) {
            // Nothing travels back from a one-way call.
            EXPECT_TRUE(outcome.status.isOk());
        } else {
            EXPECT_EQ(outcome.status.exceptionCode(), Status::EX_SERVICE_SPECIFIC);
            EXPECT_EQ(outcome.status.serviceSpecificErrorCode(), static_cast<int32_t>(row.code) + 500);
            EXPECT_EQ(std::string(outcome.status.exceptionMessage().c_str()), "refused " + std::string(row.method));
        }
    }
}

REGISTER_TYPED_TEST_SUITE_P(TransactionTable, EveryCodeCarriesItsInputsAndOutput,
                            RemoteFailureComesBackUnchangedAndOutputIsUntouched);

}  // namespace tivra_service_test
