/** @file
 * @ingroup RtCore
 * @brief Absolute URLs (RFC 3986), parsed once at creation. */
#ifndef RTCORE_RTURL_H
#define RTCORE_RTURL_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

/** @addtogroup RtCore
 * @{ */

/** An immutable URL. */
typedef const struct __RtURL *RtURLRef;

/** The runtime type of URLs. */
RT_EXPORT RtTypeID RtURLGetTypeID(void);
/** A new URL (caller releases) from its text, resolved against baseURL when given. NULL when str is NULL or
 * not a syntactically valid URL. */
RT_EXPORT RtURLRef RtURLCreateWithString(RtAllocatorRef alloc, RtStringRef str, RtURLRef baseURL);
/** The text the URL was made from (borrowed; relative when a base URL was given). */
RT_EXPORT RtStringRef RtURLGetString(RtURLRef url);
/** The base URL the URL was resolved against (borrowed), or NULL. */
RT_EXPORT RtURLRef RtURLGetBaseURL(RtURLRef url);
/** The URL resolved against its base as a URL without a base (caller releases); a URL without a
 * base comes back retained. NULL for a non-URL. */
RT_EXPORT RtURLRef RtURLCopyAbsoluteURL(RtURLRef url);
/** The scheme ("http"), as a new string the caller releases, or NULL. Components are returned as
 * written (percent escapes kept). */
RT_EXPORT RtStringRef RtURLCopyScheme(RtURLRef url);
/** The host as a new string, or NULL when absent; an IPv6 host comes without its brackets. */
RT_EXPORT RtStringRef RtURLCopyHostName(RtURLRef url);
/** The path as a new string (percent escapes kept); the path of "http://h" is "". */
RT_EXPORT RtStringRef RtURLCopyPath(RtURLRef url);
/** The query (after "?", without it) as a new string, or NULL when absent. */
RT_EXPORT RtStringRef RtURLCopyQueryString(RtURLRef url);
/** The user name of the user information as a new string, or NULL when absent. */
RT_EXPORT RtStringRef RtURLCopyUserName(RtURLRef url);
/** The password of the user information as a new string, or NULL when absent. */
RT_EXPORT RtStringRef RtURLCopyPassword(RtURLRef url);
/** The explicit port, or -1 when the URL names none. */
RT_EXPORT int32_t RtURLGetPortNumber(RtURLRef url);

/** @} */

RT_EXTERN_C_END

#endif
