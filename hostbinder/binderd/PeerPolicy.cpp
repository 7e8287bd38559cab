#include "PeerPolicy.h"

#include <unistd.h>

#include <cerrno>
#include <vector>

namespace android::binderd {

PeerPolicy::PeerPolicy() : mOwner(geteuid()) {}

bool PeerPolicy::admits(int fd, const ucred& peer) const {
    if (peer.uid == mOwner || peer.uid == 0 || mUids.count(peer.uid) != 0 || mGroups.count(peer.gid) != 0) {
        return true;
    }
    if (mGroups.empty()) {
        return false;
    }
    // The peer's supplementary groups as they were when it connected.
    std::vector<gid_t> groups(64);
    socklen_t length = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) != 0) {
        if (errno != ERANGE) {
            return false;
        }
        groups.resize(length / sizeof(gid_t));
        if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) != 0) {
            return false;
        }
    }
    groups.resize(length / sizeof(gid_t));
    for (gid_t group : groups) {
        if (mGroups.count(group) != 0) {
            return true;
        }
    }
    return false;
}

}  // namespace android::binderd
