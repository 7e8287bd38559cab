#include "event_time.h"

#include <cstdio>
#include <ctime>

namespace tivra_cli {
namespace {

struct LocalTime {
    std::tm fields{};
    int millis = 0;
};

LocalTime Local(std::chrono::system_clock::time_point when) {
    LocalTime local;
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    localtime_r(&seconds, &local.fields);
    const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count() % 1000;
    local.millis = static_cast<int>(millis < 0 ? millis + 1000 : millis);
    return local;
}

}  // namespace

std::string TimeOfDay(std::chrono::system_clock::time_point when) {
    const LocalTime local = Local(when);
    char text[32];
    std::snprintf(text, sizeof(text), "%02d:%02d:%02d.%03d", local.fields.tm_hour, local.fields.tm_min,
                  local.fields.tm_sec, local.millis);
    return text;
}

std::string Rfc3339(std::chrono::system_clock::time_point when) {
    const LocalTime local = Local(when);
    char date[32];
    std::strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", &local.fields);
    const long offset = local.fields.tm_gmtoff / 60;
    const long magnitude = offset < 0 ? -offset : offset;
    char text[64];
    std::snprintf(text, sizeof(text), "%s.%03d%c%02ld:%02ld", date, local.millis, offset < 0 ? '-' : '+',
                  magnitude / 60, magnitude % 60);
    return text;
}

}  // namespace tivra_cli
