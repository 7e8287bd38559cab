#include "binderd_watch.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>

#include <binder/IServiceManager.h>

namespace tivra_tools {

namespace {

android::sp<android::IBinder> ServiceManagerBinder() {
    return android::IInterface::asBinder(android::defaultServiceManager());
}

}  // namespace

void WakeMainThread() { kill(getpid(), kWakeSignal); }

sigset_t BlockMainThreadSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, kWakeSignal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

int AwaitSignal(const sigset_t& signals, std::chrono::milliseconds timeout) {
    if (timeout.count() < 0) {
        int signal = 0;
        return sigwait(&signals, &signal) == 0 ? signal : 0;
    }
    const timespec wait{static_cast<time_t>(timeout.count() / 1000), static_cast<long>(timeout.count() % 1000) * 1000000};
    int signal;
    do {
        signal = sigtimedwait(&signals, nullptr, &wait);
    } while (signal < 0 && errno == EINTR);
    return signal < 0 ? 0 : signal;
}

bool BinderdWatch::Link() { return ServiceManagerBinder()->linkToDeath(this) == android::OK; }

void BinderdWatch::Unlink() { ServiceManagerBinder()->unlinkToDeath(this); }

void BinderdWatch::binderDied(const android::wp<android::IBinder>& /*who*/) {
    lost_ = true;
    WakeMainThread();
}

}  // namespace tivra_tools
