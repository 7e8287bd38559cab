#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace android::hostbinder {

// A ring of one-way calls in memory shared by a channel's two ends: the
// calling thread writes frames, the owner's channel thread reads them, and
// neither makes a system call while the other keeps up. The reader says when
// it goes to sleep; the writer then rings a doorbell once (an eventfd the
// reader's threads wait on, edge-triggered, so that nobody has to read it).
//
// Each end treats the other as hostile: the writer seals the memory's size
// before handing it over (so a shrink cannot fault either process), the
// reader checks the seals, and each checks the counters the other writes
// before trusting them. A broken ring only breaks its own channel.
class SharedRing {
public:
    // A new ring and the descriptor to hand to the reader (the caller closes
    // it once sent); null when memory or descriptors are short.
    static std::unique_ptr<SharedRing> create(size_t capacity, int* descriptor);
    // The reader's view of a ring it was handed; null unless sealed and sized right.
    static std::unique_ptr<SharedRing> attach(int descriptor);
    ~SharedRing();
    SharedRing(const SharedRing&) = delete;
    SharedRing& operator=(const SharedRing&) = delete;

    enum class Push { kDone, kFull, kBroken };
    // Appends one frame; `wakeReader` tells the writer to ring the socket.
    Push push(const void* header, size_t headerSize, const uint8_t* data, size_t dataSize, bool* wakeReader);
    bool hasRoomFor(size_t size) const;

    enum class Pop { kFrame, kEmpty, kBroken };
    // Copies the next frame out (the writer could change the shared bytes).
    Pop pop(std::vector<uint8_t>* frame);
    // Marks the reader asleep unless a frame came meanwhile (then false: drain on).
    bool sleep();

private:
    struct Shared;
    SharedRing(Shared* shared, size_t capacity, size_t mapped);
    uint8_t* data() const;

    Shared* const mShared;
    const size_t mCapacity;
    const size_t mMapped;
    // The writer's own count of bytes written, and the reader's of bytes
    // read: the shared copies are only for the other side.
    uint64_t mWritten = 0;
    uint64_t mRead = 0;
};

}  // namespace android::hostbinder
