/* RtBundle.h: a registry of the libraries loaded in the process, by identifier, each with an
 * information dictionary (the version under kRtBundleVersionKey). A library registers its own
 * bundle when it first needs it. */
#ifndef RTCORE_RTBUNDLE_H
#define RTCORE_RTBUNDLE_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

typedef const struct __RtBundle *RtBundleRef;

/* "RtBundleVersion" */
RT_EXPORT extern const RtStringRef kRtBundleVersionKey;
/* "RtBundleIdentifier" */
RT_EXPORT extern const RtStringRef kRtBundleIdentifierKey;

RT_EXPORT RtTypeID RtBundleGetTypeID(void);
/* Registers (or returns the already registered) bundle of identifier with a copy of info.
 * The bundle lives for the process. */
RT_EXPORT RtBundleRef RtBundleRegister(RtStringRef identifier, RtDictionaryRef info);
/* The registered bundle, or NULL. Borrowed. */
RT_EXPORT RtBundleRef RtBundleGetBundleWithIdentifier(RtStringRef identifier);
RT_EXPORT RtDictionaryRef RtBundleGetInfoDictionary(RtBundleRef bundle);
RT_EXPORT RtTypeRef RtBundleGetValueForInfoDictionaryKey(RtBundleRef bundle, RtStringRef key);

RT_EXTERN_C_END

#endif
