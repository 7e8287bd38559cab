#pragma once

#include <string>
#include <vector>

namespace tivra_cli {

struct Options {
    bool json = false;
    bool verbose = false;
};

// The read-only subcommands; each prints its answer and returns an exit code.
int RunQuery(const std::string& command, const std::vector<std::string>& args, const Options& options);
bool IsQuery(const std::string& command);

}  // namespace tivra_cli
