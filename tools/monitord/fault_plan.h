#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace tivra_monitord {

// The service interface's methods are codes 1 to 44.
constexpr uint32_t kMethodCount = 44;

// Name of the method with this code, or null outside 1..44.
const char* MethodName(uint32_t code);
// Code of the method with this name, or 0.
uint32_t MethodCode(const std::string& name);

// How a method misbehaves when a fault is set on it.
struct Fault {
    enum class Kind {
        Exception,     // answer with this exception code (and service-specific code)
        Transport,     // fail the transaction itself with this status_t
        Refuse,        // addDeviceChangeListener answers OK with added = false
        CorruptReply,  // OK status followed by a list count no reader accepts
    };
    Kind kind = Kind::Exception;
    int32_t code = 0;
    int32_t serviceCode = 0;
    std::string message;
    // How many calls it affects; 0 means until cleared.
    uint32_t times = 0;
};

// Faults to inject per method and how often each method was called. Binder
// threads consult it on every call while the control interface changes it.
class FaultPlan {
public:
    void Set(uint32_t code, const Fault& fault);
    void ClearAll();
    // Counts a call of `code` and returns the fault that applies to the
    // transaction, using up one of its times. A Refuse fault is left for the
    // method itself to take.
    std::optional<Fault> OnCall(uint32_t code);
    // Whether the method should refuse this call; uses up one time.
    bool TakeRefusal(uint32_t code);
    uint64_t CallCount(uint32_t code) const;

private:
    // Returns the fault set on `code` when `wanted` accepts it, using up one time.
    template <typename Wanted>
    std::optional<Fault> Take(uint32_t code, Wanted wanted);

    mutable std::mutex mutex_;
    std::array<std::optional<Fault>, kMethodCount + 1> faults_{};
    std::array<std::atomic<uint64_t>, kMethodCount + 1> calls_{};
};

}  // namespace tivra_monitord
