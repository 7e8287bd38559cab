#include "log_capture.h"

#include <android/log.h>

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
    for (const LogLine& line : Lines()) {
        if (line.priority == priority && line.tag == tag && line.text == text) {
            return true;
        }
    }
    return false;
}

size_t LogCapture::Count(const std::string& text) const {
    size_t count = 0;
    for (const LogLine& line : Lines()) {
        count += line.text == text ? 1 : 0;
    }
    return count;
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(gMutex);
    gLines.clear();
}

}  // namespace tivra_test
