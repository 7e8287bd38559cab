#pragma once

#include <string>

namespace tivra_cli {

// Whether `text` is well-formed UTF-8 (no overlong forms, surrogates or code
// points past U+10FFFF).
bool IsValidUtf8(const std::string& text);

// Columns that `text` takes on a terminal: two for East Asian wide and
// fullwidth characters and most emoji, none for combining marks and
// zero-width characters, one otherwise (also for each byte that is not
// UTF-8). The same under every locale: it never consults setlocale.
size_t DisplayWidth(const std::string& text);

}  // namespace tivra_cli
