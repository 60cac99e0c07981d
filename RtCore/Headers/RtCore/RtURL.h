/* RtURL.h: absolute URLs (RFC 3986), parsed once at creation. */
#ifndef RTCORE_RTURL_H
#define RTCORE_RTURL_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

typedef const struct __RtURL *RtURLRef;

RT_EXPORT RtTypeID RtURLGetTypeID(void);
/* A new URL from its text, resolved against baseURL when given. NULL when str is NULL or not a
 * syntactically valid URL. */
RT_EXPORT RtURLRef RtURLCreateWithString(RtAllocatorRef alloc, RtStringRef str, RtURLRef baseURL);
/* The text the URL was made from (borrowed). */
RT_EXPORT RtStringRef RtURLGetString(RtURLRef url);
RT_EXPORT RtURLRef RtURLGetBaseURL(RtURLRef url);
RT_EXPORT RtURLRef RtURLCopyAbsoluteURL(RtURLRef url);
/* Components as new strings, or NULL when absent. They are returned as written (percent
 * escapes kept); an IPv6 host comes without its brackets; the path of "http://h" is "". */
RT_EXPORT RtStringRef RtURLCopyScheme(RtURLRef url);
RT_EXPORT RtStringRef RtURLCopyHostName(RtURLRef url);
RT_EXPORT RtStringRef RtURLCopyPath(RtURLRef url);
RT_EXPORT RtStringRef RtURLCopyQueryString(RtURLRef url);
RT_EXPORT RtStringRef RtURLCopyUserName(RtURLRef url);
RT_EXPORT RtStringRef RtURLCopyPassword(RtURLRef url);
/* The explicit port, or -1 when the URL names none. */
RT_EXPORT int32_t RtURLGetPortNumber(RtURLRef url);

RT_EXTERN_C_END

#endif
