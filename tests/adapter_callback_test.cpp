// Callbacks from tivra-monitord, emitted through its control interface, as
// the client's listeners see them: new records with the service's fields,
// each listener's events in the order sent, change kinds mapped, UTF-8 ids,
// and listeners that call the adapter from inside a callback.
#include <android/log.h>
#include <gtest/gtest.h>

#include <climits>
#include <set>
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

std::shared_ptr<TivraAdapter> Adapter() { return TivraAdapter::GetInstance(); }

json Device(int i) {
    const std::string n = std::to_string(i);
    return {{"name", "Gerät " + n + " ✓"}, {"id", "dev-" + n}, {"type", "TYPE-" + n}, {"ip", "10.1.0." + n}};
}

void Emit(const tivra_control::MonitorControlClient& control, const json& event) {
    const auto result = control.Emit(event);
    ASSERT_TRUE(result.ok) << result.error;
}

TEST(DeviceCallbacks, EveryListenerGetsNewRecordsInTheOrderSent) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        const std::vector<std::shared_ptr<RecordingListener>> listeners = {std::make_shared<RecordingListener>(),
                                                                           std::make_shared<RecordingListener>()};
        for (const auto& listener : listeners) ASSERT_TRUE(Adapter()->RegisterCallback(listener));

        constexpr int kDevices = 20;
        const auto control = session.Control();
        for (int i = 0; i < kDevices; ++i) Emit(control, {{"event", "deviceOnline"}, {"device", Device(i)}});
        for (int i = 0; i < kDevices; ++i) {
            Emit(control, {{"event", "deviceOffline"}, {"deviceId", "dev-" + std::to_string(i)}});
        }

        std::set<const TivraDeviceInfo*> records;
        for (const auto& listener : listeners) {
            ASSERT_TRUE(listener->log.WaitForSize(2 * kDevices));
            const std::vector<DeviceEvent> events = listener->log.Events();
            ASSERT_EQ(events.size(), 2u * kDevices);
            for (size_t k = 0; k < events.size(); ++k) {
                SCOPED_TRACE("event " + std::to_string(k));
                const json expected = Device(static_cast<int>(k % kDevices));
                EXPECT_EQ(events[k].online, k < kDevices);
                ASSERT_NE(events[k].device, nullptr);
                EXPECT_EQ(events[k].device->GetDeviceName(), expected["name"]);
                EXPECT_EQ(events[k].device->GetDeviceId(), expected["id"]);
                EXPECT_EQ(events[k].device->GetDeviceType(), expected["type"]);
                EXPECT_EQ(events[k].device->GetDeviceIp(), expected["ip"]);
                records.insert(events[k].device.get());
            }
        }
        EXPECT_EQ(records.size(), 2u * 2u * kDevices) << "a record was handed out twice";
    });
}

TEST(NodeCallbacks, RecordsKindsAndUtf8IdsReachTheListener) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        const auto listener = std::make_shared<RecordingNodeListener>();
        ASSERT_TRUE(Adapter()->AddDeviceChangeListener(listener));
        LogCapture log;

        const std::string nodeId = "节点-ß-ø";
        const json node = {{"name", "Sensor ✓"}, {"deviceType", 0x11}, {"nodeId", nodeId}};
        const struct {
            int32_t sent;
            DeviceInfoType delivered;
        } kinds[] = {{1, DEVICE_INFO_TYPE_1}, {2, DEVICE_INFO_TYPE_2},       {3, DEVICE_INFO_TYPE_3},
                     {0, DEVICE_INFO_TYPE_UNKNOWN}, {4, DEVICE_INFO_TYPE_UNKNOWN}, {-1, DEVICE_INFO_TYPE_UNKNOWN},
                     {INT32_MIN, DEVICE_INFO_TYPE_UNKNOWN}};
        const auto control = session.Control();
        Emit(control, {{"event", "nodeOnline"}, {"node", node}});
        for (const auto& kind : kinds) {
            Emit(control, {{"event", "nodeInfoChanged"}, {"nodeId", nodeId}, {"kind", kind.sent}});
        }
        Emit(control, {{"event", "nodeOffline"}, {"nodeId", nodeId}});

        const size_t expected = 2 + std::size(kinds);
        ASSERT_TRUE(listener->log.WaitForSize(expected));
        const std::vector<NodeEvent> events = listener->log.Events();
        ASSERT_EQ(events.size(), expected);
        for (const size_t k : {size_t{0}, expected - 1}) {
            EXPECT_EQ(events[k].kind, k == 0 ? NodeEvent::Online : NodeEvent::Offline);
            ASSERT_NE(events[k].node, nullptr);
            EXPECT_EQ(events[k].node->GetName(), "Sensor ✓");
            EXPECT_EQ(events[k].node->GetDeviceType(), DEVICE_TYPE_11);
            EXPECT_EQ(events[k].node->GetNodeId(), nodeId);
        }
        EXPECT_NE(events.front().node, events.back().node);
        size_t unknown = 0;
        for (size_t k = 0; k < std::size(kinds); ++k) {
            SCOPED_TRACE("kind " + std::to_string(kinds[k].sent));
            EXPECT_EQ(events[k + 1].kind, NodeEvent::InfoChanged);
            EXPECT_EQ(events[k + 1].nodeId, nodeId);
            EXPECT_EQ(events[k + 1].type, kinds[k].delivered);
            EXPECT_TRUE(log.Contains(ANDROID_LOG_INFO, "onDeviceInfoChanged: type is " + std::to_string(kinds[k].sent)));
            unknown += kinds[k].delivered == DEVICE_INFO_TYPE_UNKNOWN ? 1 : 0;
        }
        EXPECT_EQ(log.Count("onDeviceInfoChanged: type is unknown"), unknown);
        EXPECT_EQ(ErrorLines(log), unknown);
        EXPECT_TRUE(log.Contains(ANDROID_LOG_INFO, "onDeviceOnline"));
        EXPECT_TRUE(log.Contains(ANDROID_LOG_INFO, "onDeviceOffline"));
    });
}

// A callback runs with no adapter lock held: it may query, unregister itself
// and register another listener.
TEST(DeviceCallbacks, ListenerMayCallTheAdapterFromItsCallback) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        const auto successor = std::make_shared<RecordingListener>();
        EventLog<std::string> outcomes;
        auto self = std::make_shared<std::weak_ptr<RecordingListener>>();
        const auto listener = std::make_shared<RecordingListener>([&, self](const DeviceEvent&) {
            int errCode = -1;
            const bool queried = Adapter()->GetLocalDevice(errCode) != nullptr && errCode == 0;
            const bool unregistered = Adapter()->UnregisterCallback(self->lock());
            const bool registered = Adapter()->RegisterCallback(successor);
            outcomes.Add(std::to_string(queried) + std::to_string(unregistered) + std::to_string(registered));
        });
        *self = listener;
        ASSERT_TRUE(Adapter()->RegisterCallback(listener));

        const auto control = session.Control();
        Emit(control, {{"event", "deviceOnline"}, {"device", Device(1)}});
        ASSERT_TRUE(outcomes.WaitForSize(1)) << "the callback did not finish: deadlock?";
        EXPECT_EQ(outcomes.Events()[0], "111") << "query, unregister, register";

        Emit(control, {{"event", "deviceOffline"}, {"deviceId", "dev-1"}});
        ASSERT_TRUE(successor->log.WaitForSize(1));
        EXPECT_FALSE(successor->log.Events()[0].online);
        EXPECT_EQ(listener->log.Size(), 1u) << "an unregistered listener was called";
    });
}

}  // namespace
}  // namespace tivra_test
