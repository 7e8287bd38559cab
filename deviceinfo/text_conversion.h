#pragma once

#include <string>

#include <binder/Parcel.h>
#include <utils/String16.h>

namespace com {
namespace solvane {
namespace pravik {
namespace deviceinfo {

// Text crosses the wire as UTF-16 and lives in the library as UTF-8. Both
// directions go through NUL-terminated text, so a string ends at its first NUL.
// Every input converts exactly as libutils' String16 (from UTF-8) and String8
// (from String16) convert it: well-formed text on a fast path of our own, any
// other text by those classes themselves.
android::String16 ToString16(const std::string& utf8);
std::string ToUtf8(const android::String16& utf16);

// The same conversions straight between a parcel and a std::string, without an
// intermediate String16.
android::status_t WriteUtf8AsString16(android::Parcel* parcel, const std::string& utf8);
// Writes the texts one after another, each as WriteUtf8AsString16 does, in
// one step. False, with nothing written, when one of them is not well-formed
// UTF-8 or the parcel cannot grow so far: write them one by one then, for the
// platform's answer for each.
bool WriteUtf8sAsString16s(android::Parcel* parcel, const std::string* const* texts, size_t count);
// On failure returns UNEXPECTED_NULL, as readString16 does, and leaves `utf8` as it was.
android::status_t ReadString16AsUtf8(const android::Parcel* parcel, std::string* utf8);

}  // namespace deviceinfo
}  // namespace pravik
}  // namespace solvane
}  // namespace com
