#include "ListeningSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace android::binderd {

namespace {

bool fillAddress(const std::string& path, sockaddr_un* address) {
    if (path.empty() || path.size() >= sizeof(address->sun_path)) {
        return false;
    }
    *address = sockaddr_un{};
    address->sun_family = AF_UNIX;
    std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Whether a daemon answers at the address (a stale file refuses connections).
bool someoneListens(const sockaddr_un& address) {
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe < 0) {
        return false;
    }
    const bool answered = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    close(probe);
    return answered;
}

std::string systemError(const std::string& what) { return what + ": " + std::strerror(errno); }

}  // namespace

ListeningSocket ListeningSocket::open(const std::string& path, std::string* error) {
    sockaddr_un address;
    if (!fillAddress(path, &address)) {
        *error = "socket path is empty or too long: " + path;
        return ListeningSocket(-1, "");
    }
    const std::string::size_type slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        const std::string directory = path.substr(0, slash);
        if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
            *error = systemError("cannot create " + directory);
            return ListeningSocket(-1, "");
        }
    }
    if (someoneListens(address)) {
        *error = "another binderd is already running on " + path;
        return ListeningSocket(-1, "");
    }
    unlink(path.c_str());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *error = systemError("socket");
        return ListeningSocket(-1, "");
    }
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 || listen(fd, 128) != 0) {
        *error = systemError("cannot listen on " + path);
        close(fd);
        return ListeningSocket(-1, "");
    }
    return ListeningSocket(fd, path);
}

ListeningSocket::ListeningSocket(int fd, std::string path) : mFd(fd), mPath(std::move(path)) {}

ListeningSocket::ListeningSocket(ListeningSocket&& other) noexcept : mFd(other.mFd), mPath(std::move(other.mPath)) {
    other.mFd = -1;
}

ListeningSocket::~ListeningSocket() {
    if (mFd >= 0) {
        close(mFd);
        unlink(mPath.c_str());
    }
}

}  // namespace android::binderd
