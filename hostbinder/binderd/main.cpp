// binderd: the userspace Binder driver and service manager of a session.
#include <getopt.h>
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <log/log.h>

#include "EventLoop.h"
#include "ListeningSocket.h"
#include "PeerPolicy.h"
#include "protocol/Protocol.h"

namespace {

constexpr const char* kTag = "binderd";
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

void printUsage(FILE* out) {
    std::fprintf(out,
                 "usage: binderd [--socket PATH] [--allow-uid USER]... [--allow-group GROUP]... [--verbose]\n"
                 "Plays the Binder driver and the service manager for the processes of this session.\n"
                 "\n"
                 "  -s, --socket=PATH        listen on PATH (default: $HOSTBINDER_SOCKET, else\n"
                 "                           $XDG_RUNTIME_DIR/hostbinder/binder, else /tmp/hostbinder-<uid>/binder)\n"
                 "      --allow-uid=USER     also serve processes of USER (a name or a number); repeatable\n"
                 "      --allow-group=GROUP  also serve processes in GROUP (a name or a number); repeatable\n"
                 "  -v, --verbose            log every process that joins or leaves\n"
                 "  -h, --help               show this text and exit\n"
                 "  -V, --version            show the version and exit\n"
                 "\n"
                 "Exit status: 0 stopped by SIGINT or SIGTERM; 1 could not start (unsafe socket folder,\n"
                 "another binderd running, cannot listen) or failed; 2 bad usage.\n");
}

// A user or group given by name or by number.
bool lookUpId(const char* text, bool group, unsigned* id) {
    char* end = nullptr;
    const unsigned long number = std::strtoul(text, &end, 10);
    if (*text != 0 && *end == 0) {
        *id = static_cast<unsigned>(number);
        return true;
    }
    if (group) {
        const struct group* entry = getgrnam(text);
        if (entry != nullptr) {
            *id = entry->gr_gid;
        }
        return entry != nullptr;
    }
    const struct passwd* entry = getpwnam(text);
    if (entry != nullptr) {
        *id = entry->pw_uid;
    }
    return entry != nullptr;
}

// Connections are bounded by descriptors: take all the system allows.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
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
    enum { kAllowUid = 256, kAllowGroup };
    static const option kOptions[] = {
        {"socket", required_argument, nullptr, 's'},
        {"allow-uid", required_argument, nullptr, kAllowUid},
        {"allow-group", required_argument, nullptr, kAllowGroup},
        {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    std::string path;
    bool verbose = false;
    android::binderd::PeerPolicy policy;
    int option;
    while ((option = getopt_long(argc, argv, "s:vhV", kOptions, nullptr)) != -1) {
        unsigned id = 0;
        switch (option) {
            case 's':
                path = optarg;
                break;
            case kAllowUid:
            case kAllowGroup: {
                const bool group = option == kAllowGroup;
                if (!lookUpId(optarg, group, &id)) {
                    std::fprintf(stderr, "binderd: unknown %s '%s'\n", group ? "group" : "user", optarg);
                    return kExitUsage;
                }
                group ? policy.allowGroup(id) : policy.allowUid(id);
                break;
            }
            case 'v':
                verbose = true;
                break;
            case 'h':
                printUsage(stdout);
                return 0;
            case 'V':
                std::printf("binderd (libtivra) %s\n", TIVRA_VERSION);
                return 0;
            default:
                printUsage(stderr);
                return kExitUsage;
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "binderd: unexpected argument '%s'\n", argv[optind]);
        printUsage(stderr);
        return kExitUsage;
    }
    if (path.empty()) {
        path = android::hostbinder::defaultSocketPath();
    }
    std::signal(SIGPIPE, SIG_IGN);
    raiseDescriptorLimit();
    const int stopFd = stopSignalsFd();
    std::string error;
    android::binderd::ListeningSocket socket =
        android::binderd::ListeningSocket::open(path, policy.othersAllowed(), &error);
    if (!socket.valid()) {
        std::fprintf(stderr, "binderd: %s\n", error.c_str());
        return kExitFailure;
    }
    if (policy.othersAllowed()) {
        const std::string closed = android::binderd::ListeningSocket::closedToOthers(path);
        if (!closed.empty()) {
            std::fprintf(stderr,
                         "binderd: warning: other users cannot reach %s: %s does not let them through; "
                         "--allow-uid and --allow-group admit only users of its owner or group\n",
                         path.c_str(), closed.c_str());
        }
    }
    __android_log_print(ANDROID_LOG_INFO, kTag, "listening on %s", path.c_str());
    const int status = android::binderd::EventLoop(socket.fd(), stopFd, policy, verbose).run();
    close(stopFd);
    __android_log_print(ANDROID_LOG_INFO, kTag, "stopped");
    return status;
}
