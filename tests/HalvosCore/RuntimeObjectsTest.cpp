// The public handles as runtime objects: type identifiers, deallocation, descriptions.
#include "CPlusRtObject.h"
#include "CoreTestSupport.h"

#include <gtest/gtest.h>

namespace {

TEST(RuntimeObjectsTest, TypeIdentifiersAreStableAndDistinct) {
    RtTypeID invocationType = HVMethodInvocationGetTypeID();
    EXPECT_NE(kRtNotATypeID, invocationType);
    EXPECT_EQ(invocationType, HVMethodInvocationGetTypeID());
    RtTypeID handlerType = HVProtocolHandlerGetTypeID();
    EXPECT_NE(kRtNotATypeID, handlerType);
    EXPECT_NE(invocationType, handlerType);

    AutoURL url("http://127.0.0.1/RPC2");
    HVMethodInvocationRef a = HVMethodInvocationCreate(url.getURL(), RTSTR("m"), kHVXMLRPCProtocol);
    HVMethodInvocationRef b = HVMethodInvocationCreate(url.getURL(), RTSTR("m"), kHVXMLRPCProtocol);
    HVProtocolHandlerRef h = HVProtocolHandlerCreate(kRtAllocatorDefault, kHVSOAP2001Protocol);
    ASSERT_TRUE(a && b && h);
    EXPECT_EQ(invocationType, RtGetTypeID(a));
    EXPECT_EQ(handlerType, RtGetTypeID(h));
    EXPECT_FALSE(RtEqual(a, b)); // no equal callback: identity only
    EXPECT_TRUE(RtEqual(a, a));
    // A handle of one kind is not accepted where the other is expected.
    EXPECT_EQ(nullptr, OpaqueHVMethodInvocationRef::implOf(reinterpret_cast<HVMethodInvocationRef>(h)));
    EXPECT_EQ(nullptr, OpaqueHVProtocolHandlerRef::implOf(static_cast<HVProtocolHandlerRef>(const_cast<void *>(static_cast<RtTypeRef>(RTSTR("x"))))));
    RtRelease(a);
    RtRelease(b);
    RtRelease(h);
}

TEST(RuntimeObjectsTest, ReleasingTheHandleDestroysItsObjectWithoutAHandle) {
    bool destroyed = false;
    RtTypeRef refSeen = RTSTR("not yet");
    HVMethodInvocationRef ref = OpaqueHVMethodInvocationRef::create(new RecordingInvocation(&destroyed, &refSeen));
    ASSERT_NE(nullptr, ref);
    HalvoMethodInvocation *impl = OpaqueHVMethodInvocationRef::implOf(ref);
    ASSERT_NE(nullptr, impl);
    EXPECT_EQ(static_cast<RtTypeRef>(ref), impl->getRtRef());
    RtRetain(ref);
    RtRelease(ref);
    EXPECT_FALSE(destroyed);
    RtRelease(ref);
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(nullptr, refSeen);
}

TEST(RuntimeObjectsTest, DebugDescriptions) {
    AutoURL url("http://127.0.0.1:8080/RPC2");
    HVMethodInvocationRef inv = HVMethodInvocationCreate(url.getURL(), RTSTR("examples.getStateName"),
                                                         kHVXMLRPCProtocol);
    ASSERT_NE(nullptr, inv);
    // The base class's method name is the "MethodName" property: usually absent.
    AutoString expected("HVMethodInvocation{%d} [%@] [%@]", 1, url.getURL(), static_cast<RtTypeRef>(nullptr));
    AutoString described = adopt(RtCopyDescription(inv));
    EXPECT_TRUE(RtEqual(expected.getString(), described.getString()));

    RtRetain(inv);
    AutoString twice = adopt(RtCopyDescription(inv));
    AutoString expectedTwice("HVMethodInvocation{%d} [%@] [%@]", 2, url.getURL(), static_cast<RtTypeRef>(nullptr));
    EXPECT_TRUE(RtEqual(expectedTwice.getString(), twice.getString()));
    RtRelease(inv);
    RtRelease(inv);

    HVProtocolHandlerRef handler = HVProtocolHandlerCreate(kRtAllocatorDefault, kHVXMLRPCProtocol);
    AutoString handlerText = adopt(RtCopyDescription(handler));
    EXPECT_TRUE(RtEqual(RTSTR("OpaqueHVProtocolHandlerRef{1}"), handlerText.getString()));
    RtRelease(handler);
}

} // namespace
