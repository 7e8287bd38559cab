// Feeds arbitrary bytes to one record's readFromParcel. A read may fail, but it
// must never crash, read outside the parcel or allocate without bound.
#include <cstddef>
#include <cstdint>

#include <android/log.h>
#include <binder/Parcel.h>

#include "device_info_external.h"
#include "device_info_external_list.h"
#include "device_info_type_inner.h"
#include "node_basic_info_inner.h"
#include "node_basic_info_list.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = (__android_log_set_logger([](const struct __android_logger_data*, const char*) {}), true);
    (void)quiet;
    android::Parcel parcel;
    if (parcel.setData(data, size) != android::OK) {
        return 0;
    }
    com::solvane::pravik::deviceinfo::FUZZ_RECORD record;
    if (record.readFromParcel(&parcel) == android::OK) {
        // Whatever was read must write back out.
        android::Parcel out;
        record.writeToParcel(&out);
    }
    return 0;
}
