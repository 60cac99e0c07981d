#include "ToolStrings.h"

#include <vector>

namespace hvtools {

std::string utf8String(RtStringRef string) {
    if (!string) return {};
    // ASCII strings hand out their bytes directly; the others are converted once.
    if (const char *direct = RtStringGetCStringPtr(string, kRtStringEncodingUTF8)) return direct;
    RtRange all = RtRangeMake(0, RtStringGetLength(string));
    RtIndex needed = 0;
    RtStringGetBytes(string, all, kRtStringEncodingUTF8, '?', false, nullptr, 0, &needed);
    std::string text(static_cast<size_t>(needed), '\0');
    RtIndex used = 0;
    RtStringGetBytes(string, all, kRtStringEncodingUTF8, '?', false, reinterpret_cast<uint8_t *>(text.data()),
                     needed, &used);
    text.resize(static_cast<size_t>(used));
    return text;
}

RtStringRef createString(std::string_view text) {
    return RtStringCreateWithBytes(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(text.data()),
                                   static_cast<RtIndex>(text.size()), kRtStringEncodingUTF8, false);
}

std::string describe(RtTypeRef value) {
    RtStringRef description = RtCopyFormattingDescription(value);
    std::string text = utf8String(description);
    RtRelease(description);
    return text;
}

namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int sextet(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

} // namespace

std::string base64Encode(const uint8_t *bytes, size_t length) {
    std::string text;
    text.reserve((length + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= length; i += 3) {
        uint32_t group = uint32_t(bytes[i]) << 16 | uint32_t(bytes[i + 1]) << 8 | bytes[i + 2];
        for (int shift = 18; shift >= 0; shift -= 6)
            text += kAlphabet[(group >> shift) & 63];
    }
    if (size_t rest = length - i) {
        uint32_t group = uint32_t(bytes[i]) << 16 | (rest == 2 ? uint32_t(bytes[i + 1]) << 8 : 0);
        text += kAlphabet[(group >> 18) & 63];
        text += kAlphabet[(group >> 12) & 63];
        text += rest == 2 ? kAlphabet[(group >> 6) & 63] : '=';
        text += '=';
    }
    return text;
}

std::optional<std::string> base64Decode(std::string_view text) {
    std::string bytes;
    uint32_t group = 0;
    int count = 0;
    size_t padding = 0;
    for (char c : text) {
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n') continue;
        if (c == '=') {
            padding++;
            continue;
        }
        int value = sextet(c);
        if (value < 0 || padding > 0) // nothing but padding may follow padding
            return std::nullopt;
        group = group << 6 | uint32_t(value);
        if (++count == 4) {
            bytes += char(group >> 16);
            bytes += char(group >> 8 & 0xff);
            bytes += char(group & 0xff);
            group = 0;
            count = 0;
        }
    }
    // Two or three leftover sextets carry one or two bytes; a single one carries none.
    if (count == 1 || padding > 2) return std::nullopt;
    if (count == 2) {
        bytes += char(group >> 4);
    } else if (count == 3) {
        bytes += char(group >> 10);
        bytes += char(group >> 2 & 0xff);
    }
    return bytes;
}

RtNumberRef createInteger(int64_t value) {
    if (value >= INT32_MIN && value <= INT32_MAX) {
        int32_t narrow = static_cast<int32_t>(value);
        return RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt32Type, &narrow);
    }
    return RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt64Type, &value);
}

} // namespace hvtools
