#include "SharedRing.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

namespace android::hostbinder {

namespace {

constexpr uint32_t kPadding = 0xffffffffu;
constexpr unsigned kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

}  // namespace

struct SharedRing::Shared {
    alignas(64) std::atomic<uint64_t> written;
    alignas(64) std::atomic<uint64_t> read;
    alignas(64) std::atomic<uint32_t> asleep;
};
static_assert(std::atomic<uint64_t>::is_always_lock_free, "the ring's counters live in shared memory");

SharedRing::SharedRing(Shared* shared, size_t capacity, size_t mapped)
    : mShared(shared), mCapacity(capacity), mMapped(mapped) {}

SharedRing::~SharedRing() { munmap(mShared, mMapped); }

uint8_t* SharedRing::data() const { return reinterpret_cast<uint8_t*>(mShared) + sizeof(Shared); }

std::unique_ptr<SharedRing> SharedRing::create(size_t capacity, int* descriptor) {
    const int fd = memfd_create("hostbinder-ring", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) {
        return nullptr;
    }
    const size_t size = sizeof(Shared) + capacity;
    void* memory = MAP_FAILED;
    if (ftruncate(fd, static_cast<off_t>(size)) == 0 && fcntl(fd, F_ADD_SEALS, kSeals) == 0) {
        memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    if (memory == MAP_FAILED) {
        close(fd);
        return nullptr;
    }
    *descriptor = fd;
    return std::unique_ptr<SharedRing>(new SharedRing(static_cast<Shared*>(memory), capacity, size));
}

std::unique_ptr<SharedRing> SharedRing::attach(int descriptor) {
    struct stat status {};
    const int seals = fcntl(descriptor, F_GET_SEALS);
    if (seals < 0 || (static_cast<unsigned>(seals) & kSeals) != kSeals || fstat(descriptor, &status) != 0 ||
        status.st_size <= static_cast<off_t>(sizeof(Shared))) {
        return nullptr;
    }
    const size_t size = static_cast<size_t>(status.st_size);
    const size_t capacity = size - sizeof(Shared);
    // The counters wrap by the capacity, which must be a power of two.
    if ((capacity & (capacity - 1)) != 0 || capacity > (64u << 20)) {
        return nullptr;
    }
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    return std::unique_ptr<SharedRing>(new SharedRing(static_cast<Shared*>(memory), capacity, size));
}

bool SharedRing::hasRoomFor(size_t size) const {
    const uint64_t read = mShared->read.load(std::memory_order_acquire);
    if (read > mWritten || mWritten - read > mCapacity) {
        return false;
    }
    // The worst case pads to the end of the ring first.
    return mCapacity - (mWritten - read) >= 2 * (sizeof(uint32_t) + size);
}

SharedRing::Push SharedRing::push(const void* header, size_t headerSize, const uint8_t* data, size_t dataSize,
                                  bool* wakeReader) {
    const uint64_t read = mShared->read.load(std::memory_order_acquire);
    if (read > mWritten || mWritten - read > mCapacity) {
        return Push::kBroken;
    }
    const size_t record = (sizeof(uint32_t) + headerSize + dataSize + 3) & ~size_t{3};
    size_t at = static_cast<size_t>(mWritten % mCapacity);
    const size_t tail = mCapacity - at;
    const size_t needed = record <= tail ? record : tail + record;
    if (mCapacity - (mWritten - read) < needed || record > mCapacity / 2) {
        return Push::kFull;
    }
    uint8_t* ring = this->data();
    if (record > tail) {
        // Records never wrap: the rest of the ring is skipped.
        if (tail >= sizeof(uint32_t)) {
            std::memcpy(ring + at, &kPadding, sizeof(kPadding));
        }
        mWritten += tail;
        at = 0;
    }
    const uint32_t length = static_cast<uint32_t>(headerSize + dataSize);
    std::memcpy(ring + at, &length, sizeof(length));
    std::memcpy(ring + at + sizeof(length), header, headerSize);
    if (dataSize > 0) {
        std::memcpy(ring + at + sizeof(length) + headerSize, data, dataSize);
    }
    mWritten += record;
    mShared->written.store(mWritten, std::memory_order_seq_cst);
    *wakeReader = mShared->asleep.load(std::memory_order_seq_cst) != 0 &&
                  mShared->asleep.exchange(0, std::memory_order_seq_cst) != 0;
    return Push::kDone;
}

SharedRing::Pop SharedRing::pop(std::vector<uint8_t>* frame) {
    const uint64_t written = mShared->written.load(std::memory_order_acquire);
    if (written < mRead || written - mRead > mCapacity) {
        return Pop::kBroken;
    }
    while (mRead < written) {
        const size_t at = static_cast<size_t>(mRead % mCapacity);
        const size_t tail = mCapacity - at;
        uint32_t length = kPadding;
        if (tail >= sizeof(length)) {
            std::memcpy(&length, data() + at, sizeof(length));
        }
        if (length == kPadding) {
            mRead += tail;
            continue;
        }
        const size_t record = (sizeof(uint32_t) + size_t{length} + 3) & ~size_t{3};
        if (record > tail || record > written - mRead) {
            return Pop::kBroken;
        }
        frame->assign(data() + at + sizeof(length), data() + at + sizeof(length) + length);
        mRead += record;
        mShared->read.store(mRead, std::memory_order_release);
        return Pop::kFrame;
    }
    mShared->read.store(mRead, std::memory_order_release);
    return Pop::kEmpty;
}

bool SharedRing::sleep() {
    mShared->asleep.store(1, std::memory_order_seq_cst);
    if (mShared->written.load(std::memory_order_seq_cst) != mRead) {
        mShared->asleep.store(0, std::memory_order_relaxed);
        return false;
    }
    return true;
}

}  // namespace android::hostbinder
