#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "binderd_fixture.h"
#include "monitor_control_client.h"

namespace tivra_test {

// Runs one test body in a child process of its own, so that the body gets a
// fresh Binder state and a fresh adapter (both are once per process), however
// many tests the program runs. The child leads a new process group: whatever
// it starts (binderd, services, client processes) is killed with that group
// once the child has ended, even when it crashed or hung. Test assertions work
// in the body; a failure, a crash or a hang fails the calling test.
void RunInOwnProcess(const std::function<void()>& body, std::chrono::milliseconds timeout = 30s);

// A small network with UTF-8 texts and an empty timeline, so that nothing
// happens unless the test makes it happen: three devices (the local one
// first), the local node and two remote nodes.
nlohmann::json QuietScenario();

// A private binderd and the tivra-monitord processes of one test. Starting,
// killing and waiting for a service uses no Binder, so a process may do all
// of it before it touches Binder itself; only Control() talks to the service.
class MonitordSession {
public:
    MonitordSession();
    ~MonitordSession();
    MonitordSession(const MonitordSession&) = delete;
    MonitordSession& operator=(const MonitordSession&) = delete;

    // False (with the reason in error()) when binderd did not come up.
    bool ready() const { return binderd_.started(); }
    const std::string& error() const { return error_; }
    // For forking client processes: call before this process touches Binder.
    BinderdSession& binderd() { return binderd_; }

    // Writes a scenario into the session's folder and returns its path.
    std::string WriteScenario(const std::string& fileName, const nlohmann::json& scenario) const;
    static std::string SampleScenario();

    // Starts a service with the scenario and waits until it has registered.
    // A service started before keeps running; the new one takes over the
    // registration names. False (with error()) when it, or binderd, did not
    // come up.
    bool StartService(const std::string& scenarioPath = SampleScenario());
    bool StartService(const nlohmann::json& scenario);
    // SIGKILLs a service (by default the latest) and reaps it.
    bool KillService();
    bool KillService(pid_t service);
    // Kills the latest service and starts one with the same scenario.
    bool RestartService();
    // The latest service started, or -1.
    pid_t servicePid() const { return services_.empty() ? -1 : services_.back(); }

    // A client of the control interface registered now (Binder lookup).
    tivra_control::MonitorControlClient Control() const;

private:
    std::string folder() const;
    bool WaitUntilServing(pid_t service, const std::string& outputPath);

    BinderdSession binderd_;
    std::string error_;
    std::string scenarioPath_;
    std::vector<pid_t> services_;
    int started_ = 0;
};

}  // namespace tivra_test
