// binderd: the userspace Binder driver and service manager of a session.
#include <getopt.h>
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <hostbinder/Socket.h>
#include <log/log.h>

#include "EventLoop.h"
#include "ListeningSocket.h"
#include "PeerPolicy.h"
#include "protocol/Protocol.h"

namespace {

constexpr const char* kTag = "binderd";
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

constexpr const char* kUsage =
    "Usage: binderd [--socket PATH] [--allow-uid USER]... [--allow-group GROUP]... [--verbose]\n"
    "Plays the Binder driver and the service manager for the processes of this session.\n"
    "\n"
    "  -s, --socket=PATH        listen on PATH (default: $HOSTBINDER_SOCKET, else\n"
    "                           $XDG_RUNTIME_DIR/hostbinder/binder, else /tmp/hostbinder-<uid>/binder)\n"
    "      --allow-uid=USER     also serve processes of USER (a name, or a uid from 0 to 4294967294);\n"
    "                           repeatable\n"
    "      --allow-group=GROUP  also serve processes in GROUP (a name, or a gid from 0 to 4294967294);\n"
    "                           repeatable\n"
    "  -v, --verbose            log every process that joins or leaves\n"
    "  -h, --help               show this text and exit\n"
    "  -V, --version            show the version and exit\n"
    "\n"
    "Exit status: 0 stopped by SIGINT or SIGTERM; 1 could not start (unsafe socket folder,\n"
    "another binderd running, cannot listen, this text not written) or failed; 2 bad usage.\n";

// Bad usage: the reason, and where to find help, as every tool here says it.
int usageError(const std::string& reason) {
    std::fprintf(stderr, "binderd: %s\nTry 'binderd --help' for more information.\n", reason.c_str());
    return kExitUsage;
}

// What getopt_long refused (with opterr 0), said for a person as tivra and
// tivra-monitord say it: an unknown option, an abbreviation that fits several,
// a value for an option that takes none. `given` is argv[optind - 1].
std::string refusedOption(const std::string& given, const option* table) {
    if (given.rfind("--", 0) != 0) {
        return std::string("unknown option '-") + static_cast<char>(optopt) + "'";
    }
    const std::string name = given.substr(0, given.find('='));
    if (optopt != 0) {
        return "option '" + name + "' takes no value";
    }
    std::string fitting;
    int count = 0;
    for (const option* entry = table; entry->name != nullptr; ++entry) {
        if (std::string(entry->name).rfind(name.substr(2), 0) == 0) {
            fitting += std::string(count++ == 0 ? "" : " ") + "'--" + entry->name + "'";
        }
    }
    return count > 1 ? "option '" + name + "' is ambiguous; possibilities: " + fitting
                     : "unknown option '" + name + "'";
}

// Prints `text` to stdout and answers the exit status: 0, or 1 when it could
// not be written (a full disk, a closed descriptor).
int printAndExit(const std::string& text) {
    std::fputs(text.c_str(), stdout);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        std::fprintf(stderr, "binderd: write error: %s\n", std::strerror(errno));
        return kExitFailure;
    }
    return 0;
}

// A user or group given by name or by number. A number is decimal digits
// with at most a sign and must name an id from 0 to 2^32 - 2 (2^32 - 1 is
// the kernel's "no id"); anything else is looked up as a name. False, after
// saying why, when it names no one.
bool lookUpId(const std::string& text, bool group, unsigned* id) {
    const std::string kind = group ? "group" : "user";
    const size_t digits = text.find_first_not_of("+-") == 1 ? 1 : 0;
    if (text.size() > digits && text.find_first_not_of("0123456789", digits) == std::string::npos) {
        constexpr unsigned long long kLargestId = 0xFFFFFFFEull;
        errno = 0;
        const unsigned long long value = std::strtoull(text.c_str() + digits, nullptr, 10);
        if (digits != 0 || errno == ERANGE || value > kLargestId) {
            usageError("invalid " + std::string(group ? "gid" : "uid") + " '" + text +
                       "': give a number from 0 to 4294967294, or a " + kind + " name");
            return false;
        }
        *id = static_cast<unsigned>(value);
        return true;
    }
    if (text.empty()) {
        usageError("option '--allow-" + std::string(group ? "group" : "uid") + "' needs a non-empty value");
        return false;
    }
    bool found = false;
    if (group) {
        const struct group* entry = getgrnam(text.c_str());
        if ((found = entry != nullptr)) {
            *id = entry->gr_gid;
        }
    } else {
        const struct passwd* entry = getpwnam(text.c_str());
        if ((found = entry != nullptr)) {
            *id = entry->pw_uid;
        }
    }
    if (!found) {
        usageError("unknown " + kind + " '" + text + "'");
    }
    return found;
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
    opterr = 0;
    int option;
    // ":" first: a missing value is reported apart from an unknown option.
    while ((option = getopt_long(argc, argv, ":s:vhV", kOptions, nullptr)) != -1) {
        unsigned id = 0;
        switch (option) {
            case 's':
                if (*optarg == '\0') {
                    return usageError("option '--socket' needs a non-empty value");
                }
                path = optarg;
                break;
            case kAllowUid:
            case kAllowGroup: {
                const bool group = option == kAllowGroup;
                if (!lookUpId(optarg, group, &id)) {
                    return kExitUsage;
                }
                group ? policy.allowGroup(id) : policy.allowUid(id);
                break;
            }
            case 'v':
                verbose = true;
                break;
            case 'h':
                return printAndExit(kUsage);
            case 'V':
                return printAndExit(std::string("binderd (libtivra) ") + TIVRA_VERSION + "\n");
            case ':':
                return usageError(std::string("option '") + argv[optind - 1] + "' needs a value");
            default:
                return usageError(refusedOption(argv[optind - 1], kOptions));
        }
    }
    if (optind < argc) {
        return usageError(std::string("unexpected argument '") + argv[optind] + "'");
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
