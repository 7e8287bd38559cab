#include "stream_echo.h"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace tivra_bench {

namespace {

// Moves exactly `size` bytes with `transfer` (read or write), through short
// transfers and interruptions; false on end of stream or error.
template <typename Transfer, typename Byte>
bool transferAll(Transfer transfer, int fd, Byte* cursor, size_t size) {
    while (size > 0) {
        const ssize_t n = transfer(fd, cursor, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        cursor += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

bool writeAll(int fd, const void* bytes, size_t size) {
    return transferAll(write, fd, static_cast<const char*>(bytes), size);
}

bool readExactly(int fd, void* bytes, size_t size) { return transferAll(read, fd, static_cast<char*>(bytes), size); }

void echoUntilClosed(int fd, size_t messageSize) {
    std::vector<char> message(messageSize);
    while (readExactly(fd, message.data(), message.size()) && writeAll(fd, message.data(), message.size())) {
    }
}

bool exchange(int fd, void* message, size_t size) { return writeAll(fd, message, size) && readExactly(fd, message, size); }

}  // namespace tivra_bench
