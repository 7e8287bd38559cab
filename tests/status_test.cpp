#include <binder/Parcel.h>
#include <binder/Status.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace {

using android::Parcel;
using android::String8;
using android::binder::Status;
using Bytes = std::vector<uint8_t>;

Bytes Contents(const Parcel& parcel) { return Bytes(parcel.data(), parcel.data() + parcel.dataSize()); }

struct Expected {
    int32_t exception;
    int32_t serviceError;
    android::status_t transportError;
    std::string message;
};

void ExpectStatus(const Status& status, const Expected& e) {
    EXPECT_EQ(status.exceptionCode(), e.exception);
    EXPECT_EQ(status.serviceSpecificErrorCode(), e.serviceError);
    EXPECT_EQ(status.transactionError(), e.transportError);
    EXPECT_EQ(status.exceptionMessage().c_str(), e.message);
    EXPECT_EQ(status.isOk(), e.exception == Status::EX_NONE);
}

// ---- Writing: each kind against its bytes, then read back ------------------

struct KindCase {
    const char* name;
    Status status;
    Bytes bytes;
    Expected read;
};

const KindCase kKinds[] = {
    {"Ok", Status::ok(), {0, 0, 0, 0}, {Status::EX_NONE, 0, android::OK, ""}},
    {"Exception", Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "bad"),
     {0xFD, 0xFF, 0xFF, 0xFF, 3, 0, 0, 0, 'b', 0, 'a', 0, 'd', 0, 0, 0, 0, 0, 0, 0},
     {Status::EX_ILLEGAL_ARGUMENT, 0, android::OK, "bad"}},
    {"ExceptionWithoutMessage", Status::fromExceptionCode(Status::EX_SECURITY),
     {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
     {Status::EX_SECURITY, 0, android::OK, ""}},
    {"ServiceSpecific", Status::fromServiceSpecificError(0x1234, "x"),
     {0xF8, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0, 'x', 0, 0, 0, 0, 0, 0, 0, 0x34, 0x12, 0, 0},
     {Status::EX_SERVICE_SPECIFIC, 0x1234, android::OK, "x"}},
    {"ServiceSpecificNegative", Status::fromServiceSpecificError(-3),
     {0xF8, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFD, 0xFF, 0xFF, 0xFF},
     {Status::EX_SERVICE_SPECIFIC, -3, android::OK, ""}},
    {"Parcelable", Status::fromExceptionCode(Status::EX_PARCELABLE, "p"),
     {0xF7, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0, 'p', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
     {Status::EX_PARCELABLE, 0, android::OK, "p"}},
    {"NonAsciiMessage", Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, "\xC3\xA9\xF0\x9F\x98\x80"),
     {0xFB, 0xFF, 0xFF, 0xFF, 3, 0, 0, 0, 0xE9, 0, 0x3D, 0xD8, 0x00, 0xDE, 0, 0, 0, 0, 0, 0},
     {Status::EX_ILLEGAL_STATE, 0, android::OK, "\xC3\xA9\xF0\x9F\x98\x80"}},
};

// The listing names a case, not its bytes.
void PrintTo(const KindCase& testCase, std::ostream* out) { *out << testCase.name; }

class StatusKind : public ::testing::TestWithParam<KindCase> {};

TEST_P(StatusKind, WritesItsBytes) {
    Parcel parcel;
    ASSERT_EQ(GetParam().status.writeToParcel(&parcel), android::OK);
    EXPECT_EQ(Contents(parcel), GetParam().bytes);
}

TEST_P(StatusKind, ReadsBackAndStopsAfterItself) {
    Parcel parcel;
    ASSERT_EQ(parcel.setData(GetParam().bytes.data(), GetParam().bytes.size()), android::OK);
    parcel.setDataPosition(parcel.dataSize());
    parcel.writeInt32(0x600D);
    parcel.setDataPosition(0);
    // Start from a different kind so that every field must be replaced.
    Status status = Status::fromServiceSpecificError(99, "stale");
    ASSERT_EQ(status.readFromParcel(parcel), android::OK);
    ExpectStatus(status, GetParam().read);
    EXPECT_EQ(parcel.readInt32(), 0x600D);
}

INSTANTIATE_TEST_SUITE_P(Kinds, StatusKind, ::testing::ValuesIn(kKinds),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(StatusWrite, TransportFailureWritesNothingAndReturnsItsCode) {
    for (android::status_t code : {android::DEAD_OBJECT, android::UNKNOWN_TRANSACTION, android::BAD_VALUE}) {
        Parcel parcel;
        EXPECT_EQ(Status::fromStatusT(code).writeToParcel(&parcel), code);
        EXPECT_EQ(parcel.dataSize(), 0u);
    }
}

// ---- Reading what other writers send ---------------------------------------

TEST(StatusRead, ReplyHeaderIsSkippedAndCountsItsOwnSize) {
    // EX_HAS_REPLY_HEADER, header of 12 bytes (size + two words), then the payload.
    const Bytes bytes = {0x80, 0xFF, 0xFF, 0xFF, 12, 0, 0, 0, 0xAA, 0xAA, 0xAA, 0xAA,
                         0xBB, 0xBB, 0xBB, 0xBB, 0x2A, 0, 0, 0};
    Parcel parcel;
    ASSERT_EQ(parcel.setData(bytes.data(), bytes.size()), android::OK);
    Status status = Status::fromExceptionCode(Status::EX_SECURITY, "stale");
    ASSERT_EQ(status.readFromParcel(parcel), android::OK);
    ExpectStatus(status, {Status::EX_NONE, 0, android::OK, ""});
    EXPECT_EQ(parcel.dataPosition(), 16u);
    EXPECT_EQ(parcel.readInt32(), 0x2A);
}

struct TruncatedCase {
    const char* name;
    Bytes bytes;
    android::status_t code;
};

const TruncatedCase kTruncated[] = {
    {"Empty", {}, android::NOT_ENOUGH_DATA},
    {"PartialExceptionCode", {0xFD, 0xFF}, android::NOT_ENOUGH_DATA},
    {"MessageMissing", {0xFD, 0xFF, 0xFF, 0xFF}, android::UNEXPECTED_NULL},
    {"NullMessage", {0xFD, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}, android::UNEXPECTED_NULL},
    {"StackHeaderMissing", {0xFD, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0}, android::NOT_ENOUGH_DATA},
    {"ServiceCodeMissing", {0xF8, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, android::NOT_ENOUGH_DATA},
    {"ParcelableSizeMissing", {0xF7, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
     android::NOT_ENOUGH_DATA},
    {"ReplyHeaderSizeMissing", {0x80, 0xFF, 0xFF, 0xFF}, android::NOT_ENOUGH_DATA},
};

// The listing names a case, not its bytes.
void PrintTo(const TruncatedCase& testCase, std::ostream* out) { *out << testCase.name; }

class StatusTruncated : public ::testing::TestWithParam<TruncatedCase> {};

TEST_P(StatusTruncated, BecomesTransportFailureCarryingTheReadsCode) {
    Parcel parcel;
    ASSERT_EQ(parcel.setData(GetParam().bytes.data(), GetParam().bytes.size()), android::OK);
    Status status = Status::fromServiceSpecificError(5, "stale");
    EXPECT_EQ(status.readFromParcel(parcel), GetParam().code);
    ExpectStatus(status, {Status::EX_TRANSACTION_FAILED, 0, GetParam().code, ""});
}

INSTANTIATE_TEST_SUITE_P(Reads, StatusTruncated, ::testing::ValuesIn(kTruncated),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(StatusRead, ReplyHeaderLongerThanTheDataFails) {
    const Bytes bytes = {0x80, 0xFF, 0xFF, 0xFF, 16, 0, 0, 0, 0, 0, 0, 0};
    Parcel parcel;
    ASSERT_EQ(parcel.setData(bytes.data(), bytes.size()), android::OK);
    Status status;
    const android::status_t result = status.readFromParcel(parcel);
    EXPECT_NE(result, android::OK);
    ExpectStatus(status, {Status::EX_TRANSACTION_FAILED, 0, result, ""});
}

// ---- Builders and accessors -------------------------------------------------

struct BuildCase {
    const char* name;
    Status status;
    Expected expected;
};

const BuildCase kBuilds[] = {
    {"Default", Status(), {Status::EX_NONE, 0, android::OK, ""}},
    {"FromStatusTOk", Status::fromStatusT(android::OK), {Status::EX_NONE, 0, android::OK, ""}},
    {"FromStatusTDeadObject", Status::fromStatusT(android::DEAD_OBJECT),
     {Status::EX_TRANSACTION_FAILED, 0, android::DEAD_OBJECT, ""}},
    {"FromStatusTUnknownTransaction", Status::fromStatusT(android::UNKNOWN_TRANSACTION),
     {Status::EX_TRANSACTION_FAILED, 0, android::UNKNOWN_TRANSACTION, ""}},
    {"FromExceptionCode", Status::fromExceptionCode(Status::EX_NULL_POINTER),
     {Status::EX_NULL_POINTER, 0, android::OK, ""}},
    {"FromExceptionCodeWithMessage", Status::fromExceptionCode(Status::EX_UNSUPPORTED_OPERATION, String8("no")),
     {Status::EX_UNSUPPORTED_OPERATION, 0, android::OK, "no"}},
    {"FromExceptionCodeNone", Status::fromExceptionCode(Status::EX_NONE), {Status::EX_NONE, 0, android::OK, ""}},
    {"FromServiceSpecificError", Status::fromServiceSpecificError(7), {Status::EX_SERVICE_SPECIFIC, 7, android::OK, ""}},
    {"FromServiceSpecificErrorWithMessage", Status::fromServiceSpecificError(-9, String8("why")),
     {Status::EX_SERVICE_SPECIFIC, -9, android::OK, "why"}},
};

// The listing names a case, not its bytes.
void PrintTo(const BuildCase& testCase, std::ostream* out) { *out << testCase.name; }

class StatusBuild : public ::testing::TestWithParam<BuildCase> {};

TEST_P(StatusBuild, Accessors) { ExpectStatus(GetParam().status, GetParam().expected); }

INSTANTIATE_TEST_SUITE_P(Builders, StatusBuild, ::testing::ValuesIn(kBuilds),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(StatusBuild, TransportFailureFromExceptionCodeCarriesAnError) {
    const Status status = Status::fromExceptionCode(Status::EX_TRANSACTION_FAILED);
    EXPECT_EQ(status.exceptionCode(), Status::EX_TRANSACTION_FAILED);
    EXPECT_NE(status.transactionError(), android::OK);
    EXPECT_FALSE(status.isOk());
}

TEST(StatusBuild, SetFromStatusTReplacesAnyEarlierState) {
    Status status = Status::fromServiceSpecificError(4, "m");
    status.setFromStatusT(android::TIMED_OUT);
    ExpectStatus(status, {Status::EX_TRANSACTION_FAILED, 0, android::TIMED_OUT, ""});
    status.setFromStatusT(android::OK);
    ExpectStatus(status, {Status::EX_NONE, 0, android::OK, ""});
}

TEST(StatusToString, NamesTheCodes) {
    const struct {
        Status status;
        std::vector<std::string> mentions;
    } cases[] = {
        {Status::fromExceptionCode(Status::EX_SECURITY, "denied"), {"-1", "denied"}},
        {Status::fromServiceSpecificError(4242, "svc"), {"-8", "4242", "svc"}},
        {Status::fromStatusT(android::DEAD_OBJECT), {"-129", "-32"}},
        {Status::fromExceptionCode(-77), {"-77"}},
    };
    for (const auto& c : cases) {
        const std::string text = c.status.toString8().c_str();
        for (const std::string& mention : c.mentions) {
            EXPECT_NE(text.find(mention), std::string::npos) << text << " lacks " << mention;
        }
    }
    EXPECT_NE(std::string(Status::ok().toString8().c_str()), "");
}

}  // namespace
