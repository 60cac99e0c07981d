// RtStringFormatUTF8: the formatter's text as UTF-8 bytes in the caller's buffer, and the UTF-8
// rendering of strings of either storage by RtStringGetBytes.
#include <RtCore/RtCore.h>

#include <gtest/gtest.h>

#include <cstdarg>
#include <string>

namespace {

RtIndex formatInto(char *buffer, RtIndex size, RtStringRef format, ...) {
    va_list args;
    va_start(args, format);
    RtIndex n = RtStringFormatUTF8(buffer, size, nullptr, format, args);
    va_end(args);
    return n;
}

// The text as RtStringFormatUTF8 writes it, given a buffer of exactly the size it asks for.
template <typename... Args> std::string formatted(RtStringRef format, Args... args) {
    RtIndex needed = formatInto(nullptr, 0, format, args...);
    if (needed < 0) return "<lone surrogate>";
    std::string out(size_t(needed), '\0');
    EXPECT_EQ(formatInto(&out[0], needed, format, args...), needed);
    return out;
}

RtStringRef fromUnits(std::initializer_list<RtUniChar> units) {
    std::vector<RtUniChar> v(units);
    return RtStringCreateWithCharacters(nullptr, v.data(), RtIndex(v.size()));
}

TEST(RtStringFormatUTF8, WritesWhatTheStringFormatterWritesAsUTF8) {
    RtStringRef latin =
        RtStringCreateWithCString(nullptr, "Caf\xC3\xA9", kRtStringEncodingUTF8); // 8-bit storage
    RtStringRef wide =
        RtStringCreateWithCString(nullptr, "\xE6\x97\xA5 \xF0\x9F\x98\x80", kRtStringEncodingUTF8);
    EXPECT_EQ(formatted(RTSTR("<i4>%d</i4>"), -42), "<i4>-42</i4>");
    EXPECT_EQ(formatted(RTSTR("<s>%@</s>"), latin), "<s>Caf\xC3\xA9</s>");
    EXPECT_EQ(formatted(RTSTR("<s>%@</s>"), wide), "<s>\xE6\x97\xA5 \xF0\x9F\x98\x80</s>");
    EXPECT_EQ(formatted(RTSTR("%s|%g"), "\xC3\xBC", 2.5), "\xC3\xBC|2.5");
    EXPECT_EQ(formatted(RTSTR("")), "");

    // Too small a buffer: the length needed comes back, and a second call with it succeeds.
    char small[4];
    EXPECT_EQ(formatInto(small, sizeof small, RTSTR("<s>%@</s>"), wide), 15);

    RtStringRef lone = fromUnits({'a', 0xD800, 'b'});
    EXPECT_EQ(formatInto(nullptr, 0, RTSTR("%@"), lone), -1);
    RtRelease(lone);
    RtRelease(wide);
    RtRelease(latin);
}

TEST(RtStringFormatUTF8, GetBytesRendersEitherStorageAsUTF8) {
    // A long UTF-16 string with ASCII runs, two- three- and four-byte characters.
    std::string expected;
    std::vector<RtUniChar> units;
    for (int i = 0; i < 300; i++) {
        units.insert(units.end(), {'a', 0xE9, 0x65E5, 0xD83D, 0xDE00});
        expected += "a\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80";
    }
    RtStringRef wide = RtStringCreateWithCharacters(nullptr, units.data(), RtIndex(units.size()));
    RtDataRef data = RtStringCreateExternalRepresentation(nullptr, wide, kRtStringEncodingUTF8, 0);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(
        std::string(reinterpret_cast<const char *>(RtDataGetBytePtr(data)), size_t(RtDataGetLength(data))),
        expected);
    RtRelease(data);

    // A buffer that ends inside a character stops before it.
    uint8_t buffer[5];
    RtIndex used = 0;
    EXPECT_EQ(RtStringGetBytes(wide, RtRangeMake(0, 5), kRtStringEncodingUTF8, 0, false, buffer, 5, &used),
              2);
    EXPECT_EQ(used, 3);
    RtRelease(wide);

    // A lone surrogate stops the conversion, or becomes the loss byte.
    RtStringRef lone = fromUnits({'a', 0xDC00, 'b'});
    EXPECT_EQ(RtStringCreateExternalRepresentation(nullptr, lone, kRtStringEncodingUTF8, 0), nullptr);
    data = RtStringCreateExternalRepresentation(nullptr, lone, kRtStringEncodingUTF8, '?');
    EXPECT_EQ(
        std::string(reinterpret_cast<const char *>(RtDataGetBytePtr(data)), size_t(RtDataGetLength(data))),
        "a?b");
    RtRelease(data);
    RtRelease(lone);

    // 8-bit storage above ASCII (Latin-1) takes two bytes a character.
    RtStringRef latin = RtStringCreateWithCString(nullptr, "\xC3\xA9t\xC3\xA9", kRtStringEncodingUTF8);
    data = RtStringCreateExternalRepresentation(nullptr, latin, kRtStringEncodingUTF8, 0);
    EXPECT_EQ(
        std::string(reinterpret_cast<const char *>(RtDataGetBytePtr(data)), size_t(RtDataGetLength(data))),
        "\xC3\xA9t\xC3\xA9");
    RtRelease(data);
    RtRelease(latin);
}

} // namespace
