#include "Protocol.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include <hostbinder/Socket.h>

namespace android::hostbinder {

DecodeStatus decodeFrame(const uint8_t* buffer, size_t size, Frame* frame, size_t* consumed) {
    FrameHeader header;
    if (size < sizeof(header)) {
        return DecodeStatus::kIncomplete;
    }
    std::memcpy(&header, buffer, sizeof(header));
    // Refused before waiting for the bytes, so a huge prefix never makes
    // anyone buffer it.
    if (header.payloadSize > kMaxPayload) {
        return DecodeStatus::kMalformed;
    }
    if (size - sizeof(header) < header.payloadSize) {
        return DecodeStatus::kIncomplete;
    }
    frame->command = header.command;
    frame->payload = buffer + sizeof(header);
    frame->payloadSize = header.payloadSize;
    *consumed = sizeof(header) + header.payloadSize;
    return DecodeStatus::kComplete;
}

bool parseTransaction(const Frame& frame, TransactionView* view) {
    if (frame.payloadSize < sizeof(TransactionHeader)) {
        return false;
    }
    std::memcpy(&view->header, frame.payload, sizeof(TransactionHeader));
    const uint64_t dataSize = view->header.dataSize;
    const uint64_t offsetsSize = uint64_t{view->header.offsetsCount} * sizeof(uint64_t);
    if (view->header.offsetsCount > kMaxObjects || dataSize + offsetsSize > kMaxTransactionBytes ||
        sizeof(TransactionHeader) + dataSize + offsetsSize != frame.payloadSize) {
        return false;
    }
    view->data = frame.payload + sizeof(TransactionHeader);
    view->offsets = view->data + dataSize;
    return true;
}

void appendFrame(std::vector<uint8_t>* out, uint32_t command, const void* payload, size_t size) {
    const FrameHeader header{static_cast<uint32_t>(size), command};
    const auto* headerBytes = reinterpret_cast<const uint8_t*>(&header);
    out->insert(out->end(), headerBytes, headerBytes + sizeof(header));
    if (size > 0) {
        const auto* bytes = static_cast<const uint8_t*>(payload);
        out->insert(out->end(), bytes, bytes + size);
    }
}

void appendTransaction(std::vector<uint8_t>* out, uint32_t command, const TransactionHeader& header,
                       const uint8_t* data, const uint64_t* offsets) {
    const size_t offsetsSize = size_t{header.offsetsCount} * sizeof(uint64_t);
    const size_t payloadSize = sizeof(header) + header.dataSize + offsetsSize;
    const FrameHeader frameHeader{static_cast<uint32_t>(payloadSize), command};
    const size_t start = out->size();
    out->resize(start + sizeof(frameHeader) + payloadSize);
    uint8_t* cursor = out->data() + start;
    std::memcpy(cursor, &frameHeader, sizeof(frameHeader));
    cursor += sizeof(frameHeader);
    std::memcpy(cursor, &header, sizeof(header));
    cursor += sizeof(header);
    if (header.dataSize > 0) {
        std::memcpy(cursor, data, header.dataSize);
        cursor += header.dataSize;
    }
    if (offsetsSize > 0) {
        std::memcpy(cursor, offsets, offsetsSize);
    }
}

const char* refusalText(uint32_t reason) {
    switch (reason) {
        case kRefusedByPolicy:
            return "this user may not use it";
        case kTooManyConnections:
            return "too many connections";
        case kOutOfDescriptors:
            return "it ran out of file descriptors";
        case kNoHello:
            return "no hello in time";
        case kNotAllowedToWatch:
            return "only binderd's own user and root may watch its traffic";
        case kEvicted:
            return "it held the most of what its user shares with others, when that ran out";
        default:
            return "unknown reason";
    }
}

std::string defaultSocketPath() {
    if (const char* explicitPath = std::getenv("HOSTBINDER_SOCKET"); explicitPath && *explicitPath) {
        return explicitPath;
    }
    if (const char* runtimeDir = std::getenv("XDG_RUNTIME_DIR"); runtimeDir && *runtimeDir) {
        return std::string(runtimeDir) + "/hostbinder/binder";
    }
    return "/tmp/hostbinder-" + std::to_string(getuid()) + "/binder";
}

bool socketChosenByUser() {
    const char* explicitPath = std::getenv("HOSTBINDER_SOCKET");
    return explicitPath != nullptr && *explicitPath != 0;
}

std::string unsafeSocketReason(const std::string& path, bool chosenByUser) {
    struct stat status{};
    if (chosenByUser) {
        // Absent is not unsafe: nothing listens there.
        return stat(path.c_str(), &status) == 0 && !S_ISSOCK(status.st_mode) ? path + " is not a socket" : "";
    }
    const std::string::size_type slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    if (lstat(folder.c_str(), &status) != 0) {
        return "";
    }
    if (!S_ISDIR(status.st_mode)) {
        return "its folder " + folder + " is not a directory (a symlink?)";
    }
    if (status.st_uid != getuid() && status.st_uid != 0) {
        return "its folder " + folder + " belongs to uid " + std::to_string(status.st_uid);
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return "its folder " + folder + " is writable by others";
    }
    return "";
}

}  // namespace android::hostbinder
