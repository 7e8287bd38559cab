#pragma once

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tivra_tools {

// Why stdout failed first (an errno), or 0.
inline std::atomic<int>& FirstWriteError() {
    static std::atomic<int> error{0};
    return error;
}

// Whether everything written to stdout so far reached it; flushes it first.
// Safe on any thread.
inline bool StdoutWritten() {
    if (std::fflush(stdout) != 0) {
        int none = 0;
        FirstWriteError().compare_exchange_strong(none, errno);
        return false;
    }
    return std::ferror(stdout) == 0;
}

// The exit status of a program whose work ended with `status`, once stdout is
// flushed: a write that failed (a full disk, a closed descriptor) is reported
// as "PROGRAM: write error: REASON", and makes a success a failure (1).
inline int FinishOutput(const char* program, int status) {
    if (StdoutWritten()) {
        return status;
    }
    const int error = FirstWriteError();
    if (error != 0) {
        std::fprintf(stderr, "%s: write error: %s\n", program, std::strerror(error));
    } else {
        std::fprintf(stderr, "%s: write error\n", program);
    }
    return status == 0 ? 1 : status;
}

}  // namespace tivra_tools
