#pragma once

#include <string>

namespace tivra_cli {

// What to tell a user whose request found no device monitor service: why
// binderd turned this process away or that it did not answer, whether
// binderd itself is missing or only the service, and what to start.
std::string ExplainUnavailableService();

// Whether binderd accepts connections on the socket this process would use.
bool BinderdIsRunning();

}  // namespace tivra_cli
