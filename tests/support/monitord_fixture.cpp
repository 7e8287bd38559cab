#include "monitord_fixture.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

namespace tivra_test {
namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Waits for a child to end (WNOHANG: returns at once) and reaps it.
bool Reap(pid_t child, int options = 0, int* status = nullptr) {
    pid_t done;
    while ((done = waitpid(child, status, options)) < 0 && errno == EINTR) {
    }
    return done != 0;
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
    setpgid(child, child);  // from both sides, so the group exists whichever runs first
    // Observe the end without reaping, so that the group id cannot be reused
    // before the group is killed.
    const bool ended = waitUntil(
        [child] {
            siginfo_t info{};
            return waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                   info.si_pid == child;
        },
        timeout);
    kill(-child, SIGKILL);
    int status = 0;
    Reap(child, 0, &status);
    if (!ended) {
        ADD_FAILURE() << "the test's process did not finish within " << timeout.count() << " ms (deadlock?)";
    } else if (WIFSIGNALED(status)) {
        ADD_FAILURE() << "the test's process died of " << strsignal(WTERMSIG(status));
    } else if (WEXITSTATUS(status) != 0) {
        ADD_FAILURE() << "the test's process reported the failures above";
    }
}

nlohmann::json QuietScenario() {
    return nlohmann::json::parse(R"({
      "localDevice": {"name": "Desk Laptop", "id": "dev-local", "type": "LAPTOP", "ip": "10.0.0.2"},
      "localNode": {"name": "Desk Laptop", "deviceType": 12, "nodeId": "node-local", "udid": "UDID-LOCAL",
                    "uuid": "uuid-local", "extInfo": {"DEVICE_NAME": "Desk Laptop", "GROUP_INFO": "Küche ✓ 家"}},
      "devices": [{"name": "Desk Laptop", "id": "dev-local", "type": "LAPTOP", "ip": "10.0.0.2"},
                  {"name": "Hall Camera", "id": "dev-cam", "type": "CAMERA", "ip": "10.0.0.3"},
                  {"name": "Gartenlicht ☀", "id": "dev-light", "type": "LIGHT", "ip": "10.0.0.4"}],
      "nodes": [{"name": "Hall Camera", "deviceType": 156, "nodeId": "node-cam", "udid": "UDID-CAM", "uuid": "uuid-cam",
                 "extInfo": {"DEVICE_NAME": "Hall Camera"}},
                {"name": "Gartenlicht ☀", "deviceType": 10, "nodeId": "nœud-lumière-光", "udid": "UDID-LIGHT-ü",
                 "uuid": "uuid-light"}],
      "timeline": []})");
}

MonitordSession::MonitordSession() {
    if (!binderd_.started()) error_ = binderd_.error();
}

MonitordSession::~MonitordSession() {
    for (pid_t service : services_) {
        kill(service, SIGKILL);
        Reap(service);
    }
}

bool MonitordSession::StartService(const nlohmann::json& scenario) {
    if (!binderd_.started()) return false;  // error() says why
    const std::string base = std::filesystem::path(binderd_.socketPath()).parent_path().string() + "/monitord-" +
                             std::to_string(++started_);
    const std::string scenarioPath = base + ".json", outputPath = base + ".log";
    std::ofstream(scenarioPath) << scenario.dump(2);
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
    // tivra-monitord prints this once both of its names are registered.
    bool ended = false;
    const bool serving = waitUntil(
        [&] {
            return ReadFile(outputPath).find("tivra-monitord: serving ") != std::string::npos ||
                   (ended = Reap(service, WNOHANG));
        },
        10s);
    if (serving && !ended) return true;
    if (ended) {
        services_.pop_back();
        error_ = "tivra-monitord ended before it registered: " + ReadFile(outputPath);
    } else {
        KillService();
        error_ = "tivra-monitord did not register in time: " + ReadFile(outputPath);
    }
    return false;
}

bool MonitordSession::KillService() {
    if (services_.empty()) return false;
    const pid_t service = services_.back();
    services_.pop_back();
    kill(service, SIGKILL);
    Reap(service);
    return true;
}

}  // namespace tivra_test
