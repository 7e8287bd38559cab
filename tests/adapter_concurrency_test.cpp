// The adapter under concurrent use (also run under ThreadSanitizer): client
// threads query, register and unregister while tivra-monitord is killed and
// restarted and callbacks and death notices arrive on Binder threads. Nothing
// may deadlock or crash, and every result must be one the adapter may give.
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

// What the workers saw; an impossible result counts as a violation.
struct Tally {
    std::atomic<int64_t> answered{0}, unavailable{0}, violations{0};
};

void QueryOnce(Tally& tally) {
    int errCode = 42;
    const bool device = Adapter()->GetLocalDevice(errCode) != nullptr;
    if (errCode == 0 && device) {
        ++tally.answered;
    } else if (errCode == 1 && !device) {
        ++tally.unavailable;
    } else if (errCode != 2 || device) {  // 2: the call met a dying service
        ++tally.violations;
    }
    errCode = 42;
    const size_t devices = Adapter()->GetAllDevices(errCode).size();
    // Three devices, four while the emitter has its device online.
    if (errCode == 0 ? devices != 3 && devices != 4 : errCode < 1 || errCode > 2 || devices != 0) ++tally.violations;
    const auto nodes = Adapter()->GetRemoteNodesBasicInfo();
    if (!nodes.empty() && (nodes.size() != 2 || nodes.front()->GetNodeId() != "node-cam")) ++tally.violations;
}

TEST(AdapterSoak, ClientsKeepWorkingWhileTheServiceIsKilledAndRestarted) {
    RunInOwnProcess(
        [] {
            // Thousands of calls each log a line; only the outcomes matter here.
            __android_log_set_logger([](const struct __android_logger_data*, const char*) {});
            MonitordSession session;
            ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
            Tally tally;
            std::atomic<bool> stop{false};
            std::vector<std::thread> workers;
            for (int i = 0; i < 4; ++i) {
                workers.emplace_back([&] {
                    while (!stop) QueryOnce(tally);
                });
                workers.emplace_back([&] {
                    const auto listener = std::make_shared<RecordingListener>();
                    const auto nodeListener = std::make_shared<RecordingNodeListener>();
                    const auto notifier = std::make_shared<RecordingNotifier>();
                    while (!stop) {
                        Adapter()->RegisterCallback(listener);
                        Adapter()->AddDeviceChangeListener(nodeListener);
                        Adapter()->LinkToDeath(notifier);
                        Adapter()->UnregisterCallback(listener);
                        Adapter()->RemoveDeviceChangeListener(nodeListener);
                        Adapter()->UnlinkToDeath(notifier);
                    }
                });
            }
            // Events keep callbacks coming while registrations change.
            workers.emplace_back([&] {
                const nlohmann::json device = {{"name", "d"}, {"id", "dev-soak"}, {"type", "t"}, {"ip", "i"}};
                for (int n = 0; !stop; ++n) {
                    session.Control().Emit(n % 2 == 0 ? nlohmann::json{{"event", "deviceOnline"}, {"device", device}}
                                                      : nlohmann::json{{"event", "deviceOffline"}, {"deviceId", "dev-soak"}});
                }
            });
            // A failure stops the rounds, not the body, so the workers are always joined.
            std::string failure;
            for (int round = 0; round < 10 && failure.empty(); ++round) {
                const int64_t answered = tally.answered, unavailable = tally.unavailable;
                if (!waitUntil([&] { return tally.answered >= answered + 200; }, std::chrono::seconds(30))) {
                    failure = "no answers in round " + std::to_string(round);
                } else if (!session.KillService()) {
                    failure = "could not kill the service";
                } else if (!waitUntil([&] { return tally.unavailable > unavailable; }, std::chrono::seconds(30))) {
                    failure = "death not noticed in round " + std::to_string(round);
                } else if (!session.StartService(QuietScenario())) {
                    failure = session.error();
                }
            }
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
