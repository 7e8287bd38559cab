// The service's death (kill -9 of tivra-monitord) as the adapter sees it:
// each linked notifier told once, registrations and the proxy forgotten, the
// notices logged, and a restarted service found and accepted anew.
#include <android/log.h>
#include <gtest/gtest.h>

#include <string>

#include "adapter_recorders.h"
#include "log_capture.h"
#include "monitord_fixture.h"
#include "tivra/tivra_adapter.h"

namespace tivra_test {
namespace {

using namespace Communication;

constexpr const char* kDeathNotice = "binderDied: receive death notify, clear pravik service is success";

std::shared_ptr<TivraAdapter> Adapter() { return TivraAdapter::GetInstance(); }

bool WaitForDeathNotices(const LogCapture& log, size_t count) {
    return waitUntil([&] { return log.Count(kDeathNotice) >= count; });
}

TEST(ServiceDeath, EachNotifierIsToldOnceAndRegistrationsAreForgotten) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        const auto listener = std::make_shared<RecordingListener>();
        const auto nodeListener = std::make_shared<RecordingNodeListener>();
        const auto first = std::make_shared<RecordingNotifier>();
        const auto second = std::make_shared<RecordingNotifier>();
        ASSERT_TRUE(Adapter()->RegisterCallback(listener));
        ASSERT_TRUE(Adapter()->AddDeviceChangeListener(nodeListener));
        ASSERT_TRUE(Adapter()->LinkToDeath(first));
        ASSERT_TRUE(Adapter()->LinkToDeath(second));
        LogCapture log;

        ASSERT_TRUE(session.KillService());
        ASSERT_TRUE(first->deaths.WaitForSize(1));
        ASSERT_TRUE(second->deaths.WaitForSize(1));
        // One notice per recipient: the two notifiers' and the adapter's own.
        ASSERT_TRUE(WaitForDeathNotices(log, 3));
        for (const LogLine& line : log.Lines()) {
            if (line.text == kDeathNotice) EXPECT_EQ(line.priority, ANDROID_LOG_INFO);
        }
        EXPECT_EQ(first->deaths.Size(), 1u);
        EXPECT_EQ(second->deaths.Size(), 1u);

        // The proxy is gone: with no service, calls find none (a kept proxy
        // would fail the call instead, with errCode 2).
        log.Clear();
        int errCode = 42;
        EXPECT_EQ(Adapter()->GetLocalDevice(errCode), nullptr);
        EXPECT_EQ(errCode, 1);
        EXPECT_FALSE(Adapter()->UnregisterCallback(listener));
        EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, "UnregisterCallback: get pravik service failed"));

        ASSERT_TRUE(session.RestartService()) << session.error();
        log.Clear();
        EXPECT_FALSE(Adapter()->UnregisterCallback(listener));
        EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, "the listener do not register yet"));
        Adapter()->RemoveDeviceChangeListener(nodeListener);
        EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR,
                                 "RemoveDeviceChangeListener: the listener has not been added to remote service yet"));
        EXPECT_FALSE(Adapter()->UnlinkToDeath(first));
        EXPECT_TRUE(log.Contains(ANDROID_LOG_ERROR, "the notifier do not link to death yet"));

        // The same objects are accepted again, by the new service.
        ASSERT_TRUE(Adapter()->RegisterCallback(listener));
        ASSERT_TRUE(Adapter()->AddDeviceChangeListener(nodeListener));
        ASSERT_TRUE(Adapter()->LinkToDeath(first));
        const auto listeners = session.Control().Listeners();
        ASSERT_TRUE(listeners.ok) << listeners.error;
        EXPECT_EQ(listeners.value, (nlohmann::json{{"deviceChange", 1}, {"device", 1}}));
        const auto emitted = session.Control().Emit(
            {{"event", "deviceOnline"}, {"device", {{"name", "n"}, {"id", "dev-new"}, {"type", "t"}, {"ip", "i"}}}});
        ASSERT_TRUE(emitted.ok) << emitted.error;
        ASSERT_TRUE(listener->log.WaitForSize(1));
        EXPECT_EQ(listener->log.Events()[0].device->GetDeviceId(), "dev-new");

        // Only the relinked notifier hears of the next death.
        log.Clear();
        ASSERT_TRUE(session.KillService());
        ASSERT_TRUE(first->deaths.WaitForSize(2));
        ASSERT_TRUE(WaitForDeathNotices(log, 2));
        EXPECT_EQ(second->deaths.Size(), 1u);
    });
}

TEST(ServiceDeath, WithoutNotifiersTheAdapterStillForgetsTheService) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        const auto listener = std::make_shared<RecordingListener>();
        ASSERT_TRUE(Adapter()->RegisterCallback(listener));
        LogCapture log;

        ASSERT_TRUE(session.KillService());
        ASSERT_TRUE(WaitForDeathNotices(log, 1));
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        int errCode = 42;
        EXPECT_NE(Adapter()->GetLocalDevice(errCode), nullptr);
        EXPECT_EQ(errCode, 0);
        EXPECT_TRUE(Adapter()->RegisterCallback(listener)) << "the old registration still counted";
        EXPECT_EQ(log.Count(kDeathNotice), 1u);
    });
}

// OnServiceDied runs with no adapter lock held: the notifier may call the
// adapter, which finds no service until it is back.
TEST(ServiceDeath, NotifierMayCallTheAdapterWhenTold) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        EventLog<int> errCodes;
        auto self = std::make_shared<std::weak_ptr<RecordingNotifier>>();
        const auto notifier = std::make_shared<RecordingNotifier>([&errCodes, self] {
            int errCode = -1;
            Adapter()->GetLocalDevice(errCode);
            Adapter()->LinkToDeath(self->lock());
            errCodes.Add(errCode);
        });
        *self = notifier;
        ASSERT_TRUE(Adapter()->LinkToDeath(notifier));

        ASSERT_TRUE(session.KillService());
        ASSERT_TRUE(errCodes.WaitForSize(1)) << "OnServiceDied did not return: deadlock?";
        EXPECT_NE(errCodes.Events()[0], 0) << "a dead service answered";
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        EXPECT_TRUE(Adapter()->LinkToDeath(notifier));
    });
}

}  // namespace
}  // namespace tivra_test
