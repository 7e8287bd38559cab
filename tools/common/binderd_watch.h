#pragma once

#include <signal.h>

#include <atomic>
#include <chrono>

#include <binder/IBinder.h>

namespace tivra_tools {

// A Binder thread wakes the main thread with this signal, sent to its own
// process; the signal is blocked in every thread and the main thread waits
// for it beside SIGINT and SIGTERM.
constexpr int kWakeSignal = SIGUSR1;
void WakeMainThread();

// Blocks SIGINT, SIGTERM and the wake signal in the calling thread, and so in
// the threads it starts after (Binder threads above all), and returns them:
// the set the main thread waits for. Call it before any thread starts.
sigset_t BlockMainThreadSignals();

// Waits up to `timeout` (forever when negative) for one of `signals`; the
// signal, or 0 after the timeout.
int AwaitSignal(const sigset_t& signals, std::chrono::milliseconds timeout);

// Tries to reach a binderd that is coming back start this far apart and
// double up to the maximum, so that a new binderd is found within a second.
constexpr std::chrono::milliseconds kFirstRetryDelay{50};
constexpr std::chrono::milliseconds kMaxRetryDelay{500};

// Hears when binderd goes away, through a death link to its service manager,
// and wakes the main thread: every handle of the process is then dead and
// every name it registered gone, though the next use reaches a new binderd.
class BinderdWatch : public android::IBinder::DeathRecipient {
public:
    // Links to the service manager of the current session; false when
    // binderd is not there. An obituary ends the link.
    bool Link();
    void Unlink();
    // Whether binderd went away since the last call.
    bool TakeLoss() { return lost_.exchange(false); }

    void binderDied(const android::wp<android::IBinder>& who) override;

private:
    std::atomic<bool> lost_{false};
};

}  // namespace tivra_tools
