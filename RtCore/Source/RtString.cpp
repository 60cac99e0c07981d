// RtString: the string class, creation, mutation, reading, equality, hashing, descriptions and
// the process-wide table of RTSTR constants.
#include "RtStringInternal.h"

#include <mutex>
#include <new>
#include <shared_mutex>
#include <string_view>
#include <unordered_map>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the string hash reads units as little-endian words");

namespace {

using rt::Str;

void _stringFinalize(RtTypeRef obj);
bool _stringEqual(RtTypeRef a, RtTypeRef b);
RtHashCode _stringHash(RtTypeRef obj);
RtStringRef _stringCopyFormattingDesc(RtTypeRef obj, RtDictionaryRef);
RtStringRef _stringCopyDebugDesc(RtTypeRef obj);

const RtRuntimeClass sStringClass = {
    0,
    "RtString",
    nullptr,
    nullptr,
    _stringFinalize,
    _stringEqual,
    _stringHash,
    _stringCopyFormattingDesc,
    _stringCopyDebugDesc,
};
std::atomic<RtTypeID> gStringTypeID{kRtNotATypeID};

constexpr RtIndex kHeaderExtra = static_cast<RtIndex>(sizeof(__RtString) - sizeof(RtRuntimeBase));

inline Str *asStr(RtTypeRef obj) {
    return static_cast<Str *>(obj);
}

// A mutable string argument, or NULL when obj is not one (immutable strings are never changed).
inline __RtString *mutableArg(RtMutableStringRef s) {
    return (rt::isString(s) && rt::isMutable(s)) ? s : nullptr;
}

void _stringFinalize(RtTypeRef obj) {
    auto *s = const_cast<__RtString *>(asStr(obj));
    if (s->fFlags & rt::eStringNoCopy) {
        if (s->fContentsDeallocator != kRtAllocatorNull) std::free(s->fChars);
    } else if (rt::isMutable(s)) {
        std::free(s->fChars);
    }
}

// Units of two strings compared for equality whatever their storage.
bool unitsEqual(Str *a, RtIndex ia, Str *b, RtIndex ib, RtIndex n) {
    if (!rt::isWide(a) && !rt::isWide(b))
        return std::memcmp(rt::chars8(a) + ia, rt::chars8(b) + ib, size_t(n)) == 0;
    if (rt::isWide(a) && rt::isWide(b))
        return std::memcmp(rt::chars16(a) + ia, rt::chars16(b) + ib, size_t(n) * sizeof(RtUniChar)) == 0;
    for (RtIndex i = 0; i < n; i++)
        if (rt::unitAt(a, ia + i) != rt::unitAt(b, ib + i)) return false;
    return true;
}

bool _stringEqual(RtTypeRef a, RtTypeRef b) {
    Str *sa = asStr(a), *sb = asStr(b);
    if (sa->fLength != sb->fLength) return false;
    return unitsEqual(sa, 0, sb, 0, sa->fLength);
}

// The hash reads the units four at a time as one 64-bit word, so 8-bit and 16-bit storage of
// the same text give the same words and the same hash.
inline uint64_t spread4(const uint8_t *p) {
    uint32_t x;
    std::memcpy(&x, p, 4);
    uint64_t v = x;
    v = (v | (v << 16)) & 0x0000FFFF0000FFFFull;
    v = (v | (v << 8)) & 0x00FF00FF00FF00FFull;
    return v;
}

inline uint64_t mix(uint64_t h, uint64_t w) {
    h = (h ^ w) * 0x9E3779B97F4A7C15ull;
    return h ^ (h >> 29);
}

uint32_t hashUnits(Str *s) {
    RtIndex n = s->fLength, i = 0;
    uint64_t h = 0x243F6A8885A308D3ull;
    if (rt::isWide(s)) {
        const RtUniChar *p = rt::chars16(s);
        for (; i + 4 <= n; i += 4) {
            uint64_t w;
            std::memcpy(&w, p + i, 8);
            h = mix(h, w);
        }
        for (; i < n; i++)
            h = mix(h, p[i]);
    } else {
        const uint8_t *p = rt::chars8(s);
        for (; i + 4 <= n; i += 4)
            h = mix(h, spread4(p + i));
        for (; i < n; i++)
            h = mix(h, p[i]);
    }
    h = mix(h, static_cast<uint64_t>(n));
    uint32_t folded = static_cast<uint32_t>(h ^ (h >> 32));
    return folded ? folded : 1; // 0 marks "not computed yet" in the cache
}

RtHashCode _stringHash(RtTypeRef obj) {
    Str *s = asStr(obj);
    if (rt::isMutable(s)) return hashUnits(s);
    uint32_t cached = __atomic_load_n(&s->fHash, __ATOMIC_RELAXED);
    if (cached) return cached;
    cached = hashUnits(s);
    __atomic_store_n(&const_cast<__RtString *>(s)->fHash, cached, __ATOMIC_RELAXED);
    return cached;
}

RtStringRef _stringCopyFormattingDesc(RtTypeRef obj, RtDictionaryRef) {
    return RtStringCreateCopy(nullptr, asStr(obj));
}

// The debug form is the text in double quotes, with quotes, backslashes and control
// characters escaped so that nested descriptions stay readable.
RtStringRef _stringCopyDebugDesc(RtTypeRef obj) {
    Str *s = asStr(obj);
    rt::StringBuilder b;
    b.appendUnit('"');
    for (RtIndex i = 0; i < s->fLength; i++) {
        RtUniChar c = rt::unitAt(s, i);
        switch (c) {
        case '"':
            b.appendASCII("\\\"", 2);
            break;
        case '\\':
            b.appendASCII("\\\\", 2);
            break;
        case '\n':
            b.appendASCII("\\n", 2);
            break;
        case '\r':
            b.appendASCII("\\r", 2);
            break;
        case '\t':
            b.appendASCII("\\t", 2);
            break;
        default:
            if (c < 0x20) {
                char esc[8];
                int len = std::snprintf(esc, sizeof esc, "\\u%04x", c);
                b.appendASCII(esc, size_t(len));
            } else {
                b.appendUnit(c);
            }
        }
    }
    b.appendUnit('"');
    return b.createString();
}

// Allocates an immutable string of n units; extra bytes precede the characters (the format
// cache slot of constants).
__RtString *allocImmutable(RtIndex n, bool wide, size_t slotBytes) {
    size_t charBytes = wide ? size_t(n) * sizeof(RtUniChar) : size_t(n) + 1;
    auto *s = static_cast<__RtString *>(const_cast<void *>(
        RtRuntimeCreateInstance(nullptr, rt::stringTypeID(), kHeaderExtra + RtIndex(slotBytes + charBytes))));
    if (!s) return nullptr;
    s->fLength = n;
    s->fChars = reinterpret_cast<uint8_t *>(s + 1) + slotBytes;
    if (wide) s->fFlags |= rt::eStringWide;
    return s;
}

// ---- The constant table ------------------------------------------------------------------

// Maps the UTF-8 text of every constant to the constant. Keys view the constant's own bytes
// (ASCII constants) or a copy made for the key; both live for the process.
struct ConstantTable {
    std::shared_mutex fLock;
    std::unordered_map<std::string_view, RtStringRef> fByText;
};

ConstantTable &constantTable() {
    static ConstantTable *sTable = new ConstantTable; // never destroyed: constants outlive everything
    return *sTable;
}

RtStringRef lookupConstant(std::string_view text) {
    ConstantTable &t = constantTable();
    std::shared_lock<std::shared_mutex> guard(t.fLock);
    auto it = t.fByText.find(text);
    return it == t.fByText.end() ? nullptr : it->second;
}

} // namespace

namespace rt {

RtTypeID stringTypeID() {
    RtTypeID id = gStringTypeID.load(std::memory_order_acquire);
    return id != kRtNotATypeID ? id : registerOnce(gStringTypeID, &sStringClass);
}

bool bytesAreASCII(const uint8_t *p, size_t n) {
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t w;
        std::memcpy(&w, p + i, 8);
        uint64_t hasZero = (w - 0x0101010101010101ull) & ~w & 0x8080808080808080ull;
        if ((w & 0x8080808080808080ull) | hasZero) return false;
    }
    for (; i < n; i++)
        if (p[i] == 0 || p[i] >= 0x80) return false;
    return true;
}

bool unitsAreLatin1(const RtUniChar *p, size_t n) {
    RtUniChar acc = 0;
    for (size_t i = 0; i < n; i++)
        acc |= p[i];
    return acc <= 0xFF;
}

RtStringRef createString8(const uint8_t *chars, RtIndex n) {
    if (n < 0) return nullptr;
    __RtString *s = allocImmutable(n, false, 0);
    if (!s) return nullptr;
    uint8_t *d = static_cast<uint8_t *>(s->fChars);
    if (n) std::memcpy(d, chars, size_t(n));
    d[n] = 0;
    if (bytesAreASCII(d, size_t(n))) s->fFlags |= eStringASCII;
    return s;
}

RtStringRef createString16(const RtUniChar *chars, RtIndex n) {
    if (n < 0) return nullptr;
    if (unitsAreLatin1(chars, size_t(n))) {
        __RtString *s = allocImmutable(n, false, 0);
        if (!s) return nullptr;
        uint8_t *d = static_cast<uint8_t *>(s->fChars);
        for (RtIndex i = 0; i < n; i++)
            d[i] = static_cast<uint8_t>(chars[i]);
        d[n] = 0;
        if (bytesAreASCII(d, size_t(n))) s->fFlags |= eStringASCII;
        return s;
    }
    __RtString *s = allocImmutable(n, true, 0);
    if (!s) return nullptr;
    std::memcpy(s->fChars, chars, size_t(n) * sizeof(RtUniChar));
    return s;
}

void copyUnits(Str *s, RtIndex from, RtIndex n, RtUniChar *out) {
    if (isWide(s)) {
        std::memcpy(out, chars16(s) + from, size_t(n) * sizeof(RtUniChar));
    } else {
        const uint8_t *p = chars8(s) + from;
        for (RtIndex i = 0; i < n; i++)
            out[i] = p[i];
    }
}

void appendUTF8Text(Str *s, std::string &out) {
    if (isASCII(s)) {
        out.append(reinterpret_cast<const char *>(chars8(s)), size_t(s->fLength));
        return;
    }
    for (RtIndex i = 0; i < s->fLength; i++) {
        uint32_t c = unitAt(s, i);
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < s->fLength) {
            uint32_t d = unitAt(s, i + 1);
            if (d >= 0xDC00 && d <= 0xDFFF) {
                c = 0x10000 + ((c - 0xD800) << 10) + (d - 0xDC00);
                i++;
            }
        }
        if (c >= 0xD800 && c <= 0xDFFF) c = 0xFFFD;
        if (c < 0x80) {
            out += char(c);
        } else if (c < 0x800) {
            out += char(0xC0 | (c >> 6));
            out += char(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += char(0xE0 | (c >> 12));
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        } else {
            out += char(0xF0 | (c >> 18));
            out += char(0x80 | ((c >> 12) & 0x3F));
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        }
    }
}

// ---- Mutable storage ----------------------------------------------------------------------

// Makes room for newLen units of the given width (widening 8-bit contents when asked).
static bool ensureStorage(__RtString *s, RtIndex newLen, bool wide) {
    bool isW = isWide(s);
    if (wide && !isW) {
        RtIndex cap = newLen > s->fCapacity ? newLen : s->fCapacity;
        auto *buf =
            static_cast<RtUniChar *>(std::malloc(size_t(cap) * sizeof(RtUniChar) + sizeof(RtUniChar)));
        if (!buf) return false;
        const uint8_t *old = chars8(s);
        for (RtIndex i = 0; i < s->fLength; i++)
            buf[i] = old[i];
        std::free(s->fChars);
        s->fChars = buf;
        s->fCapacity = cap;
        s->fFlags = (s->fFlags | eStringWide) & ~eStringASCII;
        return true;
    }
    if (newLen <= s->fCapacity && s->fChars) return true;
    RtIndex cap = s->fCapacity < 16 ? 16 : s->fCapacity;
    while (cap < newLen)
        cap += cap / 2 + 1;
    size_t unit = isW ? sizeof(RtUniChar) : 1;
    void *buf = std::realloc(s->fChars, size_t(cap) * unit + unit);
    if (!buf) return false;
    s->fChars = buf;
    s->fCapacity = cap;
    return true;
}

bool replaceUnits8(__RtString *s, RtRange range, const uint8_t *src, RtIndex n) {
    RtIndex newLen = s->fLength - range.length + n;
    if (!ensureStorage(s, newLen, false)) return false;
    RtIndex tail = s->fLength - range.location - range.length;
    if (isWide(s)) {
        RtUniChar *d = static_cast<RtUniChar *>(s->fChars);
        std::memmove(d + range.location + n, d + range.location + range.length,
                     size_t(tail) * sizeof(RtUniChar));
        for (RtIndex i = 0; i < n; i++)
            d[range.location + i] = src[i];
    } else {
        uint8_t *d = static_cast<uint8_t *>(s->fChars);
        std::memmove(d + range.location + n, d + range.location + range.length, size_t(tail));
        if (n) std::memcpy(d + range.location, src, size_t(n));
        d[newLen] = 0;
        if (isASCII(s) && !bytesAreASCII(src, size_t(n))) s->fFlags &= ~eStringASCII;
    }
    s->fLength = newLen;
    return true;
}

bool replaceUnits16(__RtString *s, RtRange range, const RtUniChar *src, RtIndex n) {
    RtIndex newLen = s->fLength - range.length + n;
    bool needWide = !isWide(s) && !unitsAreLatin1(src, size_t(n));
    if (!ensureStorage(s, newLen, needWide || isWide(s))) return false;
    RtIndex tail = s->fLength - range.location - range.length;
    if (isWide(s)) {
        RtUniChar *d = static_cast<RtUniChar *>(s->fChars);
        std::memmove(d + range.location + n, d + range.location + range.length,
                     size_t(tail) * sizeof(RtUniChar));
        std::memcpy(d + range.location, src, size_t(n) * sizeof(RtUniChar));
    } else {
        uint8_t *d = static_cast<uint8_t *>(s->fChars);
        std::memmove(d + range.location + n, d + range.location + range.length, size_t(tail));
        bool ascii = true;
        for (RtIndex i = 0; i < n; i++) {
            d[range.location + i] = static_cast<uint8_t>(src[i]);
            ascii = ascii && src[i] && src[i] < 0x80;
        }
        d[newLen] = 0;
        if (!ascii) s->fFlags &= ~eStringASCII;
    }
    s->fLength = newLen;
    return true;
}

bool replaceWithString(__RtString *s, RtRange range, Str *src, RtIndex from, RtIndex n) {
    if (src == s) { // the source moves while we write: work from a copy
        RtStringRef copy = RtStringCreateWithSubstring(nullptr, src, RtRangeMake(from, n));
        if (!copy) return false;
        bool ok = replaceWithString(s, range, copy, 0, n);
        RtRelease(copy);
        return ok;
    }
    return isWide(src) ? replaceUnits16(s, range, chars16(src) + from, n)
                       : replaceUnits8(s, range, chars8(src) + from, n);
}

void **formatCacheSlot(Str *s) {
    if (!(s->fFlags & eStringConstant)) return nullptr;
    return reinterpret_cast<void **>(const_cast<__RtString *>(s) + 1);
}

// ---- StringBuilder ------------------------------------------------------------------------

bool StringBuilder::grow(size_t extra) {
    if (fFailed) return false;
    size_t unit = fWide ? sizeof(RtUniChar) : 1;
    size_t cap = fCap * 2;
    while (cap < fLen + extra)
        cap *= 2;
    void *buf;
    if (fBuf == fInline) {
        buf = std::malloc(cap * unit + unit);
        if (buf) std::memcpy(buf, fBuf, fLen * unit);
    } else {
        buf = std::realloc(fBuf, cap * unit + unit);
    }
    if (!buf) {
        fFailed = true;
        return false;
    }
    fBuf = buf;
    fCap = cap;
    return true;
}

void StringBuilder::widen() {
    size_t cap = fCap < fLen + 16 ? fLen + 16 : fCap;
    auto *buf = static_cast<RtUniChar *>(std::malloc(cap * sizeof(RtUniChar) + sizeof(RtUniChar)));
    if (!buf) {
        fFailed = true;
        return;
    }
    const uint8_t *old = static_cast<const uint8_t *>(fBuf);
    for (size_t i = 0; i < fLen; i++)
        buf[i] = old[i];
    if (fBuf != fInline) std::free(fBuf);
    fBuf = buf;
    fCap = cap;
    fWide = true;
}

void StringBuilder::appendUnits(const RtUniChar *p, size_t n) {
    if (!fWide && !unitsAreLatin1(p, n)) widen();
    if (fFailed || !reserve(n)) return;
    if (fWide) {
        std::memcpy(static_cast<RtUniChar *>(fBuf) + fLen, p, n * sizeof(RtUniChar));
    } else {
        uint8_t *d = static_cast<uint8_t *>(fBuf) + fLen;
        for (size_t i = 0; i < n; i++)
            d[i] = static_cast<uint8_t>(p[i]);
    }
    fLen += n;
}

bool StringBuilder::appendUTF8(const char *p, size_t n) {
    const uint8_t *b = reinterpret_cast<const uint8_t *>(p);
    size_t i = 0;
    while (i < n && b[i] < 0x80)
        i++;
    appendLatin1(b, i);
    if (i == n) return true;
    size_t mark = fLen;
    // UTF-16 never takes more units than UTF-8 takes bytes: room for the rest is made once, and
    // widening keeps it (its capacity is counted in units), so each character is a plain store.
    if (!reserve(n - i)) return false;
    auto put = [this](uint32_t unit) {
        if (fWide)
            static_cast<RtUniChar *>(fBuf)[fLen++] = static_cast<RtUniChar>(unit);
        else
            static_cast<uint8_t *>(fBuf)[fLen++] = static_cast<uint8_t>(unit);
    };
    auto emit = [this, &put](uint32_t c) {
        if (c > 0xFF && !fWide) widen();
        if (fFailed) return;
        if (c < 0x10000) {
            put(c);
        } else {
            c -= 0x10000;
            put(0xD800 + (c >> 10));
            put(0xDC00 + (c & 0x3FF));
        }
    };
    // ASCII runs are copied in bulk; each other character is decoded (and checked) on its own,
    // its length read from its lead byte.
    bool ok = true;
    size_t j = i;
    while (ok && !fFailed && j < n) {
        size_t k = j;
        while (k < n && b[k] < 0x80)
            k++;
        if (fWide) {
            RtUniChar *d = static_cast<RtUniChar *>(fBuf) + fLen;
            for (size_t t = j; t < k; t++)
                *d++ = b[t];
        } else {
            std::memcpy(static_cast<uint8_t *>(fBuf) + fLen, b + j, k - j);
        }
        fLen += k - j;
        if (k == n) break;
        size_t length = b[k] >= 0xF0 ? 4 : b[k] >= 0xE0 ? 3 : 2;
        if (length > n - k) length = n - k;
        ok = forEachUTF8(b + k, length, emit);
        j = k + length;
    }
    if (fFailed) return false;
    if (!ok) fLen = mark - i;
    return ok;
}

RtStringRef StringBuilder::createString() const {
    if (fFailed) return nullptr;
    if (fWide) return createString16(units(), RtIndex(fLen));
    return createString8(bytes(), RtIndex(fLen));
}

void StringBuilder::appendTo(__RtString *s) const {
    if (fFailed) return;
    RtRange end = RtRangeMake(s->fLength, 0);
    if (fWide)
        replaceUnits16(s, end, units(), RtIndex(fLen));
    else
        replaceUnits8(s, end, bytes(), RtIndex(fLen));
}

} // namespace rt

// ---- Public API ---------------------------------------------------------------------------

RtTypeID RtStringGetTypeID(void) {
    return rt::stringTypeID();
}

RtStringRef __RtStringMakeConstantString(const char *cStr) {
    if (!cStr) return nullptr;
    std::string_view text(cStr);
    RtStringRef found = lookupConstant(text);
    if (found) return found;

    rt::StringBuilder b;
    if (!b.appendUTF8(cStr, text.size())) return nullptr;
    size_t n = b.length();
    __RtString *s = allocImmutable(RtIndex(n), b.wide(), sizeof(void *));
    if (!s) return nullptr;
    if (b.wide()) {
        std::memcpy(s->fChars, b.units(), n * sizeof(RtUniChar));
    } else {
        std::memcpy(s->fChars, b.bytes(), n);
        static_cast<uint8_t *>(s->fChars)[n] = 0;
        if (rt::bytesAreASCII(b.bytes(), n)) s->fFlags |= rt::eStringASCII;
    }
    s->fFlags |= rt::eStringConstant;

    std::string_view key;
    char *keyCopy = nullptr;
    if (rt::isASCII(s)) {
        key = std::string_view(reinterpret_cast<const char *>(s->fChars), n);
    } else {
        keyCopy = new char[text.size()]; // lives as long as the constant it names
        std::memcpy(keyCopy, text.data(), text.size());
        key = std::string_view(keyCopy, text.size());
    }
    ConstantTable &t = constantTable();
    {
        std::unique_lock<std::shared_mutex> guard(t.fLock);
        auto inserted = t.fByText.emplace(key, s);
        if (inserted.second) {
            RtRuntimeSetImmortal(s); // before any other thread can find it
            return s;
        }
        found = inserted.first->second;
    }
    // Another thread made the same constant first: ours was never seen, so it goes.
    delete[] keyCopy;
    RtRelease(s);
    return found;
}

RtStringRef RtStringGetRegisteredConstant(RtStringRef str) {
    if (!rt::isString(str)) return nullptr;
    if (str->fFlags & rt::eStringConstant) return str;
    if (rt::isASCII(str))
        return lookupConstant(
            std::string_view(reinterpret_cast<const char *>(str->fChars), size_t(str->fLength)));
    std::string text;
    rt::appendUTF8Text(str, text);
    return lookupConstant(text);
}

RtStringRef RtStringCreateWithCString(RtAllocatorRef alloc, const char *cStr, RtStringEncoding encoding) {
    if (!cStr) return nullptr;
    return RtStringCreateWithBytes(alloc, reinterpret_cast<const uint8_t *>(cStr), RtIndex(std::strlen(cStr)),
                                   encoding, false);
}

RtStringRef RtStringCreateWithCStringNoCopy(RtAllocatorRef alloc, const char *cStr, RtStringEncoding encoding,
                                            RtAllocatorRef contentsDeallocator) {
    if (!cStr) return nullptr;
    size_t n = std::strlen(cStr);
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(cStr);
    bool ascii = rt::bytesAreASCII(bytes, n);
    bool direct = encoding == kRtStringEncodingISOLatin1 || encoding == kRtStringEncodingDefault8Bit ||
                  ((encoding == kRtStringEncodingASCII || encoding == kRtStringEncodingUTF8 ||
                    encoding == kRtStringEncodingWindowsLatin1) &&
                   ascii);
    if (!direct) {
        RtStringRef s = RtStringCreateWithBytes(alloc, bytes, RtIndex(n), encoding, false);
        if (contentsDeallocator != kRtAllocatorNull) std::free(const_cast<char *>(cStr));
        return s;
    }
    auto *s = static_cast<__RtString *>(
        const_cast<void *>(RtRuntimeCreateInstance(alloc, rt::stringTypeID(), kHeaderExtra)));
    if (!s) return nullptr;
    s->fLength = RtIndex(n);
    s->fChars = const_cast<char *>(cStr);
    s->fContentsDeallocator = contentsDeallocator;
    s->fFlags = rt::eStringNoCopy | (ascii ? uint32_t(rt::eStringASCII) : 0u);
    return s;
}

RtStringRef RtStringCreateWithCharacters(RtAllocatorRef, const RtUniChar *chars, RtIndex numChars) {
    if (numChars < 0 || (!chars && numChars > 0)) return nullptr;
    return rt::createString16(chars, numChars);
}

RtStringRef RtStringCreateCopy(RtAllocatorRef, RtStringRef str) {
    if (!rt::isString(str)) return nullptr;
    if (!rt::isMutable(str)) return static_cast<RtStringRef>(RtRetain(str));
    return rt::isWide(str) ? rt::createString16(rt::chars16(str), str->fLength)
                           : rt::createString8(rt::chars8(str), str->fLength);
}

RtStringRef RtStringCreateWithSubstring(RtAllocatorRef alloc, RtStringRef str, RtRange range) {
    if (!rt::isString(str) || !rt::rangeValid(range, str->fLength)) return nullptr;
    if (range.location == 0 && range.length == str->fLength && !rt::isMutable(str))
        return RtStringCreateCopy(alloc, str);
    return rt::isWide(str) ? rt::createString16(rt::chars16(str) + range.location, range.length)
                           : rt::createString8(rt::chars8(str) + range.location, range.length);
}

RtMutableStringRef RtStringCreateMutable(RtAllocatorRef alloc, RtIndex maxLength) {
    if (maxLength < 0) return nullptr;
    auto *s = static_cast<__RtString *>(
        const_cast<void *>(RtRuntimeCreateInstance(alloc, rt::stringTypeID(), kHeaderExtra)));
    if (!s) return nullptr;
    s->fFlags = rt::eStringMutable | rt::eStringASCII;
    if (!rt::ensureStorage(s, 16, false)) {
        RtRelease(s);
        return nullptr;
    }
    static_cast<uint8_t *>(s->fChars)[0] = 0;
    return s;
}

RtMutableStringRef RtStringCreateMutableCopy(RtAllocatorRef alloc, RtIndex maxLength, RtStringRef str) {
    if (!rt::isString(str)) return nullptr;
    RtMutableStringRef m = RtStringCreateMutable(alloc, maxLength);
    if (m && !rt::replaceWithString(m, RtRangeMake(0, 0), str, 0, str->fLength)) {
        RtRelease(m);
        return nullptr;
    }
    if (m && rt::isASCII(str)) m->fFlags |= rt::eStringASCII;
    return m;
}

void RtStringAppend(RtMutableStringRef str, RtStringRef appended) {
    __RtString *s = mutableArg(str);
    if (!s || !rt::isString(appended)) return;
    rt::replaceWithString(s, RtRangeMake(s->fLength, 0), appended, 0, appended->fLength);
}

void RtStringAppendCharacters(RtMutableStringRef str, const RtUniChar *chars, RtIndex numChars) {
    __RtString *s = mutableArg(str);
    if (!s || !chars || numChars <= 0) return;
    rt::replaceUnits16(s, RtRangeMake(s->fLength, 0), chars, numChars);
}

void RtStringAppendCString(RtMutableStringRef str, const char *cStr, RtStringEncoding encoding) {
    __RtString *s = mutableArg(str);
    if (!s || !cStr) return;
    size_t n = std::strlen(cStr);
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(cStr);
    if ((encoding == kRtStringEncodingUTF8 || encoding == kRtStringEncodingASCII ||
         encoding == kRtStringEncodingISOLatin1 || encoding == kRtStringEncodingDefault8Bit) &&
        rt::bytesAreASCII(bytes, n)) {
        rt::replaceUnits8(s, RtRangeMake(s->fLength, 0), bytes, RtIndex(n));
        return;
    }
    RtStringRef converted = RtStringCreateWithBytes(nullptr, bytes, RtIndex(n), encoding, false);
    if (converted) RtStringAppend(s, converted);
    RtRelease(converted);
}

void RtStringInsert(RtMutableStringRef str, RtIndex idx, RtStringRef inserted) {
    __RtString *s = mutableArg(str);
    if (!s || !rt::isString(inserted) || idx < 0 || idx > s->fLength) return;
    rt::replaceWithString(s, RtRangeMake(idx, 0), inserted, 0, inserted->fLength);
}

void RtStringDelete(RtMutableStringRef str, RtRange range) {
    __RtString *s = mutableArg(str);
    if (!s || !rt::rangeValid(range, s->fLength)) return;
    rt::replaceUnits8(s, range, nullptr, 0);
}

void RtStringReplace(RtMutableStringRef str, RtRange range, RtStringRef replacement) {
    __RtString *s = mutableArg(str);
    if (!s || !rt::rangeValid(range, s->fLength)) return;
    if (!replacement) {
        rt::replaceUnits8(s, range, nullptr, 0);
        return;
    }
    if (!rt::isString(replacement)) return;
    rt::replaceWithString(s, range, replacement, 0, replacement->fLength);
}

void RtStringReplaceAll(RtMutableStringRef str, RtStringRef replacement) {
    __RtString *s = mutableArg(str);
    if (!s) return;
    RtStringReplace(s, RtRangeMake(0, s->fLength), replacement);
    if (s->fLength == 0 && !rt::isWide(s)) s->fFlags |= rt::eStringASCII;
}

RtIndex RtStringGetLength(RtStringRef str) {
    return rt::isString(str) ? str->fLength : 0;
}

RtUniChar RtStringGetCharacterAtIndex(RtStringRef str, RtIndex idx) {
    if (!rt::isString(str) || idx < 0 || idx >= str->fLength) return 0;
    return rt::unitAt(str, idx);
}

void RtStringGetCharacters(RtStringRef str, RtRange range, RtUniChar *buffer) {
    if (!rt::isString(str) || !buffer || !rt::rangeValid(range, str->fLength)) return;
    rt::copyUnits(str, range.location, range.length, buffer);
}

const char *RtStringGetCStringPtr(RtStringRef str, RtStringEncoding encoding) {
    if (!rt::isString(str) || rt::isWide(str)) return nullptr;
    switch (encoding) {
    case kRtStringEncodingUTF8:
    case kRtStringEncodingASCII:
    case kRtStringEncodingWindowsLatin1:
        return rt::isASCII(str) ? static_cast<const char *>(str->fChars) : nullptr;
    case kRtStringEncodingISOLatin1:
    case kRtStringEncodingDefault8Bit:
        // Latin-1 storage is the text in this encoding, unless a NUL inside would cut it short.
        if (rt::isASCII(str) || !std::memchr(str->fChars, 0, size_t(str->fLength)))
            return static_cast<const char *>(str->fChars);
        return nullptr;
    default:
        return nullptr;
    }
}
