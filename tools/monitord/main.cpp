// tivra-monitord: a device monitor service over a simulated device network,
// for developing and testing clients on a host without devices.
#include <getopt.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <binder/Status.h>
#include <utils/String16.h>

#include "binderd_watch.h"
#include "control_commands.h"
#include "control_service.h"
#include "event_broadcaster.h"
#include "fault_plan.h"
#include "listener_registry.h"
#include "monitor_control_protocol.h"
#include "monitor_service.h"
#include "refused_option.h"
#include "scenario.h"
#include "simulated_network.h"
#include "timeline_player.h"
#include "written_output.h"

namespace {

constexpr const char* kServiceName = "PravikDeviceMonitorService";

// The exit status scheme of binderd and tivra as well.
constexpr int kExitFailed = 1;       // a bad scenario
constexpr int kExitUsage = 2;        // bad command line
constexpr int kExitUnavailable = 3;  // binderd is not there

void PrintUsage() {
    std::printf(
                 "Usage: tivra-monitord [--scenario FILE] [--verbose]\n"
                 "\n"
                 "Serves \"%s\" over a simulated device network through binderd,\n"
                 "and a control interface \"%s\" that tests and 'tivra sim' use to\n"
                 "emit events, change the network and inject faults.\n"
                 "\n"
                 "  --scenario FILE  the network and its timeline (JSON); default: the bundled sample\n"
                 "  -v, --verbose    report every timeline event on stderr\n"
                 "  -h, --help       show this help\n"
                 "  -V, --version    show the version\n"
                 "\n"
                 "binderd's socket is $HOSTBINDER_SOCKET, else $XDG_RUNTIME_DIR/hostbinder/binder,\n"
                 "else /tmp/hostbinder-<uid>/binder.\n"
                 "\n"
                 "Exit status: 0 stopped by SIGINT or SIGTERM, 1 could not start (a bad scenario,\n"
                 "the name taken, this text not written), 2 bad usage, 3 binderd is not running.\n",
                 kServiceName, tivra_control::kControlServiceName);
}

// The sample shipped with the project: installed beside this program (in
// ../share/tivra/scenarios), else in the source tree it was built from.
std::string DefaultScenario() {
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (length > 0) {
        std::string installed(self, static_cast<size_t>(length));
        installed = installed.substr(0, installed.rfind('/')) + "/../" TIVRA_INSTALLED_SAMPLE_SCENARIO;
        if (access(installed.c_str(), R_OK) == 0) {
            return installed;
        }
    }
    return TIVRA_SOURCE_SAMPLE_SCENARIO;
}

int UsageError(const std::string& reason) {
    std::fprintf(stderr, "tivra-monitord: %s\nTry 'tivra-monitord --help' for more information.\n", reason.c_str());
    return kExitUsage;
}

// Both names with the session's binderd, and a death link to learn when it
// goes: OK, else the first failure (EX_SECURITY, as addService returns it,
// when another live process owns a name).
android::status_t Register(const android::sp<android::IBinder>& service, const android::sp<android::IBinder>& control,
                           tivra_tools::BinderdWatch& binderd) {
    const android::sp<android::IServiceManager> manager = android::defaultServiceManager();
    android::status_t status = manager->addService(android::String16(kServiceName), service);
    if (status == android::OK) {
        status = manager->addService(android::String16(tivra_control::kControlServiceName), control);
    }
    return status != android::OK || binderd.Link() ? status : android::DEAD_OBJECT;
}

// After binderd went away: registers with the binderd that comes next, trying
// again a short while apart. 0 once registered, else the stop signal that
// came first.
int RegisterAgain(const android::sp<android::IBinder>& service, const android::sp<android::IBinder>& control,
                  tivra_tools::BinderdWatch& binderd, const sigset_t& signals) {
    bool toldTaken = false;
    for (auto delay = tivra_tools::kFirstRetryDelay;; delay = std::min(delay * 2, tivra_tools::kMaxRetryDelay)) {
        const android::status_t status = Register(service, control, binderd);
        if (status == android::OK) {
            std::printf("tivra-monitord: registered again with binderd\n");
            std::fflush(stdout);
            return 0;
        }
        if (status == android::binder::Status::EX_SECURITY && !toldTaken) {
            std::fprintf(stderr, "tivra-monitord: \"%s\" is registered by another process; trying again until it is free\n",
                         kServiceName);
            toldTaken = true;
        }
        const int signal = tivra_tools::AwaitSignal(signals, delay);
        if (signal != 0 && signal != tivra_tools::kWakeSignal) {
            return signal;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string scenarioPath;
    bool verbose = false;
    enum { kScenario = 256 };
    const struct option options[] = {
        {"scenario", required_argument, nullptr, kScenario}, {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},                 {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    opterr = 0;
    int option;
    while ((option = getopt_long(argc, argv, ":hvV", options, nullptr)) != -1) {
        switch (option) {
            case 'h':
                PrintUsage();
                return tivra_tools::FinishOutput("tivra-monitord", 0);
            case 'V':
                std::printf("tivra-monitord (libtivra) %s\n", TIVRA_VERSION);
                return tivra_tools::FinishOutput("tivra-monitord", 0);
            case 'v':
                verbose = true;
                break;
            case kScenario:
                if (*optarg == '\0') {
                    return UsageError("option '--scenario' needs a non-empty value");
                }
                scenarioPath = optarg;
                break;
            case ':':
                return UsageError(std::string("option '") + argv[optind - 1] + "' needs a value");
            default:
                return UsageError(tivra_tools::RefusedOption(argv[optind - 1], options));
        }
    }
    if (optind < argc) {
        return UsageError(std::string("unexpected argument '") + argv[optind] + "'");
    }
    if (scenarioPath.empty()) {
        scenarioPath = DefaultScenario();
    }

    tivra_monitord::Scenario scenario;
    try {
        scenario = tivra_monitord::LoadScenario(scenarioPath);
    } catch (const tivra_monitord::ScenarioError& error) {
        std::fprintf(stderr, "tivra-monitord: bad scenario: %s\n", error.what());
        return kExitFailed;
    }

    const sigset_t signals = tivra_tools::BlockMainThreadSignals();

    tivra_monitord::SimulatedNetwork network(scenario);
    tivra_monitord::ListenerRegistry listeners;
    tivra_monitord::FaultPlan faults;
    tivra_monitord::EventBroadcaster broadcaster(network, listeners);
    tivra_monitord::ControlCommands commands(network, listeners, faults, broadcaster);
    const android::sp<tivra_monitord::MonitorService> service =
        new tivra_monitord::MonitorService(network, listeners, faults);
    const android::sp<tivra_monitord::ControlService> control = new tivra_monitord::ControlService(commands);

    android::ProcessState::self()->startThreadPool();
    const android::sp<tivra_tools::BinderdWatch> binderd = new tivra_tools::BinderdWatch();
    const android::status_t added = Register(service, control, *binderd);
    if (added == android::binder::Status::EX_SECURITY) {
        std::fprintf(stderr, "tivra-monitord: \"%s\" is already registered by another process\n", kServiceName);
        return 1;
    }
    if (added != android::OK) {
        std::fprintf(stderr,
                     "tivra-monitord: cannot register with binderd: is it running? Start it with 'binderd' "
                     "(or set HOSTBINDER_SOCKET to its socket)\n");
        return kExitUnavailable;
    }

    tivra_monitord::TimelinePlayer player(scenario.timeline, broadcaster, verbose);
    player.Start();
    std::printf("tivra-monitord: serving %zu devices and %zu remote nodes from %s (%zu timeline events)\n",
                scenario.devices.size(), scenario.nodes.size(), scenarioPath.c_str(), scenario.timeline.size());
    std::fflush(stdout);

    // Until stopped; when binderd goes, registering with the next one.
    int signal = 0;
    while (signal == 0) {
        signal = tivra_tools::AwaitSignal(signals, std::chrono::milliseconds(-1));
        if (signal == tivra_tools::kWakeSignal) {
            signal = 0;
            if (binderd->TakeLoss()) {
                std::printf("tivra-monitord: binderd went away; registering again once it is back\n");
                std::fflush(stdout);
                signal = RegisterAgain(service, control, *binderd, signals);
            }
        }
    }
    player.Stop();
    std::printf("tivra-monitord: stopping on %s\n", strsignal(signal));
    std::fflush(stdout);
    // Binder threads are still running; leave without static destructors.
    _exit(0);
}
