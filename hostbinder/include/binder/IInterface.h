#pragma once

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
