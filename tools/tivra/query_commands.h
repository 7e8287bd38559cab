#pragma once

#include <string>
#include <vector>

#include "command_line.h"

namespace tivra_cli {

// The read-only subcommands; each prints its answer and returns an exit code.
int RunQuery(const std::string& command, const std::vector<std::string>& args, Options& options);
bool IsQuery(const std::string& command);

}  // namespace tivra_cli
