// Strings: formatting, uniquing, encodings, UTF-16 indexing, comparison, search and replace.
#include "RtValueTestSupport.h"

#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace rttest;

namespace {

// Formats and returns the text, releasing the string.
template <typename... Args> std::string fmt(RtStringRef format, Args... args) {
    return take(RtStringCreateWithFormat(nullptr, nullptr, format, args...));
}

RtIndex formatUTF8(char *buffer, RtIndex size, RtStringRef format, ...) {
    va_list args;
    va_start(args, format);
    RtIndex n = RtStringFormatUTF8(buffer, size, nullptr, format, args);
    va_end(args);
    return n;
}

// Formats a non-constant copy of the format too, so both the cached and the one-pass parser run,
// and formats into bytes as well, in a buffer of exactly the size asked for.
template <typename... Args> std::string fmtBoth(const char *format, Args... args) {
    RtStringRef fresh = str(format);
    std::string a = fmt(fresh, args...);
    std::string b = fmt(__RtStringMakeConstantString(format), args...);
    std::string bytes(size_t(formatUTF8(nullptr, 0, fresh, args...)), '\0');
    EXPECT_EQ(formatUTF8(&bytes[0], RtIndex(bytes.size()), fresh, args...), RtIndex(bytes.size())) << format;
    RtRelease(fresh);
    EXPECT_EQ(a, b) << format;
    EXPECT_EQ(a, bytes) << format;
    return a;
}

template <typename... Args> std::string cfmt(const char *format, Args... args) {
    char buf[4096];
    std::snprintf(buf, sizeof buf, format, args...);
    return buf;
}

class RtStringTest : public LeakChecked {
  protected:
    RtStringRef make(const std::string &utf8) { return own(str(utf8)); }
};

TEST_F(RtStringTest, FormatsCConversionsLikeSnprintf) {
    EXPECT_EQ(fmtBoth("%d %i %u", -42, 7, 4000000000u), "-42 7 4000000000");
    EXPECT_EQ(fmtBoth("%ld %lld %llu", -1234567890123L, (long long)INT64_MIN, (unsigned long long)UINT64_MAX),
              cfmt("%ld %lld %llu", -1234567890123L, (long long)INT64_MIN, (unsigned long long)UINT64_MAX));
    EXPECT_EQ(fmtBoth("%x %X %o %#x %#o", 0xbeefu, 0xbeefu, 8u, 255u, 8u), "beef BEEF 10 0xff 010");
    EXPECT_EQ(fmtBoth("%hhd %hd %hhu %zu %jd %td", 300, 70000, 257, size_t(12), intmax_t(-3), ptrdiff_t(-4)),
              cfmt("%hhd %hd %hhu %zu %jd %td", 300, 70000, 257, size_t(12), intmax_t(-3), ptrdiff_t(-4)));
    EXPECT_EQ(fmtBoth("[%5d|%-5d|%05d|%+d|% d|%.3d]", 42, 42, 42, 42, 42, 7),
              "[   42|42   |00042|+42| 42|007]");
    EXPECT_EQ(fmtBoth("[%*d|%-*d|%.*d]", 4, 1, 3, 2, 4, 3), "[   1|2  |0003]");
    EXPECT_EQ(fmtBoth("[%*d]", -4, 9), "[9   ]");

    double values[] = {0.0, -0.0, 1.0, 0.1, 3.14159265358979, 1e-7, 123456789.0, 1e300, -2.5e-300, 1.0 / 3};
    const char *formats[] = {"%g",     "%.8g",     "%e",  "%f", "%E",    "%G", "%.2f",
                             "%10.3f", "%-12.4e|", "%+g", "%a", "%.17g", "%#g"};
    for (double v : values)
        for (const char *f : formats)
            EXPECT_EQ(fmtBoth(f, v), cfmt(f, v)) << f << " " << v;
    EXPECT_EQ(fmtBoth("%Lg", 1.5L), "1.5");
    EXPECT_EQ(fmtBoth("%g %f", HUGE_VAL, -HUGE_VAL), cfmt("%g %f", HUGE_VAL, -HUGE_VAL));

    int local = 0;
    EXPECT_EQ(fmtBoth("%p", static_cast<void *>(&local)), cfmt("%p", static_cast<void *>(&local)));
    EXPECT_EQ(fmtBoth("%p", static_cast<void *>(nullptr)), cfmt("%p", static_cast<void *>(nullptr)));
    EXPECT_EQ(fmtBoth("%c%c%c", 'a', 'B', '!'), "aB!");
    EXPECT_EQ(fmtBoth("100%% %d%%", 5), "100% 5%");
}

TEST_F(RtStringTest, FormatsStringsAndObjects) {
    EXPECT_EQ(fmtBoth("<%s>", "plain"), "<plain>");
    EXPECT_EQ(fmtBoth("<%.*s>", 3, "abcdef"), "<abc>");
    char unterminated[4] = {'w', 'x', 'y', 'z'}; // %.*s may be handed an array without a NUL
    EXPECT_EQ(fmtBoth("%.*s", 4, unterminated), "wxyz");
    EXPECT_EQ(fmtBoth("[%6s|%-6s|%.2s]", "ab", "cd", "efg"), "[    ab|cd    |ef]");
    EXPECT_EQ(fmtBoth("%s", "gr\xc3\xbc\xc3\x9f \xe2\x82\xac"), "gr\xc3\xbc\xc3\x9f \xe2\x82\xac");
    EXPECT_EQ(fmtBoth("%.3s", "\xc3\xa9\xc3\xa9"), "\xc3\xa9") << "precision never cuts a UTF-8 sequence";
    EXPECT_EQ(fmtBoth("%s", static_cast<const char *>(nullptr)), "(null)");

    RtStringRef name = make("name");
    RtStringRef wide = make("\xe2\x82\xac\xf0\x9f\x98\x80"); // euro sign and an emoji
    EXPECT_EQ(fmtBoth("<%@>%d</%@>", name, 5, name), "<name>5</name>");
    EXPECT_EQ(fmtBoth("%@", static_cast<RtTypeRef>(nullptr)), "(null)");
    EXPECT_EQ(fmtBoth("[%@|%8@|%-6@|%.2@]", wide, name, name, name),
              "[\xe2\x82\xac\xf0\x9f\x98\x80|    name|name  |na]");
    RtMutableStringRef m = own(RtStringCreateMutableCopy(nullptr, 0, name));
    RtStringAppendCString(m, "!", kRtStringEncodingASCII);
    EXPECT_EQ(fmtBoth("%@", m), "name!");

    // Other values print their formatting description.
    const void *items[] = {name};
    RtArrayRef array = own(RtArrayCreate(nullptr, items, 1, &kRtTypeArrayCallBacks));
    EXPECT_EQ(fmtBoth("<int>%@</int>", own(num<int>(kRtNumberIntType, 7))), "<int>7</int>");
    EXPECT_EQ(fmtBoth("%@", array), formatted(array));

    const RtUniChar units[] = {'h', 0xE9, 0x4E16, 0};
    EXPECT_EQ(fmtBoth("%S|%C|%C", units, RtUniChar(0x263A), RtUniChar('x')),
              "h\xc3\xa9\xe4\xb8\x96|\xe2\x98\xba|x");

    // A non-ASCII format, a '%' that starts no conversion, and a trailing lone '%'.
    EXPECT_EQ(fmtBoth("\xc3\xa9t\xc3\xa9 %d \xe2\x82\xac", 3), "\xc3\xa9t\xc3\xa9 3 \xe2\x82\xac");
    EXPECT_EQ(fmtBoth("50%k %d%", 1), "50%k 1%");

    // Long results leave the stack buffer.
    std::string big(5000, 'q');
    EXPECT_EQ(fmtBoth("%s-%s", big.c_str(), big.c_str()), big + "-" + big);
    EXPECT_EQ(fmtBoth("%600d", 1), cfmt("%600d", 1));

    RtStringAppendFormat(m, nullptr, RTSTR(" %d %@"), 12, wide);
    EXPECT_EQ(text(m), "name! 12 \xe2\x82\xac\xf0\x9f\x98\x80");
    RtStringAppendFormat(m, nullptr, RTSTR("%@"), m); // appending the string to itself
    EXPECT_EQ(text(m), "name! 12 \xe2\x82\xac\xf0\x9f\x98\x80name! 12 \xe2\x82\xac\xf0\x9f\x98\x80");
    EXPECT_EQ(RtStringCreateWithFormat(nullptr, nullptr, nullptr), nullptr);

    // Into bytes: too small a buffer gets the length needed; a lone surrogate cannot be UTF-8.
    char small[4];
    EXPECT_EQ(formatUTF8(small, sizeof small, RTSTR("<s>%@</s>"), wide), 14);
    const RtUniChar lone[] = {'a', 0xD800, 'b'};
    EXPECT_EQ(formatUTF8(nullptr, 0, RTSTR("%@"), own(RtStringCreateWithCharacters(nullptr, lone, 3))), -1);
}

TEST_F(RtStringTest, ConstantsAreUniquedImmortalAndFoundAgain) {
    RtStringRef a = RTSTR("HVUniqueKey");
    EXPECT_EQ(a, __RtStringMakeConstantString("HVUniqueKey"));
    EXPECT_EQ(RTSTR("\xc3\xa9l\xc3\xa8ve"), __RtStringMakeConstantString("\xc3\xa9l\xc3\xa8ve"));
    EXPECT_NE(a, RTSTR("HVOtherKey"));
    RtRelease(a);
    RtRelease(a);
    EXPECT_GT(RtGetRetainCount(a), 1000000);
    EXPECT_EQ(text(a), "HVUniqueKey");

    RtStringRef fresh = make("HVUniqueKey");
    EXPECT_NE(fresh, a) << "strings made at run time are never the constant";
    EXPECT_TRUE(RtEqual(fresh, a));
    EXPECT_EQ(RtHash(fresh), RtHash(a));
    EXPECT_EQ(RtStringGetRegisteredConstant(fresh), a);
    EXPECT_EQ(RtStringGetRegisteredConstant(a), a);
    EXPECT_EQ(RtStringGetRegisteredConstant(make("never made as a constant")), nullptr);
    EXPECT_EQ(RtStringGetRegisteredConstant(make("\xc3\xa9l\xc3\xa8ve")), RTSTR("\xc3\xa9l\xc3\xa8ve"));

    // Many threads racing to make the same constants all get the same objects.
    std::vector<RtStringRef> seen(8 * 50);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++)
        threads.emplace_back([t, &seen] {
            for (int i = 0; i < 50; i++)
                seen[size_t(t * 50 + i)] =
                    __RtStringMakeConstantString(("race-" + std::to_string(i)).c_str());
        });
    for (auto &th : threads)
        th.join();
    for (size_t i = 50; i < seen.size(); i++)
        EXPECT_EQ(seen[i], seen[i % 50]);
}

TEST_F(RtStringTest, EqualityHashAndDescriptionsIgnoreStorage) {
    // The same text stored as Latin-1 bytes and as UTF-16 units (a mutable string that once held
    // a non-Latin-1 character stays 16-bit).
    RtStringRef narrow = make("caf\xc3\xa9 au lait, long enough for several words");
    RtMutableStringRef wide = own(RtStringCreateMutable(nullptr, 0));
    const RtUniChar euro = 0x20AC;
    RtStringAppendCharacters(wide, &euro, 1);
    RtStringAppend(wide, narrow);
    RtStringDelete(wide, RtRangeMake(0, 1));
    EXPECT_TRUE(RtEqual(narrow, wide));
    EXPECT_EQ(RtHash(narrow), RtHash(wide));
    RtStringRef copy = own(RtStringCreateCopy(nullptr, wide));
    EXPECT_TRUE(RtEqual(copy, narrow));
    EXPECT_EQ(RtHash(copy), RtHash(narrow));

    RtStringRef other = make("caf\xc3\xa9 au lait, long enough for several wordz");
    EXPECT_FALSE(RtEqual(narrow, other));
    EXPECT_NE(RtHash(narrow), RtHash(other));
    EXPECT_FALSE(RtEqual(narrow, nullptr));
    EXPECT_EQ(own(RtStringCreateCopy(nullptr, narrow)), narrow) << "copying an immutable string shares it";

    RtStringRef quoted = make("say \"hi\"\n");
    EXPECT_EQ(formatted(quoted), "say \"hi\"\n");
    EXPECT_EQ(description(quoted), "\"say \\\"hi\\\"\\n\"");
    EXPECT_EQ(formatted(nullptr), "(null)");
}

TEST_F(RtStringTest, IndexesInUTF16UnitsAndHandsOutCStrings) {
    // "a" U+1F600 "b" U+00E9: five UTF-16 units.
    RtStringRef s = make("a\xf0\x9f\x98\x80"
                         "b\xc3\xa9");
    EXPECT_EQ(RtStringGetLength(s), 5);
    EXPECT_EQ(RtStringGetCharacterAtIndex(s, 2), 0xDE00);
    EXPECT_EQ(RtStringGetCharacterAtIndex(s, 4), 0xE9);
    EXPECT_EQ(RtStringGetCharacterAtIndex(s, 5), 0);
    RtUniChar units[3] = {};
    RtStringGetCharacters(s, RtRangeMake(1, 3), units);
    EXPECT_EQ(std::vector<RtUniChar>(units, units + 3), (std::vector<RtUniChar>{0xD83D, 0xDE00, 'b'}));
    RtStringRef emoji = own(RtStringCreateWithSubstring(nullptr, s, RtRangeMake(1, 2)));
    EXPECT_EQ(text(emoji), "\xf0\x9f\x98\x80");
    EXPECT_EQ(RtStringCreateWithSubstring(nullptr, s, RtRangeMake(4, 2)), nullptr);
    EXPECT_EQ(RtStringFind(s, emoji, 0).location, 1);
    EXPECT_EQ(RtStringFind(s, RTSTR("b"), 0).location, 3);

    // A C string pointer only for text usable as it is stored.
    RtStringRef ascii = make("plain"), latin = make("caf\xc3\xa9");
    EXPECT_STREQ(RtStringGetCStringPtr(ascii, kRtStringEncodingUTF8), "plain");
    EXPECT_STREQ(RtStringGetCStringPtr(ascii, kRtStringEncodingISOLatin1), "plain");
    EXPECT_EQ(RtStringGetCStringPtr(ascii, kRtStringEncodingUTF16), nullptr);
    EXPECT_EQ(RtStringGetCStringPtr(latin, kRtStringEncodingUTF8), nullptr);
    EXPECT_STREQ(RtStringGetCStringPtr(latin, kRtStringEncodingISOLatin1), "caf\xe9");
    EXPECT_EQ(RtStringGetCStringPtr(nullptr, kRtStringEncodingUTF8), nullptr);
    char buf[16];
    EXPECT_FALSE(RtStringGetCString(ascii, buf, 4, kRtStringEncodingUTF8)) << "does not fit";
    EXPECT_TRUE(RtStringGetCString(latin, buf, sizeof buf, kRtStringEncodingUTF8));
    EXPECT_STREQ(buf, "caf\xc3\xa9");
    EXPECT_FALSE(RtStringGetCString(latin, buf, sizeof buf, kRtStringEncodingASCII)) << "no loss byte";

    static const char kStatic[] = "no copy made";
    RtStringRef wrapped =
        own(RtStringCreateWithCStringNoCopy(nullptr, kStatic, kRtStringEncodingASCII, kRtAllocatorNull));
    EXPECT_EQ(RtStringGetCStringPtr(wrapped, kRtStringEncodingUTF8), kStatic);
    char *owned = strdup("freed with the string"); // ASan reports a leak if it is not
    EXPECT_EQ(take(RtStringCreateWithCStringNoCopy(nullptr, owned, kRtStringEncodingUTF8, nullptr)),
              "freed with the string");
}

TEST_F(RtStringTest, RejectsBadArgumentsWithoutCrashing) {
    EXPECT_EQ(RtStringCreateWithCString(nullptr, nullptr, kRtStringEncodingUTF8), nullptr);
    EXPECT_EQ(RtStringCreateWithCString(nullptr, "x", 0x12345), nullptr);
    // Truncated, surrogate, overlong and beyond U+10FFFF.
    for (const char *bad : {"\xc3(", "\xed\xa0\x80", "\xc0\xaf", "\xf4\x90\x80\x80"})
        EXPECT_EQ(RtStringCreateWithCString(nullptr, bad, kRtStringEncodingUTF8), nullptr) << bad;
    EXPECT_EQ(RtStringGetLength(nullptr), 0);
    EXPECT_EQ(RtStringCreateWithBytes(nullptr, nullptr, 3, kRtStringEncodingUTF8, false), nullptr);
    EXPECT_EQ(RtStringCreateFromExternalRepresentation(nullptr, nullptr, kRtStringEncodingUTF8), nullptr);
    RtStringRef s = make("immutable");
    RtStringAppend(const_cast<RtMutableStringRef>(s), s); // an immutable string is never changed
    EXPECT_EQ(text(s), "immutable");
    RtStringDelete(nullptr, RtRangeMake(0, 1));
    RtStringAppendFormat(nullptr, nullptr, RTSTR("%d"), 1);
}

// The bytes of s in encoding (whole string), or "<FAIL>" when not every character converted.
std::string bytesOf(RtStringRef s, RtStringEncoding encoding, uint8_t lossByte, bool external = false) {
    RtIndex needed = 0;
    RtRange all = RtRangeMake(0, RtStringGetLength(s));
    RtIndex measured = RtStringGetBytes(s, all, encoding, lossByte, external, nullptr, 0, &needed);
    std::string out(size_t(needed), '\0');
    RtIndex used = 0;
    RtIndex converted = RtStringGetBytes(s, all, encoding, lossByte, external,
                                         reinterpret_cast<uint8_t *>(&out[0]), needed, &used);
    EXPECT_EQ(measured, converted);
    EXPECT_EQ(used, needed);
    bool whole = converted == all.length;
    if (external) { // the data form says the same
        EXPECT_EQ(takeData(RtStringCreateExternalRepresentation(nullptr, s, encoding, lossByte)),
                  whole ? out : "");
    }
    return whole ? out : "<FAIL>";
}

RtStringRef fromBytes(const std::string &bytes, RtStringEncoding encoding, bool external = false) {
    return RtStringCreateWithBytes(nullptr, reinterpret_cast<const uint8_t *>(bytes.data()),
                                   RtIndex(bytes.size()), encoding, external);
}

TEST_F(RtStringTest, ConvertsToBytesWithAndWithoutLossBytes) {
    // "Grüß € 😀!": Latin-1 letters, a euro sign (in windows-1252 and Latin 9, not Latin 1)
    // and a character outside the BMP.
    RtStringRef s = make("Gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80!");
    const struct {
        RtStringEncoding encoding;
        uint8_t lossByte;
        const char *bytes; // one loss byte per character
    } rows[] = {{kRtStringEncodingUTF8, 0, "Gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80!"},
                {kRtStringEncodingISOLatin1, 0, "<FAIL>"},
                {kRtStringEncodingISOLatin1, '?', "Gr\xfc\xdf ? ?!"},
                {kRtStringEncodingASCII, '.', "Gr.. . .!"},
                {kRtStringEncodingDefault8Bit, '.', "Gr\xfc\xdf . .!"},
                {kRtStringEncodingWindowsLatin1, '?', "Gr\xfc\xdf \x80 ?!"},
                {0x020F /* ISO-8859-15 */, '?', "Gr\xfc\xdf \xa4 ?!"}};
    for (const auto &row : rows)
        EXPECT_EQ(bytesOf(s, row.encoding, row.lossByte), row.bytes)
            << row.encoding << " " << int(row.lossByte);

    // Without a loss byte the conversion stops before the first unrepresentable character.
    uint8_t buf[64];
    RtIndex used = 0;
    RtRange all = RtRangeMake(0, RtStringGetLength(s));
    EXPECT_EQ(RtStringGetBytes(s, all, kRtStringEncodingISOLatin1, 0, false, buf, sizeof buf, &used), 5);
    EXPECT_EQ(used, 5);
    // A buffer too small takes whole characters only.
    EXPECT_EQ(RtStringGetBytes(s, RtRangeMake(0, 4), kRtStringEncodingUTF8, 0, false, buf, 3, &used), 2);
    EXPECT_EQ(used, 2);

    // UTF-16 and UTF-32: the unmarked forms carry a byte-order mark as external representation.
    RtStringRef zz = make("Z\xf0\x9f\x98\x80");
    EXPECT_EQ(bytesOf(zz, kRtStringEncodingUTF16BE, 0), std::string("\0Z\xd8\x3d\xde\x00", 6));
    EXPECT_EQ(bytesOf(zz, kRtStringEncodingUTF16LE, 0), std::string("Z\x00\x3d\xd8\x00\xde", 6));
    EXPECT_EQ(bytesOf(zz, kRtStringEncodingUTF16, 0, true), std::string("\xff\xfeZ\x00\x3d\xd8\x00\xde", 8));
    EXPECT_EQ(bytesOf(zz, kRtStringEncodingUTF32BE, 0), std::string("\0\0\0Z\0\x01\xf6\x00", 8));
    EXPECT_EQ(bytesOf(zz, kRtStringEncodingUTF32, 0, true).substr(0, 4), std::string("\xff\xfe\0\0", 4));

    // A long 16-bit string with ASCII runs and characters of every UTF-8 length.
    std::vector<RtUniChar> units;
    std::string expected;
    for (int i = 0; i < 300; i++) {
        units.insert(units.end(), {'a', 'b', 0xE9, 0x65E5, 0xD83D, 0xDE00});
        expected += "ab\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80";
    }
    RtStringRef longWide = own(RtStringCreateWithCharacters(nullptr, units.data(), RtIndex(units.size())));
    EXPECT_EQ(bytesOf(longWide, kRtStringEncodingUTF8, 0), expected);

    // A lone surrogate is not UTF-8.
    const RtUniChar lone[] = {'x', 0xD800, 'y'};
    RtStringRef broken = own(RtStringCreateWithCharacters(nullptr, lone, 3));
    EXPECT_EQ(bytesOf(broken, kRtStringEncodingUTF8, 0), "<FAIL>");
    EXPECT_EQ(bytesOf(broken, kRtStringEncodingUTF8, '?'), "x?y");
}

TEST_F(RtStringTest, DecodesBytesInEveryEncoding) {
    struct Case {
        std::string bytes;
        RtStringEncoding encoding;
        bool external;
        const char *utf8; // nullptr: the bytes are invalid
    };
    const Case cases[] = {
        {"plain", kRtStringEncodingASCII, false, "plain"},
        {"caf\xe9", kRtStringEncodingASCII, false, nullptr},
        {"caf\xe9", kRtStringEncodingISOLatin1, false, "caf\xc3\xa9"},
        {"caf\xe9", kRtStringEncodingDefault8Bit, false, "caf\xc3\xa9"},
        {"\x80 \x9f", kRtStringEncodingWindowsLatin1, false, "\xe2\x82\xac \xc5\xb8"},
        {"\xe0\xe1", kRtStringEncodingISOLatinCyrillic, false, "\xd1\x80\xd1\x81"},
        {"\xa5", kRtStringEncodingISOLatin3, false, nullptr}, // a hole in the table
        {"\xef\xbb\xbfhi", kRtStringEncodingUTF8, true, "hi"},
        {"\xef\xbb\xbfhi", kRtStringEncodingUTF8, false, "\xef\xbb\xbfhi"},
        {std::string("\xfe\xff\0h\0i", 6), kRtStringEncodingUTF16, true, "hi"},
        {std::string("\xff\xfeh\0i\0", 6), kRtStringEncodingUTF16, false, "hi"},
        {std::string("\0h\0i", 4), kRtStringEncodingUTF16, true, "hi"}, // no mark: big-endian
        {std::string("h\0i\0", 4), kRtStringEncodingUTF16LE, false, "hi"},
        {std::string("h\0i", 3), kRtStringEncodingUTF16LE, false, nullptr},
        {std::string("\xd8\x3d\xde\x00", 4), kRtStringEncodingUTF16BE, false, "\xf0\x9f\x98\x80"},
        {std::string("\0\x01\xf6\0", 4), kRtStringEncodingUTF32BE, false, "\xf0\x9f\x98\x80"},
        {std::string("\0\0\xd8\0", 4), kRtStringEncodingUTF32BE, false, nullptr},
        {std::string("\xff\xfe\0\0h\0\0\0", 8), kRtStringEncodingUTF32, true, "h"},
        {"", kRtStringEncodingUTF8, false, ""},
    };
    for (const Case &c : cases) {
        RtStringRef s = own(fromBytes(c.bytes, c.encoding, c.external));
        if (!c.utf8) {
            EXPECT_EQ(s, nullptr) << c.encoding;
        } else {
            EXPECT_EQ(text(s), c.utf8) << c.encoding;
        }
    }

    // Round trips through every external representation, as bytes and as data.
    RtStringRef original = make("\xc3\xa9t\xc3\xa9 \xf0\x9f\x98\x80 \xe2\x82\xac");
    for (RtStringEncoding e : {kRtStringEncodingUTF8, kRtStringEncodingUTF16, kRtStringEncodingUTF16BE,
                               kRtStringEncodingUTF16LE, kRtStringEncodingUTF32, kRtStringEncodingUTF32LE}) {
        EXPECT_TRUE(RtEqual(own(fromBytes(bytesOf(original, e, 0, true), e, true)), original)) << e;
        RtDataRef data = own(RtStringCreateExternalRepresentation(nullptr, original, e, 0));
        EXPECT_TRUE(RtEqual(own(RtStringCreateFromExternalRepresentation(nullptr, data, e)), original)) << e;
    }
}

TEST_F(RtStringTest, MapsIANANamesBothWays) {
    const struct {
        const char *name;
        RtStringEncoding encoding;
        bool canonical; // the name the encoding maps back to
    } names[] = {
        {"UTF-8", kRtStringEncodingUTF8, true},
        {"utf8", kRtStringEncodingUTF8, false},
        {"latin1", kRtStringEncodingISOLatin1, false},
        {"US-ASCII", kRtStringEncodingASCII, true},
        {"windows-1252", kRtStringEncodingWindowsLatin1, true},
        {"cp1252", kRtStringEncodingWindowsLatin1, false},
        {"utf-16le", kRtStringEncodingUTF16LE, false},
        {"bogus", kRtStringEncodingInvalidId, false},
        {"", kRtStringEncodingInvalidId, false},
    };
    for (const auto &n : names) {
        EXPECT_EQ(RtStringConvertIANACharSetNameToEncoding(make(n.name)), n.encoding) << n.name;
        if (n.canonical) { // constants: not released
            EXPECT_EQ(text(RtStringConvertEncodingToIANACharSetName(n.encoding)), n.name);
        }
    }
    EXPECT_EQ(RtStringConvertEncodingToIANACharSetName(kRtStringEncodingInvalidId), nullptr);
    EXPECT_EQ(RtStringConvertIANACharSetNameToEncoding(nullptr), kRtStringEncodingInvalidId);
    EXPECT_TRUE(RtStringIsEncodingAvailable(kRtStringEncodingISOLatinGreek));
    EXPECT_FALSE(RtStringIsEncodingAvailable(0x7777));
}

TEST_F(RtStringTest, ComparesAndHashesWithOptions) {
    RtStringRef lower = make("content-type"), upper = make("Content-TYPE"), other = make("content-length");
    EXPECT_EQ(RtStringCompare(lower, upper, 0), kRtCompareGreaterThan);
    EXPECT_EQ(RtStringCompare(lower, upper, kRtCompareCaseInsensitive), kRtCompareEqualTo);
    EXPECT_EQ(RtStringCompare(other, lower, kRtCompareCaseInsensitive), kRtCompareLessThan);
    EXPECT_EQ(RtStringCompare(RTSTR("ab"), RTSTR("abc"), 0), kRtCompareLessThan);
    EXPECT_EQ(RtStringCompare(nullptr, lower, 0), kRtCompareLessThan);
    EXPECT_NE(RtStringHashCaseInsensitive(make("id1")), RtStringHashCaseInsensitive(make("id2")));
    EXPECT_EQ(0u, RtStringHashCaseInsensitive(nullptr));

    // Equal ignoring case hashes equal ignoring case: ASCII, Latin-1 and wide storage, a
    // character outside the BMP, the Kelvin sign and final sigma (folding to "k" and "σ").
    const char *pairs[][2] = {
        {"Id12", "iD12"},
        {"Caf\xC3\xA9", "CAF\xC3\x89"},
        {"\xCE\xA3\xCE\x9F\xCE\xA6 \xC3\x89t\xC3\xA9", "\xCF\x83\xCE\xBF\xCF\x86 \xC3\xA9T\xC3\x89"},
        {"x\xF0\x90\x90\x80y", "X\xF0\x90\x90\xA8Y"},
        {"\xE2\x84\xAA", "k"},
        {"\xCF\x82", "\xCF\x83"}};
    for (const auto &pair : pairs) {
        RtStringRef a = make(pair[0]), b = make(pair[1]);
        EXPECT_EQ(kRtCompareEqualTo, RtStringCompare(a, b, kRtCompareCaseInsensitive)) << pair[0];
        EXPECT_NE(kRtCompareEqualTo, RtStringCompare(a, b, 0)) << pair[0];
        EXPECT_EQ(RtStringHashCaseInsensitive(a), RtStringHashCaseInsensitive(b)) << pair[0];
    }

    RtStringRef v9 = make("file9.txt"), v10 = make("file10.txt"), v010 = make("file010.txt");
    EXPECT_EQ(RtStringCompare(v9, v10, 0), kRtCompareGreaterThan);
    EXPECT_EQ(RtStringCompare(v9, v10, kRtCompareNumerically), kRtCompareLessThan);
    EXPECT_EQ(RtStringCompare(v10, v010, kRtCompareNumerically), kRtCompareEqualTo);

    // A range of the first string only.
    EXPECT_EQ(RtStringCompareWithOptions(lower, RTSTR("TYPE"), RtRangeMake(8, 4), kRtCompareCaseInsensitive),
              kRtCompareEqualTo);
}

TEST_F(RtStringTest, FindsWithOptionsAndTestsAffixes) {
    RtStringRef s = make("text/XML; charset=\"utf-8\"; CHARSET=x");
    const RtOptionFlags kCase = kRtCompareCaseInsensitive, kBack = kRtCompareBackwards,
                        kAnchor = kRtCompareAnchored;
    const struct {
        const char *pattern;
        RtOptionFlags options;
        RtIndex location;
    } finds[] = {{"charset=", 0, 10},
                 {"charset=", kCase | kBack, 27},
                 {"xml", 0, kRtNotFound},
                 {"xml", kCase, 5},
                 {"TEXT", kCase | kAnchor, 0},
                 {"XML", kAnchor, kRtNotFound},
                 {"=X", kAnchor | kBack | kCase, 34},
                 {"", 0, kRtNotFound},
                 {"\xe2\x82\xac", 0, kRtNotFound}};
    for (const auto &f : finds) {
        RtRange r = RtStringFind(s, make(f.pattern), f.options);
        EXPECT_EQ(r.location, f.location) << f.pattern << " " << f.options;
        EXPECT_EQ(r.length, f.location == kRtNotFound ? 0 : RtIndex(std::strlen(f.pattern))) << f.pattern;
    }

    RtRange found;
    EXPECT_TRUE(RtStringFindWithOptions(s, RTSTR("utf"), RtRangeMake(1, 24), 0, &found));
    EXPECT_EQ(found.location, 19);
    EXPECT_FALSE(RtStringFindWithOptions(s, RTSTR("utf"), RtRangeMake(30, 50), 0, &found)) << "invalid range";

    EXPECT_TRUE(RtStringHasPrefix(s, RTSTR("text/")));
    EXPECT_FALSE(RtStringHasPrefix(s, RTSTR("TEXT/")));
    EXPECT_TRUE(RtStringHasSuffix(s, RTSTR("=x")));
    EXPECT_FALSE(RtStringHasSuffix(RTSTR("x"), RTSTR("xx")));

    // Searching 16-bit text for 8-bit patterns and back.
    RtStringRef wide = make("\xe2\x82\xac price: 10 \xe2\x82\xac");
    EXPECT_EQ(RtStringFind(wide, RTSTR("PRICE"), kRtCompareCaseInsensitive).location, 2);
    EXPECT_EQ(RtStringFind(wide, RTSTR("\xe2\x82\xac"), kRtCompareBackwards).location, 12);
}

TEST_F(RtStringTest, FindsAndReplacesWithinARange) {
    RtMutableStringRef m = own(RtStringCreateMutableCopy(nullptr, 0, RTSTR("a&b&c&&d")));
    auto all = [&] { return RtRangeMake(0, RtStringGetLength(m)); };
    EXPECT_EQ(RtStringFindAndReplace(m, RTSTR("&"), RTSTR("&amp;"), all(), 0), 4);
    EXPECT_EQ(text(m), "a&amp;b&amp;c&amp;&amp;d");
    EXPECT_EQ(RtStringFindAndReplace(m, RTSTR("&AMP;"), RTSTR("+"), all(), kRtCompareCaseInsensitive), 4);
    EXPECT_EQ(text(m), "a+b+c++d");
    // Only inside the range, and with an empty replacement.
    EXPECT_EQ(RtStringFindAndReplace(m, RTSTR("+"), RTSTR(""), RtRangeMake(2, 4), 0), 2);
    EXPECT_EQ(text(m), "a+bc+d");
    EXPECT_EQ(RtStringFindAndReplace(m, RTSTR("+"), RTSTR("-"), all(), kRtCompareAnchored), 0);
    EXPECT_EQ(
        RtStringFindAndReplace(m, RTSTR("+d"), RTSTR("!"), all(), kRtCompareAnchored | kRtCompareBackwards),
        1);
    EXPECT_EQ(text(m), "a+bc!");
    EXPECT_EQ(RtStringFindAndReplace(m, RTSTR("zz"), RTSTR("y"), RtRangeMake(0, 5), 0), 0);
    EXPECT_EQ(RtStringFindAndReplace(m, RTSTR("a"), RTSTR("y"), RtRangeMake(3, 9), 0), 0) << "invalid range";
    // Overlapping candidates are replaced left to right; a wider replacement widens the string.
    RtStringReplaceAll(m, RTSTR("aaaa"));
    EXPECT_EQ(RtStringFindAndReplace(m, RTSTR("aa"), RTSTR("\xe2\x82\xac"), RtRangeMake(0, 4), 0), 2);
    EXPECT_EQ(text(m), "\xe2\x82\xac\xe2\x82\xac");
}

TEST_F(RtStringTest, EditsMutableStrings) {
    RtMutableStringRef m = own(RtStringCreateMutableCopy(nullptr, 0, RTSTR("  hello")));
    RtStringAppend(m, RTSTR(" world \t\r\n"));
    RtStringTrimWhitespace(m);
    RtStringInsert(m, 5, RTSTR(","));
    RtStringReplace(m, RtRangeMake(0, 1), RTSTR("J"));
    RtStringDelete(m, RtRangeMake(6, 6));
    RtStringInsert(m, 99, RTSTR("ignored"));
    EXPECT_EQ(text(m), "Jello,");
    RtStringAppendCString(m, " \xc3\xa0 la \xc3\x9f", kRtStringEncodingUTF8);
    RtStringUppercase(m);
    EXPECT_EQ(text(m), "JELLO, \xc3\x80 LA SS") << "full case mapping can lengthen the text";
    RtStringLowercase(m);
    RtStringAppendCString(m, "\xa0", kRtStringEncodingISOLatin1); // no-break space
    RtStringTrimWhitespace(m);
    EXPECT_EQ(text(m), "jello, \xc3\xa0 la ss");
    RtStringReplaceAll(m, RTSTR(" \t "));
    RtStringTrimWhitespace(m);
    EXPECT_EQ(RtStringGetLength(m), 0);
}

TEST_F(RtStringTest, ReadsNumbersAndSeparatesIntoArrays) {
    const struct {
        const char *in;
        int32_t i;
        double d;
    } numbers[] = {
        {"42", 42, 42.0},
        {"  -17xyz", -17, -17.0},
        {"+3.75", 3, 3.75},
        {"1e3", 1, 1000.0},
        {"", 0, 0.0},
        {"\t.5", 0, 0.5},
        {"99999999999", INT32_MAX, 99999999999.0},
        {"-99999999999", INT32_MIN, -99999999999.0},
    };
    for (const auto &c : numbers) {
        EXPECT_EQ(RtStringGetIntValue(make(c.in)), c.i) << c.in;
        EXPECT_DOUBLE_EQ(RtStringGetDoubleValue(make(c.in)), c.d) << c.in;
    }
    EXPECT_EQ(RtStringGetIntValue(nullptr), 0);

    const struct {
        const char *in;
        const char *separator;
        std::vector<std::string> pieces;
    } cases[] = {
        {"a,b,,c", ",", {"a", "b", "", "c"}},
        {",edge,", ",", {"", "edge", ""}},
        {"", ",", {""}},
        {"\xe2\x82\xac::\xf0\x9f\x98\x80::z", "::", {"\xe2\x82\xac", "\xf0\x9f\x98\x80", "z"}},
    };
    for (const auto &c : cases) {
        RtArrayRef pieces =
            own(RtStringCreateArrayBySeparatingStrings(nullptr, make(c.in), make(c.separator)));
        ASSERT_NE(pieces, nullptr);
        std::vector<std::string> got;
        for (RtIndex i = 0; i < RtArrayGetCount(pieces); i++)
            got.push_back(text(static_cast<RtStringRef>(RtArrayGetValueAtIndex(pieces, i))));
        EXPECT_EQ(got, c.pieces) << c.in;
    }
    EXPECT_EQ(RtStringCreateArrayBySeparatingStrings(nullptr, nullptr, RTSTR(",")), nullptr);
}

} // namespace
