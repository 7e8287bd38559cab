#include "ListeningSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "protocol/UnixSocket.h"

namespace android::binderd {

using hostbinder::socketAccepts;
using hostbinder::unixAddress;

namespace {

std::string systemError(const std::string& what) { return what + ": " + std::strerror(errno); }

std::string folderOf(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// Creates the folder when missing, then refuses one that is not a real
// directory of binderd's own that only it can write.
bool prepareFolder(const std::string& folder, bool othersAllowed, std::string* error) {
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        *error = systemError("cannot create " + folder);
        return false;
    }
    struct stat status{};
    if (lstat(folder.c_str(), &status) != 0) {
        *error = systemError("cannot examine " + folder);
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        *error = "refusing " + folder + ": not a directory (a symlink?)";
    } else if (status.st_uid != geteuid()) {
        *error = "refusing " + folder + ": it belongs to uid " + std::to_string(status.st_uid);
    } else if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        *error = "refusing " + folder + ": others can write to it";
    } else if (othersAllowed && chmod(folder.c_str(), (status.st_mode & 07777) | 0011) != 0) {
        *error = systemError("cannot open " + folder + " to other users");
    } else if (!othersAllowed && (status.st_mode & 0077) == 0011 &&
               chmod(folder.c_str(), status.st_mode & 07700) != 0) {
        // Left searchable by a run that allowed other users: private again.
        *error = systemError("cannot make " + folder + " private again");
    }
    return error->empty();
}

// Takes the lock that makes this the only binderd on `path`.
int lockSocket(const std::string& path, std::string* error) {
    const std::string lockPath = path + ".lock";
    const int fd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        *error = systemError("cannot open " + lockPath);
        return -1;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        *error = errno == EWOULDBLOCK ? "another binderd is already running on " + path
                                      : systemError("cannot lock " + lockPath);
        close(fd);
        return -1;
    }
    return fd;
}

// Whether `path` is free or holds a socket (stale or live): anything else is
// not binderd's to touch. Sets `present` when a socket is there.
bool socketOrNothing(const std::string& path, bool* present, std::string* error) {
    struct stat status{};
    *present = false;
    if (lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) {
            return true;
        }
        *error = systemError("cannot examine " + path);
        return false;
    }
    if (!S_ISSOCK(status.st_mode)) {
        *error = path + " exists and is not a socket: not replacing it";
        return false;
    }
    *present = true;
    return true;
}

// With the lock held, a socket at `path` is stale unless some other program
// listens on it; any other file is not binderd's to remove.
bool clearStaleSocket(const std::string& path, std::string* error) {
    bool present = false;
    if (!socketOrNothing(path, &present, error)) {
        return false;
    }
    if (!present) {
        return true;
    }
    if (socketAccepts(path)) {
        *error = "another program listens on " + path;
        return false;
    }
    if (unlink(path.c_str()) != 0) {
        *error = systemError("cannot remove the stale socket " + path);
        return false;
    }
    return true;
}

}  // namespace

ListeningSocket ListeningSocket::open(const std::string& path, bool othersAllowed, std::string* error) {
    // The socket is bound under a name of its own beside `path`, made to
    // listen, then renamed to `path`: whoever sees a socket at `path` can
    // connect to it at once, never between bind and listen.
    const std::string staging = path + ".new";
    sockaddr_un stagingAddress;
    if (path.empty() || !unixAddress(staging, &stagingAddress)) {
        *error = "socket path is empty or too long: " + path;
        return ListeningSocket(-1, -1, "");
    }
    if (!prepareFolder(folderOf(path), othersAllowed, error)) {
        return ListeningSocket(-1, -1, "");
    }
    // A path that holds some other file gets no lock file beside it; the
    // check is made again under the lock.
    bool present = false;
    if (!socketOrNothing(path, &present, error)) {
        return ListeningSocket(-1, -1, "");
    }
    const int lockFd = lockSocket(path, error);
    if (lockFd < 0) {
        return ListeningSocket(-1, -1, "");
    }
    // Under the lock, a socket left at the staging name is a dead binderd's.
    if (!clearStaleSocket(path, error) || !socketOrNothing(staging, &present, error) ||
        (present && unlink(staging.c_str()) != 0)) {
        if (error->empty()) {
            *error = systemError("cannot remove the stale socket " + staging);
        }
        close(lockFd);
        return ListeningSocket(-1, -1, "");
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    // The socket file is born without permissions for anyone else, whatever
    // the umask; then it gets exactly its mode.
    const mode_t umaskBefore = umask(0177);
    const bool bound =
        fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&stagingAddress), sizeof(stagingAddress)) == 0;
    umask(umaskBefore);
    if (!bound || chmod(staging.c_str(), othersAllowed ? 0666 : 0600) != 0 || listen(fd, SOMAXCONN) != 0 ||
        rename(staging.c_str(), path.c_str()) != 0) {
        *error = systemError("cannot listen on " + path);
        if (bound) {
            unlink(staging.c_str());
        }
        if (fd >= 0) {
            close(fd);
        }
        close(lockFd);
        return ListeningSocket(-1, -1, "");
    }
    return ListeningSocket(fd, lockFd, path);
}

std::string ListeningSocket::closedToOthers(const std::string& path) {
    std::string folder = folderOf(path);
    while (folder != "/" && folder != ".") {
        folder = folderOf(folder);
        struct stat status{};
        if (stat(folder.c_str(), &status) == 0 && (status.st_mode & S_IXOTH) == 0) {
            return folder;
        }
    }
    return "";
}

ListeningSocket::ListeningSocket(int fd, int lockFd, std::string path)
    : mFd(fd), mLockFd(lockFd), mPath(std::move(path)) {}

ListeningSocket::ListeningSocket(ListeningSocket&& other) noexcept
    : mFd(other.mFd), mLockFd(other.mLockFd), mPath(std::move(other.mPath)) {
    other.mFd = -1;
    other.mLockFd = -1;
}

ListeningSocket::~ListeningSocket() {
    if (mFd >= 0) {
        close(mFd);
        unlink(mPath.c_str());
    }
    // The lock file stays: removing it would let two daemons lock two files.
    if (mLockFd >= 0) {
        close(mLockFd);
    }
}

}  // namespace android::binderd
