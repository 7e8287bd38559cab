#pragma once

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

}  // namespace android
