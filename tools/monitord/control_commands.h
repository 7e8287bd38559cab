#pragma once

#include <functional>

#include <nlohmann/json.hpp>

#include "event_broadcaster.h"
#include "fault_plan.h"
#include "listener_registry.h"
#include "simulated_network.h"

namespace tivra_monitord {

class JsonFields;

// Carries out the control interface's JSON commands:
//   {"op":"emit","event":{...}}              apply an event now and tell the listeners
//   {"op":"setDevice","device":{...}}        add or replace a device quietly (also setNode,
//   {"op":"removeDevice","deviceId":"..."}   removeNode, setLocalDevice, setLocalNode)
//   {"op":"fault","method":"getAllDevices","kind":"exception|transport|refuse|corruptReply",
//    "code":-8,"serviceCode":7,"message":"...","times":1}   (times 0 or absent: until cleared)
//   {"op":"clearFaults"}  {"op":"counts"}  {"op":"listeners"}
//   {"op":"exit","code":0}  {"op":"abort"}
// A malformed command throws ScenarioError and changes nothing.
class ControlCommands {
public:
    ControlCommands(SimulatedNetwork& network, ListenerRegistry& listeners, FaultPlan& faults,
                    EventBroadcaster& broadcaster);

    nlohmann::json Run(const nlohmann::json& command);

private:
    nlohmann::json SetFault(const JsonFields& fields);

    SimulatedNetwork& network_;
    ListenerRegistry& listeners_;
    FaultPlan& faults_;
    EventBroadcaster& broadcaster_;
};

}  // namespace tivra_monitord
