// The public log settings over the platform log: the priority floor is the
// platform log's own, and a sink is reached through one logger function that
// forwards to whatever sink is installed at the time of the line.
#include "tivra/tivra_log.h"

#include <android/log.h>

#include <atomic>
#include <memory>
#include <utility>

namespace Communication {
namespace {

// The one sink of the process, replaced whole so that a line being written
// keeps the sink it started with. Never destroyed: Binder threads may still
// log while the process exits.
std::shared_ptr<const TivraLogSink>& InstalledSink() {
    static auto* const sink = new std::shared_ptr<const TivraLogSink>();
    return *sink;
}

void PlatformDestination(const struct __android_logger_data* data, const char* message) {
#ifdef __ANDROID__
    __android_log_logd_logger(data, message);
#else
    __android_log_stderr_logger(data, message);
#endif
}

void ForwardToSink(const struct __android_logger_data* data, const char* message) {
    const std::shared_ptr<const TivraLogSink> sink = std::atomic_load(&InstalledSink());
    if (sink == nullptr) {
        PlatformDestination(data, message);
        return;
    }
    (*sink)(static_cast<TivraLogPriority>(data->priority), data->tag != nullptr ? data->tag : "",
            message != nullptr ? message : "");
}

}  // namespace

void SetTivraLogMinPriority(TivraLogPriority priority) { __android_log_set_minimum_priority(priority); }

void SetTivraLogSink(TivraLogSink sink) {
    if (!sink) {
        std::atomic_store(&InstalledSink(), std::shared_ptr<const TivraLogSink>());
        __android_log_set_logger(PlatformDestination);
        return;
    }
    std::atomic_store(&InstalledSink(), std::make_shared<const TivraLogSink>(std::move(sink)));
    __android_log_set_logger(ForwardToSink);
}

}  // namespace Communication
