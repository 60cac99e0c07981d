// HalvoClosure: the objects behind the public handles.
// HVSerializerBase holds what invocations and protocol handlers share: properties, the
// serialization and deserialization overrides, the handle that wraps the object and a parent
// consulted first. HalvoMethodInvocation is one client call (endpoint, parameters, callback, the
// run-loop source that runs it); HVProtocolHandler reads and writes one protocol's documents.
// Each object is used by one thread at a time (the thread of the run loop it is scheduled on);
// no locks.
#pragma once

#include "CPlusAutoTypes.h"
#include "ExactValues.h"

class HalvoResult;
class HVRunLoopSource;

// The identifier of the library's bundle, registered with its version for the User-Agent.
#define HV_BUNDLE_IDENTIFIER "org.halvos.HalvosCore"
// Registers the library's bundle once (identifier above, version from HVVersion.h).
RtBundleRef registerLibraryBundle();

// The keys of a request dictionary (what parsePostData returns and createReply/createFault take).
inline RtStringRef requestMethodNameKey() {
    return RTSTR("/HVMethodName");
}
inline RtStringRef requestParametersKey() {
    return RTSTR("/HVMethodParameters");
}
inline RtStringRef requestParameterOrderKey() {
    return RTSTR("/HVMethodParameterOrder");
}
inline RtStringRef requestTextEncodingKey() {
    return RTSTR("/HVTextEncoding");
}

// One serialization override.
struct SerProc {
    RtTypeID fID;
    HVMethodInvocationSerializationProcPtr fProc;
    HVClientContext fContext;
};

// One deserialization override; the patterns are retained and may be NULL.
struct DeserProc {
    RtStringRef fNS;
    RtStringRef fType;
    HVMethodInvocationDeserializationProcPtr fProc;
    HVClientContext fContext;
};

class HVSerializerBase {
  public:
    HVSerializerBase();
    HVSerializerBase(const HVSerializerBase &) = delete;
    HVSerializerBase &operator=(const HVSerializerBase &) = delete;
    virtual ~HVSerializerBase();

    // A NULL value removes key.
    virtual void setProperty(RtStringRef key, RtTypeRef value);
    // The parent's value when it has one (the parent wins), else this object's. Borrowed.
    virtual RtTypeRef getProperty(RtStringRef key);
    // Adds every entry of dict whose key is not yet present.
    void addProperties(RtDictionaryRef dict);

    void setParent(HVSerializerBase *parent) { fParent = parent; }
    HVSerializerBase *getParent() const { return fParent; }
    RtTypeRef getRtRef() const { return fRtRef; }
    void setRtRef(RtTypeRef ref) { fRtRef = ref; }

    void addSerializationOverride(RtTypeID objType, HVMethodInvocationSerializationProcPtr proc,
                                  const HVClientContext *context);
    void addDeserializationOverride(RtStringRef typeNamespace, RtStringRef typeName,
                                    HVMethodInvocationDeserializationProcPtr proc,
                                    const HVClientContext *context);
    // A new string to write verbatim in place of value, or NULL. The parent's procedure runs
    // first; an own match replaces its answer.
    RtStringRef seriailizeOverride(RtTypeRef value);
    // A value (owned by the caller) for the element msgRoot, or NULL. ns is the namespace scope
    // at the element, name the element name (handed on only). A parent's answer wins.
    RtTypeRef deserilizeOverride(RtTreeRef msgRoot, const AutoDict &ns, RtStringRef name,
                                 RtTreeRef deserializeRoot);
    // Whether this object or a parent has a deserialization override (a reader that decodes
    // values before the whole tree exists must then build the tree).
    bool hasDeserializationOverrides() const {
        return fDeserCount > 0 || (fParent && fParent->hasDeserializationOverrides());
    }

    // Copies source into destination, retaining info; a NULL source zeroes the destination.
    static void retainContext(HVClientContext *destination, const HVClientContext *source);
    // Releases info and zeroes the context.
    static void releaseContext(HVClientContext *context);
    // True when pattern is "*" or "" (ignoring case), or when value is equivalent to pattern.
    static bool wildcardMatches(RtStringRef value, RtStringRef pattern);

  protected:
    RtMutableDictionaryRef fProperties;
    SerProc *fSerOverride;
    int32_t fSerCount;
    DeserProc *fDeserOverride;
    int32_t fDeserCount;
    RtTypeRef fRtRef;
    HVSerializerBase *fParent;
};

class HalvoMethodInvocation : public HVSerializerBase {
  public:
    HalvoMethodInvocation();
    // From an agreement dictionary: "ServiceURL", "ParamOrder", "ParamValues", "Properties".
    explicit HalvoMethodInvocation(RtDictionaryRef agreement);
    ~HalvoMethodInvocation() override;

    virtual void setServiceEndpoint(RtURLRef url);
    virtual RtURLRef getServiceURL();
    // A NULL order with non-NULL parameters takes the dictionary's own key order.
    virtual void setParameters(RtDictionaryRef parameters, RtArrayRef order);
    // Each non-NULL out pointer receives a new immutable copy, or NULL.
    virtual void getParameters(RtDictionaryRef *outParameters, RtArrayRef *outOrder);
    // A new agreement dictionary (caller releases), or NULL.
    virtual RtDictionaryRef copyAgreement() = 0;
    // The request body (new data, caller releases), or NULL; may store a content type.
    virtual RtDataRef constructMessage(AutoString &contentType) = 0;
    // Fills result from the reply document's tree.
    virtual void parseReply(HalvoResult *result, RtTreeRef tree) = 0;
    // Reads the reply document data into result: parseXML (forceXML, charset), then parseReply.
    // False, with *errorString set as parseXML sets it, when the document does not parse.
    virtual bool readReply(HalvoResult *result, RtDataRef data, bool forceXML, RtStringEncoding charset,
                           RtStringRef *errorString);
    // A new transport source for getServiceURL(), owned by this invocation.
    virtual HVRunLoopSource *createRunLoopSource() = 0;
    // Why the last constructMessage wrote no request (exact mode refused a value), or NULL.
    RtStringRef getRequestRefusal() const { return fRequestRefusal.getString(); }

    // The "MethodName" property (the protocol subclasses keep the name in a field).
    RtStringRef getMethodName() { return static_cast<RtStringRef>(getProperty(RTSTR("MethodName"))); }
    RtDictionaryRef getParameterDictionary() const { return fParameters; }
    RtArrayRef getParameterOrder() const { return fParameterOrder; }
    // The source that runs the call, created on first use.
    HVRunLoopSource *getSource();
    void setCallback(HVMethodInvocationCallBackProcPtr callback, const HVClientContext *context);
    HVMethodInvocationCallBackProcPtr getCallback() const { return fCallback; }
    // Calls the callback (if any) with a new copy of result's dictionary.
    void doCallback(HalvoResult *result);

  protected:
    // Adds "ServiceURL", "ParamOrder", "ParamValues" and "Properties" where present.
    void populateAgreement(RtMutableDictionaryRef dict);

    RtURLRef fServiceURL;
    RtArrayRef fParameterOrder;
    RtDictionaryRef fParameters;
    HVMethodInvocationCallBackProcPtr fCallback;
    HVClientContext fContext;
    HVRunLoopSource *fSource;
    AutoString fRequestRefusal;
};

// A new invocation object for protocol, recognised by identity with the three kHV...Protocol
// constants (NULL for anything else): from the agreement when one is given, else from url and
// methodName.
HalvoMethodInvocation *createInvocationForProtocol(RtStringRef protocol, RtURLRef url, RtStringRef methodName,
                                                   RtDictionaryRef agreement);

class HVProtocolHandler : public HVSerializerBase {
  public:
    HVProtocolHandler() = default;
    ~HVProtocolHandler() override = default;

    // A new request document (UTF-8 data), or NULL. extras is reserved.
    virtual RtDataRef createRequest(RtStringRef methodName, RtDictionaryRef parameters, RtArrayRef order,
                                    RtDictionaryRef extras) = 0;
    // A new request dictionary, or NULL with the reason in errorString (may be NULL).
    virtual RtDictionaryRef parsePostData(RtDataRef data, RtStringEncoding encoding,
                                          AutoString *errorString) = 0;
    // A new result dictionary for a reply document, or NULL.
    virtual RtDictionaryRef parseReplyData(RtStringRef methodName, RtDataRef data, RtStringEncoding encoding,
                                           AutoString *errorString) = 0;
    // New reply and fault documents for the request described by context.
    virtual RtDataRef createReply(RtDictionaryRef context, RtTypeRef returnValue) = 0;
    virtual RtDataRef createFault(RtDictionaryRef context, RtDictionaryRef faultDict) = 0;

    // Why the last document written came out NULL in exact mode ("params[0].count: ..."), or
    // NULL when it was not refused. Borrowed.
    RtStringRef getRefusal() const { return fWriteCheck.getRefusal(); }

  protected:
    // The path and first refusal of the document being written.
    ValueWriteCheck fWriteCheck;
};
