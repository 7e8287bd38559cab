#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "command_line.h"

namespace tivra_cli {

// "500ms", "10s", "2m", "1h" or a bare number of seconds ("1.5"); nothing when
// the text is not a duration of at most a day.
std::optional<std::chrono::milliseconds> ParseDuration(const std::string& text);

// `--for DURATION` of `command` ("tivra watch"), stored in `limit`.
CommandOption ForOption(const std::string& command, std::optional<std::chrono::milliseconds>* limit);

}  // namespace tivra_cli
