#include "Protocol.h"

#include <unistd.h>

#include <cstdlib>

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

std::string defaultSocketPath() {
    if (const char* explicitPath = std::getenv("HOSTBINDER_SOCKET"); explicitPath && *explicitPath) {
        return explicitPath;
    }
    if (const char* runtimeDir = std::getenv("XDG_RUNTIME_DIR"); runtimeDir && *runtimeDir) {
        return std::string(runtimeDir) + "/hostbinder/binder";
    }
    return "/tmp/hostbinder-" + std::to_string(getuid()) + "/binder";
}

}  // namespace android::hostbinder
