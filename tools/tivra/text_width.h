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

// `text` as a terminal may show it, when it comes from elsewhere (a service,
// binderd): what could move the cursor, change colours or reorder the line is
// written as an escape, as `ls -b` does. Control characters become \t, \n,
// \r, \a, \b, \f, \v or \xHH (\x1b for ESC), C1 controls and the
// direction overrides \uHHHH, bytes that are not UTF-8 \xHH, and a backslash
// \\, so that the text can be read back exactly.
std::string Printable(const std::string& text);

}  // namespace tivra_cli
