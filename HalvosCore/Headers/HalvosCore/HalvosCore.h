/* HalvosCore.h: remote procedure calls over HTTP in XML-RPC and SOAP 1.1.
 *
 * A client creates an HVMethodInvocationRef for an endpoint URL, a method name and a protocol
 * (kHVXMLRPCProtocol, kHVSOAP1999Protocol or kHVSOAP2001Protocol), sets its parameters and
 * properties, and either calls HVMethodInvocationInvoke (synchronous) or sets a callback and
 * schedules the invocation on a run loop (asynchronous). Either way the call ends in exactly one
 * result dictionary: the method's value under kHVMethodInvocationResult, or a fault (test it with
 * HVMethodResultIsFault) with kHVFaultCode, kHVFaultString and kHVFaultExtra.
 *
 * A server uses an HVProtocolHandlerRef to turn a received request document into a request
 * dictionary and to write reply and fault documents; no networking is involved. A request
 * dictionary holds the method name under "/HVMethodName", a dictionary of parameters under
 * "/HVMethodParameters" and their names in document order under "/HVMethodParameterOrder".
 *
 * Ownership: the caller owns every handle and every value returned by a function whose name holds
 * "Create" or "Copy", and releases it with RtRelease. Handles are runtime objects: RtRetain,
 * RtRelease, RtGetTypeID and RtCopyDescription work on them.
 *
 * Null arguments: every function given a NULL handle does nothing and returns NULL or false.
 * Protocol constants are recognised by identity: pass the library's own kHV...Protocol objects;
 * an equal string made elsewhere is refused.
 *
 * Threads: there are none inside. An invocation or handler is used by one thread at a time; an
 * invocation belongs to the thread whose run loop it is scheduled on. The first invocation or
 * handler should be created before several threads use the library.
 *
 * Diagnostics: the environment variables "HVDebug" and "HVDebugVerbose" (their presence is
 * enough) switch on logging to standard error; they are read once, at the first Create. */
#ifndef HALVOSCORE_HALVOSCORE_H
#define HALVOSCORE_HALVOSCORE_H

#include <RtCore/RtCore.h>
#include <RtNetwork/RtNetwork.h>
#include <HalvosCore/HVVersion.h>

#if defined(__GNUC__) || defined(__clang__)
#define HV_EXPORT __attribute__((visibility("default")))
#else
#define HV_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Types --------------------------------------------------------------------------------- */

/* One client call: endpoint, method, parameters, properties, callback. A runtime object. */
typedef struct OpaqueHVMethodInvocationRef *HVMethodInvocationRef;
/* A reader and writer of one protocol's documents, for servers. A runtime object. */
typedef struct OpaqueHVProtocolHandlerRef *HVProtocolHandlerRef;

/* A caller's context, copied by value. When the library keeps a copy it calls retain(info) (if
 * both are set) and keeps the pointer retain returns; when it drops the copy it calls
 * release(info). copyDescription is stored and never called. version is never interpreted. */
typedef struct {
    int32_t version;
    void *info;
    const void *(*retain)(const void *info);
    void (*release)(const void *info);
    RtStringRef (*copyDescription)(const void *info);
} HVClientContext;

/* The completion callback: called once per call with the invocation, the context's info and a
 * new result dictionary, which the callback owns and must release. */
typedef void (*HVMethodInvocationCallBackProcPtr)(HVMethodInvocationRef invocation, void *info,
                                                  RtDictionaryRef result);

/* A serialization override: returns a new string written verbatim (no entity encoding) in place
 * of the normal encoding of value, or NULL to let the normal encoding run. invocation is the
 * handle of the object the override was registered on (for an override registered on a protocol
 * handler, that handler's HVProtocolHandlerRef). */
typedef RtStringRef (*HVMethodInvocationSerializationProcPtr)(HVMethodInvocationRef invocation,
                                                              RtTypeRef value, void *info);

/* A deserialization override: given the element's tree (msgRoot) and the document's root tree,
 * returns a value the library takes over (created or retained by the procedure), or NULL to let
 * the normal parsing run. invocation is as for serialization overrides. */
typedef RtTypeRef (*HVMethodInvocationDeserializationProcPtr)(HVMethodInvocationRef invocation,
                                                              RtTreeRef msgRoot, RtTreeRef deserializeRoot,
                                                              void *info);

/* The ten kinds of value the protocols write. Only grows at the end. */
typedef enum {
    eHVUnknownType = 0,
    eHVNullType = 1,
    eHVBooleanType = 2,
    eHVIntegerType = 3,
    eHVDoubleType = 4,
    eHVStringType = 5,
    eHVDateType = 6,
    eHVDataType = 7,
    eHVArrayType = 8,
    eHVDictionaryType = 9
} HVTypeID;

/* ---- Key constants (immortal runtime strings; the comment gives each one's text) ---------- */

HV_EXPORT extern const RtStringRef kHVXMLRPCProtocol;   /* "XML-RPC" */
HV_EXPORT extern const RtStringRef kHVSOAP1999Protocol; /* "SOAP-1999" */
HV_EXPORT extern const RtStringRef kHVSOAP2001Protocol; /* "SOAP-2001" */

/* Result dictionary keys. */
HV_EXPORT extern const RtStringRef kHVMethodInvocationResult;   /* "/Result": the method's value */
HV_EXPORT extern const RtStringRef kHVFaultCode;                /* "/FaultCode": 32-bit number */
HV_EXPORT extern const RtStringRef kHVFaultString;              /* "/FaultString" */
HV_EXPORT extern const RtStringRef kHVFaultExtra;               /* "/FaultExtra": any value */
HV_EXPORT extern const RtStringRef kHVNetworkStreamFaultString; /* "/RtStreamFault": transport faults */
HV_EXPORT extern const RtStringRef kHVStreamErrorDomain;        /* "domain" (in a stream-error dictionary) */
HV_EXPORT extern const RtStringRef kHVStreamErrorError;         /* "error" */
HV_EXPORT extern const RtStringRef kHVStreamErrorMessage;       /* "msg" */
HV_EXPORT extern const RtStringRef kHVHTTPMessage;              /* "/kHVHTTPMessage": request (result key,
                                                                   or a template message property) */
HV_EXPORT extern const RtStringRef kHVHTTPResponseMessage;      /* "/kHVHTTPResponseMessage" */

/* Invocation properties. */
HV_EXPORT extern const RtStringRef kHVMethodInvocationResultParameterName; /* "/HVResultParamName" */
HV_EXPORT extern const RtStringRef kHVMethodInvocationTimeoutValue; /* "kHVMethodInvocationTimeoutValue":
                                                                       whole seconds, 32-bit number */
HV_EXPORT extern const RtStringRef kHVHTTPVersion;                  /* "/HVHTTPVersion" */
HV_EXPORT extern const RtStringRef kHVHTTPExtraHeaders;             /* "/HVHTTPExtraHeaders": dictionary */
HV_EXPORT extern const RtStringRef kHVHTTPProxy;                    /* "/HVHTTPProxy": URL */
HV_EXPORT extern const RtStringRef kHVHTTPFollowsRedirects;         /* "/HVHTTPFollowsRedirects": boolean */
HV_EXPORT extern const RtStringRef kHVPostingMethod;                /* "/HVPostingMethod": default "POST" */
HV_EXPORT extern const RtStringRef kHVAuthInfo;            /* "/HVHTTPAuthInfo": reserved, not read */
HV_EXPORT extern const RtStringRef kHVAuthInfo_user;       /* "username" */
HV_EXPORT extern const RtStringRef kHVAuthInfo_password;   /* "password" */
HV_EXPORT extern const RtStringRef kHVAuthInfo_authScheme; /* "authScheme" */
HV_EXPORT extern const RtStringRef kHVAuthInfo_forProxy;   /* "forProxy" */

/* Result keys of the transaction log, present in every result of an HTTP call. */
HV_EXPORT extern const RtStringRef kHVDebugOutgoingHeaders; /* "/HVDebugOutHeaders" */
HV_EXPORT extern const RtStringRef kHVDebugOutgoingBody;    /* "/HVDebugOutBody" */
HV_EXPORT extern const RtStringRef kHVDebugIncomingHeaders; /* "/HVDebugInHeaders" */
HV_EXPORT extern const RtStringRef kHVDebugIncomingBody;    /* "/HVDebugInBody" */

/* SOAP properties and record keys. */
HV_EXPORT extern const RtStringRef kHVSOAPMessageHeaders;     /* "/HVHTTPMessageHeaders" */
HV_EXPORT extern const RtStringRef kHVSOAPMethodNamespaceURI; /* "/HVSOAPMethodNamespaceURI" */
HV_EXPORT extern const RtStringRef kHVSOAPBodyEncodingStyle;  /* "/HVSOAPBodyEncodingStyle" */
HV_EXPORT extern const RtStringRef kHVSOAPStyleRPC;           /* "rpc" */
HV_EXPORT extern const RtStringRef kHVSOAPStyleDoc;           /* "doc" */
HV_EXPORT extern const RtStringRef kHVRecordType;             /* "/HVRecordType" */
HV_EXPORT extern const RtStringRef kHVRecordNamespaceURI;     /* "/HVRecordNamespaceURI" */
HV_EXPORT extern const RtStringRef kHVRecordParameterOrder;   /* "/HVRecordParamOrder" */

/* Value properties, read on an invocation and on a protocol handler alike. */
/** "/HVExactValues": boolean. When true, every value either travels exactly or the call fails
 *  before anything is sent, with one fault naming the value's path and the reason: doubles in
 *  their shortest exact form, empty strings kept, null, 64-bit integers and names written so that
 *  they read back identical, values a dialect cannot carry refused. Unset or false keeps the
 *  default writing and reading byte for byte. */
HV_EXPORT extern const RtStringRef kHVExactValues;
/** "/HVValueExtensions": boolean. When true, the XML-RPC reader accepts the common extension
 *  elements i8, nil, ex:i8 and ex:nil, and with kHVExactValues the XML-RPC writer uses i8 for
 *  integers beyond 32 bits and nil for null instead of refusing them. */
HV_EXPORT extern const RtStringRef kHVValueExtensions;

/* ---- Method invocations -------------------------------------------------------------------- */

/* HVMethodInvocationGetTypeID: the runtime type of HVMethodInvocationRef objects. */
HV_EXPORT RtTypeID HVMethodInvocationGetTypeID(void);

/* HVMethodInvocationCreate: a new invocation of methodName (may be NULL) at url.
 *   protocol must be the very object kHVXMLRPCProtocol, kHVSOAP1999Protocol or kHVSOAP2001Protocol.
 * Returns a handle the caller releases, or NULL when url or protocol is NULL or unknown. */
HV_EXPORT HVMethodInvocationRef HVMethodInvocationCreate(RtURLRef url, RtStringRef methodName,
                                                         RtStringRef protocol);

/* HVMethodInvocationCreateFromSerialization: a new invocation from data made by
 * HVMethodInvocationCopySerialization (protocol, method, URL, parameters, order, properties).
 * Returns NULL for NULL data, data that is not a property list of a dictionary, or an unknown
 * protocol entry. The callback and overrides are not part of the serialization. */
HV_EXPORT HVMethodInvocationRef HVMethodInvocationCreateFromSerialization(RtDataRef contract);

/* HVMethodInvocationCopySerialization: the invocation as property-list XML data (new, caller
 * releases), or NULL. Properties must be property-list values for this to succeed. */
HV_EXPORT RtDataRef HVMethodInvocationCopySerialization(HVMethodInvocationRef invocation);

/* HVMethodInvocationSetParameters: parameters by name (retained) and the order to send them in
 * (retained). A NULL paramOrder with non-NULL parameters sends them in the dictionary's order.
 * NULL for both clears the parameters. */
HV_EXPORT void HVMethodInvocationSetParameters(HVMethodInvocationRef invocation, RtDictionaryRef parameters,
                                               RtArrayRef paramOrder);

/* HVMethodInvocationCopyParameters: a new copy of the parameter dictionary (NULL when none is set).
 * When paramOrder is not NULL it receives a new copy of the order array (or NULL); it is set to
 * NULL first, also for a NULL handle. The caller releases both. */
HV_EXPORT RtDictionaryRef HVMethodInvocationCopyParameters(HVMethodInvocationRef invocation,
                                                           RtArrayRef *paramOrder);

/* HVMethodInvocationSetProperty: sets propName to value (retained); a NULL value removes it. */
HV_EXPORT void HVMethodInvocationSetProperty(HVMethodInvocationRef invocation, RtStringRef propName,
                                             RtTypeRef value);

/* HVMethodInvocationCopyProperty: the property's value, retained for the caller, or NULL. */
HV_EXPORT RtTypeRef HVMethodInvocationCopyProperty(HVMethodInvocationRef invocation, RtStringRef propName);

/* HVMethodInvocationSetCallBack: the callback of asynchronous calls and its context (copied; see
 * HVClientContext). NULL for both clears them. A context still set when the invocation is
 * destroyed is not released. */
HV_EXPORT void HVMethodInvocationSetCallBack(HVMethodInvocationRef invocation,
                                             HVMethodInvocationCallBackProcPtr clientCB,
                                             HVClientContext *context);

/* HVMethodInvocationScheduleWithRunLoop: starts the call on runLoop in runLoopMode; it proceeds
 * while that loop runs that mode and ends in the callback. The source is signalled, so the call
 * starts on the loop's next pass; wake a sleeping loop yourself when scheduling from elsewhere. */
HV_EXPORT void HVMethodInvocationScheduleWithRunLoop(HVMethodInvocationRef invocation, RtRunLoopRef runLoop,
                                                     RtStringRef runLoopMode);

/* HVMethodInvocationUnscheduleFromRunLoop: removes the invocation's source from runLoop in
 * runLoopMode. */
HV_EXPORT void HVMethodInvocationUnscheduleFromRunLoop(HVMethodInvocationRef invocation, RtRunLoopRef runLoop,
                                                       RtStringRef runLoopMode);

/* HVMethodInvocationInvoke: makes the call synchronously, running the current thread's run loop
 * in the private mode "HVSYNC" until the result arrives (sources of other modes do not fire).
 * Waits as long as the transport does unless kHVMethodInvocationTimeoutValue is set. Replaces
 * and afterwards clears any callback. Returns the result dictionary (caller releases); NULL only
 * for a NULL handle. */
HV_EXPORT RtDictionaryRef HVMethodInvocationInvoke(HVMethodInvocationRef invocation);

/* HVMethodResultIsFault: true when methodResult is a fault result; false for NULL. */
HV_EXPORT bool HVMethodResultIsFault(RtDictionaryRef methodResult);

/* HVMethodInvocationAddSerializationOverride: values of runtime type objType are written by
 * serializationProc. The first override registered for a type wins; later ones are never
 * called. The context (may be NULL) is copied as for callbacks. */
HV_EXPORT void
HVMethodInvocationAddSerializationOverride(HVMethodInvocationRef invocation, RtTypeID objType,
                                           HVMethodInvocationSerializationProcPtr serializationProc,
                                           HVClientContext *serializationRefcon);

/* HVMethodInvocationAddDeserializationOverride: reply elements whose namespace and local name
 * match typeNamespace and typeName (case-insensitive; "*" or "" matches anything, NULL matches
 * only a missing one) are read by deserializationProc. The first match wins. The two strings are
 * retained for the life of the invocation. */
HV_EXPORT void HVMethodInvocationAddDeserializationOverride(
    HVMethodInvocationRef invocation, RtStringRef typeNamespace, RtStringRef typeName,
    HVMethodInvocationDeserializationProcPtr deserializationProc, HVClientContext *deserializationRefcon);

/* ---- Protocol handlers --------------------------------------------------------------------- */

/* HVProtocolHandlerGetTypeID: the runtime type of HVProtocolHandlerRef objects. */
HV_EXPORT RtTypeID HVProtocolHandlerGetTypeID(void);

/* HVProtocolHandlerCreate: a new handler for protocol (one of the three kHV...Protocol objects);
 * allocator is ignored. Returns a handle the caller releases, or NULL for any other protocol. */
HV_EXPORT HVProtocolHandlerRef HVProtocolHandlerCreate(RtAllocatorRef allocator, RtStringRef protocol);

/* HVProtocolHandlerCopyRequestDictionary: the request dictionary of a received request document
 * (UTF-8 unless it declares otherwise). New, caller releases; NULL when data is NULL or does not
 * parse. */
HV_EXPORT RtDictionaryRef HVProtocolHandlerCopyRequestDictionary(HVProtocolHandlerRef handler,
                                                                 RtDataRef data);

/* HVProtocolHandlerCopyReplyDictionary: the result dictionary of a reply document to methodName,
 * as a client call delivers it (a fault when the document is one). New, caller releases; NULL
 * when methodName or data is NULL. */
HV_EXPORT RtDictionaryRef HVProtocolHandlerCopyReplyDictionary(HVProtocolHandlerRef handler,
                                                               RtStringRef methodName, RtDataRef data);

/* HVProtocolHandlerCopyRequestDocument: a request document, exactly as a client invocation sends
 * it. methodExtras is reserved. New data, caller releases; NULL when methodName is NULL. */
HV_EXPORT RtDataRef HVProtocolHandlerCopyRequestDocument(HVProtocolHandlerRef handler, RtStringRef methodName,
                                                         RtDictionaryRef methodParams,
                                                         RtArrayRef methodParamOrder,
                                                         RtDictionaryRef methodExtras);

/* HVProtocolHandlerCopyReplyDocument: the reply document carrying returnValue for the request
 * described by context (a request dictionary). New data, caller releases. */
HV_EXPORT RtDataRef HVProtocolHandlerCopyReplyDocument(HVProtocolHandlerRef handler, RtDictionaryRef context,
                                                       RtTypeRef returnValue);

/* HVProtocolHandlerCopyFaultDocument: the fault document for faultDict (kHVFaultCode,
 * kHVFaultString, kHVFaultExtra) in answer to the request described by context. New data,
 * caller releases. */
HV_EXPORT RtDataRef HVProtocolHandlerCopyFaultDocument(HVProtocolHandlerRef handler, RtDictionaryRef context,
                                                       RtDictionaryRef faultDict);

/* HVProtocolHandlerSetProperty: sets propertyName to propertyValue (retained); NULL removes it. */
HV_EXPORT void HVProtocolHandlerSetProperty(HVProtocolHandlerRef handler, RtStringRef propertyName,
                                            RtTypeRef propertyValue);

/* HVProtocolHandlerCopyProperty: always returns NULL. A present property gains one reference
 * that is never released; kept for compatibility with existing callers. */
HV_EXPORT RtTypeRef HVProtocolHandlerCopyProperty(HVProtocolHandlerRef handler, RtStringRef propertyName);

/* HVProtocolHandlerSetSerializationOverride: appends a serialization override, as
 * HVMethodInvocationAddSerializationOverride does for invocations. */
HV_EXPORT void
HVProtocolHandlerSetSerializationOverride(HVProtocolHandlerRef handler, RtTypeID objType,
                                          HVMethodInvocationSerializationProcPtr serializationProc,
                                          HVClientContext *context);

/* HVProtocolHandlerSetDeserializationOverride: appends a deserialization override, as
 * HVMethodInvocationAddDeserializationOverride does for invocations. */
HV_EXPORT void HVProtocolHandlerSetDeserializationOverride(
    HVProtocolHandlerRef handler, RtStringRef typeNamespace, RtStringRef typeName,
    HVMethodInvocationDeserializationProcPtr deserializationProc, HVClientContext *context);

/* ---- Dates and value kinds ----------------------------------------------------------------- */

/* hvRtDateToISO8601String: writes val in GMT as "YYYY-MM-DDTHH:MM:SSZ"-style ISO 8601 text (without
 * the dashes when noDashes) into buffer, at most len bytes including the terminating NUL. */
HV_EXPORT void hvRtDateToISO8601String(char *buffer, RtIndex len, RtDateRef val, bool noDashes);

/* hvCreateDateFromISO8601: a new date (caller releases) read from the len characters at p; the
 * reader is lenient (separators optional, missing fields zero). */
HV_EXPORT RtDateRef hvCreateDateFromISO8601(const char *p, RtIndex len);

/* HVGetHVTypeIDFromRtType: the kind of a (non-NULL) runtime value; eHVUnknownType for kinds the
 * protocols do not write (URLs, for instance). */
HV_EXPORT HVTypeID HVGetHVTypeIDFromRtType(RtTypeRef val);

/* HVGetRtTypeIDFromHVTypeID: the runtime type of a kind (the number type for both integers and
 * doubles), or 0 for eHVUnknownType. */
HV_EXPORT RtTypeID HVGetRtTypeIDFromHVTypeID(HVTypeID kind);

#ifdef __cplusplus
}
#endif

#endif
