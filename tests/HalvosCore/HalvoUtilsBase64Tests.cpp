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

TEST_F(Base64Test, EncodesGroupsWithPadding) {
    EXPECT_EQ(encode("Man", 0), "TWFu");
    EXPECT_EQ(encode("M", 0), "TQ==");
    EXPECT_EQ(encode("Ma", 0), "TWE=");
    EXPECT_EQ(encode("", 0), "");
    EXPECT_EQ(encode(std::string("\xFF\xFE\x00", 3), 0), "//4A");
}

TEST_F(Base64Test, LineLengthAndTabsFollowTheIndent) {
    // Indent 8: lines of 44 characters behind four tabs.
    std::string one = encode(pattern(33), 8);
    ASSERT_EQ(one.size(), 4u + 44u + 1u);
    EXPECT_EQ(one.substr(0, 4), "\t\t\t\t");
    EXPECT_EQ(one.back(), '\n');
    std::string two = encode(pattern(34), 8);
    EXPECT_EQ(two.substr(0, one.size()), one);
    std::string tail = two.substr(one.size());
    ASSERT_EQ(tail.size(), 8u);
    EXPECT_EQ(tail.substr(0, 4), "\t\t\t\t");
    EXPECT_EQ(tail.substr(6), "==");

    // Indent 0: 76 characters, no tabs; a full last line ends with "\n", a partial one does not.
    std::string full = encode(pattern(57), 0);
    EXPECT_EQ(full.size(), 77u);
    EXPECT_EQ(full.find('\t'), std::string::npos);
    EXPECT_EQ(full.back(), '\n');
    std::string padded = encode(pattern(56), 0); // 76 characters, the last of them padding
    EXPECT_EQ(padded.size(), 76u);
    EXPECT_EQ(padded.back(), '=');

    // Odd indents: 3 gives one tab and 64 characters; beyond 8 counts as 8; below 0 as 0.
    std::string three = encode(pattern(48), 3);
    EXPECT_EQ(three, "\t" + encode(pattern(48), 0).substr(0, 64) + "\n");
    EXPECT_EQ(encode(pattern(100), 20), encode(pattern(100), 8));
    EXPECT_EQ(encode(pattern(100), -4), encode(pattern(100), 0));
}

TEST_F(Base64Test, RoundTripsAtEveryLengthAndIndent) {
    for (size_t n : {0u, 1u, 2u, 3u, 32u, 33u, 34u, 56u, 57u, 58u, 1000u, 4099u}) {
        for (int indent : {0, 1, 5, 8}) {
            std::string bytes = pattern(n);
            EXPECT_EQ(decode(encode(bytes, indent)), bytes) << n << " bytes at indent " << indent;
        }
    }
}

TEST_F(Base64Test, ReaderSkipsJunkAndStopsAtMarkup) {
    EXPECT_EQ(decode("TW Fu\n"), "Man");
    EXPECT_EQ(decode("TWE="), "Ma");
    EXPECT_EQ(decode("TQ=="), "M");
    EXPECT_EQ(decode("TWFu<x>TWFu"), "Man");
    EXPECT_EQ(decode("TWF"), ""); // an incomplete group is dropped
    EXPECT_EQ(decode("T*W!F#u\x7F"), "Man");
    EXPECT_EQ(decode(""), "");
    EXPECT_EQ(decode("<TWFu"), "");
    // White space keeps the padding count, any other byte resets it.
    EXPECT_EQ(decode("TQ= ="), "M");
    EXPECT_EQ(decode("TQ=*="), std::string("M\0", 2));
    // "=" counts as a zero digit wherever it stands.
    EXPECT_EQ(decode("T=Fu"), std::string("\x4C\x01\x6E", 3));
    // Text that is not plain ASCII is refused.
    Owned<RtStringRef> accented(newString("TWFu\xC3\xA9"));
    Owned<RtDataRef> refused(decodeBinaryData(accented));
    EXPECT_EQ(refused.get(), nullptr);
    EXPECT_EQ(decodeBinaryData(nullptr), nullptr);
}

} // namespace
