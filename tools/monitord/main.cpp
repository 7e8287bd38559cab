// tivra-monitord: a device monitor service over a simulated device network,
// for developing and testing clients on a host without devices.
#include <signal.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <binder/Status.h>
#include <utils/String16.h>

#include "control_commands.h"
#include "control_service.h"
#include "event_broadcaster.h"
#include "fault_plan.h"
#include "listener_registry.h"
#include "monitor_control_protocol.h"
#include "monitor_service.h"
#include "scenario.h"
#include "simulated_network.h"
#include "timeline_player.h"

namespace {

constexpr const char* kServiceName = "PravikDeviceMonitorService";

constexpr int kExitUsage = 64;
constexpr int kExitScenario = 65;
constexpr int kExitUnavailable = 69;

void PrintUsage(FILE* out) {
    std::fprintf(out,
                 "Usage: tivra-monitord [--scenario FILE] [--verbose]\n"
                 "\n"
                 "Serves \"%s\" over a simulated device network through binderd,\n"
                 "and a control interface \"%s\" that tests and 'tivra sim' use to\n"
                 "emit events, change the network and inject faults.\n"
                 "\n"
                 "  --scenario FILE  the network and its timeline (JSON); default: the bundled sample\n"
                 "  --verbose        report every timeline event on stderr\n"
                 "  --help           show this help\n"
                 "\n"
                 "binderd's socket is $HOSTBINDER_SOCKET, else $XDG_RUNTIME_DIR/hostbinder/binder,\n"
                 "else /tmp/hostbinder-<uid>/binder.\n",
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

}  // namespace

int main(int argc, char** argv) {
    std::string scenarioPath;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            PrintUsage(stdout);
            return 0;
        } else if (arg == "--verbose" || arg == "-v") {
            verbose = true;
        } else if (arg == "--scenario" && i + 1 < argc) {
            scenarioPath = argv[++i];
        } else {
            std::fprintf(stderr, "tivra-monitord: unknown or incomplete option '%s'\n\n", arg.c_str());
            PrintUsage(stderr);
            return kExitUsage;
        }
    }
    if (scenarioPath.empty()) {
        scenarioPath = DefaultScenario();
    }

    tivra_monitord::Scenario scenario;
    try {
        scenario = tivra_monitord::LoadScenario(scenarioPath);
    } catch (const tivra_monitord::ScenarioError& error) {
        std::fprintf(stderr, "tivra-monitord: bad scenario: %s\n", error.what());
        return kExitScenario;
    }

    // Binder threads inherit this mask, so only sigwait below sees the signals.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    tivra_monitord::SimulatedNetwork network(scenario);
    tivra_monitord::ListenerRegistry listeners;
    tivra_monitord::FaultPlan faults;
    tivra_monitord::EventBroadcaster broadcaster(network, listeners);
    tivra_monitord::ControlCommands commands(network, listeners, faults, broadcaster);
    const android::sp<tivra_monitord::MonitorService> service =
        new tivra_monitord::MonitorService(network, listeners, faults);
    const android::sp<tivra_monitord::ControlService> control = new tivra_monitord::ControlService(commands);

    android::ProcessState::self()->startThreadPool();
    const android::sp<android::IServiceManager> manager = android::defaultServiceManager();
    const android::status_t added =
        manager == nullptr ? android::DEAD_OBJECT : manager->addService(android::String16(kServiceName), service);
    // EX_SECURITY, as addService returns it: another live process owns the name.
    if (added == android::binder::Status::EX_SECURITY) {
        std::fprintf(stderr, "tivra-monitord: \"%s\" is already registered by another process\n", kServiceName);
        return 1;
    }
    if (added != android::OK ||
        manager->addService(android::String16(tivra_control::kControlServiceName), control) != android::OK) {
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

    int signal = 0;
    sigwait(&stopSignals, &signal);
    player.Stop();
    std::printf("tivra-monitord: stopping on %s\n", strsignal(signal));
    std::fflush(stdout);
    // Binder threads are still running; leave without static destructors.
    _exit(0);
}
