// The SOAP reply reader: document, Envelope, Header and Body tables, faults and the method's
// response element, into a HalvoResult. Table handlers return NULL to go on, or a message the
// caller owns that ends the walk and travels up unchanged.
#include "HalvoResult.h"
#include "SOAPCodec.h"

#include <memory>

namespace {

// What every handler of one reply shares (the tables' refcon).
struct ReplyContext {
    SOAPProtocolHandler *fHandler;
    RtStringRef fMethodName;
    HalvoResult *fResult;
    RtTreeRef fBody; // anchors (href targets) are looked for among its children
    std::unique_ptr<SOAPDecoder> fDecoder;
};

// The fault being read (the Fault table's refcon).
struct FaultContext {
    int32_t fCode = 0;
    AutoString fFaultString;
};

RtStringRef _parseFaultCode(RtTreeRef tree, RtXMLNodeRef, const AutoDict &, void *refcon) {
    RtTreeRef first = RtTreeGetFirstChild(tree);
    RtStringRef text = first ? RtXMLNodeGetString(RtXMLTreeGetNode(first)) : nullptr;
    if (!text) return RTSTR("Can't parse <faultcode>");
    // A qualified code such as "SOAP-ENV:Client" reads as 0, which becomes -1.
    int32_t code = RtStringGetIntValue(text);
    static_cast<FaultContext *>(refcon)->fCode = code ? code : -1;
    return nullptr;
}

RtStringRef _parseFaultString(RtTreeRef tree, RtXMLNodeRef, const AutoDict &, void *refcon) {
    RtTreeRef first = RtTreeGetFirstChild(tree);
    if (!first) return RTSTR("Can't parse <faultstring>");
    AutoString text;
    *text.getStringPtr() = copyXMLStringFromTree(first);
    static_cast<FaultContext *>(refcon)->fFaultString.setString(text.getString());
    return nullptr;
}

RtStringRef _parseFault(RtTreeRef tree, RtXMLNodeRef, const AutoDict &scope, void *refcon) {
    if (gHVDebugVerbose) _hvLogf("in _parseFault\n");
    auto *context = static_cast<ReplyContext *>(refcon);
    FaultContext fault;
    //                                 namespace                         local name            handler context
    const XMLElementInterrogator rows[] = {
        {HV_SOAP_1999_ENVELOPE_NAMESPACE, RTSTR("faultcode"), _parseFaultCode, &fault},
        {HV_SOAP_1999_ENVELOPE_NAMESPACE, RTSTR("faultstring"), _parseFaultString, &fault},
        {HV_SOAP_2001_ENVELOPE_NAMESPACE, RTSTR("faultcode"), _parseFaultCode, &fault},
        {HV_SOAP_2001_ENVELOPE_NAMESPACE, RTSTR("faultstring"), _parseFaultString, &fault},
        {nullptr, RTSTR("faultcode"), _parseFaultCode, &fault},
        {nullptr, RTSTR("faultstring"), _parseFaultString, &fault}};
    AutoString error;
    *error.getStringPtr() = xmlInterrogateElements(tree, scope, rows, 6, nullptr);
    if (!error.isNull()) {
        fault.fCode = HalvoResult::kTransportError;
        fault.fFaultString.setString(error.getString());
    }
    if (fault.fFaultString.isNull()) fault.fFaultString.setString(RTSTR("Server Fault"));
    context->fResult->becomeFault(fault.fFaultString.getString(), fault.fCode, nullptr,
                                  kRtStringEncodingUTF8);
    return nullptr;
}

RtStringRef _parseMethodReply(RtTreeRef tree, RtXMLNodeRef, const AutoDict &scope, void *refcon) {
    if (gHVDebugVerbose) _hvLogf("in _parseMethodReply\n");
    auto *context = static_cast<ReplyContext *>(refcon);
    SOAPDecoder *decoder = context->fDecoder.get();
    HalvoResult *result = context->fResult;

    AutoDict parameters(newMutableDict());
    AutoString error;
    decoder->enter(tree);
    for (RtTreeRef child = RtTreeGetFirstChild(tree); child && error.isNull();
         child = RtTreeGetNextSibling(child)) {
        RtTypeRef value = decoder->parseSOAPType(child, scope, error);
        // A later parameter of the same name replaces an earlier one.
        if (error.isNull()) parameters.addValue(getElementName(child), value);
        safeRtRelease(value);
    }
    decoder->leave();
    if (!error.isNull()) {
        result->becomeFault(error.getString(), kSOAPParseStreamError);
        return error.getRetainedString();
    }

    RtTypeRef resultName = context->fHandler->getProperty(kHVMethodInvocationResultParameterName);
    if (resultName) {
        RtTypeRef value = RtGetTypeID(resultName) == RtStringGetTypeID()
                              ? parameters.getValue(static_cast<RtStringRef>(resultName))
                              : nullptr;
        if (value) {
            result->addToResult(kHVMethodInvocationResult, value);
        } else {
            AutoString message("Can't find method result parameter '%@' in reply", resultName);
            result->becomeFault(message.getString(), kSOAPParseStreamError);
        }
    } else {
        result->addToResult(kHVMethodInvocationResult, parameters.getImmutableDict());
    }
    // Every parameter also stands in the result under its own name, even after a missing one.
    DictIterator names(parameters);
    while (names.hasMoreElements()) {
        RtTypeRef name = names.nextElement();
        result->addToResult(static_cast<RtStringRef>(name), names.getValue(name));
    }
    return nullptr;
}

RtStringRef _parseSOAPHeader(RtTreeRef tree, RtXMLNodeRef, const AutoDict &, void *refcon) {
    if (gHVDebugVerbose) _hvLogf("in _parseSOAPHeader\n");
    AutoArray headers;
    for (RtTreeRef child = RtTreeGetFirstChild(tree); child; child = RtTreeGetNextSibling(child))
        headers.appendValue(child);
    if (headers.getCount() > 0)
        static_cast<ReplyContext *>(refcon)->fResult->addToResult(kHVSOAPMessageHeaders,
                                                                  headers.getImmutableArray());
    return nullptr;
}

RtStringRef _parseSOAPBody(RtTreeRef tree, RtXMLNodeRef, const AutoDict &scope, void *refcon) {
    if (gHVDebugVerbose) _hvLogf("in _parseSOAPBody\n");
    auto *context = static_cast<ReplyContext *>(refcon);
    context->fBody = tree;
    context->fDecoder = std::make_unique<SOAPDecoder>(context->fHandler, tree);
    RtStringRef methodNS = context->fHandler->getMethodNamespace();
    AutoString response("%@Response", context->fMethodName);
    RtStringRef name = context->fMethodName;
    // Each child is dispatched on its own: a fault and a response are both read, in order.
    //                                 namespace                        local name          handler context
    const XMLElementInterrogator rows[] = {
        {HV_SOAP_1999_ENVELOPE_NAMESPACE, RTSTR("Fault"), _parseFault, context},
        {HV_SOAP_2001_ENVELOPE_NAMESPACE, RTSTR("Fault"), _parseFault, context},
        {methodNS, response.getString(), _parseMethodReply, context},
        {methodNS, name, _parseMethodReply, context},
        {nullptr, response.getString(), _parseMethodReply, context},
        {nullptr, name, _parseMethodReply, context}};
    return xmlInterrogateElements(tree, scope, rows, 6, nullptr);
}

RtStringRef _parseSOAPEnvelope(RtTreeRef tree, RtXMLNodeRef, const AutoDict &scope, void *refcon) {
    if (gHVDebugVerbose) _hvLogf("in _parseSOAPEnvelope\n");
    // Header and Body must be in the envelope namespace: no any-namespace rows here.
    //                                 namespace                        local name           handler context
    const XMLElementInterrogator rows[] = {
        {HV_SOAP_1999_ENVELOPE_NAMESPACE, RTSTR("Header"), _parseSOAPHeader, refcon},
        {HV_SOAP_1999_ENVELOPE_NAMESPACE, RTSTR("Body"), _parseSOAPBody, refcon},
        {HV_SOAP_2001_ENVELOPE_NAMESPACE, RTSTR("Header"), _parseSOAPHeader, refcon},
        {HV_SOAP_2001_ENVELOPE_NAMESPACE, RTSTR("Body"), _parseSOAPBody, refcon}};
    return xmlInterrogateElements(tree, scope, rows, 4, nullptr);
}

} // namespace

void makeRootScope(RtTreeRef document, RtStringRef methodNamespace, AutoDict &scope) {
    xmlGetElementNamespaces(document, scope);
    if (!scope.getValue(RTSTR("__defaultNamespace")))
        scope.addValue(RTSTR("__defaultNamespace"), methodNamespace ? methodNamespace : RTSTR(""));
}

void SOAPProtocolHandler::parseReply(HalvoResult *result, RtStringRef methodName, RtTreeRef tree) {
    if (gHVDebugVerbose) dumpXMLTree(tree, 0);
    AutoDict scope;
    makeRootScope(tree, getMethodNamespace(), scope);
    ReplyContext context = {this, methodName, result, nullptr, nullptr};
    // A root that is not a SOAP 1.1 Envelope matches no row: no value and no fault.
    //                                 namespace                        local name             handler context
    const XMLElementInterrogator rows[] = {
        {HV_SOAP_1999_ENVELOPE_NAMESPACE, RTSTR("Envelope"), _parseSOAPEnvelope, &context},
        {HV_SOAP_2001_ENVELOPE_NAMESPACE, RTSTR("Envelope"), _parseSOAPEnvelope, &context}};
    AutoString error;
    *error.getStringPtr() = xmlInterrogateElements(tree, scope, rows, 2, nullptr);
    if (!error.isNull() && !result->isFault()) result->becomeFault(error.getString(), kSOAPParseStreamError);
}

void SOAPHalvoMethodInvocation::parseReply(HalvoResult *result, RtTreeRef tree) {
    SOAPProtocolHandler handler(fProtocolKind);
    handler.setParent(this);
    handler.parseReply(result, fMethodName, tree);
}

RtDictionaryRef SOAPProtocolHandler::parseReplyData(RtStringRef methodName, RtDataRef data,
                                                    RtStringEncoding encoding, AutoString *errorString) {
    HalvoResult result;
    AutoString localError;
    AutoString *error = errorString ? errorString : &localError;
    error->setString(nullptr);
    RtTreeRef tree = parseXML(data, true, encoding, error->getStringPtr());
    if (tree) {
        parseReply(&result, methodName, tree);
        RtRelease(tree);
    } else {
        result.becomeFault(error->isNull() ? RTSTR("Could not parse XML.") : error->getString(),
                           kSOAPParseStreamError);
    }
    return result.copyDictionary();
}

RtDictionaryRef hvDebugSOAPResult(RtStringRef protocolKind, RtTreeRef tree) {
    AutoDict agreement;
    SOAPHalvoMethodInvocation invocation(protocolKind, agreement.getImmutableDict());
    HalvoResult result;
    invocation.parseReply(&result, tree);
    return result.copyDictionary();
}
