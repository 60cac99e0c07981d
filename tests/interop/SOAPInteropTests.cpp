// SOAP against spyne, a widely used Python SOAP 1.1 server (tests/support/spyne_server.py):
// our client calls it over HTTP in each flavour and body style, and what spyne writes (results
// and faults) is read by our reply reader into the expected values.
//
// spyne_server.py runs with xsi:type parsing off, its default here. Our requests are
// SOAP-encoded and type every value ("xsd:int"); spyne, when it parses xsi:type, looks the name
// up among its own classes only and refuses the 2001 schema names with a validation fault (the
// last test shows it). With the attribute ignored, the operations' declared types decide, and
// every flavour talks to it. spyne writes document/literal replies without xsi:type, so the
// values we read back are text, under their element names with spyne's "tns:" prefix.
#include "../HalvosCore/SOAPTestSupport.h"

#include "PythonPeer.h"

#include <vector>

using namespace soaptest;

namespace {

struct Style {
    RtStringRef protocol;
    RtStringRef bodyStyle;
    const char *name;
};

// The library's constants are made at load time: read them once the tests run.
const std::vector<Style> &styles() {
    static const std::vector<Style> sStyles = {{kHVSOAP2001Protocol, kHVSOAPStyleDoc, "SOAP-2001 doc"},
                                               {kHVSOAP2001Protocol, kHVSOAPStyleRPC, "SOAP-2001 rpc"},
                                               {kHVSOAP1999Protocol, kHVSOAPStyleRPC, "SOAP-1999 rpc"}};
    return sStyles;
}

void storeResult(HVMethodInvocationRef, void *info, RtDictionaryRef result) {
    *static_cast<RtDictionaryRef *>(info) = result;
}

// One call of method on the peer, synchronously or on the current run loop.
class Call {
  public:
    Call(const hvtest::PythonPeer &peer, const Style &style, const char *method)
        : fURL(Value::adopt(RtURLCreateWithString(nullptr, S(peer.url("/").c_str()).str(), nullptr))),
          fInvocation(
              HVMethodInvocationCreate(static_cast<RtURLRef>(fURL.get()), S(method).str(), style.protocol)) {
        HVMethodInvocationSetProperty(fInvocation, kHVSOAPMethodNamespaceURI, RTSTR("urn:halvos:test"));
        HVMethodInvocationSetProperty(fInvocation, kHVSOAPBodyEncodingStyle, style.bodyStyle);
        // The SOAP 1.1 HTTP binding asks for a SOAPAction header; spyne reads the Body instead,
        // but sending it is what a client owes any SOAP 1.1 server.
        Value action =
            Value::adopt(RtStringCreateWithFormat(nullptr, nullptr, RTSTR("\"urn:halvos:test#%s\""), method));
        HVMethodInvocationSetProperty(fInvocation, kHVHTTPExtraHeaders, Dict({{"SOAPAction", action}}).get());
    }
    Call(const Call &) = delete;
    Call &operator=(const Call &) = delete;
    ~Call() { RtRelease(fInvocation); }

    Call &with(const Value &params, const Value &order) {
        HVMethodInvocationSetParameters(fInvocation, params.dict(), order.array());
        return *this;
    }
    Call &set(RtStringRef key, RtTypeRef value) {
        HVMethodInvocationSetProperty(fInvocation, key, value);
        return *this;
    }
    Value invoke() { return Value::adopt(HVMethodInvocationInvoke(fInvocation)); }
    Value schedule() {
        RtDictionaryRef result = nullptr;
        HVClientContext context = {0, &result, nullptr, nullptr, nullptr};
        HVMethodInvocationSetCallBack(fInvocation, storeResult, &context);
        RtStringRef mode = RTSTR("SOAPInterop");
        RtRunLoopRef loop = RtRunLoopGetCurrent();
        HVMethodInvocationScheduleWithRunLoop(fInvocation, loop, mode);
        for (int turns = 0; !result && turns < 1000; turns++)
            RtRunLoopRunInMode(mode, 10.0, true);
        HVMethodInvocationUnscheduleFromRunLoop(fInvocation, loop, mode);
        HVMethodInvocationSetCallBack(fInvocation, nullptr, nullptr);
        return Value::adopt(result);
    }

  private:
    Value fURL;
    HVMethodInvocationRef fInvocation;
};

// The result dictionary of a successful call: the parameters under "/Result" and each under its
// own name, beside the transport's debug entries, which are not compared.
::testing::AssertionResult answered(std::initializer_list<std::pair<const char *, Value>> params,
                                    const Value &result) {
    if (HVMethodResultIsFault(result.dict()))
        return ::testing::AssertionFailure() << "a fault: " << describe(result.get());
    Value expected = Dict(params);
    ::testing::AssertionResult same = sameValue(expected, result["/Result"]);
    if (!same) return same;
    for (const auto &param : params)
        if (!RtEqual(param.second.get(), result[param.first]))
            return ::testing::AssertionFailure()
                   << param.first << " missing beside /Result: " << describe(result.get());
    return ::testing::AssertionSuccess();
}

} // namespace

TEST(SOAPInterop, CallsToSpyneInEachFlavourAndStyle) {
    hvtest::PythonPeer peer("spyne_server.py");
    ASSERT_TRUE(peer.ready()) << peer.error();
    for (const Style &style : styles()) {
        SCOPED_TRACE(style.name);
        const char *text = "caf\xC3\xA9 <&> \"quoted\"";
        Value echoed = Call(peer, style, "echo").with(Dict({{"s", S(text)}}), A({S("s")})).invoke();
        EXPECT_TRUE(answered({{"tns:echoResult", S(text)}}, echoed));

        Value sum =
            Call(peer, style, "add").with(Dict({{"a", I(2)}, {"b", I(40)}}), A({S("a"), S("b")})).invoke();
        EXPECT_TRUE(answered({{"tns:addResult", S("42")}}, sum));

        // The same call on the run loop, through the callback.
        sum =
            Call(peer, style, "add").with(Dict({{"a", I(-5)}, {"b", I(5)}}), A({S("a"), S("b")})).schedule();
        EXPECT_TRUE(answered({{"tns:addResult", S("0")}}, sum));

        // With the result parameter named, the value itself is the result.
        Value named = Call(peer, style, "echo")
                          .set(kHVMethodInvocationResultParameterName, RTSTR("tns:echoResult"))
                          .with(Dict({{"s", S("x")}}), A({S("s")}))
                          .invoke();
        EXPECT_TRUE(sameValue(S("x"), named["/Result"]));
    }
}

TEST(SOAPInterop, SpyneRecordsAndFaults) {
    hvtest::PythonPeer peer("spyne_server.py");
    ASSERT_TRUE(peer.ready()) << peer.error();
    const Style &style = styles()[0];

    // An array of records is a run of same-named elements: they gather into one array.
    Value records = Call(peer, style, "records").with(Dict({{"count", I(3)}}), A({S("count")})).invoke();
    auto record = [](int i, const char *score, const char *active, const char *stamp) {
        std::string name = "record " + std::to_string(i) + " <&>";
        return Dict({{"tns:id", S(std::to_string(i).c_str())},
                     {"tns:name", S(name.c_str())},
                     {"tns:score", S(score)},
                     {"tns:active", S(active)},
                     {"tns:stamp", S(stamp)}});
    };
    Value expected = Dict({{"tns:Record", A({record(0, "0.0", "true", "2024-01-02T03:04:05+00:00"),
                                             record(1, "1.5", "false", "2024-01-03T03:04:05+00:00"),
                                             record(2, "3.0", "true", "2024-01-04T03:04:05+00:00")})}});
    EXPECT_TRUE(answered({{"tns:recordsResult", expected}}, records));

    // One record stays a record; none leaves an empty element, which is null.
    Value one = Call(peer, style, "records").with(Dict({{"count", I(1)}}), A({S("count")})).invoke();
    EXPECT_TRUE(answered({{"tns:recordsResult",
                           Dict({{"tns:Record", record(0, "0.0", "true", "2024-01-02T03:04:05+00:00")}})}},
                         one));
    Value none = Call(peer, style, "records").with(Dict({{"count", I(0)}}), A({S("count")})).invoke();
    EXPECT_TRUE(answered({{"tns:recordsResult", Null()}}, none));

    // spyne's faults come with status 500; the code is qualified, so it reads as -1.
    for (const Style &each : styles()) {
        SCOPED_TRACE(each.name);
        Value fault = Call(peer, each, "fail")
                          .with(Dict({{"code", S("Server.Boom")}, {"message", S("it broke & more")}}),
                                A({S("code"), S("message")}))
                          .invoke();
        EXPECT_TRUE(HVMethodResultIsFault(fault.dict())) << describe(fault.get());
        EXPECT_TRUE(sameValue(I(-1), fault["/FaultCode"]));
        EXPECT_TRUE(sameValue(S("it broke & more"), fault["/FaultString"]));
    }

    // A method spyne does not have is a client fault of its own.
    Value unknown = Call(peer, style, "nosuch").with(Dict({}), A({})).invoke();
    EXPECT_TRUE(HVMethodResultIsFault(unknown.dict())) << describe(unknown.get());
    EXPECT_TRUE(sameValue(I(-1), unknown["/FaultCode"]));
}

TEST(SOAPInterop, SpyneParsingXsiTypeRefusesSchemaTypes) {
    // With xsi:type parsing on, spyne resolves "xsd:int" among its own classes, fails, and sends
    // a validation fault: SOAP-2001 requests cannot be read by it then. The 1999 schema names
    // are not taken for types at all, so SOAP-1999 still gets through.
    hvtest::PythonPeer peer("spyne_server.py", {"--parse-xsi-type"});
    ASSERT_TRUE(peer.ready()) << peer.error();
    Value refused =
        Call(peer, styles()[0], "add").with(Dict({{"a", I(1)}, {"b", I(2)}}), A({S("a"), S("b")})).invoke();
    EXPECT_TRUE(HVMethodResultIsFault(refused.dict())) << describe(refused.get());
    EXPECT_TRUE(sameValue(S("The value 'xsd:int' could not be validated."), refused["/FaultString"]));

    Value accepted =
        Call(peer, styles()[2], "add").with(Dict({{"a", I(1)}, {"b", I(2)}}), A({S("a"), S("b")})).invoke();
    EXPECT_TRUE(answered({{"tns:addResult", S("3")}}, accepted));
}
