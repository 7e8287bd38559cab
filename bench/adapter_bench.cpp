// libtivra round trips to tivra-monitord in another process, over a private
// binderd: the device queries, and the way from an emitted event to the
// client's listener.
#include <android/log.h>
#include <benchmark/benchmark.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

#include "monitord_fixture.h"
#include "tivra/tivra_adapter.h"

namespace {

using Communication::TivraAdapter;
using Communication::TivraDeviceInfo;
using Clock = std::chrono::steady_clock;

constexpr int kDeviceCount = 1000;

nlohmann::json ScenarioWithManyDevices() {
    nlohmann::json scenario = tivra_test::QuietScenario();
    nlohmann::json devices = nlohmann::json::array({scenario["localDevice"]});
    for (int i = 1; i < kDeviceCount; ++i) {
        const std::string n = std::to_string(i);
        devices.push_back({{"name", "Device " + n}, {"id", "dev-" + n}, {"type", "SENSOR"}, {"ip", "10.2.0." + n}});
    }
    scenario["devices"] = devices;
    return scenario;
}

void BM_GetLocalDevice(benchmark::State& state) {
    const auto adapter = TivraAdapter::GetInstance();
    for (auto _ : state) {
        int errCode = -1;
        const auto device = adapter->GetLocalDevice(errCode);
        if (errCode != 0) {
            state.SkipWithError("GetLocalDevice failed");
            break;
        }
        benchmark::DoNotOptimize(device);
    }
}
BENCHMARK(BM_GetLocalDevice)->UseRealTime();

void BM_GetAllDevices(benchmark::State& state) {
    const auto adapter = TivraAdapter::GetInstance();
    for (auto _ : state) {
        int errCode = -1;
        const auto devices = adapter->GetAllDevices(errCode);
        if (errCode != 0 || devices.size() != kDeviceCount) {
            state.SkipWithError("GetAllDevices did not return every device");
            break;
        }
        benchmark::DoNotOptimize(devices.data());
    }
    state.SetItemsProcessed(state.iterations() * kDeviceCount);
}
BENCHMARK(BM_GetAllDevices)->UseRealTime()->Unit(benchmark::kMicrosecond);

// Notes when each device event arrived, for the emitting thread to wait on.
class ArrivalListener : public Communication::TivraListener {
public:
    void OnDeviceOnline(std::shared_ptr<TivraDeviceInfo>) override { Arrived(); }
    void OnDeviceOffline(std::shared_ptr<TivraDeviceInfo>) override { Arrived(); }

    // Waits for event number `count` (counting from 1); its arrival time, or
    // nothing after a timeout.
    bool WaitFor(uint64_t count, Clock::time_point* arrival) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!arrived_.wait_for(lock, std::chrono::seconds(5), [&] { return events_ >= count; })) {
            return false;
        }
        *arrival = lastArrival_;
        return true;
    }

private:
    void Arrived() {
        const Clock::time_point now = Clock::now();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ++events_;
            lastArrival_ = now;
        }
        arrived_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable arrived_;
    uint64_t events_ = 0;
    Clock::time_point lastArrival_;
};

// From the control interface's emit to OnDeviceOnline in this process; the
// offline event that makes the device new again is not timed.
void BM_EmitToOnDeviceOnline(benchmark::State& state) {
    const auto adapter = TivraAdapter::GetInstance();
    const auto listener = std::make_shared<ArrivalListener>();
    if (!adapter->RegisterCallback(listener)) {
        state.SkipWithError("RegisterCallback failed");
        return;
    }
    const tivra_control::MonitorControlClient control;
    const nlohmann::json online = {
        {"event", "deviceOnline"}, {"device", {{"name", "Bench"}, {"id", "dev-bench"}, {"type", "T"}, {"ip", "I"}}}};
    const nlohmann::json offline = {{"event", "deviceOffline"}, {"deviceId", "dev-bench"}};
    uint64_t events = 0;
    for (auto _ : state) {
        const Clock::time_point emitted = Clock::now();
        Clock::time_point arrival;
        Clock::time_point offlineArrival;
        if (!control.Emit(online).ok || !listener->WaitFor(++events, &arrival) || !control.Emit(offline).ok ||
            !listener->WaitFor(++events, &offlineArrival)) {
            state.SkipWithError("an event did not arrive");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(arrival - emitted).count());
    }
    adapter->UnregisterCallback(listener);
}
BENCHMARK(BM_EmitToOnDeviceOnline)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    // Every list read logs its size; keep the log out of the measurement.
    __android_log_set_logger([](const struct __android_logger_data*, const char*) {});
    // The session points this process at its private binderd before the
    // adapter first uses Binder, and ends its processes when main returns.
    tivra_test::MonitordSession session;
    if (!session.StartService(ScenarioWithManyDevices())) {
        std::fprintf(stderr, "adapter_bench: %s\n", session.error().c_str());
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
