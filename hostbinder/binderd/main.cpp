// binderd: the userspace Binder driver and service manager of a session.
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include <log/log.h>

#include "EventLoop.h"
#include "ListeningSocket.h"
#include "protocol/Protocol.h"

namespace {

constexpr const char* kTag = "binderd";

void printUsage(FILE* out) {
    std::fprintf(out,
                 "usage: binderd [--socket PATH] [--verbose]\n"
                 "Plays the Binder driver and the service manager for the processes of this session.\n"
                 "  --socket PATH  listen on PATH (default: $HOSTBINDER_SOCKET, else\n"
                 "                 $XDG_RUNTIME_DIR/hostbinder/binder, else /tmp/hostbinder-<uid>/binder)\n"
                 "  --verbose      log every process that joins or leaves\n"
                 "  --help         show this text\n");
}

// SIGINT and SIGTERM arrive as a readable descriptor in the event loop.
int stopSignalsFd() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

}  // namespace

int main(int argc, char** argv) {
    std::string path;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help" || argument == "-h") {
            printUsage(stdout);
            return 0;
        }
        if (argument == "--verbose") {
            verbose = true;
        } else if (argument == "--socket" && i + 1 < argc) {
            path = argv[++i];
        } else {
            std::fprintf(stderr, "binderd: unknown argument '%s'\n", argument.c_str());
            printUsage(stderr);
            return 2;
        }
    }
    if (path.empty()) {
        path = android::hostbinder::defaultSocketPath();
    }
    std::signal(SIGPIPE, SIG_IGN);
    const int stopFd = stopSignalsFd();
    std::string error;
    android::binderd::ListeningSocket socket = android::binderd::ListeningSocket::open(path, &error);
    if (!socket.valid()) {
        std::fprintf(stderr, "binderd: %s\n", error.c_str());
        return 1;
    }
    __android_log_print(ANDROID_LOG_INFO, kTag, "listening on %s", path.c_str());
    const int status = android::binderd::EventLoop(socket.fd(), stopFd, verbose).run();
    close(stopFd);
    __android_log_print(ANDROID_LOG_INFO, kTag, "stopped");
    return status;
}
