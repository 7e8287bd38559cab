#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "binderd_fixture.h"

namespace tivra_test {

// What binderd did to an attacking process.
enum class Outcome {
    kCut,         // closed the attacker's connection(s)
    kRefused,     // answered with a refusal or failing status
    kAbsorbed,    // took everything without objection
    kUnanswered,  // left the attacker waiting
    kBroken,      // the attacker itself failed (crashed, timed out, could not set up)
};
const char* outcomeName(Outcome outcome);

struct AttackTarget {
    std::string socketPath;
    pid_t binderd = -1;
    // The service, of another process of the same uid, that the legitimate client calls.
    std::string victimName;
    pid_t victimPid = -1;
    // 1 runs each attack at the sizes it was first seen at; tests run small.
    double scale = 1;
};

struct Attacker;

// The attacks of a hostile local process on binderd, written with raw frames.
struct Attack {
    const char* name;
    Outcome expected;
    Outcome (*run)(Attacker& attacker);
};
const std::vector<Attack>& binderdAttacks();

// Runs the attack in a child process of the session and returns its outcome.
Outcome runAttack(BinderdSession& session, const Attack& attack, const AttackTarget& target,
                  std::chrono::milliseconds timeout);

// A well-behaved process of the same uid that keeps looking up the victim
// service and calling its echo, checking every answer.
class LegitimateClient {
public:
    struct Window {
        long calls = 0;
        long failures = 0;
        std::chrono::microseconds worst{0};
    };

    LegitimateClient(BinderdSession& session, const std::string& victimName);
    ~LegitimateClient();
    // What happened since the last report.
    Window report();

private:
    BinderdSession& mSession;
    Channel mCommands;
    Channel mReports;
    pid_t mPid = -1;
};

}  // namespace tivra_test
