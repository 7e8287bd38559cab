#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tivra_cli {

// What binderd reports by number, named for people. binderd knows nothing
// of the device monitor interfaces (nor of tivra-monitord's control
// interface); the tool does.

// "IDeviceMonitorService.getAllDevices" for a code of a known interface, else
// the descriptor's last part and the code ("IFoo code 7", "code 7" without a
// descriptor). Calls to the service manager are named by code alone.
std::string MethodName(const std::string& descriptor, uint32_t code, bool toServiceManager);

// The device monitor service's methods by name, in the order of their codes.
std::vector<std::string> ServiceMethodNames();

// "OK", "DEAD_OBJECT", ... or the number.
std::string StatusName(int32_t status);

}  // namespace tivra_cli
