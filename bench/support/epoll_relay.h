#pragma once

namespace tivra_bench {

// The smallest honest middleman: one thread, one epoll set, forwarding
// whatever arrives on either socket to the other until one side closes. It
// is the floor for any daemon that relays messages between processes.
void relayUntilClosed(int clientFd, int serverFd);

}  // namespace tivra_bench
