// The three Binder interfaces of the device monitor service, one row per
// transaction: what the proxy sends, what the stub hands its method, what the
// method's answer puts in the reply and what the caller gets back, byte for
// byte, as every other peer reads them. Then the stub's refusals and the
// default implementation; the rows cross processes in adapter_test.

#include <gtest/gtest.h>
#include <utils/String8.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#define TIVRA_TEST_LSAN
#endif
#endif

#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "i_device_change_listener.h"
#include "i_device_listener.h"
#include "i_device_monitor_service.h"
#include "parcel_bytes.h"

namespace {

using namespace android;
using namespace com::solvane::pravik::deviceinfo;
using namespace com::solvane::pravik::service;
namespace deviceinfo = com::solvane::pravik::deviceinfo;  // as the interfaces' tables name it
using binder::Status;
using namespace tivra_test;

constexpr char kService[] = "com.solvane.pravik.service.IDeviceMonitorService";
constexpr char kDevices[] = "com.solvane.pravik.service.IDeviceChangeListener";
constexpr char kNodes[] = "com.solvane.pravik.service.IDeviceListener";

Bytes Token(const char* descriptor) {
    Parcel parcel;
    parcel.writeInterfaceToken(String16(descriptor));
    return Contents(parcel);
}

String16 S(const char* text) { return String16(text); }

// A proxy call on `remote` with fixed inputs; `*output` gets the bytes of the
// caller's output object when the call changed it.
using Call = std::function<Status(const sp<IBinder>& remote, Bytes* output)>;

template <typename Bp, typename... P, typename... A>
Call Calls(Status (Bp::*method)(P...), A... inputs) {
    return [=](const sp<IBinder>& remote, Bytes* output) {
        const sp<Bp> proxy = new Bp(remote);
        if constexpr (sizeof...(P) == sizeof...(A)) {
            return (proxy.get()->*method)(inputs...);
        } else {
            std::remove_pointer_t<std::tuple_element_t<sizeof...(A), std::tuple<P...>>> value{};
            Parcel before;
            Parcel after;
            frame::Write(before, value);
            const Status status = (proxy.get()->*method)(inputs..., &value);
            frame::Write(after, value);
            if (Contents(after) != Contents(before)) {
                *output = Contents(after);
            }
            return status;
        }
    };
}

struct Row {
    const char* descriptor;
    uint32_t code;
    const char* call;
    Call send;
    Bytes in;   // the data after the interface token
    Bytes out;  // the reply after an OK status, and so the caller's output afterwards
};
#define CALL(...) #__VA_ARGS__, Calls(__VA_ARGS__)

const Row* FindRow(const String16& descriptor, uint32_t code);

// What a recording stub saw of its last transaction; `calls` counts every method reached.
struct Seen {
    uint32_t code = 0;
    uint32_t flags = 0;
    Bytes data;
    Bytes inputs;  // as the method got them, written back with the frame's own writers
    Bytes reply;
    int calls = 0;
};

// The part of a recording stub common to the interfaces: what it saw, and the
// status its methods answer. A method fills its output from its row's reply bytes.
class Recorder {
public:
    Seen seen;
    Status answer = Status::ok();

protected:
    status_t Record(const String16& descriptor, uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags,
                    const std::function<status_t()>& dispatch) {
        seen = Seen{code, flags, Contents(data), {}, {}, seen.calls};
        row_ = FindRow(descriptor, code);
        const status_t result = dispatch();
        seen.reply = reply == nullptr ? Bytes{} : Contents(*reply);
        return result;
    }

    template <typename... A>
    Status Serve(A... args) {
        if (row_ == nullptr) {
            return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, "no row");
        }
        Parcel inputs;
        (Take(inputs, args), ...);
        seen.inputs = Contents(inputs);
        ++seen.calls;
        return answer;
    }

private:
    template <typename T>
    void Take(Parcel& inputs, const T& input) {
        frame::Write(inputs, input);
    }
    template <typename T>
    void Take(Parcel& /*inputs*/, T* output) {
        Parcel reply;
        Load(&reply, row_->out);
        frame::Read(reply, output);
    }

    const Row* row_ = nullptr;
};

#define TIVRA_TEST_METHOD(C, code, method, flags, params, args) \
    Status method params override { return Serve args; }
#define TIVRA_TEST_RECORDING_STUB(C, TABLE)                                                                   \
    struct Recording##C : public Bn##C, public Recorder {                                                     \
        status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {      \
            return Record(I##C::descriptor, code, data, reply, flags,                                         \
                          [&] { return Bn##C::onTransact(code, data, reply, flags); });                       \
        }                                                                                                     \
        TABLE(TIVRA_TEST_METHOD, C)                                                                           \
    };

TIVRA_TEST_RECORDING_STUB(DeviceMonitorService, TIVRA_DEVICE_MONITOR_SERVICE_TRANSACTIONS)
TIVRA_TEST_RECORDING_STUB(DeviceChangeListener, TIVRA_DEVICE_CHANGE_LISTENER_TRANSACTIONS)
TIVRA_TEST_RECORDING_STUB(DeviceListener, TIVRA_DEVICE_LISTENER_TRANSACTIONS)

sp<IBinder> NewStub(const std::string& descriptor) {
    if (descriptor == kService) return new RecordingDeviceMonitorService();
    if (descriptor == kDevices) return new RecordingDeviceChangeListener();
    return new RecordingDeviceListener();
}

using Svc = BpDeviceMonitorService;
using Devices = BpDeviceChangeListener;
using Nodes = BpDeviceListener;

// Every transaction of the three interfaces, in code order. An int64 is two
// words, low first; a record is the int32 1 of a present value and its fields.
const std::vector<Row>& Rows() {
    // The listeners that the service's rows pass, alive for the whole run.
    static const sp<IDeviceChangeListener> devices = new RecordingDeviceChangeListener();
    static const sp<IDeviceListener> nodes = new RecordingDeviceListener();
    const sp<IBinder> devicesBinder = IInterface::asBinder(devices);
    const sp<IBinder> nodesBinder = IInterface::asBinder(nodes);
    const int64_t big = (int64_t{1} << 32) + 0x12345678;
    static const std::vector<Row> rows = {
        {kService, 1, CALL(&Svc::addOnDeviceChangeListener, devices), Wire(devicesBinder), {}},
        {kService, 2, CALL(&Svc::removeOnDeviceChangeListener, devices), Wire(devicesBinder), {}},
        {kService, 3, CALL(&Svc::getAllDevices), {}, Wire(1, 1, 1, "id3", "name3", "type3", "ip3")},
        {kService, 4, CALL(&Svc::getLocalDevice), {}, Wire(1, "id4", "name4", "type4", "ip4")},
        {kService, 5, CALL(&Svc::getPeripherals, S("dev5")), Wire("dev5"), {}},
        {kService, 6, CALL(&Svc::onDeviceFound, S("dev6"), -6), Wire("dev6", -6), {}},
        {kService, 7, CALL(&Svc::startDiscovery), {}, {}},
        {kService, 8, CALL(&Svc::stopDiscovery), {}, {}},
        {kService, 9, CALL(&Svc::setRequestFlag, true), Wire(true), {}},
        {kService, 10, CALL(&Svc::deviceMonitorEnable, false), Wire(false), {}},
        {kService, 11, CALL(&Svc::addOnDeviceChangeListenerPassive, devices), Wire(devicesBinder), {}},
        {kService, 12, CALL(&Svc::removeOnDeviceChangeListenerPassive, devices), Wire(devicesBinder), {}},
        {kService, 13, CALL(&Svc::getBatteryInfo, S("dev13")), Wire("dev13"), Wire(87)},
        {kService, 14, CALL(&Svc::setDistributedAbilityStatus, S("ab14"), true), Wire("ab14", true), {}},
        {kService, 15, CALL(&Svc::isDistributedAbilityEnabled, S("ab15")), Wire("ab15"), Wire(true)},
        {kService, 16, CALL(&Svc::setDiscoveryMode, 7, big), Le({7, 0x12345678, 1}), {}},
        {kService, 17, CALL(&Svc::getVistroDeviceIDByMac, S("mac17")), Wire("mac17"), Wire("id17")},
        {kService, 18, CALL(&Svc::getVistroDeviceMACByID, S("id18")), Wire("id18"), Wire("mac18")},
        {kService, 19, CALL(&Svc::flushDevice, S("dev19"), true), Wire("dev19", true), Wire(-19)},
        {kService, 20, CALL(&Svc::getNearFieldDevices), {}, Wire(1, 2, 1, "a", "b", "c", "d", 1, "e", "f", "g", "h")},
        {kService, 21, CALL(&Svc::getVersionType, S("node21")), Wire("node21"), Wire("v21")},
        {kService, 22, CALL(&Svc::getLocalNodeBasicInfo), {}, {}},
        {kService, 23, CALL(&Svc::getNodeBasicInfo, S("node23")), Wire("node23"), {}},
        {kService, 24, CALL(&Svc::getAllNodeBasicInfo), {}, {}},
        {kService, 25, CALL(&Svc::getDeviceId, S("node25")), Wire("node25"), Wire("dev25")},
        {kService, 26, CALL(&Svc::getGroupNodeBasicInfo, 26), Wire(26), {}},
        {kService, 27, CALL(&Svc::getNodeInfo, S("node27"), S("key27")), Wire("node27", "key27"), Wire("value27")},
        {kService, 28, CALL(&Svc::connectDevice), {}, {}},
        {kService, 29, CALL(&Svc::connectVerifiedDevice), {}, {}},
        {kService, 30, CALL(&Svc::disconnectDevice), {}, {}},
        {kService, 31, CALL(&Svc::verifyDevice), {}, {}},
        {kService, 32, CALL(&Svc::setTivraPolicy, -32, -big), Le({-32, -0x12345678, -2}), {}},
        {kService, 33, CALL(&Svc::triggerDeviceJoinNetworking), {}, {}},
        {kService, 34, CALL(&Svc::triggerDeviceQuitNetworking), {}, {}},
        {kService, 35, CALL(&Svc::addDeviceChangeListener, nodes), Wire(nodesBinder), Wire(true)},
        {kService, 36, CALL(&Svc::removeDeviceChangeListener, nodes), Wire(nodesBinder), {}},
        {kService, 37, CALL(&Svc::addDeviceChangeListenerPassive, nodes), Wire(nodesBinder), {}},
        {kService, 38, CALL(&Svc::removeDeviceChangeListenerPassive, nodes), Wire(nodesBinder), {}},
        {kService, 39, CALL(&Svc::getLocalBasicInfo), {}, Wire(1, "name39", 0x9C, "nid39")},
        {kService, 40, CALL(&Svc::getRemoteNodeBasicInfo, S("nid40")), Wire("nid40"), Wire(1, "name40", 0xF1, "nid40")},
        {kService, 41, CALL(&Svc::getRemoteNodesBasicInfo), {}, Wire(1, 2, 1, "a", 0x0A, "x", 1, "b", 0x9C, "y")},
        {kService, 42, CALL(&Svc::getNodeExtInfo, S("node"), S("key")), Wire("node", "key"), Wire("value")},
        {kService, 43, CALL(&Svc::getUdidByNodeId, S("nid43")), Wire("nid43"), Wire("udid43")},
        {kService, 44, CALL(&Svc::getUuidByNodeId, S("nid44")), Wire("nid44"), Wire("uuid44")},
        {kDevices, 1, CALL(&Devices::onDeviceOnline, DeviceInfoExternal()), Wire(1, "", "", "", ""), {}},
        {kDevices, 2, CALL(&Devices::onDeviceOffline, DeviceInfoExternal("name", "id", "type", "ip")),
         Wire(1, "id", "name", "type", "ip"), {}},
        {kNodes, 1, CALL(&Nodes::onDeviceOnline, NodeBasicInfoInner("n", Communication::DEVICE_TYPE_0A, "i")),
         Wire(1, "n", 0x0A, "i"), {}},
        {kNodes, 2, CALL(&Nodes::onDeviceOffline, NodeBasicInfoInner("m", Communication::DEVICE_TYPE_F1, "j")),
         Wire(1, "m", 0xF1, "j"), {}},
        {kNodes, 3, CALL(&Nodes::onDeviceInfoChanged, S("abc"), DeviceInfoTypeInner(2)), Wire("abc", 1, 2), {}},
    };
    return rows;
}

const Row* FindRow(const String16& descriptor, uint32_t code) {
    for (const Row& row : Rows()) {
        if (String16(row.descriptor) == descriptor && row.code == code) return &row;
    }
    return nullptr;
}

std::string Text(const Status& status) { return status.toString8().c_str(); }

TEST(Transactions, EveryRowTravelsByteForByteAndAFailedCallCarriesOnlyItsStatus) {
    const Status refusal = Status::fromServiceSpecificError(77, "refused");
    uint32_t expectedCode = 0;
    const char* previous = "";
    for (const Row& row : Rows()) {
        SCOPED_TRACE(std::string(row.descriptor) + " " + std::to_string(row.code) + ": " + row.call);
        expectedCode = std::string(row.descriptor) == previous ? expectedCode + 1 : 1;
        previous = row.descriptor;
        EXPECT_EQ(row.code, expectedCode) << "the rows list each interface's codes in order";
        const sp<IBinder> stub = NewStub(row.descriptor);
        Recorder* recorder = dynamic_cast<Recorder*>(stub.get());
        const bool oneWay = std::string(row.descriptor) != kService;

        Bytes output;
        const Status status = row.send(stub, &output);
        EXPECT_TRUE(status.isOk()) << Text(status);
        const Seen& seen = recorder->seen;
        EXPECT_EQ(seen.code, row.code);
        EXPECT_EQ(seen.flags, oneWay ? IBinder::FLAG_ONEWAY : 0u);
        EXPECT_EQ(seen.data, Cat(Token(row.descriptor), row.in));
        EXPECT_EQ(seen.inputs, row.in);
        EXPECT_EQ(seen.reply, oneWay ? Bytes{} : Cat(Written(Status::ok()), row.out));
        EXPECT_EQ(output, row.out);

        // A failure travels alone and whole to a two-way caller, whose output
        // stays as it was; a one-way method's status is dropped.
        recorder->answer = refusal;
        output.clear();
        const Status failed = row.send(stub, &output);
        EXPECT_EQ(seen.calls, 2);
        EXPECT_EQ(seen.reply, oneWay ? Bytes{} : Written(refusal));
        EXPECT_EQ(Text(failed), Text(oneWay ? Status::ok() : refusal));
        EXPECT_EQ(output, Bytes{});
    }
}

// Transactions that reach no method: the stub's result and what it writes to the reply.
TEST(Transactions, NullValuesFailedReadsMissingTokensAndUnknownCodesReachNoMethod) {
    const Bytes nullPointer = Written(Status::fromExceptionCode(Status::EX_NULL_POINTER));
    const struct {
        const char* descriptor;
        uint32_t code;
        Bytes data;
        status_t result;
        Bytes reply;
    } cases[] = {
        {kService, 1, Cat(Token(kService), Wire(sp<IBinder>())), OK, nullPointer},
        {kDevices, 2, Cat(Token(kDevices), Wire(0)), OK, nullPointer},
        {kNodes, 1, Cat(Token(kNodes), Wire(0)), OK, nullPointer},
        {kNodes, 3, Cat(Token(kNodes), Wire(-1)), OK, nullPointer},
        {kNodes, 3, Cat(Token(kNodes), Wire("abc", 0)), OK, nullPointer},
        {kNodes, 2, Cat(Token(kNodes), Wire(1, "n", -1, "i")), -1, {}},  // the record's own read fails
        {kService, 13, Wire("dev13"), BAD_TYPE, {}},
        {kNodes, 3, Cat(Token(kDevices), Wire("abc", 1, 2)), BAD_TYPE, {}},  // another interface's token
        {kService, 0, Token(kService), UNKNOWN_TRANSACTION, {}},
        {kService, 45, Token(kService), UNKNOWN_TRANSACTION, {}},
        {kDevices, 3, Token(kDevices), UNKNOWN_TRANSACTION, {}},
        {kNodes, 4, Token(kNodes), UNKNOWN_TRANSACTION, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.descriptor) + " " + std::to_string(c.code));
        const sp<IBinder> stub = NewStub(c.descriptor);
        Recorder* recorder = dynamic_cast<Recorder*>(stub.get());
        Parcel data;
        Parcel reply;
        Load(&data, c.data);
        EXPECT_EQ(stub->transact(c.code, data, &reply), c.result);
        EXPECT_EQ(Contents(reply), c.reply);
        EXPECT_EQ(recorder->seen.calls, 0);
    }
}

// A binder that answers every transaction with one code.
struct Answering : public BBinder {
    explicit Answering(status_t answer) : answer(answer) {}
    status_t onTransact(uint32_t, const Parcel&, Parcel*, uint32_t) override { return answer; }
    const status_t answer;
};

struct LocalExtInfo : public IDeviceMonitorServiceDefault {
    Status getNodeExtInfo(const String16& nodeId, const String16& key, String16* value) override {
        *value = nodeId;
        value->append(key);
        return Status::ok();
    }
};

// A default implementation lives in a std::unique_ptr to process exit, and
// the platform's RefBase keeps the counts of an object that no sp<> ever held:
// allocated here, that is not reported as a leak.
template <typename T>
std::unique_ptr<T> Unleaked() {
#ifdef TIVRA_TEST_LSAN
    __lsan::ScopedDisabler notCounted;
#endif
    return std::make_unique<T>();
}

// Installed once per process, so one test covers the whole rule.
TEST(DefaultImpl, TakesOverOnlyUnknownTransactionsAndTheFirstInstalledStays) {
    const sp<Svc> unknown = new Svc(new Answering(UNKNOWN_TRANSACTION));
    const sp<Svc> dead = new Svc(new Answering(DEAD_OBJECT));
    String16 value = S("untouched");
    Status status = unknown->getNodeExtInfo(S("n"), S("k"), &value);
    EXPECT_EQ(status.exceptionCode(), Status::EX_TRANSACTION_FAILED);
    EXPECT_EQ(status.transactionError(), UNKNOWN_TRANSACTION);
    EXPECT_EQ(value, S("untouched"));

    EXPECT_FALSE(IDeviceMonitorService::setDefaultImpl(nullptr));
    EXPECT_TRUE(IDeviceMonitorService::setDefaultImpl(Unleaked<LocalExtInfo>()));
    EXPECT_FALSE(IDeviceMonitorService::setDefaultImpl(Unleaked<IDeviceMonitorServiceDefault>()));
    status = unknown->getNodeExtInfo(S("n"), S("k"), &value);
    EXPECT_TRUE(status.isOk()) << Text(status);
    EXPECT_EQ(value, S("nk"));

    // What the installed object leaves to the plain default, and any other failure, answer as before.
    String16 udid = S("untouched");
    EXPECT_EQ(unknown->getUdidByNodeId(S("n"), &udid).transactionError(), UNKNOWN_TRANSACTION);
    EXPECT_EQ(udid, S("untouched"));
    EXPECT_EQ(dead->getNodeExtInfo(S("n"), S("k"), &udid).transactionError(), DEAD_OBJECT);
    EXPECT_EQ(udid, S("untouched"));
}

}  // namespace
