// Reading documents: content-type and charset checks, findXMLStart bounds, parse errors, element
// search; namespace scopes, qualification and table-driven dispatch of child elements. Text
// collection shows in the readers' tables (entities, CDATA, first text only), and names
// qualified in the usual ways, with the xsi:type names built from them, in the SOAP reader's.
#include "HalvoUtilsTestSupport.h"

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
        Owned<RtDataRef> view(
            RtDataCreateWithBytesNoCopy(kRtAllocatorDefault, exact.data(), RtIndex(len), kRtAllocatorNull));
        return findXMLStart(view);
    };
    const std::pair<const char *, RtIndex> cases[] = {{"junk<?XmL version='1.0'?><a/>", 4},
                                                      {"<<?<?xMl", 3},
                                                      {"<?xml", 0},
                                                      {"<a/>", -1},
                                                      {"", -1},
                                                      {"<", -1},
                                                      {"<?", -1},
                                                      {"<?x", -1},
                                                      {"<?xm", -1},
                                                      {"a<?XM", -1},
                                                      {"<<<<", -1}};
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
    Owned<RtTreeRef> tree(
        parseText("<?xml version='1.0'?>"
                  "<SOAP-ENV:Envelope xmlns:SOAP-ENV='e'><SOAP-ENV:Header><h/></SOAP-ENV:Header>"
                  "<SOAP-ENV:Body><m:r xmlns:m='u'><deep id='1'><x/></deep></m:r>"
                  "<deep id='2'/></SOAP-ENV:Body><tail><t1><t2/></t1></tail></SOAP-ENV:Envelope>"));
    RtTreeRef body = findNamedElement(tree, RTSTR("body"));
    ASSERT_NE(body, nullptr);
    EXPECT_EQ(text(getElementName(body)), "SOAP-ENV:Body");
    RtTreeRef deep = findNamedElement(tree, RTSTR("DEEP"));
    ASSERT_NE(deep, nullptr);
    EXPECT_EQ(text(RtDictionaryGetValue(treeGetElementInfo(deep)->attributes, RTSTR("id"))), "1");
    EXPECT_EQ(text(getElementName(findNamedElement(tree, RTSTR("t2")))),
              "t2"); // reached after climbing back up
    EXPECT_EQ(findNamedElement(tree, RTSTR("missing")), nullptr);
    EXPECT_EQ(findNamedElement(body, RTSTR("tail")), nullptr); // only descendants of the start
    EXPECT_EQ(findNamedElement(nullptr, RTSTR("a")), nullptr);

    EXPECT_EQ(treeGetElementInfo(tree), nullptr); // the document node is no element
    EXPECT_EQ(text(getElementName(nullptr)), "");
    EXPECT_EQ(treeGetNode(nullptr), nullptr);
}

class XMLVisitorTest : public UtilsTest {};

// A table row's handler: it logs "label:name@namespace" and fails when its label is failOn.
struct Row {
    std::vector<std::string> *calls;
    const char *label;
    bool fail = false;
};

RtStringRef _record(RtTreeRef, RtXMLNodeRef node, const AutoDict &scope, void *refcon) {
    Row *row = static_cast<Row *>(refcon);
    Owned<RtStringRef> ns, local;
    xmlNamespaceQualify(scope, RtXMLNodeGetString(node), ns.out(), local.out());
    row->calls->push_back(std::string(row->label) + ":" + text(RtXMLNodeGetString(node)) + "@" +
                          text(ns.get()));
    return row->fail ? RTSTR("handler failed") : nullptr;
}

TEST_F(XMLVisitorTest, ScopesInheritRedeclareAndNeverLeak) {
    Owned<RtTreeRef> tree(parseText("<?xml version='1.0'?><root xmlns:p='urn:A' xmlns='urn:D'>"
                                    "<p:first xmlns:p='urn:B'/><p:second/>"
                                    "<third XMLNS:q='urn:Q' xmlns:='urn:none' xmlnsfoo='urn:foo'/>"
                                    "<q:fourth/></root>"));
    AutoDict rootScope;
    xmlGetElementNamespaces(firstElement(tree), rootScope);
    EXPECT_EQ(rootScope.getCount(), 2);
    std::vector<std::string> calls;
    Row row{&calls, "any"};
    XMLElementInterrogator table[] = {{nullptr, RTSTR("first"), _record, &row},
                                      {nullptr, RTSTR("second"), _record, &row},
                                      {nullptr, RTSTR("third"), _record, &row},
                                      {nullptr, RTSTR("fourth"), _record, &row}};
    EXPECT_EQ(xmlInterrogateElements(firstElement(tree), rootScope, table, 4, nullptr), nullptr);
    const std::vector<std::string> expected = {
        "any:p:first@urn:B",   // its own declaration applies to its own name
        "any:p:second@urn:A",  // the sibling's redeclaration did not leak
        "any:third@urn:D",     // the default namespace
        "any:q:fourth@<null>", // nor did the other sibling's q
    };
    EXPECT_EQ(calls, expected);
    EXPECT_EQ(text(rootScope.getValue(RTSTR("p"))), "urn:A");
    EXPECT_EQ(rootScope.getCount(), 2);

    // The attribute test: "XMLNS:q" declares q, a bare "xmlns:" and "xmlnsfoo" declare nothing.
    AutoDict thirdScope;
    xmlGetElementNamespaces(RtTreeGetChildAtIndex(firstElement(tree), 2), thirdScope);
    EXPECT_EQ(thirdScope.getCount(), 1);
    EXPECT_EQ(text(thirdScope.getValue(RTSTR("q"))), "urn:Q");

    // Names the parser would not pass: the prefix ends at the first colon, a leading colon is no prefix.
    auto qualify = [&](const char *name) {
        Owned<RtStringRef> n(newString(name)), ns, local;
        xmlNamespaceQualify(rootScope, n, ns.out(), local.out());
        return text(ns.get()) + "|" + text(local.get());
    };
    EXPECT_EQ(qualify("p:a:b"), "urn:A|a:b");
    EXPECT_EQ(qualify(":x"), "urn:D|:x");
    EXPECT_EQ(qualify("p:"), "urn:A|");
}

TEST_F(XMLVisitorTest, FirstMatchingRowWinsAndAnErrorStopsTheWalk) {
    Owned<RtTreeRef> tree(
        parseText("<?xml version='1.0'?>"
                  "<E:Envelope xmlns:E='urn:X' xmlns:o='urn:other'>"
                  "text<E:Body/><!--c--><E:Header/><E:Fault/><o:Fault/><extra/><u:Body/></E:Envelope>"));
    std::vector<std::string> calls;
    Row any{&calls, "anyFault"}, fixed{&calls, "xFault"}, body{&calls, "body"}, header{&calls, "header"};
    // Names and namespaces match ignoring case; the unqualified Fault row shadows the other.
    XMLElementInterrogator table[] = {{nullptr, RTSTR("fault"), _record, &any},
                                      {RTSTR("URN:x"), RTSTR("Fault"), _record, &fixed},
                                      {RTSTR("urn:x"), RTSTR("BODY"), _record, &body},
                                      {RTSTR("urn:x"), RTSTR("Header"), _record, &header}};
    AutoDict scope; // the envelope's own scope, as its parent's walk would have made it
    xmlGetElementNamespaces(firstElement(tree), scope);
    Owned<RtMutableArrayRef> extensions(RtArrayCreateMutable(kRtAllocatorDefault, 0, &kRtTypeArrayCallBacks));
    EXPECT_EQ(xmlInterrogateElements(firstElement(tree), scope, table, 4, extensions), nullptr);
    const std::vector<std::string> expected = {"body:E:Body@urn:X", "header:E:Header@urn:X",
                                               "anyFault:E:Fault@urn:X", "anyFault:o:Fault@urn:other"};
    EXPECT_EQ(calls, expected);
    // Unmatched elements, in document order: <extra/> and the undeclared u:Body, which a row with
    // a namespace cannot match. Text and comments are never collected.
    ASSERT_EQ(RtArrayGetCount(extensions), 2);
    EXPECT_EQ(text(getElementName((RtTreeRef)RtArrayGetValueAtIndex(extensions, 0))), "extra");
    EXPECT_EQ(text(getElementName((RtTreeRef)RtArrayGetValueAtIndex(extensions, 1))), "u:Body");

    // A handler's error ends the walk at once and is the walk's result.
    calls.clear();
    header.fail = true;
    Owned<RtMutableArrayRef> none(RtArrayCreateMutable(kRtAllocatorDefault, 0, &kRtTypeArrayCallBacks));
    EXPECT_EQ(text(xmlInterrogateElements(firstElement(tree), scope, table, 4, none)), "handler failed");
    EXPECT_EQ(calls, std::vector<std::string>({"body:E:Body@urn:X", "header:E:Header@urn:X"}));
    EXPECT_EQ(RtArrayGetCount(none), 0);
    // An empty table sends every element to extensions; no tree visits nothing.
    EXPECT_EQ(xmlInterrogateElements(firstElement(tree), scope, nullptr, 0, none), nullptr);
    EXPECT_EQ(RtArrayGetCount(none), 6);
    EXPECT_EQ(xmlInterrogateElements(nullptr, scope, table, 4, nullptr), nullptr);
}

} // namespace
