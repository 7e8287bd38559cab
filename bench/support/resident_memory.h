#pragma once

#include <sys/types.h>

namespace tivra_bench {

// VmRSS of a process in KiB from /proc/<pid>/status; -1 when unreadable.
long residentKibibytes(pid_t pid);

}  // namespace tivra_bench
