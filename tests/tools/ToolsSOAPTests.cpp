// The SOAP side of the tools: what hvcall's SOAP options put in the envelope, hvserve answering
// each request in the schema flavour it declares, and the SOAP override of the example.
#include "ScriptedHTTPServer.h"
#include "TestHTTPClient.h"
#include "ToolProcess.h"
#include "ToolStrings.h"

#include <HalvosCore/HalvosCore.h>

#include <gtest/gtest.h>

namespace {

using namespace hvtest;

const char kSchema1999[] = "xmlns:xsd=\"http://www.w3.org/1999/XMLSchema\"";
const char kSchema2001[] = "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\"";

TEST(Hvcall, SOAPOptionsShapeTheEnvelope) {
    ScriptedHTTPServer scripted;
    scripted.reply(
        "POST", "/soap",
        ScriptedReply::xml("<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\">"
                           "<SOAP-ENV:Body><m:greetResponse xmlns:m=\"urn:test\"><answer>hi</answer>"
                           "</m:greetResponse></SOAP-ENV:Body></SOAP-ENV:Envelope>"));
    struct {
        std::vector<std::string> options;
        const char *schema;
        const char *method;
    } cases[] = {
        {{"--protocol=soap2001", "--rpc"}, kSchema2001, "<m:greet xmlns:m=\"urn:test\">"},
        {{"--protocol=soap2001"}, kSchema2001, "<greet xmlns=\"urn:test\">"},
        {{"--protocol=soap1999"}, kSchema1999, "<m:greet xmlns:m=\"urn:test\">"}, // 1999 is always rpc
    };
    for (const auto &c : cases) {
        std::vector<std::string> args = c.options;
        args.insert(args.end(), {"--namespace", "urn:test", "--param-names", "who", "--result-name", "answer",
                                 scripted.url("/soap"), "greet", "\"Ada\""});
        Finished finished = hvcall(args);
        EXPECT_EQ(finished.out, "\"hi\"\n") << finished.err;
        std::string body = scripted.lastRequest().body;
        EXPECT_TRUE(contains(body, c.schema)) << body;
        EXPECT_TRUE(contains(body, c.method)) << body;
        EXPECT_TRUE(contains(body, "<who xsi:type=\"xsd:string\">Ada</who>")) << body;
    }
    Finished missing =
        hvcall({"--protocol", "soap2001", "--result-name", "nothing", scripted.url("/soap"), "greet"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(contains(missing.err, "Can't find method result parameter 'nothing' in reply"))
        << missing.err;
}

// The request document a SOAP client of the flavour would post for examples.echo("x").
std::string soapRequest(RtStringRef protocol) {
    HVProtocolHandlerRef handler = HVProtocolHandlerCreate(nullptr, protocol);
    const void *names[] = {RTSTR("value")};
    const void *values[] = {RTSTR("x")};
    RtDictionaryRef params = RtDictionaryCreate(nullptr, names, values, 1, &kRtTypeDictionaryKeyCallBacks,
                                                &kRtTypeDictionaryValueCallBacks);
    RtArrayRef order =
        RtArrayCreate(nullptr, names, 1, &kRtTypeArrayCallBacks); // SOAP writes only what it lists
    RtDataRef document =
        HVProtocolHandlerCopyRequestDocument(handler, RTSTR("examples.echo"), params, order, nullptr);
    std::string text(reinterpret_cast<const char *>(RtDataGetBytePtr(document)),
                     size_t(RtDataGetLength(document)));
    RtRelease(document);
    RtRelease(order);
    RtRelease(params);
    RtRelease(handler);
    return text;
}

TEST(Hvserve, AnswersSOAPInTheRequestsFlavour) {
    Server server;
    for (auto [protocol, schema] :
         {std::pair{kHVSOAP1999Protocol, kSchema1999}, {kHVSOAP2001Protocol, kSchema2001}}) {
        TestHTTPResponse reply = httpRequest(server.port(), "POST", "/soap", {}, soapRequest(protocol));
        EXPECT_EQ(reply.status, 200);
        EXPECT_TRUE(contains(reply.body, schema)) << reply.body;
        EXPECT_TRUE(contains(reply.body, "<Result xsi:type=\"xsd:string\">x</Result>")) << reply.body;
    }
    TestHTTPResponse malformed = httpRequest(server.port(), "POST", "/soap", {}, "<Envelope/>");
    EXPECT_EQ(malformed.status, 500);
    EXPECT_TRUE(contains(malformed.body, "<faultcode>SOAP-ENV:Client</faultcode>")) << malformed.body;
    EXPECT_EQ(malformed.header("Content-Type"), "text/xml; charset=utf-8");
}

TEST(Examples, SerializationOverrideWritesSOAPElements) {
    Finished offline = run({examplePath("serialization_override")});
    EXPECT_EQ(offline.status, 0) << offline.err;
    EXPECT_TRUE(
        contains(offline.out, "<link xsi:type=\"xsd:string\">http://example.com/a?b=1&amp;c=2</link>"))
        << offline.out;
}

} // namespace
