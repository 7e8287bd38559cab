#include "text_conversion.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>

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

// Converts the leading run of plain ASCII, one lane per element, from `src`
// (elements of SrcLane) to `dst` (elements of DstLane) and returns how many
// elements it covered. Whole words are tested; the run is only extended to the
// end through an overlapping last word, so a short tail stays for the caller.
template <typename SrcLane, typename DstLane>
size_t NarrowOrWidenAscii(const unsigned char* src, size_t count, DstLane* dst) {
    constexpr size_t kPerWord = sizeof(uint64_t) / sizeof(SrcLane);
    const auto load = [src](size_t at) {
        uint64_t word = 0;
        std::memcpy(&word, src + at * sizeof(SrcLane), sizeof(word));
        return word;
    };
    const auto copy = [src, dst](size_t at) {
        for (size_t k = at; k < at + kPerWord; ++k) {
            SrcLane lane{};
            std::memcpy(&lane, src + k * sizeof(SrcLane), sizeof(lane));
            dst[k] = static_cast<DstLane>(lane);
        }
    };
    size_t done = 0;
    for (; count - done >= kPerWord && AllPlainAscii<SrcLane>(load(done)); done += kPerWord) {
        copy(done);
    }
    if (done < count && count >= kPerWord && count - done < kPerWord && AllPlainAscii<SrcLane>(load(count - kPerWord))) {
        copy(count - kPerWord);
        done = count;
    }
    return done;
}

// Converts well-formed UTF-8 up to its first NUL or `size` bytes into `dst`,
// which holds at least `size` units (no byte yields more than one unit), and
// stores the number of units. False, with `dst` in no defined state, when the
// text is not well-formed.
bool Utf8ToUtf16(const unsigned char* src, size_t size, char16_t* dst, size_t* units) {
    size_t i = NarrowOrWidenAscii<uint8_t>(src, size, dst);
    char16_t* const start = dst;
    dst += i;
    while (i < size) {
        if (src[i] == 0) {
            break;
        }
        if (src[i] < 0x80) {
            *dst++ = src[i++];
            continue;
        }
        char32_t cp = 0;
        const size_t length = DecodeUtf8(src + i, size - i, &cp);
        if (length == 0) {
            return false;
        }
        i += length;
        if (cp >= 0x10000) {
            *dst++ = static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10));
            cp = 0xDC00 + (cp & 0x3FF);
        }
        *dst++ = static_cast<char16_t>(cp);
    }
    *units = static_cast<size_t>(dst - start);
    return true;
}

// Text up to this many bytes converts without a heap allocation.
constexpr size_t kInlineUnits = 128;

// The UTF-16 form of UTF-8 text up to its first NUL, exactly as libutils'
// String16 makes it. Well-formed text is converted here, short text inside
// the object so that converting a field for a write allocates nothing; text
// that is not well-formed goes to String16 itself, whose answers for it
// (dropped, merged or kept bytes) are the platform's.
class Utf16Text {
public:
    explicit Utf16Text(const std::string& utf8) {
        char16_t* dst = inline_;
        if (utf8.size() > kInlineUnits) {
            heap_.reset(new char16_t[utf8.size()]);
            dst = heap_.get();
        }
        if (!Utf8ToUtf16(reinterpret_cast<const unsigned char*>(utf8.data()), utf8.size(), dst, &size_)) {
            genuine_.emplace(utf8.c_str());
            size_ = genuine_->size();
        }
    }
    Utf16Text(const Utf16Text&) = delete;
    Utf16Text& operator=(const Utf16Text&) = delete;

    const char16_t* data() const { return genuine_ ? genuine_->string() : heap_ ? heap_.get() : inline_; }
    size_t size() const { return size_; }

private:
    char16_t inline_[kInlineUnits];
    std::unique_ptr<char16_t[]> heap_;
    std::optional<android::String16> genuine_;
    size_t size_ = 0;
};

// Loads unit `i` by copy: text read in place from a parcel need not be aligned.
char16_t UnitAt(const unsigned char* units, size_t i) {
    char16_t unit = 0;
    std::memcpy(&unit, units + i * sizeof(char16_t), sizeof(unit));
    return unit;
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
    size_t done = NarrowOrWidenAscii<char16_t>(units, count, dst);
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
    const Utf16Text text(utf8);
    return android::String16(text.data(), text.size());
}

std::string ToUtf8(const android::String16& utf16) {
    std::string utf8;
    AssignUtf8(reinterpret_cast<const unsigned char*>(utf16.string()), utf16.size(), &utf8);
    return utf8;
}

android::status_t WriteUtf8AsString16(android::Parcel* parcel, const std::string& utf8) {
    const Utf16Text text(utf8);
    return parcel->writeString16(text.data(), text.size());
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
