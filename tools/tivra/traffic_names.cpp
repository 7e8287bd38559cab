#include "traffic_names.h"

#include <utils/Errors.h>

#include <algorithm>
#include <iterator>

#include "i_device_change_listener.h"
#include "i_device_listener.h"
#include "i_device_monitor_service.h"
#include "monitor_control_protocol.h"
#include "protocol/Protocol.h"

namespace tivra_cli {
namespace {

namespace service = com::solvane::pravik::service;
using namespace android::hostbinder;

struct Method {
    uint32_t code;
    const char* name;
};

// The rows of an interface's transaction table, as (code, name).
#define TIVRA_METHOD_ROW(C, code, method, flags, parameters, arguments) {code, #method},

const Method kMonitorServiceMethods[] = {TIVRA_DEVICE_MONITOR_SERVICE_TRANSACTIONS(TIVRA_METHOD_ROW, _)};
const Method kChangeListenerMethods[] = {TIVRA_DEVICE_CHANGE_LISTENER_TRANSACTIONS(TIVRA_METHOD_ROW, _)};
const Method kListenerMethods[] = {TIVRA_DEVICE_LISTENER_TRANSACTIONS(TIVRA_METHOD_ROW, _)};
const Method kControlMethods[] = {{tivra_control::kCommandTransaction, "command"}};
const Method kServiceManagerMethods[] = {{kGetService, "getService"},
                                         {kCheckService, "checkService"},
                                         {kAddService, "addService"},
                                         {kListServices, "listServices"},
                                         {kRegisterForNotifications, "registerForNotifications"},
                                         {kUnregisterForNotifications, "unregisterForNotifications"},
                                         {kIsDeclared, "isDeclared"}};
const Method kServiceCallbackMethods[] = {{android::IBinder::FIRST_CALL_TRANSACTION, "onRegistration"}};

struct Interface {
    const char* descriptor;
    const Method* begin;
    const Method* end;
};

const Interface kInterfaces[] = {
    {service::kDeviceMonitorServiceDescriptor, std::begin(kMonitorServiceMethods), std::end(kMonitorServiceMethods)},
    {service::kDeviceChangeListenerDescriptor, std::begin(kChangeListenerMethods), std::end(kChangeListenerMethods)},
    {service::kDeviceListenerDescriptor, std::begin(kListenerMethods), std::end(kListenerMethods)},
    {tivra_control::kControlDescriptor, std::begin(kControlMethods), std::end(kControlMethods)},
    {"android.os.IServiceManager", std::begin(kServiceManagerMethods), std::end(kServiceManagerMethods)},
    {"android.os.IServiceCallback", std::begin(kServiceCallbackMethods), std::end(kServiceCallbackMethods)},
};

std::string LastPart(const std::string& descriptor) { return descriptor.substr(descriptor.rfind('.') + 1); }

}  // namespace

std::string MethodName(const std::string& descriptor, uint32_t code, bool toServiceManager) {
    const std::string named = toServiceManager ? std::string("android.os.IServiceManager") : descriptor;
    for (const Interface& interface : kInterfaces) {
        if (named != interface.descriptor) {
            continue;
        }
        const Method* method =
            std::find_if(interface.begin, interface.end, [code](const Method& row) { return row.code == code; });
        if (method != interface.end) {
            return LastPart(named) + "." + method->name;
        }
    }
    const std::string number = "code " + std::to_string(code);
    return named.empty() ? number : LastPart(named) + " " + number;
}

std::vector<std::string> ServiceMethodNames() {
    std::vector<std::string> names;
    for (const Method& method : kMonitorServiceMethods) names.push_back(method.name);
    return names;
}

std::string StatusName(int32_t status) {
    static const std::pair<android::status_t, const char*> kNames[] = {
        {android::OK, "OK"},
        {android::UNKNOWN_ERROR, "UNKNOWN_ERROR"},
        {android::NO_MEMORY, "NO_MEMORY"},
        {android::INVALID_OPERATION, "INVALID_OPERATION"},
        {android::BAD_VALUE, "BAD_VALUE"},
        {android::BAD_TYPE, "BAD_TYPE"},
        {android::NAME_NOT_FOUND, "NAME_NOT_FOUND"},
        {android::PERMISSION_DENIED, "PERMISSION_DENIED"},
        {android::NO_INIT, "NO_INIT"},
        {android::ALREADY_EXISTS, "ALREADY_EXISTS"},
        {android::DEAD_OBJECT, "DEAD_OBJECT"},
        {android::FAILED_TRANSACTION, "FAILED_TRANSACTION"},
        {android::BAD_INDEX, "BAD_INDEX"},
        {android::NOT_ENOUGH_DATA, "NOT_ENOUGH_DATA"},
        {android::WOULD_BLOCK, "WOULD_BLOCK"},
        {android::TIMED_OUT, "TIMED_OUT"},
        {android::UNKNOWN_TRANSACTION, "UNKNOWN_TRANSACTION"},
        {android::FDS_NOT_ALLOWED, "FDS_NOT_ALLOWED"},
        {android::UNEXPECTED_NULL, "UNEXPECTED_NULL"},
    };
    for (const auto& [value, name] : kNames) {
        if (value == status) {
            return name;
        }
    }
    return std::to_string(status);
}

}  // namespace tivra_cli
