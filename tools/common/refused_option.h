#pragma once

#include <getopt.h>

#include <string>

namespace tivra_tools {

// What getopt_long refused, said for a person: an unknown option, or a value
// given to an option that takes none. `given` is argv[optind - 1].
inline std::string RefusedOption(const std::string& given) {
    if (given.rfind("--", 0) != 0) {
        return std::string("unknown option '-") + static_cast<char>(optopt) + "'";
    }
    const std::string name = given.substr(0, given.find('='));
    return optopt != 0 ? "option '" + name + "' takes no value" : "unknown option '" + name + "'";
}

}  // namespace tivra_tools
