// Parcel primitives and Status, in process: every layout against bytes worked
// out by hand, and every malformed input against what the platform makes of it.
#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <binder/Parcelable.h>
#include <binder/ProcessState.h>
#include <binder/Status.h>
#include <gtest/gtest.h>
#include <linux/android/binder.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "parcel_bytes.h"

namespace {

using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using android::binder::Status;
using tivra_test::Bytes;
using tivra_test::Cat;
using tivra_test::Contents;
using tivra_test::Le;

// Names a parameterised case by its `name` field.
struct ByName {
    template <typename P>
    std::string operator()(const ::testing::TestParamInfo<P>& info) const { return info.param.name; }
};

void Load(Parcel* parcel, const Bytes& bytes) { ASSERT_EQ(tivra_test::Load(parcel, bytes), android::OK); }

// ---- Writes of the primitives --------------------------------------------

struct WriteCase {
    const char* name;
    std::function<status_t(Parcel*)> write;
    Bytes expected;
};

class ParcelWriteLayout : public ::testing::TestWithParam<WriteCase> {};

TEST_P(ParcelWriteLayout, MatchesHandComputedBytes) {
    Parcel parcel;
    ASSERT_EQ(GetParam().write(&parcel), android::OK);
    EXPECT_EQ(Contents(parcel), GetParam().expected);
    EXPECT_EQ(parcel.dataPosition(), GetParam().expected.size());
}

const WriteCase kWriteCases[] = {
    {"NegativeInt32", [](Parcel* p) { return p->writeInt32(-2); }, {0xFE, 0xFF, 0xFF, 0xFF}},
    // An int64 after one int32 starts at offset 4: no padding to 8.
    {"Int64AlignedToFourOnly", [](Parcel* p) { p->writeInt32(1); return p->writeInt64(0x0102030405060708); },
     {0x01, 0, 0, 0, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01}},
    {"BoolTrue", [](Parcel* p) { return p->writeBool(true); }, {1, 0, 0, 0}},
    {"EmptyString16", [](Parcel* p) { return p->writeString16(String16()); }, {0, 0, 0, 0, 0, 0, 0, 0}},
    // Two units plus the terminator take six bytes, padded to eight; three fill eight exactly.
    {"String16Padded", [](Parcel* p) { return p->writeString16(String16(u"ab")); },
     {2, 0, 0, 0, 'a', 0, 'b', 0, 0, 0, 0, 0}},
    {"String16Unpadded", [](Parcel* p) { return p->writeString16(String16(u"abc")); },
     {3, 0, 0, 0, 'a', 0, 'b', 0, 'c', 0, 0, 0}},
    // U+00E9, U+20AC and U+1F600 (a surrogate pair): four units.
    {"NonAsciiString16FromUtf8", [](Parcel* p) { return p->writeString16(String16("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80")); },
     {4, 0, 0, 0, 0xE9, 0x00, 0xAC, 0x20, 0x3D, 0xD8, 0x00, 0xDE, 0, 0, 0, 0}},
    {"NullString16", [](Parcel* p) { return p->writeString16(std::unique_ptr<String16>()); }, Le({-1})},
    {"NullUnitPointer", [](Parcel* p) { return p->writeString16(nullptr, 5); }, Le({-1})},
    {"InterfaceToken", [](Parcel* p) { return p->writeInterfaceToken(String16(u"a.B")); },
     Cat(Le({static_cast<int32_t>(0x80000000), -1, 0x53595354, 3}), {'a', 0, '.', 0, 'B', 0, 0, 0})},
    {"RawWritePadsOneByte", [](Parcel* p) { return p->write("\x11\x22\x33", 3); }, {0x11, 0x22, 0x33, 0}},
    {"RawWritePadsThreeBytes", [](Parcel* p) { return p->write("\x11\x22\x33\x44\x55", 5); },
     {0x11, 0x22, 0x33, 0x44, 0x55, 0, 0, 0}},
    // Padding written over older bytes is still zero.
    {"PaddingOverwritesOldBytes", [](Parcel* p) { p->writeInt32(-1); p->setDataPosition(0); return p->write("\xAA", 1); },
     {0xAA, 0, 0, 0}},
};

INSTANTIATE_TEST_SUITE_P(Encodings, ParcelWriteLayout, ::testing::ValuesIn(kWriteCases), ByName());

// ---- Reads of the primitives -----------------------------------------------

struct ShortReadCase {
    const char* name;
    size_t needs;  // bytes the read consumes
    std::function<status_t(const Parcel&)> read;
};

const ShortReadCase kShortReads[] = {
    {"Int32", 4, [](const Parcel& p) { int32_t v = 0; return p.readInt32(&v); }},
    {"Uint32", 4, [](const Parcel& p) { uint32_t v = 0; return p.readUint32(&v); }},
    {"Int64", 8, [](const Parcel& p) { int64_t v = 0; return p.readInt64(&v); }},
    {"Uint64", 8, [](const Parcel& p) { uint64_t v = 0; return p.readUint64(&v); }},
    {"Bool", 4, [](const Parcel& p) { bool v = false; return p.readBool(&v); }},
    {"Raw", 6, [](const Parcel& p) { uint8_t v[6] = {}; return p.read(v, sizeof(v)); }},
};

class ParcelShortRead : public ::testing::TestWithParam<ShortReadCase> {};

// Every data size below what the read needs, at every start position inside it.
TEST_P(ParcelShortRead, FailsWithNotEnoughDataAndKeepsPosition) {
    const ShortReadCase& c = GetParam();
    const size_t padded = (c.needs + 3) & ~size_t{3};
    for (size_t size = 0; size < padded + 4; ++size) {
        Parcel parcel;
        Load(&parcel, Bytes(size, 0x5A));
        for (size_t pos = 0; pos <= size + 4; ++pos) {
            parcel.setDataPosition(pos);
            const bool fits = pos + padded <= size;
            EXPECT_EQ(c.read(parcel), fits ? android::OK : android::NOT_ENOUGH_DATA) << size << "@" << pos;
            EXPECT_EQ(parcel.dataPosition(), fits ? pos + padded : pos) << size << "@" << pos;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Reads, ParcelShortRead, ::testing::ValuesIn(kShortReads), ByName());

TEST(ParcelRead, NoArgumentReadsYieldZeroPastTheEndWithoutMoving) {
    Parcel parcel;
    Load(&parcel, {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07});
    parcel.setDataPosition(4);
    EXPECT_EQ(parcel.readInt32(), 0);
    EXPECT_EQ(parcel.readBool(), false);
    parcel.setDataPosition(0);
    EXPECT_EQ(parcel.readInt64(), 0);
    EXPECT_EQ(parcel.dataPosition(), 0u);
    EXPECT_EQ(parcel.readInt32(), 0x04030201);  // the data itself is still there
}

struct BadStringCase {
    const char* name;
    Bytes bytes;
};

const BadStringCase kBadStrings[] = {
    {"NullLength", Le({-1})},
    {"OtherNegativeLength", Le({-2, 'a'})},
    {"NoData", {}},
    {"LengthOnly", Le({0})},
    {"LengthPastEnd", {5, 0, 0, 0, 'a', 0, 'b', 0, 0, 0, 0, 0}},
    {"TerminatorMissing", {2, 0, 0, 0, 'a', 0, 'b', 0, 0, 0}},
    {"HugeLength", Le({0x7FFFFFFF, 0})},
    {"NonZeroTerminator", {2, 0, 0, 0, 'a', 0, 'b', 0, 'c', 0, 0, 0}},
    {"TerminatorHighByteSet", {1, 0, 0, 0, 'a', 0, 0, 1}},
};

class ParcelBadString16 : public ::testing::TestWithParam<BadStringCase> {};

TEST_P(ParcelBadString16, GivesUnexpectedNullAndEmptyOutput) {
    Parcel parcel;
    Load(&parcel, GetParam().bytes);
    String16 out(u"previous");
    EXPECT_EQ(parcel.readString16(&out), android::UNEXPECTED_NULL);
    EXPECT_EQ(out.size(), 0u);
    parcel.setDataPosition(0);
    EXPECT_EQ(parcel.readString16().size(), 0u);
    parcel.setDataPosition(0);
    size_t len = 99;
    EXPECT_EQ(parcel.readString16Inplace(&len), nullptr);
    EXPECT_EQ(len, 0u);
}

INSTANTIATE_TEST_SUITE_P(Malformed, ParcelBadString16, ::testing::ValuesIn(kBadStrings), ByName());

TEST(ParcelString16, RoundTripsTextAndAdvancesPastPadding) {
    const char* const texts[] = {"", "a", "ab", "abc", "com.example.IThing", "\xC3\xA9t\xC3\xA9 \xF0\x9F\x98\x80"};
    Parcel parcel;
    for (const char* text : texts) ASSERT_EQ(parcel.writeString16(String16(text)), android::OK);
    parcel.writeInt32(0x7E57);
    parcel.setDataPosition(0);
    for (const char* text : texts) {
        String16 out;
        ASSERT_EQ(parcel.readString16(&out), android::OK);
        EXPECT_STREQ(android::String8(out).c_str(), text);
    }
    EXPECT_EQ(parcel.readInt32(), 0x7E57);
}

// ---- Interface tokens ------------------------------------------------------

const char16_t kDescriptor[] = u"com.example.IThing";

Bytes Token(uint32_t header, const std::u16string& descriptor) {
    Parcel parcel;
    parcel.writeInt32(static_cast<int32_t>(0x80000000u));
    parcel.writeInt32(-1);
    parcel.writeUint32(header);
    parcel.writeString16(String16(descriptor.data(), descriptor.size()));
    return Contents(parcel);
}

struct TokenCase {
    const char* name;
    Bytes bytes;
    bool accepted;
};

const TokenCase kTokens[] = {
    {"Matching", Token(0x53595354, kDescriptor), true},
    {"VendorHeader", Token(0x564e4452, kDescriptor), false},
    {"ZeroHeader", Token(0, kDescriptor), false},
    {"PrefixDescriptor", Token(0x53595354, u"com.example.IThin"), false},
    {"LongerDescriptor", Token(0x53595354, u"com.example.IThings"), false},
    {"SameLengthOtherUnit", Token(0x53595354, u"com.example.IThinG"), false},
    {"EmptyDescriptor", Token(0x53595354, u""), false},
    {"NoToken", {}, false},
    {"HeaderOnly", Le({static_cast<int32_t>(0x80000000), -1, 0x53595354}), false},
};

// A binder that only knows its descriptor; checkInterface asks for nothing else.
class DescriptorBinder : public android::IBinder {
public:
    const String16& getInterfaceDescriptor() const override { return mDescriptor; }
    bool isBinderAlive() const override { return true; }
    status_t pingBinder() override { return android::OK; }
    status_t transact(uint32_t, const Parcel&, Parcel*, uint32_t) override { return android::INVALID_OPERATION; }
    status_t linkToDeath(const sp<DeathRecipient>&, void*, uint32_t) override { return android::INVALID_OPERATION; }
    status_t unlinkToDeath(const android::wp<DeathRecipient>&, void*, uint32_t,
                           android::wp<DeathRecipient>*) override {
        return android::INVALID_OPERATION;
    }

private:
    String16 mDescriptor{kDescriptor};
};

class ParcelInterfaceToken : public ::testing::TestWithParam<TokenCase> {};

TEST_P(ParcelInterfaceToken, EnforcedAndCheckedAgainstTheBinder) {
    Parcel parcel;
    Load(&parcel, Cat(GetParam().bytes, Le({42})));
    EXPECT_EQ(parcel.enforceInterface(String16(kDescriptor)), GetParam().accepted);
    if (GetParam().accepted) EXPECT_EQ(parcel.readInt32(), 42);  // the token is consumed
    parcel.setDataPosition(0);
    const sp<DescriptorBinder> binder = new DescriptorBinder();
    EXPECT_EQ(parcel.checkInterface(binder.get()), GetParam().accepted);
}

INSTANTIATE_TEST_SUITE_P(Tokens, ParcelInterfaceToken, ::testing::ValuesIn(kTokens), ByName());

// ---- Parcelables -----------------------------------------------------------

// Writes and reads one int32; counts its reads.
class Counter : public android::Parcelable {
public:
    explicit Counter(int32_t value = 0) : value(value) {}
    status_t writeToParcel(Parcel* parcel) const override { return parcel->writeInt32(value); }
    status_t readFromParcel(const Parcel* parcel) override {
        ++reads;
        return parcel->readInt32(&value);
    }
    int32_t value;
    int reads = 0;
};

TEST(ParcelParcelable, WriteAddsPresenceMarkerOfOne) {
    Parcel parcel;
    ASSERT_EQ(parcel.writeParcelable(Counter(0x33)), android::OK);
    EXPECT_EQ(Contents(parcel), Le({1, 0x33}));
}

TEST(ParcelParcelable, ReadHonoursThePresenceMarker) {
    const struct {
        Bytes bytes;
        status_t result;
        int reads;
        int32_t value;
    } cases[] = {
        {Le({1, 9}), android::OK, 1, 9},      {Le({2, 9}), android::OK, 1, 9},
        {Le({-1, 9}), android::OK, 1, 9},     {Le({0, 9}), android::UNEXPECTED_NULL, 0, -7},
        {{1, 0}, android::NOT_ENOUGH_DATA, 0, -7}, {Le({1}), android::NOT_ENOUGH_DATA, 1, -7},
    };
    for (const auto& c : cases) {
        Parcel parcel;
        Load(&parcel, c.bytes);
        Counter counter(-7);
        EXPECT_EQ(parcel.readParcelable(&counter), c.result) << ::testing::PrintToString(c.bytes);
        EXPECT_EQ(counter.reads, c.reads) << ::testing::PrintToString(c.bytes);
        EXPECT_EQ(counter.value, c.value) << ::testing::PrintToString(c.bytes);
    }
}

// ---- Data and the object table -------------------------------------------

TEST(ParcelData, SetDataCopiesRewindsAndForgetsObjects) {
    Bytes source = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    Parcel parcel;
    Load(&parcel, Bytes(24, 0));
    ASSERT_EQ(parcel.appendObject(0), android::OK);
    parcel.setDataPosition(8);
    Load(&parcel, source);
    source[0] = 0xFF;
    EXPECT_EQ(parcel.objectsCount(), 0u);
    EXPECT_EQ(parcel.dataAvail(), 10u);
    EXPECT_EQ(parcel.readInt32(), 0x04030201);
    parcel.setDataPosition(12);
    EXPECT_EQ(parcel.dataAvail(), 0u);
}

struct ObjectsCase {
    const char* name;
    size_t dataSize;
    std::vector<uint64_t> offsets;
    bool valid;
};

const ObjectsCase kObjectTables[] = {
    {"Empty", 0, {}, true},
    {"One", 24, {0}, true},
    {"Adjacent", 52, {4, 28}, true},
    {"EndsAtDataEnd", 48, {24}, true},
    {"Unaligned", 48, {2}, false},
    {"UnalignedSecond", 64, {0, 26}, false},
    {"PastEnd", 48, {28}, false},
    {"StartsOutsideData", 24, {1u << 20}, false},
    {"HugeOffset", 24, {~uint64_t{0} - 3}, false},
    {"NoData", 0, {0}, false},
    {"Overlapping", 64, {0, 20}, false},
    {"Duplicate", 64, {8, 8}, false},
    {"OutOfOrder", 64, {24, 0}, false},
};

class ParcelObjectTable : public ::testing::TestWithParam<ObjectsCase> {};

// setObjects takes all or nothing; appendObject takes the valid prefix.
TEST_P(ParcelObjectTable, ValidatedBySetObjectsAndAppendObject) {
    const ObjectsCase& c = GetParam();
    Parcel parcel;
    Load(&parcel, Bytes(c.dataSize, 0));
    EXPECT_EQ(parcel.setObjects(c.offsets.data(), c.offsets.size()) == android::OK, c.valid);
    const std::vector<uint64_t> kept(parcel.objects(), parcel.objects() + parcel.objectsCount());
    EXPECT_EQ(kept, c.valid ? c.offsets : std::vector<uint64_t>());

    Load(&parcel, Bytes(c.dataSize, 0));
    status_t last = android::OK;
    for (uint64_t offset : c.offsets) {
        if ((last = parcel.appendObject(offset)) != android::OK) break;
    }
    EXPECT_EQ(last == android::OK, c.valid);
    EXPECT_EQ(parcel.objectsCount(), c.valid ? c.offsets.size() : c.offsets.size() - 1);
}

INSTANTIATE_TEST_SUITE_P(Tables, ParcelObjectTable, ::testing::ValuesIn(kObjectTables), ByName());

// Object at bytes 8..31 of 40; reads that touch it are refused.
TEST(ParcelObjectTable, PlainReadsMustNotOverlapAnObject) {
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
    };
    for (const auto& r : reads) {
        parcel.setDataPosition(r.pos);
        uint8_t out[40] = {};
        EXPECT_EQ(parcel.read(out, r.len), r.result) << r.pos << "+" << r.len;
        EXPECT_EQ(parcel.dataPosition(), r.result == android::OK ? r.pos + ((r.len + 3) & ~size_t{3}) : r.pos);
    }
    parcel.setDataPosition(8);
    int32_t value = 0;
    EXPECT_EQ(parcel.readInt32(&value), android::PERMISSION_DENIED);
    parcel.setDataPosition(4);
    int64_t wide = 0;
    EXPECT_EQ(parcel.readInt64(&wide), android::PERMISSION_DENIED);
    EXPECT_EQ(parcel.readInplace(8), nullptr);
    parcel.setDataPosition(8);
    String16 text(u"x");
    EXPECT_EQ(parcel.readString16(&text), android::UNEXPECTED_NULL);
}

// ---- Binder objects ----------------------------------------------------------

constexpr int32_t kNoHandle = -1;  // a read that gives no proxy

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

Bytes Prefix(Bytes bytes, size_t size) {
    bytes.resize(size);
    return bytes;
}

// The handle of a proxy, or kNoHandle for null or a local object.
int32_t HandleOf(const sp<android::IBinder>& binder) {
    return binder != nullptr && binder->remoteBinder() != nullptr ? binder->remoteBinder()->handle() : kNoHandle;
}

// A parcel holding `bytes` with one object at offset 0 when `listed`.
void LoadObject(Parcel* parcel, const Bytes& bytes, bool listed) {
    Load(parcel, bytes);
    const uint64_t offset = 0;
    ASSERT_EQ(parcel->setObjects(&offset, listed ? 1 : 0), android::OK);
}

struct BinderReadCase {
    const char* name;
    Bytes bytes;
    bool listed;         // offset 0 is in the object table
    status_t nullable;   // readNullableStrongBinder's result
    status_t strong;     // readStrongBinder's
    int32_t handle;      // of the proxy read, when one is
};

const BinderReadCase kBinderReads[] = {
    {"NullObject", BinderObject(BINDER_TYPE_BINDER, 0, 0, 0), false, android::OK, android::UNEXPECTED_NULL, kNoHandle},
    {"NullWithALevel", BinderObject(BINDER_TYPE_BINDER, 0, 0, 12), false, android::BAD_TYPE, android::BAD_TYPE, kNoHandle},
    {"FewerThanAnObjectLeft", Prefix(BinderObject(BINDER_TYPE_BINDER, 0, 0, 0), 20), false, android::BAD_TYPE,
     android::BAD_TYPE, kNoHandle},
    {"LevelMissing", Prefix(BinderObject(BINDER_TYPE_HANDLE, 0, 0, 12), 24), false, android::NOT_ENOUGH_DATA,
     android::NOT_ENOUGH_DATA, kNoHandle},
    // Handle 0 names something although its binder field is zero.
    {"ContextManagerWithoutTableEntry", BinderObject(BINDER_TYPE_HANDLE, 0, 0, 12), false, android::OK, android::OK, 0},
    {"ListedHandle", BinderObject(BINDER_TYPE_HANDLE, 7, 0, 3), true, android::OK, android::OK, 7},
    {"UnlistedHandle", BinderObject(BINDER_TYPE_HANDLE, 7, 0, 12), false, android::BAD_TYPE, android::BAD_TYPE, kNoHandle},
    {"UnlistedCookie", BinderObject(BINDER_TYPE_BINDER, 0, 0x1000, 12), false, android::BAD_TYPE, android::BAD_TYPE,
     kNoHandle},
    {"UnknownLevel", BinderObject(BINDER_TYPE_HANDLE, 8, 0, 5), true, android::BAD_TYPE, android::BAD_TYPE, kNoHandle},
    {"UnknownType", BinderObject(BINDER_TYPE_FD, 0, 0, 0), false, android::BAD_TYPE, android::BAD_TYPE, kNoHandle},
};

class ParcelBinderRead : public ::testing::TestWithParam<BinderReadCase> {};

TEST_P(ParcelBinderRead, ReadsTheObjectByItsType) {
    const BinderReadCase& c = GetParam();
    for (const bool nullable : {true, false}) {
        Parcel parcel;
        LoadObject(&parcel, c.bytes, c.listed);
        const sp<android::IBinder> before = new android::BBinder();
        sp<android::IBinder> binder = before;
        const status_t result = nullable ? parcel.readNullableStrongBinder(&binder) : parcel.readStrongBinder(&binder);
        EXPECT_EQ(result, nullable ? c.nullable : c.strong) << nullable;
        EXPECT_EQ(HandleOf(binder), c.handle) << nullable;
        // What was read replaces the output, a null too; a failed read leaves it.
        const bool consumed = result == android::OK || result == android::UNEXPECTED_NULL;
        EXPECT_EQ(binder == before, !consumed) << nullable;
        EXPECT_EQ(parcel.dataPosition(), consumed ? c.bytes.size() : 0u) << nullable;
    }
}

INSTANTIATE_TEST_SUITE_P(Objects, ParcelBinderRead, ::testing::ValuesIn(kBinderReads), ByName());

// The result of reading a handle object with `level` into `proxy`.
status_t ReadProxy(int32_t handle, int32_t level, sp<android::IBinder>* proxy) {
    Parcel parcel;
    const Bytes bytes = BinderObject(BINDER_TYPE_HANDLE, static_cast<uint64_t>(handle), 0, level);
    parcel.setData(bytes.data(), bytes.size());
    const uint64_t offset = 0;
    parcel.setObjects(&offset, 1);
    return parcel.readStrongBinder(proxy);
}

sp<android::IBinder> ArrivedProxy(int32_t handle, int32_t level) {
    sp<android::IBinder> proxy;
    EXPECT_EQ(ReadProxy(handle, level, &proxy), android::OK);
    return proxy;
}

struct BinderWriteCase {
    const char* name;
    std::function<sp<android::IBinder>()> binder;
    uint32_t type;
    bool listed;
    int32_t level;
};

const BinderWriteCase kBinderWrites[] = {
    {"Null", [] { return nullptr; }, BINDER_TYPE_BINDER, false, 0},
    {"LocalObject", [] { return sp<android::IBinder>(new android::BBinder()); }, BINDER_TYPE_BINDER, true, 12},
    // The platform lists only objects whose binder field is not zero.
    {"ContextManager", [] { return android::ProcessState::self()->getContextObject(nullptr); }, BINDER_TYPE_HANDLE,
     false, 12},
    {"VendorProxyKeepsItsLevel", [] { return ArrivedProxy(11, 3); }, BINDER_TYPE_HANDLE, true, 3},
    {"VintfProxyKeepsItsLevel", [] { return ArrivedProxy(12, 63); }, BINDER_TYPE_HANDLE, true, 63},
};

class ParcelBinderWrite : public ::testing::TestWithParam<BinderWriteCase> {};

TEST_P(ParcelBinderWrite, FramesTheObjectWithItsLevel) {
    const BinderWriteCase& c = GetParam();
    Parcel parcel;
    ASSERT_EQ(parcel.writeStrongBinder(c.binder()), android::OK);
    ASSERT_EQ(parcel.dataSize(), sizeof(flat_binder_object) + sizeof(int32_t));
    flat_binder_object object;
    std::memcpy(&object, parcel.data(), sizeof(object));
    EXPECT_EQ(object.hdr.type, c.type);
    EXPECT_EQ(parcel.objectsCount(), c.listed ? 1u : 0u);
    parcel.setDataPosition(sizeof(object));
    EXPECT_EQ(parcel.readInt32(), c.level);
}

INSTANTIATE_TEST_SUITE_P(Objects, ParcelBinderWrite, ::testing::ValuesIn(kBinderWrites), ByName());

TEST(ParcelBinderLevel, AProxyKeepsTheLevelItFirstArrivedWith) {
    ArrivedProxy(13, 3);
    sp<android::IBinder> again;
    EXPECT_EQ(ReadProxy(13, 3, &again), android::OK);
    EXPECT_EQ(ReadProxy(13, 12, &again), android::BAD_TYPE);
}

// ---- Typed values and vectors (the forms generated interface code uses) -----

struct TypedCase {
    const char* name;
    std::function<status_t(Parcel*)> write;
    Bytes expected;
    std::function<bool(const Parcel&)> readsBack;  // reads the value and compares it
};

// A value written with `write` and read back with `read`; `same` compares.
template <typename V, typename Same = std::equal_to<V>>
TypedCase Typed(const char* name, status_t (Parcel::*write)(const V&), status_t (Parcel::*read)(V*) const,
                std::function<V()> make, Bytes expected, Same same = Same()) {
    return {name, [=](Parcel* p) { return (p->*write)(make()); }, std::move(expected), [=](const Parcel& p) {
                V back{};
                return (p.*read)(&back) == android::OK && same(back, make());
            }};
}

template <typename V>
std::function<V()> Value(V value) {
    return [value] { return value; };
}

using NullableStrings = std::unique_ptr<std::vector<std::unique_ptr<String16>>>;
using NullableBinders = std::unique_ptr<std::vector<sp<android::IBinder>>>;

bool SameStrings(const NullableStrings& a, const NullableStrings& b) {
    if (!a || !b) return !a && !b;
    return std::equal(a->begin(), a->end(), b->begin(), b->end(),
                      [](const auto& x, const auto& y) { return (!x && !y) || (x && y && *x == *y); });
}

const TypedCase kTypedCases[] = {
    Typed<std::vector<int64_t>>("Int64Vector", &Parcel::writeInt64Vector, &Parcel::readInt64Vector,
                                Value(std::vector<int64_t>{1, -1}), Le({2, 1, 0, -1, -1})),
    Typed<std::vector<uint64_t>>("Uint64Vector", &Parcel::writeUint64Vector, &Parcel::readUint64Vector,
                                 Value(std::vector<uint64_t>{5}), Le({1, 5, 0})),
    Typed<std::vector<float>>("FloatVector", &Parcel::writeFloatVector, &Parcel::readFloatVector,
                              Value(std::vector<float>{1.5f}), Le({1, 0x3FC00000})),
    Typed<std::vector<double>>("DoubleVector", &Parcel::writeDoubleVector, &Parcel::readDoubleVector,
                               Value(std::vector<double>{0.5}), Le({1, 0, 0x3FE00000})),
    Typed<std::vector<bool>>("BoolVector", &Parcel::writeBoolVector, &Parcel::readBoolVector,
                             Value(std::vector<bool>{true, false}), Le({2, 1, 0})),
    Typed<std::vector<char16_t>>("CharVector", &Parcel::writeCharVector, &Parcel::readCharVector,
                                 Value(std::vector<char16_t>{u'a', u'\x20AC'}), Le({2, 'a', 0x20AC})),
    // Bytes are packed, then padded once.
    Typed<std::vector<uint8_t>>("ByteVector", &Parcel::writeByteVector, &Parcel::readByteVector,
                                Value(std::vector<uint8_t>{1, 2, 3}), Le({3, 0x030201})),
    Typed<std::unique_ptr<std::vector<int8_t>>>(
        "NullByteVector", &Parcel::writeByteVector, &Parcel::readByteVector,
        [] { return std::unique_ptr<std::vector<int8_t>>(); }, Le({-1}),
        [](const auto& a, const auto& b) { return !a && !b; }),
    Typed<std::vector<std::string>>("Utf8Vector", &Parcel::writeUtf8VectorAsUtf16Vector,
                                    &Parcel::readUtf8VectorFromUtf16Vector,
                                    Value(std::vector<std::string>{"\xC3\xA9"}), Le({1, 1, 0xE9})),
    Typed<NullableStrings>(
        "NullableString16Vector", &Parcel::writeString16Vector, &Parcel::readString16Vector,
        [] {
            auto strings = std::make_unique<std::vector<std::unique_ptr<String16>>>();
            strings->push_back(std::make_unique<String16>(u"a"));
            strings->push_back(nullptr);
            return strings;
        },
        Le({2, 1, 'a', -1}), SameStrings),
    // Elements of a nullable binder vector may be null: a null object, level 0.
    Typed<NullableBinders>(
        "NullableBinderVector", &Parcel::writeStrongBinderVector, &Parcel::readStrongBinderVector,
        [] { return std::make_unique<std::vector<sp<android::IBinder>>>(1); },
        Cat(Le({1}), BinderObject(BINDER_TYPE_BINDER, 0, 0, 0)),
        [](const auto& a, const auto& b) { return a && b && a->size() == 1 && b->size() == 1 && !(*a)[0]; }),
    {"ParcelableVector", [](Parcel* p) { return p->writeParcelableVector(std::vector<Counter>{Counter(9)}); },
     Le({1, 1, 9}),
     [](const Parcel& p) {
         std::vector<Counter> back;
         return p.readParcelableVector(&back) == android::OK && back.size() == 1 && back[0].value == 9;
     }},
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
    {"Scalars",
     [](Parcel* p) {
         p->writeByte(-2);
         p->writeChar(u'\xFFFF');
         p->writeFloat(-2.0f);
         return p->writeDouble(1.0);
     },
     Le({-2, 0xFFFF, static_cast<int32_t>(0xC0000000), 0, 0x3FF00000}),
     [](const Parcel& p) {
         int8_t byte = 0;
         char16_t unit = 0;
         return p.readByte(&byte) == android::OK && byte == -2 && p.readChar(&unit) == android::OK &&
                unit == u'\xFFFF' && p.readFloat() == -2.0f && p.readDouble() == 1.0;
     }},
};

class ParcelTyped : public ::testing::TestWithParam<TypedCase> {};

TEST_P(ParcelTyped, WritesThePlatformLayoutAndReadsItBack) {
    Parcel parcel;
    ASSERT_EQ(GetParam().write(&parcel), android::OK);
    EXPECT_EQ(Contents(parcel), GetParam().expected);
    parcel.setDataPosition(0);
    EXPECT_TRUE(GetParam().readsBack(parcel));
    EXPECT_EQ(parcel.dataAvail(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Forms, ParcelTyped, ::testing::ValuesIn(kTypedCases), ByName());

constexpr int32_t kHugeCount = 0x7FFFFFFF;

// A nullable string read that must give null; UNKNOWN_ERROR when it gives a string.
status_t ReadNullString16(const Parcel& p) {
    auto text = std::make_unique<String16>(u"old");
    const status_t status = p.readString16(&text);
    return status == android::OK && text ? android::UNKNOWN_ERROR : status;
}

TEST(ParcelTypedRead, FailsAsThePlatformDoes) {
    const struct {
        const char* name;
        Bytes bytes;
        std::function<status_t(const Parcel&)> read;
        status_t result;
    } cases[] = {
        // A count no data could back fails as its first missing element does,
        // without an allocation of that size.
        {"HugeInt32Vector", Le({kHugeCount, 1}),
         [](const Parcel& p) { std::vector<int32_t> v; return p.readInt32Vector(&v); }, android::NOT_ENOUGH_DATA},
        {"HugeString16Vector", Le({kHugeCount, 0, 0}),
         [](const Parcel& p) { std::vector<String16> v; return p.readString16Vector(&v); }, android::UNEXPECTED_NULL},
        {"HugeByteVector", Le({kHugeCount, 0}),
         [](const Parcel& p) { std::vector<uint8_t> v; return p.readByteVector(&v); }, android::BAD_VALUE},
        {"HugeOutVector", Le({kHugeCount}),
         [](const Parcel& p) { std::vector<int64_t> v; return p.resizeOutVector(&v); }, android::BAD_VALUE},
        {"NegativeCount", Le({-1}),
         [](const Parcel& p) { std::vector<double> v; return p.readDoubleVector(&v); }, android::UNEXPECTED_NULL},
        {"NegativeOutVector", Le({-1}),
         [](const Parcel& p) { std::vector<bool> v; return p.resizeOutVector(&v); }, android::UNEXPECTED_NULL},
        {"NullElementOfABinderVector", Cat(Le({1}), BinderObject(BINDER_TYPE_BINDER, 0, 0, 0)),
         [](const Parcel& p) { std::vector<sp<android::IBinder>> v; return p.readStrongBinderVector(&v); },
         android::UNEXPECTED_NULL},
        // Any negative length is a null string.
        {"NullString", Le({-1}), ReadNullString16, android::OK},
        {"OtherNegativeStringLength", Le({-2}), ReadNullString16, android::OK},
        // Only a marker of 0 is a null parcelable.
        {"NegativeParcelableMarker", Le({-1, 5}),
         [](const Parcel& p) {
             std::unique_ptr<Counter> counter;
             const status_t status = p.readParcelable(&counter);
             return status == android::OK && (!counter || counter->value != 5) ? android::UNKNOWN_ERROR : status;
         },
         android::OK},
        {"NullUtf8", Le({-1}), [](const Parcel& p) { std::string text; return p.readUtf8FromUtf16(&text); },
         android::UNEXPECTED_NULL},
    };
    for (const auto& c : cases) {
        Parcel parcel;
        Load(&parcel, c.bytes);
        EXPECT_EQ(c.read(parcel), c.result) << c.name;
    }
}

TEST(ParcelTyped, Utf8ThatIsNotUtf8IsRefused) {
    Parcel parcel;
    EXPECT_EQ(parcel.writeUtf8AsUtf16(std::string("a\xFFz")), android::BAD_VALUE);
    EXPECT_EQ(parcel.writeUtf8AsUtf16(std::unique_ptr<std::string>()), android::OK);
    EXPECT_EQ(Contents(parcel), Le({-1}));
}

// ---- Status ------------------------------------------------------------------
// Truncated statuses: the truncation sweep in records_test.

void ExpectStatus(const Status& status, int32_t exception, int32_t serviceError, status_t transportError,
                  const std::string& message) {
    EXPECT_EQ(status.exceptionCode(), exception);
    EXPECT_EQ(status.serviceSpecificErrorCode(), serviceError);
    EXPECT_EQ(status.transactionError(), transportError);
    EXPECT_EQ(status.exceptionMessage().c_str(), message);
}

struct StatusCase {
    const char* name;
    Status status;
    Bytes bytes;
    int32_t serviceError;  // read back
    std::string message;   // read back
};

const StatusCase kStatuses[] = {
    {"Ok", Status::ok(), Le({0}), 0, ""},
    {"Exception", Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "bad"),
     Cat(Le({-3, 3}), {'b', 0, 'a', 0, 'd', 0, 0, 0, 0, 0, 0, 0}), 0, "bad"},
    {"ExceptionWithoutMessage", Status::fromExceptionCode(Status::EX_SECURITY), Le({-1, 0, 0, 0}), 0, ""},
    {"ServiceSpecific", Status::fromServiceSpecificError(0x1234, "x"), Le({-8, 1, 'x', 0, 0x1234}), 0x1234, "x"},
    {"ServiceSpecificNegative", Status::fromServiceSpecificError(-3), Le({-8, 0, 0, 0, -3}), -3, ""},
    {"Parcelable", Status::fromExceptionCode(Status::EX_PARCELABLE, "p"), Le({-9, 1, 'p', 0, 0}), 0, "p"},
    {"NonAsciiMessage", Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, "\xC3\xA9\xF0\x9F\x98\x80"),
     Cat(Le({-5, 3}), {0xE9, 0, 0x3D, 0xD8, 0x00, 0xDE, 0, 0, 0, 0, 0, 0}), 0, "\xC3\xA9\xF0\x9F\x98\x80"},
};

class StatusKind : public ::testing::TestWithParam<StatusCase> {};

TEST_P(StatusKind, WritesItsBytesAndReadsBackStoppingAfterItself) {
    const StatusCase& c = GetParam();
    Parcel parcel;
    ASSERT_EQ(c.status.writeToParcel(&parcel), android::OK);
    EXPECT_EQ(Contents(parcel), c.bytes);
    Load(&parcel, Cat(c.bytes, Le({0x600D})));
    // Start from a different kind so that every field must be replaced.
    Status status = Status::fromServiceSpecificError(99, "stale");
    ASSERT_EQ(status.readFromParcel(parcel), android::OK);
    ExpectStatus(status, c.status.exceptionCode(), c.serviceError, android::OK, c.message);
    EXPECT_EQ(parcel.readInt32(), 0x600D);
}

INSTANTIATE_TEST_SUITE_P(Kinds, StatusKind, ::testing::ValuesIn(kStatuses), ByName());

TEST(StatusWrite, TransportFailureWritesNothingAndReturnsItsCode) {
    for (status_t code : {android::DEAD_OBJECT, android::UNKNOWN_TRANSACTION}) {
        Parcel parcel;
        EXPECT_EQ(Status::fromStatusT(code).writeToParcel(&parcel), code);
        EXPECT_EQ(parcel.dataSize(), 0u);
    }
}

// EX_HAS_REPLY_HEADER, a header whose size counts itself, then the payload.
TEST(StatusRead, ReplyHeaderIsSkippedAndMustFitTheData) {
    Parcel parcel;
    Load(&parcel, Le({Status::EX_HAS_REPLY_HEADER, 12, -1, -1, 0x2A}));
    Status status = Status::fromExceptionCode(Status::EX_SECURITY, "stale");
    ASSERT_EQ(status.readFromParcel(parcel), android::OK);
    ExpectStatus(status, Status::EX_NONE, 0, android::OK, "");
    EXPECT_EQ(parcel.readInt32(), 0x2A);

    Load(&parcel, Le({Status::EX_HAS_REPLY_HEADER, 16, 0}));
    const status_t result = status.readFromParcel(parcel);
    EXPECT_NE(result, android::OK);
    ExpectStatus(status, Status::EX_TRANSACTION_FAILED, 0, result, "");
}

TEST(StatusToString, NamesTheCodesAndTheMessage) {
    const struct {
        Status status;
        std::vector<std::string> mentions;
    } cases[] = {
        {Status::fromExceptionCode(Status::EX_SECURITY, "denied"), {"-1", "denied"}},
        {Status::fromServiceSpecificError(4242, "svc"), {"-8", "4242", "svc"}},
        {Status::fromStatusT(android::DEAD_OBJECT), {"-129", "-32"}},
    };
    for (const auto& c : cases) {
        const std::string text = c.status.toString8().c_str();
        for (const std::string& mention : c.mentions) EXPECT_NE(text.find(mention), std::string::npos) << text;
    }
}

}  // namespace
