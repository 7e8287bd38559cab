#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace tivra_test {

using namespace std::chrono_literals;

// A line-based channel from forked children to the test: children post
// short messages, the test waits for them with a timeout.
class Channel {
public:
    Channel();
    ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    // In a child.
    void post(const std::string& line) const;
    // In the test: the next line, or "" after the timeout.
    std::string next(std::chrono::milliseconds timeout = 10s);

private:
    int mRead = -1;
    int mWrite = -1;
};

// A private binderd on a socket in a fresh temporary folder, plus the child
// processes of one test. Children are forked before this process touches
// Binder, so each child starts its own session. Everything is killed and
// removed when the object goes, whatever the test's outcome.
class BinderdSession {
public:
    // `options` go to binderd after its --socket.
    explicit BinderdSession(std::vector<std::string> options = {});
    ~BinderdSession();
    BinderdSession(const BinderdSession&) = delete;
    BinderdSession& operator=(const BinderdSession&) = delete;

    // False (with the reason in `error()`) when binderd did not come up.
    bool started() const { return mBinderd > 0; }
    const std::string& error() const { return mError; }
    const std::string& socketPath() const { return mSocketPath; }
    pid_t binderdPid() const { return mBinderd; }

    // Runs `body` in a child process; its return value is the exit status.
    pid_t spawn(const std::function<int()>& body);
    // The child's exit status, or -1 when it had not exited within the
    // timeout (it is then killed) or died of a signal.
    int waitExit(pid_t child, std::chrono::milliseconds timeout = 20s);

    // Starts binderd on the session's socket; false when it did not come up.
    bool startBinderd();
    // Stops binderd (SIGTERM, SIGKILL after the timeout); true when it exited cleanly.
    bool stopBinderd(std::chrono::milliseconds timeout = 5s);

private:
    std::string mDirectory;
    std::string mSocketPath;
    std::string mError;
    std::vector<std::string> mOptions;
    pid_t mBinderd = -1;
    std::vector<pid_t> mChildren;
};

// Polls `condition` until it holds or the timeout passes.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 10s);

// Stops a child with a message when a check fails: children report through
// their exit status and stderr, since the test framework lives in the parent.
#define CHILD_CHECK(condition)                                                                   \
    do {                                                                                         \
        if (!(condition)) {                                                                      \
            std::fprintf(stderr, "%s:%d: child check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::fflush(stderr);                                                                 \
            _exit(1);                                                                            \
        }                                                                                        \
    } while (0)

}  // namespace tivra_test
