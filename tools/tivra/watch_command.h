#pragma once

#include <string>
#include <vector>

#include "command_line.h"

namespace tivra_cli {

// `tivra watch [--for DURATION]`: prints every event as it arrives; waits for
// the service when it is not registered yet; when the service dies or binderd
// restarts, says so, waits for the service to come back and registers again.
int RunWatch(const std::vector<std::string>& args, Options& options);

}  // namespace tivra_cli
