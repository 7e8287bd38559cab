#pragma once

#include <cstdint>

// The control interface of tivra-monitord: a test or a user drives the running
// service through it. One two-way transaction carries a JSON command and
// answers with a result code and a JSON document (or an error text).
namespace tivra_control {

constexpr const char* kControlServiceName = "PravikDeviceMonitorControl";
constexpr const char* kControlDescriptor = "com.solvane.pravik.tools.IMonitorControl";

// Data: interface token, String16 command. Reply: int32 result (0 or -1),
// String16 JSON result or error text.
constexpr uint32_t kCommandTransaction = 1;

constexpr int32_t kCommandOk = 0;
constexpr int32_t kCommandFailed = -1;

// The kinds a "fault" command accepts, in the order its help lists them.
constexpr const char* kFaultKindNames[] = {"exception", "transport", "refuse", "corruptReply"};

}  // namespace tivra_control
