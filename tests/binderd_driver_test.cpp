// binderd's driver fed frame by frame, so that the order in which frames of
// different connections arrive is the test's to choose: one-way calls paid
// from credit that a thread wrote before its process released the handle, or
// before the process ended, must be taken in first. Watchers of the traffic
// are fed the same way, with a backlog the test chooses.
#include <gtest/gtest.h>
#include <linux/android/binder.h>

#include <unistd.h>

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

struct Sent {
    ConnectionId to;
    uint32_t command;
    std::vector<uint8_t> payload;
};

// A transaction's payload as a frame carries it.
std::vector<uint8_t> payloadOf(const TransactionHeader& header, const uint8_t* data, const uint64_t* offsets) {
    std::vector<uint8_t> frame;
    appendTransaction(&frame, 0, header, data, offsets);
    return std::vector<uint8_t>(frame.begin() + sizeof(FrameHeader), frame.end());
}

std::vector<uint8_t> transactionPayload(uint64_t target, uint32_t code, uint32_t flags, const uint8_t* data,
                                        size_t size, const uint64_t* offsets = nullptr, size_t offsetsCount = 0) {
    TransactionHeader header{};
    header.target = target;
    header.code = code;
    header.flags = flags;
    header.dataSize = static_cast<uint32_t>(size);
    header.offsetsCount = static_cast<uint32_t>(offsetsCount);
    return payloadOf(header, data, offsets);
}

std::vector<uint8_t> transactionPayload(uint64_t target, uint32_t code, uint32_t flags, const Parcel& data) {
    return transactionPayload(target, code, flags, data.data(), data.dataSize(), data.objects(), data.objectsCount());
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
        sent.push_back({to, command, payloadOf(header, data, offsets)});
    }
    void sendDescriptor(ConnectionId to, uint32_t command, const void* payload, size_t size,
                        int descriptor) override {
        send(to, command, payload, size);
        close(descriptor);
    }
    bool takesDescriptor(ConnectionId) const override { return true; }
    void cut(ConnectionId) override {}
    void finish(ConnectionId id) override { finished.push_back(id); }
    size_t backlog(ConnectionId id) const override {
        auto it = backlogs.find(id);
        return it == backlogs.end() ? 0 : it->second;
    }
    void writeNow(ConnectionId) override {}
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
    std::vector<ConnectionId> finished;
    std::map<ConnectionId, size_t> backlogs;  // as the test sets them
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

        ASSERT_EQ(addService(kServiceLooper, "svc", object), kExNone);

        handle = lookUp("svc");
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
    // A transaction or reply whose parcel names `handle` of its sender, as a
    // proxy writes it.
    static std::vector<uint8_t> naming(uint32_t handle, uint64_t target = 0, uint32_t code = 0) {
        Parcel parcel;
        flat_binder_object object{};
        object.hdr.type = BINDER_TYPE_HANDLE;
        object.handle = handle;
        parcel.write(&object, sizeof(object));
        parcel.appendObject(0);
        return transactionPayload(target, code, 0, parcel);
    }

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
        ASSERT_TRUE(feed(control, kHelloProcess, bytesOf(HelloProcess{15, 0})));
        addThread(thread, pid, control);
    }

    // Another thread of process `pid` (the client's by default), on connection `id`.
    void addThread(ConnectionId id, pid_t pid = 100, ConnectionId control = kClientControl) {
        driver.onConnect(id, pid, 1000);
        ASSERT_TRUE(feed(id, kHelloThread, sent(control, kWelcome).payload));
    }

    template <typename T>
    static std::vector<uint8_t> bytesOf(const T& value) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(&value);
        return std::vector<uint8_t>(bytes, bytes + sizeof(T));
    }

    bool feed(ConnectionId id, uint32_t command, const std::vector<uint8_t>& payload) {
        const bool taken = driver.onFrame(id, Frame{command, payload.data(), static_cast<uint32_t>(payload.size())});
        EXPECT_EQ(driver.checkInvariants(), "") << "after command " << command << " on " << id;
        return taken;
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

    template <typename T>
    static T payloadAs(const Sent& frame) {
        T value{};
        EXPECT_EQ(frame.payload.size(), sizeof(value));
        std::memcpy(&value, frame.payload.data(), std::min(sizeof(value), frame.payload.size()));
        return value;
    }

    // A sync one-way call that earns credit for the next ones.
    void earnCredit() {
        ASSERT_TRUE(feed(kClientThread, kTransaction, oneway(1)));
        ASSERT_EQ(payloadAs<OnewayAccepted>(sent(kClientThread, kTransactionComplete)).creditBytes,
                  kOnewayCreditBytes);
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
    // went to the service (or `target`), else the refusal's status.
    // A call by a thread of the client process. Before a one-way call that
    // waits, the process gives back its credit for the handle, as clients do.
    int32_t call(ConnectionId thread, size_t size, uint32_t flags, uint32_t target = 0) {
        target = target == 0 ? handle : target;
        uint32_t& credit = clientCredit[target];
        if ((flags & kFlagOneway) != 0 && credit > 0) {
            EXPECT_TRUE(feed(kClientControl, kReturnCredit, bytesOf(CreditReturn{target, credit})));
            credit = 0;
        }
        const size_t before = outbox.sent.size();
        Parcel data;
        const std::vector<uint8_t> bytes(size, 7);
        data.write(bytes.data(), bytes.size());
        EXPECT_TRUE(feed(thread, kTransaction, transactionPayload(target, 1, flags, data)));
        for (size_t i = before; i < outbox.sent.size(); ++i) {
            if (outbox.sent[i].to != thread) {
                continue;
            }
            if (outbox.sent[i].command == kRefused) {
                return payloadAs<int32_t>(outbox.sent[i]);
            }
            if (outbox.sent[i].command == kTransactionComplete) {
                credit += payloadAs<OnewayAccepted>(outbox.sent[i]).creditBytes;
            }
        }
        return 0;
    }

    // Another process (control `control`, one looper `control + 1`) serving
    // a fresh binder under `name`; the client's handle to it.
    uint32_t startService(ConnectionId control, pid_t pid, const std::string& name) {
        startProcess(control, control + 1, pid);
        EXPECT_TRUE(feed(control + 1, kEnterLooper, {}));
        EXPECT_EQ(addService(control + 1, name, new BBinder()), kExNone);
        return lookUp(name);
    }

    // The client's handle for `name` (0: none), and its stability level.
    uint32_t lookUp(const std::string& name, int32_t* stability = nullptr) {
        EXPECT_TRUE(feed(kClientThread, kTransaction, serviceManagerCall(kCheckService, name, nullptr)));
        return handleIn(sent(kClientThread, kIncomingReply), stability);
    }

    // A connection `id` of process `pid` that watches the traffic.
    void addWatcher(ConnectionId id, pid_t pid) {
        driver.onConnect(id, pid, geteuid());
        ASSERT_TRUE(feed(id, kHelloMonitor, {}));
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
    // The client process's one-way credit, by handle, as call() keeps it.
    std::map<uint32_t, uint32_t> clientCredit;
};

TEST_F(DriverFrames, CallsPaidFromCreditKeepTheirPlaceBeforeWaitedCallsAndTheRelease) {
    earnCredit();
    // Paid from credit on the control connection by one thread, then a call
    // that waits sent by another: binderd reads the control connection first.
    outbox.unread[kClientControl].push_back({kOnewayCredited, oneway(2)});
    outbox.unread[kClientControl].push_back({kOnewayCredited, oneway(3)});
    ASSERT_TRUE(feed(kClientThread, kTransaction, oneway(4)));
    EXPECT_TRUE(outbox.unread[kClientControl].empty());
    EXPECT_EQ(deliveredCodes(), (std::vector<uint32_t>{1, 2, 3, 4}));
    // The credit ends with the handle: a credited call after the release is dropped.
    ASSERT_TRUE(feed(kClientControl, kReleaseHandle, bytesOf(HandleCount{handle, 1})));
    EXPECT_TRUE(feed(kClientControl, kOnewayCredited, oneway(5)));
    EXPECT_EQ(deliveredCodes().size(), 4u);
}

TEST_F(DriverFrames, AReplyNamingAHandleComesBeforeTheReleaseThatFollowedIt) {
    const sp<BBinder> clientObject = new BBinder();
    ASSERT_TRUE(callWith(kClientThread, handle, 1, clientObject));
    const uint32_t clientHandle = handleIn(sent(kServiceLooper, kIncomingTransaction));
    // The looper's reply held the handle until it was written; the release
    // that followed on the control connection is read first.
    outbox.unread[kServiceLooper].push_back({kReply, naming(clientHandle)});
    const size_t replies = framesTo(kClientThread, kIncomingReply);
    ASSERT_TRUE(feed(kServiceControl, kReleaseHandle, bytesOf(HandleCount{clientHandle, 1})));
    ASSERT_EQ(framesTo(kClientThread, kIncomingReply), replies + 1);
    const TransactionView reply = viewOf(sent(kClientThread, kIncomingReply));
    EXPECT_EQ(reply.header.status, OK);
    EXPECT_EQ(reply.header.offsetsCount, 1u);
}

TEST_F(DriverFrames, AWaitedCallOfAProcessThatEndedIsStillDelivered) {
    earnCredit();
    outbox.unread[kClientThread].push_back({kTransaction, oneway(2)});
    driver.onDisconnect(kClientControl);
    EXPECT_EQ(deliveredCodes(), (std::vector<uint32_t>{1, 2}));
}

// More one-way calls than go ahead to the thread: the rest wait in the
// node's line, and whether they go ahead, wait or return to the line when
// their thread goes (with the call it ran), the service takes them in the
// order sent.
TEST_F(DriverFrames, OneWayCallsReachTheServiceInSendOrderThroughTheLineAndAThreadThatGoes) {
    constexpr uint32_t kCalls = kMaxPipelinedCalls + 8;
    for (uint32_t code = 1; code <= kCalls; ++code) {
        ASSERT_TRUE(feed(kClientThread, kTransaction, oneway(code)));
    }
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(feed(kServiceLooper, kOnewayDone, {}));
    }
    const auto codesTo = [this](ConnectionId to, uint32_t from) {
        std::vector<uint32_t> codes, expected;
        for (const Sent& frame : outbox.sent) {
            if (frame.to == to && frame.command == kIncomingTransaction) {
                codes.push_back(viewOf(frame).header.code);
                expected.push_back(from + static_cast<uint32_t>(expected.size()));
            }
        }
        EXPECT_EQ(codes, expected);
        return codes.size();
    };
    EXPECT_EQ(codesTo(kServiceLooper, 1), kMaxPipelinedCalls + 4);
    constexpr ConnectionId kSecondLooper = 5;
    addThread(kSecondLooper, 200, kServiceControl);
    ASSERT_TRUE(feed(kSecondLooper, kEnterLooper, {}));
    driver.onDisconnect(kServiceLooper);
    while (framesTo(kSecondLooper, kIncomingTransaction) < kCalls - 4) {
        ASSERT_TRUE(feed(kSecondLooper, kOnewayDone, {}));
    }
    EXPECT_EQ(codesTo(kSecondLooper, 5), kCalls - 4);
}

TEST_F(DriverFrames, CreditIsToppedUpToOneStepAndGivenBackByTheByte) {
    earnCredit();
    const size_t charge = bufferCharge(0, 0, true);
    ASSERT_TRUE(feed(kClientControl, kOnewayCredited, oneway(2)));
    ASSERT_TRUE(feed(kClientThread, kTransaction, oneway(3)));
    EXPECT_EQ(payloadAs<OnewayAccepted>(outbox.sent.back()).creditBytes, charge);
    // Giving back more than is held breaks the protocol; all of it ends the credit.
    EXPECT_FALSE(feed(kClientControl, kReturnCredit,
                      bytesOf(CreditReturn{handle, static_cast<uint32_t>(kOnewayCreditBytes + 1)})));
    ASSERT_TRUE(feed(kClientControl, kReturnCredit, bytesOf(CreditReturn{handle, static_cast<uint32_t>(kOnewayCreditBytes)})));
    EXPECT_TRUE(feed(kClientControl, kOnewayCredited, oneway(4)));
    EXPECT_EQ(deliveredCodes(), (std::vector<uint32_t>{1, 2, 3}));
    ASSERT_TRUE(feed(kClientThread, kTransaction, oneway(5)));
    EXPECT_EQ(payloadAs<OnewayAccepted>(outbox.sent.back()).creditBytes, kOnewayCreditBytes);
}

TEST_F(DriverFrames, CreditAheadOfNeedLeavesHalfOfAUidsBuffersToCallsMade) {
    using android::binderd::kMaxBufferBytesPerUid;
    // One-way calls to more receivers of one uid than its bound holds steps
    // of credit for: each call is still delivered and no one gives way.
    const size_t receivers = kMaxBufferBytesPerUid / kOnewayCreditBytes + 8;
    size_t granted = 0;
    for (size_t i = 0; i < receivers; ++i) {
        const uint32_t target = startService(20 + 2 * i, static_cast<pid_t>(300 + i), "r" + std::to_string(i));
        ASSERT_EQ(call(kClientThread, 8, kFlagOneway, target), 0) << "receiver " << i;
        granted += clientCredit[target];
    }
    EXPECT_TRUE(outbox.finished.empty());
    EXPECT_GT(granted, 0u);
    EXPECT_LE(granted, kMaxBufferBytesPerUid / 2);
}

TEST_F(DriverFrames, CreditIsVoidedAndRevokedWhenTheReceiverDies) {
    earnCredit();
    driver.onDisconnect(kServiceControl);
    EXPECT_EQ(payloadAs<uint64_t>(sent(kClientControl, kCreditRevoked)), 1u);
    // What the process sent before it heard is lost with the receiver.
    EXPECT_TRUE(feed(kClientControl, kOnewayCredited, oneway(2)));
    EXPECT_TRUE(feed(kClientControl, kReturnCredit, bytesOf(CreditReturn{handle, 1000})));
    ASSERT_TRUE(feed(kClientThread, kTransaction, oneway(3)));
    EXPECT_EQ(payloadAs<int32_t>(sent(kClientThread, kRefused)), DEAD_OBJECT);
}

TEST_F(DriverFrames, CreditedCallsBeyondTheCreditOrCarryingObjectsBreakTheProtocol) {
    earnCredit();
    Parcel tooLarge;
    const std::vector<uint8_t> bytes(kOnewayCreditBytes + 4, 1);
    tooLarge.write(bytes.data(), bytes.size());
    EXPECT_FALSE(feed(kClientControl, kOnewayCredited, transactionPayload(handle, 5, kFlagOneway, tooLarge)));

    Parcel withObject;
    withObject.writeStrongBinder(object);
    EXPECT_FALSE(feed(kClientControl, kOnewayCredited, transactionPayload(handle, 5, kFlagOneway, withObject)));
    // A handle without credit: the call is dropped, as one voided would be.
    EXPECT_TRUE(feed(kClientControl, kOnewayCredited, transactionPayload(handle + 1, 5, kFlagOneway, Parcel())));
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
            EXPECT_NE(lookUp(c.service, &stability), 0u);
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
    // A request on a node already dead is answered at once.
    ASSERT_TRUE(feed(kClientControl, kClearDeath, bytesOf(HandleCount{handle, 0})));
    ASSERT_TRUE(feed(kClientControl, kRequestDeath, bytesOf(HandleCount{handle, 0})));
    EXPECT_EQ(framesTo(kClientControl, kDeadBinder), 2u);
}

// Parcels whose objects a receiver could not trust are refused whole and
// nothing reaches the service; a release of references never given, or
// more than given, breaks the protocol.
TEST_F(DriverFrames, ParcelsWithUntrustworthyObjectsAreRefusedAndForgedReleasesBreakTheProtocol) {
    // Objects as 32-bit words: {offset in bytes, type, handle or binder, cookie}.
    struct Object {
        uint32_t at;
        uint32_t type;
        uint32_t value;
        uint32_t cookie;
    };
    const auto parcel = [this](const std::vector<Object>& objects, uint32_t size) {
        std::vector<uint8_t> data(size, 0);
        std::vector<uint64_t> offsets;
        for (const Object& o : objects) {
            const uint32_t words[] = {o.type, 0, o.value, 0, o.cookie, 0};
            std::memcpy(data.data() + o.at, words, std::min<size_t>(sizeof(words), size - o.at));
            offsets.push_back(o.at);
        }
        return transactionPayload(handle, 1, 0, data.data(), size, offsets.data(), offsets.size());
    };
    const uint32_t h = handle;
    struct Case {
        const char* name;
        std::vector<Object> objects;
        uint32_t size;
    };
    const std::vector<Case> cases{
        {"a handle the sender does not hold", {{0, BINDER_TYPE_HANDLE, h + 5, 0}}, 64},
        {"an unknown type", {{0, 0x12345678, 0x1000, 0x1000}}, 64},
        {"an unaligned offset", {{2, BINDER_TYPE_BINDER, 0x1000, 0x1000}}, 64},
        {"an object past the data", {{48, BINDER_TYPE_BINDER, 0x1000, 0x1000}}, 64},
        {"a binder of address zero", {{0, BINDER_TYPE_BINDER, 0, 0x1000}}, 64},
        // The second starts inside the first, whose cookie makes its type.
        {"overlapping objects", {{0, BINDER_TYPE_HANDLE, h, BINDER_TYPE_HANDLE}, {16, BINDER_TYPE_HANDLE, 0, 0}}, 48},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<uint8_t> payload = parcel(c.objects, c.size);
        if (c.objects.size() == 2) {
            // The second object's handle lies past the first.
            std::memcpy(payload.data() + sizeof(TransactionHeader) + 24, &h, sizeof(h));
        }
        ASSERT_TRUE(feed(kClientThread, kTransaction, payload));
        EXPECT_EQ(payloadAs<int32_t>(outbox.sent.back()), FAILED_TRANSACTION);
        EXPECT_EQ(outbox.sent.back().command, kRefused);
    }
    EXPECT_EQ(framesTo(kServiceLooper, kIncomingTransaction), 0u);
    // A reply that answers nothing, and releases beyond what is held.
    EXPECT_FALSE(feed(kClientThread, kReply, bytesOf(TransactionHeader{})));
    EXPECT_FALSE(feed(kClientControl, kReleaseHandle, bytesOf(HandleCount{handle, 2})));
    EXPECT_FALSE(feed(kServiceControl, kReleaseHandle, bytesOf(HandleCount{99, 1})));
}

TEST_F(DriverFrames, WorkForAProcessStaysWithinItsBuffer) {
    constexpr ConnectionId kSecondThread = 5, kThirdThread = 6;
    addThread(kSecondThread);
    addThread(kThirdThread);
    // Data rounded up to 8 bytes; a one-way call also its overhead.
    constexpr size_t kThird = kMaxTransactionBytes / 3 / 8 * 8 + 4;
    const size_t room = kMaxTransactionBytes - bufferCharge(kThird, 0, false) - bufferCharge(kThird, 0, true);
    // The service's one looper takes the first call and does not answer:
    // what follows waits in its buffer.
    EXPECT_EQ(call(kClientThread, kThird, 0), 0);
    EXPECT_EQ(call(kSecondThread, kThird, kFlagOneway), 0);
    // One-way beyond half of the buffer is refused, and so is anything
    // beyond all of it, to the byte.
    EXPECT_EQ(call(kThirdThread, kThird, kFlagOneway), FAILED_TRANSACTION);
    EXPECT_EQ(call(kThirdThread, room + 4, 0), FAILED_TRANSACTION);
    EXPECT_EQ(call(kThirdThread, room, 0), 0);
    // An answered call gives its room back.
    TransactionHeader reply{};
    ASSERT_TRUE(feed(kServiceLooper, kReply, bytesOf(reply)));
    EXPECT_EQ(call(kClientThread, kThird, 0), 0);
}

TEST_F(DriverFrames, OneWayCallsOfAnySizeFillTheBufferAsCountedAndGoAheadWithinBounds) {
    constexpr size_t kFrameHeaders = sizeof(FrameHeader) + sizeof(TransactionHeader);
    struct Case {
        size_t size;
        size_t ahead;  // calls sent ahead to the thread running the first
    };
    const std::vector<Case> cases{
        {0, kMaxPipelinedCalls},
        {4, kMaxPipelinedCalls},
        {1000, kMaxPipelinedBytes / (kFrameHeaders + 1000)},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].size);
        // A fresh service whose one looper runs the first call and no more.
        const ConnectionId control = 20 + 2 * i;
        const uint32_t target = startService(control, static_cast<pid_t>(300 + i), "stuck" + std::to_string(i));
        const size_t fits = kMaxQueuedOnewayBytes / bufferCharge(cases[i].size, 0, true);
        size_t accepted = 0;
        while (accepted <= fits && call(kClientThread, cases[i].size, kFlagOneway, target) == 0) {
            ++accepted;
        }
        EXPECT_EQ(accepted, fits);
        EXPECT_EQ(framesTo(control + 1, kIncomingTransaction), 1 + cases[i].ahead);
    }
}

TEST_F(DriverFrames, TheSessionsOfOneProcessShareItsBounds) {
    // A second session of the service's process, with a binder of its own.
    constexpr ConnectionId kSecondControl = 5;
    const uint32_t second = startService(kSecondControl, 200, "svc.second");
    // The first session's buffer fills up: the second's is the same one.
    while (call(kClientThread, 0, kFlagOneway) == 0) {
    }
    EXPECT_EQ(call(kClientThread, 0, kFlagOneway, second), FAILED_TRANSACTION);
    // Names: the two sessions hold the process's share together.
    const sp<IBinder> other = new BBinder();
    for (size_t i = 2; i < android::binderd::kMaxNamesPerProcess; ++i) {
        ASSERT_EQ(addService(i % 2 == 0 ? kServiceLooper : kSecondControl + 1, "name" + std::to_string(i), other),
                  kExNone);
    }
    EXPECT_EQ(addService(kSecondControl + 1, "one.too.many", other), kExIllegalState);
    EXPECT_EQ(addService(kServiceLooper, "one.too.many", other), kExIllegalState);
    // What the sessions held goes back when they end.
    driver.onDisconnect(kServiceControl);
    driver.onDisconnect(kSecondControl);
    driver.onDisconnect(kClientControl);
    for (size_t kind = 0; kind < android::binderd::kHoldings; ++kind) {
        EXPECT_EQ(driver.holdings().total(kind), 0u) << "holding " << kind;
    }
}

TEST_F(DriverFrames, WhenAUidRunsOutTheProcessHoldingTheMostGivesWay) {
    using android::binderd::kMaxNamesPerProcess;
    using android::binderd::kMaxNamesPerUid;
    // Processes of the client's uid take all its names but the service's one.
    const sp<IBinder> other = new BBinder();
    std::vector<ConnectionId> hogs;
    for (size_t hog = 0; hog < kMaxNamesPerUid / kMaxNamesPerProcess; ++hog) {
        const ConnectionId control = 20 + 2 * hog;
        startService(control, static_cast<pid_t>(300 + hog), "hog" + std::to_string(hog) + ".0");
        hogs.push_back(control);
        for (size_t i = 1; i < kMaxNamesPerProcess - (hog == 0 ? 1 : 0); ++i) {
            ASSERT_EQ(addService(control + 1, "hog" + std::to_string(hog) + "." + std::to_string(i), other), kExNone);
        }
    }
    ASSERT_TRUE(outbox.finished.empty());
    // The client holds no name: its first one is taken from a process
    // holding the most, whose sessions end.
    EXPECT_EQ(addService(kClientThread, "innocent", other), kExNone);
    ASSERT_EQ(outbox.finished.size(), 1u);
    const ConnectionId evicted = outbox.finished[0];
    EXPECT_NE(std::find(hogs.begin() + 1, hogs.end(), evicted), hogs.end()) << "not one holding the most";
    // Its control connection heard why.
    EXPECT_EQ(payloadAs<uint32_t>(sent(evicted, kConnectionRefused)), kEvicted);
    // Once it is gone, its names are free for anyone.
    driver.onDisconnect(evicted);
    EXPECT_EQ(addService(kClientThread, "innocent.too", other), kExNone);
    EXPECT_EQ(outbox.finished.size(), 1u);
}

TEST(Ledger, ASharedBoundIsTakenFromTheHeaviestHolderAndNeverFromTheLightest) {
    // One kind: 10 per process, 15 per uid, 30 in all.
    using Ledger = android::binderd::Ledger<1>;
    using Verdict = Ledger::Verdict;
    Ledger ledger({{10}, {15}, {30}});
    const Ledger::Holder a{1, 11}, b{1, 12}, c{1, 13}, d{2, 21}, e{2, 22}, f{3, 31}, g{3, 32};
    struct Step {
        const char* name;
        Ledger::Holder taker;
        size_t amount;
        Verdict verdict;
        pid_t victim = 0;
    };
    const std::vector<Step> steps{
        {"within every bound", a, 8, Verdict::kFits},
        {"over its own bound", a, 3, Verdict::kRefused},
        {"its uid full to the bound", b, 7, Verdict::kFits},
        {"a light process crosses its uid's bound: the heaviest gives way", c, 1, Verdict::kGiveWay, 11},
        {"what gives way counts no more", c, 1, Verdict::kFits},
        {"more of the same", c, 5, Verdict::kFits},
        {"the heaviest of its uid crossing the bound is refused", b, 3, Verdict::kRefused},
        {"another uid", d, 10, Verdict::kFits},
        {"the total nearly full", e, 5, Verdict::kFits},
        {"the total crossed: the heaviest uid's heaviest process gives way", f, 3, Verdict::kGiveWay, 21},
        {"room again", f, 3, Verdict::kFits},
        {"a third uid", g, 7, Verdict::kFits},
        {"the total crossed by a light uid's process", e, 3, Verdict::kGiveWay, 12},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.name);
        const Ledger::Judgement judgement = ledger.judge(step.taker, 0, step.amount);
        EXPECT_EQ(judgement.verdict, step.verdict);
        if (judgement.verdict == Verdict::kFits) {
            ledger.take(step.taker, 0, step.amount);
        } else if (judgement.verdict == Verdict::kGiveWay) {
            EXPECT_EQ(judgement.victim.pid, step.victim);
            ledger.giveWay(judgement.victim);
        }
    }
    // Holdings given back leave nothing behind.
    for (const Ledger::Holder& holder : {a, b, c, d, e, f, g}) {
        ledger.give(holder, 0, ledger.held(holder, 0));
    }
    EXPECT_EQ(ledger.total(0), 0u);
    EXPECT_EQ(ledger.judge(a, 0, 10).verdict, Verdict::kFits);
}

TEST(HandleNumbers, ANewEntryNeverTakesANumberInUseNorZero) {
    using android::binderd::HandleRef;
    std::map<uint32_t, HandleRef> table{{UINT32_MAX, {}}, {1, {}}, {2, {}}, {5, {}}};
    struct Case {
        uint32_t next;
        uint32_t number;
    };
    const std::vector<Case> cases{{3, 3}, {UINT32_MAX, 3}, {0, 3}, {5, 6}};
    for (const Case& c : cases) {
        uint32_t next = c.next;
        EXPECT_EQ(android::binderd::newHandleNumber(table, &next), c.number) << "from " << c.next;
        EXPECT_EQ(next, c.number + 1);
    }
}

TEST_F(DriverFrames, LookupsWaitingForANameAreBoundedPerProcess) {
    const size_t waiters = android::binderd::kMaxLookupWaitersPerProcess;
    for (size_t i = 0; i <= waiters; ++i) {
        const ConnectionId thread = 10 + i;
        addThread(thread);
        ASSERT_TRUE(feed(thread, kTransaction, serviceManagerCall(kGetService, "absent", nullptr)));
        EXPECT_EQ(framesTo(thread, kIncomingReply), i < waiters ? 0u : 1u) << "lookup " << i;
    }
}

// --- watching the traffic ---

namespace {

// What a watcher heard: a record with its texts, or (kind 0) a loss count in `id`.
struct Heard {
    TrafficRecord record{};
    std::u16string name;
    std::u16string descriptor;
};

std::vector<Heard> heardBy(const std::vector<Sent>& sent, ConnectionId watcher) {
    std::vector<Heard> heard;
    for (const Sent& frame : sent) {
        Heard one;
        if (frame.to != watcher) {
            continue;
        }
        if (frame.command == kTrafficLost) {
            std::memcpy(&one.record.id, frame.payload.data(), sizeof(uint64_t));
        } else if (frame.command == kTrafficRecord) {
            std::memcpy(&one.record, frame.payload.data(), sizeof(one.record));
            const auto* text = reinterpret_cast<const char16_t*>(frame.payload.data() + sizeof(one.record));
            one.name.assign(text, one.record.nameUnits);
            one.descriptor.assign(text + one.record.nameUnits, one.record.descriptorUnits);
            EXPECT_EQ(frame.payload.size(), sizeof(one.record) + 2 * (one.name.size() + one.descriptor.size()));
        } else {
            continue;
        }
        heard.push_back(one);
    }
    return heard;
}

}  // namespace

TEST_F(DriverFrames, AWatcherHearsEveryCallAndReplyWithItsTargetAndInterface) {
    constexpr ConnectionId kWatcher = 9;
    addWatcher(kWatcher, 300);
    ASSERT_EQ(framesTo(kWatcher, kWelcome), 1u);

    Parcel data;
    data.writeInterfaceToken(String16("tivra.test.IThing"));
    data.writeInt32(5);
    ASSERT_TRUE(feed(kClientThread, kTransaction, transactionPayload(handle, 9, 0, data)));
    TransactionHeader reply{};
    reply.status = -38;
    ASSERT_TRUE(feed(kServiceLooper, kReply, bytesOf(reply)));
    // A handle the client does not hold: binderd answers at once.
    ASSERT_TRUE(feed(kClientThread, kTransaction, transactionPayload(handle + 7, 3, kFlagOneway, data)));
    ASSERT_TRUE(feed(kClientThread, kTransaction, serviceManagerCall(kCheckService, "svc", nullptr)));

    struct Expected {
        uint32_t kind;
        pid_t from;
        pid_t to;
        uint32_t target;
        const char16_t* name;
        const char16_t* descriptor;
        uint32_t code;
        int32_t status;
        bool oneway;
    };
    const pid_t binderd = getpid();
    const std::vector<Expected> expected{
        {kTrafficCall, 100, 200, kTargetNode, u"svc", u"tivra.test.IThing", 9, 0, false},
        {kTrafficReply, 200, 100, kTargetNode, u"svc", u"tivra.test.IThing", 9, -38, false},
        {kTrafficCall, 100, 0, kTargetUnknown, u"", u"tivra.test.IThing", 3, 0, true},
        {kTrafficReply, binderd, 100, kTargetUnknown, u"", u"tivra.test.IThing", 3, FAILED_TRANSACTION, true},
        {kTrafficCall, 100, binderd, kTargetServiceManager, u"", u"android.os.IServiceManager", kCheckService, 0,
         false},
        {kTrafficReply, binderd, 100, kTargetServiceManager, u"", u"android.os.IServiceManager", kCheckService, OK,
         false},
    };
    const std::vector<Heard> heard = heardBy(outbox.sent, kWatcher);
    ASSERT_EQ(heard.size(), expected.size());
    for (size_t i = 0; i < heard.size(); ++i) {
        SCOPED_TRACE(i);
        const TrafficRecord& record = heard[i].record;
        EXPECT_EQ(record.kind, expected[i].kind);
        EXPECT_EQ(record.senderPid, expected[i].from);
        EXPECT_EQ(record.receiverPid, expected[i].to);
        EXPECT_EQ(record.target, expected[i].target);
        EXPECT_EQ(heard[i].name, expected[i].name);
        EXPECT_EQ(heard[i].descriptor, expected[i].descriptor);
        EXPECT_EQ(record.code, expected[i].code);
        EXPECT_EQ(record.status, expected[i].status);
        EXPECT_EQ((record.flags & kFlagOneway) != 0, expected[i].oneway);
        EXPECT_GT(record.timeNanos, 0);
        // A reply carries the id of its call.
        EXPECT_EQ(record.id, heard[i - i % 2].record.id);
    }
    EXPECT_EQ(heard[0].record.dataSize, data.dataSize());
    EXPECT_NE(heard[0].record.id, heard[2].record.id);
}

TEST_F(DriverFrames, AWatcherThatFallsBehindLosesRecordsAndHearsHowMany) {
    constexpr ConnectionId kWatcher = 9;
    constexpr size_t kBound = android::binderd::kMaxWatcherBacklog;
    addWatcher(kWatcher, 300);
    // Full, then still more than half full: records are counted, not sent.
    for (const size_t backlog : {kBound, kBound / 2}) {
        outbox.backlogs[kWatcher] = backlog;
        for (uint32_t code = 1; code <= 2; ++code) {
            ASSERT_TRUE(feed(kClientThread, kTransaction, oneway(code)));
        }
        driver.catchUpWatchers();
    }
    EXPECT_TRUE(heardBy(outbox.sent, kWatcher).empty());
    // Its socket took what waited: first the count, then what comes next.
    outbox.backlogs[kWatcher] = 0;
    ASSERT_TRUE(feed(kClientThread, kTransaction, oneway(5)));
    std::vector<Heard> heard = heardBy(outbox.sent, kWatcher);
    ASSERT_EQ(heard.size(), 2u);
    EXPECT_EQ(heard[0].record.kind, 0u);
    EXPECT_EQ(heard[0].record.id, 4u);
    EXPECT_EQ(heard[1].record.code, 5u);
    // With nothing new to send, the count still goes out once there is room.
    outbox.backlogs[kWatcher] = kBound;
    ASSERT_TRUE(feed(kClientThread, kTransaction, oneway(6)));
    outbox.backlogs[kWatcher] = 0;
    driver.catchUpWatchers();
    heard = heardBy(outbox.sent, kWatcher);
    ASSERT_EQ(heard.size(), 3u);
    EXPECT_EQ(heard[2].record.kind, 0u);
    EXPECT_EQ(heard[2].record.id, 1u);
}

TEST(TrafficReport, OnlyTheOwnerAndRootMayWatchAndWatchersAreBounded) {
    ScriptedOutbox outbox;
    using android::binderd::kMaxWatchers;
    using android::binderd::kMaxWatchersPerProcess;
    android::binderd::TrafficReport report(outbox, 1000);
    EXPECT_EQ(report.admit(1, 10, 1001), kNotAllowedToWatch);
    EXPECT_FALSE(report.watched());
    EXPECT_EQ(report.admit(2, 10, 0), 0u);
    // Each process within its share, one process per share.
    for (ConnectionId id = 3; id < 2 + kMaxWatchers; ++id) {
        ASSERT_EQ(report.admit(id, static_cast<pid_t>(100 + (id - 3) / kMaxWatchersPerProcess), 1000), 0u)
            << "watcher " << id;
    }
    const pid_t full = 100;
    EXPECT_EQ(report.admit(200, full, 1000), kTooManyConnections);
    // All places taken: a process watching with none takes the newest place
    // of one watching with the most.
    EXPECT_EQ(report.admit(201, 500, 1000), 0u);
    EXPECT_EQ(outbox.finished.size(), 1u);
    // A place that comes free is taken without anyone giving way.
    report.forget(2);
    EXPECT_EQ(report.admit(202, 501, 1000), 0u);
    EXPECT_EQ(outbox.finished.size(), 1u);
}

TEST(TrafficReport, TheInterfaceDescriptorIsReadOnlyFromAWellFormedToken) {
    const auto token = [](const char* header, int32_t length, const std::u16string& units, bool terminated) {
        std::vector<uint8_t> bytes(8, 0);
        bytes.insert(bytes.end(), header, header + 4);
        bytes.resize(16);
        std::memcpy(bytes.data() + 12, &length, sizeof(length));
        const auto* text = reinterpret_cast<const uint8_t*>(units.data());
        bytes.insert(bytes.end(), text, text + units.size() * 2);
        bytes.insert(bytes.end(), {terminated ? uint8_t{0} : uint8_t{'x'}, 0});
        return bytes;
    };
    const std::u16string longest(android::binderd::kMaxReportedDescriptorUnits, u'a');
    struct Case {
        const char* name;
        std::vector<uint8_t> parcel;
        std::u16string descriptor;  // empty: none
    };
    const std::vector<Case> cases{
        {"well formed", token("SYST", 3, u"a.I", true), u"a.I"},
        {"the longest reported", token("VNDR", static_cast<int32_t>(longest.size()), longest, true), longest},
        {"one unit too long", token("SYST", static_cast<int32_t>(longest.size() + 1), longest + u"a", true), u""},
        {"no header", token("sy\0T", 3, u"a.I", true), u""},
        {"negative length", token("SYST", -1, u"a.I", true), u""},
        {"length beyond the parcel", token("SYST", 4, u"a.I", true), u""},
        {"no terminator", token("SYST", 3, u"a.I", false), u""},
        {"too short", std::vector<uint8_t>(15, 'A'), u""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        size_t units = 0;
        const uint8_t* found = android::binderd::interfaceDescriptor(c.parcel.data(), c.parcel.size(), &units);
        std::u16string descriptor(units, u'\0');
        if (found != nullptr) {
            std::memcpy(descriptor.data(), found, units * 2);
        }
        EXPECT_EQ(found != nullptr, !c.descriptor.empty());
        EXPECT_EQ(descriptor, c.descriptor);
    }
}

TEST(ServiceRegistry, ANameIsFoundByItsHandleWhileItIsRegistered) {
    using android::binderd::ServiceRegistry;
    ServiceRegistry registry;
    ServiceRegistry::Entry previous;
    const ServiceRegistry::Owner one{1, 100, 1000}, two{2, 200, 1000};
    ASSERT_EQ(registry.add(u"a", {5, 12, one}, &previous), ServiceRegistry::Added::kNew);
    ASSERT_EQ(registry.add(u"b", {5, 12, one}, &previous), ServiceRegistry::Added::kNew);
    ASSERT_EQ(registry.add(u"c", {6, 12, two}, &previous), ServiceRegistry::Added::kNew);
    ASSERT_EQ(registry.add(u"a", {7, 12, one}, &previous), ServiceRegistry::Added::kReplaced);
    const auto nameOf = [&](uint32_t handle) {
        const std::u16string* name = registry.nameOf(handle);
        return name == nullptr ? std::u16string(u"-") : *name;
    };
    EXPECT_EQ(nameOf(5), u"b");
    EXPECT_EQ(nameOf(7), u"a");
    registry.removeOwner(1);
    EXPECT_EQ(nameOf(5), u"-");
    EXPECT_EQ(nameOf(7), u"-");
    EXPECT_EQ(nameOf(6), u"c");
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
    EXPECT_EQ(payloadAs<int32_t>(sent(kClientThread, kRefused)), FAILED_TRANSACTION);
    // A thread that waits answers nothing; each level's answer reaches its caller.
    EXPECT_FALSE(replyWith(kServiceLooper, 0));
    for (uint32_t depth = android::binderd::kMaxCallDepth; depth >= 1; --depth) {
        ASSERT_TRUE(replyWith(callee(depth), static_cast<int32_t>(depth)));
        ASSERT_EQ(lastAnswer(caller(depth)), static_cast<int32_t>(depth));
    }
}

TEST_F(DriverFrames, AnOuterCallsFailureWaitsUntilTheInnerLevelsAreDone) {
    constexpr ConnectionId kThirdLooper = 6;
    const uint32_t third = startService(5, 300, "third");
    constexpr ConnectionId kWatcher = 9;
    addWatcher(kWatcher, 400);
    // The client calls the service, which calls it back; the call back goes
    // on to the third process.
    ASSERT_TRUE(callWith(kClientThread, handle, 1, new BBinder()));
    const uint64_t firstCall = heardBy(outbox.sent, kWatcher).back().record.id;
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
    // A watcher hears of that failure as it goes out.
    const TrafficRecord last = heardBy(outbox.sent, kWatcher).back().record;
    EXPECT_EQ(last.kind, kTrafficReply);
    EXPECT_EQ(last.id, firstCall);
    EXPECT_EQ(last.status, DEAD_OBJECT);
}

TEST_F(DriverFrames, CallbacksHearOfTheirNameFromBinderdAtOnceAndOnEveryAdd) {
    constexpr ConnectionId kClientLooper = 7;
    addThread(kClientLooper);
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

// --- direct channels ---

class DriverChannels : public DriverFrames {
protected:
    // The channel binderd gives the client thread for `target`: its id, or 0
    // with the refusal's status in `refused`.
    uint64_t open(uint32_t target, uint32_t kind, status_t* refused = nullptr) {
        const size_t before = outbox.sent.size();
        EXPECT_TRUE(feed(kClientThread, kOpenChannel, bytesOf(OpenChannel{target, kind})));
        for (size_t i = before; i < outbox.sent.size(); ++i) {
            const Sent& frame = outbox.sent[i];
            if (frame.to == kClientThread && frame.command == kChannelReady) {
                return payloadAs<ChannelReady>(frame).channel;
            }
            if (frame.to == kClientThread && frame.command == kRefused && refused != nullptr) {
                *refused = payloadAs<status_t>(frame);
            }
        }
        return 0;
    }

    // What binderd answers the service's question about the client's handle.
    uint64_t resolve(uint64_t channel, uint32_t target) {
        const size_t before = outbox.sent.size();
        EXPECT_TRUE(feed(kServiceLooper, kResolveReach, bytesOf(ChannelReach{channel, target, 0})));
        const Sent& answer = outbox.sent.at(before);
        return answer.command == kReachResolved ? payloadAs<uint64_t>(answer) : 0;
    }

    // The position of the first frame of `command` to `to` from `from` on.
    size_t firstFrom(size_t from, ConnectionId to, uint32_t command) const {
        for (size_t i = from; i < outbox.sent.size(); ++i) {
            if (outbox.sent[i].to == to && outbox.sent[i].command == command) {
                return i;
            }
        }
        return SIZE_MAX;
    }
};

TEST_F(DriverChannels, AreMadeOnlyWhereBinderdNeedNotSeeTheCalls) {
    const uint64_t twoWay = open(handle, kTwoWayChannel);
    ASSERT_NE(twoWay, 0u);
    EXPECT_EQ(payloadAs<ChannelReady>(sent(kClientThread, kChannelReady)).newDescriptor, 1u);
    // The owner learns who calls from binderd, never from the channel.
    const ChannelOpened opened = payloadAs<ChannelOpened>(sent(kServiceControl, kChannelOpened));
    EXPECT_EQ(opened.channel, twoWay);
    EXPECT_EQ(opened.peerPid, 100);
    EXPECT_EQ(opened.peerUid, 1000u);
    // One two-way channel per thread and owner, one one-way channel per process and owner.
    EXPECT_EQ(open(handle, kTwoWayChannel), twoWay);
    EXPECT_EQ(payloadAs<ChannelReady>(sent(kClientThread, kChannelReady)).newDescriptor, 0u);
    const uint64_t oneway = open(handle, kOneWayChannel);
    EXPECT_NE(oneway, twoWay);
    constexpr ConnectionId kSecondThread = 7;
    addThread(kSecondThread);
    ASSERT_TRUE(feed(kSecondThread, kOpenChannel, bytesOf(OpenChannel{handle, kOneWayChannel})));
    EXPECT_EQ(payloadAs<ChannelReady>(sent(kSecondThread, kChannelReady)).channel, oneway);
    // Not to the service manager, not for a handle the process lacks, not
    // while anyone watches the traffic (every process hears that it is watched).
    status_t refused = OK;
    EXPECT_EQ(open(0, kTwoWayChannel, &refused), 0u);
    EXPECT_EQ(refused, FAILED_TRANSACTION);
    EXPECT_EQ(open(4242, kTwoWayChannel, &refused), 0u);
    EXPECT_EQ(refused, FAILED_TRANSACTION);
    constexpr ConnectionId kWatcher = 9;
    addWatcher(kWatcher, 400);
    EXPECT_EQ(payloadAs<uint32_t>(sent(kClientControl, kWatchState)), 1u);
    EXPECT_EQ(open(handle, kTwoWayChannel, &refused), twoWay) << "an existing channel is still named";
    ASSERT_TRUE(feed(kSecondThread, kOpenChannel, bytesOf(OpenChannel{handle, kTwoWayChannel})));
    EXPECT_EQ(sent(kSecondThread, kRefused).command, kRefused);
    driver.onDisconnect(kWatcher);
    EXPECT_EQ(payloadAs<uint32_t>(sent(kServiceControl, kWatchState)), 0u);
}

TEST_F(DriverChannels, AnOwnerReachesOnlyWhatTheCallerHoldsUntilItTookInTheCallsBeforeARelease) {
    const uint32_t third = startService(5, 300, "third");
    const uint64_t twoWay = open(handle, kTwoWayChannel);
    const uint64_t oneway = open(handle, kOneWayChannel);
    ASSERT_NE(oneway, 0u);
    EXPECT_EQ(resolve(twoWay, handle), reinterpret_cast<uint64_t>(object.get()));
    // Not a handle the caller lacks, nor one naming another process's object.
    EXPECT_EQ(resolve(oneway, 4242), 0u);
    EXPECT_EQ(resolve(oneway, third), 0u);
    // A third process cannot ask about a channel that is not its own.
    ASSERT_TRUE(feed(6, kResolveReach, bytesOf(ChannelReach{oneway, handle, 0})));
    EXPECT_EQ(sent(6, kRefused).command, kRefused);
    // The client lets its handle go: the owner hears so before the node's
    // last reference goes, and calls already sent still find the object,
    // on every channel, until the owner says it took them in.
    const size_t before = outbox.sent.size();
    ASSERT_TRUE(feed(kClientControl, kReleaseHandle, bytesOf(HandleCount{handle, 1})));
    EXPECT_EQ(framesTo(kServiceControl, kReachRevoked), 2u);
    EXPECT_EQ(resolve(oneway, handle), reinterpret_cast<uint64_t>(object.get()));
    for (uint64_t channel : {twoWay, oneway}) {
        ASSERT_TRUE(feed(kServiceLooper, kReachDropped, bytesOf(ChannelReach{channel, handle, 0})));
        EXPECT_EQ(resolve(channel, handle), 0u);
    }
    EXPECT_LT(firstFrom(before, kServiceControl, kReachRevoked), firstFrom(before, kServiceControl, kDecNode));
}

TEST_F(DriverChannels, RelayedOneWayCallsWaitBehindDirectOnesAndTheCallerHearsWhenTheyAreDone) {
    const uint64_t channel = open(handle, kOneWayChannel);
    ASSERT_NE(channel, 0u);
    ASSERT_TRUE(feed(kClientThread, kChannelCredit, bytesOf(ChannelCredit{channel, 1000, 0})));
    const uint32_t granted = payloadAs<uint32_t>(sent(kClientThread, kCreditGranted));
    ASSERT_GE(granted, 1000u);
    // 600 units went straight to the owner; the next call goes through
    // binderd and waits until the owner finished those.
    ASSERT_TRUE(feed(kClientControl, kChannelFence, bytesOf(ChannelProgress{channel, 600})));
    ASSERT_TRUE(feed(kClientThread, kTransaction, oneway(7)));
    EXPECT_EQ(sent(kClientThread, kTransactionComplete).command, kTransactionComplete);
    EXPECT_TRUE(deliveredCodes().empty());
    ASSERT_TRUE(feed(kServiceLooper, kChannelDone, bytesOf(ChannelProgress{channel, 599})));
    EXPECT_TRUE(deliveredCodes().empty());
    // An owner cannot claim more than it was given room for, and an older total changes nothing.
    ASSERT_TRUE(feed(kServiceLooper, kChannelDone, bytesOf(ChannelProgress{channel, 600})));
    ASSERT_TRUE(feed(kServiceLooper, kChannelDone, bytesOf(ChannelProgress{channel, 10})));
    EXPECT_EQ(deliveredCodes(), std::vector<uint32_t>{7});
    EXPECT_EQ(framesTo(kClientControl, kChannelQuiet), 0u);
    ASSERT_TRUE(feed(kServiceLooper, kOnewayDone, {}));
    EXPECT_EQ(payloadAs<ChannelProgress>(sent(kClientControl, kChannelQuiet)).total, 1u);
    // A fence beyond the credit ever granted breaks the protocol.
    EXPECT_FALSE(feed(kClientControl, kChannelFence, bytesOf(ChannelProgress{channel, granted + 1ull})));
}

TEST_F(DriverChannels, ChannelCreditFillsTheOwnersBufferToTheByte) {
    const uint64_t channel = open(handle, kOneWayChannel);
    size_t total = 0;
    for (;;) {
        ASSERT_TRUE(feed(kClientThread, kChannelCredit, bytesOf(ChannelCredit{channel, 1000, 0})));
        if (outbox.sent.back().command != kCreditGranted) {
            break;
        }
        total += payloadAs<uint32_t>(outbox.sent.back());
    }
    EXPECT_EQ(payloadAs<status_t>(outbox.sent.back()), FAILED_TRANSACTION);
    EXPECT_GT(total + 1000, kMaxQueuedOnewayBytes);
    EXPECT_LE(total, kMaxQueuedOnewayBytes);
    // Unspent credit comes back with a fence, and the room with it.
    ASSERT_TRUE(feed(kClientControl, kChannelFence, bytesOf(ChannelProgress{channel, 0})));
    ASSERT_TRUE(feed(kClientThread, kChannelCredit, bytesOf(ChannelCredit{channel, 1000, 0})));
    EXPECT_EQ(outbox.sent.back().command, kCreditGranted);
}

TEST_F(DriverChannels, ACallBackAlongAChainThatRanOverAChannelReachesTheWaitingCaller) {
    // The service holds an object of the client, and the client's thread
    // calls the service straight over its two-way channel.
    ASSERT_TRUE(callWith(kClientThread, handle, 1, new BBinder()));
    const uint32_t clientHandle = handleIn(sent(kServiceLooper, kIncomingTransaction));
    ASSERT_TRUE(replyWith(kServiceLooper, 1));
    const uint64_t channel = open(handle, kTwoWayChannel);
    // The service's thread serves that call and calls the client back.
    ASSERT_TRUE(feed(kServiceLooper, kServingChannel, bytesOf(channel)));
    ASSERT_TRUE(callWith(kServiceLooper, clientHandle, 2));
    EXPECT_EQ(outbox.sent.back().to, kClientThread);
    EXPECT_EQ(outbox.sent.back().command, kIncomingTransaction);
    ASSERT_TRUE(replyWith(kClientThread, 20));
    EXPECT_EQ(lastAnswer(kServiceLooper), 20);
    // A reply carrying a binder goes through binderd to the waiting caller,
    // translated; one naming a handle the owner lacks fails the call.
    Parcel reply;
    reply.writeStrongBinder(new BBinder());
    // The call's sequence number on the channel rides as the reply's code.
    ASSERT_TRUE(feed(kServiceLooper, kChannelReply, transactionPayload(channel, 5, 0, reply)));
    const TransactionView view = viewOf(sent(kClientThread, kIncomingChannelReply));
    EXPECT_EQ(view.header.target, channel);
    EXPECT_EQ(view.header.code, 5u);
    EXPECT_EQ(view.header.status, OK);
    EXPECT_NE(handleIn(sent(kClientThread, kIncomingChannelReply)), 0u);
    ASSERT_TRUE(feed(kServiceLooper, kChannelReply, naming(4242, channel, 6)));
    EXPECT_EQ(viewOf(sent(kClientThread, kIncomingChannelReply)).header.status, FAILED_TRANSACTION);
    // Another process cannot reply on the channel, nor continue its chain.
    startService(5, 300, "third");
    ASSERT_TRUE(feed(6, kServingChannel, bytesOf(channel)));
    const size_t replies = framesTo(kClientThread, kIncomingChannelReply);
    ASSERT_TRUE(feed(6, kChannelReply, transactionPayload(channel, 7, 0, Parcel())));
    EXPECT_EQ(framesTo(kClientThread, kIncomingChannelReply), replies);
}

TEST_F(DriverChannels, EndWithTheirThreadOrProcessAndTheLivingEndHearsFirst) {
    constexpr ConnectionId kSecondThread = 7;
    addThread(kSecondThread);
    ASSERT_TRUE(feed(kSecondThread, kOpenChannel, bytesOf(OpenChannel{handle, kTwoWayChannel})));
    const uint64_t twoWay = payloadAs<ChannelReady>(sent(kSecondThread, kChannelReady)).channel;
    driver.onDisconnect(kSecondThread);
    EXPECT_EQ(payloadAs<uint64_t>(sent(kServiceControl, kChannelClosed)), twoWay);
    // The owner dies: the holder of a one-way channel stops using it before
    // it hears of the death.
    const uint64_t oneway = open(handle, kOneWayChannel);
    ASSERT_TRUE(feed(kClientControl, kRequestDeath, bytesOf(HandleCount{handle, 0})));
    const size_t before = outbox.sent.size();
    driver.onDisconnect(kServiceControl);
    const size_t closed = firstFrom(before, kClientControl, kChannelClosed);
    ASSERT_NE(closed, SIZE_MAX);
    EXPECT_EQ(payloadAs<uint64_t>(outbox.sent[closed]), oneway);
    EXPECT_LT(closed, firstFrom(before, kClientControl, kDeadBinder));
}

TEST_F(DriverChannels, ACallersOneWayCallsStillReachTheirObjectAfterItsProcessEnds) {
    const uint64_t oneway = open(handle, kOneWayChannel);
    // The client's calls are on the channel; then its process ends.
    driver.onDisconnect(kClientThread);
    driver.onDisconnect(kClientControl);
    EXPECT_EQ(payloadAs<uint64_t>(sent(kServiceControl, kChannelClosed)), oneway);
    // Until the owner says it took in all that was on the channel, the
    // client's handles still name its object there, and nothing else.
    EXPECT_EQ(resolve(oneway, handle), reinterpret_cast<uint64_t>(object.get()));
    EXPECT_EQ(resolve(oneway, handle + 1), 0u);
    ASSERT_TRUE(feed(kServiceControl, kChannelDrained, bytesOf(oneway)));
    EXPECT_EQ(resolve(oneway, handle), 0u);
}
