// SOAP request envelopes as they leave us, byte for byte: each flavour and body style, headers,
// every value kind, arrays, records and serialization overrides.
#include "SOAPTestSupport.h"

#include "SOAPHalvoClosure.h"

using namespace soaptest;

namespace {

// A record of mixed members with an explicit member order, type and namespace.
Value sampleRecord() {
    Value record = Dict({{"name", S("Ann <& Bob>")},
                         {"age", I(42)},
                         {"/HVRecordType", S("ns1:Person")},
                         {"/HVRecordNamespaceURI", S("urn:people")},
                         {"/HVRecordParamOrder", A({S("age"), S("name"), S("missing"), S("/HVRecordType"), S("")})}});
    return record;
}

// Every value kind once, in the order given.
Value everyKind() {
    return Dict({{"text", S("a&b<c>'d\"")},
                 {"count", I(-7)},
                 {"big", I64(3000000000LL)},
                 {"tenth", D(0.1)},
                 {"huge", D(1e20)},
                 {"nine", D(123456789.0)},
                 {"yes", B(true)},
                 {"no", B(false)},
                 {"zero", I(0)},
                 {"when", Date(31535999.0)}, // 2001-12-31T23:59:59Z
                 {"blob", Bytes("Man is distinguished, not only by his reason, but by this singular passion")},
                 {"none", Null()}});
}

Value everyKindOrder() {
    return A({S("text"), S("count"), S("big"), S("tenth"), S("huge"), S("nine"), S("yes"), S("no"), S("zero"),
              S("when"), S("blob"), S("none"), S("absent")});
}

RtStringRef _personOverride(HVMethodInvocationRef, RtTypeRef value, void *info) {
    ++*static_cast<int *>(info);
    return RtStringCreateWithFormat(nullptr, nullptr, RTSTR("<%%@ kind=\"custom\">%@</%%@>"), value);
}

RtStringRef _otherOverride(HVMethodInvocationRef, RtTypeRef, void *info) {
    ++*static_cast<int *>(info);
    return RtStringCreateCopy(nullptr, RTSTR("<never/>"));
}

} // namespace

TEST(SOAPEnvelopes, EachFlavourAndBodyStyle) {
    Value params = Dict({{"a", I(1)}, {"b", S("two")}});
    Value order = A({S("a"), S("b")});

    // SOAP-1999 is always rpc, whatever the style property says.
    Handler soap1999(kHVSOAP1999Protocol);
    soap1999.set(kHVSOAPMethodNamespaceURI, RTSTR("urn:calc"));
    soap1999.set(kHVSOAPBodyEncodingStyle, kHVSOAPStyleDoc);
    EXPECT_EQ(readGolden("request_1999_rpc.xml"), soap1999.request("add", params, order));

    // SOAP-2001 without a style is doc; only the library's own rpc constant selects rpc.
    Handler soap2001;
    soap2001.set(kHVSOAPMethodNamespaceURI, RTSTR("urn:calc"));
    EXPECT_EQ(readGolden("request_2001_doc.xml"), soap2001.request("add", params, order));
    Value rpcText = S("rpc");
    soap2001.set(kHVSOAPBodyEncodingStyle, rpcText.get());
    EXPECT_EQ(readGolden("request_2001_doc.xml"), soap2001.request("add", params, order));
    soap2001.set(kHVSOAPBodyEncodingStyle, kHVSOAPStyleRPC);
    EXPECT_EQ(readGolden("request_2001_rpc.xml"), soap2001.request("add", params, order));

    // Without a method namespace the placeholder stands in; without an order nothing is written.
    Handler plain;
    std::string document = plain.request("ping", params);
    EXPECT_NE(std::string::npos, document.find("        <ping xmlns=\"urn:halvos:soap\">\r\n        </ping>\r\n")) << document;
    EXPECT_EQ(15u, std::string("urn:halvos:soap").size());

    // A handler for a protocol that only reads like a SOAP constant writes nothing.
    Value lookalike = S("SOAP-2001");
    SOAPProtocolHandler impostor(lookalike.str());
    EXPECT_EQ(nullptr, impostor.createRequest(RTSTR("add"), params.dict(), order.array(), nullptr));
    EXPECT_EQ(nullptr, impostor.createReply(nullptr, RTSTR("x")));
    EXPECT_EQ(nullptr, impostor.createFault(nullptr, nullptr));
}

TEST(SOAPEnvelopes, HeadersAsTextOrEntries) {
    Value params = Dict({});
    Value order = A({});
    Handler handler;
    handler.set(kHVSOAPMethodNamespaceURI, RTSTR("urn:h"));

    handler.set(kHVSOAPMessageHeaders, RTSTR("<t:Trans xmlns:t=\"urn:t\">5</t:Trans>"));
    std::string one = handler.request("m", params, order);
    EXPECT_NE(std::string::npos, one.find("      <SOAP-ENV:Header>\r\n"
                                          "        <t:Trans xmlns:t=\"urn:t\">5</t:Trans>\r\n"
                                          "      </SOAP-ENV:Header>\r\n"
                                          "      <SOAP-ENV:Body>\r\n"))
        << one;

    Value entries = A({S("<a>1</a>"), S("<b>2</b>")});
    handler.set(kHVSOAPMessageHeaders, entries.get());
    std::string two = handler.request("m", params, order);
    EXPECT_NE(std::string::npos, two.find("      <SOAP-ENV:Header>\r\n        <a>1</a>\r\n        <b>2</b>\r\n"
                                          "      </SOAP-ENV:Header>\r\n"))
        << two;

    // Any other kind gives a comment instead of a header block.
    handler.set(kHVSOAPMessageHeaders, I(3).get());
    std::string wrong = handler.request("m", params, order);
    EXPECT_EQ(std::string::npos, wrong.find("<SOAP-ENV:Header>")) << wrong;
    EXPECT_NE(std::string::npos,
              wrong.find("\">\r\n        <!-- kHVHTTPExtraHeaders requires a RtString or RtArray -->\r\n      <SOAP-ENV:Body>"))
        << wrong;
}

TEST(SOAPEnvelopes, ValuesOfEveryKind) {
    Handler soap2001;
    soap2001.set(kHVSOAPMethodNamespaceURI, RTSTR("urn:kinds"));
    EXPECT_EQ(readGolden("request_2001_kinds.xml"), soap2001.request("kinds", everyKind(), everyKindOrder()));

    // The 1999 flavour names dates and binary data its own way.
    Handler soap1999(kHVSOAP1999Protocol);
    std::string document = soap1999.request("kinds", everyKind(), everyKindOrder());
    EXPECT_NE(std::string::npos, document.find("<when xsi:type=\"xsd:timeInstant\">2001-12-31T23:59:59Z</when>")) << document;
    EXPECT_NE(std::string::npos, document.find("<blob xsi:type=\"xsd:base64\">\t\tTWFu")) << document;

    // A kind SOAP has no type for is written with its description and a comment.
    Value url = Value::adopt(RtURLCreateWithString(nullptr, RTSTR("http://example.com/"), nullptr));
    Value line = Value::adopt(RtStringCreateWithFormat(nullptr, nullptr, RTSTR("<u>%@</u> <!-- UNKNOWN PARAMETER TYPE %d -->"),
                                                       url.get(), static_cast<int>(RtGetTypeID(url.get()))));
    Value lineBytes = Value::adopt(RtStringCreateExternalRepresentation(nullptr, line.str(), kRtStringEncodingUTF8, 0));
    document = soap1999.request("m", Dict({{"u", url}}), A({S("u")}));
    EXPECT_NE(std::string::npos, document.find("          " + text(lineBytes) + "\r\n")) << document;
}

TEST(SOAPEnvelopes, ArraysAndRecords) {
    // The middle element of the array is missing.
    Value first = S("first");
    Value last = I(3);
    const void *items[] = {first.get(), nullptr, last.get()};
    Value gappy = Value::adopt(RtArrayCreate(nullptr, items, 3, nullptr));
    Value params = Dict({{"list", gappy},
                         {"empty", A({})},
                         {"nested", A({A({I(1)}), Dict({{"k", S("v")}, {"/HVHidden", S("x")}})})},
                         {"person", sampleRecord()},
                         {"plain", Dict({{"z", I(1)}, {"a", I(2)}})}});
    Handler soap1999(kHVSOAP1999Protocol);
    soap1999.set(kHVSOAPMethodNamespaceURI, RTSTR("urn:shapes"));
    EXPECT_EQ(readGolden("request_1999_shapes.xml"),
              soap1999.request("shapes", params, A({S("list"), S("empty"), S("nested"), S("person"), S("plain")})));

    Handler soap2001;
    std::string document = soap2001.request("shapes", params, A({S("empty")}));
    EXPECT_NE(std::string::npos,
              document.find("<empty SOAP-ENC:arrayType=\"xsd:anyType[0]\" xsi:type=\"SOAP-ENC:Array\">\r\n"
                            "          </empty>\r\n"))
        << document;
}

TEST(SOAPEnvelopes, OverridesThroughTheInvocation) {
    // The invocation holds the properties and overrides; the temporary handler it writes with
    // reaches them through its parent.
    Value url = Value::adopt(RtURLCreateWithString(nullptr, RTSTR("http://127.0.0.1:1/"), nullptr));
    SOAPHalvoMethodInvocation invocation(kHVSOAP2001Protocol, static_cast<RtURLRef>(url.get()), RTSTR("greet"));
    invocation.setProperty(kHVSOAPMethodNamespaceURI, RTSTR("urn:greet"));
    invocation.setProperty(kHVSOAPBodyEncodingStyle, kHVSOAPStyleRPC);
    int calls = 0;
    int otherCalls = 0;
    HVClientContext context = {0, &calls, nullptr, nullptr, nullptr};
    HVClientContext otherContext = {0, &otherCalls, nullptr, nullptr, nullptr};
    invocation.addSerializationOverride(RtStringGetTypeID(), _personOverride, &context);
    // Only the first override of a type is ever called.
    invocation.addSerializationOverride(RtStringGetTypeID(), _otherOverride, &otherContext);
    Value params = Dict({{"who", S("Ann")}, {"times", I(2)}, {"nick", S("%@")}});
    invocation.setParameters(params.dict(), A({S("who"), S("times"), S("nick")}).array());

    AutoString contentType;
    std::string document = text(Value::adopt(invocation.constructMessage(contentType)));
    EXPECT_TRUE(contentType.isNull());
    EXPECT_EQ(2, calls);
    EXPECT_EQ(0, otherCalls);
    EXPECT_NE(std::string::npos, document.find("      <m:greet xmlns:m=\"urn:greet\">\r\n"
                                               "          <who kind=\"custom\">Ann</who>\r\n"
                                               "          <times xsi:type=\"xsd:int\">2</times>\r\n"
                                               // The value "%@" is the override's own text: replaced too.
                                               "          <nick kind=\"custom\">nick</nick>\r\n"
                                               "        </m:greet>\r\n"))
        << document;
}

TEST(SOAPEnvelopes, OverrideTextWithNamesThatHoldPlaceholders) {
    Handler handler;
    HVClientContext context = {0, nullptr, nullptr, nullptr, nullptr};
    int calls = 0;
    context.info = &calls;
    HVProtocolHandlerSetSerializationOverride(handler.get(), RtNumberGetTypeID(), _personOverride, &context);
    // A name holding "%@" is put in once: repeating would never end.
    std::string document = handler.request("m", Dict({{"a%@b", I(1)}, {"x", I(2)}}), A({S("a%@b"), S("x")}));
    EXPECT_NE(std::string::npos, document.find("<a%@b kind=\"custom\">1</a%@b>")) << document;
    EXPECT_NE(std::string::npos, document.find("<x kind=\"custom\">2</x>")) << document;
    EXPECT_EQ(2, calls);
}
