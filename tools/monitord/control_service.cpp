#include "control_service.h"

#include <binder/Parcel.h>
#include <utils/String8.h>

#include "monitor_control_protocol.h"
#include "scenario.h"

namespace tivra_monitord {

ControlService::ControlService(ControlCommands& commands)
    : commands_(commands), descriptor_(tivra_control::kControlDescriptor) {}

const android::String16& ControlService::getInterfaceDescriptor() const { return descriptor_; }

android::status_t ControlService::onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                             uint32_t flags) {
    if (code != tivra_control::kCommandTransaction) {
        return BBinder::onTransact(code, data, reply, flags);
    }
    if (!data.checkInterface(this)) {
        return android::BAD_TYPE;
    }
    android::String16 request;
    const android::status_t status = data.readString16(&request);
    if (status != android::OK) {
        return status;
    }
    int32_t result = tivra_control::kCommandOk;
    std::string answer;
    try {
        answer = commands_.Run(nlohmann::json::parse(android::String8(request).c_str())).dump();
    } catch (const nlohmann::json::exception& error) {
        result = tivra_control::kCommandFailed;
        answer = std::string("control command: ") + error.what();
    } catch (const ScenarioError& error) {
        result = tivra_control::kCommandFailed;
        answer = error.what();
    }
    const android::status_t written = reply->writeInt32(result);
    return written != android::OK ? written : reply->writeString16(android::String16(answer.c_str()));
}

}  // namespace tivra_monitord
