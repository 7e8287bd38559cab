// binderd itself: its command line, its socket and folder, who may connect,
// and what a process that sent and went at once still has delivered; the
// client library's side of the socket rules. Then each attack of a hostile
// process of the same uid, scaled down, while a legitimate one keeps calling an
// echo service: binderd must answer it correctly and cut or refuse the attacker
// (what the attacks cost: bench/binderd_attack_bench).
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

#include <binder/IServiceManager.h>

#include "binderd_attacks.h"
#include "binderd_fixture.h"
#include "hostbinder_test_service.h"
#include "log_capture.h"

namespace {

using namespace android;
using namespace android::hostbinder;
using namespace tivra_test;

constexpr uid_t kOtherUid = 65534;
constexpr uid_t kAllowedUid = 65533;

// A Unix socket bound at `path` (-1 on failure): closed at once, it is the
// stale file a killed binderd leaves; listened on, a binderd that never answers.
int bindSocket(const std::string& path) {
    sockaddr_un address;
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (!unixAddress(path, &address) || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

mode_t modeOf(const std::string& path) {
    struct stat status{};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

// A process that sends and goes at once: what it sent still arrives, also
// when binderd's answers to it fail (it is gone) before binderd has read all
// it sent. Queued while binderd is stopped, more than binderd reads at once.
TEST(Binderd, CallsOfAThreadThatClosedBeforeItsAnswersAreStillDelivered) {
    BinderdSession session;
    ASSERT_TRUE(session.started()) << session.error();
    Channel ready;
    spawnTestService(session, ready);
    ASSERT_EQ(ready.next(), "ready");
    RawSession sender(session.socketPath());
    ASSERT_TRUE(sender.ready());
    const uint32_t handle = sender.checkService(String8(kTestServiceName).c_str());
    ASSERT_NE(handle, 0u);
    constexpr int32_t kCalls = 72;
    std::vector<uint8_t> frames;
    std::vector<uint8_t> data(4096);
    for (int32_t sequence = 0; sequence < kCalls; ++sequence) {
        const int32_t record[2] = {0, sequence};
        std::memcpy(data.data(), record, sizeof(record));
        const std::vector<uint8_t> frame = RawPeer::transaction(handle, TestService::kRecord, data, {}, kFlagOneway);
        frames.insert(frames.end(), frame.begin(), frame.end());
    }
    const int room = 1 << 20;
    const timeval patience{5, 0};
    setsockopt(sender.thread().fd(), SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
    setsockopt(sender.thread().fd(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    ASSERT_EQ(kill(session.binderdPid(), SIGSTOP), 0);
    const bool queued = sender.thread().sendBytes(frames.data(), frames.size());
    sender.thread().close();
    kill(session.binderdPid(), SIGCONT);
    if (!queued) {
        GTEST_SKIP() << "this system's socket buffers hold less than " << frames.size() << " bytes";
    }
    const pid_t checker = session.spawn([] {
        const sp<IBinder> service = lookUpTestService();
        CHILD_CHECK(service != nullptr && recordsArrive(service, kCalls));
        return 0;
    });
    EXPECT_EQ(session.waitExit(checker), 0);
}

struct DaemonRun {
    int status = -1;
    std::string output;
    mode_t socketMode = 0;
    mode_t folderMode = 0;
};

// Runs binderd under `mask`, its output going to the file `output`; once it
// listens on `socket` (if ever), notes the modes and stops it with SIGTERM.
DaemonRun runBinderd(const std::vector<std::string>& arguments, const std::string& socket, mode_t mask,
                     const std::string& output) {
    const pid_t child = fork();
    if (child == 0) {
        const int out = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        umask(mask);
        std::vector<char*> argv{const_cast<char*>("binderd")};
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        execv(TIVRA_BINDERD_PATH, argv.data());
        _exit(127);
    }
    DaemonRun run;
    int status = 0;
    bool exited = false;
    const auto listening = [&] { return RawPeer(socket).connected(); };
    waitUntil([&] { return (exited = waitpid(child, &status, WNOHANG) == child) || listening(); }, 5s);
    if (!exited) {
        if (listening()) {
            run.socketMode = modeOf(socket);
            run.folderMode = modeOf(std::filesystem::path(socket).parent_path());
        }
        kill(child, SIGTERM);
        waitpid(child, &status, 0);
    }
    run.output.assign(std::istreambuf_iterator<char>(std::ifstream(output).rdbuf()), {});
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

// The folder `base`/hostbinder that the socket `base`/hostbinder/binder goes
// in (the default one when `base` is the runtime folder), as a case of either
// side's socket rules finds it.
enum class Folder { kAbsent, kSearchable, kWritableByOthers, kSymlink, kOtherUsers, kStaleSocket,
                    kRegularFile, kWritableWithSocket };

std::string prepare(const std::string& base, Folder folder) {
    const std::string run = base + "/hostbinder";
    const std::string socket = run + "/binder";
    if (folder == Folder::kSymlink) {
        std::filesystem::create_directory(base + "/real");
        std::filesystem::create_directory_symlink(base + "/real", run);
    } else if (folder != Folder::kAbsent) {
        std::filesystem::create_directory(run);
    }
    const std::map<Folder, mode_t> modes{
        {Folder::kSearchable, 0711}, {Folder::kWritableByOthers, 0777}, {Folder::kWritableWithSocket, 0777}};
    if (modes.count(folder) != 0) {
        chmod(run.c_str(), modes.at(folder));
    }
    if (folder == Folder::kOtherUsers) {
        (void)!chown(run.c_str(), kOtherUid, kOtherUid);
    } else if (folder == Folder::kStaleSocket || folder == Folder::kWritableWithSocket) {
        close(bindSocket(socket));
    } else if (folder == Folder::kRegularFile) {
        std::ofstream(socket) << "precious";
    }
    return socket;
}

// binderd's command line and what it makes of its socket and folder; for the
// same folders, what the client library makes of the default socket there or,
// when `chosen`, of that socket given by the user.
TEST(SocketRules, BinderdOptionsSocketFileAndFolderAndWhereAClientConnects) {
    BinderdSession live;
    ASSERT_TRUE(live.started()) << live.error();
    // Without --socket, binderd listens in the runtime folder, the case's own.
    unsetenv("HOSTBINDER_SOCKET");
    using Arguments = std::vector<std::string>;
    struct Case {
        const char* name;
        Folder folder;
        Arguments arguments;  // "S": the case's socket, "L": the live binderd's
        int status;
        const char* says;
        mode_t socketMode;  // 0: binderd must not listen
        mode_t folderMode;
        const char* client = nullptr;  // the client's objection, "" for none; nullptr: not asked
        bool chosen = false;
        mode_t mask = 022;
        bool asRootOnly = false;
    };
    const std::vector<Case> cases{
        {"help", Folder::kAbsent, {"--help"}, 0, "Usage: binderd", 0, 0},
        {"version", Folder::kAbsent, {"--version"}, 0, "binderd (libtivra) ", 0, 0},
        {"unknown option", Folder::kAbsent, {"--bogus"}, 2,
         "binderd: unknown option '--bogus'\nTry 'binderd --help' for more information.\n", 0, 0},
        {"ambiguous option", Folder::kAbsent, {"--ver"}, 2, "option '--ver' is ambiguous", 0, 0},
        {"empty socket path", Folder::kAbsent, {"--socket="}, 2, "option '--socket' needs a non-empty value", 0, 0},
        {"stray argument", Folder::kAbsent, {"--socket", "S", "x"}, 2, "unexpected argument 'x'", 0, 0},
        {"unknown user", Folder::kAbsent, {"--allow-uid=no-such-user-here"}, 2, "unknown user", 0, 0},
        // Ids past the 32 bits of uid_t must not wrap onto someone (2^32 + 65534
        // is uid 65534 cut short), nor negative ones turn into the largest.
        {"uid past 32 bits", Folder::kAbsent, {"--allow-uid=4295032830"}, 2, "invalid uid '4295032830'", 0, 0},
        {"uid past 64 bits", Folder::kAbsent, {"--allow-uid=18446744073709551615"}, 2, "invalid uid", 0, 0},
        {"negative uid", Folder::kAbsent, {"--allow-uid", "-1"}, 2, "invalid uid '-1'", 0, 0},
        {"the kernel's no-group", Folder::kAbsent, {"--allow-group=4294967295"}, 2, "invalid gid '4294967295'", 0, 0},
        {"private whatever the umask", Folder::kAbsent, {"--socket", "S"}, 0, "", 0600, 0700, nullptr, false, 0},
        {"the default socket", Folder::kAbsent, {}, 0, "", 0600, 0700},
        {"searchable with allowed users, who are told of a private folder above", Folder::kAbsent,
         {"--socket", "S", "--allow-uid", "65533", "--allow-group=4294967294"}, 0, "warning: other users cannot reach",
         0666, 0711},
        {"private again without them", Folder::kSearchable, {"--socket", "S"}, 0, "", 0600, 0700},
        {"stale socket replaced", Folder::kStaleSocket, {"--socket", "S"}, 0, "", 0600, 0755, ""},
        {"regular file kept", Folder::kRegularFile, {"--socket", "S"}, 1, "is not a socket: not replacing it", 0, 0,
         "is not a socket", true},
        {"symlinked folder", Folder::kSymlink, {"--socket", "S"}, 1, "not a directory", 0, 0, "is not a directory"},
        {"folder others can write", Folder::kWritableByOthers, {"--socket", "S"}, 1, "others can write to it", 0, 0,
         "is writable by others"},
        {"a socket in a folder others can write", Folder::kWritableWithSocket, {"--socket", "S"}, 1,
         "others can write to it", 0, 0, "", true},
        {"folder of another user", Folder::kOtherUsers, {"--socket", "S"}, 1, "belongs to uid 65534", 0, 0,
         "belongs to uid 65534", false, 022, true},
        {"second instance", Folder::kAbsent, {"--socket", "L"}, 1, "another binderd is already running", 0, 0},
    };
    // Each case has a fresh folder, removed with the live binderd's.
    const std::string folders = std::filesystem::path(live.socketPath()).parent_path();
    int number = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.asRootOnly && geteuid() != 0) {
            continue;
        }
        const std::string base = folders + "/case" + std::to_string(++number);
        ASSERT_TRUE(std::filesystem::create_directory(base));
        setenv("XDG_RUNTIME_DIR", base.c_str(), 1);
        const std::string socket = prepare(base, c.folder);
        if (c.client != nullptr) {
            const std::string reason = unsafeSocketReason(socket, c.chosen);
            EXPECT_EQ(reason.empty(), *c.client == 0) << reason;
            EXPECT_NE(reason.find(c.client), std::string::npos) << reason;
        }
        Arguments arguments = c.arguments;
        for (std::string& argument : arguments) {
            argument = argument == "S" ? socket : argument == "L" ? live.socketPath() : argument;
        }
        const DaemonRun run = runBinderd(arguments, socket, c.mask, base + "/output");
        EXPECT_EQ(run.status, c.status) << run.output;
        EXPECT_NE(run.output.find(c.says), std::string::npos) << run.output;
        EXPECT_EQ(run.socketMode, c.socketMode);
        if (c.socketMode != 0) {
            EXPECT_EQ(run.folderMode, c.folderMode);
            EXPECT_FALSE(std::filesystem::exists(socket)) << "the socket outlived binderd";
        }
        if (c.folder == Folder::kRegularFile) {
            std::string kept;
            std::getline(std::ifstream(socket), kept);
            EXPECT_EQ(kept, "precious");
            EXPECT_FALSE(std::filesystem::exists(socket + ".lock")) << "a lock file beside a path binderd refused";
        }
    }
}

// The answer to a process hello (or a watcher's) from a child running as
// `uid`: 0 when welcomed, else the refusal's reason.
int64_t helloAs(uid_t uid, BinderdSession& session, uint32_t command = kHelloProcess) {
    const pid_t child = session.spawn([&] {
        if (setgid(uid) != 0 || setuid(uid) != 0) {
            return 255;
        }
        std::vector<uint8_t> payload;
        const int64_t answer = RawPeer(session.socketPath()).hello(command, &payload);
        uint32_t reason = 0;
        if (answer == kConnectionRefused && payload.size() == sizeof(reason)) {
            std::memcpy(&reason, payload.data(), sizeof(reason));
            return static_cast<int>(reason);
        }
        return answer == kWelcome ? 0 : 254;
    });
    return session.waitExit(child);
}

TEST(BinderdAccess, PeersAreAdmittedByTheirCredentials) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "acting as other users needs root";
    }
    BinderdSession session({"--allow-uid", std::to_string(kAllowedUid)});
    ASSERT_TRUE(session.started()) << session.error();
    EXPECT_EQ(helloAs(0, session), 0);
    EXPECT_EQ(helloAs(kAllowedUid, session), 0);
    EXPECT_EQ(helloAs(kOtherUid, session), kRefusedByPolicy);
    // Only binderd's own user and root may watch the traffic.
    EXPECT_EQ(helloAs(0, session, kHelloMonitor), 0);
    EXPECT_EQ(helloAs(kAllowedUid, session, kHelloMonitor), kNotAllowedToWatch);
}

TEST(ClientSocketRules, ASilentBinderdIsReportedAndLookupsGiveNull) {
    BinderdSession session;
    // A socket that takes connections and never answers them.
    const std::string silent = std::filesystem::path(session.socketPath()).parent_path() / "silent";
    const int listener = bindSocket(silent);
    ASSERT_EQ(listen(listener, 8), 0);
    const pid_t client = session.spawn([&] {
        setenv("HOSTBINDER_SOCKET", silent.c_str(), 1);
        LogCapture log;
        CHILD_CHECK(defaultServiceManager()->checkService(String16("tivra.anything")) == nullptr);
        CHILD_CHECK(log.Contains(ANDROID_LOG_ERROR, "binderd at " + silent + " did not answer", "hostbinder"));
        return 0;
    });
    EXPECT_EQ(session.waitExit(client, 30s), 0);
    close(listener);
}

TEST(BinderdUnderAttack, ServesALegitimateProcessThroughEveryAttack) {
    const std::string victim = "tivra.test.victim";
    BinderdSession session;
    ASSERT_TRUE(session.started()) << session.error();
    Channel ready;
    spawnTestService(session, ready, android::String16(victim.c_str()));
    ASSERT_EQ(ready.next(), "ready");
    LegitimateClient client(session, victim);
    for (const Attack& attack : binderdAttacks()) {
        SCOPED_TRACE(attack.name);
        const AttackTarget target{session.socketPath(), session.binderdPid(), 0.02};
        EXPECT_STREQ(outcomeName(runAttack(session, attack, target, 60s)), outcomeName(attack.expected));
        ASSERT_EQ(waitpid(session.binderdPid(), nullptr, WNOHANG), 0) << "binderd died";
        const LegitimateClient::Window calls = client.report();
        EXPECT_GT(calls.calls, 0);
        EXPECT_EQ(calls.failures, 0);
    }
}

}  // namespace
