#include "service_diagnosis.h"

#include <binder/ProcessState.h>
#include <hostbinder/Socket.h>

namespace tivra_cli {

bool BinderdIsRunning() { return android::hostbinder::socketAccepts(android::hostbinder::defaultSocketPath()); }

std::string ExplainUnavailableService() {
    // binderd turned this process away or did not answer: its reason first.
    const std::string refusal = android::ProcessState::self()->lastConnectionError();
    if (!refusal.empty()) {
        return refusal;
    }
    const std::string path = android::hostbinder::defaultSocketPath();
    if (!android::hostbinder::socketAccepts(path)) {
        return "binderd is not running at " + path +
               ": start it with 'binderd &' (or point HOSTBINDER_SOCKET at a running one)";
    }
    return "no device monitor service is registered with binderd at " + path +
           ": start one, for example 'tivra-monitord &'";
}

}  // namespace tivra_cli
