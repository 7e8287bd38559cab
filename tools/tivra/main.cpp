// tivra: the command line client of the device network, built on libtivra.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "command_line.h"
#include "exit_codes.h"
#include "monitor_command.h"
#include "query_commands.h"
#include "sim_command.h"
#include "text_width.h"
#include "tivra/tivra_log.h"
#include "watch_command.h"
#include "written_output.h"

namespace {

constexpr const char* kUsage =
    "Usage: tivra [OPTIONS] COMMAND [ARGS]\n"
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
    "  monitor [FILTERS]      the transactions passing through binderd (tivra monitor --help)\n"
    "\n"
    "Options (before or after the command):\n"
    "  --json         machine output: compact JSON (one object per line for watch and monitor)\n"
    "  --pretty       indented JSON (implies --json)\n"
    "  -v, --verbose  show the library's log lines on stderr\n"
    "  -h, --help     show help (also after a command: tivra watch --help)\n"
    "  -V, --version  show the version\n"
    "\n"
    "Exit status: 0 success, 1 an operation failed (or the output could not be written),\n"
    "2 bad usage, 3 binderd or the device monitor service is not running.\n";

int Run(const std::vector<std::string>& args) {
    tivra_cli::Options options;
    const tivra_cli::CommandLine line{"tivra", kUsage, {}, true};
    const tivra_cli::Parsed parsed = tivra_cli::Parse(line, args, options);
    if (parsed.exit) {
        return *parsed.exit;
    }
    if (parsed.words.empty()) {
        std::fputs(kUsage, stderr);
        return tivra_cli::kExitUsage;
    }
    const std::string& command = parsed.words[0];
    const std::vector<std::string> rest(parsed.words.begin() + 1, parsed.words.end());
    if (tivra_cli::IsQuery(command)) {
        return tivra_cli::RunQuery(command, rest, options);
    }
    if (command == "watch") {
        return tivra_cli::RunWatch(rest, options);
    }
    if (command == "sim") {
        return tivra_cli::RunSim(rest, options);
    }
    if (command == "monitor") {
        return tivra_cli::RunMonitor(rest, options);
    }
    if (command == "services") {
        return tivra_cli::RunServices(rest, options);
    }
    return tivra_cli::UsageError("tivra", "unknown command '" + command + "'");
}

}  // namespace

int main(int argc, char** argv) {
    // The library's log stays quiet unless --verbose asks for it.
    Communication::SetTivraLogMinPriority(Communication::TIVRA_LOG_SILENT);
    const std::vector<std::string> args(argv + 1, argv + argc);
    for (size_t i = 0; i < args.size(); ++i) {
        if (!tivra_cli::IsValidUtf8(args[i])) {
            return tivra_cli::UsageError("tivra", "argument " + std::to_string(i + 1) + " is not valid UTF-8");
        }
    }
    int status;
    try {
        status = Run(args);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tivra: %s\n", error.what());
        status = tivra_cli::kExitCallFailed;
    }
    return tivra_tools::FinishOutput("tivra", status);
}
