#pragma once

#include <chrono>
#include <string>

namespace tivra_cli {

// When an event happened, as a person reads it (the local time of day,
// 17:07:01.123) and as a program does (RFC 3339 with the date, milliseconds
// and the UTC offset, 2025-11-23T17:07:01.123+01:00).
std::string TimeOfDay(std::chrono::system_clock::time_point when);
std::string Rfc3339(std::chrono::system_clock::time_point when);

}  // namespace tivra_cli
