// XML-RPC documents as we write them: requests, replies and faults byte for byte, every kind of
// value, the serialization overrides and the reply encodings.
#include "XMLRPCTestSupport.h"

#include "XMLRPCHalvoClosure.h"

using namespace xmlrpctest;

namespace {

// The reply document holding one value whose lines (at level 3) are given.
std::string replyWith(const std::string &valueLines) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<methodResponse>\r\n  <params>\r\n    <param>\r\n" +
           valueLines + "    </param>\r\n  </params>\r\n</methodResponse>\r\n";
}
std::string scalarReply(const std::string &content) {
    return replyWith("      <value>\r\n        " + content + "\r\n      </value>\r\n");
}

RtStringRef _overrideStrings(HVMethodInvocationRef, RtTypeRef value, void *info) {
    return RtStringCreateWithFormat(nullptr, nullptr, RTSTR("<%s>%@</%s>"), static_cast<const char *>(info), value,
                                    static_cast<const char *>(info));
}
RtStringRef _declineEverything(HVMethodInvocationRef, RtTypeRef, void *) { return nullptr; }

std::string fallbackLines(RtTypeRef value) {
    Value line = Value::adopt(RtStringCreateWithFormat(
        nullptr, nullptr, RTSTR("<!-- Unknown RtType (%d) for parameter - trying string coercion -->\r\n        <string>%@</string>"),
        static_cast<int>(RtGetTypeID(value)), value));
    Value bytes = Value::adopt(RtStringCreateExternalRepresentation(nullptr, line.str(), kRtStringEncodingUTF8, 0));
    return text(bytes);
}

} // namespace

TEST(XMLRPCDocuments, GoldenRequestsRepliesAndFaults) {
    Handler handler;
    EXPECT_EQ(readGolden("request_add.xml"), handler.request("examples.add", Dict({{"n", I(42)}})));
    EXPECT_EQ(readGolden("request_no_params.xml"), handler.request("system.listMethods", Value()));
    EXPECT_EQ(readGolden("request_no_params.xml"), handler.request("system.listMethods", Dict({{"n", I(1)}}), A({})));

    Value record = Dict({{"/HVRecordParamOrder", A({S("b"), S("a<b"), S("/skip"), S(""), S("n"), S("deep")})},
                         {"a<b", I(1)},
                         {"b", S("two")},
                         {"/skip", S("hidden")},
                         {"deep", A({A({A({S("z")})})})}});
    Value params = Dict({{"flag", B(true)}, {"off", B(false)}, {"count", I(-7)}, {"big", I64(3000000000LL)},
                         {"ratio", D(2.5)}, {"huge", D(1e20)}, {"text", S("a<b&c'\"d>")}, {"when", Date(31535947.9)},
                         {"blob", Bytes("Man")}, {"list", A({I(1), S("x")})}, {"empty", A({})}, {"record", record}});
    Value order = A({S("flag"), S("off"), S("count"), S("big"), S("ratio"), S("huge"), S("text"), S("when"), S("blob"),
                     S("list"), S("empty"), S("record"), S("missing")});
    EXPECT_EQ(readGolden("request_all_kinds.xml"), handler.request("examples.everything", params, order));

    EXPECT_EQ(readGolden("reply_struct.xml"), handler.reply(Dict({{"sum", I(3)}, {"ok", B(true)}})));
    EXPECT_EQ(readGolden("reply_empty.xml"), handler.reply(Value()));
    EXPECT_EQ(readGolden("fault_full.xml"),
              handler.fault(Dict({{"/FaultCode", I(4)}, {"/FaultString", S("Too many parameters")},
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
    std::string record = handler.request("m", Dict({{"/HVRecordParamOrder", A({S("b"), S("a")})}, {"a", I(1)}, {"b", I(2)}}));
    EXPECT_LT(record.find("<i4>2</i4>"), record.find("<i4>1</i4>"));
    EXPECT_EQ(std::string::npos, record.find("HVRecordParamOrder"));
}

TEST(XMLRPCDocuments, EveryKindOfValue) {
    Handler handler;
    const std::pair<Value, const char *> scalars[] = {
        {I(2147483647), "<i4>2147483647</i4>"},     {I(-2147483647 - 1), "<i4>-2147483648</i4>"},
        {I64(3000000000LL), "<i4>0</i4>"},           {I64(-5), "<i4>-5</i4>"},
        {D(0.1), "<double>0.1</double>"},            {D(3.14159265), "<double>3.14159</double>"},
        {D(-2.5e-7), "<double>-2.5e-07</double>"},   {D(1e20), "<double>1e+20</double>"},
        {S(""), "<string></string>"},                {S("caf\xC3\xA9 &amp;"), "<string>caf\xC3\xA9 &amp;amp;</string>"},
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
    EXPECT_NE(std::string::npos, handler.reply(url).find("<string>http://h/?a=1&b=2</string>"));
    EXPECT_EQ(scalarReply(fallbackLines(kRtNull)), handler.reply(Value::retain(kRtNull)));

    // 39 bytes fill one base64 line exactly at this depth (indent 6: three tabs, 52 characters):
    // the text then ends in its own line feed before the line's "\r\n".
    std::string bytes, line;
    for (int i = 0; i < 13; i++)
        bytes += "abc", line += "YWJj";
    EXPECT_EQ(replyWith("      <value>\r\n        <base64>\r\n\t\t\t" + line + "\n\r\n        </base64>\r\n      </value>\r\n"),
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
    std::string both = handler.fault(Dict({{"/FaultCode", I(1)}, {"faultCode", I(2)}, {"/FaultString", S("a")},
                                           {"faultString", S("b")}, {"/FaultExtra", S("x")}, {"faultExtra", S("y")}}));
    for (const char *piece : {"<i4>2</i4>", "<string>b</string>", "<name>faultExtra</name>", "<string>y</string>"})
        EXPECT_NE(std::string::npos, both.find(piece)) << piece;
    EXPECT_EQ(std::string::npos, handler.fault(Dict({{"faultExtra", S("y")}})).find("faultExtra"))
        << "faultExtra goes out only beside /FaultExtra";
}
