// ExactValues: the checks, encodings and strict readers of exact mode.
#include "ExactValues.h"

#include "HalvoClosure.h"

#include <charconv>
#include <cmath>
#include <cstring>

ValueRules readValueRules(HVSerializerBase *object) {
    ValueRules rules;
    if (!object) return rules;
    rules.exact = object->getProperty(kHVExactValues) == kRtBooleanTrue;
    rules.extensions = object->getProperty(kHVValueExtensions) == kRtBooleanTrue;
    return rules;
}

RtOptionFlags xmlReadOptions(const ValueRules &rules) {
    return rules.exact ? RtOptionFlags(kRtXMLParserKeepContentWhitespace) : RtOptionFlags(0);
}

// ---- Paths and refusals -----------------------------------------------------------------------

void ValueWriteCheck::begin(const ValueRules &rules, const char *root) {
    fRules = rules;
    fPath = root;
    fMarks.clear();
    fRefusal.setString(nullptr);
}

void ValueWriteCheck::enterIndex(long index) {
    fMarks.push_back(fPath.size());
    fPath += "[" + std::to_string(index) + "]";
}

void ValueWriteCheck::enterMember(RtTypeRef name) {
    fMarks.push_back(fPath.size());
    fPath += ".";
    fPath += RtGetTypeID(name) == RtStringGetTypeID() ? utf8Text(static_cast<RtStringRef>(name)) : "?";
}

void ValueWriteCheck::leave() {
    if (fMarks.empty()) return;
    fPath.resize(fMarks.back());
    fMarks.pop_back();
}

void ValueWriteCheck::refuse(const std::string &reason) {
    if (refused()) return;
    std::string message = fPath + ": " + reason;
    RtStringRef text = RtStringCreateWithCString(kRtAllocatorDefault, message.c_str(), kRtStringEncodingUTF8);
    fRefusal.setString(text ? text : RTSTR("a value cannot travel exactly"));
    safeRtRelease(text);
}

// ---- Text -------------------------------------------------------------------------------------

namespace {

// Characters XML 1.0 cannot carry in any form, as UTF-16 units (surrogates are judged apart).
bool isForbiddenUnit(RtUniChar c) {
    return (c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0xFFFE || c == 0xFFFF;
}

bool isHighSurrogate(RtUniChar c) {
    return c >= 0xD800 && c < 0xDC00;
}

bool isLowSurrogate(RtUniChar c) {
    return c >= 0xDC00 && c < 0xE000;
}

// Calls visit(index, unit, next) for every UTF-16 unit of text, next being the unit after it
// (0 at the end); stops when visit returns false.
template <typename Visit> void eachUnit(RtStringRef text, Visit visit) {
    RtIndex length = RtStringGetLength(text);
    const RtIndex kChunk = 256;
    RtUniChar units[kChunk + 1];
    RtUniChar previous = 0;
    for (RtIndex pos = 0; pos < length; pos += kChunk) {
        RtIndex n = std::min(kChunk + 1, length - pos);
        RtStringGetCharacters(text, RtRangeMake(pos, n), units);
        RtIndex last = std::min(kChunk, n);
        for (RtIndex i = 0; i < last; i++) {
            if (!visit(pos + i, units[i], i + 1 < n ? units[i + 1] : RtUniChar(0), previous)) return;
            previous = units[i];
        }
    }
}

std::string hexUnit(unsigned c) {
    char text[16];
    snprintf(text, sizeof text, "U+%04X", c);
    return text;
}

bool isNameStart(uint32_t c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || (c >= 0xC0 && c <= 0xD6) ||
           (c >= 0xD8 && c <= 0xF6) || (c >= 0xF8 && c <= 0x2FF) || (c >= 0x370 && c <= 0x37D) ||
           (c >= 0x37F && c <= 0x1FFF) || (c >= 0x200C && c <= 0x200D) || (c >= 0x2070 && c <= 0x218F) ||
           (c >= 0x2C00 && c <= 0x2FEF) || (c >= 0x3001 && c <= 0xD7FF) || (c >= 0xF900 && c <= 0xFDCF) ||
           (c >= 0xFDF0 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0xEFFFF);
}

bool isNameChar(uint32_t c) {
    return isNameStart(c) || c == '-' || c == '.' || (c >= '0' && c <= '9') || c == 0xB7 ||
           (c >= 0x300 && c <= 0x36F) || (c >= 0x203F && c <= 0x2040);
}

bool isXMLSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// The ASCII text of a short string, white space around it removed; false when text is longer
// than max or not ASCII.
bool trimmedASCII(RtStringRef text, std::string &out, size_t max = 400) {
    if (!text) return false;
    RtIndex length = RtStringGetLength(text);
    if (length < 0 || static_cast<size_t>(length) > max) return false;
    std::vector<char> buffer(static_cast<size_t>(length) + 1);
    if (!RtStringGetCString(text, buffer.data(), length + 1, kRtStringEncodingASCII)) return false;
    const char *begin = buffer.data();
    const char *end = begin + length;
    while (begin < end && isXMLSpace(*begin))
        begin++;
    while (end > begin && isXMLSpace(end[-1]))
        end--;
    out.assign(begin, end);
    return true;
}

} // namespace

std::string utf8Text(RtStringRef text) {
    if (!text) return "";
    RtIndex length = RtStringGetLength(text);
    RtIndex size = RtStringGetMaximumSizeForEncoding(length, kRtStringEncodingUTF8);
    std::string out(static_cast<size_t>(size), '\0');
    RtIndex used = 0;
    RtIndex converted = RtStringGetBytes(text, RtRangeMake(0, length), kRtStringEncodingUTF8, '?', false,
                                         reinterpret_cast<uint8_t *>(&out[0]), size, &used);
    out.resize(converted == length ? static_cast<size_t>(used) : 0);
    return out;
}

std::string quotedText(RtStringRef text, size_t max) {
    RtIndex length = text ? RtStringGetLength(text) : 0;
    bool cut = static_cast<size_t>(length) > max;
    AutoString head;
    if (cut)
        *head.getStringPtr() =
            RtStringCreateWithSubstring(kRtAllocatorDefault, text, RtRangeMake(0, static_cast<RtIndex>(max)));
    return "\"" + utf8Text(cut ? head.getString() : text) + (cut ? "...\"" : "\"");
}

std::string unsendableCharacter(RtStringRef text) {
    std::string reason;
    if (!text) return reason;
    if (const char *ascii = RtStringGetCStringPtr(text, kRtStringEncodingASCII)) {
        for (RtIndex i = 0, length = RtStringGetLength(text); i < length; i++)
            if (isForbiddenUnit(static_cast<unsigned char>(ascii[i])))
                return "holds " + hexUnit(static_cast<unsigned char>(ascii[i])) + " at index " +
                       std::to_string(i) + ", which XML 1.0 cannot carry";
        return reason;
    }
    eachUnit(text, [&](RtIndex i, RtUniChar c, RtUniChar next, RtUniChar previous) {
        if (isForbiddenUnit(c)) {
            reason =
                "holds " + hexUnit(c) + " at index " + std::to_string(i) + ", which XML 1.0 cannot carry";
            return false;
        }
        if ((isHighSurrogate(c) && !isLowSurrogate(next)) ||
            (isLowSurrogate(c) && !isHighSurrogate(previous))) {
            reason = "holds a lone surrogate " + hexUnit(c) + " at index " + std::to_string(i) +
                     ", which is not valid UTF-8";
            return false;
        }
        return true;
    });
    return reason;
}

RtStringRef copySendableText(RtStringRef text) {
    if (!text || unsendableCharacter(text).empty()) return static_cast<RtStringRef>(safeRtRetain(text));
    std::vector<RtUniChar> units;
    eachUnit(text, [&](RtIndex, RtUniChar c, RtUniChar next, RtUniChar previous) {
        bool lone = (isHighSurrogate(c) && !isLowSurrogate(next)) ||
                    (isLowSurrogate(c) && !isHighSurrogate(previous));
        units.push_back(isForbiddenUnit(c) || lone ? RtUniChar(0xFFFD) : c);
        return true;
    });
    return RtStringCreateWithCharacters(kRtAllocatorDefault, units.data(),
                                        static_cast<RtIndex>(units.size()));
}

bool isXMLName(RtStringRef name) {
    if (!name || RtStringGetLength(name) == 0) return false;
    bool valid = true;
    eachUnit(name, [&](RtIndex i, RtUniChar c, RtUniChar next, RtUniChar previous) {
        uint32_t code = c;
        if (isLowSurrogate(c)) {
            valid = isHighSurrogate(previous);
            return valid; // judged with its high half
        }
        if (isHighSurrogate(c)) {
            if (!isLowSurrogate(next)) return valid = false;
            code = 0x10000 + ((uint32_t(c) - 0xD800) << 10) + (uint32_t(next) - 0xDC00);
        }
        valid = i == 0 ? isNameStart(code) : isNameChar(code);
        return valid;
    });
    return valid;
}

RtMutableStringRef exactEncodeString(RtStringRef text, bool attribute) {
    RtMutableStringRef encoded = entityEncodeString(text);
    if (!encoded) return nullptr;
    RtIndex length = RtStringGetLength(encoded);
    bool spaceOnly = length > 0;
    eachUnit(encoded, [&](RtIndex, RtUniChar c, RtUniChar, RtUniChar) {
        spaceOnly = c == ' ' || c == '\t' || c == '\n' || c == '\r';
        return spaceOnly;
    });
    RtStringFindAndReplace(encoded, RTSTR("\r"), RTSTR("&#13;"), RtRangeMake(0, RtStringGetLength(encoded)),
                           0);
    if (spaceOnly || attribute) {
        RtStringFindAndReplace(encoded, RTSTR("\n"), RTSTR("&#10;"),
                               RtRangeMake(0, RtStringGetLength(encoded)), 0);
        RtStringFindAndReplace(encoded, RTSTR("\t"), RTSTR("&#9;"),
                               RtRangeMake(0, RtStringGetLength(encoded)), 0);
    }
    return encoded;
}

// ---- Numbers ----------------------------------------------------------------------------------

std::string shortestDouble(double value) {
    char text[64];
    auto printed = std::to_chars(text, text + sizeof text, value);
    return std::string(text, printed.ptr);
}

bool readExactInteger(RtStringRef text, int64_t min, int64_t max, int64_t *out) {
    std::string s;
    if (!trimmedASCII(text, s) || s.empty()) return false;
    const char *p = s.data();
    const char *end = p + s.size();
    bool negative = *p == '-';
    if (*p == '+' || *p == '-') p++;
    if (p == end) return false;
    for (const char *q = p; q < end; q++)
        if (*q < '0' || *q > '9') return false;
    // Magnitudes are read unsigned so that the most negative value fits.
    uint64_t magnitude = 0;
    auto read = std::from_chars(p, end, magnitude);
    if (read.ec != std::errc() || read.ptr != end) return false;
    int64_t value;
    if (negative) {
        if (magnitude > uint64_t(INT64_MAX) + 1) return false;
        value = magnitude == uint64_t(INT64_MAX) + 1 ? INT64_MIN : -static_cast<int64_t>(magnitude);
    } else {
        if (magnitude > uint64_t(INT64_MAX)) return false;
        value = static_cast<int64_t>(magnitude);
    }
    if (value < min || value > max) return false;
    *out = value;
    return true;
}

bool readExactDouble(RtStringRef text, bool xsdSpecials, double *out) {
    std::string s;
    if (!trimmedASCII(text, s) || s.empty()) return false;
    if (xsdSpecials) {
        // The schema's spellings, and those of writers that print their language's own
        // ("inf", "-Infinity", "nan"): each names one value exactly.
        std::string lower;
        for (char c : s)
            lower += static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
        if (lower == "nan") {
            *out = std::nan("");
            return true;
        }
        for (const char *infinity : {"inf", "+inf", "-inf", "infinity", "+infinity", "-infinity"})
            if (lower == infinity) {
                *out = lower[0] == '-' ? -HUGE_VAL : HUGE_VAL;
                return true;
            }
    }
    // Decimal form only: [sign] digits [. digits] [e [sign] digits], at least one digit.
    const char *p = s.data();
    const char *end = p + s.size();
    bool plus = *p == '+';
    if (plus) p++;
    const char *start = p;
    if (!plus && p < end && *p == '-') p++;
    bool digits = false;
    while (p < end && *p >= '0' && *p <= '9')
        p++, digits = true;
    if (p < end && *p == '.') {
        p++;
        while (p < end && *p >= '0' && *p <= '9')
            p++, digits = true;
    }
    if (!digits) return false;
    if (p < end && (*p == 'e' || *p == 'E')) {
        p++;
        if (p < end && (*p == '+' || *p == '-')) p++;
        if (p == end) return false;
        while (p < end && *p >= '0' && *p <= '9')
            p++;
    }
    if (p != end) return false;
    double value = 0;
    auto read = std::from_chars(start, end, value);
    // Underflow reads as the nearest double (zero or subnormal); overflow is refused.
    if (read.ptr != end || (read.ec != std::errc() && read.ec != std::errc::result_out_of_range))
        return false;
    if (read.ec == std::errc::result_out_of_range) {
        errno = 0;
        value = strtod(std::string(start, end).c_str(), nullptr);
        if (std::isinf(value)) return false;
    }
    if (!std::isfinite(value)) return false;
    *out = value;
    return true;
}

bool readExactBoolean(RtStringRef text, bool *out) {
    std::string s;
    if (!trimmedASCII(text, s)) return false;
    if (s == "1" || s == "true") return *out = true, true;
    if (s == "0" || s == "false") return *out = false, true;
    return false;
}

// ---- Dates and base64 -------------------------------------------------------------------------

namespace {

bool readDigits(const char *&p, const char *end, int count, int32_t *out) {
    int32_t value = 0;
    for (int i = 0; i < count; i++, p++) {
        if (p >= end || *p < '0' || *p > '9') return false;
        value = value * 10 + (*p - '0');
    }
    *out = value;
    return true;
}

bool skip(const char *&p, const char *end, char c) {
    if (p < end && *p == c) {
        p++;
        return true;
    }
    return false;
}

int daysInMonth(int32_t year, int32_t month) {
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : days[month - 1];
}

} // namespace

RtDateRef createExactDate(RtStringRef text) {
    std::string s;
    if (!trimmedASCII(text, s)) return nullptr;
    const char *p = s.data();
    const char *end = p + s.size();
    RtGregorianDate gd = {};
    int32_t month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (!readDigits(p, end, 4, &gd.year)) return nullptr;
    bool dashes = skip(p, end, '-');
    if (!readDigits(p, end, 2, &month) || (dashes && !skip(p, end, '-')) || !readDigits(p, end, 2, &day))
        return nullptr;
    if (!skip(p, end, 'T')) return nullptr;
    if (!readDigits(p, end, 2, &hour)) return nullptr;
    bool colons = skip(p, end, ':');
    if (!readDigits(p, end, 2, &minute) || (colons && !skip(p, end, ':')) || !readDigits(p, end, 2, &second))
        return nullptr;
    double fraction = 0;
    if (skip(p, end, '.') || skip(p, end, ',')) {
        double scale = 0.1;
        const char *first = p;
        for (; p < end && *p >= '0' && *p <= '9'; p++, scale /= 10)
            fraction += (*p - '0') * scale;
        if (p == first) return nullptr;
    }
    int32_t zoneMinutes = 0;
    if (skip(p, end, 'Z')) {
        // GMT
    } else if (p < end && (*p == '+' || *p == '-')) {
        int sign = *p++ == '-' ? -1 : 1;
        int32_t zh = 0, zm = 0;
        if (!readDigits(p, end, 2, &zh)) return nullptr;
        if (p < end) {
            skip(p, end, ':');
            if (!readDigits(p, end, 2, &zm)) return nullptr;
        }
        if (zh > 23 || zm > 59) return nullptr;
        zoneMinutes = sign * (zh * 60 + zm);
    }
    if (p != end) return nullptr;
    if (month < 1 || month > 12 || day < 1 || day > daysInMonth(gd.year, month) || hour > 23 || minute > 59 ||
        second > 59)
        return nullptr;
    gd.month = month;
    gd.day = day;
    gd.hour = hour;
    gd.minute = minute - zoneMinutes; // the zone's offset is ahead of GMT: subtract it
    gd.second = second + fraction;
    return RtDateCreate(kRtAllocatorDefault, RtGregorianDateGetAbsoluteTime(gd));
}

RtDataRef createExactData(RtStringRef text) {
    if (!text) return nullptr;
    const char *ascii = RtStringGetCStringPtr(text, kRtStringEncodingASCII);
    std::string copy;
    if (!ascii) {
        RtIndex length = RtStringGetLength(text);
        copy.resize(static_cast<size_t>(length) + 1);
        if (!RtStringGetCString(text, &copy[0], length + 1, kRtStringEncodingASCII)) return nullptr;
        ascii = copy.c_str();
    }
    size_t count = 0, padding = 0;
    for (RtIndex i = 0, length = RtStringGetLength(text); i < length; i++) {
        char c = ascii[i];
        if (isXMLSpace(c)) continue;
        bool alphabet = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                        c == '+' || c == '/';
        if (c == '=') {
            padding++;
        } else if (!alphabet || padding > 0) {
            return nullptr; // a character outside the alphabet, or one after the padding
        }
        count++;
    }
    if (count % 4 != 0 || padding > 2) return nullptr;
    return decodeBinaryData(text);
}
