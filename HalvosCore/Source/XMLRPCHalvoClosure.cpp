// The XML-RPC invocation and protocol handler.
#include "XMLRPCHalvoClosure.h"

#include "HTTPClosureSource.h"

// ---- XMLRPCHalvoMethodInvocation: construction and agreement ---------------------------------

XMLRPCHalvoMethodInvocation::XMLRPCHalvoMethodInvocation(RtURLRef url, RtStringRef methodName)
    : fMethodName(nullptr) {
    setServiceEndpoint(url);
    fMethodName = static_cast<RtStringRef>(safeRtRetain(methodName));
}

XMLRPCHalvoMethodInvocation::XMLRPCHalvoMethodInvocation(RtDictionaryRef agreement)
    : HalvoMethodInvocation(agreement), fMethodName(nullptr) {
    RtTypeRef name = agreement ? RtDictionaryGetValue(agreement, RTSTR("MethodName")) : nullptr;
    if (RtGetTypeID(name) == RtStringGetTypeID())
        fMethodName = static_cast<RtStringRef>(RtRetain(name));
}

XMLRPCHalvoMethodInvocation::~XMLRPCHalvoMethodInvocation() { safeRtRelease(fMethodName); }

RtDictionaryRef XMLRPCHalvoMethodInvocation::copyAgreement() {
    RtMutableDictionaryRef dict = newMutableDict();
    if (!dict)
        return nullptr;
    RtDictionarySetValue(dict, RTSTR("ProtocolType"), kHVXMLRPCProtocol);
    if (fMethodName)
        RtDictionarySetValue(dict, RTSTR("MethodName"), fMethodName);
    populateAgreement(dict);
    return dict;
}

// ---- Operations written with the XML-RPC writer, reader and the transport --------------------

// STUB until the XML-RPC request writer lands: no request can be built yet.
RtDataRef XMLRPCHalvoMethodInvocation::constructMessage(AutoString &) { return nullptr; }

// STUB until the XML-RPC reply reader lands: the result is left as it is.
void XMLRPCHalvoMethodInvocation::parseReply(HalvoResult *, RtTreeRef) {}

// Every call travels over HTTP.
HVRunLoopSource *XMLRPCHalvoMethodInvocation::createRunLoopSource() { return new HTTPClosureSource(this, getServiceURL()); }

// STUB until the XML-RPC request writer lands.
RtDataRef XMLRPCProtocolHandler::createRequest(RtStringRef, RtDictionaryRef, RtArrayRef, RtDictionaryRef) {
    return nullptr;
}

// STUB until the XML-RPC server side lands.
RtDictionaryRef XMLRPCProtocolHandler::parsePostData(RtDataRef, RtStringEncoding, AutoString *) { return nullptr; }

// STUB until the XML-RPC reply reader lands.
RtDictionaryRef XMLRPCProtocolHandler::parseReplyData(RtStringRef, RtDataRef, RtStringEncoding, AutoString *) {
    return nullptr;
}

// STUB until the XML-RPC server side lands.
RtDataRef XMLRPCProtocolHandler::createReply(RtDictionaryRef, RtTypeRef) { return nullptr; }

// STUB until the XML-RPC server side lands.
RtDataRef XMLRPCProtocolHandler::createFault(RtDictionaryRef, RtDictionaryRef) { return nullptr; }
