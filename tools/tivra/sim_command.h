#pragma once

#include <string>
#include <vector>

#include "command_line.h"

namespace tivra_cli {

// `tivra sim ...`: drives a running tivra-monitord through its control
// interface: emit events, change the network, inject faults.
int RunSim(const std::vector<std::string>& args, Options& options);

// `tivra services`: the names binderd has registered.
int RunServices(const std::vector<std::string>& args, Options& options);

}  // namespace tivra_cli
