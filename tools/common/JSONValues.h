// JSONValues: hvcall's parameters and results as JSON.
//
// JSON to runtime values: integers become 32-bit numbers when they fit, else 64-bit ones;
// numbers with a fraction or an exponent become doubles; strings, true, false; null becomes
// kRtNull; arrays; objects become dictionaries that keep their key order. Two tagged objects
// stand for the kinds JSON lacks: {"$date": "2001-12-31T23:59:07Z"} is a date and
// {"$base64": "TWFu"} is data. Runtime values to JSON is the reverse, with dates and data tagged
// the same way; kinds JSON cannot carry (URLs, HTTP messages) are written as their description.
// Owns nothing; runs on the calling thread.
#ifndef HV_TOOLS_JSONVALUES_H
#define HV_TOOLS_JSONVALUES_H

#include <HalvosCore/HalvosCore.h>

#include <string>

namespace hvtools {

// Nesting beyond this depth is refused when reading and cut short (with a string saying so)
// when writing, so neither direction recurses without bound.
constexpr int kJSONMaxDepth = 256;

// The runtime value of one JSON text (new reference), or NULL with a one-line reason in error.
RtTypeRef createValueFromJSON(const std::string &text, std::string &error);

// The JSON text of a runtime value; indent < 0 writes it on one line. A NULL value is "null".
std::string jsonFromValue(RtTypeRef value, int indent = -1);

} // namespace hvtools

#endif
