#include "epoll_relay.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>

#include "stream_echo.h"

namespace tivra_bench {

void relayUntilClosed(int clientFd, int serverFd) {
    const int epollFd = epoll_create1(EPOLL_CLOEXEC);
    for (int fd : {clientFd, serverFd}) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event);
    }
    char buffer[64 * 1024];
    for (bool open = true; open;) {
        epoll_event events[2];
        const int count = epoll_wait(epollFd, events, 2, -1);
        if (count < 0 && errno != EINTR) {
            break;
        }
        for (int i = 0; i < count && open; ++i) {
            const int from = events[i].data.fd;
            const ssize_t n = read(from, buffer, sizeof(buffer));
            open = n > 0 && writeAll(from == clientFd ? serverFd : clientFd, buffer, static_cast<size_t>(n));
        }
    }
    close(epollFd);
}

}  // namespace tivra_bench
