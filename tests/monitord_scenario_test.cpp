// tivra-monitord's scenarios in process: the errors a bad file gets, and how
// events change the network (good files: every process test; faults: adapter_test).
#include <gtest/gtest.h>

#include <string>

#include "scenario.h"
#include "simulated_network.h"

namespace tivra_monitord {
namespace {

const std::string kMinimal = R"({
  "localDevice": {"name": "Here", "id": "d0", "type": "PHONE", "ip": "10.0.0.1"},
  "localNode": {"name": "Here", "deviceType": 14, "nodeId": "n0", "udid": "u0", "uuid": "v0"},
  "devices": [{"name": "TV", "id": "d1", "type": "TV", "ip": "10.0.0.2"}],
  "nodes": [{"name": "TV", "deviceType": 156, "nodeId": "n1", "extInfo": {"BR_MAC": "aa"}}],
  "timeline": [
    {"at": 0.5, "event": "nodeInfoChanged", "nodeId": "n1", "kind": 2},
    {"at": 1, "event": "deviceOffline", "deviceId": "d1"}
  ]
})";

// kMinimal with its first `what` replaced by `with`.
std::string Minimal(const std::string& what, const std::string& with) {
    std::string text = kMinimal;
    return text.replace(text.find(what), what.size(), with);
}

TEST(Scenario, ErrorsNameTheSourceAndWhatIsWrong) {
    const struct {
        std::string text, expected;
    } cases[] = {
        {"{\n  \"localDevice\": {\n  oops\n}", "net.json: [json.exception.parse_error.101] parse error at line 3"},
        {"{}", "net.json: field 'localDevice': missing"},
        {R"({"localDevice": {"name": 1, "id": "", "type": "", "ip": ""}})",
         "net.json: field 'localDevice.name': expected a string"},
        {Minimal("156", "\"x\""), "net.json: field 'nodes[0].deviceType': expected a 32-bit integer"},
        {Minimal("156", "18446744073709551615"), "net.json: field 'nodes[0].deviceType': expected a 32-bit integer"},
        {Minimal("156", "1e400"), "net.json: [json.exception.out_of_range.406] number overflow parsing '1e400'"},
        {Minimal("nodeInfoChanged", "explode"), "net.json: field 'timeline[0].event': unknown event 'explode'"},
        {Minimal("\"deviceId\": \"d1\"", "\"deviceId\": \"d9\""), "net.json: field 'timeline[1]': device 'd9' is not online"},
        {Minimal("\"at\": 1,", "\"at\": 0.1,"), "net.json: field 'timeline[1]': events must be listed in time order"},
        {Minimal("\"at\": 1,", "\"at\": -1,"), "net.json: field 'timeline[1].at': expected seconds"},
        {Minimal("\"devices\": [", R"("devices": [{"name": "A", "id": "d1", "type": "", "ip": ""}, )"),
         "net.json: field 'devices': id 'd1' appears twice"},
    };
    for (const auto& c : cases) {
        std::string error;
        try {
            ParseScenario(c.text, "net.json");
        } catch (const ScenarioError& e) {
            error = e.what();
        }
        EXPECT_EQ(error.rfind(c.expected, 0), 0u) << "got: " << error << "\nwanted a prefix: " << c.expected;
    }
}

TEST(SimulatedNetwork, EventsChangeTheNetworkAndCarryFullRecords) {
    const Scenario scenario = ParseScenario(kMinimal, "net.json");
    EXPECT_EQ(scenario.timeline[0].at, std::chrono::milliseconds(500));
    SimulatedNetwork network(scenario);
    TimelineEvent offline;
    offline.kind = EventKind::DeviceOffline;
    offline.device.id = "d1";
    ASSERT_EQ(network.Apply(offline), std::nullopt);
    EXPECT_EQ(offline.device.name, "TV") << "listeners are told the whole record that left";
    EXPECT_TRUE(network.Devices().empty());
    EXPECT_EQ(network.Apply(offline), std::optional<std::string>("device 'd1' is not online"));

    TimelineEvent online;
    online.kind = EventKind::NodeOnline;
    online.node.nodeId = "n1";
    EXPECT_EQ(network.Apply(online), std::optional<std::string>("node 'n1' is already online"));
    online.node.nodeId = "n2";
    EXPECT_EQ(network.Apply(online), std::nullopt);
    EXPECT_EQ(network.RemoteNodes().size(), 2u);
}

}  // namespace
}  // namespace tivra_monitord
