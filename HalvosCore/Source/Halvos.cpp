// The exported functions and key constants: thin, null-checking fronts over the invocation and
// protocol-handler objects. Nothing here throws or logs on bad arguments.
#include "CPlusRtObject.h"
#include "HVRunLoopSource.h"
#include "HalvoClosure.h"
#include "HalvoResult.h"
#include "HalvoUtils.h"
#include "SOAPHalvoClosure.h"
#include "XMLRPCHalvoClosure.h"

// ---- Key constants ---------------------------------------------------------------------------
// Uniqued constant strings: the same text anywhere in the process (a property list read back
// included) is the very same object, which is what the protocol identity tests rely on.

const RtStringRef kHVXMLRPCProtocol = RTSTR("XML-RPC");
const RtStringRef kHVSOAP1999Protocol = RTSTR("SOAP-1999");
const RtStringRef kHVSOAP2001Protocol = RTSTR("SOAP-2001");
const RtStringRef kHVMethodInvocationResult = RTSTR("/Result");
const RtStringRef kHVFaultCode = RTSTR("/FaultCode");
const RtStringRef kHVFaultString = RTSTR("/FaultString");
const RtStringRef kHVFaultExtra = RTSTR("/FaultExtra");
const RtStringRef kHVNetworkStreamFaultString = RTSTR("/RtStreamFault");
const RtStringRef kHVStreamErrorDomain = RTSTR("domain");
const RtStringRef kHVStreamErrorError = RTSTR("error");
const RtStringRef kHVStreamErrorMessage = RTSTR("msg");
const RtStringRef kHVHTTPMessage = RTSTR("/kHVHTTPMessage");
const RtStringRef kHVHTTPResponseMessage = RTSTR("/kHVHTTPResponseMessage");
const RtStringRef kHVMethodInvocationResultParameterName = RTSTR("/HVResultParamName");
// The one property key without a leading slash.
const RtStringRef kHVMethodInvocationTimeoutValue = RTSTR("kHVMethodInvocationTimeoutValue");
const RtStringRef kHVHTTPVersion = RTSTR("/HVHTTPVersion");
const RtStringRef kHVHTTPExtraHeaders = RTSTR("/HVHTTPExtraHeaders");
const RtStringRef kHVHTTPProxy = RTSTR("/HVHTTPProxy");
const RtStringRef kHVHTTPFollowsRedirects = RTSTR("/HVHTTPFollowsRedirects");
const RtStringRef kHVPostingMethod = RTSTR("/HVPostingMethod");
const RtStringRef kHVAuthInfo = RTSTR("/HVHTTPAuthInfo");
const RtStringRef kHVAuthInfo_user = RTSTR("username");
const RtStringRef kHVAuthInfo_password = RTSTR("password");
const RtStringRef kHVAuthInfo_authScheme = RTSTR("authScheme");
const RtStringRef kHVAuthInfo_forProxy = RTSTR("forProxy");
const RtStringRef kHVTLSCAFile = RTSTR("/HVTLSCAFile");
const RtStringRef kHVTLSCADirectory = RTSTR("/HVTLSCADirectory");
const RtStringRef kHVTLSClientCertificate = RTSTR("/HVTLSClientCertificate");
const RtStringRef kHVTLSClientKey = RTSTR("/HVTLSClientKey");
const RtStringRef kHVTLSVerifyPeer = RTSTR("/HVTLSVerifyPeer");
const RtStringRef kHVHTTPMaxReplyLength = RTSTR("/HVHTTPMaxReplyLength");
const RtStringRef kHVHTTPMaxReplyHeadLength = RTSTR("/HVHTTPMaxReplyHeadLength");
const RtStringRef kHVHTTPAcceptCompression = RTSTR("/HVHTTPAcceptCompression");
const RtStringRef kHVStreamErrorDetail = RTSTR("detail");
const RtStringRef kHVDebugOutgoingHeaders = RTSTR("/HVDebugOutHeaders");
const RtStringRef kHVDebugOutgoingBody = RTSTR("/HVDebugOutBody");
const RtStringRef kHVDebugIncomingHeaders = RTSTR("/HVDebugInHeaders");
const RtStringRef kHVDebugIncomingBody = RTSTR("/HVDebugInBody");
// The text differs from the constant's name on purpose.
const RtStringRef kHVSOAPMessageHeaders = RTSTR("/HVHTTPMessageHeaders");
const RtStringRef kHVSOAPMethodNamespaceURI = RTSTR("/HVSOAPMethodNamespaceURI");
const RtStringRef kHVSOAPBodyEncodingStyle = RTSTR("/HVSOAPBodyEncodingStyle");
const RtStringRef kHVSOAPStyleRPC = RTSTR("rpc");
const RtStringRef kHVSOAPStyleDoc = RTSTR("doc");
const RtStringRef kHVRecordType = RTSTR("/HVRecordType");
const RtStringRef kHVRecordNamespaceURI = RTSTR("/HVRecordNamespaceURI");
const RtStringRef kHVRecordParameterOrder = RTSTR("/HVRecordParamOrder");
const RtStringRef kHVExactValues = RTSTR("/HVExactValues");
const RtStringRef kHVValueExtensions = RTSTR("/HVValueExtensions");

RtBundleRef registerLibraryBundle() {
    // Once per process, safely when several threads make their first objects at the same moment.
    static const RtBundleRef sBundle = [] {
        RtStringRef identifier = RTSTR(HV_BUNDLE_IDENTIFIER);
        RtDictionaryRef info = rtTypeCreateDictionary(nullptr, kRtBundleIdentifierKey, identifier,
                                                      kRtBundleVersionKey, RTSTR(HV_VERSION_STRING), nullptr);
        RtBundleRef bundle = RtBundleRegister(identifier, info);
        safeRtRelease(info);
        return bundle;
    }();
    return sBundle;
}

// Everything a Create function does before making an object.
static void prepareLibrary() {
    hvInitStatics();
    registerLibraryBundle();
}

HalvoMethodInvocation *createInvocationForProtocol(RtStringRef protocol, RtURLRef url, RtStringRef methodName,
                                                   RtDictionaryRef agreement) {
    if (protocol == kHVXMLRPCProtocol)
        return agreement ? new XMLRPCHalvoMethodInvocation(agreement)
                         : new XMLRPCHalvoMethodInvocation(url, methodName);
    if (protocol == kHVSOAP1999Protocol || protocol == kHVSOAP2001Protocol)
        return agreement ? new SOAPHalvoMethodInvocation(protocol, agreement)
                         : new SOAPHalvoMethodInvocation(protocol, url, methodName);
    return nullptr;
}

// ---- Method invocations ----------------------------------------------------------------------

RtTypeID HVMethodInvocationGetTypeID(void) {
    return OpaqueHVMethodInvocationRef::getTypeID();
}

HVMethodInvocationRef HVMethodInvocationCreate(RtURLRef url, RtStringRef methodName, RtStringRef protocol) {
    prepareLibrary();
    if (!url || !protocol) return nullptr;
    return OpaqueHVMethodInvocationRef::create(
        createInvocationForProtocol(protocol, url, methodName, nullptr));
}

HVMethodInvocationRef HVMethodInvocationCreateFromSerialization(RtDataRef contract) {
    if (!contract) return nullptr;
    prepareLibrary();
    RtTypeRef plist =
        RtPropertyListCreateFromXMLData(kRtAllocatorDefault, contract, kRtPropertyListImmutable, nullptr);
    if (RtGetTypeID(plist) != RtDictionaryGetTypeID()) {
        safeRtRelease(plist);
        return nullptr;
    }
    RtDictionaryRef agreement = static_cast<RtDictionaryRef>(plist);
    RtStringRef protocol = static_cast<RtStringRef>(RtDictionaryGetValue(agreement, RTSTR("ProtocolType")));
    HalvoMethodInvocation *invocation = createInvocationForProtocol(protocol, nullptr, nullptr, agreement);
    RtRelease(plist);
    return OpaqueHVMethodInvocationRef::create(invocation);
}

RtDataRef HVMethodInvocationCopySerialization(HVMethodInvocationRef invocation) {
    HalvoMethodInvocation *impl = OpaqueHVMethodInvocationRef::implOf(invocation);
    if (!impl) return nullptr;
    RtDictionaryRef agreement = impl->copyAgreement();
    if (!agreement) return nullptr;
    RtDataRef data = RtPropertyListCreateXMLData(kRtAllocatorDefault, agreement);
    RtRelease(agreement);
    return data;
}

void HVMethodInvocationSetParameters(HVMethodInvocationRef invocation, RtDictionaryRef parameters,
                                     RtArrayRef paramOrder) {
    HalvoMethodInvocation *impl = OpaqueHVMethodInvocationRef::implOf(invocation);
    if (!impl) return;
    impl->setParameters(parameters, paramOrder);
}

RtDictionaryRef HVMethodInvocationCopyParameters(HVMethodInvocationRef invocation, RtArrayRef *paramOrder) {
    if (paramOrder) *paramOrder = nullptr;
    HalvoMethodInvocation *impl = OpaqueHVMethodInvocationRef::implOf(invocation);
    if (!impl) return nullptr;
    RtDictionaryRef parameters = nullptr;
    impl->getParameters(&parameters, paramOrder);
    return parameters;
}

void HVMethodInvocationSetProperty(HVMethodInvocationRef invocation, RtStringRef propName, RtTypeRef value) {
    HalvoMethodInvocation *impl = OpaqueHVMethodInvocationRef::implOf(invocation);
    if (!impl) return;
    impl->setProperty(propName, value);
}

RtTypeRef HVMethodInvocationCopyProperty(HVMethodInvocationRef invocation, RtStringRef propName) {
    HalvoMethodInvocation *impl = OpaqueHVMethodInvocationRef::implOf(invocation);
    if (!impl) return nullptr;
    return safeRtRetain(impl->getProperty(propName));
}

void HVMethodInvocationSetCallBack(HVMethodInvocationRef invocation,
                                   HVMethodInvocationCallBackProcPtr clientCB, HVClientContext *context) {
    HalvoMethodInvocation *impl = OpaqueHVMethodInvocationRef::implOf(invocation);
    if (!impl) return;
    impl->setCallback(clientCB, context);
}

void HVMethodInvocationScheduleWithRunLoop(HVMethodInvocationRef invocation, RtRunLoopRef runLoop,
                                           RtStringRef runLoopMode) {
    HalvoMethodInvocation *impl = OpaqueHVMethodInvocationRef::implOf(invocation);
    if (!impl) return;
    HVRunLoopSource *source = impl->getSource();
    // Signalled at once, so the call starts on the loop's next pass.
    if (source && source->addToRunLoop(runLoop, runLoopMode) && source->getSource()) source->signal();
}

void HVMethodInvocationUnscheduleFromRunLoop(HVMethodInvocationRef invocation, RtRunLoopRef runLoop,
                                             RtStringRef runLoopMode) {
    HalvoMethodInvocation *impl = OpaqueHVMethodInvocationRef::implOf(invocation);
    if (!impl) return;
    HVRunLoopSource *source = impl->getSource();
    if (source) source->removeFromRunLoop(runLoop, runLoopMode);
}

// Stores the delivered result where Invoke waits for it.
static void _syncCallback(HVMethodInvocationRef, void *info, RtDictionaryRef result) {
    *static_cast<RtDictionaryRef *>(info) = result;
}

RtDictionaryRef HVMethodInvocationInvoke(HVMethodInvocationRef invocation) {
    HalvoMethodInvocation *impl = OpaqueHVMethodInvocationRef::implOf(invocation);
    if (!impl) return nullptr;
    static const RtStringRef kHVSyncMode = RTSTR("HVSYNC");
    RtDictionaryRef result = nullptr;
    HVClientContext context = {0, &result, nullptr, nullptr, nullptr};
    impl->setCallback(_syncCallback, &context);
    RtRunLoopRef loop = RtRunLoopGetCurrent();
    HVMethodInvocationScheduleWithRunLoop(invocation, loop, kHVSyncMode);
    // No time limit here: a limit exists only through kHVMethodInvocationTimeoutValue, which the
    // transport turns into a timer that ends the call with a fault.
    while (!result) {
        int32_t outcome = RtRunLoopRunInMode(kHVSyncMode, 1.0e30, true);
        if (outcome == kRtRunLoopRunFinished && !result) {
            // Nothing is left in the mode that could ever deliver: end with a fault, not a hang.
            HalvoResult failed;
            failed.becomeFault(RTSTR("Invocation could not be scheduled"));
            result = failed.copyDictionary();
        }
    }
    HVMethodInvocationUnscheduleFromRunLoop(invocation, loop, kHVSyncMode);
    impl->setCallback(nullptr, nullptr);
    return result;
}

bool HVMethodResultIsFault(RtDictionaryRef methodResult) {
    if (!methodResult) return false;
    // Identity with the boolean true object: a number 1 is not a fault marker.
    return RtDictionaryGetValue(methodResult, HalvoResult::isFaultKey()) == kRtBooleanTrue;
}

void HVMethodInvocationAddSerializationOverride(HVMethodInvocationRef invocation, RtTypeID objType,
                                                HVMethodInvocationSerializationProcPtr serializationProc,
                                                HVClientContext *serializationRefcon) {
    HalvoMethodInvocation *impl = OpaqueHVMethodInvocationRef::implOf(invocation);
    if (!impl) return;
    impl->addSerializationOverride(objType, serializationProc, serializationRefcon);
}

void HVMethodInvocationAddDeserializationOverride(
    HVMethodInvocationRef invocation, RtStringRef typeNamespace, RtStringRef typeName,
    HVMethodInvocationDeserializationProcPtr deserializationProc, HVClientContext *deserializationRefcon) {
    HalvoMethodInvocation *impl = OpaqueHVMethodInvocationRef::implOf(invocation);
    if (!impl) return;
    impl->addDeserializationOverride(typeNamespace, typeName, deserializationProc, deserializationRefcon);
}

// ---- Protocol handlers -----------------------------------------------------------------------

RtTypeID HVProtocolHandlerGetTypeID(void) {
    return OpaqueHVProtocolHandlerRef::getTypeID();
}

HVProtocolHandlerRef HVProtocolHandlerCreate(RtAllocatorRef, RtStringRef protocol) {
    prepareLibrary();
    HVProtocolHandler *handler = nullptr;
    if (protocol == kHVXMLRPCProtocol)
        handler = new XMLRPCProtocolHandler();
    else if (protocol == kHVSOAP1999Protocol || protocol == kHVSOAP2001Protocol)
        handler = new SOAPProtocolHandler(protocol);
    return OpaqueHVProtocolHandlerRef::create(handler);
}

RtDictionaryRef HVProtocolHandlerCopyRequestDictionary(HVProtocolHandlerRef handler, RtDataRef data) {
    HVProtocolHandler *impl = OpaqueHVProtocolHandlerRef::implOf(handler);
    if (!impl) return nullptr;
    if (!data) return nullptr;
    AutoString errorString; // the reason of a failure is not reported to the caller
    return impl->parsePostData(data, kRtStringEncodingUTF8, &errorString);
}

RtDictionaryRef HVProtocolHandlerCopyReplyDictionary(HVProtocolHandlerRef handler, RtStringRef methodName,
                                                     RtDataRef data) {
    HVProtocolHandler *impl = OpaqueHVProtocolHandlerRef::implOf(handler);
    if (!impl) return nullptr;
    if (!methodName || !data) return nullptr;
    AutoString errorString;
    return impl->parseReplyData(methodName, data, kRtStringEncodingUTF8, &errorString);
}

RtDataRef HVProtocolHandlerCopyRequestDocument(HVProtocolHandlerRef handler, RtStringRef methodName,
                                               RtDictionaryRef methodParams, RtArrayRef methodParamOrder,
                                               RtDictionaryRef methodExtras) {
    HVProtocolHandler *impl = OpaqueHVProtocolHandlerRef::implOf(handler);
    if (!impl) return nullptr;
    if (!methodName) return nullptr;
    return impl->createRequest(methodName, methodParams, methodParamOrder, methodExtras);
}

RtDataRef HVProtocolHandlerCopyReplyDocument(HVProtocolHandlerRef handler, RtDictionaryRef context,
                                             RtTypeRef returnValue) {
    HVProtocolHandler *impl = OpaqueHVProtocolHandlerRef::implOf(handler);
    if (!impl) return nullptr;
    return impl->createReply(context, returnValue);
}

RtDataRef HVProtocolHandlerCopyFaultDocument(HVProtocolHandlerRef handler, RtDictionaryRef context,
                                             RtDictionaryRef faultDict) {
    HVProtocolHandler *impl = OpaqueHVProtocolHandlerRef::implOf(handler);
    if (!impl) return nullptr;
    return impl->createFault(context, faultDict);
}

void HVProtocolHandlerSetProperty(HVProtocolHandlerRef handler, RtStringRef propertyName,
                                  RtTypeRef propertyValue) {
    HVProtocolHandler *impl = OpaqueHVProtocolHandlerRef::implOf(handler);
    if (!impl) return;
    impl->setProperty(propertyName, propertyValue);
}

RtTypeRef HVProtocolHandlerCopyProperty(HVProtocolHandlerRef handler, RtStringRef propertyName) {
    HVProtocolHandler *impl = OpaqueHVProtocolHandlerRef::implOf(handler);
    if (!impl) return nullptr;
    // Required behaviour: the value gains a reference nobody releases, and NULL is returned.
    safeRtRetain(impl->getProperty(propertyName));
    return nullptr;
}

void HVProtocolHandlerSetSerializationOverride(HVProtocolHandlerRef handler, RtTypeID objType,
                                               HVMethodInvocationSerializationProcPtr serializationProc,
                                               HVClientContext *context) {
    HVProtocolHandler *impl = OpaqueHVProtocolHandlerRef::implOf(handler);
    if (!impl) return;
    impl->addSerializationOverride(objType, serializationProc, context);
}

void HVProtocolHandlerSetDeserializationOverride(HVProtocolHandlerRef handler, RtStringRef typeNamespace,
                                                 RtStringRef typeName,
                                                 HVMethodInvocationDeserializationProcPtr deserializationProc,
                                                 HVClientContext *context) {
    HVProtocolHandler *impl = OpaqueHVProtocolHandlerRef::implOf(handler);
    if (!impl) return;
    impl->addDeserializationOverride(typeNamespace, typeName, deserializationProc, context);
}
