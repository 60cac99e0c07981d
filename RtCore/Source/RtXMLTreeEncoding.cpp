// RtXMLTreeEncoding: decides in which charset a document is read. expat reads UTF-8, UTF-16,
// ISO-8859-1 and US-ASCII itself; a document in any other charset (declared, or given by the
// caller) is converted to UTF-8 with ICU first and expat is told it is UTF-8, which overrides
// the declaration. Owns nothing beyond the converted bytes in the plan. Any thread.
#include "RtXMLTreeInternal.h"

#include <unicode/ucnv.h>

#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace rt::xml {
namespace {

bool expatReadsCharset(const std::string &name) {
    static const char *const sNames[] = {"UTF-8", "UTF-16", "UTF-16BE", "UTF-16LE", "ISO-8859-1", "US-ASCII"};
    for (const char *known : sNames)
        if (strcasecmp(known, name.c_str()) == 0) return true;
    return false;
}

bool isSpace(uint8_t c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// The charset a document names in its declaration, from a byte-order mark or an
// ASCII-compatible "<?xml ... encoding='...'?>"; empty when expat should decide on its own.
std::string sniffCharset(const uint8_t *p, size_t n) {
    auto starts = [&](std::initializer_list<uint8_t> prefix) {
        return n >= prefix.size() && std::memcmp(p, prefix.begin(), prefix.size()) == 0;
    };
    // UTF-32 first: its little-endian mark begins like UTF-16's.
    if (starts({0x00, 0x00, 0xFE, 0xFF}) || starts({0xFF, 0xFE, 0x00, 0x00})) return "UTF-32";
    if (starts({0x00, 0x00, 0x00, 0x3C})) return "UTF-32BE";
    if (starts({0x3C, 0x00, 0x00, 0x00})) return "UTF-32LE";
    if (!starts({'<', '?', 'x', 'm', 'l'}) || n < 6 || !isSpace(p[5])) return std::string();

    // The declaration is short; a pathological one longer than this is left to expat.
    size_t end = 6;
    size_t limit = n < 1024 ? n : 1024;
    while (end + 1 < limit && !(p[end] == '?' && p[end + 1] == '>'))
        end++;
    static const char kKey[] = "encoding";
    const size_t keyLength = sizeof kKey - 1;
    for (size_t i = 6; i + keyLength < end; i++) {
        if (!isSpace(p[i - 1]) || std::memcmp(p + i, kKey, keyLength) != 0) continue;
        size_t j = i + keyLength;
        while (j < end && isSpace(p[j]))
            j++;
        if (j >= end || p[j++] != '=') return std::string();
        while (j < end && isSpace(p[j]))
            j++;
        if (j >= end || (p[j] != '"' && p[j] != '\'')) return std::string();
        uint8_t quote = p[j++];
        size_t start = j;
        while (j < end && p[j] != quote) {
            uint8_t c = p[j];
            bool nameChar = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                            c == '.' || c == '_' || c == '-';
            if (!nameChar || j - start > 64) return std::string();
            j++;
        }
        if (j >= end || j == start) return std::string();
        return std::string(reinterpret_cast<const char *>(p + start), j - start);
    }
    return std::string();
}

struct Converters {
    UConverter *fFrom = nullptr;
    UConverter *fTo = nullptr;
    ~Converters() {
        if (fFrom) ucnv_close(fFrom);
        if (fTo) ucnv_close(fTo);
    }
};

void setError(ParseError &error, int status, std::string description, const uint8_t *p, size_t location) {
    error.fStatus = status;
    error.fDescription = std::move(description);
    error.fLocation = long(location);
    error.fLine = 1;
    for (size_t i = 0; i < location; i++)
        error.fLine += p[i] == '\n';
}

// Converts the whole document from charset to UTF-8 into plan. Returns false with error set when
// a byte sequence is not valid in the charset; unknown reports whether ICU knows no such charset.
bool transcode(const uint8_t *p, size_t n, const std::string &charset, InputPlan &plan, ParseError &error,
               bool &unknown) {
    unknown = false;
    Converters cv;
    UErrorCode status = U_ZERO_ERROR;
    cv.fFrom = ucnv_open(charset.c_str(), &status);
    if (U_FAILURE(status)) {
        unknown = true;
        return false;
    }
    cv.fTo = ucnv_open("UTF-8", &status);
    ucnv_setToUCallBack(cv.fFrom, UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    ucnv_setFromUCallBack(cv.fTo, UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    if (U_FAILURE(status) || n > (SIZE_MAX - 64) / 4) {
        setError(error, kStatusOutOfMemory, "out of memory", p, 0);
        return false;
    }

    // Most text grows little; the buffer grows when a charset of multi-byte letters needs it.
    size_t capacity = n + n / 2 + 64;
    auto *buffer = static_cast<uint8_t *>(std::malloc(capacity));
    if (!buffer) {
        setError(error, kStatusOutOfMemory, "out of memory", p, 0);
        return false;
    }
    UChar pivot[1024];
    UChar *pivotSource = pivot, *pivotTarget = pivot;
    const char *source = reinterpret_cast<const char *>(p);
    const char *sourceLimit = source + n;
    char *target = reinterpret_cast<char *>(buffer);
    bool reset = true;
    for (;;) {
        status = U_ZERO_ERROR;
        ucnv_convertEx(cv.fTo, cv.fFrom, &target, reinterpret_cast<char *>(buffer) + capacity, &source,
                       sourceLimit, pivot, &pivotSource, &pivotTarget, pivot + 1024, reset, true, &status);
        reset = false;
        if (status != U_BUFFER_OVERFLOW_ERROR) break;
        size_t used = size_t(target - reinterpret_cast<char *>(buffer));
        size_t larger = capacity * 2;
        auto *grown = static_cast<uint8_t *>(std::realloc(buffer, larger));
        if (!grown) {
            std::free(buffer);
            setError(error, kStatusOutOfMemory, "out of memory", p, 0);
            return false;
        }
        buffer = grown;
        capacity = larger;
        target = reinterpret_cast<char *>(buffer) + used;
    }
    if (U_FAILURE(status)) {
        std::free(buffer);
        char bad[32];
        int8_t badLength = sizeof bad;
        UErrorCode ignored = U_ZERO_ERROR;
        ucnv_getInvalidChars(cv.fFrom, bad, &badLength, &ignored);
        size_t consumed = size_t(source - reinterpret_cast<const char *>(p));
        size_t location =
            U_SUCCESS(ignored) && size_t(badLength) <= consumed ? consumed - size_t(badLength) : consumed;
        setError(error, kRtXMLTreeStatusInvalidBytesForCharset,
                 "bytes not valid in the document's charset \"" + charset + "\"", p, location);
        return false;
    }
    plan.fTranscoded = buffer;
    plan.fBytes = buffer;
    plan.fLength = size_t(target - reinterpret_cast<char *>(buffer));
    plan.fExpatEncoding = "UTF-8";
    return true;
}

} // namespace

InputPlan::~InputPlan() {
    std::free(fTranscoded);
}

bool planInput(const uint8_t *bytes, size_t length, RtStringEncoding override, InputPlan &plan,
               ParseError &error) {
    plan.fBytes = bytes;
    plan.fLength = length;
    std::string charset;
    bool given = override != kRtStringEncodingInvalidId;
    if (given) {
        RtStringRef name = RtStringConvertEncodingToIANACharSetName(override);
        const char *text = name ? RtStringGetCStringPtr(name, kRtStringEncodingASCII) : nullptr;
        if (!text) {
            setError(error, kStatusUnknownEncoding, "unknown encoding", bytes, 0);
            return false;
        }
        charset = text;
    } else {
        charset = sniffCharset(bytes, length);
        if (charset.empty()) return true;
    }
    if (expatReadsCharset(charset)) {
        plan.fEncodingStorage = charset;
        plan.fExpatEncoding = given ? plan.fEncodingStorage.c_str() : nullptr;
        return true;
    }
    bool unknown = false;
    if (transcode(bytes, length, charset, plan, error, unknown)) return true;
    if (!unknown) return false;
    if (given) {
        setError(error, kStatusUnknownEncoding, "unknown encoding", bytes, 0);
        return false;
    }
    return true; // a declared charset nobody knows: expat reports it with its line and column
}

} // namespace rt::xml
