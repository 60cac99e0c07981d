// SOAP request envelopes as they leave us, byte for byte: each flavour and body style, headers,
// every value kind, arrays, records and serialization overrides.
#include "SOAPTestSupport.h"

#include "SOAPHalvoClosure.h"

using namespace soaptest;

namespace {

bool contains(const std::string &document, const std::string &part) {
    return document.find(part) != std::string::npos;
}

RtStringRef _customOverride(HVMethodInvocationRef, RtTypeRef value, void *info) {
    ++*static_cast<int *>(info);
    return RtStringCreateWithFormat(nullptr, nullptr, RTSTR("<%%@ kind=\"custom\">%@</%%@>"), value);
}

} // namespace

TEST(SOAPEnvelopes, EachFlavourAndBodyStyle) {
    Value params = Dict({{"a", I(1)}, {"b", S("two")}});
    Value order = A({S("a"), S("b")});
    // SOAP-1999 is always rpc, whatever the style property says.
    SOAPHandler soap1999(kHVSOAP1999Protocol);
    soap1999.set(kHVSOAPMethodNamespaceURI, RTSTR("urn:calc"));
    soap1999.set(kHVSOAPBodyEncodingStyle, kHVSOAPStyleDoc);
    EXPECT_EQ(soapGolden("request_1999_rpc.xml"), soap1999.request("add", params, order));
    // SOAP-2001 is doc unless the style is the library's own rpc constant, not just its text.
    SOAPHandler soap2001;
    soap2001.set(kHVSOAPMethodNamespaceURI, RTSTR("urn:calc"));
    EXPECT_EQ(soapGolden("request_2001_doc.xml"), soap2001.request("add", params, order));
    soap2001.set(kHVSOAPBodyEncodingStyle, S("rpc").get());
    EXPECT_EQ(soapGolden("request_2001_doc.xml"), soap2001.request("add", params, order));
    soap2001.set(kHVSOAPBodyEncodingStyle, kHVSOAPStyleRPC);
    EXPECT_EQ(soapGolden("request_2001_rpc.xml"), soap2001.request("add", params, order));

    // Without a method namespace the placeholder stands in; without an order nothing is written.
    std::string plain = SOAPHandler().request("ping", params);
    EXPECT_TRUE(contains(plain, "        <ping xmlns=\"urn:halvos:soap\">\r\n        </ping>\r\n")) << plain;
}

TEST(SOAPEnvelopes, HeadersAsTextOrEntries) {
    SOAPHandler handler;
    handler.set(kHVSOAPMessageHeaders, RTSTR("<t:T xmlns:t=\"urn:t\">5</t:T>"));
    std::string one = handler.request("m", Dict({}), A({}));
    EXPECT_TRUE(contains(one, "\">\r\n      <SOAP-ENV:Header>\r\n        <t:T xmlns:t=\"urn:t\">5</t:T>\r\n"
                              "      </SOAP-ENV:Header>\r\n      <SOAP-ENV:Body>\r\n"))
        << one;
    handler.set(kHVSOAPMessageHeaders, A({S("<a>1</a>"), S("<b>2</b>")}).get());
    std::string two = handler.request("m", Dict({}), A({}));
    EXPECT_TRUE(contains(two, "      <SOAP-ENV:Header>\r\n        <a>1</a>\r\n        <b>2</b>\r\n"
                              "      </SOAP-ENV:Header>\r\n"))
        << two;
    // Any other kind gives a comment instead of a header block.
    handler.set(kHVSOAPMessageHeaders, I(3).get());
    std::string wrong = handler.request("m", Dict({}), A({}));
    EXPECT_FALSE(contains(wrong, "<SOAP-ENV:Header>")) << wrong;
    EXPECT_TRUE(contains(wrong,
                         "\">\r\n        <!-- kHVHTTPExtraHeaders requires a RtString or RtArray -->\r\n"
                         "      <SOAP-ENV:Body>"))
        << wrong;
}

TEST(SOAPEnvelopes, ValuesOfEveryKind) {
    // "big" is no 32-bit number and is written as 0; "when" is 2001-12-31T23:59:59Z.
    Value values =
        Dict({{"text", S("a&b<c>'d\"")},
              {"count", I(-7)},
              {"big", I64(3000000000LL)},
              {"tenth", D(0.1)},
              {"huge", D(1e20)},
              {"nine", D(123456789.0)},
              {"yes", B(true)},
              {"no", B(false)},
              {"zero", I(0)},
              {"when", Date(31535999.0)},
              {"blob", Bytes("Man is distinguished, not only by his reason, but by this singular passion")},
              {"none", Null()}});
    Value order = A({S("text"), S("count"), S("big"), S("tenth"), S("huge"), S("nine"), S("yes"), S("no"),
                     S("zero"), S("when"), S("blob"), S("none"), S("absent")});
    SOAPHandler soap2001;
    soap2001.set(kHVSOAPMethodNamespaceURI, RTSTR("urn:kinds"));
    EXPECT_EQ(soapGolden("request_2001_kinds.xml"), soap2001.request("kinds", values, order));

    // The 1999 flavour names dates and binary data its own way.
    SOAPHandler soap1999(kHVSOAP1999Protocol);
    std::string document = soap1999.request("kinds", values, order);
    EXPECT_TRUE(contains(document, "<when xsi:type=\"xsd:timeInstant\">2001-12-31T23:59:59Z</when>"))
        << document;
    EXPECT_TRUE(contains(document, "<blob xsi:type=\"xsd:base64\">\t\tTWFu")) << document;

    // A kind SOAP has no type for is written with its description and a comment.
    Value url = Value::adopt(RtURLCreateWithString(nullptr, RTSTR("http://example.com/"), nullptr));
    Value line = Value::adopt(RtStringCreateWithFormat(nullptr, nullptr,
                                                       RTSTR("<u>%@</u> <!-- UNKNOWN PARAMETER TYPE %d -->"),
                                                       url.get(), static_cast<int>(RtGetTypeID(url.get()))));
    Value lineBytes =
        Value::adopt(RtStringCreateExternalRepresentation(nullptr, line.str(), kRtStringEncodingUTF8, 0));
    document = soap1999.request("m", Dict({{"u", url}}), A({S("u")}));
    EXPECT_TRUE(contains(document, "          " + text(lineBytes) + "\r\n")) << document;
}

TEST(SOAPEnvelopes, ArraysAndRecords) {
    // The middle element of the list is missing; the record has its own type, namespace and
    // member order (which names a missing member and skips the "/" keys).
    Value first = S("first");
    Value last = I(3);
    const void *items[] = {first.get(), nullptr, last.get()};
    Value person =
        Dict({{"name", S("Ann <& Bob>")},
              {"age", I(42)},
              {"/HVRecordType", S("ns1:Person")},
              {"/HVRecordNamespaceURI", S("urn:people")},
              {"/HVRecordParamOrder", A({S("age"), S("name"), S("missing"), S("/HVRecordType"), S("")})}});
    Value params = Dict({{"list", Value::adopt(RtArrayCreate(nullptr, items, 3, nullptr))},
                         {"empty", A({})},
                         {"nested", A({A({I(1)}), Dict({{"k", S("v")}, {"/HVHidden", S("x")}})})},
                         {"person", person},
                         {"plain", Dict({{"z", I(1)}, {"a", I(2)}})}});
    SOAPHandler soap1999(kHVSOAP1999Protocol);
    soap1999.set(kHVSOAPMethodNamespaceURI, RTSTR("urn:shapes"));
    EXPECT_EQ(
        soapGolden("request_1999_shapes.xml"),
        soap1999.request("shapes", params, A({S("list"), S("empty"), S("nested"), S("person"), S("plain")})));
    std::string document = SOAPHandler().request("shapes", params, A({S("empty")}));
    EXPECT_TRUE(contains(document,
                         "<empty SOAP-ENC:arrayType=\"xsd:anyType[0]\" xsi:type=\"SOAP-ENC:Array\">\r\n"
                         "          </empty>\r\n"))
        << document;
}

TEST(SOAPEnvelopes, OverridesThroughTheInvocation) {
    // The invocation holds the properties and overrides; the temporary handler it writes with
    // reaches them through its parent. Only the first override of a type is ever called.
    Value url = Value::adopt(RtURLCreateWithString(nullptr, RTSTR("http://127.0.0.1:1/"), nullptr));
    SOAPHalvoMethodInvocation invocation(kHVSOAP2001Protocol, static_cast<RtURLRef>(url.get()),
                                         RTSTR("greet"));
    invocation.setProperty(kHVSOAPMethodNamespaceURI, RTSTR("urn:greet"));
    invocation.setProperty(kHVSOAPBodyEncodingStyle, kHVSOAPStyleRPC);
    int calls = 0, otherCalls = 0;
    HVClientContext context = {0, &calls, nullptr, nullptr, nullptr};
    HVClientContext otherContext = {0, &otherCalls, nullptr, nullptr, nullptr};
    invocation.addSerializationOverride(RtStringGetTypeID(), _customOverride, &context);
    invocation.addSerializationOverride(RtStringGetTypeID(), _customOverride, &otherContext);
    // A name holding "%@" is put in once: repeating the replacement would never end.
    Value params = Dict({{"who", S("Ann")}, {"times", I(2)}, {"nick", S("%@")}, {"a%@b", S("x")}});
    invocation.setParameters(params.dict(), A({S("who"), S("times"), S("nick"), S("a%@b")}).array());

    AutoString contentType;
    std::string document = text(Value::adopt(invocation.constructMessage(contentType)));
    EXPECT_TRUE(contentType.isNull());
    EXPECT_EQ(3, calls);
    EXPECT_EQ(0, otherCalls);
    EXPECT_TRUE(contains(document, "      <m:greet xmlns:m=\"urn:greet\">\r\n"
                                   "          <who kind=\"custom\">Ann</who>\r\n"
                                   "          <times xsi:type=\"xsd:int\">2</times>\r\n"
                                   "          <nick kind=\"custom\">nick</nick>\r\n" // "%@" in the value too
                                   "          <a%@b kind=\"custom\">x</a%@b>\r\n"
                                   "        </m:greet>\r\n"))
        << document;
}
