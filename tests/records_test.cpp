// Device and node records, their lists (one reader, tested over both list
// types), every prefix of every record kind, and text conversion against the
// genuine libutils String16 and String8.
#include <android/log.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <gtest/gtest.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "device_info_external.h"
#include "device_info_external_list.h"
#include "device_info_type_inner.h"
#include "log_capture.h"
#include "node_basic_info_inner.h"
#include "node_basic_info_list.h"
#include "parcel_bytes.h"
#include "text_conversion.h"

namespace {

using android::Parcel;
using android::status_t;
using android::String16;
using android::binder::Status;
using namespace com::solvane::pravik::deviceinfo;
using namespace tivra_test;
using Texts = std::vector<std::string>;

// The library's lines of one priority, in order.
Texts Logged(const LogCapture& log, int priority = ANDROID_LOG_ERROR) {
    Texts texts;
    for (const auto& line : log.Lines()) {
        if (line.priority == priority && line.tag == "libtivra") texts.push_back(line.text);
    }
    return texts;
}

std::string Describe(const DeviceInfoExternal& d) {
    return d.GetDeviceName() + "|" + d.GetDeviceId() + "|" + d.GetDeviceType() + "|" + d.GetDeviceIp();
}

std::string Describe(const NodeBasicInfoInner& n) {
    return n.GetName() + "|" + std::to_string(static_cast<int>(n.GetDeviceType())) + "|" + n.GetNodeId();
}

// Written as identifier, name, type, address; text is cut at its first NUL.
TEST(DeviceRecord, WritesExactBytesAndReadsThemBack) {
    const struct {
        DeviceInfoExternal device;
        Bytes bytes;
    } cases[] = {
        {DeviceInfoExternal(), Bytes(32, 0)},
        {DeviceInfoExternal("A", "B", "C", "D"), Le({1, 'B', 1, 'A', 1, 'C', 1, 'D'})},
        // U+00E9 and U+1F600 (a surrogate pair) in the identifier: three units.
        {DeviceInfoExternal("", "\xC3\xA9\xF0\x9F\x98\x80", "", ""),
         Cat(Cat(Le({3}), {0xE9, 0, 0x3D, 0xD8, 0x00, 0xDE, 0, 0}), Bytes(24, 0))},
        {DeviceInfoExternal(std::string("ab\0cd", 5), "", "", std::string("\0z", 2)),
         Cat(Le({0, 0, 2, 0x620061, 0}), Bytes(16, 0))},
    };
    for (const auto& c : cases) {
        Parcel parcel;
        ASSERT_EQ(c.device.writeToParcel(&parcel), android::OK);
        ASSERT_EQ(Contents(parcel), c.bytes);
        DeviceInfoExternal device("old", "old", "old", "old");
        parcel.setDataPosition(0);
        ASSERT_EQ(device.readFromParcel(&parcel), android::OK);
        EXPECT_EQ(parcel.dataAvail(), 0u);
        EXPECT_EQ(Written(device), c.bytes);  // every field replaced, each in its place
    }
}

std::string UnknownTypeLine(unsigned value) {
    char text[64];
    std::snprintf(text, sizeof(text), "DeviceTypeFromValue: unknown device type value=%x", value);
    return text;
}

TEST(DeviceTypeFromValue, EveryByteAgainstTheTable) {
    const std::set<unsigned> known = {0x03, 0x0A, 0x0B, 0x0C, 0x0E, 0x11, 0x2E, 0x6D, 0x83, 0x85, 0x98,
                                      0x9C, 0x9D, 0x9E, 0xA0, 0xA7, 0xAE, 0xB1, 0xB2, 0xF0, 0xF1};
    for (unsigned value = 0; value < 256; ++value) {
        LogCapture log;
        const bool isKnown = known.count(value) != 0;
        EXPECT_EQ(static_cast<unsigned>(NodeBasicInfoInner::DeviceTypeFromValue(static_cast<unsigned char>(value))),
                  isKnown ? value : 0u) << value;
        EXPECT_EQ(Logged(log), isKnown ? Texts{} : Texts{UnknownTypeLine(value)}) << value;
    }
}

const char kInvalidType[] = "read deviceType from parcel is invalid value";

// The type travels as an int32 of which the low byte counts; -1 is refused.
TEST(NodeRecord, ReadResultStateAndLog) {
    const struct {
        const char* name;
        Bytes bytes;
        status_t result;
        std::string after;
        Texts errors;
    } cases[] = {
        {"Type0E", Wire("n", 0x0E, "id"), android::OK, "n|14|id", {}},
        {"UpperBitsIgnored", Wire("n", 0x10E, "id"), android::OK, "n|14|id", {}},
        {"TypeF1", Wire("", 0xF1, ""), android::OK, "|241|", {}},
        {"UnknownOne", Wire("n", 1, "id"), android::OK, "n|0|id", {UnknownTypeLine(1)}},
        {"MinusTwoIsUnknown", Wire("n", -2, "id"), android::OK, "n|0|id", {UnknownTypeLine(0xFE)}},
        {"MinusOneRefused", Wire("n", -1, "id"), -1, "n|160|old-id", {kInvalidType}},
        {"NameNull", Wire(-1, 0x0E, "id"), android::UNEXPECTED_NULL, "old|160|old-id",
         {"read name from parcel failed"}},
        {"TypeMissing", Wire("n"), android::NOT_ENOUGH_DATA, "n|160|old-id", {"read deviceType from parcel failed"}},
        {"NodeIdNull", Wire("n", 0x11, -1), android::UNEXPECTED_NULL, "n|17|old-id",
         {"read nodeId from parcel failed"}},
    };
    for (const auto& c : cases) {
        Parcel parcel;
        Load(&parcel, c.bytes);
        NodeBasicInfoInner node("old", Communication::DEVICE_TYPE_A0, "old-id");
        LogCapture log;
        EXPECT_EQ(node.readFromParcel(&parcel), c.result) << c.name;
        EXPECT_EQ(Describe(node), c.after) << c.name;
        EXPECT_EQ(Logged(log), c.errors) << c.name;
    }
}

TEST(DeviceInfoType, ReadsItsInt32AndAFailedReadKeepsTheValue) {
    Parcel parcel;
    Load(&parcel, Cat(Le({-5}), {1, 0, 0}));
    DeviceInfoTypeInner type(3);
    LogCapture log;
    ASSERT_EQ(type.readFromParcel(&parcel), android::OK);
    EXPECT_EQ(type.getValue(), -5);
    EXPECT_EQ(type.readFromParcel(&parcel), android::NOT_ENOUGH_DATA);
    EXPECT_EQ(type.getValue(), -5);
    EXPECT_EQ(Logged(log), Texts{"read deviceType from parcel failed"});
}

struct DeviceListKind {
    using List = DeviceInfoExternalList;
    using Entry = DeviceInfoExternal;
    static constexpr int32_t kBound = 76695844;     // the first count refused as oversize
    static constexpr const char* kName = "device info list";
    static constexpr const char* kNotice = "parcel size = ";
    static constexpr const char* kSizeFailed = "read tivraDeviceInfos size from parcel failed, size = 0";
    static constexpr const char* kOversize = "read device info list size is oversize";
    static constexpr const char* kEntryFailed = "read one tivraDeviceInfo from parcel failed";
    static constexpr const char* kFirstFieldFailed = "read deviceId from parcel failed";
    static Entry Make(const std::string& tag) { return tag.empty() ? Entry() : Entry(tag + "-n", tag, "t", "ip"); }
    static auto Entries(const List& list) { return list.GetDeviceInfoExternalList(); }
    static void Add(List* list, const Entry& entry) { list->AddDeviceInfoExternalToList(entry); }
};

struct NodeListKind {
    using List = NodeBasicInfoList;
    using Entry = NodeBasicInfoInner;
    static constexpr int32_t kBound = 97612893;
    static constexpr const char* kName = "node basic info list";
    static constexpr const char* kNotice = "read parcel node basic info list size = ";
    static constexpr const char* kSizeFailed = "read node basic info list size from parcel failed, size = 0";
    static constexpr const char* kOversize = "read node basic info list size is oversize";
    static constexpr const char* kEntryFailed = "read one node basic info from parcel failed";
    static constexpr const char* kFirstFieldFailed = "read name from parcel failed";
    static Entry Make(const std::string& tag) {
        return Entry(tag.empty() ? "" : tag + "-n", tag.empty() ? Communication::DEVICE_TYPE_03 : Communication::DEVICE_TYPE_9C, tag);
    }
    static auto Entries(const List& list) { return list.GetNodeBasicInfoList(); }
    static void Add(List* list, const Entry& entry) { list->AddNodeBasicInfoToList(entry); }
};

const char kFlagFailed[] = "read typed object presence flag from parcel failed";

template <typename Kind>
class TypedList : public ::testing::Test {};
using ListKinds = ::testing::Types<DeviceListKind, NodeListKind>;
TYPED_TEST_SUITE(TypedList, ListKinds);

// "*" is an entry made afresh.
template <typename Kind>
typename Kind::List ListOf(const Texts& tags) {
    typename Kind::List list;
    for (const std::string& tag : tags) Kind::Add(&list, tag == "*" ? typename Kind::Entry() : Kind::Make(tag));
    return list;
}

template <typename Kind>
Texts State(const typename Kind::List& list) {
    Texts state;
    for (const auto& entry : Kind::Entries(list)) state.push_back(Describe(entry));
    return state;
}

// A count, then per entry its flag and record ("" is the smallest record).
template <typename Kind>
Bytes ListBytes(int32_t count, const std::vector<std::pair<int32_t, std::string>>& entries) {
    Parcel parcel;
    parcel.writeInt32(count);
    for (const auto& [flag, tag] : entries) {
        parcel.writeInt32(flag);
        EXPECT_EQ(Kind::Make(tag).writeToParcel(&parcel), android::OK);
    }
    return Contents(parcel);
}

// Each read starts from the list old0, old1, old2; a list read whole writes
// back the bytes it came from.
TYPED_TEST(TypedList, ReadResultStateAndLogAndWritesBack) {
    using Kind = TypeParam;
    const Texts old = {"old0", "old1", "old2"};
    const std::vector<std::pair<int32_t, std::string>> a = {{1, "a"}};
    const std::vector<std::pair<int32_t, std::string>> empties(1025, {1, ""});
    const auto refused = [](int32_t count, size_t avail) {
        return "read " + std::string(Kind::kName) + " size " + std::to_string(count) +
               " refused: the parcel holds only " + std::to_string(avail) + " more bytes";
    };
    Texts at1024 = old;
    at1024.resize(1024, "*");
    Bytes oneByteShort = ListBytes<Kind>(1025, empties);
    oneByteShort.pop_back();
    const Bytes fewEntries = ListBytes<Kind>(2000, a);
    const struct {
        const char* name;
        Bytes bytes;
        status_t result;
        Texts after;  // tags
        Texts errors;
    } cases[] = {
        {"ZeroEmpties", ListBytes<Kind>(0, {}), android::OK, {}, {}},
        {"Shrinks", ListBytes<Kind>(1, a), android::OK, {"a"}, {}},
        {"GrowsKeepingDuplicates", ListBytes<Kind>(4, {{1, "a"}, {1, "b"}, {1, "a"}, {1, ""}}), android::OK,
         {"a", "b", "a", ""}, {}},
        {"FlagTwo", ListBytes<Kind>(3, {{2, "a"}}), -1, old, {kFlagFailed}},
        {"FlagZeroOnSecond", ListBytes<Kind>(3, {{1, "a"}, {0, "b"}}), -1, {"a", "old1", "old2"}, {kFlagFailed}},
        {"CountOnlyGrowsThenFails", ListBytes<Kind>(5, {}), -1, {"old0", "old1", "old2", "*", "*"}, {kFlagFailed}},
        {"EntryFails", Cat(ListBytes<Kind>(3, a), Le({1, -1})), android::UNEXPECTED_NULL, {"a", "old1", "old2"},
         {Kind::kFirstFieldFailed, Kind::kEntryFailed}},
        {"MinusOne", ListBytes<Kind>(-1, a), -1, old, {Kind::kOversize}},
        {"Bound", ListBytes<Kind>(Kind::kBound, a), -1, old, {Kind::kOversize}},
        {"Largest", ListBytes<Kind>(std::numeric_limits<int32_t>::max(), {}), -1, old, {Kind::kOversize}},
        {"UnreadableCount", {3, 0, 0}, android::NOT_ENOUGH_DATA, old, {Kind::kSizeFailed}},
        // Above 1024 entries a count must fit the data before the list changes;
        // up to it the list is resized first.
        {"LargeCountThatFits", ListBytes<Kind>(1025, empties), android::OK, Texts(1025, ""), {}},
        {"LargeCountOneByteShort", oneByteShort, -1, old, {refused(1025, oneByteShort.size() - 4)}},
        {"LargeCountFewEntries", fewEntries, -1, old, {refused(2000, fewEntries.size() - 4)}},
        {"At1024ResizesFirst", ListBytes<Kind>(1024, {}), -1, at1024, {kFlagFailed}},
    };
    for (const auto& c : cases) {
        Parcel parcel;
        Load(&parcel, c.bytes);
        typename Kind::List list = ListOf<Kind>(old);
        LogCapture log;
        EXPECT_EQ(list.readFromParcel(&parcel), c.result) << c.name;
        EXPECT_EQ(State<Kind>(list), State<Kind>(ListOf<Kind>(c.after))) << c.name;
        EXPECT_EQ(Logged(log), c.errors) << c.name;
        parcel.setDataPosition(0);
        const Texts notice = {Kind::kNotice + std::to_string(parcel.readInt32())};
        EXPECT_EQ(Logged(log, ANDROID_LOG_INFO), c.bytes.size() < 4 ? Texts{} : notice) << c.name;
        Parcel written;
        EXPECT_EQ(list.writeToParcel(&written), android::OK) << c.name;
        if (c.result == android::OK) EXPECT_EQ(Contents(written), c.bytes) << c.name;
    }
}

template <typename T>
std::function<status_t(const Parcel&)> ReadFresh() {
    return [](const Parcel& parcel) { return T().readFromParcel(&parcel); };
}

// A failed status read leaves a transport failure carrying its code.
status_t ReadStatus(const Parcel& parcel) {
    Status status;
    const status_t result = status.readFromParcel(parcel);
    EXPECT_TRUE(result == android::OK || status.transactionError() == result);
    return result;
}

TEST(TruncationSweep, EveryPrefixFailsWithoutReadingPastIt) {
    const DeviceInfoExternal device("Ger\xC3\xA4t \xF0\x9F\x98\x80", "id-0123456789", "phone", "192.168.0.7");
    const NodeBasicInfoInner node("node \xE8\x8A\x82", Communication::DEVICE_TYPE_9C, "n-42");
    const struct {
        const char* name;
        Bytes bytes;
        std::function<status_t(const Parcel&)> read;
    } cases[] = {
        {"DeviceRecord", Written(device), ReadFresh<DeviceInfoExternal>()},
        {"DeviceList", Written(ListOf<DeviceListKind>({"a", "", "a"})), ReadFresh<DeviceInfoExternalList>()},
        {"NodeRecord", Written(node), ReadFresh<NodeBasicInfoInner>()},
        {"NodeList", Written(ListOf<NodeListKind>({"a", "", "a"})), ReadFresh<NodeBasicInfoList>()},
        {"DeviceInfoType", Written(DeviceInfoTypeInner(3)), ReadFresh<DeviceInfoTypeInner>()},
        {"StatusException", Written(Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, "state")), ReadStatus},
        {"StatusServiceSpecific", Written(Status::fromServiceSpecificError(17, "svc")), ReadStatus},
        {"StatusReplyHeader", Le({Status::EX_HAS_REPLY_HEADER, 12, -1, -1}), ReadStatus},
    };
    LogCapture log;  // keeps the expected error lines off stderr
    for (const auto& c : cases) {
        Parcel full;
        Load(&full, c.bytes);
        ASSERT_EQ(c.read(full), android::OK) << c.name;
        EXPECT_EQ(full.dataAvail(), 0u) << c.name;
        for (size_t length = 0; length < c.bytes.size(); ++length) {
            // An exact-size copy, so that ASan sees any read past the prefix.
            const Bytes prefix(c.bytes.begin(), c.bytes.begin() + static_cast<std::ptrdiff_t>(length));
            Parcel parcel;
            Load(&parcel, prefix);
            EXPECT_NE(c.read(parcel), android::OK) << c.name << ", prefix of " << length;
            EXPECT_LE(parcel.dataPosition(), length) << c.name << ", prefix of " << length;
        }
        log.Clear();
    }
}

// A field written for the wire: alone, and with another text in one step
// (or refused with nothing written), as the platform's String16 would be.
void ExpectConvertsLikeString16(const std::string& utf8) {
    const String16 genuine(utf8.c_str());
    const String16 ours16 = ToString16(utf8);
    ASSERT_EQ(std::u16string(ours16.string(), ours16.size()), std::u16string(genuine.string(), genuine.size())) << ::testing::PrintToString(utf8);
    Parcel ours;
    Parcel platform;
    ASSERT_EQ(WriteUtf8AsString16(&ours, utf8), android::OK);
    platform.writeString16(genuine);
    ASSERT_EQ(Contents(ours), Contents(platform)) << ::testing::PrintToString(utf8);
    const std::string* const texts[] = {&utf8, &utf8};
    if (!WriteUtf8sAsString16s(&ours, texts, 2)) {
        ASSERT_EQ(ours.dataSize(), platform.dataSize()) << ::testing::PrintToString(utf8);
        WriteUtf8AsString16(&ours, utf8);
        WriteUtf8AsString16(&ours, utf8);
    }
    platform.writeString16(genuine);
    platform.writeString16(genuine);
    ASSERT_EQ(Contents(ours), Contents(platform)) << ::testing::PrintToString(utf8);
}

// A field read from the wire, as the platform's String8 would make it.
void ExpectConvertsLikeString8(const std::u16string& units) {
    const String16 received(units.data(), units.size());
    const std::string genuine = android::String8(received).c_str();
    ASSERT_EQ(ToUtf8(received), genuine) << ::testing::PrintToString(units);
    Parcel parcel;
    parcel.writeString16(received);
    parcel.setDataPosition(0);
    std::string read = "previous";
    ASSERT_EQ(ReadString16AsUtf8(&parcel, &read), android::OK);
    ASSERT_EQ(read, genuine) << ::testing::PrintToString(units);
}

TEST(TextConversion, NamedCasesConvertAsTheGenuineStrings) {
    const std::string utf8[] = {
        "a\xFFz", "\x80",                                   // bytes that start nothing
        "\xC0\xAF", "\xC0\x80x", "\xE0\x80\xAF",               // overlong forms
        "\xED\xA0\x80", "\xF4\x90\x80\x80",                    // a surrogate; past U+10FFFF
        "\xF8\x88\x80\x80\x80",                              // five bytes
        "ab\xE2\x82", "\xF0\x9F\x98", "\xE2\x82z",               // sequences cut short
        "aaaaaaaaa\xF0\x90\x80\x80\xF4\x8F\xBF\xBF",
        std::string("ok\0\xFF", 4),      // malformed only after the NUL
        std::string("\xFF\0ok", 4),      // malformed before it
        std::string(200, 'x') + "\xFF",  // too long for the inline buffer
    };
    for (const std::string& text : utf8) ExpectConvertsLikeString16(text);
    const std::u16string utf16[] = {
        u"a\xD800z", u"a\xDC00z", u"ab\xD800",     // lone surrogates
        u"\xDE00\xD83D",                           // a pair in the wrong order
        u"\xD800\xD800\xDC00",                     // two highs, then a low
        std::u16string(u"a\xD800\0b", 4),          // high surrogate before a NUL
        std::u16string(u"ab\0\xD800", 4),          // lone surrogate after the NUL
        u"\xFFFF\xFFFE\x0080\x07FF\x0800",
    };
    for (const std::u16string& units : utf16) ExpectConvertsLikeString8(units);
}

}  // namespace
