#include <android/log.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "device_info_type_inner.h"
#include "log_capture.h"
#include "node_basic_info_inner.h"
#include "node_basic_info_list.h"

namespace {

using android::Parcel;
using android::String16;
using com::solvane::pravik::deviceinfo::DeviceInfoTypeInner;
using com::solvane::pravik::deviceinfo::NodeBasicInfoInner;
using com::solvane::pravik::deviceinfo::NodeBasicInfoList;
using Communication::DeviceType;
using tivra_test::LogCapture;
using Bytes = std::vector<uint8_t>;
using Node = std::tuple<std::string, int32_t, std::string>;  // name, type, node id
using Texts = std::vector<std::string>;

Node NodeOf(const NodeBasicInfoInner& n) { return Node(n.GetName(), n.GetDeviceType(), n.GetNodeId()); }

std::vector<Node> NodesOf(const NodeBasicInfoList& list) {
    std::vector<Node> nodes;
    for (const auto& n : list.GetNodeBasicInfoList()) nodes.push_back(NodeOf(n));
    return nodes;
}

// Error and info lines of the library, in order.
struct Logs {
    Texts errors;
    Texts infos;
};

Logs Collect(const LogCapture& log) {
    Logs logs;
    for (const auto& line : log.Lines()) {
        if (line.tag != "libtivra") continue;
        if (line.priority == ANDROID_LOG_ERROR) logs.errors.push_back(line.text);
        if (line.priority == ANDROID_LOG_INFO) logs.infos.push_back(line.text);
    }
    return logs;
}

std::string UnknownTypeLine(unsigned value) {
    char text[64];
    std::snprintf(text, sizeof(text), "DeviceTypeFromValue: unknown device type value=%x", value);
    return text;
}

// Builds parcels item by item: a string, an int32, or raw bytes.
class Wire {
public:
    Wire& Text(const char16_t* text) {
        parcel_.writeString16(String16(text));
        return *this;
    }
    Wire& Int(int32_t value) {
        parcel_.writeInt32(value);
        return *this;
    }
    Wire& NodeEntry(const char16_t* name, int32_t type, const char16_t* id) { return Int(1).Text(name).Int(type).Text(id); }
    Bytes bytes() const { return Bytes(parcel_.data(), parcel_.data() + parcel_.dataSize()); }

private:
    Parcel parcel_;
};

void Load(Parcel* parcel, const Bytes& bytes) { ASSERT_EQ(parcel->setData(bytes.data(), bytes.size()), android::OK); }

const Node kOld("old-name", Communication::DEVICE_TYPE_A0, "old-id");

NodeBasicInfoInner OldNode() { return NodeBasicInfoInner("old-name", Communication::DEVICE_TYPE_A0, "old-id"); }

// ---- DeviceTypeFromValue --------------------------------------------------------

TEST(DeviceTypeFromValue, EveryByteAgainstTheTable) {
    const std::set<unsigned> known = {0x03, 0x0A, 0x0B, 0x0C, 0x0E, 0x11, 0x2E, 0x6D, 0x83, 0x85, 0x98,
                                      0x9C, 0x9D, 0x9E, 0xA0, 0xA7, 0xAE, 0xB1, 0xB2, 0xF0, 0xF1};
    ASSERT_EQ(known.size(), 21u);
    for (unsigned value = 0; value < 256; ++value) {
        LogCapture log;
        const DeviceType type = NodeBasicInfoInner::DeviceTypeFromValue(static_cast<unsigned char>(value));
        const bool isKnown = known.count(value) != 0;
        EXPECT_EQ(static_cast<unsigned>(type), isKnown ? value : 0u) << value;
        EXPECT_EQ(Collect(log).errors, isKnown ? Texts{} : Texts{UnknownTypeLine(value)}) << value;
    }
}

TEST(DeviceTypeFromValue, NeighboursOfTheLastKinds) {
    LogCapture log;
    EXPECT_EQ(NodeBasicInfoInner::DeviceTypeFromValue(0xF0), Communication::DEVICE_TYPE_F0);
    EXPECT_EQ(NodeBasicInfoInner::DeviceTypeFromValue(0xF1), Communication::DEVICE_TYPE_F1);
    EXPECT_EQ(NodeBasicInfoInner::DeviceTypeFromValue(0xEF), Communication::DEVICE_TYPE_UNKNOWN);
    EXPECT_EQ(NodeBasicInfoInner::DeviceTypeFromValue(0xF2), Communication::DEVICE_TYPE_UNKNOWN);
    EXPECT_EQ(Collect(log).errors, (Texts{"DeviceTypeFromValue: unknown device type value=ef",
                                          "DeviceTypeFromValue: unknown device type value=f2"}));
}

// ---- Node record ---------------------------------------------------------------

TEST(NodeRecordWrite, NameTypeThenNodeId) {
    Parcel parcel;
    ASSERT_EQ(NodeBasicInfoInner("n", Communication::DEVICE_TYPE_0E, "id").writeToParcel(&parcel), android::OK);
    EXPECT_EQ(Bytes(parcel.data(), parcel.data() + parcel.dataSize()),
              (Bytes{1, 0, 0, 0, 'n', 0, 0, 0, 14, 0, 0, 0, 2, 0, 0, 0, 'i', 0, 'd', 0, 0, 0, 0, 0}));
}

TEST(NodeRecordWrite, DefaultAndRoundTrip) {
    const NodeBasicInfoInner nodes[] = {
        NodeBasicInfoInner(),
        NodeBasicInfoInner("\xE8\x8A\x82\xE7\x82\xB9 \xF0\x9F\x98\x80", Communication::DEVICE_TYPE_F1,
                           std::string(150, 'k')),
        NodeBasicInfoInner(std::string("cut\0here", 8), Communication::DEVICE_TYPE_03, ""),
    };
    for (const NodeBasicInfoInner& node : nodes) {
        Parcel parcel;
        ASSERT_EQ(node.writeToParcel(&parcel), android::OK);
        parcel.setDataPosition(0);
        NodeBasicInfoInner read = OldNode();
        ASSERT_EQ(read.readFromParcel(&parcel), android::OK);
        const Node expected = NodeOf(node);
        EXPECT_EQ(NodeOf(read), Node(std::get<0>(expected).c_str(), std::get<1>(expected), std::get<2>(expected)));
        EXPECT_EQ(parcel.dataAvail(), 0u);
    }
}

TEST(NodeRecordWrite, FailureLogsTheNameAndPassesTheStatusThrough) {
    Parcel reference;
    reference.setDataPosition(static_cast<size_t>(std::numeric_limits<int32_t>::max()) + 1);
    Parcel parcel;
    parcel.setDataPosition(reference.dataPosition());
    LogCapture log;
    EXPECT_EQ(OldNode().writeToParcel(&parcel), reference.writeString16(String16(u"old-name")));
    EXPECT_NE(reference.writeString16(String16(u"x")), android::OK);
    EXPECT_EQ(Collect(log).errors, Texts{"write name to parcel failed"});
}

// One read from given bytes into an object that already holds data.
template <typename Value>
struct ReadCase {
    const char* name;
    Bytes bytes;
    android::status_t result;
    Value after;
    Texts errors;
};

template <typename Record, typename Value, typename Extract>
Logs CheckRead(const ReadCase<Value>& c, Record record, Extract extract) {
    Parcel parcel;
    Load(&parcel, c.bytes);
    LogCapture log;
    EXPECT_EQ(record.readFromParcel(&parcel), c.result);
    EXPECT_EQ(extract(record), c.after);
    const Logs logs = Collect(log);
    EXPECT_EQ(logs.errors, c.errors);
    return logs;
}

using NodeReadCase = ReadCase<Node>;

const char kInvalidType[] = "read deviceType from parcel is invalid value";

const NodeReadCase kNodeReads[] = {
    {"Type0E", Wire().Text(u"n").Int(0x0E).Text(u"id").bytes(), android::OK, {"n", 0x0E, "id"}, {}},
    {"UpperBitsIgnored", Wire().Text(u"n").Int(0x10E).Text(u"id").bytes(), android::OK, {"n", 0x0E, "id"}, {}},
    {"NegativeWithLowByte0E", Wire().Text(u"n").Int(-242).Text(u"id").bytes(), android::OK, {"n", 0x0E, "id"}, {}},
    {"TypeF1", Wire().Text(u"").Int(0xF1).Text(u"").bytes(), android::OK, {"", 0xF1, ""}, {}},
    {"UnknownZero", Wire().Text(u"n").Int(0).Text(u"id").bytes(), android::OK, {"n", 0, "id"}, {UnknownTypeLine(0)}},
    {"UnknownOne", Wire().Text(u"n").Int(1).Text(u"id").bytes(), android::OK, {"n", 0, "id"}, {UnknownTypeLine(1)}},
    {"UnknownFF", Wire().Text(u"n").Int(0xFF).Text(u"id").bytes(), android::OK, {"n", 0, "id"}, {UnknownTypeLine(0xFF)}},
    {"MinusTwoIsUnknownNotRefused", Wire().Text(u"n").Int(-2).Text(u"id").bytes(), android::OK, {"n", 0, "id"},
     {UnknownTypeLine(0xFE)}},
    {"MinusOneRefused", Wire().Text(u"n").Int(-1).Text(u"id").bytes(), -1, {"n", 0xA0, "old-id"}, {kInvalidType}},
    {"NameNull", Wire().Int(-1).Int(0x0E).Text(u"id").bytes(), android::UNEXPECTED_NULL, kOld,
     {"read name from parcel failed"}},
    {"Empty", {}, android::UNEXPECTED_NULL, kOld, {"read name from parcel failed"}},
    {"TypeMissing", Wire().Text(u"n").bytes(), android::NOT_ENOUGH_DATA, {"n", 0xA0, "old-id"},
     {"read deviceType from parcel failed"}},
    {"NodeIdNull", Wire().Text(u"n").Int(0x11).Int(-1).bytes(), android::UNEXPECTED_NULL, {"n", 0x11, "old-id"},
     {"read nodeId from parcel failed"}},
    {"NodeIdMissing", Wire().Text(u"n").Int(0x11).bytes(), android::UNEXPECTED_NULL, {"n", 0x11, "old-id"},
     {"read nodeId from parcel failed"}},
};

class NodeRecordRead : public ::testing::TestWithParam<NodeReadCase> {};

TEST_P(NodeRecordRead, ResultStateAndLog) { CheckRead(GetParam(), OldNode(), NodeOf); }

INSTANTIATE_TEST_SUITE_P(Records, NodeRecordRead, ::testing::ValuesIn(kNodeReads),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- Node list -------------------------------------------------------------------

const Bytes kOldListBytes = Wire()
                                .Int(3)
                                .NodeEntry(u"old0", 0x03, u"id0")
                                .NodeEntry(u"old1", 0x0A, u"id1")
                                .NodeEntry(u"old2", 0x0B, u"id2")
                                .bytes();
const std::vector<Node> kOldList = {{"old0", 0x03, "id0"}, {"old1", 0x0A, "id1"}, {"old2", 0x0B, "id2"}};

NodeBasicInfoList OldList() {
    Parcel parcel;
    Load(&parcel, kOldListBytes);
    NodeBasicInfoList list;
    EXPECT_EQ(list.readFromParcel(&parcel), android::OK);
    return list;
}

TEST(NodeListWrite, EmptyListIsOnlyTheCount) {
    Parcel parcel;
    ASSERT_EQ(NodeBasicInfoList().writeToParcel(&parcel), android::OK);
    EXPECT_EQ(Bytes(parcel.data(), parcel.data() + parcel.dataSize()), (Bytes{0, 0, 0, 0}));
}

TEST(NodeListWrite, WritesBackWhatItRead) {
    Parcel parcel;
    ASSERT_EQ(OldList().writeToParcel(&parcel), android::OK);
    EXPECT_EQ(Bytes(parcel.data(), parcel.data() + parcel.dataSize()), kOldListBytes);
    EXPECT_EQ(NodesOf(OldList()), kOldList);
}

TEST(NodeListWrite, CountFailureLogsTheCount) {
    Parcel parcel;
    parcel.setDataPosition(static_cast<size_t>(std::numeric_limits<int32_t>::max()) + 1);
    const NodeBasicInfoList list = OldList();
    LogCapture log;
    EXPECT_NE(list.writeToParcel(&parcel), android::OK);
    EXPECT_EQ(Collect(log).errors, Texts{"write node basic info list size to parcel failed, size = 3"});
}

using NodeListCase = ReadCase<std::vector<Node>>;

const char kFlag[] = "read typed object presence flag from parcel failed";
const char kOversize[] = "read node basic info list size is oversize";
const Node kFresh("", 0, "");

const NodeListCase kNodeLists[] = {
    {"ZeroEmpties", Wire().Int(0).bytes(), android::OK, {}, {}},
    {"DuplicatesKept", Wire().Int(2).NodeEntry(u"d", 0x2E, u"i").NodeEntry(u"d", 0x2E, u"i").bytes(), android::OK,
     {{"d", 0x2E, "i"}, {"d", 0x2E, "i"}}, {}},
    {"Grows", Wire().Int(4).NodeEntry(u"a", 3, u"").NodeEntry(u"b", 3, u"").NodeEntry(u"c", 3, u"")
                  .NodeEntry(u"d", 0x6D, u"x").bytes(),
     android::OK, {{"a", 3, ""}, {"b", 3, ""}, {"c", 3, ""}, {"d", 0x6D, "x"}}, {}},
    {"FlagZero", Wire().Int(1).Int(0).Text(u"n").Int(3).Text(u"i").bytes(), -1, {kOldList[0]}, {kFlag}},
    {"FlagTwoOnSecond", Wire().Int(3).NodeEntry(u"n", 3, u"i").Int(2).bytes(), -1,
     {{"n", 3, "i"}, kOldList[1], kOldList[2]}, {kFlag}},
    {"CountOnly", Wire().Int(5).bytes(), -1, {kOldList[0], kOldList[1], kOldList[2], kFresh, kFresh}, {kFlag}},
    {"EntryTypeRefused", Wire().Int(2).Int(1).Text(u"new").Int(-1).Text(u"i").bytes(), -1,
     {{"new", 0x03, "id0"}, kOldList[1]}, {kInvalidType, "read one node basic info from parcel failed"}},
    {"EntryNameNull", Wire().Int(3).NodeEntry(u"n", 3, u"i").Int(1).Int(-1).bytes(), android::UNEXPECTED_NULL,
     {{"n", 3, "i"}, kOldList[1], kOldList[2]},
     {"read name from parcel failed", "read one node basic info from parcel failed"}},
    {"MinusOne", Wire().Int(-1).bytes(), -1, kOldList, {kOversize}},
    {"Bound", Wire().Int(97612893).NodeEntry(u"n", 3, u"i").bytes(), -1, kOldList, {kOversize}},
    {"Largest", Wire().Int(std::numeric_limits<int32_t>::max()).bytes(), -1, kOldList, {kOversize}},
};

class NodeListRead : public ::testing::TestWithParam<NodeListCase> {};

TEST_P(NodeListRead, ResultStateAndLog) {
    int32_t count = 0;
    std::memcpy(&count, GetParam().bytes.data(), sizeof(count));
    const Logs logs = CheckRead(GetParam(), OldList(), NodesOf);
    EXPECT_EQ(logs.infos, Texts{"read parcel node basic info list size = " + std::to_string(count)});
}

INSTANTIATE_TEST_SUITE_P(Lists, NodeListRead, ::testing::ValuesIn(kNodeLists),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(NodeListReadCount, UnreadableCountLogsTheZeroCount) {
    Parcel parcel;
    Load(&parcel, {9, 0});
    NodeBasicInfoList list = OldList();
    LogCapture log;
    EXPECT_EQ(list.readFromParcel(&parcel), android::NOT_ENOUGH_DATA);
    EXPECT_EQ(NodesOf(list), kOldList);
    const Logs logs = Collect(log);
    ASSERT_EQ(logs.errors.size(), 1u);
    const std::string& line = logs.errors[0];
    EXPECT_EQ(line.substr(line.find_last_not_of("0123456789-") + 1), "0") << line;
    EXPECT_TRUE(logs.infos.empty());
}

// Past 1024 entries the count must fit the data (24 bytes per empty entry)
// before the list is touched; at or below it the list is resized first.
TEST(NodeListReadCount, MemoryGuard) {
    const struct {
        int32_t count;
        int32_t entries;
        size_t dropBytes;
        android::status_t result;
        size_t sizeAfter;
    } cases[] = {
        {1025, 1025, 0, android::OK, 1025}, {1025, 1025, 1, -1, 3}, {97612892, 0, 0, -1, 3},
        {5000, 10, 0, -1, 3},               {1024, 0, 0, -1, 1024},
    };
    for (const auto& c : cases) {
        Wire wire;
        wire.Int(c.count);
        for (int32_t i = 0; i < c.entries; ++i) wire.NodeEntry(u"", 0x03, u"");
        Bytes bytes = wire.bytes();
        bytes.resize(bytes.size() - c.dropBytes);
        Parcel parcel;
        Load(&parcel, bytes);
        NodeBasicInfoList list = OldList();
        LogCapture log;
        EXPECT_EQ(list.readFromParcel(&parcel), c.result) << c.count;
        EXPECT_EQ(NodesOf(list).size(), c.sizeAfter) << c.count;
        const Logs logs = Collect(log);
        ASSERT_EQ(logs.errors.size(), c.result == android::OK ? 0u : 1u) << c.count;
        if (c.sizeAfter == 3) {
            EXPECT_EQ(NodesOf(list), kOldList);
            EXPECT_NE(logs.errors[0], kOversize);
        }
    }
}

// ---- DeviceInfoTypeInner -------------------------------------------------------

TEST(DeviceInfoTypeInner, ValuesCrossUnchanged) {
    const struct {
        int32_t value;
        Bytes bytes;
    } cases[] = {
        {7, {7, 0, 0, 0}},
        {-5, {0xFB, 0xFF, 0xFF, 0xFF}},
        {0, {0, 0, 0, 0}},
        {std::numeric_limits<int32_t>::min(), {0, 0, 0, 0x80}},
    };
    for (const auto& c : cases) {
        Parcel parcel;
        ASSERT_EQ(DeviceInfoTypeInner(c.value).writeToParcel(&parcel), android::OK);
        EXPECT_EQ(Bytes(parcel.data(), parcel.data() + parcel.dataSize()), c.bytes);
        parcel.setDataPosition(0);
        DeviceInfoTypeInner read(12345);
        ASSERT_EQ(read.readFromParcel(&parcel), android::OK);
        EXPECT_EQ(read.getValue(), c.value);
    }
    EXPECT_EQ(DeviceInfoTypeInner().getValue(), 0);
}

TEST(DeviceInfoTypeInner, ReadFailureKeepsTheValue) {
    Parcel parcel;
    Load(&parcel, {1, 0, 0});
    DeviceInfoTypeInner type(3);
    LogCapture log;
    EXPECT_EQ(type.readFromParcel(&parcel), android::NOT_ENOUGH_DATA);
    EXPECT_EQ(type.getValue(), 3);
    EXPECT_EQ(Collect(log).errors, Texts{"read deviceType from parcel failed"});
}

TEST(DeviceInfoTypeInner, WriteFailureIsLogged) {
    Parcel parcel;
    parcel.setDataPosition(static_cast<size_t>(std::numeric_limits<int32_t>::max()) + 1);
    LogCapture log;
    EXPECT_NE(DeviceInfoTypeInner(2).writeToParcel(&parcel), android::OK);
    EXPECT_EQ(Collect(log).errors, Texts{"write deviceType to parcel failed"});
}

TEST(NodeRecord, PublicBaseSeesTheFields) {
    const std::shared_ptr<Communication::NodeBasicInfo> node =
        std::make_shared<NodeBasicInfoInner>(std::string(300, 'n'), Communication::DEVICE_TYPE_B2, "id");
    EXPECT_EQ(node->GetName(), std::string(300, 'n'));
    EXPECT_EQ(node->GetDeviceType(), Communication::DEVICE_TYPE_B2);
    EXPECT_EQ(node->GetNodeId(), "id");
}

}  // namespace
