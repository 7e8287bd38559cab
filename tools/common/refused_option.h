#pragma once

#include <getopt.h>

#include <cctype>
#include <string>

namespace tivra_tools {

// What getopt_long refused, said for a person: an unknown option, an
// abbreviation that fits several long options, or a value given to an option
// that takes none. Call it right after getopt_long answered '?' (with opterr
// 0), with argv[optind - 1] as `given` and the table it was handed. With
// `takesNumbers` (the program has arguments that may be negative numbers),
// "-1" is told how to pass a number.
inline std::string RefusedOption(const std::string& given, const struct option* table, bool takesNumbers = false) {
    if (given.rfind("--", 0) != 0) {
        const std::string option = std::string("-") + static_cast<char>(optopt);
        // No program here has an option named by a digit: this is a number.
        if (takesNumbers && std::isdigit(static_cast<unsigned char>(optopt)) != 0) {
            return "unknown option '" + option + "'; to give a negative number, put '--' before it";
        }
        return "unknown option '" + option + "'";
    }
    const std::string name = given.substr(0, given.find('='));
    if (optopt != 0) {
        return "option '" + name + "' takes no value";
    }
    std::string fitting;
    int count = 0;
    for (const struct option* entry = table; entry->name != nullptr; ++entry) {
        if (std::string(entry->name).rfind(name.substr(2), 0) == 0) {
            fitting += std::string(count++ == 0 ? "" : " ") + "'--" + entry->name + "'";
        }
    }
    return count > 1 ? "option '" + name + "' is ambiguous; possibilities: " + fitting
                     : "unknown option '" + name + "'";
}

}  // namespace tivra_tools
