#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <vector>

#include "Protocol.h"

namespace android::hostbinder {

// Frames arriving on a direct channel, gathered from non-blocking reads.
// Descriptors that travel with one frame, at most: a caller's hello hands
// over two rings and their doorbells.
constexpr size_t kMaxDescriptorsPerFrame = 4;

class FrameReader {
public:
    // Keeps at most `descriptors` descriptors that came with the bytes (an
    // owner takes those of the caller's hello); closes any others at once.
    explicit FrameReader(size_t descriptors = 0) : mMaxDescriptors(descriptors) {}
    enum class Read { kSome, kNothing, kEnded };
    // Reads whatever the socket has now. `mayGrow` is asked before the
    // buffer grows past its usual size for a large frame; when it says no,
    // nothing is read and the reader reports kEnded.
    Read readAvailable(int fd, const std::function<bool(size_t)>& mayGrow = nullptr);
    // Gives back the room a large frame took, once no frame is in part.
    // Returns the bytes given back.
    size_t shrink();
    size_t capacity() const { return mBuffer.size(); }
    // Whether the last read took everything the socket had then (it filled
    // less than the room it had): a further read now would find nothing.
    bool drained() const { return mDrained; }
    // The next whole frame, valid until the next call; false when none is
    // whole yet, or when the bytes are no frame at all (see malformed()).
    bool next(Frame* frame);
    bool malformed() const { return mMalformed; }
    // A descriptor that came with the bytes read, oldest first; -1 if none.
    int takeDescriptor();
    ~FrameReader();

    // Closes descriptors that came but no frame asked for.
    void dropDescriptors();

private:
    const size_t mMaxDescriptors;
    std::deque<int> mDescriptors;
    std::vector<uint8_t> mBuffer;
    size_t mStart = 0;
    size_t mUsed = 0;
    bool mMalformed = false;
    bool mDrained = false;
};

// Writes all of `bytes`; waits for room at most `patience` in all (a peer
// that does not read must not hold the writer forever). False when the peer
// is gone or did not make room in time.
bool writeFully(int fd, const uint8_t* bytes, size_t size, std::chrono::milliseconds patience);

// Writes one frame of `header` then `data` without gathering them first;
// waits for room as writeFully does.
bool writeFrame(int fd, uint32_t command, const void* header, size_t headerSize, const uint8_t* data,
                size_t dataSize, std::chrono::milliseconds patience);

// Sends one frame with descriptors riding on its first byte (-1s skipped).
bool sendWithDescriptors(int fd, const std::vector<uint8_t>& frame, std::initializer_list<int> descriptors);

// Builds a frame of `header` followed by `data` into `out` (replacing it).
void buildFrame(std::vector<uint8_t>* out, uint32_t command, const void* header, size_t headerSize,
                const uint8_t* data, size_t dataSize);

}  // namespace android::hostbinder
