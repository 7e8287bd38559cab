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
    return std::string(std::istreambuf_iterator<char>(std::ifstream(path).rdbuf()), {});
}

// Whether a child has ended, without reaping it.
bool Ended(pid_t child) {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == child;
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
    const bool ended = waitUntil([child] { return Ended(child); }, timeout);
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
    service_ = binderd_.spawn([&] {
        // Only async-signal-safe calls until exec: the caller may already run
        // Binder threads. HOSTBINDER_SOCKET was set by the binderd session.
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
        execl(TIVRA_MONITORD_PATH, "tivra-monitord", "--scenario", scenarioPath.c_str(), static_cast<char*>(nullptr));
        return 127;
    });
    close(output);
    // tivra-monitord prints this once both of its names are registered.
    bool ended = false;
    const bool serving = waitUntil(
        [&] {
            return ReadFile(outputPath).find("tivra-monitord: serving ") != std::string::npos ||
                   (ended = Ended(service_));
        },
        10s);
    if (serving && !ended) return true;
    error_ = std::string(ended ? "tivra-monitord ended before it registered: " : "tivra-monitord did not register: ") +
             ReadFile(outputPath);
    KillService();
    return false;
}

bool MonitordSession::KillService() {
    if (service_ < 0) return false;
    kill(service_, SIGKILL);
    binderd_.waitExit(service_);
    service_ = -1;
    return true;
}

}  // namespace tivra_test
