// Round trips between separate processes, all measured in one run:
//   a) a raw Unix stream socket ping-pong, of 64-byte and of 100 KiB messages;
//   b) the 64 bytes through a minimal single-threaded epoll relay process;
//   c) a two-way Binder transaction, 64 bytes each way;
//   d) one-way Binder transactions to one node, counted by the receiver;
//   e) a two-way Binder transaction of 100 KiB each way.
// c, d and e come twice: "_relayed", every call of this process through
// binderd (setDirectCalls(false)), and "_direct", calls without binder
// objects straight to the service over a direct channel; this process picks
// the path, the service is the same. Their counter binderd_cpu_us_per_call is
// binderd's CPU time per call (in 10 ms steps), which shows the path taken.
// Then c, d and e while a watcher reads binderd's traffic report (rows ending
// in "_watched", counting the records it read and lost; a watcher puts every
// call on the relayed path), and binderd's resident memory before and after
// 1,000,000 transactions on the process's default path (direct unless
// HOSTBINDER_DIRECT=0), where binderd relays only what cannot go direct.
// The bench starts its own binderd on a private socket and every helper
// process itself. Pinned figures: `taskset -c 0 ipc_bench`; every helper
// inherits the affinity, the context line "allowed_cpus" shows it.
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include "bench_service.h"
#include "binderd_fixture.h"
#include "epoll_relay.h"
#include "process_cpu.h"
#include "protocol/Protocol.h"
#include "resident_memory.h"
#include "stream_echo.h"
#include "traffic_watcher.h"

namespace {

using namespace android;
using tivra_bench::BenchService;
using tivra_test::BinderdSession;

constexpr size_t kMessageBytes = 64;
constexpr size_t kLargeBytes = 100 * 1024;
// A batch may be sent faster than the receiver takes it in, so all of it must
// fit into the receiver's one-way buffer, where each call is charged its data
// (rounded to 8 bytes) plus bookkeeping: 2,000 calls of 64 bytes take 320,000
// of its 520,192 bytes, leaving room for the few calls of the previous batch
// that the receiver counted but has not finished yet.
constexpr int kOnewayBatch = 2000;
static_assert(kOnewayBatch * hostbinder::onewayCharge(kMessageBytes, 0) <= hostbinder::kMaxQueuedOnewayBytes * 2 / 3,
              "a one-way batch could be refused while the receiver is slow");
constexpr int64_t kMemoryTransactions = 1000000;
const String16 kServiceName("tivra.bench.service");

using Body = std::function<void(benchmark::State&)>;

struct SocketPair {
    int parentEnd = -1;
    int childEnd = -1;
};

SocketPair socketPair() {
    int fds[2] = {-1, -1};
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
    return {fds[0], fds[1]};
}

// Returns the client end of a socket whose other end an echo process serves
// with messages of `bytes`.
int startEcho(BinderdSession& session, size_t bytes) {
    const SocketPair pair = socketPair();
    session.spawn([pair, bytes] {
        close(pair.parentEnd);
        tivra_bench::echoUntilClosed(pair.childEnd, bytes);
        return 0;
    });
    close(pair.childEnd);
    return pair.parentEnd;
}

// Returns the client end of client -> relay -> echo server -> relay -> client.
int startRelayedEcho(BinderdSession& session) {
    const SocketPair client = socketPair();
    const SocketPair server = socketPair();
    session.spawn([client, server] {
        close(client.parentEnd);
        close(client.childEnd);
        close(server.parentEnd);
        tivra_bench::echoUntilClosed(server.childEnd, kMessageBytes);
        return 0;
    });
    session.spawn([client, server] {
        close(client.parentEnd);
        close(server.childEnd);
        tivra_bench::relayUntilClosed(client.childEnd, server.parentEnd);
        return 0;
    });
    close(client.childEnd);
    close(server.parentEnd);
    close(server.childEnd);
    return client.parentEnd;
}

// Starts the service process and looks it up. This is this process's first
// use of Binder, so it must come after every fork.
sp<IBinder> startBinderService(BinderdSession& session) {
    tivra_test::Channel ready;
    session.spawn([&ready] {
        sp<BenchService> service = new BenchService();
        ProcessState::self()->startThreadPool();
        if (defaultServiceManager()->addService(kServiceName, service) != OK) {
            return 1;
        }
        ready.post("ready");
        IPCThreadState::self()->joinThreadPool();
        return 0;
    });
    return ready.next() == "ready" ? defaultServiceManager()->checkService(kServiceName) : nullptr;
}

// What the Binder rows talk to.
struct BinderTarget {
    sp<IBinder> service;
    pid_t binderd = -1;
};

void writePayload(Parcel* parcel, size_t bytes) {
    const std::vector<uint8_t> payload(bytes, 0x5a);
    parcel->write(payload.data(), payload.size());
}

bool echoed(const sp<IBinder>& service, const Parcel& request) {
    Parcel reply;
    return service->transact(BenchService::kEcho, request, &reply) == OK && reply.dataSize() == request.dataSize();
}

bool sentOneway(const sp<IBinder>& service, const Parcel& request) {
    return service->transact(BenchService::kCount, request, nullptr, IBinder::FLAG_ONEWAY) == OK;
}

// The receiver's count of one-way calls once it reached `target` (or, after
// its bounded wait, whatever it is).
int64_t awaitCount(const sp<IBinder>& service, int64_t target) {
    Parcel data;
    data.writeInt64(target);
    Parcel reply;
    return service->transact(BenchService::kAwaitCount, data, &reply) == OK ? reply.readInt64() : -1;
}

// binderd's CPU time over one run of a benchmark, per call made in it.
class BinderdCpu {
public:
    explicit BinderdCpu(pid_t binderd) : mBinderd(binderd), mStart(tivra_bench::cpuMicroseconds(binderd)) {}

    void report(benchmark::State& state, int64_t calls) const {
        const double end = tivra_bench::cpuMicroseconds(mBinderd);
        if (mStart >= 0 && end >= 0 && calls > 0) {
            state.counters["binderd_cpu_us_per_call"] = (end - mStart) / static_cast<double>(calls);
        }
    }

private:
    pid_t mBinderd;
    double mStart;
};

void socketRoundTrips(benchmark::State& state, int fd, size_t bytes) {
    std::vector<char> message(bytes);
    for (auto _ : state) {
        if (!tivra_bench::exchange(fd, message.data(), message.size())) {
            state.SkipWithError("the echo process is gone");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(2 * bytes));
}

void binderRoundTrips(benchmark::State& state, const BinderTarget& target, size_t bytes) {
    Parcel request;
    writePayload(&request, bytes);
    const BinderdCpu binderdCpu(target.binderd);
    for (auto _ : state) {
        if (!echoed(target.service, request)) {
            state.SkipWithError("echo failed");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(2 * bytes));
    binderdCpu.report(state, state.iterations());
}

// Each iteration is a batch, timed from its first send until the receiver
// has counted its last call.
void onewayThroughput(benchmark::State& state, const BinderTarget& target) {
    Parcel request;
    writePayload(&request, kMessageBytes);
    int64_t sent = awaitCount(target.service, 0);
    const BinderdCpu binderdCpu(target.binderd);
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        bool accepted = true;
        for (int i = 0; i < kOnewayBatch && accepted; ++i) {
            accepted = sentOneway(target.service, request);
        }
        sent += kOnewayBatch;
        if (!accepted || awaitCount(target.service, sent) != sent) {
            state.SkipWithError("one-way calls refused or lost");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    state.counters["oneway_per_second"] =
        benchmark::Counter(static_cast<double>(state.iterations() * kOnewayBatch), benchmark::Counter::kIsRate);
    binderdCpu.report(state, state.iterations() * kOnewayBatch);
}

// Alternates two-way and one-way calls; every thousand calls it lets the
// receiver catch up so that the one-way queue stays short.
class MixedTraffic {
public:
    explicit MixedTraffic(sp<IBinder> service)
        : mService(std::move(service)), mOneways(awaitCount(mService, 0)) {
        writePayload(&mRequest, kMessageBytes);
    }

    bool step() {
        ++mSteps;
        if (mSteps % 2 == 0) {
            return echoed(mService, mRequest);
        }
        if (!sentOneway(mService, mRequest)) {
            return false;
        }
        ++mOneways;
        return mSteps % 1000 != 999 || awaitCount(mService, mOneways) == mOneways;
    }

private:
    sp<IBinder> mService;
    Parcel mRequest;
    int64_t mOneways;
    int64_t mSteps = 0;
};

void binderdMemory(benchmark::State& state, const BinderTarget& target) {
    MixedTraffic traffic(target.service);
    // Warm up first: binderd's buffers reach their working size.
    for (int i = 0; i < 20000; ++i) {
        if (!traffic.step()) {
            state.SkipWithError("warm-up failed");
            return;
        }
    }
    const long before = tivra_bench::residentKibibytes(target.binderd);
    for (auto _ : state) {
        if (!traffic.step()) {
            state.SkipWithError("transaction failed");
            break;
        }
    }
    const long after = tivra_bench::residentKibibytes(target.binderd);
    state.counters["binderd_rss_before_KiB"] = static_cast<double>(before);
    state.counters["binderd_rss_after_KiB"] = static_cast<double>(after);
    state.counters["binderd_rss_growth_KiB"] = static_cast<double>(after - before);
}

// Runs a benchmark with this process's calls on one path, then gives the
// process its default back. Only the caller decides: the service is the same.
Body onPath(bool direct, bool processDefault, Body body) {
    return [direct, processDefault, body](benchmark::State& state) {
        ProcessState::self()->setDirectCalls(direct);
        body(state);
        ProcessState::self()->setDirectCalls(processDefault);
    };
}

// Runs a benchmark while a watcher reads binderd's report of the traffic.
Body watched(const std::string& socketPath, Body body) {
    return [socketPath, body](benchmark::State& state) {
        tivra_bench::TrafficWatcher watcher(socketPath);
        if (!watcher.attached()) {
            state.SkipWithError("binderd took no watcher");
            return;
        }
        body(state);
        watcher.stop();
        state.counters["watcher_records"] = static_cast<double>(watcher.records());
        state.counters["watcher_lost"] = static_cast<double>(watcher.lost());
    };
}

// Warm-up, then five repetitions reported as mean, median and spread. Wall
// time, not this process's CPU time: the work happens in other processes.
benchmark::internal::Benchmark* repeated(benchmark::internal::Benchmark* benchmark) {
    return benchmark->MinWarmUpTime(0.2)
        ->Repetitions(5)
        ->ReportAggregatesOnly(true)
        ->Unit(benchmark::kMicrosecond);
}

int allowedCpus() {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    return sched_getaffinity(0, sizeof(cpus), &cpus) == 0 ? CPU_COUNT(&cpus) : -1;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    BinderdSession session;
    if (!session.started()) {
        std::fprintf(stderr, "ipc_bench: %s\n", session.error().c_str());
        return 1;
    }
    const int echoFd = startEcho(session, kMessageBytes);
    const int largeEchoFd = startEcho(session, kLargeBytes);
    const int relayFd = startRelayedEcho(session);
    const BinderTarget target{startBinderService(session), session.binderdPid()};
    if (target.service == nullptr) {
        std::fprintf(stderr, "ipc_bench: the Binder service did not come up\n");
        return 1;
    }
    // Direct unless HOSTBINDER_DIRECT=0; the "_relayed" and "_direct" rows
    // set their path themselves, the others run on this one.
    const bool processDefault = ProcessState::self()->directCallsAllowed();
    benchmark::AddCustomContext("allowed_cpus", std::to_string(allowedCpus()));
    benchmark::AddCustomContext("default_path", processDefault ? "direct" : "relayed");
    const std::string socket = session.socketPath();

    repeated(benchmark::RegisterBenchmark("a_socket_pingpong_64B", socketRoundTrips, echoFd, kMessageBytes))
        ->UseRealTime();
    repeated(benchmark::RegisterBenchmark("a_socket_pingpong_100KiB", socketRoundTrips, largeEchoFd, kLargeBytes))
        ->UseRealTime();
    repeated(benchmark::RegisterBenchmark("b_epoll_relay_64B", socketRoundTrips, relayFd, kMessageBytes))
        ->UseRealTime();

    const Body twoWay = [target](benchmark::State& state) { binderRoundTrips(state, target, kMessageBytes); };
    const Body oneWay = [target](benchmark::State& state) { onewayThroughput(state, target); };
    const Body large = [target](benchmark::State& state) { binderRoundTrips(state, target, kLargeBytes); };
    const struct {
        const char* name;
        Body body;
        bool manualTime;
    } binderRows[] = {
        {"c_binder_two_way_64B", twoWay, false},
        {"d_binder_one_way_64B", oneWay, true},
        {"e_binder_two_way_100KiB", large, false},
    };
    const auto timed = [](benchmark::internal::Benchmark* benchmark, bool manualTime) {
        manualTime ? benchmark->UseManualTime() : benchmark->UseRealTime();
    };
    for (const auto& row : binderRows) {
        for (const bool direct : {false, true}) {
            const std::string name = std::string(row.name) + (direct ? "_direct" : "_relayed");
            timed(repeated(benchmark::RegisterBenchmark(name.c_str(), onPath(direct, processDefault, row.body))),
                  row.manualTime);
        }
    }
    for (const auto& row : binderRows) {
        const std::string name = std::string(row.name) + "_watched";
        timed(repeated(benchmark::RegisterBenchmark(name.c_str(), watched(socket, row.body))), row.manualTime);
    }
    benchmark::RegisterBenchmark("binderd_memory_1M_transactions", binderdMemory, target)
        ->Iterations(kMemoryTransactions)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);

    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    close(echoFd);
    close(largeEchoFd);
    close(relayFd);
    return 0;
}
