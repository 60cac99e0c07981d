/** @file
 * @ingroup HalvosCore
 * @brief An embeddable HTTP(S) server that answers XML-RPC and SOAP calls with registered
 * methods. Included by <HalvosCore/HalvosCore.h>; include that header, not this one.
 *
 * A program creates a server, registers methods (a C procedure each, with an optional help text
 * and signature), sets properties (paths, limits, threads, TLS, logging), then starts it:
 *
 *     HVServerRef server = HVServerCreate(NULL);
 *     HVServerAddMethod(server, RTSTR("examples.add"), add, NULL, RTSTR("Adds two numbers."), signature);
 *     if (!HVServerStart(server, NULL)) ...;          listens on 127.0.0.1, a free port
 *     printf("%u\n", HVServerGetPort(server));
 *     ...
 *     HVServerStop(server);                            running calls finish first
 *     RtRelease(server);
 *
 * Requests are read and replies written by the protocol handlers (HVProtocolHandlerRef), so a
 * server's answer is byte for byte what a handler writes. XML-RPC is served on "/RPC2" and SOAP
 * (both schema flavours, told apart by the XML Schema namespace the request declares) on
 * "/soap" unless the path properties say otherwise; when both paths are the same, the request's
 * root element (methodCall or Envelope) picks the protocol. XML-RPC faults go out with HTTP
 * status 200, SOAP faults with 500.
 *
 * The server answers system.listMethods, system.methodHelp, system.methodSignature and
 * system.multicall itself. A call to an unknown method, or with parameters that do not fit a
 * method's signature, gets a fault that names the method and the parameter.
 *
 * Threads: methods run on the server's own threads (kHVServerThreads of them, 8 by default),
 * several at once. A method procedure may use the library as any thread may (it may make
 * synchronous calls of its own: its thread has its own run loop), but must not share a runtime
 * object that another thread changes, nor use an invocation or protocol handler of another
 * thread. The values a procedure receives are its own for the duration of the call; it retains
 * what it keeps. Set kHVServerThreads to 1 to have every method run on one thread, one call at a
 * time.
 *
 * Failures: functions given a NULL or foreign handle do nothing and return NULL, false or 0;
 * no function throws. Where a function can fail for a reason worth reading it takes an optional
 * error pointer that receives a fault dictionary (kHVFaultCode, kHVFaultString) the caller
 * releases. */
#ifndef HALVOSCORE_HVSERVER_H
#define HALVOSCORE_HVSERVER_H

#ifdef __cplusplus
extern "C" {
#endif

/** @addtogroup HalvosCore
 * @{ */

/** An embeddable server: a method registry served over HTTP or HTTPS. A runtime object. */
typedef struct OpaqueHVServerRef *HVServerRef;

/** A method procedure. Receives the protocol of the request (the very object kHVXMLRPCProtocol,
 * kHVSOAP1999Protocol or kHVSOAP2001Protocol), the method name as called, the parameters by name
 * and their names in document order (XML-RPC names them "anon0", "anon1", ...; SOAP by their
 * elements), all borrowed, and the context's info. Returns the result, a new reference the server takes
 * over; or NULL after storing a new fault dictionary (kHVFaultCode, kHVFaultString, optionally
 * kHVFaultExtra) in *fault. A NULL return without a fault, or a value the protocol cannot carry
 * (a URL, a dictionary with keys other than strings, ...), is answered with the fault
 * "internal error" (code -32603). Runs on one of the server's threads (see the file comment). */
typedef RtTypeRef (*HVServerMethodProcPtr)(HVServerRef server, RtStringRef protocol, RtStringRef methodName,
                                           RtDictionaryRef parameters, RtArrayRef parameterOrder,
                                           RtDictionaryRef *fault, void *info);

/** An authentication check, called before a call is dispatched with the user name and password
 * of the request's HTTP Basic credentials (both NULL when it sent none) and the request path.
 * Returns true to let the call through; false answers 401 with a Basic challenge. Runs on the
 * server's network threads, several at once: keep it short. */
typedef bool (*HVServerAuthenticationProcPtr)(HVServerRef server, RtStringRef user, RtStringRef password,
                                              RtStringRef path, void *info);

/* ---- Properties (keys for HVServerSetProperty; set them before HVServerStart) ------------- */

/** "/HVServerXMLRPCPath": string, the path XML-RPC is served on (default "/RPC2"). */
HV_EXPORT extern const RtStringRef kHVServerXMLRPCPath;
/** "/HVServerSOAPPath": string, the path SOAP is served on (default "/soap"); may equal the
 * XML-RPC path, which then serves both. */
HV_EXPORT extern const RtStringRef kHVServerSOAPPath;
/** "/HVServerThreads": number, the threads methods run on (default 8, at most 1024; 1 runs
 * every method on one thread). */
HV_EXPORT extern const RtStringRef kHVServerThreads;
/** "/HVServerMaxQueued": number, the calls that may wait for a free thread (default 1024);
 * further calls are answered 503 at once. */
HV_EXPORT extern const RtStringRef kHVServerMaxQueued;
/** "/HVServerMaxBodyBytes": number, the largest request body (default 1048576). A larger one is
 * answered 413: from its Content-Length before any of it is read (the connection then closes);
 * a chunked body stops being kept once it passes the limit and is answered 413 at its end, or
 * dropped with its connection past four times the limit (at least 16 MiB). */
HV_EXPORT extern const RtStringRef kHVServerMaxBodyBytes;
/** "/HVServerMaxConnections": number, the connections open at once (default 10000); further
 * connections are closed as soon as they are accepted. Each connection takes a descriptor: the
 * process's descriptor limit (RLIMIT_NOFILE) must leave room for them. */
HV_EXPORT extern const RtStringRef kHVServerMaxConnections;
/** "/HVServerIdleTimeout": number of seconds a connection may stay silent (default 30). */
HV_EXPORT extern const RtStringRef kHVServerIdleTimeout;
/** "/HVServerRequestTimeout": number of seconds a request may take to arrive, head and body,
 * counted from the moment its connection is ready for it (accepted, or done with the request
 * before) (default 60); a slower one is cut: over plain HTTP it is answered 408 first when its
 * request line had come and nothing was answered yet. Methods' run time does not count. */
HV_EXPORT extern const RtStringRef kHVServerRequestTimeout;
/** "/HVServerLogRequests": boolean; when true, one line per request on standard error: client
 * address, user, time, request line, status, reply bytes, seconds taken, method called. */
HV_EXPORT extern const RtStringRef kHVServerLogRequests;
/** "/HVServerIndexText": string answered (text/plain, 200) to GET on "/"; default: 404. */
HV_EXPORT extern const RtStringRef kHVServerIndexText;
/** "/HVServerTLSCertificate": data or string, the PEM certificate (chain) to serve HTTPS with. */
HV_EXPORT extern const RtStringRef kHVServerTLSCertificate;
/** "/HVServerTLSKey": data or string, the PEM private key of the certificate. HTTPS is served
 * when both are set. */
HV_EXPORT extern const RtStringRef kHVServerTLSKey;
/** "/HVServerAuthRealm": string, the realm of the Basic challenge (default "HalvosCore"). */
HV_EXPORT extern const RtStringRef kHVServerAuthRealm;
/** "/HVServerMaxConnectionsPerAddress": number, the connections one client address may have
 * open at once (default 2000); further ones from it are closed as soon as they are accepted. */
HV_EXPORT extern const RtStringRef kHVServerMaxConnectionsPerAddress;
/** "/HVServerMaxHeadBytes": number, the largest request head, request line and fields (default
 * 16384, from 1024 to 1048576); a larger one is answered 431 (or 414 for a long request line)
 * and its connection closed. The connection's buffer is this size plus 8 KiB. */
HV_EXPORT extern const RtStringRef kHVServerMaxHeadBytes;

/* kHVExactValues and kHVValueExtensions (booleans, true by default) are server properties too:
 * see HVServerSetProperty. */

/* ---- Functions ----------------------------------------------------------------------------- */

/** HVServerGetTypeID: the runtime type of HVServerRef objects. */
HV_EXPORT RtTypeID HVServerGetTypeID(void);

/** HVServerCreate: a new server with no methods, default properties, not listening. allocator
 * is ignored. Returns a handle the caller releases (releasing the last reference stops the
 * server first; never do that from inside a method procedure), or NULL when out of memory. */
HV_EXPORT HVServerRef HVServerCreate(RtAllocatorRef allocator);

/** HVServerAddMethod: registers proc under name. context (may be NULL) is copied as for
 * invocation callbacks (see HVClientContext). help (may be NULL) is what system.methodHelp
 * answers. signature (may be NULL) is an array of arrays of type names, each the result type
 * followed by the parameter types ("int", "i4", "i8", "double", "boolean", "string",
 * "dateTime.iso8601", "base64", "array", "struct", "nil"), as system.methodSignature answers.
 * With a signature, a call whose parameter count fits no entry, or whose parameters are not of
 * the entry's kinds, is answered with a fault before proc runs; text parameters of SOAP calls
 * (what clients that write no xsi:type send) are first converted to the declared scalar type.
 * Returns false, registering nothing, for a NULL name or proc, a name already registered or
 * beginning with "system.", a malformed signature, or a server already started. */
HV_EXPORT bool HVServerAddMethod(HVServerRef server, RtStringRef name, HVServerMethodProcPtr proc,
                                 HVClientContext *context, RtStringRef help, RtArrayRef signature);

/** HVServerSetAuthentication: calls proc before dispatching each request (see
 * HVServerAuthenticationProcPtr); NULL removes the check. context is copied as above. Returns
 * false once the server has started. */
HV_EXPORT bool HVServerSetAuthentication(HVServerRef server, HVServerAuthenticationProcPtr proc,
                                         HVClientContext *context);

/** HVServerSetProperty: sets one of the kHVServer... properties (value retained; NULL restores
 * the default). Also takes kHVExactValues and kHVValueExtensions, both true by default: requests
 * are read exactly, with the XML-RPC extension elements (i8, nil, ex:i8, ex:nil), and replies
 * are written exactly (a value that cannot travel becomes a fault naming it), using i8 and nil
 * only in reply to a request that used them; set either to kRtBooleanFalse to turn it off.
 * Returns false for an unknown key, a value of the wrong kind or out of range, or a server
 * already started. */
HV_EXPORT bool HVServerSetProperty(HVServerRef server, RtStringRef key, RtTypeRef value);

/** HVServerListen: binds the listening socket to address (an IPv4 or IPv6 literal; NULL means
 * "127.0.0.1") and port (0 picks a free one, which HVServerGetPort then tells). Returns false,
 * with a fault in *error when error is not NULL, when the address does not parse or the socket
 * cannot be bound, or when the server is already listening. */
HV_EXPORT bool HVServerListen(HVServerRef server, RtStringRef address, uint16_t port, RtDictionaryRef *error);

/** HVServerStart: starts serving on the bound socket (binding 127.0.0.1 on a free port first
 * when HVServerListen was not called) and returns once connections are accepted. Returns false,
 * with a fault in *error when error is not NULL, when it cannot start (the TLS certificate or
 * key does not load, the socket cannot be bound), when it already runs, or after HVServerStop. */
HV_EXPORT bool HVServerStart(HVServerRef server, RtDictionaryRef *error);

/** HVServerGetPort: the port the server listens on, 0 before HVServerListen or HVServerStart. */
HV_EXPORT uint16_t HVServerGetPort(HVServerRef server);

/** HVServerStop: stops gracefully: no new connections are accepted, calls waiting for a thread
 * are answered 503, running method procedures finish and their replies are sent, then the
 * connections close; returns after all that. May be called any number of times, before, during
 * or after HVServerStart (a stopped server does not start again). Called from inside a method
 * procedure it only stops accepting connections and returns at once; the stop completes at the
 * next HVServerStop from another thread or when the server is released. */
HV_EXPORT void HVServerStop(HVServerRef server);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
