#pragma once

#include <sys/types.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <map>

#include "Decrease.h"

namespace android::binderd {

// What processes hold of a few kinds of resource, per process (a pid with its
// uid), per uid and in total, each kind within a bound at each level; and who
// gives way when a bound is reached.
//
// A process at its own bound hurts only itself: its take is refused. A take
// that would cross a shared bound (its uid's, or the total) is judged against
// the heaviest holder of that kind: within the uid, the process holding the
// most; for the total, the heaviest process of the uid holding the most. When
// that is the taker itself (ties included), the take is refused; otherwise
// that other process must give way (the ledger's owner cuts its connections
// or ends its sessions) and the take is judged again. So a shared bound never
// denies a process that holds little because others hold much.
template <size_t Kinds>
class Ledger {
public:
    using Amounts = std::array<size_t, Kinds>;
    struct Bounds {
        Amounts perProcess;
        Amounts perUid;
        Amounts total;
    };
    struct Holder {
        uid_t uid = 0;
        pid_t pid = 0;
        bool operator==(const Holder& other) const { return uid == other.uid && pid == other.pid; }
        bool operator!=(const Holder& other) const { return !(*this == other); }
    };
    enum class Verdict { kFits, kRefused, kGiveWay };
    struct Judgement {
        Verdict verdict = Verdict::kFits;
        Holder victim;  // for kGiveWay: the process that must give way
    };

    explicit Ledger(const Bounds& bounds) : mBounds(bounds) {}

    Judgement judge(const Holder& taker, size_t kind, size_t amount) const {
        const User* user = find(taker.uid);
        const Process* process = user == nullptr ? nullptr : find(*user, taker.pid);
        const size_t mine = process == nullptr ? 0 : process->held[kind];
        if (mine + amount > mBounds.perProcess[kind]) {
            return {Verdict::kRefused, {}};
        }
        const size_t ofUid = user == nullptr ? 0 : counted(*user, kind);
        if (ofUid + amount > mBounds.perUid[kind]) {
            return user == nullptr ? Judgement{Verdict::kRefused, {}} : heaviestOf(taker.uid, *user, &taker, kind, mine);
        }
        if (mTotal[kind] - mLeaving[kind] + amount > mBounds.total[kind]) {
            // The uid holding the most gives way; the taker's on a tie.
            const User* heaviest = user;
            uid_t heaviestUid = taker.uid;
            for (const auto& [uid, other] : mUsers) {
                if (uid != taker.uid && counted(other, kind) > (heaviest == nullptr ? 0 : counted(*heaviest, kind))) {
                    heaviest = &other;
                    heaviestUid = uid;
                }
            }
            if (heaviest == nullptr) {
                return {Verdict::kRefused, {}};
            }
            return heaviestOf(heaviestUid, *heaviest, heaviestUid == taker.uid ? &taker : nullptr, kind, mine);
        }
        return {Verdict::kFits, {}};
    }

    // Whether a reservation ahead of need fits: with no one giving way, and
    // leaving half of the uid's and of the total bound free, so that what
    // processes ask for when they need it always finds room.
    bool fitsAhead(const Holder& taker, size_t kind, size_t amount) const {
        const User* user = find(taker.uid);
        const size_t ofUid = user == nullptr ? 0 : counted(*user, kind);
        return judge(taker, kind, amount).verdict == Verdict::kFits && ofUid + amount <= mBounds.perUid[kind] / 2 &&
               mTotal[kind] - mLeaving[kind] + amount <= mBounds.total[kind] / 2;
    }

    void take(const Holder& holder, size_t kind, size_t amount) {
        User& user = mUsers[holder.uid];
        Process& process = user.processes[holder.pid];
        process.held[kind] += amount;
        user.held[kind] += amount;
        mTotal[kind] += amount;
        if (process.leaving) {
            user.leaving[kind] += amount;
            mLeaving[kind] += amount;
        }
    }

    void give(const Holder& holder, size_t kind, size_t amount) {
        auto user = mUsers.find(holder.uid);
        if (user == mUsers.end()) {
            return;
        }
        auto process = user->second.processes.find(holder.pid);
        if (process == user->second.processes.end()) {
            return;
        }
        amount = std::min(amount, process->second.held[kind]);
        decrease(process->second.held[kind], amount);
        decrease(user->second.held[kind], amount);
        decrease(mTotal[kind], amount);
        if (process->second.leaving) {
            decrease(user->second.leaving[kind], amount);
            decrease(mLeaving[kind], amount);
        }
        // A process holding nothing is forgotten, its giving way with it.
        if (process->second.held == Amounts{}) {
            user->second.processes.erase(process);
            if (user->second.processes.empty()) {
                mUsers.erase(user);
            }
        }
    }

    // The process's holdings are on their way back (its owner is cutting
    // it): they count no more when judging, and it is not chosen again.
    void giveWay(const Holder& holder) {
        auto user = mUsers.find(holder.uid);
        if (user == mUsers.end()) {
            return;
        }
        auto process = user->second.processes.find(holder.pid);
        if (process == user->second.processes.end() || process->second.leaving) {
            return;
        }
        process->second.leaving = true;
        for (size_t kind = 0; kind < Kinds; ++kind) {
            user->second.leaving[kind] += process->second.held[kind];
            mLeaving[kind] += process->second.held[kind];
        }
    }

    size_t held(const Holder& holder, size_t kind) const {
        const User* user = find(holder.uid);
        const Process* process = user == nullptr ? nullptr : find(*user, holder.pid);
        return process == nullptr ? 0 : process->held[kind];
    }
    size_t heldByUid(uid_t uid, size_t kind) const {
        const User* user = find(uid);
        return user == nullptr ? 0 : user->held[kind];
    }
    size_t total(size_t kind) const { return mTotal[kind]; }
    const Bounds& bounds() const { return mBounds; }

private:
    struct Process {
        Amounts held{};
        bool leaving = false;
    };
    struct User {
        Amounts held{};
        Amounts leaving{};  // held by its processes that are giving way
        std::map<pid_t, Process> processes;
    };

    const User* find(uid_t uid) const {
        auto it = mUsers.find(uid);
        return it == mUsers.end() ? nullptr : &it->second;
    }
    static const Process* find(const User& user, pid_t pid) {
        auto it = user.processes.find(pid);
        return it == user.processes.end() ? nullptr : &it->second;
    }

    static size_t counted(const User& user, size_t kind) { return user.held[kind] - user.leaving[kind]; }

    // Within the uid, the process holding the most that is not giving way,
    // the taker aside when it belongs to the uid; the taker (holding `mine`)
    // is refused when it holds as much or more.
    static Judgement heaviestOf(uid_t uid, const User& user, const Holder* taker, size_t kind, size_t mine) {
        const Process* heaviest = nullptr;
        pid_t heaviestPid = 0;
        for (const auto& [pid, process] : user.processes) {
            if (process.leaving || (taker != nullptr && pid == taker->pid)) {
                continue;
            }
            if (heaviest == nullptr || process.held[kind] > heaviest->held[kind]) {
                heaviest = &process;
                heaviestPid = pid;
            }
        }
        if (heaviest == nullptr || heaviest->held[kind] == 0 || (taker != nullptr && mine >= heaviest->held[kind])) {
            return {Verdict::kRefused, {}};
        }
        return {Verdict::kGiveWay, {uid, heaviestPid}};
    }

    const Bounds mBounds;
    std::map<uid_t, User> mUsers;
    Amounts mTotal{};
    Amounts mLeaving{};
};

}  // namespace android::binderd
