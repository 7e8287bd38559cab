#include "text_width.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>

namespace tivra_cli {
namespace {

struct Range {
    char32_t first;
    char32_t last;
};

// Combining marks of the common scripts, and characters that take no column.
constexpr Range kZeroWidth[] = {
    {0x0300, 0x036F}, {0x0483, 0x0489}, {0x0591, 0x05BD}, {0x05BF, 0x05BF}, {0x05C1, 0x05C2},
    {0x05C4, 0x05C5}, {0x05C7, 0x05C7}, {0x0610, 0x061A}, {0x064B, 0x065F}, {0x0670, 0x0670},
    {0x06D6, 0x06DC}, {0x06DF, 0x06E4}, {0x06E7, 0x06E8}, {0x06EA, 0x06ED}, {0x0900, 0x0902},
    {0x093A, 0x093A}, {0x093C, 0x093C}, {0x0941, 0x0948}, {0x094D, 0x094D}, {0x0951, 0x0957},
    {0x0E31, 0x0E31}, {0x0E34, 0x0E3A}, {0x0E47, 0x0E4E}, {0x1160, 0x11FF}, {0x1AB0, 0x1AFF},
    {0x1DC0, 0x1DFF}, {0x200B, 0x200F}, {0x202A, 0x202E}, {0x2060, 0x2064}, {0x20D0, 0x20FF},
    {0x302A, 0x302D}, {0x3099, 0x309A}, {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F}, {0xFEFF, 0xFEFF},
    {0xE0100, 0xE01EF},
};

// East Asian wide and fullwidth characters, and the emoji blocks.
constexpr Range kDoubleWidth[] = {
    {0x1100, 0x115F},   {0x231A, 0x231B},   {0x2329, 0x232A},   {0x23E9, 0x23EC},   {0x23F0, 0x23F0},
    {0x23F3, 0x23F3},   {0x25FD, 0x25FE},   {0x2614, 0x2615},   {0x2648, 0x2653},   {0x267F, 0x267F},
    {0x2693, 0x2693},   {0x26A1, 0x26A1},   {0x26AA, 0x26AB},   {0x26BD, 0x26BE},   {0x26C4, 0x26C5},
    {0x26CE, 0x26CE},   {0x26D4, 0x26D4},   {0x26EA, 0x26EA},   {0x26F2, 0x26F3},   {0x26F5, 0x26F5},
    {0x26FA, 0x26FA},   {0x26FD, 0x26FD},   {0x2705, 0x2705},   {0x270A, 0x270B},   {0x2728, 0x2728},
    {0x274C, 0x274C},   {0x274E, 0x274E},   {0x2753, 0x2755},   {0x2757, 0x2757},   {0x2795, 0x2797},
    {0x27B0, 0x27B0},   {0x27BF, 0x27BF},   {0x2B1B, 0x2B1C},   {0x2B50, 0x2B50},   {0x2B55, 0x2B55},
    {0x2E80, 0x303E},   {0x3041, 0x3247},   {0x3250, 0x4DBF},   {0x4E00, 0xA4CF},   {0xA960, 0xA97F},
    {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},   {0xFE10, 0xFE19},   {0xFE30, 0xFE6F},   {0xFF00, 0xFF60},
    {0xFFE0, 0xFFE6},   {0x16FE0, 0x16FE4}, {0x17000, 0x18CFF}, {0x1B000, 0x1B2FF}, {0x1F004, 0x1F004},
    {0x1F0CF, 0x1F0CF}, {0x1F18E, 0x1F18E}, {0x1F191, 0x1F19A}, {0x1F200, 0x1F251}, {0x1F260, 0x1F265},
    {0x1F300, 0x1F64F}, {0x1F680, 0x1F6FF}, {0x1F7E0, 0x1F7EB}, {0x1F900, 0x1F9FF}, {0x1FA70, 0x1FAFF},
    {0x20000, 0x2FFFD}, {0x30000, 0x3FFFD},
};

template <size_t N>
bool InRanges(const Range (&ranges)[N], char32_t c) {
    const Range* found = std::upper_bound(std::begin(ranges), std::end(ranges), c,
                                          [](char32_t value, const Range& range) { return value < range.first; });
    return found != std::begin(ranges) && c <= (found - 1)->last;
}

// Decodes the character at text[i]; false (and `length` 1) when the bytes
// there are not UTF-8.
bool Decode(const std::string& text, size_t i, char32_t* c, size_t* length) {
    const auto byte = [&](size_t k) { return static_cast<uint8_t>(text[k]); };
    const uint8_t lead = byte(i);
    *length = 1;
    if (lead < 0x80) {
        *c = lead;
        return true;
    }
    // Continuation bytes after the lead byte, and the least code point that
    // needs that many (anything less is an overlong form).
    const size_t extra = (lead & 0xE0) == 0xC0 ? 1 : (lead & 0xF0) == 0xE0 ? 2 : (lead & 0xF8) == 0xF0 ? 3 : 0;
    constexpr char32_t kLeast[] = {0, 0x80, 0x800, 0x10000};
    if (extra == 0 || i + extra >= text.size()) {
        return false;
    }
    *c = lead & (0x7F >> (extra + 1));
    for (size_t k = 1; k <= extra; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) {
            return false;
        }
        *c = (*c << 6) | (byte(i + k) & 0x3F);
    }
    if (*c < kLeast[extra] || *c > 0x10FFFF || (*c >= 0xD800 && *c <= 0xDFFF)) {
        return false;
    }
    *length = extra + 1;
    return true;
}

// Characters that change how a terminal shows what follows: C0 and C1
// controls, DEL, and the bidirectional embeddings, overrides and isolates.
bool Unsafe(char32_t c) {
    return c < 0x20 || (c >= 0x7F && c < 0xA0) || (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

}  // namespace

std::string Printable(const std::string& text) {
    std::string shown;
    shown.reserve(text.size());
    char32_t c;
    size_t length;
    for (size_t i = 0; i < text.size(); i += length) {
        char escape[16];
        if (!Decode(text, i, &c, &length)) {
            std::snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned>(static_cast<uint8_t>(text[i])));
            shown += escape;
        } else if (c == '\\') {
            shown += "\\\\";
        } else if (!Unsafe(c)) {
            shown.append(text, i, length);
        } else if (c >= 0x07 && c <= 0x0D) {
            shown += '\\';
            shown += "abtnvfr"[c - 0x07];
        } else {
            std::snprintf(escape, sizeof(escape), c < 0x80 ? "\\x%02x" : "\\u%04X", static_cast<unsigned>(c));
            shown += escape;
        }
    }
    return shown;
}

bool IsValidUtf8(const std::string& text) {
    char32_t c;
    size_t length;
    for (size_t i = 0; i < text.size(); i += length) {
        if (!Decode(text, i, &c, &length)) {
            return false;
        }
    }
    return true;
}

size_t DisplayWidth(const std::string& text) {
    size_t width = 0;
    char32_t c;
    size_t length;
    for (size_t i = 0; i < text.size(); i += length) {
        if (!Decode(text, i, &c, &length)) {
            width += 1;
        } else if (c >= 0x20 && !InRanges(kZeroWidth, c) && !(c >= 0x7F && c < 0xA0)) {
            width += InRanges(kDoubleWidth, c) ? 2 : 1;
        }
    }
    return width;
}

}  // namespace tivra_cli
