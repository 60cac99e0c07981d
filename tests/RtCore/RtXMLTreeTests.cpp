// XML trees: the shapes documents take (entities, CDATA, comments, PIs, empty elements,
// attribute order, whitespace), navigation and ownership, error dictionaries, charsets, and the
// limits that keep hostile documents harmless (depth, entities, external files).
#include "RtValueTestSupport.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

using namespace rttest;

namespace {

class XMLTreeTests : public LeakChecked {};

RtTreeRef parse(const std::string &bytes, RtOptionFlags options = kRtXMLParserAllOptions) {
    RtDataRef data = dataOf(bytes);
    RtTreeRef tree = RtXMLTreeCreateFromData(kRtAllocatorDefault, data, nullptr, options, 1);
    RtRelease(data);
    return tree;
}

// The failure of a document that must not parse: "status|line|location|description".
std::string failure(const std::string &bytes) {
    RtDataRef data = dataOf(bytes);
    RtDictionaryRef error = reinterpret_cast<RtDictionaryRef>(uintptr_t(1)); // must be overwritten
    RtTreeRef tree =
        RtXMLTreeCreateFromDataWithError(nullptr, data, nullptr, kRtXMLParserAllOptions, 1, &error);
    RtRelease(data);
    if (tree) {
        RtRelease(tree);
        return "parsed";
    }
    if (!error) return "no error dictionary";
    auto number = [&](RtStringRef key) {
        long value = -99;
        RtNumberGetValue(static_cast<RtNumberRef>(RtDictionaryGetValue(error, key)), kRtNumberLongType,
                         &value);
        return std::to_string(value);
    };
    std::string s = number(kRtXMLTreeErrorStatusCode) + "|" + number(kRtXMLTreeErrorLineNumber) + "|" +
                    number(kRtXMLTreeErrorLocation) + "|" +
                    text(static_cast<RtStringRef>(RtDictionaryGetValue(error, kRtXMLTreeErrorDescription)));
    RtRelease(error);
    return s;
}

std::string status(const std::string &result) {
    return result.substr(0, result.find('|'));
}

// A compact picture of a subtree: element name{attributes in order}, "/" for <x/>, [children];
// 'text', &ref;, CDATA'..', !'comment', ?target'data', DOCTYPE name.
std::string shape(RtTreeRef t) {
    RtXMLNodeRef node = RtXMLTreeGetNode(t);
    std::string s;
    switch (RtXMLNodeGetTypeCode(node)) {
    case kRtXMLNodeTypeDocument:
        s = "#doc";
        break;
    case kRtXMLNodeTypeElement: {
        s = text(RtXMLNodeGetString(node));
        auto info = static_cast<const RtXMLElementInfo *>(RtXMLNodeGetInfoPtr(node));
        RtIndex n = RtArrayGetCount(info->attributeOrder);
        EXPECT_EQ(n, RtDictionaryGetCount(info->attributes));
        for (RtIndex i = 0; i < n; i++) {
            auto key = static_cast<RtStringRef>(RtArrayGetValueAtIndex(info->attributeOrder, i));
            s += (i ? "," : "{") + text(key) + "=" +
                 text(static_cast<RtStringRef>(RtDictionaryGetValue(info->attributes, key)));
        }
        if (n) s += "}";
        if (info->isEmpty) s += "/";
        break;
    }
    case kRtXMLNodeTypeText:
        s = "'" + text(RtXMLNodeGetString(node)) + "'";
        break;
    case kRtXMLNodeTypeEntityReference:
        s = "&" + text(RtXMLNodeGetString(node)) + ";";
        break;
    case kRtXMLNodeTypeCDATASection:
        s = "CDATA'" + text(RtXMLNodeGetString(node)) + "'";
        break;
    case kRtXMLNodeTypeComment:
        s = "!'" + text(RtXMLNodeGetString(node)) + "'";
        break;
    case kRtXMLNodeTypeProcessingInstruction:
        s = "?" + text(RtXMLNodeGetString(node)) + "'" +
            text(*static_cast<const RtStringRef *>(RtXMLNodeGetInfoPtr(node))) + "'";
        break;
    case kRtXMLNodeTypeDocumentType:
        s = "DOCTYPE " + text(RtXMLNodeGetString(node));
        break;
    default:
        s = "?type" + std::to_string(RtXMLNodeGetTypeCode(node));
    }
    if (RtTreeRef child = RtTreeGetFirstChild(t)) {
        s += "[";
        for (; child; child = RtTreeGetNextSibling(child))
            s += shape(child) + (RtTreeGetNextSibling(child) ? " " : "");
        s += "]";
    }
    return s;
}

std::string shapeOf(const std::string &bytes, RtOptionFlags options = kRtXMLParserAllOptions) {
    RtTreeRef tree = parse(bytes, options);
    if (!tree) return "failed: " + failure(bytes);
    std::string s = shape(tree);
    RtRelease(tree);
    return s;
}

TEST_F(XMLTreeTests, TrickyDocumentsTakeTheirShape) {
    // Predefined entities stay references; character references merge into the text around them.
    EXPECT_EQ(shapeOf("<a>x &amp; y&#65;&#x42;z&lt;&gt;&quot;&apos;</a>"),
              "#doc[a['x ' &amp; ' yABz' &lt; &gt; &quot; &apos;]]");
    // Whitespace beside a reference is text; between markup it is dropped under the option.
    EXPECT_EQ(shapeOf("<a> <b/> &lt; &gt;<c/> </a>"), "#doc[a[b/ ' ' &lt; ' ' &gt; c/]]");
    // CDATA keeps markup and entities literally, even whitespace-only; comments and PIs are nodes.
    EXPECT_EQ(shapeOf("<?xml version='1.0'?><!--head--><?app do it?><a><![CDATA[<b>&amp;]]><![CDATA[ ]]>"
                      "<!--in--><?t?></a>"),
              "#doc[!'head' ?app'do it' a[CDATA'<b>&amp;' CDATA' ' !'in' ?t'']]");
    // Only <x/> is empty; <x></x> is not, nor an element holding whitespace that was dropped.
    EXPECT_EQ(shapeOf("<r><x/><x></x><x> </x><x a='1'/><x a='1'></x></r>"), "#doc[r[x/ x x x{a=1}/ x{a=1}]]");
    // Names keep their prefixes and xmlns attributes stay attributes, in document order.
    EXPECT_EQ(
        shapeOf("<SOAP-ENV:Envelope xmlns:SOAP-ENV='urn:e' z='1' a=\"2\" xmlns='urn:d' m:q='&amp;&#65;&lt;'>"
                "<SOAP-ENV:Body/></SOAP-ENV:Envelope>"),
        "#doc[SOAP-ENV:Envelope{xmlns:SOAP-ENV=urn:e,z=1,a=2,xmlns=urn:d,m:q=&A<}[SOAP-ENV:Body/]]");
    // Non-ASCII names and text, and a long text made of many pieces.
    std::string longText(100000, 'w');
    EXPECT_EQ(shapeOf("<pr\xC3\xA9nom v='\xE6\x97\xA5'>caf\xC3\xA9 \xE2\x82\xAC</pr\xC3\xA9nom>"),
              "#doc[pr\xC3\xA9nom{v=\xE6\x97\xA5}['caf\xC3\xA9 \xE2\x82\xAC']]");
    EXPECT_EQ(shapeOf("<a>\n" + longText + "\n" + longText + "</a>"),
              "#doc[a['\n" + longText + "\n" + longText + "']]");
}

TEST_F(XMLTreeTests, WhitespaceDeclaredEntitiesAndOptions) {
    const std::string doc = "<!DOCTYPE r [<!ENTITY e 'q&amp;r<i/>'><!ATTLIST r d CDATA 'dflt'>]>\n"
                            "<r>\n  <s> </s>\n  <t> x </t>&e;&#32;</r>";
    // All options: whitespace-only text dropped, no doctype node, defaulted attributes added.
    // Inside a declared entity a predefined reference is text, and <i/> is not marked empty
    // (expat shows no bytes of its own for what an entity expands to).
    EXPECT_EQ(shapeOf(doc), "#doc[r{d=dflt}[s t[' x '] 'q&r' i]]");
    EXPECT_EQ(shapeOf(doc, kRtXMLParserNoOptions),
              "#doc[DOCTYPE r r['\n  ' s[' '] '\n  ' t[' x '] 'q&r' i ' ']]");
}

TEST_F(XMLTreeTests, NavigationAndOwnership) {
    RtTreeRef root = parse("<?xml version='1.0'?><r><a>1</a><b/><c>3</c></r>");
    ASSERT_TRUE(root);
    EXPECT_EQ(RtXMLNodeGetString(RtXMLTreeGetNode(root)), nullptr);
    EXPECT_EQ(RtTreeGetParent(root), nullptr);
    RtTreeRef r = RtTreeGetFirstChild(root);
    RtTreeRef c = RtTreeGetChildAtIndex(r, 2);
    EXPECT_EQ(RtTreeGetChildAtIndex(r, 3), nullptr);
    EXPECT_EQ(RtTreeGetChildAtIndex(r, -1), nullptr);
    RtXMLNodeRef node = RtXMLTreeGetNode(c);
    EXPECT_NE(description(r).find("children = 3"), std::string::npos) << description(r);
    EXPECT_NE(description(node).find("type = 2, string = c"), std::string::npos) << description(node);

    // Any position or node keeps the whole document alive, and shares its count.
    RtTreeRef text3 = RtTreeGetFirstChild(c);
    RtRetain(text3);
    RtRetain(node);
    EXPECT_EQ(RtGetRetainCount(root), 3);
    EXPECT_EQ(RtGetRetainCount(text3), 3);
    RtRelease(root);
    RtRelease(node);
    EXPECT_EQ(text(RtXMLNodeGetString(RtXMLTreeGetNode(text3))), "3");
    RtTreeRef up = RtTreeGetParent(RtTreeGetParent(RtTreeGetParent(text3)));
    EXPECT_EQ(RtXMLNodeGetTypeCode(RtXMLTreeGetNode(up)), kRtXMLNodeTypeDocument);
    EXPECT_EQ(shape(up), "#doc[r[a['1'] b/ c['3']]]");
    // Strings handed out are the tree's own but outlive it when retained.
    RtStringRef name =
        static_cast<RtStringRef>(RtRetain(RtXMLNodeGetString(RtXMLTreeGetNode(RtTreeGetParent(text3)))));
    RtRelease(text3); // the document dies here
    EXPECT_EQ(text(name), "c");
    RtRelease(name);

    // NULL and foreign objects are refused, not followed.
    EXPECT_EQ(RtTreeGetFirstChild(nullptr), nullptr);
    EXPECT_EQ(RtTreeGetChildCount(nullptr), 0);
    EXPECT_EQ(RtXMLTreeGetNode(
                  reinterpret_cast<RtTreeRef>(const_cast<void *>(static_cast<const void *>(RTSTR("x"))))),
              nullptr);
    EXPECT_EQ(RtXMLNodeGetTypeCode(nullptr), 0);
    EXPECT_EQ(RtXMLNodeGetInfoPtr(nullptr), nullptr);
}

// What a draining parse handed over: each child's shape as it was offered, with its parent.
struct Drained {
    explicit Drained(const char *accept) : fAccept(accept) {}
    ~Drained() { RtRelease(fKept); }
    std::string fAccept; // the name of the element to drain
    std::vector<std::string> fShapes;
    RtStringRef fKept = nullptr; // the first child's string, retained past the parse
};

bool _acceptNamed(RtTreeRef element, void *info) {
    return text(RtXMLNodeGetString(RtXMLTreeGetNode(element))) == static_cast<Drained *>(info)->fAccept;
}

void _record(RtTreeRef child, void *info) {
    auto *drained = static_cast<Drained *>(info);
    drained->fShapes.push_back(text(RtXMLNodeGetString(RtXMLTreeGetNode(RtTreeGetParent(child)))) + ">" +
                               shape(child));
    if (!drained->fKept)
        drained->fKept = static_cast<RtStringRef>(RtRetain(RtXMLNodeGetString(RtXMLTreeGetNode(child))));
}

// The shape of the tree a draining parse returns, or "failed".
std::string drainedShape(const std::string &bytes, Drained &drained, RtIndex depth) {
    RtDataRef data = dataOf(bytes);
    RtXMLTreeDrainContext context = {depth, _acceptNamed, _record, &drained};
    RtDictionaryRef error = nullptr;
    RtTreeRef tree =
        RtXMLTreeCreateFromDataDraining(nullptr, data, kRtXMLParserAllOptions, 1, &context, &error);
    std::string s = tree ? shape(tree) : error ? "failed" : "failed without an error";
    for (RtTypeRef x : {RtTypeRef(data), RtTypeRef(tree), RtTypeRef(error)})
        RtRelease(x);
    return s;
}

TEST_F(XMLTreeTests, DrainingHandsOverEachChildOnceComplete) {
    const std::string doc =
        "<r><skip><x/></skip><list a='1'>text&amp;<a x=\"1\"><b>1</b></a><!--c--><?pi d?>"
        "<![CDATA[z]]><a x=\"1\"/>  <c>a text longer than sixteen bytes</c>tail</list><after/></r>";
    Drained drained("list");
    EXPECT_EQ("#doc[r[skip[x/] list{a=1} after/]]", drainedShape(doc, drained, 2));
    const std::vector<std::string> children = {
        "list>'text'", "list>&amp;",    "list>a{x=1}[b['1']]", "list>!'c'",
        "list>?pi'd'", "list>CDATA'z'", "list>a{x=1}/",        "list>c['a text longer than sixteen bytes']",
        "list>'tail'"};
    EXPECT_EQ(children, drained.fShapes);
    // A string taken from a child outlives the child and the document.
    EXPECT_EQ("text", text(drained.fKept));

    // Declined (or at another depth), nothing is drained and the tree is whole.
    for (RtIndex depth : {RtIndex(2), RtIndex(3)}) {
        Drained none(depth == 2 ? "nothing" : "list");
        EXPECT_EQ(shapeOf(doc), drainedShape(doc, none, depth));
        EXPECT_TRUE(none.fShapes.empty());
    }

    // Thousands of children, one of them far larger than an arena block, each handed over
    // intact while the memory of the ones before is reused.
    std::string big = "<r><list>", huge = "<huge>", hugeShape = "list>huge[";
    for (int j = 0; j < 3000; j++) {
        huge += "<e>" + std::to_string(j) + "</e>";
        hugeShape += (j ? " e['" : "e['") + std::to_string(j) + "']";
    }
    std::vector<std::string> expected;
    for (int i = 0; i < 4000; i++) {
        std::string n = std::to_string(i);
        big += (i == 1500 ? huge + "</huge>" : "") + "<i n=\"" + n + "\">" + n + "</i>";
        if (i == 1500) expected.push_back(hugeShape + "]");
        expected.push_back("list>i{n=" + n + "}['" + n + "']");
    }
    Drained many("list");
    EXPECT_EQ("#doc[r[list]]", drainedShape(big + "</list></r>", many, 2));
    EXPECT_TRUE(many.fShapes == expected);

    // A document that breaks after some children fails as any other.
    Drained broken("list");
    EXPECT_EQ("failed", drainedShape("<r><list><a/><b/><c>", broken, 2));
    EXPECT_EQ((std::vector<std::string>{"list>a/", "list>b/"}), broken.fShapes);
}

// A streaming parse that accepts the elements named "list" and takes out the children named "t"
// (recording each offered child as parent>shape, and whether it was taken).
struct Streamed {
    std::vector<std::string> fOffered;
};

bool _acceptLists(RtTreeRef element, void *) {
    return text(RtXMLNodeGetString(RtXMLTreeGetNode(element))) == "list";
}

bool _takeNamedT(RtTreeRef child, void *info) {
    bool take = text(RtXMLNodeGetString(RtXMLTreeGetNode(child))) == "t";
    static_cast<Streamed *>(info)->fOffered.push_back(
        text(RtXMLNodeGetString(RtXMLTreeGetNode(RtTreeGetParent(child)))) + ">" + shape(child) +
        (take ? "-" : "+"));
    return take;
}

std::string streamedShape(const std::string &bytes, Streamed &streamed) {
    RtDataRef data = dataOf(bytes);
    RtXMLTreeStreamContext context = {_acceptLists, _takeNamedT, &streamed};
    RtDictionaryRef error = nullptr;
    RtTreeRef tree =
        RtXMLTreeCreateFromDataStreaming(nullptr, data, kRtXMLParserAllOptions, 1, &context, &error);
    std::string s = tree ? shape(tree) + "#" + std::to_string(RtTreeGetChildCount(RtTreeGetFirstChild(tree)))
                    : error ? "failed"
                            : "failed without an error";
    for (RtTypeRef x : {RtTypeRef(data), RtTypeRef(tree), RtTypeRef(error)})
        RtRelease(x);
    return s;
}

TEST_F(XMLTreeTests, StreamingTakesOutOnlyWhatTheConsumerTakes) {
    struct Case {
        const char *document, *tree;
        std::vector<std::string> offered;
    };
    const Case cases[] = {
        // Children taken and kept alternate; the kept ones link up and count.
        {"<list><t>1</t><k>2</k><t/>x<t a='1'>3</t><k/></list>",
         "#doc[list[k['2'] 'x' k/]]#3",
         {"list>t['1']-", "list>k['2']+", "list>t/-", "list>'x'+", "list>t{a=1}['3']-", "list>k/+"}},
        // Everything taken: the element ends empty.
        {"<list><t>1</t><t>2</t></list>", "#doc[list]#0", {"list>t['1']-", "list>t['2']-"}},
        // Accepted elements nest: the inner one's children are offered before the outer child
        // that holds it completes.
        {"<list><k><list><t>1</t><k>2</k></list></k><t><list><t/></list></t></list>",
         "#doc[list[k[list[k['2']]]]]#1",
         {"list>t['1']-", "list>k['2']+", "list>k[list[k['2']]]+", "list>t/-", "list>t[list]-"}},
        // Whitespace the options drop is never offered; text beside a taken child stays.
        {"<list> <t/> a&amp;b <t/></list>",
         "#doc[list[' a' &amp; 'b ']]#3",
         {"list>t/-", "list>' a'+", "list>&amp;+", "list>'b '+", "list>t/-"}},
        // A document that breaks fails as any other.
        {"<list><t/><k>", "failed", {"list>t/-"}},
    };
    for (const Case &c : cases) {
        Streamed streamed;
        EXPECT_EQ(c.tree, streamedShape(c.document, streamed)) << c.document;
        EXPECT_EQ(c.offered, streamed.fOffered) << c.document;
    }

    // Thousands of taken children reuse the same memory; a large kept one survives intact.
    std::string big = "<list>", hugeShape = "k[";
    for (int i = 0; i < 4000; i++) {
        big += "<t n='" + std::to_string(i) + "'>" + std::to_string(i) + "</t>";
        if (i == 2000) {
            big += "<k>";
            for (int j = 0; j < 3000; j++) {
                big += "<e>" + std::to_string(j) + "</e>";
                hugeShape += (j ? " e['" : "e['") + std::to_string(j) + "']";
            }
            big += "</k>";
        }
    }
    Streamed many;
    EXPECT_EQ("#doc[list[" + hugeShape + "]]]#1", streamedShape(big + "</list>", many));
    EXPECT_EQ(4001u, many.fOffered.size());
}

TEST_F(XMLTreeTests, ErrorDictionaries) {
    EXPECT_EQ(failure("<a>\n<b>\n</a>"), "7|3|10|mismatched tag");
    EXPECT_EQ(failure(""), "3|1|0|no element found");
    EXPECT_EQ(failure("<a>&undefined;</a>"), "11|1|3|undefined entity");
    EXPECT_EQ(failure("<a></a><b/>"), "9|1|7|junk after document element");
    EXPECT_EQ(status(failure("<a x='1' x='2'/>")), "8");
    EXPECT_EQ(status(failure("<?xml version='1.0' encoding='x-no-such-charset'?><a/>")), "18");

    // NULL data is an error too; a NULL out-parameter is allowed; success clears it.
    RtDictionaryRef error = nullptr;
    EXPECT_EQ(RtXMLTreeCreateFromDataWithError(nullptr, nullptr, nullptr, 0, 1, &error), nullptr);
    EXPECT_EQ(text(static_cast<RtStringRef>(RtDictionaryGetValue(own(error), kRtXMLTreeErrorDescription))),
              "no element found");
    EXPECT_EQ(RtXMLTreeCreateFromDataWithError(nullptr, own(dataOf("<a>")), nullptr, 0, 1, nullptr), nullptr);
    EXPECT_TRUE(own(RtXMLTreeCreateFromDataWithError(nullptr, own(dataOf("<a/>")), nullptr, 0, 1, &error)));
    EXPECT_EQ(error, nullptr);
}

TEST_F(XMLTreeTests, Charsets) {
    // Read by expat itself: ISO Latin 1 and UTF-16 with either byte-order mark.
    EXPECT_EQ(shapeOf("<?xml version='1.0' encoding='ISO-8859-1'?><a v='\xE9'>caf\xE9</a>"),
              "#doc[a{v=\xC3\xA9}['caf\xC3\xA9']]");
    const std::string doc16 = "<?xml version='1.0' encoding='UTF-16'?><a>Gr\xC3\xBC\xC3\x9F"
                              "e &amp; \xC3\xA9</a>";
    for (auto [mark, encoding] : {std::make_pair("\xFF\xFE", kRtStringEncodingUTF16LE),
                                  std::make_pair("\xFE\xFF", kRtStringEncodingUTF16BE)}) {
        std::string bytes =
            mark + takeData(RtStringCreateExternalRepresentation(nullptr, own(str(doc16)), encoding, 0));
        EXPECT_EQ(shapeOf(bytes), "#doc[a['Gr\xC3\xBC\xC3\x9F"
                                  "e ' &amp; ' \xC3\xA9']]")
            << mark;
    }

    // Through ICU: windows-1252 (euro sign, curly quotes), KOI8-R, an alias of ASCII.
    EXPECT_EQ(shapeOf("<?xml version=\"1.0\" encoding=\"windows-1252\"?><a>\x80 \x93q\x94 &amp;</a>"),
              "#doc[a['\xE2\x82\xAC \xE2\x80\x9Cq\xE2\x80\x9D ' &amp;]]");
    EXPECT_EQ(shapeOf("<?xml version='1.0' encoding='KOI8-R'?>\n<a n='\xF0\xD2\xC9\xD7\xC5\xD4'/>"),
              "#doc[a{n=\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82}/]");
    EXPECT_EQ(shapeOf("<?xml version='1.0' encoding='ascii'?><a>plain</a>"), "#doc[a['plain']]");
    // UTF-32 with a byte-order mark.
    std::string doc32 = std::string("\xFF\xFE\0\0", 4);
    for (char c : std::string("<a>ok</a>"))
        doc32 += std::string{c, 0, 0, 0};
    EXPECT_EQ(shapeOf(doc32), "#doc[a['ok']]");

    // A caller-given encoding overrides the declaration, through ICU or natively.
    RtDataRef data = own(dataOf("<?xml version='1.0' encoding='UTF-8'?><a>\xE9\x80</a>"));
    auto as = [&](RtStringEncoding e) {
        RtTreeRef tree = own(RtXMLTreeCreateFromDataWithEncoding(nullptr, data, e, 0, nullptr));
        return tree ? shape(tree) : "failed";
    };
    EXPECT_EQ(as(kRtStringEncodingWindowsLatin1), "#doc[a['\xC3\xA9\xE2\x82\xAC']]");
    EXPECT_EQ(as(kRtStringEncodingISOLatin1), "#doc[a['\xC3\xA9\xC2\x80']]");

    // Bytes that the charset does not allow fail with where they are.
    EXPECT_EQ(failure("<?xml version='1.0' encoding='ISO-8859-6'?>\n<a>\xA1</a>"),
              "1003|2|47|bytes not valid in the document's charset \"ISO-8859-6\"");
    EXPECT_EQ(status(failure("<?xml version='1.0' encoding='US-ASCII'?><a>\xE9</a>")), "4");
    EXPECT_EQ(RtXMLTreeCreateFromDataWithEncoding(nullptr, own(dataOf("<a/>")), 0x7777, 0, nullptr), nullptr);
}

TEST_F(XMLTreeTests, DepthLimit) {
    auto nested = [](size_t depth) {
        std::string open, close;
        for (size_t i = 0; i < depth; i++)
            open += "<e>", close += "</e>";
        return open + close;
    };
    size_t depth = 0;
    for (RtTreeRef t = own(parse(nested(kRtXMLTreeMaxDepth))); t; t = RtTreeGetFirstChild(t))
        depth++;
    EXPECT_EQ(depth, size_t(kRtXMLTreeMaxDepth) + 1); // the elements and the document
    EXPECT_EQ(failure(nested(kRtXMLTreeMaxDepth + 1)), "1001|1|1536|elements nested deeper than 512 levels");
    // Far deeper input fails the same way, at once, whatever the stack.
    EXPECT_EQ(status(failure(nested(1000000))), "1001");
}

TEST_F(XMLTreeTests, ExternalEntitiesAreNeverRead) {
    char path[] = "/tmp/rtxmltree-secret-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const std::string secret = "TOPSECRET";
    ASSERT_EQ(write(fd, secret.data(), secret.size()), ssize_t(secret.size()));
    close(fd);
    const std::string url = std::string("file://") + path;

    // A general external entity used in content fails the parse instead of loading the file.
    EXPECT_EQ(status(failure("<!DOCTYPE r [<!ENTITY x SYSTEM '" + url + "'>]><r>&x;</r>")), "21");
    // External DTD subsets and parameter entities are not read either: nothing of the file shows.
    for (const std::string &doc : {"<!DOCTYPE r SYSTEM '" + url + "'><r>&secret;</r>",
                                   "<!DOCTYPE r [<!ENTITY % p SYSTEM '" + url + "'> %p;]><r>a</r>"})
        EXPECT_EQ(shapeOf(doc).find(secret), std::string::npos) << shapeOf(doc);
    unlink(path);
}

TEST_F(XMLTreeTests, EntityExpansionStaysBounded) {
    // The classic "billion laughs": ten levels of tenfold references.
    std::string laughs = "<!DOCTYPE lolz [<!ENTITY lol0 'lol'>";
    for (int i = 1; i <= 10; i++) {
        laughs += "<!ENTITY lol" + std::to_string(i) + " '";
        for (int k = 0; k < 10; k++)
            laughs += "&lol" + std::to_string(i - 1) + ";";
        laughs += "'>";
    }
    laughs += "]><lolz>&lol10;</lolz>";
    EXPECT_EQ(status(failure(laughs)), "43"); // expat's amplification limit

    // A chain of entities as long as the limit allows expands (expat recurses once per level);
    // one declaration more is refused before anything expands.
    auto chain = [](int n) {
        std::string s = "<!DOCTYPE r [<!ENTITY e0 'x'>";
        for (int i = 1; i < n; i++)
            s += "<!ENTITY e" + std::to_string(i) + " '&e" + std::to_string(i - 1) + ";'>";
        return s + "]><r a='&e" + std::to_string(n - 1) + ";'>&e" + std::to_string(n - 1) + ";</r>";
    };
    EXPECT_EQ(shapeOf(chain(kRtXMLTreeMaxEntityDeclarations)), "#doc[r{a=x}['x']]");
    EXPECT_EQ(status(failure(chain(kRtXMLTreeMaxEntityDeclarations + 1))), "1002");
    EXPECT_EQ(status(failure(chain(100000))), "1002");
}

} // namespace
