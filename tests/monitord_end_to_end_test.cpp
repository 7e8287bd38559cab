// tivra-monitord with a separate client process: the client registers
// through libtivra, the test drives the service through its control
// interface and reads what the client saw from a pipe.
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "monitord_fixture.h"
#include "tivra/tivra_adapter.h"

namespace tivra_test {
namespace {

using namespace Communication;
using nlohmann::json;

// Reports every callback as one line: "device on <id>", "node changed <id> <kind>", ...
class ReportingClient : public TivraListener, public DeviceListener {
public:
    explicit ReportingClient(const Channel& channel) : channel_(channel) {}

    void OnDeviceOnline(std::shared_ptr<TivraDeviceInfo> device) override { Post("device on " + device->GetDeviceId()); }
    void OnDeviceOffline(std::shared_ptr<TivraDeviceInfo> device) override {
        Post("device off " + device->GetDeviceId());
    }
    void OnDeviceOnline(std::shared_ptr<NodeBasicInfo> node) override { Post("node on " + node->GetNodeId()); }
    void OnDeviceOffline(std::shared_ptr<NodeBasicInfo> node) override { Post("node off " + node->GetNodeId()); }
    void OnDeviceInfoChanged(std::string nodeId, DeviceInfoType type) override {
        Post("node changed " + nodeId + " " + std::to_string(type));
    }

private:
    void Post(const std::string& line) const { channel_.post(line); }
    const Channel& channel_;
};

// Forks a client that registers both kinds of listener, says "registered"
// and then waits to be killed. Call before this process touches Binder.
pid_t SpawnReportingClient(MonitordSession& session, const Channel& channel) {
    return session.binderd().spawn([&channel] {
        const auto client = std::make_shared<ReportingClient>(channel);
        const auto adapter = TivraAdapter::GetInstance();
        CHILD_CHECK(adapter->RegisterCallback(client));
        CHILD_CHECK(adapter->AddDeviceChangeListener(client));
        channel.post("registered");
        for (;;) pause();
        return 0;
    });
}

// The lines that start with `prefix`, in arrival order.
std::vector<std::string> LinesOf(const std::vector<std::string>& lines, const std::string& prefix) {
    std::vector<std::string> picked;
    for (const std::string& line : lines) {
        if (line.rfind(prefix, 0) == 0) picked.push_back(line);
    }
    return picked;
}

TEST(MonitordEndToEnd, ClientProcessSeesEmittedEventsInOrder) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        Channel channel;
        SpawnReportingClient(session, channel);
        ASSERT_EQ(channel.next(), "registered");

        std::vector<json> events;
        std::vector<std::string> expectedDevices;
        for (int i = 0; i < 5; ++i) {
            const std::string id = "dev-e2e-" + std::to_string(i);
            events.push_back({{"event", "deviceOnline"}, {"device", {{"name", "n"}, {"id", id}, {"type", "t"}, {"ip", "i"}}}});
            events.push_back({{"event", "deviceOffline"}, {"deviceId", id}});
            expectedDevices.push_back("device on " + id);
            expectedDevices.push_back("device off " + id);
        }
        const std::string nodeId = "nœud-e2e";
        events.push_back({{"event", "nodeOnline"}, {"node", {{"name", "n"}, {"deviceType", 14}, {"nodeId", nodeId}}}});
        for (int kind : {3, 1, 2}) events.push_back({{"event", "nodeInfoChanged"}, {"nodeId", nodeId}, {"kind", kind}});
        events.push_back({{"event", "nodeOffline"}, {"nodeId", nodeId}});
        const std::vector<std::string> expectedNodes = {"node on " + nodeId, "node changed " + nodeId + " 3",
                                                        "node changed " + nodeId + " 1",
                                                        "node changed " + nodeId + " 2", "node off " + nodeId};

        const auto control = session.Control();
        for (const json& event : events) {
            const auto result = control.Emit(event);
            ASSERT_TRUE(result.ok) << result.error;
            EXPECT_EQ(result.value, (json{{"delivered", 1}}));
        }
        std::vector<std::string> lines;
        for (size_t i = 0; i < events.size(); ++i) lines.push_back(channel.next());
        // Each listener keeps its order; the two listeners may interleave.
        EXPECT_EQ(LinesOf(lines, "device "), expectedDevices);
        EXPECT_EQ(LinesOf(lines, "node "), expectedNodes);
    });
}

TEST(MonitordEndToEnd, KilledClientIsDroppedFromTheListeners) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        Channel channel;
        const pid_t client = SpawnReportingClient(session, channel);
        ASSERT_EQ(channel.next(), "registered");

        const auto control = session.Control();
        const auto registered = control.Listeners();
        ASSERT_TRUE(registered.ok) << registered.error;
        EXPECT_EQ(registered.value, (json{{"deviceChange", 1}, {"device", 1}}));

        session.binderd().kill(client, SIGKILL);
        EXPECT_EQ(session.binderd().waitExit(client), -1) << "the client was not killed";
        EXPECT_TRUE(waitUntil([&] {
            const auto listeners = control.Listeners();
            return listeners.ok && listeners.value == json{{"deviceChange", 0}, {"device", 0}};
        })) << "the dead client's listeners stayed registered";
    });
}

}  // namespace
}  // namespace tivra_test
