// The public adapter against tivra-monitord in another process, each case in a
// process of its own (a fresh adapter); the service's fault plan fails calls.
#include <android/log.h>
#include <signal.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "monitord_fixture.h"
#include "tivra/tivra_adapter.h"
#include "tivra/tivra_log.h"

namespace tivra_test {
namespace {

using namespace Communication;
using nlohmann::json;

std::shared_ptr<TivraAdapter> Adapter() { return TivraAdapter::GetInstance(); }

std::string Text(const std::shared_ptr<TivraDeviceInfo>& d) {
    return d ? d->GetDeviceName() + "|" + d->GetDeviceId() + "|" + d->GetDeviceType() + "|" + d->GetDeviceIp() : "null";
}
std::string Text(const std::shared_ptr<NodeBasicInfo>& n) {
    return n ? n->GetName() + "|" + std::to_string(n->GetDeviceType()) + "|" + n->GetNodeId() : "null";
}

// What client callbacks were told, in arrival order; Binder threads add, the
// test waits with a timeout.
template <typename Event>
class EventLog {
public:
    void Add(Event event) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(std::move(event));
        changed_.notify_all();
    }
    std::vector<Event> Events() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    bool WaitForSize(size_t count, std::chrono::milliseconds timeout = 10s) const {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return events_.size() >= count; });
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Event> events_;
};

// Client objects that record their calls and then run an optional hook (one
// that calls the adapter from inside a callback), set before they are registered.
class RecordingListener : public TivraListener {
public:
    void OnDeviceOnline(std::shared_ptr<TivraDeviceInfo> device) override { Record(true, device); }
    void OnDeviceOffline(std::shared_ptr<TivraDeviceInfo> device) override { Record(false, device); }
    void Record(bool online, std::shared_ptr<TivraDeviceInfo> device) {
        log.Add({online, std::move(device)});
        if (hook) hook();
    }
    EventLog<std::pair<bool, std::shared_ptr<TivraDeviceInfo>>> log;  // online, device
    std::function<void()> hook;
};

// Records "on <node>", "off <node>" (with the record) and "changed <id> <type>".
class RecordingNodeListener : public DeviceListener {
public:
    void OnDeviceOnline(std::shared_ptr<NodeBasicInfo> node) override { log.Add({"on " + Text(node), node}); }
    void OnDeviceOffline(std::shared_ptr<NodeBasicInfo> node) override { log.Add({"off " + Text(node), node}); }
    void OnDeviceInfoChanged(std::string nodeId, DeviceInfoType type) override {
        log.Add({"changed " + nodeId + " " + std::to_string(type), nullptr});
    }
    EventLog<std::pair<std::string, std::shared_ptr<NodeBasicInfo>>> log;
};

class RecordingNotifier : public TivraDeathNotifier {
public:
    void OnServiceDied() override {
        deaths.Add(true);
        if (hook) hook();
    }
    EventLog<bool> deaths;
    std::function<void()> hook;
};

// Failures the library logged (notes at info priority do not count).
size_t ErrorLines(const LogCapture& log) {
    const std::vector<LogLine> lines = log.Lines();
    return std::count_if(lines.begin(), lines.end(), [](const LogLine& l) { return l.priority == ANDROID_LOG_ERROR; });
}

constexpr int kStale = 42;
const std::string kLocal = "Desk Laptop|dev-local|LAPTOP|10.0.0.2 0";
constexpr const char* kDeathNotice = "binderDied: receive death notify, clear pravik service is success";

// The local device's record and the errCode it came with: "<record> <errCode>".
std::string LocalDevice() {
    int errCode = kStale;
    const std::string record = Text(Adapter()->GetLocalDevice(errCode));
    return record + " " + std::to_string(errCode);
}

json Device(const std::string& n) {
    return {{"name", "Gerät " + n + " ✓"}, {"id", "dev-" + n}, {"type", "TYPE-" + n}, {"ip", "10.1.0." + n}};
}
std::string DeviceText(const std::string& n) { return "Gerät " + n + " ✓|dev-" + n + "|TYPE-" + n + "|10.1.0." + n; }
void Emit(const MonitordSession& session, const json& event) {
    const auto result = session.Control().Emit(event);
    ASSERT_TRUE(result.ok) << result.error;
}
int64_t Registered(const MonitordSession& session, const char* kind) {
    const auto result = session.Control().Listeners();
    return result.ok ? result.value.at(kind).get<int64_t>() : -1;
}
// Makes the next call of `method` fail once in the way `fault` says.
void FailNextCall(const MonitordSession& session, const std::string& method, json fault) {
    fault["op"] = "fault";
    fault["method"] = method;
    fault["times"] = 1;
    const auto result = session.Control().Run(fault);
    ASSERT_TRUE(result.ok) << result.error;
}

// Every operation while no service is registered, each failure one log line;
// argument checks that come before the lookup win. The library leaves the
// program's logger and minimum priority alone; the sink of tivra_log.h takes
// the lines at its minimum and above; without a sink they go to stderr. The
// next call after the service came finds it.
TEST(AdapterConnection, AbsentServiceFailsEveryOperationUntilItAppears) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_EQ(session.error(), "");
        LogCapture log;  // the program's logger, set before the adapter exists
        __android_log_set_minimum_priority(ANDROID_LOG_WARN);
        const auto listener = std::make_shared<RecordingListener>();
        const auto node = std::make_shared<RecordingNodeListener>();
        const auto absent = [](const char* operation) { return std::string(operation) + ": get pravik service failed"; };
        const std::vector<std::pair<std::string, std::function<bool()>>> cases = {
            {absent("GetLocalDevice"), [] { return LocalDevice() == "null 1"; }},
            {absent("GetAllDevices"), [] { int e = kStale; return Adapter()->GetAllDevices(e).empty() && e == 1; }},
            {absent("RegisterCallback"), [&] { return !Adapter()->RegisterCallback(listener); }},
            {absent("UnregisterCallback"), [&] { return !Adapter()->UnregisterCallback(listener); }},
            {absent("LinkToDeath"), [] { return !Adapter()->LinkToDeath(std::make_shared<RecordingNotifier>()); }},
            {absent("UnlinkToDeath"), [&] { return !Adapter()->UnlinkToDeath(nullptr); }},
            {absent("AddDeviceChangeListener"), [&] { return !Adapter()->AddDeviceChangeListener(node); }},
            {"AddDeviceChangeListener: listener is nullptr", [] { return !Adapter()->AddDeviceChangeListener(nullptr); }},
            {absent("RemoveDeviceChangeListener"), [&] { return Adapter()->RemoveDeviceChangeListener(node), true; }},
            {"RemoveDeviceChangeListener: listener is nullptr",
             [] { return Adapter()->RemoveDeviceChangeListener(nullptr), true; }},
            {absent("GetLocalBasicInfo"), [] { return !Adapter()->GetLocalBasicInfo(); }},
            {absent("getRemoteNodeBasicInfo"), [] { return !Adapter()->GetRemoteNodeBasicInfo("node-cam"); }},
            {"GetRemoteNodeBasicInfo: nodeId is empty", [] { return !Adapter()->GetRemoteNodeBasicInfo(""); }},
            {absent("getRemoteNodesBasicInfo"), [] { return Adapter()->GetRemoteNodesBasicInfo().empty(); }},
            {absent("GetNodeExtInfo"), [] { return Adapter()->GetNodeExtInfo("node-cam", DEVICE_NAME).empty(); }},
            {"GetNodeExtInfo: nodeId or key is empty", [] { return Adapter()->GetNodeExtInfo("node-cam", "").empty(); }},
            {"GetNodeExtInfo: nodeId or key is empty", [] { return Adapter()->GetNodeExtInfo("", DEVICE_NAME).empty(); }},
            {absent("GetUdidByNodeId"), [] { return Adapter()->GetUdidByNodeId("node-cam").empty(); }},
            {"GetUdidByNodeId: nodeId is empty", [] { return Adapter()->GetUdidByNodeId("").empty(); }},
            {absent("GetUuidByNodeId"), [] { return Adapter()->GetUuidByNodeId("node-cam").empty(); }},
            {"GetUuidByNodeId: nodeId is empty", [] { return Adapter()->GetUuidByNodeId("").empty(); }},
        };
        for (const auto& [message, fails] : cases) {
            log.Clear();
            EXPECT_TRUE(fails()) << message;
            EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, message)) << message;
            EXPECT_EQ(log.Lines().size(), 1u) << message << ": one failure, one line";
        }
        EXPECT_EQ(__android_log_get_minimum_priority(), ANDROID_LOG_WARN);
        std::vector<std::string> sunk;
        SetTivraLogSink([&sunk](TivraLogPriority priority, const std::string& tag, const std::string& text) {
            sunk.push_back(std::to_string(priority) + " " + tag + ": " + text);
        });
        EXPECT_FALSE(Adapter()->RegisterCallback(nullptr));  // lookup before the argument check
        SetTivraLogMinPriority(TIVRA_LOG_SILENT);
        Adapter()->RegisterCallback(nullptr);
        SetTivraLogMinPriority(TIVRA_LOG_INFO);
        SetTivraLogSink(nullptr);
        testing::internal::CaptureStderr();
        Adapter()->RegisterCallback(nullptr);
        EXPECT_NE(testing::internal::GetCapturedStderr().find(absent("RegisterCallback")), std::string::npos);
        EXPECT_EQ(sunk, std::vector<std::string>{"6 libtivra: " + absent("RegisterCallback")});

        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        EXPECT_EQ(LocalDevice(), kLocal);
    });
}

// Once found, the service is kept: its calls go on over their direct channel
// while binderd is stopped. (Its death makes the adapter look again: ServiceDeath.)
TEST(AdapterConnection, CachedProxyServesWhileBinderdIsStopped) {
    // A stopped binderd tells a cached proxy from a new lookup only where
    // calls take a direct channel.
    if (const char* direct = std::getenv("HOSTBINDER_DIRECT"); direct != nullptr && std::string(direct) == "0") {
        GTEST_SKIP() << "direct calls are off";
    }
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        // One thread, so that its calls keep the channel it has.
        for (int i = 0; i < 3; ++i) EXPECT_EQ(LocalDevice(), kLocal);
        kill(session.binderd().binderdPid(), SIGSTOP);
        // A new lookup would wait for binderd: the case would not finish.
        EXPECT_EQ(LocalDevice(), kLocal);
        kill(session.binderd().binderdPid(), SIGCONT);
    });
}

// How a call can fail on the wire: an exception status, a failed
// transaction, or an OK status followed by an output that cannot be read.
const std::vector<std::pair<const char*, json>> kCallFaults = {
    {"exception", {{"kind", "exception"}, {"code", -5}, {"message", "simulated illegal state"}}},
    {"service-specific exception", {{"kind", "exception"}, {"code", -8}, {"serviceCode", 7}}},
    {"transport failure", {{"kind", "transport"}, {"code", -22}}},
};

// Answers are new records in the service's order; every kind of failed call
// gives the empty result, errCode 2 and the call's message.
TEST(Queries, HandOutNewRecordsAndTheEmptyResultOfEveryFailureKind) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        LogCapture log;
        int errCode = kStale;
        const auto first = Adapter()->GetLocalDevice(errCode);
        EXPECT_NE(Adapter()->GetLocalDevice(errCode), first) << "records are not shared";
        const auto devices = Adapter()->GetAllDevices(errCode);
        EXPECT_EQ(errCode, 0);
        ASSERT_EQ(devices.size(), 3u);
        EXPECT_EQ(Text(devices[0]), "Desk Laptop|dev-local|LAPTOP|10.0.0.2");
        EXPECT_EQ(Text(devices[1]), "Hall Camera|dev-cam|CAMERA|10.0.0.3");
        EXPECT_EQ(Text(devices[2]), "Gartenlicht ☀|dev-light|LIGHT|10.0.0.4");
        EXPECT_NE(Adapter()->GetAllDevices(errCode)[0], devices[0]) << "records are not shared";

        const std::string light = "nœud-lumière-光";
        const auto local = Adapter()->GetLocalBasicInfo();
        EXPECT_EQ(Text(local), "Desk Laptop|12|node-local");
        EXPECT_NE(Adapter()->GetLocalBasicInfo(), local);
        const auto remotes = Adapter()->GetRemoteNodesBasicInfo();
        ASSERT_EQ(remotes.size(), 2u);
        EXPECT_EQ(Text(remotes.front()), "Hall Camera|156|node-cam");
        EXPECT_EQ(Text(remotes.back()), "Gartenlicht ☀|10|" + light);
        EXPECT_EQ(Text(Adapter()->GetRemoteNodeBasicInfo(light)), "Gartenlicht ☀|10|" + light);
        EXPECT_EQ(Adapter()->GetNodeExtInfo("node-local", GROUP_INFO), "Küche ✓ 家");
        EXPECT_EQ(Adapter()->GetNodeExtInfo("node-local", BR_MAC), "") << "a key without value";
        EXPECT_EQ(Adapter()->GetUdidByNodeId(light), "UDID-LIGHT-ü");
        EXPECT_EQ(Adapter()->GetUuidByNodeId("node-cam"), "uuid-cam");
        // The id is sent up to its first NUL character.
        EXPECT_EQ(Adapter()->GetUdidByNodeId(std::string("node-cam\0-ignored", 17)), "UDID-CAM");
        EXPECT_EQ(ErrorLines(log), 0u) << "success logs no failure";

        // errCode is -1 for the queries that do not report one.
        const std::vector<std::tuple<const char*, const char*, std::function<bool(int&)>>> queries = {
            {"getLocalDevice", "get local device info binder invoke failed",
             [](int& e) { return !Adapter()->GetLocalDevice(e); }},
            {"getAllDevices", "get all same count device info binder invoke failed",
             [](int& e) { return Adapter()->GetAllDevices(e).empty(); }},
            {"getLocalBasicInfo", "GetLocalBasicInfo: get local node basic info binder invoke failed",
             [](int& e) { return e = -1, !Adapter()->GetLocalBasicInfo(); }},
            {"getRemoteNodeBasicInfo", "getRemoteNodeBasicInfo: get remote node basic info by nodeId binder invoke failed",
             [](int& e) { return e = -1, !Adapter()->GetRemoteNodeBasicInfo("node-cam"); }},
            {"getRemoteNodesBasicInfo", "getRemoteNodesBasicInfo: get remote nodes basic info list binder invoke failed",
             [](int& e) { return e = -1, Adapter()->GetRemoteNodesBasicInfo().empty(); }},
            {"getNodeExtInfo", "GetNodeExtInfo: get node extinfo binder invoke failed",
             [](int& e) { return e = -1, Adapter()->GetNodeExtInfo("node-local", DEVICE_NAME).empty(); }},
            {"getUdidByNodeId", "GetUdidByNodeId: get udid by nodeId binder invoke failed",
             [](int& e) { return e = -1, Adapter()->GetUdidByNodeId("node-cam").empty(); }},
            {"getUuidByNodeId", "GetUuidByNodeId: get uuid by nodeId binder invoke failed",
             [](int& e) { return e = -1, Adapter()->GetUuidByNodeId("node-cam").empty(); }},
        };
        auto faults = kCallFaults;
        faults.push_back({"unreadable reply", {{"kind", "corruptReply"}}});
        for (const auto& [method, message, empty] : queries) {
            for (const auto& [name, fault] : faults) {
                SCOPED_TRACE(std::string(method) + " with " + name);
                FailNextCall(session, method, fault);
                log.Clear();
                errCode = kStale;
                EXPECT_TRUE(empty(errCode));
                EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, message));
                EXPECT_TRUE(errCode == 2 || errCode == -1) << errCode;
                // The fault is used up and the cached proxy still serves.
                EXPECT_FALSE(empty(errCode));
                EXPECT_TRUE(errCode == 0 || errCode == -1) << errCode;
            }
        }
        EXPECT_TRUE(Adapter()->GetUdidByNodeId("node-gone").empty()) << "an unknown node";
        for (const char* id : {"dev-local", "dev-cam", "dev-light"}) {
            ASSERT_TRUE(session.Control().Run({{"op", "removeDevice"}, {"deviceId", id}}).ok);
        }
        log.Clear();
        errCode = kStale;
        EXPECT_TRUE(Adapter()->GetAllDevices(errCode).empty());
        EXPECT_EQ(errCode, 0) << "no device is a success";
        EXPECT_EQ(ErrorLines(log), 0u);
    });
}

// The two listener registries seen the same way (notifiers: ServiceDeath).
// Clients are shared_ptr<void> here; each registry casts them back to its type.
using Client = std::shared_ptr<void>;
template <typename C>
std::shared_ptr<C> As(const Client& client) { return std::static_pointer_cast<C>(client); }
struct Registry {
    const char* name;
    std::function<Client()> make;
    std::function<bool(const Client&)> add;
    // True when the removal went through (RemoveDeviceChangeListener says so
    // only by logging nothing).
    std::function<bool(const Client&, const LogCapture&)> remove;
    const char *duplicate, *notRegistered, *addNull, *removeNull;
    // Where the service keeps count, its methods and the failures' messages.
    const char *serviceCount, *addMethod, *removeMethod, *addFailed, *removeFailed, *refused = nullptr;
};

const std::vector<Registry>& Registries() {
    static const std::vector<Registry> registries = {
        {"device change listeners", [] { return Client(std::make_shared<RecordingListener>()); },
         [](const Client& c) { return Adapter()->RegisterCallback(As<RecordingListener>(c)); },
         [](const Client& c, const LogCapture&) { return Adapter()->UnregisterCallback(As<RecordingListener>(c)); },
         "the listener has already registed", "the listener do not register yet", "register callback is null pointer",
         "unregister callback is null pointer", "deviceChange", "addOnDeviceChangeListener",
         "removeOnDeviceChangeListener", "register callback binder invoke failed",
         "unregister callback binder invoke failed", nullptr},
        {"node listeners", [] { return Client(std::make_shared<RecordingNodeListener>()); },
         [](const Client& c) { return Adapter()->AddDeviceChangeListener(As<RecordingNodeListener>(c)); },
         [](const Client& c, const LogCapture& log) {
             const size_t errors = ErrorLines(log);
             Adapter()->RemoveDeviceChangeListener(As<RecordingNodeListener>(c));
             return ErrorLines(log) == errors;
         },
         "AddDeviceChangeListener: the listener has already been added to remote service",
         "RemoveDeviceChangeListener: the listener has not been added to remote service yet",
         "AddDeviceChangeListener: listener is nullptr", "RemoveDeviceChangeListener: listener is nullptr", "device",
         "addDeviceChangeListener", "removeDeviceChangeListener",
         "AddDeviceChangeListener: add device change listener binder invoke failed",
         "RemoveDeviceChangeListener: remove device change listener binder invoke failed",
         "AddDeviceChangeListener: service add listener failed"},
    };
    return registries;
}

// A client is identified by its address, whatever shared pointer names it;
// the service sees one registration per accepted add.
TEST(Registries, IdentifyClientsByObjectAndStoreOnlyWhatTheServiceHolds) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        LogCapture log;
        for (const Registry& r : Registries()) {
            SCOPED_TRACE(r.name);
            const Client client = r.make();
            const Client alias(std::make_shared<int>(0), client.get());  // another owner, the same object
            const int64_t removes = session.Control().CallCount(r.removeMethod);
            log.Clear();
            EXPECT_FALSE(r.remove(client, log));
            EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, r.notRegistered));
            EXPECT_EQ(session.Control().CallCount(r.removeMethod), removes) << "the service was asked";

            EXPECT_TRUE(r.add(client));
            const int64_t adds = session.Control().CallCount(r.addMethod);
            log.Clear();
            EXPECT_FALSE(r.add(alias));
            EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, r.duplicate));
            EXPECT_EQ(session.Control().CallCount(r.addMethod), adds) << "the service was asked";
            EXPECT_EQ(Registered(session, r.serviceCount), 1);

            EXPECT_TRUE(r.remove(alias, log));
            EXPECT_EQ(Registered(session, r.serviceCount), 0);
            EXPECT_TRUE(r.add(client)) << "registered again after its removal";
            EXPECT_TRUE(r.remove(client, log));

            log.Clear();
            EXPECT_FALSE(r.add(nullptr));
            EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, r.addNull));
            EXPECT_FALSE(r.remove(nullptr, log));
            EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, r.removeNull));

            // A failed add stores nothing; a failed removal keeps the registration.
            std::vector<std::tuple<const char*, json, const char*>> addFaults;
            for (const auto& [name, fault] : kCallFaults) addFaults.emplace_back(name, fault, r.addFailed);
            if (r.refused) addFaults.emplace_back("refusal", json{{"kind", "refuse"}}, r.refused);
            for (const auto& [name, fault, message] : addFaults) {
                SCOPED_TRACE(std::string(r.name) + ", add with " + name);
                FailNextCall(session, r.addMethod, fault);
                log.Clear();
                EXPECT_FALSE(r.add(client));
                EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, message));
                EXPECT_EQ(Registered(session, r.serviceCount), 0);
                EXPECT_TRUE(r.add(client)) << "a failed add counted as registered";
                EXPECT_EQ(Registered(session, r.serviceCount), 1);
                ASSERT_TRUE(r.remove(client, log));
            }

            ASSERT_TRUE(r.add(client));
            for (const auto& [name, fault] : kCallFaults) {
                SCOPED_TRACE(std::string(r.name) + ", removal with " + name);
                FailNextCall(session, r.removeMethod, fault);
                log.Clear();
                EXPECT_FALSE(r.remove(client, log));
                EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, r.removeFailed));
                EXPECT_EQ(Registered(session, r.serviceCount), 1);
            }
            // Kept: another add is a duplicate, and the retried removal names
            // the wrapper that the service holds.
            EXPECT_FALSE(r.add(client));
            EXPECT_TRUE(r.remove(client, log));
            EXPECT_EQ(Registered(session, r.serviceCount), 0);
            EXPECT_FALSE(r.remove(client, log));
        }
    });
}

// Each listener gets new records with the service's fields, in the order
// sent; change kinds beyond the three known ones arrive as unknown. A
// callback may call the adapter.
TEST(Callbacks, ListenersGetNewRecordsAndMappedKindsInOrderAndMayCallTheAdapter) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        const std::vector<std::shared_ptr<RecordingListener>> listeners = {std::make_shared<RecordingListener>(),
                                                                           std::make_shared<RecordingListener>()};
        for (const auto& listener : listeners) ASSERT_TRUE(Adapter()->RegisterCallback(listener));
        const auto nodes = std::make_shared<RecordingNodeListener>();
        ASSERT_TRUE(Adapter()->AddDeviceChangeListener(nodes));
        LogCapture log;

        constexpr int kDevices = 20;
        for (int i = 0; i < kDevices; ++i) Emit(session, {{"event", "deviceOnline"}, {"device", Device(std::to_string(i))}});
        for (int i = 0; i < kDevices; ++i) Emit(session, {{"event", "deviceOffline"}, {"deviceId", "dev-" + std::to_string(i)}});
        const std::string nodeId = "节点-ß-ø";
        const std::vector<std::pair<int32_t, DeviceInfoType>> kinds = {
            {1, DEVICE_INFO_TYPE_1},       {2, DEVICE_INFO_TYPE_2},        {3, DEVICE_INFO_TYPE_3},
            {0, DEVICE_INFO_TYPE_UNKNOWN}, {4, DEVICE_INFO_TYPE_UNKNOWN},  {-1, DEVICE_INFO_TYPE_UNKNOWN},
            {INT32_MIN, DEVICE_INFO_TYPE_UNKNOWN}};
        Emit(session, {{"event", "nodeOnline"}, {"node", {{"name", "Sensor ✓"}, {"deviceType", 0x11}, {"nodeId", nodeId}}}});
        for (const auto& kind : kinds) Emit(session, {{"event", "nodeInfoChanged"}, {"nodeId", nodeId}, {"kind", kind.first}});
        Emit(session, {{"event", "nodeOffline"}, {"nodeId", nodeId}});

        std::set<const TivraDeviceInfo*> records;
        for (const auto& listener : listeners) {
            ASSERT_TRUE(listener->log.WaitForSize(2 * kDevices));
            const auto events = listener->log.Events();
            ASSERT_EQ(events.size(), 2u * kDevices);
            for (size_t k = 0; k < events.size(); ++k) {
                EXPECT_EQ(events[k].first, k < kDevices) << k;
                EXPECT_EQ(Text(events[k].second), DeviceText(std::to_string(k % kDevices)));
                records.insert(events[k].second.get());
            }
        }
        EXPECT_EQ(records.size(), 2u * 2u * kDevices) << "a record was handed out twice";

        ASSERT_TRUE(nodes->log.WaitForSize(2 + kinds.size()));
        const auto events = nodes->log.Events();
        std::vector<std::string> heard, wanted = {"on Sensor ✓|17|" + nodeId};
        size_t unknown = 0;
        for (const auto& [sent, delivered] : kinds) {
            wanted.push_back("changed " + nodeId + " " + std::to_string(delivered));
            EXPECT_TRUE(log.Contains(ANDROID_LOG_INFO, "onDeviceInfoChanged: type is " + std::to_string(sent))) << sent;
            unknown += delivered == DEVICE_INFO_TYPE_UNKNOWN ? 1 : 0;
        }
        wanted.push_back("off Sensor ✓|17|" + nodeId);
        for (const auto& event : events) heard.push_back(event.first);
        EXPECT_EQ(heard, wanted);
        EXPECT_NE(events.front().second, events.back().second) << "records are not shared";
        EXPECT_EQ(log.Count("onDeviceInfoChanged: type is unknown"), unknown);
        EXPECT_EQ(ErrorLines(log), unknown);

        // It runs with no adapter lock held: it may query, unregister itself
        // and register another listener.
        const auto successor = std::make_shared<RecordingListener>();
        EventLog<std::string> outcomes;
        const auto listener = std::make_shared<RecordingListener>();
        listener->hook = [&, self = std::weak_ptr<RecordingListener>(listener)] {
            const bool queried = LocalDevice() == kLocal;
            const bool unregistered = Adapter()->UnregisterCallback(self.lock());
            const bool registered = Adapter()->RegisterCallback(successor);
            outcomes.Add(std::to_string(queried) + std::to_string(unregistered) + std::to_string(registered));
        };
        ASSERT_TRUE(Adapter()->RegisterCallback(listener));

        Emit(session, {{"event", "deviceOnline"}, {"device", Device("1")}});
        ASSERT_TRUE(outcomes.WaitForSize(1)) << "the callback did not finish: deadlock?";
        EXPECT_EQ(outcomes.Events()[0], "111") << "query, unregister, register";
        Emit(session, {{"event", "deviceOffline"}, {"deviceId", "dev-1"}});
        ASSERT_TRUE(successor->log.WaitForSize(1));
        EXPECT_FALSE(successor->log.Events()[0].first);
        EXPECT_EQ(listener->log.Events().size(), 1u) << "an unregistered listener was called";
    });
}

// Notifiers are identified by object. kill -9 of the service: each linked
// notifier told once, after the adapter forgot the service and with no adapter
// lock held (it may call the adapter, which finds no service); registrations
// forgotten, the same objects accepted by the restarted service; with no
// notifier linked the adapter still forgets.
TEST(ServiceDeath, EachLinkedNotifierIsToldOnceAfterTheAdapterForgotTheService) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        const auto listener = std::make_shared<RecordingListener>();
        const auto nodeListener = std::make_shared<RecordingNodeListener>();
        EventLog<std::string> toldFirst;
        const auto first = std::make_shared<RecordingNotifier>();
        first->hook = [&toldFirst, self = std::weak_ptr<RecordingNotifier>(first)] {
            const std::string device = LocalDevice();
            toldFirst.Add(device + " " + std::to_string(Adapter()->LinkToDeath(self.lock())));
        };
        const auto second = std::make_shared<RecordingNotifier>();
        const auto unlinked = std::make_shared<RecordingNotifier>();
        ASSERT_TRUE(Adapter()->RegisterCallback(listener));
        ASSERT_TRUE(Adapter()->AddDeviceChangeListener(nodeListener));
        for (const auto& notifier : {first, second, unlinked}) ASSERT_TRUE(Adapter()->LinkToDeath(notifier));
        ASSERT_TRUE(Adapter()->UnlinkToDeath(unlinked));
        EXPECT_FALSE(Adapter()->UnlinkToDeath(unlinked)) << "not linked";
        EXPECT_FALSE(Adapter()->LinkToDeath(std::shared_ptr<RecordingNotifier>(std::make_shared<int>(0), second.get())))
            << "linked already, under another owner";
        EXPECT_FALSE(Adapter()->LinkToDeath(nullptr));
        LogCapture log;

        ASSERT_TRUE(session.KillService());
        ASSERT_TRUE(toldFirst.WaitForSize(1)) << "OnServiceDied did not return: deadlock?";
        EXPECT_EQ(toldFirst.Events()[0], "null 1 0") << "the notifier found the dead service";
        ASSERT_TRUE(second->deaths.WaitForSize(1));
        // One notice per recipient: the two notifiers' and the adapter's own.
        ASSERT_TRUE(waitUntil([&] { return log.Count(kDeathNotice) >= 3; }));
        EXPECT_TRUE(log.Contains(ANDROID_LOG_INFO, kDeathNotice));
        EXPECT_EQ(first->deaths.Events().size(), 1u);
        EXPECT_EQ(second->deaths.Events().size(), 1u);
        EXPECT_EQ(unlinked->deaths.Events().size(), 0u);

        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        // Forgotten: a registration kept would make these duplicates.
        ASSERT_TRUE(Adapter()->RegisterCallback(listener));
        ASSERT_TRUE(Adapter()->AddDeviceChangeListener(nodeListener));
        ASSERT_TRUE(Adapter()->LinkToDeath(second));
        EXPECT_EQ(session.Control().Listeners().value, (json{{"deviceChange", 1}, {"device", 1}}));

        // The next death with no notifier linked.
        ASSERT_TRUE(Adapter()->UnlinkToDeath(second));
        log.Clear();
        ASSERT_TRUE(session.KillService());
        ASSERT_TRUE(waitUntil([&] { return log.Count(kDeathNotice) >= 1; }));
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        EXPECT_EQ(LocalDevice(), kLocal);
        EXPECT_TRUE(Adapter()->RegisterCallback(listener)) << "the old registration still counted";
        EXPECT_EQ(log.Count(kDeathNotice), 1u);
        EXPECT_EQ(second->deaths.Events().size(), 1u);
    });
}

// What the soak's workers saw; an impossible result counts as a violation.
struct Tally {
    std::atomic<int64_t> answered{0}, unavailable{0}, violations{0};
};

void QueryOnce(Tally& tally) {
    int errCode = kStale;
    const bool device = Adapter()->GetLocalDevice(errCode) != nullptr;
    if (errCode == 0 && device) {
        ++tally.answered;
    } else if (errCode == 1 && !device) {
        ++tally.unavailable;
    } else if (errCode != 2 || device) {  // 2: the call met a dying service
        ++tally.violations;
    }
}

// Threads race for the first instance, then query, register and unregister
// while the service is killed and restarted and events keep callbacks coming.
TEST(AdapterSoak, ClientsKeepWorkingWhileTheServiceIsKilledAndRestarted) {
    RunInOwnProcess(
        [] {
            MonitordSession session;
            // Thousands of calls each log a line; only the outcomes matter here.
            __android_log_set_logger([](const struct __android_logger_data*, const char*) {});
            ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
            Tally tally;
            std::atomic<bool> stop{false};
            // Each worker's first call takes the instance, all at once.
            std::atomic<int> waiting{8};
            std::vector<const TivraAdapter*> seen(8);
            const auto takeInstance = [&](size_t i) {
                for (--waiting; waiting.load() > 0;) {
                }
                seen[i] = TivraAdapter::GetInstance().get();
            };
            std::vector<std::thread> workers;
            for (size_t i = 0; i < seen.size(); i += 2) {
                workers.emplace_back([&, i] {
                    takeInstance(i);
                    while (!stop) QueryOnce(tally);
                });
                workers.emplace_back([&, i] {
                    takeInstance(i + 1);
                    const auto listener = std::make_shared<RecordingListener>();
                    const auto nodeListener = std::make_shared<RecordingNodeListener>();
                    const auto notifier = std::make_shared<RecordingNotifier>();
                    while (!stop) {
                        Adapter()->RegisterCallback(listener);
                        Adapter()->AddDeviceChangeListener(nodeListener);
                        Adapter()->LinkToDeath(notifier);
                        Adapter()->UnregisterCallback(listener);
                        Adapter()->RemoveDeviceChangeListener(nodeListener);
                        Adapter()->UnlinkToDeath(notifier);
                    }
                });
            }
            workers.emplace_back([&] {
                for (int n = 0; !stop; ++n) {
                    session.Control().Emit(n % 2 ? json{{"event", "deviceOffline"}, {"deviceId", "dev-8"}}
                                                 : json{{"event", "deviceOnline"}, {"device", Device("8")}});
                }
            });
            // Each round: answers, the kill, the death noticed, a new service. A
            // failure stops the rounds, not the body, so the workers are always joined.
            int round = 0;
            for (bool ok = true; ok && round < 10; round += ok ? 1 : 0) {
                const int64_t answered = tally.answered, unavailable = tally.unavailable;
                ok = waitUntil([&] { return tally.answered >= answered + 200; }, 30s) && session.KillService() &&
                     waitUntil([&] { return tally.unavailable > unavailable; }, 30s) &&
                     session.StartService(QuietScenario());
            }
            stop = true;
            for (auto& worker : workers) worker.join();
            EXPECT_EQ(std::set<const TivraAdapter*>(seen.begin(), seen.end()).size(), 1u);
            ASSERT_EQ(round, 10) << "a round failed: " << session.error();
            EXPECT_EQ(tally.violations, 0);
        },
        90s);
}

}  // namespace
}  // namespace tivra_test
