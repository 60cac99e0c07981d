/** @file
 * @ingroup RtNetwork
 * @brief HTTP request and response messages.
 *
 * Header field names compare case-insensitively and keep the order they were first set in.
 * A response keeps its status line exactly as the server sent it. A message is used by one
 * thread at a time; NULL or non-message arguments make a call do nothing (readers return NULL,
 * 0 or false). */
#ifndef RTNETWORK_RTHTTPMESSAGE_H
#define RTNETWORK_RTHTTPMESSAGE_H

#include <RtCore/RtCore.h>

RT_EXTERN_C_BEGIN

/** @addtogroup RtNetwork
 * @{ */

/** An HTTP request or response: start line, header fields and body. */
typedef struct __RtHTTPMessage *RtHTTPMessageRef;

/** "HTTP/1.0" */
RT_EXPORT extern const RtStringRef kRtHTTPVersion1_0;
/** "HTTP/1.1" */
RT_EXPORT extern const RtStringRef kRtHTTPVersion1_1;

/** The runtime type of HTTP messages. */
RT_EXPORT RtTypeID RtHTTPMessageGetTypeID(void);
/** A new request (caller releases) with @p requestMethod ("POST") for @p url; NULL when method or
 * url is NULL. version NULL means HTTP/1.1. */
RT_EXPORT RtHTTPMessageRef RtHTTPMessageCreateRequest(RtAllocatorRef alloc, RtStringRef requestMethod,
                                                      RtURLRef url, RtStringRef httpVersion);
/** A new response (caller releases) with @p statusCode; statusDescription NULL means the standard
 * reason phrase, httpVersion NULL means HTTP/1.1. */
RT_EXPORT RtHTTPMessageRef RtHTTPMessageCreateResponse(RtAllocatorRef alloc, int32_t statusCode,
                                                       RtStringRef statusDescription,
                                                       RtStringRef httpVersion);
/** An empty message (caller releases) to be filled with RtHTTPMessageAppendBytes(). */
RT_EXPORT RtHTTPMessageRef RtHTTPMessageCreateEmpty(RtAllocatorRef alloc, bool isRequest);
/** A copy of @p message: start line, headers and body (caller releases); NULL for a non-message. */
RT_EXPORT RtHTTPMessageRef RtHTTPMessageCreateCopy(RtAllocatorRef alloc, RtHTTPMessageRef message);

/** Parses raw message bytes (start line, headers, body) appended in any pieces; bytes after the
 * blank line that ends the head are body. False when the bytes are not a valid message or the
 * head grows past the size limit; the message then stays failed. */
RT_EXPORT bool RtHTTPMessageAppendBytes(RtHTTPMessageRef message, const uint8_t *newBytes, RtIndex numBytes);
/** True once the appended bytes held the whole head (start line and header fields). */
RT_EXPORT bool RtHTTPMessageIsHeaderComplete(RtHTTPMessageRef message);
/** The serialized message (start line, headers, blank line, body) as new data the caller
 * releases. */
RT_EXPORT RtDataRef RtHTTPMessageCopySerializedMessage(RtHTTPMessageRef message);

/** True for a request, false for a response. */
RT_EXPORT bool RtHTTPMessageIsRequest(RtHTTPMessageRef message);
/** The HTTP version ("HTTP/1.1") as a new reference the caller releases, or NULL. */
RT_EXPORT RtStringRef RtHTTPMessageCopyVersion(RtHTTPMessageRef message);
/** The request method as a new reference the caller releases; NULL for a response. */
RT_EXPORT RtStringRef RtHTTPMessageCopyRequestMethod(RtHTTPMessageRef request);
/** The request URL as a new reference the caller releases; NULL for a response. */
RT_EXPORT RtURLRef RtHTTPMessageCopyRequestURL(RtHTTPMessageRef request);
/** The status code of a response; 0 for a request or before the head is complete. */
RT_EXPORT int32_t RtHTTPMessageGetResponseStatusCode(RtHTTPMessageRef response);
/** "HTTP/1.1 200 OK" as the server sent it (no line end). New string, caller releases. */
RT_EXPORT RtStringRef RtHTTPMessageCopyResponseStatusLine(RtHTTPMessageRef response);

/** Sets the body to a copy of @p bodyData (NULL: no body). Content-Length is not set here. */
RT_EXPORT void RtHTTPMessageSetBody(RtHTTPMessageRef message, RtDataRef bodyData);
/** The body as data the caller releases (never changed afterwards), or NULL when there is none. */
RT_EXPORT RtDataRef RtHTTPMessageCopyBody(RtHTTPMessageRef message);
/** Sets a header field (name case-insensitive; a new name goes last); a NULL value removes it. */
RT_EXPORT void RtHTTPMessageSetHeaderFieldValue(RtHTTPMessageRef message, RtStringRef headerField,
                                                RtStringRef value);
/** The value of @p headerField (name case-insensitive) as a new reference, or NULL. */
RT_EXPORT RtStringRef RtHTTPMessageCopyHeaderFieldValue(RtHTTPMessageRef message, RtStringRef headerField);
/** A new dictionary (caller releases) of header name -> value in the order the headers were set. */
RT_EXPORT RtDictionaryRef RtHTTPMessageCopyAllHeaderFields(RtHTTPMessageRef message);

/** @} */

RT_EXTERN_C_END

#endif
