// Base64: line lengths and tab indentation of the writer, junk, padding and "<" in the reader.
#include "HalvoUtilsTestSupport.h"

using namespace hvutils_test;

namespace {

class Base64Test : public UtilsTest {};

std::string encode(const std::string &bytes, int indent) {
    Owned<RtDataRef> data(newData(bytes));
    Owned<RtStringRef> s(encodeBinaryData(data, indent));
    return text(s.get());
}

std::string decode(const std::string &textIn) {
    Owned<RtStringRef> s(newString(textIn));
    Owned<RtDataRef> d(decodeBinaryData(s));
    return bytesOf(d);
}

std::string pattern(size_t n) {
    std::string s;
    for (size_t i = 0; i < n; i++)
        s.push_back(static_cast<char>((i * 37 + 11) & 0xFF));
    return s;
}

TEST_F(Base64Test, WriterLinesFollowTheIndent) {
    EXPECT_EQ(encode("M", 0), "TQ==");
    EXPECT_EQ(encode(std::string("\xFF\xFE\x00", 3), 0), "//4A");
    // Indent 8: lines of 44 characters behind four tabs; a partial last line has no "\n".
    std::string one = encode(pattern(33), 8), two = encode(pattern(34), 8);
    EXPECT_EQ(one, "\t\t\t\t" + encode(pattern(33), 0) + "\n");
    EXPECT_EQ(two, one + "\t\t\t\t" + encode(pattern(34), 0).substr(44));
    // Indent 0: 76 characters, no tabs; a full last line ends with "\n".
    EXPECT_EQ(encode(pattern(57), 0).size(), 77u);
    EXPECT_EQ(encode(pattern(56), 0).size(), 76u);
    // Odd indents: 3 gives one tab and 64 characters; beyond 8 counts as 8; below 0 as 0.
    EXPECT_EQ(encode(pattern(48), 3), "\t" + encode(pattern(48), 0).substr(0, 64) + "\n");
    EXPECT_EQ(encode(pattern(100), 20), encode(pattern(100), 8));
    EXPECT_EQ(encode(pattern(100), -4), encode(pattern(100), 0));

    for (size_t n : {0u, 1u, 2u, 3u, 32u, 33u, 34u, 56u, 57u, 58u, 1000u, 4099u})
        for (int indent : {0, 1, 5, 8})
            EXPECT_EQ(decode(encode(pattern(n), indent)), pattern(n)) << n << " bytes at indent " << indent;
}

TEST_F(Base64Test, ReaderSkipsJunkAndStopsAtMarkup) {
    const std::pair<const char *, std::string> cases[] = {
        {"TW Fu\n", "Man"},
        {"TWE=", "Ma"},
        {"TWFu<x>TWFu", "Man"},
        {"TWF", ""}, // an incomplete group is dropped
        {"T*W!F#u\x7F", "Man"},
        {"<TWFu", ""},
        {"TQ= =", "M"}, // white space keeps the padding count, any other byte resets it
        {"TQ=*=", std::string("M\0", 2)},
        {"T=Fu", std::string("\x4C\x01\x6E", 3)}, // "=" counts as a zero digit wherever it stands
    };
    for (const auto &c : cases)
        EXPECT_EQ(decode(c.first), c.second) << c.first;
    // Text that is not plain ASCII is refused.
    Owned<RtStringRef> accented(newString("TWFu\xC3\xA9"));
    Owned<RtDataRef> refused(decodeBinaryData(accented));
    EXPECT_EQ(refused.get(), nullptr);
    EXPECT_EQ(decodeBinaryData(nullptr), nullptr);
}

} // namespace
