// Parcel primitives and Status, in process: every layout against bytes worked
// out by hand, and malformed input against what the platform makes of it. Then
// device and node records, their lists (one reader, tested over both list
// types), every prefix of every record kind and status, and text conversion
// against the genuine libutils String16 and String8.
#include <android/log.h>
#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <binder/Parcelable.h>
#include <binder/ProcessState.h>
#include <binder/Status.h>
#include <gtest/gtest.h>
#include <linux/android/binder.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
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

using android::IBinder;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using android::binder::Status;
using namespace com::solvane::pravik::deviceinfo;
using namespace tivra_test;
using Texts = std::vector<std::string>;

// Writes and reads one int32; counts its reads.
class Counter : public android::Parcelable {
public:
    explicit Counter(int32_t value = 0) : value(value) {}
    status_t writeToParcel(Parcel* parcel) const override { return parcel->writeInt32(value); }
    status_t readFromParcel(const Parcel* parcel) override { return ++reads, parcel->readInt32(&value); }
    int32_t value;
    int reads = 0;
};

// A flat binder object followed by its stability level, as a writer frames it.
Bytes BinderObject(uint32_t type, uint64_t binderOrHandle, uint64_t cookie, int32_t level) {
    flat_binder_object object{};
    object.hdr.type = type;
    object.flags = 0x13 | FLAT_BINDER_FLAG_ACCEPTS_FDS;
    object.binder = binderOrHandle;
    object.cookie = cookie;
    Bytes bytes(sizeof(object) + sizeof(level));
    std::memcpy(bytes.data(), &object, sizeof(object));
    std::memcpy(bytes.data() + sizeof(object), &level, sizeof(level));
    return bytes;
}

// What a write puts down, and (where given) the read that takes it back.
struct LayoutCase {
    const char* name;
    std::function<status_t(Parcel*)> write;
    Bytes expected;
    std::function<bool(const Parcel&)> readsBack;  // reads the value and compares it; may be empty
};

// A value written with `write` and read back with `read`; `same` compares.
template <typename V, typename Same = std::equal_to<V>>
LayoutCase Typed(const char* name, status_t (Parcel::*write)(const V&), status_t (Parcel::*read)(V*) const,
                 std::function<V()> make, Bytes expected, Same same = Same()) {
    return {name, [=](Parcel* p) { return (p->*write)(make()); }, std::move(expected), [=](const Parcel& p) {
                V back{};
                return (p.*read)(&back) == android::OK && same(back, make());
            }};
}

using NullableStrings = std::unique_ptr<std::vector<std::unique_ptr<String16>>>;

bool SameStrings(const NullableStrings& a, const NullableStrings& b) {
    if (!a || !b) return !a && !b;
    return std::equal(a->begin(), a->end(), b->begin(), b->end(),
                      [](const auto& x, const auto& y) { return (!x && !y) || (x && y && *x == *y); });
}

const LayoutCase kLayouts[] = {
    // An int64 after one int32 starts at offset 4: no padding to 8.
    {"Int64AlignedToFourOnly", [](Parcel* p) { p->writeInt32(1); return p->writeInt64(0x0102030405060708); },
     {0x01, 0, 0, 0, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01}, {}},
    {"EmptyString16", [](Parcel* p) { return p->writeString16(String16()); }, Le({0, 0}), {}},
    // Two units plus the terminator take six bytes, padded to eight; three fill eight exactly.
    {"String16Padded", [](Parcel* p) { return p->writeString16(String16(u"ab")); }, Le({2, 0x620061, 0}), {}},
    {"String16Unpadded", [](Parcel* p) { return p->writeString16(String16(u"abc")); }, Le({3, 0x620061, 'c'}), {}},
    {"NullString16", [](Parcel* p) { return p->writeString16(std::unique_ptr<String16>()); }, Le({-1}), {}},
    {"InterfaceToken", [](Parcel* p) { return p->writeInterfaceToken(String16(u"a.B")); },
     Le({static_cast<int32_t>(0x80000000), -1, 0x53595354, 3, 0x2E0061, 'B'}), {}},
    {"RawWritePadsOneByte", [](Parcel* p) { return p->write("\x11\x22\x33", 3); }, {0x11, 0x22, 0x33, 0}, {}},
    // Padding written over older bytes is still zero.
    {"PaddingOverwritesOldBytes", [](Parcel* p) { p->writeInt32(-1); p->setDataPosition(0); return p->write("\xAA", 1); },
     {0xAA, 0, 0, 0}, {}},
    // The forms generated interface code uses.
    Typed<std::vector<int64_t>>("Int64Vector", &Parcel::writeInt64Vector, &Parcel::readInt64Vector,
                                [] { return std::vector<int64_t>{1, -1}; }, Le({2, 1, 0, -1, -1})),
    Typed<std::vector<bool>>("BoolVector", &Parcel::writeBoolVector, &Parcel::readBoolVector,
                             [] { return std::vector<bool>{true, false}; }, Le({2, 1, 0})),
    // Bytes are packed, then padded once.
    Typed<std::vector<uint8_t>>("ByteVector", &Parcel::writeByteVector, &Parcel::readByteVector,
                                [] { return std::vector<uint8_t>{1, 2, 3}; }, Le({3, 0x030201})),
    Typed<std::unique_ptr<std::vector<int8_t>>>("NullByteVector", &Parcel::writeByteVector, &Parcel::readByteVector,
                                                [] { return std::unique_ptr<std::vector<int8_t>>(); }, Le({-1}),
                                                [](const auto& a, const auto& b) { return !a && !b; }),
    Typed<std::vector<std::string>>("Utf8Vector", &Parcel::writeUtf8VectorAsUtf16Vector,
                                    &Parcel::readUtf8VectorFromUtf16Vector,
                                    [] { return std::vector<std::string>{"\xC3\xA9", ""}; }, Le({2, 1, 0xE9, 0, 0})),
    Typed<NullableStrings>("NullableString16Vector", &Parcel::writeString16Vector, &Parcel::readString16Vector,
                           [] {
                               auto strings = std::make_unique<std::vector<std::unique_ptr<String16>>>();
                               strings->push_back(std::make_unique<String16>(u"a"));
                               strings->push_back(nullptr);
                               return strings;
                           },
                           Le({2, 1, 'a', -1}), SameStrings),
    // Elements of a nullable binder vector may be null: a null object, level 0.
    Typed<std::unique_ptr<std::vector<sp<IBinder>>>>(
        "NullableBinderVector", &Parcel::writeStrongBinderVector, &Parcel::readStrongBinderVector,
        [] { return std::make_unique<std::vector<sp<IBinder>>>(1); }, Cat(Le({1}), BinderObject(BINDER_TYPE_BINDER, 0, 0, 0)),
        [](const auto& a, const auto& b) { return a && b && a->size() == 1 && b->size() == 1 && !(*a)[0]; }),
    {"NullableParcelables",
     [](Parcel* p) {
         auto counters = std::make_unique<std::vector<std::unique_ptr<Counter>>>();
         counters->push_back(nullptr);
         counters->push_back(std::make_unique<Counter>(4));
         return p->writeParcelableVector(counters);
     },
     Le({2, 0, 1, 4}),
     [](const Parcel& p) {
         std::unique_ptr<std::vector<std::unique_ptr<Counter>>> back;
         return p.readParcelableVector(&back) == android::OK && back && back->size() == 2 && !(*back)[0] &&
                (*back)[1] && (*back)[1]->value == 4;
     }},
    {"ParcelableMarker", [](Parcel* p) { return p->writeParcelable(Counter(0x33)); }, Le({1, 0x33}), {}},
    {"Scalars", [](Parcel* p) { p->writeByte(-2); p->writeChar(u'\xFFFF'); p->writeFloat(-2.0f); return p->writeDouble(1.0); },
     Le({-2, 0xFFFF, static_cast<int32_t>(0xC0000000), 0, 0x3FF00000}), {}},
};

TEST(ParcelLayout, WritesHandComputedBytesAndReadsThemBack) {
    for (const LayoutCase& c : kLayouts) {
        Parcel parcel;
        ASSERT_EQ(c.write(&parcel), android::OK) << c.name;
        EXPECT_EQ(Contents(parcel), c.expected) << c.name;
        EXPECT_EQ(parcel.dataPosition(), c.expected.size()) << c.name;
        if (!c.readsBack) continue;
        parcel.setDataPosition(0);
        EXPECT_TRUE(c.readsBack(parcel)) << c.name;
        EXPECT_EQ(parcel.dataAvail(), 0u) << c.name;
    }
}

TEST(ParcelRead, MalformedString16GivesUnexpectedNullAndEmptyOutput) {
    const struct {
        const char* name;
        Bytes bytes;
    } cases[] = {
        {"NullLength", Le({-1})},
        {"OtherNegativeLength", Le({-2, 'a'})},
        {"NoData", {}},
        {"LengthOnly", Le({0})},
        {"LengthPastEnd", Le({5, 0x620061, 0})},
        {"TerminatorMissing", {2, 0, 0, 0, 'a', 0, 'b', 0, 0, 0}},
        {"HugeLength", Le({0x7FFFFFFF, 0})},
        {"NonZeroTerminator", Le({2, 0x620061, 'c'})},
        {"TerminatorHighByteSet", Le({1, 0x1000061})},
    };
    for (const auto& c : cases) {
        Parcel parcel;
        Load(&parcel, c.bytes);
        String16 out(u"previous");
        EXPECT_EQ(parcel.readString16(&out), android::UNEXPECTED_NULL) << c.name;
        EXPECT_EQ(out.size(), 0u) << c.name;
        parcel.setDataPosition(0);
        size_t len = 99;
        EXPECT_EQ(parcel.readString16Inplace(&len), nullptr) << c.name;
        EXPECT_EQ(len, 0u) << c.name;
    }
}

// A nullable string read that must give null; UNKNOWN_ERROR when it gives a string.
status_t ReadNullString16(const Parcel& p) {
    auto text = std::make_unique<String16>(u"old");
    const status_t status = p.readString16(&text);
    return status == android::OK && text ? android::UNKNOWN_ERROR : status;
}

// readParcelable into an existing object; UNKNOWN_ERROR when it read the value
// other than `reads` times or changed it.
std::function<status_t(const Parcel&)> ReadCounter(int reads) {
    return [reads](const Parcel& p) {
        Counter counter(-7);
        const status_t status = p.readParcelable(&counter);
        return counter.reads != reads || counter.value != -7 ? android::UNKNOWN_ERROR : status;
    };
}

TEST(ParcelRead, TypedFormsFailAsThePlatformDoes) {
    constexpr int32_t kHuge = 0x7FFFFFFF;
    const struct {
        const char* name;
        Bytes bytes;
        std::function<status_t(const Parcel&)> read;
        status_t result;
    } cases[] = {
        // A count no data could back fails as its first missing element does,
        // without an allocation of that size.
        {"HugeInt32Vector", Le({kHuge, 1}), [](const Parcel& p) { std::vector<int32_t> v; return p.readInt32Vector(&v); },
         android::NOT_ENOUGH_DATA},
        {"HugeByteVector", Le({kHuge, 0}), [](const Parcel& p) { std::vector<uint8_t> v; return p.readByteVector(&v); },
         android::BAD_VALUE},
        {"HugeOutVector", Le({kHuge}), [](const Parcel& p) { std::vector<int64_t> v; return p.resizeOutVector(&v); },
         android::BAD_VALUE},
        {"NegativeCount", Le({-1}), [](const Parcel& p) { std::vector<double> v; return p.readDoubleVector(&v); },
         android::UNEXPECTED_NULL},
        {"NullElementOfABinderVector", Cat(Le({1}), BinderObject(BINDER_TYPE_BINDER, 0, 0, 0)),
         [](const Parcel& p) { std::vector<sp<IBinder>> v; return p.readStrongBinderVector(&v); },
         android::UNEXPECTED_NULL},
        // Any negative length is a null string.
        {"NullString", Le({-1}), ReadNullString16, android::OK},
        {"OtherNegativeStringLength", Le({-2}), ReadNullString16, android::OK},
        // Only a marker of 0 is a null parcelable; a failed marker read leaves the value unread.
        {"NegativeParcelableMarker", Le({-1, 5}),
         [](const Parcel& p) {
             std::unique_ptr<Counter> counter;
             const status_t status = p.readParcelable(&counter);
             return status == android::OK && (!counter || counter->value != 5) ? android::UNKNOWN_ERROR : status;
         },
         android::OK},
        {"ZeroMarker", Le({0, 9}), ReadCounter(0), android::UNEXPECTED_NULL},
        {"MarkerCut", {1, 0}, ReadCounter(0), android::NOT_ENOUGH_DATA},
        {"ValueMissing", Le({1}), ReadCounter(1), android::NOT_ENOUGH_DATA},
    };
    for (const auto& c : cases) {
        Parcel parcel;
        Load(&parcel, c.bytes);
        EXPECT_EQ(c.read(parcel), c.result) << c.name;
    }
}

Bytes Token(int32_t header, const char* descriptor) {
    return tivra_test::Wire(static_cast<int32_t>(0x80000000u), -1, header, descriptor);
}

TEST(ParcelInterfaceToken, EnforcedAndConsumed) {
    const char descriptor[] = "com.example.IThing";
    const struct {
        const char* name;
        Bytes bytes;
        bool accepted;
    } cases[] = {
        {"Matching", Token(0x53595354, descriptor), true},
        {"VendorHeader", Token(0x564e4452, descriptor), false},
        {"PrefixDescriptor", Token(0x53595354, "com.example.IThin"), false},
        {"SameLengthOtherUnit", Token(0x53595354, "com.example.IThinG"), false},
        {"NoToken", {}, false},
        {"HeaderOnly", Le({static_cast<int32_t>(0x80000000), -1, 0x53595354}), false},
    };
    for (const auto& c : cases) {
        Parcel parcel;
        Load(&parcel, Cat(c.bytes, Le({42})));
        EXPECT_EQ(parcel.enforceInterface(String16(descriptor)), c.accepted) << c.name;
        if (c.accepted) EXPECT_EQ(parcel.readInt32(), 42);
    }
}

// setObjects (appendObject for each offset) takes all or nothing.
TEST(ParcelObjectTable, ValidatedBySetObjects) {
    const struct {
        const char* name;
        size_t dataSize;
        std::vector<uint64_t> offsets;
        bool valid;
    } cases[] = {
        {"Empty", 0, {}, true},
        {"One", 24, {0}, true},
        {"EndsAtDataEnd", 48, {24}, true},
        {"Unaligned", 48, {2}, false},
        {"UnalignedSecond", 64, {0, 26}, false},
        {"PastEnd", 48, {28}, false},
        {"HugeOffset", 24, {~uint64_t{0} - 3}, false},
        {"NoData", 0, {0}, false},
        {"Overlapping", 64, {0, 20}, false},
        {"Duplicate", 64, {8, 8}, false},
        {"OutOfOrder", 64, {24, 0}, false},
    };
    for (const auto& c : cases) {
        Parcel parcel;
        Load(&parcel, Bytes(c.dataSize, 0));
        EXPECT_EQ(parcel.setObjects(c.offsets.data(), c.offsets.size()) == android::OK, c.valid) << c.name;
        const std::vector<uint64_t> kept(parcel.objects(), parcel.objects() + parcel.objectsCount());
        EXPECT_EQ(kept, c.valid ? c.offsets : std::vector<uint64_t>()) << c.name;
    }
}

// Object at bytes 8..31 of 40. A read must fit the data, its padding included,
// and not touch the object; a refused read keeps the position.
TEST(ParcelRead, PlainReadsMustFitTheDataAndNotOverlapAnObject) {
    Parcel parcel;
    Load(&parcel, Bytes(40, 0));
    ASSERT_EQ(parcel.appendObject(8), android::OK);
    const struct {
        size_t pos;
        size_t len;
        status_t result;
    } reads[] = {
        {0, 4, android::OK},  {4, 4, android::OK},  {4, 8, android::PERMISSION_DENIED},
        {8, 4, android::PERMISSION_DENIED},         {20, 4, android::PERMISSION_DENIED},
        {28, 4, android::PERMISSION_DENIED},        {0, 40, android::PERMISSION_DENIED},
        {32, 4, android::OK}, {32, 8, android::OK}, {6, 1, android::PERMISSION_DENIED},
        {36, 5, android::NOT_ENOUGH_DATA}, {37, 3, android::NOT_ENOUGH_DATA}, {44, 0, android::NOT_ENOUGH_DATA},
        {0, ~size_t{0} - 1, android::NOT_ENOUGH_DATA},  // the padded length wraps around
    };
    for (const auto& r : reads) {
        parcel.setDataPosition(r.pos);
        uint8_t out[40] = {};
        EXPECT_EQ(parcel.read(out, r.len), r.result) << r.pos << "+" << r.len;
        EXPECT_EQ(parcel.dataPosition(), r.result == android::OK ? r.pos + ((r.len + 3) & ~size_t{3}) : r.pos);
    }
}

constexpr int32_t kNoHandle = -1;  // a read that gives no proxy

Bytes Prefix(Bytes bytes, size_t size) {
    bytes.resize(size);
    return bytes;
}

// The handle of a proxy, or kNoHandle for null or a local object.
int32_t HandleOf(const sp<IBinder>& binder) {
    return binder != nullptr && binder->remoteBinder() != nullptr ? binder->remoteBinder()->handle() : kNoHandle;
}

TEST(ParcelBinder, ReadsTheObjectByItsType) {
    const struct {
        const char* name;
        Bytes bytes;
        bool listed;        // offset 0 is in the object table
        status_t nullable;  // readNullableStrongBinder's result
        status_t strong;    // readStrongBinder's
        int32_t handle;     // of the proxy read, when one is
    } cases[] = {
        {"NullObject", BinderObject(BINDER_TYPE_BINDER, 0, 0, 0), false, android::OK, android::UNEXPECTED_NULL, kNoHandle},
        {"NullWithALevel", BinderObject(BINDER_TYPE_BINDER, 0, 0, 12), false, android::BAD_TYPE, android::BAD_TYPE,
         kNoHandle},
        {"FewerThanAnObjectLeft", Prefix(BinderObject(BINDER_TYPE_BINDER, 0, 0, 0), 20), false, android::BAD_TYPE,
         android::BAD_TYPE, kNoHandle},
        {"LevelMissing", Prefix(BinderObject(BINDER_TYPE_HANDLE, 0, 0, 12), 24), false, android::NOT_ENOUGH_DATA,
         android::NOT_ENOUGH_DATA, kNoHandle},
        // Handle 0 names something although its binder field is zero.
        {"ContextManagerWithoutTableEntry", BinderObject(BINDER_TYPE_HANDLE, 0, 0, 12), false, android::OK, android::OK, 0},
        {"ListedHandle", BinderObject(BINDER_TYPE_HANDLE, 7, 0, 3), true, android::OK, android::OK, 7},
        {"UnlistedHandle", BinderObject(BINDER_TYPE_HANDLE, 7, 0, 12), false, android::BAD_TYPE, android::BAD_TYPE,
         kNoHandle},
        {"UnlistedCookie", BinderObject(BINDER_TYPE_BINDER, 0, 0x1000, 12), false, android::BAD_TYPE, android::BAD_TYPE,
         kNoHandle},
        {"UnknownLevel", BinderObject(BINDER_TYPE_HANDLE, 8, 0, 5), true, android::BAD_TYPE, android::BAD_TYPE, kNoHandle},
        {"UnknownType", BinderObject(BINDER_TYPE_FD, 0, 0, 0), false, android::BAD_TYPE, android::BAD_TYPE, kNoHandle},
    };
    for (const auto& c : cases) {
        for (const bool nullable : {true, false}) {
            SCOPED_TRACE(std::string(c.name) + (nullable ? ", nullable" : ", strong"));
            Parcel parcel;
            Load(&parcel, c.bytes);
            const uint64_t offset = 0;
            ASSERT_EQ(parcel.setObjects(&offset, c.listed ? 1 : 0), android::OK);
            const sp<IBinder> before = new android::BBinder();
            sp<IBinder> binder = before;
            const status_t result = nullable ? parcel.readNullableStrongBinder(&binder) : parcel.readStrongBinder(&binder);
            EXPECT_EQ(result, nullable ? c.nullable : c.strong);
            EXPECT_EQ(HandleOf(binder), c.handle);
            // What was read replaces the output, a null too; a failed read leaves it.
            const bool consumed = result == android::OK || result == android::UNEXPECTED_NULL;
            EXPECT_EQ(binder == before, !consumed);
            EXPECT_EQ(parcel.dataPosition(), consumed ? c.bytes.size() : 0u);
        }
    }
}

// The result of reading a handle object with `level` into `proxy`.
status_t ReadProxy(int32_t handle, int32_t level, sp<IBinder>* proxy) {
    Parcel parcel;
    Load(&parcel, BinderObject(BINDER_TYPE_HANDLE, static_cast<uint64_t>(handle), 0, level));
    const uint64_t offset = 0;
    parcel.setObjects(&offset, 1);
    return parcel.readStrongBinder(proxy);
}

// A proxy keeps the level it first arrived with, and is written with it; the
// platform lists only objects whose binder field is not zero, so not handle 0.
TEST(ParcelBinder, AProxyKeepsAndWritesTheLevelItFirstArrivedWith) {
    sp<IBinder> proxy;
    EXPECT_EQ(ReadProxy(13, 3, &proxy), android::OK);
    EXPECT_EQ(ReadProxy(13, 3, &proxy), android::OK);
    EXPECT_EQ(ReadProxy(13, 12, &proxy), android::BAD_TYPE);
    for (const sp<IBinder>& binder : {android::ProcessState::self()->getContextObject(nullptr), proxy}) {
        Parcel parcel;
        ASSERT_EQ(parcel.writeStrongBinder(binder), android::OK);
        const int32_t handle = HandleOf(binder);
        EXPECT_EQ(Contents(parcel), BinderObject(BINDER_TYPE_HANDLE, handle, 0, handle == 0 ? 12 : 3)) << handle;
        EXPECT_EQ(parcel.objectsCount(), handle == 0 ? 0u : 1u) << handle;
    }
}

TEST(StatusParcel, EachKindWritesItsBytesAndReadsBackStoppingAfterItself) {
    const struct {
        const char* name;
        Status status;
        Bytes bytes;
        int32_t serviceError;  // read back
        std::string message;   // read back
    } cases[] = {
        {"Ok", Status::ok(), Le({0}), 0, ""},
        {"Exception", Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "bad"), Le({-3, 3, 0x610062, 'd', 0}), 0,
         "bad"},
        {"ServiceSpecific", Status::fromServiceSpecificError(0x1234, "x"), Le({-8, 1, 'x', 0, 0x1234}), 0x1234, "x"},
        {"Parcelable", Status::fromExceptionCode(Status::EX_PARCELABLE, "p"), Le({-9, 1, 'p', 0, 0}), 0, "p"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Parcel parcel;
        ASSERT_EQ(c.status.writeToParcel(&parcel), android::OK);
        EXPECT_EQ(Contents(parcel), c.bytes);
        Load(&parcel, Cat(c.bytes, Le({0x600D})));
        // Start from a different kind so that every field must be replaced.
        Status status = Status::fromServiceSpecificError(99, "stale");
        ASSERT_EQ(status.readFromParcel(parcel), android::OK);
        EXPECT_EQ(status.exceptionCode(), c.status.exceptionCode());
        EXPECT_EQ(status.serviceSpecificErrorCode(), c.serviceError);
        EXPECT_EQ(status.exceptionMessage().c_str(), c.message);
        EXPECT_EQ(parcel.readInt32(), 0x600D);
    }
}

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
        {"MinusOneRefused", Wire("n", -1, "id"), -1, "n|160|old-id",
         {"read deviceType from parcel is invalid value"}},
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
