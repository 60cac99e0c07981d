// The invocation object: client contexts, properties with the parent chain, parameters, the
// callback and the agreement dictionary.
#include "CoreTestSupport.h"
#include "HalvoResult.h"
#include "SOAPHalvoClosure.h"
#include "XMLRPCHalvoClosure.h"

#include <gtest/gtest.h>

namespace {

int gOther = 0;
const void *retainToOther(const void *) { return &gOther; }

TEST(InvocationStateTest, ClientContextRetainReleaseRules) {
    ContextCounts counts;
    HVClientContext source = countingContext(&counts);
    HVClientContext kept;
    HVSerializerBase::retainContext(&kept, &source);
    EXPECT_EQ(1, counts.retains);
    EXPECT_EQ(&counts, kept.info);
    HVSerializerBase::releaseContext(&kept);
    EXPECT_EQ(1, counts.releases);
    EXPECT_EQ(nullptr, kept.info);
    EXPECT_EQ(nullptr, kept.release);

    HVSerializerBase::retainContext(&kept, nullptr); // a NULL source zeroes everything
    EXPECT_EQ(nullptr, kept.info);
    EXPECT_EQ(nullptr, kept.retain);

    HVClientContext noInfo = {3, nullptr, countingRetain, countingRelease, nullptr};
    HVSerializerBase::retainContext(&kept, &noInfo); // nothing to retain without info
    EXPECT_EQ(3, kept.version);
    HVSerializerBase::releaseContext(&kept);
    EXPECT_EQ(1, counts.retains);
    EXPECT_EQ(1, counts.releases);

    // The pointer retain returns replaces info.
    HVClientContext swapping = {0, &counts, retainToOther, nullptr, nullptr};
    HVSerializerBase::retainContext(&kept, &swapping);
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

TEST(InvocationStateTest, ParametersAndTheirOrder) {
    RecordingInvocation invocation;
    AutoDict params;
    params.addValue(RTSTR("zeta"), RTSTR("1"));
    params.addValue(RTSTR("alpha"), RTSTR("2"));
    invocation.setParameters(params.getImmutableDict(), nullptr);
    RtDictionaryRef copy = nullptr;
    RtArrayRef order = nullptr;
    invocation.getParameters(&copy, &order);
    ASSERT_TRUE(copy && order);
    EXPECT_TRUE(RtEqual(copy, params.getImmutableDict()));
    ASSERT_EQ(2, RtArrayGetCount(order)); // the dictionary's own order
    EXPECT_EQ(RTSTR("zeta"), RtArrayGetValueAtIndex(order, 0));
    EXPECT_EQ(RTSTR("alpha"), RtArrayGetValueAtIndex(order, 1));
    RtRelease(copy);
    RtRelease(order);

    AutoArray explicitOrder;
    explicitOrder.appendValue(RTSTR("alpha"));
    invocation.setParameters(params.getImmutableDict(), explicitOrder.getImmutableArray());
    EXPECT_EQ(explicitOrder.getImmutableArray(), invocation.getParameterOrder());

    invocation.setParameters(nullptr, nullptr);
    invocation.getParameters(&copy, &order);
    EXPECT_EQ(nullptr, copy);
    EXPECT_EQ(nullptr, order);
    invocation.getParameters(nullptr, nullptr);
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
        EXPECT_EQ(RTSTR("ok"), RtDictionaryGetValue(delivered, kHVMethodInvocationResult));
        EXPECT_EQ(1, RtGetRetainCount(delivered)); // the callback owns a fresh copy
        RtRelease(delivered);
        delivered = nullptr;
        invocation.doCallback(nullptr); // no result, no call
        EXPECT_EQ(nullptr, delivered);

        HVClientContext counted = countingContext(&counts);
        invocation.setCallback(recordResult, &counted);
        EXPECT_EQ(1, counts.retains);
        invocation.setCallback(nullptr, nullptr); // replacing releases the old context
        EXPECT_EQ(1, counts.releases);
        invocation.setCallback(recordResult, &counted);
    }
    // A context still set when the invocation dies is not released (kept behaviour).
    EXPECT_EQ(2, counts.retains);
    EXPECT_EQ(1, counts.releases);
}

TEST(InvocationStateTest, AgreementsCarryEverythingAndRebuild) {
    AutoURL url("http://127.0.0.1:9/soap");
    SOAPHalvoMethodInvocation original(kHVSOAP1999Protocol, url.getURL(), RTSTR("getQuote"));
    AutoDict params;
    params.addValue(RTSTR("symbol"), RTSTR("HV"));
    original.setParameters(params.getImmutableDict(), nullptr);
    original.setProperty(kHVSOAPMethodNamespaceURI, RTSTR("urn:quotes"));
    AutoDict agreement(original.copyAgreement());
    RtRelease(agreement.getImmutableDict()); // copyAgreement returned it owned

    EXPECT_EQ(kHVSOAP1999Protocol, agreement.getValue(RTSTR("ProtocolType")));
    EXPECT_EQ(RTSTR("getQuote"), agreement.getValue(RTSTR("MethodName")));
    EXPECT_TRUE(RtEqual(RtURLGetString(url.getURL()), agreement.getValue(RTSTR("ServiceURL"))));
    EXPECT_NE(nullptr, agreement.getValue(RTSTR("ParamOrder")));
    EXPECT_TRUE(RtEqual(params.getImmutableDict(), agreement.getValue(RTSTR("ParamValues"))));

    SOAPHalvoMethodInvocation rebuilt(kHVSOAP1999Protocol, agreement.getImmutableDict());
    EXPECT_EQ(RTSTR("getQuote"), rebuilt.getMethodName());
    EXPECT_EQ(kHVSOAP1999Protocol, rebuilt.getProtocolKind());
    EXPECT_TRUE(RtEqual(RtURLGetString(url.getURL()), RtURLGetString(rebuilt.getServiceURL())));
    EXPECT_EQ(RTSTR("urn:quotes"), rebuilt.getProperty(kHVSOAPMethodNamespaceURI));
    EXPECT_TRUE(RtEqual(params.getImmutableDict(), rebuilt.getParameterDictionary()));

    // An agreement without a URL or with values of the wrong kinds gives an empty invocation.
    AutoDict odd;
    odd.addValue(RTSTR("ServiceURL"), internedInt(1));
    odd.addValue(RTSTR("ParamOrder"), RTSTR("not an array"));
    odd.addValue(RTSTR("MethodName"), internedInt(2));
    XMLRPCHalvoMethodInvocation empty(odd.getImmutableDict());
    EXPECT_EQ(nullptr, empty.getServiceURL());
    EXPECT_EQ(nullptr, empty.getParameterOrder());
    AutoDict emptyAgreement(empty.copyAgreement());
    RtRelease(emptyAgreement.getImmutableDict());
    EXPECT_EQ(nullptr, emptyAgreement.getValue(RTSTR("MethodName")));
    EXPECT_EQ(nullptr, emptyAgreement.getValue(RTSTR("ServiceURL")));
    EXPECT_EQ(kHVXMLRPCProtocol, emptyAgreement.getValue(RTSTR("ProtocolType")));
}

} // namespace
