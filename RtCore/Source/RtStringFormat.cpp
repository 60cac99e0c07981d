// RtStringFormat: printf-style formatting into strings, with %@ for runtime objects.
// Every document writer formats its lines here, so this is a hot path: a format is cut into
// literal runs and conversion pieces once (cached on RTSTR constants, whose text never changes),
// results are built in a stack buffer, and plain integers, strings and objects are written
// without going through the C library. Conversions with unusual flags fall back to snprintf
// for exact C behaviour. Thread-safe: the cache slot of a constant is published with a CAS.
#include "RtStringInternal.h"

#include <charconv>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <type_traits>
#include <vector>

namespace {

using rt::Str;

enum : uint8_t { eLenNone, eLenHH, eLenH, eLenL, eLenLL, eLenJ, eLenZ, eLenT, eLenBigL };

enum : uint8_t {
    eFlagMinus = 1,
    eFlagPlus = 2,
    eFlagSpace = 4,
    eFlagHash = 8,
    eFlagZero = 16,
    eFlagQuote = 32,
};

constexpr int32_t kNone = -1;
constexpr int32_t kFromArgument = -2; // '*'

// One literal run of the format followed by one conversion (fConv 0: the trailing literal).
struct Piece {
    uint32_t fLitStart;
    uint32_t fLitLen;
    int32_t fWidth;
    int32_t fPrecision;
    uint8_t fConv;
    uint8_t fLen;
    uint8_t fFlags;
};

using ParsedFormat = std::vector<Piece>;

bool isConversion(uint32_t c) {
    switch (c) {
    case 'd':
    case 'i':
    case 'u':
    case 'o':
    case 'x':
    case 'X':
    case 'c':
    case 's':
    case 'p':
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
    case '@':
    case 'S':
    case 'C':
    case '%':
    case 'n':
        return true;
    default:
        return false;
    }
}

// Reads a decimal number for width or precision, saturating well below INT32_MAX.
template <typename U> int32_t readNumber(const U *p, size_t n, size_t &pos) {
    int32_t v = 0;
    while (pos < n && p[pos] >= '0' && p[pos] <= '9') {
        if (v < 100000000) v = v * 10 + int32_t(p[pos] - '0');
        pos++;
    }
    return v;
}

// Parses from pos to the end of the next conversion (or of the format) into piece. A '%' that
// does not start a valid conversion stays part of the literal text.
template <typename U> void parseNext(const U *p, size_t n, size_t &pos, Piece &piece) {
    piece.fLitStart = uint32_t(pos);
    piece.fConv = 0;
    size_t litEnd = pos;
    while (litEnd < n) {
        if (p[litEnd] != '%') {
            litEnd++;
            continue;
        }
        size_t q = litEnd + 1;
        uint8_t flags = 0;
        for (; q < n; q++) {
            uint32_t c = p[q];
            if (c == '-')
                flags |= eFlagMinus;
            else if (c == '+')
                flags |= eFlagPlus;
            else if (c == ' ')
                flags |= eFlagSpace;
            else if (c == '#')
                flags |= eFlagHash;
            else if (c == '0')
                flags |= eFlagZero;
            else if (c == '\'')
                flags |= eFlagQuote;
            else
                break;
        }
        int32_t width = kNone, precision = kNone;
        if (q < n && p[q] == '*') {
            width = kFromArgument;
            q++;
        } else if (q < n && p[q] >= '1' && p[q] <= '9') {
            width = readNumber(p, n, q);
        }
        if (q < n && p[q] == '.') {
            q++;
            if (q < n && p[q] == '*') {
                precision = kFromArgument;
                q++;
            } else {
                precision = readNumber(p, n, q);
            }
        }
        uint8_t len = eLenNone;
        if (q < n) {
            switch (p[q]) {
            case 'h':
                len = eLenH, q++;
                if (q < n && p[q] == 'h') len = eLenHH, q++;
                break;
            case 'l':
                len = eLenL, q++;
                if (q < n && p[q] == 'l') len = eLenLL, q++;
                break;
            case 'q':
                len = eLenLL, q++;
                break;
            case 'j':
                len = eLenJ, q++;
                break;
            case 'z':
                len = eLenZ, q++;
                break;
            case 't':
                len = eLenT, q++;
                break;
            case 'L':
                len = eLenBigL, q++;
                break;
            default:
                break;
            }
        }
        if (q < n && isConversion(p[q])) {
            piece.fLitLen = uint32_t(litEnd - piece.fLitStart);
            piece.fConv = uint8_t(p[q]);
            piece.fFlags = flags;
            piece.fWidth = width;
            piece.fPrecision = precision;
            piece.fLen = len;
            pos = q + 1;
            return;
        }
        litEnd = q; // not a conversion: the text up to here is printed as it stands
    }
    piece.fLitLen = uint32_t(litEnd - piece.fLitStart);
    pos = n;
}

template <typename U> ParsedFormat *parseAll(const U *p, size_t n) {
    auto *parsed = new ParsedFormat;
    size_t pos = 0;
    for (;;) {
        Piece piece;
        parseNext(p, n, pos, piece);
        parsed->push_back(piece);
        if (!piece.fConv) break;
    }
    return parsed;
}

// The cached parse of a constant format, made on first use.
const ParsedFormat *cachedParse(Str *format) {
    void **slot = rt::formatCacheSlot(format);
    if (!slot) return nullptr;
    auto *cached = static_cast<const ParsedFormat *>(__atomic_load_n(slot, __ATOMIC_ACQUIRE));
    if (cached) return cached;
    ParsedFormat *mine = rt::isWide(format) ? parseAll(rt::chars16(format), size_t(format->fLength))
                                            : parseAll(rt::chars8(format), size_t(format->fLength));
    void *expected = nullptr;
    if (__atomic_compare_exchange_n(slot, &expected, mine, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
        return mine;
    delete mine; // another thread published the same parse first
    return static_cast<const ParsedFormat *>(expected);
}

// The longest prefix of the n bytes at s that does not end inside a UTF-8 sequence (a
// precision counts bytes and must not cut a character in two).
size_t completeUTF8Prefix(const char *s, size_t n) {
    if (n == 0) return 0;
    size_t k = n - 1, back = 0;
    while (k > 0 && back < 3 && (uint8_t(s[k]) & 0xC0) == 0x80)
        k--, back++;
    uint8_t lead = uint8_t(s[k]);
    size_t need = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    return k + need > n ? k : n;
}

// ---- Executing one conversion -------------------------------------------------------------

class Formatter {
  public:
    Formatter(rt::StringBuilder &out, Str *format, va_list *args) : fOut(out), fFormat(format), fArgs(args) {}

    void run(const Piece &piece) {
        if (piece.fLitLen) fOut.appendString(fFormat, piece.fLitStart, piece.fLitLen);
        if (piece.fConv) convert(piece);
    }

  private:
    void convert(const Piece &piece);
    void signedInt(const Piece &piece, int width, int precision);
    void unsignedInt(const Piece &piece, int width, int precision);
    void floating(const Piece &piece, int width, int precision);
    void viaSnprintf(const Piece &piece, int width, int precision, int kind, long long sv,
                     unsigned long long uv, long double lv, const void *pv);
    void pad(size_t mark, int width, bool left);

    rt::StringBuilder &fOut;
    Str *fFormat;
    va_list *fArgs;
};

// Pads what was appended since mark to width characters with spaces.
void Formatter::pad(size_t mark, int width, bool left) {
    size_t have = fOut.length() - mark;
    if (width <= 0 || have >= size_t(width)) return;
    size_t missing = size_t(width) - have;
    if (left) {
        fOut.appendRepeated(' ', missing);
        return;
    }
    // Right-justified: append the text again after the spaces, then drop the first copy.
    rt::StringBuilder tail;
    if (fOut.wide())
        tail.appendUnits(fOut.units() + mark, have);
    else
        tail.appendLatin1(fOut.bytes() + mark, have);
    fOut.truncate(mark);
    fOut.appendRepeated(' ', missing);
    if (tail.wide())
        fOut.appendUnits(tail.units(), have);
    else
        fOut.appendLatin1(tail.bytes(), have);
}

void Formatter::convert(const Piece &parsed) {
    Piece piece = parsed;
    int width = piece.fWidth, precision = piece.fPrecision;
    if (width == kFromArgument) {
        width = va_arg(*fArgs, int);
        if (width < 0) { // a negative width from the arguments means left-justified
            piece.fFlags |= eFlagMinus;
            width = width == INT_MIN ? INT_MAX : -width;
        }
    }
    bool left = piece.fFlags & eFlagMinus;
    if (precision == kFromArgument) {
        precision = va_arg(*fArgs, int);
        if (precision < 0) precision = kNone;
    }
    size_t mark = fOut.length();
    switch (piece.fConv) {
    case '@': {
        RtTypeRef obj = va_arg(*fArgs, RtTypeRef);
        if (!obj) {
            fOut.appendASCII("(null)", 6);
        } else if (rt::isString(obj)) {
            Str *s = static_cast<Str *>(obj);
            RtIndex n = s->fLength;
            if (precision >= 0 && precision < n) n = precision;
            fOut.appendString(s, 0, n);
        } else {
            RtStringRef desc = RtCopyFormattingDescription(obj);
            if (desc) {
                RtIndex n = desc->fLength;
                if (precision >= 0 && precision < n) n = precision;
                fOut.appendString(desc, 0, n);
            }
            RtRelease(desc);
        }
        break;
    }
    case 'd':
    case 'i':
        signedInt(piece, width, precision);
        return;
    case 'u':
    case 'o':
    case 'x':
    case 'X':
        unsignedInt(piece, width, precision);
        return;
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
        floating(piece, width, precision);
        return;
    case 's': {
        const char *s = va_arg(*fArgs, const char *);
        if (!s) s = "(null)";
        size_t n = precision >= 0 ? strnlen(s, size_t(precision)) : std::strlen(s);
        if (precision >= 0) n = completeUTF8Prefix(s, n);
        if (!fOut.appendUTF8(s, n)) fOut.appendLatin1(reinterpret_cast<const uint8_t *>(s), n);
        break;
    }
    case 'S': {
        const RtUniChar *s = va_arg(*fArgs, const RtUniChar *);
        if (!s) {
            fOut.appendASCII("(null)", 6);
            break;
        }
        size_t n = 0;
        while (s[n] && (precision < 0 || n < size_t(precision)))
            n++;
        fOut.appendUnits(s, n);
        break;
    }
    case 'c':
        fOut.appendUnit(uint8_t(va_arg(*fArgs, int)));
        break;
    case 'C':
        fOut.appendUnit(RtUniChar(va_arg(*fArgs, int)));
        break;
    case 'p': {
        const void *p = va_arg(*fArgs, const void *);
        if (width > 0 || piece.fFlags) {
            viaSnprintf(piece, width, precision, 'p', 0, 0, 0, p);
            return;
        }
        if (!p) {
            fOut.appendASCII("(nil)", 5);
            break;
        }
        char buf[24];
        char *end = buf + sizeof buf, *d = end;
        for (uintptr_t v = reinterpret_cast<uintptr_t>(p); v; v >>= 4)
            *--d = "0123456789abcdef"[v & 15];
        *--d = 'x';
        *--d = '0';
        fOut.appendASCII(d, size_t(end - d));
        break;
    }
    case '%':
        fOut.appendUnit('%');
        return;
    case 'n':
        (void)va_arg(*fArgs, void *);
        return; // never written through: formats may be hostile
    default:
        return;
    }
    if (width > 0) pad(mark, width, left);
}

void Formatter::signedInt(const Piece &piece, int width, int precision) {
    long long v;
    switch (piece.fLen) {
    case eLenHH:
        v = static_cast<signed char>(va_arg(*fArgs, int));
        break;
    case eLenH:
        v = static_cast<short>(va_arg(*fArgs, int));
        break;
    case eLenL:
        v = va_arg(*fArgs, long);
        break;
    case eLenLL:
        v = va_arg(*fArgs, long long);
        break;
    case eLenJ:
        v = va_arg(*fArgs, intmax_t);
        break;
    case eLenZ:
        v = va_arg(*fArgs, std::make_signed_t<size_t>);
        break;
    case eLenT:
        v = va_arg(*fArgs, ptrdiff_t);
        break;
    default:
        v = va_arg(*fArgs, int);
        break;
    }
    if (width > 0 || precision >= 0 || piece.fFlags) {
        viaSnprintf(piece, width, precision, 'd', v, 0, 0, nullptr);
        return;
    }
    char buf[24];
    char *end = buf + sizeof buf, *d = end;
    unsigned long long u =
        v < 0 ? 0ull - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
    do {
        *--d = char('0' + u % 10);
        u /= 10;
    } while (u);
    if (v < 0) *--d = '-';
    fOut.appendASCII(d, size_t(end - d));
}

void Formatter::unsignedInt(const Piece &piece, int width, int precision) {
    unsigned long long v;
    switch (piece.fLen) {
    case eLenHH:
        v = static_cast<unsigned char>(va_arg(*fArgs, unsigned));
        break;
    case eLenH:
        v = static_cast<unsigned short>(va_arg(*fArgs, unsigned));
        break;
    case eLenL:
        v = va_arg(*fArgs, unsigned long);
        break;
    case eLenLL:
        v = va_arg(*fArgs, unsigned long long);
        break;
    case eLenJ:
        v = va_arg(*fArgs, uintmax_t);
        break;
    case eLenZ:
        v = va_arg(*fArgs, size_t);
        break;
    case eLenT:
        v = static_cast<unsigned long long>(va_arg(*fArgs, ptrdiff_t));
        break;
    default:
        v = va_arg(*fArgs, unsigned);
        break;
    }
    if (width > 0 || precision >= 0 || piece.fFlags) {
        viaSnprintf(piece, width, precision, piece.fConv, 0, v, 0, nullptr);
        return;
    }
    char buf[24];
    char *end = buf + sizeof buf, *d = end;
    unsigned base = piece.fConv == 'u' ? 10 : piece.fConv == 'o' ? 8 : 16;
    const char *digits = piece.fConv == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
    do {
        *--d = digits[v % base];
        v /= base;
    } while (v);
    fOut.appendASCII(d, size_t(end - d));
}

void Formatter::floating(const Piece &piece, int width, int precision) {
    long double lv = piece.fLen == eLenBigL ? va_arg(*fArgs, long double) : va_arg(*fArgs, double);
    // Plain %g, %e and %f: std::to_chars is defined to print exactly what printf prints.
    if (piece.fLen != eLenBigL && width <= 0 && !piece.fFlags &&
        (piece.fConv == 'g' || piece.fConv == 'e' || piece.fConv == 'f')) {
        char buf[400]; // the longest %f of a double is 309 digits plus the fraction
        int prec = precision >= 0 ? precision : 6;
        if (prec <= 40) {
            std::chars_format fmt = piece.fConv == 'g'   ? std::chars_format::general
                                    : piece.fConv == 'e' ? std::chars_format::scientific
                                                         : std::chars_format::fixed;
            auto res = std::to_chars(buf, buf + sizeof buf, static_cast<double>(lv), fmt, prec);
            if (res.ec == std::errc()) {
                fOut.appendASCII(buf, size_t(res.ptr - buf));
                return;
            }
        }
    }
    viaSnprintf(piece, width, precision, piece.fConv, 0, 0, lv, nullptr);
}

// Rebuilds the conversion as a C format and lets snprintf print it exactly.
void Formatter::viaSnprintf(const Piece &piece, int width, int precision, int kind, long long sv,
                            unsigned long long uv, long double lv, const void *pv) {
    char fmt[32];
    char *f = fmt;
    *f++ = '%';
    if (piece.fFlags & eFlagMinus) *f++ = '-';
    if (piece.fFlags & eFlagPlus) *f++ = '+';
    if (piece.fFlags & eFlagSpace) *f++ = ' ';
    if (piece.fFlags & eFlagHash) *f++ = '#';
    if (piece.fFlags & eFlagZero) *f++ = '0';
    if (piece.fFlags & eFlagQuote) *f++ = '\'';
    *f++ = '*';
    *f++ = '.';
    *f++ = '*';
    bool isFloat = kind != 'd' && kind != 'p' && kind != 'u' && kind != 'o' && kind != 'x' && kind != 'X';
    if (kind == 'd' || kind == 'u' || kind == 'o' || kind == 'x' || kind == 'X') *f++ = 'l', *f++ = 'l';
    if (isFloat && piece.fLen == eLenBigL) *f++ = 'L';
    *f++ = char(kind);
    *f = 0;

    char stack[256];
    char *buf = stack;
    int w = width > 0 ? width : 0;
    int n = 0;
    for (int attempt = 0; attempt < 2; attempt++) {
        size_t size = buf == stack ? sizeof stack : size_t(n) + 1;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        if (kind == 'd')
            n = std::snprintf(buf, size, fmt, w, precision, sv);
        else if (kind == 'p')
            n = std::snprintf(buf, size, fmt, w, precision, pv);
        else if (isFloat && piece.fLen == eLenBigL)
            n = std::snprintf(buf, size, fmt, w, precision, lv);
        else if (isFloat)
            n = std::snprintf(buf, size, fmt, w, precision, static_cast<double>(lv));
        else
            n = std::snprintf(buf, size, fmt, w, precision, uv);
#pragma GCC diagnostic pop
        if (n < 0) break;
        if (size_t(n) < size) break;
        buf = static_cast<char *>(std::malloc(size_t(n) + 1));
        if (!buf) return;
    }
    if (n > 0) fOut.appendASCII(buf, size_t(n));
    if (buf != stack) std::free(buf);
}

void formatInto(rt::StringBuilder &out, Str *format, va_list args) {
    va_list ap;
    va_copy(ap, args);
    Formatter f(out, format, &ap);
    if (const ParsedFormat *parsed = cachedParse(format)) {
        for (const Piece &piece : *parsed)
            f.run(piece);
    } else {
        size_t pos = 0, n = size_t(format->fLength);
        Piece piece;
        do {
            if (rt::isWide(format))
                parseNext(rt::chars16(format), n, pos, piece);
            else
                parseNext(rt::chars8(format), n, pos, piece);
            f.run(piece);
        } while (piece.fConv);
    }
    va_end(ap);
}

} // namespace

namespace rt {
void formatIntoBuilder(StringBuilder &out, Str *format, va_list args) {
    formatInto(out, format, args);
}
} // namespace rt

RtStringRef RtStringCreateWithFormat(RtAllocatorRef alloc, RtDictionaryRef formatOptions, RtStringRef format,
                                     ...) {
    va_list args;
    va_start(args, format);
    RtStringRef s = RtStringCreateWithFormatAndArguments(alloc, formatOptions, format, args);
    va_end(args);
    return s;
}

RtStringRef RtStringCreateWithFormatAndArguments(RtAllocatorRef, RtDictionaryRef, RtStringRef format,
                                                 va_list arguments) {
    if (!rt::isString(format)) return nullptr;
    rt::StringBuilder out;
    formatInto(out, format, arguments);
    return out.createString();
}

void RtStringAppendFormat(RtMutableStringRef str, RtDictionaryRef formatOptions, RtStringRef format, ...) {
    va_list args;
    va_start(args, format);
    RtStringAppendFormatAndArguments(str, formatOptions, format, args);
    va_end(args);
}

void RtStringAppendFormatAndArguments(RtMutableStringRef str, RtDictionaryRef, RtStringRef format,
                                      va_list arguments) {
    if (!rt::isString(str) || !rt::isMutable(str) || !rt::isString(format)) return;
    rt::StringBuilder out;
    formatInto(out, format, arguments);
    out.appendTo(str);
}
