// The exported functions: NULL handling, protocol identity, serialization round trips,
// scheduling, the synchronous call and the handler functions.
#include "CPlusRtObject.h"
#include "CoreTestSupport.h"
#include "HalvoUtils.h"
#include "SOAPHalvoClosure.h"
#include "XMLRPCHalvoClosure.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

// Nothing listens on port 1: a real transport fails at once, the stub one faults at once.
const char *kDeadEndpoint = "http://127.0.0.1:1/RPC2";

RtStringRef freshString(const char *text) {
    return RtStringCreateWithCString(kRtAllocatorDefault, text, kRtStringEncodingUTF8);
}

void neverCalled(HVMethodInvocationRef, void *, RtDictionaryRef result) {
    ADD_FAILURE() << "callback reached";
    RtRelease(result);
}

TEST(PublicInterfaceTest, NullHandlesDoNothing) {
    RtArrayRef order = reinterpret_cast<RtArrayRef>(RTSTR("sentinel"));
    EXPECT_EQ(nullptr, HVMethodInvocationCopyParameters(nullptr, &order));
    EXPECT_EQ(nullptr, order);
    EXPECT_EQ(nullptr, HVMethodInvocationCopySerialization(nullptr));
    EXPECT_EQ(nullptr, HVMethodInvocationCopyProperty(nullptr, kHVHTTPVersion));
    EXPECT_EQ(nullptr, HVMethodInvocationInvoke(nullptr));
    EXPECT_EQ(nullptr, HVMethodInvocationCreateFromSerialization(nullptr));
    HVMethodInvocationSetParameters(nullptr, nullptr, nullptr);
    HVMethodInvocationSetProperty(nullptr, kHVHTTPVersion, RTSTR("x"));
    HVMethodInvocationSetCallBack(nullptr, neverCalled, nullptr);
    HVMethodInvocationScheduleWithRunLoop(nullptr, RtRunLoopGetCurrent(), kRtRunLoopDefaultMode);
    HVMethodInvocationUnscheduleFromRunLoop(nullptr, RtRunLoopGetCurrent(), kRtRunLoopDefaultMode);
    HVMethodInvocationAddSerializationOverride(nullptr, RtStringGetTypeID(), nullptr, nullptr);
    HVMethodInvocationAddDeserializationOverride(nullptr, nullptr, nullptr, nullptr, nullptr);

    EXPECT_EQ(nullptr, HVProtocolHandlerCopyRequestDictionary(nullptr, nullptr));
    EXPECT_EQ(nullptr, HVProtocolHandlerCopyReplyDictionary(nullptr, RTSTR("m"), nullptr));
    EXPECT_EQ(nullptr, HVProtocolHandlerCopyRequestDocument(nullptr, RTSTR("m"), nullptr, nullptr, nullptr));
    EXPECT_EQ(nullptr, HVProtocolHandlerCopyReplyDocument(nullptr, nullptr, RTSTR("v")));
    EXPECT_EQ(nullptr, HVProtocolHandlerCopyFaultDocument(nullptr, nullptr, nullptr));
    EXPECT_EQ(nullptr, HVProtocolHandlerCopyProperty(nullptr, kHVHTTPVersion));
    HVProtocolHandlerSetProperty(nullptr, kHVHTTPVersion, RTSTR("x"));
    HVProtocolHandlerSetSerializationOverride(nullptr, RtStringGetTypeID(), nullptr, nullptr);
    HVProtocolHandlerSetDeserializationOverride(nullptr, nullptr, nullptr, nullptr, nullptr);
}

TEST(PublicInterfaceTest, ProtocolsAreRecognisedByIdentityOnly) {
    AutoURL url(kDeadEndpoint);
    AutoString lookalike;
    *lookalike.getStringPtr() = freshString("XML-RPC");
    ASSERT_NE(kHVXMLRPCProtocol, lookalike.getString());
    ASSERT_TRUE(RtEqual(kHVXMLRPCProtocol, lookalike.getString()));
    EXPECT_EQ(nullptr, HVMethodInvocationCreate(url.getURL(), RTSTR("m"), lookalike.getString()));
    EXPECT_EQ(nullptr, HVMethodInvocationCreate(url.getURL(), RTSTR("m"), nullptr));
    EXPECT_EQ(nullptr, HVMethodInvocationCreate(nullptr, RTSTR("m"), kHVXMLRPCProtocol));
    EXPECT_EQ(nullptr, HVProtocolHandlerCreate(kRtAllocatorDefault, lookalike.getString()));
    EXPECT_EQ(nullptr, HVProtocolHandlerCreate(kRtAllocatorDefault, nullptr));

    HVMethodInvocationRef noName = HVMethodInvocationCreate(url.getURL(), nullptr, kHVXMLRPCProtocol);
    ASSERT_NE(nullptr, noName);
    EXPECT_NE(nullptr, dynamic_cast<XMLRPCHalvoMethodInvocation *>(OpaqueHVMethodInvocationRef::implOf(noName)));
    RtRelease(noName);
    for (RtStringRef soap : {kHVSOAP1999Protocol, kHVSOAP2001Protocol}) {
        HVMethodInvocationRef inv = HVMethodInvocationCreate(url.getURL(), RTSTR("m"), soap);
        auto *impl = dynamic_cast<SOAPHalvoMethodInvocation *>(OpaqueHVMethodInvocationRef::implOf(inv));
        ASSERT_NE(nullptr, impl);
        EXPECT_EQ(soap, impl->getProtocolKind());
        RtRelease(inv);
        HVProtocolHandlerRef handler = HVProtocolHandlerCreate(kRtAllocatorDefault, soap);
        auto *soapHandler = dynamic_cast<SOAPProtocolHandler *>(OpaqueHVProtocolHandlerRef::implOf(handler));
        ASSERT_NE(nullptr, soapHandler);
        EXPECT_EQ(soap, soapHandler->getProtocolKind());
        RtRelease(handler);
    }
    HVProtocolHandlerRef xmlrpc = HVProtocolHandlerCreate(kRtAllocatorDefault, kHVXMLRPCProtocol);
    EXPECT_NE(nullptr, dynamic_cast<XMLRPCProtocolHandler *>(OpaqueHVProtocolHandlerRef::implOf(xmlrpc)));
    RtRelease(xmlrpc);

    // An agreement whose protocol is an equal but distinct string makes nothing.
    AutoDict agreement;
    agreement.addValue(RTSTR("ProtocolType"), lookalike.getString());
    EXPECT_EQ(nullptr, createInvocationForProtocol(lookalike.getString(), nullptr, nullptr,
                                                   agreement.getImmutableDict()));
}

TEST(PublicInterfaceTest, ParametersAndPropertiesThroughTheHandle) {
    AutoURL url(kDeadEndpoint);
    HVMethodInvocationRef inv = HVMethodInvocationCreate(url.getURL(), RTSTR("sum"), kHVXMLRPCProtocol);
    RtArrayRef order = nullptr;
    EXPECT_EQ(nullptr, HVMethodInvocationCopyParameters(inv, &order));
    EXPECT_EQ(nullptr, order);

    AutoDict params;
    params.addValue(RTSTR("b"), internedInt(2));
    params.addValue(RTSTR("a"), internedInt(1));
    HVMethodInvocationSetParameters(inv, params.getImmutableDict(), nullptr);
    RtDictionaryRef copy = HVMethodInvocationCopyParameters(inv, &order);
    EXPECT_TRUE(RtEqual(copy, params.getImmutableDict()));
    ASSERT_EQ(2, RtArrayGetCount(order));
    EXPECT_EQ(RTSTR("b"), RtArrayGetValueAtIndex(order, 0));
    RtRelease(copy);
    RtRelease(order);
    copy = HVMethodInvocationCopyParameters(inv, nullptr); // the order is optional
    EXPECT_NE(nullptr, copy);
    safeRtRelease(copy);

    AutoString value;
    *value.getStringPtr() = freshString("HTTP/1.0");
    HVMethodInvocationSetProperty(inv, kHVHTTPVersion, value.getString());
    RtTypeRef copied = HVMethodInvocationCopyProperty(inv, kHVHTTPVersion);
    EXPECT_EQ(value.getString(), copied);
    EXPECT_EQ(3, RtGetRetainCount(copied)); // ours, the invocation's, the caller's copy
    RtRelease(copied);
    HVMethodInvocationSetProperty(inv, kHVHTTPVersion, nullptr);
    EXPECT_EQ(nullptr, HVMethodInvocationCopyProperty(inv, kHVHTTPVersion));
    RtRelease(inv);
}

TEST(PublicInterfaceTest, HandlerCopyPropertyNeverHandsBackAndLeaksOneReference) {
    HVProtocolHandlerRef handler = HVProtocolHandlerCreate(kRtAllocatorDefault, kHVSOAP2001Protocol);
    AutoString value;
    *value.getStringPtr() = freshString("urn:example");
    HVProtocolHandlerSetProperty(handler, kHVSOAPMethodNamespaceURI, value.getString());
    EXPECT_EQ(2, RtGetRetainCount(value.getString()));
    EXPECT_EQ(nullptr, HVProtocolHandlerCopyProperty(handler, kHVSOAPMethodNamespaceURI));
    EXPECT_EQ(nullptr, HVProtocolHandlerCopyProperty(handler, kHVSOAPMethodNamespaceURI));
    EXPECT_EQ(4, RtGetRetainCount(value.getString())); // one reference per call nobody releases
    RtRelease(value.getString()); // give back what the two calls took, to keep the test leak-free
    RtRelease(value.getString());
    EXPECT_EQ(nullptr, HVProtocolHandlerCopyProperty(handler, kHVHTTPProxy));
    // The documents of a missing argument are refused before the protocol is asked.
    EXPECT_EQ(nullptr, HVProtocolHandlerCopyReplyDictionary(handler, nullptr, nullptr));
    EXPECT_EQ(nullptr, HVProtocolHandlerCopyRequestDocument(handler, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(nullptr, HVProtocolHandlerCopyRequestDictionary(handler, nullptr));
    RtRelease(handler);
}

RtStringRef ownerRecorder(HVMethodInvocationRef owner, RtTypeRef, void *info) {
    *static_cast<HVMethodInvocationRef *>(info) = owner;
    return nullptr;
}

TEST(PublicInterfaceTest, OverridesRegisteredThroughHandlesReceiveThoseHandles) {
    AutoURL url(kDeadEndpoint);
    HVMethodInvocationRef inv = HVMethodInvocationCreate(url.getURL(), RTSTR("m"), kHVXMLRPCProtocol);
    HVMethodInvocationRef seen = nullptr;
    HVClientContext context = {0, &seen, nullptr, nullptr, nullptr};
    HVMethodInvocationAddSerializationOverride(inv, RtStringGetTypeID(), ownerRecorder, &context);
    EXPECT_EQ(nullptr, OpaqueHVMethodInvocationRef::implOf(inv)->seriailizeOverride(RTSTR("v")));
    EXPECT_EQ(inv, seen);

    HVProtocolHandlerRef handler = HVProtocolHandlerCreate(kRtAllocatorDefault, kHVXMLRPCProtocol);
    HVProtocolHandlerSetSerializationOverride(handler, RtStringGetTypeID(), ownerRecorder, &context);
    HVProtocolHandlerSetSerializationOverride(handler, RtStringGetTypeID(), nullptr, nullptr);
    OpaqueHVProtocolHandlerRef::implOf(handler)->seriailizeOverride(RTSTR("v"));
    EXPECT_EQ(static_cast<RtTypeRef>(handler), static_cast<RtTypeRef>(seen));
    RtRelease(handler);
    RtRelease(inv);
}

void checkRoundTrip(RtStringRef protocol) {
    AutoURL url("http://127.0.0.1:8080/endpoint");
    HVMethodInvocationRef original = HVMethodInvocationCreate(url.getURL(), RTSTR("echo"), protocol);
    AutoDict params;
    params.addValue(RTSTR("text"), RTSTR("hello"));
    params.addValue(RTSTR("count"), internedInt(3));
    AutoArray order;
    order.appendValue(RTSTR("count"));
    order.appendValue(RTSTR("text"));
    HVMethodInvocationSetParameters(original, params.getImmutableDict(), order.getImmutableArray());
    HVMethodInvocationSetProperty(original, kHVHTTPVersion, RTSTR("HTTP/1.0"));
    HVMethodInvocationSetProperty(original, kHVMethodInvocationTimeoutValue, internedInt(5));

    RtDataRef contract = HVMethodInvocationCopySerialization(original);
    ASSERT_NE(nullptr, contract);
    HVMethodInvocationRef copy = HVMethodInvocationCreateFromSerialization(contract);
    ASSERT_NE(nullptr, copy) << "the property-list reader must hand back the protocol constant";
    HalvoMethodInvocation *impl = OpaqueHVMethodInvocationRef::implOf(copy);
    AutoDict agreement(impl->copyAgreement());
    RtRelease(agreement.getImmutableDict());
    EXPECT_EQ(protocol, agreement.getValue(RTSTR("ProtocolType")));
    EXPECT_TRUE(RtEqual(RTSTR("echo"), agreement.getValue(RTSTR("MethodName"))));
    EXPECT_TRUE(RtEqual(RtURLGetString(url.getURL()), RtURLGetString(impl->getServiceURL())));
    EXPECT_TRUE(RtEqual(params.getImmutableDict(), impl->getParameterDictionary()));
    EXPECT_TRUE(RtEqual(order.getImmutableArray(), impl->getParameterOrder()));
    RtTypeRef version = HVMethodInvocationCopyProperty(copy, kHVHTTPVersion);
    EXPECT_TRUE(RtEqual(RTSTR("HTTP/1.0"), version));
    safeRtRelease(version);
    RtTypeRef timeout = HVMethodInvocationCopyProperty(copy, kHVMethodInvocationTimeoutValue);
    EXPECT_EQ(5, getIntValue(static_cast<RtNumberRef>(timeout)));
    safeRtRelease(timeout);

    // The copy serialises to the same document.
    RtDataRef again = HVMethodInvocationCopySerialization(copy);
    EXPECT_TRUE(RtEqual(contract, again));
    safeRtRelease(again);
    RtRelease(contract);
    RtRelease(copy);
    RtRelease(original);
}

TEST(PublicInterfaceTest, SerializationRoundTripsForEveryProtocol) {
    checkRoundTrip(kHVXMLRPCProtocol);
    checkRoundTrip(kHVSOAP1999Protocol);
    checkRoundTrip(kHVSOAP2001Protocol);
}

RtDataRef plistOf(RtTypeRef value) { return RtPropertyListCreateXMLData(kRtAllocatorDefault, value); }

TEST(PublicInterfaceTest, ContractsThatAreNotAgreementsAreRefused) {
    const char junk[] = "this is not a property list";
    RtDataRef notPlist = RtDataCreate(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(junk), sizeof junk - 1);
    EXPECT_EQ(nullptr, HVMethodInvocationCreateFromSerialization(notPlist));
    RtRelease(notPlist);

    RtArrayRef array = rtTypeCreateArray(nullptr, RTSTR("XML-RPC"), nullptr);
    RtDataRef arrayData = plistOf(array);
    EXPECT_EQ(nullptr, HVMethodInvocationCreateFromSerialization(arrayData));
    RtRelease(arrayData);
    RtRelease(array);

    // Only the very constant is recognised, and the text must be exact.
    AutoDict lowercase;
    lowercase.addValue(RTSTR("ProtocolType"), RTSTR("xml-rpc"));
    lowercase.addValue(RTSTR("ServiceURL"), RTSTR("http://127.0.0.1/"));
    RtDataRef lowercaseData = plistOf(lowercase.getImmutableDict());
    EXPECT_EQ(nullptr, HVMethodInvocationCreateFromSerialization(lowercaseData));
    RtRelease(lowercaseData);

    AutoDict missing;
    missing.addValue(RTSTR("MethodName"), RTSTR("m"));
    RtDataRef missingData = plistOf(missing.getImmutableDict());
    EXPECT_EQ(nullptr, HVMethodInvocationCreateFromSerialization(missingData));
    RtRelease(missingData);
}

TEST(PublicInterfaceTest, InvokeDeliversAFaultAndLeavesNoCallback) {
    AutoURL url(kDeadEndpoint);
    HVMethodInvocationRef inv = HVMethodInvocationCreate(url.getURL(), RTSTR("m"), kHVXMLRPCProtocol);
    ContextCounts counts;
    HVClientContext context = countingContext(&counts);
    HVMethodInvocationSetCallBack(inv, neverCalled, &context);
    RtDictionaryRef result = HVMethodInvocationInvoke(inv);
    ASSERT_NE(nullptr, result);
    EXPECT_TRUE(HVMethodResultIsFault(result));
    EXPECT_EQ(nullptr, OpaqueHVMethodInvocationRef::implOf(inv)->getCallback());
    EXPECT_EQ(1, counts.retains);
    EXPECT_EQ(1, counts.releases); // the user's context was let go when Invoke replaced it
    // The private mode is empty again.
    RtRunLoopSourceRef source = OpaqueHVMethodInvocationRef::implOf(inv)->getSource()->getSource();
    EXPECT_FALSE(RtRunLoopContainsSource(RtRunLoopGetCurrent(), source, RTSTR("HVSYNC")));
    RtRelease(result);

    RtDictionaryRef second = HVMethodInvocationInvoke(inv);
    EXPECT_NE(nullptr, second);
    safeRtRelease(second);
    RtRelease(inv);
}

void storeResult(HVMethodInvocationRef, void *info, RtDictionaryRef result) {
    *static_cast<RtDictionaryRef *>(info) = result;
}

TEST(PublicInterfaceTest, ScheduledCallEndsInTheCallback) {
    AutoURL url(kDeadEndpoint);
    HVMethodInvocationRef inv = HVMethodInvocationCreate(url.getURL(), RTSTR("m"), kHVSOAP2001Protocol);
    RtDictionaryRef result = nullptr;
    HVClientContext context = {0, &result, nullptr, nullptr, nullptr};
    HVMethodInvocationSetCallBack(inv, storeResult, &context);
    RtStringRef mode = RTSTR("PublicInterfaceTest");
    RtRunLoopRef loop = RtRunLoopGetCurrent();
    HVMethodInvocationScheduleWithRunLoop(inv, loop, mode);
    for (int turns = 0; !result && turns < 1000; turns++)
        RtRunLoopRunInMode(mode, 10.0, true);
    ASSERT_NE(nullptr, result);
    EXPECT_TRUE(HVMethodResultIsFault(result));
    HVMethodInvocationUnscheduleFromRunLoop(inv, loop, mode);
    RtRelease(result);
    RtRelease(inv);
}

TEST(PublicInterfaceDeathTest, DiagnosticSwitchesAreReadOnceAtTheFirstCreate) {
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a fresh process: no Create has run yet
    EXPECT_EXIT(
        {
            setenv("HVDebug", "", 1); // presence is enough, even empty
            unsetenv("HVDebugVerbose");
            HVProtocolHandlerRef handler = HVProtocolHandlerCreate(kRtAllocatorDefault, kHVXMLRPCProtocol);
            unsetenv("HVDebug");
            setenv("HVDebugVerbose", "1", 1);
            AutoURL url(kDeadEndpoint);
            HVMethodInvocationRef inv = HVMethodInvocationCreate(url.getURL(), nullptr, kHVXMLRPCProtocol);
            bool readOnce = gHVDebug == 1 && gHVDebugVerbose == 0;
            RtRelease(inv);
            RtRelease(handler);
            exit(readOnce ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
