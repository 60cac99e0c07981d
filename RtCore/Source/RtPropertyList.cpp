// RtPropertyList: XML property lists written from and read into runtime values.
// The writer walks a value tree into one std::string and hands it over as data. The reader
// runs expat directly and keeps a stack of open elements; each finished element becomes a value
// appended to its parent's list. Documents are untrusted: entity declarations, skipped
// entities and nesting beyond kMaxDepth stop the reader with an error, and no DTD is loaded.
// Stateless between calls; any thread.
#include "RtRuntime.h"
#include "RtValues.h"

#include <expat.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Deeper documents are refused so that neither reader nor writer can exhaust the stack.
constexpr size_t kMaxDepth = 512;

// ---- Base64 -------------------------------------------------------------------------------

const char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64Value(unsigned char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

bool isXMLSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

} // namespace

namespace rt {

void appendBase64(std::string &out, const uint8_t *bytes, size_t n, size_t lineLength,
                  const char *linePrefix) {
    size_t column = 0;
    auto put = [&](char c) {
        if (lineLength && column == lineLength) {
            out.push_back('\n');
            out.append(linePrefix);
            column = 0;
        }
        out.push_back(c);
        column++;
    };
    size_t i = 0;
    for (; i + 3 <= n; i += 3) {
        uint32_t v = uint32_t(bytes[i]) << 16 | uint32_t(bytes[i + 1]) << 8 | bytes[i + 2];
        put(kBase64Alphabet[v >> 18]);
        put(kBase64Alphabet[(v >> 12) & 63]);
        put(kBase64Alphabet[(v >> 6) & 63]);
        put(kBase64Alphabet[v & 63]);
    }
    if (i < n) {
        uint32_t v = uint32_t(bytes[i]) << 16 | (i + 1 < n ? uint32_t(bytes[i + 1]) << 8 : 0);
        put(kBase64Alphabet[v >> 18]);
        put(kBase64Alphabet[(v >> 12) & 63]);
        put(i + 1 < n ? kBase64Alphabet[(v >> 6) & 63] : '=');
        put('=');
    }
}

bool decodeBase64(const char *text, size_t n, std::string &out) {
    uint32_t acc = 0;
    int bits = 0, padding = 0;
    for (size_t i = 0; i < n; i++) {
        auto c = static_cast<unsigned char>(text[i]);
        if (isXMLSpace(char(c))) continue;
        if (c == '=') {
            padding++;
            continue;
        }
        int v = base64Value(c);
        if (v < 0 || padding) return false; // padding only at the end
        acc = (acc << 6) | uint32_t(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(char((acc >> bits) & 0xFF));
        }
    }
    // A single leftover character (6 bits) cannot encode a byte.
    return bits < 6 && padding <= 2;
}

} // namespace rt

namespace {

// ---- Writer -------------------------------------------------------------------------------

// Appends the UTF-8 text of s with the XML markup characters escaped; false when s holds a
// character XML cannot carry (control characters, unpaired surrogates).
bool appendEscaped(std::string &out, RtStringRef s) {
    RtIndex len = RtStringGetLength(s);
    std::string utf8;
    const char *p = RtStringGetCStringPtr(s, kRtStringEncodingUTF8);
    if (!p) {
        RtIndex used = 0;
        if (RtStringGetBytes(s, RtRangeMake(0, len), kRtStringEncodingUTF8, 0, false, nullptr, 0, &used) !=
            len)
            return false;
        utf8.resize(size_t(used));
        RtStringGetBytes(s, RtRangeMake(0, len), kRtStringEncodingUTF8, 0, false,
                         reinterpret_cast<uint8_t *>(&utf8[0]), used, &used);
        p = utf8.data();
        len = used;
    }
    for (RtIndex i = 0; i < len; i++) {
        char c = p[i];
        switch (c) {
        case '&':
            out.append("&amp;");
            break;
        case '<':
            out.append("&lt;");
            break;
        case '>':
            out.append("&gt;");
            break;
        case '\r':
            out.append("&#13;");
            break; // a raw CR would read back as LF
        case '\t':
        case '\n':
            out.push_back(c);
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) return false;
            out.push_back(c);
        }
    }
    return true;
}

class Writer {
  public:
    bool write(RtTypeRef v, size_t depth);
    std::string fOut;

  private:
    void indent(size_t depth) { fOut.append(depth, '\t'); }
    bool writeArray(RtArrayRef a, size_t depth);
    bool writeDictionary(RtDictionaryRef d, size_t depth);
};

bool Writer::write(RtTypeRef v, size_t depth) {
    if (!v || depth > kMaxDepth) return false;
    RtTypeID id = RtGetTypeID(v);
    indent(depth);
    if (id == RtStringGetTypeID()) {
        fOut.append("<string>");
        if (!appendEscaped(fOut, static_cast<RtStringRef>(v))) return false;
        fOut.append("</string>\n");
    } else if (id == RtNumberGetTypeID()) {
        char buf[40];
        // Reals are written as doubles so that a float reads back as the very same value.
        size_t n = rt::formatNumber(static_cast<RtNumberRef>(v), buf, sizeof buf, true);
        bool real = RtNumberIsFloatType(static_cast<RtNumberRef>(v));
        fOut.append(real ? "<real>" : "<integer>").append(buf, n).append(real ? "</real>\n" : "</integer>\n");
    } else if (id == RtBooleanGetTypeID()) {
        fOut.append(v == kRtBooleanTrue ? "<true/>\n" : "<false/>\n");
    } else if (id == RtDateGetTypeID()) {
        char buf[48];
        size_t n = rt::formatISO8601(RtDateGetAbsoluteTime(static_cast<RtDateRef>(v)), buf, sizeof buf, true);
        if (!n) return false;
        fOut.append("<date>").append(buf, n).append("</date>\n");
    } else if (id == RtDataGetTypeID()) {
        auto data = static_cast<RtDataRef>(v);
        if (RtDataGetLength(data) == 0) {
            fOut.append("<data></data>\n");
        } else {
            std::string prefix(depth, '\t');
            fOut.append("<data>\n").append(prefix);
            rt::appendBase64(fOut, RtDataGetBytePtr(data), size_t(RtDataGetLength(data)), 68, prefix.c_str());
            fOut.append("\n").append(prefix).append("</data>\n");
        }
    } else if (id == RtArrayGetTypeID()) {
        return writeArray(static_cast<RtArrayRef>(v), depth);
    } else if (id == RtDictionaryGetTypeID()) {
        return writeDictionary(static_cast<RtDictionaryRef>(v), depth);
    } else {
        return false;
    }
    return true;
}

bool Writer::writeArray(RtArrayRef a, size_t depth) {
    RtIndex n = RtArrayGetCount(a);
    if (n == 0) {
        fOut.append("<array/>\n");
        return true;
    }
    fOut.append("<array>\n");
    for (RtIndex i = 0; i < n; i++)
        if (!write(RtArrayGetValueAtIndex(a, i), depth + 1)) return false;
    indent(depth);
    fOut.append("</array>\n");
    return true;
}

bool Writer::writeDictionary(RtDictionaryRef d, size_t depth) {
    RtIndex n = RtDictionaryGetCount(d);
    if (n == 0) {
        fOut.append("<dict/>\n");
        return true;
    }
    std::vector<const void *> keys(size_t(n) * 2);
    RtDictionaryGetKeysAndValues(d, keys.data(), keys.data() + n);
    fOut.append("<dict>\n");
    for (RtIndex i = 0; i < n; i++) {
        auto key = static_cast<RtTypeRef>(keys[size_t(i)]);
        if (RtGetTypeID(key) != RtStringGetTypeID()) return false;
        indent(depth + 1);
        fOut.append("<key>");
        if (!appendEscaped(fOut, static_cast<RtStringRef>(key))) return false;
        fOut.append("</key>\n");
        if (!write(static_cast<RtTypeRef>(keys[size_t(n + i)]), depth + 1)) return false;
    }
    indent(depth);
    fOut.append("</dict>\n");
    return true;
}

// ---- Reader -------------------------------------------------------------------------------

enum Kind { ePlist, eArray, eDict, eKey, eString, eInteger, eReal, eDate, eData, eTrue, eFalse };

//                             element     kind
const struct {
    const char *name;
    Kind kind;
} kElements[] = {
    {"plist", ePlist},   {"array", eArray},     {"dict", eDict},   {"key", eKey},
    {"string", eString}, {"integer", eInteger}, {"real", eReal},   {"date", eDate},
    {"data", eData},     {"true", eTrue},       {"false", eFalse},
};

bool isContainer(Kind k) {
    return k == ePlist || k == eArray || k == eDict;
}

struct Frame {
    Kind kind;
    std::vector<RtTypeRef> items; // values made so far; a dict's alternate key, value
};

// Trims XML white space from both ends.
void trim(const char *&p, const char *&end) {
    while (p < end && isXMLSpace(*p))
        p++;
    while (end > p && isXMLSpace(end[-1]))
        end--;
}

bool equalsNoCase(const char *p, const char *end, const char *word) {
    size_t n = std::strlen(word);
    if (size_t(end - p) != n) return false;
    for (size_t i = 0; i < n; i++)
        if ((p[i] | 0x20) != word[i]) return false;
    return true;
}

bool parseInteger(const std::string &text, int64_t *out) {
    const char *p = text.data(), *end = p + text.size();
    trim(p, end);
    bool negative = p < end && *p == '-';
    if (p < end && (*p == '+' || *p == '-')) p++;
    int base = 10;
    if (end - p > 2 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        base = 16;
        p += 2;
    }
    uint64_t magnitude;
    auto r = std::from_chars(p, end, magnitude, base);
    if (r.ec != std::errc() || r.ptr != end || p == end) return false;
    if (negative) {
        if (magnitude > uint64_t(1) << 63) return false;
        *out = magnitude == uint64_t(1) << 63 ? INT64_MIN : -int64_t(magnitude);
    } else {
        if (magnitude > uint64_t(INT64_MAX)) return false;
        *out = int64_t(magnitude);
    }
    return true;
}

bool parseReal(const std::string &text, double *out) {
    const char *p = text.data(), *end = p + text.size();
    trim(p, end);
    if (equalsNoCase(p, end, "nan")) return *out = std::nan(""), true;
    bool negative = p < end && *p == '-';
    const char *q = p < end && (*p == '+' || *p == '-') ? p + 1 : p;
    if (equalsNoCase(q, end, "inf") || equalsNoCase(q, end, "infinity"))
        return *out = negative ? -HUGE_VAL : HUGE_VAL, true;
    // from_chars takes no '+'; it reads the digits in the C locale whatever the process's.
    if (p < end && *p == '+') p++;
    auto r = std::from_chars(p, end, *out);
    return r.ec == std::errc() && r.ptr == end && p != end;
}

// Reads n digits at p into *out.
bool digits(const char *&p, const char *end, int n, int32_t *out) {
    int32_t v = 0;
    for (int i = 0; i < n; i++, p++) {
        if (p >= end || *p < '0' || *p > '9') return false;
        v = v * 10 + (*p - '0');
    }
    *out = v;
    return true;
}

// "YYYY-MM-DDTHH:MM:SS[.fff]Z" in GMT.
bool parseDate(const std::string &text, RtAbsoluteTime *out) {
    const char *p = text.data(), *end = p + text.size();
    trim(p, end);
    RtGregorianDate g;
    int32_t sec;
    auto expect = [&](char c) { return p < end && *p++ == c; };
    if (!digits(p, end, 4, &g.year) || !expect('-') || !digits(p, end, 2, &g.month) || !expect('-') ||
        !digits(p, end, 2, &g.day) || !expect('T') || !digits(p, end, 2, &g.hour) || !expect(':') ||
        !digits(p, end, 2, &g.minute) || !expect(':') || !digits(p, end, 2, &sec))
        return false;
    g.second = sec;
    if (p < end && *p == '.') {
        const char *start = p;
        p++;
        while (p < end && *p >= '0' && *p <= '9')
            p++;
        double frac;
        if (p == start + 1 || std::from_chars(start, p, frac).ec != std::errc()) return false;
        g.second += frac;
    }
    if (!expect('Z') || p != end || !RtGregorianDateIsValid(g)) return false;
    *out = RtGregorianDateGetAbsoluteTime(g);
    return true;
}

class Reader {
  public:
    Reader(RtAllocatorRef alloc, RtOptionFlags mutability) : fAlloc(alloc), fMutability(mutability) {}
    ~Reader();
    RtTypeRef read(RtDataRef data, std::string &error);

  private:
    static void _startElement(void *self, const XML_Char *name, const XML_Char **attrs);
    static void _endElement(void *self, const XML_Char *name);
    static void _characterData(void *self, const XML_Char *s, int len);
    static void _entityDecl(void *self, const XML_Char *, int, const XML_Char *, int, const XML_Char *,
                            const XML_Char *, const XML_Char *, const XML_Char *);
    static void _skippedEntity(void *self, const XML_Char *, int);

    void fail(const std::string &message);
    void start(const char *name);
    void end();
    RtTypeRef makeLeaf(Kind kind);
    RtTypeRef makeString(bool isKey);
    RtTypeRef makeContainer(Frame &frame);

    RtAllocatorRef fAlloc;
    RtOptionFlags fMutability;
    XML_Parser fParser = nullptr;
    std::vector<Frame> fStack;
    std::string fText; // the open leaf's character data
    RtTypeRef fResult = nullptr;
    std::string fError;
};

Reader::~Reader() {
    for (Frame &f : fStack)
        for (RtTypeRef v : f.items)
            RtRelease(v);
    RtRelease(fResult);
    if (fParser) XML_ParserFree(fParser);
}

void Reader::fail(const std::string &message) {
    if (!fError.empty()) return;
    char line[48];
    std::snprintf(line, sizeof line, " on line %lu",
                  static_cast<unsigned long>(XML_GetCurrentLineNumber(fParser)));
    fError = message + line;
    XML_StopParser(fParser, XML_FALSE);
}

// At most 40 bytes of text for an error message, cut at a character boundary.
std::string quoted(const std::string &text) {
    if (text.size() <= 40) return "\"" + text + "\"";
    size_t n = 40;
    while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80)
        n--;
    return "\"" + text.substr(0, n) + "...\"";
}

const char *kindName(Kind k) {
    for (const auto &e : kElements)
        if (e.kind == k) return e.name;
    return "?";
}

void Reader::start(const char *name) {
    if (!fError.empty()) return;
    Kind kind = ePlist;
    bool known = false;
    for (const auto &e : kElements)
        if (std::strcmp(e.name, name) == 0) kind = e.kind, known = true;
    if (!known) return fail(std::string("Encountered unknown element <") + name + ">");
    if (fStack.size() >= kMaxDepth) return fail("Property list nested too deeply");
    if (fResult) return fail(std::string("Encountered <") + name + "> after the end of the property list");
    if (!fStack.empty()) {
        Frame &parent = fStack.back();
        if (!isContainer(parent.kind))
            return fail(std::string("Encountered <") + name + "> inside <" + kindName(parent.kind) + ">");
        if (kind == ePlist) return fail("Encountered a nested <plist>");
        if (parent.kind == ePlist && !parent.items.empty())
            return fail("Encountered a second value in <plist>");
        bool wantKey = parent.kind == eDict && parent.items.size() % 2 == 0;
        if (wantKey && kind != eKey)
            return fail(std::string("Expected <key> in <dict>, found <") + name + ">");
        if (!wantKey && kind == eKey)
            return fail(parent.kind == eDict ? "Found <key> where a value was expected"
                                             : "Encountered <key> outside <dict>");
    } else if (kind == eKey) {
        return fail("Encountered <key> outside <dict>");
    }
    fStack.push_back(Frame{kind, {}});
    fText.clear();
}

void Reader::end() {
    Frame frame = std::move(fStack.back());
    fStack.pop_back();
    RtTypeRef value = isContainer(frame.kind) ? makeContainer(frame) : makeLeaf(frame.kind);
    if (!value) {
        for (RtTypeRef v : frame.items)
            RtRelease(v);
        return;
    }
    if (fStack.empty())
        fResult = value;
    else
        fStack.back().items.push_back(value);
}

RtTypeRef Reader::makeString(bool isKey) {
    auto bytes = reinterpret_cast<const uint8_t *>(fText.data());
    auto n = static_cast<RtIndex>(fText.size());
    if (!isKey && fMutability == kRtPropertyListMutableContainersAndLeaves) {
        RtMutableStringRef m = RtStringCreateMutable(fAlloc, 0);
        if (m) RtStringAppendCString(m, fText.c_str(), kRtStringEncodingUTF8);
        return m;
    }
    RtStringRef s = RtStringCreateWithBytes(fAlloc, bytes, n, kRtStringEncodingUTF8, false);
    if (!s) return nullptr;
    // Text of a registered constant comes back as the constant itself, so identity survives.
    if (RtStringRef constant = RtStringGetRegisteredConstant(s)) {
        RtRelease(s);
        return constant;
    }
    return s;
}

RtTypeRef Reader::makeLeaf(Kind kind) {
    RtTypeRef v = nullptr;
    switch (kind) {
    case eKey:
    case eString:
        v = makeString(kind == eKey);
        if (!v) fail("Could not make a string");
        return v;
    case eInteger: {
        int64_t i;
        if (!parseInteger(fText, &i)) return fail("Malformed <integer> " + quoted(fText)), nullptr;
        if (i >= INT32_MIN && i <= INT32_MAX) {
            auto i32 = int32_t(i);
            return RtNumberCreate(fAlloc, kRtNumberSInt32Type, &i32);
        }
        return RtNumberCreate(fAlloc, kRtNumberSInt64Type, &i);
    }
    case eReal: {
        double d;
        if (!parseReal(fText, &d)) return fail("Malformed <real> " + quoted(fText)), nullptr;
        return RtNumberCreate(fAlloc, kRtNumberFloat64Type, &d);
    }
    case eDate: {
        RtAbsoluteTime at;
        if (!parseDate(fText, &at)) return fail("Malformed <date> " + quoted(fText)), nullptr;
        return RtDateCreate(fAlloc, at);
    }
    case eData: {
        std::string bytes;
        if (!rt::decodeBase64(fText.data(), fText.size(), bytes))
            return fail("Malformed base64 in <data>"), nullptr;
        auto p = reinterpret_cast<const uint8_t *>(bytes.data());
        if (fMutability == kRtPropertyListMutableContainersAndLeaves) {
            RtMutableDataRef m = RtDataCreateMutable(fAlloc, 0);
            RtDataAppendBytes(m, p, RtIndex(bytes.size()));
            return m;
        }
        return RtDataCreate(fAlloc, p, RtIndex(bytes.size()));
    }
    case eTrue:
    case eFalse:
        for (char c : fText)
            if (!isXMLSpace(c))
                return fail(std::string("Encountered text inside <") + kindName(kind) + ">"), nullptr;
        return kind == eTrue ? static_cast<RtTypeRef>(kRtBooleanTrue)
                             : static_cast<RtTypeRef>(kRtBooleanFalse);
    default:
        return nullptr;
    }
}

RtTypeRef Reader::makeContainer(Frame &frame) {
    std::vector<RtTypeRef> &items = frame.items;
    RtTypeRef result = nullptr;
    bool mutableContainers = fMutability != kRtPropertyListImmutable;
    if (frame.kind == ePlist) {
        if (items.empty()) return fail("Found no value in <plist>"), nullptr;
        result = items[0];
        items.clear();
        return result;
    }
    auto n = static_cast<RtIndex>(items.size());
    if (frame.kind == eArray) {
        if (mutableContainers) {
            RtMutableArrayRef a = RtArrayCreateMutable(fAlloc, n, &kRtTypeArrayCallBacks);
            for (RtTypeRef v : items)
                RtArrayAppendValue(a, v);
            result = a;
        } else {
            result =
                RtArrayCreate(fAlloc, const_cast<const void **>(items.data()), n, &kRtTypeArrayCallBacks);
        }
    } else {
        if (n % 2) return fail("Found a <key> without a value"), nullptr;
        RtMutableDictionaryRef d = RtDictionaryCreateMutable(fAlloc, n / 2, &kRtTypeDictionaryKeyCallBacks,
                                                             &kRtTypeDictionaryValueCallBacks);
        for (RtIndex i = 0; i < n; i += 2)
            RtDictionarySetValue(d, items[size_t(i)], items[size_t(i + 1)]);
        result = d;
        if (!mutableContainers) {
            result = RtDictionaryCreateCopy(fAlloc, d);
            RtRelease(d);
        }
    }
    for (RtTypeRef v : items)
        RtRelease(v);
    items.clear();
    if (!result) fail("Out of memory");
    return result;
}

void Reader::_startElement(void *self, const XML_Char *name, const XML_Char **) {
    static_cast<Reader *>(self)->start(name);
}

void Reader::_endElement(void *self, const XML_Char *) {
    auto *r = static_cast<Reader *>(self);
    if (r->fError.empty()) r->end();
}

void Reader::_characterData(void *self, const XML_Char *s, int len) {
    auto *r = static_cast<Reader *>(self);
    if (!r->fError.empty() || r->fStack.empty()) return;
    Kind k = r->fStack.back().kind;
    if (!isContainer(k)) {
        r->fText.append(s, size_t(len));
        return;
    }
    for (int i = 0; i < len; i++)
        if (!isXMLSpace(s[i])) return r->fail(std::string("Encountered text inside <") + kindName(k) + ">");
}

void Reader::_entityDecl(void *self, const XML_Char *, int, const XML_Char *, int, const XML_Char *,
                         const XML_Char *, const XML_Char *, const XML_Char *) {
    static_cast<Reader *>(self)->fail("Entity declarations are not allowed");
}

void Reader::_skippedEntity(void *self, const XML_Char *, int) {
    static_cast<Reader *>(self)->fail("Undefined entity reference");
}

RtTypeRef Reader::read(RtDataRef data, std::string &error) {
    fParser = XML_ParserCreate(nullptr);
    if (!fParser) return error = "Out of memory", nullptr;
    XML_SetUserData(fParser, this);
    XML_SetElementHandler(fParser, _startElement, _endElement);
    XML_SetCharacterDataHandler(fParser, _characterData);
    XML_SetEntityDeclHandler(fParser, _entityDecl);
    XML_SetSkippedEntityHandler(fParser, _skippedEntity);
    XML_SetParamEntityParsing(fParser, XML_PARAM_ENTITY_PARSING_NEVER);
    RtIndex len = RtDataGetLength(data);
    const char *bytes = reinterpret_cast<const char *>(RtDataGetBytePtr(data));
    if (len > INT32_MAX) return error = "Property list too large", nullptr;
    XML_Status status = XML_Parse(fParser, bytes ? bytes : "", int(len), XML_TRUE);
    if (!fError.empty()) return error = fError, nullptr;
    if (status != XML_STATUS_OK) {
        char buf[256];
        std::snprintf(buf, sizeof buf, "XML parse error on line %lu: %s",
                      static_cast<unsigned long>(XML_GetCurrentLineNumber(fParser)),
                      XML_ErrorString(XML_GetErrorCode(fParser)));
        return error = buf, nullptr;
    }
    if (!fResult) return error = "Found no property list", nullptr;
    RtTypeRef result = fResult;
    fResult = nullptr;
    return result;
}

} // namespace

RtDataRef RtPropertyListCreateXMLData(RtAllocatorRef alloc, RtTypeRef plist) {
    Writer w;
    w.fOut = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
    if (!w.write(plist, 0)) return nullptr;
    w.fOut.append("</plist>\n");
    return RtDataCreate(alloc, reinterpret_cast<const uint8_t *>(w.fOut.data()), RtIndex(w.fOut.size()));
}

RtTypeRef RtPropertyListCreateFromXMLData(RtAllocatorRef alloc, RtDataRef xmlData,
                                          RtOptionFlags mutabilityOption, RtStringRef *errorString) {
    if (errorString) *errorString = nullptr;
    std::string error;
    RtTypeRef result = nullptr;
    if (RtGetTypeID(xmlData) != RtDataGetTypeID()) {
        error = "No property-list data";
    } else {
        Reader reader(alloc, mutabilityOption);
        result = reader.read(xmlData, error);
    }
    if (!result && errorString) {
        *errorString = RtStringCreateWithCString(kRtAllocatorDefault, error.c_str(), kRtStringEncodingUTF8);
        // Text quoted from the document may not be valid UTF-8 once cut; fall back to plain words.
        if (!*errorString)
            *errorString = RtStringCreateWithCString(kRtAllocatorDefault, "Malformed property list",
                                                     kRtStringEncodingUTF8);
    }
    return result;
}
