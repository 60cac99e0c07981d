// The result record: values, the fault forms, stream-error dictionaries and validation.
#include "CPlusAutoTypes.h"
#include "HalvoResult.h"

#include <gtest/gtest.h>

namespace {

int32_t number(RtDictionaryRef dict, RtStringRef key) {
    return getIntValue(static_cast<RtNumberRef>(RtDictionaryGetValue(dict, key)));
}

// Runs fill on a fresh record and returns the delivered dictionary (caller releases).
template <typename Fill> RtDictionaryRef deliver(Fill fill) {
    HalvoResult result;
    fill(result);
    return result.copyDictionary();
}

TEST(ResultRecordTest, ValueThenFaultKeepsTheValue) {
    RtDictionaryRef dict = deliver([](HalvoResult &r) {
        r.addToResult(kHVMethodInvocationResult, RTSTR("v"));
        EXPECT_FALSE(r.isFault());
        r.becomeFault();
        EXPECT_TRUE(r.isFault());
    });
    EXPECT_EQ(RTSTR("v"), RtDictionaryGetValue(dict, kHVMethodInvocationResult));
    EXPECT_TRUE(HVMethodResultIsFault(dict));
    EXPECT_EQ(kRtBooleanTrue, RtDictionaryGetValue(dict, RTSTR("/kHVResultIsFault")));
    RtRelease(dict);

    RtDictionaryRef success = deliver([](HalvoResult &r) { r.addToResult(kHVMethodInvocationResult, internedInt(3)); });
    EXPECT_FALSE(HVMethodResultIsFault(success));
    EXPECT_EQ(1, RtDictionaryGetCount(success));
    RtRelease(success);
}

TEST(ResultRecordTest, TransportFaultForms) {
    RtDictionaryRef byMessage = deliver([](HalvoResult &r) { r.becomeFault(RTSTR("x")); });
    EXPECT_TRUE(HVMethodResultIsFault(byMessage));
    EXPECT_EQ(-65794, number(byMessage, kHVFaultCode));
    EXPECT_EQ(kHVNetworkStreamFaultString, RtDictionaryGetValue(byMessage, kHVFaultString));
    EXPECT_TRUE(RtEqual(RTSTR("/RtStreamFault"), RtDictionaryGetValue(byMessage, kHVFaultString)));
    auto extra = static_cast<RtDictionaryRef>(RtDictionaryGetValue(byMessage, kHVFaultExtra));
    ASSERT_NE(nullptr, extra);
    EXPECT_EQ(3, RtDictionaryGetCount(extra));
    EXPECT_EQ(RTSTR("x"), RtDictionaryGetValue(extra, RTSTR("msg")));
    EXPECT_EQ(2, number(extra, RTSTR("domain")));
    EXPECT_EQ(-65794, number(extra, RTSTR("error")));
    RtRelease(byMessage);

    RtStreamError timedOut = {-1, HalvoResult::kTimedOutError};
    RtDictionaryRef byError = deliver([&](HalvoResult &r) { r.becomeFault(timedOut); });
    extra = static_cast<RtDictionaryRef>(RtDictionaryGetValue(byError, kHVFaultExtra));
    EXPECT_TRUE(RtEqual(RTSTR("Stream Error"), RtDictionaryGetValue(extra, kHVStreamErrorMessage)));
    EXPECT_EQ(-1, number(extra, kHVStreamErrorDomain));
    EXPECT_EQ(-65796, number(extra, kHVStreamErrorError));
    EXPECT_EQ(-65794, number(byError, kHVFaultCode));
    RtRelease(byError);

    RtStreamError transport = {-1, HalvoResult::kTransportError};
    RtDictionaryRef both = deliver([&](HalvoResult &r) { r.becomeFault(RTSTR("Could not parse XML."), transport); });
    extra = static_cast<RtDictionaryRef>(RtDictionaryGetValue(both, kHVFaultExtra));
    EXPECT_EQ(RTSTR("Could not parse XML."), RtDictionaryGetValue(extra, kHVStreamErrorMessage));
    EXPECT_EQ(-65795, number(extra, kHVStreamErrorError));
    RtRelease(both);
}

TEST(ResultRecordTest, FaultWithOwnStringCodeAndBody) {
    const char body[] = "Internal error \xc3\xa9";
    RtDataRef data = RtDataCreate(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(body), sizeof body - 1);
    RtDictionaryRef withBody =
        deliver([&](HalvoResult &r) { r.becomeFault(RTSTR("HTTP error"), 500, data, kRtStringEncodingUTF8); });
    EXPECT_EQ(500, number(withBody, kHVFaultCode));
    EXPECT_EQ(RTSTR("HTTP error"), RtDictionaryGetValue(withBody, kHVFaultString));
    AutoString expected("Internal error %@", RTSTR("\u00e9"));
    EXPECT_TRUE(RtEqual(expected.getString(), RtDictionaryGetValue(withBody, kHVFaultExtra)));
    RtRelease(withBody);

    RtDictionaryRef noBody = deliver([](HalvoResult &r) { r.becomeFault(RTSTR("f"), 7, nullptr, kRtStringEncodingUTF8); });
    EXPECT_FALSE(RtDictionaryContainsKey(noBody, kHVFaultExtra));
    EXPECT_TRUE(HVMethodResultIsFault(noBody));
    RtRelease(noBody);

    // Bytes that are not valid in the encoding leave no extra instead of a NULL entry.
    const uint8_t bad[] = {0xff, 0xfe, 0x00, 0xc3};
    RtDataRef badData = RtDataCreate(kRtAllocatorDefault, bad, sizeof bad);
    RtDictionaryRef badBody =
        deliver([&](HalvoResult &r) { r.becomeFault(RTSTR("f"), 1, badData, kRtStringEncodingUTF8); });
    EXPECT_FALSE(RtDictionaryContainsKey(badBody, kHVFaultExtra));
    RtRelease(badBody);
    RtRelease(badData);
    RtRelease(data);
}

TEST(ResultRecordTest, StreamErrorDictionaryAndMarkerIdentity) {
    RtDictionaryRef empty = HalvoResult::copyStreamErrorDict(nullptr, 1, 2);
    ASSERT_NE(nullptr, empty);
    EXPECT_EQ(0, RtDictionaryGetCount(empty));
    RtRelease(empty);

    // Only the boolean true object marks a fault; a number 1 does not.
    RtDictionaryRef one = rtTypeCreateDictionary(nullptr, RTSTR("/kHVResultIsFault"), internedInt(1), nullptr);
    EXPECT_FALSE(HVMethodResultIsFault(one));
    RtRelease(one);
    EXPECT_FALSE(HVMethodResultIsFault(nullptr));
}

TEST(ResultRecordTest, ValidationReportsOnlyDeadEntries) {
    RtDictionaryRef healthy = rtTypeCreateDictionary(nullptr, RTSTR("k"), RTSTR("v"), nullptr);
    testing::internal::CaptureStderr();
    HalvoResult::validateDictionary(healthy);
    HalvoResult::validateDictionary(nullptr);
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    RtRelease(healthy);

    // A dictionary that does not own its values can hold one whose count reached zero; the
    // checker only reads the count, so a zero-filled stand-in object is enough to see the report.
    alignas(16) unsigned char deadObject[64] = {0};
    const void *keys[] = {RTSTR("k")};
    const void *values[] = {deadObject};
    RtDictionaryRef borrowed = RtDictionaryCreate(kRtAllocatorDefault, keys, values, 1, &kRtTypeDictionaryKeyCallBacks, nullptr);
    testing::internal::CaptureStderr();
    HalvoResult::validateDictionary(borrowed);
    std::string report = testing::internal::GetCapturedStderr();
    EXPECT_EQ(0u, report.find("bad dictionary value @ 0 (0x")) << report;
    EXPECT_EQ(" \n", report.substr(report.size() - 2));
    RtRelease(borrowed);
}

} // namespace
