#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "event_broadcaster.h"
#include "scenario.h"

namespace tivra_monitord {

// Plays a scenario's timeline on its own thread: each event at its offset
// from Start(). Stop() (or destruction) ends it early.
class TimelinePlayer {
public:
    TimelinePlayer(std::vector<TimelineEvent> timeline, EventBroadcaster& broadcaster, bool verbose);
    ~TimelinePlayer();
    TimelinePlayer(const TimelinePlayer&) = delete;
    TimelinePlayer& operator=(const TimelinePlayer&) = delete;

    void Start();
    void Stop();

private:
    void Run(std::chrono::steady_clock::time_point start);

    const std::vector<TimelineEvent> timeline_;
    EventBroadcaster& broadcaster_;
    const bool verbose_;
    std::mutex mutex_;
    std::condition_variable stopped_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace tivra_monitord
