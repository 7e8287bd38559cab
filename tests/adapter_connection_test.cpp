// The adapter's service connection and queries against tivra-monitord in
// another process: lookup when the service is absent or appears, the cached
// proxy, and the records of the device and node queries.
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

constexpr int kStale = 42;

std::shared_ptr<TivraAdapter> Adapter() { return TivraAdapter::GetInstance(); }

void ExpectDevice(const std::shared_ptr<TivraDeviceInfo>& device, const std::string& name, const std::string& id,
                  const std::string& type, const std::string& ip) {
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->GetDeviceName(), name);
    EXPECT_EQ(device->GetDeviceId(), id);
    EXPECT_EQ(device->GetDeviceType(), type);
    EXPECT_EQ(device->GetDeviceIp(), ip);
}

void ExpectNode(const std::shared_ptr<NodeBasicInfo>& node, const std::string& name, DeviceType type,
                const std::string& nodeId) {
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->GetName(), name);
    EXPECT_EQ(node->GetDeviceType(), type);
    EXPECT_EQ(node->GetNodeId(), nodeId);
}

TEST(AdapterConnection, ServiceThatAppearsLaterIsFoundByTheNextCall) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.ready()) << session.error();
        LogCapture log;

        int errCode = kStale;
        EXPECT_EQ(Adapter()->GetLocalDevice(errCode), nullptr);
        EXPECT_EQ(errCode, 1);
        EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, "GetLocalDevice: get pravik service failed"));
        errCode = kStale;
        EXPECT_TRUE(Adapter()->GetAllDevices(errCode).empty());
        EXPECT_EQ(errCode, 1);
        EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, "GetAllDevices: get pravik service failed"));
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        errCode = kStale;
        ExpectDevice(Adapter()->GetLocalDevice(errCode), "Desk Laptop", "dev-local", "LAPTOP", "10.0.0.2");
        EXPECT_EQ(errCode, 0);
    });
}

// Each operation, called while no service is registered: its failure value
// and its one message. Argument checks that come before the lookup win.
TEST(AdapterConnection, EveryOperationReportsAnAbsentServiceWithItsOwnMessage) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.ready()) << session.error();
        LogCapture log;
        const auto listener = std::make_shared<RecordingListener>();
        const auto nodeListener = std::make_shared<RecordingNodeListener>();
        const auto notifier = std::make_shared<RecordingNotifier>();
        struct Case {
            const char* message;
            std::function<bool()> failsAsExpected;
        };
        const std::vector<Case> cases = {
            {"RegisterCallback: get pravik service failed", [&] { return !Adapter()->RegisterCallback(listener); }},
            {"RegisterCallback: get pravik service failed", [&] { return !Adapter()->RegisterCallback(nullptr); }},
            {"UnregisterCallback: get pravik service failed", [&] { return !Adapter()->UnregisterCallback(listener); }},
            {"LinkToDeath: get pravik service failed", [&] { return !Adapter()->LinkToDeath(notifier); }},
            {"UnlinkToDeath: get pravik service failed", [&] { return !Adapter()->UnlinkToDeath(nullptr); }},
            {"AddDeviceChangeListener: get pravik service failed",
             [&] { return !Adapter()->AddDeviceChangeListener(nodeListener); }},
            {"AddDeviceChangeListener: listener is nullptr", [&] { return !Adapter()->AddDeviceChangeListener(nullptr); }},
            {"RemoveDeviceChangeListener: get pravik service failed",
             [&] { return Adapter()->RemoveDeviceChangeListener(nodeListener), true; }},
            {"RemoveDeviceChangeListener: listener is nullptr",
             [&] { return Adapter()->RemoveDeviceChangeListener(nullptr), true; }},
            {"GetLocalBasicInfo: get pravik service failed", [&] { return Adapter()->GetLocalBasicInfo() == nullptr; }},
            {"getRemoteNodeBasicInfo: get pravik service failed",
             [&] { return Adapter()->GetRemoteNodeBasicInfo("node-cam") == nullptr; }},
            {"GetRemoteNodeBasicInfo: nodeId is empty", [&] { return Adapter()->GetRemoteNodeBasicInfo("") == nullptr; }},
            {"getRemoteNodesBasicInfo: get pravik service failed",
             [&] { return Adapter()->GetRemoteNodesBasicInfo().empty(); }},
            {"GetNodeExtInfo: get pravik service failed",
             [&] { return Adapter()->GetNodeExtInfo("node-cam", DEVICE_NAME).empty(); }},
            {"GetNodeExtInfo: nodeId or key is empty", [&] { return Adapter()->GetNodeExtInfo("node-cam", "").empty(); }},
            {"GetNodeExtInfo: nodeId or key is empty", [&] { return Adapter()->GetNodeExtInfo("", DEVICE_NAME).empty(); }},
            {"GetUdidByNodeId: get pravik service failed", [&] { return Adapter()->GetUdidByNodeId("node-cam").empty(); }},
            {"GetUdidByNodeId: nodeId is empty", [&] { return Adapter()->GetUdidByNodeId("").empty(); }},
            {"GetUuidByNodeId: get pravik service failed", [&] { return Adapter()->GetUuidByNodeId("node-cam").empty(); }},
            {"GetUuidByNodeId: nodeId is empty", [&] { return Adapter()->GetUuidByNodeId("").empty(); }},
        };
        for (const Case& test : cases) {
            SCOPED_TRACE(test.message);
            log.Clear();
            EXPECT_TRUE(test.failsAsExpected());
            EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, test.message));
            EXPECT_EQ(log.Lines().size(), 1u) << "one failure, one line";
        }
    });
}

// While connected, the adapter keeps talking to the service it found, even
// when another one takes over the name; only a death makes it look again.
TEST(AdapterConnection, CachedProxyServesUntilTheServiceDies) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        const pid_t first = session.servicePid();
        int errCode = kStale;
        ExpectDevice(Adapter()->GetLocalDevice(errCode), "Desk Laptop", "dev-local", "LAPTOP", "10.0.0.2");
        const auto notifier = std::make_shared<RecordingNotifier>();
        ASSERT_TRUE(Adapter()->LinkToDeath(notifier));

        // A second service cannot take the name while the first lives.
        nlohmann::json other = QuietScenario();
        other["localDevice"] = {{"name", "Other Laptop"}, {"id", "dev-other"}, {"type", "LAPTOP"}, {"ip", "10.0.0.9"}};
        ASSERT_FALSE(session.StartService(other));
        EXPECT_NE(session.error().find("is already registered by another process"), std::string::npos)
            << session.error();
        ExpectDevice(Adapter()->GetLocalDevice(errCode), "Desk Laptop", "dev-local", "LAPTOP", "10.0.0.2");

        ASSERT_TRUE(session.KillService(first));
        ASSERT_TRUE(notifier->deaths.WaitForSize(1));
        ASSERT_TRUE(session.StartService(other)) << session.error();
        ExpectDevice(Adapter()->GetLocalDevice(errCode), "Other Laptop", "dev-other", "LAPTOP", "10.0.0.9");
        EXPECT_EQ(errCode, 0);
    });
}

TEST(DeviceQueries, HandOutNewRecordsInTheServiceOrder) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        LogCapture log;

        int errCode = kStale;
        const auto first = Adapter()->GetLocalDevice(errCode);
        const auto second = Adapter()->GetLocalDevice(errCode);
        ExpectDevice(second, "Desk Laptop", "dev-local", "LAPTOP", "10.0.0.2");
        EXPECT_NE(first, second);

        errCode = kStale;
        const auto devices = Adapter()->GetAllDevices(errCode);
        EXPECT_EQ(errCode, 0);
        ASSERT_EQ(devices.size(), 3u);
        ExpectDevice(devices[0], "Desk Laptop", "dev-local", "LAPTOP", "10.0.0.2");
        ExpectDevice(devices[1], "Hall Camera", "dev-cam", "CAMERA", "10.0.0.3");
        ExpectDevice(devices[2], "Gartenlicht ☀", "dev-light", "LIGHT", "10.0.0.4");
        EXPECT_NE(Adapter()->GetAllDevices(errCode)[0], devices[0]) << "records are not shared";

        const auto control = session.Control();
        for (const char* id : {"dev-local", "dev-cam", "dev-light"}) {
            ASSERT_TRUE(control.Run({{"op", "removeDevice"}, {"deviceId", id}}).ok);
        }
        errCode = kStale;
        EXPECT_TRUE(Adapter()->GetAllDevices(errCode).empty());
        EXPECT_EQ(errCode, 0) << "no device is a success";
        EXPECT_EQ(ErrorLines(log), 0u) << "success logs no failure";
    });
}

TEST(NodeQueries, HandOutTheServiceRecordsAndTexts) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        LogCapture log;

        const auto local = Adapter()->GetLocalBasicInfo();
        ExpectNode(local, "Desk Laptop", DEVICE_TYPE_0C, "node-local");
        EXPECT_NE(Adapter()->GetLocalBasicInfo(), local);

        const auto remotes = Adapter()->GetRemoteNodesBasicInfo();
        ASSERT_EQ(remotes.size(), 2u);
        ExpectNode(remotes.front(), "Hall Camera", DEVICE_TYPE_9C, "node-cam");
        ExpectNode(remotes.back(), "Gartenlicht ☀", DEVICE_TYPE_0A, "nœud-lumière-光");
        ExpectNode(Adapter()->GetRemoteNodeBasicInfo("nœud-lumière-光"), "Gartenlicht ☀", DEVICE_TYPE_0A,
                   "nœud-lumière-光");

        EXPECT_EQ(Adapter()->GetNodeExtInfo("node-local", GROUP_INFO), "Küche ✓ 家");
        EXPECT_EQ(Adapter()->GetNodeExtInfo("node-local", BR_MAC), "") << "a key without value";
        EXPECT_EQ(Adapter()->GetUdidByNodeId("nœud-lumière-光"), "UDID-LIGHT-ü");
        EXPECT_EQ(Adapter()->GetUuidByNodeId("node-cam"), "uuid-cam");
        // The id is sent up to its first NUL character.
        EXPECT_EQ(Adapter()->GetUdidByNodeId(std::string("node-cam\0-ignored", 17)), "UDID-CAM");
        EXPECT_EQ(ErrorLines(log), 0u) << "success logs no failure";

        const auto control = session.Control();
        for (const char* id : {"node-cam", "nœud-lumière-光"}) {
            ASSERT_TRUE(control.Run({{"op", "removeNode"}, {"nodeId", id}}).ok);
        }
        EXPECT_TRUE(Adapter()->GetRemoteNodesBasicInfo().empty());
    });
}

TEST(NodeQueries, UnknownNodeGivesTheEmptyResultAndTheCallMessage) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        LogCapture log;
        struct Case {
            const char* message;
            std::function<bool()> empty;
        };
        const std::vector<Case> cases = {
            {"getRemoteNodeBasicInfo: get remote node basic info by nodeId binder invoke failed",
             [] { return Adapter()->GetRemoteNodeBasicInfo("node-gone") == nullptr; }},
            {"GetNodeExtInfo: get node extinfo binder invoke failed",
             [] { return Adapter()->GetNodeExtInfo("node-gone", DEVICE_NAME).empty(); }},
            {"GetUdidByNodeId: get udid by nodeId binder invoke failed",
             [] { return Adapter()->GetUdidByNodeId("node-gone").empty(); }},
            {"GetUuidByNodeId: get uuid by nodeId binder invoke failed",
             [] { return Adapter()->GetUuidByNodeId("node-gone").empty(); }},
        };
        for (const Case& test : cases) {
            SCOPED_TRACE(test.message);
            log.Clear();
            EXPECT_TRUE(test.empty());
            EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, test.message));
        }
    });
}

}  // namespace
}  // namespace tivra_test
