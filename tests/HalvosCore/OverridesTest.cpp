// Serialization and deserialization overrides: precedence along the parent chain, first match,
// wildcard and case-insensitive matching of namespaces and names.
#include "CoreTestSupport.h"
#include "XMLRPCHalvoClosure.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

// Each procedure appends its tag to the log passed as info and answers with the tag.
RtStringRef taggedSerializer(HVMethodInvocationRef, RtTypeRef, void *info) {
    auto *log = static_cast<std::vector<std::string> *>(info);
    log->push_back("ser" + std::to_string(log->size()));
    return RtStringCreateWithCString(kRtAllocatorDefault, log->back().c_str(), kRtStringEncodingUTF8);
}

struct DeserCall {
    std::vector<std::string> *log;
    const char *tag;
};

RtTypeRef taggedDeserializer(HVMethodInvocationRef, RtTreeRef, RtTreeRef, void *info) {
    auto *call = static_cast<DeserCall *>(info);
    call->log->push_back(call->tag);
    return RtStringCreateWithCString(kRtAllocatorDefault, call->tag, kRtStringEncodingUTF8);
}

std::string text(RtTypeRef str) {
    char buffer[64] = {0};
    if (str)
        RtStringGetCString(static_cast<RtStringRef>(str), buffer, sizeof buffer, kRtStringEncodingUTF8);
    return buffer;
}

TEST(OverridesTest, SerializationOwnMatchWinsAfterTheParentRan) {
    std::vector<std::string> log;
    HVClientContext context = {0, &log, nullptr, nullptr, nullptr};
    RecordingInvocation invocation;
    XMLRPCProtocolHandler handler;
    handler.setParent(&invocation);
    invocation.addSerializationOverride(RtStringGetTypeID(), taggedSerializer, &context);
    handler.addSerializationOverride(RtStringGetTypeID(), taggedSerializer, &context);

    AutoString fromHandler;
    *fromHandler.getStringPtr() = handler.seriailizeOverride(RTSTR("value"));
    ASSERT_EQ(2u, log.size()); // the invocation's procedure ran first
    EXPECT_EQ("ser1", text(fromHandler.getString()));

    // A type without an own match keeps the parent's answer; other types get nothing.
    invocation.addSerializationOverride(RtNumberGetTypeID(), taggedSerializer, &context);
    AutoString number;
    *number.getStringPtr() = handler.seriailizeOverride(internedInt(1));
    EXPECT_EQ("ser2", text(number.getString()));
    EXPECT_EQ(nullptr, handler.seriailizeOverride(kRtBooleanTrue));
}

TEST(OverridesTest, SerializationFirstRegisteredWinsAndContextsAreReleased) {
    ContextCounts counts;
    std::vector<std::string> log;
    {
        RecordingInvocation invocation;
        HVClientContext logging = {0, &log, nullptr, nullptr, nullptr};
        HVClientContext counted = countingContext(&counts);
        invocation.addSerializationOverride(RtStringGetTypeID(), taggedSerializer, &logging);
        invocation.addSerializationOverride(RtStringGetTypeID(), nullptr, &counted); // never reached
        EXPECT_EQ(1, counts.retains);
        AutoString answer;
        *answer.getStringPtr() = invocation.seriailizeOverride(RTSTR("x"));
        EXPECT_EQ("ser0", text(answer.getString()));
    }
    EXPECT_EQ(1, counts.releases);
}

class DeserializationOverrides : public ::testing::Test {
protected:
    void SetUp() override {
        const char *doc = "<r xmlns:x='urn:X'><x:Struct/><struct/><x:other/></r>";
        AutoData data(doc);
        fTree = RtXMLTreeCreateFromData(kRtAllocatorDefault, data.data, nullptr, kRtXMLParserAllOptions, 0);
        ASSERT_NE(nullptr, fTree);
        RtTreeRef root = RtTreeGetFirstChild(fTree);
        fPrefixed = RtTreeGetFirstChild(root);
        fPlain = RtTreeGetNextSibling(fPrefixed);
        fOther = RtTreeGetNextSibling(fPlain);
        fScope.addValue(RTSTR("x"), RTSTR("urn:X"));
    }
    void TearDown() override { safeRtRelease(fTree); }

    struct AutoData {
        explicit AutoData(const char *text)
            : data(RtDataCreate(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(text),
                                static_cast<RtIndex>(strlen(text)))) {}
        ~AutoData() { RtRelease(data); }
        RtDataRef data;
    };

    std::string lookup(HVSerializerBase &object, RtTreeRef element) {
        RtTypeRef value = object.deserilizeOverride(element, fScope, nullptr, fTree);
        std::string answer = value ? text(value) : "(none)";
        safeRtRelease(value);
        return answer;
    }

    RtTreeRef fTree = nullptr;
    RtTreeRef fPrefixed = nullptr, fPlain = nullptr, fOther = nullptr;
    AutoDict fScope;
    std::vector<std::string> fLog;
};

TEST_F(DeserializationOverrides, WildcardsCaseAndNullPatterns) {
    RecordingInvocation invocation;
    DeserCall anyStruct{&fLog, "anyStruct"};
    DeserCall nullNS{&fLog, "nullNS"};
    DeserCall anything{&fLog, "anything"};
    HVClientContext c1 = {0, &anyStruct, nullptr, nullptr, nullptr};
    HVClientContext c2 = {0, &nullNS, nullptr, nullptr, nullptr};
    HVClientContext c3 = {0, &anything, nullptr, nullptr, nullptr};
    invocation.addDeserializationOverride(RTSTR("*"), RTSTR("STRUCT"), taggedDeserializer, &c1);
    EXPECT_EQ("anyStruct", lookup(invocation, fPrefixed)); // any namespace, name ignoring case
    EXPECT_EQ("anyStruct", lookup(invocation, fPlain));    // "*" matches a missing namespace too
    EXPECT_EQ("(none)", lookup(invocation, fOther));

    RecordingInvocation second;
    second.addDeserializationOverride(nullptr, RTSTR("other"), taggedDeserializer, &c2);
    EXPECT_EQ("(none)", lookup(second, fOther)); // a NULL namespace matches only no namespace
    second.addDeserializationOverride(RTSTR("URN:x"), RTSTR(""), taggedDeserializer, &c3);
    EXPECT_EQ("anything", lookup(second, fOther)); // namespaces compare ignoring case
    EXPECT_EQ("(none)", lookup(second, fPlain));
}

TEST_F(DeserializationOverrides, TheParentWinsOutright) {
    RecordingInvocation invocation;
    XMLRPCProtocolHandler handler;
    handler.setParent(&invocation);
    DeserCall parentCall{&fLog, "parent"};
    DeserCall ownCall{&fLog, "own"};
    HVClientContext parentContext = {0, &parentCall, nullptr, nullptr, nullptr};
    HVClientContext ownContext = {0, &ownCall, nullptr, nullptr, nullptr};
    invocation.addDeserializationOverride(RTSTR("urn:X"), RTSTR("Struct"), taggedDeserializer, &parentContext);
    handler.addDeserializationOverride(RTSTR("*"), RTSTR("*"), taggedDeserializer, &ownContext);
    EXPECT_EQ("parent", lookup(handler, fPrefixed));
    EXPECT_EQ(std::vector<std::string>{"parent"}, fLog); // the own procedure never ran
    EXPECT_EQ("own", lookup(handler, fPlain));           // no parent answer: own match
}

} // namespace
