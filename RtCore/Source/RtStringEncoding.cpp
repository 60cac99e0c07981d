// RtStringEncoding: strings to and from bytes in an encoding, and IANA charset names.
// ASCII, Latin 1, UTF-8, UTF-16 and UTF-32 are converted here directly (they are on every
// document's path); the other 8-bit encodings use byte tables built once from ICU converters.
// Tables are built under std::call_once and read-only afterwards, so any thread may convert.
#include "RtStringInternal.h"

#include <unicode/ucnv.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <string>
#include <strings.h>

namespace {

using rt::Str;

enum class Kind { eASCII, eLatin1, eUTF8, eUTF16, eUTF16BE, eUTF16LE, eUTF32, eUTF32BE, eUTF32LE, eTable };

struct EncodingRow {
    RtStringEncoding fEncoding;
    const char *fIANAName; // also the name ICU opens the converter by
    Kind fKind;
};

// Name lookups search in this order, so the first row of a name is the encoding it maps to.
//  encoding                            IANA name        kind
const EncodingRow kEncodings[] = {
    {kRtStringEncodingUTF8, "UTF-8", Kind::eUTF8},
    {kRtStringEncodingISOLatin1, "ISO-8859-1", Kind::eLatin1},
    {kRtStringEncodingASCII, "US-ASCII", Kind::eASCII},
    {kRtStringEncodingUTF16, "UTF-16", Kind::eUTF16},
    {kRtStringEncodingUTF16BE, "UTF-16BE", Kind::eUTF16BE},
    {kRtStringEncodingUTF16LE, "UTF-16LE", Kind::eUTF16LE},
    {kRtStringEncodingUTF32, "UTF-32", Kind::eUTF32},
    {kRtStringEncodingUTF32BE, "UTF-32BE", Kind::eUTF32BE},
    {kRtStringEncodingUTF32LE, "UTF-32LE", Kind::eUTF32LE},
    {kRtStringEncodingWindowsLatin1, "windows-1252", Kind::eTable},
    {kRtStringEncodingISOLatin2, "ISO-8859-2", Kind::eTable},
    {kRtStringEncodingISOLatin3, "ISO-8859-3", Kind::eTable},
    {kRtStringEncodingISOLatin4, "ISO-8859-4", Kind::eTable},
    {kRtStringEncodingISOLatinCyrillic, "ISO-8859-5", Kind::eTable},
    {kRtStringEncodingISOLatinArabic, "ISO-8859-6", Kind::eTable},
    {kRtStringEncodingISOLatinGreek, "ISO-8859-7", Kind::eTable},
    {kRtStringEncodingISOLatinHebrew, "ISO-8859-8", Kind::eTable},
    {kRtStringEncodingISOLatin5, "ISO-8859-9", Kind::eTable},
    {kRtStringEncodingISOLatin6, "ISO-8859-10", Kind::eTable},
    {0x020B, "ISO-8859-11", Kind::eTable},
    {0x020D, "ISO-8859-13", Kind::eTable},
    {0x020E, "ISO-8859-14", Kind::eTable},
    {0x020F, "ISO-8859-15", Kind::eTable},
    {0x0210, "ISO-8859-16", Kind::eTable},
    // The default 8-bit encoding is Latin 1, the storage of 8-bit strings; it names itself so.
    {kRtStringEncodingDefault8Bit, "ISO-8859-1", Kind::eLatin1},
};
constexpr size_t kEncodingCount = sizeof kEncodings / sizeof kEncodings[0];

// How many leading bytes are below 0x80, a word at a time: most text decoded here (headers,
// XML bodies) is all ASCII.
size_t asciiRunLength(const uint8_t *p, size_t n) {
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t w;
        std::memcpy(&w, p + i, 8);
        if (w & 0x8080808080808080ull) break;
    }
    while (i < n && p[i] < 0x80)
        i++;
    return i;
}

const EncodingRow *findRow(RtStringEncoding encoding) {
    for (const EncodingRow &row : kEncodings)
        if (row.fEncoding == encoding) return &row;
    return nullptr;
}

// Byte tables of one 8-bit encoding, made from its ICU converter.
struct ByteTable {
    RtUniChar fToUnicode[256];
    bool fDefined[256];
    std::array<std::pair<RtUniChar, uint8_t>, 256> fFromUnicode; // sorted by character
    size_t fFromCount = 0;

    int byteFor(RtUniChar c) const {
        auto end = fFromUnicode.begin() + fFromCount;
        auto it = std::lower_bound(fFromUnicode.begin(), end, std::make_pair(c, uint8_t(0)));
        return (it != end && it->first == c) ? it->second : -1;
    }
};

ByteTable gTables[kEncodingCount];
std::once_flag gTableOnce[kEncodingCount];

const ByteTable *tableFor(const EncodingRow *row) {
    size_t idx = size_t(row - kEncodings);
    std::call_once(gTableOnce[idx], [row, idx] {
        ByteTable &t = gTables[idx];
        UErrorCode err = U_ZERO_ERROR;
        UConverter *conv = ucnv_open(row->fIANAName, &err);
        if (U_FAILURE(err)) return; // no byte is defined: every conversion fails cleanly
        ucnv_setToUCallBack(conv, UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &err);
        for (int b = 0; b < 256; b++) {
            char in = char(b);
            UChar out[4];
            err = U_ZERO_ERROR;
            int32_t n = ucnv_toUChars(conv, out, 4, &in, 1, &err);
            t.fDefined[b] = U_SUCCESS(err) && n == 1;
            t.fToUnicode[b] = t.fDefined[b] ? out[0] : 0;
            if (t.fDefined[b]) t.fFromUnicode[t.fFromCount++] = {t.fToUnicode[b], uint8_t(b)};
        }
        ucnv_close(conv);
        std::sort(t.fFromUnicode.begin(), t.fFromUnicode.begin() + t.fFromCount);
    });
    return &gTables[idx];
}

inline bool isHighSurrogate(uint32_t c) {
    return c >= 0xD800 && c <= 0xDBFF;
}
inline bool isLowSurrogate(uint32_t c) {
    return c >= 0xDC00 && c <= 0xDFFF;
}

// ---- Decoding -----------------------------------------------------------------------------

RtStringRef decodeUTF16(const uint8_t *p, size_t n, bool bigEndian) {
    if (n % 2) return nullptr;
    size_t count = n / 2;
    rt::StringBuilder b;
    RtUniChar chunk[256];
    for (size_t i = 0; i < count;) {
        size_t k = 0;
        for (; k < 256 && i < count; k++, i++) {
            const uint8_t *u = p + 2 * i;
            chunk[k] = bigEndian ? RtUniChar(u[0] << 8 | u[1]) : RtUniChar(u[1] << 8 | u[0]);
        }
        b.appendUnits(chunk, k);
    }
    return b.createString();
}

RtStringRef decodeUTF32(const uint8_t *p, size_t n, bool bigEndian) {
    if (n % 4) return nullptr;
    rt::StringBuilder b;
    for (size_t i = 0; i < n; i += 4) {
        const uint8_t *u = p + i;
        uint32_t c = bigEndian ? uint32_t(u[0]) << 24 | uint32_t(u[1]) << 16 | uint32_t(u[2]) << 8 | u[3]
                               : uint32_t(u[3]) << 24 | uint32_t(u[2]) << 16 | uint32_t(u[1]) << 8 | u[0];
        if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return nullptr;
        if (c < 0x10000) {
            b.appendUnit(RtUniChar(c));
        } else {
            c -= 0x10000;
            b.appendUnit(RtUniChar(0xD800 + (c >> 10)));
            b.appendUnit(RtUniChar(0xDC00 + (c & 0x3FF)));
        }
    }
    return b.createString();
}

// Reads a byte-order mark for UTF-16 (width 2) or UTF-32 (width 4): 1 big-endian, -1
// little-endian, 0 none.
int byteOrderMark(const uint8_t *p, size_t n, size_t width) {
    if (width == 2 && n >= 2) {
        if (p[0] == 0xFE && p[1] == 0xFF) return 1;
        if (p[0] == 0xFF && p[1] == 0xFE) return -1;
    }
    if (width == 4 && n >= 4) {
        if (p[0] == 0 && p[1] == 0 && p[2] == 0xFE && p[3] == 0xFF) return 1;
        if (p[0] == 0xFF && p[1] == 0xFE && p[2] == 0 && p[3] == 0) return -1;
    }
    return 0;
}

// ---- Encoding -----------------------------------------------------------------------------

// Writes the bytes of one character; returns the byte count, 0 when it cannot be represented.
struct Encoder {
    const EncodingRow *fRow;
    const ByteTable *fTable;
    bool fBigEndian;

    size_t encode(uint32_t c, bool loneSurrogate, uint8_t *out) const {
        switch (fRow->fKind) {
        case Kind::eASCII:
            if (c >= 0x80 || loneSurrogate) return 0;
            out[0] = uint8_t(c);
            return 1;
        case Kind::eLatin1:
            if (c >= 0x100) return 0;
            out[0] = uint8_t(c);
            return 1;
        case Kind::eTable: {
            int b = c < 0x10000 && !loneSurrogate ? fTable->byteFor(RtUniChar(c)) : -1;
            if (b < 0) return 0;
            out[0] = uint8_t(b);
            return 1;
        }
        case Kind::eUTF8:
            if (loneSurrogate) return 0;
            if (c < 0x80) {
                out[0] = uint8_t(c);
                return 1;
            }
            if (c < 0x800) {
                out[0] = uint8_t(0xC0 | (c >> 6));
                out[1] = uint8_t(0x80 | (c & 0x3F));
                return 2;
            }
            if (c < 0x10000) {
                out[0] = uint8_t(0xE0 | (c >> 12));
                out[1] = uint8_t(0x80 | ((c >> 6) & 0x3F));
                out[2] = uint8_t(0x80 | (c & 0x3F));
                return 3;
            }
            out[0] = uint8_t(0xF0 | (c >> 18));
            out[1] = uint8_t(0x80 | ((c >> 12) & 0x3F));
            out[2] = uint8_t(0x80 | ((c >> 6) & 0x3F));
            out[3] = uint8_t(0x80 | (c & 0x3F));
            return 4;
        case Kind::eUTF16:
        case Kind::eUTF16BE:
        case Kind::eUTF16LE: {
            RtUniChar units[2];
            size_t n = 1;
            if (c >= 0x10000) {
                units[0] = RtUniChar(0xD800 + ((c - 0x10000) >> 10));
                units[1] = RtUniChar(0xDC00 + ((c - 0x10000) & 0x3FF));
                n = 2;
            } else {
                units[0] = RtUniChar(c);
            }
            for (size_t i = 0; i < n; i++)
                put16(units[i], out + 2 * i);
            return 2 * n;
        }
        case Kind::eUTF32:
        case Kind::eUTF32BE:
        case Kind::eUTF32LE:
            if (loneSurrogate) return 0;
            put32(c, out);
            return 4;
        }
        return 0;
    }

    void put16(RtUniChar u, uint8_t *out) const {
        out[fBigEndian ? 0 : 1] = uint8_t(u >> 8);
        out[fBigEndian ? 1 : 0] = uint8_t(u);
    }
    void put32(uint32_t c, uint8_t *out) const {
        for (int i = 0; i < 4; i++)
            out[fBigEndian ? 3 - i : i] = uint8_t(c >> (8 * i));
    }
    // The byte width of a code unit where a lone loss byte is not a character of its own.
    size_t unitWidth() const {
        switch (fRow->fKind) {
        case Kind::eUTF16:
        case Kind::eUTF16BE:
        case Kind::eUTF16LE:
            return 2;
        case Kind::eUTF32:
        case Kind::eUTF32BE:
        case Kind::eUTF32LE:
            return 4;
        default:
            return 1;
        }
    }
};

bool isHostBigEndian() {
    return __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;
}

// The ICU standard IANA name of every row, for resolving aliases ("latin1", "cp1252").
const char *gStandardNames[kEncodingCount];
std::once_flag gStandardNamesOnce;

const char *standardName(const char *name) {
    UErrorCode err = U_ZERO_ERROR;
    const char *s = ucnv_getStandardName(name, "IANA", &err);
    return U_SUCCESS(err) ? s : nullptr;
}

} // namespace

RtStringRef RtStringCreateWithBytes(RtAllocatorRef, const uint8_t *bytes, RtIndex numBytes,
                                    RtStringEncoding encoding, bool isExternalRepresentation) {
    if (numBytes < 0 || (!bytes && numBytes > 0)) return nullptr;
    const EncodingRow *row = findRow(encoding);
    if (!row) return nullptr;
    size_t n = size_t(numBytes);
    static const uint8_t kEmpty[1] = {0};
    if (!bytes) bytes = kEmpty;
    switch (row->fKind) {
    case Kind::eASCII:
        if (asciiRunLength(bytes, n) != n) return nullptr;
        return rt::createString8(bytes, numBytes);
    case Kind::eLatin1:
        return rt::createString8(bytes, numBytes);
    case Kind::eUTF8: {
        if (isExternalRepresentation && n >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) {
            bytes += 3;
            n -= 3;
        }
        if (asciiRunLength(bytes, n) == n) return rt::createString8(bytes, RtIndex(n));
        rt::StringBuilder b;
        if (!b.appendUTF8(reinterpret_cast<const char *>(bytes), n)) return nullptr;
        return b.createString();
    }
    case Kind::eTable: {
        const ByteTable *t = tableFor(row);
        rt::StringBuilder b;
        for (size_t i = 0; i < n; i++) {
            if (!t->fDefined[bytes[i]]) return nullptr;
            b.appendUnit(t->fToUnicode[bytes[i]]);
        }
        return b.createString();
    }
    case Kind::eUTF16:
    case Kind::eUTF32: {
        size_t width = row->fKind == Kind::eUTF16 ? 2 : 4;
        int bom = byteOrderMark(bytes, n, width);
        // Without a mark, external bytes are big-endian (the Unicode default); in-memory bytes
        // are in the host's order.
        bool big = bom ? bom > 0 : (isExternalRepresentation || isHostBigEndian());
        if (bom) bytes += width, n -= width;
        return width == 2 ? decodeUTF16(bytes, n, big) : decodeUTF32(bytes, n, big);
    }
    case Kind::eUTF16BE:
    case Kind::eUTF16LE: {
        bool big = row->fKind == Kind::eUTF16BE;
        if (isExternalRepresentation && byteOrderMark(bytes, n, 2) == (big ? 1 : -1)) bytes += 2, n -= 2;
        return decodeUTF16(bytes, n, big);
    }
    case Kind::eUTF32BE:
    case Kind::eUTF32LE: {
        bool big = row->fKind == Kind::eUTF32BE;
        if (isExternalRepresentation && byteOrderMark(bytes, n, 4) == (big ? 1 : -1)) bytes += 4, n -= 4;
        return decodeUTF32(bytes, n, big);
    }
    }
    return nullptr;
}

// UTF-8 from either storage without going through the per-character encoder: the protocol
// writers render whole documents (megabytes of UTF-16 once any character is not Latin-1) this
// way. Same results as the general loop of RtStringGetBytes.
static RtIndex getBytesUTF8(RtStringRef str, RtRange range, uint8_t lossByte, uint8_t *buffer,
                            RtIndex maxBufLen, RtIndex *usedBufLen) {
    RtIndex used = 0, i = range.location, end = range.location + range.length;
    if (!rt::isWide(str)) {
        const uint8_t *p = rt::chars8(str);
        for (; i < end; i++) {
            uint8_t c = p[i];
            RtIndex w = c < 0x80 ? 1 : 2;
            if (buffer) {
                if (used + w > maxBufLen) break;
                if (w == 1) {
                    buffer[used] = c;
                } else {
                    buffer[used] = uint8_t(0xC0 | (c >> 6));
                    buffer[used + 1] = uint8_t(0x80 | (c & 0x3F));
                }
            }
            used += w;
        }
    } else {
        const RtUniChar *u = rt::chars16(str);
        while (i < end) {
            uint32_t c = u[i];
            if (c < 0x80) {
                if (buffer) {
                    if (used >= maxBufLen) break;
                    buffer[used] = uint8_t(c);
                }
                used++;
                i++;
                continue;
            }
            RtIndex step = 1;
            uint8_t tmp[4];
            size_t w;
            if (isHighSurrogate(c) && i + 1 < end && isLowSurrogate(u[i + 1])) {
                c = 0x10000 + ((c - 0xD800) << 10) + (u[i + 1] - 0xDC00);
                step = 2;
            }
            if (isHighSurrogate(c) || isLowSurrogate(c)) {
                if (!lossByte) break;
                tmp[0] = lossByte;
                w = 1;
            } else if (c < 0x800) {
                tmp[0] = uint8_t(0xC0 | (c >> 6));
                tmp[1] = uint8_t(0x80 | (c & 0x3F));
                w = 2;
            } else if (c < 0x10000) {
                tmp[0] = uint8_t(0xE0 | (c >> 12));
                tmp[1] = uint8_t(0x80 | ((c >> 6) & 0x3F));
                tmp[2] = uint8_t(0x80 | (c & 0x3F));
                w = 3;
            } else {
                tmp[0] = uint8_t(0xF0 | (c >> 18));
                tmp[1] = uint8_t(0x80 | ((c >> 12) & 0x3F));
                tmp[2] = uint8_t(0x80 | ((c >> 6) & 0x3F));
                tmp[3] = uint8_t(0x80 | (c & 0x3F));
                w = 4;
            }
            if (buffer) {
                if (used + RtIndex(w) > maxBufLen) break;
                std::memcpy(buffer + used, tmp, w);
            }
            used += RtIndex(w);
            i += step;
        }
    }
    if (usedBufLen) *usedBufLen = used;
    return i - range.location;
}

RtIndex RtStringGetBytes(RtStringRef str, RtRange range, RtStringEncoding encoding, uint8_t lossByte,
                         bool isExternalRepresentation, uint8_t *buffer, RtIndex maxBufLen,
                         RtIndex *usedBufLen) {
    if (usedBufLen) *usedBufLen = 0;
    const EncodingRow *row = findRow(encoding);
    if (!rt::isString(str) || !row || !rt::rangeValid(range, str->fLength)) return 0;
    if (!buffer) maxBufLen = 0;
    if (maxBufLen < 0) return 0;

    Encoder enc{row, row->fKind == Kind::eTable ? tableFor(row) : nullptr, false};
    switch (row->fKind) {
    case Kind::eUTF16BE:
    case Kind::eUTF32BE:
        enc.fBigEndian = true;
        break;
    case Kind::eUTF16:
    case Kind::eUTF32:
        enc.fBigEndian = isHostBigEndian();
        break;
    default:
        break;
    }

    // ASCII text is the same bytes in every ASCII-compatible encoding.
    bool asciiCompatible = row->fKind == Kind::eASCII || row->fKind == Kind::eLatin1 ||
                           row->fKind == Kind::eUTF8 || row->fKind == Kind::eTable;
    if (rt::isASCII(str) && asciiCompatible) {
        RtIndex n = buffer && range.length > maxBufLen ? maxBufLen : range.length;
        if (buffer && n) std::memcpy(buffer, rt::chars8(str) + range.location, size_t(n));
        if (usedBufLen) *usedBufLen = n;
        return n;
    }
    if (row->fKind == Kind::eUTF8) return getBytesUTF8(str, range, lossByte, buffer, maxBufLen, usedBufLen);

    RtIndex used = 0;
    uint8_t tmp[8];
    if (isExternalRepresentation && (row->fKind == Kind::eUTF16 || row->fKind == Kind::eUTF32)) {
        size_t w = enc.encode(0xFEFF, false, tmp);
        if (buffer) {
            if (RtIndex(w) > maxBufLen) return 0;
            std::memcpy(buffer, tmp, w);
        }
        used = RtIndex(w);
    }

    RtIndex i = range.location, end = range.location + range.length;
    while (i < end) {
        uint32_t c = rt::unitAt(str, i);
        RtIndex step = 1;
        bool lone = false;
        if (isHighSurrogate(c) && i + 1 < end && isLowSurrogate(rt::unitAt(str, i + 1))) {
            c = 0x10000 + ((c - 0xD800) << 10) + (rt::unitAt(str, i + 1) - 0xDC00);
            step = 2;
        } else if (isHighSurrogate(c) || isLowSurrogate(c)) {
            lone = true;
        }
        size_t w = enc.encode(c, lone, tmp);
        if (!w) {
            if (!lossByte) break;
            w = enc.unitWidth();
            if (w == 1)
                tmp[0] = lossByte;
            else if (w == 2)
                enc.put16(lossByte, tmp);
            else
                enc.put32(lossByte, tmp);
        }
        if (buffer) {
            if (used + RtIndex(w) > maxBufLen) break;
            std::memcpy(buffer + used, tmp, w);
        }
        used += RtIndex(w);
        i += step;
    }
    if (usedBufLen) *usedBufLen = used;
    return i - range.location;
}

bool RtStringGetCString(RtStringRef str, char *buffer, RtIndex bufferSize, RtStringEncoding encoding) {
    if (!rt::isString(str) || !buffer || bufferSize <= 0) return false;
    RtIndex used = 0;
    RtIndex converted = RtStringGetBytes(str, RtRangeMake(0, str->fLength), encoding, 0, false,
                                         reinterpret_cast<uint8_t *>(buffer), bufferSize - 1, &used);
    if (converted != str->fLength) {
        buffer[0] = 0;
        return false;
    }
    buffer[used] = 0;
    return true;
}

RtIndex RtStringGetMaximumSizeForEncoding(RtIndex length, RtStringEncoding encoding) {
    const EncodingRow *row = findRow(encoding);
    if (!row || length < 0) return kRtNotFound;
    switch (row->fKind) {
    case Kind::eUTF8:
        return length * 3; // a surrogate pair (2 units) takes 4 bytes
    case Kind::eUTF16:
    case Kind::eUTF16BE:
    case Kind::eUTF16LE:
        return length * 2;
    case Kind::eUTF32:
    case Kind::eUTF32BE:
    case Kind::eUTF32LE:
        return length * 4;
    default:
        return length;
    }
}

RtStringRef RtStringConvertEncodingToIANACharSetName(RtStringEncoding encoding) {
    const EncodingRow *row = findRow(encoding);
    return row ? __RtStringMakeConstantString(row->fIANAName) : nullptr;
}

RtStringEncoding RtStringConvertIANACharSetNameToEncoding(RtStringRef name) {
    if (!rt::isString(name) || name->fLength == 0) return kRtStringEncodingInvalidId;
    std::string text;
    rt::appendUTF8Text(name, text);
    for (const EncodingRow &row : kEncodings)
        if (strcasecmp(row.fIANAName, text.c_str()) == 0) return row.fEncoding;

    // Aliases ("latin1", "utf8", "cp1252") resolve through ICU to the same IANA standard name.
    std::call_once(gStandardNamesOnce, [] {
        for (size_t i = 0; i < kEncodingCount; i++)
            gStandardNames[i] = standardName(kEncodings[i].fIANAName);
    });
    const char *std = standardName(text.c_str());
    if (!std) return kRtStringEncodingInvalidId;
    for (size_t i = 0; i < kEncodingCount; i++)
        if (gStandardNames[i] && strcasecmp(gStandardNames[i], std) == 0) return kEncodings[i].fEncoding;
    return kRtStringEncodingInvalidId;
}

bool RtStringIsEncodingAvailable(RtStringEncoding encoding) {
    const EncodingRow *row = findRow(encoding);
    if (!row) return false;
    if (row->fKind != Kind::eTable) return true;
    return tableFor(row)->fFromCount > 0;
}
