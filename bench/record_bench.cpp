// Cost of moving device lists through parcels, against a plain copy of the
// same bytes. The target is at most 100 ns per entry for write plus read.
#include <cstring>
#include <string>
#include <vector>

#include <android/log.h>
#include <benchmark/benchmark.h>
#include <binder/Parcel.h>

#include "device_info_external_list.h"

namespace {

using com::solvane::pravik::deviceinfo::DeviceInfoExternal;
using com::solvane::pravik::deviceinfo::DeviceInfoExternalList;

constexpr int kEntries = 1000;

// The list read logs its size at info priority; keep the log out of the loop.
void DiscardLog(const struct __android_logger_data*, const char*) {}

DeviceInfoExternalList MakeRealisticList() {
    DeviceInfoExternalList list;
    for (int i = 0; i < kEntries; ++i) {
        list.AddDeviceInfoExternalToList(DeviceInfoExternal(
            "Living room TV " + std::to_string(i), "a3f9c0d2e4b1" + std::to_string(100000 + i), "SMART_TV",
            "192.168." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1)));
    }
    return list;
}

// Reports items and the time per entry of the list.
void SetPerEntryCounters(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * kEntries);
    state.counters["ns_per_entry"] =
        benchmark::Counter(static_cast<double>(state.iterations() * kEntries),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// Reads the list back from the start of `parcel`; false (with the benchmark
// marked failed) when the read does not succeed.
bool ReadBack(benchmark::State& state, const android::Parcel& parcel, DeviceInfoExternalList* readBack) {
    parcel.setDataPosition(0);
    if (readBack->readFromParcel(&parcel) != android::OK) {
        state.SkipWithError("read failed");
        return false;
    }
    benchmark::DoNotOptimize(readBack);
    return true;
}

void BM_DeviceListWriteRead(benchmark::State& state) {
    __android_log_set_logger(DiscardLog);
    const DeviceInfoExternalList list = MakeRealisticList();
    DeviceInfoExternalList readBack;
    for (auto _ : state) {
        android::Parcel parcel;
        list.writeToParcel(&parcel);
        if (!ReadBack(state, parcel, &readBack)) {
            break;
        }
    }
    SetPerEntryCounters(state);
}
BENCHMARK(BM_DeviceListWriteRead)->Unit(benchmark::kMicrosecond);

// The two halves of the round trip apart, to see which one a change moves.
void BM_DeviceListWrite(benchmark::State& state) {
    const DeviceInfoExternalList list = MakeRealisticList();
    for (auto _ : state) {
        android::Parcel parcel;
        list.writeToParcel(&parcel);
        benchmark::DoNotOptimize(parcel.data());
    }
    SetPerEntryCounters(state);
}
BENCHMARK(BM_DeviceListWrite)->Unit(benchmark::kMicrosecond);

void BM_DeviceListRead(benchmark::State& state) {
    __android_log_set_logger(DiscardLog);
    android::Parcel parcel;
    MakeRealisticList().writeToParcel(&parcel);
    DeviceInfoExternalList readBack;
    for (auto _ : state) {
        if (!ReadBack(state, parcel, &readBack)) {
            break;
        }
    }
    SetPerEntryCounters(state);
}
BENCHMARK(BM_DeviceListRead)->Unit(benchmark::kMicrosecond);

// Baseline: copying the same serialized bytes out and back in.
void BM_DeviceListMemcpyBaseline(benchmark::State& state) {
    android::Parcel parcel;
    MakeRealisticList().writeToParcel(&parcel);
    std::vector<uint8_t> out(parcel.dataSize());
    std::vector<uint8_t> back(parcel.dataSize());
    for (auto _ : state) {
        std::memcpy(out.data(), parcel.data(), parcel.dataSize());
        benchmark::ClobberMemory();
        std::memcpy(back.data(), out.data(), out.size());
        benchmark::DoNotOptimize(back.data());
    }
    SetPerEntryCounters(state);
}
BENCHMARK(BM_DeviceListMemcpyBaseline)->Unit(benchmark::kMicrosecond);

}  // namespace
