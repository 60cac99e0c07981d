// Helpers shared by the value tests: readable text of strings and descriptions, and a fixture
// that fails a test which leaves runtime objects alive.
#pragma once

#include <RtCore/RtCore.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace rttest {

// The UTF-8 text of s ("" for NULL).
inline std::string text(RtStringRef s) {
    if (!s) return "";
    RtIndex len = RtStringGetLength(s);
    std::vector<char> buf(size_t(RtStringGetMaximumSizeForEncoding(len, kRtStringEncodingUTF8)) + 1);
    return RtStringGetCString(s, buf.data(), RtIndex(buf.size()), kRtStringEncodingUTF8) ? buf.data() : "";
}

// text() of a new string, released.
inline std::string take(RtStringRef s) {
    std::string t = text(s);
    RtRelease(s);
    return t;
}

inline std::string description(RtTypeRef v) {
    return take(RtCopyDescription(v));
}
inline std::string formatted(RtTypeRef v) {
    return take(RtCopyFormattingDescription(v));
}

inline RtStringRef str(const char *utf8) {
    return RtStringCreateWithCString(kRtAllocatorDefault, utf8, kRtStringEncodingUTF8);
}

// Every test of this fixture must release all it creates.
class LeakChecked : public ::testing::Test {
  protected:
    void SetUp() override { fLive = RtRuntimeGetLiveObjectCount(); }
    void TearDown() override { EXPECT_EQ(RtRuntimeGetLiveObjectCount(), fLive) << "runtime objects leaked"; }
    long fLive = 0;
};

} // namespace rttest
