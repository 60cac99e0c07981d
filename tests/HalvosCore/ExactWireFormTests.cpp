// Exact mode writes base64 on one line, without the tabs and breaks of the indented writing that
// some readers cannot decode, typed by each SOAP flavour's own name; SOAP records without a
// declared type carry no made-up type name. Everything reads back whole.
#include "SOAPTestSupport.h"

using namespace soaptest;

TEST(ExactWireForm, Base64OnOneLineInEveryDialectAndReadBack) {
    std::string bytes;
    for (int i = 0; i < 200; i++) // longer than one indented line
        bytes.push_back(static_cast<char>(i * 7));
    struct {
        RtStringRef protocol;
        const char *open; // the element's start, right before the text
    } cases[] = {
        {kHVXMLRPCProtocol, "<base64>"},
        {kHVSOAP1999Protocol, "<p xsi:type=\"SOAP-ENC:base64\">"},
        {kHVSOAP2001Protocol, "<p xsi:type=\"xsd:base64Binary\">"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(describe(c.protocol));
        Handler handler(c.protocol);
        handler.set(kHVExactValues, kRtBooleanTrue);
        std::string document = handler.request("m", Dict({{"p", Bytes(bytes)}}), A({S("p")}));
        size_t at = document.find(c.open);
        ASSERT_NE(std::string::npos, at) << document;
        std::string text = document.substr(at + strlen(c.open));
        text = text.substr(0, text.find('<'));
        EXPECT_EQ(std::string::npos, text.find_first_of(" \t\r\n")) << text;
        Value request = handler.readRequest(document);
        // XML-RPC parameters have no names: the first one, whatever it is called.
        auto order = static_cast<RtArrayRef>(request["/HVMethodParameterOrder"]);
        ASSERT_TRUE(order && RtArrayGetCount(order) == 1) << document;
        EXPECT_TRUE(sameValue(
            Bytes(bytes), RtDictionaryGetValue(static_cast<RtDictionaryRef>(request["/HVMethodParameters"]),
                                               RtArrayGetValueAtIndex(order, 0))));
    }
}

TEST(ExactWireForm, SOAPRecordsWithoutADeclaredTypeHaveNoMadeUpTypeName) {
    const struct {
        Value record;
        const char *start; // the element as written
    } cases[] = {
        {Dict({{"a", S("")}}), "<p>"},
        {Dict({{"a", Dict({{"b", I(1)}})}}), "<p>"},
        {Dict({}), "<p xsi:type=\"SOAP-ENC:Struct\">"}, // typed, or it would read as null
        {Dict({{"/HVRecordType", S("ns:Point")}, {"x", I(1)}}), "<p xsi:type=\"ns:Point\">"},
    };
    for (RtStringRef protocol : {kHVSOAP1999Protocol, kHVSOAP2001Protocol})
        for (const auto &c : cases) {
            SOAPHandler handler(protocol);
            handler.set(kHVExactValues, kRtBooleanTrue);
            std::string document = handler.request("m", Dict({{"p", c.record}}), A({S("p")}));
            EXPECT_NE(std::string::npos, document.find(c.start)) << document;
            EXPECT_EQ(std::string::npos, document.find("Dictionary")) << document;
            if (strstr(c.start, "ns:")) continue; // a declared type is not read back into the record
            Value request = handler.readRequest(document);
            EXPECT_TRUE(sameValue(c.record, Value::retain(request["/HVMethodParameters"])["p"])) << document;
        }
}
