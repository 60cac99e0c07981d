// Namespace scopes, qualification and table-driven dispatch of child elements.
#include "HalvoUtilsTestSupport.h"

#include <vector>

using namespace hvutils_test;

namespace {

class XMLVisitorTest : public UtilsTest {};

// What the handlers saw, in call order.
struct Visits {
    std::vector<std::string> calls;
    const char *failOn = nullptr; // the label whose handler returns an error
};

struct Row {
    Visits *visits;
    const char *label;
};

RtStringRef _record(RtTreeRef tree, RtXMLNodeRef node, const AutoDict &scope, void *refcon) {
    Row *row = static_cast<Row *>(refcon);
    RtStringRef ns = nullptr, local = nullptr;
    xmlNamespaceQualify(scope, RtXMLNodeGetString(node), &ns, &local);
    row->visits->calls.push_back(std::string(row->label) + ":" + text(RtXMLNodeGetString(node)) + "@" + text(ns));
    safeRtRelease(ns);
    safeRtRelease(local);
    if (row->visits->failOn && std::string(row->visits->failOn) == row->label)
        return RTSTR("handler failed");
    return nullptr;
}

AutoDict scopeWith(std::initializer_list<std::pair<const char *, const char *>> entries) {
    AutoDict scope;
    for (const auto &e : entries) {
        Owned<RtStringRef> key(newString(e.first));
        Owned<RtStringRef> value(newString(e.second));
        scope.addValue(key, value);
    }
    return scope;
}

std::string qualify(const AutoDict &scope, const char *name) {
    Owned<RtStringRef> n(newString(name));
    Owned<RtStringRef> ns, local;
    xmlNamespaceQualify(scope, n, ns.out(), local.out());
    return text(ns.get()) + "|" + text(local.get());
}

TEST_F(XMLVisitorTest, QualifiesPrefixedAndUnprefixedNames) {
    AutoDict scope = scopeWith({{"p", "urn:p"}, {"__defaultNamespace", "urn:d"}});
    EXPECT_EQ(qualify(scope, "p:x"), "urn:p|x");
    EXPECT_EQ(qualify(scope, "x"), "urn:d|x");
    EXPECT_EQ(qualify(scope, ":x"), "urn:d|:x"); // a leading colon counts as no prefix
    EXPECT_EQ(qualify(scope, "p:"), "urn:p|");
    EXPECT_EQ(qualify(scope, "q:x"), "<null>|x"); // undeclared prefix
    EXPECT_EQ(qualify(scope, "p:a:b"), "urn:p|a:b");
    AutoDict empty;
    EXPECT_EQ(qualify(empty, "x"), "<null>|x");
}

TEST_F(XMLVisitorTest, FullyQualifyAndBurstAreInverse) {
    AutoDict scope = scopeWith({{"xsd", "http://www.w3.org/2001/XMLSchema"}});
    AutoString declared(RTSTR("xsd:int"));
    fullyQualify(declared, scope);
    EXPECT_EQ(text(declared.getString()), "http://www.w3.org/2001/XMLSchema|int");
    AutoString undeclared(RTSTR("xs:int"));
    fullyQualify(undeclared, scope);
    EXPECT_EQ(text(undeclared.getString()), "xs:int");
    AutoString plain(RTSTR("int")); // no default namespace: unchanged
    fullyQualify(plain, scope);
    EXPECT_EQ(text(plain.getString()), "int");
    AutoString none;
    fullyQualify(none, scope);
    EXPECT_TRUE(none.isNull());

    auto burst = [](const char *in) {
        Owned<RtStringRef> s(newString(in));
        Owned<RtStringRef> ns, local;
        xmlBurstFullyQualifiedName(s, ns.out(), local.out());
        return text(ns.get()) + "/" + text(local.get());
    };
    EXPECT_EQ(burst("http://www.w3.org/2001/XMLSchema|int"), "http://www.w3.org/2001/XMLSchema/int");
    EXPECT_EQ(burst("abc"), "/abc");
    EXPECT_EQ(burst("|abc"), "/|abc");
    EXPECT_EQ(burst("a|b|c"), "a/b|c");
}

TEST_F(XMLVisitorTest, ScopesInheritRedeclareAndNeverLeak) {
    Owned<RtTreeRef> tree(parseText("<?xml version='1.0'?>"
                                    "<root xmlns:p='urn:A' xmlns='urn:D'>"
                                    "<p:first xmlns:p='urn:B'/>"
                                    "<p:second/>"
                                    "<third XMLNS:q='urn:Q' xmlns:='urn:none' xmlnsfoo='urn:foo'/>"
                                    "<q:fourth/>"
                                    "</root>"));
    AutoDict rootScope;
    xmlGetElementNamespaces(firstElement(tree), rootScope);
    EXPECT_EQ(rootScope.getCount(), 2);
    Visits visits;
    Row row{&visits, "any"};
    XMLElementInterrogator table[] = {{nullptr, RTSTR("first"), _record, &row},
                                      {nullptr, RTSTR("second"), _record, &row},
                                      {nullptr, RTSTR("third"), _record, &row},
                                      {nullptr, RTSTR("fourth"), _record, &row}};
    EXPECT_EQ(xmlInterrogateElements(firstElement(tree), rootScope, table, 4, nullptr), nullptr);
    ASSERT_EQ(visits.calls.size(), 4u);
    EXPECT_EQ(visits.calls[0], "any:p:first@urn:B"); // its own declaration applies to its own name
    EXPECT_EQ(visits.calls[1], "any:p:second@urn:A"); // the sibling's redeclaration did not leak
    EXPECT_EQ(visits.calls[2], "any:third@urn:D");
    EXPECT_EQ(visits.calls[3], "any:q:fourth@<null>"); // nor did the other sibling's q
    EXPECT_EQ(text(rootScope.getValue(RTSTR("p"))), "urn:A");
    EXPECT_EQ(rootScope.getCount(), 2);

    // The attribute test: "XMLNS:q" declares q, a bare "xmlns:" and "xmlnsfoo" declare nothing.
    AutoDict thirdScope;
    xmlGetElementNamespaces(RtTreeGetChildAtIndex(firstElement(tree), 2), thirdScope);
    EXPECT_EQ(thirdScope.getCount(), 1);
    EXPECT_EQ(text(thirdScope.getValue(RTSTR("q"))), "urn:Q");
}

TEST_F(XMLVisitorTest, FirstMatchingRowWinsInDocumentOrder) {
    Owned<RtTreeRef> tree(parseText("<?xml version='1.0'?>"
                                    "<E:Envelope xmlns:E='urn:X' xmlns:o='urn:other'>"
                                    "text<E:Body/><!--c--><E:Header/><E:Fault/><o:Fault/><extra/><u:Body/></E:Envelope>"));
    Visits visits;
    Row any{&visits, "anyFault"}, fixed{&visits, "xFault"}, body{&visits, "body"}, header{&visits, "header"};
    // Names and namespaces match ignoring case; the unqualified Fault row shadows the other.
    XMLElementInterrogator table[] = {{nullptr, RTSTR("fault"), _record, &any},
                                      {RTSTR("URN:x"), RTSTR("Fault"), _record, &fixed},
                                      {RTSTR("urn:x"), RTSTR("BODY"), _record, &body},
                                      {RTSTR("urn:x"), RTSTR("Header"), _record, &header}};
    AutoDict scope; // the envelope's own scope, as its parent's walk would have made it
    xmlGetElementNamespaces(firstElement(tree), scope);
    Owned<RtMutableArrayRef> extensions(RtArrayCreateMutable(kRtAllocatorDefault, 0, &kRtTypeArrayCallBacks));
    EXPECT_EQ(xmlInterrogateElements(firstElement(tree), scope, table, 4, extensions), nullptr);
    std::vector<std::string> expected = {"body:E:Body@urn:X", "header:E:Header@urn:X", "anyFault:E:Fault@urn:X",
                                         "anyFault:o:Fault@urn:other"};
    EXPECT_EQ(visits.calls, expected);
    // Unmatched elements, in document order: <extra/> and the undeclared u:Body, which a row with
    // a namespace cannot match. Text and comments are never collected.
    ASSERT_EQ(RtArrayGetCount(extensions), 2);
    EXPECT_EQ(text(getElementName((RtTreeRef)RtArrayGetValueAtIndex(extensions, 0))), "extra");
    EXPECT_EQ(text(getElementName((RtTreeRef)RtArrayGetValueAtIndex(extensions, 1))), "u:Body");
}

TEST_F(XMLVisitorTest, HandlerErrorStopsTheWalk) {
    Owned<RtTreeRef> tree(parseText("<?xml version='1.0'?><r><a/><b/><a/><c/></r>"));
    Visits visits;
    visits.failOn = "b";
    Row a{&visits, "a"}, b{&visits, "b"};
    XMLElementInterrogator table[] = {{nullptr, RTSTR("a"), _record, &a}, {nullptr, RTSTR("b"), _record, &b}};
    AutoDict scope;
    Owned<RtMutableArrayRef> extensions(RtArrayCreateMutable(kRtAllocatorDefault, 0, &kRtTypeArrayCallBacks));
    RtStringRef error = xmlInterrogateElements(firstElement(tree), scope, table, 2, extensions);
    EXPECT_EQ(text(error), "handler failed");
    std::vector<std::string> expected = {"a:a@<null>", "b:b@<null>"};
    EXPECT_EQ(visits.calls, expected);
    EXPECT_EQ(RtArrayGetCount(extensions), 0); // the walk ended before <c/>

    // An empty table sends every element to extensions; no tree visits nothing.
    EXPECT_EQ(xmlInterrogateElements(firstElement(tree), scope, nullptr, 0, extensions), nullptr);
    EXPECT_EQ(RtArrayGetCount(extensions), 4);
    EXPECT_EQ(xmlInterrogateElements(nullptr, scope, table, 2, nullptr), nullptr);
}

} // namespace
