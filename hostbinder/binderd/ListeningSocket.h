#pragma once

#include <string>

namespace android::binderd {

// binderd's listening socket, in a folder that binderd owns and no one else
// can write (created 0700). One binderd per socket: a lock file beside it is
// held for the daemon's life. A stale socket left by a dead binderd is
// replaced, never any other kind of file, and no lock file is made beside
// one. The socket is 0600 whatever the umask, appears at its path only once
// it accepts connections, and is removed when this object goes.
class ListeningSocket {
public:
    // With `othersAllowed` the folder is searchable (0711) and the socket
    // connectable (0666) by everyone: the peer policy decides who is served.
    // Without, a folder that an earlier run left searchable by others alone
    // (0711) is narrowed back to 0700.
    // On failure returns an invalid socket and sets `error`.
    static ListeningSocket open(const std::string& path, bool othersAllowed, std::string* error);
    ListeningSocket(ListeningSocket&& other) noexcept;
    ~ListeningSocket();
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;
    ListeningSocket& operator=(ListeningSocket&&) = delete;

    bool valid() const { return mFd >= 0; }
    int fd() const { return mFd; }

    // The first folder above the socket's own that users other than its
    // owner and group cannot pass through (so that allowing them is in
    // vain), or "".
    static std::string closedToOthers(const std::string& path);

private:
    ListeningSocket(int fd, int lockFd, std::string path);

    int mFd;
    int mLockFd;
    std::string mPath;
};

}  // namespace android::binderd
