// The frame shared by the three interfaces: obtaining an interface from a
// binder, descriptors, default implementations and the stub's checks.

#include <gtest/gtest.h>
#include <utils/String8.h>

#include <memory>
#include <string>
#include <type_traits>

#include "service_test_doubles.h"

namespace tivra_service_test {
namespace {

using android::IBinder;
using android::IInterface;
using android::Parcel;
using android::sp;
using android::String16;

String16 Text16(const std::string& text) { return String16(text.c_str()); }
std::string Text8(const String16& text) { return android::String8(text).c_str(); }

Status ReadStatus(const Parcel& reply) {
    Status status;
    reply.setDataPosition(0);
    EXPECT_EQ(status.readFromParcel(reply), android::OK);
    return status;
}

TEST(Descriptors, AreTheWireNames) {
    const struct {
        const String16& descriptor;
        const char* text;
    } rows[] = {
        {IDeviceMonitorService::descriptor, "com.solvane.pravik.service.IDeviceMonitorService"},
        {IDeviceChangeListener::descriptor, "com.solvane.pravik.service.IDeviceChangeListener"},
        {IDeviceListener::descriptor, "com.solvane.pravik.service.IDeviceListener"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.descriptor, Text16(row.text));
    }
}

template <typename P>
class Frame : public ::testing::Test {
protected:
    using I = typename P::I;

    // The token of the other callback interface, or of a callback for the service.
    static const String16& OtherDescriptor() {
        if constexpr (std::is_same_v<I, IDeviceChangeListener>) {
            return IDeviceListener::descriptor;
        } else {
            return IDeviceChangeListener::descriptor;
        }
    }

    const sp<typename P::Recording> stub_ = new typename P::Recording();
};

TYPED_TEST_SUITE(Frame, Protocols);

TYPED_TEST(Frame, AsInterfaceGivesNullTheLocalObjectOrANewProxy) {
    using I = typename TypeParam::I;
    EXPECT_EQ(I::asInterface(nullptr), nullptr);

    const sp<IBinder> local = this->stub_;
    EXPECT_EQ(I::asInterface(local).get(), static_cast<I*>(this->stub_.get()));

    const sp<IBinder> remote = new RecordingBinder(android::OK);
    const sp<I> first = I::asInterface(remote);
    const sp<I> second = I::asInterface(remote);
    ASSERT_NE(first, nullptr);
    EXPECT_NE(dynamic_cast<typename TypeParam::Bp*>(first.get()), nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(IInterface::asBinder(first), remote);
}

TYPED_TEST(Frame, StubOfAnotherInterfaceIsReachedThroughAProxy) {
    using I = typename TypeParam::I;
    const sp<IBinder> other = std::is_same_v<I, IDeviceListener> ? sp<IBinder>(new RecordingDeviceChangeListener())
                                                                 : sp<IBinder>(new RecordingDeviceListener());
    const sp<I> proxy = I::asInterface(other);
    EXPECT_NE(dynamic_cast<typename TypeParam::Bp*>(proxy.get()), nullptr);
}

TYPED_TEST(Frame, QueryLocalInterfaceComparesWholeDescriptors) {
    using I = typename TypeParam::I;
    const std::string descriptor = Text8(I::descriptor);
    EXPECT_EQ(this->stub_->queryLocalInterface(I::descriptor).get(),
              static_cast<IInterface*>(static_cast<I*>(this->stub_.get())));
    EXPECT_EQ(this->stub_->queryLocalInterface(Text16(descriptor.substr(0, descriptor.size() - 1))), nullptr);
    EXPECT_EQ(this->stub_->queryLocalInterface(Text16(descriptor + "x")), nullptr);
    EXPECT_EQ(this->stub_->queryLocalInterface(this->OtherDescriptor()), nullptr);
}

TYPED_TEST(Frame, EveryClassNamesTheDescriptorAndItsBinder) {
    using I = typename TypeParam::I;
    const sp<IBinder> remote = new RecordingBinder(android::OK);
    const sp<I> proxy = new typename TypeParam::Bp(remote);
    const sp<I> fallback = new typename TypeParam::Default();
    const sp<I> stub = this->stub_;

    EXPECT_EQ(&proxy->getInterfaceDescriptor(), &I::descriptor);
    EXPECT_EQ(&fallback->getInterfaceDescriptor(), &I::descriptor);
    EXPECT_EQ(&stub->getInterfaceDescriptor(), &I::descriptor);
    EXPECT_EQ(static_cast<IBinder&>(*this->stub_).getInterfaceDescriptor(), I::descriptor);

    EXPECT_EQ(IInterface::asBinder(proxy), remote);
    EXPECT_EQ(IInterface::asBinder(fallback), nullptr);
    EXPECT_EQ(IInterface::asBinder(stub), sp<IBinder>(this->stub_));
}

TYPED_TEST(Frame, CodesOutsideTheTableGoToTheBaseClass) {
    for (const uint32_t code : {0u, TypeParam::kLastCode + 1}) {
        SCOPED_TRACE(code);
        Parcel data;
        Parcel reply;
        data.writeInterfaceToken(TypeParam::I::descriptor);
        EXPECT_EQ(this->stub_->transact(code, data, &reply, 0), android::UNKNOWN_TRANSACTION);
        EXPECT_EQ(reply.dataSize(), 0u);
    }
    // The base class answers its own transactions, here with the descriptor.
    Parcel data;
    Parcel reply;
    ASSERT_EQ(this->stub_->transact(IBinder::INTERFACE_TRANSACTION, data, &reply, 0), android::OK);
    reply.setDataPosition(0);
    EXPECT_EQ(reply.readString16(), TypeParam::I::descriptor);
    EXPECT_TRUE(this->stub_->Take().received.empty());
}

TYPED_TEST(Frame, WrongOrMissingTokenIsRefusedWithAnEmptyReply) {
    for (uint32_t code = 1; code <= TypeParam::kLastCode; ++code) {
        SCOPED_TRACE(code);
        Parcel wrong;
        Parcel missing;
        Parcel reply;
        wrong.writeInterfaceToken(this->OtherDescriptor());
        EXPECT_EQ(this->stub_->transact(code, wrong, &reply, 0), android::BAD_TYPE);
        EXPECT_EQ(this->stub_->transact(code, missing, &reply, 0), android::BAD_TYPE);
        EXPECT_EQ(reply.dataSize(), 0u);
    }
    EXPECT_TRUE(this->stub_->Take().received.empty());
}

// A stub reached with hand-made data: what it returns, replies and calls.
struct StubRun {
    android::status_t result;
    Parcel reply;
};

template <typename Stub, typename Fill>
void Deliver(Stub& stub, uint32_t code, Fill fill, StubRun& run) {
    Parcel data;
    data.writeInterfaceToken(Stub::descriptor);
    fill(data);
    run.result = stub.transact(code, data, &run.reply, 0);
}

TEST(StubNullRule, NullListenerIsAnsweredWithNullPointerAndNoCall) {
    const sp<RecordingDeviceMonitorService> stub = new RecordingDeviceMonitorService();
    const sp<BpDeviceMonitorService> proxy = ProxyOn<BpDeviceMonitorService>(stub);
    bool added = true;
    const Status listenerStatus = proxy->addDeviceChangeListener(nullptr, &added);
    EXPECT_EQ(listenerStatus.exceptionCode(), Status::EX_NULL_POINTER);
    EXPECT_TRUE(added);
    EXPECT_EQ(proxy->addOnDeviceChangeListener(nullptr).exceptionCode(), Status::EX_NULL_POINTER);
    EXPECT_TRUE(stub->Take().received.empty());
}

TEST(StubNullRule, MissingRecordOrStringIsAnsweredWithNullPointerAndNoCall) {
    const sp<RecordingDeviceChangeListener> devices = new RecordingDeviceChangeListener();
    const sp<RecordingDeviceListener> nodes = new RecordingDeviceListener();
    const auto nullMarker = [](Parcel& data) { data.writeInt32(0); };
    const auto nullNodeId = [](Parcel& data) { data.writeInt32(-1); };
    const auto nullKind = [](Parcel& data) {
        data.writeString16(String16("abc"));
        data.writeInt32(0);
    };
    StubRun runs[6];
    Deliver(*devices, 1, nullMarker, runs[0]);
    Deliver(*devices, 2, nullMarker, runs[1]);
    Deliver(*nodes, 1, nullMarker, runs[2]);
    Deliver(*nodes, 2, nullMarker, runs[3]);
    Deliver(*nodes, 3, nullNodeId, runs[4]);
    Deliver(*nodes, 3, nullKind, runs[5]);
    for (const StubRun& run : runs) {
        EXPECT_EQ(run.result, android::OK);
        EXPECT_EQ(ReadStatus(run.reply).exceptionCode(), Status::EX_NULL_POINTER);
    }
    EXPECT_TRUE(devices->Take().received.empty());
    EXPECT_TRUE(nodes->Take().received.empty());
}

TEST(StubRecords, AnyNonZeroMarkerIsAcceptedAndAFailedRecordStopsTheCall) {
    const sp<RecordingDeviceChangeListener> devices = new RecordingDeviceChangeListener();
    const sp<RecordingDeviceListener> nodes = new RecordingDeviceListener();
    StubRun markerTwo;
    Deliver(
        *devices, 1,
        [](Parcel& data) {
            data.writeInt32(2);
            for (const char* field : {"id", "name", "type", "ip"}) {
                data.writeString16(String16(field));
            }
        },
        markerTwo);
    EXPECT_EQ(markerTwo.result, android::OK);
    const CallRecord devicesCalled = devices->Take();
    ASSERT_EQ(devicesCalled.received.size(), 1u);
    EXPECT_EQ(devicesCalled.received[0].inputs,
              std::vector<std::string>{Describe(DeviceInfoExternal("name", "id", "type", "ip"))});

    // A node type code of -1 fails the record's own read with -1.
    StubRun badType;
    Deliver(
        *nodes, 1,
        [](Parcel& data) {
            data.writeInt32(1);
            data.writeString16(String16("name"));
            data.writeInt32(-1);
            data.writeString16(String16("nid"));
        },
        badType);
    EXPECT_EQ(badType.result, -1);
    EXPECT_EQ(badType.reply.dataSize(), 0u);
    EXPECT_TRUE(nodes->Take().received.empty());
}

TEST(StubReplies, OneWayStatusIsDroppedAndTwoWayFailureTravelsAlone) {
    const Status refusal = Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, "busy");
    const sp<RecordingDeviceListener> nodes = new RecordingDeviceListener();
    nodes->Answer(refusal);
    StubRun oneWay;
    Deliver(
        *nodes, 3,
        [](Parcel& data) {
            data.writeString16(String16("abc"));
            data.writeParcelable(DeviceInfoTypeInner(1));
        },
        oneWay);
    EXPECT_EQ(oneWay.result, android::OK);
    EXPECT_EQ(oneWay.reply.dataSize(), 0u);
    EXPECT_EQ(nodes->Take().received.size(), 1u);

    const sp<RecordingDeviceMonitorService> service = new RecordingDeviceMonitorService();
    service->Answer(refusal);
    StubRun twoWay;
    Deliver(
        *service, 13, [](Parcel& data) { data.writeString16(String16("device")); }, twoWay);
    EXPECT_EQ(twoWay.result, android::OK);
    Parcel statusAlone;
    refusal.writeToParcel(&statusAlone);
    EXPECT_EQ(Bytes(twoWay.reply), Bytes(statusAlone));
    EXPECT_EQ(service->Take().received.size(), 1u);
}

// Default implementations are process-wide and installed once, so each
// interface's are exercised by one test only.

class LocalExtInfo : public IDeviceMonitorServiceDefault {
public:
    Status getNodeExtInfo(const String16& nodeId, const String16& key, String16* value) override {
        *value = Text16("local " + Text8(nodeId) + " " + Text8(key));
        return Status::ok();
    }
};

TEST(DefaultImpl, ServiceProxyFallsBackOnlyOnUnknownTransaction) {
    const String16 untouched = Text16("untouched");
    const sp<BpDeviceMonitorService> unknown =
        ProxyOn<BpDeviceMonitorService>(new RecordingBinder(android::UNKNOWN_TRANSACTION));
    const sp<BpDeviceMonitorService> dead = ProxyOn<BpDeviceMonitorService>(new RecordingBinder(android::DEAD_OBJECT));
    String16 value = untouched;

    ASSERT_EQ(IDeviceMonitorService::getDefaultImpl(), nullptr);
    Status status = unknown->getNodeExtInfo(Text16("n1"), Text16("k1"), &value);
    EXPECT_EQ(status.exceptionCode(), Status::EX_TRANSACTION_FAILED);
    EXPECT_EQ(status.transactionError(), android::UNKNOWN_TRANSACTION);
    EXPECT_EQ(value, untouched);

    ASSERT_TRUE(IDeviceMonitorService::setDefaultImpl(MakeDefaultImpl<LocalExtInfo>()));
    status = unknown->getNodeExtInfo(Text16("n1"), Text16("k1"), &value);
    EXPECT_TRUE(status.isOk());
    EXPECT_EQ(Text8(value), "local n1 k1");

    // A method that the installed object leaves to the plain default.
    String16 udid = untouched;
    status = unknown->getUdidByNodeId(Text16("n1"), &udid);
    EXPECT_EQ(status.exceptionCode(), Status::EX_TRANSACTION_FAILED);
    EXPECT_EQ(status.transactionError(), android::UNKNOWN_TRANSACTION);
    EXPECT_EQ(udid, untouched);

    // Any other transport failure is not handed to the default.
    value = untouched;
    status = dead->getNodeExtInfo(Text16("n1"), Text16("k1"), &value);
    EXPECT_EQ(status.transactionError(), android::DEAD_OBJECT);
    EXPECT_EQ(value, untouched);
}

class OfflineCounter : public IDeviceChangeListenerDefault {
public:
    Status onDeviceOffline(const DeviceInfoExternal& deviceInfo) override {
        seen.push_back(Describe(deviceInfo));
        return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, "counted");
    }
    std::vector<std::string> seen;
};

TEST(DefaultImpl, FirstInstalledObjectStaysAndAnswersOneWayCalls) {
    EXPECT_FALSE(IDeviceChangeListener::setDefaultImpl(nullptr));
    EXPECT_EQ(IDeviceChangeListener::getDefaultImpl(), nullptr);
    auto first = MakeDefaultImpl<OfflineCounter>();
    OfflineCounter* const installed = first.get();
    EXPECT_TRUE(IDeviceChangeListener::setDefaultImpl(std::move(first)));
    EXPECT_FALSE(IDeviceChangeListener::setDefaultImpl(MakeDefaultImpl<IDeviceChangeListenerDefault>()));
    EXPECT_FALSE(IDeviceChangeListener::setDefaultImpl(nullptr));
    EXPECT_EQ(IDeviceChangeListener::getDefaultImpl().get(), installed);

    const sp<RecordingBinder> unknown = new RecordingBinder(android::UNKNOWN_TRANSACTION);
    const sp<BpDeviceChangeListener> proxy = ProxyOn<BpDeviceChangeListener>(unknown);
    const DeviceInfoExternal device("name", "id", "type", "ip");
    const Status status = proxy->onDeviceOffline(device);
    EXPECT_EQ(unknown->flags, static_cast<uint32_t>(IBinder::FLAG_ONEWAY));
    EXPECT_EQ(status.exceptionCode(), Status::EX_ILLEGAL_STATE);
    EXPECT_EQ(std::string(status.exceptionMessage().c_str()), "counted");
    EXPECT_EQ(installed->seen, std::vector<std::string>{Describe(device)});
}

TEST(DefaultImpl, OneWayCallWithoutDefaultReportsUnknownTransaction) {
    ASSERT_EQ(IDeviceListener::getDefaultImpl(), nullptr);
    const sp<RecordingBinder> unknown = new RecordingBinder(android::UNKNOWN_TRANSACTION);
    const sp<BpDeviceListener> proxy = ProxyOn<BpDeviceListener>(unknown);
    const Status status = proxy->onDeviceOnline(NodeBasicInfoInner());
    EXPECT_EQ(unknown->transactions, 1);
    EXPECT_EQ(status.exceptionCode(), Status::EX_TRANSACTION_FAILED);
    EXPECT_EQ(status.transactionError(), android::UNKNOWN_TRANSACTION);
}

}  // namespace
}  // namespace tivra_service_test
