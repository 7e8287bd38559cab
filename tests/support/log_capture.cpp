#include "log_capture.h"

#include <android/log.h>

#include <algorithm>

namespace tivra_test {
namespace {

std::mutex gMutex;
std::vector<LogLine> gLines;

void CapturingLogger(const struct __android_logger_data* data, const char* message) {
    std::lock_guard<std::mutex> lock(gMutex);
    gLines.push_back({data->priority, data->tag ? data->tag : "", message ? message : ""});
}

}  // namespace

LogCapture::LogCapture() {
    Clear();
    __android_log_set_logger(CapturingLogger);
}

LogCapture::~LogCapture() { __android_log_set_logger(__android_log_stderr_logger); }

std::vector<LogLine> LogCapture::Lines() const {
    std::lock_guard<std::mutex> lock(gMutex);
    return gLines;
}

bool LogCapture::Contains(int priority, const std::string& text, const std::string& tag) const {
    const std::vector<LogLine> lines = Lines();
    return std::any_of(lines.begin(), lines.end(), [&](const LogLine& line) {
        return line.priority == priority && line.tag == tag && line.text == text;
    });
}

size_t LogCapture::Count(const std::string& text) const {
    const std::vector<LogLine> lines = Lines();
    return std::count_if(lines.begin(), lines.end(), [&](const LogLine& line) { return line.text == text; });
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(gMutex);
    gLines.clear();
}

}  // namespace tivra_test
