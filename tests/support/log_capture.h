#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace tivra_test {

struct LogLine {
    int priority;
    std::string tag;
    std::string text;
};

// Installs a liblog logger that records every line written in this process
// while the object lives; the previous logger (stderr) is restored after.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> Lines() const;
    // Whether a line with exactly this priority, tag and text was logged.
    bool Contains(int priority, const std::string& text, const std::string& tag = "libtivra") const;
    size_t Count(const std::string& text) const;
    void Clear();
};

}  // namespace tivra_test
