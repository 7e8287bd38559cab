#pragma once

// Where a process finds binderd, for programs that run beside it.
#include <string>

namespace android::hostbinder {

// $HOSTBINDER_SOCKET, else $XDG_RUNTIME_DIR/hostbinder/binder, else
// /tmp/hostbinder-<uid>/binder.
std::string defaultSocketPath();

// Whether something accepts connections on the Unix socket at `path`.
bool socketAccepts(const std::string& path);

}  // namespace android::hostbinder
