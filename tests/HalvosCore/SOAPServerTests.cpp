// The SOAP server side as a program that receives calls sees it: request documents into request
// dictionaries, and the reply and fault documents it sends back.
#include "SOAPTestSupport.h"

#include "SOAPHalvoClosure.h"

using namespace soaptest;

namespace {

Value request(const char *method, const char *ns, const Value &params, const Value &order) {
    return Dict({{"/HVMethodName", S(method)},
                 {"/HVSOAPMethodNamespaceURI", ns ? S(ns) : Value()},
                 {"/HVMethodParameters", params},
                 {"/HVMethodParameterOrder", order}});
}

} // namespace

TEST(SOAPServer, RequestsIntoDictionaries) {
    Value params = Dict({{"a", I(1)}, {"b", S("two")}, {"c", A({D(0.5), B(true)})}});
    Value order = A({S("a"), S("b"), S("c")});

    // What our own client writes, in each flavour and style, comes back as it went out.
    for (RtStringRef protocol : {kHVSOAP1999Protocol, kHVSOAP2001Protocol}) {
        for (RtStringRef style : {kHVSOAPStyleRPC, kHVSOAPStyleDoc}) {
            SOAPHandler client(protocol);
            client.set(kHVSOAPMethodNamespaceURI, RTSTR("urn:calc"));
            client.set(kHVSOAPBodyEncodingStyle, style);
            SOAPHandler server(protocol);
            Value parsed = server.readRequest(client.request("add", params, order));
            EXPECT_TRUE(sameValue(request("add", "urn:calc", params, order), parsed.get()));
        }
    }

    // An unprefixed method element without a default namespace takes the handler's method
    // namespace; headers come back as the Header's tree node; references are followed.
    SOAPHandler server;
    server.set(kHVSOAPMethodNamespaceURI, RTSTR("urn:mine"));
    Value parsed =
        server.readRequest(envelope("<echo><s href=\"#v\"/><n>1</n></echo><item id=\"v\"><x>y</x></item>",
                                    "<SOAP-ENV:Header><t:T xmlns:t=\"urn:t\"/></SOAP-ENV:Header>"));
    RtTypeRef header = parsed["/HVHTTPMessageHeaders"];
    ASSERT_EQ(RtTreeGetTypeID(), RtGetTypeID(header));
    RtMutableDictionaryRef withoutHeader = RtDictionaryCreateMutableCopy(nullptr, 0, parsed.dict());
    RtDictionaryRemoveValue(withoutHeader, RTSTR("/HVHTTPMessageHeaders"));
    EXPECT_TRUE(sameValue(
        request("echo", "urn:mine", Dict({{"s", Dict({{"x", S("y")}})}, {"n", S("1")}}), A({S("s"), S("n")})),
        withoutHeader));
    RtRelease(withoutHeader);

    // Without a method namespace property the placeholder is the default.
    SOAPHandler plain;
    EXPECT_TRUE(sameValue(request("ping", "urn:halvos:soap", Dict({}), A({})),
                          plain.readRequest(envelope("<ping/>")).get()));
}

TEST(SOAPServer, RequestsThatCannotBeRead) {
    SOAPHandler server;
    // No dictionary: unparseable bytes, a Body without a method, an undecodable parameter.
    EXPECT_EQ(nullptr, server.readRequest("<SOAP-ENV:Envelope").get());
    EXPECT_EQ(nullptr, server.readRequest(envelope("")).get());
    EXPECT_EQ(nullptr, server.readRequest(envelope("<m><p href=\"#gone\"/></m>")).get());
    EXPECT_EQ(nullptr,
              server.readRequest(envelope("<m><p href=\"#x\"/></m><x id=\"x\"><y href=\"#x\"/></x>")).get());

    // The parser's message reaches the handler's error argument; a failed dispatch's does not.
    SOAPProtocolHandler handler(kHVSOAP2001Protocol);
    AutoString error;
    Value bad = Bytes("<a><b></a>");
    EXPECT_EQ(nullptr, handler.parsePostData(bad.data(), kRtStringEncodingUTF8, &error));
    EXPECT_FALSE(error.isNull());
    Value missing = Bytes(envelope(""));
    EXPECT_EQ(nullptr, handler.parsePostData(missing.data(), kRtStringEncodingUTF8, &error));
    EXPECT_TRUE(error.isNull());

    // Something that is not a SOAP envelope is no request at all: an empty dictionary.
    EXPECT_TRUE(
        sameValue(Dict({}), server.readRequest("<methodCall><methodName>x</methodName></methodCall>").get()));
}

TEST(SOAPServer, RepliesAndFaults) {
    SOAPHandler soap2001;
    Value addRequest = request("add", "urn:calc", Dict({}), A({}));
    EXPECT_EQ(soapGolden("reply_2001.xml"),
              soap2001.reply(Dict({{"sum", I(3)}, {"list", A({I(1), S("x")})}}), addRequest));

    // Without a method namespace the response element is unprefixed; the closing tags match.
    std::string plain = soap2001.reply(S("ok"), request("ping", nullptr, Dict({}), A({})));
    EXPECT_NE(std::string::npos, plain.find("        <pingResponse>\r\n"
                                            "          <Result xsi:type=\"xsd:string\">ok</Result>\r\n"
                                            "        </pingResponse>\r\n"
                                            "      </SOAP-ENV:Body>\r\n"
                                            "  </SOAP-ENV:Envelope>\r\n"))
        << plain;

    // Faults always carry the client code; the string goes in as it stands.
    SOAPHandler soap1999(kHVSOAP1999Protocol);
    EXPECT_EQ(soapGolden("fault_1999.xml"),
              soap1999.fault(Dict({{"/FaultString", S("a < b & c")}, {"/FaultCode", I(99)}}), addRequest));
    std::string unknown = soap1999.fault(Dict({}));
    EXPECT_NE(std::string::npos, unknown.find("<faultstring>Unknown Fault</faultstring>")) << unknown;

    // A reply in the request's text encoding.
    Value latin = Dict({{"/HVMethodName", S("m")},
                        {"/HVTextEncoding", I(static_cast<int32_t>(kRtStringEncodingISOLatin1))}});
    std::string bytes = soap2001.reply(S("caf\xC3\xA9"), latin);
    EXPECT_NE(std::string::npos, bytes.find(">caf\xE9</Result>")) << bytes;
    EXPECT_EQ(std::string::npos, bytes.find("UTF-8")) << bytes;
}
