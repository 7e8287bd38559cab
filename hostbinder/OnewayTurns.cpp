#include "OnewayTurns.h"

namespace android {

void OnewayTurns::runOrWait(BBinder* object, const std::function<void()>& call) {
    {
        std::unique_lock<std::mutex> lock(mLock);
        auto [line, busy] = mLines.try_emplace(object);
        if (!busy) {
            bool turn = false;
            line->second.waiting.push_back({nullptr, &turn});
            mTurnGiven.wait(lock, [&] { return turn; });
        }
    }
    call();
    finish(object);
}

void OnewayTurns::runOrLeave(BBinder* object, std::function<void()> call) {
    {
        std::lock_guard<std::mutex> lock(mLock);
        auto [line, free] = mLines.try_emplace(object);
        if (!free) {
            line->second.waiting.push_back({std::move(call), nullptr});
            return;
        }
    }
    call();
    finish(object);
}

void OnewayTurns::finish(BBinder* object) {
    for (;;) {
        std::function<void()> next;
        {
            std::lock_guard<std::mutex> lock(mLock);
            auto line = mLines.find(object);
            if (line->second.waiting.empty()) {
                mLines.erase(line);
                return;
            }
            Entry entry = std::move(line->second.waiting.front());
            line->second.waiting.pop_front();
            if (entry.turn != nullptr) {
                *entry.turn = true;
                mTurnGiven.notify_all();
                return;
            }
            next = std::move(entry.call);
        }
        next();
    }
}

}  // namespace android
