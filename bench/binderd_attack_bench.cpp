// binderd under the attacks of a hostile local process, at the sizes they
// were first seen at, while a legitimate process of the same uid keeps
// looking up and calling an echo service. Per attack: binderd's resident
// memory before, at its peak and once the attacker has gone, binderd's CPU
// time, the legitimate client's worst call and failures, and whether binderd
// survived. Also binderd's memory per idle client process. Measured, never
// asserted: `binderd_attack_bench`.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include <benchmark/benchmark.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include "binderd_attacks.h"
#include "binderd_fixture.h"
#include "hostbinder_test_service.h"
#include "resident_memory.h"

namespace {

using namespace tivra_test;
using namespace std::chrono_literals;

const std::string kVictimName = "tivra.bench.victim";
constexpr int kIdleClients = 100;

// The state field of /proc/PID/stat: a dead binderd is gone or a zombie.
bool alive(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const auto close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'Z';
}

// User plus system CPU seconds of a process.
double cpuSeconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    std::istringstream fields(line.substr(line.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int index = 3; fields >> field && index <= 15; ++index) {
        if (index >= 14) {
            ticks += std::stod(field);
        }
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double mebibytes(long kibibytes) { return static_cast<double>(kibibytes) / 1024.0; }

// A fresh binderd for every measurement, with the victim service and the
// legitimate client.
class Stage {
public:
    bool restart() {
        mClient.reset();
        if (mService > 0) {
            kill(mService, SIGKILL);
            mSession.waitExit(mService);
            mService = -1;
        }
        if (mSession.started() && alive(mSession.binderdPid())) {
            mSession.stopBinderd();
        }
        if (!mSession.startBinderd()) {
            return false;
        }
        Channel ready;
        mService = spawnTestService(mSession, ready, android::String16(kVictimName.c_str()));
        if (ready.next() != "ready") {
            return false;
        }
        mClient = std::make_unique<LegitimateClient>(mSession, kVictimName);
        return true;
    }

    BinderdSession& session() { return mSession; }
    LegitimateClient& client() { return *mClient; }

private:
    BinderdSession mSession;
    pid_t mService = -1;
    std::unique_ptr<LegitimateClient> mClient;
};

Stage* gStage = nullptr;

void attackBenchmark(benchmark::State& state, const Attack* attack) {
    for (auto _ : state) {
        if (!gStage->restart()) {
            state.SkipWithError("binderd or the victim service did not come up");
            return;
        }
        BinderdSession& session = gStage->session();
        const pid_t binderd = session.binderdPid();
        gStage->client().report();
        const long before = tivra_bench::residentKibibytes(binderd);
        const double cpuBefore = cpuSeconds(binderd);
        std::atomic<long> peak{before};
        std::atomic<bool> attacking{true};
        std::thread sampler([&] {
            while (attacking) {
                peak = std::max(peak.load(), tivra_bench::residentKibibytes(binderd));
                std::this_thread::sleep_for(10ms);
            }
        });
        const AttackTarget target{session.socketPath(), binderd, 1.0};
        const Outcome outcome = runAttack(session, *attack, target, 300s);
        attacking = false;
        sampler.join();
        const double cpu = cpuSeconds(binderd) - cpuBefore;
        // Give binderd a moment to take in the attacker's departure.
        std::this_thread::sleep_for(1s);
        const long after = tivra_bench::residentKibibytes(binderd);
        const LegitimateClient::Window legit = gStage->client().report();
        const bool survived = alive(binderd);
        state.counters["rss_before_MiB"] = mebibytes(before);
        state.counters["rss_peak_MiB"] = mebibytes(peak);
        state.counters["rss_after_MiB"] = mebibytes(after);
        state.counters["cpu_s"] = cpu;
        state.counters["legit_calls"] = static_cast<double>(legit.calls);
        state.counters["legit_failures"] = static_cast<double>(legit.failures);
        state.counters["legit_worst_ms"] = static_cast<double>(legit.worst.count()) / 1000.0;
        state.counters["survived"] = survived ? 1 : 0;
        state.SetLabel(outcomeName(outcome));
    }
}

// Client processes that connected, looked a service up and started their
// thread pool, then idle: binderd's memory per such process.
void idleClients(benchmark::State& state) {
    for (auto _ : state) {
        if (!gStage->restart()) {
            state.SkipWithError("binderd did not come up");
            return;
        }
        BinderdSession& session = gStage->session();
        const long before = tivra_bench::residentKibibytes(session.binderdPid());
        Channel ready;
        Channel release;
        std::vector<pid_t> clients;
        for (int i = 0; i < kIdleClients; ++i) {
            clients.push_back(session.spawn([&] {
                android::ProcessState::self()->startThreadPool();
                const bool found =
                    android::defaultServiceManager()->checkService(android::String16(kVictimName.c_str())) != nullptr;
                ready.post(found ? "ready" : "failed");
                release.next(120s);
                return 0;
            }));
        }
        int up = 0;
        for (int i = 0; i < kIdleClients; ++i) {
            up += ready.next(30s) == "ready" ? 1 : 0;
        }
        std::this_thread::sleep_for(500ms);
        const long after = tivra_bench::residentKibibytes(session.binderdPid());
        for (pid_t client : clients) {
            kill(client, SIGKILL);
            session.waitExit(client);
        }
        state.counters["clients"] = up;
        state.counters["binderd_KiB_per_idle_client"] = static_cast<double>(after - before) / std::max(up, 1);
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    Stage stage;
    gStage = &stage;
    benchmark::RegisterBenchmark("idle_client_processes", idleClients)->Iterations(1)->Unit(benchmark::kMillisecond);
    for (const Attack& attack : binderdAttacks()) {
        benchmark::RegisterBenchmark(attack.name, attackBenchmark, &attack)
            ->Iterations(1)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
