#pragma once

// The transactions of the three interfaces as published: one row per code.
// Every test of whole transactions walks these rows, whatever carries them.

#include <cstdint>
#include <string>
#include <vector>

#include "service_test_doubles.h"

namespace tivra_service_test {

// code, method, "inputs in wire order->output"
struct WireRow {
    uint32_t code;
    const char* method;
    const char* shape;
};

std::vector<WireRow> RowsOf(Tag<IDeviceMonitorService>);
std::vector<WireRow> RowsOf(Tag<IDeviceChangeListener>);
std::vector<WireRow> RowsOf(Tag<IDeviceListener>);

// The interface's methods, callable with sample values.
std::vector<NamedCaller<IDeviceMonitorService>> CallersOf(Tag<IDeviceMonitorService>);
std::vector<NamedCaller<IDeviceChangeListener>> CallersOf(Tag<IDeviceChangeListener>);
std::vector<NamedCaller<IDeviceListener>> CallersOf(Tag<IDeviceListener>);

// The caller of the row's method, or null (reported as a failure) when the interface lacks it.
template <typename I>
const NamedCaller<I>* CallerFor(const std::vector<NamedCaller<I>>& callers, const WireRow& row) {
    for (const NamedCaller<I>& caller : callers) {
        if (std::string(caller.method) == row.method) {
            return &caller;
        }
    }
    ADD_FAILURE() << "no method " << row.method;
    return nullptr;
}

}  // namespace tivra_service_test
