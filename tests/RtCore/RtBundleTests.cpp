// Bundles: the registry of libraries by identifier and their information dictionaries.
#include <RtCore/RtCore.h>

#include <gtest/gtest.h>

namespace {

TEST(RtBundleTest, RegistersOncePerIdentifier) {
    RtStringRef identifier =
        RtStringCreateWithCString(nullptr, "org.example.RtBundleTest", kRtStringEncodingUTF8);
    EXPECT_EQ(RtBundleGetBundleWithIdentifier(identifier), nullptr);
    const void *keys[] = {kRtBundleVersionKey};
    const void *values[] = {RTSTR("2.5.1")};
    RtDictionaryRef info = RtDictionaryCreate(nullptr, keys, values, 1, &kRtTypeDictionaryKeyCallBacks,
                                              &kRtTypeDictionaryValueCallBacks);
    RtBundleRef bundle = RtBundleRegister(identifier, info);
    ASSERT_NE(bundle, nullptr);
    EXPECT_EQ(RtBundleRegister(identifier, nullptr), bundle) << "the first registration stays";
    EXPECT_EQ(RtBundleGetBundleWithIdentifier(RTSTR("org.example.RtBundleTest")), bundle);
    EXPECT_TRUE(RtEqual(RtBundleGetValueForInfoDictionaryKey(bundle, kRtBundleVersionKey), RTSTR("2.5.1")));
    EXPECT_TRUE(RtEqual(RtBundleGetValueForInfoDictionaryKey(bundle, kRtBundleIdentifierKey), identifier));
    EXPECT_EQ(RtBundleGetValueForInfoDictionaryKey(bundle, RTSTR("Missing")), nullptr);
    EXPECT_EQ(RtDictionaryGetCount(RtBundleGetInfoDictionary(bundle)), 2);
    EXPECT_EQ(RtBundleGetInfoDictionary(nullptr), nullptr);
    EXPECT_EQ(RtBundleRegister(nullptr, info), nullptr);
    EXPECT_EQ(RtBundleGetValueForInfoDictionaryKey(nullptr, kRtBundleVersionKey), nullptr);
    RtRelease(info);
    RtRelease(identifier);
}

} // namespace
