#include "duration.h"

#include <cctype>
#include <cmath>
#include <cstdlib>

namespace tivra_cli {

std::optional<std::chrono::milliseconds> ParseDuration(const std::string& text) {
    // Digits, at most one point among them, then the unit.
    size_t end = 0;
    bool digits = false;
    bool point = false;
    for (; end < text.size(); ++end) {
        if (std::isdigit(static_cast<unsigned char>(text[end])) != 0) {
            digits = true;
        } else if (text[end] == '.' && !point) {
            point = true;
        } else {
            break;
        }
    }
    if (!digits) {
        return std::nullopt;
    }
    const double value = std::strtod(text.substr(0, end).c_str(), nullptr);
    const std::string unit = text.substr(end);
    double millis = 0;
    if (unit.empty() || unit == "s") {
        millis = value * 1000;
    } else if (unit == "ms") {
        millis = value;
    } else if (unit == "m") {
        millis = value * 60000;
    } else if (unit == "h") {
        millis = value * 3600000;
    } else {
        return std::nullopt;
    }
    if (!std::isfinite(millis) || millis > 86400000) {
        return std::nullopt;
    }
    return std::chrono::milliseconds(std::llround(millis));
}

CommandOption ForOption(const std::string& command, std::optional<std::chrono::milliseconds>* limit) {
    return {"for", "DURATION", [command, limit](const std::string& value) {
                *limit = ParseDuration(value);
                if (!*limit) {
                    UsageError(command, "bad duration '" + value +
                                            "' (a number with ms, s, m or h, such as 500ms, 10s, 2m or 1h; "
                                            "a bare number is seconds; at most a day)");
                }
                return limit->has_value();
            }};
}

}  // namespace tivra_cli
