#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace tivra_cli {

// "10s", "500ms", "2m" or a plain number of seconds ("1.5"); nothing when the
// text is not a duration of at most a day.
std::optional<std::chrono::milliseconds> ParseDuration(const std::string& text);

}  // namespace tivra_cli
