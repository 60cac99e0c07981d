// Case-insensitive hashing agrees with case-insensitive comparison.
#include <RtCore/RtCore.h>
#include <gtest/gtest.h>

namespace {

RtStringRef make(const char *utf8) { return RtStringCreateWithCString(nullptr, utf8, kRtStringEncodingUTF8); }

} // namespace

TEST(RtStringFoldHash, EqualIgnoringCaseHashesEqual) {
    // ASCII, Latin-1 storage, wide storage, a supplementary character, the Kelvin sign and
    // final sigma, which fold to "k" and "σ".
    const char *pairs[][2] = {{"Id12", "iD12"},
                              {"Caf\xC3\xA9", "CAF\xC3\x89"},
                              {"\xCE\xA3\xCE\xB1", "\xCF\x83\xCE\x91"},
                              {"x\xF0\x90\x90\x80y", "X\xF0\x90\x90\xA8Y"},
                              {"\xE2\x84\xAA", "k"},
                              {"\xCF\x82", "\xCF\x83"}};
    for (const auto &pair : pairs) {
        RtStringRef a = make(pair[0]), b = make(pair[1]);
        ASSERT_EQ(kRtCompareEqualTo, RtStringCompare(a, b, kRtCompareCaseInsensitive)) << pair[0];
        EXPECT_EQ(RtStringHashCaseInsensitive(a), RtStringHashCaseInsensitive(b)) << pair[0];
        RtRelease(a);
        RtRelease(b);
    }
    RtStringRef a = make("id1"), b = make("id2");
    EXPECT_NE(RtStringHashCaseInsensitive(a), RtStringHashCaseInsensitive(b));
    EXPECT_EQ(0u, RtStringHashCaseInsensitive(nullptr));
    RtRelease(a);
    RtRelease(b);
}
