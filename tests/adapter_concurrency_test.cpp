// The adapter under concurrent use: many client threads query, register and
// unregister while tivra-monitord is killed and restarted, callbacks and death
// notices arrive on Binder threads meanwhile. Nothing may deadlock or crash,
// and every result must be one that the adapter may give.
#include <android/log.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "adapter_recorders.h"
#include "monitord_fixture.h"

namespace tivra_test {
namespace {

using namespace Communication;

// Generous: under ThreadSanitizer, with the service restarting, a round is slow.
constexpr auto kRoundTimeout = std::chrono::seconds(30);

TEST(AdapterInstance, ThreadsRacingForTheFirstInstanceGetTheSameOne) {
    RunInOwnProcess([] {
        constexpr int kThreads = 8;
        std::atomic<int> waiting{kThreads};
        std::vector<const TivraAdapter*> seen(kThreads);
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                for (--waiting; waiting.load() > 0;) {
                }
                seen[i] = TivraAdapter::GetInstance().get();
            });
        }
        for (auto& thread : threads) thread.join();
        EXPECT_NE(seen[0], nullptr);
        EXPECT_EQ(std::set<const TivraAdapter*>(seen.begin(), seen.end()).size(), 1u);
    });
}

// What the workers saw; any impossible result counts as a violation.
struct SoakTally {
    std::atomic<int64_t> answered{0};     // queries the service answered
    std::atomic<int64_t> unavailable{0};  // errCode 1
    std::atomic<int64_t> violations{0};
};

void QueryOnce(SoakTally& tally) {
    int errCode = 42;
    const auto device = Adapter()->GetLocalDevice(errCode);
    switch (errCode) {
        case 0:
            ++(device != nullptr && device->GetDeviceId() == "dev-local" ? tally.answered : tally.violations);
            break;
        case 1:
            ++(device == nullptr ? tally.unavailable : tally.violations);
            break;
        case 2:  // the call met a dying service
            tally.violations += device == nullptr ? 0 : 1;
            break;
        default:
            ++tally.violations;
    }
    errCode = 42;
    const auto devices = Adapter()->GetAllDevices(errCode);
    // Three devices, four while the emitter has its device online.
    const bool expectedSize = errCode == 0 ? devices.size() == 3 || devices.size() == 4 : devices.empty();
    if (errCode < 0 || errCode > 2 || !expectedSize) {
        ++tally.violations;
    }
    const auto nodes = Adapter()->GetRemoteNodesBasicInfo();
    if (!nodes.empty() && (nodes.size() != 2 || nodes.front()->GetNodeId() != "node-cam")) {
        ++tally.violations;
    }
}

void RegisterOnce(const std::shared_ptr<RecordingListener>& listener,
                  const std::shared_ptr<RecordingNodeListener>& nodeListener,
                  const std::shared_ptr<RecordingNotifier>& notifier) {
    Adapter()->RegisterCallback(listener);
    Adapter()->AddDeviceChangeListener(nodeListener);
    Adapter()->LinkToDeath(notifier);
    Adapter()->UnregisterCallback(listener);
    Adapter()->RemoveDeviceChangeListener(nodeListener);
    Adapter()->UnlinkToDeath(notifier);
}

TEST(AdapterSoak, ClientsKeepWorkingWhileTheServiceIsKilledAndRestarted) {
    RunInOwnProcess(
        [] {
            // Thousands of calls each log a line; only the outcomes matter here.
            __android_log_set_logger([](const struct __android_logger_data*, const char*) {});
            MonitordSession session;
            ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();

            SoakTally tally;
            std::atomic<bool> stop{false};
            std::vector<std::thread> workers;
            for (int i = 0; i < 4; ++i) {
                workers.emplace_back([&] {
                    while (!stop) QueryOnce(tally);
                });
            }
            for (int i = 0; i < 4; ++i) {
                workers.emplace_back([&] {
                    const auto listener = std::make_shared<RecordingListener>();
                    const auto nodeListener = std::make_shared<RecordingNodeListener>();
                    const auto notifier = std::make_shared<RecordingNotifier>();
                    while (!stop) RegisterOnce(listener, nodeListener, notifier);
                });
            }
            // Events keep callbacks coming while registrations change.
            workers.emplace_back([&] {
                for (int n = 0; !stop; ++n) {
                    const nlohmann::json device = {{"name", "d"}, {"id", "dev-soak"}, {"type", "t"}, {"ip", "i"}};
                    session.Control().Emit(n % 2 == 0 ? nlohmann::json{{"event", "deviceOnline"}, {"device", device}}
                                                      : nlohmann::json{{"event", "deviceOffline"}, {"deviceId", "dev-soak"}});
                }
            });

            // Failures stop the rounds, not the test body, so that the workers
            // are always stopped and joined.
            const auto restartRepeatedly = [&]() -> std::string {
                constexpr int kRestarts = 10;
                for (int round = 0; round < kRestarts; ++round) {
                    const int64_t answered = tally.answered;
                    if (!waitUntil([&] { return tally.answered >= answered + 200; }, kRoundTimeout)) {
                        return "no answers in round " + std::to_string(round);
                    }
                    if (!session.KillService()) return "could not kill the service";
                    const int64_t unavailable = tally.unavailable;
                    if (!waitUntil([&] { return tally.unavailable > unavailable; }, kRoundTimeout)) {
                        return "death not noticed in round " + std::to_string(round);
                    }
                    if (!session.StartService(QuietScenario())) return session.error();
                }
                return "";
            };
            const std::string failure = restartRepeatedly();
            stop = true;
            for (auto& worker : workers) worker.join();
            ASSERT_EQ(failure, "");
            EXPECT_EQ(tally.violations, 0);

            // Afterwards the adapter works as before.
            const auto listener = std::make_shared<RecordingListener>();
            ASSERT_TRUE(Adapter()->RegisterCallback(listener));
            const auto emitted = session.Control().Emit(
                {{"event", "deviceOnline"}, {"device", {{"name", "n"}, {"id", "dev-after"}, {"type", "t"}, {"ip", "i"}}}});
            ASSERT_TRUE(emitted.ok) << emitted.error;
            ASSERT_TRUE(listener->log.WaitForSize(1));
            int errCode = 42;
            EXPECT_NE(Adapter()->GetLocalDevice(errCode), nullptr);
            EXPECT_EQ(errCode, 0);
        },
        std::chrono::seconds(90));
}

}  // namespace
}  // namespace tivra_test
