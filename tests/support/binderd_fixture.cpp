#include "binderd_fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <thread>
#include <utility>

#include <hostbinder/Socket.h>

namespace tivra_test {

using android::hostbinder::socketAccepts;

namespace {

// The exit status once the child is gone; -1 for a signal; -2 while it runs.
int reap(pid_t child, bool block) {
    int status = 0;
    pid_t done;
    do {
        done = waitpid(child, &status, block ? 0 : WNOHANG);
    } while (done < 0 && errno == EINTR);
    if (done == 0) {
        return -2;
    }
    return done > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// As reap, waiting up to `timeout`; a child still running then is killed (-1).
int reapWithin(pid_t child, std::chrono::milliseconds timeout) {
    if (child <= 0) {
        return -1;  // a failed fork: waitpid would reap, and kill signal, any process
    }
    int status = -2;
    if (!waitUntil([&] { return (status = reap(child, false)) != -2; }, timeout)) {
        ::kill(child, SIGKILL);
        reap(child, true);
        return -1;
    }
    return status;
}

}  // namespace

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

Channel::Channel() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) == 0) {
        mRead = fds[0];
        mWrite = fds[1];
    }
}

Channel::~Channel() {
    close(mRead);
    close(mWrite);
}

void Channel::post(const std::string& line) const {
    const std::string message = line + "\n";
    // Short lines are written atomically on a pipe, even by several children.
    (void)!write(mWrite, message.data(), message.size());
}

std::string Channel::next(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string line;
    char c = 0;
    // One byte at a time: a line meant for another reader of the pipe stays in it.
    for (;;) {
        // A zero timeout still looks once.
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd readable{mRead, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(std::max<int64_t>(left.count(), 0))) <= 0 || read(mRead, &c, 1) != 1) {
            return "";
        }
        if (c == '\n') {
            return line;
        }
        line += c;
    }
}

BinderdSession::BinderdSession(std::vector<std::string> options) : mOptions(std::move(options)) {
    char pattern[] = "/tmp/hostbinder-test-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        mError = "mkdtemp failed";
        return;
    }
    mDirectory = pattern;
    mSocketPath = mDirectory + "/binder";
    setenv("HOSTBINDER_SOCKET", mSocketPath.c_str(), 1);
    startBinderd();
}

bool BinderdSession::startBinderd() {
    std::vector<const char*> argv{"binderd", "--socket", mSocketPath.c_str()};
    for (const std::string& option : mOptions) {
        argv.push_back(option.c_str());
    }
    argv.push_back(nullptr);
    mBinderd = spawn([&] {
        execv(TIVRA_BINDERD_PATH, const_cast<char* const*>(argv.data()));
        return 127;
    });
    if (!waitUntil([&] { return socketAccepts(mSocketPath) || reap(mBinderd, false) != -2; }, 5s) ||
        !socketAccepts(mSocketPath)) {
        mError = "binderd did not start on " + mSocketPath;
        reapWithin(std::exchange(mBinderd, -1), 0ms);
        return false;
    }
    return true;
}

BinderdSession::~BinderdSession() {
    // Newest first: binderd, one of the children, goes after those it served.
    for (auto child = mChildren.rbegin(); child != mChildren.rend(); ++child) {
        reapWithin(*child, 0ms);
    }
    if (!mDirectory.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(mDirectory, ignored);
    }
}

pid_t BinderdSession::spawn(const std::function<int()>& body) {
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        // Go when the forking process goes, even if it crashed and never ran its
        // cleanup, so that no helper outlives its test or benchmark.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(1);
        }
        _exit(body());
    }
    if (child > 0) {
        mChildren.push_back(child);  // -1 would have waitpid reap any child
    }
    return child;
}

int BinderdSession::waitExit(pid_t child, std::chrono::milliseconds timeout) {
    const int status = reapWithin(child, timeout);
    mChildren.erase(std::remove(mChildren.begin(), mChildren.end(), child), mChildren.end());
    return status;
}

bool BinderdSession::stopBinderd(std::chrono::milliseconds timeout) {
    const pid_t binderd = std::exchange(mBinderd, -1);
    return binderd > 0 && ::kill(binderd, SIGTERM) == 0 && reapWithin(binderd, timeout) == 0;
}

}  // namespace tivra_test
