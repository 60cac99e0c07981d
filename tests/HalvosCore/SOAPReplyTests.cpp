// SOAP replies as we read them: values of every kind, records and arrays, multi-reference
// values (href/id), server faults, headers, overrides, and hostile or malformed replies.
#include "SOAPTestSupport.h"

#include "HalvoResult.h"
#include "HalvoUtils.h"
#include "SOAPHalvoClosure.h"

using namespace soaptest;

namespace {

// A reply to the method "m" whose response holds params, followed by more Body children.
std::string response(const std::string &params, const std::string &after = "") {
    return envelope("<ns:mResponse xmlns:ns=\"urn:test\">" + params + "</ns:mResponse>" + after);
}

// The result of a successful reply: the parameters under "/Result" and each under its name.
Value success(std::initializer_list<std::pair<const char *, Value>> params) {
    Value parameters = Dict(params);
    RtMutableDictionaryRef result = RtDictionaryCreateMutableCopy(nullptr, 0, parameters.dict());
    RtDictionarySetValue(result, RTSTR("/Result"), parameters.get());
    return Value::adopt(result);
}

// A Body of n anchors where each one's only member refers to the next.
std::string referenceChain(int n) {
    std::string body = "<ns:mResponse xmlns:ns=\"urn:test\"><p href=\"#r0\"/></ns:mResponse>";
    for (int i = 0; i < n; i++)
        body += "<r id=\"r" + std::to_string(i) + "\"><next href=\"#r" + std::to_string(i + 1) + "\"/></r>";
    return envelope(body + "<r id=\"r" + std::to_string(n) + "\">end</r>");
}

RtTypeRef _thingOverride(HVMethodInvocationRef, RtTreeRef element, RtTreeRef, void *info) {
    ++*static_cast<int *>(info);
    return RtStringCreateWithFormat(nullptr, nullptr, RTSTR("override of %@"), getElementName(element));
}

} // namespace

TEST(SOAPReplies, ValuesOfEveryKind) {
    SOAPHandler handler;
    const std::pair<const char *, Value> cases[] = {
        {"<v xsi:type=\"xsd:string\">a &amp; b</v>", S("a & b")},
        {"<v xsi:type=\"xsd:string\"><![CDATA[<raw>]]></v>", S("<raw>")},
        {"<v xsi:type=\"xsd:int\">42</v>", I(42)},
        {"<v xsi:type=\"xsd:i4\"> 0x1F</v>", I(31)},
        {"<v xsi:type=\"xsd:long\">3000000000</v>", I64(3000000000LL)},
        {"<v xsi:type=\"xsd:boolean\">true</v>", B(true)},
        {"<v xsi:type=\"xsd:boolean\">1</v>", B(true)},
        {"<v xsi:type=\"xsd:boolean\">FALSE</v>", B(false)},
        {"<v xsi:type=\"xsd:double\">-1.5e3</v>", D(-1500)},
        {"<v xsi:type=\"xsd:dateTime\">2001-12-31T23:59:59Z</v>", Date(31535999.0)},
        {"<v xsi:type=\"xsd:timeInstant\">2001-12-31T23:59:59Z</v>", Date(31535999.0)},
        {"<v xsi:type=\"xsd:base64Binary\">TWFu</v>", Bytes("Man")},
        {"<v xsi:type=\"SOAP-ENC:base64\">TWE=</v>", Bytes("Ma")},
        {"<v xsi:type=\"xsd:nil\">x</v>", Null()},
        // Empty elements: null, or an empty array when they declare an array type.
        {"<v/>", Null()},
        {"<v xsi:type=\"xsd:string\"></v>", Null()},
        {"<v SOAP-ENC:arrayType=\"xsd:int[0]\"/>", A({})},
        // Without a type the shape decides: text is a string, elements make a record.
        {"<v>text</v>", S("text")},
        {"<v><a>1</a><b xsi:type=\"xsd:int\">2</b></v>", Dict({{"a", S("1")}, {"b", I(2)}})},
        {"<v xsi:type=\"SOAP-ENC:Array\" SOAP-ENC:arrayType=\"xsd:anyType[2]\"><item "
         "xsi:type=\"xsd:int\">1</item>"
         "<item>x</item></v>",
         A({I(1), S("x")})},
        {"<v SOAP-ENC:arrayType=\"xsd:string[2]\"><a>x</a><b>y</b></v>", A({S("x"), S("y")})},
        // Type names: an element's own declarations, the 1999 schema and schema-instance
        // namespaces, an unprefixed "type" in the default namespace, an undeclared prefix.
        {"<v xmlns:xs=\"http://www.w3.org/1999/XMLSchema\" xsi:type=\"xs:int\">5</v>", I(5)},
        {"<v xmlns:i=\"http://www.w3.org/1999/XMLSchema-instance\" i:type=\"xsd:int\">8</v>", I(8)},
        {"<v type=\"xsd:int\">9</v>", I(9)},
        {"<v xsi:type=\"foo:int\">6</v>", I(6)},
        // Unknown types: one text child is kept as a string, members make a record.
        {"<v xsi:type=\"xsd:Int\">7</v>", S("7")},
        {"<v xsi:type=\"ns9:Thing\" xmlns:ns9=\"urn:things\"><x>1</x><y>2</y></v>",
         Dict({{"x", S("1")}, {"y", S("2")}})},
    };
    for (const auto &c : cases) {
        Value result = handler.readReply(response(c.first));
        EXPECT_TRUE(sameValue(success({{"v", c.second}}), result.get())) << c.first;
    }
}

TEST(SOAPReplies, RecordsArraysAndRepeatedNames) {
    SOAPHandler handler;
    // A record gathers a repeated name into an array; a first member that is an array itself
    // absorbs the later ones. In the response element a repeated name keeps its last value.
    Value result =
        handler.readReply(response("<r><a>1</a><b>x</b><a>2</a><a>3</a></r>"
                                   "<s><a SOAP-ENC:arrayType=\"xsd:int[1]\"><i xsi:type=\"xsd:int\">1</i></a>"
                                   "<a>2</a></s>"
                                   "<p>1</p><p>2</p>"));
    EXPECT_TRUE(sameValue(success({{"r", Dict({{"a", A({S("1"), S("2"), S("3")})}, {"b", S("x")}})},
                                   {"s", Dict({{"a", A({I(1), S("2")})}})},
                                   {"p", S("2")}}),
                          result.get()));

    // Element names keep their prefixes; whitespace between elements is not a member.
    result = handler.readReply(response("<t:r xmlns:t=\"urn:t\">\n  <t:a>1</t:a>\n  <t:a>2</t:a>\n</t:r>"));
    EXPECT_TRUE(sameValue(success({{"t:r", Dict({{"t:a", A({S("1"), S("2")})}})}}), result.get()));
}

TEST(SOAPReplies, ResultParameterNameAndResponseElement) {
    SOAPHandler handler;
    handler.set(kHVMethodInvocationResultParameterName, RTSTR("return"));
    Value result = handler.readReply(response("<return xsi:type=\"xsd:int\">3</return><extra>e</extra>"));
    EXPECT_TRUE(sameValue(Dict({{"/Result", I(3)}, {"return", I(3)}, {"extra", S("e")}}), result.get()));

    // A missing result parameter is a fault; the parameters still stand beside it.
    handler.set(kHVMethodInvocationResultParameterName, RTSTR("nope"));
    result = handler.readReply(response("<extra>e</extra>"));
    EXPECT_TRUE(HVMethodResultIsFault(result.dict()));
    EXPECT_TRUE(sameValue(readerFault("Can't find method result parameter 'nope' in reply")["/FaultExtra"],
                          result["/FaultExtra"]));
    EXPECT_TRUE(sameValue(S("e"), result["extra"]));

    // The response element may be unprefixed (the method namespace is the root default), may
    // be named like the method itself, and may be in any namespace.
    SOAPHandler plain;
    plain.set(kHVSOAPMethodNamespaceURI, RTSTR("urn:calc"));
    EXPECT_TRUE(sameValue(success({{"x", S("1")}}),
                          plain.readReply(envelope("<mResponse><x>1</x></mResponse>")).get()));
    EXPECT_TRUE(sameValue(success({{"x", S("2")}}), plain.readReply(envelope("<m><x>2</x></m>")).get()));
    EXPECT_TRUE(
        sameValue(success({{"x", S("3")}}),
                  plain.readReply(envelope("<o:MRESPONSE xmlns:o=\"urn:o\"><x>3</x></o:MRESPONSE>")).get()));
    // Another method's response is no answer at all.
    EXPECT_TRUE(
        sameValue(Dict({}), plain.readReply(envelope("<otherResponse><x>1</x></otherResponse>")).get()));
}

TEST(SOAPReplies, MultiReferenceValues) {
    // Written from the SOAP 1.1 encoding rules: independent elements carry an id, accessors an
    // href; the response refers to an array whose items are shared records.
    std::string document =
        envelope("<ns1:mResponse xmlns:ns1=\"urn:people\">"
                 "<people href=\"#id0\"/><best href=\"#ID2\"/><count href=\"id3\"/><flag href=\"#id4\"/>"
                 "</ns1:mResponse>"
                 "<multiRef id=\"id0\" xsi:type=\"SOAP-ENC:Array\" SOAP-ENC:arrayType=\"ns2:Person[2]\""
                 " xmlns:ns2=\"urn:people-types\"><item href=\"#id1\"/><item href=\"#id2\"/></multiRef>"
                 "<multiRef id=\"id1\" xsi:type=\"ns2:Person\" xmlns:ns2=\"urn:people-types\">"
                 "<name xsi:type=\"xsd:string\">Ann</name><age xsi:type=\"xsd:int\">41</age></multiRef>"
                 "<multiRef id=\"id2\" xsi:type=\"ns2:Person\" xmlns:ns2=\"urn:people-types\">"
                 "<name xsi:type=\"xsd:string\">Bob</name><age xsi:type=\"xsd:int\">42</age><friend "
                 "href=\"#id1\"/></multiRef>"
                 "<multiRef id=\"id3\" xsi:type=\"xsd:int\">2</multiRef>"
                 "<multiRef id=\"id4\" xsi:type=\"xsd:boolean\">true</multiRef>");
    SOAPHandler handler;
    Value result = handler.readReply(document);
    Value ann = Dict({{"name", S("Ann")}, {"age", I(41)}});
    Value bob = Dict({{"name", S("Bob")}, {"age", I(42)}, {"friend", ann}});
    // A scalar reached through href keeps its text (the referencing element has none to type),
    // and a boolean finds no text, so it is false.
    EXPECT_TRUE(
        sameValue(success({{"people", A({ann, bob})}, {"best", bob}, {"count", S("2")}, {"flag", B(false)}}),
                  result.get()));
    // A value referenced twice is one object.
    RtArrayRef people = static_cast<RtArrayRef>(result["people"]);
    ASSERT_EQ(2, RtArrayGetCount(people));
    EXPECT_EQ(RtArrayGetValueAtIndex(people, 1), result["best"]);
    EXPECT_EQ(RtArrayGetValueAtIndex(people, 0),
              RtDictionaryGetValue(static_cast<RtDictionaryRef>(result["best"]), RTSTR("friend")));

    // References fanning out level after level stay linear: each target is decoded once.
    std::string body = "<ns:mResponse xmlns:ns=\"urn:test\"><top href=\"#n0\"/></ns:mResponse>";
    for (int i = 0; i < 40; i++)
        body += "<n id=\"n" + std::to_string(i) + "\"><l href=\"#n" + std::to_string(i + 1) +
                "\"/><r href=\"#n" + std::to_string(i + 1) + "\"/></n>";
    result = handler.readReply(envelope(body + "<n id=\"n40\">leaf</n>"));
    RtDictionaryRef top = static_cast<RtDictionaryRef>(result["top"]);
    ASSERT_EQ(RtDictionaryGetTypeID(), RtGetTypeID(top));
    EXPECT_EQ(RtDictionaryGetValue(top, RTSTR("l")), RtDictionaryGetValue(top, RTSTR("r")));

    // An element that refers to itself and has nothing else is an empty record.
    result = handler.readReply(response("<p href=\"#s\"/>", "<s id=\"s\" href=\"#s\"/>"));
    EXPECT_TRUE(sameValue(success({{"p", Dict({})}}), result.get()));
}

TEST(SOAPReplies, BrokenReferencesAreFaults) {
    SOAPHandler handler;
    const std::pair<std::string, const char *> cases[] = {
        {response("<p href=\"#nowhere\"/>"), "Can't locate anchor element in reply"},
        // Anchors are direct children of the Body only.
        {response("<p href=\"#deep\"/><q><r id=\"deep\">x</r></q>"), "Can't locate anchor element in reply"},
        {response("<p href=\"#a\"/>", "<x id=\"a\"><y href=\"#a\"/></x>"), "Circular reference in reply"},
        {response("<p href=\"#a\"/>",
                  "<x id=\"a\"><y href=\"#b\"/></x><x id=\"b\"><z><w href=\"#a\"/></z></x>"),
         "Circular reference in reply"},
        // The response element is being decoded too.
        {envelope("<ns:mResponse xmlns:ns=\"urn:test\" id=\"r\"><p><q href=\"#r\"/></p></ns:mResponse>"),
         "Circular reference in reply"},
        // A chain longer than any document may nest.
        {referenceChain(600), "Value nested too deeply"},
    };
    for (const auto &c : cases) {
        Value result = handler.readReply(c.first);
        EXPECT_TRUE(sameValue(readerFault(c.second), result.get())) << c.first.substr(0, 400);
    }
    // A chain within the limit is read to its end.
    Value result = handler.readReply(referenceChain(100));
    RtTypeRef value = result["p"];
    for (int i = 0; i < 100 && value; i++)
        value = RtDictionaryGetValue(static_cast<RtDictionaryRef>(value), RTSTR("next"));
    EXPECT_TRUE(sameValue(S("end"), value));
}

TEST(SOAPReplies, ServerFaults) {
    SOAPHandler handler;
    auto fault = [](int32_t code, const char *message) {
        return Dict({{"/kHVResultIsFault", B(true)}, {"/FaultCode", I(code)}, {"/FaultString", S(message)}});
    };
    const std::pair<std::string, Value> cases[] = {
        {envelope("<SOAP-ENV:Fault><faultcode>42</faultcode><faultstring>Bad &amp; worse</faultstring>"
                  "<detail><x>1</x></detail></SOAP-ENV:Fault>"),
         fault(42, "Bad & worse")},
        {envelope("<SOAP-ENV:Fault><faultcode>SOAP-ENV:Server</faultcode><faultstring>no</faultstring></"
                  "SOAP-ENV:Fault>"),
         fault(-1, "no")},
        {envelope("<SOAP-ENV:Fault><SOAP-ENV:faultcode>7</SOAP-ENV:faultcode>"
                  "<SOAP-ENV:faultstring>prefixed</SOAP-ENV:faultstring></SOAP-ENV:Fault>"),
         fault(7, "prefixed")},
        {envelope("<SOAP-ENV:Fault><faultcode>3</faultcode></SOAP-ENV:Fault>"), fault(3, "Server Fault")},
        {envelope("<SOAP-ENV:Fault/>"), fault(0, "Server Fault")},
        {envelope("<SOAP-ENV:Fault><faultcode/><faultstring>x</faultstring></SOAP-ENV:Fault>"),
         fault(-65795, "Can't parse <faultcode>")},
        {envelope("<SOAP-ENV:Fault><faultcode>1</faultcode><faultstring/></SOAP-ENV:Fault>"),
         fault(-65795, "Can't parse <faultstring>")},
    };
    for (const auto &c : cases)
        EXPECT_TRUE(sameValue(c.second, handler.readReply(c.first).get())) << c.first;

    // A fault and a response in one Body are both read, in order.
    Value both =
        handler.readReply(envelope("<SOAP-ENV:Fault><faultcode>5</faultcode><faultstring>f</faultstring>"
                                   "</SOAP-ENV:Fault><mResponse><x>1</x></mResponse>"));
    EXPECT_TRUE(HVMethodResultIsFault(both.dict()));
    EXPECT_TRUE(sameValue(Dict({{"x", S("1")}}), both["/Result"]));
}

TEST(SOAPReplies, HeadersAndOverrides) {
    SOAPHandler handler;
    int calls = 0;
    HVClientContext context = {0, &calls, nullptr, nullptr, nullptr};
    HVProtocolHandlerSetDeserializationOverride(handler.get(), RTSTR("urn:special"), RTSTR("THING"),
                                                _thingOverride, &context);
    Value result = handler.readReply(response("<s:thing xmlns:s=\"urn:special\">raw</s:thing><wrapped "
                                              "xmlns:s=\"urn:special\"><s:Thing/></wrapped>"
                                              "<other xmlns:s=\"urn:other\"><s:thing>1</s:thing></other>"),
                                     "m");
    // The element itself, or its first child, may be taken over; other namespaces are not.
    EXPECT_TRUE(sameValue(success({{"s:thing", S("override of s:thing")},
                                   {"wrapped", S("override of s:Thing")},
                                   {"other", Dict({{"s:thing", S("1")}})}}),
                          result.get()));
    EXPECT_EQ(2, calls);

    // Header entries come back as the tree nodes of the Header's children.
    result =
        handler.readReply(envelope("<mResponse/>", "<SOAP-ENV:Header><t:Trans xmlns:t=\"urn:t\">5</t:Trans>"
                                                   "<u>6</u></SOAP-ENV:Header>"));
    RtArrayRef headers = static_cast<RtArrayRef>(result["/HVHTTPMessageHeaders"]);
    ASSERT_EQ(RtArrayGetTypeID(), RtGetTypeID(headers));
    ASSERT_EQ(2, RtArrayGetCount(headers));
    EXPECT_TRUE(sameValue(S("t:Trans"), getElementName(static_cast<RtTreeRef>(
                                            const_cast<void *>(RtArrayGetValueAtIndex(headers, 0))))));
    EXPECT_TRUE(sameValue(Dict({}), result["/Result"]));

    // An invocation reads through a temporary handler that sees its overrides.
    Value url = Value::adopt(RtURLCreateWithString(nullptr, RTSTR("http://127.0.0.1:1/"), nullptr));
    SOAPHalvoMethodInvocation invocation(kHVSOAP2001Protocol, static_cast<RtURLRef>(url.get()), RTSTR("m"));
    invocation.addDeserializationOverride(RTSTR("*"), RTSTR("thing"), _thingOverride, &context);
    Value data = Bytes(response("<t:thing xmlns:t=\"urn:any\">x</t:thing>"));
    AutoString error;
    RtTreeRef tree = parseXML(data.data(), false, kRtStringEncodingUTF8, error.getStringPtr());
    ASSERT_NE(nullptr, tree);
    {
        HalvoResult record;
        invocation.parseReply(&record, tree);
        Value copy = Value::adopt(record.copyDictionary());
        EXPECT_TRUE(sameValue(success({{"t:thing", S("override of t:thing")}}), copy.get()));
    }
    RtRelease(tree);
}

TEST(SOAPReplies, MalformedAndForeignDocuments) {
    SOAPHandler handler;
    // Documents that are not SOAP 1.1 replies in our sense give nothing at all.
    const std::string ignored[] = {
        "<e:Envelope xmlns:e=\"urn:other\"><e:Body><mResponse><x>1</x></mResponse></e:Body></e:Envelope>",
        "<foo:Envelope><foo:Body><mResponse/></foo:Body></foo:Envelope>",
        std::string(kEnvelopeStart) + "</SOAP-ENV:Envelope>",
        std::string(kEnvelopeStart) + "<Body><mResponse/></Body></SOAP-ENV:Envelope>",
        "<methodResponse><params/></methodResponse>",
    };
    for (const std::string &document : ignored)
        EXPECT_TRUE(sameValue(Dict({}), handler.readReply(document).get())) << document;

    // Unparseable documents are faults carrying the parser's message.
    std::string deep = std::string(kEnvelopeStart) + "<SOAP-ENV:Body><mResponse>";
    for (int i = 0; i < 600; i++)
        deep += "<v>";
    const std::string broken[] = {std::string(kEnvelopeStart) + "<SOAP-ENV:Body>", "", "not xml at all",
                                  deep};
    for (const std::string &document : broken) {
        Value result = handler.readReply(document), extra = Value::retain(result["/FaultExtra"]);
        EXPECT_TRUE(HVMethodResultIsFault(result.dict()) && sameValue(I(-65794), result["/FaultCode"]))
            << document.substr(0, 200);
        EXPECT_TRUE(sameValue(I(-65795), extra["error"]));
        EXPECT_EQ(RtStringGetTypeID(), RtGetTypeID(extra["msg"]));
    }
}
