// RtStringFormatUTF8: the formatter's text written as UTF-8 into the caller's bytes, with no
// string object in between. The protocol writers emit a document line by line this way, so a
// line costs neither an allocation nor a second pass over a UTF-16 copy of the document.
#include "RtStringInternal.h"

namespace {

bool isHighSurrogate(uint32_t c) {
    return c >= 0xD800 && c <= 0xDBFF;
}
bool isLowSurrogate(uint32_t c) {
    return c >= 0xDC00 && c <= 0xDFFF;
}

// The UTF-8 length of n UTF-16 units, or -1 when they hold a lone surrogate.
RtIndex utf8Length(const RtUniChar *u, size_t n) {
    RtIndex bytes = 0;
    for (size_t i = 0; i < n; i++) {
        uint32_t c = u[i];
        if (c < 0x80) {
            bytes += 1;
        } else if (c < 0x800) {
            bytes += 2;
        } else if (isHighSurrogate(c) && i + 1 < n && isLowSurrogate(u[i + 1])) {
            bytes += 4;
            i++;
        } else if (isHighSurrogate(c) || isLowSurrogate(c)) {
            return -1;
        } else {
            bytes += 3;
        }
    }
    return bytes;
}

void encodeUnits(const RtUniChar *u, size_t n, uint8_t *out) {
    for (size_t i = 0; i < n; i++) {
        uint32_t c = u[i];
        if (c < 0x80) {
            *out++ = uint8_t(c);
        } else if (c < 0x800) {
            *out++ = uint8_t(0xC0 | (c >> 6));
            *out++ = uint8_t(0x80 | (c & 0x3F));
        } else if (isHighSurrogate(c)) { // a pair: utf8Length has checked it
            c = 0x10000 + ((c - 0xD800) << 10) + (u[++i] - 0xDC00);
            *out++ = uint8_t(0xF0 | (c >> 18));
            *out++ = uint8_t(0x80 | ((c >> 12) & 0x3F));
            *out++ = uint8_t(0x80 | ((c >> 6) & 0x3F));
            *out++ = uint8_t(0x80 | (c & 0x3F));
        } else {
            *out++ = uint8_t(0xE0 | (c >> 12));
            *out++ = uint8_t(0x80 | ((c >> 6) & 0x3F));
            *out++ = uint8_t(0x80 | (c & 0x3F));
        }
    }
}

// How many of the n bytes are above 0x7F, a word at a time.
size_t countHighBytes(const uint8_t *p, size_t n) {
    size_t count = 0, i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t w;
        std::memcpy(&w, p + i, 8);
        if (w & 0x8080808080808080ull) count += size_t(__builtin_popcountll(w & 0x8080808080808080ull));
    }
    for (; i < n; i++)
        count += p[i] >> 7;
    return count;
}

} // namespace

RtIndex RtStringFormatUTF8(char *buffer, RtIndex bufferSize, RtDictionaryRef, RtStringRef format,
                           va_list arguments) {
    if (!rt::isString(format)) return 0;
    rt::StringBuilder out;
    rt::formatIntoBuilder(out, format, arguments);
    size_t n = out.length();
    RtIndex bytes;
    if (out.wide())
        bytes = utf8Length(out.units(), n);
    else
        bytes = RtIndex(n) + RtIndex(countHighBytes(out.bytes(), n)); // Latin-1 above 0x7F takes two
    if (bytes < 0 || bytes > bufferSize || !buffer) return bytes;
    auto *dest = reinterpret_cast<uint8_t *>(buffer);
    if (out.wide()) {
        encodeUnits(out.units(), n, dest);
    } else if (bytes == RtIndex(n)) {
        std::memcpy(dest, out.bytes(), n);
    } else {
        for (size_t i = 0; i < n; i++) {
            uint8_t c = out.bytes()[i];
            if (c < 0x80) {
                *dest++ = c;
            } else {
                *dest++ = uint8_t(0xC0 | (c >> 6));
                *dest++ = uint8_t(0x80 | (c & 0x3F));
            }
        }
    }
    return bytes;
}
