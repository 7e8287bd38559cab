#include "monitord_fixture.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

namespace tivra_test {
namespace {

// tivra-monitord prints this once both of its names are registered.
constexpr const char* kServingLine = "tivra-monitord: serving ";
constexpr auto kServiceStartTimeout = 10s;

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool HasEnded(pid_t child) {
    int status = 0;
    pid_t done;
    do {
        done = waitpid(child, &status, WNOHANG);
    } while (done < 0 && errno == EINTR);
    return done != 0;
}

void Reap(pid_t child) {
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace

void RunInOwnProcess(const std::function<void()>& body, std::chrono::milliseconds timeout) {
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t child = fork();
    ASSERT_GE(child, 0) << "fork failed: " << std::strerror(errno);
    if (child == 0) {
        setpgid(0, 0);
        body();
        std::fflush(stdout);
        std::fflush(stderr);
        // No static destructors: the adapter and Binder threads are still live.
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    // Set from both sides, so the group exists whichever runs first.
    setpgid(child, child);

    // Observe the end without reaping: the group id stays the child's until
    // the group has been killed, so the kill cannot hit a reused id.
    const bool ended = waitUntil(
        [child] {
            siginfo_t info{};
            return waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                   info.si_pid == child;
        },
        timeout);
    kill(-child, SIGKILL);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!ended) {
        ADD_FAILURE() << "the test's process did not finish within " << timeout.count() << " ms (deadlock?)";
    } else if (WIFSIGNALED(status)) {
        ADD_FAILURE() << "the test's process died of " << strsignal(WTERMSIG(status));
    } else if (WEXITSTATUS(status) != 0) {
        ADD_FAILURE() << "the test's process reported the failures above";
    }
}

nlohmann::json QuietScenario() {
    const nlohmann::json localDevice = {{"name", "Desk Laptop"}, {"id", "dev-local"}, {"type", "LAPTOP"}, {"ip", "10.0.0.2"}};
    return {
        {"localDevice", localDevice},
        {"localNode",
         {{"name", "Desk Laptop"}, {"deviceType", 0x0C}, {"nodeId", "node-local"}, {"udid", "UDID-LOCAL"},
          {"uuid", "uuid-local"}, {"extInfo", {{"DEVICE_NAME", "Desk Laptop"}, {"GROUP_INFO", "Küche ✓ 家"}}}}},
        {"devices",
         {localDevice,
          {{"name", "Hall Camera"}, {"id", "dev-cam"}, {"type", "CAMERA"}, {"ip", "10.0.0.3"}},
          {{"name", "Gartenlicht ☀"}, {"id", "dev-light"}, {"type", "LIGHT"}, {"ip", "10.0.0.4"}}}},
        {"nodes",
         {{{"name", "Hall Camera"}, {"deviceType", 0x9C}, {"nodeId", "node-cam"}, {"udid", "UDID-CAM"},
           {"uuid", "uuid-cam"}, {"extInfo", {{"DEVICE_NAME", "Hall Camera"}}}},
          {{"name", "Gartenlicht ☀"}, {"deviceType", 0x0A}, {"nodeId", "nœud-lumière-光"}, {"udid", "UDID-LIGHT-ü"},
           {"uuid", "uuid-light"}}}},
        {"timeline", nlohmann::json::array()},
    };
}

MonitordSession::MonitordSession() {
    if (!binderd_.started()) {
        error_ = binderd_.error();
    }
}

MonitordSession::~MonitordSession() {
    for (pid_t service : services_) {
        kill(service, SIGKILL);
        Reap(service);
    }
}

std::string MonitordSession::folder() const {
    return std::filesystem::path(binderd_.socketPath()).parent_path().string();
}

std::string MonitordSession::SampleScenario() { return TIVRA_SAMPLE_SCENARIO; }

std::string MonitordSession::WriteScenario(const std::string& fileName, const nlohmann::json& scenario) const {
    const std::string path = folder() + "/" + fileName;
    std::ofstream(path) << scenario.dump(2);
    return path;
}

bool MonitordSession::StartService(const std::string& scenarioPath) {
    if (!ready()) {
        return false;  // error() says why binderd did not come up
    }
    scenarioPath_ = scenarioPath;
    const std::string outputPath = folder() + "/monitord-" + std::to_string(++started_) + ".log";
    const int output = open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (output < 0) {
        error_ = "cannot create " + outputPath;
        return false;
    }
    const pid_t service = fork();
    if (service == 0) {
        // Only async-signal-safe calls until exec: the caller may already run
        // Binder threads. HOSTBINDER_SOCKET was set by the binderd session.
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
        execl(TIVRA_MONITORD_PATH, "tivra-monitord", "--scenario", scenarioPath.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(output);
    if (service < 0) {
        error_ = std::string("fork failed: ") + std::strerror(errno);
        return false;
    }
    services_.push_back(service);
    return WaitUntilServing(service, outputPath);
}

bool MonitordSession::StartService(const nlohmann::json& scenario) {
    return StartService(WriteScenario("scenario-" + std::to_string(started_ + 1) + ".json", scenario));
}

bool MonitordSession::WaitUntilServing(pid_t service, const std::string& outputPath) {
    bool ended = false;
    const bool serving = waitUntil(
        [&] {
            if (ReadFile(outputPath).find(kServingLine) != std::string::npos) {
                return true;
            }
            ended = HasEnded(service);
            return ended;
        },
        kServiceStartTimeout);
    if (serving && !ended) {
        return true;
    }
    if (ended) {
        services_.erase(std::remove(services_.begin(), services_.end(), service), services_.end());
        error_ = "tivra-monitord ended before it registered: " + ReadFile(outputPath);
    } else {
        KillService(service);
        error_ = "tivra-monitord did not register in time: " + ReadFile(outputPath);
    }
    return false;
}

bool MonitordSession::KillService() { return !services_.empty() && KillService(services_.back()); }

bool MonitordSession::KillService(pid_t service) {
    const auto found = std::find(services_.begin(), services_.end(), service);
    if (found == services_.end()) {
        error_ = "no such service process";
        return false;
    }
    services_.erase(found);
    kill(service, SIGKILL);
    Reap(service);
    return true;
}

bool MonitordSession::RestartService() {
    KillService();
    return StartService(scenarioPath_);
}

tivra_control::MonitorControlClient MonitordSession::Control() const { return tivra_control::MonitorControlClient(); }

}  // namespace tivra_test
