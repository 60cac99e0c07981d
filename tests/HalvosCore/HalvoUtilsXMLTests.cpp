// Reading documents: content-type and charset checks, findXMLStart bounds, parse errors, element
// search. Text collection shows in the readers' tables (entities, CDATA, first text only).
#include "HalvoUtilsTestSupport.h"

#include <cstdio>
#include <cstring>
#include <vector>

using namespace hvutils_test;

namespace {

class XMLReadTest : public UtilsTest {};

RtHTTPMessageRef responseWithType(const char *contentType) {
    RtHTTPMessageRef msg = RtHTTPMessageCreateResponse(kRtAllocatorDefault, 200, nullptr, nullptr);
    if (contentType) {
        Owned<RtStringRef> value(newString(contentType));
        RtHTTPMessageSetHeaderFieldValue(msg, RTSTR("Content-Type"), value);
    }
    return msg;
}

TEST_F(XMLReadTest, ContentTypeAndCharset) {
    struct Case {
        const char *type;
        bool known, possibly;
        RtStringEncoding charset;
    } cases[] = {
        {nullptr, false, true, kRtStringEncodingUTF8},
        {"text/html; charset='iso-8859-1'", false, true, kRtStringEncodingISOLatin1},
        {"text/html; charset=\"ISO-8859-1\"; q=1", false, true, kRtStringEncodingISOLatin1},
        {"TEXT/XML", true, false, kRtStringEncodingUTF8}, // the "text/" prefix test is case-sensitive
        {"text/xml; charset=bogus", true, true, kRtStringEncodingASCII},
        {"text/xml; charset=", true, true, kRtStringEncodingUTF8},
        {"text/xml; charset=''", true, true, kRtStringEncodingUTF8},
        {"text/xml; CHARSET=us-ascii", true, true, kRtStringEncodingASCII},
    };
    for (const Case &c : cases) {
        Owned<RtHTTPMessageRef> msg(responseWithType(c.type));
        bool known = !c.known, possibly = !c.possibly;
        checkForXMLContent(msg, &known, &possibly);
        const char *label = c.type ? c.type : "(none)";
        EXPECT_EQ(known, c.known) << label;
        EXPECT_EQ(possibly, c.possibly) << label;
        EXPECT_EQ(getResponseCharset(msg), c.charset) << label;
    }
}

TEST_F(XMLReadTest, FindXMLStartStaysInsideTheData) {
    // The first len bytes of text from a heap buffer of exactly that length: a look-ahead past
    // the end trips the address sanitizer.
    auto start = [](const char *text, size_t len) {
        std::vector<uint8_t> exact(text, text + len);
        Owned<RtDataRef> view(RtDataCreateWithBytesNoCopy(kRtAllocatorDefault, exact.data(), RtIndex(len), kRtAllocatorNull));
        return findXMLStart(view);
    };
    const std::pair<const char *, RtIndex> cases[] = {
        {"junk<?XmL version='1.0'?><a/>", 4}, {"<<?<?xMl", 3}, {"<?xml", 0}, {"<a/>", -1}, {"", -1},
        {"<", -1}, {"<?", -1}, {"<?x", -1}, {"<?xm", -1}, {"a<?XM", -1}, {"<<<<", -1}};
    for (const auto &c : cases)
        EXPECT_EQ(start(c.first, strlen(c.first)), c.second) << c.first;
    for (size_t len = 0; len <= 7; len++) // ends inside "<?xml" until the whole of it is there
        EXPECT_EQ(start("ab<?xml version='1.0'?>", len), len == 7 ? 2 : -1) << len;
    EXPECT_EQ(findXMLStart(nullptr), -1);
}

// Junk before the declaration, Latin 1 documents with and without one and the shape of the
// parse error are pinned by the transport's scripted replies; here the line and the log.
TEST_F(XMLReadTest, ParseErrorsNameTheLineAndAreAlwaysLogged) {
    Owned<RtDataRef> body(newData("<?xml version=\"1.0\"?>\n<a><b></a>"));
    Owned<RtStringRef> error;
    testing::internal::CaptureStderr();
    Owned<RtTreeRef> tree(parseXML(body, false, kRtStringEncodingUTF8, error.out()));
    std::string logged = testing::internal::GetCapturedStderr();
    EXPECT_EQ(tree.get(), nullptr);
    std::string message = text(error.get());
    EXPECT_NE(message.rfind("(null)", 0), 0u) << message; // a readable description in front
    EXPECT_NE(message.find(" (line 2, pos "), std::string::npos) << message;
    EXPECT_EQ(logged.rfind("XML Parse error occurred: ", 0), 0u) << logged; // whatever the debug switches say
}

TEST_F(XMLReadTest, FindsElementsDepthFirstIgnoringPrefixAndCase) {
    Owned<RtTreeRef> tree(parseText("<?xml version='1.0'?>"
                                    "<SOAP-ENV:Envelope xmlns:SOAP-ENV='e'><SOAP-ENV:Header><h/></SOAP-ENV:Header>"
                                    "<SOAP-ENV:Body><m:r xmlns:m='u'><deep id='1'><x/></deep></m:r>"
                                    "<deep id='2'/></SOAP-ENV:Body><tail><t1><t2/></t1></tail></SOAP-ENV:Envelope>"));
    RtTreeRef body = findNamedElement(tree, RTSTR("body"));
    ASSERT_NE(body, nullptr);
    EXPECT_EQ(text(getElementName(body)), "SOAP-ENV:Body");
    RtTreeRef deep = findNamedElement(tree, RTSTR("DEEP"));
    ASSERT_NE(deep, nullptr);
    EXPECT_EQ(text(RtDictionaryGetValue(treeGetElementInfo(deep)->attributes, RTSTR("id"))), "1");
    EXPECT_EQ(text(getElementName(findNamedElement(tree, RTSTR("t2")))), "t2"); // reached after climbing back up
    EXPECT_EQ(findNamedElement(tree, RTSTR("missing")), nullptr);
    EXPECT_EQ(findNamedElement(body, RTSTR("tail")), nullptr); // only descendants of the start
    EXPECT_EQ(findNamedElement(nullptr, RTSTR("a")), nullptr);

    EXPECT_EQ(treeGetElementInfo(tree), nullptr); // the document node is no element
    EXPECT_EQ(text(getElementName(nullptr)), "");
    EXPECT_EQ(treeGetNode(nullptr), nullptr);
}

} // namespace
