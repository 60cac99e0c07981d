// The SOAP writers: request envelopes and SOAP-encoded values, for both schema flavours.
// Line formats are RTSTR constants, so each call site keeps its parsed format.
#include "SOAPCodec.h"

#include <charconv>
#include <cmath>
#include <string>

namespace {

// The method element's namespace when no kHVSOAPMethodNamespaceURI is set.
RtStringRef placeholderMethodNamespace() {
    return RTSTR("urn:halvos:soap");
}

RtStringRef methodNamespaceProperty(RtTypeRef value) {
    return RtGetTypeID(value) == RtStringGetTypeID() ? static_cast<RtStringRef>(value)
                                                     : placeholderMethodNamespace();
}

// Record members whose names are empty or begin with '/' are the record's own settings.
bool isValidKey(RtTypeRef key) {
    if (RtGetTypeID(key) != RtStringGetTypeID()) return false;
    RtStringRef name = static_cast<RtStringRef>(key);
    return RtStringGetLength(name) > 0 && RtStringGetCharacterAtIndex(name, 0) != '/';
}

// The override's text with every "%@" replaced by the element name, pass after pass until
// nothing is left to replace. A name holding "%@" itself would never finish, so it gets one pass.
RtStringRef copyOverrideText(RtStringRef text, RtStringRef name) {
    RtMutableStringRef result = RtStringCreateMutableCopy(kRtAllocatorDefault, 0, text);
    bool once = RtStringFind(name, RTSTR("%@"), 0).location != kRtNotFound;
    for (int pass = 0; pass < 64; pass++) {
        RtIndex replaced =
            RtStringFindAndReplace(result, RTSTR("%@"), name, RtRangeMake(0, RtStringGetLength(result)), 0);
        if (replaced == 0 || once) break;
    }
    return result;
}

} // namespace

bool writeEnvelopeNamespaces(XMLBuffer *buffer, RtStringRef protocolKind) {
    // The two orders differ on purpose: SOAP-ENC closes the 1999 tag, SOAP-ENV the 2001 one.
    if (protocolKind == kHVSOAP1999Protocol) {
        buffer->addTo(2, RTSTR("xmlns:xsd=\"%@\""), HV_SOAP_1999_SCHEMA_NAMESPACE);
        buffer->addTo(2, RTSTR("xmlns:xsi=\"%@\""), HV_SOAP_1999_SCHEMA_INSTANCE_NAMESPACE);
        buffer->addTo(2, RTSTR("SOAP-ENV:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\""));
        buffer->addTo(2, RTSTR("xmlns:SOAP-ENV=\"%@\""), HV_SOAP_1999_ENVELOPE_NAMESPACE);
        buffer->addTo(2, RTSTR("xmlns:SOAP-ENC=\"%@\">"), HV_SOAP_1999_ENCODING_NAMESPACE);
        return true;
    }
    if (protocolKind == kHVSOAP2001Protocol) {
        buffer->addTo(2, RTSTR("xmlns:xsd=\"%@\""), HV_SOAP_2001_SCHEMA_NAMESPACE);
        buffer->addTo(2, RTSTR("xmlns:xsi=\"%@\""), HV_SOAP_2001_SCHEMA_INSTANCE_NAMESPACE);
        buffer->addTo(2, RTSTR("xmlns:SOAP-ENC=\"%@\""), HV_SOAP_2001_ENCODING_NAMESPACE);
        buffer->addTo(2, RTSTR("SOAP-ENV:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\""));
        buffer->addTo(2, RTSTR("xmlns:SOAP-ENV=\"%@\">"), HV_SOAP_2001_ENVELOPE_NAMESPACE);
        return true;
    }
    return false;
}

// ---- SOAPHalvoMethodInvocation ------------------------------------------------------------------

RtDataRef SOAPHalvoMethodInvocation::constructMessage(AutoString &) {
    // The content type is left alone: the transport then sends "text/xml".
    SOAPProtocolHandler handler(fProtocolKind);
    handler.setParent(this);
    RtDataRef body = handler.createRequest(fMethodName, fParameters, fParameterOrder, nullptr);
    fRequestRefusal.setString(handler.getRefusal());
    return body;
}

RtStringRef SOAPHalvoMethodInvocation::getMethodNamespace() {
    return methodNamespaceProperty(getProperty(kHVSOAPMethodNamespaceURI));
}

// ---- SOAPProtocolHandler --------------------------------------------------------------------------

RtStringRef SOAPProtocolHandler::getMethodNamespace() {
    return methodNamespaceProperty(getProperty(kHVSOAPMethodNamespaceURI));
}

RtStringRef SOAPProtocolHandler::heterogeneousArrayTypeName() {
    return fProtocolKind == kHVSOAP1999Protocol ? RTSTR("ur-type") : RTSTR("anyType");
}

RtStringRef SOAPProtocolHandler::dateTimeEncoding() {
    return fProtocolKind == kHVSOAP1999Protocol ? RTSTR("timeInstant") : RTSTR("dateTime");
}

RtDataRef SOAPProtocolHandler::createRequest(RtStringRef methodName, RtDictionaryRef parameters,
                                             RtArrayRef order, RtDictionaryRef /*extras*/) {
    fWriteCheck.begin(readValueRules(this), "methodName");
    // In exact mode the method element's name must be one XML can carry.
    if (fWriteCheck.fRules.exact && !isXMLName(methodName))
        fWriteCheck.refuse(quotedText(methodName) + " is not a valid XML element name");
    fWriteCheck.begin(fWriteCheck.fRules, "params");
    XMLBuffer buffer(kRtStringEncodingUTF8);
    buffer.addTo(1, RTSTR("<SOAP-ENV:Envelope"));
    if (!writeEnvelopeNamespaces(&buffer, fProtocolKind)) return nullptr;

    // Header entries are the caller's own XML, written as they stand.
    if (RtTypeRef headers = getProperty(kHVSOAPMessageHeaders)) {
        RtTypeID type = RtGetTypeID(headers);
        if (type == RtStringGetTypeID()) {
            buffer.addTo(3, RTSTR("<SOAP-ENV:Header>"));
            buffer.addTo(4, RTSTR("%@"), headers);
            buffer.addTo(3, RTSTR("</SOAP-ENV:Header>"));
        } else if (type == RtArrayGetTypeID()) {
            buffer.addTo(3, RTSTR("<SOAP-ENV:Header>"));
            ArrayIterator header(static_cast<RtArrayRef>(headers));
            while (header.hasMoreElements())
                buffer.addTo(4, RTSTR("%@"), header.nextElement());
            buffer.addTo(3, RTSTR("</SOAP-ENV:Header>"));
        } else {
            // The comment names the extra-headers key; the text is kept as it always was.
            buffer.addTo(4, RTSTR("<!-- kHVHTTPExtraHeaders requires a RtString or RtArray -->"));
        }
    }

    buffer.addTo(3, RTSTR("<SOAP-ENV:Body>"));
    RtStringRef methodNS = getMethodNamespace();
    // Identity, not text: only the library's own kHVSOAPStyleRPC selects rpc in SOAP-2001.
    bool rpc =
        fProtocolKind == kHVSOAP1999Protocol || getProperty(kHVSOAPBodyEncodingStyle) == kHVSOAPStyleRPC;
    if (rpc)
        buffer.addTo(4, RTSTR("<m:%@ xmlns:m=\"%@\">"), methodName, methodNS);
    else
        buffer.addTo(4, RTSTR("<%@ xmlns=\"%@\">"), methodName, methodNS);
    if (order) {
        ArrayIterator names(order);
        for (long index = 0; names.hasMoreElements(); index++) {
            RtStringRef name = static_cast<RtStringRef>(names.nextElement());
            fWriteCheck.enterIndex(index);
            serialize(&buffer, 5, name, parameters ? RtDictionaryGetValue(parameters, name) : nullptr);
            fWriteCheck.leave();
        }
    }
    if (rpc)
        buffer.addTo(4, RTSTR("</m:%@>"), methodName);
    else
        buffer.addTo(4, RTSTR("</%@>"), methodName);
    buffer.addTo(3, RTSTR("</SOAP-ENV:Body>"));
    // One level deeper than the opening tag; receivers never cared, and the bytes stay as they were.
    buffer.addTo(2, RTSTR("</SOAP-ENV:Envelope>"));
    return fWriteCheck.refused() ? nullptr : buffer.copyData();
}

// Whether a record has a member its writer would put out (record settings are not members).
static bool hasRecordMembers(RtDictionaryRef dict) {
    AutoArray keys(copyDictionaryKeys(dict));
    ArrayIterator key(keys);
    while (key.hasMoreElements())
        if (isValidKey(key.nextElement())) return true;
    return false;
}

bool SOAPProtocolHandler::serializeExact(XMLBuffer *buffer, int level, RtStringRef name, RtTypeRef value) {
    if (RtGetTypeID(name) != RtStringGetTypeID() || !isXMLName(name)) {
        fWriteCheck.refuse(
            (RtGetTypeID(name) == RtStringGetTypeID() ? quotedText(name) : std::string("a name")) +
            " is not a valid XML element name");
        return true;
    }
    HVTypeID kind = value ? HVGetHVTypeIDFromRtType(value) : eHVNullType;
    switch (kind) {
    case eHVNullType:
        // The schema-instance way of saying "no value", in each flavour's own spelling.
        if (fProtocolKind == kHVSOAP1999Protocol)
            buffer->addTo(level, RTSTR("<%@ xsi:null=\"1\"/>"), name);
        else
            buffer->addTo(level, RTSTR("<%@ xsi:nil=\"true\"/>"), name);
        return true;
    case eHVIntegerType: {
        int64_t number = 0;
        RtNumberGetValue(static_cast<RtNumberRef>(value), kRtNumberSInt64Type, &number);
        if (number >= INT32_MIN && number <= INT32_MAX) return false;
        buffer->addTo(level, RTSTR("<%@ xsi:type=\"xsd:long\">%s</%@>"), name, std::to_string(number).c_str(),
                      name);
        return true;
    }
    case eHVDoubleType: {
        double number = 0;
        RtNumberGetValue(static_cast<RtNumberRef>(value), kRtNumberFloat64Type, &number);
        std::string text = std::isnan(number)   ? "NaN"
                           : std::isinf(number) ? (number > 0 ? "INF" : "-INF")
                                                : shortestDouble(number);
        buffer->addTo(level, RTSTR("<%@ xsi:type=\"xsd:double\">%s</%@>"), name, text.c_str(), name);
        return true;
    }
    case eHVStringType: {
        std::string reason = unsendableCharacter(static_cast<RtStringRef>(value));
        if (!reason.empty()) {
            fWriteCheck.refuse("the string " + reason);
            return true;
        }
        RtMutableStringRef text = exactEncodeString(static_cast<RtStringRef>(value));
        buffer->addTo(level, RTSTR("<%@ xsi:type=\"xsd:string\">%@</%@>"), name, text, name);
        safeRtRelease(text);
        return true;
    }
    case eHVDictionaryType: {
        // Record settings are attribute values here: encoded so that no text breaks the tag.
        RtDictionaryRef dict = static_cast<RtDictionaryRef>(value);
        RtTypeRef type = RtDictionaryGetValue(dict, kHVRecordType);
        RtTypeRef recordNS = RtDictionaryGetValue(dict, kHVRecordNamespaceURI);
        // A record without a declared type gets no made-up type name: its member elements say
        // what it is. Only an empty one is typed, with the encoding's own struct type, so that
        // it does not read as null.
        AutoString typeAttribute;
        AutoString extra;
        if (RtGetTypeID(type) == RtStringGetTypeID()) {
            AutoString typeText;
            *typeText.getStringPtr() = exactEncodeString(static_cast<RtStringRef>(type), true);
            *typeAttribute.getStringPtr() = RtStringCreateWithFormat(
                kRtAllocatorDefault, nullptr, RTSTR(" xsi:type=\"%@\""), typeText.getString());
        } else if (!hasRecordMembers(dict)) {
            *typeAttribute.getStringPtr() =
                RtStringCreateCopy(kRtAllocatorDefault, RTSTR(" xsi:type=\"SOAP-ENC:Struct\""));
        }
        if (RtGetTypeID(recordNS) == RtStringGetTypeID()) {
            AutoString nsText;
            *nsText.getStringPtr() = exactEncodeString(static_cast<RtStringRef>(recordNS), true);
            *extra.getStringPtr() = RtStringCreateWithFormat(kRtAllocatorDefault, nullptr,
                                                             RTSTR(" xmlns=\"%@\""), nsText.getString());
        }
        buffer->addTo(level, RTSTR("<%@%@%@>"), name,
                      typeAttribute.isNull() ? RTSTR("") : typeAttribute.getString(),
                      extra.isNull() ? RTSTR("") : extra.getString());
        writeRecordMembers(buffer, level, dict);
        buffer->addTo(level, RTSTR("</%@>"), name);
        return true;
    }
    case eHVDataType: {
        // Each flavour's own base64 type, on one line without tabs or breaks.
        RtStringRef text = encodeBinaryDataUnwrapped(static_cast<RtDataRef>(value));
        buffer->addTo(level, RTSTR("<%@ xsi:type=\"%@\">%@</%@>"), name,
                      fProtocolKind == kHVSOAP1999Protocol ? RTSTR("SOAP-ENC:base64")
                                                           : RTSTR("xsd:base64Binary"),
                      text, name);
        safeRtRelease(text);
        return true;
    }
    case eHVBooleanType:
    case eHVDateType:
    case eHVArrayType:
        return false;
    default:
        fWriteCheck.refuse("a value of runtime type " +
                           std::to_string(static_cast<long>(RtGetTypeID(value))) + " has no SOAP form");
        return true;
    }
}

void SOAPProtocolHandler::writeRecordMembers(XMLBuffer *buffer, int level, RtDictionaryRef dict) {
    RtTypeRef order = RtDictionaryGetValue(dict, kHVRecordParameterOrder);
    AutoArray keys(RtGetTypeID(order) == RtArrayGetTypeID() ? static_cast<RtArrayRef>(RtRetain(order))
                                                            : copyDictionaryKeys(dict));
    ArrayIterator key(keys);
    while (key.hasMoreElements()) {
        RtTypeRef member = key.nextElement();
        if (!isValidKey(member)) continue;
        fWriteCheck.enterMember(member);
        serialize(buffer, level + 1, static_cast<RtStringRef>(member), RtDictionaryGetValue(dict, member));
        fWriteCheck.leave();
    }
}

void SOAPProtocolHandler::serialize(XMLBuffer *buffer, int level, RtStringRef name, RtTypeRef value) {
    // An override wins in exact mode too; it is asked once.
    RtStringRef text = nullptr;
    if (fWriteCheck.fRules.exact) {
        text = value ? seriailizeOverride(value) : nullptr;
        if (!text && serializeExact(buffer, level, name, value)) return;
    }
    if (!value) {
        buffer->addTo(level, RTSTR("<%@ xsi:type=\"nil\"/>"), name);
        return;
    }
    if (text || (!fWriteCheck.fRules.exact && (text = seriailizeOverride(value)))) {
        // The override writes the whole element; "%@" in it stands for the element name.
        RtStringRef element = copyOverrideText(text, name);
        buffer->addTo(level, RTSTR("%@"), element);
        RtRelease(element);
        RtRelease(text);
        return;
    }
    switch (HVGetHVTypeIDFromRtType(value)) {
    case eHVNullType:
        buffer->addTo(level, RTSTR("<%@ xsi:type=\"nil\"/>"), name);
        break;
    case eHVBooleanType:
        buffer->addTo(level, RTSTR("<%@ xsi:type=\"xsd:boolean\">%s</%@>"), name,
                      value == kRtBooleanTrue ? "true" : "false", name);
        break;
    case eHVIntegerType:
        buffer->addTo(level, RTSTR("<%@ xsi:type=\"xsd:int\">%d</%@>"), name,
                      getIntValue(static_cast<RtNumberRef>(value)), name);
        break;
    case eHVDoubleType: {
        // Exactly what "%.8g" prints, without the C library's slow path for it.
        char number[128];
        auto printed =
            std::to_chars(number, number + sizeof number - 1, getDoubleValue(static_cast<RtNumberRef>(value)),
                          std::chars_format::general, 8);
        *printed.ptr = '\0';
        buffer->addTo(level, RTSTR("<%@ xsi:type=\"xsd:double\">%s</%@>"), name, number, name);
        break;
    }
    case eHVStringType: {
        RtMutableStringRef text = entityEncodeString(static_cast<RtStringRef>(value));
        buffer->addTo(level, RTSTR("<%@ xsi:type=\"xsd:string\">%@</%@>"), name, text, name);
        safeRtRelease(text);
        break;
    }
    case eHVDateType: {
        RtStringRef text = isoEncodeDate(static_cast<RtDateRef>(value), false);
        buffer->addTo(level, RTSTR("<%@ xsi:type=\"xsd:%@\">%@</%@>"), name, dateTimeEncoding(), text, name);
        safeRtRelease(text);
        break;
    }
    case eHVDataType: {
        // The one choice made against the 2001 constant: anything else writes "base64".
        RtStringRef typeName = fProtocolKind == kHVSOAP2001Protocol ? RTSTR("base64Binary") : RTSTR("base64");
        RtStringRef text = encodeBinaryData(static_cast<RtDataRef>(value), level);
        buffer->addTo(level, RTSTR("<%@ xsi:type=\"xsd:%@\">%@</%@>"), name, typeName, text, name);
        safeRtRelease(text);
        break;
    }
    case eHVArrayType: {
        RtArrayRef array = static_cast<RtArrayRef>(value);
        RtIndex count = RtArrayGetCount(array);
        buffer->addTo(level, RTSTR("<%@ SOAP-ENC:arrayType=\"xsd:%@[%d]\" xsi:type=\"SOAP-ENC:Array\">"),
                      name, heterogeneousArrayTypeName(), static_cast<int>(count));
        for (RtIndex i = 0; i < count; i++) {
            RtTypeRef element = RtArrayGetValueAtIndex(array, i);
            if (element) {
                AutoString itemName("item_%d", static_cast<int>(i));
                fWriteCheck.enterIndex(static_cast<long>(i));
                serialize(buffer, level + 1, itemName.getString(), element);
                fWriteCheck.leave();
            } else {
                // Prints the level, not the index, and leaves a blank line: kept as it always was.
                buffer->addTo(level + 1, RTSTR("<!-- Missing value at index %d -->\n"), level);
            }
        }
        buffer->addTo(level, RTSTR("</%@>"), name);
        break;
    }
    case eHVDictionaryType: {
        RtDictionaryRef dict = static_cast<RtDictionaryRef>(value);
        RtTypeRef type = RtDictionaryGetValue(dict, kHVRecordType);
        RtTypeRef recordNS = RtDictionaryGetValue(dict, kHVRecordNamespaceURI);
        AutoString extra;
        if (recordNS)
            *extra.getStringPtr() =
                RtStringCreateWithFormat(kRtAllocatorDefault, nullptr, RTSTR(" xmlns=\"%@\""), recordNS);
        buffer->addTo(level, RTSTR("<%@ xsi:type=\"%@\"%@>"), name,
                      type ? type : RTSTR("SOAP-ENC:Dictionary"),
                      extra.isNull() ? RTSTR("") : extra.getString());
        RtTypeRef order = RtDictionaryGetValue(dict, kHVRecordParameterOrder);
        AutoArray keys(RtGetTypeID(order) == RtArrayGetTypeID() ? static_cast<RtArrayRef>(RtRetain(order))
                                                                : copyDictionaryKeys(dict));
        ArrayIterator key(keys);
        while (key.hasMoreElements()) {
            RtTypeRef member = key.nextElement();
            if (isValidKey(member))
                serialize(buffer, level + 1, static_cast<RtStringRef>(member),
                          RtDictionaryGetValue(dict, member));
        }
        buffer->addTo(level, RTSTR("</%@>"), name);
        break;
    }
    default:
        buffer->addTo(level, RTSTR("<%@>%@</%@> <!-- UNKNOWN PARAMETER TYPE %d -->"), name, value, name,
                      static_cast<int>(RtGetTypeID(value)));
        break;
    }
}
