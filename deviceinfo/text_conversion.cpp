#include "text_conversion.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include <utils/String8.h>

namespace com {
namespace solvane {
namespace pravik {
namespace deviceinfo {
namespace {

// Decodes the well-formed UTF-8 sequence at `src` into `*cp` and returns its
// length, or 0 when the bytes there are not one.
size_t DecodeUtf8(const unsigned char* src, size_t avail, char32_t* cp) {
    const unsigned char lead = src[0];
    size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        low = lead == 0xE0 ? 0xA0 : 0x80;   // overlong
        high = lead == 0xED ? 0x9F : 0xBF;  // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        low = lead == 0xF0 ? 0x90 : 0x80;   // overlong
        high = lead == 0xF4 ? 0x8F : 0xBF;  // past U+10FFFF
    }
    if (length == 0 || avail < length || src[1] < low || src[1] > high) {
        return 0;
    }
    char32_t value = static_cast<char32_t>((lead & (0x7F >> length)) << 6 | (src[1] & 0x3F));
    for (size_t i = 2; i < length; ++i) {
        if ((src[i] & 0xC0) != 0x80) {
            return 0;
        }
        value = value << 6 | (src[i] & 0x3F);
    }
    *cp = value;
    return length;
}

// Whether every 8-bit lane of `word` (Lane = uint8_t) or every 16-bit lane
// (Lane = char16_t) holds ASCII other than NUL. A borrow between lanes only
// ever leaves a zero lane, which fails the test itself.
template <typename Lane>
bool AllPlainAscii(uint64_t word) {
    constexpr uint64_t kOnes = ~uint64_t{0} / std::numeric_limits<Lane>::max();
    constexpr uint64_t kNonAscii = kOnes * (std::numeric_limits<Lane>::max() & ~Lane{0x7F});
    return (((word - kOnes) | word) & kNonAscii) == 0;
}

// Loads unit `i` by copy: text read in place from a parcel need not be aligned.
char16_t UnitAt(const unsigned char* units, size_t i) {
    char16_t unit = 0;
    std::memcpy(&unit, units + i * sizeof(char16_t), sizeof(unit));
    return unit;
}

// Narrows the leading run of plain ASCII units of `count` to `dst` and returns
// how many it covered. Whole words are tested; the run is only extended to the
// end through an overlapping last word, so a short tail stays for the caller.
size_t NarrowAscii(const unsigned char* units, size_t count, char* dst) {
    constexpr size_t kPerWord = sizeof(uint64_t) / sizeof(char16_t);
    const auto plain = [units](size_t at) {
        uint64_t word = 0;
        std::memcpy(&word, units + at * sizeof(char16_t), sizeof(word));
        return AllPlainAscii<char16_t>(word);
    };
    const auto copy = [units, dst](size_t at) {
        for (size_t k = at; k < at + kPerWord; ++k) {
            dst[k] = static_cast<char>(UnitAt(units, k));
        }
    };
    size_t done = 0;
    for (; count - done >= kPerWord && plain(done); done += kPerWord) {
        copy(done);
    }
    if (done < count && count >= kPerWord && count - done < kPerWord && plain(count - kPerWord)) {
        copy(count - kPerWord);
        done = count;
    }
    return done;
}

// The length of the leading run of bytes that are ASCII other than NUL,
// tested a word at a time; an overlapping last word covers a short tail.
size_t PlainAsciiPrefix(const unsigned char* src, size_t size) {
    const auto plain = [src](size_t at) {
        uint64_t word = 0;
        std::memcpy(&word, src + at, sizeof(word));
        return AllPlainAscii<uint8_t>(word);
    };
    size_t done = 0;
    for (; size - done >= sizeof(uint64_t) && plain(done); done += sizeof(uint64_t)) {
    }
    if (done < size && size >= sizeof(uint64_t) && size - done < sizeof(uint64_t) && plain(size - sizeof(uint64_t))) {
        return size;
    }
    while (done < size && src[done] - 1u < 0x7Fu) {
        ++done;
    }
    return done;
}

// Well-formed UTF-8 text measured before it is converted: how many bytes lead
// as plain ASCII, how many come before its first NUL (or its end), and how
// many UTF-16 units those make.
struct Utf8Measure {
    size_t ascii = 0;
    size_t bytes = 0;
    size_t units = 0;
};

// False when the text before its first NUL is not well-formed.
bool MeasureUtf8(const unsigned char* src, size_t size, Utf8Measure* measure) {
    size_t i = PlainAsciiPrefix(src, size);
    measure->ascii = i;
    size_t units = i;
    while (i < size && src[i] != 0) {
        if (src[i] < 0x80) {
            ++i;
            ++units;
            continue;
        }
        char32_t cp = 0;
        const size_t length = DecodeUtf8(src + i, size - i, &cp);
        if (length == 0) {
            return false;
        }
        i += length;
        units += cp >= 0x10000 ? 2 : 1;
    }
    measure->bytes = i;
    measure->units = units;
    return true;
}

// Stores `unit` at `dst`, which need not be aligned, and returns the next place.
unsigned char* PutUnit(char16_t unit, unsigned char* dst) {
    std::memcpy(dst, &unit, sizeof(unit));
    return dst + sizeof(unit);
}

// Writes the units of measured text to `dst`, which need not be aligned.
void ConvertMeasuredUtf8(const unsigned char* src, const Utf8Measure& measure, unsigned char* dst) {
    const size_t ascii = measure.ascii;
    const size_t bytes = measure.bytes;
    for (size_t i = 0; i < ascii; ++i) {
        PutUnit(src[i], dst + i * sizeof(char16_t));
    }
    dst += ascii * sizeof(char16_t);
    for (size_t i = ascii; i < bytes;) {
        if (src[i] < 0x80) {
            dst = PutUnit(src[i++], dst);
            continue;
        }
        char32_t cp = 0;
        i += DecodeUtf8(src + i, bytes - i, &cp);
        if (cp >= 0x10000) {
            dst = PutUnit(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)), dst);
            cp = 0xDC00 + (cp & 0x3FF);
        }
        dst = PutUnit(static_cast<char16_t>(cp), dst);
    }
}

// The most units a String16 in a parcel may have.
constexpr size_t kMaxUnits = static_cast<size_t>(std::numeric_limits<int32_t>::max()) / sizeof(char16_t) - 1;

// The bytes writeString16 takes for `units` units: the length, the units and
// a terminator, padded to four.
size_t String16Span(size_t units) { return sizeof(int32_t) + ((units + 1) * sizeof(char16_t) + 3) / 4 * 4; }

// Writes measured text at `slot` framed as writeString16 frames it and
// returns the end of its span.
unsigned char* PutString16(const unsigned char* src, const Utf8Measure& measure, unsigned char* slot) {
    const int32_t length = static_cast<int32_t>(measure.units);
    std::memcpy(slot, &length, sizeof(length));
    unsigned char* end = slot + String16Span(measure.units);
    // The terminator, and the padding unit that an even length leaves.
    const uint32_t zero = 0;
    std::memcpy(end - sizeof(zero), &zero, sizeof(zero));
    ConvertMeasuredUtf8(src, measure, slot + sizeof(length));
    return end;
}

// Calls `emit` with each code point of `count` units; false at the first
// surrogate that is not half of a pair (nothing is emitted for it).
template <typename Emit>
bool ForEachCodePoint(const unsigned char* units, size_t count, Emit emit) {
    for (size_t i = 0; i < count; ++i) {
        char32_t cp = UnitAt(units, i);
        if (cp >= 0xD800 && cp <= 0xDFFF) {
            const char32_t next = i + 1 < count ? UnitAt(units, i + 1) : 0;
            if (cp > 0xDBFF || next < 0xDC00 || next > 0xDFFF) {
                return false;
            }
            cp = 0x10000 + ((cp - 0xD800) << 10) + (next - 0xDC00);
            ++i;
        }
        emit(cp);
    }
    return true;
}

size_t Utf8Length(char32_t cp) { return cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4; }

char* EncodeUtf8(char32_t cp, char* dst) {
    const size_t length = Utf8Length(cp);
    if (length == 1) {
        *dst = static_cast<char>(cp);
        return dst + 1;
    }
    static constexpr unsigned char kLeadMarks[] = {0, 0, 0xC0, 0xE0, 0xF0};
    for (size_t i = length - 1; i > 0; --i) {
        dst[i] = static_cast<char>(0x80 | (cp & 0x3F));
        cp >>= 6;
    }
    dst[0] = static_cast<char>(kLeadMarks[length] | cp);
    return dst + length;
}

// What the platform makes of text that is not well-formed UTF-16: libutils'
// String8 of the whole String16, up to the first NUL of its UTF-8.
void AssignGenuineUtf8(const unsigned char* units, size_t count, std::string* out) {
    std::u16string aligned(count, u'\0');  // units read in place need not be aligned
    std::memcpy(&aligned[0], units, count * sizeof(char16_t));
    const android::String8 utf8(android::String16(aligned.data(), count));
    out->assign(utf8.c_str());
}

// Replaces `*out` with the UTF-8 form of `count` units up to the first NUL,
// exactly as libutils' String8 makes it.
void AssignUtf8(const unsigned char* units, size_t count, std::string* out) {
    // Text is mostly ASCII: narrow it straight into place until that fails.
    if (out->size() != count) {
        out->resize(count);
    }
    char* dst = &(*out)[0];
    size_t done = NarrowAscii(units, count, dst);
    for (; done < count && UnitAt(units, done) - 1u < 0x7Fu; ++done) {
        dst[done] = static_cast<char>(UnitAt(units, done));
    }
    if (done == count) {
        return;
    }
    size_t end = done;
    while (end < count && UnitAt(units, end) != 0) {
        ++end;
    }
    const unsigned char* rest = units + done * sizeof(char16_t);
    size_t bytes = 0;
    if (!ForEachCodePoint(rest, end - done, [&bytes](char32_t cp) { bytes += Utf8Length(cp); })) {
        AssignGenuineUtf8(units, count, out);
        return;
    }
    out->resize(done + bytes);
    dst = &(*out)[done];
    ForEachCodePoint(rest, end - done, [&dst](char32_t cp) { dst = EncodeUtf8(cp, dst); });
}

}  // namespace

android::String16 ToString16(const std::string& utf8) {
    const auto* src = reinterpret_cast<const unsigned char*>(utf8.data());
    Utf8Measure measure;
    if (!MeasureUtf8(src, utf8.size(), &measure)) {
        return android::String16(utf8.c_str());  // the platform's answer, whatever the text
    }
    std::u16string units(measure.units, u'\0');
    ConvertMeasuredUtf8(src, measure, reinterpret_cast<unsigned char*>(&units[0]));
    return android::String16(units.data(), units.size());
}

std::string ToUtf8(const android::String16& utf16) {
    std::string utf8;
    AssignUtf8(reinterpret_cast<const unsigned char*>(utf16.string()), utf16.size(), &utf8);
    return utf8;
}

android::status_t WriteUtf8AsString16(android::Parcel* parcel, const std::string& utf8) {
    const std::string* const texts[] = {&utf8};
    if (WriteUtf8sAsString16s(parcel, texts, 1)) {
        return android::OK;
    }
    // Text that is not well-formed, or a parcel that cannot take it: the
    // platform's conversion and the primitive's answer.
    return parcel->writeString16(android::String16(utf8.c_str()));
}

bool WriteUtf8sAsString16s(android::Parcel* parcel, const std::string* const* texts, size_t count) {
    constexpr size_t kMostTexts = 8;
    Utf8Measure measures[kMostTexts];
    if (count > kMostTexts) {
        return false;
    }
    size_t span = 0;
    for (size_t i = 0; i < count; ++i) {
        const std::string& text = *texts[i];
        if (!MeasureUtf8(reinterpret_cast<const unsigned char*>(text.data()), text.size(), &measures[i]) ||
            measures[i].units > kMaxUnits) {
            return false;
        }
        span += String16Span(measures[i].units);
        if (span > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
            return false;  // more than any parcel holds
        }
    }
    // One slot for all: the bytes writeString16 writes for each, converted in place.
    auto* slot = static_cast<unsigned char*>(parcel->writeInplace(span));
    if (slot == nullptr) {
        return false;
    }
    for (size_t i = 0; i < count; ++i) {
        slot = PutString16(reinterpret_cast<const unsigned char*>(texts[i]->data()), measures[i], slot);
    }
    return true;
}

android::status_t ReadString16AsUtf8(const android::Parcel* parcel, std::string* utf8) {
    size_t count = 0;
    const char16_t* units = parcel->readString16Inplace(&count);
    if (units == nullptr) {
        return android::UNEXPECTED_NULL;
    }
    AssignUtf8(reinterpret_cast<const unsigned char*>(units), count, utf8);
    return android::OK;
}

}  // namespace deviceinfo
}  // namespace pravik
}  // namespace solvane
}  // namespace com
