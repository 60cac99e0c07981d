// Exact mode against independent peers: thousands of generated values of every kind sent to
// Python's XML-RPC echo (with nil) and to a spyne SOAP echo, and read back identical, doubles
// bit for bit; our exact documents read by Python's xmlrpc.client.loads into the same Python
// values; and spyne's own typed reading of the doubles and 64-bit integers we write.
#include "../HalvosCore/ExactValueGenerator.h"

#include "PythonPeer.h"

#include <charconv>
#include <cinttypes>
#include <unistd.h>

using namespace exacttest;

namespace {

// One exact call to url (extensions on) with the parameters in order; the result dictionary.
Value exactCall(const std::string &url, const char *method, RtStringRef protocol, const Value &params,
                const Value &order, void (*configure)(HVMethodInvocationRef) = nullptr) {
    Value endpoint = Value::adopt(RtURLCreateWithString(nullptr, S(url.c_str()).str(), nullptr));
    HVMethodInvocationRef invocation =
        HVMethodInvocationCreate(static_cast<RtURLRef>(endpoint.get()), S(method).str(), protocol);
    HVMethodInvocationSetProperty(invocation, kHVExactValues, kRtBooleanTrue);
    HVMethodInvocationSetProperty(invocation, kHVValueExtensions, kRtBooleanTrue);
    if (configure) configure(invocation);
    HVMethodInvocationSetParameters(invocation, params.dict(), order.array());
    Value result = Value::adopt(HVMethodInvocationInvoke(invocation));
    RtRelease(invocation);
    return result;
}

// A Python expression for a value, as xmlrpc.client.loads (without builtin types) gives it.
std::string python(RtTypeRef value) {
    RtTypeID type = RtGetTypeID(value);
    if (value == kRtNull) return "None";
    if (type == RtBooleanGetTypeID()) return value == kRtBooleanTrue ? "True" : "False";
    if (type == RtNumberGetTypeID()) {
        RtNumberRef number = static_cast<RtNumberRef>(value);
        char text[64];
        if (RtNumberIsFloatType(number)) {
            double d = 0;
            RtNumberGetValue(number, kRtNumberFloat64Type, &d);
            snprintf(text, sizeof text, "float.fromhex('%a')", d);
        } else {
            int64_t n = 0;
            RtNumberGetValue(number, kRtNumberSInt64Type, &n);
            snprintf(text, sizeof text, "%" PRId64, n);
        }
        return text;
    }
    if (type == RtStringGetTypeID()) {
        RtStringRef string = static_cast<RtStringRef>(value);
        std::string out = "'";
        RtIndex length = RtStringGetLength(string);
        for (RtIndex i = 0; i < length; i++) {
            uint32_t c = RtStringGetCharacterAtIndex(string, i);
            if (c >= 0xD800 && c < 0xDC00 && i + 1 < length)
                c = 0x10000 + ((c - 0xD800) << 10) + (RtStringGetCharacterAtIndex(string, ++i) - 0xDC00u);
            char escape[16];
            if (c >= 0x20 && c < 0x7F && c != '\\' && c != '\'')
                out += static_cast<char>(c);
            else {
                snprintf(escape, sizeof escape, "\\U%08x", c);
                out += escape;
            }
        }
        return out + "'";
    }
    if (type == RtDateGetTypeID()) {
        char text[64];
        hvRtDateToISO8601String(text, sizeof text, static_cast<RtDateRef>(value), true);
        return std::string("DateTime('") + text + "')";
    }
    if (type == RtDataGetTypeID()) {
        RtDataRef data = static_cast<RtDataRef>(value);
        std::string out = "Binary(bytes([";
        for (RtIndex i = 0; i < RtDataGetLength(data); i++)
            out += std::to_string(RtDataGetBytePtr(data)[i]) + ",";
        return out + "]))";
    }
    if (type == RtArrayGetTypeID()) {
        std::string out = "[";
        RtArrayRef array = static_cast<RtArrayRef>(value);
        for (RtIndex i = 0; i < RtArrayGetCount(array); i++)
            out += python(RtArrayGetValueAtIndex(array, i)) + ",";
        return out + "]";
    }
    RtDictionaryRef dict = static_cast<RtDictionaryRef>(value);
    RtIndex count = RtDictionaryGetCount(dict);
    std::vector<const void *> keys(static_cast<size_t>(count)), values(static_cast<size_t>(count));
    RtDictionaryGetKeysAndValues(dict, keys.data(), values.data());
    std::string out = "{";
    for (size_t i = 0; i < keys.size(); i++)
        out += python(keys[i]) + ":" + python(values[i]) + ",";
    return out + "}";
}

// An array of count generated values (one call carries many).
Value batch(ValueGenerator &generate, int count) {
    RtMutableArrayRef array = RtArrayCreateMutable(nullptr, 0, &kRtTypeArrayCallBacks);
    for (int i = 0; i < count; i++)
        RtArrayAppendValue(array, generate.any().get());
    return Value::adopt(array);
}

} // namespace

TEST(ExactInterop, GeneratedValuesComeBackFromPythonsEchoIdentical) {
    // Python writes text raw, so a carriage return would come back a line feed from any reader:
    // the generator leaves those out here (our own documents carry them, see the loads test).
    hvtest::PythonPeer peer("xmlrpc_server.py", {"--wire-types"});
    ASSERT_TRUE(peer.ready()) << peer.error();
    ValueGenerator generate(2025, {true, true, false, false, true});
    for (int call = 0; call < 150; call++) {
        Value sent = batch(generate, 20);
        Value result =
            exactCall(peer.url("/RPC2"), "echo", kHVXMLRPCProtocol, Dict({{"v", sent}}), A({S("v")}));
        ASSERT_FALSE(HVMethodResultIsFault(result.dict())) << describe(result.get());
        ASSERT_TRUE(travelledExactly(sent, result["/Result"]));
    }
}

TEST(ExactInterop, PythonsLoadsReadsOurDocumentsIntoTheSameValues) {
    ValueGenerator generate(7, {true, true, false, false, false});
    Handler handler;
    handler.set(kHVExactValues, kRtBooleanTrue);
    handler.set(kHVValueExtensions, kRtBooleanTrue);
    for (int round = 0; round < 5; round++) {
        Value values = batch(generate, 300);
        std::string expected = "((";
        RtMutableDictionaryRef params = RtDictionaryCreateMutable(
            nullptr, 0, &kRtCopyStringDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
        RtMutableArrayRef order = RtArrayCreateMutable(nullptr, 0, &kRtTypeArrayCallBacks);
        for (RtIndex i = 0; i < RtArrayGetCount(values.array()); i++) {
            Value name = S(("p" + std::to_string(i)).c_str());
            RtDictionarySetValue(params, name.get(), RtArrayGetValueAtIndex(values.array(), i));
            RtArrayAppendValue(order, name.get());
            expected += python(RtArrayGetValueAtIndex(values.array(), i)) + ",";
        }
        expected += "), 'm')";
        std::string document = handler.request("m", Value::adopt(params), Value::adopt(order));

        char path[] = "/tmp/hv-exact-XXXXXX";
        int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, document.data(), document.size()), static_cast<ssize_t>(document.size()));
        close(fd);
        hvtest::Finished read = hvtest::run({hvtest::PythonPeer::interpreter(),
                                             std::string(HV_SOURCE_DIR) + "/tests/interop/xmlrpc_codec.py",
                                             "check", path, expected});
        unlink(path);
        EXPECT_EQ(0, read.status) << read.out << read.err;
    }
}

TEST(ExactInterop, GeneratedValuesComeBackFromSpyneIdentical) {
    // spyne hands the value element back as it parsed it (AnyXml), rewritten by its own XML
    // writer, which writes line feeds raw: the generator keeps white space apart from them.
    hvtest::PythonPeer peer("spyne_server.py");
    ASSERT_TRUE(peer.ready()) << peer.error();
    for (RtStringRef protocol : {kHVSOAP2001Protocol, kHVSOAP1999Protocol}) {
        ValueGenerator generate(protocol == kHVSOAP2001Protocol ? 11 : 12, {true, true, true, true, true});
        for (int call = 0; call < 100; call++) {
            Value sent = batch(generate, 10);
            // rpc style leaves the parameter's elements unqualified, so spyne writes them back
            // without its namespace prefix. The value is the first child of the parameter.
            Value result = exactCall(
                peer.url("/"), "echoAny", protocol, Dict({{"v", A({sent})}}), A({S("v")}),
                [](HVMethodInvocationRef invocation) {
                    HVMethodInvocationSetProperty(invocation, kHVSOAPMethodNamespaceURI,
                                                  RTSTR("urn:halvos:test"));
                    HVMethodInvocationSetProperty(invocation, kHVSOAPBodyEncodingStyle, kHVSOAPStyleRPC);
                    HVMethodInvocationSetProperty(invocation, kHVMethodInvocationResultParameterName,
                                                  RTSTR("tns:echoAnyResult"));
                });
            ASSERT_FALSE(HVMethodResultIsFault(result.dict())) << describe(result.get());
            Value item = Value::retain(result["/Result"]);
            ASSERT_TRUE(travelledExactly(
                sent, RtGetTypeID(item.get()) == RtDictionaryGetTypeID() ? item["item_0"] : nullptr));
        }
    }
}

TEST(ExactInterop, SpyneReadsOurDoublesAndLongsExactly) {
    // spyne's own Double and Long types parse what we write; it answers with their text.
    hvtest::PythonPeer peer("spyne_server.py");
    ASSERT_TRUE(peer.ready()) << peer.error();
    ValueGenerator generate(3, {true, true, true, true, false});
    auto configure = [](HVMethodInvocationRef invocation) {
        HVMethodInvocationSetProperty(invocation, kHVSOAPMethodNamespaceURI, RTSTR("urn:halvos:test"));
    };
    for (int i = 0; i < 300; i++) {
        Value d = generate.real();
        Value result = exactCall(peer.url("/"), "echoDouble", kHVSOAP2001Protocol, Dict({{"d", d}}),
                                 A({S("d")}), configure);
        RtTypeRef text = result["tns:echoDoubleResult"];
        ASSERT_EQ(RtGetTypeID(text), RtStringGetTypeID()) << describe(result.get());
        // spyne writes Python's repr: "inf", "-inf" and "nan" for the specials.
        double back = strtod(describe(text).substr(1, describe(text).size() - 2).c_str(), nullptr);
        EXPECT_TRUE(travelledExactly(d, D(back).get())) << describe(text);

        Value n = I64(static_cast<int64_t>(i) * 30749980468727LL * (i % 2 ? -1 : 1));
        result = exactCall(peer.url("/"), "echoLong", kHVSOAP2001Protocol, Dict({{"n", n}}), A({S("n")}),
                           configure);
        char expected[32];
        int64_t value = 0;
        RtNumberGetValue(static_cast<RtNumberRef>(n.get()), kRtNumberSInt64Type, &value);
        snprintf(expected, sizeof expected, "%" PRId64, value);
        EXPECT_TRUE(sameValue(S(expected), result["tns:echoLongResult"]));
    }
}
