// binderd's driver fed frame by frame, so that the test chooses the order in which frames of different
// connections arrive: one-way calls paid from credit that a thread wrote before its process released
// the handle, or ended, must be taken in first. The driver's tables are checked after every frame.
#include <gtest/gtest.h>
#include <linux/android/binder.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <map>
#include <numeric>

#include <binder/Binder.h>
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

std::vector<uint8_t> transaction(uint64_t target, uint32_t code, uint32_t flags, const Parcel& data = Parcel()) {
    const TransactionHeader header{target, code, flags, 0, 0, 0, static_cast<uint32_t>(data.dataSize()),
                                   static_cast<uint32_t>(data.objectsCount()), 0};
    return payloadOf(header, data.data(), data.objects());
}

template <typename T>
std::vector<uint8_t> bytesOf(const T& value) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&value);
    return std::vector<uint8_t>(bytes, bytes + sizeof(T));
}

template <typename T>
T payloadAs(const Sent& frame) {
    T value{};
    EXPECT_EQ(frame.payload.size(), sizeof(value));
    std::memcpy(&value, frame.payload.data(), std::min(sizeof(value), frame.payload.size()));
    return value;
}

TransactionView viewOf(const Sent& frame) {
    TransactionView view{};
    EXPECT_TRUE(parseTransaction(
        Frame{frame.command, frame.payload.data(), static_cast<uint32_t>(frame.payload.size())}, &view));
    return view;
}

// The handle of the first object a transaction or reply carries (0: none), and its stability level.
uint32_t handleIn(const Sent& frame, int32_t* stability = nullptr) {
    const TransactionView view = viewOf(frame);
    uint64_t offset = 0;
    flat_binder_object found{};
    if (view.header.offsetsCount != 0) {
        std::memcpy(&offset, view.offsets, sizeof(offset));
        std::memcpy(&found, view.data + offset, sizeof(found));
    }
    if (stability != nullptr && found.handle != 0) {
        std::memcpy(stability, view.data + offset + sizeof(found), sizeof(*stability));
    }
    return found.handle;
}

// Records what the driver sends; frames written but not read yet wait in `unread` until it drains them.
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
    size_t backlog(ConnectionId) const override { return 0; }
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
    std::map<ConnectionId, std::deque<std::pair<uint32_t, std::vector<uint8_t>>>> unread;
};

// What the driver makes of a step's frame: takes it, finds it breaks the protocol, or (kWaits) not read yet.
enum class Outcome { kTaken, kBroken, kWaits };

// A frame script's step: `from` writes `command`; then the service has had the one-way calls `codes`.
struct Step {
    ConnectionId from;
    uint32_t command;
    std::vector<uint8_t> payload;
    Outcome outcome = Outcome::kTaken;
    std::vector<uint32_t> codes = {};
};

// A client (control 1, thread 2) and a service (control 3, looper 4) that registered "svc".
class DriverFrames : public ::testing::Test {
protected:
    static constexpr ConnectionId kClientControl = 1, kClientThread = 2, kServiceControl = 3, kServiceLooper = 4;

    void SetUp() override {
        outbox.driver = &driver;
        startProcess(kClientControl, kClientThread, 100);
        handle = startService(kServiceControl, 200, "svc", object);
        ASSERT_NE(handle, 0u);
    }

    bool feed(ConnectionId id, uint32_t command, const std::vector<uint8_t>& payload) {
        const bool taken = driver.onFrame(id, Frame{command, payload.data(), static_cast<uint32_t>(payload.size())});
        EXPECT_EQ(driver.checkInvariants(), "") << "after command " << command << " on " << id;
        return taken;
    }

    void play(const std::vector<Step>& script) {
        for (size_t i = 0; i < script.size(); ++i) {
            const Step& step = script[i];
            if (step.outcome == Outcome::kWaits) {
                outbox.unread[step.from].push_back({step.command, step.payload});
                continue;
            }
            EXPECT_EQ(feed(step.from, step.command, step.payload), step.outcome == Outcome::kTaken) << "step " << i;
            if (!step.codes.empty()) {
                EXPECT_EQ(deliveredCodes(), step.codes) << "step " << i;
            }
        }
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

    // A process (control `control`, looper `control + 1`) serving `binder` as `name`; the client's handle.
    uint32_t startService(ConnectionId control, pid_t pid, const std::string& name,
                          const sp<IBinder>& binder = new BBinder()) {
        startProcess(control, control + 1, pid);
        EXPECT_TRUE(feed(control + 1, kEnterLooper, {}));
        EXPECT_EQ(addService(control + 1, name, binder), kExNone);
        return lookUp(name);
    }

    static auto of(ConnectionId to, uint32_t command) {
        return [=](const Sent& frame) { return frame.to == to && frame.command == command; };
    }

    // The last frame of `command` sent to `to`.
    const Sent& sent(ConnectionId to, uint32_t command) {
        const auto it = std::find_if(outbox.sent.rbegin(), outbox.sent.rend(), of(to, command));
        static const Sent kNone{0, 0, {}};
        EXPECT_NE(it, outbox.sent.rend()) << "nothing of command " << command << " went to " << to;
        return it == outbox.sent.rend() ? kNone : *it;
    }

    size_t framesTo(ConnectionId to, uint32_t command) const {
        return static_cast<size_t>(std::count_if(outbox.sent.begin(), outbox.sent.end(), of(to, command)));
    }

    // The position of the first frame of `command` to `to` from `from` on.
    size_t firstFrom(size_t from, ConnectionId to, uint32_t command) const {
        const auto start = outbox.sent.begin() + static_cast<std::ptrdiff_t>(from);
        const auto it = std::find_if(start, outbox.sent.end(), of(to, command));
        return it == outbox.sent.end() ? SIZE_MAX : static_cast<size_t>(it - outbox.sent.begin());
    }

    std::vector<uint8_t> oneway(uint32_t code, uint32_t target = 0) {
        return carrying(target == 0 ? handle : target, code, kFlagOneway, static_cast<int32_t>(code));
    }

    // The codes of the calls delivered to the service's looper, in order.
    std::vector<uint32_t> deliveredCodes(ConnectionId to = kServiceLooper) const {
        std::vector<uint32_t> codes;
        for (const Sent& frame : outbox.sent) {
            if (frame.to == to && frame.command == kIncomingTransaction) {
                codes.push_back(viewOf(frame).header.code);
            }
        }
        return codes;
    }

    // A one-way call that waits for binderd, and the credit it earns.
    uint32_t earnCredit(uint32_t code = 1) {
        EXPECT_TRUE(feed(kClientThread, kTransaction, oneway(code)));
        return payloadAs<OnewayAccepted>(sent(kClientThread, kTransactionComplete)).creditBytes;
    }

    // A call of the service manager naming `name` and, to add it, `binder` with its stability level.
    static std::vector<uint8_t> serviceManagerCall(uint32_t code, const std::string& name, const sp<IBinder>& binder,
                                                   int32_t stability = 12) {
        Parcel data;
        data.writeInterfaceToken(String16("android.os.IServiceManager"));
        data.writeString16(String16(name.c_str()));
        if (binder != nullptr) {
            data.writeStrongBinder(binder);
            data.setDataPosition(data.dataSize() - sizeof(stability));
            data.writeInt32(stability);
        }
        return transaction(0, code, 0, data);
    }

    // The service manager's answer to adding `binder` as `name` (see lastAnswer).
    int32_t addService(ConnectionId thread, const std::string& name, const sp<IBinder>& binder,
                       int32_t stability = 12) {
        EXPECT_TRUE(feed(thread, kTransaction, serviceManagerCall(kAddService, name, binder, stability)));
        return lastAnswer(thread);
    }

    // The client's handle for `name` (0: none), and its stability level.
    uint32_t lookUp(const std::string& name, int32_t* stability = nullptr) {
        EXPECT_TRUE(feed(kClientThread, kTransaction, serviceManagerCall(kCheckService, name, nullptr)));
        return handleIn(sent(kClientThread, kIncomingReply), stability);
    }

    // The status of the last reply to `thread`, or when OK the int32 its parcel starts with.
    int32_t lastAnswer(ConnectionId thread) {
        const TransactionView view = viewOf(sent(thread, kIncomingReply));
        int32_t answer = view.header.status;
        if (answer == OK && view.header.dataSize >= sizeof(answer)) {
            std::memcpy(&answer, view.data, sizeof(answer));
        }
        return answer;
    }

    // A transaction whose parcel holds `value` and, when given, a binder.
    static std::vector<uint8_t> carrying(uint64_t target, uint32_t code, uint32_t flags, int32_t value,
                                         const sp<IBinder>& binder = nullptr) {
        Parcel data;
        data.writeInt32(value);
        if (binder != nullptr) {
            data.writeStrongBinder(binder);
        }
        return transaction(target, code, flags, data);
    }

    // A two-way call carrying `value` and, when given, a binder; or its reply.
    bool callWith(ConnectionId thread, uint32_t target, int32_t value, const sp<IBinder>& binder = nullptr) {
        return feed(thread, kTransaction, carrying(target, 1, 0, value, binder));
    }
    bool replyWith(ConnectionId thread, int32_t value) { return feed(thread, kReply, carrying(0, 0, 0, value)); }

    // A transaction or reply whose parcel names `handle` of its sender, as a proxy writes it.
    static std::vector<uint8_t> naming(uint32_t handle, uint64_t target = 0, uint32_t code = 0) {
        Parcel parcel;
        flat_binder_object object{};
        object.hdr.type = BINDER_TYPE_HANDLE;
        object.handle = handle;
        parcel.write(&object, sizeof(object));
        parcel.appendObject(0);
        return transaction(target, code, 0, parcel);
    }

    // 0 when a call of `size` bytes by a client's thread went on to `target` (the service by default),
    // else the refusal's status. Before a one-way call the process gives its credit back, as clients do.
    int32_t call(ConnectionId thread, size_t size, uint32_t flags, uint32_t target = 0) {
        target = target == 0 ? handle : target;
        uint32_t& credit = clientCredit[target];
        if ((flags & kFlagOneway) != 0 && credit > 0) {
            EXPECT_TRUE(feed(kClientControl, kReturnCredit, bytesOf(CreditReturn{target, credit})));
            credit = 0;
        }
        const size_t before = outbox.sent.size();
        const std::vector<uint8_t> bytes(size, 7);
        Parcel data;
        data.write(bytes.data(), bytes.size());
        EXPECT_TRUE(feed(thread, kTransaction, transaction(target, 1, flags, data)));
        const size_t accepted = firstFrom(before, thread, kTransactionComplete);
        credit += accepted == SIZE_MAX ? 0 : payloadAs<OnewayAccepted>(outbox.sent[accepted]).creditBytes;
        const size_t refused = firstFrom(before, thread, kRefused);
        return refused == SIZE_MAX ? 0 : payloadAs<int32_t>(outbox.sent[refused]);
    }

    ScriptedOutbox outbox;
    android::binderd::Driver driver{outbox, false};
    sp<BBinder> object = new BBinder();
    uint32_t handle = 0;
    // The client process's one-way credit, by handle, as call() keeps it.
    std::map<uint32_t, uint32_t> clientCredit;
};

TEST_F(DriverFrames, CreditIsToppedUpSpentInSendOrderGivenBackByTheByteAndEndsWithTheHandle) {
    const uint32_t step = kOnewayCreditBytes;
    const uint32_t charge = bufferCharge(sizeof(int32_t), 0, true);
    ASSERT_EQ(earnCredit(1), step);
    Parcel tooLarge;
    const std::vector<uint8_t> bytes(step + 4, 1);
    tooLarge.write(bytes.data(), bytes.size());
    const auto control = [](uint32_t command, std::vector<uint8_t> payload, Outcome outcome = Outcome::kTaken,
                            std::vector<uint32_t> codes = {}) {
        return Step{kClientControl, command, std::move(payload), outcome, std::move(codes)};
    };
    play({
        // Credit paid by one thread, then a call that waits by another: the control connection is read first.
        control(kOnewayCredited, oneway(2), Outcome::kWaits),
        control(kOnewayCredited, oneway(3), Outcome::kWaits),
        {kClientThread, kTransaction, oneway(4), Outcome::kTaken, {1, 2, 3, 4}},
    });
    // The call that waited topped the credit up to one step.
    EXPECT_EQ(payloadAs<OnewayAccepted>(outbox.sent.back()).creditBytes, 2 * charge);
    play({
        // Beyond the credit, or with objects: broken. A handle without credit drops the call, as if voided.
        control(kOnewayCredited, transaction(handle, 5, kFlagOneway, tooLarge), Outcome::kBroken),
        control(kOnewayCredited, carrying(handle, 5, kFlagOneway, 5, object), Outcome::kBroken),
        control(kOnewayCredited, oneway(5, handle + 1), Outcome::kTaken, {1, 2, 3, 4}),
        // Giving back more than is held breaks the protocol; all of it ends the credit.
        control(kReturnCredit, bytesOf(CreditReturn{handle, step + 1}), Outcome::kBroken),
        control(kReturnCredit, bytesOf(CreditReturn{handle, step})),
        control(kOnewayCredited, oneway(6), Outcome::kTaken, {1, 2, 3, 4}),
    });
    ASSERT_EQ(earnCredit(7), step);
    // The credit ends with the handle: a credited call after the release is dropped.
    play({
        control(kReleaseHandle, bytesOf(HandleCount{handle, 1})),
        control(kOnewayCredited, oneway(8), Outcome::kTaken, {1, 2, 3, 4, 7}),
    });
}

TEST_F(DriverFrames, CreditIsVoidedAndRevokedWhenTheReceiverDies) {
    earnCredit();
    driver.onDisconnect(kServiceControl);
    EXPECT_EQ(payloadAs<uint64_t>(sent(kClientControl, kCreditRevoked)), 1u);
    // What the process sent before it heard is lost with the receiver.
    play({
        {kClientControl, kOnewayCredited, oneway(2)},
        {kClientControl, kReturnCredit, bytesOf(CreditReturn{handle, 1000})},
        {kClientThread, kTransaction, oneway(3)},
    });
    EXPECT_EQ(payloadAs<int32_t>(sent(kClientThread, kRefused)), DEAD_OBJECT);
}

TEST_F(DriverFrames, AWaitedCallOfAProcessThatEndedIsStillDelivered) {
    earnCredit();
    play({{kClientThread, kTransaction, oneway(2), Outcome::kWaits}});
    driver.onDisconnect(kClientControl);
    EXPECT_EQ(deliveredCodes(), (std::vector<uint32_t>{1, 2}));
}

TEST_F(DriverFrames, CreditAheadOfNeedLeavesHalfOfAUidsBuffersToCallsMade) {
    using android::binderd::kMaxBufferBytesPerUid;
    // One-way calls to more receivers of one uid than its bound has credit steps for: none gives way.
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

// More one-way calls than go ahead to the thread: whether they go ahead, wait in the node's line
// or return to it when their thread goes (with the call it ran), the service takes them in send order.
TEST_F(DriverFrames, OneWayCallsReachTheServiceInSendOrderThroughTheLineAndAThreadThatGoes) {
    constexpr uint32_t kCalls = kMaxPipelinedCalls + 8;
    for (uint32_t code = 1; code <= kCalls; ++code) {
        ASSERT_TRUE(feed(kClientThread, kTransaction, oneway(code)));
    }
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(feed(kServiceLooper, kOnewayDone, {}));
    }
    const auto inOrderFrom = [](uint32_t first, size_t count) {
        std::vector<uint32_t> codes(count);
        std::iota(codes.begin(), codes.end(), first);
        return codes;
    };
    EXPECT_EQ(deliveredCodes(), inOrderFrom(1, kMaxPipelinedCalls + 4));
    constexpr ConnectionId kSecondLooper = 5;
    addThread(kSecondLooper, 200, kServiceControl);
    ASSERT_TRUE(feed(kSecondLooper, kEnterLooper, {}));
    driver.onDisconnect(kServiceLooper);
    while (framesTo(kSecondLooper, kIncomingTransaction) < kCalls - 4) {
        ASSERT_TRUE(feed(kSecondLooper, kOnewayDone, {}));
    }
    EXPECT_EQ(deliveredCodes(kSecondLooper), inOrderFrom(5, kCalls - 4));
}

TEST_F(DriverFrames, WorkForAProcessStaysWithinItsBuffer) {
    constexpr ConnectionId kSecondThread = 5, kThirdThread = 6;
    addThread(kSecondThread);
    addThread(kThirdThread);
    // Data rounded up to 8 bytes; a one-way call also its overhead.
    constexpr size_t kThird = kMaxTransactionBytes / 3 / 8 * 8 + 4;
    const size_t room = kMaxTransactionBytes - bufferCharge(kThird, 0, false) - bufferCharge(kThird, 0, true);
    // The service's one looper takes the first call and does not answer: what follows waits in its buffer.
    EXPECT_EQ(call(kClientThread, kThird, 0), 0);
    EXPECT_EQ(call(kSecondThread, kThird, kFlagOneway), 0);
    // One-way beyond half of the buffer is refused, and so is anything beyond all of it, to the byte.
    EXPECT_EQ(call(kThirdThread, kThird, kFlagOneway), FAILED_TRANSACTION);
    EXPECT_EQ(call(kThirdThread, room + 4, 0), FAILED_TRANSACTION);
    EXPECT_EQ(call(kThirdThread, room, 0), 0);
}

// Binders a process sends become nodes it owns, within its bound. The calls go to two receivers, so
// that neither reaches its handle bound first.
TEST_F(DriverFrames, ACallThatWouldTakeItsSenderBeyondItsNodeBoundIsRefused) {
    constexpr ConnectionId kSecondLooper = 6;
    const uint32_t second = startService(kSecondLooper - 1, 300, "svc.second");
    constexpr size_t kPerCall = android::binderd::kMaxNodesPerProcess / 4;
    std::vector<sp<IBinder>> kept;
    for (size_t round = 0; round <= 4; ++round) {
        Parcel data;
        for (size_t i = 0; i < kPerCall; ++i) {
            kept.push_back(new BBinder());
            data.writeStrongBinder(kept.back());
        }
        ASSERT_TRUE(feed(kClientThread, kTransaction, transaction(round % 2 == 0 ? handle : second, 1, 0, data)));
        EXPECT_EQ(framesTo(kClientThread, kRefused), round < 4 ? 0u : 1u) << round;
        if (round < 4) {
            ASSERT_TRUE(feed(round % 2 == 0 ? kServiceLooper : kSecondLooper, kReply, bytesOf(TransactionHeader{})));
        }
    }
    EXPECT_EQ(payloadAs<status_t>(sent(kClientThread, kRefused)), FAILED_TRANSACTION);
}

TEST_F(DriverFrames, TheSessionsOfOneProcessShareItsBoundsAndGiveBackAllTheyHeld) {
    // A second session of the service's process, with a binder of its own.
    constexpr ConnectionId kSecond = 5;
    const uint32_t second = startService(kSecond, 200, "svc.second");
    // The first session's buffer fills up: the second's is the same one.
    while (call(kClientThread, 0, kFlagOneway) == 0) {
    }
    EXPECT_EQ(call(kClientThread, 0, kFlagOneway, second), FAILED_TRANSACTION);
    // What the sessions held goes back when they end.
    driver.onDisconnect(kServiceControl);
    driver.onDisconnect(kSecond);
    driver.onDisconnect(kClientControl);
    for (size_t kind = 0; kind < android::binderd::kHoldings; ++kind) {
        EXPECT_EQ(driver.holdings().total(kind), 0u) << "holding " << kind;
    }
}

TEST_F(DriverFrames, AReplyNamingAHandleComesBeforeTheReleaseThatFollowedIt) {
    ASSERT_TRUE(callWith(kClientThread, handle, 1, new BBinder()));
    const uint32_t clientHandle = handleIn(sent(kServiceLooper, kIncomingTransaction));
    // The looper's reply held the handle until it was written; the release that followed is read first.
    play({
        {kServiceLooper, kReply, naming(clientHandle), Outcome::kWaits},
        {kServiceControl, kReleaseHandle, bytesOf(HandleCount{clientHandle, 1})},
    });
    ASSERT_EQ(framesTo(kClientThread, kIncomingReply), 2u);
    EXPECT_NE(handleIn(sent(kClientThread, kIncomingReply)), 0u);
}

TEST_F(DriverFrames, AProcessHasOneDeathRequestPerHandle) {
    const auto death = [this](uint32_t command) { return Step{kClientControl, command, bytesOf(HandleCount{handle, 0})}; };
    // Repeats are ignored, a cleared request is gone, and it may be asked again.
    play({death(kRequestDeath), death(kRequestDeath), death(kClearDeath), death(kClearDeath), death(kRequestDeath),
          death(kRequestDeath)});
    driver.onDisconnect(kServiceControl);
    EXPECT_EQ(framesTo(kClientControl, kDeadBinder), 1u);
    // A request on a node already dead is answered at once.
    play({death(kClearDeath), death(kRequestDeath)});
    EXPECT_EQ(framesTo(kClientControl, kDeadBinder), 2u);
}

// Parcels whose objects a receiver could not trust are refused whole; a release of references never
// given, or more than given, breaks the protocol.
TEST_F(DriverFrames, ParcelsWithUntrustworthyObjectsAreRefusedAndForgedReleasesBreakTheProtocol) {
    // Objects as 32-bit words: {offset in bytes, type, handle or binder, cookie}.
    using Object = std::array<uint32_t, 4>;
    const uint32_t h = handle;
    const std::vector<std::pair<const char*, std::vector<Object>>> cases{
        {"a handle the sender does not hold", {{0, BINDER_TYPE_HANDLE, h + 5, 0}}},
        {"an unknown type", {{0, 0x12345678, 0x1000, 0x1000}}},
        {"an unaligned offset", {{2, BINDER_TYPE_BINDER, 0x1000, 0x1000}}},
        {"an object past the data", {{48, BINDER_TYPE_BINDER, 0x1000, 0x1000}}},
        {"a binder of address zero", {{0, BINDER_TYPE_BINDER, 0, 0x1000}}},
        // The second starts inside the first, whose cookie makes its type; its handle lies past the first.
        {"overlapping objects", {{0, BINDER_TYPE_HANDLE, h, BINDER_TYPE_HANDLE}, {16, BINDER_TYPE_HANDLE, h, 0}}},
    };
    for (const auto& [name, objects] : cases) {
        SCOPED_TRACE(name);
        std::vector<uint8_t> data(64, 0);
        std::vector<uint64_t> offsets;
        for (const auto& [at, type, value, cookie] : objects) {
            const uint32_t words[] = {type, 0, value, 0, cookie, 0};
            std::memcpy(data.data() + at, words, std::min<size_t>(sizeof(words), data.size() - at));
            offsets.push_back(at);
        }
        const TransactionHeader header{h, 0, 0, 0, 0, 0, 64, static_cast<uint32_t>(offsets.size()), 0};
        ASSERT_TRUE(feed(kClientThread, kTransaction, payloadOf(header, data.data(), offsets.data())));
        EXPECT_EQ(payloadAs<int32_t>(outbox.sent.back()), FAILED_TRANSACTION);
    }
    EXPECT_EQ(framesTo(kServiceLooper, kIncomingTransaction), 0u);
    // A reply that answers nothing, and releases beyond what is held.
    play({
        {kClientThread, kReply, bytesOf(TransactionHeader{}), Outcome::kBroken},
        {kClientControl, kReleaseHandle, bytesOf(HandleCount{handle, 2}), Outcome::kBroken},
        {kServiceControl, kReleaseHandle, bytesOf(HandleCount{99, 1}), Outcome::kBroken},
    });
}

TEST_F(DriverFrames, CallsBackAlongAChainReachTheThreadThatWaitsUpToADepthBound) {
    ASSERT_TRUE(callWith(kClientThread, handle, 1, new BBinder()));
    const uint32_t clientHandle = handleIn(sent(kServiceLooper, kIncomingTransaction));
    // A one-way call midway goes to the node's pool, not to the thread that waits.
    ASSERT_TRUE(feed(kServiceLooper, kTransaction, transaction(clientHandle, 1, kFlagOneway)));
    EXPECT_EQ(framesTo(kClientThread, kIncomingTransaction), 0u);
    EXPECT_EQ(framesTo(kClientControl, kSpawnLooper), 1u);
    // The two threads call each other back, one level deeper each time.
    auto caller = [](uint32_t depth) { return depth % 2 == 0 ? kServiceLooper : kClientThread; };
    auto callee = [](uint32_t depth) { return depth % 2 == 0 ? kClientThread : kServiceLooper; };
    for (uint32_t depth = 2; depth <= android::binderd::kMaxCallDepth; ++depth) {
        ASSERT_TRUE(callWith(caller(depth), depth % 2 == 0 ? clientHandle : handle, static_cast<int32_t>(depth)));
        ASSERT_TRUE(of(callee(depth), kIncomingTransaction)(outbox.sent.back())) << "depth " << depth;
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
    // The client calls the service, which calls it back; the call back goes on to the third process.
    ASSERT_TRUE(callWith(kClientThread, handle, 1, new BBinder()));
    ASSERT_TRUE(callWith(kServiceLooper, handleIn(sent(kServiceLooper, kIncomingTransaction)), 2));
    ASSERT_TRUE(callWith(kClientThread, third, 3));
    const size_t replies = framesTo(kClientThread, kIncomingReply);
    // The service's thread goes: the first call failed, but its failure would reach the third call's level.
    driver.onDisconnect(kServiceLooper);
    EXPECT_EQ(framesTo(kClientThread, kIncomingReply), replies);
    ASSERT_TRUE(replyWith(kThirdLooper, 30));
    EXPECT_EQ(lastAnswer(kClientThread), 30);
    ASSERT_TRUE(replyWith(kClientThread, 20));
    EXPECT_EQ(lastAnswer(kClientThread), DEAD_OBJECT);
}

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
        EXPECT_EQ(addService(c.from, c.service, other, c.stability), c.exception);
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

TEST_F(DriverFrames, LookupsWaitingForANameAreBoundedPerProcess) {
    const size_t waiters = android::binderd::kMaxLookupWaitersPerProcess;
    for (size_t i = 0; i <= waiters; ++i) {
        const ConnectionId thread = 10 + i;
        addThread(thread);
        ASSERT_TRUE(feed(thread, kTransaction, serviceManagerCall(kGetService, "absent", nullptr)));
        EXPECT_EQ(framesTo(thread, kIncomingReply), i < waiters ? 0u : 1u) << "lookup " << i;
    }
}

TEST(TrafficReport, OnlyTheOwnerAndRootMayWatchAndWatchersAreBounded) {
    using android::binderd::kMaxWatchers;
    using android::binderd::kMaxWatchersPerProcess;
    ScriptedOutbox outbox;
    android::binderd::TrafficReport report(outbox, 1000);
    EXPECT_EQ(report.admit(1, 10, 1001), kNotAllowedToWatch);
    EXPECT_FALSE(report.watched());
    EXPECT_EQ(report.admit(2, 10, 0), 0u);
    // Each process within its share, one process per share.
    for (ConnectionId id = 3; id < 2 + kMaxWatchers; ++id) {
        ASSERT_EQ(report.admit(id, static_cast<pid_t>(100 + (id - 3) / kMaxWatchersPerProcess), 1000), 0u)
            << "watcher " << id;
    }
    EXPECT_EQ(report.admit(200, 100, 1000), kTooManyConnections);
    // All places taken: a process watching with none takes the newest place of one watching with the most.
    EXPECT_EQ(report.admit(201, 500, 1000), 0u);
    EXPECT_EQ(outbox.finished.size(), 1u);
}

class DriverChannels : public DriverFrames {
protected:
    // The channel binderd gives the client's thread for `target`.
    uint64_t open(uint32_t target, uint32_t kind) {
        EXPECT_TRUE(feed(kClientThread, kOpenChannel, bytesOf(OpenChannel{target, kind})));
        return payloadAs<ChannelReady>(sent(kClientThread, kChannelReady)).channel;
    }

    // What binderd answers the service's question about the client's handle: the node's cookie, or 0.
    uint64_t resolve(uint64_t channel, uint32_t target) {
        EXPECT_TRUE(feed(kServiceLooper, kResolveReach, bytesOf(ChannelReach{channel, target, 0})));
        return outbox.sent.back().command == kReachResolved ? payloadAs<uint64_t>(outbox.sent.back()) : 0;
    }

    const uint64_t address = reinterpret_cast<uint64_t>(object.get());
};

TEST_F(DriverChannels, AnOwnerReachesOnlyWhatTheCallerHoldsUntilItTookInTheCallsBeforeARelease) {
    const uint32_t third = startService(5, 300, "third");
    const uint64_t twoWay = open(handle, kTwoWayChannel);
    const uint64_t oneway = open(handle, kOneWayChannel);
    ASSERT_NE(oneway, 0u);
    EXPECT_EQ(resolve(twoWay, handle), address);
    // Not a handle the caller lacks, nor one naming another process's object.
    EXPECT_EQ(resolve(oneway, 4242), 0u);
    EXPECT_EQ(resolve(oneway, third), 0u);
    // A third process cannot ask about a channel that is not its own.
    ASSERT_TRUE(feed(6, kResolveReach, bytesOf(ChannelReach{oneway, handle, 0})));
    EXPECT_EQ(framesTo(6, kRefused), 1u);
    // The client lets its handle go: the owner hears so before the node's last reference goes, and
    // calls already sent still find the object, on every channel, until the owner says it took them in.
    const size_t before = outbox.sent.size();
    ASSERT_TRUE(feed(kClientControl, kReleaseHandle, bytesOf(HandleCount{handle, 1})));
    EXPECT_EQ(framesTo(kServiceControl, kReachRevoked), 2u);
    EXPECT_EQ(resolve(oneway, handle), address);
    for (uint64_t channel : {twoWay, oneway}) {
        ASSERT_TRUE(feed(kServiceLooper, kReachDropped, bytesOf(ChannelReach{channel, handle, 0})));
        EXPECT_EQ(resolve(channel, handle), 0u);
    }
    EXPECT_LT(firstFrom(before, kServiceControl, kReachRevoked), firstFrom(before, kServiceControl, kDecNode));
}

TEST_F(DriverChannels, CreditFillsTheOwnersBufferAndRelayedCallsWaitBehindDirectOnes) {
    const uint64_t channel = open(handle, kOneWayChannel);
    ASSERT_NE(channel, 0u);
    const std::vector<uint8_t> ask = bytesOf(ChannelCredit{channel, 1000, 0});
    // All the credit there is, to the byte.
    size_t granted = 0;
    while (feed(kClientThread, kChannelCredit, ask) && outbox.sent.back().command == kCreditGranted) {
        granted += payloadAs<uint32_t>(outbox.sent.back());
    }
    EXPECT_EQ(payloadAs<status_t>(outbox.sent.back()), FAILED_TRANSACTION);
    EXPECT_GT(granted + 1000, kMaxQueuedOnewayBytes);
    EXPECT_LE(granted, kMaxQueuedOnewayBytes);
    // Part of it may be finished and not reported yet: binderd asks the owner for every channel's
    // total, once until it answers (on its control connection), and again when a call does not fit.
    const auto progress = [channel](uint64_t total) { return bytesOf(ChannelProgress{channel, total}); };
    ASSERT_TRUE(feed(kClientThread, kChannelCredit, ask));
    EXPECT_EQ(framesTo(kServiceControl, kProgressWanted), 1u);
    EXPECT_EQ(payloadAs<ChannelProgress>(sent(kServiceControl, kProgressWanted)).channel, 0u);
    ASSERT_TRUE(feed(kServiceControl, kChannelDone, bytesOf(ChannelProgress{0, 0})));
    EXPECT_EQ(call(kClientThread, 600 * 1024, 0), FAILED_TRANSACTION);
    EXPECT_EQ(framesTo(kServiceControl, kProgressWanted), 2u);
    // 600 units went straight to the owner, the rest comes back with the fence; the next call goes
    // through binderd and waits until the owner finished those, which binderd asks to be told of.
    play({{kClientControl, kChannelFence, progress(600)}, {kClientThread, kTransaction, oneway(7)}});
    EXPECT_EQ(payloadAs<ChannelProgress>(sent(kServiceControl, kProgressWanted)).total, 600u);
    play({{kServiceControl, kChannelDone, progress(599)}});
    EXPECT_TRUE(deliveredCodes().empty());
    play({{kServiceLooper, kChannelDone, progress(600), Outcome::kTaken, {7}}});
    EXPECT_EQ(framesTo(kClientControl, kChannelQuiet), 0u);
    ASSERT_TRUE(feed(kServiceLooper, kOnewayDone, {}));
    EXPECT_EQ(payloadAs<ChannelProgress>(sent(kClientControl, kChannelQuiet)).total, 1u);
    // The room came back with the fence; a fence beyond the credit ever granted breaks the protocol.
    ASSERT_TRUE(feed(kClientThread, kChannelCredit, ask));
    ASSERT_EQ(outbox.sent.back().command, kCreditGranted);
    const uint64_t everGranted = 600 + payloadAs<uint32_t>(outbox.sent.back());
    EXPECT_FALSE(feed(kClientControl, kChannelFence, progress(everGranted + 1)));
    // Threads announce their calls on their own connections: both fences may come before either call.
    // Each call takes one, and binderd says the relayed calls are done only once both are.
    constexpr ConnectionId kSecondThread = 7;
    addThread(kSecondThread);
    play({
        {kClientThread, kChannelFence, progress(600)},
        {kSecondThread, kChannelFence, progress(600)},
        {kSecondThread, kTransaction, oneway(8)},
        {kClientThread, kTransaction, oneway(9)},
    });
    ASSERT_TRUE(feed(kServiceLooper, kOnewayDone, {}));
    EXPECT_EQ(framesTo(kClientControl, kChannelQuiet), 1u);
    ASSERT_TRUE(feed(kServiceLooper, kOnewayDone, {}));
    EXPECT_EQ(payloadAs<ChannelProgress>(sent(kClientControl, kChannelQuiet)).total, 3u);
}

// Replies on a two-way channel that carry objects go through binderd, which translates them as any
// reply; the call's sequence number on the channel rides as the reply's code.
TEST_F(DriverChannels, RepliesCarryingObjectsGoThroughBinderdAndOnlyFromTheOwner) {
    const uint64_t channel = open(handle, kTwoWayChannel);
    ASSERT_TRUE(feed(kServiceLooper, kServingChannel, bytesOf(channel)));
    ASSERT_TRUE(feed(kServiceLooper, kChannelReply, carrying(channel, 5, 0, 0, new BBinder())));
    EXPECT_EQ(viewOf(sent(kClientThread, kIncomingChannelReply)).header.code, 5u);
    EXPECT_NE(handleIn(sent(kClientThread, kIncomingChannelReply)), 0u);
    // One naming a handle the owner lacks fails the call.
    ASSERT_TRUE(feed(kServiceLooper, kChannelReply, naming(4242, channel, 6)));
    EXPECT_EQ(viewOf(sent(kClientThread, kIncomingChannelReply)).header.status, FAILED_TRANSACTION);
    // Another process cannot reply on the channel.
    startService(5, 300, "third");
    play({{6, kServingChannel, bytesOf(channel)}, {6, kChannelReply, transaction(channel, 7, 0)}});
    EXPECT_EQ(framesTo(kClientThread, kIncomingChannelReply), 2u);
}

// At a shared bound the process holding the most gives way; a taker that is the heaviest is refused.
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
}

}  // namespace
