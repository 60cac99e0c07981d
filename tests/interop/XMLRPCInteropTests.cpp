// XML-RPC against Python's standard xmlrpc.client, the implementation most servers are tested
// with: what Python writes we read into the expected values, and what we write Python reads
// into the expected values. Python runs as a subprocess through tests/interop/xmlrpc_codec.py.
#include "../HalvosCore/XMLRPCTestSupport.h"

#include "PythonPeer.h"

#include <unistd.h>

using namespace xmlrpctest;

namespace {

// Runs the codec with args (no shell: expressions pass untouched).
hvtest::Finished runCodec(std::vector<std::string> args) {
    args.insert(args.begin(), {hvtest::PythonPeer::interpreter(),
                               std::string(HV_SOURCE_DIR) + "/tests/interop/xmlrpc_codec.py"});
    return hvtest::run(args);
}

// The document the codec writes for args.
std::string pythonWrites(std::vector<std::string> args) {
    hvtest::Finished written = runCodec(std::move(args));
    EXPECT_EQ(0, written.status) << written.err;
    return written.out;
}

// Python's loads of document compared, in Python, with the expected expression.
::testing::AssertionResult pythonReads(const std::string &document, const std::string &expected) {
    char path[] = "/tmp/hv-xmlrpc-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0 || write(fd, document.data(), document.size()) != static_cast<ssize_t>(document.size()))
        return ::testing::AssertionFailure() << "cannot write " << path;
    close(fd);
    hvtest::Finished run = runCodec({"check", path, expected});
    unlink(path);
    if (run.status == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << run.out << run.err << "\ndocument:\n" << document;
}

// A big text, so that readers see it in more than one piece; bigTextExpression builds the same
// text in Python.
const char *bigTextExpression = "''.join('line %d <&> ' % i for i in range(20000))";
std::string bigText() {
    std::string s;
    for (int i = 0; i < 20000; i++)
        s += "line " + std::to_string(i) + " <&> ";
    return s;
}

} // namespace

TEST(XMLRPCInterop, PythonCallsReadByOurHandler) {
    Handler handler;
    Value request = handler.readRequest(pythonWrites(
        {"call", "examples.everything",
         "(42, -7, True, False, 2.5, 1e+20, 'a<b&c\\'\"d>', 'caf\\u00e9', datetime.datetime(1998, 7, 17, 14, "
         "8, 55), "
         "Binary(b'Man'), [1, 'x', [True]], {'a': 1, 'b<': {'c': []}, 'd': 0.5}, (2**31 - 1, -2**31))"}));
    EXPECT_TRUE(sameValue(S("examples.everything"), request["/HVMethodName"]));
    EXPECT_TRUE(sameValue(Dict({{"anon0", I(42)},
                                {"anon1", I(-7)},
                                {"anon2", B(true)},
                                {"anon3", B(false)},
                                {"anon4", D(2.5)},
                                {"anon5", D(1e20)},
                                {"anon6", S("a<b&c'\"d>")},
                                {"anon7", S("caf\xC3\xA9")},
                                {"anon8", Date(-77622665.0)},
                                {"anon9", Bytes("Man")},
                                {"anon10", A({I(1), S("x"), A({B(true)})})},
                                {"anon11", Dict({{"a", I(1)}, {"b<", Dict({{"c", A({})}})}, {"d", D(0.5)}})},
                                {"anon12", A({I(2147483647), I(-2147483647 - 1)})}}),
                          request["/HVMethodParameters"]));

    // Python writes '' as an empty <string>, which reads as no value: it takes no number.
    request = handler.readRequest(pythonWrites({"call", "m", "('a', '', 'b')"}));
    EXPECT_TRUE(sameValue(Dict({{"anon0", S("a")}, {"anon1", S("b")}}), request["/HVMethodParameters"]));

    // Long texts arrive in several pieces from the parser; they are read whole.
    std::string big = bigText();
    request = handler.readRequest(pythonWrites(
        {"call", "big",
         std::string("(") + bigTextExpression + ", Binary(" + bigTextExpression + ".encode()))"}));
    EXPECT_TRUE(
        sameValue(Dict({{"anon0", S(big.c_str())}, {"anon1", Bytes(big)}}), request["/HVMethodParameters"]));
}

TEST(XMLRPCInterop, PythonRepliesReadByOurReader) {
    Handler handler;
    const std::pair<const char *, Value> cases[] = {
        {"42", I(42)},
        {"'x & <y>'", S("x & <y>")},
        {"[1.25, False, {'k': [b'\\x00\\xff']}]",
         A({D(1.25), B(false), Dict({{"k", A({Bytes(std::string("\0\xFF", 2))})}})})},
        {"datetime.datetime(2001, 12, 31, 23, 59, 7)", Date(31535947.0)},
    };
    for (const auto &c : cases)
        EXPECT_TRUE(sameValue(Dict({{"/Result", c.second}}),
                              handler.readReply(pythonWrites({"response", c.first})).get()))
            << c.first;

    EXPECT_TRUE(sameValue(
        Dict({{"/kHVResultIsFault", B(true)}, {"/FaultCode", I(4)}, {"/FaultString", S("Too <many>")}}),
        handler.readReply(pythonWrites({"fault", "4", "Too <many>"})).get()));

    // Python writes None as <nil/>, an element the XML-RPC rules do not have: the reply is refused.
    Value nil = handler.readReply(pythonWrites({"response", "None"}));
    EXPECT_TRUE(HVMethodResultIsFault(nil.dict()));
    EXPECT_TRUE(sameValue(S("Don't know how to deserialize nil"), Value::retain(nil["/FaultExtra"])["msg"]));
}

TEST(XMLRPCInterop, OurDocumentsReadByPython) {
    Handler handler;
    Value params =
        Dict({{"i", I(42)},
              {"big", I64(3000000000LL)},
              {"t", B(true)},
              {"f", B(false)},
              {"d", D(-2.5e-7)},
              {"s", S("a<b&c'\"d> caf\xC3\xA9")},
              {"e", S("")},
              {"data", Bytes(std::string("\0\x01\xFFMan", 6))},
              {"when", Date(31535947.0)},
              {"list", A({I(1), A({}), S("x")})},
              {"rec", Dict({{"/HVRecordParamOrder", A({S("b"), S("a")})}, {"a", I(1)}, {"b", Dict({})}})}});
    Value order = A({S("i"), S("big"), S("t"), S("f"), S("d"), S("s"), S("e"), S("data"), S("when"),
                     S("list"), S("rec"), S("none")});
    // Our dates carry a trailing "Z", which Python's datetime conversion refuses; its DateTime
    // keeps the text. A 64-bit integer goes out as 0 and a missing value as the nil line's 0.
    EXPECT_TRUE(pythonReads(
        handler.request("examples.echo", params, order),
        "((42, 0, True, False, -2.5e-07, 'a<b&c\\'\"d> caf\\u00e9', '', Binary(b'\\x00\\x01\\xffMan'), "
        "DateTime('20011231T23:59:07Z'), [1, [], 'x'], {'b': {}, 'a': 1}, 0), 'examples.echo')"));
    EXPECT_TRUE(pythonReads(handler.request("system.listMethods", Value()), "((), 'system.listMethods')"));

    std::string big = bigText();
    EXPECT_TRUE(pythonReads(handler.reply(A({S(big.c_str()), Bytes(big)})),
                            std::string("(([") + bigTextExpression + ", Binary(" + bigTextExpression +
                                ".encode())],), None)"));
    // Python insists on <params> or <fault>: it refuses the empty reply written for no value.
    EXPECT_TRUE(pythonReads(handler.reply(Value()), "'ResponseError'"));

    // Faults, the extra member included, surface as Python's Fault.
    EXPECT_TRUE(pythonReads(
        handler.fault(
            Dict({{"/FaultCode", I(4)}, {"/FaultString", S("Too <many>")}, {"/FaultExtra", S("detail")}})),
        "Fault(4, 'Too <many>')"));
    EXPECT_TRUE(pythonReads(handler.fault(Dict({})), "Fault(-1, 'Unknown Fault')"));
}

TEST(XMLRPCInterop, CallsToPythonServer) {
    hvtest::PythonPeer server("xmlrpc_server.py", {"--no-nil"});
    ASSERT_TRUE(server.ready()) << server.error();
    Value url = Value::adopt(RtURLCreateWithString(nullptr, S(server.url("/RPC2").c_str()).str(), nullptr));
    auto call = [&](const char *method, const Value &params, const Value &order) {
        HVMethodInvocationRef invocation =
            HVMethodInvocationCreate(static_cast<RtURLRef>(url.get()), S(method).str(), kHVXMLRPCProtocol);
        HVMethodInvocationSetParameters(invocation, params.dict(), order.array());
        Value result = Value::adopt(HVMethodInvocationInvoke(invocation));
        RtRelease(invocation);
        return result;
    };

    Value echoed = Dict({{"i", I(-7)},
                         {"s", S("a<b&c'\"d> caf\xC3\xA9")},
                         {"t", B(true)},
                         {"f", B(false)},
                         {"d", D(0.25)},
                         {"b", Bytes(std::string("\0\xFF", 2))},
                         {"a", A({I(1), A({}), Dict({})})}});
    EXPECT_TRUE(sameValue(echoed, call("echo", Dict({{"x", echoed}}), Value())["/Result"]));
    EXPECT_TRUE(
        sameValue(I(5), call("add", Dict({{"b", I(3)}, {"a", I(2)}}), A({S("a"), S("b")}))["/Result"]));

    Value fault =
        call("fault", Dict({{"code", I(4)}, {"string", S("Too <many>")}}), A({S("code"), S("string")}));
    EXPECT_TRUE(HVMethodResultIsFault(fault.dict()));
    EXPECT_TRUE(sameValue(I(4), fault["/FaultCode"]));
    EXPECT_TRUE(sameValue(S("Too <many>"), fault["/FaultString"]));

    // Python answers an unknown method with a fault of its own.
    Value unknown = call("no.such.method", Dict({}), Value());
    EXPECT_TRUE(HVMethodResultIsFault(unknown.dict())) << describe(unknown.get());

    // Python's server converts dates strictly and refuses the "Z" our dates end in: a server fault.
    Value date = call("echo", Dict({{"x", Date(0)}}), Value());
    EXPECT_TRUE(sameValue(I(1), date["/FaultCode"])) << describe(date.get());

    // This server writes 64-bit integers as <i8>, which the XML-RPC rules do not have.
    Value types = call("types", Dict({}), Value());
    EXPECT_TRUE(sameValue(S("Don't know how to deserialize i8"), Value::retain(types["/FaultExtra"])["msg"]));
}
