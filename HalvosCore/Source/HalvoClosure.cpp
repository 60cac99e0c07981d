// The serializer base (properties, overrides, parent chain) and the invocation base.
#include "HalvoClosure.h"

#include "HVRunLoopSource.h"
#include "HalvoResult.h"
#include "HalvoUtils.h"

#include <cstdlib>
#include <cstring>

// ---- Client contexts -------------------------------------------------------------------------

void HVSerializerBase::retainContext(HVClientContext *destination, const HVClientContext *source) {
    if (!source) {
        memset(destination, 0, sizeof(*destination));
        return;
    }
    *destination = *source;
    if (destination->info && destination->retain)
        destination->info = const_cast<void *>(destination->retain(destination->info));
}

void HVSerializerBase::releaseContext(HVClientContext *context) {
    if (context->info && context->release) context->release(context->info);
    memset(context, 0, sizeof(*context));
}

// ---- HVSerializerBase ------------------------------------------------------------------------

HVSerializerBase::HVSerializerBase()
    : fProperties(newMutableDict()), fSerOverride(nullptr), fSerCount(0), fDeserOverride(nullptr),
      fDeserCount(0), fRtRef(nullptr), fParent(nullptr) {}

HVSerializerBase::~HVSerializerBase() {
    fParent = nullptr;
    for (int32_t i = 0; i < fSerCount; i++)
        releaseContext(&fSerOverride[i].fContext);
    free(fSerOverride);
    // The namespace and type-name patterns are deliberately not released (long-standing behaviour).
    for (int32_t i = 0; i < fDeserCount; i++)
        releaseContext(&fDeserOverride[i].fContext);
    free(fDeserOverride);
    RtRelease(fProperties);
}

void HVSerializerBase::setProperty(RtStringRef key, RtTypeRef value) {
    if (!key) return;
    if (value)
        RtDictionarySetValue(fProperties, key, value);
    else
        RtDictionaryRemoveValue(fProperties, key);
}

RtTypeRef HVSerializerBase::getProperty(RtStringRef key) {
    if (!key) return nullptr;
    if (fParent) {
        // The parent wins: a handler inside a client call sees the invocation's settings.
        RtTypeRef value = fParent->getProperty(key);
        if (value) return value;
    }
    return RtDictionaryGetValue(fProperties, key);
}

void HVSerializerBase::addProperties(RtDictionaryRef dict) {
    DictIterator it(dict);
    while (it.hasMoreElements()) {
        RtTypeRef key = it.nextElement();
        RtDictionaryAddValue(fProperties, key, it.getValue(key));
    }
}

// ---- Overrides -------------------------------------------------------------------------------

void HVSerializerBase::addSerializationOverride(RtTypeID objType, HVMethodInvocationSerializationProcPtr proc,
                                                const HVClientContext *context) {
    // Grows by exactly one entry: overrides are few, and order of registration decides.
    SerProc *grown = static_cast<SerProc *>(malloc(sizeof(SerProc) * static_cast<size_t>(fSerCount + 1)));
    if (!grown) return;
    SerProc &entry = grown[fSerCount];
    entry.fID = objType;
    entry.fProc = proc;
    retainContext(&entry.fContext, context);
    if (fSerCount > 0) memcpy(grown, fSerOverride, sizeof(SerProc) * static_cast<size_t>(fSerCount));
    free(fSerOverride);
    fSerOverride = grown;
    fSerCount++;
}

void HVSerializerBase::addDeserializationOverride(RtStringRef typeNamespace, RtStringRef typeName,
                                                  HVMethodInvocationDeserializationProcPtr proc,
                                                  const HVClientContext *context) {
    DeserProc *grown =
        static_cast<DeserProc *>(malloc(sizeof(DeserProc) * static_cast<size_t>(fDeserCount + 1)));
    if (!grown) return;
    DeserProc &entry = grown[fDeserCount];
    entry.fNS = static_cast<RtStringRef>(safeRtRetain(typeNamespace));
    entry.fType = static_cast<RtStringRef>(safeRtRetain(typeName));
    entry.fProc = proc;
    retainContext(&entry.fContext, context);
    if (fDeserCount > 0) memcpy(grown, fDeserOverride, sizeof(DeserProc) * static_cast<size_t>(fDeserCount));
    free(fDeserOverride);
    fDeserOverride = grown;
    fDeserCount++;
}

RtStringRef HVSerializerBase::seriailizeOverride(RtTypeRef value) {
    RtStringRef result = nullptr;
    // The parent's procedure runs even when an own match replaces its answer.
    if (fParent) result = fParent->seriailizeOverride(value);
    if (fSerCount == 0) return result;
    RtTypeID type = RtGetTypeID(value);
    for (int32_t i = 0; i < fSerCount; i++) {
        const SerProc &entry = fSerOverride[i];
        if (entry.fID != type) continue;
        safeRtRelease(result);
        result = entry.fProc
                     ? entry.fProc(reinterpret_cast<HVMethodInvocationRef>(const_cast<void *>(fRtRef)), value,
                                   entry.fContext.info)
                     : nullptr;
        break;
    }
    return result;
}

bool HVSerializerBase::wildcardMatches(RtStringRef value, RtStringRef pattern) {
    if (rtstrEquivilent(pattern, RTSTR("")) || rtstrEquivilent(pattern, RTSTR("*"))) return true;
    return rtstrEquivilent(value, pattern);
}

RtTypeRef HVSerializerBase::deserilizeOverride(RtTreeRef msgRoot, const AutoDict &ns, RtStringRef name,
                                               RtTreeRef deserializeRoot) {
    // Unlike serialization, a parent's answer wins outright.
    if (fParent) {
        RtTypeRef result = fParent->deserilizeOverride(msgRoot, ns, name, deserializeRoot);
        if (result) return result;
    }
    if (fDeserCount == 0 || !msgRoot) return nullptr;
    RtStringRef tag = RtXMLNodeGetString(RtXMLTreeGetNode(msgRoot));
    if (!tag) return nullptr;
    RtStringRef elementNS = nullptr;
    RtStringRef localName = nullptr;
    xmlNamespaceQualify(ns, tag, &elementNS, &localName);
    RtTypeRef result = nullptr;
    for (int32_t i = 0; i < fDeserCount; i++) {
        const DeserProc &entry = fDeserOverride[i];
        if (!wildcardMatches(elementNS, entry.fNS) || !wildcardMatches(localName, entry.fType)) continue;
        if (entry.fProc)
            result = entry.fProc(reinterpret_cast<HVMethodInvocationRef>(const_cast<void *>(fRtRef)), msgRoot,
                                 deserializeRoot, entry.fContext.info);
        break;
    }
    safeRtRelease(elementNS);
    safeRtRelease(localName);
    return result;
}

// ---- HalvoMethodInvocation -------------------------------------------------------------------

HalvoMethodInvocation::HalvoMethodInvocation()
    : fServiceURL(nullptr), fParameterOrder(nullptr), fParameters(nullptr), fCallback(nullptr), fContext(),
      fSource(nullptr) {}

// The value of key in dict when it is of type, else NULL: a contract may come from anywhere.
static RtTypeRef typedValue(RtDictionaryRef dict, RtStringRef key, RtTypeID type) {
    RtTypeRef value = RtDictionaryGetValue(dict, key);
    return RtGetTypeID(value) == type ? value : nullptr;
}

HalvoMethodInvocation::HalvoMethodInvocation(RtDictionaryRef agreement) : HalvoMethodInvocation() {
    if (!agreement) return;
    RtStringRef url =
        static_cast<RtStringRef>(typedValue(agreement, RTSTR("ServiceURL"), RtStringGetTypeID()));
    // A missing or malformed URL leaves the invocation without one.
    fServiceURL = url ? RtURLCreateWithString(kRtAllocatorDefault, url, nullptr) : nullptr;
    fParameterOrder =
        static_cast<RtArrayRef>(safeRtRetain(typedValue(agreement, RTSTR("ParamOrder"), RtArrayGetTypeID())));
    fParameters = static_cast<RtDictionaryRef>(
        safeRtRetain(typedValue(agreement, RTSTR("ParamValues"), RtDictionaryGetTypeID())));
    DictIterator it(
        static_cast<RtDictionaryRef>(typedValue(agreement, RTSTR("Properties"), RtDictionaryGetTypeID())));
    while (it.hasMoreElements()) {
        RtTypeRef key = it.nextElement();
        if (RtGetTypeID(key) == RtStringGetTypeID())
            setProperty(static_cast<RtStringRef>(key), it.getValue(key));
    }
}

HalvoMethodInvocation::~HalvoMethodInvocation() {
    safeRtRelease(fServiceURL);
    safeRtRelease(fParameterOrder);
    safeRtRelease(fParameters);
    if (fSource) {
        // A source still in some loop must never call back into a deleted object.
        if (fSource->getSource()) RtRunLoopSourceInvalidate(fSource->getSource());
        delete fSource;
    }
    // fContext is deliberately not released here: only setCallback releases a context.
}

void HalvoMethodInvocation::setServiceEndpoint(RtURLRef url) {
    safeRtRetain(url);
    safeRtRelease(fServiceURL);
    fServiceURL = url;
}

RtURLRef HalvoMethodInvocation::getServiceURL() {
    return fServiceURL;
}

void HalvoMethodInvocation::setParameters(RtDictionaryRef parameters, RtArrayRef order) {
    safeRtRetain(parameters);
    safeRtRelease(fParameters);
    fParameters = parameters;
    RtArrayRef newOrder = nullptr;
    if (order)
        newOrder = static_cast<RtArrayRef>(RtRetain(order));
    else if (parameters)
        newOrder = copyDictionaryKeys(parameters);
    safeRtRelease(fParameterOrder);
    fParameterOrder = newOrder;
}

void HalvoMethodInvocation::getParameters(RtDictionaryRef *outParameters, RtArrayRef *outOrder) {
    if (outParameters)
        *outParameters = fParameters ? RtDictionaryCreateCopy(kRtAllocatorDefault, fParameters) : nullptr;
    if (outOrder)
        *outOrder = fParameterOrder ? RtArrayCreateCopy(kRtAllocatorDefault, fParameterOrder) : nullptr;
}

HVRunLoopSource *HalvoMethodInvocation::getSource() {
    if (!fSource) fSource = createRunLoopSource();
    return fSource;
}

bool HalvoMethodInvocation::readReply(HalvoResult *result, RtDataRef data, bool forceXML,
                                      RtStringEncoding charset, RtStringRef *errorString) {
    RtTreeRef tree = parseXML(data, forceXML, charset, errorString, nullptr, nullptr,
                              xmlReadOptions(readValueRules(this)));
    if (!tree) return false;
    parseReply(result, tree);
    RtRelease(tree);
    return true;
}

void HalvoMethodInvocation::setCallback(HVMethodInvocationCallBackProcPtr callback,
                                        const HVClientContext *context) {
    fCallback = callback;
    releaseContext(&fContext);
    retainContext(&fContext, context);
}

void HalvoMethodInvocation::doCallback(HalvoResult *result) {
    // A second finish hands over no result; the callback runs once per result only.
    if (!fCallback || !result) return;
    fCallback(reinterpret_cast<HVMethodInvocationRef>(const_cast<void *>(fRtRef)), fContext.info,
              result->copyDictionary());
}

void HalvoMethodInvocation::populateAgreement(RtMutableDictionaryRef dict) {
    RtStringRef url = fServiceURL ? RtURLGetString(fServiceURL) : nullptr;
    if (url) RtDictionarySetValue(dict, RTSTR("ServiceURL"), url);
    if (fParameterOrder) RtDictionarySetValue(dict, RTSTR("ParamOrder"), fParameterOrder);
    if (fParameters) RtDictionarySetValue(dict, RTSTR("ParamValues"), fParameters);
    if (fProperties) RtDictionarySetValue(dict, RTSTR("Properties"), fProperties);
}
