// The exported functions and their handles: NULL handling, protocol identity, handles as runtime
// objects, references handed out, serialization round trips and the synchronous call.
#include "CPlusRtObject.h"
#include "CoreTestSupport.h"
#include "HalvoUtils.h"
#include "XMLRPCTestSupport.h"

#include <gtest/gtest.h>

namespace {

// Nothing listens on port 1: a real transport fails at once, the stub one faults at once.
const char *kDeadEndpoint = "http://127.0.0.1:1/RPC2";

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

TEST(PublicInterfaceTest, ProtocolsByIdentityAndHandlesAsRuntimeObjects) {
    AutoURL url(kDeadEndpoint);
    AutoString lookalike =
        adopt(RtStringCreateWithCString(kRtAllocatorDefault, "XML-RPC", kRtStringEncodingUTF8));
    ASSERT_NE(kHVXMLRPCProtocol, lookalike.getString());
    EXPECT_EQ(nullptr, HVMethodInvocationCreate(url.getURL(), RTSTR("m"), lookalike.getString()));
    EXPECT_EQ(nullptr, HVMethodInvocationCreate(url.getURL(), RTSTR("m"), nullptr));
    EXPECT_EQ(nullptr, HVMethodInvocationCreate(nullptr, RTSTR("m"), kHVXMLRPCProtocol));
    EXPECT_EQ(nullptr, HVProtocolHandlerCreate(kRtAllocatorDefault, lookalike.getString()));
    EXPECT_EQ(nullptr, HVProtocolHandlerCreate(kRtAllocatorDefault, nullptr));
    AutoDict agreement; // an agreement whose protocol is an equal but distinct string makes nothing
    agreement.addValue(RTSTR("ProtocolType"), lookalike.getString());
    EXPECT_EQ(nullptr, createInvocationForProtocol(lookalike.getString(), nullptr, nullptr,
                                                   agreement.getImmutableDict()));

    HVMethodInvocationRef a =
        HVMethodInvocationCreate(url.getURL(), RTSTR("examples.getStateName"), kHVXMLRPCProtocol);
    HVMethodInvocationRef b = HVMethodInvocationCreate(url.getURL(), RTSTR("m"), kHVXMLRPCProtocol);
    HVProtocolHandlerRef h = HVProtocolHandlerCreate(kRtAllocatorDefault, kHVSOAP2001Protocol);
    EXPECT_NE(HVMethodInvocationGetTypeID(), HVProtocolHandlerGetTypeID());
    EXPECT_FALSE(RtEqual(a, b)); // no equal callback: identity only
    // A handle of one kind is not accepted where the other is expected.
    EXPECT_EQ(nullptr, OpaqueHVMethodInvocationRef::implOf(reinterpret_cast<HVMethodInvocationRef>(h)));
    EXPECT_EQ(nullptr, OpaqueHVProtocolHandlerRef::implOf(reinterpret_cast<HVProtocolHandlerRef>(
                           const_cast<void *>(static_cast<RtTypeRef>(RTSTR("x"))))));

    // The base class's method name is the "MethodName" property: usually absent.
    RtRetain(a);
    AutoString expected("HVMethodInvocation{%d} [%@] [%@]", 2, url.getURL(), static_cast<RtTypeRef>(nullptr));
    EXPECT_TRUE(RtEqual(expected.getString(), adopt(RtCopyDescription(a)).getString()));
    EXPECT_TRUE(RtEqual(RTSTR("OpaqueHVProtocolHandlerRef{1}"), adopt(RtCopyDescription(h)).getString()));
    for (RtTypeRef v : {RtTypeRef(a), RtTypeRef(a), RtTypeRef(b), RtTypeRef(h)})
        RtRelease(v);

    // The last release destroys the object, which no longer knows its handle by then.
    bool destroyed = false;
    RtTypeRef refSeen = RTSTR("not yet");
    HVMethodInvocationRef ref =
        OpaqueHVMethodInvocationRef::create(new RecordingInvocation(&destroyed, &refSeen));
    EXPECT_EQ(static_cast<RtTypeRef>(ref), OpaqueHVMethodInvocationRef::implOf(ref)->getRtRef());
    RtRelease(ref);
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(nullptr, refSeen);
}

TEST(PublicInterfaceTest, ReferencesHandedOutByCopyFunctions) {
    AutoURL url(kDeadEndpoint);
    HVMethodInvocationRef inv = HVMethodInvocationCreate(url.getURL(), RTSTR("sum"), kHVXMLRPCProtocol);
    RtArrayRef order = nullptr;
    EXPECT_EQ(nullptr, HVMethodInvocationCopyParameters(inv, &order));
    HVMethodInvocationSetParameters(
        inv, xmlrpctest::Dict({{"b", xmlrpctest::I(2)}, {"a", xmlrpctest::I(1)}}).dict(), nullptr);
    RtDictionaryRef copy = HVMethodInvocationCopyParameters(inv, &order);
    ASSERT_EQ(2, RtArrayGetCount(order));
    EXPECT_TRUE(RtEqual(RTSTR("b"), RtArrayGetValueAtIndex(order, 0))); // the dictionary's own order
    RtRelease(copy);
    RtRelease(order);
    RtRelease(HVMethodInvocationCopyParameters(inv, nullptr)); // the order is optional

    AutoString value =
        adopt(RtStringCreateWithCString(kRtAllocatorDefault, "HTTP/1.0", kRtStringEncodingUTF8));
    HVMethodInvocationSetProperty(inv, kHVHTTPVersion, value.getString());
    RtTypeRef copied = HVMethodInvocationCopyProperty(inv, kHVHTTPVersion);
    EXPECT_EQ(3, RtGetRetainCount(copied)); // ours, the invocation's, the caller's copy
    RtRelease(copied);
    HVMethodInvocationSetProperty(inv, kHVHTTPVersion, nullptr);
    EXPECT_EQ(nullptr, HVMethodInvocationCopyProperty(inv, kHVHTTPVersion));
    RtRelease(inv);

    // The handler's copy never hands the value back, yet takes a reference nobody releases.
    HVProtocolHandlerRef handler = HVProtocolHandlerCreate(kRtAllocatorDefault, kHVSOAP2001Protocol);
    HVProtocolHandlerSetProperty(handler, kHVSOAPMethodNamespaceURI, value.getString());
    EXPECT_EQ(nullptr, HVProtocolHandlerCopyProperty(handler, kHVSOAPMethodNamespaceURI));
    EXPECT_EQ(3, RtGetRetainCount(value.getString()));
    RtRelease(value.getString()); // give back what the call took, to keep the test leak-free
    EXPECT_EQ(nullptr, HVProtocolHandlerCopyProperty(handler, kHVHTTPProxy));
    // The documents of a missing argument are refused before the protocol is asked.
    EXPECT_EQ(nullptr, HVProtocolHandlerCopyReplyDictionary(handler, nullptr, nullptr));
    EXPECT_EQ(nullptr, HVProtocolHandlerCopyRequestDocument(handler, nullptr, nullptr, nullptr, nullptr));
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

TEST(PublicInterfaceTest, SerializationRoundTripsAndRefusesOtherContracts) {
    using namespace xmlrpctest;
    AutoURL url("http://127.0.0.1:8080/endpoint");
    Value params = Dict({{"text", S("hello")}, {"count", I(3)}}), order = A({S("count"), S("text")});
    for (RtStringRef protocol : {kHVXMLRPCProtocol, kHVSOAP1999Protocol, kHVSOAP2001Protocol}) {
        Value original = Value::adopt(HVMethodInvocationCreate(url.getURL(), RTSTR("echo"), protocol));
        auto originalRef = static_cast<HVMethodInvocationRef>(const_cast<void *>(original.get()));
        HVMethodInvocationSetParameters(originalRef, params.dict(), order.array());
        HVMethodInvocationSetProperty(originalRef, kHVMethodInvocationTimeoutValue, internedInt(5));
        Value contract = Value::adopt(HVMethodInvocationCopySerialization(originalRef));
        HVMethodInvocationRef copy = HVMethodInvocationCreateFromSerialization(contract.data());
        ASSERT_NE(nullptr, copy) << "the property-list reader must hand back the protocol constant";
        HalvoMethodInvocation *impl = OpaqueHVMethodInvocationRef::implOf(copy);
        Value agreement = Value::adopt(impl->copyAgreement());
        EXPECT_EQ(protocol, agreement["ProtocolType"]);
        EXPECT_TRUE(sameValue(S("echo"), agreement["MethodName"]));
        EXPECT_TRUE(RtEqual(RtURLGetString(url.getURL()), RtURLGetString(impl->getServiceURL())));
        EXPECT_TRUE(sameValue(params, impl->getParameterDictionary()));
        EXPECT_TRUE(sameValue(order, impl->getParameterOrder()));
        EXPECT_TRUE(sameValue(
            I(5), Value::adopt(HVMethodInvocationCopyProperty(copy, kHVMethodInvocationTimeoutValue)).get()));
        EXPECT_TRUE(sameValue(
            contract, Value::adopt(HVMethodInvocationCopySerialization(copy)).get())); // the same again
        RtRelease(copy);
    }

    // Not a property list, not a dictionary, a protocol that is only nearly right, no protocol.
    for (const Value &contract :
         {Bytes("this is not a property list"),
          Value::adopt(RtPropertyListCreateXMLData(nullptr, A({S("XML-RPC")}).get())),
          Value::adopt(RtPropertyListCreateXMLData(
              nullptr, Dict({{"ProtocolType", S("xml-rpc")}, {"ServiceURL", S("http://127.0.0.1/")}}).get())),
          Value::adopt(RtPropertyListCreateXMLData(nullptr, Dict({{"MethodName", S("m")}}).get()))})
        EXPECT_EQ(nullptr, HVMethodInvocationCreateFromSerialization(contract.data()));
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
    // The private mode is empty again (calling again is shown by the transport tests).
    RtRunLoopSourceRef source = OpaqueHVMethodInvocationRef::implOf(inv)->getSource()->getSource();
    EXPECT_FALSE(RtRunLoopContainsSource(RtRunLoopGetCurrent(), source, RTSTR("HVSYNC")));
    RtRelease(result);
    RtRelease(inv);
}

} // namespace
