// Helpers of the XML-RPC and SOAP tests (unit and interoperability): values built in one expression, the
// exported handler's documents as text, golden files and reply dictionaries.
#pragma once

#include <HalvosCore/HalvosCore.h>
#include <gtest/gtest.h>

#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>
#include <utility>

namespace xmlrpctest {

// Owns one reference to a runtime value; copies share it.
class Value {
  public:
    Value() = default;
    // Takes over a reference the caller owns (a Create or Copy result).
    static Value adopt(RtTypeRef owned) {
        Value v;
        v.fRef = owned;
        return v;
    }
    static Value retain(RtTypeRef borrowed) { return adopt(borrowed ? RtRetain(borrowed) : nullptr); }
    Value(const Value &other) : fRef(other.fRef ? RtRetain(other.fRef) : nullptr) {}
    Value &operator=(Value other) {
        std::swap(fRef, other.fRef);
        return *this;
    }
    ~Value() {
        if (fRef) RtRelease(fRef);
    }
    RtTypeRef get() const { return fRef; }
    RtStringRef str() const { return static_cast<RtStringRef>(fRef); }
    RtDictionaryRef dict() const { return static_cast<RtDictionaryRef>(fRef); }
    RtArrayRef array() const { return static_cast<RtArrayRef>(fRef); }
    RtDataRef data() const { return static_cast<RtDataRef>(fRef); }
    // The entry under key of a dictionary value, borrowed.
    RtTypeRef operator[](const char *key) const {
        Value k = adopt(RtStringCreateWithCString(nullptr, key, kRtStringEncodingUTF8));
        return RtDictionaryGetValue(dict(), k.get());
    }

  private:
    RtTypeRef fRef = nullptr;
};

inline Value S(const char *text) {
    return Value::adopt(RtStringCreateWithCString(nullptr, text, kRtStringEncodingUTF8));
}
inline Value I(int32_t n) {
    return Value::adopt(RtNumberCreate(nullptr, kRtNumberSInt32Type, &n));
}
inline Value I64(int64_t n) {
    return Value::adopt(RtNumberCreate(nullptr, kRtNumberSInt64Type, &n));
}
inline Value D(double n) {
    return Value::adopt(RtNumberCreate(nullptr, kRtNumberDoubleType, &n));
}
inline Value B(bool b) {
    return Value::retain(b ? kRtBooleanTrue : kRtBooleanFalse);
}
// A date given as seconds since 2001-01-01 00:00:00 GMT.
inline Value Date(double at) {
    return Value::adopt(RtDateCreate(nullptr, at));
}
inline Value Bytes(const std::string &bytes) {
    return Value::adopt(RtDataCreate(nullptr, reinterpret_cast<const uint8_t *>(bytes.data()),
                                     static_cast<RtIndex>(bytes.size())));
}
inline Value A(std::initializer_list<Value> items) {
    RtMutableArrayRef array = RtArrayCreateMutable(nullptr, 0, &kRtTypeArrayCallBacks);
    for (const Value &item : items)
        RtArrayAppendValue(array, item.get());
    return Value::adopt(array);
}
// A dictionary whose keys are inserted in the order given; a member with a null Value is left out.
inline Value Dict(std::initializer_list<std::pair<const char *, Value>> members) {
    RtMutableDictionaryRef dict = RtDictionaryCreateMutable(nullptr, 0, &kRtCopyStringDictionaryKeyCallBacks,
                                                            &kRtTypeDictionaryValueCallBacks);
    for (const auto &member : members)
        if (member.second.get()) RtDictionarySetValue(dict, S(member.first).get(), member.second.get());
    return Value::adopt(dict);
}

inline std::string text(RtDataRef data) {
    return data ? std::string(reinterpret_cast<const char *>(RtDataGetBytePtr(data)),
                              static_cast<size_t>(RtDataGetLength(data)))
                : std::string("(null)");
}
inline std::string text(const Value &data) {
    return text(data.data());
}

inline std::string describe(RtTypeRef value) {
    if (!value) return "(null)";
    Value description = Value::adopt(RtCopyDescription(value));
    Value bytes = Value::adopt(
        RtStringCreateExternalRepresentation(nullptr, description.str(), kRtStringEncodingUTF8, '?'));
    return text(bytes);
}

// Deep equality of two runtime values, with both descriptions on failure.
inline ::testing::AssertionResult sameValue(RtTypeRef expected, RtTypeRef actual) {
    if (RtEqual(expected, actual)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << "expected " << describe(expected) << "\n     got " << describe(actual);
}
inline ::testing::AssertionResult sameValue(const Value &expected, RtTypeRef actual) {
    return sameValue(expected.get(), actual);
}

inline std::string readGolden(const std::string &name, const std::string &directory = "xmlrpc") {
    std::ifstream in(std::string(HV_SOURCE_DIR) + "/tests/data/" + directory + "/" + name, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

// The result dictionary of a reply that the reader refused with message.
inline Value readerFault(const char *message) {
    return Dict({{"/kHVResultIsFault", B(true)},
                 {"/FaultCode", I(-65794)},
                 {"/FaultString", S("/RtStreamFault")},
                 {"/FaultExtra", Dict({{"msg", S(message)}, {"domain", I(-1)}, {"error", I(-65795)}})}});
}

// A protocol handler (XML-RPC unless another protocol is given) for the life of the object.
class Handler {
  public:
    explicit Handler(RtStringRef protocol = kHVXMLRPCProtocol)
        : fRef(HVProtocolHandlerCreate(nullptr, protocol)) {}
    Handler(const Handler &) = delete;
    Handler &operator=(const Handler &) = delete;
    ~Handler() { RtRelease(fRef); }
    HVProtocolHandlerRef get() const { return fRef; }
    void set(RtStringRef key, RtTypeRef value) const { HVProtocolHandlerSetProperty(fRef, key, value); }

    std::string request(const char *method, const Value &params, const Value &order = Value()) const {
        return text(Value::adopt(HVProtocolHandlerCopyRequestDocument(fRef, S(method).str(), params.dict(),
                                                                      order.array(), nullptr)));
    }
    std::string reply(const Value &value, const Value &context = Value()) const {
        return text(Value::adopt(HVProtocolHandlerCopyReplyDocument(fRef, context.dict(), value.get())));
    }
    std::string fault(const Value &faultDict, const Value &context = Value()) const {
        return text(Value::adopt(HVProtocolHandlerCopyFaultDocument(fRef, context.dict(), faultDict.dict())));
    }
    // The result dictionary of a reply document to method.
    Value readReply(const std::string &document, const char *method = "m") const {
        return Value::adopt(
            HVProtocolHandlerCopyReplyDictionary(fRef, S(method).str(), Bytes(document).data()));
    }
    // The request dictionary of a request document, or a null Value.
    Value readRequest(const std::string &document) const {
        return Value::adopt(HVProtocolHandlerCopyRequestDictionary(fRef, Bytes(document).data()));
    }

  private:
    HVProtocolHandlerRef fRef;
};

} // namespace xmlrpctest
