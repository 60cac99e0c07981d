// SOAP replies read while they are parsed against the same replies read from the whole tree: the
// result dictionaries must be the same for the test documents, the fuzz corpora, generated record
// replies and documents built to reach each rule of the streaming reader (what it may drop, what
// it must keep, and when it must read the document again as a whole).
#include "SOAPTestSupport.h"

#include "../support/DocumentGenerator.h"

#include <dirent.h>

using namespace soaptest;

namespace {

// A deserialization override that matches no element: the reader then builds the whole tree
// and decodes from it, and every value is what the tree gives.
RtTypeRef _neverCalled(HVMethodInvocationRef, RtTreeRef, RtTreeRef, void *) {
    ADD_FAILURE() << "an override for a namespace no document uses was called";
    return nullptr;
}

// The text of a tree, enough to tell two headers apart: names, attributes, strings, children.
std::string treeText(RtTreeRef tree) {
    RtXMLNodeRef node = RtXMLTreeGetNode(tree);
    std::string out = std::to_string(RtXMLNodeGetTypeCode(node)) + ":" + describe(RtXMLNodeGetString(node));
    const auto *info = static_cast<const RtXMLElementInfo *>(RtXMLNodeGetInfoPtr(node));
    if (RtXMLNodeGetTypeCode(node) == kRtXMLNodeTypeElement && info && info->attributes)
        out += describe(info->attributes);
    out += "[";
    for (RtTreeRef child = RtTreeGetFirstChild(tree); child; child = RtTreeGetNextSibling(child))
        out += treeText(child) + " ";
    return out + "]";
}

// The result with its header elements (tree positions, one document's each) as their text.
Value comparable(const Value &result) {
    RtTypeRef headers = result.dict() ? RtDictionaryGetValue(result.dict(), kHVSOAPMessageHeaders) : nullptr;
    if (!headers) return result;
    std::string texts;
    for (RtIndex i = 0; i < RtArrayGetCount(static_cast<RtArrayRef>(headers)); i++)
        texts += treeText(static_cast<RtTreeRef>(
            const_cast<void *>(RtArrayGetValueAtIndex(static_cast<RtArrayRef>(headers), i))));
    RtMutableDictionaryRef copy = RtDictionaryCreateMutableCopy(nullptr, 0, result.dict());
    RtDictionarySetValue(copy, kHVSOAPMessageHeaders, S(texts.c_str()).get());
    return Value::adopt(copy);
}

// Reads document with both readers in both flavours, for a few method names, and requires the
// same results.
void expectSameResults(const std::string &document, const std::string &what) {
    for (RtStringRef protocol : {kHVSOAP2001Protocol, kHVSOAP1999Protocol}) {
        SOAPHandler streaming(protocol), whole(protocol);
        HVClientContext context = {0, nullptr, nullptr, nullptr, nullptr};
        HVProtocolHandlerSetDeserializationOverride(whole.get(), RTSTR("urn:no-such-namespace"),
                                                    RTSTR("none"), _neverCalled, &context);
        for (const char *method : {"m", "echo", "getRecords"}) {
            Value a = comparable(streaming.readReply(document, method));
            Value b = comparable(whole.readReply(document, method));
            ASSERT_TRUE(sameValue(b, a.get())) << what << " read as a reply to " << method;
        }
    }
}

std::vector<std::string> filesIn(const std::string &directory) {
    std::vector<std::string> names;
    if (DIR *dir = opendir(directory.c_str())) {
        while (dirent *entry = readdir(dir))
            if (entry->d_name[0] != '.') names.push_back(directory + "/" + entry->d_name);
        closedir(dir);
    }
    return names;
}

std::string fileText(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

std::string response(const std::string &params, const std::string &after = "",
                     const std::string &declarations = "xmlns:ns=\"urn:test\"") {
    return envelope("<ns:mResponse " + declarations + ">" + params + "</ns:mResponse>" + after);
}

} // namespace

TEST(SOAPStreaming, TestDocumentsAndFuzzCorporaReadAlike) {
    size_t count = 0;
    for (const char *directory :
         {"/tests/data/soap", "/fuzz/corpus/soap1999_reply", "/fuzz/corpus/soap2001_reply",
          "/fuzz/corpus/soap1999_request", "/fuzz/corpus/soap2001_request"})
        for (const std::string &path : filesIn(std::string(HV_SOURCE_DIR) + directory)) {
            expectSameResults(fileText(path), path);
            count++;
        }
    EXPECT_GT(count, 20u);
}

TEST(SOAPStreaming, GeneratedRecordRepliesReadAlike) {
    for (size_t records : {0, 1, 2, 40})
        for (bool multiRef : {false, true})
            for (uint64_t seed : {1, 7})
                expectSameResults(hvtest::soapReply(records, multiRef, seed),
                                  std::to_string(records) + " records, multiRef " + std::to_string(multiRef));
}

TEST(SOAPStreaming, EachRuleOfTheStreamingReader) {
    const std::string deep = [] {
        // An item 300 levels down refers to a target 300 levels deep: together past the limit.
        std::string open, close, item;
        for (int i = 0; i < 300; i++) {
            open += "<d>";
            close += "</d>";
        }
        return response("<p><a>0</a><b>" + open + "<i href=\"#t\"/>" + close + "</b></p>",
                        "<t id=\"t\">" + open + "x" + close + "</t>");
    }();
    const std::pair<std::string, const char *> cases[] = {
        // Text before, between and after the items; entity references beside them.
        {response("<p>abc<i>1</i>def<i>2</i>ghi</p>"), "text around items"},
        {response("<p xsi:type=\"xsd:string\">a&amp;b<i>1</i> <i>2</i> &lt; </p>"), "entities around items"},
        {response("<p><i>1</i><i>2</i><i>1</i></p><q>x</q>"), "repeated names gather into arrays"},
        {response("<p xsi:type=\"xsd:int\"><i>7</i><i>8</i></p>"), "a scalar type over element children"},
        {response("<p SOAP-ENC:arrayType=\"xsd:int[2]\"><i>1</i><i>2</i></p>"), "an implied array"},
        // Items holding references stay in the tree; targets with references of their own too.
        {response("<p><i>1</i><i href=\"#x\"/><i>3</i></p>", "<x id=\"x\"><y>7</y></x>"), "mixed items"},
        {response("<p><i href=\"#a\"/><i href=\"#A\"/></p>",
                  "<a id=\"a\"><v>1</v></a><b id=\"A\"><v>2</v></b>"),
         "ids differing in case"},
        {response("<p href=\"#a\"/>", "<a id=\"a\"><n href=\"#b\"/></a><b id=\"b\"><v>2</v></b>"),
         "chained targets"},
        {response("<p href=\"#a\"/>", "<a id=\"a\" href=\"#b\"/><b id=\"b\" href=\"#a\"/>"), "a cycle"},
        {response("<p href=\"#missing\"/>", "<a id=\"a\"><v>1</v></a>"), "a missing target"},
        {response("<p href=\"#t\"/>", "<t id=\"t\" xsi:type=\"xsd:int\">5</t>"), "a scalar target fails"},
        {response("<p><i href=\"#t\"/><i href=\"#t\"/></p>", "<t id=\"t\"><a>1</a><a>2</a></t>"),
         "a shared target"},
        // Scopes: the method element declares what targets use, or redefines it.
        {response("<p href=\"#a\"/>", "<a id=\"a\" xsi:type=\"ns:T\"><v xsi:type=\"xsd:int\">1</v></a>",
                  "xmlns:ns=\"urn:test\""),
         "a prefix only the method element declares"},
        {response("<p href=\"#a\"/>", "<a id=\"a\"><v xsi:type=\"xsd:int\">1</v></a>",
                  "xmlns:ns=\"urn:test\" xmlns:xsd=\"urn:not-schema\""),
         "a prefix the method element redefines"},
        {response("<p href=\"#a\"/>", "<a id=\"a\"><v>1</v></a>",
                  "xmlns:ns=\"urn:test\" xmlns=\"urn:default\""),
         "a default namespace only the method element declares"},
        {response("<p href=\"#a\"/>",
                  "<a id=\"a\" xmlns:n2=\"urn:r\" xsi:type=\"n2:R\"><v xsi:type=\"xsd:int\">1</v></a>"),
         "a target declaring its own prefixes"},
        {response(
             "<p xmlns:xsd=\"urn:other\"><i xsi:type=\"xsd:int\">1</i><i xsi:type=\"xsd:int\">2</i></p>"),
         "a parameter redefining a prefix"},
        // Method elements: two of them, one referring to the other; a fault beside one.
        {envelope("<ns:mResponse xmlns:ns=\"urn:test\"><p href=\"#m2\"/></ns:mResponse>"
                  "<m id=\"m2\"><q><i>1</i><i>2</i></q></m>"),
         "a method element referred to"},
        {envelope("<mResponse><p><i>1</i><i>2</i></p></mResponse><mResponse><p><i>3</i></p></mResponse>"),
         "two method elements"},
        {envelope("<SOAP-ENV:Fault><faultcode>5</faultcode><faultstring>f</faultstring></SOAP-ENV:Fault>"
                  "<mResponse><p><i>1</i><i>2</i></p></mResponse>"),
         "a fault before the response"},
        // Headers keep their elements whole; a second Body reads on its own.
        {envelope("<mResponse><p><i>1</i><i>2</i></p></mResponse>",
                  "<SOAP-ENV:Header><h><a><b>1</b><c>2</c></a></h></SOAP-ENV:Header>"),
         "a header"},
        {kEnvelopeStart +
             std::string("<SOAP-ENV:Body><mResponse><p><i>1</i><i>2</i></p></mResponse></SOAP-ENV:Body>"
                         "<SOAP-ENV:Body><x id=\"x\"><v>1</v></x><mResponse><p href=\"#x\"/></mResponse>"
                         "</SOAP-ENV:Body></SOAP-ENV:Envelope>"),
         "two Bodies"},
        // Nesting: references that reach past the decoding limit only together.
        {deep, "deep item and deep target"},
        // Broken documents fail the same way whatever was decoded before the break.
        {response("<p><i>1</i><i>2</i>"), "a truncated reply"},
        {"<Envelope><Body><mResponse><p><i>1</i><i>2</i></p></mResponse></Body></Envelope>",
         "no SOAP namespace"},
    };
    for (const auto &c : cases)
        expectSameResults(c.first, c.second);
}
