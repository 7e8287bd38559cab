#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace tivra_cli {

// Options that every level of the command line takes, wherever they stand.
struct Options {
    bool json = false;
    bool pretty = false;
};

// An option of one command only, such as `watch --for DURATION`.
struct CommandOption {
    const char* name;      // long name, without the dashes
    const char* argument;  // what its value is called in messages, or null for a flag
    // Takes the value ("" for a flag); false when the value is malformed, after
    // saying why on stderr.
    std::function<bool(const std::string& value)> take;
};

// One level of the command line ("tivra", "tivra watch", "tivra sim fault"),
// parsed with getopt_long: GNU long options with "--name value" or
// "--name=value", "--" to end them, and the common options (--json, --pretty,
// --verbose, --help, --version) besides the command's own.
struct CommandLine {
    std::string command;  // as the user typed it, for messages: "tivra sim fault"
    std::string usage;    // the whole --help text
    std::vector<CommandOption> options;
    // Stop at the first word, which names a subcommand that parses the rest.
    bool stopAtFirstWord = false;
};

struct Parsed {
    std::vector<std::string> words;  // what is not an option, in order
    std::optional<int> exit;         // set when the command is done: --help, --version or bad usage
};

Parsed Parse(const CommandLine& line, const std::vector<std::string>& args, Options& options);

// Reports bad usage of `command`: the reason, and where to find help.
int UsageError(const std::string& command, const std::string& reason);

// Bad usage when one of `words` is empty, named after its place in
// `synopsis` ("NODE_ID [KEY]"); kExitOk when none is.
int RefuseEmptyArguments(const std::string& command, const std::string& synopsis,
                         const std::vector<std::string>& words);

// The JSON form of an answer: compact, or indented with --pretty. Text that
// is not UTF-8 is replaced, never thrown on.
std::string JsonText(const nlohmann::json& document, const Options& options);

}  // namespace tivra_cli
