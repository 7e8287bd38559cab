// binderd itself: its command line, its socket, and its defences against
// connections that break the protocol.
#include <gtest/gtest.h>
#include <linux/android/binder.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include "binderd_fixture.h"
#include "hostbinder_test_service.h"
#include "protocol/Protocol.h"

namespace {

using namespace android;
using namespace android::hostbinder;
using namespace tivra_test;

// A hand-driven connection to binderd that can say anything.
class RawPeer {
public:
    explicit RawPeer(const std::string& path) : mFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        connected = connect(mFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~RawPeer() { close(mFd); }

    void sendBytes(const void* bytes, size_t size) { (void)!send(mFd, bytes, size, MSG_NOSIGNAL); }
    void sendFrame(uint32_t command, const void* payload, size_t size) {
        std::vector<uint8_t> frame;
        appendFrame(&frame, command, payload, size);
        sendBytes(frame.data(), frame.size());
    }
    void sendTransaction(uint32_t handle, const std::vector<uint8_t>& data, const std::vector<uint64_t>& offsets) {
        TransactionHeader header{};
        header.target = handle;
        header.dataSize = static_cast<uint32_t>(data.size());
        header.offsetsCount = static_cast<uint32_t>(offsets.size());
        std::vector<uint8_t> frame;
        appendTransaction(&frame, kTransaction, header, data.data(), offsets.data());
        sendBytes(frame.data(), frame.size());
    }
    void finishSending() { shutdown(mFd, SHUT_WR); }

    // The next frame's command, or 0 once binderd closed the connection
    // (or said nothing within the timeout: -1).
    int64_t nextCommand(std::vector<uint8_t>* payload, std::chrono::milliseconds timeout = 5s) {
        FrameHeader header;
        if (!readExactly(&header, sizeof(header), timeout)) {
            return mClosed ? 0 : -1;
        }
        payload->resize(header.payloadSize);
        return readExactly(payload->data(), payload->size(), timeout) ? header.command : -1;
    }

    bool connected = false;

private:
    bool readExactly(void* out, size_t size, std::chrono::milliseconds timeout) {
        auto* bytes = static_cast<uint8_t*>(out);
        while (size > 0) {
            pollfd readable{mFd, POLLIN, 0};
            if (poll(&readable, 1, static_cast<int>(timeout.count())) <= 0) {
                return false;
            }
            const ssize_t n = recv(mFd, bytes, size, 0);
            if (n <= 0) {
                mClosed = true;
                return false;
            }
            bytes += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }

    const int mFd;
    bool mClosed = false;
};

// A process session opened by hand: control connection plus one thread.
struct RawSession {
    explicit RawSession(const std::string& path) : control(path), thread(path) {
        const HelloProcess hello{15, 0};
        control.sendFrame(kHelloProcess, &hello, sizeof(hello));
        std::vector<uint8_t> welcome;
        if (control.nextCommand(&welcome) == kWelcome && welcome.size() == sizeof(HelloThread)) {
            thread.sendFrame(kHelloThread, welcome.data(), welcome.size());
            ready = true;
        }
    }
    // binderd's answer to a transaction: kRefused's status, or what it sent.
    int64_t refusal() {
        std::vector<uint8_t> payload;
        const int64_t command = thread.nextCommand(&payload);
        int32_t status = 0;
        if (command != kRefused || payload.size() != sizeof(status)) {
            return command;
        }
        std::memcpy(&status, payload.data(), sizeof(status));
        return status;
    }
    RawPeer control;
    RawPeer thread;
    bool ready = false;
};

std::vector<uint8_t> parcelWithObject(uint32_t type, uint64_t value, size_t dataSize, size_t objectAt) {
    std::vector<uint8_t> data(dataSize, 0);
    flat_binder_object object{};
    object.hdr.type = type;
    object.handle = static_cast<uint32_t>(value);
    object.binder = value;
    object.cookie = type == BINDER_TYPE_BINDER ? value : 0;
    if (objectAt + sizeof(object) <= data.size()) {
        std::memcpy(data.data() + objectAt, &object, sizeof(object));
    }
    return data;
}

class Binderd : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(session.started()) << session.error(); }

    void startService() {
        Channel ready;
        spawnTestService(session, ready);
        ASSERT_EQ(ready.next(), "ready");
    }

    // A child that finds the service and gets an echo through it.
    void expectHealthyClient() {
        const pid_t client = session.spawn([] {
            sp<IBinder> service = lookUpTestService();
            CHILD_CHECK(service != nullptr);
            Parcel data;
            Parcel reply;
            data.writeInt32(123);
            CHILD_CHECK(service->transact(TestService::kEcho, data, &reply) == OK);
            CHILD_CHECK(reply.readInt32() == 123);
            return 0;
        });
        EXPECT_EQ(session.waitExit(client), 0);
    }

    BinderdSession session;
};

TEST_F(Binderd, MalformedFramesCutOnlyTheConnectionThatSentThem) {
    ASSERT_NO_FATAL_FAILURE(startService());
    std::vector<uint8_t> payload;

    RawPeer garbage(session.socketPath());
    const char noise[] = "\x13\x37 this is not a frame at all \xff\xff\xff\xff\xff\xff";
    garbage.sendBytes(noise, sizeof(noise));
    EXPECT_EQ(garbage.nextCommand(&payload), 0);

    RawPeer huge(session.socketPath());
    const FrameHeader twoGigabytes{0x80000000u, kTransaction};
    huge.sendBytes(&twoGigabytes, sizeof(twoGigabytes));
    EXPECT_EQ(huge.nextCommand(&payload), 0);

    RawPeer truncated(session.socketPath());
    const FrameHeader promise{64, kHelloProcess};
    truncated.sendBytes(&promise, sizeof(promise));
    truncated.sendBytes("short", 5);
    truncated.finishSending();
    EXPECT_EQ(truncated.nextCommand(&payload), 0);

    RawPeer impostor(session.socketPath());
    const HelloThread forgedToken{0x1234567890abcdefULL};
    impostor.sendFrame(kHelloThread, &forgedToken, sizeof(forgedToken));
    EXPECT_EQ(impostor.nextCommand(&payload), 0);

    RawSession rogue(session.socketPath());
    ASSERT_TRUE(rogue.ready);
    // Parcels that fail validation are refused and never delivered...
    rogue.thread.sendTransaction(777, {0, 0, 0, 0}, {});
    EXPECT_EQ(rogue.refusal(), FAILED_TRANSACTION);
    rogue.thread.sendTransaction(0, parcelWithObject(BINDER_TYPE_HANDLE, 5, 64, 0), {0});
    EXPECT_EQ(rogue.refusal(), FAILED_TRANSACTION);
    rogue.thread.sendTransaction(0, parcelWithObject(BINDER_TYPE_BINDER, 0x1000, 64, 0), {48});
    EXPECT_EQ(rogue.refusal(), FAILED_TRANSACTION);
    rogue.thread.sendTransaction(0, parcelWithObject(BINDER_TYPE_BINDER, 0x1000, 64, 2), {2});
    EXPECT_EQ(rogue.refusal(), FAILED_TRANSACTION);
    rogue.thread.sendTransaction(0, parcelWithObject(0x12345678, 0x1000, 64, 0), {0});
    EXPECT_EQ(rogue.refusal(), FAILED_TRANSACTION);
    rogue.thread.sendTransaction(0, parcelWithObject(BINDER_TYPE_BINDER, 0x1000, 64, 8), {8, 16});
    EXPECT_EQ(rogue.refusal(), FAILED_TRANSACTION);
    // ...while a reply that answers nothing breaks the protocol and is cut.
    const TransactionHeader empty{};
    rogue.thread.sendFrame(kReply, &empty, sizeof(empty));
    EXPECT_EQ(rogue.thread.nextCommand(&payload), 0);
    // A release of a handle the process never got ends its whole session.
    const HandleCount forgedRelease{99, 1};
    rogue.control.sendFrame(kReleaseHandle, &forgedRelease, sizeof(forgedRelease));
    EXPECT_EQ(rogue.control.nextCommand(&payload), 0);

    expectHealthyClient();
    EXPECT_EQ(kill(session.binderdPid(), 0), 0);
}

TEST_F(Binderd, APeerThatNeverReadsIsCutWithoutStallingOthers) {
    ASSERT_NO_FATAL_FAILURE(startService());
    RawSession lazy(session.socketPath());
    ASSERT_TRUE(lazy.ready);
    // Death requests on the context manager answer nothing; list requests do:
    // ask for the service list over and over without ever reading replies.
    // Each waits for its reply, so only one is in flight: binderd's buffer for
    // this peer stays small and it must simply keep serving everyone else.
    std::vector<uint8_t> listRequest;
    {
        Parcel data;
        data.writeInterfaceToken(String16("android.os.IServiceManager"));
        data.writeInt32(0);
        listRequest.assign(data.data(), data.data() + data.dataSize());
    }
    lazy.thread.sendTransaction(0, listRequest, {});
    expectHealthyClient();
}

TEST(BinderdCommandLine, HelpLiveDaemonStaleSocketAndCleanExit) {
    BinderdSession session;
    ASSERT_TRUE(session.started()) << session.error();
    auto run = [](const std::vector<std::string>& arguments, std::string* output) {
        int pipeFds[2];
        EXPECT_EQ(pipe(pipeFds), 0);
        const pid_t child = fork();
        if (child == 0) {
            dup2(pipeFds[1], STDOUT_FILENO);
            dup2(pipeFds[1], STDERR_FILENO);
            std::vector<char*> argv{const_cast<char*>("binderd")};
            for (const std::string& argument : arguments) {
                argv.push_back(const_cast<char*>(argument.c_str()));
            }
            argv.push_back(nullptr);
            execv(TIVRA_BINDERD_PATH, argv.data());
            _exit(127);
        }
        close(pipeFds[1]);
        char buffer[512];
        ssize_t n;
        while ((n = read(pipeFds[0], buffer, sizeof(buffer))) > 0) {
            output->append(buffer, static_cast<size_t>(n));
        }
        close(pipeFds[0]);
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    std::string output;
    EXPECT_EQ(run({"--help"}, &output), 0);
    EXPECT_NE(output.find("usage: binderd [--socket PATH] [--verbose]"), std::string::npos) << output;

    output.clear();
    EXPECT_EQ(run({"--socket", session.socketPath()}, &output), 1);
    EXPECT_NE(output.find("already running"), std::string::npos) << output;

    output.clear();
    EXPECT_EQ(run({"--bogus"}, &output), 2);

    // binderd killed without cleaning up leaves a socket file behind.
    kill(session.binderdPid(), SIGKILL);
    ASSERT_TRUE(waitUntil([&] { return waitpid(session.binderdPid(), nullptr, WNOHANG) != 0; }));
    ASSERT_TRUE(std::filesystem::exists(session.socketPath()));
    ASSERT_TRUE(session.startBinderd()) << session.error();
    EXPECT_TRUE(session.stopBinderd());
    EXPECT_FALSE(std::filesystem::exists(session.socketPath()));
}

TEST(BinderdCommandLine, DefaultSocketLivesInAPrivateRuntimeFolder) {
    char pattern[] = "/tmp/hostbinder-xdg-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string runtimeDir = pattern;
    const pid_t daemon = fork();
    if (daemon == 0) {
        unsetenv("HOSTBINDER_SOCKET");
        setenv("XDG_RUNTIME_DIR", runtimeDir.c_str(), 1);
        execl(TIVRA_BINDERD_PATH, "binderd", static_cast<char*>(nullptr));
        _exit(127);
    }
    const std::string socketPath = runtimeDir + "/hostbinder/binder";
    EXPECT_TRUE(waitUntil([&] { return std::filesystem::exists(socketPath); }));
    struct stat folder{};
    EXPECT_EQ(stat((runtimeDir + "/hostbinder").c_str(), &folder), 0);
    EXPECT_EQ(folder.st_mode & 0777, 0700u);
    kill(daemon, SIGINT);
    int status = -1;
    waitpid(daemon, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_FALSE(std::filesystem::exists(socketPath));
    std::filesystem::remove_all(runtimeDir);
}

}  // namespace
