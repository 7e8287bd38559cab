// The adapter's three registries (device change listeners, node listeners,
// death notifiers) against tivra-monitord: a client object is identified by
// its address, whatever shared pointer names it, and the service sees one
// registration per accepted add.
#include <android/log.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "adapter_recorders.h"
#include "log_capture.h"
#include "monitord_fixture.h"
#include "tivra/tivra_adapter.h"

namespace tivra_test {
namespace {

using namespace Communication;

std::shared_ptr<TivraAdapter> Adapter() { return TivraAdapter::GetInstance(); }

template <typename Client>
struct Registry {
    std::function<bool(const std::shared_ptr<Client>&)> add;
    // True when the removal went through (RemoveDeviceChangeListener says so
    // only by logging nothing).
    std::function<bool(const std::shared_ptr<Client>&)> remove;
    const char* duplicate;
    const char* notRegistered;
    const char* addNull;
    const char* removeNull;
    // Where the service keeps count; null when only the adapter keeps them.
    const char* serviceCount;
    const char* addMethod;
    const char* removeMethod;
};

class RegistryChecker {
public:
    RegistryChecker(const MonitordSession& session, LogCapture& log) : session_(session), log_(log) {}

    template <typename Client>
    void Check(const Registry<Client>& registry) {
        const auto client = std::make_shared<Client>();
        // Another owner, the same object: the same registration.
        const std::shared_ptr<Client> alias(std::make_shared<int>(0), client.get());
        const int64_t removesBefore = Calls(registry.removeMethod);

        Step();
        EXPECT_FALSE(registry.remove(client));
        EXPECT_TRUE(log_.Contains(ANDROID_LOG_ERROR, registry.notRegistered));
        EXPECT_EQ(Calls(registry.removeMethod), removesBefore) << "the service was asked";

        Step();
        EXPECT_TRUE(registry.add(client));
        ExpectRegistered(registry.serviceCount, 1);
        const int64_t addsBefore = Calls(registry.addMethod);
        EXPECT_FALSE(registry.add(alias));
        EXPECT_TRUE(log_.Contains(ANDROID_LOG_ERROR, registry.duplicate));
        EXPECT_EQ(Calls(registry.addMethod), addsBefore) << "the service was asked";
        ExpectRegistered(registry.serviceCount, 1);

        Step();
        EXPECT_TRUE(registry.remove(alias));
        ExpectRegistered(registry.serviceCount, 0);
        EXPECT_TRUE(registry.add(client)) << "registered again after its removal";
        ExpectRegistered(registry.serviceCount, 1);

        const auto other = std::make_shared<Client>();
        EXPECT_TRUE(registry.add(other));
        ExpectRegistered(registry.serviceCount, 2);
        Step();
        EXPECT_TRUE(registry.remove(client));
        EXPECT_TRUE(registry.remove(other));
        ExpectRegistered(registry.serviceCount, 0);

        Step();
        EXPECT_FALSE(registry.add(nullptr));
        EXPECT_TRUE(log_.Contains(ANDROID_LOG_ERROR, registry.addNull));
        EXPECT_FALSE(registry.remove(nullptr));
        EXPECT_TRUE(log_.Contains(ANDROID_LOG_ERROR, registry.removeNull));
    }

private:
    void Step() { log_.Clear(); }
    int64_t Calls(const char* method) const { return method ? session_.Control().CallCount(method) : 0; }
    // Registrations that the service holds, where it keeps count of them.
    void ExpectRegistered(const char* serviceCount, int64_t expected) const {
        if (serviceCount == nullptr) {
            return;
        }
        const auto listeners = session_.Control().Listeners();
        ASSERT_TRUE(listeners.ok) << listeners.error;
        EXPECT_EQ(listeners.value.at(serviceCount).get<int64_t>(), expected);
    }

    const MonitordSession& session_;
    LogCapture& log_;
};

TEST(Registries, IdentifyClientsByObjectAndAcceptThemAgainAfterRemoval) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        LogCapture log;
        RegistryChecker checker(session, log);
        {
            SCOPED_TRACE("device change listeners");
            checker.Check(Registry<RecordingListener>{
                [](const auto& listener) { return Adapter()->RegisterCallback(listener); },
                [](const auto& listener) { return Adapter()->UnregisterCallback(listener); },
                "the listener has already registed", "the listener do not register yet",
                "register callback is null pointer", "unregister callback is null pointer", "deviceChange",
                "addOnDeviceChangeListener", "removeOnDeviceChangeListener"});
        }
        {
            SCOPED_TRACE("node listeners");
            checker.Check(Registry<RecordingNodeListener>{
                [](const auto& listener) { return Adapter()->AddDeviceChangeListener(listener); },
                [&log](const auto& listener) {
                    const size_t errorsBefore = ErrorLines(log);
                    Adapter()->RemoveDeviceChangeListener(listener);
                    return ErrorLines(log) == errorsBefore;
                },
                "AddDeviceChangeListener: the listener has already been added to remote service",
                "RemoveDeviceChangeListener: the listener has not been added to remote service yet",
                "AddDeviceChangeListener: listener is nullptr", "RemoveDeviceChangeListener: listener is nullptr",
                "device", "addDeviceChangeListener", "removeDeviceChangeListener"});
        }
        {
            SCOPED_TRACE("death notifiers");
            checker.Check(Registry<RecordingNotifier>{
                [](const auto& notifier) { return Adapter()->LinkToDeath(notifier); },
                [](const auto& notifier) { return Adapter()->UnlinkToDeath(notifier); },
                "the notifier has already linked to death", "the notifier do not link to death yet",
                "link to death is null pointer", "unlink to death is null pointer", nullptr, nullptr, nullptr});
        }
    });
}

// An unlinked notifier is not told of the death; a linked one is.
TEST(Registries, UnlinkedNotifierHearsNothingOfTheDeath) {
    RunInOwnProcess([] {
        MonitordSession session;
        ASSERT_TRUE(session.StartService(QuietScenario())) << session.error();
        const auto unlinked = std::make_shared<RecordingNotifier>();
        const auto linked = std::make_shared<RecordingNotifier>();
        ASSERT_TRUE(Adapter()->LinkToDeath(unlinked));
        ASSERT_TRUE(Adapter()->LinkToDeath(linked));
        ASSERT_TRUE(Adapter()->UnlinkToDeath(unlinked));
        ASSERT_TRUE(session.KillService());
        ASSERT_TRUE(linked->deaths.WaitForSize(1));
        // Notices of one death arrive together; give a stray one a moment.
        EXPECT_FALSE(unlinked->deaths.WaitForSize(1, std::chrono::milliseconds(300)));
    });
}

}  // namespace
}  // namespace tivra_test
