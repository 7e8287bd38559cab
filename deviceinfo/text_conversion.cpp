#include "text_conversion.h"

#include <utils/String8.h>

namespace com {
namespace solvane {
namespace pravik {
namespace deviceinfo {

android::String16 ToString16(const std::string& utf8) { return android::String16(utf8.c_str()); }

std::string ToUtf8(const android::String16& utf16) { return std::string(android::String8(utf16).c_str()); }

}  // namespace deviceinfo
}  // namespace pravik
}  // namespace solvane
}  // namespace com
