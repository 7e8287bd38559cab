#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <set>

namespace android::binderd {

// Which peers binderd serves: its own uid and root, plus the uids and groups
// it was told to allow. Judged on the credentials the kernel gives for the
// socket (SO_PEERCRED, SO_PEERGROUPS), never on anything a peer writes.
class PeerPolicy {
public:
    PeerPolicy();

    void allowUid(uid_t uid) { mUids.insert(uid); }
    void allowGroup(gid_t gid) { mGroups.insert(gid); }
    // Whether anyone but binderd's own uid and root may connect.
    bool othersAllowed() const { return !mUids.empty() || !mGroups.empty(); }
    bool admits(int fd, const ucred& peer) const;

private:
    uid_t mOwner;
    std::set<uid_t> mUids;
    std::set<gid_t> mGroups;
};

}  // namespace android::binderd
