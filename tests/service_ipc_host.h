#pragma once

// One private binderd and one child process serving a recording stub of each
// interface, shared by every test of the program. Each stub is registered
// under its interface's descriptor, and the control of its log under the
// descriptor plus ".log". Both processes go when the program ends, whatever
// the tests' outcome.

#include <binder/IBinder.h>
#include <utils/String16.h>

#include <string>

#include "binderd_fixture.h"

namespace tivra_service_test {

class ServiceHost {
public:
    // Started on first use, before this process touches Binder itself.
    static ServiceHost& Shared();

    // Empty when the host is up.
    const std::string& error() const { return error_; }
    // In this process; null when the host is down.
    android::sp<android::IBinder> StubOf(const android::String16& descriptor) const;
    android::sp<android::IBinder> LogOf(const android::String16& descriptor) const;

private:
    ServiceHost();

    tivra_test::BinderdSession session_;
    std::string error_;
};

}  // namespace tivra_service_test
