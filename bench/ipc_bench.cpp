// Round trips between separate processes, all measured in one run:
//   a) a raw Unix stream socket ping-pong, of 64-byte and of 100 KiB messages;
//   b) the 64 bytes through a minimal single-threaded epoll relay process;
//   c) a two-way Binder transaction, 64 bytes each way;
//   d) one-way Binder transactions to one node, counted by the receiver;
//   e) a two-way Binder transaction of 100 KiB each way;
//   f) a one-way call over the channel, then one carrying a binder, which
//      binderd holds until the receiver ran the first (direct path only).
// c, d and e come twice: "_relayed", every call of this process through
// binderd (setDirectCalls(false)), and "_direct", calls without binder
// objects straight to the service over a direct channel; this process picks
// the path, the service is the same. Their counter binderd_cpu_us_per_call is
// binderd's CPU time per call (in 10 ms steps), which shows the path taken.
// Then c, d and e while a watcher reads binderd's traffic report (rows ending
// in "_watched", counting the records it read and lost; a watcher puts every
// call on the relayed path), and binderd's resident memory before and after
// 1,000,000 transactions on the process's default path (direct unless
// HOSTBINDER_DIRECT=0; the context line "default_path" says which), where
// binderd relays only what cannot go direct.
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
#include <utility>
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
// fit into the receiver's one-way buffer (kMaxQueuedOnewayBytes, 520,192
// bytes), where each call is charged its data rounded up to 8 bytes plus a
// fixed overhead (bufferCharge: 336 bytes in all for 64 bytes): 1,000 calls
// take 336,000 bytes, leaving room for the few calls of the previous batch
// that the receiver counted but has not finished yet.
constexpr int kOnewayBatch = 1000;
static_assert(kOnewayBatch * hostbinder::bufferCharge(kMessageBytes, 0, true) <=
                  hostbinder::kMaxQueuedOnewayBytes * 2 / 3,
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

// A call's status as the Binder headers name it, and its number.
std::string statusText(status_t status) {
    static const std::pair<status_t, const char*> kNames[] = {
        {DEAD_OBJECT, "DEAD_OBJECT"},         {FAILED_TRANSACTION, "FAILED_TRANSACTION"},
        {TIMED_OUT, "TIMED_OUT"},             {UNKNOWN_TRANSACTION, "UNKNOWN_TRANSACTION"},
        {BAD_VALUE, "BAD_VALUE"},             {NO_MEMORY, "NO_MEMORY"},
        {PERMISSION_DENIED, "PERMISSION_DENIED"}, {INVALID_OPERATION, "INVALID_OPERATION"},
        {WOULD_BLOCK, "WOULD_BLOCK"},         {UNKNOWN_ERROR, "UNKNOWN_ERROR"},
    };
    for (const auto& [value, name] : kNames) {
        if (value == status) {
            return std::string(name) + " (" + std::to_string(status) + ")";
        }
    }
    return "status " + std::to_string(status);
}

// The Binder calls of the rows; each returns "" or what went wrong.
std::string echo(const sp<IBinder>& service, const Parcel& request) {
    Parcel reply;
    const status_t status = service->transact(BenchService::kEcho, request, &reply);
    if (status != OK) {
        return "two-way call failed: " + statusText(status);
    }
    if (reply.dataSize() != request.dataSize()) {
        return "a reply of " + std::to_string(reply.dataSize()) + " bytes to a request of " +
               std::to_string(request.dataSize());
    }
    return "";
}

std::string sendOneway(const sp<IBinder>& service, const Parcel& request) {
    const status_t status = service->transact(BenchService::kCount, request, nullptr, IBinder::FLAG_ONEWAY);
    return status == OK ? "" : "one-way call failed: " + statusText(status);
}

// Waits until the receiver has counted `target` one-way calls in all (it
// waits at most 10 s).
std::string awaitCount(const sp<IBinder>& service, int64_t target) {
    Parcel data;
    data.writeInt64(target);
    Parcel reply;
    const status_t status = service->transact(BenchService::kAwaitCount, data, &reply);
    if (status != OK) {
        return "counting call failed: " + statusText(status);
    }
    const int64_t counted = reply.readInt64();
    return counted == target ? "" : "the receiver counted " + std::to_string(counted) + " one-way calls of " +
                                        std::to_string(target) + " sent";
}

// The receiver's count of one-way calls so far, or -1.
int64_t oneways(const sp<IBinder>& service) {
    Parcel data;
    data.writeInt64(0);
    Parcel reply;
    return service->transact(BenchService::kAwaitCount, data, &reply) == OK ? reply.readInt64() : -1;
}

// The row running now, for fail().
std::string gRow;

// Ends a row's run with an error. The error also goes to stderr: the
// aggregates hide a failed repetition, and libbenchmark 1.7.1 crashes
// computing them when the first repetition failed.
void fail(benchmark::State& state, const std::string& why) {
    std::fprintf(stderr, "ipc_bench: %s failed: %s\n", gRow.c_str(), why.c_str());
    state.SkipWithError(why.c_str());
}

Body named(const std::string& name, Body body) {
    return [name, body](benchmark::State& state) {
        gRow = name;
        body(state);
    };
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
            fail(state, "the echo process is gone");
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
        const std::string error = echo(target.service, request);
        if (!error.empty()) {
            fail(state, error);
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
    int64_t sent = oneways(target.service);
    const BinderdCpu binderdCpu(target.binderd);
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        std::string error;
        for (int i = 0; i < kOnewayBatch && error.empty(); ++i) {
            error = sendOneway(target.service, request);
            if (!error.empty()) {
                error = "call " + std::to_string(i + 1) + " of a batch: " + error;
            }
        }
        sent += kOnewayBatch;
        if (error.empty()) {
            error = awaitCount(target.service, sent);
        }
        if (!error.empty()) {
            fail(state, error);
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    state.counters["oneway_per_second"] =
        benchmark::Counter(static_cast<double>(state.iterations() * kOnewayBatch), benchmark::Counter::kIsRate);
    binderdCpu.report(state, state.iterations() * kOnewayBatch);
}

// A one-way call on the channel, then one carrying a binder, which goes
// through binderd and waits there until the receiver ran the first; timed
// until the receiver counted both.
void onewayBehindDirect(benchmark::State& state, const BinderTarget& target) {
    Parcel plain;
    writePayload(&plain, kMessageBytes);
    Parcel carrying;
    writePayload(&carrying, kMessageBytes);
    carrying.writeStrongBinder(sp<IBinder>(new BBinder()));
    int64_t sent = oneways(target.service);
    const BinderdCpu binderdCpu(target.binderd);
    for (auto _ : state) {
        std::string error = sendOneway(target.service, plain);
        if (error.empty()) {
            error = sendOneway(target.service, carrying);
        }
        sent += 2;
        if (error.empty()) {
            error = awaitCount(target.service, sent);
        }
        if (!error.empty()) {
            fail(state, error);
            break;
        }
    }
    binderdCpu.report(state, state.iterations() * 2);
}

// Alternates two-way and one-way calls; every thousand calls it lets the
// receiver catch up so that the one-way queue stays short.
class MixedTraffic {
public:
    explicit MixedTraffic(sp<IBinder> service) : mService(std::move(service)), mOneways(oneways(mService)) {
        writePayload(&mRequest, kMessageBytes);
    }

    // "" or what went wrong.
    std::string step() {
        ++mSteps;
        if (mSteps % 2 == 0) {
            return echo(mService, mRequest);
        }
        std::string error = sendOneway(mService, mRequest);
        if (!error.empty()) {
            return error;
        }
        ++mOneways;
        return mSteps % 1000 != 999 ? "" : awaitCount(mService, mOneways);
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
        const std::string error = traffic.step();
        if (!error.empty()) {
            fail(state, "warm-up: " + error);
            return;
        }
    }
    const long before = tivra_bench::residentKibibytes(target.binderd);
    for (auto _ : state) {
        const std::string error = traffic.step();
        if (!error.empty()) {
            fail(state, error);
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
            fail(state, "binderd took no watcher");
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

    const auto add = [](const std::string& name, const Body& body) {
        return benchmark::RegisterBenchmark(name.c_str(), named(name, body));
    };
    const auto socketRow = [](int fd, size_t bytes) {
        return [fd, bytes](benchmark::State& state) { socketRoundTrips(state, fd, bytes); };
    };
    repeated(add("a_socket_pingpong_64B", socketRow(echoFd, kMessageBytes)))->UseRealTime();
    repeated(add("a_socket_pingpong_100KiB", socketRow(largeEchoFd, kLargeBytes)))->UseRealTime();
    repeated(add("b_epoll_relay_64B", socketRow(relayFd, kMessageBytes)))->UseRealTime();

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
            timed(repeated(add(name, onPath(direct, processDefault, row.body))), row.manualTime);
        }
    }
    const Body behindDirect = [target](benchmark::State& state) { onewayBehindDirect(state, target); };
    repeated(add("f_binder_one_way_behind_direct", onPath(true, processDefault, behindDirect)))->UseRealTime();
    for (const auto& row : binderRows) {
        const std::string name = std::string(row.name) + "_watched";
        timed(repeated(add(name, watched(socket, row.body))), row.manualTime);
    }
    add("binderd_memory_1M_transactions", [target](benchmark::State& state) { binderdMemory(state, target); })
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
