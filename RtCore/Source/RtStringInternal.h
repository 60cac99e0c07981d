// RtStringInternal.h: the layout of string objects and the helpers RtCore's string units share
// (RtString, RtStringEncoding, RtStringFormat, RtStringSearch).
// A string stores Latin-1 bytes (one byte per UTF-16 unit, NUL-terminated) while every unit fits
// in 8 bits, UTF-16 units otherwise. Immutable strings are safe to share between threads (their
// hash is cached with atomic accesses); a mutable string belongs to one thread at a time.
#pragma once

#include "RtRuntime.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

struct __RtString {
    RtRuntimeBase fBase;
    uint32_t fFlags;
    uint32_t fHash; // immutable strings: cached hash, 0 until computed; accessed atomically
    RtIndex fLength;
    RtIndex fCapacity;                   // units the buffer holds without the terminator (mutable strings)
    void *fChars;                        // Latin-1 bytes or RtUniChar units
    RtAllocatorRef fContentsDeallocator; // strings made without copying their bytes
};

namespace rt {

enum : uint32_t {
    eStringMutable = 1u << 0,
    eStringWide = 1u << 1,     // storage is UTF-16, else Latin-1 bytes
    eStringASCII = 1u << 2,    // 8-bit storage and every unit in 1..0x7F (may be conservatively off)
    eStringConstant = 1u << 3, // RTSTR constant: immortal, uniqued, has a format cache slot
    eStringNoCopy = 1u << 4,   // fChars belongs to the caller, freed through fContentsDeallocator
};

using Str = const __RtString;

// The runtime's string type, registered on first use.
RtTypeID stringTypeID();

inline bool isString(RtTypeRef obj) {
    return isA(obj, stringTypeID());
}
inline bool isWide(Str *s) {
    return s->fFlags & eStringWide;
}
inline bool isASCII(Str *s) {
    return s->fFlags & eStringASCII;
}
inline bool isMutable(Str *s) {
    return s->fFlags & eStringMutable;
}
inline const uint8_t *chars8(Str *s) {
    return static_cast<const uint8_t *>(s->fChars);
}
inline const RtUniChar *chars16(Str *s) {
    return static_cast<const RtUniChar *>(s->fChars);
}
inline RtUniChar unitAt(Str *s, RtIndex i) {
    return isWide(s) ? chars16(s)[i] : chars8(s)[i];
}

// True when range lies inside a string of length len.
inline bool rangeValid(RtRange r, RtIndex len) {
    return r.location >= 0 && r.length >= 0 && r.location <= len && r.length <= len - r.location;
}

// True when all n bytes are in 1..0x7F.
bool bytesAreASCII(const uint8_t *p, size_t n);
// True when every unit is below 0x100.
bool unitsAreLatin1(const RtUniChar *p, size_t n);

// New immutable strings; the 16-bit form narrows to Latin-1 storage when every unit fits.
RtStringRef createString8(const uint8_t *chars, RtIndex n);
RtStringRef createString16(const RtUniChar *chars, RtIndex n);

// Copies units [from, from+n) of s into out as UTF-16.
void copyUnits(Str *s, RtIndex from, RtIndex n, RtUniChar *out);

// Replaces range of the mutable string s with n units (8-bit Latin-1 or 16-bit); the primitive
// every mutating operation goes through. Returns false when memory runs out.
bool replaceUnits8(__RtString *s, RtRange range, const uint8_t *src, RtIndex n);
bool replaceUnits16(__RtString *s, RtRange range, const RtUniChar *src, RtIndex n);
// Replaces the whole of range of the mutable string s with units [from, from+n) of src.
bool replaceWithString(__RtString *s, RtRange range, Str *src, RtIndex from, RtIndex n);

// The UTF-8 text of s appended to out (lone surrogates become U+FFFD).
void appendUTF8Text(Str *s, std::string &out);

// Walks well-formed UTF-8, calling emit(codePoint) for each character; false at the first
// ill-formed sequence (overlong forms, surrogates and values above U+10FFFF are ill-formed).
template <typename Emit> bool forEachUTF8(const uint8_t *p, size_t n, Emit &&emit) {
    size_t i = 0;
    while (i < n) {
        uint32_t c = p[i];
        if (c < 0x80) {
            emit(c);
            i++;
            continue;
        }
        size_t need;
        uint8_t lo = 0x80, hi = 0xBF;
        if (c >= 0xC2 && c <= 0xDF) {
            need = 1, c &= 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            need = 2;
            if (c == 0xE0) lo = 0xA0;
            if (c == 0xED) hi = 0x9F; // no encoded surrogates
            c &= 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            need = 3;
            if (c == 0xF0) lo = 0x90;
            if (c == 0xF4) hi = 0x8F;
            c &= 0x07;
        } else {
            return false;
        }
        if (n - i <= need) return false;
        uint8_t b = p[i + 1];
        if (b < lo || b > hi) return false;
        c = (c << 6) | (b & 0x3F);
        for (size_t k = 2; k <= need; k++) {
            b = p[i + k];
            if ((b & 0xC0) != 0x80) return false;
            c = (c << 6) | (b & 0x3F);
        }
        emit(c);
        i += need + 1;
    }
    return true;
}

// A growable buffer of units that starts on the stack: 8-bit until a unit above 0xFF arrives.
// Used to build results before making the immutable string in a single allocation.
class StringBuilder {
  public:
    StringBuilder() = default;
    StringBuilder(const StringBuilder &) = delete;
    StringBuilder &operator=(const StringBuilder &) = delete;
    ~StringBuilder() {
        if (fBuf != fInline) std::free(fBuf);
    }

    void appendLatin1(const uint8_t *p, size_t n) {
        if (!fWide) {
            if (!reserve(n)) return;
            std::memcpy(static_cast<uint8_t *>(fBuf) + fLen, p, n);
            fLen += n;
            return;
        }
        if (!reserve(n)) return;
        RtUniChar *d = static_cast<RtUniChar *>(fBuf) + fLen;
        for (size_t i = 0; i < n; i++)
            d[i] = p[i];
        fLen += n;
    }
    void appendASCII(const char *p, size_t n) { appendLatin1(reinterpret_cast<const uint8_t *>(p), n); }
    void appendUnits(const RtUniChar *p, size_t n);
    void appendUnit(RtUniChar c) {
        if (c > 0xFF && !fWide) widen();
        if (!reserve(1)) return;
        if (fWide)
            static_cast<RtUniChar *>(fBuf)[fLen++] = c;
        else
            static_cast<uint8_t *>(fBuf)[fLen++] = static_cast<uint8_t>(c);
    }
    void appendRepeated(RtUniChar c, size_t n) {
        for (size_t i = 0; i < n; i++)
            appendUnit(c);
    }
    void appendString(Str *s, RtIndex from, RtIndex n) {
        if (isWide(s))
            appendUnits(chars16(s) + from, static_cast<size_t>(n));
        else
            appendLatin1(chars8(s) + from, static_cast<size_t>(n));
    }
    // Appends UTF-8 text; false (nothing appended) when it is not well-formed.
    bool appendUTF8(const char *p, size_t n);

    void truncate(size_t n) {
        if (n < fLen) fLen = n;
    }
    size_t length() const { return fLen; }
    bool failed() const { return fFailed; }
    bool wide() const { return fWide; }
    const uint8_t *bytes() const { return static_cast<const uint8_t *>(fBuf); }
    const RtUniChar *units() const { return static_cast<const RtUniChar *>(fBuf); }

    // A new immutable string of the contents (NULL when memory ran out).
    RtStringRef createString() const;
    // Appends the contents to the mutable string s.
    void appendTo(__RtString *s) const;

  private:
    bool reserve(size_t extra) {
        if (fLen + extra <= fCap) return true;
        return grow(extra);
    }
    bool grow(size_t extra);
    void widen();

    static constexpr size_t kInlineBytes = 512;
    alignas(8) uint8_t fInline[kInlineBytes];
    void *fBuf = fInline;
    size_t fLen = 0;
    size_t fCap = kInlineBytes; // in units of the current width
    bool fWide = false;
    bool fFailed = false;
};

// The formatter (RtStringFormat.cpp): appends the text of format with args to out.
void formatIntoBuilder(StringBuilder &out, Str *format, va_list args);

// The immortal constant-string table (RtString.cpp). Returns a slot in a constant where the
// formatter keeps its parsed form, or NULL for any other string.
void **formatCacheSlot(Str *s);

} // namespace rt
