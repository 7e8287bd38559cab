#pragma once

#include <string>
#include <vector>

#include "command_line.h"

namespace tivra_cli {

// `tivra monitor`: the transactions and replies passing through binderd, as
// they pass, filtered.
int RunMonitor(const std::vector<std::string>& args, Options& options);

}  // namespace tivra_cli
