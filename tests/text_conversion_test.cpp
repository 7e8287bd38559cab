// Text conversion against the genuine libutils: every input, well-formed or
// not, must convert to exactly what the platform's String16 (from UTF-8) and
// String8 (from String16) make of it.
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include <cstdint>
#include <random>
#include <string>

#include "text_conversion.h"

namespace {

using android::Parcel;
using android::String16;
using namespace com::solvane::pravik::deviceinfo;

template <typename Text>
std::string Hex(const Text& text) {
    std::string hex;
    for (const auto unit : text) {
        hex += std::to_string(static_cast<uint32_t>(static_cast<std::make_unsigned_t<decltype(unit)>>(unit))) + " ";
    }
    return hex;
}

std::u16string Units(const String16& text) { return std::u16string(text.string(), text.size()); }

// A field written for the wire, as the platform writes it and as we do.
void ExpectConvertsLikeString16(const std::string& utf8) {
    const String16 genuine(utf8.c_str());
    ASSERT_EQ(Units(ToString16(utf8)), Units(genuine)) << Hex(utf8);
    Parcel ours;
    Parcel platform;
    ASSERT_EQ(WriteUtf8AsString16(&ours, utf8), android::OK);
    platform.writeString16(genuine);
    ASSERT_EQ(std::string(ours.data(), ours.data() + ours.dataSize()),
              std::string(platform.data(), platform.data() + platform.dataSize()))
        << Hex(utf8);
    // Written with another text in one step, or refused with nothing written.
    const std::string* const texts[] = {&utf8, &utf8};
    if (!WriteUtf8sAsString16s(&ours, texts, 2)) {
        ASSERT_EQ(ours.dataSize(), platform.dataSize()) << Hex(utf8);
        WriteUtf8AsString16(&ours, utf8);
        WriteUtf8AsString16(&ours, utf8);
    }
    platform.writeString16(genuine);
    platform.writeString16(genuine);
    ASSERT_EQ(std::string(ours.data(), ours.data() + ours.dataSize()),
              std::string(platform.data(), platform.data() + platform.dataSize()))
        << Hex(utf8);
}

// A field read from the wire, as the platform reads it and as we do.
void ExpectConvertsLikeString8(const std::u16string& units) {
    const String16 received(units.data(), units.size());
    const std::string genuine = android::String8(received).c_str();
    ASSERT_EQ(ToUtf8(received), genuine) << Hex(units);
    Parcel parcel;
    parcel.writeString16(received);
    parcel.setDataPosition(0);
    std::string read = "previous";
    ASSERT_EQ(ReadString16AsUtf8(&parcel, &read), android::OK);
    ASSERT_EQ(read, genuine) << Hex(units);
}

TEST(TextConversion, NamedUtf8CasesConvertAsTheGenuineString16) {
    const std::string cases[] = {
        "a\xFFz",                         // a byte that starts nothing
        "\xC0\xAF",                       // overlong '/'
        "\xC0\x80x",                      // overlong NUL
        "\xE0\x80\xAF",                   // overlong in three bytes
        "\xED\xA0\x80",                   // an encoded surrogate
        "\xF4\x90\x80\x80",               // past U+10FFFF
        "\xF8\x88\x80\x80\x80",           // five bytes
        "\x80",                           // a lone continuation byte
        "ab\xE2\x82",                     // truncated three-byte sequence
        "\xF0\x9F\x98",                   // truncated four-byte sequence
        "\xE2\x82z",                      // a sequence cut short by ASCII
        "\xF0\x9F\x98\x80",               // a four-byte sequence
        "aaaaaaaaa\xF0\x90\x80\x80\xF4\x8F\xBF\xBF",
        std::string("ok\0\xFF", 4),       // malformed only after the NUL
        std::string("\xFF\0ok", 4),       // malformed before it
        std::string(200, 'x') + "\xFF",   // too long for the inline buffer
    };
    for (const std::string& text : cases) {
        ExpectConvertsLikeString16(text);
    }
}

TEST(TextConversion, NamedUtf16CasesConvertAsTheGenuineString8) {
    const std::u16string cases[] = {
        u"a\xD800z",                              // lone high surrogate
        u"a\xDC00z",                              // lone low surrogate
        u"ab\xD800",                              // high surrogate at the end
        u"\xDE00\xD83D",                          // a pair in the wrong order
        u"\xD83D\xDE00",                          // a surrogate pair
        u"\xD800\xD800\xDC00",                    // two highs, then a low
        std::u16string(u"a\xD800\0b", 4),         // high surrogate before a NUL
        std::u16string(u"ab\0\xD800", 4),         // lone surrogate after the NUL
        std::u16string(u"\0", 1),
        u"\xFFFF\xFFFE\x0080\x07FF\x0800",
    };
    for (const std::u16string& units : cases) {
        ExpectConvertsLikeString8(units);
    }
}

// Random text built from pieces that hit every path: runs of ASCII (whole
// words and tails), well-formed sequences of each length and NULs, and, unless
// the text is to be well-formed, malformed bytes or units.
class RandomText {
public:
    std::string Utf8(bool wellFormed) {
        std::string text;
        for (int pieces = Below(12); pieces > 0; --pieces) {
            switch (Below(wellFormed ? 5 : 8)) {
                case 0: text += std::string(Below(17), static_cast<char>(' ' + Below(95))); break;
                case 1: Encode(0x80 + Below(0x780), &text); break;
                case 2: Encode(0x800 + Below(0xF800), &text); break;
                case 3: Encode(0x10000 + Below(0x100000), &text); break;
                case 4: text += Below(4) == 0 ? std::string(1, '\0') : "z"; break;
                case 5: text += static_cast<char>(0x80 + Below(0x80)); break;  // any high byte
                case 6: {  // a well-formed sequence cut short
                    std::string whole;
                    Encode(0x800 + Below(0x10F800), &whole);
                    text += whole.substr(0, 1 + Below(static_cast<int>(whole.size()) - 1));
                    break;
                }
                default: text += static_cast<char>(Below(0x100)); break;
            }
        }
        return text;
    }

    std::u16string Utf16(bool wellFormed) {
        std::u16string units;
        for (int pieces = Below(12); pieces > 0; --pieces) {
            switch (Below(wellFormed ? 4 : 6)) {
                case 0: units += std::u16string(Below(9), static_cast<char16_t>(' ' + Below(95))); break;
                case 1: units += static_cast<char16_t>(0x80 + Below(0xD800 - 0x80)); break;
                case 2: units += {static_cast<char16_t>(0xD800 + Below(0x400)), static_cast<char16_t>(0xDC00 + Below(0x400))}; break;
                case 3: units += Below(4) == 0 ? u'\0' : u'z'; break;
                case 4: units += static_cast<char16_t>(0xD800 + Below(0x800)); break;  // a lone surrogate
                default: units += static_cast<char16_t>(Below(0x10000)); break;
            }
        }
        return units;
    }

private:
    int Below(int bound) { return std::uniform_int_distribution<int>(0, bound - 1)(engine_); }

    static void Encode(char32_t cp, std::string* out) {
        if (cp >= 0xD800 && cp <= 0xDFFF) cp = 0xFFFD;
        const int length = cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
        static constexpr unsigned char kLead[] = {0, 0, 0xC0, 0xE0, 0xF0};
        char bytes[4];
        for (int i = length - 1; i > 0; --i, cp >>= 6) bytes[i] = static_cast<char>(0x80 | (cp & 0x3F));
        bytes[0] = static_cast<char>(kLead[length] | cp);
        out->append(bytes, length);
    }

    std::mt19937 engine_{20240611};
};

constexpr int kRandomTexts = 20000;

TEST(TextConversion, RandomUtf8ConvertsAsTheGenuineString16) {
    RandomText random;
    for (int i = 0; i < kRandomTexts; ++i) {
        ExpectConvertsLikeString16(random.Utf8(i % 2 == 0));
        if (HasFatalFailure()) return;
    }
}

TEST(TextConversion, RandomUtf16ConvertsAsTheGenuineString8) {
    RandomText random;
    for (int i = 0; i < kRandomTexts; ++i) {
        ExpectConvertsLikeString8(random.Utf16(i % 2 == 0));
        if (HasFatalFailure()) return;
    }
}

}  // namespace
