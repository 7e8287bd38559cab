#include "monitor_control_client.h"

#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include "monitor_control_protocol.h"

namespace tivra_control {

using nlohmann::json;

MonitorControlClient::MonitorControlClient()
    : binder_(android::defaultServiceManager()->checkService(android::String16(kControlServiceName))) {}

MonitorControlClient::MonitorControlClient(android::sp<android::IBinder> binder) : binder_(std::move(binder)) {}

MonitorControlClient::Result MonitorControlClient::Run(const json& command) const {
    Result result;
    if (binder_ == nullptr) {
        result.error = "the control service is not registered: start tivra-monitord";
        return result;
    }
    android::Parcel data;
    android::Parcel reply;
    data.writeInterfaceToken(android::String16(kControlDescriptor));
    data.writeString16(android::String16(command.dump().c_str()));
    const android::status_t status = binder_->transact(kCommandTransaction, data, &reply);
    if (status != android::OK) {
        result.error = "control transaction failed with status " + std::to_string(status);
        return result;
    }
    int32_t code = kCommandFailed;
    android::String16 text;
    if (reply.readInt32(&code) != android::OK || reply.readString16(&text) != android::OK) {
        result.error = "unreadable answer from the control service";
        return result;
    }
    const std::string answer = android::String8(text).c_str();
    if (code != kCommandOk) {
        result.error = answer;
        return result;
    }
    result.value = json::parse(answer, nullptr, false);
    result.ok = !result.value.is_discarded();
    if (!result.ok) {
        result.error = "the control service answered with malformed JSON";
    }
    return result;
}

MonitorControlClient::Result MonitorControlClient::Emit(const json& event) const {
    return Run(json{{"op", "emit"}, {"event", event}});
}

MonitorControlClient::Result MonitorControlClient::SetFault(const std::string& method, const std::string& kind,
                                                            int32_t code, uint32_t times,
                                                            const std::string& message) const {
    return Run(json{{"op", "fault"}, {"method", method}, {"kind", kind}, {"code", code}, {"times", times},
                    {"message", message}});
}

MonitorControlClient::Result MonitorControlClient::ClearFaults() const { return Run(json{{"op", "clearFaults"}}); }

int64_t MonitorControlClient::CallCount(const std::string& method) const {
    const Result counts = Run(json{{"op", "counts"}});
    if (!counts.ok || !counts.value.contains(method)) {
        return -1;
    }
    return counts.value[method].get<int64_t>();
}

MonitorControlClient::Result MonitorControlClient::Listeners() const { return Run(json{{"op", "listeners"}}); }

bool MonitorControlClient::EndsService(const json& command) const {
    if (binder_ == nullptr) {
        return false;
    }
    // The service leaves without answering: the call fails as the process dies.
    Run(command);
    return !binder_->isBinderAlive() || binder_->pingBinder() != android::OK;
}

bool MonitorControlClient::Exit(int32_t code) const { return EndsService(json{{"op", "exit"}, {"code", code}}); }

bool MonitorControlClient::Abort() const { return EndsService(json{{"op", "abort"}}); }

}  // namespace tivra_control
