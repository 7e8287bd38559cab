#pragma once

#include <memory>

#include <binder/Binder.h>
#include <binder/IBinder.h>

namespace android {

// Base of every Binder interface: an interface object can always give the
// binder that carries it across processes.
class IInterface : public virtual RefBase {
public:
    IInterface();
    static sp<IBinder> asBinder(const IInterface* iface);
    static sp<IBinder> asBinder(const sp<IInterface>& iface);

protected:
    virtual ~IInterface();
    virtual IBinder* onAsBinder() = 0;
};

// The local object when the binder lives here, else a proxy; the descriptor is
// not checked (a mismatched proxy fails its calls instead).
template <typename INTERFACE>
inline sp<INTERFACE> interface_cast(const sp<IBinder>& obj) {
    return INTERFACE::asInterface(obj);
}

// The service side of INTERFACE: a local binder implementing it.
template <typename INTERFACE>
class BnInterface : public INTERFACE, public BBinder {
public:
    sp<IInterface> queryLocalInterface(const String16& descriptor) override;
    const String16& getInterfaceDescriptor() const override;

protected:
    typedef INTERFACE BaseInterface;
    IBinder* onAsBinder() override;
};

// The client side of INTERFACE: forwards calls to a remote binder.
template <typename INTERFACE>
class BpInterface : public INTERFACE, public BpRefBase {
public:
    explicit BpInterface(const sp<IBinder>& remote);

protected:
    typedef INTERFACE BaseInterface;
    IBinder* onAsBinder() override;
};

// The members an interface I<NAME> declares in its class and defines once in
// a source file, as interface code (generated or written) expects them: the
// descriptor, asInterface (the local object, else a new Bp<NAME>), the
// default implementation used when a peer does not know a call, and the
// constructor and destructor.
#define DECLARE_META_INTERFACE(INTERFACE)                                   \
public:                                                                     \
    static const ::android::String16 descriptor;                            \
    static ::android::sp<I##INTERFACE> asInterface(const ::android::sp<::android::IBinder>& obj); \
    virtual const ::android::String16& getInterfaceDescriptor() const;      \
    I##INTERFACE();                                                         \
    virtual ~I##INTERFACE();                                                \
    static bool setDefaultImpl(std::unique_ptr<I##INTERFACE> impl);         \
    static const std::unique_ptr<I##INTERFACE>& getDefaultImpl();           \
                                                                            \
private:                                                                    \
    static std::unique_ptr<I##INTERFACE> default_impl;                      \
                                                                            \
public:

#define DO_NOT_DIRECTLY_USE_ME_IMPLEMENT_META_INTERFACE(INTERFACE, NAME)                           \
    const ::android::String16 I##INTERFACE::descriptor(NAME);                                      \
    const ::android::String16& I##INTERFACE::getInterfaceDescriptor() const { return descriptor; } \
    ::android::sp<I##INTERFACE> I##INTERFACE::asInterface(const ::android::sp<::android::IBinder>& obj) { \
        if (obj == nullptr) {                                                                      \
            return nullptr;                                                                        \
        }                                                                                          \
        const ::android::sp<::android::IInterface> local = obj->queryLocalInterface(descriptor);  \
        if (local != nullptr) {                                                                    \
            return static_cast<I##INTERFACE*>(local.get());                                        \
        }                                                                                          \
        return new Bp##INTERFACE(obj);                                                             \
    }                                                                                              \
    std::unique_ptr<I##INTERFACE> I##INTERFACE::default_impl;                                      \
    bool I##INTERFACE::setDefaultImpl(std::unique_ptr<I##INTERFACE> impl) {                        \
        /* The first implementation installed stays. */                                            \
        if (default_impl || !impl) {                                                               \
            return false;                                                                          \
        }                                                                                          \
        default_impl = std::move(impl);                                                            \
        return true;                                                                               \
    }                                                                                              \
    const std::unique_ptr<I##INTERFACE>& I##INTERFACE::getDefaultImpl() { return default_impl; }   \
    I##INTERFACE::I##INTERFACE() {}                                                                \
    I##INTERFACE::~I##INTERFACE() {}

#define IMPLEMENT_META_INTERFACE(INTERFACE, NAME) DO_NOT_DIRECTLY_USE_ME_IMPLEMENT_META_INTERFACE(INTERFACE, NAME)

template <typename INTERFACE>
inline sp<IInterface> BnInterface<INTERFACE>::queryLocalInterface(const String16& descriptor) {
    if (descriptor == INTERFACE::descriptor) {
        return sp<IInterface>(static_cast<INTERFACE*>(this));
    }
    return nullptr;
}

template <typename INTERFACE>
inline const String16& BnInterface<INTERFACE>::getInterfaceDescriptor() const {
    return INTERFACE::descriptor;
}

template <typename INTERFACE>
inline IBinder* BnInterface<INTERFACE>::onAsBinder() {
    return this;
}

template <typename INTERFACE>
inline BpInterface<INTERFACE>::BpInterface(const sp<IBinder>& remote) : BpRefBase(remote) {}

template <typename INTERFACE>
inline IBinder* BpInterface<INTERFACE>::onAsBinder() {
    return remote();
}

}  // namespace android
