// Namespace scopes, qualification and table-driven dispatch of child elements. Names qualified
// in the usual ways, and the xsi:type names built from them, show in the SOAP reader's tests.
#include "HalvoUtilsTestSupport.h"

#include <vector>

using namespace hvutils_test;

namespace {

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
    row->calls->push_back(std::string(row->label) + ":" + text(RtXMLNodeGetString(node)) + "@" + text(ns.get()));
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
    Owned<RtTreeRef> tree(parseText("<?xml version='1.0'?>"
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
    const std::vector<std::string> expected = {"body:E:Body@urn:X", "header:E:Header@urn:X", "anyFault:E:Fault@urn:X",
                                               "anyFault:o:Fault@urn:other"};
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
