// Helpers shared by the runtime tests: readable text of strings, data and descriptions, and a
// fixture that releases what a test hands it, then fails the test if runtime objects stay alive.
#pragma once

#include <RtCore/RtCore.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace rttest {

// The bytes of d ("" for NULL).
inline std::string bytesOf(RtDataRef d) {
    return d ? std::string(reinterpret_cast<const char *>(RtDataGetBytePtr(d)), size_t(RtDataGetLength(d)))
             : "";
}

// bytesOf() of a new data, released.
inline std::string takeData(RtDataRef d) {
    std::string t = bytesOf(d);
    RtRelease(d);
    return t;
}

// The UTF-8 text of s ("" for NULL; unconvertible characters become '?').
inline std::string text(RtStringRef s) {
    return s ? takeData(
                   RtStringCreateExternalRepresentation(kRtAllocatorDefault, s, kRtStringEncodingUTF8, '?'))
             : "";
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

inline RtStringRef str(const std::string &utf8) {
    return RtStringCreateWithCString(kRtAllocatorDefault, utf8.c_str(), kRtStringEncodingUTF8);
}
inline RtDataRef dataOf(const std::string &bytes) {
    return RtDataCreate(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(bytes.data()),
                        RtIndex(bytes.size()));
}
template <typename T> RtNumberRef num(RtNumberType type, T value) {
    return RtNumberCreate(kRtAllocatorDefault, type, &value);
}

// Every test of this fixture must release all it creates; own() hands an object over to be
// released when the test ends, before the count is checked.
class LeakChecked : public ::testing::Test {
  protected:
    void SetUp() override { fLive = RtRuntimeGetLiveObjectCount(); }
    void TearDown() override {
        for (auto it = fOwned.rbegin(); it != fOwned.rend(); ++it)
            RtRelease(*it);
        fOwned.clear();
        EXPECT_EQ(RtRuntimeGetLiveObjectCount(), fLive) << "runtime objects leaked";
    }
    template <typename T> T own(T v) {
        fOwned.push_back(v);
        return v;
    }
    long fLive = 0;
    std::vector<RtTypeRef> fOwned;
};

} // namespace rttest
