#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>

#include <nlohmann/json.hpp>

#include "binderd_fixture.h"
#include "monitor_control_client.h"

namespace tivra_test {

// Runs a test body in a child process of its own (Binder state and the
// adapter are once per process) that leads a new process group: whatever it
// starts is killed with the group once it ended, also after a crash or hang.
// Assertions work in the body; a failure, crash or hang fails the caller.
void RunInOwnProcess(const std::function<void()>& body, std::chrono::milliseconds timeout = 30s);

// Three devices (the local one first), the local node and two remote nodes,
// with UTF-8 texts and an empty timeline: nothing happens unless a test
// makes it happen.
nlohmann::json QuietScenario();

// A private binderd and the tivra-monitord processes of one test (each dies
// with the thread that started it). Only Control() uses Binder.
class MonitordSession {
public:
    MonitordSession();  // not copyable, as its BinderdSession is not

    // Empty unless binderd did not come up or a service did not start.
    const std::string& error() const { return error_; }
    BinderdSession& binderd() { return binderd_; }
    // The latest service's pid (-1: none), for measuring its CPU time.
    pid_t servicePid() const { return service_; }

    // Starts a service and waits until it has registered; one started before
    // runs on until the session ends. False, with error(), when it did not.
    bool StartService(const nlohmann::json& scenario);
    // SIGKILLs the latest service and reaps it.
    bool KillService();

    // A client of the control interface registered now (Binder lookup).
    tivra_control::MonitorControlClient Control() const { return {}; }

private:
    BinderdSession binderd_;
    std::string error_;
    pid_t service_ = -1;
    int started_ = 0;
};

}  // namespace tivra_test
