// Bundles: the registry of libraries by identifier and their information dictionaries.
#include "RtValueTestSupport.h"

using namespace rttest;

namespace {

class RtBundleTest : public LeakChecked {};

TEST_F(RtBundleTest, RegistersOncePerIdentifier) {
    RtStringRef identifier = own(str("org.example.RtBundleTest"));
    EXPECT_EQ(RtBundleGetBundleWithIdentifier(identifier), nullptr);
    const void *keys[] = {kRtBundleVersionKey};
    const void *values[] = {RTSTR("2.5.1")};
    RtDictionaryRef info = own(RtDictionaryCreate(nullptr, keys, values, 1, &kRtTypeDictionaryKeyCallBacks,
                                                  &kRtTypeDictionaryValueCallBacks));
    RtBundleRef bundle = RtBundleRegister(identifier, info);
    fLive += 2; // the registry keeps the bundle and its information dictionary for good
    ASSERT_NE(bundle, nullptr);
    EXPECT_EQ(RtBundleRegister(identifier, nullptr), bundle) << "the first registration stays";
    EXPECT_EQ(RtBundleGetBundleWithIdentifier(RTSTR("org.example.RtBundleTest")), bundle);
    EXPECT_TRUE(RtEqual(RtBundleGetValueForInfoDictionaryKey(bundle, kRtBundleIdentifierKey), identifier));
    EXPECT_EQ(RtBundleGetValueForInfoDictionaryKey(bundle, RTSTR("Missing")), nullptr);
    EXPECT_EQ(RtDictionaryGetCount(RtBundleGetInfoDictionary(bundle)), 2);
    EXPECT_EQ(RtBundleGetInfoDictionary(nullptr), nullptr);
    EXPECT_EQ(RtBundleRegister(nullptr, info), nullptr);
    EXPECT_EQ(RtBundleGetValueForInfoDictionaryKey(nullptr, kRtBundleVersionKey), nullptr);
}

} // namespace
