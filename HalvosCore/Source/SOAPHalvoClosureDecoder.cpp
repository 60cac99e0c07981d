// SOAPDecoder: typed SOAP elements to runtime values, with href/id references.
#include "HalvoResult.h"
#include "SOAPCodec.h"

#include <algorithm>
#include <optional>
#include <unordered_set>

const RtStreamError kSOAPParseStreamError = {-1, HalvoResult::kTransportError};

namespace {

// Decoding nests once per element and once per href followed; beyond this many levels a
// document (or a chain of references) is refused instead of exhausting the stack.
constexpr int kMaxDecodeDepth = 512;

// Sets error to the formatted message unless an earlier one is already there.
void setError(AutoString &error, const char *format, ...) {
    if (!error.isNull()) return;
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

// The element information of an element node, else NULL.
const RtXMLElementInfo *elementInfo(RtXMLNodeRef node) {
    return node && RtXMLNodeGetTypeCode(node) == kRtXMLNodeTypeElement
               ? static_cast<const RtXMLElementInfo *>(RtXMLNodeGetInfoPtr(node))
               : nullptr;
}

// A node's string as getElementName gives it: "" when there is no node.
RtStringRef nodeName(RtXMLNodeRef node) {
    RtStringRef name = node ? RtXMLNodeGetString(node) : nullptr;
    return name ? name : RTSTR("");
}

RtTypeRef newDouble(RtStringRef text) {
    double number = RtStringGetDoubleValue(text);
    return RtNumberCreate(kRtAllocatorDefault, kRtNumberDoubleType, &number);
}

} // namespace

SOAPDecoder::SOAPDecoder(SOAPProtocolHandler *handler, RtTreeRef body)
    : fHandler(handler), fRules(readValueRules(handler)), fBody(body), fDepth(0), fIndexed(false),
      fResolved(), fRecentNames(), fRecentNameParts(), fRecentNamespaces(), fRecentNamespaceKinds(),
      fRecentTypeKeys(), fRecentTypes() {}

SOAPDecoder::~SOAPDecoder() {
    for (ResolvedPrefix &slot : fResolved)
        safeRtRelease(slot.fScope);
    for (auto &entry : fAnchors) {
        RtRelease(entry.second.fId);
        safeRtRelease(entry.second.fValue);
    }
    for (auto &entry : fStreamed)
        for (Stored &stored : entry.second.fChildren) {
            safeRtRelease(stored.fName);
            safeRtRelease(stored.fValue);
            safeRtRelease(stored.fError);
        }
    for (auto &entry : fDecodedTargets)
        RtRelease(entry.second);
    for (auto &entry : fNames) {
        RtRelease(entry.first);
        safeRtRelease(entry.second.prefix);
        RtRelease(entry.second.local);
    }
    for (auto &entry : fNamespaceKinds)
        RtRelease(entry.first);
    for (auto &entry : fTypes) {
        RtRelease(entry.first.first);
        safeRtRelease(entry.first.second);
        RtRelease(entry.second.qualified);
    }
}

// ---- Names and attributes ---------------------------------------------------------------------
// A reply repeats a handful of attribute names and type names ("xsi:type", "xsd:int") on every
// element: splitting each once and remembering what it means keeps the per-element cost to a
// few hash lookups.

const SOAPDecoder::NameParts &SOAPDecoder::split(RtStringRef name) {
    size_t recent = recentSlot(name);
    if (fRecentNames[recent] == name) return *fRecentNameParts[recent];
    auto found = fNames.find(name);
    if (found != fNames.end()) {
        fRecentNames[recent] = name;
        fRecentNameParts[recent] = &found->second;
        return found->second;
    }
    NameParts parts = {nullptr, nullptr, 0};
    RtIndex colon = RtStringFind(name, RTSTR(":"), 0).location;
    RtIndex length = RtStringGetLength(name);
    // A colon in front counts as no prefix, as in xmlNamespaceQualify.
    if (colon != kRtNotFound && colon > 0) {
        parts.prefix = RtStringCreateWithSubstring(kRtAllocatorDefault, name, RtRangeMake(0, colon));
        parts.local = RtStringCreateWithSubstring(kRtAllocatorDefault, name,
                                                  RtRangeMake(colon + 1, length - colon - 1));
    } else {
        parts.local = static_cast<RtStringRef>(RtRetain(name));
    }
    if (rtstrEquivilent(parts.local, RTSTR("type")))
        parts.roles = eTypeRole;
    else if (rtstrEquivilent(parts.local, RTSTR("href")))
        parts.roles = eHrefRole;
    else if (rtstrEquivilent(parts.local, RTSTR("arrayType")))
        parts.roles = eArrayTypeRole;
    else if (rtstrEquivilent(parts.local, RTSTR("id")))
        parts.roles = eIdRole;
    else if (rtstrEquivilent(parts.local, RTSTR("nil")) || rtstrEquivilent(parts.local, RTSTR("null")))
        parts.roles = eNilRole;
    // The same test as xmlGetElementNamespaces: "xmlns", or "xmlns:" and a prefix, in any case.
    if ((length == 5 && rtstrEquivilent(name, RTSTR("xmlns"))) ||
        (length > 6 && RtStringCompareWithOptions(name, RTSTR("xmlns:"), RtRangeMake(0, 6),
                                                  kRtCompareCaseInsensitive) == kRtCompareEqualTo))
        parts.roles |= eDeclarationRole;
    const NameParts &made = fNames.emplace(static_cast<RtStringRef>(RtRetain(name)), parts).first->second;
    fRecentNames[recent] = name;
    fRecentNameParts[recent] = &made;
    return made;
}

RtStringRef SOAPDecoder::resolve(const NameParts &parts, const AutoDict &scope) {
    // Elements mostly share their parent's scope dictionary, and a reply uses a handful of
    // prefixes: remember the last answer per prefix slot. The slot keeps its dictionary alive, so
    // a dictionary freed meanwhile cannot come back at the same address and be taken for it.
    RtStringRef key = parts.prefix ? parts.prefix : RTSTR("__defaultNamespace");
    if (fEarly) noteKey(key);
    RtDictionaryRef dict = scope.getImmutableDict();
    ResolvedPrefix &slot = fResolved[(reinterpret_cast<uintptr_t>(key) >> 4) % kResolvedSlots];
    if (slot.fPrefix == key && slot.fScope == dict) return slot.fNamespace;
    RtStringRef ns = static_cast<RtStringRef>(scope.getValue(key));
    safeRtRetain(dict);
    safeRtRelease(slot.fScope);
    slot = {key, dict, ns};
    return ns;
}

unsigned SOAPDecoder::namespaceKind(RtStringRef ns) {
    if (!ns) return 0;
    size_t recent = recentSlot(ns);
    if (fRecentNamespaces[recent] == ns) return fRecentNamespaceKinds[recent];
    auto found = fNamespaceKinds.find(ns);
    if (found != fNamespaceKinds.end()) {
        fRecentNamespaces[recent] = ns;
        fRecentNamespaceKinds[recent] = found->second;
        return found->second;
    }
    unsigned kind = (rtstrEquivilent(ns, HV_SOAP_1999_SCHEMA_INSTANCE_NAMESPACE) ? unsigned(eXSI1999) : 0u) |
                    (rtstrEquivilent(ns, HV_SOAP_2001_SCHEMA_INSTANCE_NAMESPACE) ? unsigned(eXSI2001) : 0u) |
                    (rtstrEquivilent(ns, HV_SOAP_2001_ENCODING_NAMESPACE) ? unsigned(eEncoding) : 0u);
    fNamespaceKinds.emplace(static_cast<RtStringRef>(RtRetain(ns)), kind);
    fRecentNamespaces[recent] = ns;
    fRecentNamespaceKinds[recent] = kind;
    return kind;
}

unsigned SOAPDecoder::attributeRoles(const RtXMLElementInfo *info) {
    if (!info || !info->attributes || !info->attributeOrder) return 0;
    unsigned roles = 0;
    RtIndex count = RtArrayGetCount(info->attributeOrder);
    for (RtIndex i = 0; i < count; i++)
        if (RtStringRef name = static_cast<RtStringRef>(RtArrayGetValueAtIndex(info->attributeOrder, i)))
            roles |= split(name).roles;
    return roles;
}

RtStringRef SOAPDecoder::getNodeAttribute(const RtXMLElementInfo *info, const AutoDict &scope,
                                          unsigned nsKinds, unsigned role) {
    if (!info || !info->attributes || !info->attributeOrder) return nullptr;
    RtIndex count = RtArrayGetCount(info->attributeOrder);
    for (RtIndex i = 0; i < count; i++) {
        RtStringRef name = static_cast<RtStringRef>(RtArrayGetValueAtIndex(info->attributeOrder, i));
        if (!name) continue;
        const NameParts &parts = split(name);
        if (!(parts.roles & role) || (nsKinds && !(namespaceKind(resolve(parts, scope)) & nsKinds))) continue;
        return static_cast<RtStringRef>(RtDictionaryGetValue(info->attributes, name));
    }
    return nullptr;
}

RtStringRef SOAPDecoder::getSoapNodeAttribute(const RtXMLElementInfo *info, const AutoDict &scope,
                                              unsigned role) {
    if (!info || !info->attributes || !info->attributeOrder) return nullptr;
    // One walk for the three tries: a 1999 match wins outright, then the first 2001 match, then
    // the first in the default namespace (in any namespace when there is no default).
    RtStringRef in2001 = nullptr;
    RtStringRef inDefault = nullptr;
    RtStringRef defaultNS = nullptr;
    bool defaultKnown = false;
    RtIndex count = RtArrayGetCount(info->attributeOrder);
    for (RtIndex i = 0; i < count; i++) {
        RtStringRef name = static_cast<RtStringRef>(RtArrayGetValueAtIndex(info->attributeOrder, i));
        if (!name) continue;
        const NameParts &parts = split(name);
        if (!(parts.roles & role)) continue;
        RtStringRef ns = resolve(parts, scope);
        unsigned kind = namespaceKind(ns);
        if (kind & eXSI1999) return static_cast<RtStringRef>(RtDictionaryGetValue(info->attributes, name));
        if (kind & eXSI2001) {
            if (!in2001) in2001 = name;
        } else if (!in2001 && !inDefault) {
            // Only needed while no 2001 match outranks it.
            if (!defaultKnown) {
                if (fEarly) noteKey(RTSTR("__defaultNamespace"));
                defaultNS = static_cast<RtStringRef>(scope.getValue(RTSTR("__defaultNamespace")));
                defaultKnown = true;
            }
            if (!defaultNS || rtstrEquivilent(defaultNS, ns)) inDefault = name;
        }
    }
    RtStringRef chosen = in2001 ? in2001 : inDefault;
    return chosen ? static_cast<RtStringRef>(RtDictionaryGetValue(info->attributes, chosen)) : nullptr;
}

bool SOAPDecoder::isArray(const RtXMLElementInfo *info, const AutoDict &scope) {
    return getNodeAttribute(info, scope, eEncoding, eArrayTypeRole) != nullptr;
}

// ---- Types ------------------------------------------------------------------------------------

const SOAPDecoder::TypeInfo &SOAPDecoder::typeInfo(RtStringRef type, const AutoDict &scope) {
    // What a type name means depends only on its text and the namespace its prefix has here.
    RtStringRef ns = resolve(split(type), scope);
    auto key = std::make_pair(type, ns);
    size_t recent = recentSlot(type, ns);
    if (fRecentTypeKeys[recent] == key) return *fRecentTypes[recent];
    auto found = fTypes.find(key);
    if (found != fTypes.end()) {
        fRecentTypeKeys[recent] = key;
        fRecentTypes[recent] = &found->second;
        return found->second;
    }
    AutoString qualified(type);
    fullyQualify(qualified, scope);
    RtStringRef typeNS = nullptr;
    RtStringRef local = nullptr;
    xmlBurstFullyQualifiedName(qualified.getString(), &typeNS, &local);
    TypeInfo info = {HVQualifiedtoHVType(typeNS, local), qualified.getRetainedString()};
    safeRtRelease(typeNS);
    safeRtRelease(local);
    const TypeInfo &made = fTypes
                               .emplace(std::make_pair(static_cast<RtStringRef>(RtRetain(type)),
                                                       static_cast<RtStringRef>(safeRtRetain(ns))),
                                        info)
                               .first->second;
    fRecentTypeKeys[recent] = key;
    fRecentTypes[recent] = &made;
    return made;
}

RtTypeRef SOAPDecoder::decodeTyped(RtTreeRef target, const RtXMLElementInfo *info, RtTreeRef firstChild,
                                   RtXMLNodeRef firstNode, const AutoDict &scope, AutoString &error) {
    // Without a declared type the shape decides, in the 2001 schema namespace.
    static const TypeInfo kImpliedArray = {eHVArrayType, RTSTR("http://www.w3.org/2001/XMLSchema|Array")};
    static const TypeInfo kImpliedDictionary = {eHVDictionaryType,
                                                RTSTR("http://www.w3.org/2001/XMLSchema|Dictionary")};
    static const TypeInfo kImpliedString = {eHVStringType, RTSTR("http://www.w3.org/2001/XMLSchema|string")};

    const TypeInfo *type;
    if (RtStringRef declared = getSoapNodeAttribute(info, scope, eTypeRole))
        type = &typeInfo(declared, scope);
    else if (isArray(info, scope))
        type = &kImpliedArray;
    else if (firstNode && RtXMLNodeGetTypeCode(firstNode) == kRtXMLNodeTypeElement)
        type = &kImpliedDictionary;
    else
        type = &kImpliedString;

    // The text is the first child's string: an element child gives its name. After an href the
    // first child stays the referencing element's (none), so scalars find no text here.
    RtStringRef text = firstNode ? RtXMLNodeGetString(firstNode) : nullptr;
    RtTypeRef value = nullptr;
    if (fRules.exact && firstChild) {
        if (isNil(info, scope)) {
            setError(error, "<%@> is nil but holds content", nodeName(RtXMLTreeGetNode(target)));
            return nullptr;
        }
        switch (type->kind) {
        case eHVBooleanType:
        case eHVIntegerType:
        case eHVDoubleType:
        case eHVDateType:
        case eHVDataType:
            return decodeExactScalar(target, firstChild, *type, error);
        default:
            break;
        }
    }
    switch (type->kind) {
    case eHVNullType:
        value = RtRetain(kRtNull);
        break;
    case eHVBooleanType:
        value = (!text || rtstrEquivilent(text, RTSTR("0")) || rtstrEquivilent(text, RTSTR("false")))
                    ? kRtBooleanFalse
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
    return value ? value : decodeFallback(target, info, firstChild, text, *type, scope, error);
}

RtTypeRef SOAPDecoder::decodeFallback(RtTreeRef target, const RtXMLElementInfo *info, RtTreeRef firstChild,
                                      RtStringRef text, const TypeInfo &type, const AutoDict &scope,
                                      AutoString &error) {
    if (gHVDebug) _hvLogf("####: NOTE: couldn't short circuit for %@", type.qualified);
    if (gHVDebugVerbose) _hvLogf("parseSOAPType: got a type: %@", type.qualified);

    // The qualified form is split again at its first colon, the way the names of the document
    // are split; a namespace URI with a colon in it therefore finds no namespace here.
    const NameParts &parts = split(type.qualified);
    RtStringRef ns = resolve(parts, scope);
    RtStringRef local = parts.local;
    RtTypeRef value = nullptr;
    if (rtstrEquivilent(ns, HV_SOAP_2001_ENCODING_NAMESPACE)) {
        // Struct is the encoding's own name for a record; exact mode types an empty one so and
        // reads it back. The default reading keeps to Dictionary.
        if (rtstrEquivilent(local, RTSTR("Dictionary")) ||
            (fRules.exact && rtstrEquivilent(local, RTSTR("Struct"))))
            value = parseSOAPDictionary(target, scope, error);
        else if (rtstrEquivilent(local, RTSTR("Array")))
            value = parseSOAPArray(target, scope, error);
        else if ((rtstrEquivilent(local, RTSTR("base64")) || rtstrEquivilent(local, RTSTR("base64Binary"))) &&
                 text)
            value = decodeBinaryData(text);
    } else if (rtstrEquivilent(ns, HV_SOAP_1999_SCHEMA_NAMESPACE) ||
               rtstrEquivilent(ns, HV_SOAP_2001_SCHEMA_NAMESPACE)) {
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
            } else if (rtstrEquivilent(local, RTSTR("base64")) ||
                       rtstrEquivilent(local, RTSTR("base64Binary"))) {
                value = decodeBinaryData(text);
            }
        } else {
            setError(error, "No value for %@", local);
        }
    }
    if (!value && isArray(info, scope)) value = parseSOAPArray(target, scope, error);
    // Deliberately unconditional: a single child's text replaces whatever was decoded above.
    if (childCount(target) == 1) {
        safeRtRelease(value);
        value = copyXMLStringFromTree(RtTreeGetFirstChild(target));
    }
    if (!value) value = parseSOAPDictionary(target, scope, error);
    if (!value) setError(error, "Don't know how to deserialize '%@' in namespace '%@'", local, ns);
    return value;
}

// ---- Elements -----------------------------------------------------------------------------------

RtTypeRef SOAPDecoder::parseSOAPType(RtTreeRef element, const AutoDict &scope, AutoString &error) {
    if (fEarly && fDepth > fEarlyDepth) fEarlyDepth = fDepth;
    if (fDepth >= kMaxDecodeDepth) {
        setError(error, "Value nested too deeply");
        return nullptr;
    }
    DepthGuard depth(fDepth);
    RtXMLNodeRef node = RtXMLTreeGetNode(element);
    const RtXMLElementInfo *info = elementInfo(node);
    unsigned roles = attributeRoles(info);
    // Most elements declare nothing and share their parent's scope as it is.
    std::optional<AutoDict> ownScope;
    if (roles & eDeclarationRole) {
        ownScope.emplace(scope);
        xmlGetElementNamespaces(element, *ownScope);
    }
    const AutoDict &elementScope = ownScope ? *ownScope : scope;

    if (RtTypeRef value = fHandler->deserilizeOverride(element, elementScope, nodeName(node), fBody))
        return value;
    RtTreeRef firstChild = RtTreeGetFirstChild(element);
    if (firstChild) {
        RtXMLNodeRef firstNode = RtXMLTreeGetNode(firstChild);
        if (RtTypeRef value =
                fHandler->deserilizeOverride(firstChild, elementScope, nodeName(firstNode), fBody))
            return value;
        return decodeTyped(element, info, firstChild, firstNode, elementScope, error);
    }

    RtStringRef href = (roles & eHrefRole) ? getSoapNodeAttribute(info, elementScope, eHrefRole) : nullptr;
    if (!href && fRules.exact) return decodeEmpty(element, info, elementScope, error);
    if (!href) {
        bool array = (roles & eArrayTypeRole) && isArray(info, elementScope);
        return array ? static_cast<RtTypeRef>(newMutableArray()) : RtRetain(kRtNull);
    }
    if (fEarly) {
        // A reference needs the whole Body: this element waits for the finished tree.
        fBlocked = true;
        setError(error, "Reference read later");
        return nullptr;
    }
    return followReference(href, elementScope, error);
}

RtTypeRef SOAPDecoder::followReference(RtStringRef href, const AutoDict &scope, AutoString &error) {
    const Anchor *anchor;
    if (RtStringGetLength(href) > 0 && RtStringGetCharacterAtIndex(href, 0) == '#') {
        RtStringRef id = RtStringCreateWithSubstring(kRtAllocatorDefault, href,
                                                     RtRangeMake(1, RtStringGetLength(href) - 1));
        anchor = findAnchorEntry(id);
        RtRelease(id);
    } else {
        anchor = findAnchorEntry(href);
    }
    if (!anchor) {
        setError(error, "Can't locate anchor element in reply");
        return nullptr;
    }
    RtTreeRef target = anchor->fTree;
    if (!target) {
        // Decoded when it completed, in the Body's scope, without references of its own (so
        // never part of a cycle): the same value wherever the scope agrees on what it looked up.
        if (!sameScope(anchor->fScope, scope, anchor->fKeys) || fDepth + anchor->fHeight >= kMaxDecodeDepth) {
            bailOut(error);
            return nullptr;
        }
        return RtRetain(anchor->fValue);
    }
    if (std::find(fActive.begin(), fActive.end(), target) != fActive.end()) {
        setError(error, "Circular reference in reply");
        return nullptr;
    }
    // A target is one value however often it is referenced: decoding it once keeps the work
    // linear in the document even when references fan out.
    auto done = fDecodedTargets.find(target);
    if (done != fDecodedTargets.end()) return RtRetain(done->second);

    const RtXMLElementInfo *info = elementInfo(RtXMLTreeGetNode(target));
    std::optional<AutoDict> ownScope;
    if (attributeRoles(info) & eDeclarationRole) {
        ownScope.emplace(scope);
        xmlGetElementNamespaces(target, *ownScope);
    }
    enter(target);
    RtTypeRef value = decodeTyped(target, info, nullptr, nullptr, ownScope ? *ownScope : scope, error);
    leave();
    if (value && error.isNull()) fDecodedTargets.emplace(target, RtRetain(value));
    return value;
}

bool SOAPDecoder::isNil(const RtXMLElementInfo *info, const AutoDict &scope) {
    RtStringRef nil = getNodeAttribute(info, scope, eXSI1999 | eXSI2001, eNilRole);
    bool truth = false;
    return nil && readExactBoolean(nil, &truth) && truth;
}

RtTypeRef SOAPDecoder::decodeEmpty(RtTreeRef element, const RtXMLElementInfo *info, const AutoDict &scope,
                                   AutoString &error) {
    if (isNil(info, scope)) return RtRetain(kRtNull);
    if (isArray(info, scope)) return newMutableArray();
    RtStringRef declared = getSoapNodeAttribute(info, scope, eTypeRole);
    if (!declared) return RtRetain(kRtNull);
    switch (typeInfo(declared, scope).kind) {
    case eHVNullType:
        return RtRetain(kRtNull);
    case eHVStringType:
        return RtRetain(RTSTR(""));
    case eHVDataType:
        return RtDataCreate(kRtAllocatorDefault, nullptr, 0);
    case eHVArrayType:
        return newMutableArray();
    case eHVDictionaryType:
        return newMutableDict();
    case eHVUnknownType:
        // A record of the caller's own type: an empty record.
        return newMutableDict();
    default:
        setError(error, "<%@> declares %@ but holds no value", nodeName(RtXMLTreeGetNode(element)), declared);
        return nullptr;
    }
}

RtTypeRef SOAPDecoder::decodeExactScalar(RtTreeRef target, RtTreeRef firstChild, const TypeInfo &type,
                                         AutoString &error) {
    RtStringRef name = nodeName(RtXMLTreeGetNode(target));
    RtXMLNodeRef firstNode = RtXMLTreeGetNode(firstChild);
    if (RtTreeGetNextSibling(firstChild) || RtXMLNodeGetTypeCode(firstNode) != kRtXMLNodeTypeText) {
        setError(error, "<%@> holds markup where text belongs", name);
        return nullptr;
    }
    RtStringRef text = RtXMLNodeGetString(firstNode);
    RtTypeRef value = nullptr;
    const char *what = "";
    switch (type.kind) {
    case eHVBooleanType: {
        bool truth = false;
        if (readExactBoolean(text, &truth)) value = RtRetain(truth ? kRtBooleanTrue : kRtBooleanFalse);
        what = "not a boolean";
        break;
    }
    case eHVIntegerType: {
        // Any value within 64 bits is read as the text says, whatever width the type names.
        int64_t number = 0;
        if (readExactInteger(text, INT64_MIN, INT64_MAX, &number)) {
            if (number >= INT32_MIN && number <= INT32_MAX) {
                int32_t small = static_cast<int32_t>(number);
                value = RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt32Type, &small);
            } else {
                value = RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt64Type, &number);
            }
        }
        what = "not a decimal integer within 64 bits";
        break;
    }
    case eHVDoubleType: {
        double number = 0;
        if (readExactDouble(text, true, &number))
            value = RtNumberCreate(kRtAllocatorDefault, kRtNumberDoubleType, &number);
        what = "not a double";
        break;
    }
    case eHVDateType:
        value = createExactDate(text);
        what = "not an ISO 8601 date and time";
        break;
    case eHVDataType:
        value = createExactData(text);
        what = "not base64";
        break;
    default:
        break;
    }
    if (!value) {
        std::string message = "<" + utf8Text(name) + "> holds " + quotedText(text) + ", " + what;
        setError(error, "%s", message.c_str());
    }
    return value;
}

RtTypeRef SOAPDecoder::parseSOAPArray(RtTreeRef element, const AutoDict &scope, AutoString &error) {
    if (gHVDebugVerbose) _hvLogf("in parseSOAPArray\n");
    RtMutableArrayRef array =
        RtArrayCreateMutable(kRtAllocatorDefault, childCount(element), &kRtTypeArrayCallBacks);
    decodeChildren(element, scope, error,
                   [array](RtStringRef, RtTypeRef value) { RtArrayAppendValue(array, value); });
    return array;
}

RtTypeRef SOAPDecoder::parseSOAPDictionary(RtTreeRef element, const AutoDict &scope, AutoString &error) {
    if (gHVDebugVerbose) _hvLogf("in parseSOAPDictionary\n");
    RtMutableDictionaryRef dict =
        RtDictionaryCreateMutable(kRtAllocatorDefault, childCount(element),
                                  &kRtCopyStringDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
    // Arrays this walk made to gather repeated names: nobody else holds them, so appending in
    // place is the same as replacing them by an appended copy, without the quadratic copying.
    std::unordered_set<RtTypeRef> gathered;
    decodeChildren(element, scope, error, [dict, &gathered](RtStringRef name, RtTypeRef value) {
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
    });
    return dict;
}

// ---- Anchors ------------------------------------------------------------------------------------

void SOAPDecoder::buildAnchorIndex() {
    fIndexed = true;
    AutoDict anyScope;
    for (RtTreeRef child = RtTreeGetFirstChild(fBody); child; child = RtTreeGetNextSibling(child)) {
        RtStringRef id = getNodeAttribute(elementInfo(RtXMLTreeGetNode(child)), anyScope, 0, eIdRole);
        // Only the first child with a given id (ignoring case) can ever be found.
        if (!id || findAnchorEntry(id)) continue;
        fAnchors.emplace(RtStringHashCaseInsensitive(id),
                         Anchor{static_cast<RtStringRef>(RtRetain(id)), child, nullptr, AutoDict(), {}, 0});
    }
}

const SOAPDecoder::Anchor *SOAPDecoder::findAnchorEntry(RtStringRef id) {
    if (!fIndexed) buildAnchorIndex();
    auto range = fAnchors.equal_range(RtStringHashCaseInsensitive(id));
    for (auto it = range.first; it != range.second; ++it)
        if (rtstrEquivilent(it->second.fId, id)) return &it->second;
    return nullptr;
}

RtTreeRef SOAPDecoder::findAnchor(RtStringRef id) {
    const Anchor *anchor = findAnchorEntry(id);
    return anchor ? anchor->fTree : nullptr;
}

// ---- Reading while the document is parsed -------------------------------------------------------

void SOAPDecoder::beginStreaming() {
    // The index grows as the Body's children complete.
    fIndexed = true;
}

void SOAPDecoder::streamChildrenOf(RtTreeRef element, const AutoDict &scope) {
    fStreamed.emplace(std::piecewise_construct, std::forward_as_tuple(element), std::forward_as_tuple(scope));
}

void SOAPDecoder::noteKey(RtStringRef key) {
    if (std::find(fEarlyKeys.begin(), fEarlyKeys.end(), key) == fEarlyKeys.end()) fEarlyKeys.push_back(key);
}

template <class Decode>
RtTypeRef SOAPDecoder::decodeEarly(int base, std::vector<RtStringRef> &keys, int &height, bool &blocked,
                                   AutoString &error, Decode decode) {
    int savedDepth = fDepth;
    fEarly = true;
    fBlocked = false;
    fEarlyDepth = base;
    fEarlyKeys.clear();
    fDepth = base;
    RtTypeRef value = decode(error);
    fEarly = false;
    fDepth = savedDepth;
    blocked = fBlocked;
    for (RtStringRef key : fEarlyKeys)
        if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);
    height = std::max(height, fEarlyDepth - base);
    return value;
}

bool SOAPDecoder::sameScope(const AutoDict &stored, const AutoDict &scope,
                            const std::vector<RtStringRef> &keys) const {
    if (stored.getImmutableDict() == scope.getImmutableDict()) return true;
    for (RtStringRef key : keys) {
        RtTypeRef a = stored.getValue(key), b = scope.getValue(key);
        if (a != b && (!a || !b || !RtEqual(a, b))) return false;
    }
    return true;
}

RtIndex SOAPDecoder::childCount(RtTreeRef element) const {
    RtIndex count = RtTreeGetChildCount(element);
    if (fStreamed.empty()) return count;
    auto found = fStreamed.find(element);
    return found == fStreamed.end() ? count : count + found->second.fTaken;
}

void SOAPDecoder::bailOut(AutoString &error) {
    fBailedOut = true;
    setError(error, "Reply read again as a whole");
}

template <class Take>
void SOAPDecoder::decodeChildren(RtTreeRef element, const AutoDict &scope, AutoString &error, Take take) {
    auto streamed = fStreamed.empty() ? fStreamed.end() : fStreamed.find(element);
    if (streamed == fStreamed.end()) {
        for (RtTreeRef child = RtTreeGetFirstChild(element); child; child = RtTreeGetNextSibling(child)) {
            RtTypeRef value = parseSOAPType(child, scope, error);
            if (!error.isNull()) {
                safeRtRelease(value);
                return;
            }
            if (!value) continue;
            take(nodeName(RtXMLTreeGetNode(child)), value);
            RtRelease(value);
        }
        return;
    }
    // The children were decoded one level below the element's first decoding.
    StreamedChildren &children = streamed->second;
    if (!sameScope(children.fScope, scope, children.fKeys) ||
        (fDepth != 1 && fDepth + children.fHeight >= kMaxDecodeDepth)) {
        bailOut(error);
        return;
    }
    for (const Stored &stored : children.fChildren) {
        RtTypeRef value;
        RtStringRef name;
        if (stored.fTree) {
            value = parseSOAPType(stored.fTree, scope, error);
            name = nodeName(RtXMLTreeGetNode(stored.fTree));
        } else {
            value = safeRtRetain(stored.fValue);
            name = stored.fName;
            if (stored.fError) setError(error, "%@", stored.fError);
        }
        if (!error.isNull()) {
            safeRtRelease(value);
            return;
        }
        if (!value) continue;
        take(name, value);
        RtRelease(value);
    }
}

bool SOAPDecoder::streamChild(RtTreeRef element, RtTreeRef child) {
    auto found = fStreamed.find(element);
    if (found == fStreamed.end()) return false;
    StreamedChildren &children = found->second;
    RtXMLNodeRef node = RtXMLTreeGetNode(child);
    // Everything up to the first element child stays: the element's own text and type are read
    // from its first child, and its text runs up to its first element.
    bool isElement = elementInfo(node) != nullptr;
    if (!isElement || !children.fSeenElement) {
        children.fSeenElement = children.fSeenElement || isElement;
        children.fChildren.push_back(Stored{child});
        return false;
    }
    Stored stored;
    // After a failed child nothing more is read: every walk over the children ends there.
    if (!children.fFailed) {
        AutoString error;
        bool blocked = false;
        RtTypeRef value =
            decodeEarly(1, children.fKeys, children.fHeight, blocked, error,
                        [&](AutoString &failure) { return parseSOAPType(child, children.fScope, failure); });
        if (blocked) {
            safeRtRelease(value);
            children.fChildren.push_back(Stored{child});
            return false;
        }
        stored.fName = static_cast<RtStringRef>(RtRetain(nodeName(node)));
        stored.fValue = value;
        stored.fError = error.getRetainedString();
        children.fFailed = stored.fError != nullptr;
    }
    children.fChildren.push_back(stored);
    children.fTaken++;
    return true;
}

bool SOAPDecoder::streamBodyChild(RtTreeRef child, const AutoDict &bodyScope, bool dispatched) {
    const RtXMLElementInfo *info = elementInfo(RtXMLTreeGetNode(child));
    if (!info) return false;
    AutoDict anyScope;
    RtStringRef id = getNodeAttribute(info, anyScope, 0, eIdRole);
    // Only the first child with a given id (ignoring case) can ever be found.
    bool anchor = id && !findAnchorEntry(id);
    auto keep = [&] {
        if (anchor)
            fAnchors.emplace(
                RtStringHashCaseInsensitive(id),
                Anchor{static_cast<RtStringRef>(RtRetain(id)), child, nullptr, AutoDict(), {}, 0});
        return false;
    };
    if (dispatched) return keep();
    // Neither dispatched nor ever found by an href: nothing reads it.
    if (!anchor) return true;
    // Decoded as followReference would, in the Body's scope.
    std::optional<AutoDict> ownScope;
    if (attributeRoles(info) & eDeclarationRole) {
        ownScope.emplace(bodyScope);
        xmlGetElementNamespaces(child, *ownScope);
    }
    AutoString error;
    std::vector<RtStringRef> keys;
    int height = 0;
    bool blocked = false;
    RtTypeRef value = decodeEarly(0, keys, height, blocked, error, [&](AutoString &failure) {
        return decodeTyped(child, info, nullptr, nullptr, ownScope ? *ownScope : bodyScope, failure);
    });
    if (blocked || !error.isNull() || !value) {
        safeRtRelease(value);
        return keep();
    }
    fAnchors.emplace(RtStringHashCaseInsensitive(id), Anchor{static_cast<RtStringRef>(RtRetain(id)), nullptr,
                                                             value, bodyScope, std::move(keys), height});
    return true;
}
