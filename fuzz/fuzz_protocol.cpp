// The server side's readers through the exported handler functions, one target per protocol and
// document kind: HV_FUZZ_PROTOCOL names the protocol constant, HV_FUZZ_REQUEST picks the request
// reader (1) or the reply reader (0).
//
// A reply must read as a result dictionary or not at all. A request that reads must make sense
// (a method name when it has one is a string; parameters and their order come together and the
// order names parameters). When the names of the request fit where the writer puts them, the
// reply and fault documents the handler writes for it must read back: a server echoing what it
// was sent never writes a reply its own client cannot read.
//
// XML-RPC writes a value of a kind it has no element for (the null object a bare <value/> can read
// as, for one) as "<string>" around the value's description, as it stands: that text may hold
// markup, so such replies are left out of the read-back check.
//
// Names that do not fit are the reading rules at work, not faults: SOAP takes the Body's first
// child as the method element and a value's children as its members even when they are text, and
// writes those names back as element names; a SOAP document without an envelope of the SOAP
// namespace reads as a request without a method, since nothing in it was dispatched.
#include "FuzzSupport.h"

#include <HalvosCore/HalvosCore.h>

#include <cstring>
#include <string>
#include <vector>

using namespace hvfuzz;

namespace {

HVProtocolHandlerRef handler() {
    static HVProtocolHandlerRef sHandler = HVProtocolHandlerCreate(kRtAllocatorDefault, HV_FUZZ_PROTOCOL);
    return sHandler;
}

// A fault read from a document may lack its fault string (an XML-RPC fault struct without
// "faultString" reads that way), so only the shape of the dictionary is checked here.
void checkResult(RtDictionaryRef result, const char *what) {
    require(result != nullptr, what);
    describe(result);
}

bool isSOAP() {
    return HV_FUZZ_PROTOCOL != kHVXMLRPCProtocol;
}

// An ASCII XML name the writer can put in a tag as it stands.
bool isPlainName(RtTypeRef value) {
    if (!value || RtGetTypeID(value) != RtStringGetTypeID()) return false;
    auto text = static_cast<RtStringRef>(value);
    RtIndex length = RtStringGetLength(text);
    for (RtIndex i = 0; i < length; i++) {
        RtUniChar c = RtStringGetCharacterAtIndex(text, i);
        bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
        bool other = (c >= '0' && c <= '9') || c == '-' || c == '.';
        if (!letter && !(i > 0 && other)) return false;
    }
    return length > 0;
}

// Whether every dictionary key in value, at any depth, is a plain name (SOAP writes keys as tags).
bool keysArePlain(RtTypeRef value) {
    if (RtGetTypeID(value) == RtArrayGetTypeID()) {
        auto array = static_cast<RtArrayRef>(value);
        for (RtIndex i = 0; i < RtArrayGetCount(array); i++)
            if (!keysArePlain(static_cast<RtTypeRef>(RtArrayGetValueAtIndex(array, i)))) return false;
    } else if (RtGetTypeID(value) == RtDictionaryGetTypeID()) {
        auto dict = static_cast<RtDictionaryRef>(value);
        RtIndex count = RtDictionaryGetCount(dict);
        std::vector<const void *> keys(static_cast<size_t>(count)), values(static_cast<size_t>(count));
        RtDictionaryGetKeysAndValues(dict, keys.data(), values.data());
        for (RtIndex i = 0; i < count; i++)
            if (!isPlainName(static_cast<RtTypeRef>(keys[static_cast<size_t>(i)])) ||
                !keysArePlain(static_cast<RtTypeRef>(values[static_cast<size_t>(i)])))
                return false;
    }
    return true;
}

// Whether a struct member name can stand as element text: XML-RPC writes member names as they
// are, so a name holding '<' or '&' makes a reply no reader accepts.
bool isPlainText(RtTypeRef key) {
    if (RtGetTypeID(key) != RtStringGetTypeID()) return false;
    auto text = static_cast<RtStringRef>(key);
    for (RtIndex i = 0; i < RtStringGetLength(text); i++) {
        RtUniChar c = RtStringGetCharacterAtIndex(text, i);
        if (c == '<' || c == '&') return false;
    }
    return true;
}

// Whether every value in value, at any depth, is of a kind XML-RPC has an element for, and every
// member name can be written as it stands.
bool kindsAreWritable(RtTypeRef value) {
    RtTypeID type = RtGetTypeID(value);
    if (type == RtArrayGetTypeID()) {
        auto array = static_cast<RtArrayRef>(value);
        for (RtIndex i = 0; i < RtArrayGetCount(array); i++)
            if (!kindsAreWritable(static_cast<RtTypeRef>(RtArrayGetValueAtIndex(array, i)))) return false;
        return true;
    }
    if (type == RtDictionaryGetTypeID()) {
        auto dict = static_cast<RtDictionaryRef>(value);
        RtIndex count = RtDictionaryGetCount(dict);
        std::vector<const void *> keys(static_cast<size_t>(count)), values(static_cast<size_t>(count));
        RtDictionaryGetKeysAndValues(dict, keys.data(), values.data());
        for (RtIndex i = 0; i < count; i++)
            if (!isPlainText(static_cast<RtTypeRef>(keys[static_cast<size_t>(i)])) ||
                !kindsAreWritable(static_cast<RtTypeRef>(values[static_cast<size_t>(i)])))
                return false;
        return true;
    }
    return type == RtStringGetTypeID() || type == RtNumberGetTypeID() || type == RtBooleanGetTypeID() ||
           type == RtDateGetTypeID() || type == RtDataGetTypeID();
}

// Whether the writer can carry the request: for XML-RPC the kinds of its values; for SOAP the
// method name, its namespace (an attribute value written as it stands) and every parameter and
// member name.
bool fitsTheWriter(RtDictionaryRef request, RtTypeRef params) {
    if (!isSOAP()) return !params || kindsAreWritable(params);
    RtTypeRef space = RtDictionaryGetValue(request, kHVSOAPMethodNamespaceURI);
    if (space) {
        Held utf8(RtStringCreateExternalRepresentation(kRtAllocatorDefault, static_cast<RtStringRef>(space),
                                                       kRtStringEncodingUTF8, 0));
        if (!utf8) return false;
        auto data = utf8.as<RtDataRef>();
        for (RtIndex i = 0; i < RtDataGetLength(data); i++)
            if (std::strchr("\"<&", RtDataGetBytePtr(data)[i])) return false;
    }
    return isPlainName(RtDictionaryGetValue(request, RTSTR("/HVMethodName"))) &&
           (!params || keysArePlain(params));
}

// A handler that reads SOAP replies from the whole tree: an override for a namespace no document
// uses keeps its reader from decoding while the document is parsed.
RtTypeRef _noOverride(HVMethodInvocationRef, RtTreeRef, RtTreeRef, void *) {
    return nullptr;
}

HVProtocolHandlerRef wholeTreeHandler() {
    static HVProtocolHandlerRef sHandler = [] {
        HVProtocolHandlerRef made = HVProtocolHandlerCreate(kRtAllocatorDefault, HV_FUZZ_PROTOCOL);
        HVClientContext context = {0, nullptr, nullptr, nullptr, nullptr};
        HVProtocolHandlerSetDeserializationOverride(made, RTSTR("urn:no-such-namespace"), RTSTR("none"),
                                                    _noOverride, &context);
        return made;
    }();
    return sHandler;
}

// Appends the description of value ("-" for NULL), its characters folded to 7 bits.
void appendDescription(std::string &out, RtTypeRef value) {
    if (!value) {
        out += "-";
        return;
    }
    Held description(RtCopyDescription(value));
    auto text = description.as<RtStringRef>();
    for (RtIndex i = 0; text && i < RtStringGetLength(text); i++)
        out += static_cast<char>(RtStringGetCharacterAtIndex(text, i) & 0x7f);
}

// The text of a tree: names, attributes and strings, children in order.
void appendTreeText(std::string &out, RtTreeRef tree) {
    RtXMLNodeRef node = RtXMLTreeGetNode(tree);
    out += std::to_string(RtXMLNodeGetTypeCode(node)) + ":";
    appendDescription(out, RtXMLNodeGetString(node));
    const auto *info = static_cast<const RtXMLElementInfo *>(RtXMLNodeGetInfoPtr(node));
    if (RtXMLNodeGetTypeCode(node) == kRtXMLNodeTypeElement && info) appendDescription(out, info->attributes);
    out += "[";
    for (RtTreeRef child = RtTreeGetFirstChild(tree); child; child = RtTreeGetNextSibling(child))
        appendTreeText(out, child);
    out += "]";
}

// The result's description, its header elements (positions in one document each) as their text.
std::string resultText(RtDictionaryRef result) {
    auto headers = static_cast<RtArrayRef>(RtDictionaryGetValue(result, kHVSOAPMessageHeaders));
    std::string text;
    for (RtIndex i = 0; headers && i < RtArrayGetCount(headers); i++)
        appendTreeText(text, static_cast<RtTreeRef>(const_cast<void *>(RtArrayGetValueAtIndex(headers, i))));
    Held copy(RtDictionaryCreateMutableCopy(kRtAllocatorDefault, 0, result));
    RtDictionaryRemoveValue(copy.as<RtMutableDictionaryRef>(), kHVSOAPMessageHeaders);
    appendDescription(text, copy.get());
    return text;
}

void fuzzReply(RtDataRef data) {
    Held result(HVProtocolHandlerCopyReplyDictionary(handler(), RTSTR("echo"), data));
    if (result) checkResult(result.as<RtDictionaryRef>(), "a result dictionary");
    if (!isSOAP()) return;
    // The reply read while it is parsed must be the reply read from the whole tree.
    Held whole(HVProtocolHandlerCopyReplyDictionary(wholeTreeHandler(), RTSTR("echo"), data));
    require(!result == !whole, "both SOAP readers give a result");
    if (result && !RtEqual(result.get(), whole.get()))
        require(resultText(result.as<RtDictionaryRef>()) == resultText(whole.as<RtDictionaryRef>()),
                "the SOAP reply read while parsed is the reply read from the whole tree");
}

void fuzzRequest(RtDataRef data) {
    Held request(HVProtocolHandlerCopyRequestDictionary(handler(), data));
    if (!request) return;
    auto dict = request.as<RtDictionaryRef>();
    describe(dict);
    RtTypeRef name = RtDictionaryGetValue(dict, RTSTR("/HVMethodName"));
    RtTypeRef params = RtDictionaryGetValue(dict, RTSTR("/HVMethodParameters"));
    RtTypeRef order = RtDictionaryGetValue(dict, RTSTR("/HVMethodParameterOrder"));
    require(!name || RtGetTypeID(name) == RtStringGetTypeID(), "a method name is a string");
    require(!params == !order, "parameters come with their order");
    if (params) {
        require(RtGetTypeID(params) == RtDictionaryGetTypeID(), "the parameters are a dictionary");
        require(RtGetTypeID(order) == RtArrayGetTypeID(), "the order is an array");
        auto orderArray = static_cast<RtArrayRef>(order);
        for (RtIndex i = 0; i < RtArrayGetCount(orderArray); i++)
            require(RtDictionaryContainsKey(static_cast<RtDictionaryRef>(params),
                                            RtArrayGetValueAtIndex(orderArray, i)),
                    "the order names parameters");
    }
    if (!name || !fitsTheWriter(dict, params)) return;
    auto method = static_cast<RtStringRef>(name);

    Held reply(HVProtocolHandlerCopyReplyDocument(handler(), dict, params ? params : name));
    require(!!reply, "a reply document for a request that read");
    Held echoed(HVProtocolHandlerCopyReplyDictionary(handler(), method, reply.as<RtDataRef>()));
    checkResult(echoed.as<RtDictionaryRef>(), "the reply written for a request reads back");
    if (HVMethodResultIsFault(echoed.as<RtDictionaryRef>())) {
        auto document = reply.as<RtDataRef>();
        std::fprintf(stderr, "%.*s\n", static_cast<int>(RtDataGetLength(document)),
                     reinterpret_cast<const char *>(RtDataGetBytePtr(document)));
        Held why(RtCopyDescription(echoed.get()));
        RtShow(why.get());
        require(false, "the reply written for a request reads back");
    }

    int32_t code = 4;
    Held number(RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt32Type, &code));
    const void *keys[] = {kHVFaultCode, kHVFaultString};
    const void *values[] = {number.get(), RTSTR("fuzzed")};
    Held fault(RtDictionaryCreate(kRtAllocatorDefault, keys, values, 2, &kRtTypeDictionaryKeyCallBacks,
                                  &kRtTypeDictionaryValueCallBacks));
    Held faultDocument(HVProtocolHandlerCopyFaultDocument(handler(), dict, fault.as<RtDictionaryRef>()));
    require(!!faultDocument, "a fault document for a request that read");
    Held faultResult(HVProtocolHandlerCopyReplyDictionary(handler(), method, faultDocument.as<RtDataRef>()));
    checkResult(faultResult.as<RtDictionaryRef>(), "the fault written for a request reads back");
    require(HVMethodResultIsFault(faultResult.as<RtDictionaryRef>()), "a fault document reads as a fault");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    Held data(copyData(bytes, size));
    if (HV_FUZZ_REQUEST)
        fuzzRequest(data.as<RtDataRef>());
    else
        fuzzReply(data.as<RtDataRef>());
    return 0;
}
