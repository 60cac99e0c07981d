// ISO 8601 dates, written in GMT and read leniently.
#include "HalvoUtils.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

// value in decimal with at least `digits` digits (zeros in front), as printf's "%N.Nu" does.
static char *putUnsigned(char *out, unsigned value, int digits) {
    char text[12];
    int n = 0;
    do {
        text[n++] = char('0' + value % 10);
        value /= 10;
    } while (value);
    while (n < digits)
        text[n++] = '0';
    while (n)
        *out++ = text[--n];
    return out;
}

void hvRtDateToISO8601String(char *buffer, RtIndex len, RtDateRef val, bool noDashes) {
    if (!buffer || len <= 0) return;
    if (!val) {
        buffer[0] = '\0';
        return;
    }
    RtGregorianDate gd = RtAbsoluteTimeGetGregorianDate(RtDateGetAbsoluteTime(val));
    // Every field prints unsigned and the seconds are truncated: no fraction is ever written.
    // The text is what "%4.4u-%2.2u-%2.2uT%2.2u:%2.2u:%2.2uZ" (no dashes: "%4.4u%2.2u%2.2uT...")
    // gives, cut to fit like snprintf's; written by hand, as every date of a document comes here.
    unsigned second = gd.second > 0 ? static_cast<unsigned>(gd.second) : 0u;
    char text[80];
    char *p = putUnsigned(text, static_cast<unsigned>(gd.year), 4);
    if (!noDashes) *p++ = '-';
    p = putUnsigned(p, static_cast<unsigned>(gd.month), 2);
    if (!noDashes) *p++ = '-';
    p = putUnsigned(p, static_cast<unsigned>(gd.day), 2);
    *p++ = 'T';
    p = putUnsigned(p, static_cast<unsigned>(gd.hour), 2);
    *p++ = ':';
    p = putUnsigned(p, static_cast<unsigned>(gd.minute), 2);
    *p++ = ':';
    p = putUnsigned(p, second, 2);
    *p++ = 'Z';
    size_t n = std::min(static_cast<size_t>(p - text), static_cast<size_t>(len) - 1);
    std::memcpy(buffer, text, n);
    buffer[n] = '\0';
}

namespace {

// The reader's cursor over p[0..len). Characters past the end read as NUL, which is no digit,
// so a field cut short reads as if the text had ended in a terminator, and nothing is read
// outside the caller's buffer.
struct DateCursor {
    const char *p;
    RtIndex len;
    RtIndex i;

    bool more() const { return i < len; }
    char peek() const { return i < len ? p[i] : '\0'; }
    char take() { return i < len ? p[i++] : (i++, '\0'); }

    static int ctoi(char c) { return c >= '0' && c <= '9' ? c - '0' : 0; }
    // Fixed width: always steps over four (two) characters, digits or not.
    int32_t read4SInt32() {
        int32_t v = 0;
        for (int k = 0; k < 4; k++)
            v = v * 10 + ctoi(take());
        return v;
    }
    int8_t read2SInt8() {
        int v = ctoi(take()) * 10;
        v += ctoi(take());
        return static_cast<int8_t>(v);
    }
};

} // namespace

RtDateRef hvCreateDateFromISO8601(const char *p, RtIndex len) {
    DateCursor c{p, p ? (len > 0 ? len : 0) : 0, 0};
    int32_t year = 0;
    int8_t month = 0, day = 0, hour = 0, minute = 0;
    double second = 0;

    do {
        if (c.more()) year = c.read4SInt32();
        if (c.peek() == '-') c.i++;
        if (c.more()) month = c.read2SInt8();
        if (c.peek() == '-') c.i++;
        if (c.more()) day = c.read2SInt8();

        if (!c.more()) break; // a date alone
        char separator = c.take();
        if (separator != 'T' && separator != 'Z') break;
        if (c.more()) hour = c.read2SInt8();
        if (c.more() && c.take() == ':') {
            if (c.more()) minute = c.read2SInt8();
            if (c.more() && c.take() == ':') second = c.read2SInt8();
        }
        // After a "Z" separator, and at the end, there is no zone.
        if (!c.more() || separator == 'Z') break;

        bool negative = false;
        if (c.peek() == '-') {
            negative = true;
            c.i++;
        } else if (c.peek() == '+') {
            c.i++;
        }
        // A zone of two characters or fewer ("Z", "+05") is ignored. So a fraction such as
        // ".25" is read as a zone of 2 hours: deliberate, it is how this reader always behaved.
        if (c.i + 2 >= c.len) break;
        int8_t zoneHour = c.read2SInt8();
        int8_t zoneMinute = 0;
        if (c.more() && c.take() == ':') zoneMinute = c.read2SInt8();
        // The zone is added for "+" and subtracted for "-", the reverse of the usual reading:
        // "T10:00:00+02:00" is 12:00 GMT. Deliberate; peers depend on it.
        if (negative) {
            hour = static_cast<int8_t>(hour - zoneHour);
            minute = static_cast<int8_t>(minute - zoneMinute);
        } else {
            hour = static_cast<int8_t>(hour + zoneHour);
            minute = static_cast<int8_t>(minute + zoneMinute);
        }
    } while (false);

    RtGregorianDate gd;
    gd.year = year;
    gd.month = month;
    gd.day = day;
    gd.hour = hour;
    gd.minute = minute;
    gd.second = second;
    return RtDateCreate(kRtAllocatorDefault, RtGregorianDateGetAbsoluteTime(gd));
}

RtStringRef isoEncodeDate(RtDateRef val, bool noDashes) {
    char buffer[256];
    hvRtDateToISO8601String(buffer, sizeof buffer, val, noDashes);
    return RtStringCreateWithCString(kRtAllocatorDefault, buffer, kRtStringEncodingASCII);
}

RtDateRef isoDecodeDate(RtStringRef text) {
    if (!text) return nullptr;
    // The reader never looks further than about 25 characters, so the first 64 give the same
    // date as the whole text, without an allocation sized by the peer.
    char buffer[64];
    RtIndex length = RtStringGetLength(text);
    RtIndex used = 0;
    RtStringGetBytes(text, RtRangeMake(0, length < 64 ? length : 64), kRtStringEncodingASCII, 'x', false,
                     reinterpret_cast<uint8_t *>(buffer), sizeof buffer, &used);
    return hvCreateDateFromISO8601(buffer, used);
}
