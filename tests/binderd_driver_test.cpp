// binderd's driver fed frame by frame, so that the order in which frames of
// different connections arrive is the test's to choose: one-way calls paid
// from credit that a thread wrote before its process released the handle, or
// before the process ended, must be taken in first.
#include <gtest/gtest.h>
#include <linux/android/binder.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>

#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/Parcel.h>

#include "Driver.h"
#include "Limits.h"

namespace {

using namespace android;
using namespace android::hostbinder;
using android::binderd::ConnectionId;
constexpr int32_t kExNone = 0, kExSecurity = -1, kExIllegalArgument = -3, kExNullPointer = -4, kExIllegalState = -5;

struct Sent {
    ConnectionId to;
    uint32_t command;
    std::vector<uint8_t> payload;
};

std::vector<uint8_t> transactionPayload(uint64_t target, uint32_t code, uint32_t flags, const Parcel& data) {
    TransactionHeader header{};
    header.target = target;
    header.code = code;
    header.flags = flags;
    header.dataSize = static_cast<uint32_t>(data.dataSize());
    header.offsetsCount = static_cast<uint32_t>(data.objectsCount());
    std::vector<uint8_t> frame;
    appendTransaction(&frame, 0, header, data.data(), data.objects());
    return std::vector<uint8_t>(frame.begin() + sizeof(FrameHeader), frame.end());
}

// Records what the driver sends; frames a connection has "written" but the
// driver has not read yet wait in `unread` until the driver drains them.
class ScriptedOutbox : public android::binderd::Outbox {
public:
    void send(ConnectionId to, uint32_t command, const void* payload, size_t size) override {
        const auto* bytes = static_cast<const uint8_t*>(payload);
        sent.push_back({to, command, std::vector<uint8_t>(bytes, bytes + size)});
    }
    void sendTransaction(ConnectionId to, uint32_t command, const TransactionHeader& header, const uint8_t* data,
                         const uint64_t* offsets) override {
        std::vector<uint8_t> frame;
        appendTransaction(&frame, command, header, data, offsets);
        sent.push_back({to, command, std::vector<uint8_t>(frame.begin() + sizeof(FrameHeader), frame.end())});
    }
    void cut(ConnectionId) override {}
    void drain(ConnectionId id) override {
        auto& frames = unread[id];
        while (!frames.empty()) {
            const auto [command, payload] = frames.front();
            frames.pop_front();
            driver->onFrame(id, Frame{command, payload.data(), static_cast<uint32_t>(payload.size())});
        }
    }

    android::binderd::Driver* driver = nullptr;
    std::vector<Sent> sent;
    std::map<ConnectionId, std::deque<std::pair<uint32_t, std::vector<uint8_t>>>> unread;
};

// Two processes: a client (control 1, thread 2) and a service (control 3,
// looper thread 4) that registered one object as "svc".
class DriverFrames : public ::testing::Test {
protected:
    static constexpr ConnectionId kClientControl = 1, kClientThread = 2, kServiceControl = 3, kServiceLooper = 4;

    void SetUp() override {
        outbox.driver = &driver;
        startProcess(kClientControl, kClientThread, 100);
        startProcess(kServiceControl, kServiceLooper, 200);
        ASSERT_TRUE(feed(kServiceLooper, kEnterLooper, {}));

        Parcel add;
        add.writeInterfaceToken(String16("android.os.IServiceManager"));
        add.writeString16(String16("svc"));
        add.writeStrongBinder(object);
        ASSERT_TRUE(feed(kServiceLooper, kTransaction, transactionPayload(0, kAddService, 0, add)));

        Parcel check;
        check.writeInterfaceToken(String16("android.os.IServiceManager"));
        check.writeString16(String16("svc"));
        ASSERT_TRUE(feed(kClientThread, kTransaction, transactionPayload(0, kCheckService, 0, check)));
        handle = handleIn(sent(kClientThread, kIncomingReply));
        ASSERT_NE(handle, 0u);
    }

    static TransactionView viewOf(const Sent& frame) {
        TransactionView view{};
        EXPECT_TRUE(parseTransaction(
            Frame{frame.command, frame.payload.data(), static_cast<uint32_t>(frame.payload.size())}, &view));
        return view;
    }

    // The handle of the first object a delivered transaction or reply
    // carries, and its stability level; 0 when it carries none.
    static uint32_t handleIn(const Sent& frame, int32_t* stability = nullptr) {
        const TransactionView view = viewOf(frame);
        if (view.header.offsetsCount == 0) {
            return 0;
        }
        uint64_t offset = 0;
        std::memcpy(&offset, view.offsets, sizeof(offset));
        flat_binder_object found;
        std::memcpy(&found, view.data + offset, sizeof(found));
        if (stability != nullptr) {
            std::memcpy(stability, view.data + offset + sizeof(found), sizeof(*stability));
        }
        return found.handle;
    }

    void startProcess(ConnectionId control, ConnectionId thread, pid_t pid) {
        driver.onConnect(control, pid, 1000);
        driver.onConnect(thread, pid, 1000);
        const HelloProcess hello{15, 0};
        ASSERT_TRUE(feed(control, kHelloProcess, bytesOf(hello)));
        ASSERT_TRUE(feed(thread, kHelloThread, sent(control, kWelcome).payload));
    }

    template <typename T>
    static std::vector<uint8_t> bytesOf(const T& value) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(&value);
        return std::vector<uint8_t>(bytes, bytes + sizeof(T));
    }

    bool feed(ConnectionId id, uint32_t command, const std::vector<uint8_t>& payload) {
        return driver.onFrame(id, Frame{command, payload.data(), static_cast<uint32_t>(payload.size())});
    }

    // The last frame of `command` sent to `to`.
    const Sent& sent(ConnectionId to, uint32_t command) {
        for (auto it = outbox.sent.rbegin(); it != outbox.sent.rend(); ++it) {
            if (it->to == to && it->command == command) {
                return *it;
            }
        }
        static const Sent kNone{0, 0, {}};
        ADD_FAILURE() << "nothing of command " << command << " went to " << to;
        return kNone;
    }

    std::vector<uint8_t> oneway(uint32_t code) {
        Parcel data;
        data.writeInt32(static_cast<int32_t>(code));
        return transactionPayload(handle, code, kFlagOneway, data);
    }

    // The codes of the one-way calls delivered to the service, in order.
    std::vector<uint32_t> deliveredCodes() const {
        std::vector<uint32_t> codes;
        for (const Sent& frame : outbox.sent) {
            TransactionHeader header;
            if (frame.to == kServiceLooper && frame.command == kIncomingTransaction) {
                std::memcpy(&header, frame.payload.data(), sizeof(header));
                codes.push_back(header.code);
            }
        }
        return codes;
    }

    // A sync one-way call that earns credit for the next ones.
    void earnCredit() {
        ASSERT_TRUE(feed(kClientThread, kTransaction, oneway(1)));
        OnewayAccepted accepted{};
        const Sent& complete = sent(kClientThread, kTransactionComplete);
        ASSERT_EQ(complete.payload.size(), sizeof(accepted));
        std::memcpy(&accepted, complete.payload.data(), sizeof(accepted));
        ASSERT_EQ(accepted.creditBytes, kOnewayCreditBytes);
    }

    // Another thread of the client process, on connection `id`.
    void addClientThread(ConnectionId id) {
        driver.onConnect(id, 100, 1000);
        ASSERT_TRUE(feed(id, kHelloThread, sent(kClientControl, kWelcome).payload));
    }

    // A call of the service manager naming `name` and, for the calls that
    // take one, `binder` with its stability level.
    std::vector<uint8_t> serviceManagerCall(uint32_t code, const std::string& name, const sp<IBinder>& binder,
                                            int32_t stability = 12) {
        Parcel data;
        data.writeInterfaceToken(String16("android.os.IServiceManager"));
        data.writeString16(String16(name.c_str()));
        if (code == kAddService || code == kRegisterForNotifications || code == kUnregisterForNotifications) {
            data.writeStrongBinder(binder);
            data.setDataPosition(data.dataSize() - sizeof(stability));
            data.writeInt32(binder == nullptr ? 0 : stability);
        }
        return transactionPayload(0, code, 0, data);
    }

    // The answer to a call of the service manager (see lastAnswer).
    int32_t answerTo(ConnectionId thread, uint32_t code, const std::string& name, const sp<IBinder>& binder,
                     int32_t stability = 12) {
        return feed(thread, kTransaction, serviceManagerCall(code, name, binder, stability)) ? lastAnswer(thread)
                                                                                             : INT32_MIN;
    }

    // The status of the last reply to `thread`, or the int32 its parcel
    // starts with (a service manager's exception code) when the status is OK.
    int32_t lastAnswer(ConnectionId thread) {
        const TransactionView view = viewOf(sent(thread, kIncomingReply));
        int32_t first = 0;
        if (view.header.status != OK || view.header.dataSize < sizeof(first)) {
            return view.header.status;
        }
        std::memcpy(&first, view.data, sizeof(first));
        return first;
    }

    // A two-way call carrying `value` and, when given, a binder; or its reply.
    bool callWith(ConnectionId thread, uint32_t target, int32_t value, const sp<IBinder>& binder = nullptr) {
        Parcel data;
        data.writeInt32(value);
        if (binder != nullptr) {
            data.writeStrongBinder(binder);
        }
        return feed(thread, kTransaction, transactionPayload(target, 1, 0, data));
    }
    bool replyWith(ConnectionId thread, int32_t value) {
        Parcel data;
        data.writeInt32(value);
        return feed(thread, kReply, transactionPayload(0, 0, 0, data));
    }

    int32_t addService(ConnectionId thread, const std::string& name, const sp<IBinder>& binder) {
        return answerTo(thread, kAddService, name, binder);
    }

    // binderd's answer to a call of `size` bytes from `thread`: 0 when it
    // went to the service, else the refusal's status.
    int32_t call(ConnectionId thread, size_t size, uint32_t flags) {
        const size_t before = outbox.sent.size();
        Parcel data;
        const std::vector<uint8_t> bytes(size, 7);
        data.write(bytes.data(), bytes.size());
        EXPECT_TRUE(feed(thread, kTransaction, transactionPayload(handle, 1, flags, data)));
        for (size_t i = before; i < outbox.sent.size(); ++i) {
            if (outbox.sent[i].to == thread && outbox.sent[i].command == kRefused) {
                int32_t status = 0;
                std::memcpy(&status, outbox.sent[i].payload.data(), sizeof(status));
                return status;
            }
        }
        return 0;
    }

    size_t framesTo(ConnectionId to, uint32_t command) const {
        return static_cast<size_t>(std::count_if(outbox.sent.begin(), outbox.sent.end(), [&](const Sent& frame) {
            return frame.to == to && frame.command == command;
        }));
    }

    ScriptedOutbox outbox;
    android::binderd::Driver driver{outbox, false};
    sp<BBinder> object = new BBinder();
    uint32_t handle = 0;
};

TEST_F(DriverFrames, CallsPaidFromCreditGoAheadOfTheReleaseOfTheirHandle) {
    earnCredit();
    // Written by the thread before another thread released the last proxy,
    // but the release is read first.
    outbox.unread[kClientThread].push_back({kOnewayCredited, oneway(2)});
    outbox.unread[kClientThread].push_back({kOnewayCredited, oneway(3)});
    ASSERT_TRUE(feed(kClientControl, kReleaseHandle, bytesOf(HandleCount{handle, 1})));
    EXPECT_TRUE(outbox.unread[kClientThread].empty());
    // The first call is running; the next two were sent ahead, in order.
    EXPECT_EQ(deliveredCodes(), (std::vector<uint32_t>{1, 2, 3}));
    // The credit ended with the handle: a further credited call is dropped.
    EXPECT_TRUE(feed(kClientThread, kOnewayCredited, oneway(4)));
    EXPECT_EQ(deliveredCodes().size(), 3u);
}

TEST_F(DriverFrames, CallsPaidFromCreditOfAProcessThatEndedAreStillDelivered) {
    earnCredit();
    outbox.unread[kClientThread].push_back({kOnewayCredited, oneway(2)});
    driver.onDisconnect(kClientControl);
    EXPECT_EQ(deliveredCodes(), (std::vector<uint32_t>{1, 2}));
}

TEST_F(DriverFrames, CreditIsVoidedAndRevokedWhenTheReceiverDies) {
    earnCredit();
    driver.onDisconnect(kServiceControl);
    const Sent& revoked = sent(kClientControl, kCreditRevoked);
    uint64_t revocations = 0;
    ASSERT_EQ(revoked.payload.size(), sizeof(revocations));
    std::memcpy(&revocations, revoked.payload.data(), sizeof(revocations));
    EXPECT_EQ(revocations, 1u);
    // A call the thread sent before it heard is lost with the receiver.
    EXPECT_TRUE(feed(kClientThread, kOnewayCredited, oneway(2)));
    ASSERT_TRUE(feed(kClientThread, kTransaction, oneway(3)));
    int32_t status = 0;
    const Sent& refused = sent(kClientThread, kRefused);
    ASSERT_EQ(refused.payload.size(), sizeof(status));
    std::memcpy(&status, refused.payload.data(), sizeof(status));
    EXPECT_EQ(status, DEAD_OBJECT);
}

TEST_F(DriverFrames, CreditedCallsBeyondTheCreditOrCarryingObjectsBreakTheProtocol) {
    earnCredit();
    Parcel tooLarge;
    const std::vector<uint8_t> bytes(kOnewayCreditBytes + 4, 1);
    tooLarge.write(bytes.data(), bytes.size());
    EXPECT_FALSE(feed(kClientThread, kOnewayCredited, transactionPayload(handle, 5, kFlagOneway, tooLarge)));

    Parcel withObject;
    withObject.writeStrongBinder(object);
    EXPECT_FALSE(feed(kClientThread, kOnewayCredited, transactionPayload(handle, 5, kFlagOneway, withObject)));

    EXPECT_FALSE(feed(kClientThread, kOnewayCredited, transactionPayload(handle + 1, 5, kFlagOneway, Parcel())));
    EXPECT_EQ(deliveredCodes(), (std::vector<uint32_t>{1}));
}

}  // namespace

TEST_F(DriverFrames, ServiceNamesBelongToTheirLiveRegistrant) {
    const sp<IBinder> other = new BBinder();
    struct Case {
        const char* name;
        ConnectionId from;
        std::string service;
        int32_t exception;
        int32_t stability = 12;  // registered, and handed out with lookups
    };
    const std::vector<Case> cases{
        {"another process takes a live name", kClientThread, "svc", kExSecurity},
        {"the owner replaces its binder with a vendor one", kServiceLooper, "svc", kExNone, 3},
        {"empty name", kClientThread, "", kExIllegalArgument},
        {"128 characters", kClientThread, std::string(128, 'a'), kExIllegalArgument},
        {"a character outside the set", kClientThread, "bad name", kExIllegalArgument},
        {"127 characters of the set", kClientThread, std::string(120, 'a') + "_.-/A9z", kExNone},
        {"a stability level no binder has", kClientThread, "odd.level", BAD_TYPE, 5},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(answerTo(c.from, kAddService, c.service, other, c.stability), c.exception);
        if (c.exception == kExNone) {
            int32_t stability = 0;
            ASSERT_TRUE(feed(kClientThread, kTransaction, serviceManagerCall(kCheckService, c.service, nullptr)));
            EXPECT_NE(handleIn(sent(kClientThread, kIncomingReply), &stability), 0u);
            EXPECT_EQ(stability, c.stability);
        }
    }
    // Once its owner is gone the name is free.
    driver.onDisconnect(kServiceControl);
    EXPECT_EQ(addService(kClientThread, "svc", other), kExNone);
}

TEST_F(DriverFrames, AProcessRegistersABoundedNumberOfNamesAndCallbacks) {
    const sp<IBinder> other = new BBinder();
    for (size_t i = 0; i < android::binderd::kMaxCallbacksPerProcess; ++i) {
        ASSERT_EQ(answerTo(kClientThread, kRegisterForNotifications, "absent", other), kExNone);
    }
    EXPECT_EQ(answerTo(kClientThread, kRegisterForNotifications, "absent", other), kExIllegalState);
    for (size_t i = 0; i < android::binderd::kMaxNamesPerProcess; ++i) {
        ASSERT_EQ(addService(kClientThread, "name" + std::to_string(i), other), kExNone);
    }
    EXPECT_EQ(addService(kClientThread, "one.too.many", other), kExIllegalState);
    // Replacing its own name is not a new one.
    EXPECT_EQ(addService(kClientThread, "name0", other), kExNone);
    // Another process is not held back by this one.
    EXPECT_EQ(addService(kServiceLooper, "svc2", other), kExNone);
}

TEST_F(DriverFrames, AProcessHasOneDeathRequestPerHandle) {
    struct Case {
        const char* name;
        std::vector<uint32_t> commands;
        size_t notices;
    };
    const std::vector<Case> cases{
        {"repeats are ignored", {kRequestDeath, kRequestDeath, kRequestDeath}, 1},
        {"a cleared request is gone", {kRequestDeath, kClearDeath, kClearDeath}, 0},
        {"requested again after clearing", {kRequestDeath, kClearDeath, kRequestDeath, kRequestDeath}, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        for (uint32_t command : c.commands) {
            ASSERT_TRUE(feed(kClientControl, command, bytesOf(HandleCount{handle, 0})));
        }
    }
    // The three sets of requests leave two pending: still one notice.
    driver.onDisconnect(kServiceControl);
    EXPECT_EQ(framesTo(kClientControl, kDeadBinder), 1u);
}

TEST_F(DriverFrames, WorkForAProcessStaysWithinItsBuffer) {
    constexpr ConnectionId kSecondThread = 5, kThirdThread = 6;
    addClientThread(kSecondThread);
    addClientThread(kThirdThread);
    constexpr size_t kThird = kMaxTransactionBytes / 3;
    // The service's one looper takes the first call and does not answer:
    // what follows waits in its buffer.
    EXPECT_EQ(call(kClientThread, kThird, 0), 0);
    EXPECT_EQ(call(kSecondThread, kThird, kFlagOneway), 0);
    // One-way beyond half of the buffer is refused, and so is anything
    // beyond all of it.
    EXPECT_EQ(call(kThirdThread, kThird, kFlagOneway), FAILED_TRANSACTION);
    EXPECT_EQ(call(kThirdThread, kThird + 64, 0), FAILED_TRANSACTION);
    EXPECT_EQ(call(kThirdThread, kThird - 64, 0), 0);
    // An answered call gives its room back.
    TransactionHeader reply{};
    ASSERT_TRUE(feed(kServiceLooper, kReply, bytesOf(reply)));
    EXPECT_EQ(call(kClientThread, kThird, 0), 0);
}

TEST_F(DriverFrames, LookupsWaitingForANameAreBoundedPerProcess) {
    const size_t waiters = android::binderd::kMaxLookupWaitersPerProcess;
    for (size_t i = 0; i <= waiters; ++i) {
        const ConnectionId thread = 10 + i;
        addClientThread(thread);
        ASSERT_TRUE(feed(thread, kTransaction, serviceManagerCall(kGetService, "absent", nullptr)));
        EXPECT_EQ(framesTo(thread, kIncomingReply), i < waiters ? 0u : 1u) << "lookup " << i;
    }
}

TEST_F(DriverFrames, CallsBackAlongAChainReachTheThreadThatWaitsUpToADepthBound) {
    const sp<IBinder> clientObject = new BBinder();
    ASSERT_TRUE(callWith(kClientThread, handle, 1, clientObject));
    const uint32_t clientHandle = handleIn(sent(kServiceLooper, kIncomingTransaction));
    // A one-way call midway goes to the node's pool, not to the thread that waits.
    ASSERT_TRUE(feed(kServiceLooper, kTransaction, transactionPayload(clientHandle, 1, kFlagOneway, Parcel())));
    EXPECT_EQ(framesTo(kClientThread, kIncomingTransaction), 0u);
    EXPECT_EQ(framesTo(kClientControl, kSpawnLooper), 1u);
    // The two threads call each other back, one level deeper each time.
    auto caller = [](uint32_t depth) { return depth % 2 == 0 ? kServiceLooper : kClientThread; };
    auto callee = [](uint32_t depth) { return depth % 2 == 0 ? kClientThread : kServiceLooper; };
    for (uint32_t depth = 2; depth <= android::binderd::kMaxCallDepth; ++depth) {
        ASSERT_TRUE(callWith(caller(depth), depth % 2 == 0 ? clientHandle : handle, static_cast<int32_t>(depth)));
        ASSERT_EQ(outbox.sent.back().to, callee(depth)) << "depth " << depth;
        ASSERT_EQ(outbox.sent.back().command, kIncomingTransaction);
    }
    ASSERT_TRUE(callWith(kClientThread, handle, 0));
    int32_t refused = 0;
    std::memcpy(&refused, sent(kClientThread, kRefused).payload.data(), sizeof(refused));
    EXPECT_EQ(refused, FAILED_TRANSACTION);
    // A thread that waits answers nothing; each level's answer reaches its caller.
    EXPECT_FALSE(replyWith(kServiceLooper, 0));
    for (uint32_t depth = android::binderd::kMaxCallDepth; depth >= 1; --depth) {
        ASSERT_TRUE(replyWith(callee(depth), static_cast<int32_t>(depth)));
        ASSERT_EQ(lastAnswer(caller(depth)), static_cast<int32_t>(depth));
    }
}

TEST_F(DriverFrames, AnOuterCallsFailureWaitsUntilTheInnerLevelsAreDone) {
    constexpr ConnectionId kThirdControl = 5, kThirdLooper = 6;
    startProcess(kThirdControl, kThirdLooper, 300);
    ASSERT_EQ(addService(kThirdLooper, "third", new BBinder()), kExNone);
    ASSERT_TRUE(feed(kThirdLooper, kEnterLooper, {}));
    ASSERT_TRUE(feed(kClientThread, kTransaction, serviceManagerCall(kCheckService, "third", nullptr)));
    const uint32_t third = handleIn(sent(kClientThread, kIncomingReply));
    // The client calls the service, which calls it back; the call back goes
    // on to the third process.
    ASSERT_TRUE(callWith(kClientThread, handle, 1, new BBinder()));
    ASSERT_TRUE(callWith(kServiceLooper, handleIn(sent(kServiceLooper, kIncomingTransaction)), 2));
    ASSERT_TRUE(callWith(kClientThread, third, 3));
    const size_t replies = framesTo(kClientThread, kIncomingReply);
    // The service's thread goes: the first call has failed, but its failure
    // would reach the level of the third call.
    driver.onDisconnect(kServiceLooper);
    EXPECT_EQ(framesTo(kClientThread, kIncomingReply), replies);
    ASSERT_TRUE(replyWith(kThirdLooper, 30));
    EXPECT_EQ(lastAnswer(kClientThread), 30);
    ASSERT_TRUE(replyWith(kClientThread, 20));
    EXPECT_EQ(lastAnswer(kClientThread), DEAD_OBJECT);
}

TEST_F(DriverFrames, CallbacksHearOfTheirNameFromBinderdAtOnceAndOnEveryAdd) {
    constexpr ConnectionId kClientLooper = 7;
    addClientThread(kClientLooper);
    ASSERT_TRUE(feed(kClientLooper, kEnterLooper, {}));
    const sp<IBinder> callback = new BBinder();
    // The names the callback heard of since the last row, each from binderd.
    auto heard = [&, seen = size_t{0}]() mutable {
        std::vector<std::string> names;
        for (; seen < outbox.sent.size(); ++seen) {
            const Sent& frame = outbox.sent[seen];
            if (frame.to != kClientLooper || frame.command != kIncomingTransaction) {
                continue;
            }
            const TransactionView view = viewOf(frame);
            Parcel data;
            data.setData(view.data, view.header.dataSize);
            EXPECT_TRUE(data.enforceInterface(String16("android.os.IServiceCallback")));
            EXPECT_EQ(view.header.code, 1u);
            EXPECT_EQ(view.header.flags, kFlagOneway);
            EXPECT_EQ(view.header.senderPid, getpid());
            EXPECT_NE(handleIn(frame), 0u);
            names.push_back(String8(data.readString16()).string());
            EXPECT_TRUE(feed(kClientLooper, kOnewayDone, {}));
        }
        return names;
    };
    using Names = std::vector<std::string>;
    struct Case {
        const char* name;
        ConnectionId from;
        uint32_t code;
        std::string service;
        sp<IBinder> binder;
        int32_t exception;
        Names heard;
    };
    const std::vector<Case> cases{
        {"a registered name is told at once", kClientThread, kRegisterForNotifications, "svc", callback, kExNone,
         {"svc"}},
        {"a name not yet registered", kClientThread, kRegisterForNotifications, "later", callback, kExNone, {}},
        {"its registration", kServiceLooper, kAddService, "later", object, kExNone, {"later"}},
        {"every later one", kServiceLooper, kAddService, "later", object, kExNone, {"later"}},
        {"a null callback", kClientThread, kRegisterForNotifications, "later", nullptr, kExNullPointer, {}},
        {"an invalid name", kClientThread, kRegisterForNotifications, "bad name", callback, kExIllegalArgument, {}},
        {"unregistered", kClientThread, kUnregisterForNotifications, "later", callback, kExNone, {}},
        {"no longer told", kServiceLooper, kAddService, "later", object, kExNone, {}},
        {"unregistered twice", kClientThread, kUnregisterForNotifications, "later", callback, kExIllegalState, {}},
        {"a callback never registered", kClientThread, kUnregisterForNotifications, "svc", object, kExIllegalState,
         {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(answerTo(c.from, c.code, c.service, c.binder), c.exception);
        EXPECT_EQ(heard(), c.heard);
    }
    // The service registers the client's callback too; when the service
    // goes, so does its registration.
    ASSERT_TRUE(callWith(kClientThread, handle, 0, callback));
    const sp<IBinder> forwarded =
        BpBinder::create(static_cast<int32_t>(handleIn(sent(kServiceLooper, kIncomingTransaction))));
    EXPECT_EQ(answerTo(kServiceLooper, kRegisterForNotifications, "later", forwarded), kExNone);
    EXPECT_EQ(heard(), Names{"later"});
    ASSERT_TRUE(replyWith(kServiceLooper, 0));
    driver.onDisconnect(kServiceControl);
    EXPECT_EQ(addService(kClientThread, "later", object), kExNone);
    EXPECT_EQ(heard(), Names{});
}
