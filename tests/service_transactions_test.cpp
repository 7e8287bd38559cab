// Every transaction of the three interfaces through proxy, parcels and stub,
// against the transaction tables as published, plus the bytes of a few calls.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "service_test_doubles.h"

namespace tivra_service_test {
namespace {

// code, method, "inputs in wire order->output"
struct WireRow {
    uint32_t code;
    const char* method;
    const char* shape;
};

std::vector<WireRow> RowsOf(Tag<IDeviceMonitorService>) {
    return {
        {1, "addOnDeviceChangeListener", "IDeviceChangeListener->"},
        {2, "removeOnDeviceChangeListener", "IDeviceChangeListener->"},
        {3, "getAllDevices", "->DeviceInfoExternalList"},
        {4, "getLocalDevice", "->DeviceInfoExternal"},
        {5, "getPeripherals", "String16->"},
        {6, "onDeviceFound", "String16,int32->"},
        {7, "startDiscovery", "->"},
        {8, "stopDiscovery", "->"},
        {9, "setRequestFlag", "bool->"},
        {10, "deviceMonitorEnable", "bool->"},
        {11, "addOnDeviceChangeListenerPassive", "IDeviceChangeListener->"},
        {12, "removeOnDeviceChangeListenerPassive", "IDeviceChangeListener->"},
        {13, "getBatteryInfo", "String16->int32"},
        {14, "setDistributedAbilityStatus", "String16,bool->"},
        {15, "isDistributedAbilityEnabled", "String16->bool"},
        {16, "setDiscoveryMode", "int32,int64->"},
        {17, "getVistroDeviceIDByMac", "String16->String16"},
        {18, "getVistroDeviceMACByID", "String16->String16"},
        {19, "flushDevice", "String16,bool->int32"},
        {20, "getNearFieldDevices", "->DeviceInfoExternalList"},
        {21, "getVersionType", "String16->String16"},
        {22, "getLocalNodeBasicInfo", "->"},
        {23, "getNodeBasicInfo", "String16->"},
        {24, "getAllNodeBasicInfo", "->"},
        {25, "getDeviceId", "String16->String16"},
        {26, "getGroupNodeBasicInfo", "int32->"},
        {27, "getNodeInfo", "String16,String16->String16"},
        {28, "connectDevice", "->"},
        {29, "connectVerifiedDevice", "->"},
        {30, "disconnectDevice", "->"},
        {31, "verifyDevice", "->"},
        {32, "setTivraPolicy", "int32,int64->"},
        {33, "triggerDeviceJoinNetworking", "->"},
        {34, "triggerDeviceQuitNetworking", "->"},
        {35, "addDeviceChangeListener", "IDeviceListener->bool"},
        {36, "removeDeviceChangeListener", "IDeviceListener->"},
        {37, "addDeviceChangeListenerPassive", "IDeviceListener->"},
        {38, "removeDeviceChangeListenerPassive", "IDeviceListener->"},
        {39, "getLocalBasicInfo", "->NodeBasicInfoInner"},
        {40, "getRemoteNodeBasicInfo", "String16->NodeBasicInfoInner"},
        {41, "getRemoteNodesBasicInfo", "->NodeBasicInfoList"},
        {42, "getNodeExtInfo", "String16,String16->String16"},
        {43, "getUdidByNodeId", "String16->String16"},
        {44, "getUuidByNodeId", "String16->String16"},
    };
}

std::vector<WireRow> RowsOf(Tag<IDeviceChangeListener>) {
    return {{1, "onDeviceOnline", "DeviceInfoExternal->"}, {2, "onDeviceOffline", "DeviceInfoExternal->"}};
}

std::vector<WireRow> RowsOf(Tag<IDeviceListener>) {
    return {{1, "onDeviceOnline", "NodeBasicInfoInner->"},
            {2, "onDeviceOffline", "NodeBasicInfoInner->"},
            {3, "onDeviceInfoChanged", "String16,DeviceInfoTypeInner->"}};
}

std::vector<NamedCaller<IDeviceMonitorService>> CallersOf(Tag<IDeviceMonitorService>) {
    return {TIVRA_DEVICE_MONITOR_SERVICE_TRANSACTIONS(TIVRA_TEST_CALLER, DeviceMonitorService)};
}
std::vector<NamedCaller<IDeviceChangeListener>> CallersOf(Tag<IDeviceChangeListener>) {
    return {TIVRA_DEVICE_CHANGE_LISTENER_TRANSACTIONS(TIVRA_TEST_CALLER, DeviceChangeListener)};
}
std::vector<NamedCaller<IDeviceListener>> CallersOf(Tag<IDeviceListener>) {
    return {TIVRA_DEVICE_LISTENER_TRANSACTIONS(TIVRA_TEST_CALLER, DeviceListener)};
}

// Calls each row's method on a proxy whose remote is a recording stub.
template <typename P>
class TransactionTable : public ::testing::Test {
protected:
    using I = typename P::I;

    const NamedCaller<I>* CallerFor(const WireRow& row) {
        for (const NamedCaller<I>& caller : callers_) {
            if (std::string(caller.method) == row.method) {
                return &caller;
            }
        }
        ADD_FAILURE() << "no method " << row.method;
        return nullptr;
    }

    Outcome CallThroughProxy(const WireRow& row) {
        stub_->received.clear();
        stub_->wireCodes.clear();
        stub_->wireFlags.clear();
        const NamedCaller<I>* caller = CallerFor(row);
        return caller == nullptr ? Outcome{} : caller->call(*proxy_, row.code);
    }

    const std::vector<WireRow> rows_ = RowsOf(Tag<I>{});
    const std::vector<NamedCaller<I>> callers_ = CallersOf(Tag<I>{});
    const android::sp<typename P::Recording> stub_ = new typename P::Recording();
    const android::sp<I> proxy_ = new typename P::Bp(stub_);
};

TYPED_TEST_SUITE(TransactionTable, Protocols);

TYPED_TEST(TransactionTable, InterfaceHasExactlyTheTableMethods) {
    ASSERT_EQ(this->callers_.size(), this->rows_.size());
    ASSERT_EQ(this->rows_.size(), TypeParam::kLastCode);
    for (const WireRow& row : this->rows_) {
        EXPECT_NE(this->CallerFor(row), nullptr);
    }
}

TYPED_TEST(TransactionTable, EveryCodeCarriesItsInputsAndOutput) {
    for (const WireRow& row : this->rows_) {
        SCOPED_TRACE(row.method);
        const Outcome outcome = this->CallThroughProxy(row);
        EXPECT_EQ(outcome.shape, row.shape);
        EXPECT_TRUE(outcome.status.isOk()) << outcome.status.toString8().c_str();
        ASSERT_EQ(this->stub_->wireCodes, std::vector<uint32_t>{row.code});
        EXPECT_EQ(this->stub_->wireFlags, std::vector<uint32_t>{TypeParam::kFlags});
        ASSERT_EQ(this->stub_->received.size(), 1u);
        EXPECT_EQ(this->stub_->received[0].method, row.method);
        EXPECT_EQ(this->stub_->received[0].inputs, outcome.sent);
        EXPECT_EQ(outcome.output, outcome.producedOutput);
    }
}

TYPED_TEST(TransactionTable, RemoteFailureComesBackUnchangedAndOutputIsUntouched) {
    for (const WireRow& row : this->rows_) {
        SCOPED_TRACE(row.method);
        this->stub_->answer = Status::fromServiceSpecificError(static_cast<int32_t>(row.code) + 500,
                                                               ("refused " + std::string(row.method)).c_str());
        const Outcome outcome = this->CallThroughProxy(row);
        ASSERT_EQ(this->stub_->received.size(), 1u);
        EXPECT_EQ(outcome.output, outcome.untouchedOutput);
        if (TypeParam::kFlags == android::IBinder::FLAG_ONEWAY) {
            // Nothing travels back from a one-way call.
            EXPECT_TRUE(outcome.status.isOk());
        } else {
            EXPECT_EQ(outcome.status.exceptionCode(), Status::EX_SERVICE_SPECIFIC);
            EXPECT_EQ(outcome.status.serviceSpecificErrorCode(), static_cast<int32_t>(row.code) + 500);
            EXPECT_EQ(std::string(outcome.status.exceptionMessage().c_str()), "refused " + std::string(row.method));
        }
    }
}

TYPED_TEST(TransactionTable, DefaultImplementationAnswersEveryMethodWithUnknownTransaction) {
    const android::sp<typename TypeParam::I> fallback = new typename TypeParam::Default();
    for (const WireRow& row : this->rows_) {
        SCOPED_TRACE(row.method);
        const NamedCaller<typename TypeParam::I>* caller = this->CallerFor(row);
        ASSERT_NE(caller, nullptr);
        const Outcome outcome = caller->call(*fallback, row.code);
        EXPECT_EQ(outcome.status.exceptionCode(), Status::EX_TRANSACTION_FAILED);
        EXPECT_EQ(outcome.status.transactionError(), android::UNKNOWN_TRANSACTION);
        EXPECT_EQ(outcome.output, outcome.untouchedOutput);
    }
}

// Byte-level checks: the data parcel of a call equals one built by hand with
// the platform primitives in the published order, after the interface token.
struct ByteCase {
    const char* call;
    const android::String16& descriptor;
    uint32_t code;
    uint32_t flags;
    std::function<Status(const android::sp<android::IBinder>& remote)> send;
    std::function<void(android::Parcel& expected)> layout;
    bool succeeds;  // the recording binder replies with an OK status alone
};

TEST(TransactionBytes, DataParcelsFollowThePublishedLayouts) {
    const int64_t aboveInt32 = (int64_t{1} << 32) + 0x12345678;
    const android::String16 abc("abc");
    const ByteCase cases[] = {
        {"setDiscoveryMode(7, 2^32 + 0x12345678)", IDeviceMonitorService::descriptor, 16, 0,
         [&](const auto& remote) { return ProxyOn<BpDeviceMonitorService>(remote)->setDiscoveryMode(7, aboveInt32); },
         [&](android::Parcel& expected) {
             expected.writeInt32(7);
             expected.writeInt64(aboveInt32);
         },
         true},
        {"onDeviceInfoChanged(\"abc\", 2)", IDeviceListener::descriptor, 3, android::IBinder::FLAG_ONEWAY,
         [&](const auto& remote) {
             return ProxyOn<BpDeviceListener>(remote)->onDeviceInfoChanged(abc, DeviceInfoTypeInner(2));
         },
         [&](android::Parcel& expected) {
             expected.writeString16(abc);
             expected.writeInt32(1);
             expected.writeInt32(2);
         },
         true},
        {"onDeviceOnline(empty device)", IDeviceChangeListener::descriptor, 1, android::IBinder::FLAG_ONEWAY,
         [](const auto& remote) {
             return ProxyOn<BpDeviceChangeListener>(remote)->onDeviceOnline(DeviceInfoExternal());
         },
         [](android::Parcel& expected) {
             expected.writeInt32(1);
             for (int field = 0; field < 4; ++field) {
                 expected.writeString16(android::String16());
             }
         },
         true},
        // The reply lacks the string: reading the output fails the call.
        {"getNodeExtInfo(\"node\", \"key\")", IDeviceMonitorService::descriptor, 42, 0,
         [](const auto& remote) {
             android::String16 value;
             return ProxyOn<BpDeviceMonitorService>(remote)->getNodeExtInfo(android::String16("node"),
                                                                            android::String16("key"), &value);
         },
         [](android::Parcel& expected) {
             expected.writeString16(android::String16("node"));
             expected.writeString16(android::String16("key"));
         },
         false},
        // A method without output is complete with the status alone.
        {"getLocalNodeBasicInfo()", IDeviceMonitorService::descriptor, 22, 0,
         [](const auto& remote) { return ProxyOn<BpDeviceMonitorService>(remote)->getLocalNodeBasicInfo(); },
         [](android::Parcel& /*expected*/) {}, true},
    };
    for (const ByteCase& byteCase : cases) {
        SCOPED_TRACE(byteCase.call);
        const android::sp<RecordingBinder> remote = new RecordingBinder(android::OK);
        const Status status = byteCase.send(remote);
        android::Parcel expected;
        expected.writeInterfaceToken(byteCase.descriptor);
        byteCase.layout(expected);
        EXPECT_EQ(remote->code, byteCase.code);
        EXPECT_EQ(remote->flags, byteCase.flags);
        EXPECT_EQ(remote->data, Bytes(expected));
        if (byteCase.succeeds) {
            EXPECT_TRUE(status.isOk()) << status.toString8().c_str();
        } else {
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
