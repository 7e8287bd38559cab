#pragma once

#include <string>

namespace android::binderd {

// binderd's listening socket: refuses to start over a live daemon, replaces a
// stale socket file, and removes its file when destroyed.
class ListeningSocket {
public:
    // On failure returns an invalid socket and sets `error`.
    static ListeningSocket open(const std::string& path, std::string* error);
    ListeningSocket(ListeningSocket&& other) noexcept;
    ~ListeningSocket();
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;
    ListeningSocket& operator=(ListeningSocket&&) = delete;

    bool valid() const { return mFd >= 0; }
    int fd() const { return mFd; }

private:
    ListeningSocket(int fd, std::string path);

    int mFd;
    std::string mPath;
};

}  // namespace android::binderd
