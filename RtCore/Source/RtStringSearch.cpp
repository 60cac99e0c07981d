// RtStringSearch: comparing, searching, find-and-replace, prefix and suffix tests, trimming,
// case mapping and reading numbers from strings.
// Case-insensitive operations compare Unicode simple case folds (ICU's u_foldCase), one code
// point at a time so that matched ranges map back onto the original text; ASCII characters
// fold through a table without calling ICU. Stateless: safe on any thread.
#include "RtStringInternal.h"

#include <unicode/uchar.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <vector>

namespace {

using rt::Str;

struct AsciiFoldTable {
    uint8_t fLower[128];
    constexpr AsciiFoldTable() : fLower() {
        for (int c = 0; c < 128; c++)
            fLower[c] = uint8_t(c >= 'A' && c <= 'Z' ? c + 32 : c);
    }
};
constexpr AsciiFoldTable kAsciiFold;

inline uint32_t fold(uint32_t c) {
    return c < 0x80 ? kAsciiFold.fLower[c] : uint32_t(u_foldCase(UChar32(c), U_FOLD_CASE_DEFAULT));
}

inline bool isHigh(uint32_t c) {
    return c >= 0xD800 && c <= 0xDBFF;
}
inline bool isLow(uint32_t c) {
    return c >= 0xDC00 && c <= 0xDFFF;
}

// The code point at i (a surrogate pair read whole) and the number of units it spans.
inline uint32_t codePointAt(Str *s, RtIndex i, RtIndex end, RtIndex &units) {
    uint32_t c = rt::unitAt(s, i);
    units = 1;
    if (isHigh(c) && i + 1 < end) {
        uint32_t d = rt::unitAt(s, i + 1);
        if (isLow(d)) {
            units = 2;
            return 0x10000 + ((c - 0xD800) << 10) + (d - 0xDC00);
        }
    }
    return c;
}

inline bool isDigit(uint32_t c) {
    return c >= '0' && c <= '9';
}

RtComparisonResult sign(long v) {
    return v < 0 ? kRtCompareLessThan : v > 0 ? kRtCompareGreaterThan : kRtCompareEqualTo;
}

// Compares a run of digits at *ia in a with one at *ib in b by value, advancing both.
int compareDigitRuns(Str *a, RtIndex &ia, RtIndex ea, Str *b, RtIndex &ib, RtIndex eb) {
    while (ia < ea - 1 && rt::unitAt(a, ia) == '0' && isDigit(rt::unitAt(a, ia + 1)))
        ia++;
    while (ib < eb - 1 && rt::unitAt(b, ib) == '0' && isDigit(rt::unitAt(b, ib + 1)))
        ib++;
    RtIndex ja = ia, jb = ib;
    while (ja < ea && isDigit(rt::unitAt(a, ja)))
        ja++;
    while (jb < eb && isDigit(rt::unitAt(b, jb)))
        jb++;
    if (ja - ia != jb - ib) return ja - ia < jb - ib ? -1 : 1;
    for (; ia < ja; ia++, ib++) {
        int d = int(rt::unitAt(a, ia)) - int(rt::unitAt(b, ib));
        if (d) return d;
    }
    return 0;
}

RtComparisonResult compareRanges(Str *a, RtIndex ia, RtIndex na, Str *b, RtIndex ib, RtIndex nb,
                                 RtOptionFlags options) {
    bool ci = options & kRtCompareCaseInsensitive, numeric = options & kRtCompareNumerically;
    if (!ci && !numeric) {
        RtIndex n = na < nb ? na : nb;
        if (!rt::isWide(a) && !rt::isWide(b)) {
            int r = n ? std::memcmp(rt::chars8(a) + ia, rt::chars8(b) + ib, size_t(n)) : 0;
            if (r) return sign(r);
        } else {
            for (RtIndex k = 0; k < n; k++) {
                int d = int(rt::unitAt(a, ia + k)) - int(rt::unitAt(b, ib + k));
                if (d) return sign(d);
            }
        }
        return sign(long(na) - long(nb));
    }
    if (ci && !numeric && !rt::isWide(a) && !rt::isWide(b)) {
        // Element and attribute names are matched this way on every document: stay on bytes.
        const uint8_t *pa = rt::chars8(a) + ia, *pb = rt::chars8(b) + ib;
        RtIndex n = na < nb ? na : nb;
        for (RtIndex k = 0; k < n; k++) {
            uint32_t ca = pa[k], cb = pb[k];
            if (ca == cb) continue;
            ca = fold(ca), cb = fold(cb);
            if (ca != cb) return ca < cb ? kRtCompareLessThan : kRtCompareGreaterThan;
        }
        return sign(long(na) - long(nb));
    }
    RtIndex ea = ia + na, eb = ib + nb;
    while (ia < ea && ib < eb) {
        if (numeric && isDigit(rt::unitAt(a, ia)) && isDigit(rt::unitAt(b, ib))) {
            if (int d = compareDigitRuns(a, ia, ea, b, ib, eb)) return sign(d);
            continue;
        }
        RtIndex ua, ub;
        uint32_t ca = codePointAt(a, ia, ea, ua), cb = codePointAt(b, ib, eb, ub);
        if (ci) ca = fold(ca), cb = fold(cb);
        if (ca != cb) return ca < cb ? kRtCompareLessThan : kRtCompareGreaterThan;
        ia += ua;
        ib += ub;
    }
    return sign(long(ea - ia) - long(eb - ib));
}

// Length in s of a match of pat at i (case-insensitive), or -1.
RtIndex foldedMatchAt(Str *s, RtIndex i, RtIndex end, Str *pat) {
    RtIndex j = 0, n = pat->fLength, start = i;
    while (j < n) {
        if (i >= end) return -1;
        RtIndex us, up;
        uint32_t cs = codePointAt(s, i, end, us), cp = codePointAt(pat, j, n, up);
        if (cs != cp && fold(cs) != fold(cp)) return -1;
        i += us;
        j += up;
    }
    return i - start;
}

inline bool literalMatchAt(Str *s, RtIndex i, Str *pat) {
    RtIndex n = pat->fLength;
    if (!rt::isWide(s) && !rt::isWide(pat))
        return std::memcmp(rt::chars8(s) + i, rt::chars8(pat), size_t(n)) == 0;
    for (RtIndex k = 0; k < n; k++)
        if (rt::unitAt(s, i + k) != rt::unitAt(pat, k)) return false;
    return true;
}

bool findIn(Str *s, RtRange range, Str *pat, RtOptionFlags options, RtRange *result) {
    RtIndex n = pat->fLength, end = range.location + range.length;
    if (n == 0 || range.length == 0) return false;
    bool ci = options & kRtCompareCaseInsensitive;
    bool backwards = options & kRtCompareBackwards, anchored = options & kRtCompareAnchored;
    if (!ci) {
        if (n > range.length) return false;
        RtIndex first = range.location, last = end - n;
        if (anchored) {
            RtIndex at = backwards ? last : first;
            if (!literalMatchAt(s, at, pat)) return false;
            *result = RtRangeMake(at, n);
            return true;
        }
        RtUniChar c0 = rt::unitAt(pat, 0);
        if (!backwards) {
            for (RtIndex i = first; i <= last; i++) {
                if (!rt::isWide(s)) { // jump to the next candidate first byte
                    if (c0 > 0xFF) return false;
                    const void *hit = std::memchr(rt::chars8(s) + i, c0, size_t(last - i + 1));
                    if (!hit) return false;
                    i = static_cast<const uint8_t *>(hit) - rt::chars8(s);
                }
                if (literalMatchAt(s, i, pat)) {
                    *result = RtRangeMake(i, n);
                    return true;
                }
            }
        } else {
            for (RtIndex i = last; i >= first; i--)
                if (rt::unitAt(s, i) == c0 && literalMatchAt(s, i, pat)) {
                    *result = RtRangeMake(i, n);
                    return true;
                }
        }
        return false;
    }
    // Case-insensitive: folds keep code point counts, but a match may span a different
    // number of units than the pattern, so every start position is tried.
    if (!backwards) {
        for (RtIndex i = range.location; i < end; i++) {
            RtIndex len = foldedMatchAt(s, i, end, pat);
            if (len >= 0) {
                *result = RtRangeMake(i, len);
                return true;
            }
            if (anchored) return false;
        }
    } else {
        for (RtIndex i = end - 1; i >= range.location; i--) {
            RtIndex len = foldedMatchAt(s, i, end, pat);
            if (len >= 0 && (!anchored || i + len == end)) {
                *result = RtRangeMake(i, len);
                return true;
            }
        }
    }
    return false;
}

bool isWhitespace(uint32_t c) {
    if (c < 0x80) return c == ' ' || (c >= '\t' && c <= '\r');
    return u_isUWhiteSpace(UChar32(c));
}

// Replaces the whole of s by the UTF-16 text of u.
void setUnits(__RtString *s, const RtUniChar *u, RtIndex n) {
    rt::replaceUnits16(s, RtRangeMake(0, s->fLength), u, n);
}

// Maps the case of a mutable string through ICU (root locale); ASCII text is mapped in place.
void mapCase(RtMutableStringRef str, bool upper) {
    if (!rt::isString(str) || !rt::isMutable(str)) return;
    __RtString *s = str;
    if (!rt::isWide(s)) {
        uint8_t *p = static_cast<uint8_t *>(s->fChars);
        bool ascii = true;
        for (RtIndex i = 0; i < s->fLength && ascii; i++)
            ascii = p[i] < 0x80;
        if (ascii) {
            for (RtIndex i = 0; i < s->fLength; i++) {
                uint8_t c = p[i];
                if (upper && c >= 'a' && c <= 'z') p[i] = uint8_t(c - 32);
                if (!upper && c >= 'A' && c <= 'Z') p[i] = uint8_t(c + 32);
            }
            return;
        }
    }
    std::vector<UChar> src(size_t(s->fLength) + 1);
    rt::copyUnits(s, 0, s->fLength, reinterpret_cast<RtUniChar *>(src.data()));
    std::vector<UChar> dst(size_t(s->fLength) + 16);
    for (int attempt = 0; attempt < 2; attempt++) {
        UErrorCode err = U_ZERO_ERROR;
        int32_t n =
            upper ? u_strToUpper(dst.data(), int32_t(dst.size()), src.data(), int32_t(s->fLength), "", &err)
                  : u_strToLower(dst.data(), int32_t(dst.size()), src.data(), int32_t(s->fLength), "", &err);
        if (err == U_BUFFER_OVERFLOW_ERROR) {
            dst.resize(size_t(n) + 1);
            continue;
        }
        if (U_SUCCESS(err)) setUnits(s, reinterpret_cast<const RtUniChar *>(dst.data()), n);
        return;
    }
}

// Up to 128 leading characters of s as ASCII text (others end it), after leading whitespace.
size_t numberText(Str *s, char *buf, size_t size) {
    RtIndex i = 0;
    while (i < s->fLength && isWhitespace(rt::unitAt(s, i)))
        i++;
    size_t n = 0;
    for (; i < s->fLength && n + 1 < size; i++) {
        RtUniChar c = rt::unitAt(s, i);
        if (c >= 0x80 || c == 0) break;
        buf[n++] = char(c);
    }
    buf[n] = 0;
    return n;
}

} // namespace

RtComparisonResult RtStringCompareWithOptions(RtStringRef a, RtStringRef b, RtRange rangeOfA,
                                              RtOptionFlags compareOptions) {
    bool va = rt::isString(a), vb = rt::isString(b);
    if (!va || !vb) return va == vb ? kRtCompareEqualTo : va ? kRtCompareGreaterThan : kRtCompareLessThan;
    if (!rt::rangeValid(rangeOfA, a->fLength)) rangeOfA = RtRangeMake(0, a->fLength);
    return compareRanges(a, rangeOfA.location, rangeOfA.length, b, 0, b->fLength, compareOptions);
}

RtComparisonResult RtStringCompare(RtStringRef a, RtStringRef b, RtOptionFlags compareOptions) {
    return RtStringCompareWithOptions(a, b, RtRangeMake(0, RtStringGetLength(a)), compareOptions);
}

bool RtStringFindWithOptions(RtStringRef str, RtStringRef find, RtRange rangeToSearch,
                             RtOptionFlags searchOptions, RtRange *result) {
    if (!rt::isString(str) || !rt::isString(find) || !rt::rangeValid(rangeToSearch, str->fLength))
        return false;
    RtRange found;
    if (!findIn(str, rangeToSearch, find, searchOptions, &found)) return false;
    if (result) *result = found;
    return true;
}

RtRange RtStringFind(RtStringRef str, RtStringRef find, RtOptionFlags compareOptions) {
    RtRange found;
    if (RtStringFindWithOptions(str, find, RtRangeMake(0, RtStringGetLength(str)), compareOptions, &found))
        return found;
    return RtRangeMake(kRtNotFound, 0);
}

bool RtStringHasPrefix(RtStringRef str, RtStringRef prefix) {
    if (!rt::isString(str) || !rt::isString(prefix) || prefix->fLength > str->fLength) return false;
    return literalMatchAt(str, 0, prefix);
}

bool RtStringHasSuffix(RtStringRef str, RtStringRef suffix) {
    if (!rt::isString(str) || !rt::isString(suffix) || suffix->fLength > str->fLength) return false;
    return literalMatchAt(str, str->fLength - suffix->fLength, suffix);
}

RtIndex RtStringFindAndReplace(RtMutableStringRef str, RtStringRef find, RtStringRef replace,
                               RtRange rangeToSearch, RtOptionFlags compareOptions) {
    if (!rt::isString(str) || !rt::isMutable(str) || !rt::isString(find) ||
        !rt::rangeValid(rangeToSearch, str->fLength))
        return 0;
    if (replace && !rt::isString(replace)) return 0;
    std::vector<RtRange> matches;
    RtRange window = rangeToSearch, found;
    bool backwards = compareOptions & kRtCompareBackwards;
    while (window.length > 0 && findIn(str, window, find, compareOptions, &found)) {
        matches.push_back(found);
        if (compareOptions & kRtCompareAnchored) break;
        if (backwards) {
            window.length = found.location - window.location;
        } else {
            RtIndex next = found.location + (found.length ? found.length : 1);
            window.length -= next - window.location;
            window.location = next;
        }
    }
    if (matches.empty()) return 0;
    if (backwards) std::reverse(matches.begin(), matches.end());

    rt::StringBuilder b;
    RtIndex at = 0;
    for (const RtRange &m : matches) {
        b.appendString(str, at, m.location - at);
        if (replace) b.appendString(replace, 0, replace->fLength);
        at = m.location + m.length;
    }
    b.appendString(str, at, str->fLength - at);
    if (b.failed()) return 0;
    __RtString *s = str;
    if (b.wide())
        rt::replaceUnits16(s, RtRangeMake(0, s->fLength), b.units(), RtIndex(b.length()));
    else
        rt::replaceUnits8(s, RtRangeMake(0, s->fLength), b.bytes(), RtIndex(b.length()));
    return RtIndex(matches.size());
}

void RtStringTrimWhitespace(RtMutableStringRef str) {
    if (!rt::isString(str) || !rt::isMutable(str)) return;
    RtIndex start = 0, end = str->fLength;
    while (end > 0 && isWhitespace(rt::unitAt(str, end - 1)))
        end--;
    while (start < end && isWhitespace(rt::unitAt(str, start)))
        start++;
    rt::replaceUnits8(str, RtRangeMake(end, str->fLength - end), nullptr, 0);
    rt::replaceUnits8(str, RtRangeMake(0, start), nullptr, 0);
}

void RtStringLowercase(RtMutableStringRef str) {
    mapCase(str, false);
}

void RtStringUppercase(RtMutableStringRef str) {
    mapCase(str, true);
}

int32_t RtStringGetIntValue(RtStringRef str) {
    if (!rt::isString(str)) return 0;
    char buf[64];
    size_t n = numberText(str, buf, sizeof buf);
    size_t i = 0;
    bool negative = false;
    if (i < n && (buf[i] == '+' || buf[i] == '-')) negative = buf[i++] == '-';
    long long v = 0;
    for (; i < n && isDigit(uint8_t(buf[i])); i++) {
        v = v * 10 + (buf[i] - '0');
        if (v > 1LL + INT32_MAX) v = 1LL + INT32_MAX; // saturate instead of overflowing
    }
    if (negative) v = -v;
    if (v > INT32_MAX) return INT32_MAX;
    if (v < INT32_MIN) return INT32_MIN;
    return int32_t(v);
}

double RtStringGetDoubleValue(RtStringRef str) {
    if (!rt::isString(str)) return 0.0;
    char buf[128];
    size_t n = numberText(str, buf, sizeof buf);
    const char *p = buf;
    if (n && *p == '+') p++;
    double v = 0.0;
    auto res = std::from_chars(p, buf + n, v);
    if (res.ec == std::errc::result_out_of_range) return 0.0;
    return res.ec == std::errc() ? v : 0.0;
}
