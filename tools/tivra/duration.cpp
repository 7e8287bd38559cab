#include "duration.h"

#include <cmath>
#include <cstdlib>

namespace tivra_cli {

std::optional<std::chrono::milliseconds> ParseDuration(const std::string& text) {
    if (text.empty()) {
        return std::nullopt;
    }
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    const std::string unit(end);
    double millis = 0;
    if (unit.empty() || unit == "s") {
        millis = value * 1000;
    } else if (unit == "ms") {
        millis = value;
    } else if (unit == "m") {
        millis = value * 60000;
    } else {
        return std::nullopt;
    }
    if (end == text.c_str() || !std::isfinite(millis) || millis < 0 || millis > 86400000) {
        return std::nullopt;
    }
    return std::chrono::milliseconds(std::llround(millis));
}

CommandOption ForOption(const std::string& command, std::optional<std::chrono::milliseconds>* limit) {
    return {"for", "DURATION", [command, limit](const std::string& value) {
                *limit = ParseDuration(value);
                if (!*limit) {
                    UsageError(command, "bad duration '" + value + "' (for example 500ms, 10s or 2m; at most a day)");
                }
                return limit->has_value();
            }};
}

}  // namespace tivra_cli
