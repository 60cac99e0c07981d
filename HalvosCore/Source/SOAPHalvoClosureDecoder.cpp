// SOAPDecoder: typed SOAP elements to runtime values, with href/id references.
#include "HalvoResult.h"
#include "SOAPCodec.h"

#include <algorithm>
#include <unordered_set>

const RtStreamError kSOAPParseStreamError = {-1, HalvoResult::kTransportError};

namespace {

// Decoding nests once per element and once per href followed; beyond this many levels a
// document (or a chain of references) is refused instead of exhausting the stack.
constexpr int kMaxDecodeDepth = 512;

// Sets error to the formatted message unless an earlier one is already there.
void setError(AutoString &error, const char *format, ...) {
    if (!error.isNull())
        return;
    va_list args;
    va_start(args, format);
    RtStringRef message = rtCreateString(format, args);
    va_end(args);
    error.setString(message);
    safeRtRelease(message);
}

class DepthGuard {
public:
    explicit DepthGuard(int &depth) : fDepth(depth) { ++fDepth; }
    ~DepthGuard() { --fDepth; }
    DepthGuard(const DepthGuard &) = delete;
    DepthGuard &operator=(const DepthGuard &) = delete;

private:
    int &fDepth;
};

bool isElement(RtTreeRef tree) {
    RtXMLNodeRef node = RtXMLTreeGetNode(tree);
    return node && RtXMLNodeGetTypeCode(node) == kRtXMLNodeTypeElement;
}

RtStringRef nodeString(RtTreeRef tree) {
    RtXMLNodeRef node = tree ? RtXMLTreeGetNode(tree) : nullptr;
    return node ? RtXMLNodeGetString(node) : nullptr;
}

RtTypeRef newDouble(RtStringRef text) {
    double number = RtStringGetDoubleValue(text);
    return RtNumberCreate(kRtAllocatorDefault, kRtNumberDoubleType, &number);
}

} // namespace

SOAPDecoder::SOAPDecoder(SOAPProtocolHandler *handler, RtTreeRef body)
    : fHandler(handler), fBody(body), fDepth(0), fIndexed(false) {}

SOAPDecoder::~SOAPDecoder() {
    for (auto &entry : fDecodedTargets)
        RtRelease(entry.second);
    for (auto &entry : fNames) {
        safeRtRelease(entry.second.prefix);
        RtRelease(entry.second.local);
    }
    for (auto &entry : fTypes)
        RtRelease(entry.second.qualified);
}

// ---- Names and attributes ---------------------------------------------------------------------
// Attribute names and short attribute values are interned per document by the tree reader, so
// "xsi:type" or "xsd:int" is one object throughout a reply: splitting it once and remembering
// what it means keeps the per-element cost to a few hash lookups.

const SOAPDecoder::NameParts &SOAPDecoder::split(RtStringRef name) {
    auto found = fNames.find(name);
    if (found != fNames.end())
        return found->second;
    NameParts parts = {nullptr, nullptr};
    RtIndex colon = RtStringFind(name, RTSTR(":"), 0).location;
    RtIndex length = RtStringGetLength(name);
    // A colon in front counts as no prefix, as in xmlNamespaceQualify.
    if (colon != kRtNotFound && colon > 0) {
        parts.prefix = RtStringCreateWithSubstring(kRtAllocatorDefault, name, RtRangeMake(0, colon));
        parts.local = RtStringCreateWithSubstring(kRtAllocatorDefault, name, RtRangeMake(colon + 1, length - colon - 1));
    } else {
        parts.local = static_cast<RtStringRef>(RtRetain(name));
    }
    return fNames.emplace(name, parts).first->second;
}

RtStringRef SOAPDecoder::resolve(const NameParts &parts, const AutoDict &scope) {
    return static_cast<RtStringRef>(scope.getValue(parts.prefix ? parts.prefix : RTSTR("__defaultNamespace")));
}

RtStringRef SOAPDecoder::getNodeAttribute(RtTreeRef node, const AutoDict &scope, RtStringRef ns,
                                          RtStringRef localName) {
    const RtXMLElementInfo *info = treeGetElementInfo(node);
    if (!info || !info->attributes || !info->attributeOrder)
        return nullptr;
    RtIndex count = RtArrayGetCount(info->attributeOrder);
    for (RtIndex i = 0; i < count; i++) {
        RtStringRef name = static_cast<RtStringRef>(RtArrayGetValueAtIndex(info->attributeOrder, i));
        if (!name)
            continue;
        const NameParts &parts = split(name);
        if (!rtstrEquivilent(parts.local, localName))
            continue;
        if (ns && !rtstrEquivilent(ns, resolve(parts, scope)))
            continue;
        return static_cast<RtStringRef>(RtDictionaryGetValue(info->attributes, name));
    }
    return nullptr;
}

RtStringRef SOAPDecoder::getSoapNodeAttribute(RtTreeRef node, const AutoDict &scope, RtStringRef localName) {
    if (RtStringRef value = getNodeAttribute(node, scope, HV_SOAP_1999_SCHEMA_INSTANCE_NAMESPACE, localName))
        return value;
    if (RtStringRef value = getNodeAttribute(node, scope, HV_SOAP_2001_SCHEMA_INSTANCE_NAMESPACE, localName))
        return value;
    // Without a default namespace this last try takes the attribute in any namespace.
    return getNodeAttribute(node, scope, static_cast<RtStringRef>(scope.getValue(RTSTR("__defaultNamespace"))),
                            localName);
}

bool SOAPDecoder::isArray(RtTreeRef node, const AutoDict &scope) {
    return getNodeAttribute(node, scope, HV_SOAP_2001_ENCODING_NAMESPACE, RTSTR("arrayType")) != nullptr;
}

// ---- Types ------------------------------------------------------------------------------------

const SOAPDecoder::TypeInfo &SOAPDecoder::typeInfo(RtStringRef type, const AutoDict &scope) {
    // What a type name means depends only on its text and the namespace its prefix has here.
    RtStringRef ns = resolve(split(type), scope);
    auto key = std::make_pair(static_cast<const void *>(type), static_cast<const void *>(ns));
    auto found = fTypes.find(key);
    if (found != fTypes.end())
        return found->second;
    AutoString qualified(type);
    fullyQualify(qualified, scope);
    RtStringRef typeNS = nullptr;
    RtStringRef local = nullptr;
    xmlBurstFullyQualifiedName(qualified.getString(), &typeNS, &local);
    TypeInfo info = {HVQualifiedtoHVType(typeNS, local), qualified.getRetainedString()};
    safeRtRelease(typeNS);
    safeRtRelease(local);
    return fTypes.emplace(key, info).first->second;
}

RtTypeRef SOAPDecoder::decodeTyped(RtTreeRef target, RtTreeRef firstChild, const AutoDict &scope,
                                   AutoString &error) {
    // Without a declared type the shape decides, in the 2001 schema namespace.
    static const TypeInfo kImpliedArray = {eHVArrayType, RTSTR("http://www.w3.org/2001/XMLSchema|Array")};
    static const TypeInfo kImpliedDictionary = {eHVDictionaryType, RTSTR("http://www.w3.org/2001/XMLSchema|Dictionary")};
    static const TypeInfo kImpliedString = {eHVStringType, RTSTR("http://www.w3.org/2001/XMLSchema|string")};

    const TypeInfo *type;
    if (RtStringRef declared = getSoapNodeAttribute(target, scope, RTSTR("type")))
        type = &typeInfo(declared, scope);
    else if (isArray(target, scope))
        type = &kImpliedArray;
    else if (firstChild && isElement(firstChild))
        type = &kImpliedDictionary;
    else
        type = &kImpliedString;

    // The text is the first child's string: an element child gives its name. After an href the
    // first child stays the referencing element's (none), so scalars find no text here.
    RtStringRef text = nodeString(firstChild);
    RtTypeRef value = nullptr;
    switch (type->kind) {
    case eHVNullType:
        value = RtRetain(kRtNull);
        break;
    case eHVBooleanType:
        value = (!text || rtstrEquivilent(text, RTSTR("0")) || rtstrEquivilent(text, RTSTR("false"))) ? kRtBooleanFalse
                                                                                                   : kRtBooleanTrue;
        RtRetain(value);
        break;
    case eHVIntegerType:
        value = text ? makeIntValueFromString(text) : nullptr;
        break;
    case eHVDoubleType:
        value = text ? newDouble(text) : nullptr;
        break;
    case eHVStringType:
        value = firstChild ? copyXMLStringFromTree(firstChild) : nullptr;
        break;
    case eHVDateType:
        value = text ? isoDecodeDate(text) : nullptr;
        break;
    case eHVDataType:
        value = text ? decodeBinaryData(text) : nullptr;
        break;
    case eHVArrayType:
        value = parseSOAPArray(target, scope, error);
        break;
    case eHVDictionaryType:
        value = parseSOAPDictionary(target, scope, error);
        break;
    default:
        break;
    }
    return value ? value : decodeFallback(target, firstChild, text, *type, scope, error);
}

RtTypeRef SOAPDecoder::decodeFallback(RtTreeRef target, RtTreeRef firstChild, RtStringRef text,
                                      const TypeInfo &type, const AutoDict &scope, AutoString &error) {
    if (gHVDebug)
        _hvLogf("####: NOTE: couldn't short circuit for %@", type.qualified);
    if (gHVDebugVerbose)
        _hvLogf("parseSOAPType: got a type: %@", type.qualified);

    // The qualified form is split again at its first colon, the way the names of the document
    // are split; a namespace URI with a colon in it therefore finds no namespace here.
    RtStringRef ns = nullptr;
    RtStringRef local = nullptr;
    xmlNamespaceQualify(scope, type.qualified, &ns, &local);
    RtTypeRef value = nullptr;
    if (rtstrEquivilent(ns, HV_SOAP_2001_ENCODING_NAMESPACE)) {
        if (rtstrEquivilent(local, RTSTR("Dictionary")))
            value = parseSOAPDictionary(target, scope, error);
        else if (rtstrEquivilent(local, RTSTR("Array")))
            value = parseSOAPArray(target, scope, error);
        else if ((rtstrEquivilent(local, RTSTR("base64")) || rtstrEquivilent(local, RTSTR("base64Binary"))) && text)
            value = decodeBinaryData(text);
    } else if (rtstrEquivilent(ns, HV_SOAP_1999_SCHEMA_NAMESPACE) || rtstrEquivilent(ns, HV_SOAP_2001_SCHEMA_NAMESPACE)) {
        if (rtstrEquivilent(local, RTSTR("string"))) {
            value = firstChild ? copyXMLStringFromTree(firstChild) : nullptr;
        } else if (text) {
            if (rtstrEquivilent(local, RTSTR("boolean"))) {
                // Deliberately tests the type name, not the text: a boolean here is always true.
                bool no = rtstrEquivilent(local, RTSTR("0")) || rtstrEquivilent(local, RTSTR("false")) ||
                          rtstrEquivilent(local, RTSTR("nil"));
                value = RtRetain(no ? kRtBooleanFalse : kRtBooleanTrue);
            } else if (rtstrEquivilent(local, RTSTR("i4")) || rtstrEquivilent(local, RTSTR("int"))) {
                value = makeIntValueFromString(text);
            } else if (rtstrEquivilent(local, RTSTR("double")) || rtstrEquivilent(local, RTSTR("float"))) {
                value = newDouble(text);
            } else if (rtstrEquivilent(local, RTSTR("timeInstant"))) {
                value = isoDecodeDate(text);
            } else if (rtstrEquivilent(local, RTSTR("base64")) || rtstrEquivilent(local, RTSTR("base64Binary"))) {
                value = decodeBinaryData(text);
            }
        } else {
            setError(error, "No value for %@", local);
        }
    }
    if (!value && isArray(target, scope))
        value = parseSOAPArray(target, scope, error);
    // Deliberately unconditional: a single child's text replaces whatever was decoded above.
    if (RtTreeGetChildCount(target) == 1) {
        safeRtRelease(value);
        value = copyXMLStringFromTree(RtTreeGetFirstChild(target));
    }
    if (!value)
        value = parseSOAPDictionary(target, scope, error);
    if (!value)
        setError(error, "Don't know how to deserialize '%@' in namespace '%@'", local, ns);
    safeRtRelease(ns);
    safeRtRelease(local);
    return value;
}

// ---- Elements -----------------------------------------------------------------------------------

RtTypeRef SOAPDecoder::parseSOAPType(RtTreeRef element, const AutoDict &scope, AutoString &error) {
    if (fDepth >= kMaxDecodeDepth) {
        setError(error, "Value nested too deeply");
        return nullptr;
    }
    DepthGuard depth(fDepth);
    AutoDict elementScope(scope);
    xmlGetElementNamespaces(element, elementScope);

    if (RtTypeRef value = fHandler->deserilizeOverride(element, elementScope, getElementName(element), fBody))
        return value;
    RtTreeRef firstChild = RtTreeGetFirstChild(element);
    if (firstChild) {
        if (RtTypeRef value =
                fHandler->deserilizeOverride(firstChild, elementScope, getElementName(firstChild), fBody))
            return value;
        return decodeTyped(element, firstChild, elementScope, error);
    }

    RtStringRef href = getSoapNodeAttribute(element, elementScope, RTSTR("href"));
    if (!href)
        return isArray(element, elementScope) ? static_cast<RtTypeRef>(newMutableArray()) : RtRetain(kRtNull);
    return followReference(href, elementScope, error);
}

RtTypeRef SOAPDecoder::followReference(RtStringRef href, const AutoDict &scope, AutoString &error) {
    RtTreeRef target;
    if (RtStringGetLength(href) > 0 && RtStringGetCharacterAtIndex(href, 0) == '#') {
        RtStringRef id = RtStringCreateWithSubstring(kRtAllocatorDefault, href, RtRangeMake(1, RtStringGetLength(href) - 1));
        target = findAnchor(id);
        RtRelease(id);
    } else {
        target = findAnchor(href);
    }
    if (!target) {
        setError(error, "Can't locate anchor element in reply");
        return nullptr;
    }
    if (std::find(fActive.begin(), fActive.end(), target) != fActive.end()) {
        setError(error, "Circular reference in reply");
        return nullptr;
    }
    // A target is one value however often it is referenced: decoding it once keeps the work
    // linear in the document even when references fan out.
    auto done = fDecodedTargets.find(target);
    if (done != fDecodedTargets.end())
        return RtRetain(done->second);

    AutoDict targetScope(scope);
    xmlGetElementNamespaces(target, targetScope);
    enter(target);
    RtTypeRef value = decodeTyped(target, nullptr, targetScope, error);
    leave();
    if (value && error.isNull())
        fDecodedTargets.emplace(target, RtRetain(value));
    return value;
}

RtTypeRef SOAPDecoder::parseSOAPArray(RtTreeRef element, const AutoDict &scope, AutoString &error) {
    if (gHVDebugVerbose)
        _hvLogf("in parseSOAPArray\n");
    RtMutableArrayRef array = newMutableArray();
    for (RtTreeRef child = RtTreeGetFirstChild(element); child; child = RtTreeGetNextSibling(child)) {
        RtTypeRef value = parseSOAPType(child, scope, error);
        if (!error.isNull()) {
            safeRtRelease(value);
            break;
        }
        if (value) {
            RtArrayAppendValue(array, value);
            RtRelease(value);
        }
    }
    return array;
}

RtTypeRef SOAPDecoder::parseSOAPDictionary(RtTreeRef element, const AutoDict &scope, AutoString &error) {
    if (gHVDebugVerbose)
        _hvLogf("in parseSOAPDictionary\n");
    RtMutableDictionaryRef dict = newMutableDict();
    // Arrays this walk made to gather repeated names: nobody else holds them, so appending in
    // place is the same as replacing them by an appended copy, without the quadratic copying.
    std::unordered_set<RtTypeRef> gathered;
    for (RtTreeRef child = RtTreeGetFirstChild(element); child; child = RtTreeGetNextSibling(child)) {
        RtTypeRef value = parseSOAPType(child, scope, error);
        if (!error.isNull()) {
            safeRtRelease(value);
            break;
        }
        if (!value)
            continue;
        RtStringRef name = getElementName(child);
        RtTypeRef earlier = RtDictionaryGetValue(dict, name);
        if (!earlier) {
            RtDictionarySetValue(dict, name, value);
        } else if (RtGetTypeID(earlier) != RtArrayGetTypeID()) {
            RtMutableArrayRef both = newMutableArray();
            RtArrayAppendValue(both, earlier);
            RtArrayAppendValue(both, value);
            RtDictionarySetValue(dict, name, both);
            gathered.insert(both);
            RtRelease(both);
        } else if (gathered.count(earlier)) {
            RtArrayAppendValue(static_cast<RtMutableArrayRef>(const_cast<void *>(earlier)), value);
        } else {
            // A first member whose own value is an array absorbs the later ones (kept on purpose).
            RtMutableArrayRef copy =
                RtArrayCreateMutableCopy(kRtAllocatorDefault, 0, static_cast<RtArrayRef>(earlier));
            RtArrayAppendValue(copy, value);
            RtDictionarySetValue(dict, name, copy);
            gathered.insert(copy);
            RtRelease(copy);
        }
        RtRelease(value);
    }
    return dict;
}

// ---- Anchors ------------------------------------------------------------------------------------

void SOAPDecoder::buildAnchorIndex() {
    fIndexed = true;
    AutoDict anyScope;
    for (RtTreeRef child = RtTreeGetFirstChild(fBody); child; child = RtTreeGetNextSibling(child)) {
        RtStringRef id = getNodeAttribute(child, anyScope, nullptr, RTSTR("id"));
        if (!id)
            continue;
        // Only the first child with a given id (ignoring case) can ever be found.
        if (findAnchor(id))
            continue;
        fAnchors.emplace(RtStringHashCaseInsensitive(id), std::make_pair(id, child));
    }
}

RtTreeRef SOAPDecoder::findAnchor(RtStringRef id) {
    if (!fIndexed)
        buildAnchorIndex();
    auto range = fAnchors.equal_range(RtStringHashCaseInsensitive(id));
    for (auto it = range.first; it != range.second; ++it)
        if (rtstrEquivilent(it->second.first, id))
            return it->second.second;
    return nullptr;
}
