// Exact mode writes base64 on one line, without the tabs and breaks of the indented writing that
// some readers cannot decode, typed by each SOAP flavour's own name; it reads back whole.
#include "SOAPTestSupport.h"

using namespace soaptest;

TEST(ExactBase64, OneLineInEveryDialectAndReadBack) {
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
