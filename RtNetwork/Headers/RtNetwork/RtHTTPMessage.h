/* RtHTTPMessage.h: HTTP request and response messages.
 *
 * Header field names compare case-insensitively and keep the order they were first set in.
 * A response keeps its status line exactly as the server sent it. */
#ifndef RTNETWORK_RTHTTPMESSAGE_H
#define RTNETWORK_RTHTTPMESSAGE_H

#include <RtCore/RtCore.h>

RT_EXTERN_C_BEGIN

typedef struct __RtHTTPMessage *RtHTTPMessageRef;

/* "HTTP/1.0" and "HTTP/1.1" */
RT_EXPORT extern const RtStringRef kRtHTTPVersion1_0;
RT_EXPORT extern const RtStringRef kRtHTTPVersion1_1;

RT_EXPORT RtTypeID RtHTTPMessageGetTypeID(void);
/* A new request; NULL when method or url is NULL. version NULL means HTTP/1.1. */
RT_EXPORT RtHTTPMessageRef RtHTTPMessageCreateRequest(RtAllocatorRef alloc, RtStringRef requestMethod,
                                                      RtURLRef url, RtStringRef httpVersion);
/* A new response; statusDescription NULL means the standard reason phrase. */
RT_EXPORT RtHTTPMessageRef RtHTTPMessageCreateResponse(RtAllocatorRef alloc, int32_t statusCode,
                                                       RtStringRef statusDescription,
                                                       RtStringRef httpVersion);
/* An empty message to be filled with RtHTTPMessageAppendBytes. */
RT_EXPORT RtHTTPMessageRef RtHTTPMessageCreateEmpty(RtAllocatorRef alloc, bool isRequest);
RT_EXPORT RtHTTPMessageRef RtHTTPMessageCreateCopy(RtAllocatorRef alloc, RtHTTPMessageRef message);

/* Parses raw message bytes (start line, headers, body) appended in any pieces. False when the
 * bytes are not a valid message. */
RT_EXPORT bool RtHTTPMessageAppendBytes(RtHTTPMessageRef message, const uint8_t *newBytes, RtIndex numBytes);
RT_EXPORT bool RtHTTPMessageIsHeaderComplete(RtHTTPMessageRef message);
/* The serialized message (start line, headers, blank line, body), new data. */
RT_EXPORT RtDataRef RtHTTPMessageCopySerializedMessage(RtHTTPMessageRef message);

RT_EXPORT bool RtHTTPMessageIsRequest(RtHTTPMessageRef message);
RT_EXPORT RtStringRef RtHTTPMessageCopyVersion(RtHTTPMessageRef message);
RT_EXPORT RtStringRef RtHTTPMessageCopyRequestMethod(RtHTTPMessageRef request);
RT_EXPORT RtURLRef RtHTTPMessageCopyRequestURL(RtHTTPMessageRef request);
RT_EXPORT int32_t RtHTTPMessageGetResponseStatusCode(RtHTTPMessageRef response);
/* "HTTP/1.1 200 OK" as the server sent it (no line end). New string. */
RT_EXPORT RtStringRef RtHTTPMessageCopyResponseStatusLine(RtHTTPMessageRef response);

RT_EXPORT void RtHTTPMessageSetBody(RtHTTPMessageRef message, RtDataRef bodyData);
RT_EXPORT RtDataRef RtHTTPMessageCopyBody(RtHTTPMessageRef message);
/* Sets a header; a NULL value removes it. */
RT_EXPORT void RtHTTPMessageSetHeaderFieldValue(RtHTTPMessageRef message, RtStringRef headerField,
                                                RtStringRef value);
RT_EXPORT RtStringRef RtHTTPMessageCopyHeaderFieldValue(RtHTTPMessageRef message, RtStringRef headerField);
/* A new dictionary of header name -> value in the order the headers were set. */
RT_EXPORT RtDictionaryRef RtHTTPMessageCopyAllHeaderFields(RtHTTPMessageRef message);

RT_EXTERN_C_END

#endif
