// The invocation object: client contexts, properties with the parent chain, the callback, the
// closure source's own delivery and the agreement dictionary.
#include "CoreTestSupport.h"
#include "HalvoResult.h"
#include "XMLRPCHalvoClosure.h"

#include <gtest/gtest.h>

namespace {

int gOther = 0;
const void *retainToOther(const void *) {
    return &gOther;
}

TEST(InvocationStateTest, ClientContextRetainReleaseRules) {
    ContextCounts counts;
    HVClientContext source = countingContext(&counts);
    HVClientContext kept;
    HVSerializerBase::retainContext(&kept, &source);
    EXPECT_EQ(&counts, kept.info);
    HVSerializerBase::releaseContext(&kept);
    EXPECT_EQ(nullptr, kept.info);
    EXPECT_EQ(nullptr, kept.release);
    HVSerializerBase::retainContext(&kept, nullptr); // a NULL source zeroes everything
    EXPECT_EQ(nullptr, kept.retain);
    HVClientContext noInfo = {3, nullptr, countingRetain, countingRelease, nullptr};
    HVSerializerBase::retainContext(&kept, &noInfo); // nothing to retain without info
    EXPECT_EQ(3, kept.version);
    HVSerializerBase::releaseContext(&kept);
    EXPECT_EQ(1, counts.retains);
    EXPECT_EQ(1, counts.releases);
    HVClientContext swapping = {0, &counts, retainToOther, nullptr, nullptr};
    HVSerializerBase::retainContext(&kept, &swapping); // the pointer retain returns replaces info
    EXPECT_EQ(&gOther, kept.info);
}

TEST(InvocationStateTest, PropertiesResolveThroughTheParentFirst) {
    RecordingInvocation invocation;
    XMLRPCProtocolHandler handler;
    handler.setParent(&invocation);
    invocation.setProperty(kHVHTTPVersion, RTSTR("HTTP/1.0"));
    handler.setProperty(kHVHTTPVersion, RTSTR("HTTP/1.1"));
    EXPECT_EQ(RTSTR("HTTP/1.0"), handler.getProperty(kHVHTTPVersion)); // the parent wins
    handler.setProperty(kHVPostingMethod, RTSTR("PUT"));
    EXPECT_EQ(RTSTR("PUT"), handler.getProperty(kHVPostingMethod)); // own value when the parent has none
    EXPECT_EQ(nullptr, invocation.getProperty(kHVPostingMethod));
    invocation.setProperty(kHVHTTPVersion, nullptr); // NULL removes
    EXPECT_EQ(RTSTR("HTTP/1.1"), handler.getProperty(kHVHTTPVersion));
    EXPECT_EQ(nullptr, handler.getProperty(nullptr));

    AutoDict more;
    more.addValue(kHVPostingMethod, RTSTR("GET"));
    more.addValue(kHVHTTPProxy, RTSTR("p"));
    handler.addProperties(more.getImmutableDict()); // present keys keep their value
    EXPECT_EQ(RTSTR("PUT"), handler.getProperty(kHVPostingMethod));
    EXPECT_EQ(RTSTR("p"), handler.getProperty(kHVHTTPProxy));
}

void recordResult(HVMethodInvocationRef, void *info, RtDictionaryRef result) {
    RtDictionaryRef *slot = static_cast<RtDictionaryRef *>(info);
    safeRtRelease(*slot);
    *slot = result;
}

TEST(InvocationStateTest, CallbackGetsACopyAndContextRulesHold) {
    ContextCounts counts;
    {
        RecordingInvocation invocation;
        RtDictionaryRef delivered = nullptr;
        HVClientContext context = {0, &delivered, nullptr, nullptr, nullptr};
        invocation.setCallback(recordResult, &context);
        HalvoResult result;
        result.addToResult(kHVMethodInvocationResult, RTSTR("ok"));
        invocation.doCallback(&result);
        ASSERT_NE(nullptr, delivered);
        EXPECT_EQ(1, RtGetRetainCount(delivered)); // the callback owns a fresh copy
        RtRelease(delivered);
        delivered = nullptr;
        invocation.doCallback(nullptr); // no result, no call
        EXPECT_EQ(nullptr, delivered);

        // A closure source that was never given a transport delivers a fault, once.
        ClosureSource source(&invocation);
        source.perform();
        EXPECT_EQ(nullptr, source.getResult());
        ASSERT_TRUE(HVMethodResultIsFault(delivered));
        auto extra = static_cast<RtDictionaryRef>(RtDictionaryGetValue(delivered, kHVFaultExtra));
        EXPECT_TRUE(RtEqual(RTSTR("ClosureSource::perform not overridden"),
                            RtDictionaryGetValue(extra, kHVStreamErrorMessage)));
        RtDictionaryRef first = delivered;
        source.finish(); // nothing left to hand over: the callback is not called again
        EXPECT_EQ(first, delivered);
        RtRelease(delivered);

        HVClientContext counted = countingContext(&counts);
        invocation.setCallback(recordResult, &counted);
        invocation.setCallback(nullptr, nullptr); // replacing releases the old context
        EXPECT_EQ(1, counts.releases);
        invocation.setCallback(recordResult, &counted);
    }
    // A context still set when the invocation dies is not released (kept behaviour).
    EXPECT_EQ(2, counts.retains);
    EXPECT_EQ(1, counts.releases);
}

TEST(InvocationStateTest, AgreementsWithPoorValuesGiveEmptyInvocations) {
    // A complete agreement rebuilds the call (see the public serialization round trip); one
    // without a URL or with values of the wrong kinds gives an empty invocation.
    RtDictionaryRef odd =
        rtTypeCreateDictionary(nullptr, RTSTR("ServiceURL"), internedInt(1), RTSTR("ParamOrder"),
                               RTSTR("not an array"), RTSTR("MethodName"), internedInt(2), nullptr);
    XMLRPCHalvoMethodInvocation empty(odd);
    RtRelease(odd);
    EXPECT_EQ(nullptr, empty.getServiceURL());
    EXPECT_EQ(nullptr, empty.getParameterOrder());
    RtDictionaryRef agreement = empty.copyAgreement();
    EXPECT_EQ(nullptr, RtDictionaryGetValue(agreement, RTSTR("MethodName")));
    EXPECT_EQ(kHVXMLRPCProtocol, RtDictionaryGetValue(agreement, RTSTR("ProtocolType")));
    RtRelease(agreement);
}

} // namespace
