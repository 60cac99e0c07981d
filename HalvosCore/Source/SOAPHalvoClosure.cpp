// The SOAP invocation and protocol handler.
#include "SOAPHalvoClosure.h"

#include "HTTPClosureSource.h"

// ---- SOAPHalvoMethodInvocation: construction and agreement -----------------------------------

SOAPHalvoMethodInvocation::SOAPHalvoMethodInvocation(RtStringRef protocolKind, RtDictionaryRef agreement)
    : HalvoMethodInvocation(agreement), fMethodName(nullptr),
      fProtocolKind(static_cast<RtStringRef>(safeRtRetain(protocolKind))) {
    RtTypeRef name = agreement ? RtDictionaryGetValue(agreement, RTSTR("MethodName")) : nullptr;
    if (RtGetTypeID(name) == RtStringGetTypeID())
        fMethodName = static_cast<RtStringRef>(RtRetain(name));
}

SOAPHalvoMethodInvocation::SOAPHalvoMethodInvocation(RtStringRef protocolKind, RtURLRef url, RtStringRef methodName)
    : fMethodName(nullptr), fProtocolKind(static_cast<RtStringRef>(safeRtRetain(protocolKind))) {
    setServiceEndpoint(url);
    fMethodName = static_cast<RtStringRef>(safeRtRetain(methodName));
}

SOAPHalvoMethodInvocation::~SOAPHalvoMethodInvocation() {
    safeRtRelease(fMethodName);
    safeRtRelease(fProtocolKind);
}

RtDictionaryRef SOAPHalvoMethodInvocation::copyAgreement() {
    RtMutableDictionaryRef dict = newMutableDict();
    if (!dict)
        return nullptr;
    if (fProtocolKind)
        RtDictionarySetValue(dict, RTSTR("ProtocolType"), fProtocolKind);
    if (fMethodName)
        RtDictionarySetValue(dict, RTSTR("MethodName"), fMethodName);
    populateAgreement(dict);
    return dict;
}

// ---- SOAPProtocolHandler: construction -------------------------------------------------------

SOAPProtocolHandler::SOAPProtocolHandler(RtStringRef protocolKind)
    : fProtocolKind(static_cast<RtStringRef>(safeRtRetain(protocolKind))) {}

SOAPProtocolHandler::~SOAPProtocolHandler() { safeRtRelease(fProtocolKind); }

// ---- Operations written with the SOAP writer, reader and the transport -----------------------

// STUB until the SOAP request writer lands: no request can be built yet.
RtDataRef SOAPHalvoMethodInvocation::constructMessage(AutoString &) { return nullptr; }

// STUB until the SOAP reply reader lands: the result is left as it is.
void SOAPHalvoMethodInvocation::parseReply(HalvoResult *, RtTreeRef) {}

// Every call travels over HTTP.
HVRunLoopSource *SOAPHalvoMethodInvocation::createRunLoopSource() { return new HTTPClosureSource(this, getServiceURL()); }

// STUB until the SOAP request writer lands.
RtDataRef SOAPProtocolHandler::createRequest(RtStringRef, RtDictionaryRef, RtArrayRef, RtDictionaryRef) {
    return nullptr;
}

// STUB until the SOAP server side lands.
RtDictionaryRef SOAPProtocolHandler::parsePostData(RtDataRef, RtStringEncoding, AutoString *) { return nullptr; }

// STUB until the SOAP reply reader lands.
RtDictionaryRef SOAPProtocolHandler::parseReplyData(RtStringRef, RtDataRef, RtStringEncoding, AutoString *) {
    return nullptr;
}

// STUB until the SOAP server side lands.
RtDataRef SOAPProtocolHandler::createReply(RtDictionaryRef, RtTypeRef) { return nullptr; }

// STUB until the SOAP server side lands.
RtDataRef SOAPProtocolHandler::createFault(RtDictionaryRef, RtDictionaryRef) { return nullptr; }
