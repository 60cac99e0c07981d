// The XML-RPC invocation and protocol handler.
#include "XMLRPCHalvoClosure.h"

#include "HTTPClosureSource.h"
#include "HalvoResult.h"
#include "HalvoUtils.h"

#include <cmath>
#include <string>

// ---- XMLRPCHalvoMethodInvocation: construction and agreement ---------------------------------

XMLRPCHalvoMethodInvocation::XMLRPCHalvoMethodInvocation(RtURLRef url, RtStringRef methodName)
    : fMethodName(nullptr) {
    setServiceEndpoint(url);
    fMethodName = static_cast<RtStringRef>(safeRtRetain(methodName));
}

XMLRPCHalvoMethodInvocation::XMLRPCHalvoMethodInvocation(RtDictionaryRef agreement)
    : HalvoMethodInvocation(agreement), fMethodName(nullptr) {
    RtTypeRef name = agreement ? RtDictionaryGetValue(agreement, RTSTR("MethodName")) : nullptr;
    if (RtGetTypeID(name) == RtStringGetTypeID()) fMethodName = static_cast<RtStringRef>(RtRetain(name));
}

XMLRPCHalvoMethodInvocation::~XMLRPCHalvoMethodInvocation() {
    safeRtRelease(fMethodName);
}

RtDictionaryRef XMLRPCHalvoMethodInvocation::copyAgreement() {
    RtMutableDictionaryRef dict = newMutableDict();
    if (!dict) return nullptr;
    RtDictionarySetValue(dict, RTSTR("ProtocolType"), kHVXMLRPCProtocol);
    if (fMethodName) RtDictionarySetValue(dict, RTSTR("MethodName"), fMethodName);
    populateAgreement(dict);
    return dict;
}

// ---- XMLRPCHalvoMethodInvocation: the protocol steps of a client call -------------------------
// Each step runs through a temporary handler parented to the invocation, so the invocation's
// properties and overrides reach the writer and the reader.

RtDataRef XMLRPCHalvoMethodInvocation::constructMessage(AutoString &) {
    // The content type is left alone: the transport then sends "text/xml".
    XMLRPCProtocolHandler handler;
    handler.setParent(this);
    RtDataRef body = handler.createRequest(fMethodName, fParameters, fParameterOrder, nullptr);
    fRequestRefusal.setString(handler.getRefusal());
    return body;
}

void XMLRPCHalvoMethodInvocation::parseReply(HalvoResult *result, RtTreeRef tree) {
    XMLRPCProtocolHandler handler;
    handler.setParent(this);
    handler.parseReply(result, tree);
}

bool XMLRPCHalvoMethodInvocation::readReply(HalvoResult *result, RtDataRef data, bool forceXML,
                                            RtStringEncoding charset, RtStringRef *errorString) {
    XMLRPCProtocolHandler handler;
    handler.setParent(this);
    return handler.readReply(result, data, forceXML, charset, errorString);
}

HVRunLoopSource *XMLRPCHalvoMethodInvocation::createRunLoopSource() {
    return new HTTPClosureSource(this, getServiceURL());
}

// ---- Writing documents --------------------------------------------------------------------------
// Line formats are RTSTR constants: each call site keeps its string object, so writing a line
// costs no format lookup.

namespace {

const RtStreamError kParseStreamError = {kRtStreamErrorDomainCustom, HalvoResult::kTransportError};

// The member order a dictionary carries under kHVRecordParameterOrder, when it is an array.
RtArrayRef recordOrder(RtDictionaryRef dict) {
    RtTypeRef order = RtDictionaryGetValue(dict, kHVRecordParameterOrder);
    return RtGetTypeID(order) == RtArrayGetTypeID() ? static_cast<RtArrayRef>(order) : nullptr;
}

// The names of a request's parameters in sending order (new array, caller releases): the
// caller's order, else the dictionary's own record order, else its keys.
RtArrayRef copyParameterNames(RtDictionaryRef parameters, RtArrayRef order) {
    if (!order && !parameters) order = AutoArray::getEmptyArray();
    if (!order) order = recordOrder(parameters);
    return order ? static_cast<RtArrayRef>(RtRetain(order)) : copyDictionaryKeys(parameters);
}

// Record keys ("", "/HVRecordParamOrder", ...) are bookkeeping, never struct members.
bool isReservedKey(RtTypeRef key) {
    if (RtGetTypeID(key) != RtStringGetTypeID()) return false;
    RtStringRef name = static_cast<RtStringRef>(key);
    return RtStringGetLength(name) == 0 || RtStringGetCharacterAtIndex(name, 0) == '/';
}

// The encoding a reply or fault is written in: the one the request came in, else UTF-8.
RtStringEncoding replyEncoding(RtDictionaryRef context) {
    if (!context) return kRtStringEncodingUTF8;
    return static_cast<RtStringEncoding>(
        getDictNumber(context, requestTextEncodingKey(), static_cast<int>(kRtStringEncodingUTF8)));
}

// The value under key, else under fallbackKey; NULL when dict is NULL or has neither.
RtTypeRef firstPresent(RtDictionaryRef dict, RtStringRef key, RtStringRef fallbackKey) {
    if (!dict) return nullptr;
    RtTypeRef value = RtDictionaryGetValue(dict, key);
    return value ? value : RtDictionaryGetValue(dict, fallbackKey);
}

} // namespace

RtDataRef XMLRPCProtocolHandler::createRequest(RtStringRef methodName, RtDictionaryRef parameters,
                                               RtArrayRef order, RtDictionaryRef /*extras*/) {
    fWriteCheck.begin(readValueRules(this), "methodName");
    XMLBuffer buffer(kRtStringEncodingUTF8);
    buffer.addTo(1, RTSTR("<methodCall>"));
    if (fWriteCheck.fRules.exact) {
        // Exact mode encodes the name like any text, so that no name breaks the document.
        std::string reason = unsendableCharacter(methodName);
        if (!reason.empty()) fWriteCheck.refuse("the method name " + reason);
        AutoString text;
        *text.getStringPtr() = exactEncodeString(methodName ? methodName : RTSTR(""));
        buffer.addTo(2, RTSTR("<methodName>%@</methodName>"), text.getString());
    } else {
        buffer.addTo(2, RTSTR("<methodName>%@</methodName>"), methodName);
    }
    fWriteCheck.begin(fWriteCheck.fRules, "params");

    // Parameters are positional: the names only give the order and never appear.
    AutoArray names(copyParameterNames(parameters, order));
    if (names.getCount() > 0) {
        buffer.addTo(2, RTSTR("<params>"));
        ArrayIterator name(names);
        for (long index = 0; name.hasMoreElements(); index++) {
            RtTypeRef key = name.nextElement();
            buffer.addTo(3, RTSTR("<param>"));
            // The value stands two levels under its <param>: receivers expect that layout.
            fWriteCheck.enterIndex(index);
            serialize(&buffer, 5, parameters ? RtDictionaryGetValue(parameters, key) : nullptr);
            fWriteCheck.leave();
            buffer.addTo(3, RTSTR("</param>"));
        }
        buffer.addTo(2, RTSTR("</params>"));
    }
    buffer.addTo(1, RTSTR("</methodCall>"));
    return fWriteCheck.refused() ? nullptr : buffer.copyData();
}

// The exact-mode content of <value> for the scalars whose writing differs from the default, at
// level; false for the kinds exact mode writes as the default does. A value that cannot travel
// is refused (and nothing written).
bool XMLRPCProtocolHandler::serializeExact(XMLBuffer *buffer, int level, const void *value, HVTypeID kind) {
    const ValueRules &rules = fWriteCheck.fRules;
    switch (kind) {
    case eHVNullType:
        if (rules.extensions)
            buffer->addTo(level, RTSTR("<nil/>"));
        else
            fWriteCheck.refuse("null has no XML-RPC form; allow extensions to send it as nil");
        return true;
    case eHVIntegerType: {
        int64_t number = 0;
        RtNumberGetValue(static_cast<RtNumberRef>(value), kRtNumberSInt64Type, &number);
        if (number >= INT32_MIN && number <= INT32_MAX) {
            buffer->addTo(level, RTSTR("<i4>%d</i4>"), static_cast<int>(number));
        } else if (rules.extensions) {
            buffer->addTo(level, RTSTR("<i8>%s</i8>"), std::to_string(number).c_str());
        } else {
            fWriteCheck.refuse(std::to_string(number) +
                               " does not fit a 32-bit XML-RPC int; allow extensions to send it as i8");
        }
        return true;
    }
    case eHVDoubleType: {
        double number = 0;
        RtNumberGetValue(static_cast<RtNumberRef>(value), kRtNumberFloat64Type, &number);
        if (std::isfinite(number))
            buffer->addTo(level, RTSTR("<double>%s</double>"), shortestDouble(number).c_str());
        else
            fWriteCheck.refuse(std::string(std::isnan(number) ? "NaN"
                                           : number > 0       ? "infinity"
                                                              : "-infinity") +
                               " has no XML-RPC form (its doubles are finite)");
        return true;
    }
    case eHVStringType: {
        RtStringRef string = static_cast<RtStringRef>(value);
        std::string reason = unsendableCharacter(string);
        if (!reason.empty()) {
            fWriteCheck.refuse("the string " + reason);
            return true;
        }
        AutoString text;
        *text.getStringPtr() = exactEncodeString(string);
        buffer->addTo(level, RTSTR("<string>%@</string>"), text.getString());
        return true;
    }
    case eHVDataType: {
        // One line without tabs or breaks: some readers refuse white space inside base64.
        AutoString text;
        *text.getStringPtr() = encodeBinaryDataUnwrapped(static_cast<RtDataRef>(value));
        buffer->addTo(level, RTSTR("<base64>%@</base64>"), text.getString());
        return true;
    }
    case eHVBooleanType:
    case eHVDateType:
    case eHVArrayType:
    case eHVDictionaryType:
        return false;
    default:
        fWriteCheck.refuse("a value of runtime type " +
                           std::to_string(static_cast<long>(RtGetTypeID(value))) + " has no XML-RPC form");
        return true;
    }
}

void XMLRPCProtocolHandler::serialize(XMLBuffer *buffer, int level, const void *value) {
    buffer->addTo(level, RTSTR("<value>"));
    if (RtStringRef replacement = seriailizeOverride(value)) {
        // An override supplies the whole content of <value>, written as it is.
        buffer->addTo(level + 1, RTSTR("%@"), replacement);
        RtRelease(replacement);
    } else if (fWriteCheck.fRules.exact &&
               serializeExact(buffer, level + 1, value,
                              value ? HVGetHVTypeIDFromRtType(value) : eHVNullType)) {
        // written, or refused
    } else if (!value) {
        // The nil line stands at level 3 however deep the value is; peers rely on the text.
        buffer->addTo(3, RTSTR("<i4>0</i4> <!-- parameter has no (nil) value -->"));
    } else {
        switch (HVGetHVTypeIDFromRtType(value)) {
        case eHVBooleanType:
            buffer->addTo(level + 1, RTSTR("<boolean>%d</boolean>"), value == kRtBooleanTrue ? 1 : 0);
            break;
        case eHVIntegerType:
            buffer->addTo(level + 1, RTSTR("<i4>%d</i4>"), getIntValue(static_cast<RtNumberRef>(value)));
            break;
        case eHVDoubleType:
            buffer->addTo(level + 1, RTSTR("<double>%g</double>"),
                          getDoubleValue(static_cast<RtNumberRef>(value)));
            break;
        case eHVStringType: {
            AutoString text;
            *text.getStringPtr() = entityEncodeString(static_cast<RtStringRef>(value));
            buffer->addTo(level + 1, RTSTR("<string>%@</string>"), text.getString());
            break;
        }
        case eHVDateType: {
            AutoString text;
            *text.getStringPtr() = isoEncodeDate(static_cast<RtDateRef>(value), true);
            buffer->addTo(level + 1, RTSTR("<dateTime.iso8601>%@</dateTime.iso8601>"), text.getString());
            break;
        }
        case eHVDataType: {
            // The base64 lines carry their own breaks and tabs, hence level 0.
            AutoString text;
            *text.getStringPtr() = encodeBinaryData(static_cast<RtDataRef>(value), level + 3);
            buffer->addTo(level + 1, RTSTR("<base64>"));
            buffer->addTo(0, RTSTR("%@"), text.getString());
            buffer->addTo(level + 1, RTSTR("</base64>"));
            break;
        }
        case eHVArrayType: {
            buffer->addTo(level + 1, RTSTR("<array>"));
            buffer->addTo(level + 2, RTSTR("<data>"));
            ArrayIterator element(static_cast<RtArrayRef>(value));
            for (long index = 0; element.hasMoreElements(); index++) {
                fWriteCheck.enterIndex(index);
                serialize(buffer, level + 3, element.nextElement());
                fWriteCheck.leave();
            }
            buffer->addTo(level + 2, RTSTR("</data>"));
            buffer->addTo(level + 1, RTSTR("</array>"));
            break;
        }
        case eHVDictionaryType: {
            RtDictionaryRef dict = static_cast<RtDictionaryRef>(value);
            RtArrayRef order = recordOrder(dict);
            AutoArray keys(order ? static_cast<RtArrayRef>(RtRetain(order)) : copyDictionaryKeys(dict));
            buffer->addTo(level + 1, RTSTR("<struct>"));
            ArrayIterator key(keys);
            while (key.hasMoreElements()) {
                RtTypeRef name = key.nextElement();
                if (isReservedKey(name)) continue;
                buffer->addTo(level + 2, RTSTR("<member>"));
                fWriteCheck.enterMember(name);
                if (fWriteCheck.fRules.exact) {
                    // Exact mode encodes names like any text.
                    writeExactMemberName(buffer, level + 3, name);
                } else {
                    // Member names go out as they are, without entity encoding.
                    buffer->addTo(level + 3, RTSTR("<name>%@</name>"), name);
                }
                serialize(buffer, level + 4, RtDictionaryGetValue(dict, name));
                fWriteCheck.leave();
                buffer->addTo(level + 2, RTSTR("</member>"));
            }
            buffer->addTo(level + 1, RTSTR("</struct>"));
            break;
        }
        default:
            // Null and kinds XML-RPC has no element for travel as their description.
            buffer->addTo(level + 1,
                          RTSTR("<!-- Unknown RtType (%d) for parameter - trying string coercion -->"),
                          static_cast<int>(RtGetTypeID(value)));
            buffer->addTo(level + 1, RTSTR("<string>%@</string>"), value);
            break;
        }
    }
    buffer->addTo(level, RTSTR("</value>"));
}

void XMLRPCProtocolHandler::writeExactMemberName(XMLBuffer *buffer, int level, RtTypeRef name) {
    if (RtGetTypeID(name) != RtStringGetTypeID()) {
        fWriteCheck.refuse("a member name that is not a string has no XML-RPC form");
        return;
    }
    std::string reason = unsendableCharacter(static_cast<RtStringRef>(name));
    if (!reason.empty()) fWriteCheck.refuse("the member name " + reason);
    AutoString text;
    *text.getStringPtr() = exactEncodeString(static_cast<RtStringRef>(name));
    buffer->addTo(level, RTSTR("<name>%@</name>"), text.getString());
}

RtDataRef XMLRPCProtocolHandler::createReply(RtDictionaryRef context, RtTypeRef returnValue) {
    fWriteCheck.begin(readValueRules(this), "result");
    XMLBuffer buffer(replyEncoding(context));
    buffer.addTo(0, RTSTR("<methodResponse>"));
    if (returnValue) {
        buffer.addTo(1, RTSTR("<params>"));
        buffer.addTo(2, RTSTR("<param>"));
        serialize(&buffer, 3, returnValue);
        buffer.addTo(2, RTSTR("</param>"));
        buffer.addTo(1, RTSTR("</params>"));
    }
    buffer.addTo(0, RTSTR("</methodResponse>"));
    if (fWriteCheck.refused()) {
        // In exact mode a value that cannot travel turns the reply into a fault that says so.
        AutoString refusal(fWriteCheck.getRefusal());
        AutoDict fault(newMutableDict());
        int32_t code = kRefusedReplyFaultCode;
        AutoScalar codeNumber(RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt32Type, &code));
        fault.addValue(kHVFaultCode, codeNumber.getRef());
        fault.addValue(kHVFaultString, refusal.getString());
        return createFault(context, fault.getImmutableDict());
    }
    return buffer.copyData();
}

RtDataRef XMLRPCProtocolHandler::createFault(RtDictionaryRef context, RtDictionaryRef faultDict) {
    // The XML-RPC names win over the result-dictionary keys; code and string always go out.
    AutoDict fault(newMutableDict());
    RtTypeRef code = firstPresent(faultDict, RTSTR("faultCode"), kHVFaultCode);
    RtTypeRef text = firstPresent(faultDict, RTSTR("faultString"), kHVFaultString);
    fault.addValue(RTSTR("faultCode"), code ? code : internedInt(-1));
    fault.addValue(RTSTR("faultString"), text ? text : RTSTR("Unknown Fault"));
    if (faultDict && RtDictionaryGetValue(faultDict, kHVFaultExtra))
        fault.addValue(RTSTR("faultExtra"), firstPresent(faultDict, RTSTR("faultExtra"), kHVFaultExtra));

    fWriteCheck.begin(readValueRules(this), "fault");
    if (fWriteCheck.fRules.exact) {
        // A fault always goes out: characters XML cannot carry become U+FFFD, and extra data
        // that cannot travel is left out.
        if (RtGetTypeID(text) == RtStringGetTypeID()) {
            AutoString sendable;
            *sendable.getStringPtr() = copySendableText(static_cast<RtStringRef>(text));
            fault.addValue(RTSTR("faultString"), sendable.getString());
        }
        XMLBuffer probe(replyEncoding(context));
        serialize(&probe, 2, fault.getImmutableDict());
        if (fWriteCheck.refused()) {
            RtDictionaryRemoveValue(fault.getMutableDict(), RTSTR("faultExtra"));
            if (RtGetTypeID(code) != RtNumberGetTypeID()) fault.addValue(RTSTR("faultCode"), internedInt(-1));
            if (RtGetTypeID(text) != RtStringGetTypeID())
                fault.addValue(RTSTR("faultString"), RTSTR("Unknown Fault"));
            fWriteCheck.begin(fWriteCheck.fRules, "fault");
        }
    }
    XMLBuffer buffer(replyEncoding(context));
    buffer.addTo(0, RTSTR("<methodResponse>"));
    buffer.addTo(1, RTSTR("<fault>"));
    serialize(&buffer, 2, fault.getImmutableDict());
    buffer.addTo(1, RTSTR("</fault>"));
    buffer.addTo(0, RTSTR("</methodResponse>"));
    return buffer.copyData();
}

// ---- Reading values -----------------------------------------------------------------------------
// One error slot travels down the whole recursion: the first message set stops every reader
// above it, and each discards what it built. Nesting is bounded by the tree reader's depth limit
// (kRtXMLTreeMaxDepth elements, three per level of array nesting), so the recursion is too.

namespace {

enum ValueElement {
    eStringElement,
    eArrayElement,
    eStructElement,
    eBooleanElement,
    eIntElement,
    eDoubleElement,
    eDateElement,
    eBase64Element,
    eI8Element,  // with extensions: i8, ex:i8
    eNilElement, // with extensions: nil, ex:nil
    eUnknownElement
};

struct ValueElementRow {
    RtStringRef name;
    ValueElement kind;
};

// The kind of a type element inside <value>, by its name ignoring case.
ValueElement valueElementKind(RtStringRef name) {
    //                                      element name                kind
    static const ValueElementRow rows[] = {
        {RTSTR("string"), eStringElement}, {RTSTR("array"), eArrayElement},
        {RTSTR("struct"), eStructElement}, {RTSTR("boolean"), eBooleanElement},
        {RTSTR("i4"), eIntElement},        {RTSTR("int"), eIntElement},
        {RTSTR("double"), eDoubleElement}, {RTSTR("dateTime.iso8601"), eDateElement},
        {RTSTR("base64"), eBase64Element}};
    for (const ValueElementRow &row : rows)
        if (rtstrEquivilent(name, row.name)) return row.kind;
    return eUnknownElement;
}

bool isTrueText(RtStringRef text) {
    static const RtStringRef truths[] = {RTSTR("1"), RTSTR("true"), RTSTR("yes"), RTSTR("y"), RTSTR("t")};
    for (RtStringRef truth : truths)
        if (rtstrEquivilent(text, truth)) return true;
    return false;
}

// The text under an element (all text, CDATA and entity pieces), NULL when it is empty.
RtStringRef copyElementText(RtTreeRef element) {
    RtTreeRef first = RtTreeGetFirstChild(element);
    return first ? copyXMLStringFromTree(first) : nullptr;
}

void setError(AutoString &error, RtStringRef message) {
    error.setString(message);
}

void setError(AutoString &error, const char *format, RtStringRef name) {
    AutoString message(format, name);
    error.setString(message.getString());
}

// The namespace of the common XML-RPC extension elements (ex:i8, ex:nil).
RtStringRef extensionsNamespace() {
    return RTSTR("http://ws.apache.org/xmlrpc/namespaces/extensions");
}

// The namespace prefix is bound to at element (its own declarations first, then its
// ancestors'), or NULL.
RtStringRef prefixNamespace(RtTreeRef element, RtStringRef prefix) {
    AutoString attribute("xmlns:%@", prefix);
    for (; element; element = RtTreeGetParent(element)) {
        const RtXMLElementInfo *info = treeGetElementInfo(element);
        if (!info || !info->attributes) continue;
        RtTypeRef value = RtDictionaryGetValue(info->attributes, attribute.getString());
        if (RtGetTypeID(value) == RtStringGetTypeID()) return static_cast<RtStringRef>(value);
    }
    return nullptr;
}

// The extension element kind of a type element: i8 and nil unprefixed, or with a prefix bound
// to the extensions namespace.
ValueElement extensionElementKind(RtTreeRef element, RtStringRef name) {
    AutoString local;
    AutoString prefix;
    RtIndex colon = RtStringFind(name, RTSTR(":"), 0).location;
    if (colon != kRtNotFound && colon > 0) {
        *prefix.getStringPtr() =
            RtStringCreateWithSubstring(kRtAllocatorDefault, name, RtRangeMake(0, colon));
        *local.getStringPtr() = RtStringCreateWithSubstring(
            kRtAllocatorDefault, name, RtRangeMake(colon + 1, RtStringGetLength(name) - colon - 1));
        if (!rtstrEquivilent(prefixNamespace(element, prefix.getString()), extensionsNamespace()))
            return eUnknownElement;
    } else {
        local.setString(name);
    }
    if (rtstrEquivilent(local.getString(), RTSTR("i8"))) return eI8Element;
    if (rtstrEquivilent(local.getString(), RTSTR("nil"))) return eNilElement;
    return eUnknownElement;
}

// Exact mode's reading of a scalar type element: its text must be one text node that reads
// whole as the element's kind; anything else is one error naming the element.
RtTypeRef parseExactScalar(RtTreeRef element, RtStringRef name, ValueElement kind, AutoString &error) {
    RtTreeRef first = RtTreeGetFirstChild(element);
    RtXMLNodeRef firstNode = first ? RtXMLTreeGetNode(first) : nullptr;
    if (first && (RtTreeGetNextSibling(first) || RtXMLNodeGetTypeCode(firstNode) != kRtXMLNodeTypeText)) {
        setError(error, "<%@> holds markup where text belongs", name);
        return nullptr;
    }
    RtStringRef text = firstNode ? RtXMLNodeGetString(firstNode) : RTSTR("");
    auto fail = [&](const char *what) -> RtTypeRef {
        std::string message = "<" + utf8Text(name) + "> holds " + quotedText(text) + ", " + what;
        AutoString reason;
        *reason.getStringPtr() =
            RtStringCreateWithCString(kRtAllocatorDefault, message.c_str(), kRtStringEncodingUTF8);
        setError(error, reason.getString());
        return nullptr;
    };
    switch (kind) {
    case eBooleanElement: {
        bool truth = false;
        if (!readExactBoolean(text, &truth)) return fail("not a boolean (1 or 0)");
        return truth ? kRtBooleanTrue : kRtBooleanFalse;
    }
    case eIntElement:
    case eI8Element: {
        // Some peers write large integers as i4: the text says exactly which, so any value
        // within 64 bits is read as it is (a 32-bit number when it fits).
        int64_t number = 0;
        if (!readExactInteger(text, INT64_MIN, INT64_MAX, &number))
            return fail("not a decimal integer within 64 bits");
        if (number >= INT32_MIN && number <= INT32_MAX) {
            int32_t narrow = static_cast<int32_t>(number);
            return RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt32Type, &narrow);
        }
        return RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt64Type, &number);
    }
    case eDoubleElement: {
        double number = 0;
        if (!readExactDouble(text, false, &number)) return fail("not a finite double");
        return RtNumberCreate(kRtAllocatorDefault, kRtNumberDoubleType, &number);
    }
    case eDateElement: {
        RtDateRef date = createExactDate(text);
        return date ? date : fail("not an ISO 8601 date and time");
    }
    case eBase64Element: {
        RtDataRef data = createExactData(text);
        return data ? data : fail("not base64");
    }
    default:
        setError(error, "Don't know how to deserialize %@", name);
        return nullptr;
    }
}

RtTypeRef parseType(RtTreeRef valueTree, AutoString &error, const ValueRules &rules);

// One child of <data> into array; error set (and the reading to end) when it is no <value> or
// its value fails.
void appendArrayItem(AutoArray &array, RtTreeRef item, AutoString &error, const ValueRules &rules) {
    if (!rtstrEquivilent(getElementName(item), RTSTR("value"))) {
        setError(error, RTSTR("non-value element found in <data> part of <array>"));
        return;
    }
    // An empty <value> still holds its place in the array, as "".
    RtTypeRef value = parseType(item, error, rules);
    array.appendValue(value ? value : RTSTR(""));
    safeRtRelease(value);
}

// The array read from <data> (the first child of <array>). Children of <array> after the first
// are never looked at.
RtTypeRef parseArrayData(RtTreeRef dataTree, AutoString &error, const ValueRules &rules) {
    if (!rtstrEquivilent(getElementName(dataTree), RTSTR("data"))) {
        setError(error,
                 RTSTR("<array> should only containa single <data> element")); // the missing space belongs to
                                                                               // the message
        return nullptr;
    }
    AutoArray array;
    for (RtTreeRef item = RtTreeGetFirstChild(dataTree); item && error.isNull();
         item = RtTreeGetNextSibling(item))
        appendArrayItem(array, item, error, rules);
    if (!error.isNull()) return nullptr;
    return RtRetain(array.getMutableArray());
}

// One child of a <member>: its <name> or its <value>.
void checkStructChild(RtTreeRef child, AutoString &name, RtTypeRef &value, AutoString &error,
                      const ValueRules &rules) {
    RtStringRef childName = getElementName(child);
    if (rtstrEquivilent(childName, RTSTR("name"))) {
        if (!name.isNull()) {
            setError(error, RTSTR("too many <name> elements for a <member>"));
            return;
        }
        *name.getStringPtr() = copyElementText(child);
        // In exact mode an empty name is the empty string, a name like any other.
        if (rules.exact && name.isNull()) name.setString(RTSTR(""));
    } else if (rtstrEquivilent(childName, RTSTR("value"))) {
        if (value) {
            setError(error, RTSTR("too many <value> elements for a <member>"));
            return;
        }
        value = parseType(child, error, rules);
    } else {
        setError(error, RTSTR("unknown element in <member>"));
    }
}

// The dictionary read from the <member> elements starting at member (the first child of
// <struct>). Only the first two children of a member count; a later member with the same name
// replaces an earlier one.
RtTypeRef parseStructData(RtTreeRef member, AutoString &error, const ValueRules &rules) {
    AutoDict dict(newMutableDict());
    for (; member && error.isNull(); member = RtTreeGetNextSibling(member)) {
        RtTreeRef first = RtTreeGetFirstChild(member);
        if (!first) {
            setError(error, RTSTR("empty <member> element"));
            break;
        }
        AutoString name;
        RtTypeRef value = nullptr;
        checkStructChild(first, name, value, error, rules);
        RtTreeRef second = error.isNull() ? RtTreeGetNextSibling(first) : nullptr;
        if (second) checkStructChild(second, name, value, error, rules);
        // A member with a single child (a lone name or value) is dropped without complaint.
        if (second && error.isNull()) {
            if (name.isNull())
                setError(error, RTSTR("missing <name> element for <member>"));
            else
                dict.addValue(name.getString(), value ? value : kRtNull);
        }
        safeRtRelease(value);
    }
    if (!error.isNull()) return nullptr;
    return RtRetain(dict.getMutableDict());
}

// The value of a <value> element (new, caller releases), or NULL: for an empty <value> without
// an error, else with error set.
RtTypeRef parseType(RtTreeRef valueTree, AutoString &error, const ValueRules &rules) {
    RtTreeRef child = RtTreeGetFirstChild(valueTree);
    // In exact mode an empty <value> or <string> is the empty string, not the absence of one.
    if (!child) return rules.exact ? RtRetain(RTSTR("")) : nullptr;
    RtXMLNodeRef node = RtXMLTreeGetNode(child);
    if (RtXMLNodeGetTypeCode(node) != kRtXMLNodeTypeElement)
        return copyXMLStringFromTree(child); // a <value> without a type element is a string
    RtStringRef name = RtXMLNodeGetString(node);
    if (!name) {
        setError(error, RTSTR("Can't get name of element"));
        return nullptr;
    }
    ValueElement kind = valueElementKind(name);
    if (kind == eUnknownElement && rules.extensions) {
        kind = extensionElementKind(child, name);
        if (kind != eUnknownElement && rules.sawExtension) *rules.sawExtension = true;
    }
    switch (kind) {
    case eStringElement: {
        RtTypeRef text = copyElementText(child);
        return text || !rules.exact ? text : RtRetain(RTSTR(""));
    }
    case eArrayElement:
        return parseArrayData(RtTreeGetFirstChild(child), error, rules);
    case eStructElement:
        return parseStructData(RtTreeGetFirstChild(child), error, rules);
    case eNilElement:
        if (rules.exact && RtTreeGetFirstChild(child)) {
            setError(error, "<%@> holds content; a nil element must be empty", name);
            return nullptr;
        }
        return RtRetain(kRtNull);
    default:
        break;
    }
    if (rules.exact) return parseExactScalar(child, name, kind, error);

    // Scalars read the first child node's string only: entity references in them stay undecoded.
    RtTreeRef first = RtTreeGetFirstChild(child);
    RtStringRef text = first ? RtXMLNodeGetString(RtXMLTreeGetNode(first)) : RTSTR("");
    if (!text) {
        setError(error, "No value for %@", name);
        return nullptr;
    }
    switch (kind) {
    case eBooleanElement:
        return isTrueText(text) ? kRtBooleanTrue : kRtBooleanFalse; // immortal: no retain needed
    case eIntElement:
    case eI8Element:
        return makeIntValueFromString(text);
    case eDoubleElement: {
        double number = RtStringGetDoubleValue(text);
        return RtNumberCreate(kRtAllocatorDefault, kRtNumberDoubleType, &number);
    }
    case eDateElement:
        return isoDecodeDate(text);
    case eBase64Element:
        return decodeBinaryData(text);
    default:
        setError(error, "Don't know how to deserialize %@", name);
        return nullptr;
    }
}

} // namespace

// ---- Reading a reply's array while the document is parsed -----------------------------------------
// The items of the array a reply returns (methodResponse, params, param, value, array, data, each
// the first child of the one before) become values as soon as the parser completes them, and
// their nodes are freed at once: the tree of a long reply never exists whole. parseReply then
// takes the values instead of the (now empty) <data>. They are the values parseArrayData would
// make from the finished tree: the same code reads the same nodes in the same order, and the
// first error ends the reading the same way.
struct ReplyArrayDrain {
    ValueRules fRules;
    RtTreeRef fValueTree = nullptr; // the param's <value>, once its array is being drained
    AutoArray fArray;
    AutoString fError;
};

namespace {

// The depth of <data> in a reply (the document is 0, methodResponse 1).
constexpr RtIndex kReplyDataDepth = 6;

// Whether data is the <data> that parseReply would read as the reply's array. Everything this
// looks at precedes data's first child in the document, so it is already in the tree.
bool _isReplyData(RtTreeRef data, void *info) {
    if (gHVDebugVerbose) return false; // the verbose log prints the whole tree
    RtTreeRef array = RtTreeGetParent(data);
    RtTreeRef value = RtTreeGetParent(array);
    RtTreeRef param = RtTreeGetParent(value);
    RtTreeRef params = RtTreeGetParent(param);
    RtTreeRef response = RtTreeGetParent(params);
    RtTreeRef document = RtTreeGetParent(response);
    if (!document || RtTreeGetFirstChild(response) != params || RtTreeGetFirstChild(params) != param ||
        RtTreeGetFirstChild(param) != value || RtTreeGetFirstChild(value) != array ||
        RtTreeGetFirstChild(array) != data)
        return false;
    RtXMLNodeRef arrayNode = RtXMLTreeGetNode(array);
    RtStringRef arrayName = RtXMLNodeGetString(arrayNode);
    if (RtXMLNodeGetTypeCode(arrayNode) != kRtXMLNodeTypeElement || !arrayName ||
        valueElementKind(arrayName) != eArrayElement ||
        !rtstrEquivilent(getElementName(data), RTSTR("data")) ||
        rtstrEquivilent(getElementName(params), RTSTR("fault")) ||
        !rtstrEquivilent(getElementName(params), RTSTR("params")) ||
        findNamedElement(document, RTSTR("methodResponse")) != response)
        return false;
    static_cast<ReplyArrayDrain *>(info)->fValueTree = value;
    return true;
}

void _readReplyArrayItem(RtTreeRef item, void *info) {
    auto *drain = static_cast<ReplyArrayDrain *>(info);
    if (drain->fError.isNull()) appendArrayItem(drain->fArray, item, drain->fError, drain->fRules);
}

} // namespace

void XMLRPCProtocolHandler::parseReply(HalvoResult *result, RtTreeRef tree, ReplyArrayDrain *drain) {
    if (gHVDebugVerbose) {
        hvPrintf(RTSTR("XMLRPCHalvoMethodInvocation::parseReply: reply tree\n"));
        dumpXMLTree(tree, 0);
    }
    AutoString error;
    ValueRules rules = readValueRules(this);
    RtTreeRef response = findNamedElement(tree, RTSTR("methodResponse"));
    RtTreeRef child = response ? RtTreeGetFirstChild(response) : nullptr;
    if (!response) {
        setError(error, RTSTR("Can't find a 'methodResponse' element"));
    } else if (!child) {
        setError(error, RTSTR("Can't find any child of the 'methodResponse' element"));
    } else if (rtstrEquivilent(getElementName(child), RTSTR("fault"))) {
        RtTreeRef valueTree = RtTreeGetFirstChild(child);
        if (!valueTree) {
            setError(error, RTSTR("<fault> must contain a <value>"));
        } else {
            RtTypeRef value = parseType(valueTree, error, rules);
            if (RtGetTypeID(value) == RtDictionaryGetTypeID() &&
                RtDictionaryGetCount(static_cast<RtDictionaryRef>(value)) > 0) {
                RtDictionaryRef fault = static_cast<RtDictionaryRef>(value);
                RtTypeRef code = RtDictionaryGetValue(fault, RTSTR("faultCode"));
                RtTypeRef text = RtDictionaryGetValue(fault, RTSTR("faultString"));
                result->becomeFault();
                result->setFaultCode(RtGetTypeID(code) == RtNumberGetTypeID()
                                         ? getIntValue(static_cast<RtNumberRef>(code))
                                         : -1);
                // A fault without "faultString" keeps no string: the result holds no NULL values.
                if (text) result->setFaultString(static_cast<RtStringRef>(text));
            } else if (error.isNull()) {
                setError(error, RTSTR("Can't parse <fault>."));
            }
            safeRtRelease(value);
        }
    } else if (rtstrEquivilent(getElementName(child), RTSTR("params"))) {
        // Only the first child counts at each level; names and counts are not checked.
        RtTreeRef param = RtTreeGetFirstChild(child);
        RtTreeRef valueTree = param ? RtTreeGetFirstChild(param) : nullptr;
        if (!param) {
            setError(error, RTSTR("<params> must contain a single <param> entry"));
        } else if (!valueTree) {
            setError(error, RTSTR("<param> must contain a single <value> entry"));
        } else if (drain && drain->fValueTree == valueTree) {
            if (!drain->fError.isNull())
                setError(error, drain->fError.getString());
            else
                result->addToResult(kHVMethodInvocationResult, drain->fArray.getMutableArray());
        } else if (RtTypeRef value = parseType(valueTree, error, rules)) {
            result->addToResult(kHVMethodInvocationResult, value);
            RtRelease(value);
        }
    } else {
        setError(error, RTSTR("Child of the 'methodResponse' must be <fault> or <params>"));
    }
    if (!error.isNull()) result->becomeFault(error.getString(), kParseStreamError);
}

RtDictionaryRef XMLRPCProtocolHandler::parseReplyData(RtStringRef /*methodName*/, RtDataRef data,
                                                      RtStringEncoding encoding, AutoString *errorString) {
    HalvoResult result;
    AutoString localError;
    AutoString *error = errorString ? errorString : &localError;
    error->setString(nullptr);
    if (!readReply(&result, data, true, encoding, error->getStringPtr()))
        result.becomeFault(error->isNull() ? RTSTR("Could not parse XML.") : error->getString(),
                           kParseStreamError);
    return result.copyDictionary();
}

bool XMLRPCProtocolHandler::readReply(HalvoResult *result, RtDataRef data, bool forceXML,
                                      RtStringEncoding charset, RtStringRef *errorString) {
    ReplyArrayDrain drain;
    drain.fRules = readValueRules(this);
    RtXMLTreeDrainContext draining = {kReplyDataDepth, _isReplyData, _readReplyArrayItem, &drain};
    RtTreeRef tree =
        parseXML(data, forceXML, charset, errorString, &draining, nullptr, xmlReadOptions(drain.fRules));
    if (!tree) return false;
    parseReply(result, tree, &drain);
    RtRelease(tree);
    return true;
}

// ---- Reading requests -----------------------------------------------------------------------------
// The request document is walked with dispatch tables, one per level: methodCall, then
// methodName and params, then param, then value. Handlers return NULL to go on, or a new error
// message that ends the walk and travels up unchanged.

namespace {

// The parameters of one <params> element, numbered "anon0", "anon1", ... in document order.
// The parameters of a request being read and the rules they are read with.
struct RequestContext {
    AutoDict fParameters;
    ValueRules fRules;
};

// The request dictionary being filled and the rules of its values.
struct MethodCallContext {
    AutoDict *fRequest;
    ValueRules fRules;
};

struct ParamContext {
    AutoDict *fParamDict;
    int fParamCount;
    ValueRules fRules;

    void addParam(RtTypeRef value) {
        AutoString name("anon%d", fParamCount);
        fParamDict->addValue(name.getString(), value);
        fParamCount++;
    }
};

RtStringRef _parseOneValue(RtTreeRef tree, RtXMLNodeRef, const AutoDict &, void *refcon) {
    AutoString error;
    // An empty <value> gives nothing and uses up no number.
    if (RtTypeRef value = parseType(tree, error, static_cast<ParamContext *>(refcon)->fRules)) {
        static_cast<ParamContext *>(refcon)->addParam(value);
        RtRelease(value);
    }
    return error.getRetainedString();
}

RtStringRef _parseOneParam(RtTreeRef tree, RtXMLNodeRef, const AutoDict &scope, void *refcon) {
    //                                 namespace  local name      handler         context
    const XMLElementInterrogator rows[] = {{nullptr, RTSTR("value"), _parseOneValue, refcon}};
    return xmlInterrogateElements(tree, scope, rows, 1, nullptr);
}

RtStringRef _parseParams(RtTreeRef tree, RtXMLNodeRef, const AutoDict &scope, void *refcon) {
    // Each <params> numbers from anon0 again, replacing earlier entries of the same names.
    auto *request = static_cast<RequestContext *>(refcon);
    ParamContext context = {&request->fParameters, 0, request->fRules};
    //                                 namespace  local name      handler         context
    const XMLElementInterrogator rows[] = {{nullptr, RTSTR("param"), _parseOneParam, &context}};
    return xmlInterrogateElements(tree, scope, rows, 1, nullptr);
}

RtStringRef _parseString(RtTreeRef tree, RtXMLNodeRef, const AutoDict &, void *refcon) {
    if (!RtTreeGetFirstChild(tree)) return RTSTR("Can't parse string");
    AutoString text;
    *text.getStringPtr() = copyElementText(tree);
    static_cast<AutoString *>(refcon)->setString(text.getString());
    return nullptr;
}

RtStringRef _parseMethodCall(RtTreeRef tree, RtXMLNodeRef, const AutoDict &scope, void *refcon) {
    auto *call = static_cast<MethodCallContext *>(refcon);
    AutoDict *request = call->fRequest;
    AutoString methodName;
    RequestContext params = {AutoDict(newMutableDict()), call->fRules};
    AutoDict &parameters = params.fParameters;
    //                                 namespace  local name           handler        context
    const XMLElementInterrogator rows[] = {{nullptr, RTSTR("methodName"), _parseString, &methodName},
                                           {nullptr, RTSTR("params"), _parseParams, &params}};
    if (RtStringRef error = xmlInterrogateElements(tree, scope, rows, 2, nullptr)) return error;
    if (methodName.isNull()) return RTSTR("<methodName> missing for request");

    AutoArray order;
    for (RtIndex i = 0, count = parameters.getCount(); i < count; i++) {
        AutoString name("anon%d", static_cast<int>(i));
        order.appendValue(name);
    }
    request->addValue(requestMethodNameKey(), methodName.getString());
    request->addValue(requestParametersKey(), parameters.getImmutableDict());
    request->addValue(requestParameterOrderKey(), order.getImmutableArray());
    return nullptr;
}

} // namespace

RtDictionaryRef XMLRPCProtocolHandler::parsePostData(RtDataRef data, RtStringEncoding encoding,
                                                     AutoString *errorString) {
    AutoDict request(newMutableDict());
    int32_t hint = static_cast<int32_t>(encoding);
    AutoScalar hintNumber(RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt32Type, &hint));
    request.addValue(requestTextEncodingKey(), hintNumber.getRef());

    AutoString localError;
    AutoString *error = errorString ? errorString : &localError;
    error->setString(nullptr);
    bool sawExtension = false;
    MethodCallContext call = {&request, readValueRules(this)};
    call.fRules.sawExtension = &sawExtension;
    RtTreeRef tree =
        parseXML(data, true, encoding, error->getStringPtr(), nullptr, nullptr, xmlReadOptions(call.fRules));
    if (!tree) return nullptr;

    // Top-level elements other than <methodCall> are handed back as extensions.
    AutoArray extensions;
    AutoDict rootScope;
    //                                 namespace  local name           handler            context
    const XMLElementInterrogator rows[] = {{nullptr, RTSTR("methodCall"), _parseMethodCall, &call}};
    RtStringRef failure = xmlInterrogateElements(tree, rootScope, rows, 1, extensions.getMutableArray());
    RtRelease(tree);
    if (failure) {
        *error->getStringPtr() = failure;
        return nullptr;
    }
    if (extensions.getCount() > 0)
        request.addValue(RTSTR("/HVXMLRPCTopLevelExtensions"), extensions.getImmutableArray());
    if (sawExtension) request.addValue(requestUsedExtensionsKey(), kRtBooleanTrue);
    return request.copyDict();
}
