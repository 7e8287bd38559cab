#include <binder/Parcel.h>
#include <binder/Status.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "device_info_external.h"
#include "device_info_external_list.h"
#include "device_info_type_inner.h"
#include "log_capture.h"
#include "node_basic_info_inner.h"
#include "node_basic_info_list.h"

namespace {

using android::Parcel;
using android::status_t;
using android::binder::Status;
using namespace com::solvane::pravik::deviceinfo;

// A valid parcel of one kind and a reader that starts from a fresh object.
struct SweepCase {
    const char* name;
    std::function<void(Parcel*)> write;
    std::function<status_t(const Parcel&)> read;
};

template <typename T>
std::function<status_t(const Parcel&)> ReadFresh() {
    return [](const Parcel& parcel) {
        T value;
        return value.readFromParcel(&parcel);
    };
}

template <typename T>
std::function<void(Parcel*)> WriteValue(T value) {
    return [value](Parcel* parcel) { ASSERT_EQ(value.writeToParcel(parcel), android::OK); };
}

const DeviceInfoExternal kDevice("Ger\xC3\xA4t \xF0\x9F\x98\x80", "id-0123456789", "phone", "192.168.0.7");
const NodeBasicInfoInner kNode("node \xE8\x8A\x82", Communication::DEVICE_TYPE_9C, "n-42");

DeviceInfoExternalList DeviceList() {
    DeviceInfoExternalList list;
    list.SetDeviceInfoExternalList({kDevice, DeviceInfoExternal(), kDevice});
    return list;
}

// The node list has no adder: a reader builds it from entries written by hand.
void WriteNodeList(Parcel* parcel) {
    const NodeBasicInfoInner entries[] = {kNode, NodeBasicInfoInner(), kNode};
    parcel->writeInt32(3);
    for (const NodeBasicInfoInner& entry : entries) {
        parcel->writeInt32(1);
        ASSERT_EQ(entry.writeToParcel(parcel), android::OK);
    }
}

status_t ReadStatus(const Parcel& parcel) {
    Status status;
    const status_t result = status.readFromParcel(parcel);
    // A failed read must leave a transport failure carrying its code.
    EXPECT_TRUE(result == android::OK || status.transactionError() == result);
    return result;
}

void WriteReplyHeader(Parcel* parcel) {
    parcel->writeInt32(Status::EX_HAS_REPLY_HEADER);
    parcel->writeInt32(12);
    parcel->writeInt64(-1);
}

const SweepCase kCases[] = {
    {"DeviceRecord", WriteValue(kDevice), ReadFresh<DeviceInfoExternal>()},
    {"EmptyDeviceRecord", WriteValue(DeviceInfoExternal()), ReadFresh<DeviceInfoExternal>()},
    {"DeviceList", WriteValue(DeviceList()), ReadFresh<DeviceInfoExternalList>()},
    {"EmptyDeviceList", WriteValue(DeviceInfoExternalList()), ReadFresh<DeviceInfoExternalList>()},
    {"NodeRecord", WriteValue(kNode), ReadFresh<NodeBasicInfoInner>()},
    {"NodeList", WriteNodeList, ReadFresh<NodeBasicInfoList>()},
    {"EmptyNodeList", WriteValue(NodeBasicInfoList()), ReadFresh<NodeBasicInfoList>()},
    {"DeviceInfoType", WriteValue(DeviceInfoTypeInner(3)), ReadFresh<DeviceInfoTypeInner>()},
    {"StatusOk", WriteValue(Status::ok()), ReadStatus},
    {"StatusException", WriteValue(Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, "state")), ReadStatus},
    {"StatusServiceSpecific", WriteValue(Status::fromServiceSpecificError(17, "svc")), ReadStatus},
    {"StatusParcelable", WriteValue(Status::fromExceptionCode(Status::EX_PARCELABLE, "p")), ReadStatus},
    {"StatusReplyHeader", WriteReplyHeader, ReadStatus},
};

// The listing names a case, not its bytes.
void PrintTo(const SweepCase& testCase, std::ostream* out) { *out << testCase.name; }

class TruncationSweep : public ::testing::TestWithParam<SweepCase> {};

TEST_P(TruncationSweep, EveryPrefixFailsCleanly) {
    Parcel full;
    GetParam().write(&full);
    const std::vector<uint8_t> bytes(full.data(), full.data() + full.dataSize());
    ASSERT_FALSE(bytes.empty());

    tivra_test::LogCapture log;  // keeps the expected error lines off stderr
    full.setDataPosition(0);
    ASSERT_EQ(GetParam().read(full), android::OK);
    EXPECT_EQ(full.dataAvail(), 0u);

    for (size_t length = 0; length < bytes.size(); ++length) {
        // An exact-size copy, so that ASan sees any read past the prefix.
        const std::vector<uint8_t> prefix(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
        Parcel parcel;
        ASSERT_EQ(parcel.setData(prefix.data(), prefix.size()), android::OK);
        EXPECT_NE(GetParam().read(parcel), android::OK) << "prefix of " << length << " bytes";
        EXPECT_LE(parcel.dataPosition(), length) << "prefix of " << length << " bytes";
        log.Clear();
    }
}

INSTANTIATE_TEST_SUITE_P(Records, TruncationSweep, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
