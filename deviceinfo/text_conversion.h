#pragma once

#include <string>

#include <utils/String16.h>

namespace com {
namespace solvane {
namespace pravik {
namespace deviceinfo {

// Text crosses the wire as UTF-16 and lives in the library as UTF-8. Both
// directions go through NUL-terminated text, so a string ends at its first NUL.
android::String16 ToString16(const std::string& utf8);
std::string ToUtf8(const android::String16& utf16);

}  // namespace deviceinfo
}  // namespace pravik
}  // namespace solvane
}  // namespace com
