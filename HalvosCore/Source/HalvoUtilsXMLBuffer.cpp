// The document writer, indentation, charset names and the five XML entities.
#include "HalvoUtils.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// ---- Charset names and indentation ------------------------------------------------------------

RtStringRef getIANAString(RtStringEncoding encoding, RtStringEncoding *fallback) {
    RtStringRef name = RtStringConvertEncodingToIANACharSetName(encoding);
    if (name) return name;
    if (fallback) *fallback = kRtStringEncodingUTF8;
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

XMLBuffer::XMLBuffer(RtStringEncoding encoding) : fEncoding(encoding) {
    RtStringRef iana = getIANAString(fEncoding, &fEncoding);
    fBytesMode = fEncoding == kRtStringEncodingUTF8;
    if (!fBytesMode) fBuffer = RtStringCreateMutable(kRtAllocatorDefault, 0);
    addTo(0, "<?xml version=\"1.0\" encoding=\"%@\"?>", iana);
}

XMLBuffer::~XMLBuffer() {
    if (!fRendered) std::free(fBytes);
    RtRelease(fRendered);
    RtRelease(fBuffer);
    RtRelease(fText);
}

bool XMLBuffer::reserveBytes(size_t extra) {
    if (fRendered) {
        // More lines after copyData: the handed-out block stays with its data; go on in a copy.
        char *copy = static_cast<char *>(std::malloc(fLength + extra));
        if (!copy) return false;
        std::memcpy(copy, fBytes, fLength);
        fBytes = copy;
        fCapacity = fLength + extra;
        RtRelease(fRendered);
        fRendered = nullptr;
    }
    if (fCapacity - fLength >= extra) return true;
    // Doubling; glibc grows a large block by remapping its pages, without copying them. The
    // first block is small enough for the allocator's per-thread cache: most requests fit it.
    size_t capacity = fCapacity ? fCapacity : 1024;
    while (capacity - fLength < extra)
        capacity *= 2;
    char *grown = static_cast<char *>(std::realloc(fBytes, capacity));
    if (!grown) return false;
    fBytes = grown;
    fCapacity = capacity;
    return true;
}

XMLBuffer::FormatEntry XMLBuffer::classifyFormat(RtStringRef format) {
    // Formats are nearly always RTSTR constants, which live for the process: their entries are
    // kept by address, for the thread, so every document of a thread (a request per call) finds
    // them classified. Any other format is looked at afresh (its address may be reused).
    thread_local FormatEntry tFormats[64] = {};
    uintptr_t address = reinterpret_cast<uintptr_t>(format);
    FormatEntry &slot = tFormats[((address >> 4) ^ (address >> 9)) & 63];
    if (slot.fFormat == format && format) return slot;
    FormatEntry entry{format, RtStringGetCStringPtr(format, kRtStringEncodingASCII), 0, 0};
    if (entry.fLiteral) {
        entry.fLength = size_t(RtStringGetLength(format));
        const char *percent = static_cast<const char *>(std::memchr(entry.fLiteral, '%', entry.fLength));
        if (percent) {
            // One conversion, "%@" or "%d" without flags, and no other '%': text around a value.
            const char *end = entry.fLiteral + entry.fLength;
            bool single = percent + 1 < end && (percent[1] == '@' || percent[1] == 'd') &&
                          !std::memchr(percent + 2, '%', size_t(end - percent - 2));
            entry.fConversion = single ? percent[1] : 0;
            entry.fLength = size_t(percent - entry.fLiteral);
            if (!single) entry.fLiteral = nullptr;
        }
    }
    if (format && RtGetRetainCount(format) == 0x7FFFFFFF) // immortal
        slot = entry;
    return entry;
}

void XMLBuffer::appendLine(int level, RtStringRef format, va_list &args) {
    if (!fBytesMode) {
        // Appending in place keeps a document to one growing string: no temporary per line.
        RtStringAppend(fBuffer, getIndentString(level));
        RtStringAppendFormatAndArguments(fBuffer, nullptr, format, args);
        RtStringAppend(fBuffer, RTSTR("\r\n"));
        return;
    }
    if (fText) {
        RtRelease(fText);
        fText = nullptr;
    }
    // Indentation (getIndentString's count of spaces), the line and CRLF.
    static const char kSpaces[32] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
                                     ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
                                     ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
    size_t indent = static_cast<unsigned>(level) < 15 ? size_t(level) * 2 : 30;
    // Most lines are constant markup ("<value>", "</member>"): a format without '%' is its own
    // text, and is copied without running the formatter; so is the text around a lone %@ or %d.
    FormatEntry entry = classifyFormat(format);
    const char *literal = entry.fLiteral;
    size_t literalLength = entry.fLength;
    // The value of a single conversion, written directly when it is an int or an ASCII string.
    char number[16];
    const char *value = nullptr;
    size_t valueLength = 0;
    size_t suffixLength = 0;
    if (literal && entry.fConversion) {
        va_list peek;
        va_copy(peek, args);
        if (entry.fConversion == 'd') {
            long long v = va_arg(peek, int);
            unsigned long long magnitude = v < 0 ? 0ull - static_cast<unsigned long long>(v) : v;
            char *p = number + sizeof number;
            do {
                *--p = char('0' + magnitude % 10);
                magnitude /= 10;
            } while (magnitude);
            if (v < 0) *--p = '-';
            value = p;
            valueLength = size_t(number + sizeof number - p);
        } else {
            RtTypeRef object = va_arg(peek, RtTypeRef);
            if (object && RtGetTypeID(object) == RtStringGetTypeID()) {
                value = RtStringGetCStringPtr(static_cast<RtStringRef>(object), kRtStringEncodingASCII);
                valueLength = value ? size_t(RtStringGetLength(static_cast<RtStringRef>(object))) : 0;
            }
        }
        va_end(peek);
        if (value)
            suffixLength = size_t(RtStringGetLength(format)) - literalLength - 2;
        else
            literal = nullptr; // a NULL, a non-ASCII string or another object: the formatter decides
    }
    if (!reserveBytes(sizeof kSpaces + (literal ? literalLength + valueLength + suffixLength + 2 : 512))) {
        fUnrepresentable = true; // out of memory: no document rather than a truncated one
        return;
    }
    std::memcpy(fBytes + fLength, kSpaces, sizeof kSpaces); // a fixed-size copy; indent of it counts
    size_t start = fLength + indent;
    if (literal) {
        std::memcpy(fBytes + start, literal, literalLength);
        fLength = start + literalLength;
        if (value) {
            std::memcpy(fBytes + fLength, value, valueLength);
            std::memcpy(fBytes + fLength + valueLength, literal + literalLength + 2, suffixLength);
            fLength += valueLength + suffixLength;
        }
        fBytes[fLength++] = '\r';
        fBytes[fLength++] = '\n';
        return;
    }
    // A line longer than the room left is formatted again.
    va_list again;
    va_copy(again, args);
    RtIndex room = RtIndex(fCapacity - start - 2);
    RtIndex written = RtStringFormatUTF8(fBytes + start, room, nullptr, format, args);
    if (written > room) {
        if (reserveBytes(indent + size_t(written) + 2))
            written = RtStringFormatUTF8(fBytes + start, written, nullptr, format, again);
        else
            written = -1;
    }
    va_end(again);
    if (written < 0) {
        fUnrepresentable = true; // a lone surrogate (or no memory): the document cannot be rendered
        return;
    }
    fLength = start + size_t(written);
    fBytes[fLength++] = '\r';
    fBytes[fLength++] = '\n';
}

void XMLBuffer::addTo(int level, RtStringRef format, va_list &args) {
    appendLine(level, format, args);
}

void XMLBuffer::addTo(int level, RtStringRef format, ...) {
    va_list args;
    va_start(args, format);
    appendLine(level, format, args);
    va_end(args);
}

void XMLBuffer::addTo(int level, const char *format, ...) {
    // Formats are literals; interning one lets the runtime keep its parse between lines.
    RtStringRef fmt = __RtStringMakeConstantString(format);
    va_list args;
    va_start(args, format);
    appendLine(level, fmt, args);
    va_end(args);
}

RtDataRef XMLBuffer::copyData() const {
    // No loss byte: a character the encoding cannot hold makes the whole document NULL.
    if (!fBytesMode) return RtStringCreateExternalRepresentation(kRtAllocatorDefault, fBuffer, fEncoding, 0);
    if (fUnrepresentable) return nullptr;
    if (!fRendered) {
        // The block becomes the data's bytes, without a copy; the buffer only reads it from now on.
        fRendered =
            RtDataCreateWithBytesNoCopy(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(fBytes),
                                        RtIndex(fLength), kRtAllocatorMalloc);
        if (!fRendered) return nullptr;
    }
    return static_cast<RtDataRef>(RtRetain(fRendered));
}

RtStringRef XMLBuffer::getString() const {
    if (!fBytesMode) return fBuffer;
    if (!fText)
        fText = RtStringCreateWithBytes(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(fBytes),
                                        RtIndex(fLength), kRtStringEncodingUTF8, false);
    return fText;
}

// ---- Entities ---------------------------------------------------------------------------------

//                                   entity name  character
static const char *const kEntities[5][2] = {
    {"apos", "'"}, {"quot", "\""}, {"lt", "<"}, {"gt", ">"}, {"amp", "&"}};

// The five entities keyed by bare name, or by full reference ("&amp;") when fullReferences.
static RtDictionaryRef makeEntityDict(bool fullReferences) {
    const void *keys[5];
    const void *values[5];
    for (int i = 0; i < 5; i++) {
        std::string key = fullReferences ? "&" + std::string(kEntities[i][0]) + ";" : kEntities[i][0];
        keys[i] = __RtStringMakeConstantString(key.c_str());
        values[i] = __RtStringMakeConstantString(kEntities[i][1]);
    }
    RtDictionaryRef dict =
        RtDictionaryCreate(kRtAllocatorDefault, keys, values, 5, &kRtTypeDictionaryKeyCallBacks,
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
    if (!name) return RTSTR("<<Unknown Escape>>");
    RtStringRef character = static_cast<RtStringRef>(RtDictionaryGetValue(table, name));
    if (character) return character;
    if (gHVDebugVerbose) _hvLogf("unknown escape entity reference: %@", name);
    return RTSTR("<<Unknown Escape>>");
}

RtStringRef decodeEntityReference(RtStringRef name) {
    return decodeWithTable(getEntityToCharacterStringDict(), name);
}

RtStringRef decodeUnparsedEntityReference(RtStringRef reference) {
    return decodeWithTable(getTrueEntityToCharactersStringDict(), reference);
}

void findReplaceAll(RtMutableStringRef str, RtStringRef find, RtStringRef replacement) {
    RtStringFindAndReplace(str, find, replacement, RtRangeMake(0, RtStringGetLength(str)),
                           kRtCompareCaseInsensitive);
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
    if (!text) return nullptr;
    RtIndex length = RtStringGetLength(text);
    const char *ascii = RtStringGetCStringPtr(text, kRtStringEncodingASCII);
    if (ascii) {
        // The usual case: ASCII text, often without a single special character.
        RtIndex first = 0;
        while (first < length && !isEntityChar(static_cast<unsigned char>(ascii[first])))
            first++;
        if (first == length) return RtStringCreateMutableCopy(kRtAllocatorDefault, 0, text);
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

    // Any other text: work on UTF-16 units in chunks on the stack; the five characters are all
    // ASCII and each becomes at most six units ("&quot;").
    RtMutableStringRef result = RtStringCreateMutable(kRtAllocatorDefault, 0);
    const RtIndex kChunk = 256;
    RtUniChar in[kChunk];
    RtUniChar out[kChunk * 6];
    for (RtIndex pos = 0, n = 0; pos < length; pos += n) {
        n = length - pos < kChunk ? length - pos : kChunk;
        RtStringGetCharacters(text, RtRangeMake(pos, n), in);
        // Never split a surrogate pair between two appends.
        if (pos + n < length && in[n - 1] >= 0xD800 && in[n - 1] < 0xDC00) n--;
        RtIndex used = 0;
        for (RtIndex i = 0; i < n; i++) {
            const char *ref = in[i] < 128 ? entityFor(in[i]) : nullptr;
            if (ref) {
                for (; *ref; ref++)
                    out[used++] = static_cast<RtUniChar>(*ref);
            } else {
                out[used++] = in[i];
            }
        }
        RtStringAppendCharacters(result, out, used);
    }
    return result;
}
