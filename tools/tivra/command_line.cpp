#include "command_line.h"

#include <getopt.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "exit_codes.h"
#include "refused_option.h"
#include "tivra/tivra_log.h"

namespace tivra_cli {
namespace {

enum CommonOption : int { kHelp = 'h', kVerbose = 'v', kVersion = 'V', kJson = 256, kPretty, kFirstCommandOption };

const struct option kCommonOptions[] = {
    {"help", no_argument, nullptr, kHelp},
    {"verbose", no_argument, nullptr, kVerbose},
    {"json", no_argument, nullptr, kJson},
    {"pretty", no_argument, nullptr, kPretty},
    {"version", no_argument, nullptr, kVersion},
};

}  // namespace

int UsageError(const std::string& command, const std::string& reason) {
    std::fprintf(stderr, "%s: %s\nTry '%s --help' for more information.\n", command.c_str(), reason.c_str(),
                 command.c_str());
    return kExitUsage;
}

int RefuseEmptyArguments(const std::string& command, const std::string& synopsis,
                         const std::vector<std::string>& words) {
    std::vector<std::string> names;
    std::istringstream parts(synopsis);
    for (std::string part; parts >> part;) {
        part.erase(std::remove_if(part.begin(), part.end(), [](char c) { return c == '[' || c == ']'; }), part.end());
        if (part.rfind('-', 0) != 0) {
            names.push_back(part);
        }
    }
    for (size_t i = 0; i < words.size(); ++i) {
        if (words[i].empty()) {
            const std::string name = names.empty() ? "argument" : names[std::min(i, names.size() - 1)];
            return UsageError(command, name + " must not be empty");
        }
    }
    return kExitOk;
}

Parsed Parse(const CommandLine& line, const std::vector<std::string>& args, Options& options) {
    std::vector<struct option> table(std::begin(kCommonOptions), std::end(kCommonOptions));
    for (size_t i = 0; i < line.options.size(); ++i) {
        const CommandOption& own = line.options[i];
        table.push_back({own.name, own.argument != nullptr ? required_argument : no_argument, nullptr,
                         kFirstCommandOption + static_cast<int>(i)});
    }
    table.push_back({nullptr, 0, nullptr, 0});

    std::vector<std::string> storage;
    storage.reserve(args.size() + 1);
    storage.push_back(line.command);
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : storage) argv.push_back(arg.data());
    argv.push_back(nullptr);
    const int argc = static_cast<int>(storage.size());

    // "+" stops at the first word; ":" reports a missing value apart.
    const char* shortOptions = line.stopAtFirstWord ? "+:hvV" : ":hvV";
    Parsed parsed;
    optind = 0;  // glibc: start over with a new vector
    opterr = 0;
    int found;
    while ((found = getopt_long(argc, argv.data(), shortOptions, table.data(), nullptr)) != -1) {
        const std::string given = argv[optind - 1];
        switch (found) {
            case kHelp:
                std::fputs(line.usage.c_str(), stdout);
                parsed.exit = kExitOk;
                return parsed;
            case kVersion:
                std::printf("%s (libtivra) %s\n", line.command.substr(0, line.command.find(' ')).c_str(),
                            TIVRA_VERSION);
                parsed.exit = kExitOk;
                return parsed;
            case kVerbose:
                Communication::SetTivraLogMinPriority(Communication::TIVRA_LOG_VERBOSE);
                break;
            case kJson:
                options.json = true;
                break;
            case kPretty:
                options.json = options.pretty = true;
                break;
            case ':':
                parsed.exit = UsageError(line.command, "option '" + given + "' needs a value");
                return parsed;
            case '?':
                parsed.exit = UsageError(line.command, tivra_tools::RefusedOption(given, table.data(), true));
                return parsed;
            default: {
                const CommandOption& own = line.options[found - kFirstCommandOption];
                // An empty value is a slip (an unset variable), never a choice.
                if (own.argument != nullptr && *optarg == '\0') {
                    parsed.exit = UsageError(line.command, std::string("option '--") + own.name + "' needs a non-empty value");
                    return parsed;
                }
                if (!own.take(optarg != nullptr ? optarg : "")) {
                    parsed.exit = kExitUsage;
                    return parsed;
                }
            }
        }
    }
    // getopt_long has moved the words behind the options.
    parsed.words.assign(argv.begin() + optind, argv.begin() + argc);
    return parsed;
}

std::string JsonText(const nlohmann::json& document, const Options& options) {
    return document.dump(options.pretty ? 2 : -1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace tivra_cli
