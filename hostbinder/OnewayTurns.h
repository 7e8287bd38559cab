#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>

namespace android {

class BBinder;

// One-way calls of one object run one at a time, in the order they arrived,
// whichever way they came (through binderd or over a direct channel). A call
// that finds its object busy either waits for its turn in the calling thread
// (a pool thread holding a call binderd delivered), or is left in line to be
// run by the thread that frees the object (a channel's call, so that the
// channel's later calls are not held up behind it).
class OnewayTurns {
public:
    void runOrWait(BBinder* object, const std::function<void()>& call);
    void runOrLeave(BBinder* object, std::function<void()> call);

private:
    struct Entry {
        std::function<void()> call;    // left in line, or
        bool* turn = nullptr;          // a thread waiting for its turn
    };
    struct Line {
        std::deque<Entry> waiting;
    };

    // Runs the calls left in line after the one just finished, until the
    // object is free or it is a waiting thread's turn.
    void finish(BBinder* object);

    std::mutex mLock;
    std::condition_variable mTurnGiven;
    // An object is busy while it has a line.
    std::map<BBinder*, Line> mLines;
};

}  // namespace android
