#include "service_ipc_host.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <unistd.h>

#include <cstdio>

#include "service_remote_call_log.h"
#include "service_test_doubles.h"

namespace tivra_service_test {
namespace {

android::String16 LogName(const android::String16& descriptor) {
    android::String16 name(descriptor);
    name.append(android::String16(".log"));
    return name;
}

template <typename Stub>
bool Register(const android::sp<Stub>& stub) {
    const android::sp<android::IServiceManager> manager = android::defaultServiceManager();
    return manager->addService(Stub::descriptor, stub) == android::OK &&
           manager->addService(LogName(Stub::descriptor), new CallLogControl(stub)) == android::OK;
}

// The body of the host process; it serves until it is killed.
int ServeRecordingStubs(const tivra_test::Channel& events) {
    android::ProcessState::self()->startThreadPool();
    CHILD_CHECK(Register(android::sp<RecordingDeviceMonitorService>(new RecordingDeviceMonitorService())));
    CHILD_CHECK(Register(android::sp<RecordingDeviceChangeListener>(new RecordingDeviceChangeListener())));
    CHILD_CHECK(Register(android::sp<RecordingDeviceListener>(new RecordingDeviceListener())));
    events.post("ready");
    android::IPCThreadState::self()->joinThreadPool();
    return 0;
}

}  // namespace

ServiceHost& ServiceHost::Shared() {
    static ServiceHost host;
    return host;
}

ServiceHost::ServiceHost() {
    if (!session_.started()) {
        error_ = session_.error();
        return;
    }
    tivra_test::Channel events;
    session_.spawn([&events] { return ServeRecordingStubs(events); });
    if (events.next() != "ready") {
        error_ = "the recording stubs were not registered";
        return;
    }
    // Listeners passed to the host are called back on this process's pool.
    android::ProcessState::self()->startThreadPool();
}

android::sp<android::IBinder> ServiceHost::StubOf(const android::String16& descriptor) const {
    return error_.empty() ? android::defaultServiceManager()->checkService(descriptor) : nullptr;
}

android::sp<android::IBinder> ServiceHost::LogOf(const android::String16& descriptor) const {
    return error_.empty() ? android::defaultServiceManager()->checkService(LogName(descriptor)) : nullptr;
}

}  // namespace tivra_service_test
