#include "ServeRequest.h"
#include "ExampleMethods.h"
#include "ToolStrings.h"

#include <vector>

namespace hvserve {

namespace {

const char kSchema1999[] = "http://www.w3.org/1999/XMLSchema";
const char kSchema2001[] = "http://www.w3.org/2001/XMLSchema";

// The schema flavour declared on an element: the value of an xmlns attribute naming either
// XML Schema namespace (or its instance namespace, which extends it). 0 when none does.
int declaredSchemaYear(RtTreeRef element) {
    auto info = static_cast<const RtXMLElementInfo *>(RtXMLNodeGetInfoPtr(RtXMLTreeGetNode(element)));
    if (!info || !info->attributeOrder) return 0;
    for (RtIndex i = 0, n = RtArrayGetCount(info->attributeOrder); i < n; i++) {
        auto name = static_cast<RtStringRef>(RtArrayGetValueAtIndex(info->attributeOrder, i));
        if (hvtools::utf8String(name).compare(0, 5, "xmlns") != 0) continue;
        std::string uri =
            hvtools::utf8String(static_cast<RtStringRef>(RtDictionaryGetValue(info->attributes, name)));
        if (uri.compare(0, sizeof kSchema1999 - 1, kSchema1999) == 0) return 1999;
        if (uri.compare(0, sizeof kSchema2001 - 1, kSchema2001) == 0) return 2001;
    }
    return 0;
}

// Looks for the declaration on the envelope, its Header and Body, and the elements right
// inside those (the method element), where senders put it.
int findSchemaYear(RtTreeRef tree, int depth) {
    for (RtTreeRef child = RtTreeGetFirstChild(tree); child; child = RtTreeGetNextSibling(child)) {
        if (RtXMLNodeGetTypeCode(RtXMLTreeGetNode(child)) != kRtXMLNodeTypeElement) continue;
        if (int year = declaredSchemaYear(child)) return year;
        if (depth < 3)
            if (int year = findSchemaYear(child, depth + 1)) return year;
    }
    return 0;
}

RtStringRef soapFlavour(RtDataRef body) {
    RtTreeRef tree =
        RtXMLTreeCreateFromDataWithError(kRtAllocatorDefault, body, nullptr,
                                         kRtXMLParserSkipWhitespace | kRtXMLParserSkipMetaData, 0, nullptr);
    int year = tree ? findSchemaYear(tree, 1) : 0;
    RtRelease(tree);
    return year == 1999 ? kHVSOAP1999Protocol : kHVSOAP2001Protocol;
}

// The parameters of a request dictionary in their order (borrowed values).
std::vector<RtTypeRef> orderedParameters(RtDictionaryRef request) {
    std::vector<RtTypeRef> params;
    auto values = static_cast<RtDictionaryRef>(RtDictionaryGetValue(request, RTSTR("/HVMethodParameters")));
    auto order = static_cast<RtArrayRef>(RtDictionaryGetValue(request, RTSTR("/HVMethodParameterOrder")));
    if (RtGetTypeID(values) != RtDictionaryGetTypeID() || RtGetTypeID(order) != RtArrayGetTypeID())
        return params;
    for (RtIndex i = 0, n = RtArrayGetCount(order); i < n; i++)
        params.push_back(RtDictionaryGetValue(values, RtArrayGetValueAtIndex(order, i)));
    return params;
}

std::string bytesOf(RtDataRef data) {
    return data ? std::string(reinterpret_cast<const char *>(RtDataGetBytePtr(data)),
                              size_t(RtDataGetLength(data)))
                : std::string();
}

} // namespace

ServedReply serveRequest(Dialect dialect, const std::string &body) {
    ServedReply reply;
    RtDataRef data = RtDataCreate(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(body.data()),
                                  RtIndex(body.size()));
    RtStringRef protocol = dialect == Dialect::eXMLRPC ? kHVXMLRPCProtocol : soapFlavour(data);
    reply.fProtocol = hvtools::utf8String(protocol);
    HVProtocolHandlerRef handler = HVProtocolHandlerCreate(kRtAllocatorDefault, protocol);
    RtDictionaryRef request = HVProtocolHandlerCopyRequestDictionary(handler, data);

    RtDataRef document = nullptr;
    RtDictionaryRef fault = nullptr;
    auto name = static_cast<RtStringRef>(RtDictionaryGetValue(request, RTSTR("/HVMethodName")));
    if (!request || RtGetTypeID(name) != RtStringGetTypeID()) {
        fault =
            createFault(eFaultParse, dialect == Dialect::eXMLRPC ? "the request is not an XML-RPC methodCall"
                                                                 : "the request is not a SOAP envelope");
    } else {
        reply.fMethod = hvtools::utf8String(name);
        MethodOutcome outcome = runMethod(reply.fMethod, orderedParameters(request), protocol);
        fault = outcome.fFault;
        if (outcome.fValue) document = HVProtocolHandlerCopyReplyDocument(handler, request, outcome.fValue);
        RtRelease(outcome.fValue);
    }
    if (fault) {
        document = HVProtocolHandlerCopyFaultDocument(handler, request, fault);
        reply.fFault = true;
        // SOAP sends its faults with status 500; XML-RPC faults are ordinary 200 replies.
        if (dialect == Dialect::eSOAP) reply.fStatus = 500;
    }
    if (!document) {
        reply.fStatus = 500;
        reply.fFault = true;
    }
    reply.fBody = bytesOf(document);
    RtRelease(document);
    RtRelease(fault);
    RtRelease(request);
    RtRelease(handler);
    RtRelease(data);
    return reply;
}

void warmUp() {
    const RtStringRef protocols[] = {kHVXMLRPCProtocol, kHVSOAP1999Protocol, kHVSOAP2001Protocol};
    RtDictionaryRef everyKind = createEveryKind(false);
    RtStringRef name = RTSTR("examples.echo");
    RtStringRef key = RTSTR("value");
    const void *keys[] = {key};
    const void *values[] = {everyKind};
    RtDictionaryRef params =
        RtDictionaryCreate(kRtAllocatorDefault, keys, values, 1, &kRtTypeDictionaryKeyCallBacks,
                           &kRtTypeDictionaryValueCallBacks);
    RtArrayRef order = RtArrayCreate(kRtAllocatorDefault, keys, 1, &kRtTypeArrayCallBacks);
    for (RtStringRef protocol : protocols) {
        HVProtocolHandlerRef handler = HVProtocolHandlerCreate(kRtAllocatorDefault, protocol);
        RtDataRef request = HVProtocolHandlerCopyRequestDocument(handler, name, params, order, nullptr);
        ServedReply served =
            serveRequest(protocol == kHVXMLRPCProtocol ? Dialect::eXMLRPC : Dialect::eSOAP, bytesOf(request));
        RtDataRef replyData =
            RtDataCreate(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(served.fBody.data()),
                         RtIndex(served.fBody.size()));
        RtDictionaryRef result = HVProtocolHandlerCopyReplyDictionary(handler, name, replyData);
        // Fault documents too, without a request, as for a body that does not parse (sending
        // such a body here would print the library's parse-error report at every start).
        RtDictionaryRef fault = createFault(eFaultParse, "warming up");
        RtDataRef faultDocument = HVProtocolHandlerCopyFaultDocument(handler, nullptr, fault);
        RtRelease(faultDocument);
        RtRelease(fault);
        RtRelease(result);
        RtRelease(replyData);
        RtRelease(request);
        RtRelease(handler);
    }
    RtRelease(order);
    RtRelease(params);
    RtRelease(everyKind);
}

} // namespace hvserve
