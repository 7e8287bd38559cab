// Either end of a direct channel against a hostile peer: the writer of a
// shared ring (a caller's calls, or an owner's replies) writes what it likes
// into it, counters included, and onto the socket, and changes the shared
// bytes while the reader reads them. The reader must only ever hand on whole
// frames that lie inside what it copied out, and never read outside the
// ring; the writer must not trust the reader's counter either.
//
// Input: [u64 written][u64 read (what the owner last said it read)] then the
// ring's bytes, which also go down the socket in pieces of the input's size.
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "protocol/ChannelIo.h"
#include "protocol/SharedRing.h"

namespace {

using namespace android::hostbinder;

constexpr size_t kCapacity = 4096;
// The ring's shared counters come first, each on its own cache line.
constexpr size_t kWrittenAt = 0, kReadAt = 64, kDataAt = 192;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 16) {
        return 0;
    }
    int memory = -1;
    std::unique_ptr<SharedRing> writer = SharedRing::create(kCapacity, &memory);
    std::unique_ptr<SharedRing> reader = writer != nullptr ? SharedRing::attach(memory) : nullptr;
    if (reader == nullptr) {
        return 0;
    }
    // The hostile caller's own view of the same memory.
    auto* shared = static_cast<uint8_t*>(mmap(nullptr, kDataAt + kCapacity, PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0));
    close(memory);
    std::memcpy(shared + kWrittenAt, data, 8);
    std::memcpy(shared + kReadAt, data + 8, 8);
    std::memcpy(shared + kDataAt, data + 16, std::min(size - 16, kCapacity));
    std::vector<uint8_t> bytes;
    for (int i = 0; i < 64 && reader->pop(&bytes) == SharedRing::Pop::kFrame; ++i) {
        // Touch every byte of the frame handed on, so a bad bound shows under ASan.
        Frame frame;
        size_t consumed = 0;
        if (decodeFrame(bytes.data(), bytes.size(), &frame, &consumed) == DecodeStatus::kComplete) {
            volatile uint8_t sink = 0;
            for (uint32_t at = 0; at < frame.payloadSize; ++at) sink = sink ^ frame.payload[at];
        }
        // The caller moves its counter under the owner's feet.
        shared[kWrittenAt + (i % 8)] ^= data[i % size];
    }
    bool wake = false;
    writer->push(data, std::min<size_t>(size, 64), data, std::min<size_t>(size, 128), &wake);
    munmap(shared, kDataAt + kCapacity);

    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return 0;
    }
    FrameReader frames(1);
    const size_t piece = 1 + data[0] % 64;
    for (size_t at = 16; at < size; at += piece) {
        (void)!send(ends[0], data + at, std::min(piece, size - at), MSG_DONTWAIT);
        frames.readAvailable(ends[1], [](size_t bytes) { return bytes < (1u << 20); });
        Frame next;
        while (frames.next(&next)) {
        }
        frames.shrink();
    }
    close(ends[0]);
    close(ends[1]);
    return 0;
}
