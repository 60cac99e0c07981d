// XML-RPC documents as we read them (reply values of every kind, server faults, malformed and
// hostile replies, requests on the server side) and as we write them (requests, replies and
// faults byte for byte, every kind of value, the serialization overrides, the reply encodings).
#include "XMLRPCTestSupport.h"

#include "XMLRPCHalvoClosure.h"

using namespace xmlrpctest;

namespace {

std::string replyHolding(const std::string &value) {
    return "<?xml version=\"1.0\"?><methodResponse><params><param>" + value +
           "</param></params></methodResponse>";
}

// n levels of <value><kind>...: an array of arrays, or a struct of structs under the member "m".
std::string nested(int n, bool structs) {
    std::string open, close;
    for (int i = 0; i < n; i++) {
        open += structs ? "<value><struct><member><name>m</name>" : "<value><array><data>";
        close = (structs ? "</member></struct></value>" : "</data></array></value>") + close;
    }
    return open + "<value>leaf</value>" + close;
}

std::string parseRequestError(const std::string &document) {
    XMLRPCProtocolHandler handler;
    AutoString error;
    Value data = Bytes(document);
    Value request = Value::adopt(handler.parsePostData(data.data(), kRtStringEncodingUTF8, &error));
    EXPECT_EQ(nullptr, request.get()) << document;
    Value bytes = Value::adopt(error.isNull() ? nullptr
                                              : RtStringCreateExternalRepresentation(
                                                    nullptr, error.getString(), kRtStringEncodingUTF8, '?'));
    return text(bytes);
}

// The reply document holding one value whose lines (at level 3) are given.
std::string replyWith(const std::string &valueLines) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<methodResponse>\r\n  <params>\r\n    <param>\r\n" +
           valueLines + "    </param>\r\n  </params>\r\n</methodResponse>\r\n";
}
std::string scalarReply(const std::string &content) {
    return replyWith("      <value>\r\n        " + content + "\r\n      </value>\r\n");
}

RtStringRef _overrideStrings(HVMethodInvocationRef, RtTypeRef value, void *info) {
    return RtStringCreateWithFormat(nullptr, nullptr, RTSTR("<%s>%@</%s>"), static_cast<const char *>(info),
                                    value, static_cast<const char *>(info));
}
RtStringRef _declineEverything(HVMethodInvocationRef, RtTypeRef, void *) {
    return nullptr;
}

std::string fallbackLines(RtTypeRef value) {
    Value line =
        Value::adopt(RtStringCreateWithFormat(nullptr, nullptr,
                                              RTSTR("<!-- Unknown RtType (%d) for parameter - trying string "
                                                    "coercion -->\r\n        <string>%@</string>"),
                                              static_cast<int>(RtGetTypeID(value)), value));
    Value bytes =
        Value::adopt(RtStringCreateExternalRepresentation(nullptr, line.str(), kRtStringEncodingUTF8, 0));
    return text(bytes);
}

} // namespace

TEST(XMLRPCReplies, ValuesOfEveryKind) {
    Handler handler;
    const std::pair<const char *, Value> cases[] = {
        {"<value>hello</value>", S("hello")},
        {"<value><STRING>x</STRING></value>", S("x")},
        {"<value><string>a&amp;b<![CDATA[<c>]]></string></value>", S("a&b<c>")},
        {"<value><i4>42</i4></value>", I(42)},
        {"<value><int> -0x1F</int></value>", I(-31)},
        {"<value><I4>010</I4></value>", I(8)},
        {"<value><i4>3000000000</i4></value>", I64(3000000000LL)},
        {"<value><i4></i4></value>", I(0)},
        {"<value><i4>4&amp;2</i4></value>", I(4)}, // scalars read the first text node only
        {"<value><boolean>Yes</boolean></value>", B(true)},
        {"<value><boolean>t</boolean></value>", B(true)},
        {"<value><boolean>2</boolean></value>", B(false)},
        {"<value><boolean>no</boolean></value>", B(false)},
        {"<value><boolean/></value>", B(false)},
        {"<value><double>-1.5e3</double></value>", D(-1500)},
        {"<value><double>abc</double></value>", D(0)},
        {"<value><dateTime.iso8601>19980717T14:08:55</dateTime.iso8601></value>", Date(-77622665.0)},
        {"<value><dateTime.iso8601>1998-07-17T14:08:55Z</dateTime.iso8601></value>", Date(-77622665.0)},
        {"<value><base64>\n TW Fu\n</base64></value>", Bytes("Man")},
        {"<value><array><data><value><i4>1</i4></value><value/><value><string/></value><value>x</value></"
         "data>"
         "<ignored/></array></value>",
         A({I(1), S(""), S(""), S("x")})},
        {"<value><array><data/></array></value>", A({})},
        {"<value><struct><member><name>a</name><value><i4>1</i4></value></member>"
         "<member><value>v</value><name>b</name></member>"
         "<member><name>c</name><value/></member>"
         "<member><name>lone</name></member>"
         "<member><name>d</name><value>1</value><third/></member>"
         "<member><name>a</name><value>2</value></member></struct></value>",
         Dict({{"a", S("2")}, {"b", S("v")}, {"c", Value::retain(kRtNull)}, {"d", S("1")}})},
        {"<value><struct/></value>", Dict({})},
    };
    for (const auto &c : cases) {
        Value result = handler.readReply(replyHolding(c.first));
        EXPECT_TRUE(sameValue(Dict({{"/Result", c.second}}), result.get())) << c.first;
    }
    for (const char *nothing : {"<value/>", "<value><string></string></value>"})
        EXPECT_TRUE(sameValue(Dict({}), handler.readReply(replyHolding(nothing)).get())) << nothing;
    EXPECT_TRUE(sameValue(Dict({{"/Result", S("p")}}),
                          handler
                              .readReply("<x:methodResponse xmlns:x='urn:x'><params><param><value>p"
                                         "</value></param></params></x:methodResponse>")
                              .get()));
}

TEST(XMLRPCReplies, ServerFaults) {
    Handler handler;
    auto fault = [&](const char *members) {
        return handler.readReply(std::string("<methodResponse><fault><value><struct>") + members +
                                 "</struct></value></fault></methodResponse>");
    };
    const char *code4 = "<member><name>faultCode</name><value><int>4</int></value></member>";
    const char *text = "<member><name>faultString</name><value>Too many</value></member>";
    EXPECT_TRUE(sameValue(
        Dict({{"/kHVResultIsFault", B(true)}, {"/FaultCode", I(4)}, {"/FaultString", S("Too many")}}),
        fault((std::string(code4) + text + "<member><name>x</name><value>y</value></member>").c_str())
            .get()));
    EXPECT_TRUE(
        sameValue(I(-1), fault((std::string("<member><name>faultCode</name><value>4</value></member>") + text)
                                   .c_str())["/FaultCode"]))
        << "a code that is not a number counts as absent";
    EXPECT_TRUE(sameValue(
        I(0),
        fault("<member><name>faultCode</name><value><double>2.5</double></value></member>")["/FaultCode"]));
    EXPECT_EQ(nullptr, fault(code4)["/FaultString"]);
}

TEST(XMLRPCReplies, MalformedRepliesBecomeFaults) {
    Handler handler;
    const std::pair<std::string, const char *> cases[] = {
        {"<notResponse/>", "Can't find a 'methodResponse' element"},
        {"<methodResponse/>", "Can't find any child of the 'methodResponse' element"},
        {"<methodResponse><other/></methodResponse>",
         "Child of the 'methodResponse' must be <fault> or <params>"},
        {"<methodResponse><fault/></methodResponse>", "<fault> must contain a <value>"},
        {"<methodResponse><fault><value><struct/></value></fault></methodResponse>", "Can't parse <fault>."},
        {"<methodResponse><fault><value>oops</value></fault></methodResponse>", "Can't parse <fault>."},
        {"<methodResponse><fault><value><nil/></value></fault></methodResponse>",
         "Don't know how to deserialize nil"},
        {"<methodResponse><params/></methodResponse>", "<params> must contain a single <param> entry"},
        {"<methodResponse><params><param/></params></methodResponse>",
         "<param> must contain a single <value> entry"},
        {replyHolding("<value><nil/></value>"), "Don't know how to deserialize nil"},
        {replyHolding("<value><i8>5</i8></value>"), "Don't know how to deserialize i8"},
        {replyHolding("<value><array/></value>"), "<array> should only containa single <data> element"},
        {replyHolding("<value><array><value/></array></value>"),
         "<array> should only containa single <data> element"},
        {replyHolding("<value><array><data><i4>1</i4></data></array></value>"),
         "non-value element found in <data> part of <array>"},
        {replyHolding("<value><struct><member/></struct></value>"), "empty <member> element"},
        {replyHolding("<value><struct><member><name>a</name><name>b</name></member></struct></value>"),
         "too many <name> elements for a <member>"},
        {replyHolding("<value><struct><member><value>1</value><value>2</value></member></struct></value>"),
         "too many <value> elements for a <member>"},
        {replyHolding("<value><struct><member><name>a</name><junk/></member></struct></value>"),
         "unknown element in <member>"},
        {replyHolding("<value><struct><member><name/><value>1</value></member></struct></value>"),
         "missing <name> element for <member>"},
        {replyHolding(
             "<value><array><data><value><struct><member><name>a</name><value><array><data><value><nil/>"
             "</value></data></array></value></member></struct></value></data></array></value>"),
         "Don't know how to deserialize nil"},
    };
    for (const auto &c : cases)
        EXPECT_TRUE(sameValue(readerFault(c.second), handler.readReply(c.first).get())) << c.first;

    // Text that does not parse carries the parser's message.
    for (const char *broken : {"", "not xml at all", "<methodResponse><params>", "\xFF\xFE<\x00"}) {
        Value result = handler.readReply(broken);
        EXPECT_TRUE(HVMethodResultIsFault(result.dict())) << broken;
        Value extra = Value::retain(result["/FaultExtra"]);
        EXPECT_TRUE(sameValue(I(-65795), extra["error"]));
        EXPECT_NE(nullptr, extra["msg"]);
    }
}

// A reply's own array is read item by item while the document is parsed; the same array one
// level down (in a struct) is read from the finished tree. Both must give the same values and
// the same faults, whatever <data> holds.
TEST(XMLRPCReplies, ArraysReadWhileParsedMatchTheTreeReading) {
    Handler handler;
    std::string many;
    for (int i = 0; i < 3000; i++)
        many += i % 3 ? "<value><i4>" + std::to_string(i) + "</i4></value>"
                      : "<value><struct><member><name>n</name><value>text " + std::to_string(i) +
                            " &amp; more text to be a long string</value></member></struct></value>";
    const std::string items[] = {
        "",
        "<value><i4>1</i4></value><value/><value><string/></value><value>x</value>",
        "\n  <value>a&amp;b</value> <!-- c --> <value><string>x&lt;y<![CDATA[z]]></string></value>\n",
        "<value><array><data><value>1</value></data></array></value>"
        "<value><struct><member><name>a</name><value><base64>TWFu</base64></value></member></struct></value>",
        "<value>1</value>value",
        many,
        many + "<i4>2</i4>" + many,
        "<value>1</value><value><nil/></value><junk/>",
        "text<value>1</value>",
        "<?pi x?><value>1</value>",
        "&amp;<value>1</value>",
    };
    for (const std::string &list : items) {
        Value top =
            handler.readReply(replyHolding("<value><array><data>" + list + "</data></array></value>"));
        Value nested = handler.readReply(
            replyHolding("<value><struct><member><name>k</name><value><array><data>" + list +
                         "</data></array></value></member>"
                         "</struct></value>"));
        if (HVMethodResultIsFault(nested.dict())) {
            EXPECT_TRUE(sameValue(nested.get(), top.get())) << list;
        } else {
            Value inner = Value::retain(nested["/Result"]);
            EXPECT_TRUE(sameValue(Dict({{"/Result", Value::retain(inner["k"])}}), top.get())) << list;
        }
    }

    // Items already read count for nothing when the document then fails to parse; a second
    // param after the array is ignored as always.
    Value truncated = handler.readReply(replyHolding("<value><array><data>" + many).substr(0, 40000));
    EXPECT_TRUE(HVMethodResultIsFault(truncated.dict()));
    EXPECT_TRUE(sameValue(I(-65795), Value::retain(truncated["/FaultExtra"])["error"]));
    EXPECT_TRUE(sameValue(Dict({{"/Result", A({S("1")})}}),
                          handler
                              .readReply("<methodResponse><params><param><value><array><data><value>1</value>"
                                         "</data></array></value></param><param><value>2</value></param>"
                                         "</params></methodResponse>")
                              .get()));
}

TEST(XMLRPCReplies, DeepNestingEndsAtTheDepthLimit) {
    Handler handler;
    for (bool structs : {false, true}) {
        // 150 levels (about 450 elements) stay under the reader's limit and are read whole.
        Value result = handler.readReply(replyHolding(nested(150, structs)));
        RtTypeRef value = result["/Result"];
        int depth = 0;
        while (RtGetTypeID(value) == (structs ? RtDictionaryGetTypeID() : RtArrayGetTypeID())) {
            value = structs ? RtDictionaryGetValue(static_cast<RtDictionaryRef>(value), RTSTR("m"))
                            : RtArrayGetValueAtIndex(static_cast<RtArrayRef>(value), 0);
            depth++;
        }
        EXPECT_EQ(150, depth);
        EXPECT_TRUE(sameValue(S("leaf"), value));
        // Far deeper documents end as a parse fault, not on the stack.
        EXPECT_TRUE(HVMethodResultIsFault(handler.readReply(replyHolding(nested(5000, structs))).dict()));
        EXPECT_EQ(nullptr, handler
                               .readRequest("<methodCall><methodName>m</methodName><params><param>" +
                                            nested(5000, structs) + "</param></params></methodCall>")
                               .get());
    }
}

TEST(XMLRPCRequests, ServerSideRequests) {
    Handler handler;
    Value request =
        handler.readRequest("<methodCall><methodName>add</methodName><params><param><value><i4>1</i4>"
                            "</value></param><param><value>two</value></param></params></methodCall>");
    EXPECT_TRUE(sameValue(Dict({{"/HVTextEncoding", I(static_cast<int32_t>(kRtStringEncodingUTF8))},
                                {"/HVMethodName", S("add")},
                                {"/HVMethodParameters", Dict({{"anon0", I(1)}, {"anon1", S("two")}})},
                                {"/HVMethodParameterOrder", A({S("anon0"), S("anon1")})}}),
                          request.get()));

    // Values are numbered in document order; an empty one uses up no number; a second <params>
    // numbers from anon0 again.
    request = handler.readRequest(
        "junk<?xml version='1.0'?><p:methodCall xmlns:p='urn:p'><p:methodName>m</p:methodName><params>"
        "<param><value>a</value><value>b</value></param><param><value/></param><param><value>c</value></"
        "param>"
        "</params><params><param><value>z</value></param></params></p:methodCall>");
    EXPECT_TRUE(sameValue(Dict({{"anon0", S("z")}, {"anon1", S("b")}, {"anon2", S("c")}}),
                          request["/HVMethodParameters"]));
    EXPECT_TRUE(sameValue(A({S("anon0"), S("anon1"), S("anon2")}), request["/HVMethodParameterOrder"]));

    request = handler.readRequest("<methodCall><methodName>m</methodName></methodCall>");
    EXPECT_TRUE(sameValue(Dict({}), request["/HVMethodParameters"]));
    EXPECT_TRUE(sameValue(A({}), request["/HVMethodParameterOrder"]));

    // A top-level element other than methodCall comes back as an extension.
    request = handler.readRequest("<other><x/></other>");
    RtArrayRef extensions = static_cast<RtArrayRef>(request["/HVXMLRPCTopLevelExtensions"]);
    ASSERT_NE(nullptr, extensions);
    ASSERT_EQ(1, RtArrayGetCount(extensions));
    EXPECT_TRUE(sameValue(S("other"), RtXMLNodeGetString(RtXMLTreeGetNode(static_cast<RtTreeRef>(
                                          const_cast<void *>(RtArrayGetValueAtIndex(extensions, 0)))))));
    EXPECT_EQ(nullptr, request["/HVMethodName"]);
}

TEST(XMLRPCRequests, MalformedRequestsAreRefused) {
    EXPECT_EQ("<methodName> missing for request", parseRequestError("<methodCall><params/></methodCall>"));
    EXPECT_EQ("Can't parse string", parseRequestError("<methodCall><methodName/></methodCall>"));
    EXPECT_EQ("Don't know how to deserialize nil",
              parseRequestError("<methodCall><methodName>m</methodName><params><param><value><nil/></value>"
                                "</param></params></methodCall>"));
    EXPECT_NE(std::string::npos, parseRequestError("<methodCall>").find("(line ")) << "the parser's message";
    EXPECT_EQ(nullptr, Handler().readRequest("").get());
}

TEST(XMLRPCDocuments, GoldenRequestsRepliesAndFaults) {
    Handler handler;
    EXPECT_EQ(readGolden("request_add.xml"), handler.request("examples.add", Dict({{"n", I(42)}})));
    EXPECT_EQ(readGolden("request_no_params.xml"), handler.request("system.listMethods", Value()));
    EXPECT_EQ(readGolden("request_no_params.xml"),
              handler.request("system.listMethods", Dict({{"n", I(1)}}), A({})));

    Value record = Dict({{"/HVRecordParamOrder", A({S("b"), S("a<b"), S("/skip"), S(""), S("n"), S("deep")})},
                         {"a<b", I(1)},
                         {"b", S("two")},
                         {"/skip", S("hidden")},
                         {"deep", A({A({A({S("z")})})})}});
    Value params = Dict({{"flag", B(true)},
                         {"off", B(false)},
                         {"count", I(-7)},
                         {"big", I64(3000000000LL)},
                         {"ratio", D(2.5)},
                         {"huge", D(1e20)},
                         {"text", S("a<b&c'\"d>")},
                         {"when", Date(31535947.9)},
                         {"blob", Bytes("Man")},
                         {"list", A({I(1), S("x")})},
                         {"empty", A({})},
                         {"record", record}});
    Value order = A({S("flag"), S("off"), S("count"), S("big"), S("ratio"), S("huge"), S("text"), S("when"),
                     S("blob"), S("list"), S("empty"), S("record"), S("missing")});
    EXPECT_EQ(readGolden("request_all_kinds.xml"), handler.request("examples.everything", params, order));

    EXPECT_EQ(readGolden("reply_struct.xml"), handler.reply(Dict({{"sum", I(3)}, {"ok", B(true)}})));
    EXPECT_EQ(readGolden("reply_empty.xml"), handler.reply(Value()));
    EXPECT_EQ(readGolden("fault_full.xml"), handler.fault(Dict({{"/FaultCode", I(4)},
                                                                {"/FaultString", S("Too many parameters")},
                                                                {"/FaultExtra", S("detail")}})));
    EXPECT_EQ(readGolden("fault_default.xml"), handler.fault(Dict({})));
    EXPECT_EQ(readGolden("fault_default.xml"), handler.fault(Value()));
}

TEST(XMLRPCDocuments, ParameterOrder) {
    Handler handler;
    std::string firstB = handler.request("m", Dict({{"b", I(2)}, {"a", I(1)}}));
    EXPECT_LT(firstB.find("<i4>2</i4>"), firstB.find("<i4>1</i4>")) << "the dictionary's own order";

    std::string twice = handler.request("m", Dict({{"a", I(1)}, {"b", I(2)}}), A({S("b"), S("a"), S("b")}));
    size_t b1 = twice.find("<i4>2</i4>"), a = twice.find("<i4>1</i4>"), b2 = twice.rfind("<i4>2</i4>");
    EXPECT_TRUE(b1 < a && a < b2) << twice;

    // Without an order array the parameters' own record order decides.
    std::string record =
        handler.request("m", Dict({{"/HVRecordParamOrder", A({S("b"), S("a")})}, {"a", I(1)}, {"b", I(2)}}));
    EXPECT_LT(record.find("<i4>2</i4>"), record.find("<i4>1</i4>"));
    EXPECT_EQ(std::string::npos, record.find("HVRecordParamOrder"));
}

TEST(XMLRPCDocuments, EveryKindOfValue) {
    Handler handler;
    const std::pair<Value, const char *> scalars[] = {
        {I(2147483647), "<i4>2147483647</i4>"},
        {I(-2147483647 - 1), "<i4>-2147483648</i4>"},
        {I64(3000000000LL), "<i4>0</i4>"},
        {I64(-5), "<i4>-5</i4>"},
        {D(0.1), "<double>0.1</double>"},
        {D(3.14159265), "<double>3.14159</double>"},
        {D(-2.5e-7), "<double>-2.5e-07</double>"},
        {D(1e20), "<double>1e+20</double>"},
        {S(""), "<string></string>"},
        {S("caf\xC3\xA9 &amp;"), "<string>caf\xC3\xA9 &amp;amp;</string>"},
        {Date(-77622665.0), "<dateTime.iso8601>19980717T14:08:55Z</dateTime.iso8601>"},
    };
    for (const auto &scalar : scalars)
        EXPECT_EQ(scalarReply(scalar.second), handler.reply(scalar.first)) << scalar.second;
    float half = 0.5f;
    EXPECT_EQ(scalarReply("<double>0.5</double>"),
              handler.reply(Value::adopt(RtNumberCreate(nullptr, kRtNumberFloat32Type, &half))));

    // Kinds without an XML-RPC element go out as their description, not entity-encoded.
    Value url = Value::adopt(RtURLCreateWithString(nullptr, RTSTR("http://h/?a=1&b=2"), nullptr));
    EXPECT_EQ(scalarReply(fallbackLines(url.get())), handler.reply(url));
    EXPECT_EQ(scalarReply(fallbackLines(kRtNull)), handler.reply(Value::retain(kRtNull)));

    // 39 bytes fill one base64 line exactly at this depth (indent 6: three tabs, 52 characters):
    // the text then ends in its own line feed before the line's "\r\n".
    std::string bytes, line;
    for (int i = 0; i < 13; i++)
        bytes += "abc", line += "YWJj";
    EXPECT_EQ(replyWith("      <value>\r\n        <base64>\r\n\t\t\t" + line +
                        "\n\r\n        </base64>\r\n      </value>\r\n"),
              handler.reply(Bytes(bytes)));
}

TEST(XMLRPCDocuments, SerializationOverrides) {
    // On a handler: the override's text replaces the whole content of <value>, verbatim.
    Handler handler;
    HVClientContext context = {0, const_cast<char *>("custom"), nullptr, nullptr, nullptr};
    HVProtocolHandlerSetSerializationOverride(handler.get(), RtStringGetTypeID(), _overrideStrings, &context);
    EXPECT_EQ(scalarReply("<custom>a&b</custom>"), handler.reply(S("a&b")));
    EXPECT_EQ(scalarReply("<i4>5</i4>"), handler.reply(I(5)));

    // Through the parent chain of a client call: the invocation's override reaches its request.
    XMLRPCHalvoMethodInvocation invocation(nullptr, RTSTR("m"));
    invocation.setParameters(Dict({{"s", S("x")}, {"n", I(1)}}).dict(), nullptr);
    HVClientContext mine = {0, const_cast<char *>("mine"), nullptr, nullptr, nullptr};
    invocation.addSerializationOverride(RtStringGetTypeID(), _overrideStrings, &mine);
    invocation.addSerializationOverride(RtNumberGetTypeID(), _declineEverything, nullptr);
    AutoString contentType;
    Value body = Value::adopt(invocation.constructMessage(contentType));
    EXPECT_TRUE(contentType.isNull());
    EXPECT_NE(std::string::npos, text(body).find("          <value>\r\n            <mine>x</mine>\r\n"));
    EXPECT_NE(std::string::npos, text(body).find("<i4>1</i4>")) << "a NULL answer keeps the normal encoding";
}

TEST(XMLRPCDocuments, ReplyEncodingsAndFaultMembers) {
    Handler handler;
    Value latin1 = Dict({{"/HVTextEncoding", I(static_cast<int32_t>(kRtStringEncodingISOLatin1))}});
    std::string reply = handler.reply(S("caf\xC3\xA9"), latin1);
    EXPECT_EQ(0u, reply.find("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\r\n")) << reply;
    EXPECT_NE(std::string::npos, reply.find("<string>caf\xE9</string>"));
    Value ascii = Dict({{"/HVTextEncoding", I(static_cast<int32_t>(kRtStringEncodingASCII))}});
    EXPECT_EQ("(null)", handler.reply(S("caf\xC3\xA9"), ascii)) << "not representable: no document";

    // The XML-RPC member names win over the result-dictionary keys.
    std::string both = handler.fault(Dict({{"/FaultCode", I(1)},
                                           {"faultCode", I(2)},
                                           {"/FaultString", S("a")},
                                           {"faultString", S("b")},
                                           {"/FaultExtra", S("x")},
                                           {"faultExtra", S("y")}}));
    for (const char *piece :
         {"<i4>2</i4>", "<string>b</string>", "<name>faultExtra</name>", "<string>y</string>"})
        EXPECT_NE(std::string::npos, both.find(piece)) << piece;
    EXPECT_EQ(std::string::npos, handler.fault(Dict({{"faultExtra", S("y")}})).find("faultExtra"))
        << "faultExtra goes out only beside /FaultExtra";
}
