#include <android/log.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "device_info_external.h"
#include "device_info_external_list.h"
#include "log_capture.h"

namespace {

using android::Parcel;
using android::String16;
using com::solvane::pravik::deviceinfo::DeviceInfoExternal;
using com::solvane::pravik::deviceinfo::DeviceInfoExternalList;
using tivra_test::LogCapture;
using Bytes = std::vector<uint8_t>;
using Fields = std::vector<std::string>;  // name, id, type, ip

Bytes Contents(const Parcel& parcel) { return Bytes(parcel.data(), parcel.data() + parcel.dataSize()); }

std::vector<std::string> Logged(const LogCapture& log, int priority) {
    std::vector<std::string> texts;
    for (const auto& line : log.Lines()) {
        if (line.priority == priority && line.tag == "libtivra") texts.push_back(line.text);
    }
    return texts;
}

Fields FieldsOf(const DeviceInfoExternal& d) {
    return {d.GetDeviceName(), d.GetDeviceId(), d.GetDeviceType(), d.GetDeviceIp()};
}

DeviceInfoExternal Device(const std::string& tag) {
    return DeviceInfoExternal(tag + "-name", tag + "-id", tag + "-type", tag + "-ip");
}

std::vector<Fields> FieldsOf(const DeviceInfoExternalList& list) {
    std::vector<Fields> all;
    for (const auto& d : list.GetDeviceInfoExternalList()) all.push_back(FieldsOf(d));
    return all;
}

// Writes UTF-8 text as the platform's String16 would carry it.
void PutText(Parcel* parcel, const std::string& utf8) {
    ASSERT_EQ(parcel->writeString16(String16(utf8.c_str())), android::OK);
}

// A parcel that makes every write fail at once, without allocating anything.
void PositionBeyondLargestParcel(Parcel* parcel) {
    parcel->setDataPosition(static_cast<size_t>(std::numeric_limits<int32_t>::max()) + 1);
}

// ---- Record layout ---------------------------------------------------------

struct LayoutCase {
    const char* name;
    DeviceInfoExternal device;
    Bytes bytes;
};

const LayoutCase kLayouts[] = {
    {"DefaultIsFourEmptyStrings", DeviceInfoExternal(), Bytes(32, 0)},
    {"WireOrderIsIdNameTypeIp", DeviceInfoExternal("A", "B", "C", "D"),
     {1, 0, 0, 0, 'B', 0, 0, 0, 1, 0, 0, 0, 'A', 0, 0, 0, 1, 0, 0, 0, 'C', 0, 0, 0, 1, 0, 0, 0, 'D', 0, 0, 0}},
    // U+00E9 and U+1F600 in the identifier: three units.
    {"NonAsciiIdentifier", DeviceInfoExternal("", "\xC3\xA9\xF0\x9F\x98\x80", "", ""),
     {3, 0, 0, 0, 0xE9, 0, 0x3D, 0xD8, 0x00, 0xDE, 0, 0,  // identifier
      0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    {"EmbeddedNulCutsTheText", DeviceInfoExternal(std::string("ab\0cd", 5), "", "", std::string("\0z", 2)),
     {0, 0, 0, 0, 0, 0, 0, 0,                             // identifier
      2, 0, 0, 0, 'a', 0, 'b', 0, 0, 0, 0, 0,             // name
      0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},  // type, ip
};

class DeviceRecordLayout : public ::testing::TestWithParam<LayoutCase> {};

// The bytes are compared first, so the read below reads exactly them.
TEST_P(DeviceRecordLayout, WritesExactBytesAndReadsThemBack) {
    const LayoutCase& c = GetParam();
    Parcel parcel;
    ASSERT_EQ(c.device.writeToParcel(&parcel), android::OK);
    ASSERT_EQ(Contents(parcel), c.bytes);
    DeviceInfoExternal device = Device("old");
    LogCapture log;
    parcel.setDataPosition(0);
    ASSERT_EQ(device.readFromParcel(&parcel), android::OK);
    Fields expected = FieldsOf(c.device);
    for (std::string& text : expected) text = text.c_str();  // text ends at its first NUL
    EXPECT_EQ(FieldsOf(device), expected);
    EXPECT_EQ(parcel.dataAvail(), 0u);
    EXPECT_TRUE(log.Lines().empty());
}

INSTANTIATE_TEST_SUITE_P(Records, DeviceRecordLayout, ::testing::ValuesIn(kLayouts),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- Text: cut at the first NUL (conversion itself: text_conversion_test) ---

TEST(DeviceRecordRead, UnitsAfterAnEmbeddedNulAreDropped) {
    const char16_t units[] = u"id\0tail";
    Parcel parcel;
    parcel.writeString16(units, 7);
    for (const char16_t* text : {u"\u00e9\0x", u"\0", u"abcdefghij\0k"}) {
        parcel.writeString16(String16(text, std::char_traits<char16_t>::length(text) + 2));
    }
    parcel.setDataPosition(0);
    DeviceInfoExternal device;
    ASSERT_EQ(device.readFromParcel(&parcel), android::OK);
    EXPECT_EQ(FieldsOf(device), (Fields{"\xC3\xA9", "id", "", "abcdefghij"}));
}

// ---- Record failures ---------------------------------------------------------

struct ReadFailureCase {
    const char* name;
    size_t goodStrings;  // strings that read before the failure
    bool nullString;     // the failing string is null (else the data ends)
    const char* message;
    Fields after;
};

const ReadFailureCase kReadFailures[] = {
    {"IdNull", 0, true, "read deviceId from parcel failed", {"old-name", "old-id", "old-type", "old-ip"}},
    {"IdMissing", 0, false, "read deviceId from parcel failed", {"old-name", "old-id", "old-type", "old-ip"}},
    {"NameNull", 1, true, "read deviceName from parcel failed", {"old-name", "new-id", "old-type", "old-ip"}},
    {"TypeMissing", 2, false, "read deviceType from parcel failed", {"new-name", "new-id", "old-type", "old-ip"}},
    {"IpNull", 3, true, "read deviceIp from parcel failed", {"new-name", "new-id", "new-type", "old-ip"}},
    {"IpMissing", 3, false, "read deviceIp from parcel failed", {"new-name", "new-id", "new-type", "old-ip"}},
};

class DeviceRecordReadFailure : public ::testing::TestWithParam<ReadFailureCase> {};

TEST_P(DeviceRecordReadFailure, KeepsEarlierFieldsAndLogsTheField) {
    const ReadFailureCase& c = GetParam();
    const char* const wire[] = {"new-id", "new-name", "new-type", "new-ip"};
    Parcel parcel;
    for (size_t i = 0; i < c.goodStrings; ++i) PutText(&parcel, wire[i]);
    if (c.nullString) parcel.writeInt32(-1);
    parcel.setDataPosition(0);

    DeviceInfoExternal device = Device("old");
    LogCapture log;
    EXPECT_EQ(device.readFromParcel(&parcel), android::UNEXPECTED_NULL);
    EXPECT_EQ(FieldsOf(device), c.after);
    EXPECT_EQ(Logged(log, ANDROID_LOG_ERROR), std::vector<std::string>{c.message});
}

INSTANTIATE_TEST_SUITE_P(Fields, DeviceRecordReadFailure, ::testing::ValuesIn(kReadFailures),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(DeviceRecordWrite, FailurePassesThePrimitiveStatusAndStops) {
    Parcel reference;
    PositionBeyondLargestParcel(&reference);
    const android::status_t primitive = reference.writeString16(String16(u"x"));
    ASSERT_NE(primitive, android::OK);

    Parcel parcel;
    PositionBeyondLargestParcel(&parcel);
    LogCapture log;
    EXPECT_EQ(Device("w").writeToParcel(&parcel), primitive);
    EXPECT_EQ(Logged(log, ANDROID_LOG_ERROR), std::vector<std::string>{"write deviceId to parcel failed"});
    EXPECT_EQ(parcel.dataSize(), 0u);
}

TEST(DeviceRecord, PublicBaseSeesTheFieldsAndDestroysTheRecord) {
    const std::string longText(500, 'L');
    std::unique_ptr<Communication::TivraDeviceInfo> info =
        std::make_unique<DeviceInfoExternal>(longText + "n", longText + "i", longText + "t", longText + "p");
    EXPECT_EQ(info->GetDeviceName(), longText + "n");
    EXPECT_EQ(info->GetDeviceId(), longText + "i");
    EXPECT_EQ(info->GetDeviceType(), longText + "t");
    EXPECT_EQ(info->GetDeviceIp(), longText + "p");
    info.reset();  // ASan reports a leak if the base destructor were not virtual
}

TEST(DeviceRecord, SettersReplaceOneFieldEach) {
    DeviceInfoExternal device = Device("old");
    device.SetDeviceIp("10.0.0.1");
    device.SetDeviceId("");
    EXPECT_EQ(FieldsOf(device), (Fields{"old-name", "", "old-type", "10.0.0.1"}));
    device.SetDeviceName("n");
    device.SetDeviceType("t");
    EXPECT_EQ(FieldsOf(device), (Fields{"n", "", "t", "10.0.0.1"}));
}

// ---- List layout and content -------------------------------------------------

DeviceInfoExternalList ListOf(const std::vector<DeviceInfoExternal>& devices) {
    DeviceInfoExternalList list;
    list.SetDeviceInfoExternalList(devices);
    return list;
}

const std::vector<Fields> kOldEntries = {FieldsOf(Device("old0")), FieldsOf(Device("old1")), FieldsOf(Device("old2"))};

DeviceInfoExternalList OldList() { return ListOf({Device("old0"), Device("old1"), Device("old2")}); }

TEST(DeviceListWrite, EmptyListIsOnlyTheCount) {
    Parcel parcel;
    ASSERT_EQ(DeviceInfoExternalList().writeToParcel(&parcel), android::OK);
    EXPECT_EQ(Contents(parcel), (Bytes{0, 0, 0, 0}));
}

TEST(DeviceListWrite, CountThenFlagAndRecordPerEntry) {
    Parcel parcel;
    ASSERT_EQ(ListOf({DeviceInfoExternal("A", "B", "C", "D"), DeviceInfoExternal()}).writeToParcel(&parcel),
              android::OK);
    Bytes expected = {2, 0, 0, 0, 1, 0, 0, 0};
    const Bytes& abcd = kLayouts[1].bytes;
    expected.insert(expected.end(), abcd.begin(), abcd.end());
    expected.insert(expected.end(), {1, 0, 0, 0});
    expected.insert(expected.end(), 32, 0);
    EXPECT_EQ(Contents(parcel), expected);
}

TEST(DeviceListWrite, CountFailureLogsTheCount) {
    Parcel parcel;
    PositionBeyondLargestParcel(&parcel);
    LogCapture log;
    EXPECT_NE(OldList().writeToParcel(&parcel), android::OK);
    EXPECT_EQ(Logged(log, ANDROID_LOG_ERROR),
              std::vector<std::string>{"write tivraDeviceInfos size to parcel failed, size = 3"});
}

TEST(DeviceList, RoundTripKeepsOrderAndDuplicates) {
    const DeviceInfoExternalList list = ListOf({Device("x"), Device("y"), Device("x"), DeviceInfoExternal()});
    Parcel parcel;
    ASSERT_EQ(list.writeToParcel(&parcel), android::OK);
    parcel.setDataPosition(0);
    DeviceInfoExternalList read;
    ASSERT_EQ(read.readFromParcel(&parcel), android::OK);
    EXPECT_EQ(FieldsOf(read), FieldsOf(list));
    EXPECT_EQ(FieldsOf(read).size(), 4u);
}

TEST(DeviceList, AddersAppendCopiesInOrder) {
    DeviceInfoExternalList list = ListOf({Device("a")});
    list.AddListToDeviceInfoExternalList({Device("b"), Device("c")});
    EXPECT_EQ(FieldsOf(list), (std::vector<Fields>{FieldsOf(Device("a")), FieldsOf(Device("b")), FieldsOf(Device("c"))}));
    list.AddDeviceInfoExternalToList(Device("a"));
    list.AddListToDeviceInfoExternalList({});
    EXPECT_EQ(FieldsOf(list).size(), 4u);
    EXPECT_EQ(FieldsOf(list).back(), FieldsOf(list).front());
    list.SetDeviceInfoExternalList({Device("z")});
    EXPECT_EQ(FieldsOf(list), std::vector<Fields>{FieldsOf(Device("z"))});
}

// ---- List reads --------------------------------------------------------------

// Count, then per entry its flag and the record of Device(tag).
struct Entry {
    int32_t flag;
    std::string tag;
};

Bytes ListBytes(int32_t count, const std::vector<Entry>& entries) {
    Parcel parcel;
    parcel.writeInt32(count);
    for (const Entry& entry : entries) {
        parcel.writeInt32(entry.flag);
        Device(entry.tag).writeToParcel(&parcel);
    }
    return Contents(parcel);
}

struct ListReadCase {
    const char* name;
    Bytes bytes;
    android::status_t result;
    std::vector<Fields> after;
    std::vector<std::string> errors;
};

const char kFlagFailed[] = "read typed object presence flag from parcel failed";
const char kOversize[] = "read device info list size is oversize";

std::vector<ListReadCase> ListReadCases() {
    const Fields fresh = FieldsOf(DeviceInfoExternal());
    // The second entry's flag is good but its record ends after the identifier.
    Parcel tornParcel;
    const Bytes head = ListBytes(3, {{1, "new0"}});
    tornParcel.write(head.data(), head.size());
    tornParcel.writeInt32(1);
    PutText(&tornParcel, "new1-id");
    const Bytes torn = Contents(tornParcel);
    return {
        {"ZeroEmptiesTheList", {0, 0, 0, 0}, android::OK, {}, {}},
        {"Shrinks", ListBytes(1, {{1, "new0"}}), android::OK, {FieldsOf(Device("new0"))}, {}},
        {"OverwritesAndGrows", ListBytes(4, {{1, "n0"}, {1, "n1"}, {1, "n2"}, {1, "n3"}}), android::OK,
         {FieldsOf(Device("n0")), FieldsOf(Device("n1")), FieldsOf(Device("n2")), FieldsOf(Device("n3"))}, {}},
        {"FlagTwoOnFirst", ListBytes(3, {{2, "new0"}}), -1, kOldEntries, {kFlagFailed}},
        {"FlagZeroOnSecond", ListBytes(3, {{1, "new0"}, {0, "new1"}}), -1,
         {FieldsOf(Device("new0")), kOldEntries[1], kOldEntries[2]}, {kFlagFailed}},
        {"FlagMissingAfterGrowth", ListBytes(5, {{1, "new0"}}), -1,
         {FieldsOf(Device("new0")), kOldEntries[1], kOldEntries[2], fresh, fresh}, {kFlagFailed}},
        {"CountOnlyGrowsThenFails", ListBytes(4, {}), -1,
         {kOldEntries[0], kOldEntries[1], kOldEntries[2], fresh}, {kFlagFailed}},
        {"EntryTornAfterIdentifier", torn, android::UNEXPECTED_NULL,
         {FieldsOf(Device("new0")), {"old1-name", "new1-id", "old1-type", "old1-ip"}, kOldEntries[2]},
         {"read deviceName from parcel failed", "read one tivraDeviceInfo from parcel failed"}},
        {"MinusOne", ListBytes(-1, {{1, "new0"}}), -1, kOldEntries, {kOversize}},
        {"MostNegative", ListBytes(std::numeric_limits<int32_t>::min(), {}), -1, kOldEntries, {kOversize}},
        {"Bound", ListBytes(76695844, {{1, "new0"}}), -1, kOldEntries, {kOversize}},
        {"Largest", ListBytes(std::numeric_limits<int32_t>::max(), {}), -1, kOldEntries, {kOversize}},
    };
}

class DeviceListRead : public ::testing::TestWithParam<ListReadCase> {};

TEST_P(DeviceListRead, ResultStateAndLog) {
    const ListReadCase& c = GetParam();
    Parcel parcel;
    ASSERT_EQ(parcel.setData(c.bytes.data(), c.bytes.size()), android::OK);
    DeviceInfoExternalList list = OldList();
    LogCapture log;
    EXPECT_EQ(list.readFromParcel(&parcel), c.result);
    EXPECT_EQ(FieldsOf(list), c.after);
    EXPECT_EQ(Logged(log, ANDROID_LOG_ERROR), c.errors);
    int32_t count = 0;
    std::memcpy(&count, c.bytes.data(), sizeof(count));
    EXPECT_EQ(Logged(log, ANDROID_LOG_INFO), std::vector<std::string>{"parcel size = " + std::to_string(count)});
}

INSTANTIATE_TEST_SUITE_P(Lists, DeviceListRead, ::testing::ValuesIn(ListReadCases()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(DeviceListReadCount, UnreadableCountLogsZeroAndKeepsTheList) {
    for (const Bytes& bytes : {Bytes{}, Bytes{3, 0, 0}}) {
        Parcel parcel;
        ASSERT_EQ(parcel.setData(bytes.data(), bytes.size()), android::OK);
        DeviceInfoExternalList list = OldList();
        LogCapture log;
        EXPECT_EQ(list.readFromParcel(&parcel), android::NOT_ENOUGH_DATA);
        EXPECT_EQ(FieldsOf(list), kOldEntries);
        EXPECT_EQ(Logged(log, ANDROID_LOG_ERROR),
                  std::vector<std::string>{"read tivraDeviceInfos size from parcel failed, size = 0"});
        EXPECT_TRUE(Logged(log, ANDROID_LOG_INFO).empty());
    }
}

// Above 1024 entries a count that the data cannot hold is refused before the
// list changes; one empty entry with its flag takes 36 bytes.
TEST(DeviceListReadCount, LargeCountMustFitTheRemainingData) {
    const struct {
        int32_t count;
        size_t entriesInData;
        size_t dropBytes;
        bool reads;
    } cases[] = {
        {1025, 1025, 0, true}, {1025, 1025, 1, false}, {76695843, 0, 0, false}, {2000, 3, 0, false},
    };
    for (const auto& c : cases) {
        Parcel parcel;
        parcel.writeInt32(c.count);
        for (size_t i = 0; i < c.entriesInData; ++i) {
            parcel.writeInt32(1);
            DeviceInfoExternal().writeToParcel(&parcel);
        }
        Bytes bytes = Contents(parcel);
        bytes.resize(bytes.size() - c.dropBytes);
        ASSERT_EQ(parcel.setData(bytes.data(), bytes.size()), android::OK);
        DeviceInfoExternalList list = OldList();
        LogCapture log;
        EXPECT_EQ(list.readFromParcel(&parcel), c.reads ? android::OK : -1) << c.count;
        EXPECT_EQ(FieldsOf(list).size(), c.reads ? static_cast<size_t>(c.count) : kOldEntries.size()) << c.count;
        if (!c.reads) {
            EXPECT_EQ(FieldsOf(list), kOldEntries);
            const auto errors = Logged(log, ANDROID_LOG_ERROR);
            ASSERT_EQ(errors.size(), 1u);
            EXPECT_NE(errors[0], kOversize);
            EXPECT_NE(errors[0], kFlagFailed);
        }
    }
}

TEST(DeviceListReadCount, SmallCountResizesBeforeTheFlagFails) {
    Parcel parcel;
    parcel.writeInt32(1024);
    parcel.setDataPosition(0);
    DeviceInfoExternalList list = OldList();
    LogCapture log;
    EXPECT_EQ(list.readFromParcel(&parcel), -1);
    EXPECT_EQ(FieldsOf(list).size(), 1024u);
    EXPECT_EQ(Logged(log, ANDROID_LOG_ERROR), std::vector<std::string>{kFlagFailed});
}

}  // namespace
