#include "protocol/UnixSocket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace android::hostbinder {

bool unixAddress(const std::string& path, sockaddr_un* address) {
    *address = sockaddr_un{};
    if (path.size() >= sizeof(address->sun_path)) {
        return false;
    }
    address->sun_family = AF_UNIX;
    std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return true;
}

void setSocketTimeouts(int fd, std::chrono::seconds timeout) {
    const timeval interval{static_cast<time_t>(timeout.count()), 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &interval, sizeof(interval));
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &interval, sizeof(interval));
}

int connectUnixSocket(const std::string& path, std::chrono::seconds timeout) {
    sockaddr_un address;
    if (!unixAddress(path, &address)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    // A non-blocking connect would bound it too; a socket's timeout is simpler.
    setSocketTimeouts(fd, timeout);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int failure = errno;
        close(fd);
        errno = failure;
        return -1;
    }
    return fd;
}

bool socketAccepts(const std::string& path) {
    const int fd = connectUnixSocket(path);
    if (fd < 0) {
        return false;
    }
    close(fd);
    return true;
}

}  // namespace android::hostbinder
