/* RtReadStream.h: a read stream that performs one HTTP request and delivers the response body.
 *
 * Built on one libcurl multi handle per thread, driven by that thread's run loop (descriptor
 * watchers and a timer), so sequential requests to one server reuse a connection. The request
 * carries exactly the message's header fields plus Content-Length. Events reach the client
 * callback on the run loop the stream is scheduled on. */
#ifndef RTNETWORK_RTREADSTREAM_H
#define RTNETWORK_RTREADSTREAM_H

#include <RtCore/RtCore.h>
#include <RtNetwork/RtHTTPMessage.h>

RT_EXTERN_C_BEGIN

typedef struct __RtReadStream *RtReadStreamRef;

typedef enum {
    kRtStreamStatusNotOpen = 0,
    kRtStreamStatusOpening = 1,
    kRtStreamStatusOpen = 2,
    kRtStreamStatusReading = 3,
    kRtStreamStatusWriting = 4,
    kRtStreamStatusAtEnd = 5,
    kRtStreamStatusClosed = 6,
    kRtStreamStatusError = 7
} RtStreamStatus;

typedef RtOptionFlags RtStreamEventType;
enum {
    kRtStreamEventNone = 0,
    kRtStreamEventOpenCompleted = 1,
    kRtStreamEventHasBytesAvailable = 2,
    kRtStreamEventCanAcceptBytes = 4,
    kRtStreamEventErrorOccurred = 8,
    kRtStreamEventEndEncountered = 16
};

/* Error domains: custom (-1, the library's own), POSIX errno (1), OS status (2), libcurl's
 * CURLcode (20). */
enum {
    kRtStreamErrorDomainCustom = -1,
    kRtStreamErrorDomainPOSIX = 1,
    kRtStreamErrorDomainOSStatus = 2,
    kRtStreamErrorDomainCurl = 20
};

typedef struct {
    RtIndex domain;
    int32_t error;
} RtStreamError;

typedef struct {
    RtIndex version;
    void *info;
    void *(*retain)(void *info);
    void (*release)(void *info);
    RtStringRef (*copyDescription)(void *info);
} RtStreamClientContext;

typedef void (*RtReadStreamClientCallBack)(RtReadStreamRef stream, RtStreamEventType type,
                                           void *clientCallBackInfo);

/* Property keys. */
RT_EXPORT extern const RtStringRef kRtStreamPropertyHTTPResponseHeader; /* RtHTTPMessageRef (copy) */
RT_EXPORT extern const RtStringRef kRtStreamPropertyHTTPProxy;          /* dictionary */
RT_EXPORT extern const RtStringRef kRtStreamPropertyHTTPProxyHost;      /* key in that dictionary: string */
RT_EXPORT extern const RtStringRef kRtStreamPropertyHTTPProxyPort;      /* key: number */
RT_EXPORT extern const RtStringRef kRtStreamPropertyHTTPShouldAutoredirect; /* boolean, default false */
RT_EXPORT extern const RtStringRef kRtStreamPropertyHTTPFinalURL;           /* URL after redirects */

RT_EXPORT RtTypeID RtReadStreamGetTypeID(void);
/* A stream for request (copied). NULL when request is NULL or not a request. */
RT_EXPORT RtReadStreamRef RtReadStreamCreateForHTTPRequest(RtAllocatorRef alloc, RtHTTPMessageRef request);
/* Sets the client (NULL callback removes it); the context is copied and info retained. */
RT_EXPORT bool RtReadStreamSetClient(RtReadStreamRef stream, RtOptionFlags streamEvents,
                                     RtReadStreamClientCallBack clientCB,
                                     RtStreamClientContext *clientContext);
RT_EXPORT void RtReadStreamScheduleWithRunLoop(RtReadStreamRef stream, RtRunLoopRef runLoop,
                                               RtStringRef runLoopMode);
RT_EXPORT void RtReadStreamUnscheduleFromRunLoop(RtReadStreamRef stream, RtRunLoopRef runLoop,
                                                 RtStringRef runLoopMode);
/* Starts the request. False when the stream cannot start (already opened, no run loop). */
RT_EXPORT bool RtReadStreamOpen(RtReadStreamRef stream);
/* Reads up to bufferLength bytes of the body. Returns the count, 0 at the end, -1 on error or
 * when nothing is available yet on an unscheduled stream. Never blocks on a scheduled stream. */
RT_EXPORT RtIndex RtReadStreamRead(RtReadStreamRef stream, uint8_t *buffer, RtIndex bufferLength);
RT_EXPORT bool RtReadStreamHasBytesAvailable(RtReadStreamRef stream);
RT_EXPORT RtStreamStatus RtReadStreamGetStatus(RtReadStreamRef stream);
/* {0, 0} when no error occurred. */
RT_EXPORT RtStreamError RtReadStreamGetError(RtReadStreamRef stream);
RT_EXPORT void RtReadStreamClose(RtReadStreamRef stream);
/* A new reference to the property value, or NULL. */
RT_EXPORT RtTypeRef RtReadStreamCopyProperty(RtReadStreamRef stream, RtStringRef propertyName);
/* False when the property is unknown or cannot change after open. */
RT_EXPORT bool RtReadStreamSetProperty(RtReadStreamRef stream, RtStringRef propertyName,
                                       RtTypeRef propertyValue);

RT_EXTERN_C_END

#endif
