// Base64 (the standard alphabet with "=" padding): a line-wrapping writer and a lenient reader.
#include "HalvoUtils.h"

#include <cstdlib>
#include <cstring>

static const char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// ---- Writing --------------------------------------------------------------------------------

// Appends the base64 text of data to buffer: lines of 76 - 4 * indent characters (indent
// capped at 8), each preceded by indent / 2 tabs; every full line ends with "\n", a last
// partial line does not. Unwrapped, the text is one line without tabs.
static void _XMLPlistAppendDataUsingBase64(RtMutableDataRef buffer, RtDataRef data, int indent,
                                           bool wrapped = true) {
    // A negative indent would make lines longer than 76; treat it as none.
    if (indent < 0 || !wrapped) indent = 0;
    if (indent > 8) indent = 8;
    const uint8_t *in = data ? RtDataGetBytePtr(data) : nullptr;
    size_t length = data ? static_cast<size_t>(RtDataGetLength(data)) : 0;
    if (!in || length == 0) return;
    // Unwrapped: one line longer than the whole text, which therefore never fills.
    const size_t lineLength = wrapped ? static_cast<size_t>(76 - 4 * indent) : (length / 3 + 2) * 4;
    const size_t tabs = static_cast<size_t>(indent / 2);

    // The exact size is known in advance: write straight into the buffer's own bytes.
    size_t chars = (length + 2) / 3 * 4;
    size_t fullLines = (length / 3 * 4) / lineLength; // padding never completes a line
    size_t lines = fullLines + (chars > fullLines * lineLength ? 1 : 0);
    size_t total = chars + lines * tabs + fullLines;
    RtIndex start = RtDataGetLength(buffer);
    RtDataIncreaseLength(buffer, static_cast<RtIndex>(total));
    char *out = reinterpret_cast<char *>(RtDataGetMutableBytePtr(buffer)) + start;

    // Line lengths are multiples of four, so a line only ever fills at a group's end: each
    // line is its tabs, a run of whole groups, and "\n" when the run filled it.
    const size_t groupsPerLine = lineLength / 4;
    size_t groups = length / 3;
    size_t i = 0;
    size_t lineGroups = 0; // groups already on the current line
    while (groups > 0) {
        size_t run = groupsPerLine < groups ? groupsPerLine : groups;
        memset(out, '\t', tabs);
        out += tabs;
        for (size_t g = 0; g < run; g++, i += 3, out += 4) {
            uint32_t v = (uint32_t(in[i]) << 16) | (uint32_t(in[i + 1]) << 8) | in[i + 2];
            out[0] = kBase64Alphabet[(v >> 18) & 63];
            out[1] = kBase64Alphabet[(v >> 12) & 63];
            out[2] = kBase64Alphabet[(v >> 6) & 63];
            out[3] = kBase64Alphabet[v & 63];
        }
        groups -= run;
        lineGroups = run;
        if (run == groupsPerLine) {
            *out++ = '\n';
            lineGroups = 0;
        }
    }
    size_t rest = length - i;
    if (rest > 0) {
        if (lineGroups == 0) {
            memset(out, '\t', tabs);
            out += tabs;
        }
        uint32_t v = uint32_t(in[i]) << 16;
        if (rest == 2) v |= uint32_t(in[i + 1]) << 8;
        out[0] = kBase64Alphabet[(v >> 18) & 63];
        out[1] = kBase64Alphabet[(v >> 12) & 63];
        out[2] = rest == 2 ? kBase64Alphabet[(v >> 6) & 63] : '=';
        out[3] = '=';
        out += 4;
    }
}

RtStringRef encodeBinaryData(RtDataRef data, int indent) {
    RtMutableDataRef buffer = RtDataCreateMutable(kRtAllocatorDefault, 0);
    _XMLPlistAppendDataUsingBase64(buffer, data, indent);
    // The text is ASCII by construction: read as Latin-1 it is the same string, without a check.
    RtStringRef text = RtStringCreateWithBytes(kRtAllocatorDefault, RtDataGetBytePtr(buffer),
                                               RtDataGetLength(buffer), kRtStringEncodingISOLatin1, false);
    RtRelease(buffer);
    return text;
}

RtStringRef encodeBinaryDataUnwrapped(RtDataRef data) {
    RtMutableDataRef buffer = RtDataCreateMutable(kRtAllocatorDefault, 0);
    _XMLPlistAppendDataUsingBase64(buffer, data, 0, false);
    RtStringRef text = RtStringCreateWithBytes(kRtAllocatorDefault, RtDataGetBytePtr(buffer),
                                               RtDataGetLength(buffer), kRtStringEncodingISOLatin1, false);
    RtRelease(buffer);
    return text;
}

// ---- Reading --------------------------------------------------------------------------------

// Byte classes of the reader: 0..63 alphabet values, kPad "=", kSpace white space, kStop "<",
// kJunk everything else (bytes above 127 included).
enum : int8_t { kJunk = -1, kSpace = -2, kStop = -3, kPad = 64 };

struct Base64Table {
    int8_t v[256];
    Base64Table() {
        for (int8_t &slot : v)
            slot = kJunk;
        for (int k = 0; k < 64; k++)
            v[static_cast<unsigned char>(kBase64Alphabet[k])] = static_cast<int8_t>(k);
        v[static_cast<unsigned char>('=')] = kPad;
        for (const char *s = " \t\n\v\f\r"; *s; s++)
            v[static_cast<unsigned char>(*s)] = kSpace;
        v[static_cast<unsigned char>('<')] = kStop;
    }
};

// Decodes bytes in [bytes, end). Stops at "<"; "=" counts as a zero digit and as padding, which
// suppresses the group's last one or two output bytes; white space keeps the padding count and
// other bytes reset it; anything outside the alphabet is skipped. An incomplete final group is
// dropped. The output never exceeds three quarters of the input, so it is sized once.
static RtDataRef __RtPLDataDecode(const uint8_t *bytes, const uint8_t *end) {
    static const Base64Table sTable;
    const int8_t *table = sTable.v;
    size_t inLength = static_cast<size_t>(end - bytes);
    size_t capacity = inLength / 4 * 3 + 3;
    uint8_t *out = static_cast<uint8_t *>(malloc(capacity));
    if (!out) return nullptr;
    size_t outLength = 0;
    uint32_t acc = 0;
    int counted = 0; // characters in the current group
    int padding = 0;
    const uint8_t *p = bytes;
    while (p < end) {
        // Fast path: four alphabet characters at a group boundary make three bytes.
        if (counted == 0 && end - p >= 4) {
            int a = table[p[0]], b = table[p[1]], c = table[p[2]], d = table[p[3]];
            if ((a | b | c | d) >= 0 && a < 64 && b < 64 && c < 64 && d < 64) {
                uint32_t v = (uint32_t(a) << 18) | (uint32_t(b) << 12) | (uint32_t(c) << 6) | uint32_t(d);
                out[outLength] = static_cast<uint8_t>(v >> 16);
                out[outLength + 1] = static_cast<uint8_t>(v >> 8);
                out[outLength + 2] = static_cast<uint8_t>(v);
                outLength += 3;
                padding = 0;
                p += 4;
                continue;
            }
        }
        int cls = table[*p++];
        if (cls == kStop) break;
        if (cls == kPad)
            padding++;
        else if (cls != kSpace)
            padding = 0;
        if (cls < 0) continue;
        acc = (acc << 6) | static_cast<uint32_t>(cls == kPad ? 0 : cls);
        if (++counted == 4) {
            out[outLength++] = static_cast<uint8_t>(acc >> 16);
            if (padding < 2) out[outLength++] = static_cast<uint8_t>(acc >> 8);
            if (padding < 1) out[outLength++] = static_cast<uint8_t>(acc);
            acc = 0;
            counted = 0;
        }
    }
    if (outLength == 0) {
        free(out);
        return RtDataCreate(kRtAllocatorDefault, nullptr, 0);
    }
    if (outLength < capacity / 2) {
        // Mostly junk: give back what the output did not use.
        uint8_t *shrunk = static_cast<uint8_t *>(realloc(out, outLength));
        if (shrunk) out = shrunk;
    }
    return RtDataCreateWithBytesNoCopy(kRtAllocatorDefault, out, static_cast<RtIndex>(outLength),
                                       kRtAllocatorMalloc);
}

RtDataRef decodeBinaryData(RtStringRef text) {
    if (!text) return nullptr;
    RtIndex length = RtStringGetLength(text);
    const char *ascii = RtStringGetCStringPtr(text, kRtStringEncodingASCII);
    if (ascii) {
        const uint8_t *bytes = reinterpret_cast<const uint8_t *>(ascii);
        return __RtPLDataDecode(bytes, bytes + length);
    }
    // Not directly available: render as ASCII, refusing any other character.
    uint8_t *bytes = static_cast<uint8_t *>(malloc(length > 0 ? static_cast<size_t>(length) : 1));
    if (!bytes) return nullptr;
    RtIndex used = 0;
    RtIndex converted = RtStringGetBytes(text, RtRangeMake(0, length), kRtStringEncodingASCII, 0, false,
                                         bytes, length, &used);
    RtDataRef result = converted == length ? __RtPLDataDecode(bytes, bytes + used) : nullptr;
    free(bytes);
    return result;
}
