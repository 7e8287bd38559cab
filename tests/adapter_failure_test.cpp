// Failed service calls, made to fail by tivra-monitord's fault plan: every
// kind of failure reaches the caller as the operation's failure value and its
// one message, and leaves the adapter's registrations as they were.
#include <android/log.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "adapter_recorders.h"
#include "log_capture.h"
#include "monitord_fixture.h"
#include "tivra/tivra_adapter.h"

namespace tivra_test {
namespace {

using namespace Communication;
using nlohmann::json;

constexpr int kStale = 42;

std::shared_ptr<TivraAdapter> Adapter() { return TivraAdapter::GetInstance(); }

struct FaultKind {
    const char* name;
    json fault;
};

// How a call can fail on the wire: an exception status, a failed
// transaction, or an OK status followed by an output that cannot be read.
const std::vector<FaultKind> kCallFaults = {
    {"exception", {{"kind", "exception"}, {"code", -5}, {"message", "simulated illegal state"}}},
    {"service-specific exception", {{"kind", "exception"}, {"code", -8}, {"serviceCode", 7}}},
    {"transport failure", {{"kind", "transport"}, {"code", -22}}},
};
const FaultKind kUnreadableReply = {"unreadable reply", {{"kind", "corruptReply"}}};

// Makes the next call of `method` fail once.
void FailNextCall(const MonitordSession& session, const std::string& method, const json& fault) {
    json command = fault;
    command["op"] = "fault";
    command["method"] = method;
    command["times"] = 1;
    const auto result = session.Control().Run(command);
    ASSERT_TRUE(result.ok) << result.error;
}

int64_t RegisteredListeners(const MonitordSession& session, const char* kind) {
    const auto result = session.Control().Listeners();
    return result.ok ? result.value.at(kind).get<int64_t>() : -1;
}

// A query with an output; errCode is only reported by the device queries.
struct Query {
    const char* method;
    const char* callFailed;
    std::function<bool(int& errCode)> returnsEmpty;
    bool reportsErrCode;
};

const std::vector<Query> kQueries = {
    {"getLocalDevice", "get local device info binder invoke failed",
     [](int& errCode) { return Adapter()->GetLocalDevice(errCode) == nullptr; }, true},
    {"getAllDevices", "get all same count device info binder invoke failed",
     [](int& errCode) { return Adapter()->GetAllDevices(errCode).empty(); }, true},
    {"getLocalBasicInfo", "GetLocalBasicInfo: get local node basic info binder invoke failed",
     [](int&) { return Adapter()->GetLocalBasicInfo() == nullptr; }, false},
    {"getRemoteNodeBasicInfo", "getRemoteNodeBasicInfo: get remote node basic info by nodeId binder invoke failed",
     [](int&) { return Adapter()->GetRemoteNodeBasicInfo("node-cam") == nullptr; }, false},
    {"getRemoteNodesBasicInfo", "getRemoteNodesBasicInfo: get remote nodes basic info list binder invoke failed",
     [](int&) { return Adapter()->GetRemoteNodesBasicInfo().empty(); }, false},
    {"getNodeExtInfo", "GetNodeExtInfo: get node extinfo binder invoke failed",
     [](int&) { return Adapter()->GetNodeExtInfo("node-local", DEVICE_NAME).empty(); }, false},
    {"getUdidByNodeId", "GetUdidByNodeId: get udid by nodeId binder invoke failed",
     [](int&) { return Adapter()->GetUdidByNodeId("node-cam").empty(); }, false},
    {"getUuidByNodeId", "GetUuidByNodeId: get uuid by nodeId binder invoke failed",
     [](int&) { return Adapter()->GetUuidByNodeId("node-cam").empty(); }, false},
};

TEST(QueryFailures, EveryFailureKindGivesTheEmptyResultErrCodeTwoAndTheCallMessage) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        LogCapture log;
        std::vector<FaultKind> faults = kCallFaults;
        faults.push_back(kUnreadableReply);
        for (const Query& query : kQueries) {
            for (const FaultKind& fault : faults) {
                SCOPED_TRACE(std::string(query.method) + " with " + fault.name);
                FailNextCall(session, query.method, fault.fault);
                log.Clear();
                int errCode = kStale;
                EXPECT_TRUE(query.returnsEmpty(errCode));
                EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, query.callFailed));
                if (query.reportsErrCode) {
                    EXPECT_EQ(errCode, 2);
                }
                // The fault is used up and the cached proxy still serves.
                errCode = kStale;
                EXPECT_FALSE(query.returnsEmpty(errCode));
                if (query.reportsErrCode) {
                    EXPECT_EQ(errCode, 0);
                }
            }
        }
    });
}

// The two listener registries, seen the same way: add, remove, and where the
// service keeps count of them.
struct ListenerRegistry {
    const char* name;
    const char* serviceCount;
    const char* addMethod;
    const char* removeMethod;
    const char* addFailed;
    const char* removeFailed;
    std::function<bool()> add;
    std::function<void()> remove;
};

std::vector<ListenerRegistry> Registries() {
    const auto listener = std::make_shared<RecordingListener>();
    const auto nodeListener = std::make_shared<RecordingNodeListener>();
    return {
        {"device change listeners", "deviceChange", "addOnDeviceChangeListener", "removeOnDeviceChangeListener",
         "register callback binder invoke failed", "unregister callback binder invoke failed",
         [listener] { return Adapter()->RegisterCallback(listener); },
         [listener] { Adapter()->UnregisterCallback(listener); }},
        {"node listeners", "device", "addDeviceChangeListener", "removeDeviceChangeListener",
         "AddDeviceChangeListener: add device change listener binder invoke failed",
         "RemoveDeviceChangeListener: remove device change listener binder invoke failed",
         [nodeListener] { return Adapter()->AddDeviceChangeListener(nodeListener); },
         [nodeListener] { Adapter()->RemoveDeviceChangeListener(nodeListener); }},
    };
}

TEST(RegistrationFailures, FailedAddStoresNothingAndTheNextAddAsksTheServiceAgain) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        LogCapture log;
        for (const ListenerRegistry& registry : Registries()) {
            std::vector<std::pair<FaultKind, const char*>> faults;
            for (const FaultKind& fault : kCallFaults) faults.emplace_back(fault, registry.addFailed);
            if (std::string(registry.addMethod) == "addDeviceChangeListener") {
                faults.emplace_back(FaultKind{"refusal", {{"kind", "refuse"}}},
                                    "AddDeviceChangeListener: service add listener failed");
            }
            for (const auto& [fault, message] : faults) {
                SCOPED_TRACE(std::string(registry.name) + " with " + fault.name);
                FailNextCall(session, registry.addMethod, fault.fault);
                log.Clear();
                EXPECT_FALSE(registry.add());
                EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, message));
                EXPECT_EQ(RegisteredListeners(session, registry.serviceCount), 0);

                const int64_t addsBefore = session.Control().CallCount(registry.addMethod);
                EXPECT_TRUE(registry.add()) << "a failed add must not count as registered";
                EXPECT_EQ(session.Control().CallCount(registry.addMethod), addsBefore + 1);
                EXPECT_EQ(RegisteredListeners(session, registry.serviceCount), 1);
                registry.remove();
                ASSERT_EQ(RegisteredListeners(session, registry.serviceCount), 0);
            }
        }
    });
}

TEST(RegistrationFailures, FailedRemovalKeepsTheRegistrationAndRetriesWithTheSameWrapper) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        LogCapture log;
        for (const ListenerRegistry& registry : Registries()) {
            ASSERT_TRUE(registry.add());
            for (const FaultKind& fault : kCallFaults) {
                SCOPED_TRACE(std::string(registry.name) + " with " + fault.name);
                FailNextCall(session, registry.removeMethod, fault.fault);
                log.Clear();
                registry.remove();
                EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, registry.removeFailed));
                EXPECT_EQ(RegisteredListeners(session, registry.serviceCount), 1);
            }
            // Kept: another add is a duplicate, and the retried removal names
            // the wrapper that the service holds.
            EXPECT_FALSE(registry.add());
            registry.remove();
            EXPECT_EQ(RegisteredListeners(session, registry.serviceCount), 0);
            EXPECT_TRUE(registry.add());
            registry.remove();
        }
    });
}

TEST(RegistrationFailures, UnregisterCallbackReportsTheFailedRemoval) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        const auto listener = std::make_shared<RecordingListener>();
        ASSERT_TRUE(Adapter()->RegisterCallback(listener));
        FailNextCall(session, "removeOnDeviceChangeListener", kCallFaults.front().fault);
        EXPECT_FALSE(Adapter()->UnregisterCallback(listener));
        EXPECT_TRUE(Adapter()->UnregisterCallback(listener));
        EXPECT_FALSE(Adapter()->UnregisterCallback(listener));
    });
}

}  // namespace
}  // namespace tivra_test
