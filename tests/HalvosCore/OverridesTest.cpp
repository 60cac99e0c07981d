// Serialization and deserialization overrides: precedence along the parent chain, first match,
// wildcard and case-insensitive matching of namespaces and names.
#include "CoreTestSupport.h"
#include "XMLRPCHalvoClosure.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using Log = std::vector<std::string>;

// The serializer appends "ser<n>" to gLog, the deserializer the tag passed as info. Both answer
// with what they appended.
Log gLog;
RtStringRef taggedSerializer(HVMethodInvocationRef, RtTypeRef, void *) {
    gLog.push_back("ser" + std::to_string(gLog.size()));
    return RtStringCreateWithCString(kRtAllocatorDefault, gLog.back().c_str(), kRtStringEncodingUTF8);
}
RtTypeRef taggedDeserializer(HVMethodInvocationRef, RtTreeRef, RtTreeRef, void *info) {
    gLog.push_back(static_cast<const char *>(info));
    return RtStringCreateWithCString(kRtAllocatorDefault, gLog.back().c_str(), kRtStringEncodingUTF8);
}

// The text of an owned answer, released here; "(none)" for no answer.
std::string answer(RtTypeRef owned) {
    char buffer[64] = "(none)";
    if (owned)
        RtStringGetCString(static_cast<RtStringRef>(owned), buffer, sizeof buffer, kRtStringEncodingUTF8);
    safeRtRelease(owned);
    return buffer;
}

TEST(OverridesTest, SerializationOwnMatchWinsAfterTheParentRanAndFirstRegisteredWins) {
    ContextCounts counts;
    HVClientContext context = {0, nullptr, nullptr, nullptr, nullptr}, counted = countingContext(&counts);
    gLog.clear();
    {
        RecordingInvocation invocation;
        XMLRPCProtocolHandler handler;
        handler.setParent(&invocation);
        invocation.addSerializationOverride(RtStringGetTypeID(), taggedSerializer, &context);
        invocation.addSerializationOverride(RtStringGetTypeID(), nullptr, &counted); // never reached
        handler.addSerializationOverride(RtStringGetTypeID(), taggedSerializer, &context);
        EXPECT_EQ("ser1", answer(handler.seriailizeOverride(RTSTR("value"))));
        EXPECT_EQ(2u, gLog.size()); // the invocation's procedure ran first
        // A type without an own match keeps the parent's answer; other types get nothing.
        invocation.addSerializationOverride(RtNumberGetTypeID(), taggedSerializer, &context);
        EXPECT_EQ("ser2", answer(handler.seriailizeOverride(internedInt(1))));
        EXPECT_EQ(nullptr, handler.seriailizeOverride(kRtBooleanTrue));
    }
    EXPECT_EQ(1, counts.retains);
    EXPECT_EQ(1, counts.releases);
}

TEST(OverridesTest, DeserializationWildcardsCaseAndParentPrecedence) {
    const char doc[] = "<r xmlns:x='urn:X'><x:Struct/><struct/><x:other/></r>";
    RtDataRef data =
        RtDataCreate(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(doc), RtIndex(strlen(doc)));
    RtTreeRef tree = RtXMLTreeCreateFromData(kRtAllocatorDefault, data, nullptr, kRtXMLParserAllOptions, 0);
    RtRelease(data);
    ASSERT_NE(nullptr, tree);
    RtTreeRef prefixed = RtTreeGetFirstChild(RtTreeGetFirstChild(tree));
    RtTreeRef plain = RtTreeGetNextSibling(prefixed), other = RtTreeGetNextSibling(plain);
    AutoDict scope;
    scope.addValue(RTSTR("x"), RTSTR("urn:X"));
    auto lookup = [&](HVSerializerBase &object, RtTreeRef element) {
        return answer(object.deserilizeOverride(element, scope, nullptr, tree));
    };
    auto context = [](const char *tag) {
        return HVClientContext{0, const_cast<char *>(tag), nullptr, nullptr, nullptr};
    };
    HVClientContext anyStruct = context("anyStruct"), nullNS = context("nullNS"),
                    anything = context("anything");
    HVClientContext parentTag = context("parent"), ownTag = context("own");

    RecordingInvocation first;
    first.addDeserializationOverride(RTSTR("*"), RTSTR("STRUCT"), taggedDeserializer, &anyStruct);
    EXPECT_EQ("anyStruct", lookup(first, prefixed)); // any namespace, name ignoring case
    EXPECT_EQ("anyStruct", lookup(first, plain));    // "*" matches a missing namespace too
    EXPECT_EQ("(none)", lookup(first, other));
    RecordingInvocation second;
    second.addDeserializationOverride(nullptr, RTSTR("other"), taggedDeserializer, &nullNS);
    EXPECT_EQ("(none)", lookup(second, other)); // a NULL namespace matches only no namespace
    second.addDeserializationOverride(RTSTR("URN:x"), RTSTR(""), taggedDeserializer, &anything);
    EXPECT_EQ("anything", lookup(second, other)); // namespaces compare ignoring case
    EXPECT_EQ("(none)", lookup(second, plain));

    // The parent's answer wins outright: the own procedure does not even run.
    RecordingInvocation parent;
    XMLRPCProtocolHandler handler;
    handler.setParent(&parent);
    parent.addDeserializationOverride(RTSTR("urn:X"), RTSTR("Struct"), taggedDeserializer, &parentTag);
    handler.addDeserializationOverride(RTSTR("*"), RTSTR("*"), taggedDeserializer, &ownTag);
    gLog.clear();
    EXPECT_EQ("parent", lookup(handler, prefixed));
    EXPECT_EQ(Log{"parent"}, gLog);
    EXPECT_EQ("own", lookup(handler, plain)); // no parent answer: own match
    RtRelease(tree);
}

} // namespace
