// The SOAP invocation and protocol handler.
#include "SOAPHalvoClosure.h"

#include "HTTPClosureSource.h"

// ---- SOAPHalvoMethodInvocation: construction and agreement -----------------------------------

SOAPHalvoMethodInvocation::SOAPHalvoMethodInvocation(RtStringRef protocolKind, RtDictionaryRef agreement)
    : HalvoMethodInvocation(agreement), fMethodName(nullptr),
      fProtocolKind(static_cast<RtStringRef>(safeRtRetain(protocolKind))) {
    RtTypeRef name = agreement ? RtDictionaryGetValue(agreement, RTSTR("MethodName")) : nullptr;
    if (RtGetTypeID(name) == RtStringGetTypeID()) fMethodName = static_cast<RtStringRef>(RtRetain(name));
}

SOAPHalvoMethodInvocation::SOAPHalvoMethodInvocation(RtStringRef protocolKind, RtURLRef url,
                                                     RtStringRef methodName)
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
    if (!dict) return nullptr;
    if (fProtocolKind) RtDictionarySetValue(dict, RTSTR("ProtocolType"), fProtocolKind);
    if (fMethodName) RtDictionarySetValue(dict, RTSTR("MethodName"), fMethodName);
    populateAgreement(dict);
    return dict;
}

// ---- SOAPProtocolHandler: construction -------------------------------------------------------

SOAPProtocolHandler::SOAPProtocolHandler(RtStringRef protocolKind)
    : fProtocolKind(static_cast<RtStringRef>(safeRtRetain(protocolKind))) {}

SOAPProtocolHandler::~SOAPProtocolHandler() {
    safeRtRelease(fProtocolKind);
}

// ---- Transport ---------------------------------------------------------------------------------
// Writing requests is in SOAPHalvoClosureWriter.cpp, reading replies in SOAPHalvoClosureReply.cpp
// and SOAPHalvoClosureDecoder.cpp, the server side in SOAPHalvoClosureServer.cpp.

// Every call travels over HTTP.
HVRunLoopSource *SOAPHalvoMethodInvocation::createRunLoopSource() {
    return new HTTPClosureSource(this, getServiceURL());
}
