// The SOAP server side: request documents into request dictionaries, replies and faults out.
// No networking: the caller moves the bytes.
#include "HalvoResult.h"
#include "SOAPCodec.h"

namespace {

// What the request tables share (their refcon): the handler, the request dictionary being
// filled and the Body, once reached.
struct RequestContext {
    SOAPProtocolHandler *fHandler;
    AutoDict *fRequest;
    RtTreeRef fBody;
};

RtStringRef _parseReqSOAPHeader(RtTreeRef tree, RtXMLNodeRef, const AutoDict &, void *refcon) {
    if (gHVDebugVerbose) _hvLogf("in _parseReqSOAPHeader\n");
    static_cast<RequestContext *>(refcon)->fRequest->addValue(kHVSOAPMessageHeaders, tree);
    return nullptr;
}

RtStringRef _parseReqSOAPBody(RtTreeRef tree, RtXMLNodeRef, const AutoDict &scope, void *refcon) {
    if (gHVDebugVerbose) _hvLogf("in _parseReqSOAPBody\n");
    auto *context = static_cast<RequestContext *>(refcon);
    context->fBody = tree;
    RtTreeRef method = RtTreeGetFirstChild(tree);
    if (!method) return RTSTR("Body missing method");

    AutoDict methodScope(scope);
    xmlGetElementNamespaces(method, methodScope);
    AutoString methodNS;
    AutoString methodName;
    xmlNamespaceQualify(methodScope, getElementName(method), methodNS.getStringPtr(),
                        methodName.getStringPtr());
    AutoDict *request = context->fRequest;
    request->addValue(kHVSOAPMethodNamespaceURI, methodNS.getString());
    request->addValue(requestMethodNameKey(), methodName.getString());

    SOAPDecoder decoder(context->fHandler, tree);
    AutoDict parameters(newMutableDict());
    AutoArray order;
    AutoString error;
    decoder.enter(method);
    for (RtTreeRef child = RtTreeGetFirstChild(method); child && error.isNull();
         child = RtTreeGetNextSibling(child)) {
        RtStringRef name = getElementName(child);
        AutoDict childScope(methodScope);
        xmlGetElementNamespaces(child, childScope);
        RtTypeRef value = context->fHandler->deserilizeOverride(child, childScope, name, tree);
        if (!value) value = decoder.parseSOAPType(child, methodScope, error);
        if (error.isNull()) {
            parameters.addValue(name, value);
            order.appendValue(name);
        }
        safeRtRelease(value);
    }
    decoder.leave();
    if (!error.isNull()) return error.getRetainedString();
    request->addValue(requestParametersKey(), parameters.getImmutableDict());
    request->addValue(requestParameterOrderKey(), order.getImmutableArray());
    return nullptr;
}

RtStringRef _parseReqSOAPEnvelope(RtTreeRef tree, RtXMLNodeRef, const AutoDict &scope, void *refcon) {
    if (gHVDebugVerbose) _hvLogf("in _parseReqSOAPEnvelope\n");
    //                                 namespace                        local name           handler context
    const XMLElementInterrogator rows[] = {
        {HV_SOAP_1999_ENVELOPE_NAMESPACE, RTSTR("Header"), _parseReqSOAPHeader, refcon},
        {HV_SOAP_1999_ENVELOPE_NAMESPACE, RTSTR("Body"), _parseReqSOAPBody, refcon},
        {HV_SOAP_2001_ENVELOPE_NAMESPACE, RTSTR("Header"), _parseReqSOAPHeader, refcon},
        {HV_SOAP_2001_ENVELOPE_NAMESPACE, RTSTR("Body"), _parseReqSOAPBody, refcon}};
    return xmlInterrogateElements(tree, scope, rows, 4, nullptr);
}

// The encoding of documents written for a request: its "/HVTextEncoding", else UTF-8.
RtStringEncoding replyEncoding(RtDictionaryRef request) {
    if (!request) return kRtStringEncodingUTF8;
    return static_cast<RtStringEncoding>(
        getDictNumber(request, requestTextEncodingKey(), static_cast<int>(kRtStringEncodingUTF8)));
}

RtTypeRef requestValue(RtDictionaryRef request, RtStringRef key) {
    return request ? RtDictionaryGetValue(request, key) : nullptr;
}

} // namespace

RtDictionaryRef SOAPProtocolHandler::parsePostData(RtDataRef data, RtStringEncoding encoding,
                                                   AutoString *errorString) {
    AutoString localError;
    AutoString *error = errorString ? errorString : &localError;
    error->setString(nullptr);
    RtTreeRef tree = parseXML(data, true, encoding, error->getStringPtr(), nullptr, nullptr,
                              xmlReadOptions(readValueRules(this)));
    if (!tree) return nullptr;

    AutoDict request(newMutableDict());
    RequestContext context = {this, &request, nullptr};
    AutoDict scope;
    makeRootScope(tree, getMethodNamespace(), scope);
    //                                 namespace                        local name             handler context
    const XMLElementInterrogator rows[] = {
        {HV_SOAP_1999_ENVELOPE_NAMESPACE, RTSTR("Envelope"), _parseReqSOAPEnvelope, &context},
        {HV_SOAP_2001_ENVELOPE_NAMESPACE, RTSTR("Envelope"), _parseReqSOAPEnvelope, &context}};
    AutoString failure;
    *failure.getStringPtr() = xmlInterrogateElements(tree, scope, rows, 2, nullptr);
    RtRelease(tree);
    if (!failure.isNull()) {
        // The reason reaches only the debug output, not the caller.
        _hvLogf("#### Parse Post Error: %@", failure.getString());
        return nullptr;
    }
    return request.copyDict();
}

RtDataRef SOAPProtocolHandler::createReply(RtDictionaryRef context, RtTypeRef returnValue) {
    fWriteCheck.begin(readValueRules(this), "result");
    XMLBuffer buffer(replyEncoding(context));
    buffer.addTo(1, RTSTR("<SOAP-ENV:Envelope"));
    if (!writeEnvelopeNamespaces(&buffer, fProtocolKind)) return nullptr;
    buffer.addTo(3, RTSTR("<SOAP-ENV:Body>"));
    RtTypeRef methodName = requestValue(context, requestMethodNameKey());
    RtTypeRef methodNS = requestValue(context, kHVSOAPMethodNamespaceURI);
    AutoString encodedNS;
    if (fWriteCheck.fRules.exact && RtGetTypeID(methodNS) == RtStringGetTypeID()) {
        // The namespace came decoded from the request; as an attribute value it is encoded again.
        *encodedNS.getStringPtr() = exactEncodeString(static_cast<RtStringRef>(methodNS), true);
        methodNS = encodedNS.getString();
    }
    if (methodNS)
        buffer.addTo(4, RTSTR("<m:%@Response xmlns:m=\"%@\">"), methodName, methodNS);
    else
        buffer.addTo(4, RTSTR("<%@Response>"), methodName);
    serialize(&buffer, 5, RTSTR("Result"), returnValue);
    if (methodNS)
        buffer.addTo(4, RTSTR("</m:%@Response>"), methodName);
    else
        buffer.addTo(4, RTSTR("</%@Response>"), methodName);
    buffer.addTo(3, RTSTR("</SOAP-ENV:Body>"));
    buffer.addTo(1, RTSTR("</SOAP-ENV:Envelope>"));
    if (fWriteCheck.refused()) {
        // In exact mode a value that cannot travel turns the reply into a fault that says so.
        AutoString refusal(fWriteCheck.getRefusal());
        AutoDict fault(newMutableDict());
        fault.addValue(kHVFaultString, refusal.getString());
        return createFault(context, fault.getImmutableDict());
    }
    return buffer.copyData();
}

RtDataRef SOAPProtocolHandler::createFault(RtDictionaryRef context, RtDictionaryRef faultDict) {
    XMLBuffer buffer(replyEncoding(context));
    buffer.addTo(1, RTSTR("<SOAP-ENV:Envelope"));
    if (!writeEnvelopeNamespaces(&buffer, fProtocolKind)) return nullptr;
    buffer.addTo(3, RTSTR("<SOAP-ENV:Body>"));
    buffer.addTo(4, RTSTR("<SOAP-ENV:Fault>"));
    // The code is always the client code; the dictionary's code and extra are not written.
    buffer.addTo(5, RTSTR("<faultcode>SOAP-ENV:Client</faultcode>"));
    RtTypeRef faultString = faultDict ? RtDictionaryGetValue(faultDict, kHVFaultString) : nullptr;
    if (readValueRules(this).exact) {
        // Encoded like any text, with what XML cannot carry replaced: a fault always goes out.
        AutoString sendable;
        *sendable.getStringPtr() = copySendableText(RtGetTypeID(faultString) == RtStringGetTypeID()
                                                        ? static_cast<RtStringRef>(faultString)
                                                        : RTSTR("Unknown Fault"));
        AutoString text;
        *text.getStringPtr() = exactEncodeString(sendable.getString());
        buffer.addTo(5, RTSTR("<faultstring>%@</faultstring>"), text.getString());
    } else {
        // Inserted as it stands, without entity encoding.
        buffer.addTo(5, RTSTR("<faultstring>%@</faultstring>"),
                     faultString ? faultString : RTSTR("Unknown Fault"));
    }
    buffer.addTo(4, RTSTR("</SOAP-ENV:Fault>"));
    buffer.addTo(3, RTSTR("</SOAP-ENV:Body>"));
    buffer.addTo(1, RTSTR("</SOAP-ENV:Envelope>"));
    return buffer.copyData();
}
