// The SOAP reply reader: document, Envelope, Header and Body tables, faults and the method's
// response element, into a HalvoResult. Table handlers return NULL to go on, or a message the
// caller owns that ends the walk and travels up unchanged.
#include "HalvoResult.h"
#include "SOAPCodec.h"

#include <memory>
#include <optional>

// ---- Reading while the document is parsed ---------------------------------------------------------
// The tree reader offers each Body (of a SOAP Envelope) its children as they complete, and each
// parameter element of a method element (a Body child the reply's tables take as the response)
// its children as they complete. The Body's decoder keeps an index of the children an href can
// find, decoding a target as soon as it completes when it holds no reference of its own and
// letting the tree drop it; a parameter's children are decoded as they complete and dropped
// likewise. Everything else (Header, Fault, the method elements and whatever references hold)
// stays in the tree, and parseReply then reads that tree with the decoders, which take the stored
// values where the children were. Which elements qualify is decided by the same tables and
// scopes parseReply uses.
struct SOAPReplyStream {
    SOAPProtocolHandler *fHandler;
    RtStringRef fMethodName;
    AutoString fResponseName;
    AutoDict fRootScope;
    struct Body {
        explicit Body(const AutoDict &scope) : fScope(scope) {}
        AutoDict fScope;
        std::unique_ptr<SOAPDecoder> fDecoder;
    };
    std::unordered_map<RtTreeRef, std::unique_ptr<Body>> fBodies;
    std::unordered_map<RtTreeRef, SOAPDecoder *> fParents; // parameter elements being streamed
    // The method element last asked about, whether the Body's table takes it as the response,
    // and its scope.
    RtTreeRef fMethod = nullptr;
    bool fMethodMatches = false;
    std::optional<AutoDict> fMethodScope;
    bool fTookAny = false;

    SOAPReplyStream(SOAPProtocolHandler *handler, RtStringRef methodName)
        : fHandler(handler), fMethodName(methodName), fResponseName("%@Response", methodName) {
        RtStringRef methodNS = handler->getMethodNamespace();
        fRootScope.addValue(RTSTR("__defaultNamespace"), methodNS ? methodNS : RTSTR(""));
    }
    // The decoder of a Body, for the walk that follows the parse (NULL when it was not streamed).
    SOAPDecoder *decoderFor(RtTreeRef body) {
        auto found = fBodies.find(body);
        return found == fBodies.end() ? nullptr : found->second->fDecoder.get();
    }
};

namespace {

// The row of rows that xmlInterrogateElements would call for child (an element) in the scope of
// its parent, or -1; scope receives the child's own declarations.
int matchingRow(RtTreeRef child, AutoDict &scope, const XMLElementInterrogator *rows, int count) {
    RtXMLNodeRef node = RtXMLTreeGetNode(child);
    if (!node || RtXMLNodeGetTypeCode(node) != kRtXMLNodeTypeElement) return -1;
    xmlGetElementNamespaces(child, scope);
    RtStringRef name = RtXMLNodeGetString(node);
    if (!name) return -1;
    RtStringRef ns = nullptr;
    RtStringRef local = nullptr;
    xmlNamespaceQualify(scope, name, &ns, &local);
    int matched = -1;
    for (int row = 0; row < count && matched < 0; row++)
        if ((!rows[row].elemNamespace || rtstrEquivilent(rows[row].elemNamespace, ns)) &&
            rtstrEquivilent(rows[row].elemName, local))
            matched = row;
    safeRtRelease(ns);
    safeRtRelease(local);
    return matched;
}

// The row of the Body's table (below) that reads child: 0 and 1 a fault, 2 to 5 the method's
// response, -1 none.
int bodyRow(SOAPReplyStream *stream, RtTreeRef child, AutoDict &scope) {
    RtStringRef methodNS = stream->fHandler->getMethodNamespace();
    const XMLElementInterrogator rows[] = {
        {HV_SOAP_1999_ENVELOPE_NAMESPACE, RTSTR("Fault"), nullptr, nullptr},
        {HV_SOAP_2001_ENVELOPE_NAMESPACE, RTSTR("Fault"), nullptr, nullptr},
        {methodNS, stream->fResponseName.getString(), nullptr, nullptr},
        {methodNS, stream->fMethodName, nullptr, nullptr},
        {nullptr, stream->fResponseName.getString(), nullptr, nullptr},
        {nullptr, stream->fMethodName, nullptr, nullptr}};
    return matchingRow(child, scope, rows, 6);
}

bool _acceptStreamed(RtTreeRef element, void *info) {
    auto *stream = static_cast<SOAPReplyStream *>(info);
    RtTreeRef parent = RtTreeGetParent(element);
    RtTreeRef grandparent = parent ? RtTreeGetParent(parent) : nullptr;
    if (!grandparent) return false;
    if (!RtTreeGetParent(grandparent)) {
        // A child of the root element: a Body when the envelope's tables would read it as one.
        // The rows of parseReply's and _parseSOAPEnvelope's tables.
        const XMLElementInterrogator envelopeRows[] = {
            {HV_SOAP_1999_ENVELOPE_NAMESPACE, RTSTR("Envelope"), nullptr, nullptr},
            {HV_SOAP_2001_ENVELOPE_NAMESPACE, RTSTR("Envelope"), nullptr, nullptr}};
        const XMLElementInterrogator childRows[] = {
            {HV_SOAP_1999_ENVELOPE_NAMESPACE, RTSTR("Header"), nullptr, nullptr},
            {HV_SOAP_1999_ENVELOPE_NAMESPACE, RTSTR("Body"), nullptr, nullptr},
            {HV_SOAP_2001_ENVELOPE_NAMESPACE, RTSTR("Header"), nullptr, nullptr},
            {HV_SOAP_2001_ENVELOPE_NAMESPACE, RTSTR("Body"), nullptr, nullptr}};
        AutoDict scope(stream->fRootScope);
        if (matchingRow(parent, scope, envelopeRows, 2) < 0) return false;
        int row = matchingRow(element, scope, childRows, 4);
        if (row != 1 && row != 3) return false;
        auto body = std::make_unique<SOAPReplyStream::Body>(scope);
        body->fDecoder = std::make_unique<SOAPDecoder>(stream->fHandler, element);
        body->fDecoder->beginStreaming();
        stream->fBodies.emplace(element, std::move(body));
        return true;
    }
    // A parameter of the method element.
    auto body = stream->fBodies.find(grandparent);
    if (body == stream->fBodies.end()) return false;
    if (stream->fMethod != parent) {
        stream->fMethod = parent;
        stream->fMethodScope.emplace(body->second->fScope);
        stream->fMethodMatches = bodyRow(stream, parent, *stream->fMethodScope) >= 2;
    }
    if (!stream->fMethodMatches) return false;
    AutoDict scope(*stream->fMethodScope);
    xmlGetElementNamespaces(element, scope);
    body->second->fDecoder->streamChildrenOf(element, scope);
    stream->fParents.emplace(element, body->second->fDecoder.get());
    return true;
}

bool _consumeStreamed(RtTreeRef child, void *info) {
    auto *stream = static_cast<SOAPReplyStream *>(info);
    RtTreeRef parent = RtTreeGetParent(child);
    bool taken = false;
    auto body = stream->fBodies.find(parent);
    if (body != stream->fBodies.end()) {
        // A child the tree may drop must not be taken for a later one built where it was.
        if (child == stream->fMethod) stream->fMethod = nullptr;
        AutoDict scope(body->second->fScope);
        bool dispatched = bodyRow(stream, child, scope) >= 0;
        taken = body->second->fDecoder->streamBodyChild(child, body->second->fScope, dispatched);
    } else {
        auto streamed = stream->fParents.find(parent);
        if (streamed != stream->fParents.end()) taken = streamed->second->streamChild(parent, child);
    }
    stream->fTookAny = stream->fTookAny || taken;
    return taken;
}

// What every handler of one reply shares (the tables' refcon).
struct ReplyContext {
    SOAPProtocolHandler *fHandler;
    RtStringRef fMethodName;
    HalvoResult *fResult;
    RtTreeRef fBody; // anchors (href targets) are looked for among its children
    std::unique_ptr<SOAPDecoder> fDecoder;
    SOAPReplyStream *fStream; // the reading that built the tree, or NULL
    SOAPDecoder *fStreamDecoder;
    bool fBailedOut;
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
    SOAPDecoder *decoder = context->fStreamDecoder ? context->fStreamDecoder : context->fDecoder.get();
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
    SOAPDecoder *streamed = context->fStream ? context->fStream->decoderFor(tree) : nullptr;
    if (streamed) {
        context->fDecoder.reset();
        context->fStreamDecoder = streamed;
    } else {
        context->fDecoder = std::make_unique<SOAPDecoder>(context->fHandler, tree);
        context->fStreamDecoder = nullptr;
    }
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
    RtStringRef error = xmlInterrogateElements(tree, scope, rows, 6, nullptr);
    if (streamed && streamed->bailedOut()) context->fBailedOut = true;
    return error;
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

bool SOAPProtocolHandler::parseReply(HalvoResult *result, RtStringRef methodName, RtTreeRef tree,
                                     SOAPReplyStream *stream) {
    if (gHVDebugVerbose) dumpXMLTree(tree, 0);
    AutoDict scope;
    makeRootScope(tree, getMethodNamespace(), scope);
    ReplyContext context = {this, methodName, result, nullptr, nullptr, stream, nullptr, false};
    // A root that is not a SOAP 1.1 Envelope matches no row: no value and no fault.
    //                                 namespace                        local name             handler context
    const XMLElementInterrogator rows[] = {
        {HV_SOAP_1999_ENVELOPE_NAMESPACE, RTSTR("Envelope"), _parseSOAPEnvelope, &context},
        {HV_SOAP_2001_ENVELOPE_NAMESPACE, RTSTR("Envelope"), _parseSOAPEnvelope, &context}};
    AutoString error;
    *error.getStringPtr() = xmlInterrogateElements(tree, scope, rows, 2, nullptr);
    if (context.fBailedOut) return false;
    if (!error.isNull() && !result->isFault()) result->becomeFault(error.getString(), kSOAPParseStreamError);
    return true;
}

bool SOAPProtocolHandler::readReply(HalvoResult *result, RtStringRef methodName, RtDataRef data,
                                    bool forceXML, RtStringEncoding charset, RtStringRef *errorString) {
    // Overrides are handed tree positions, and the debug switches print the tree or the
    // decoder's steps: those need the whole tree, read the whole way.
    if (!gHVDebug && !gHVDebugVerbose && !hasDeserializationOverrides()) {
        SOAPReplyStream stream(this, methodName);
        RtXMLTreeStreamContext streaming = {_acceptStreamed, _consumeStreamed, &stream};
        RtTreeRef tree = parseXML(data, forceXML, charset, errorString, nullptr, &streaming,
                                  xmlReadOptions(readValueRules(this)));
        if (!tree) return false;
        // Only values decoded ahead can turn out not to fit; the result is put back then.
        RtDictionaryRef saved = stream.fTookAny ? result->copyDictionary() : nullptr;
        bool done = parseReply(result, methodName, tree, &stream);
        if (!done && saved) result->restore(saved);
        safeRtRelease(saved);
        RtRelease(tree);
        if (done) return true;
    }
    RtTreeRef tree = parseXML(data, forceXML, charset, errorString, nullptr, nullptr,
                              xmlReadOptions(readValueRules(this)));
    if (!tree) return false;
    parseReply(result, methodName, tree);
    RtRelease(tree);
    return true;
}

void SOAPHalvoMethodInvocation::parseReply(HalvoResult *result, RtTreeRef tree) {
    SOAPProtocolHandler handler(fProtocolKind);
    handler.setParent(this);
    handler.parseReply(result, fMethodName, tree);
}

bool SOAPHalvoMethodInvocation::readReply(HalvoResult *result, RtDataRef data, bool forceXML,
                                          RtStringEncoding charset, RtStringRef *errorString) {
    SOAPProtocolHandler handler(fProtocolKind);
    handler.setParent(this);
    return handler.readReply(result, fMethodName, data, forceXML, charset, errorString);
}

RtDictionaryRef SOAPProtocolHandler::parseReplyData(RtStringRef methodName, RtDataRef data,
                                                    RtStringEncoding encoding, AutoString *errorString) {
    HalvoResult result;
    AutoString localError;
    AutoString *error = errorString ? errorString : &localError;
    error->setString(nullptr);
    if (!readReply(&result, methodName, data, true, encoding, error->getStringPtr()))
        result.becomeFault(error->isNull() ? RTSTR("Could not parse XML.") : error->getString(),
                           kSOAPParseStreamError);
    return result.copyDictionary();
}

RtDictionaryRef hvDebugSOAPResult(RtStringRef protocolKind, RtTreeRef tree) {
    AutoDict agreement;
    SOAPHalvoMethodInvocation invocation(protocolKind, agreement.getImmutableDict());
    HalvoResult result;
    invocation.parseReply(&result, tree);
    return result.copyDictionary();
}
