// RtStringFormatUTF8: the formatter's text as UTF-8 bytes in the caller's buffer, and the UTF-8
// rendering of 16-bit storage by RtStringGetBytes.
#include "RtValueTestSupport.h"

#include <cstdarg>
#include <string>

using namespace rttest;

namespace {

RtIndex formatInto(char *buffer, RtIndex size, RtStringRef format, ...) {
    va_list args;
    va_start(args, format);
    RtIndex n = RtStringFormatUTF8(buffer, size, nullptr, format, args);
    va_end(args);
    return n;
}

// The text as RtStringFormatUTF8 writes it, given a buffer of exactly the size it asks for.
template <typename... Args> std::string formattedUTF8(RtStringRef format, Args... args) {
    RtIndex needed = formatInto(nullptr, 0, format, args...);
    std::string out(size_t(needed), '\0');
    EXPECT_EQ(formatInto(&out[0], needed, format, args...), needed);
    return out;
}

class RtStringFormatUTF8 : public LeakChecked {};

TEST_F(RtStringFormatUTF8, WritesWhatTheStringFormatterWritesAsUTF8) {
    RtStringRef latin = own(str("Caf\xC3\xA9")); // 8-bit storage
    RtStringRef wide = own(str("\xE6\x97\xA5 \xF0\x9F\x98\x80"));
    EXPECT_EQ(formattedUTF8(RTSTR("<i4>%d</i4>"), -42), "<i4>-42</i4>");
    EXPECT_EQ(formattedUTF8(RTSTR("<s>%@</s>"), latin), "<s>Caf\xC3\xA9</s>");
    EXPECT_EQ(formattedUTF8(RTSTR("<s>%@</s>"), wide), "<s>\xE6\x97\xA5 \xF0\x9F\x98\x80</s>");
    EXPECT_EQ(formattedUTF8(RTSTR("%s|%g"), "\xC3\xBC", 2.5), "\xC3\xBC|2.5");
    EXPECT_EQ(formattedUTF8(RTSTR("")), "");

    // Too small a buffer: the length needed comes back.
    char small[4];
    EXPECT_EQ(formatInto(small, sizeof small, RTSTR("<s>%@</s>"), wide), 15);
    const RtUniChar lone[] = {'a', 0xD800, 'b'};
    EXPECT_EQ(formatInto(nullptr, 0, RTSTR("%@"), own(RtStringCreateWithCharacters(nullptr, lone, 3))), -1);

    // A long UTF-16 string with ASCII runs, two- three- and four-byte characters.
    std::string expected;
    std::vector<RtUniChar> units;
    for (int i = 0; i < 300; i++) {
        units.insert(units.end(), {'a', 0xE9, 0x65E5, 0xD83D, 0xDE00});
        expected += "a\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80";
    }
    RtStringRef longWide = own(RtStringCreateWithCharacters(nullptr, units.data(), RtIndex(units.size())));
    EXPECT_EQ(takeData(RtStringCreateExternalRepresentation(nullptr, longWide, kRtStringEncodingUTF8, 0)), expected);
}

} // namespace
