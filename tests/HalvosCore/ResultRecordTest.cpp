// The result record: values, the fault forms, stream-error dictionaries and validation.
#include "CPlusAutoTypes.h"
#include "HalvoResult.h"
#include "XMLRPCTestSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace xmlrpctest;

// Runs fill on a fresh record and returns the delivered dictionary.
template <typename Fill> Value deliver(Fill fill) {
    HalvoResult result;
    fill(result);
    return Value::adopt(result.copyDictionary());
}

Value fault(Value code, const char *string, Value extra) {
    return Dict({{"/kHVResultIsFault", B(true)},
                 {"/FaultCode", code},
                 {"/FaultString", S(string)},
                 {"/FaultExtra", extra}});
}

TEST(ResultRecordTest, ValuesFaultsAndTheFaultMarker) {
    // A fault keeps the value beside it.
    EXPECT_TRUE(sameValue(Dict({{"/Result", S("v")}, {"/kHVResultIsFault", B(true)}}),
                          deliver([](HalvoResult &r) {
                              r.addToResult(kHVMethodInvocationResult, RTSTR("v"));
                              r.becomeFault();
                          }).get()));
    // Transport faults: by message, by stream error, by both; the fault string is the constant.
    Value byMessage = deliver([](HalvoResult &r) { r.becomeFault(RTSTR("x")); });
    EXPECT_TRUE(sameValue(
        fault(I(-65794), "/RtStreamFault", Dict({{"msg", S("x")}, {"domain", I(2)}, {"error", I(-65794)}})),
        byMessage.get()));
    EXPECT_EQ(kHVNetworkStreamFaultString, byMessage["/FaultString"]);
    RtStreamError timedOut = {-1, HalvoResult::kTimedOutError},
                  transport = {-1, HalvoResult::kTransportError};
    EXPECT_TRUE(sameValue(fault(I(-65794), "/RtStreamFault",
                                Dict({{"msg", S("Stream Error")}, {"domain", I(-1)}, {"error", I(-65796)}})),
                          deliver([&](HalvoResult &r) { r.becomeFault(timedOut); }).get()));
    EXPECT_TRUE(sameValue(
        fault(I(-65794), "/RtStreamFault",
              Dict({{"msg", S("Could not parse XML.")}, {"domain", I(-1)}, {"error", I(-65795)}})),
        deliver([&](HalvoResult &r) { r.becomeFault(RTSTR("Could not parse XML."), transport); }).get()));
    Value empty = Value::adopt(HalvoResult::copyStreamErrorDict(nullptr, 1, 2));
    EXPECT_TRUE(sameValue(Dict({}), empty.get()));

    // A fault of the caller's own string and code, with the body in the given encoding as extra.
    Value body = Bytes("Internal error \xc3\xa9"), bad = Bytes(std::string("\xff\xfe\x00\xc3", 4));
    EXPECT_TRUE(sameValue(fault(I(500), "HTTP error", S("Internal error \xc3\xa9")),
                          deliver([&](HalvoResult &r) {
                              r.becomeFault(RTSTR("HTTP error"), 500, body.data(), kRtStringEncodingUTF8);
                          }).get()));
    // No body, or bytes that are not valid in the encoding, leave no extra instead of a NULL entry.
    for (RtDataRef without : {static_cast<RtDataRef>(nullptr), bad.data()})
        EXPECT_TRUE(sameValue(fault(I(7), "f", Value()), deliver([&](HalvoResult &r) {
                                                             r.becomeFault(RTSTR("f"), 7, without,
                                                                           kRtStringEncodingUTF8);
                                                         }).get()));

    // Only the boolean true object marks a fault; a number 1 does not.
    EXPECT_FALSE(HVMethodResultIsFault(Dict({{"/kHVResultIsFault", I(1)}}).dict()));
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
    RtDictionaryRef borrowed =
        RtDictionaryCreate(kRtAllocatorDefault, keys, values, 1, &kRtTypeDictionaryKeyCallBacks, nullptr);
    testing::internal::CaptureStderr();
    HalvoResult::validateDictionary(borrowed);
    std::string report = testing::internal::GetCapturedStderr();
    EXPECT_EQ(0u, report.find("bad dictionary value @ 0 (0x")) << report;
    EXPECT_EQ(" \n", report.substr(report.size() - 2));
    RtRelease(borrowed);
}

} // namespace
