// Event fan-out: one event emitted through tivra-monitord's control interface
// until every one of N listener processes heard it. Each listener is a child
// process that uses only libtivra's public interface: it registers a
// DeviceListener (AddDeviceChangeListener), and when OnDeviceInfoChanged
// fires it stores CLOCK_MONOTONIC nanoseconds into its own slot of a shared
// anonymous mapping. Per event the rows report, from the emit: the time until
// the last listener heard it (the row's time and emit_to_last_us), that time
// divided by N (per_listener_us), and the median and the largest latency of
// a single listener over all events of the run (median_us, max_us), plus the
// CPU time binderd and tivra-monitord spent per event (in 10 ms steps).
//
// Every row runs on its own set of processes: a private binderd, the real
// tivra-monitord and N listeners, all started with HOSTBINDER_DIRECT=0 in
// their environment for the "_relayed" rows (every call through binderd)
// and without it for the "_direct" rows (calls over direct channels). A set
// belongs to a driver process that this one forks: the driver starts binderd
// and tivra-monitord, forks the listeners before it touches Binder itself,
// then emits the events this process asks for. Only one set runs at a time.
// The listeners log only warnings and errors: at INFO each would write a line
// per event to stderr.
//
// N is 30 and 300 unless --listeners=N[,N...] says otherwise. Pinned figures:
// `taskset -c 0 fanout_bench`.
#include <fcntl.h>
#include <linux/futex.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "monitord_fixture.h"
#include "process_cpu.h"
#include "tivra/tivra_adapter.h"
#include "tivra/tivra_log.h"

namespace {

using namespace std::chrono_literals;

const std::vector<int> kDefaultListenerCounts = {30, 300};
// What the events change: a node of QuietScenario(), so that the same event
// can be emitted again and again.
const nlohmann::json kEvent = {{"event", "nodeInfoChanged"}, {"nodeId", "node-cam"}, {"kind", 1}};
// How long the driver waits for every listener to hear one event.
constexpr auto kEventTimeout = 10s;

int64_t monotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// What this process, its driver and the listeners share: a MAP_SHARED
// anonymous mapping made before any of them is forked, so lock-free atomics
// and futexes work across them.
struct BoardHeader {
    std::atomic<uint32_t> arrivals{0};  // callbacks so far, all events together; a futex word
    std::atomic<uint32_t> eventEnd{0};  // the number of arrivals that completes the current event
    std::atomic<uint32_t> registered{0};
    std::atomic<uint32_t> failed{0};
    std::atomic<int64_t> emittedNs{0};
};
static_assert(std::atomic<uint32_t>::is_always_lock_free && std::atomic<int64_t>::is_always_lock_free,
              "atomics shared between processes must not need a lock");
static_assert(sizeof(BoardHeader) % alignof(std::atomic<int64_t>) == 0);

class Board {
public:
    explicit Board(int listeners)
        : mBytes(sizeof(BoardHeader) + static_cast<size_t>(listeners) * sizeof(std::atomic<int64_t>)) {
        void* memory = mmap(nullptr, mBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            return;
        }
        mHeader = new (memory) BoardHeader();
        mSlots = reinterpret_cast<std::atomic<int64_t>*>(mHeader + 1);
        for (int i = 0; i < listeners; ++i) {
            new (&mSlots[i]) std::atomic<int64_t>(0);
        }
    }
    ~Board() {
        if (mHeader != nullptr) {
            munmap(mHeader, mBytes);
        }
    }
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    bool mapped() const { return mHeader != nullptr; }
    BoardHeader& header() const { return *mHeader; }
    std::atomic<int64_t>& slot(int listener) const { return mSlots[listener]; }

private:
    size_t mBytes;
    BoardHeader* mHeader = nullptr;
    std::atomic<int64_t>* mSlots = nullptr;
};

// Shared futexes (not FUTEX_PRIVATE): the word lives in a shared mapping.
void futexWakeAll(std::atomic<uint32_t>* word) {
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

void futexWait(std::atomic<uint32_t>* word, uint32_t seen, std::chrono::nanoseconds timeout) {
    const timespec relative{static_cast<time_t>(timeout.count() / 1000000000),
                            static_cast<long>(timeout.count() % 1000000000)};
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT, seen, &relative, nullptr, 0);
}

// Lines between this process and a driver: "emit" / "quit" one way;
// "folder <the session's folder>", "ready <binderd pid> <monitord pid>", "ok"
// or "error <why>" the other.
// A peer that is gone makes sendLine false, not a SIGPIPE.
bool sendLine(int fd, std::string line) {
    std::replace(line.begin(), line.end(), '\n', ' ');
    line += '\n';
    for (size_t sent = 0; sent < line.size();) {
        const ssize_t n = send(fd, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    return true;
}

// The next line, or "" at the end of the stream or after the timeout (a
// negative timeout waits for ever).
std::string receiveLine(int fd, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string line;
    for (;;) {
        int waitMs = -1;
        if (timeout.count() >= 0) {
            waitMs = static_cast<int>(std::max<int64_t>(
                0, std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count()));
        }
        pollfd readable{fd, POLLIN, 0};
        const int ready = poll(&readable, 1, waitMs);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        char byte = 0;
        if (ready <= 0 || read(fd, &byte, 1) != 1) {
            return "";
        }
        if (byte == '\n') {
            return line;
        }
        line += byte;
    }
}

std::string withoutWord(const std::string& line, const std::string& word) {
    return line.rfind(word, 0) == 0 ? line.substr(word.size()) : line;
}

// A listener process's listener: notes when it heard an event, and wakes the
// driver when it was the last to hear it.
class SlotListener : public Communication::DeviceListener {
public:
    SlotListener(const Board& board, int index) : mBoard(board), mIndex(index) {}

    void OnDeviceOnline(std::shared_ptr<Communication::NodeBasicInfo>) override {}
    void OnDeviceOffline(std::shared_ptr<Communication::NodeBasicInfo>) override {}
    void OnDeviceInfoChanged(std::string, Communication::DeviceInfoType) override {
        mBoard.slot(mIndex).store(monotonicNs());
        BoardHeader& header = mBoard.header();
        if (header.arrivals.fetch_add(1) + 1 >= header.eventEnd.load()) {
            futexWakeAll(&header.arrivals);
        }
    }

private:
    const Board& mBoard;
    const int mIndex;
};

// The body of listener process `index`: registers, then lets the Binder
// threads run until it is killed.
int runListener(const Board& board, int index, int commandFd) {
    close(commandFd);
    Communication::SetTivraLogMinPriority(Communication::TIVRA_LOG_WARN);
    const auto adapter = Communication::TivraAdapter::GetInstance();
    const auto listener = std::make_shared<SlotListener>(board, index);
    if (!adapter->AddDeviceChangeListener(listener)) {
        std::fprintf(stderr, "fanout_bench: listener %d could not register\n", index);
        board.header().failed.fetch_add(1);
        return 1;
    }
    board.header().registered.fetch_add(1);
    for (;;) {
        pause();
    }
}

// One event, from the emit until every listener heard it; "" or what failed.
std::string fanOutOnce(const tivra_control::MonitorControlClient& control, const Board& board, int listeners) {
    BoardHeader& header = board.header();
    const uint32_t start = header.arrivals.load();
    if (start != header.eventEnd.load()) {
        return "listeners heard " + std::to_string(start - header.eventEnd.load()) + " events more than were emitted";
    }
    const uint32_t end = start + static_cast<uint32_t>(listeners);
    header.eventEnd.store(end);
    const int64_t emitted = monotonicNs();
    header.emittedNs.store(emitted);
    const auto result = control.Emit(kEvent);
    if (!result.ok) {
        return "emit failed: " + result.error;
    }
    const int delivered = result.value.value("delivered", -1);
    if (delivered != listeners) {
        return "tivra-monitord told " + std::to_string(delivered) + " listeners, not " + std::to_string(listeners);
    }
    const auto deadline = std::chrono::steady_clock::now() + kEventTimeout;
    for (uint32_t seen = header.arrivals.load(); seen < end; seen = header.arrivals.load()) {
        const auto left = deadline - std::chrono::steady_clock::now();
        if (left <= 0s) {
            return std::to_string(seen - start) + " of " + std::to_string(listeners) +
                   " listeners heard the event within " + std::to_string(kEventTimeout.count()) + " s";
        }
        futexWait(&header.arrivals, seen, left);
    }
    for (int i = 0; i < listeners; ++i) {
        if (board.slot(i).load() < emitted) {
            return "listener " + std::to_string(i) + " did not hear the event, another heard it twice";
        }
    }
    return "";
}

// The driver process of one set: binderd, tivra-monitord and the listeners
// are its children, so they die with it (the listeners and binderd by their
// parent-death signal, all of them with its process group).
int runDriver(int commandFd, bool direct, int listeners, const Board& board) {
    if (direct) {
        unsetenv("HOSTBINDER_DIRECT");
    } else {
        setenv("HOSTBINDER_DIRECT", "0", 1);
    }
    tivra_test::MonitordSession session;
    sendLine(commandFd, "folder " + std::filesystem::path(session.binderd().socketPath()).parent_path().string());
    if (!session.StartService(tivra_test::QuietScenario())) {
        sendLine(commandFd, "error " + session.error());
        return 1;
    }
    for (int i = 0; i < listeners; ++i) {
        session.binderd().spawn([&board, i, commandFd] { return runListener(board, i, commandFd); });
    }
    const BoardHeader& header = board.header();
    const auto registrationTimeout = 30s + std::chrono::milliseconds(100) * listeners;
    if (!tivra_test::waitUntil(
            [&] { return header.registered.load() + header.failed.load() == static_cast<uint32_t>(listeners); },
            std::chrono::duration_cast<std::chrono::milliseconds>(registrationTimeout))) {
        sendLine(commandFd, "error only " + std::to_string(header.registered.load()) + " of " +
                                std::to_string(listeners) + " listeners registered in time");
        return 1;
    }
    if (header.failed.load() != 0) {
        sendLine(commandFd, "error " + std::to_string(header.failed.load()) + " listeners could not register");
        return 1;
    }
    // This process's first use of Binder, after every fork.
    const tivra_control::MonitorControlClient control = session.Control();
    const auto registeredThere = control.Listeners();
    if (!registeredThere.ok || registeredThere.value.value("device", -1) != listeners) {
        sendLine(commandFd, "error tivra-monitord does not count " + std::to_string(listeners) + " listeners: " +
                                (registeredThere.ok ? registeredThere.value.dump() : registeredThere.error));
        return 1;
    }
    // One event unmeasured: the paths to every listener exist afterwards.
    const std::string primed = fanOutOnce(control, board, listeners);
    if (!primed.empty()) {
        sendLine(commandFd, "error first event: " + primed);
        return 1;
    }
    sendLine(commandFd, "ready " + std::to_string(session.binderd().binderdPid()) + " " +
                            std::to_string(session.servicePid()));
    for (std::string command = receiveLine(commandFd, -1ms); command == "emit";
         command = receiveLine(commandFd, -1ms)) {
        const std::string failure = fanOutOnce(control, board, listeners);
        if (!sendLine(commandFd, failure.empty() ? "ok" : "error " + failure) || !failure.empty()) {
            return 1;
        }
    }
    // "quit", or this process is gone: the session ends everything, binderd
    // too, and this process's Binder threads need not say they lost it.
    Communication::SetTivraLogMinPriority(Communication::TIVRA_LOG_ERROR);
    return 0;
}

// The set's process group, for a signal that ends this process.
volatile sig_atomic_t gRunningGroup = 0;

const int kFatalSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGSEGV, SIGBUS, SIGFPE, SIGABRT};

void endSetAndDie(int signal) {
    if (gRunningGroup > 0) {
        kill(-gRunningGroup, SIGKILL);
    }
    std::signal(signal, SIG_DFL);
    raise(signal);
}

// One set of processes (see the top of the file) run by a driver process.
class ListenerSet {
public:
    ListenerSet(bool direct, int listeners) : mDirect(direct), mListeners(listeners), mBoard(listeners) {
        int command[2] = {-1, -1};
        int lifeline[2] = {-1, -1};
        if (!mBoard.mapped() || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, command) != 0 ||
            pipe2(lifeline, O_CLOEXEC) != 0) {
            mError = std::string("cannot set up: ") + std::strerror(errno);
            return;
        }
        std::fflush(stdout);
        std::fflush(stderr);
        const pid_t parent = getpid();
        mDriver = fork();
        if (mDriver == 0) {
            setpgid(0, 0);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) {
                _exit(1);
            }
            for (int signal : kFatalSignals) {
                std::signal(signal, SIG_DFL);
            }
            close(command[0]);
            close(lifeline[1]);
            // The watchdog: once this bench process is gone, however it
            // ended, it kills the whole group, tivra-monitord included
            // (which outlives a lost binderd, waiting for the next).
            if (fork() == 0) {
                close(command[1]);
                char byte;
                ssize_t n;
                do {
                    n = read(lifeline[0], &byte, 1);
                } while (n < 0 && errno == EINTR);
                kill(0, SIGKILL);
                _exit(1);
            }
            close(lifeline[0]);
            _exit(runDriver(command[1], direct, listeners, mBoard));
        }
        close(command[1]);
        close(lifeline[0]);
        mCommand = command[0];
        mLifeline = lifeline[1];
        if (mDriver < 0) {
            mError = std::string("fork failed: ") + std::strerror(errno);
            return;
        }
        setpgid(mDriver, mDriver);  // from both sides: the group exists whichever runs first
        gRunningGroup = mDriver;
        const auto timeout = std::chrono::duration_cast<std::chrono::milliseconds>(
            60s + std::chrono::milliseconds(200) * listeners);
        std::string answer = receiveLine(mCommand, timeout);
        if (answer.rfind("folder ", 0) == 0) {
            mFolder = withoutWord(answer, "folder ");
            answer = receiveLine(mCommand, timeout);
        }
        std::istringstream fields(answer);
        std::string word;
        fields >> word;
        if (word == "ready" && fields >> mBinderd >> mMonitord) {
            mReady = true;
        } else {
            mError = answer.empty() ? "the set did not come up in time" : withoutWord(answer, "error ");
        }
    }

    ~ListenerSet() {
        if (mDriver > 0) {
            sendLine(mCommand, "quit");
            // Observe the driver's end without reaping it, so that its group
            // id cannot be reused before the group is killed.
            tivra_test::waitUntil(
                [this] {
                    siginfo_t info{};
                    return waitid(P_PID, static_cast<id_t>(mDriver), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                           info.si_pid == mDriver;
                },
                30s);
            kill(-mDriver, SIGKILL);
            gRunningGroup = 0;
            while (waitpid(mDriver, nullptr, 0) < 0 && errno == EINTR) {
            }
        }
        // Gone already unless the driver was killed before it could clean up.
        if (mFolder.rfind("/tmp/hostbinder-test-", 0) == 0) {
            std::error_code ignored;
            std::filesystem::remove_all(mFolder, ignored);
        }
        close(mCommand);
        close(mLifeline);
    }

    ListenerSet(const ListenerSet&) = delete;
    ListenerSet& operator=(const ListenerSet&) = delete;

    bool matches(bool direct, int listeners) const { return mDirect == direct && mListeners == listeners; }
    bool ready() const { return mReady; }
    const std::string& error() const { return mError; }
    pid_t binderdPid() const { return mBinderd; }
    pid_t monitordPid() const { return mMonitord; }

    // One event through the driver; false with error() when it failed.
    bool fanOut() {
        const std::string answer =
            sendLine(mCommand, "emit") ? receiveLine(mCommand, kEventTimeout + 20s) : std::string();
        if (answer == "ok") {
            return true;
        }
        mError = answer.empty() ? "the driver process did not answer" : withoutWord(answer, "error ");
        return false;
    }

    // Nanoseconds from the last emit until `listener` heard it.
    int64_t latencyNs(int listener) const {
        return mBoard.slot(listener).load() - mBoard.header().emittedNs.load();
    }

private:
    const bool mDirect;
    const int mListeners;
    Board mBoard;
    pid_t mDriver = -1;
    int mCommand = -1;
    int mLifeline = -1;
    bool mReady = false;
    std::string mError;
    std::string mFolder;
    pid_t mBinderd = -1;
    pid_t mMonitord = -1;
};

std::string rowName(bool direct, int listeners) {
    return "fanout_" + std::to_string(listeners) + "_listeners" + (direct ? "_direct" : "_relayed");
}

// Ends a row's run with an error. The error also goes to stderr: the
// aggregates hide a failed repetition, and libbenchmark 1.7.1 crashes
// computing them when the first repetition failed.
void fail(benchmark::State& state, bool direct, int listeners, const std::string& why) {
    std::fprintf(stderr, "fanout_bench: %s failed: %s\n", rowName(direct, listeners).c_str(), why.c_str());
    state.SkipWithError(why.c_str());
}

// The set of the row running now; a row of another set ends it first.
std::unique_ptr<ListenerSet> gSet;

ListenerSet& setFor(bool direct, int listeners) {
    if (gSet == nullptr || !gSet->matches(direct, listeners)) {
        gSet.reset();
        gSet = std::make_unique<ListenerSet>(direct, listeners);
    }
    return *gSet;
}

void fanOut(benchmark::State& state, bool direct, int listeners) {
    ListenerSet& set = setFor(direct, listeners);
    if (!set.ready()) {
        const std::string error = set.error();
        gSet.reset();  // the next run tries a fresh set
        fail(state, direct, listeners, error);
        return;
    }
    const double binderdCpuBefore = tivra_bench::cpuMicroseconds(set.binderdPid());
    const double monitordCpuBefore = tivra_bench::cpuMicroseconds(set.monitordPid());
    std::vector<int64_t> latencies;  // of every listener, every event
    int64_t lastSum = 0;
    std::string failure;
    for (auto _ : state) {
        if (!set.fanOut()) {
            failure = set.error();
            fail(state, direct, listeners, failure);
            break;
        }
        int64_t last = 0;
        for (int i = 0; i < listeners; ++i) {
            const int64_t latency = set.latencyNs(i);
            latencies.push_back(latency);
            last = std::max(last, latency);
        }
        lastSum += last;
        state.SetIterationTime(static_cast<double>(last) * 1e-9);
    }
    if (!failure.empty()) {
        gSet.reset();  // the next run tries a fresh set
        return;
    }
    if (latencies.empty()) {
        return;
    }
    const double events = static_cast<double>(state.iterations());
    const double emitToLastUs = static_cast<double>(lastSum) / events / 1e3;
    std::nth_element(latencies.begin(), latencies.begin() + latencies.size() / 2, latencies.end());
    state.counters["emit_to_last_us"] = emitToLastUs;
    state.counters["per_listener_us"] = emitToLastUs / listeners;
    state.counters["median_us"] = static_cast<double>(latencies[latencies.size() / 2]) / 1e3;
    state.counters["max_us"] = static_cast<double>(*std::max_element(latencies.begin(), latencies.end())) / 1e3;
    const double binderdCpuAfter = tivra_bench::cpuMicroseconds(set.binderdPid());
    const double monitordCpuAfter = tivra_bench::cpuMicroseconds(set.monitordPid());
    if (binderdCpuBefore >= 0 && binderdCpuAfter >= 0) {
        state.counters["binderd_cpu_us_per_event"] = (binderdCpuAfter - binderdCpuBefore) / events;
    }
    if (monitordCpuBefore >= 0 && monitordCpuAfter >= 0) {
        state.counters["monitord_cpu_us_per_event"] = (monitordCpuAfter - monitordCpuBefore) / events;
    }
}

// Takes --listeners=N[,N...] out of the arguments; false when it is malformed.
bool takeListenerCounts(int* argc, char** argv, std::vector<int>* counts) {
    *counts = kDefaultListenerCounts;
    const std::string flag = "--listeners=";
    int kept = 1;
    for (int i = 1; i < *argc; ++i) {
        const std::string argument = argv[i];
        if (argument.rfind(flag, 0) != 0) {
            argv[kept++] = argv[i];
            continue;
        }
        counts->clear();
        std::istringstream list(argument.substr(flag.size()));
        for (std::string item; std::getline(list, item, ',');) {
            char* end = nullptr;
            const long count = std::strtol(item.c_str(), &end, 10);
            if (item.empty() || *end != '\0' || count < 1 || count > 4000) {
                return false;
            }
            counts->push_back(static_cast<int>(count));
        }
    }
    *argc = kept;
    return !counts->empty();
}

int allowedCpus() {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    return sched_getaffinity(0, sizeof(cpus), &cpus) == 0 ? CPU_COUNT(&cpus) : -1;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<int> listenerCounts;
    if (!takeListenerCounts(&argc, argv, &listenerCounts)) {
        std::fprintf(stderr, "fanout_bench: --listeners= takes counts from 1 to 4000, separated by commas\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    for (int signal : kFatalSignals) {
        std::signal(signal, endSetAndDie);
    }
    benchmark::AddCustomContext("allowed_cpus", std::to_string(allowedCpus()));
    for (const int listeners : listenerCounts) {
        for (const bool direct : {false, true}) {
            benchmark::RegisterBenchmark(rowName(direct, listeners).c_str(), fanOut, direct, listeners)
                ->MinWarmUpTime(0.2)
                ->Repetitions(5)
                ->ReportAggregatesOnly(true)
                ->UseManualTime()
                ->Unit(benchmark::kMicrosecond);
        }
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    gSet.reset();
    return 0;
}
