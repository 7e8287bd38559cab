#pragma once

// The frame shared by the three Binder interfaces: the steps of a proxy call
// and of a stub dispatch are written here once, as templates driven by a
// method's parameter types, and each interface lists only its transactions.
//
// An interface is described by a transaction table macro TABLE(X, C) that
// expands X(C, code, method, flags, parameters, arguments) once per method in
// code order. Parameters are the inputs in wire order and then the output, if
// any, as a pointer; arguments are the same names in parentheses. Types are
// named as seen from namespace service. C is the interface's stem
// (`DeviceListener` for `IDeviceListener`, `BpDeviceListener`,
// `BnDeviceListener` and `IDeviceListenerDefault`).

#include <cstddef>
#include <cstdint>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <binder/Parcelable.h>
#include <binder/Status.h>
#include <utils/Errors.h>
#include <utils/String16.h>
#include <utils/StrongPointer.h>

namespace com {
namespace solvane {
namespace pravik {
namespace service {
namespace frame {

constexpr uint32_t kTwoWay = 0;
constexpr uint32_t kOneWay = android::IBinder::FLAG_ONEWAY;

// One pair of platform parcel operations per value type; proxy and stub use
// the same pair, so inputs and outputs share them.
android::status_t Write(android::Parcel& parcel, const android::String16& value);
android::status_t Write(android::Parcel& parcel, int32_t value);
android::status_t Write(android::Parcel& parcel, int64_t value);
android::status_t Write(android::Parcel& parcel, bool value);
android::status_t Write(android::Parcel& parcel, const android::Parcelable& record);

android::status_t Read(const android::Parcel& parcel, android::String16* value);
android::status_t Read(const android::Parcel& parcel, int32_t* value);
android::status_t Read(const android::Parcel& parcel, int64_t* value);
android::status_t Read(const android::Parcel& parcel, bool* value);
android::status_t Read(const android::Parcel& parcel, android::Parcelable* record);

// A listener travels as the binder behind it; null is not checked.
template <typename Listener>
android::status_t Write(android::Parcel& parcel, const android::sp<Listener>& listener) {
    return parcel.writeStrongBinder(android::IInterface::asBinder(listener));
}

template <typename Listener>
android::status_t Read(const android::Parcel& parcel, android::sp<Listener>* listener) {
    android::sp<android::IBinder> binder;
    const android::status_t status = parcel.readStrongBinder(&binder);
    if (status != android::OK) {
        return status;
    }
    *listener = Listener::asInterface(binder);
    return *listener == nullptr ? android::UNKNOWN_ERROR : android::OK;
}

// A method's only output is its one pointer parameter.
template <typename Param>
constexpr bool kIsOutput = std::is_pointer_v<Param>;

template <typename Param, typename T>
android::status_t WriteIfInput(android::Parcel& parcel, const T& value) {
    if constexpr (kIsOutput<Param>) {
        return android::OK;
    } else {
        return Write(parcel, value);
    }
}

template <typename Param, typename T>
android::status_t WriteIfOutput(android::Parcel& parcel, const T& value) {
    if constexpr (kIsOutput<Param>) {
        return Write(parcel, value);
    } else {
        return android::OK;
    }
}

template <typename Param, typename T>
android::status_t ReadIfInput(const android::Parcel& parcel, T* value) {
    if constexpr (kIsOutput<Param>) {
        return android::OK;
    } else {
        return Read(parcel, value);
    }
}

template <typename Param, typename T>
android::status_t ReadIfOutput(const android::Parcel& parcel, const T& value) {
    if constexpr (kIsOutput<Param>) {
        return Read(parcel, value);
    } else {
        return android::OK;
    }
}

// The proxy side of one method: call it with the method's own arguments.
template <typename I, typename... Params>
class Transaction {
public:
    using Method = android::binder::Status (I::*)(Params...);

    Transaction(android::IBinder* remote, uint32_t code, uint32_t flags, Method method)
        : remote_(remote), code_(code), flags_(flags), method_(method) {}

    android::binder::Status operator()(Params... args) const {
        android::Parcel data;
        android::Parcel reply;
        // Each step runs only while every earlier one succeeded.
        android::status_t status = data.writeInterfaceToken(I::descriptor);
        ((status = status != android::OK ? status : WriteIfInput<Params>(data, args)), ...);
        if (status == android::OK) {
            status = remote_->transact(code_, data, &reply, flags_);
        }
        if (status == android::UNKNOWN_TRANSACTION && I::getDefaultImpl()) {
            return (I::getDefaultImpl().get()->*method_)(args...);
        }
        android::binder::Status result;
        if (status == android::OK && (flags_ & kOneWay) == 0) {
            status = result.readFromParcel(reply);
            if (status == android::OK && !result.isOk()) {
                return result;
            }
            ((status = status != android::OK ? status : ReadIfOutput<Params>(reply, args)), ...);
        }
        result.setFromStatusT(status);
        return result;
    }

private:
    android::IBinder* remote_;
    uint32_t code_;
    uint32_t flags_;
    Method method_;
};

template <typename I, typename... Params>
Transaction<I, Params...> MakeTransaction(android::IBinder* remote, uint32_t code, uint32_t flags,
                                          android::binder::Status (I::*method)(Params...)) {
    return Transaction<I, Params...>(remote, code, flags, method);
}

// The stub's local for a parameter: the value itself for inputs and outputs.
template <typename Param>
using Local = std::remove_cv_t<std::remove_pointer_t<std::remove_reference_t<Param>>>;

template <typename Param>
decltype(auto) Pass(Local<Param>& local) {
    if constexpr (kIsOutput<Param>) {
        return &local;
    } else {
        return static_cast<const Local<Param>&>(local);
    }
}

// The stub side of one method, after the code has chosen it.
template <uint32_t Flags, typename I, typename... Params>
android::status_t ServeCall(android::BnInterface<I>& stub, android::binder::Status (I::*method)(Params...),
                            const android::Parcel& data, android::Parcel* reply) {
    std::tuple<Local<Params>...> locals;
    if (!data.checkInterface(&stub)) {
        return android::BAD_TYPE;
    }
    return std::apply(
        [&](Local<Params>&... values) -> android::status_t {
            android::status_t status = android::OK;
            ((status = status != android::OK ? status : ReadIfInput<Params>(data, &values)), ...);
            if (status != android::OK) {
                return status;
            }
            const android::binder::Status result = (stub.*method)(Pass<Params>(values)...);
            if constexpr ((Flags & kOneWay) != 0) {
                // Nobody waits for a one-way call: its status is dropped.
                return android::OK;
            } else {
                status = result.writeToParcel(reply);
                if (status != android::OK || !result.isOk()) {
                    return status;
                }
                ((status = status != android::OK ? status : WriteIfOutput<Params>(*reply, values)), ...);
                return status;
            }
        },
        locals);
}

template <typename I>
using StubServe = android::status_t (*)(android::BnInterface<I>& stub, const android::Parcel& data,
                                        android::Parcel* reply);

template <typename I, uint32_t Flags, auto Method>
android::status_t Serve(android::BnInterface<I>& stub, const android::Parcel& data, android::Parcel* reply) {
    return ServeCall<Flags>(stub, Method, data, reply);
}

template <typename I>
struct StubEntry {
    uint32_t code;
    StubServe<I> serve;
};

// The table is indexed by code, so it must list codes 1, 2, 3... in order.
template <typename I, size_t N>
constexpr bool NumberedFromFirstCall(const StubEntry<I> (&entries)[N]) {
    for (size_t i = 0; i < N; ++i) {
        if (entries[i].code != android::IBinder::FIRST_CALL_TRANSACTION + i) {
            return false;
        }
    }
    return true;
}

// Null for a code outside the table.
template <typename I, size_t N>
StubServe<I> FindServe(const StubEntry<I> (&entries)[N], uint32_t code) {
    if (code < android::IBinder::FIRST_CALL_TRANSACTION || code - android::IBinder::FIRST_CALL_TRANSACTION >= N) {
        return nullptr;
    }
    return entries[code - android::IBinder::FIRST_CALL_TRANSACTION].serve;
}

// A missing non-nullable value becomes an EX_NULL_POINTER status in the reply.
android::status_t NullToException(android::status_t result, android::Parcel* reply);

template <typename I, typename Proxy>
android::sp<I> AsInterface(const android::sp<android::IBinder>& binder) {
    if (binder == nullptr) {
        return nullptr;
    }
    const android::sp<android::IInterface> local = binder->queryLocalInterface(I::descriptor);
    if (local != nullptr) {
        return static_cast<I*>(local.get());
    }
    return android::sp<I>(new Proxy(binder));
}

// The first installed object stays; an empty offer is refused.
template <typename I>
bool InstallDefault(std::unique_ptr<I>& slot, std::unique_ptr<I> offered) {
    if (slot || !offered) {
        return false;
    }
    slot = std::move(offered);
    return true;
}

template <typename... Args>
android::binder::Status UnknownTransaction(const Args&... /*ignored*/) {
    return android::binder::Status::fromStatusT(android::UNKNOWN_TRANSACTION);
}

}  // namespace frame
}  // namespace service
}  // namespace pravik
}  // namespace solvane
}  // namespace com

// Expansions of a transaction table row.
#define TIVRA_FRAME_DECLARE_PURE(C, code, method, flags, params, args) \
    virtual ::android::binder::Status method params = 0;
#define TIVRA_FRAME_DECLARE_OVERRIDE(C, code, method, flags, params, args) \
    ::android::binder::Status method params override;
#define TIVRA_FRAME_DEFINE_DEFAULT(C, code, method, flags, params, args) \
    ::android::binder::Status I##C##Default::method params {             \
        return ::com::solvane::pravik::service::frame::UnknownTransaction args; \
    }
#define TIVRA_FRAME_DEFINE_PROXY(C, code, method, flags, params, args)                            \
    ::android::binder::Status Bp##C::method params {                                               \
        return ::com::solvane::pravik::service::frame::MakeTransaction(remote(), code, flags,      \
                                                                       &I##C::method) args;        \
    }
#define TIVRA_FRAME_STUB_ENTRY(C, code, method, flags, params, args) \
    {code, &::com::solvane::pravik::service::frame::Serve<I##C, flags, &I##C::method>},

// The four classes of an interface, in its header (inside namespace service).
#define TIVRA_FRAME_DECLARE_INTERFACE(C, TABLE)                                                  \
    class Bp##C;                                                                                 \
    class I##C : public ::android::IInterface {                                                  \
    public:                                                                                      \
        static const ::android::String16 descriptor;                                             \
        static ::android::sp<I##C> asInterface(const ::android::sp<::android::IBinder>& binder); \
        static bool setDefaultImpl(std::unique_ptr<I##C> impl);                                  \
        static const std::unique_ptr<I##C>& getDefaultImpl();                                    \
        virtual const ::android::String16& getInterfaceDescriptor() const;                       \
        TABLE(TIVRA_FRAME_DECLARE_PURE, C)                                                       \
                                                                                                 \
    private:                                                                                     \
        static std::unique_ptr<I##C> default_impl;                                               \
    };                                                                                           \
    class I##C##Default : public I##C {                                                          \
    public:                                                                                      \
        TABLE(TIVRA_FRAME_DECLARE_OVERRIDE, C)                                                   \
                                                                                                 \
    protected:                                                                                   \
        ::android::IBinder* onAsBinder() override;                                               \
    };                                                                                           \
    class Bp##C : public ::android::BpInterface<I##C> {                                          \
    public:                                                                                      \
        explicit Bp##C(const ::android::sp<::android::IBinder>& remote);                         \
        TABLE(TIVRA_FRAME_DECLARE_OVERRIDE, C)                                                   \
    };                                                                                           \
    class Bn##C : public ::android::BnInterface<I##C> {                                          \
    public:                                                                                      \
        ::android::status_t onTransact(uint32_t code, const ::android::Parcel& data,             \
                                       ::android::Parcel* reply, uint32_t flags = 0) override;   \
    };

// Their definitions, in the interface's source (inside namespace service).
#define TIVRA_FRAME_DEFINE_INTERFACE(C, DESCRIPTOR, TABLE)                                               \
    const ::android::String16 I##C::descriptor(DESCRIPTOR);                                              \
    std::unique_ptr<I##C> I##C::default_impl;                                                            \
    ::android::sp<I##C> I##C::asInterface(const ::android::sp<::android::IBinder>& binder) {             \
        return ::com::solvane::pravik::service::frame::AsInterface<I##C, Bp##C>(binder);                 \
    }                                                                                                    \
    bool I##C::setDefaultImpl(std::unique_ptr<I##C> impl) {                                              \
        return ::com::solvane::pravik::service::frame::InstallDefault(default_impl, std::move(impl));    \
    }                                                                                                    \
    const std::unique_ptr<I##C>& I##C::getDefaultImpl() { return default_impl; }                         \
    const ::android::String16& I##C::getInterfaceDescriptor() const { return descriptor; }               \
    TABLE(TIVRA_FRAME_DEFINE_DEFAULT, C)                                                                 \
    ::android::IBinder* I##C##Default::onAsBinder() { return nullptr; }                                  \
    Bp##C::Bp##C(const ::android::sp<::android::IBinder>& remote) : ::android::BpInterface<I##C>(remote) {} \
    TABLE(TIVRA_FRAME_DEFINE_PROXY, C)                                                                   \
    ::android::status_t Bn##C::onTransact(uint32_t code, const ::android::Parcel& data,                  \
                                          ::android::Parcel* reply, uint32_t flags) {                    \
        static constexpr ::com::solvane::pravik::service::frame::StubEntry<I##C> kEntries[] = {         \
            TABLE(TIVRA_FRAME_STUB_ENTRY, C)};                                                           \
        static_assert(::com::solvane::pravik::service::frame::NumberedFromFirstCall(kEntries));         \
        const auto serve = ::com::solvane::pravik::service::frame::FindServe(kEntries, code);           \
        return ::com::solvane::pravik::service::frame::NullToException(                                \
            serve != nullptr ? serve(*this, data, reply) : BBinder::onTransact(code, data, reply, flags), \
            reply);                                                                                      \
    }
