#pragma once

#include <sys/types.h>

namespace tivra_bench {

// CPU time (user and system) a process has used so far, in microseconds, from
// /proc/<pid>/stat, in steps of one clock tick (10 ms with USER_HZ 100); -1
// when unreadable. Tells which path a benchmark's calls took: a call relayed
// through binderd costs binderd CPU time, a direct call nearly none.
double cpuMicroseconds(pid_t pid);

}  // namespace tivra_bench
