#pragma once

#include <string>
#include <vector>

#include "command_line.h"

namespace tivra_cli {

// `tivra watch [--for DURATION]`: prints every event as it arrives; when the
// service dies, says so, waits for it to come back and registers again.
int RunWatch(const std::vector<std::string>& args, Options& options);

}  // namespace tivra_cli
