// The document writer, indentation, charset names and the five XML entities.
#include "HalvoUtils.h"

#include <string>
#include <vector>

// ---- Charset names and indentation ------------------------------------------------------------

RtStringRef getIANAString(RtStringEncoding encoding, RtStringEncoding *fallback) {
    RtStringRef name = RtStringConvertEncodingToIANACharSetName(encoding);
    if (name)
        return name;
    if (fallback)
        *fallback = kRtStringEncodingUTF8;
    return RTSTR("UTF-8");
}

RtStringRef getIndentString(int level) {
    static const RtStringRef sIndents[16] = {
        RTSTR(""),
        RTSTR("  "),
        RTSTR("    "),
        RTSTR("      "),
        RTSTR("        "),
        RTSTR("          "),
        RTSTR("            "),
        RTSTR("              "),
        RTSTR("                "),
        RTSTR("                  "),
        RTSTR("                    "),
        RTSTR("                      "),
        RTSTR("                        "),
        RTSTR("                          "),
        RTSTR("                            "),
        RTSTR("                              "),
    };
    // Compared unsigned on purpose: every negative level lands on the thirty-space string.
    unsigned idx = static_cast<unsigned>(level);
    return sIndents[idx < 15 ? idx : 15];
}

// ---- XMLBuffer --------------------------------------------------------------------------------

XMLBuffer::XMLBuffer(RtStringEncoding encoding)
    : fBuffer(RtStringCreateMutable(kRtAllocatorDefault, 0)), fEncoding(encoding) {
    RtStringRef iana = getIANAString(fEncoding, &fEncoding);
    addTo(0, "<?xml version=\"1.0\" encoding=\"%@\"?>", iana);
}

XMLBuffer::~XMLBuffer() { RtRelease(fBuffer); }

void XMLBuffer::addTo(int level, RtStringRef format, va_list &args) {
    // Appending in place keeps a document to one growing string: no temporary per line.
    RtStringAppend(fBuffer, getIndentString(level));
    RtStringAppendFormatAndArguments(fBuffer, nullptr, format, args);
    RtStringAppend(fBuffer, RTSTR("\r\n"));
}

void XMLBuffer::addTo(int level, RtStringRef format, ...) {
    va_list args;
    va_start(args, format);
    addTo(level, format, args);
    va_end(args);
}

void XMLBuffer::addTo(int level, const char *format, ...) {
    // Formats are literals; interning one lets the runtime keep its parse between lines.
    RtStringRef fmt = __RtStringMakeConstantString(format);
    va_list args;
    va_start(args, format);
    addTo(level, fmt, args);
    va_end(args);
}

RtDataRef XMLBuffer::copyData() const {
    // No loss byte: a character the encoding cannot hold makes the whole document NULL.
    return RtStringCreateExternalRepresentation(kRtAllocatorDefault, fBuffer, fEncoding, 0);
}

// ---- Entities ---------------------------------------------------------------------------------

//                                   entity name  character
static const char *const kEntities[5][2] = {{"apos", "'"}, {"quot", "\""}, {"lt", "<"}, {"gt", ">"}, {"amp", "&"}};

// The five entities keyed by bare name, or by full reference ("&amp;") when fullReferences.
static RtDictionaryRef makeEntityDict(bool fullReferences) {
    const void *keys[5];
    const void *values[5];
    for (int i = 0; i < 5; i++) {
        std::string key = fullReferences ? "&" + std::string(kEntities[i][0]) + ";" : kEntities[i][0];
        keys[i] = __RtStringMakeConstantString(key.c_str());
        values[i] = __RtStringMakeConstantString(kEntities[i][1]);
    }
    RtDictionaryRef dict = RtDictionaryCreate(kRtAllocatorDefault, keys, values, 5, &kRtTypeDictionaryKeyCallBacks,
                                              &kRtTypeDictionaryValueCallBacks);
    // A process-wide table: never freed, and not counted among live objects.
    RtRuntimeSetImmortal(dict);
    return dict;
}

RtDictionaryRef getEntityToCharacterStringDict() {
    static const RtDictionaryRef sDict = makeEntityDict(false);
    return sDict;
}

RtDictionaryRef getTrueEntityToCharactersStringDict() {
    static const RtDictionaryRef sDict = makeEntityDict(true);
    return sDict;
}

static RtStringRef decodeWithTable(RtDictionaryRef table, RtStringRef name) {
    if (!name)
        return RTSTR("<<Unknown Escape>>");
    RtStringRef character = static_cast<RtStringRef>(RtDictionaryGetValue(table, name));
    if (character)
        return character;
    if (gHVDebugVerbose)
        _hvLogf("unknown escape entity reference: %@", name);
    return RTSTR("<<Unknown Escape>>");
}

RtStringRef decodeEntityReference(RtStringRef name) { return decodeWithTable(getEntityToCharacterStringDict(), name); }

RtStringRef decodeUnparsedEntityReference(RtStringRef reference) {
    return decodeWithTable(getTrueEntityToCharactersStringDict(), reference);
}

void findReplaceAll(RtMutableStringRef str, RtStringRef find, RtStringRef replacement) {
    RtStringFindAndReplace(str, find, replacement, RtRangeMake(0, RtStringGetLength(str)), kRtCompareCaseInsensitive);
}

// The reference for one of the five characters, or NULL for any other character.
static inline const char *entityFor(unsigned c) {
    switch (c) {
    case '&':
        return "&amp;";
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    case '\'':
        return "&apos;";
    case '"':
        return "&quot;";
    default:
        return nullptr;
    }
}

static inline bool isEntityChar(unsigned c) {
    return c == '&' || c == '<' || c == '>' || c == '\'' || c == '"';
}

// One pass gives the same text as replacing "&" first and then the other four characters in
// turn: the references those replacements insert hold no character that is replaced later.
RtMutableStringRef entityEncodeString(RtStringRef text) {
    if (!text)
        return nullptr;
    RtIndex length = RtStringGetLength(text);
    const char *ascii = RtStringGetCStringPtr(text, kRtStringEncodingASCII);
    if (ascii) {
        // The usual case: ASCII text, often without a single special character.
        RtIndex first = 0;
        while (first < length && !isEntityChar(static_cast<unsigned char>(ascii[first])))
            first++;
        if (first == length)
            return RtStringCreateMutableCopy(kRtAllocatorDefault, 0, text);
        std::string out;
        out.reserve(static_cast<size_t>(length) + 64);
        out.append(ascii, static_cast<size_t>(first));
        for (RtIndex i = first; i < length; i++) {
            const char *ref = entityFor(static_cast<unsigned char>(ascii[i]));
            if (ref)
                out.append(ref);
            else
                out.push_back(ascii[i]);
        }
        RtMutableStringRef result = RtStringCreateMutable(kRtAllocatorDefault, 0);
        RtStringAppendCString(result, out.c_str(), kRtStringEncodingASCII);
        return result;
    }

    // Any other text: work on UTF-16 units in chunks; the five characters are all ASCII.
    RtMutableStringRef result = RtStringCreateMutable(kRtAllocatorDefault, 0);
    const RtIndex kChunk = 4096;
    std::vector<RtUniChar> in(static_cast<size_t>(kChunk));
    std::vector<RtUniChar> out;
    out.reserve(static_cast<size_t>(kChunk) + 64);
    for (RtIndex pos = 0, n = 0; pos < length; pos += n) {
        n = length - pos < kChunk ? length - pos : kChunk;
        RtStringGetCharacters(text, RtRangeMake(pos, n), in.data());
        // Never split a surrogate pair between two appends.
        if (pos + n < length && in[static_cast<size_t>(n - 1)] >= 0xD800 && in[static_cast<size_t>(n - 1)] < 0xDC00)
            n--;
        out.clear();
        for (RtIndex i = 0; i < n; i++) {
            const char *ref = in[static_cast<size_t>(i)] < 128 ? entityFor(in[i]) : nullptr;
            if (ref) {
                for (; *ref; ref++)
                    out.push_back(static_cast<RtUniChar>(*ref));
            } else {
                out.push_back(in[i]);
            }
        }
        RtStringAppendCharacters(result, out.data(), static_cast<RtIndex>(out.size()));
    }
    return result;
}
