#pragma once

// Where the log lines of libtivra go. The library writes each failure and
// notice as one line of the platform log with the tag "libtivra"; without a
// call here they go where the platform log sends them (stderr on a Linux
// host, the system log on a device) from priority INFO up. These settings are
// the process's: they also apply to every other user of the platform log in
// it. Only standard C++ types appear here.
//
//   #include <tivra/tivra_log.h>          link with: pkg-config --libs tivra

#include <cstdint>
#include <functional>
#include <string>

#pragma GCC visibility push(default)

namespace Communication {

// Priorities of log lines, with the platform log's numbers. The library
// itself writes TIVRA_LOG_ERROR (failures) and TIVRA_LOG_INFO (notices).
enum TivraLogPriority : int32_t {
    TIVRA_LOG_VERBOSE = 2,
    TIVRA_LOG_DEBUG = 3,
    TIVRA_LOG_INFO = 4,
    TIVRA_LOG_WARN = 5,
    TIVRA_LOG_ERROR = 6,
    TIVRA_LOG_FATAL = 7,
    TIVRA_LOG_SILENT = 8,  // as the lowest priority shown: show nothing
};

// Lines below `priority` are dropped before any sink sees them.
void SetTivraLogMinPriority(TivraLogPriority priority);

// Receives every line that is shown: its priority, its tag ("libtivra" for the
// library's own lines) and its text, without a newline. It may be called on
// any thread, also on several at once, so it must be thread-safe; it must not
// call SetTivraLogSink.
using TivraLogSink =
    std::function<void(TivraLogPriority priority, const std::string& tag, const std::string& message)>;

// Sends the lines to `sink` from now on; an empty sink gives them back to the
// platform log's own destination. A line being written while the sink is
// replaced may still reach the old one.
void SetTivraLogSink(TivraLogSink sink);

}  // namespace Communication

#pragma GCC visibility pop
