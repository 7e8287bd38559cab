#pragma once

// Unix stream sockets by path: one way to make an address and to connect.
#include <sys/un.h>

#include <chrono>
#include <string>

#include <hostbinder/Socket.h>

namespace android::hostbinder {

// The address of `path`; false when the path does not fit one.
bool unixAddress(const std::string& path, sockaddr_un* address);

// Bounds each send and receive on `fd` to `timeout` (0: no bound).
void setSocketTimeouts(int fd, std::chrono::seconds timeout);

// A connected close-on-exec socket, or -1 with errno set (ENAMETOOLONG when
// the path does not fit an address). A non-zero `timeout` bounds the connect
// and every later send and receive.
int connectUnixSocket(const std::string& path, std::chrono::seconds timeout = std::chrono::seconds(0));

}  // namespace android::hostbinder
