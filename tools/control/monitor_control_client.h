#pragma once

#include <cstdint>
#include <string>

#include <binder/IBinder.h>
#include <nlohmann/json.hpp>
#include <utils/StrongPointer.h>

namespace tivra_control {

// Drives a running tivra-monitord through its control interface. Commands are
// the JSON documents that the service documents ("op": "emit", "fault", ...).
class MonitorControlClient {
public:
    struct Result {
        bool ok = false;
        nlohmann::json value;  // the service's answer when ok
        std::string error;     // what went wrong otherwise
    };

    // Looks the control service up without waiting; null binder when absent.
    MonitorControlClient();
    explicit MonitorControlClient(android::sp<android::IBinder> binder);

    bool Connected() const { return binder_ != nullptr; }

    Result Run(const nlohmann::json& command) const;

    Result Emit(const nlohmann::json& event) const;
    Result SetFault(const std::string& method, const std::string& kind, int32_t code = 0, uint32_t times = 0,
                    const std::string& message = "") const;
    Result ClearFaults() const;
    // Calls of one method so far, or -1 when the service cannot be asked.
    int64_t CallCount(const std::string& method) const;
    // Listeners registered: {"deviceChange": n, "device": m}.
    Result Listeners() const;
    // Ends the service process; true when it went away.
    bool Exit(int32_t code = 0) const;
    bool Abort() const;

private:
    bool EndsService(const nlohmann::json& command) const;

    android::sp<android::IBinder> binder_;
};

}  // namespace tivra_control
