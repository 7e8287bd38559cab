#include "service_diagnosis.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include <binder/ProcessState.h>

#include "protocol/Protocol.h"

namespace tivra_cli {
namespace {

bool Accepts(const std::string& path) {
    sockaddr_un address{};
    if (path.size() >= sizeof(address.sun_path)) {
        return false;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    const bool connected = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    close(fd);
    return connected;
}

}  // namespace

bool BinderdIsRunning() { return Accepts(android::hostbinder::defaultSocketPath()); }

std::string ExplainUnavailableService() {
    // binderd turned this process away or did not answer: its reason first.
    const std::string refusal = android::ProcessState::self()->lastConnectionError();
    if (!refusal.empty()) {
        return refusal;
    }
    const std::string path = android::hostbinder::defaultSocketPath();
    if (!Accepts(path)) {
        return "binderd is not running at " + path +
               ": start it with 'binderd &' (or point HOSTBINDER_SOCKET at a running one)";
    }
    return "no device monitor service is registered with binderd at " + path +
           ": start one, for example 'tivra-monitord &'";
}

}  // namespace tivra_cli
