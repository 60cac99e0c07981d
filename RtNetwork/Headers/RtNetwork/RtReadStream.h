/** @file
 * @ingroup RtNetwork
 * @brief A read stream that performs one HTTP request and delivers the response body.
 *
 * Built on one libcurl multi handle per thread, driven by that thread's run loop (descriptor
 * watchers and a timer), so sequential requests to one server reuse a connection. The request
 * carries exactly the message's header fields plus Content-Length. Events reach the client
 * callback on the run loop the stream is scheduled on. A stream belongs to the thread whose run
 * loop it is scheduled on. NULL or non-stream arguments make a call do nothing (readers return
 * NULL, false or -1). */
#ifndef RTNETWORK_RTREADSTREAM_H
#define RTNETWORK_RTREADSTREAM_H

#include <RtCore/RtCore.h>
#include <RtNetwork/RtHTTPMessage.h>

RT_EXTERN_C_BEGIN

/** @addtogroup RtNetwork
 * @{ */

/** A stream that performs one HTTP request and reads its response body. */
typedef struct __RtReadStream *RtReadStreamRef;

/** Where a stream stands (RtReadStreamGetStatus()). */
typedef enum {
    kRtStreamStatusNotOpen = 0, ///< Created, not opened yet.
    kRtStreamStatusOpening = 1, ///< The request is under way.
    kRtStreamStatusOpen = 2,    ///< Connected to the server; body bytes are read as they arrive.
    kRtStreamStatusReading = 3, ///< Not reported by this stream.
    kRtStreamStatusWriting = 4, ///< Not reported by this stream.
    kRtStreamStatusAtEnd = 5,   ///< The whole body was read.
    kRtStreamStatusClosed = 6,  ///< RtReadStreamClose() was called.
    kRtStreamStatusError = 7    ///< The request failed; see RtReadStreamGetError().
} RtStreamStatus;

/** A set of stream events (bits of the enum below). */
typedef RtOptionFlags RtStreamEventType;
/** The events a stream client can receive. */
enum {
    kRtStreamEventNone = 0,              ///< No event.
    kRtStreamEventOpenCompleted = 1,     ///< The connection to the server is made.
    kRtStreamEventHasBytesAvailable = 2, ///< Body bytes are ready for RtReadStreamRead().
    kRtStreamEventCanAcceptBytes = 4,    ///< Not sent by read streams.
    kRtStreamEventErrorOccurred = 8,     ///< The request failed; the stream is in error.
    kRtStreamEventEndEncountered = 16    ///< The whole body was delivered.
};

/** Error domains of RtStreamError: custom (-1, the library's own), POSIX errno (1), OS status (2),
 * libcurl's CURLcode (20). */
enum {
    kRtStreamErrorDomainCustom = -1,  ///< The library's own error codes.
    kRtStreamErrorDomainPOSIX = 1,    ///< An errno value.
    kRtStreamErrorDomainOSStatus = 2, ///< An operating-system status (not used on Linux).
    kRtStreamErrorDomainCurl = 20     ///< A CURLcode of the transfer.
};

/** A stream's error: a domain and a code in it; {0, 0} when no error occurred. */
typedef struct {
    RtIndex domain; ///< One of the kRtStreamErrorDomain... values.
    int32_t error;  ///< The code in that domain.
} RtStreamError;

/** The client's pointer and how to keep it, copied by RtReadStreamSetClient(). */
typedef struct {
    RtIndex version;                            ///< Record version; 0.
    void *info;                                 ///< Passed to the client callback.
    void *(*retain)(void *info);                ///< Takes info in (may be NULL).
    void (*release)(void *info);                ///< Lets info go (may be NULL).
    RtStringRef (*copyDescription)(void *info); ///< Describes info (may be NULL).
} RtStreamClientContext;

/** Called on the scheduled run loop with one event of those the client asked for. */
typedef void (*RtReadStreamClientCallBack)(RtReadStreamRef stream, RtStreamEventType type,
                                           void *clientCallBackInfo);

/** Property: the response head as an RtHTTPMessageRef (a copy), once it arrived. */
RT_EXPORT extern const RtStringRef kRtStreamPropertyHTTPResponseHeader;
/** Property: the HTTP proxy, a dictionary of kRtStreamPropertyHTTPProxyHost and
 * kRtStreamPropertyHTTPProxyPort (NULL: no proxy). */
RT_EXPORT extern const RtStringRef kRtStreamPropertyHTTPProxy;
/** Key in the proxy dictionary: the host name (string). */
RT_EXPORT extern const RtStringRef kRtStreamPropertyHTTPProxyHost;
/** Key in the proxy dictionary: the port (number). */
RT_EXPORT extern const RtStringRef kRtStreamPropertyHTTPProxyPort;
/** Property: follow redirects (boolean, default false). */
RT_EXPORT extern const RtStringRef kRtStreamPropertyHTTPShouldAutoredirect;
/** Property: the URL the response came from, after redirects (read only). */
RT_EXPORT extern const RtStringRef kRtStreamPropertyHTTPFinalURL;

/** Property: the largest response body accepted, in bytes (number; 0, the default, for no limit). A body that
 * declares more in its Content-Length is refused when its head arrives, one without a length the
 * moment it passes the limit; the limit counts decoded bytes when compression is accepted. The
 * stream then fails with {kRtStreamErrorDomainCurl, 63} (CURLE_FILESIZE_EXCEEDED). */
RT_EXPORT extern const RtStringRef kRtStreamPropertyHTTPMaxBodyLength;
/** Property: the largest response head accepted, in bytes, counting every line of one response's head
 * (number; 0, the default, for libcurl's own limits). Refused as the body limit is. */
RT_EXPORT extern const RtStringRef kRtStreamPropertyHTTPMaxHeadLength;
/** Property: authentication, a dictionary of the four keys below. Without it, credentials in the URL's
 * user-info part are sent with Basic authentication. Never sent to another host after a
 * redirect. */
RT_EXPORT extern const RtStringRef kRtStreamPropertyHTTPAuthentication;
/** Key of the authentication dictionary: the user name, a string. */
RT_EXPORT extern const RtStringRef kRtStreamHTTPAuthUser;
/** Key of the authentication dictionary: the password, a string. */
RT_EXPORT extern const RtStringRef kRtStreamHTTPAuthPassword;
/** Key of the authentication dictionary: the scheme, a string "Basic", "Digest" or "Any" (the
 * default: whichever the server offers). */
RT_EXPORT extern const RtStringRef kRtStreamHTTPAuthScheme;
/** Key of the authentication dictionary: a boolean, true to authenticate to the proxy. */
RT_EXPORT extern const RtStringRef kRtStreamHTTPAuthForProxy;
/** Property: TLS settings, a dictionary of the keys below (every one optional). Without them the peer's
 * certificate chain is verified against the system's trust store, and its name against the host. */
RT_EXPORT extern const RtStringRef kRtStreamPropertyTLS;
/** Key of the TLS dictionary: a PEM file of the CAs to trust instead of the system's. */
RT_EXPORT extern const RtStringRef kRtStreamTLSCAFile;
/** Key of the TLS dictionary: a directory of CA certificates named by their hashes. */
RT_EXPORT extern const RtStringRef kRtStreamTLSCADirectory;
/** Key of the TLS dictionary: the client certificate to present, a PEM file. */
RT_EXPORT extern const RtStringRef kRtStreamTLSCertificateFile;
/** Key of the TLS dictionary: the client certificate's private key, a PEM file. */
RT_EXPORT extern const RtStringRef kRtStreamTLSKeyFile;
/** Key of the TLS dictionary: a boolean; false turns verification of the peer's certificate and
 * name off. */
RT_EXPORT extern const RtStringRef kRtStreamTLSVerifyPeer;
/** Property: boolean, default false: ask for gzip or deflate compressed replies and decode them. */
RT_EXPORT extern const RtStringRef kRtStreamPropertyHTTPAcceptCompression;
/** Property, read only: a string that says why the stream failed (libcurl's own message, or the
 * stream's for a refused reply or redirect); NULL while no error occurred. */
RT_EXPORT extern const RtStringRef kRtStreamPropertyErrorDetail;

/** The runtime type of read streams. */
RT_EXPORT RtTypeID RtReadStreamGetTypeID(void);
/** A stream for request (copied); the caller releases it. NULL when request is NULL or not a
 * request. */
RT_EXPORT RtReadStreamRef RtReadStreamCreateForHTTPRequest(RtAllocatorRef alloc, RtHTTPMessageRef request);
/** Sets the client that receives the events in @p streamEvents (NULL callback removes it); the
 * context is copied and info retained. True when the stream took it. */
RT_EXPORT bool RtReadStreamSetClient(RtReadStreamRef stream, RtOptionFlags streamEvents,
                                     RtReadStreamClientCallBack clientCB,
                                     RtStreamClientContext *clientContext);
/** Schedules the stream on @p runLoop in @p runLoopMode: its events are delivered while that loop
 * runs that mode. Scheduling twice on the same loop and mode is a no-op. */
RT_EXPORT void RtReadStreamScheduleWithRunLoop(RtReadStreamRef stream, RtRunLoopRef runLoop,
                                               RtStringRef runLoopMode);
/** Removes a schedule made by RtReadStreamScheduleWithRunLoop(). */
RT_EXPORT void RtReadStreamUnscheduleFromRunLoop(RtReadStreamRef stream, RtRunLoopRef runLoop,
                                                 RtStringRef runLoopMode);
/** Starts the request. False when the stream cannot start (already opened, or not scheduled on
 * the calling thread's run loop). */
RT_EXPORT bool RtReadStreamOpen(RtReadStreamRef stream);
/** Reads up to bufferLength bytes of the body. Returns the count, 0 at the end, -1 on error or
 * when nothing is available yet on an unscheduled stream. Never blocks on a scheduled stream. */
RT_EXPORT RtIndex RtReadStreamRead(RtReadStreamRef stream, uint8_t *buffer, RtIndex bufferLength);
/** True when body bytes are buffered and RtReadStreamRead() returns them at once. */
RT_EXPORT bool RtReadStreamHasBytesAvailable(RtReadStreamRef stream);
/** Where the stream stands; kRtStreamStatusAtEnd once the whole body was read;
 * kRtStreamStatusError for a non-stream. */
RT_EXPORT RtStreamStatus RtReadStreamGetStatus(RtReadStreamRef stream);
/** The stream's error; {0, 0} when no error occurred. */
RT_EXPORT RtStreamError RtReadStreamGetError(RtReadStreamRef stream);
/** Stops the transfer and closes the stream; no event follows. Closing twice is a no-op. */
RT_EXPORT void RtReadStreamClose(RtReadStreamRef stream);
/** A new reference to the value of the property @p propertyName (one of the kRtStreamProperty...
 * keys), which the caller releases, or NULL. */
RT_EXPORT RtTypeRef RtReadStreamCopyProperty(RtReadStreamRef stream, RtStringRef propertyName);
/** Sets a property before the stream opens (NULL removes it). False when the property is unknown,
 * the value has the wrong kind, or the stream was already opened. */
RT_EXPORT bool RtReadStreamSetProperty(RtReadStreamRef stream, RtStringRef propertyName,
                                       RtTypeRef propertyValue);

/** @} */

RT_EXTERN_C_END

#endif
