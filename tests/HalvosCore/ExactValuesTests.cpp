// Exact mode and the XML-RPC extensions: what each kind becomes, what is refused with which
// message, bad input that must fail rather than be clamped, and a round trip of generated
// values through our own writer and reader in both dialects.
#include "ExactValueGenerator.h"
#include "SOAPTestSupport.h"

using namespace exacttest;
using soaptest::envelope;

namespace {

// A handler with the two value properties set as given.
struct ExactHandler : Handler {
    explicit ExactHandler(RtStringRef protocol, bool extensions = false) : Handler(protocol) {
        set(kHVExactValues, kRtBooleanTrue);
        if (extensions) set(kHVValueExtensions, kRtBooleanTrue);
    }
};

// The refusal of a request, through an invocation: the call's fault string.
std::string refusalOf(RtStringRef protocol, const Value &value, bool extensions) {
    Value url = Value::adopt(RtURLCreateWithString(nullptr, RTSTR("http://127.0.0.1:9/"), nullptr));
    HVMethodInvocationRef invocation =
        HVMethodInvocationCreate(static_cast<RtURLRef>(url.get()), RTSTR("m"), protocol);
    HVMethodInvocationSetProperty(invocation, kHVExactValues, kRtBooleanTrue);
    if (extensions) HVMethodInvocationSetProperty(invocation, kHVValueExtensions, kRtBooleanTrue);
    HVMethodInvocationSetParameters(invocation, Dict({{"count", value}}).dict(), A({S("count")}).array());
    Value result = Value::adopt(HVMethodInvocationInvoke(invocation));
    RtRelease(invocation);
    RtTypeRef fault = result["/FaultString"];
    if (RtGetTypeID(fault) != RtStringGetTypeID()) return "(no fault)";
    return text(Value::adopt(RtStringCreateExternalRepresentation(nullptr, static_cast<RtStringRef>(fault),
                                                                  kRtStringEncodingUTF8, '?')));
}

Value withTwoSurrogates() {
    const RtUniChar units[] = {'a', 0xD800, 'b'};
    return Value::adopt(RtStringCreateWithCharacters(nullptr, units, 3));
}

} // namespace

TEST(ExactValues, XMLRPCWritesEachKindExactlyOrRefusesIt) {
    struct Row {
        Value value;
        bool extensions;
        const char *written; // the line inside <value>, or NULL when refused
        const char *refusal;
    };
    const Row rows[] = {
        {I64(3000000000LL), false, nullptr,
         "params[0]: 3000000000 does not fit a 32-bit XML-RPC int; allow extensions to send it as i8"},
        {I64(3000000000LL), true, "<i8>3000000000</i8>", nullptr},
        {I64(-2147483648LL), false, "<i4>-2147483648</i4>", nullptr},
        {D(2.718281828459045), false, "<double>2.718281828459045</double>", nullptr},
        {D(-0.0), false, "<double>-0</double>", nullptr},
        {D(5e-324), false, "<double>5e-324</double>", nullptr},
        {D(NAN), true, nullptr, "params[0]: NaN has no XML-RPC form (its doubles are finite)"},
        {D(-HUGE_VAL), true, nullptr, "params[0]: -infinity has no XML-RPC form (its doubles are finite)"},
        {Value::retain(kRtNull), false, nullptr,
         "params[0]: null has no XML-RPC form; allow extensions to send it as nil"},
        {Value::retain(kRtNull), true, "<nil/>", nullptr},
        {S(""), false, "<string></string>", nullptr},
        {S("a\r\nb"), false, "<string>a&#13;\nb</string>", nullptr},
        {Bytes(std::string(60, '\xFF')), false,
         "<base64>////////////////////////////////////////////////////////////////////////////////</base64>",
         nullptr},
        {S("\x01"), false, nullptr,
         "params[0]: the string holds U+0001 at index 0, which XML 1.0 cannot carry"},
        {withTwoSurrogates(), false, nullptr,
         "params[0]: the string holds a lone surrogate U+D800 at index 1, which is not valid UTF-8"},
        {Dict({{"a<b", A({I(1), I64(1LL << 40)})}}), false, nullptr,
         "params[0].a<b[1]: 1099511627776 does not fit a 32-bit XML-RPC int; allow extensions to send it as "
         "i8"},
    };
    for (const Row &row : rows) {
        ExactHandler handler(kHVXMLRPCProtocol, row.extensions);
        std::string document = handler.request("m", Dict({{"p", row.value}}), A({S("p")}));
        if (row.written) {
            EXPECT_NE(std::string::npos, document.find(std::string(row.written) + "\r\n")) << document;
        } else {
            EXPECT_EQ("(null)", document);
            EXPECT_EQ(row.refusal, refusalOf(kHVXMLRPCProtocol, row.value, row.extensions));
        }
    }
    // Member names are encoded like any text, so a document stays well-formed.
    ExactHandler handler(kHVXMLRPCProtocol);
    EXPECT_NE(
        std::string::npos,
        handler.request("m", Dict({{"p", Dict({{"a<b", I(1)}})}}), A({S("p")})).find("<name>a&lt;b</name>"));
}

TEST(ExactValues, RefusalNamesThePathAndFailsBeforeSending) {
    // Port 9 (discard) is never contacted: the refusal comes first, as the call's fault.
    Value nested = Dict({{"name", A({S("x"), S("y"), I64(1LL << 33)})}});
    EXPECT_EQ(
        "params[0].name[2]: 8589934592 does not fit a 32-bit XML-RPC int; allow extensions to send it as i8",
        refusalOf(kHVXMLRPCProtocol, nested, false));
    EXPECT_EQ("params[0].a b: \"a b\" is not a valid XML element name",
              refusalOf(kHVSOAP2001Protocol, Dict({{"a b", I(1)}}), false));
}

TEST(ExactValues, ServerRepliesThatCannotTravelBecomeFaults) {
    struct Row {
        RtStringRef protocol;
        Value value;
        const char *written;
    };
    const Row rows[] = {
        {kHVXMLRPCProtocol, I64(1LL << 40),
         "<string>result: 1099511627776 does not fit a 32-bit XML-RPC int; allow extensions to send it as "
         "i8</string>"},
        {kHVXMLRPCProtocol, A({D(NAN)}), "<i4>-32603</i4>"},
        {kHVSOAP2001Protocol, Dict({{"a b", I(1)}}),
         "<faultstring>result.a b: &quot;a b&quot; is not a valid XML element name</faultstring>"},
    };
    for (const Row &row : rows) {
        ExactHandler handler(row.protocol);
        std::string document = handler.reply(row.value, Dict({{"/HVMethodName", S("m")}}));
        EXPECT_NE(std::string::npos, document.find(row.written)) << document;
    }
    // A fault string goes out whatever it holds: encoded, with what XML cannot carry replaced.
    ExactHandler soap(kHVSOAP2001Protocol);
    EXPECT_NE(std::string::npos, soap.fault(Dict({{"/FaultString", S("a<b\x01")}}))
                                     .find("<faultstring>a&lt;b\xEF\xBF\xBD</faultstring>"));
}

TEST(ExactValues, SOAPWritesEachKindExactly) {
    struct Row {
        RtStringRef protocol;
        Value value;
        const char *written;
    };
    const Row rows[] = {
        {kHVSOAP2001Protocol, I64(3000000000LL), "<p xsi:type=\"xsd:long\">3000000000</p>"},
        {kHVSOAP2001Protocol, D(2.718281828459045), "<p xsi:type=\"xsd:double\">2.718281828459045</p>"},
        {kHVSOAP2001Protocol, D(NAN), "<p xsi:type=\"xsd:double\">NaN</p>"},
        {kHVSOAP2001Protocol, D(-HUGE_VAL), "<p xsi:type=\"xsd:double\">-INF</p>"},
        {kHVSOAP2001Protocol, Value::retain(kRtNull), "<p xsi:nil=\"true\"/>"},
        {kHVSOAP1999Protocol, Value::retain(kRtNull), "<p xsi:null=\"1\"/>"},
        {kHVSOAP2001Protocol, S("  "), "<p xsi:type=\"xsd:string\">  </p>"},
        {kHVSOAP2001Protocol, S("\n"), "<p xsi:type=\"xsd:string\">&#10;</p>"},
    };
    for (const Row &row : rows) {
        ExactHandler handler(row.protocol);
        std::string document = handler.request("m", Dict({{"p", row.value}}), A({S("p")}));
        EXPECT_NE(std::string::npos, document.find(row.written)) << document;
    }
}

TEST(ExactValues, BadInputIsOneFaultNamingTheElement) {
    struct Row {
        const char *value; // inside <value>
        bool extensions;
        const char *fault;
    };
    const Row rows[] = {
        {"<i4>12abc</i4>", false, "<i4> holds \"12abc\", not a decimal integer within 64 bits"},
        {"<int>-9223372036854775809</int>", false,
         "<int> holds \"-9223372036854775809\", not a decimal integer within 64 bits"},
        {"<i4>0x1F</i4>", false, "<i4> holds \"0x1F\", not a decimal integer within 64 bits"},
        {"<i8>9223372036854775808</i8>", true,
         "<i8> holds \"9223372036854775808\", not a decimal integer within 64 bits"},
        {"<double>1e999</double>", false, "<double> holds \"1e999\", not a finite double"},
        {"<double>nan</double>", false, "<double> holds \"nan\", not a finite double"},
        {"<nil>x</nil>", true, "<nil> holds content; a nil element must be empty"},
        {"<boolean>yes</boolean>", false, "<boolean> holds \"yes\", not a boolean (1 or 0)"},
        {"<dateTime.iso8601>19980717T25:08:55</dateTime.iso8601>", false,
         "<dateTime.iso8601> holds \"19980717T25:08:55\", not an ISO 8601 date and time"},
        {"<base64>TW!u</base64>", false, "<base64> holds \"TW!u\", not base64"},
        // Without extensions the default message stays.
        {"<i8>1</i8>", false, "Don't know how to deserialize i8"},
        {"<ex:nil xmlns:ex=\"urn:other\"/>", true, "Don't know how to deserialize ex:nil"},
    };
    for (const Row &row : rows) {
        ExactHandler handler(kHVXMLRPCProtocol, row.extensions);
        Value reply = handler.readReply(std::string("<methodResponse><params><param><value>") + row.value +
                                        "</value></param></params></methodResponse>");
        EXPECT_TRUE(sameValue(readerFault(row.fault), reply.get())) << row.value;
    }

    struct SOAPRow {
        const char *element;
        const char *fault;
    };
    const SOAPRow soapRows[] = {
        {"<a xsi:type=\"xsd:int\">4 2</a>", "<a> holds \"4 2\", not a decimal integer within 64 bits"},
        {"<a xsi:type=\"xsd:long\">99999999999999999999</a>",
         "<a> holds \"99999999999999999999\", not a decimal integer within 64 bits"},
        {"<a xsi:type=\"xsd:double\">1e999</a>", "<a> holds \"1e999\", not a double"},
        {"<a xsi:nil=\"true\">x</a>", "<a> is nil but holds content"},
        {"<a xsi:type=\"xsd:int\"/>", "<a> declares xsd:int but holds no value"},
    };
    for (const SOAPRow &row : soapRows) {
        ExactHandler handler(kHVSOAP2001Protocol);
        Value reply = handler.readReply(envelope(std::string("<mResponse>") + row.element + "</mResponse>"));
        EXPECT_TRUE(sameValue(readerFault(row.fault), reply.get())) << row.element;
    }
}

TEST(ExactValues, ReadersAcceptExtensionsAndExactForms) {
    struct Row {
        const char *value;
        bool exact;
        Value expected;
    };
    const Row rows[] = {
        {"<i8>-9223372036854775808</i8>", true, I64(INT64_MIN)},
        {"<i8>3000000000</i8>", false, I64(3000000000LL)},
        {"<i4>3000000000</i4>", true, I64(3000000000LL)},
        {"<nil/>", false, Value::retain(kRtNull)},
        {"<ex:i8 xmlns:ex=\"http://ws.apache.org/xmlrpc/namespaces/extensions\">5</ex:i8>", true, I(5)},
        {"<ex:nil xmlns:ex=\"http://ws.apache.org/xmlrpc/namespaces/extensions\"/>", true,
         Value::retain(kRtNull)},
        {"<string></string>", true, S("")},
        {"<string> </string>", true, S(" ")},
        {"", true, S("")},
        {"<double>+1.5E-3</double>", true, D(0.0015)},
        {"<dateTime.iso8601>19980717T14:08:55</dateTime.iso8601>", true, Date(-77622665.0)},
        {"<dateTime.iso8601>1998-07-17T16:08:55.5+02:00</dateTime.iso8601>", true, Date(-77622664.5)},
        {"<dateTime.iso8601>1998-07-17T14:08:55Z</dateTime.iso8601>", true, Date(-77622665.0)},
    };
    for (const Row &row : rows) {
        Handler handler;
        handler.set(kHVValueExtensions, kRtBooleanTrue);
        if (row.exact) handler.set(kHVExactValues, kRtBooleanTrue);
        Value reply = handler.readReply(std::string("<methodResponse><params><param><value>") + row.value +
                                        "</value></param></params></methodResponse>");
        EXPECT_TRUE(travelledExactly(row.expected, reply["/Result"])) << row.value;
    }
    // SOAP: nil and empty typed elements keep what they were.
    ExactHandler soap(kHVSOAP2001Protocol);
    Value reply = soap.readReply(
        envelope("<mResponse><a xsi:nil=\"true\"/><b xsi:type=\"xsd:string\"></b>"
                 "<c xsi:type=\"SOAP-ENC:Dictionary\">\r\n</c><d xsi:type=\"xsd:double\">-INF</d>"
                 "</mResponse>"));
    EXPECT_TRUE(travelledExactly(
        Dict({{"a", Value::retain(kRtNull)}, {"b", S("")}, {"c", Dict({})}, {"d", D(-HUGE_VAL)}}),
        reply["/Result"]));
}

TEST(ExactValues, GeneratedValuesRoundTripThroughOurWriterAndReader) {
    struct Dialect {
        RtStringRef protocol;
        Carriage carriage;
    };
    const Dialect dialects[] = {{kHVXMLRPCProtocol, {true, true, false, false}},
                                {kHVSOAP2001Protocol, {true, true, true, true}},
                                {kHVSOAP1999Protocol, {true, true, true, true}}};
    for (const Dialect &dialect : dialects) {
        ValueGenerator generate(42, dialect.carriage);
        ExactHandler handler(dialect.protocol, true);
        for (int i = 0; i < 400; i++) {
            Value value = generate.any();
            std::string document = handler.request("m", Dict({{"p", value}}), A({S("p")}));
            Value request = handler.readRequest(document);
            Value params = Value::retain(request["/HVMethodParameters"]);
            RtTypeRef received = params.get()
                                     ? (dialect.protocol == kHVXMLRPCProtocol ? params["anon0"] : params["p"])
                                     : nullptr;
            ASSERT_TRUE(travelledExactly(value, received)) << document;
        }
    }
}
