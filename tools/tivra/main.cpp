// tivra: the command line client of the device network, built on libtivra.
#include <android/log.h>

#include <cstdio>
#include <string>
#include <vector>

#include "exit_codes.h"
#include "query_commands.h"
#include "sim_command.h"
#include "watch_command.h"

namespace {

constexpr const char* kUsage =
    "Usage: tivra [--json] [--verbose] COMMAND [ARGS]\n"
    "\n"
    "Queries (through the device monitor service):\n"
    "  local-device           the local device\n"
    "  devices                all devices\n"
    "  local-node             the local node\n"
    "  node NODE_ID           one remote node\n"
    "  nodes                  all remote nodes\n"
    "  ext NODE_ID [KEY]      one extended attribute, or all twelve published keys\n"
    "  udid NODE_ID           a node's UDID\n"
    "  uuid NODE_ID           a node's UUID\n"
    "Events:\n"
    "  watch [--for DURATION] print device and node events as they arrive\n"
    "Host tools:\n"
    "  sim COMMAND ...        drive a running tivra-monitord (tivra sim --help)\n"
    "  services               what binderd has registered\n"
    "\n"
    "  --json     machine output: one JSON document (one object per line for watch)\n"
    "  --verbose  show the library's log lines on stderr\n"
    "\n"
    "Exit codes: 0 success, 1 the service call failed, 2 bad usage,\n"
    "3 binderd or the device monitor service is not running.\n"
    "Every command takes --help.\n";

void DiscardLog(const struct __android_logger_data*, const char*) {}

}  // namespace

int main(int argc, char** argv) {
    tivra_cli::Options options;
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--json") {
            options.json = true;
        } else if (arg == "--verbose" || arg == "-v") {
            options.verbose = true;
        } else {
            words.push_back(arg);
        }
    }
    if (words.empty() || words[0] == "--help" || words[0] == "-h" || words[0] == "help") {
        std::fputs(kUsage, words.empty() ? stderr : stdout);
        return words.empty() ? tivra_cli::kExitUsage : tivra_cli::kExitOk;
    }
    if (!options.verbose) {
        __android_log_set_logger(DiscardLog);
    }
    const std::string command = words[0];
    const std::vector<std::string> args(words.begin() + 1, words.end());
    if (tivra_cli::IsQuery(command)) {
        return tivra_cli::RunQuery(command, args, options);
    }
    if (command == "watch") {
        return tivra_cli::RunWatch(args, options);
    }
    if (command == "sim") {
        return tivra_cli::RunSim(args, options);
    }
    if (command == "services") {
        return tivra_cli::RunServices(args, options);
    }
    std::fprintf(stderr, "tivra: unknown command '%s'\n\n%s", command.c_str(), kUsage);
    return tivra_cli::kExitUsage;
}
