// Reading documents: content-type and charset checks, findXMLStart bounds, parseXML results and
// error text, text collection, element search, dumps.
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
        {"text/xml", true, true, kRtStringEncodingUTF8},
        {"text/html; charset='iso-8859-1'", false, true, kRtStringEncodingISOLatin1},
        {"text/html; charset=\"ISO-8859-1\"; q=1", false, true, kRtStringEncodingISOLatin1},
        {"application/soap+xml", true, false, kRtStringEncodingUTF8},
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
    auto start = [](const std::string &s) {
        Owned<RtDataRef> d(newData(s));
        return findXMLStart(d);
    };
    EXPECT_EQ(start("junk<?XmL version='1.0'?><a/>"), 4);
    EXPECT_EQ(start("<?xml"), 0);
    EXPECT_EQ(start("<?xm"), -1);
    EXPECT_EQ(start("<<?<?xMl"), 3);
    EXPECT_EQ(start(""), -1);
    EXPECT_EQ(start("<a/>"), -1);
    EXPECT_EQ(findXMLStart(nullptr), -1);
    // Views over heap buffers of exactly their length: a look-ahead past the end trips the
    // address sanitizer.
    for (const char *shape : {"<", "<?", "<?x", "<?xm", "<?xml", "a<?XM", "<<<<"}) {
        std::vector<uint8_t> exact(shape, shape + strlen(shape));
        Owned<RtDataRef> view(RtDataCreateWithBytesNoCopy(kRtAllocatorDefault, exact.data(), static_cast<RtIndex>(exact.size()),
                                                          kRtAllocatorNull));
        EXPECT_EQ(findXMLStart(view), std::string(shape) == "<?xml" ? 0 : -1) << shape;
    }
    // A view that ends inside "<?xml" must not see the bytes behind it.
    static const char whole[] = "ab<?xml version='1.0'?>";
    for (RtIndex len = 0; len <= 7; len++) {
        Owned<RtDataRef> view(RtDataCreateWithBytesNoCopy(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(whole), len,
                                                          kRtAllocatorNull));
        EXPECT_EQ(findXMLStart(view), len == 7 ? 2 : -1) << len;
    }
}

TEST_F(XMLReadTest, ParseSkipsJunkAndForcesDeclarations) {
    {
        Owned<RtTreeRef> tree(parseText("junk<?XmL version='1.0'?><a/>"));
        EXPECT_EQ(text(getElementName(firstElement(tree))), "a");
        Owned<RtTreeRef> upper(parseText("<?XML version='1.0'?><b/>"));
        EXPECT_EQ(text(getElementName(firstElement(upper))), "b");
    }
    {
        Owned<RtDataRef> body(newData("<a>\xE9</a>")); // Latin 1 bytes, no declaration
        Owned<RtStringRef> error;
        Owned<RtTreeRef> refused(parseXML(body, false, kRtStringEncodingISOLatin1, error.out()));
        EXPECT_EQ(refused.get(), nullptr);
        EXPECT_EQ(text(error.get()), "No valid XML data in response");

        Owned<RtStringRef> error2;
        Owned<RtTreeRef> forced(parseXML(body, true, kRtStringEncodingISOLatin1, error2.out()));
        ASSERT_NE(forced.get(), nullptr) << text(error2.get());
        EXPECT_EQ(error2.get(), nullptr);
        Owned<RtStringRef> content(copyXMLStringFromTree(RtTreeGetFirstChild(firstElement(forced))));
        EXPECT_EQ(text(content.get()), "\xC3\xA9");
    }
}

TEST_F(XMLReadTest, ParseErrorsCarryLinePositionAndStatus) {
    Owned<RtDataRef> body(newData("<?xml version=\"1.0\"?>\n<a><b></a>"));
    Owned<RtStringRef> error;
    testing::internal::CaptureStderr();
    Owned<RtTreeRef> tree(parseXML(body, false, kRtStringEncodingUTF8, error.out()));
    std::string logged = testing::internal::GetCapturedStderr();
    EXPECT_EQ(tree.get(), nullptr);
    std::string message = text(error.get());
    // "<description> (line L, pos P, status S)" with a readable description in front.
    size_t open = message.rfind(" (line ");
    ASSERT_NE(open, std::string::npos) << message;
    EXPECT_GT(open, 0u);
    EXPECT_NE(message.rfind("(null)", 0), 0u) << message;
    int line = 0, pos = 0, status = 0;
    char close = 0;
    EXPECT_EQ(sscanf(message.c_str() + open, " (line %d, pos %d, status %d%c", &line, &pos, &status, &close), 4) << message;
    EXPECT_EQ(line, 2);
    EXPECT_EQ(close, ')');
    EXPECT_EQ(message.back(), ')');
    // The parse error is printed whatever the debug switches say.
    EXPECT_EQ(logged.rfind("XML Parse error occurred: ", 0), 0u) << logged;
}

TEST_F(XMLReadTest, CollectsTextEntitiesAndCDATA) {
    Owned<RtTreeRef> tree(parseText("<?xml version='1.0'?><r><a>x&amp;y</a><b>t<e/>u</b><c/><d><e/>t</d>"
                                    "<f><![CDATA[<x>]]>&lt;y</f><g>&apos;</g></r>"));
    RtTreeRef r = firstElement(tree);
    auto collect = [&](const char *name) {
        Owned<RtStringRef> n(newString(name));
        Owned<RtStringRef> s(copyXMLStringFromTree(RtTreeGetFirstChild(findNamedElement(r, n))));
        return text(s.get());
    };
    EXPECT_EQ(collect("a"), "x&y");
    EXPECT_EQ(collect("b"), "t"); // stops at the element
    EXPECT_EQ(collect("c"), "<null>");
    EXPECT_EQ(collect("d"), "<null>");
    EXPECT_EQ(collect("f"), "<x><y");
    EXPECT_EQ(collect("g"), "'");
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

TEST_F(XMLReadTest, QualifiedNamesAndNodeTypeNames) {
    Owned<RtStringRef> local(copyQualifiedName(RTSTR("SOAP-ENV:Body")));
    EXPECT_EQ(text(local.get()), "Body");
    Owned<RtStringRef> none(copyQualifiedName(RTSTR("Body")));
    EXPECT_EQ(none.get(), nullptr);
    Owned<RtStringRef> empty(copyQualifiedName(RTSTR("a:")));
    EXPECT_EQ(text(empty.get()), "");
    Owned<RtStringRef> firstColon(copyQualifiedName(RTSTR("a:b:c")));
    EXPECT_EQ(text(firstColon.get()), "b:c");

    Owned<RtTreeRef> tree(parseText("<?xml version='1.0'?><!--c--><r>t</r>"));
    EXPECT_EQ(text(getNodeType(treeGetNode(tree))), "kRtXMLNodeTypeDocument");
    RtTreeRef r = firstElement(tree);
    EXPECT_EQ(text(getNodeType(treeGetNode(r))), "kRtXMLNodeTypeElement");
    EXPECT_EQ(text(getNodeType(treeGetNode(RtTreeGetFirstChild(r)))), "kRtXMLNodeTypeText");
    EXPECT_EQ(text(getNodeType(nullptr)), "??unknown node type??");
}

} // namespace
