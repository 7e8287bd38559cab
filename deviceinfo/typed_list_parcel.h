#pragma once

#include <cstddef>
#include <cstdint>

#include <binder/Parcel.h>

#include "tivra_log.h"

namespace com {
namespace solvane {
namespace pravik {
namespace deviceinfo {

// The log lines of one list type; the size lines take the count as their one
// printf argument.
struct TypedListMessages {
    const char* listName;
    const char* writeSizeFailed;
    const char* writeEntryFailed;
    const char* readSizeFailed;
    const char* readSizeNotice;
    const char* oversize;
    const char* readEntryFailed;
};

// Up to this many entries a list read resizes first and lets the entry reads
// find out that the data is short. Beyond it a count that the remaining data
// cannot hold is refused before the list is touched, so that no parcel can make
// the process allocate gigabytes of empty entries.
constexpr size_t kUncheckedListCount = 1024;

// Both lists travel as an int32 count followed by, per entry, an int32
// presence flag of 1 and the entry's own layout.
template <typename Container>
android::status_t WriteTypedList(android::Parcel* parcel, const Container& entries,
                                 const TypedListMessages& messages) {
    const int32_t count = static_cast<int32_t>(entries.size());
    android::status_t status = parcel->writeInt32(count);
    if (status != android::OK) {
        TIVRA_LOGE(messages.writeSizeFailed, count);
        return status;
    }
    for (const auto& entry : entries) {
        status = parcel->writeInt32(1);
        if (status != android::OK) {
            TIVRA_LOGE("write typed object presence flag to parcel failed");
            return status;
        }
        status = entry.writeToParcel(parcel);
        if (status != android::OK) {
            TIVRA_LOGE("%s", messages.writeEntryFailed);
            return status;
        }
    }
    return android::OK;
}

// Reads a list into `entries`, reusing the entries it already has. `bound` is
// the first count refused as oversize; `minEntryBytes` is the least number of
// bytes one entry (with its presence flag) occupies on the wire.
template <typename Container>
android::status_t ReadTypedList(const android::Parcel* parcel, Container* entries, int32_t bound,
                                size_t minEntryBytes, const TypedListMessages& messages) {
    int32_t count = 0;
    android::status_t status = parcel->readInt32(&count);
    if (status != android::OK) {
        TIVRA_LOGE(messages.readSizeFailed, count);
        return status;
    }
    TIVRA_LOGI(messages.readSizeNotice, count);
    if (count < 0 || count >= bound) {
        TIVRA_LOGE("%s", messages.oversize);
        return -1;
    }
    const size_t wanted = static_cast<size_t>(count);
    if (wanted > kUncheckedListCount && wanted > parcel->dataAvail() / minEntryBytes) {
        TIVRA_LOGE("read %s size %d refused: the parcel holds only %zu more bytes", messages.listName, count,
                   parcel->dataAvail());
        return -1;
    }
    entries->resize(wanted);
    for (auto& entry : *entries) {
        if (parcel->readInt32() != 1) {
            TIVRA_LOGE("read typed object presence flag from parcel failed");
            return -1;
        }
        status = entry.readFromParcel(parcel);
        if (status != android::OK) {
            TIVRA_LOGE("%s", messages.readEntryFailed);
            return status;
        }
    }
    return android::OK;
}

}  // namespace deviceinfo
}  // namespace pravik
}  // namespace solvane
}  // namespace com
