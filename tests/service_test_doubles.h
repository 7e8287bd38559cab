#pragma once

// Test doubles of the service protocol: stubs that record what reaches their
// methods, a binder that records raw transactions, and a generic caller that
// drives any interface method with sample values.

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <gtest/gtest.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#define TIVRA_TEST_LEAK_CHECKER
#endif
#endif

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "i_device_change_listener.h"
#include "i_device_listener.h"
#include "i_device_monitor_service.h"

namespace tivra_service_test {

using android::binder::Status;
using namespace com::solvane::pravik::deviceinfo;
using namespace com::solvane::pravik::service;
// The transaction tables name types as seen from namespace service.
namespace deviceinfo = com::solvane::pravik::deviceinfo;

template <typename T>
struct Tag {
    using type = T;
};

// The recording stub of an interface, by its strong pointer.
template <typename I>
struct RecordingOf;

std::string Utf8(const android::String16& text);
// "<prefix><code>.<position>"
std::string Numbered(const char* prefix, uint32_t code, size_t position);
DeviceInfoExternalList DeviceListOf(std::initializer_list<DeviceInfoExternal> devices);
NodeBasicInfoList NodeListOf(std::initializer_list<NodeBasicInfoInner> nodes);

// Wire types with their names as the transaction tables write them.
using WireTypes = std::tuple<android::String16, int32_t, int64_t, bool, DeviceInfoExternal, DeviceInfoExternalList,
                             NodeBasicInfoInner, NodeBasicInfoList, DeviceInfoTypeInner,
                             android::sp<IDeviceChangeListener>, android::sp<IDeviceListener>>;
constexpr const char* kWireNames[] = {"String16",
                                      "int32",
                                      "int64",
                                      "bool",
                                      "DeviceInfoExternal",
                                      "DeviceInfoExternalList",
                                      "NodeBasicInfoInner",
                                      "NodeBasicInfoList",
                                      "DeviceInfoTypeInner",
                                      "IDeviceChangeListener",
                                      "IDeviceListener"};
static_assert(std::size(kWireNames) == std::tuple_size_v<WireTypes>);

template <typename T, size_t Index = 0>
constexpr const char* WireName() {
    if constexpr (std::is_same_v<T, std::tuple_element_t<Index, WireTypes>>) {
        return kWireNames[Index];
    } else {
        return WireName<T, Index + 1>();
    }
}

// Readable text of a value, so that what was sent and what arrived compare.
template <typename T>
std::string Describe(const T& value) {
    if constexpr (std::is_same_v<T, android::String16>) {
        return "String16 \"" + Utf8(value) + "\"";
    } else if constexpr (std::is_same_v<T, bool>) {
        return value ? "bool true" : "bool false";
    } else if constexpr (std::is_integral_v<T>) {
        return "int" + std::to_string(sizeof(T) * 8) + " " + std::to_string(value);
    } else if constexpr (std::is_same_v<T, DeviceInfoExternal>) {
        return "device{" + value.GetDeviceId() + "|" + value.GetDeviceName() + "|" + value.GetDeviceType() + "|" +
               value.GetDeviceIp() + "}";
    } else if constexpr (std::is_same_v<T, NodeBasicInfoInner>) {
        return "node{" + value.GetName() + "|" + std::to_string(value.GetDeviceType()) + "|" + value.GetNodeId() + "}";
    } else if constexpr (std::is_same_v<T, DeviceInfoTypeInner>) {
        return "kind " + std::to_string(value.getValue());
    } else if constexpr (std::is_same_v<T, DeviceInfoExternalList>) {
        std::string text = "devices[";
        for (const DeviceInfoExternal& device : value.GetDeviceInfoExternalList()) {
            text += Describe(device);
        }
        return text + "]";
    } else if constexpr (std::is_same_v<T, NodeBasicInfoList>) {
        std::string text = "nodes[";
        for (const NodeBasicInfoInner& node : value.GetNodeBasicInfoList()) {
            text += Describe(node);
        }
        return text + "]";
    } else {
        // A listener shows only its interface: its binder differs between processes. That it leads back to the
        // caller's object shows in the call back that a recording stub makes (CallBack below).
        return std::string(WireName<T>()) + (value == nullptr ? " null" : "");
    }
}

// Known device kinds only: an unknown code would not survive the record.
constexpr Communication::DeviceType kSampleKinds[] = {Communication::DEVICE_TYPE_0A, Communication::DEVICE_TYPE_9C,
                                                      Communication::DEVICE_TYPE_F1};

// Inputs that differ per code and per position, so that a swapped, dropped or
// truncated value shows.
template <typename T>
T SampleInput(uint32_t code, size_t position) {
    if constexpr (std::is_same_v<T, android::String16>) {
        // A character outside ASCII checks the UTF-16 text whole.
        return android::String16((Numbered("in", code, position) + "-\xc3\xbc").c_str());
    } else if constexpr (std::is_same_v<T, bool>) {
        return (code + position) % 2 == 1;
    } else if constexpr (std::is_same_v<T, int32_t>) {
        return -static_cast<int32_t>(code * 1000 + position);
    } else if constexpr (std::is_same_v<T, int64_t>) {
        // Above 2^32, so that a value cut to 32 bits shows.
        return (static_cast<int64_t>(code) << 35) + static_cast<int64_t>(position) + 1;
    } else if constexpr (std::is_same_v<T, DeviceInfoExternal>) {
        return DeviceInfoExternal(Numbered("name", code, position), Numbered("id", code, position),
                                  Numbered("type", code, position), Numbered("10.0.", code, position));
    } else if constexpr (std::is_same_v<T, NodeBasicInfoInner>) {
        return NodeBasicInfoInner(Numbered("node", code, position), kSampleKinds[(code + position) % 3],
                                  Numbered("nid", code, position));
    } else if constexpr (std::is_same_v<T, DeviceInfoTypeInner>) {
        return DeviceInfoTypeInner(static_cast<int>(code + position));
    } else {
        // One listener object per interface, alive for the whole run.
        static const T listener = new typename RecordingOf<T>::type();
        return listener;
    }
}

// What a recording stub puts into an output for a code.
template <typename T>
T ProducedOutput(uint32_t code) {
    if constexpr (std::is_same_v<T, android::String16>) {
        return android::String16(("out" + std::to_string(code)).c_str());
    } else if constexpr (std::is_same_v<T, bool>) {
        return true;
    } else if constexpr (std::is_same_v<T, int32_t>) {
        return static_cast<int32_t>(code) * 7 + 1;
    } else if constexpr (std::is_same_v<T, DeviceInfoExternalList>) {
        return DeviceListOf({SampleInput<DeviceInfoExternal>(code, 91), SampleInput<DeviceInfoExternal>(code, 92)});
    } else if constexpr (std::is_same_v<T, NodeBasicInfoList>) {
        return NodeListOf({SampleInput<NodeBasicInfoInner>(code, 94), SampleInput<NodeBasicInfoInner>(code, 95)});
    } else {
        return SampleInput<T>(code, 90);
    }
}

// What the caller's output object holds before the call: never a produced value.
template <typename T>
T UntouchedOutput() {
    if constexpr (std::is_same_v<T, android::String16>) {
        return android::String16("untouched");
    } else if constexpr (std::is_same_v<T, bool>) {
        return false;
    } else if constexpr (std::is_same_v<T, int32_t>) {
        return -1;
    } else if constexpr (std::is_same_v<T, DeviceInfoExternalList>) {
        return DeviceListOf({UntouchedOutput<DeviceInfoExternal>()});
    } else if constexpr (std::is_same_v<T, NodeBasicInfoList>) {
        return NodeListOf({UntouchedOutput<NodeBasicInfoInner>()});
    } else {
        // A record of one code that no call uses.
        return SampleInput<T>(0, 0);
    }
}

// One method as the stub saw it.
struct Received {
    std::string method;
    std::vector<std::string> inputs;
};

// One transaction as it reached a stub, before the stub read it.
struct WireTransaction {
    uint32_t code;
    uint32_t flags;
    std::vector<uint8_t> data;
};

// Everything a recording stub saw since it was last asked.
struct CallRecord {
    std::vector<WireTransaction> transactions;
    std::vector<Received> received;
};

template <typename T>
struct IsListener : std::false_type {};
template <typename Listener>
struct IsListener<android::sp<Listener>> : std::true_type {
    using Interface = Listener;
};

// A recording stub that answers OK calls every listener it received back
// once, with a record made for the call's code, so that a test sees the
// binder lead back to the caller's object.
constexpr size_t kCallBackPosition = 80;

template <typename Listener>
struct CallBackOf;
template <>
struct CallBackOf<IDeviceChangeListener> {
    using Record = DeviceInfoExternal;
};
template <>
struct CallBackOf<IDeviceListener> {
    using Record = NodeBasicInfoInner;
};

template <typename Listener>
Status CallBack(const android::sp<Listener>& listener, uint32_t code) {
    return listener->onDeviceOnline(SampleInput<typename CallBackOf<Listener>::Record>(code, kCallBackPosition));
}

template <typename Listener>
Received ExpectedCallBack(uint32_t code) {
    return {"onDeviceOnline", {Describe(SampleInput<typename CallBackOf<Listener>::Record>(code, kCallBackPosition))}};
}

// The part of a recording stub that does not depend on its interface. Binder
// threads record while a test reads, so every access holds the lock.
class CallLog {
public:
    // Waits until `calls` methods have been reached or the timeout has passed,
    // then hands over all that was recorded and starts afresh.
    CallRecord Take(size_t calls = 0, std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // What every method answers from now on; outputs are filled only when it is OK.
    void Answer(const Status& answer);

protected:
    template <typename... Args>
    Status Record(const char* method, std::tuple<Args&...> args) {
        std::unique_lock<std::mutex> lock(mutex_);
        Received call{method, {}};
        std::apply([&](Args&... values) { (AppendInput(call.inputs, values), ...); }, args);
        record_.received.push_back(call);
        methodReached_.notify_all();
        if (!answer_.isOk()) {
            return answer_;
        }
        std::apply([&](Args&... values) { (FillOutput(values), ...); }, args);
        const uint32_t code = lastCode_;
        // A listener across processes answers on its own thread: never call out holding the lock.
        lock.unlock();
        std::apply([&](Args&... values) { (CallBackIfListener(values, code), ...); }, args);
        return Status::ok();
    }

    void RecordWire(uint32_t code, uint32_t flags, const android::Parcel& data);

private:
    template <typename T>
    static void AppendInput(std::vector<std::string>& inputs, const T& value) {
        inputs.push_back(Describe(value));
    }
    template <typename T>
    static void AppendInput(std::vector<std::string>& /*inputs*/, T* /*output*/) {}

    template <typename T>
    void FillOutput(const T& /*input*/) {}
    template <typename T>
    void FillOutput(T* output) {
        *output = ProducedOutput<T>(lastCode_);
    }

    template <typename T>
    static void CallBackIfListener(const T& value, uint32_t code) {
        if constexpr (IsListener<T>::value) {
            // One-way: nothing comes back to check.
            CallBack(value, code);
        }
    }

    std::mutex mutex_;
    std::condition_variable methodReached_;
    CallRecord record_;
    Status answer_ = Status::ok();
    uint32_t lastCode_ = 0;
};

#define TIVRA_TEST_RECORD_METHOD(C, code, method, flags, params, args) \
    Status method params override { return Record(#method, std::forward_as_tuple args); }

// A stub of interface I##C that records each call and its wire code and flags.
#define TIVRA_TEST_RECORDING_STUB(C, TABLE)                                                              \
    class Recording##C : public Bn##C, public CallLog {                                                  \
    public:                                                                                              \
        android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply, \
                                     uint32_t flags) override {                                          \
            RecordWire(code, flags, data);                                                               \
            return Bn##C::onTransact(code, data, reply, flags);                                          \
        }                                                                                                \
        TABLE(TIVRA_TEST_RECORD_METHOD, C)                                                               \
    };                                                                                                   \
    template <>                                                                                          \
    struct RecordingOf<android::sp<I##C>> {                                                              \
        using type = Recording##C;                                                                       \
    };

TIVRA_TEST_RECORDING_STUB(DeviceMonitorService, TIVRA_DEVICE_MONITOR_SERVICE_TRANSACTIONS)
TIVRA_TEST_RECORDING_STUB(DeviceChangeListener, TIVRA_DEVICE_CHANGE_LISTENER_TRANSACTIONS)
TIVRA_TEST_RECORDING_STUB(DeviceListener, TIVRA_DEVICE_LISTENER_TRANSACTIONS)

// A binder that keeps every transaction it receives and answers with a fixed
// code; a two-way call also gets an OK status in its reply.
class RecordingBinder : public android::BBinder {
public:
    explicit RecordingBinder(android::status_t result) : result_(result) {}

    uint32_t code = 0;
    uint32_t flags = 0;
    std::vector<uint8_t> data;
    int transactions = 0;

protected:
    android::status_t onTransact(uint32_t transactionCode, const android::Parcel& parcel, android::Parcel* reply,
                                 uint32_t transactionFlags) override;

private:
    android::status_t result_;
};

// A default implementation lives in a std::unique_ptr to process exit, and
// the platform's RefBase keeps the counts of an object that no sp<> ever held:
// allocated here, that is not reported as a leak.
template <typename T>
std::unique_ptr<T> MakeDefaultImpl() {
#ifdef TIVRA_TEST_LEAK_CHECKER
    __lsan::ScopedDisabler notCounted;
#endif
    return std::make_unique<T>();
}

// Proxies are reference counted like every Binder object, never on the stack.
template <typename Bp>
android::sp<Bp> ProxyOn(const android::sp<android::IBinder>& remote) {
    return new Bp(remote);
}

// The bytes of a parcel.
std::vector<uint8_t> Bytes(const android::Parcel& parcel);

// A listener passed in a call: its log and the call back it should see.
struct ListenerSent {
    CallLog* log;
    Received callBack;
};

// The log of a sample listener, which is always a recording stub.
template <typename Listener>
CallLog& LogOf(const android::sp<Listener>& listener) {
    return static_cast<typename RecordingOf<android::sp<Listener>>::type&>(*listener);
}

// One call made with sample inputs and an untouched output object.
struct Outcome {
    Status status;
    std::string shape;  // "int32,int64->" or "String16->bool": inputs, then the output
    std::vector<std::string> sent;
    std::string output;          // the caller's output object after the call
    std::string producedOutput;  // what the recording stub fills in on success
    std::string untouchedOutput;
    std::vector<ListenerSent> listeners;
};

template <typename I>
using Caller = Outcome (*)(I& target, uint32_t code);

template <typename Param>
using Value = std::remove_cv_t<std::remove_pointer_t<std::remove_reference_t<Param>>>;

template <typename Param>
Value<Param> Initial(uint32_t code, size_t position) {
    if constexpr (std::is_pointer_v<Param>) {
        return UntouchedOutput<Value<Param>>();
    } else {
        return SampleInput<Value<Param>>(code, position);
    }
}

template <typename Param>
decltype(auto) Argument(Value<Param>& value) {
    if constexpr (std::is_pointer_v<Param>) {
        return &value;
    } else {
        return static_cast<const Value<Param>&>(value);
    }
}

template <typename I, typename... Params, size_t... Position>
Outcome CallWithSamples(I& target, Status (I::*method)(Params...), uint32_t code,
                        std::index_sequence<Position...> /*positions*/) {
    std::tuple<Value<Params>...> values{Initial<Params>(code, Position)...};
    Outcome outcome;
    std::string inputs;
    std::string output;
    auto note = [&](auto param, const auto& value) {
        using Param = typename decltype(param)::type;
        if constexpr (std::is_pointer_v<Param>) {
            output = WireName<Value<Param>>();
            outcome.producedOutput = Describe(ProducedOutput<Value<Param>>(code));
            outcome.untouchedOutput = Describe(value);
        } else {
            inputs += (inputs.empty() ? "" : ",") + std::string(WireName<Value<Param>>());
            outcome.sent.push_back(Describe(value));
            if constexpr (IsListener<Value<Param>>::value) {
                using Listener = typename IsListener<Value<Param>>::Interface;
                outcome.listeners.push_back({&LogOf(value), ExpectedCallBack<Listener>(code)});
            }
        }
    };
    (note(Tag<Params>{}, std::get<Position>(values)), ...);
    outcome.shape = inputs + "->" + output;
    outcome.status = (target.*method)(Argument<Params>(std::get<Position>(values))...);
    auto read = [&](auto param, const auto& value) {
        if constexpr (std::is_pointer_v<typename decltype(param)::type>) {
            outcome.output = Describe(value);
        }
    };
    (read(Tag<Params>{}, std::get<Position>(values)), ...);
    return outcome;
}

template <typename I, typename... Params>
Outcome CallWithSamples(I& target, Status (I::*method)(Params...), uint32_t code) {
    return CallWithSamples(target, method, code, std::index_sequence_for<Params...>{});
}

template <auto Method, typename I>
Outcome CallMethod(I& target, uint32_t code) {
    return CallWithSamples(target, Method, code);
}

// A method of the interface by its name, callable with sample values.
template <typename I>
struct NamedCaller {
    const char* method;
    Caller<I> call;
};

#define TIVRA_TEST_CALLER(C, code, method, flags, params, args) \
    NamedCaller<I##C>{#method, &CallMethod<&I##C::method, I##C>},

}  // namespace tivra_service_test

namespace tivra_service_test {

// One interface under test: its classes and the flags of its transactions.
template <typename Interface, typename Fallback, typename Proxy, typename Stub, uint32_t Flags, uint32_t LastCode>
struct Protocol {
    using I = Interface;
    using Default = Fallback;
    using Bp = Proxy;
    using Recording = Stub;
    static constexpr uint32_t kFlags = Flags;
    static constexpr uint32_t kLastCode = LastCode;
};

using DeviceMonitorServiceProtocol = Protocol<IDeviceMonitorService, IDeviceMonitorServiceDefault,
                                              BpDeviceMonitorService, RecordingDeviceMonitorService, 0, 44>;
using DeviceChangeListenerProtocol =
    Protocol<IDeviceChangeListener, IDeviceChangeListenerDefault, BpDeviceChangeListener, RecordingDeviceChangeListener,
             android::IBinder::FLAG_ONEWAY, 2>;
using DeviceListenerProtocol = Protocol<IDeviceListener, IDeviceListenerDefault, BpDeviceListener,
                                        RecordingDeviceListener, android::IBinder::FLAG_ONEWAY, 3>;

using Protocols = ::testing::Types<DeviceMonitorServiceProtocol, DeviceChangeListenerProtocol, DeviceListenerProtocol>;

// A test type made for each interface, e.g. a transport to it.
template <template <typename> class PerProtocol>
using ForEachProtocol = ::testing::Types<PerProtocol<DeviceMonitorServiceProtocol>,
                                         PerProtocol<DeviceChangeListenerProtocol>, PerProtocol<DeviceListenerProtocol>>;

}  // namespace tivra_service_test
