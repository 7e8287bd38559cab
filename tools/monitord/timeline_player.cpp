#include "timeline_player.h"

#include <cstdio>

#include "scenario_json.h"

namespace tivra_monitord {

TimelinePlayer::TimelinePlayer(std::vector<TimelineEvent> timeline, EventBroadcaster& broadcaster, bool verbose)
    : timeline_(std::move(timeline)), broadcaster_(broadcaster), verbose_(verbose) {}

TimelinePlayer::~TimelinePlayer() { Stop(); }

void TimelinePlayer::Start() {
    thread_ = std::thread(&TimelinePlayer::Run, this, std::chrono::steady_clock::now());
}

void TimelinePlayer::Stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    stopped_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void TimelinePlayer::Run(std::chrono::steady_clock::time_point start) {
    for (const TimelineEvent& event : timeline_) {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            if (stopped_.wait_until(lock, start + event.at, [this] { return stopping_; })) {
                return;
            }
        }
        const EventBroadcaster::Outcome outcome = broadcaster_.Emit(event);
        if (outcome.error) {
            // The network was changed through the control interface meanwhile.
            std::fprintf(stderr, "tivra-monitord: skipped %s at %.3fs: %s\n", EventKindName(event.kind),
                         event.at.count() / 1000.0, outcome.error->c_str());
        } else if (verbose_) {
            std::fprintf(stderr, "tivra-monitord: %s at %.3fs told %zu listener(s)\n", EventKindName(event.kind),
                         event.at.count() / 1000.0, outcome.delivered);
        }
    }
}

}  // namespace tivra_monitord
