#pragma once

#include <cstddef>

namespace tivra_bench {

// Whole-message I/O on a blocking stream socket; false once the peer is gone.
bool writeAll(int fd, const void* bytes, size_t size);
bool readExactly(int fd, void* bytes, size_t size);

// Sends back every message of `messageSize` bytes until the peer closes.
void echoUntilClosed(int fd, size_t messageSize);

// One request and its answer of the same size: the unit of the socket baselines.
bool exchange(int fd, void* message, size_t size);

}  // namespace tivra_bench
