// ToolStrings: small conversions between runtime values and C++ strings, shared by hvcall and
// hvserve. They use the public API only, as any program built on the library would.
// Owns nothing; every function returning a runtime value hands the caller a new reference.
// Callable from any thread (each call touches only the values it is given).
#ifndef HV_TOOLS_TOOLSTRINGS_H
#define HV_TOOLS_TOOLSTRINGS_H

#include <HalvosCore/HalvosCore.h>

#include <optional>
#include <string>
#include <string_view>

namespace hvtools {

// The UTF-8 bytes of a string; "" for NULL.
std::string utf8String(RtStringRef string);

// A new runtime string from UTF-8 bytes, or NULL when they are not valid UTF-8.
RtStringRef createString(std::string_view text);

// The formatting description of any value ("%@" text) as UTF-8.
std::string describe(RtTypeRef value);

// Standard base64 (RFC 4648 alphabet, padded, no line breaks).
std::string base64Encode(const uint8_t *bytes, size_t length);
// Decodes standard base64; whitespace is skipped and the padding may be left out. Empty when
// the text holds another character or ends in the middle of a byte.
std::optional<std::string> base64Decode(std::string_view text);

// A 32-bit number when value fits, else a 64-bit one. New reference.
RtNumberRef createInteger(int64_t value);

} // namespace hvtools

#endif
