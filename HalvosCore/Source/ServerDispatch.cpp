// What the server does with a request body: pick the protocol, read the request through the
// protocol handler, run the method (a registered one or one of system.*), and write the reply
// or fault document through the same handler. Also the registry and the properties.
// Runs on the method threads, several at once: everything here works on its own values; the
// registry and the properties are read-only once the server runs.
#include "HalvoUtils.h"
#include "Server.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <mutex>

namespace hvserver {

namespace {

const char kSchema1999[] = "http://www.w3.org/1999/XMLSchema";
const char kSchema2001[] = "http://www.w3.org/2001/XMLSchema";
const int kMaxReplyDepth = 256; // deeper replies (or cyclic ones) are refused, not written

std::string utf8(RtStringRef string) {
    if (!string || RtGetTypeID(string) != RtStringGetTypeID()) return {};
    if (const char *direct = RtStringGetCStringPtr(string, kRtStringEncodingUTF8)) return direct;
    RtIndex size = RtStringGetMaximumSizeForEncoding(RtStringGetLength(string), kRtStringEncodingUTF8) + 1;
    std::string buffer(size_t(size), '\0');
    if (!RtStringGetCString(string, buffer.data(), size, kRtStringEncodingUTF8)) return {};
    buffer.resize(strlen(buffer.c_str()));
    return buffer;
}

RtStringRef createString(const std::string &text) {
    return RtStringCreateWithBytes(nullptr, reinterpret_cast<const uint8_t *>(text.data()),
                                   RtIndex(text.size()), kRtStringEncodingUTF8, false);
}

RtNumberRef createInt32(int32_t value) {
    return RtNumberCreate(nullptr, kRtNumberSInt32Type, &value);
}

RtMutableDictionaryRef createDictionary() {
    return RtDictionaryCreateMutable(nullptr, 0, &kRtTypeDictionaryKeyCallBacks,
                                     &kRtTypeDictionaryValueCallBacks);
}

RtMutableArrayRef createArray() {
    return RtArrayCreateMutable(nullptr, 0, &kRtTypeArrayCallBacks);
}

// Stores value under key and drops the local reference to value.
void put(RtMutableDictionaryRef dictionary, RtStringRef key, RtTypeRef value) {
    RtDictionarySetValue(dictionary, key, value);
    RtRelease(value);
}

RtDictionaryRef createFault(int32_t code, const std::string &text) {
    RtMutableDictionaryRef fault = createDictionary();
    put(fault, kHVFaultCode, createInt32(code));
    put(fault, kHVFaultString, createString(text));
    return fault;
}

Outcome faultOutcome(int32_t code, const std::string &text) {
    return Outcome{nullptr, createFault(code, text)};
}

// ---- Protocol choice -----------------------------------------------------------------------

// The schema flavour declared on an element: an xmlns attribute naming either XML Schema
// namespace (or its instance namespace, which extends it). 0 when none does.
int declaredSchemaYear(RtTreeRef element) {
    const RtXMLElementInfo *info = treeGetElementInfo(element);
    if (!info || !info->attributeOrder) return 0;
    for (RtIndex i = 0, n = RtArrayGetCount(info->attributeOrder); i < n; i++) {
        auto name = static_cast<RtStringRef>(RtArrayGetValueAtIndex(info->attributeOrder, i));
        if (utf8(name).compare(0, 5, "xmlns") != 0) continue;
        std::string uri = utf8(static_cast<RtStringRef>(RtDictionaryGetValue(info->attributes, name)));
        if (uri.compare(0, sizeof kSchema1999 - 1, kSchema1999) == 0) return 1999;
        if (uri.compare(0, sizeof kSchema2001 - 1, kSchema2001) == 0) return 2001;
    }
    return 0;
}

// Looks on the envelope, its Header and Body, and the elements right inside those (the method
// element), where senders declare it.
int findSchemaYear(RtTreeRef tree, int depth) {
    for (RtTreeRef child = RtTreeGetFirstChild(tree); child; child = RtTreeGetNextSibling(child)) {
        if (RtXMLNodeGetTypeCode(RtXMLTreeGetNode(child)) != kRtXMLNodeTypeElement) continue;
        if (int year = declaredSchemaYear(child)) return year;
        if (depth < 3)
            if (int year = findSchemaYear(child, depth + 1)) return year;
    }
    return 0;
}

// SOAP-1999 when the request declares the 1999 XML Schema namespace, else SOAP-2001. Only a
// body that holds the 1999 namespace's text at all is parsed to see where it is declared.
RtStringRef soapFlavour(const std::string &body, RtDataRef data) {
    if (!memmem(body.data(), body.size(), kSchema1999, sizeof kSchema1999 - 1)) return kHVSOAP2001Protocol;
    RtTreeRef tree = RtXMLTreeCreateFromDataWithError(
        nullptr, data, nullptr, kRtXMLParserSkipWhitespace | kRtXMLParserSkipMetaData, 0, nullptr);
    int year = tree ? findSchemaYear(tree, 1) : 0;
    RtRelease(tree);
    return year == 1999 ? kHVSOAP1999Protocol : kHVSOAP2001Protocol;
}

// True when the document's root element is a SOAP Envelope (any prefix): on a path that serves
// both protocols everything else is read as XML-RPC.
// The first type element inside an XML-RPC <value> that no reader here knows, named with the
// property that accepts the extension elements; "" when there is none.
std::string unreadableValueElement(RtDataRef body, bool extensions) {
    static const char *const known[] = {"string",           "int",    "i4",    "boolean", "double",
                                        "dateTime.iso8601", "base64", "array", "struct"};
    RtTreeRef tree = RtXMLTreeCreateFromDataWithError(
        nullptr, body, nullptr, kRtXMLParserSkipWhitespace | kRtXMLParserSkipMetaData, 0, nullptr);
    std::string found;
    std::vector<RtTreeRef> pending;
    if (tree) pending.push_back(tree);
    while (!pending.empty() && found.empty()) {
        RtTreeRef node = pending.back();
        pending.pop_back();
        bool inValue = utf8(RtXMLNodeGetString(RtXMLTreeGetNode(node))) == "value";
        for (RtTreeRef child = RtTreeGetFirstChild(node); child && found.empty();
             child = RtTreeGetNextSibling(child)) {
            if (RtXMLNodeGetTypeCode(RtXMLTreeGetNode(child)) != kRtXMLNodeTypeElement) continue;
            pending.push_back(child);
            if (!inValue) continue;
            std::string type = utf8(RtXMLNodeGetString(RtXMLTreeGetNode(child)));
            size_t colon = type.find(':');
            std::string local = colon == std::string::npos ? type : type.substr(colon + 1);
            bool readable = extensions && (local == "i8" || local == "nil");
            for (const char *k : known)
                readable = readable || type == k;
            if (!readable)
                found =
                    "the request holds <" + type +
                    ">, which this server cannot read; kHVValueExtensions accepts i8, nil, ex:i8 and ex:nil "
                    "(ex bound to http://ws.apache.org/xmlrpc/namespaces/extensions)";
        }
    }
    safeRtRelease(tree);
    return found;
}

bool rootIsEnvelope(const std::string &body) {
    size_t i = body.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
    while (i < body.size()) {
        i = body.find('<', i);
        if (i == std::string::npos || i + 1 >= body.size()) return false;
        char next = body[i + 1];
        if (next == '?') {
            i = body.find("?>", i);
        } else if (body.compare(i, 4, "<!--") == 0) {
            i = body.find("-->", i);
        } else if (next == '!') {
            i = body.find('>', i);
        } else {
            size_t end = body.find_first_of(" \t\r\n/>", i + 1);
            std::string name = body.substr(i + 1, end == std::string::npos ? std::string::npos : end - i - 1);
            size_t colon = name.rfind(':');
            return (colon == std::string::npos ? name : name.substr(colon + 1)) == "Envelope";
        }
        if (i == std::string::npos) return false;
        i++;
    }
    return false;
}

// ---- Kinds and signatures ------------------------------------------------------------------

enum class Kind { eInt, eI8, eDouble, eBoolean, eString, eDate, eData, eArray, eStruct, eNil, eAny };

//                 type name            kind
const struct {
    const char *fName;
    Kind fKind;
} kKinds[] = {
    {"int", Kind::eInt},
    {"i4", Kind::eInt},
    {"i8", Kind::eI8},
    {"double", Kind::eDouble},
    {"boolean", Kind::eBoolean},
    {"string", Kind::eString},
    {"dateTime.iso8601", Kind::eDate},
    {"base64", Kind::eData},
    {"array", Kind::eArray},
    {"struct", Kind::eStruct},
    {"nil", Kind::eNil},
    {"value", Kind::eAny},
};

bool kindNamed(const std::string &name, Kind &kind) {
    for (const auto &row : kKinds)
        if (name == row.fName) {
            kind = row.fKind;
            return true;
        }
    return false;
}

bool isInteger(RtTypeRef value, int64_t &integer) {
    if (RtGetTypeID(value) != RtNumberGetTypeID() || RtNumberIsFloatType(static_cast<RtNumberRef>(value)))
        return false;
    return RtNumberGetValue(static_cast<RtNumberRef>(value), kRtNumberSInt64Type, &integer);
}

bool fits(RtTypeRef value, Kind kind) {
    RtTypeID type = RtGetTypeID(value);
    int64_t integer = 0;
    switch (kind) {
    case Kind::eInt:
        return isInteger(value, integer) && integer >= INT32_MIN && integer <= INT32_MAX;
    case Kind::eI8:
        return isInteger(value, integer);
    case Kind::eDouble:
        return type == RtNumberGetTypeID();
    case Kind::eBoolean:
        return type == RtBooleanGetTypeID();
    case Kind::eString:
        return type == RtStringGetTypeID();
    case Kind::eDate:
        return type == RtDateGetTypeID();
    case Kind::eData:
        return type == RtDataGetTypeID();
    case Kind::eArray:
        return type == RtArrayGetTypeID();
    case Kind::eStruct:
        return type == RtDictionaryGetTypeID();
    case Kind::eNil:
        return type == RtNullGetTypeID();
    case Kind::eAny:
        return value != nullptr;
    }
    return false;
}

// The type name of a received value, for fault messages.
const char *kindOf(RtTypeRef value) {
    switch (HVGetHVTypeIDFromRtType(value)) {
    case eHVNullType:
        return "nil";
    case eHVBooleanType:
        return "boolean";
    case eHVIntegerType:
        return "int";
    case eHVDoubleType:
        return "double";
    case eHVStringType:
        return "string";
    case eHVDateType:
        return "dateTime.iso8601";
    case eHVDataType:
        return "base64";
    case eHVArrayType:
        return "array";
    case eHVDictionaryType:
        return "struct";
    default:
        return "unknown";
    }
}

std::string trimmed(const std::string &text) {
    size_t begin = text.find_first_not_of(" \t\r\n"), end = text.find_last_not_of(" \t\r\n");
    return begin == std::string::npos ? std::string() : text.substr(begin, end - begin + 1);
}

// The value of kind that text stands for, as SOAP senders that write no xsi:type send it;
// NULL when the text is no such value.
RtTypeRef createFromText(RtStringRef string, Kind kind) {
    std::string text = trimmed(utf8(string));
    const char *first = text.data(), *last = text.data() + text.size();
    switch (kind) {
    case Kind::eInt:
    case Kind::eI8: {
        int64_t integer = 0;
        auto [end, error] = std::from_chars(first + (text.size() > 1 && *first == '+'), last, integer);
        if (text.empty() || error != std::errc() || end != last) return nullptr;
        if (kind == Kind::eInt && (integer < INT32_MIN || integer > INT32_MAX)) return nullptr;
        if (kind == Kind::eInt) return createInt32(int32_t(integer));
        return RtNumberCreate(nullptr, kRtNumberSInt64Type, &integer);
    }
    case Kind::eDouble: {
        double real = 0;
        auto [end, error] = std::from_chars(first + (text.size() > 1 && *first == '+'), last, real);
        if (text.empty() || error != std::errc() || end != last) return nullptr;
        return RtNumberCreate(nullptr, kRtNumberFloat64Type, &real);
    }
    case Kind::eBoolean:
        if (text == "true" || text == "1") return kRtBooleanTrue;
        if (text == "false" || text == "0") return kRtBooleanFalse;
        return nullptr;
    case Kind::eDate:
        if (text.size() < 8 || !isdigit(static_cast<unsigned char>(text[0]))) return nullptr;
        return hvCreateDateFromISO8601(text.data(), RtIndex(text.size()));
    case Kind::eData:
        return decodeBinaryData(string);
    default:
        return nullptr;
    }
}

// True when value is something the protocol writes faithfully: the runtime kinds the writers
// know, dictionaries keyed by strings, integers within 32 bits, no null in XML-RPC, and not
// nested past kMaxReplyDepth (which also stops a collection that holds itself). With exact,
// integers and null are left to the exact writer, which writes them (i8, nil, xsd:long, xsi:nil)
// or turns the reply into a fault naming the value.
bool writable(RtTypeRef value, RtStringRef protocol, int depth, bool exact) {
    if (!value || depth > kMaxReplyDepth) return false;
    RtTypeID type = RtGetTypeID(value);
    if (type == RtStringGetTypeID() || type == RtBooleanGetTypeID() || type == RtDateGetTypeID() ||
        type == RtDataGetTypeID())
        return true;
    if (type == RtNumberGetTypeID()) {
        int64_t integer = 0;
        return exact || !isInteger(value, integer) || (integer >= INT32_MIN && integer <= INT32_MAX);
    }
    if (type == RtNullGetTypeID()) return exact || protocol != kHVXMLRPCProtocol;
    if (type == RtArrayGetTypeID()) {
        auto array = static_cast<RtArrayRef>(value);
        for (RtIndex i = 0, n = RtArrayGetCount(array); i < n; i++)
            if (!writable(RtArrayGetValueAtIndex(array, i), protocol, depth + 1, exact)) return false;
        return true;
    }
    if (type == RtDictionaryGetTypeID()) {
        auto dictionary = static_cast<RtDictionaryRef>(value);
        RtIndex n = RtDictionaryGetCount(dictionary);
        std::vector<const void *> keys(static_cast<size_t>(n)), values(static_cast<size_t>(n));
        RtDictionaryGetKeysAndValues(dictionary, keys.data(), values.data());
        for (RtIndex i = 0; i < n; i++)
            if (RtGetTypeID(keys[size_t(i)]) != RtStringGetTypeID() ||
                !writable(values[size_t(i)], protocol, depth + 1, exact))
                return false;
        return true;
    }
    return false;
}

// A fault dictionary rebuilt from what a method handed back: a code that is no 32-bit number
// becomes the internal-error code, a missing string "internal error".
RtDictionaryRef normalisedFault(RtDictionaryRef given, RtStringRef protocol) {
    int32_t code = eFaultInternal;
    std::string text = "internal error";
    RtTypeRef extra = nullptr;
    if (RtGetTypeID(given) == RtDictionaryGetTypeID()) {
        auto number = RtDictionaryGetValue(given, kHVFaultCode);
        int32_t c = 0;
        if (RtGetTypeID(number) == RtNumberGetTypeID() &&
            RtNumberGetValue(static_cast<RtNumberRef>(number), kRtNumberSInt32Type, &c))
            code = c;
        auto string = RtDictionaryGetValue(given, kHVFaultString);
        if (RtGetTypeID(string) == RtStringGetTypeID()) text = utf8(static_cast<RtStringRef>(string));
        extra = RtDictionaryGetValue(given, kHVFaultExtra);
        if (extra && !writable(extra, protocol, 0, false)) extra = nullptr;
    }
    RtDictionaryRef fault = createFault(code, text);
    if (extra) RtDictionarySetValue(const_cast<RtMutableDictionaryRef>(fault), kHVFaultExtra, extra);
    return fault;
}

std::string countText(size_t count) {
    return std::to_string(count) + (count == 1 ? " parameter" : " parameters");
}

// The parameters of a call in order (borrowed).
std::vector<RtTypeRef> orderedValues(RtDictionaryRef params, RtArrayRef order) {
    std::vector<RtTypeRef> values;
    if (!params || !order) return values;
    for (RtIndex i = 0, n = RtArrayGetCount(order); i < n; i++)
        values.push_back(RtDictionaryGetValue(params, RtArrayGetValueAtIndex(order, i)));
    return values;
}

// ---- system.* ------------------------------------------------------------------------------

//                       name                       signature (result, parameters)  help
const struct {
    const char *fName;
    std::vector<const char *> fSignature;
    const char *fHelp;
} kSystemMethods[] = {
    {"system.listMethods", {"array"}, "Returns the names of the methods the server answers."},
    {"system.methodHelp", {"string", "string"}, "Returns the help text of the method named."},
    {"system.methodSignature",
     {"array", "string"},
     "Returns the signatures of the method named: arrays of type names, the result type first."},
    {"system.multicall",
     {"array", "array"},
     "Runs several calls, each a struct with methodName and params; returns an array holding, for "
     "each call, an array of its result or a struct with its faultCode and faultString."},
};

} // namespace

Method::~Method() {
    if (fContext.release && fContext.info) fContext.release(fContext.info);
    RtRelease(fHelp);
    RtRelease(fSignature);
}

// ---- Registry and properties ---------------------------------------------------------------

bool Server::addMethod(RtStringRef name, HVServerMethodProcPtr proc, const HVClientContext *context,
                       RtStringRef help, RtArrayRef signature) {
    if (!proc || RtGetTypeID(name) != RtStringGetTypeID()) return false;
    if (help && RtGetTypeID(help) != RtStringGetTypeID()) return false;
    std::string key = utf8(name);
    if (key.empty() || key.compare(0, 7, "system.") == 0 || fMethods.count(key)) return false;
    std::vector<std::vector<std::string>> types;
    if (signature) {
        if (RtGetTypeID(signature) != RtArrayGetTypeID() || RtArrayGetCount(signature) == 0) return false;
        for (RtIndex i = 0, n = RtArrayGetCount(signature); i < n; i++) {
            auto entry = static_cast<RtArrayRef>(RtArrayGetValueAtIndex(signature, i));
            if (RtGetTypeID(entry) != RtArrayGetTypeID() || RtArrayGetCount(entry) == 0) return false;
            std::vector<std::string> names;
            for (RtIndex j = 0, m = RtArrayGetCount(entry); j < m; j++) {
                std::string typeName = utf8(static_cast<RtStringRef>(RtArrayGetValueAtIndex(entry, j)));
                Kind kind;
                if (!kindNamed(typeName, kind)) return false;
                names.push_back(typeName);
            }
            types.push_back(std::move(names));
        }
    }
    {
        std::lock_guard<std::mutex> guard(fStopLock);
        if (fState != State::eIdle) return false;
    }
    Method &method = fMethods[key];
    method.fProc = proc;
    if (context) {
        method.fContext = *context;
        if (context->retain && context->info)
            method.fContext.info = const_cast<void *>(context->retain(context->info));
    }
    method.fHelp = help ? static_cast<RtStringRef>(RtRetain(help)) : nullptr;
    method.fSignature = signature ? static_cast<RtArrayRef>(RtRetain(signature)) : nullptr;
    method.fTypes = std::move(types);
    return true;
}

bool Server::setAuthentication(HVServerAuthenticationProcPtr proc, const HVClientContext *context) {
    {
        std::lock_guard<std::mutex> guard(fStopLock);
        if (fState != State::eIdle) return false;
    }
    if (fAuthContext.release && fAuthContext.info) fAuthContext.release(fAuthContext.info);
    fAuthContext = HVClientContext{};
    fAuthProc = proc;
    if (proc && context) {
        fAuthContext = *context;
        if (context->retain && context->info)
            fAuthContext.info = const_cast<void *>(context->retain(context->info));
    }
    return true;
}

namespace {

bool numberIn(RtTypeRef value, uint64_t low, uint64_t high, uint64_t &out) {
    int64_t n = 0;
    if (!isInteger(value, n) || n < 0 || uint64_t(n) < low || uint64_t(n) > high) return false;
    out = uint64_t(n);
    return true;
}

bool textOf(RtTypeRef value, std::string &out) {
    if (RtGetTypeID(value) == RtStringGetTypeID()) {
        out = utf8(static_cast<RtStringRef>(value));
        return true;
    }
    if (RtGetTypeID(value) == RtDataGetTypeID()) {
        auto data = static_cast<RtDataRef>(value);
        out.assign(reinterpret_cast<const char *>(RtDataGetBytePtr(data)), size_t(RtDataGetLength(data)));
        return true;
    }
    return false;
}

} // namespace

bool Server::setProperty(RtStringRef key, RtTypeRef value) {
    {
        std::lock_guard<std::mutex> guard(fStopLock);
        if (fState != State::eIdle) return false;
    }
    Options defaults;
    Options &o = fOptions;
    uint64_t n = 0;
    std::string text;
    auto path = [&](std::string &field, const std::string &fallback) {
        if (!value) return field = fallback, true;
        if (!textOf(value, text) || text.empty() || text[0] != '/') return false;
        field = text;
        return true;
    };
    auto count = [&](auto &field, uint64_t low, uint64_t high, uint64_t fallback) {
        if (!value) return field = decltype(+field)(fallback), true;
        if (!numberIn(value, low, high, n)) return false;
        field = decltype(+field)(n);
        return true;
    };
    auto pem = [&](std::string &field) {
        if (!value) return field.clear(), true;
        return textOf(value, field);
    };
    if (key == kHVServerXMLRPCPath) return path(o.fXMLRPCPath, defaults.fXMLRPCPath);
    if (key == kHVServerSOAPPath) return path(o.fSOAPPath, defaults.fSOAPPath);
    if (key == kHVServerThreads) return count(o.fThreads, 1, 1024, defaults.fThreads);
    if (key == kHVServerMaxQueued) return count(o.fMaxQueued, 0, 1u << 20, defaults.fMaxQueued);
    if (key == kHVServerMaxBodyBytes) return count(o.fMaxBody, 1, 1ull << 32, defaults.fMaxBody);
    if (key == kHVServerMaxConnections)
        return count(o.fMaxConnections, 1, 1u << 20, defaults.fMaxConnections);
    if (key == kHVServerMaxConnectionsPerAddress)
        return count(o.fMaxPerAddress, 1, 1u << 20, defaults.fMaxPerAddress);
    if (key == kHVServerMaxHeadBytes) return count(o.fMaxHead, 1024, 1u << 20, defaults.fMaxHead);
    if (key == kHVServerIdleTimeout) return count(o.fIdleTimeout, 1, 86400, defaults.fIdleTimeout);
    if (key == kHVServerRequestTimeout) return count(o.fRequestTimeout, 1, 86400, defaults.fRequestTimeout);
    if (key == kHVServerTLSCertificate) return pem(o.fCertificate);
    if (key == kHVServerTLSKey) return pem(o.fKey);
    auto flag = [&](bool &field) {
        if (value && RtGetTypeID(value) != RtBooleanGetTypeID()) return false;
        field = value == kRtBooleanTrue;
        return true;
    };
    if (key == kHVServerLogRequests) return flag(o.fLog);
    if (key == kHVServerIndexText) {
        if (value && !textOf(value, text)) return false;
        o.fHasIndex = value != nullptr;
        o.fIndexText = value ? text : std::string();
        return true;
    }
    if (key == kHVExactValues || key == kHVValueExtensions) {
        if (value && RtGetTypeID(value) != RtBooleanGetTypeID()) return false;
        (key == kHVExactValues ? o.fExact : o.fExtensions) = !value || value == kRtBooleanTrue;
        return true;
    }
    if (key == kHVServerAuthRealm) {
        if (!value) return o.fRealm = defaults.fRealm, true;
        if (!textOf(value, text) || text.find_first_of("\"\\\r\n") != std::string::npos) return false;
        o.fRealm = text;
        return true;
    }
    return false;
}

// ---- Serving ---------------------------------------------------------------------------------

ServedReply Server::serve(Dialect dialect, const std::string &body) {
    ServedReply reply;
    RtDataRef data =
        RtDataCreate(nullptr, reinterpret_cast<const uint8_t *>(body.data()), RtIndex(body.size()));
    bool xmlrpc = dialect == Dialect::eXMLRPC || (dialect == Dialect::eEither && !rootIsEnvelope(body));
    RtStringRef protocol = xmlrpc ? kHVXMLRPCProtocol : soapFlavour(body, data);
    HVProtocolHandlerRef handler = HVProtocolHandlerCreate(nullptr, protocol);
    if (fOptions.fExact) HVProtocolHandlerSetProperty(handler, kHVExactValues, kRtBooleanTrue);
    if (fOptions.fExtensions) HVProtocolHandlerSetProperty(handler, kHVValueExtensions, kRtBooleanTrue);
    RtDictionaryRef request = HVProtocolHandlerCopyRequestDictionary(handler, data);
    // Extension elements go into a reply only for a request that used them: a client that sends
    // them can read them.
    if (!request || RtDictionaryGetValue(request, RTSTR("/HVValueExtensionsUsed")) != kRtBooleanTrue)
        HVProtocolHandlerSetProperty(handler, kHVValueExtensions, nullptr);

    RtDataRef document = nullptr;
    RtDictionaryRef fault = nullptr;
    auto name = static_cast<RtStringRef>(RtDictionaryGetValue(request, RTSTR("/HVMethodName")));
    if (!request || RtGetTypeID(name) != RtStringGetTypeID()) {
        std::string unreadable = xmlrpc ? unreadableValueElement(data, fOptions.fExtensions) : "";
        fault = createFault(eFaultParse, !unreadable.empty() ? unreadable
                                         : xmlrpc            ? "the request is not an XML-RPC methodCall"
                                                             : "the request is not a SOAP envelope");
    } else {
        reply.fMethod = utf8(name);
        auto params =
            static_cast<RtDictionaryRef>(RtDictionaryGetValue(request, RTSTR("/HVMethodParameters")));
        auto order = static_cast<RtArrayRef>(RtDictionaryGetValue(request, RTSTR("/HVMethodParameterOrder")));
        if (RtGetTypeID(params) != RtDictionaryGetTypeID()) params = nullptr;
        if (RtGetTypeID(order) != RtArrayGetTypeID()) order = nullptr;
        Outcome outcome = callMethod(name, params, order, protocol, 0);
        fault = outcome.fFault;
        if (outcome.fValue) document = HVProtocolHandlerCopyReplyDocument(handler, request, outcome.fValue);
        RtRelease(outcome.fValue);
    }
    if (fault) {
        document = HVProtocolHandlerCopyFaultDocument(handler, request, fault);
        reply.fFault = true;
        // SOAP sends its faults with status 500; XML-RPC faults are ordinary 200 replies.
        if (!xmlrpc) reply.fStatus = 500;
    }
    if (!document) {
        reply.fStatus = 500;
        reply.fFault = true;
    } else {
        reply.fBody.assign(reinterpret_cast<const char *>(RtDataGetBytePtr(document)),
                           size_t(RtDataGetLength(document)));
    }
    RtRelease(document);
    RtRelease(fault);
    RtRelease(request);
    RtRelease(handler);
    RtRelease(data);
    return reply;
}

Outcome Server::callMethod(RtStringRef name, RtDictionaryRef params, RtArrayRef order, RtStringRef protocol,
                           int depth) {
    std::string key = utf8(name);
    if (key.compare(0, 7, "system.") == 0)
        for (const auto &row : kSystemMethods)
            if (key == row.fName) return systemMethod(key, params, order, protocol, depth);
    auto found = fMethods.find(key);
    if (found == fMethods.end()) return faultOutcome(eFaultUnknownMethod, "unknown method '" + key + "'");
    return callRegistered(key, found->second, name, params, order, protocol);
}

Outcome Server::callRegistered(const std::string &key, const Method &method, RtStringRef nameString,
                               RtDictionaryRef params, RtArrayRef order, RtStringRef protocol) {
    std::vector<RtTypeRef> values = orderedValues(params, order);
    RtMutableDictionaryRef converted = nullptr; // params with SOAP text turned into declared kinds
    if (!method.fTypes.empty()) {
        std::string mismatch;
        std::vector<size_t> counts; // the parameter counts the signature takes
        bool matched = false;
        for (const auto &entry : method.fTypes) {
            if (entry.size() - 1 != values.size()) {
                if (std::find(counts.begin(), counts.end(), entry.size() - 1) == counts.end())
                    counts.push_back(entry.size() - 1);
                continue;
            }
            RtMutableDictionaryRef attempt = nullptr;
            bool fitsAll = true;
            for (size_t i = 0; i < values.size() && fitsAll; i++) {
                Kind kind = Kind::eAny;
                kindNamed(entry[i + 1], kind);
                if (fits(values[i], kind)) continue;
                RtTypeRef fromText = nullptr;
                if (protocol != kHVXMLRPCProtocol && RtGetTypeID(values[i]) == RtStringGetTypeID())
                    fromText = createFromText(static_cast<RtStringRef>(values[i]), kind);
                if (!fromText) {
                    fitsAll = false;
                    if (mismatch.empty())
                        mismatch = key + ": params[" + std::to_string(i) + "] must be " + entry[i + 1] +
                                   ", not " + kindOf(values[i]);
                    break;
                }
                if (!attempt) attempt = RtDictionaryCreateMutableCopy(nullptr, 0, params);
                RtDictionarySetValue(attempt, RtArrayGetValueAtIndex(order, RtIndex(i)), fromText);
                RtRelease(fromText);
            }
            if (fitsAll) {
                converted = attempt;
                matched = true;
                break;
            }
            RtRelease(attempt);
        }
        if (!matched) {
            if (mismatch.empty()) {
                // No entry takes this many parameters: say which counts would do.
                std::sort(counts.begin(), counts.end());
                std::string takes;
                for (size_t i = 0; i < counts.size(); i++)
                    takes += (i == 0                   ? ""
                              : i + 1 == counts.size() ? " or "
                                                       : ", ") +
                             std::to_string(counts[i]);
                bool one = counts.size() == 1 && counts[0] == 1;
                mismatch = key + " takes " + takes + (one ? " parameter" : " parameters") + ", not " +
                           std::to_string(values.size());
            }
            return faultOutcome(eFaultBadParameters, mismatch);
        }
    }

    RtDictionaryRef givenParams = converted ? converted : params;
    RtDictionaryRef emptyParams = nullptr;
    RtArrayRef emptyOrder = nullptr;
    if (!givenParams) givenParams = emptyParams = createDictionary();
    if (!order) order = emptyOrder = createArray();
    RtDictionaryRef fault = nullptr;
    RtTypeRef value = nullptr;
    try {
        value = method.fProc(fHandle, protocol, nameString, givenParams, order, &fault, method.fContext.info);
    } catch (...) {
        // A procedure written in C++ let an exception out: the client learns nothing of it.
        value = nullptr;
        fault = nullptr;
        RtRelease(converted);
        RtRelease(emptyParams);
        RtRelease(emptyOrder);
        return faultOutcome(eFaultInternal, "internal error");
    }
    RtRelease(converted);
    RtRelease(emptyParams);
    RtRelease(emptyOrder);
    if (fault) {
        RtRelease(value);
        Outcome outcome{nullptr, normalisedFault(fault, protocol)};
        RtRelease(fault);
        return outcome;
    }
    if (!writable(value, protocol, 0, fOptions.fExact)) {
        RtRelease(value);
        return faultOutcome(eFaultInternal, "internal error");
    }
    return Outcome{value, nullptr};
}

Outcome Server::systemMethod(const std::string &name, RtDictionaryRef params, RtArrayRef order,
                             RtStringRef protocol, int depth) {
    std::vector<RtTypeRef> values = orderedValues(params, order);
    const std::vector<const char *> *signature = nullptr;
    for (const auto &row : kSystemMethods)
        if (name == row.fName) signature = &row.fSignature;
    if (values.size() != signature->size() - 1)
        return faultOutcome(eFaultBadParameters, name + " takes " + countText(signature->size() - 1) +
                                                     ", not " + std::to_string(values.size()));
    for (size_t i = 0; i < values.size(); i++) {
        Kind kind = Kind::eAny;
        kindNamed((*signature)[i + 1], kind);
        if (!fits(values[i], kind))
            return faultOutcome(eFaultBadParameters, name + ": params[" + std::to_string(i) + "] must be " +
                                                         (*signature)[i + 1] + ", not " + kindOf(values[i]));
    }

    if (name == "system.listMethods") {
        std::vector<std::string> names;
        for (const auto &entry : fMethods)
            names.push_back(entry.first);
        for (const auto &row : kSystemMethods)
            names.emplace_back(row.fName);
        std::sort(names.begin(), names.end());
        RtMutableArrayRef list = createArray();
        for (const std::string &each : names) {
            RtStringRef string = createString(each);
            RtArrayAppendValue(list, string);
            RtRelease(string);
        }
        return Outcome{list, nullptr};
    }
    if (name == "system.multicall") return multicall(values[0], protocol, depth);

    std::string asked = utf8(static_cast<RtStringRef>(values[0]));
    bool help = name == "system.methodHelp";
    for (const auto &row : kSystemMethods) {
        if (asked != row.fName) continue;
        if (help) return Outcome{createString(row.fHelp), nullptr};
        RtMutableArrayRef entry = createArray();
        for (const char *type : row.fSignature) {
            RtStringRef string = createString(type);
            RtArrayAppendValue(entry, string);
            RtRelease(string);
        }
        RtMutableArrayRef all = createArray();
        RtArrayAppendValue(all, entry);
        RtRelease(entry);
        return Outcome{all, nullptr};
    }
    auto found = fMethods.find(asked);
    if (found == fMethods.end()) return faultOutcome(eFaultUnknownMethod, "unknown method '" + asked + "'");
    const Method &method = found->second;
    if (help) return Outcome{method.fHelp ? RtRetain(method.fHelp) : createString(""), nullptr};
    // Without a signature: the string "undef", as XML-RPC servers answer.
    return Outcome{method.fSignature ? RtRetain(method.fSignature) : createString("undef"), nullptr};
}

Outcome Server::multicall(RtTypeRef calls, RtStringRef protocol, int depth) {
    auto list = static_cast<RtArrayRef>(calls);
    RtMutableArrayRef results = createArray();
    RtStringRef methodNameKey = RTSTR("methodName"), paramsKey = RTSTR("params");
    for (RtIndex i = 0, n = RtArrayGetCount(list); i < n; i++) {
        RtTypeRef call = RtArrayGetValueAtIndex(list, i);
        Outcome outcome;
        auto name = static_cast<RtStringRef>(
            RtGetTypeID(call) == RtDictionaryGetTypeID()
                ? RtDictionaryGetValue(static_cast<RtDictionaryRef>(call), methodNameKey)
                : nullptr);
        RtTypeRef given = RtGetTypeID(call) == RtDictionaryGetTypeID()
                              ? RtDictionaryGetValue(static_cast<RtDictionaryRef>(call), paramsKey)
                              : nullptr;
        if (RtGetTypeID(name) != RtStringGetTypeID() || (given && RtGetTypeID(given) != RtArrayGetTypeID())) {
            outcome = faultOutcome(eFaultBadParameters, "system.multicall: calls[" + std::to_string(i) +
                                                            "] must be a struct with methodName and params");
        } else if (utf8(name) == "system.multicall" || depth > 0) {
            outcome =
                faultOutcome(eFaultBadParameters, "system.multicall cannot be called from system.multicall");
        } else {
            auto array = static_cast<RtArrayRef>(given);
            RtMutableDictionaryRef params = createDictionary();
            RtMutableArrayRef order = createArray();
            for (RtIndex j = 0, m = array ? RtArrayGetCount(array) : 0; j < m; j++) {
                RtStringRef anon = createString("anon" + std::to_string(j));
                RtDictionarySetValue(params, anon, RtArrayGetValueAtIndex(array, j));
                RtArrayAppendValue(order, anon);
                RtRelease(anon);
            }
            outcome = callMethod(name, params, order, protocol, depth + 1);
            RtRelease(params);
            RtRelease(order);
        }
        if (outcome.fValue) {
            RtMutableArrayRef one = createArray();
            RtArrayAppendValue(one, outcome.fValue);
            RtArrayAppendValue(results, one);
            RtRelease(one);
            RtRelease(outcome.fValue);
        } else {
            RtMutableDictionaryRef entry = createDictionary();
            RtTypeRef code = RtDictionaryGetValue(outcome.fFault, kHVFaultCode);
            RtTypeRef text = RtDictionaryGetValue(outcome.fFault, kHVFaultString);
            RtDictionarySetValue(entry, RTSTR("faultCode"), code);
            RtDictionarySetValue(entry, RTSTR("faultString"), text);
            RtArrayAppendValue(results, entry);
            RtRelease(entry);
            RtRelease(outcome.fFault);
        }
    }
    return Outcome{results, nullptr};
}

// Runs every reader and writer once on this thread, in every protocol and with a value of every
// kind, so that the library's lazily built tables exist before the method threads do.
void Server::warmUp() {
    static std::once_flag sOnce;
    std::call_once(sOnce, [] {
        const RtStringRef protocols[] = {kHVXMLRPCProtocol, kHVSOAP1999Protocol, kHVSOAP2001Protocol};
        for (RtStringRef protocol : protocols) {
            RtMutableDictionaryRef all = createDictionary();
            put(all, RTSTR("string"), createString("caf\xc3\xa9 <&> \"quoted\""));
            put(all, RTSTR("integer"), createInt32(-42));
            double d = 2.5;
            put(all, RTSTR("double"), RtNumberCreate(nullptr, kRtNumberFloat64Type, &d));
            RtDictionarySetValue(all, RTSTR("boolean"), kRtBooleanTrue);
            static const char kDate[] = "2001-12-31T23:59:07Z";
            put(all, RTSTR("date"), hvCreateDateFromISO8601(kDate, sizeof kDate - 1));
            static const uint8_t kBytes[] = {'M', 'a', 'n', 0x00, 0xff};
            put(all, RTSTR("data"), RtDataCreate(nullptr, kBytes, sizeof kBytes));
            RtMutableArrayRef array = createArray();
            RtArrayAppendValue(array, kRtBooleanFalse);
            put(all, RTSTR("array"), array);
            if (protocol != kHVXMLRPCProtocol) RtDictionarySetValue(all, RTSTR("null"), kRtNull);
            const void *keys[] = {RTSTR("value")};
            const void *values[] = {all};
            RtDictionaryRef params = RtDictionaryCreate(
                nullptr, keys, values, 1, &kRtTypeDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
            RtArrayRef order = RtArrayCreate(nullptr, keys, 1, &kRtTypeArrayCallBacks);
            HVProtocolHandlerRef handler = HVProtocolHandlerCreate(nullptr, protocol);
            RtDataRef document =
                HVProtocolHandlerCopyRequestDocument(handler, RTSTR("warm.up"), params, order, nullptr);
            RtDictionaryRef request = HVProtocolHandlerCopyRequestDictionary(handler, document);
            RtDataRef reply = HVProtocolHandlerCopyReplyDocument(handler, request, all);
            RtDictionaryRef result = HVProtocolHandlerCopyReplyDictionary(handler, RTSTR("warm.up"), reply);
            RtDictionaryRef fault = createFault(eFaultParse, "warming up");
            RtDataRef faultDocument = HVProtocolHandlerCopyFaultDocument(handler, nullptr, fault);
            RtStringRef text = createString("TWFu");
            RtRelease(decodeBinaryData(text));
            RtRelease(text);
            const RtTypeRef made[] = {faultDocument, fault,   result, reply,  request,
                                      document,      handler, order,  params, all};
            for (RtTypeRef each : made)
                RtRelease(each);
        }
    });
}

} // namespace hvserver
