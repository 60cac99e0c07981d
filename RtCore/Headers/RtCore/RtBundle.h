/** @file
 * @ingroup RtCore
 * @brief A registry of the libraries loaded in the process, by identifier, each with an
 * information dictionary (the version under kRtBundleVersionKey). A library registers its own
 * bundle when it first needs it. */
#ifndef RTCORE_RTBUNDLE_H
#define RTCORE_RTBUNDLE_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

/** @addtogroup RtCore
 * @{ */

/** A registered library: its identifier and information dictionary. Lives for the process. */
typedef const struct __RtBundle *RtBundleRef;

/** "RtBundleVersion": the info-dictionary key of the library version (a string). */
RT_EXPORT extern const RtStringRef kRtBundleVersionKey;
/** "RtBundleIdentifier": the info-dictionary key of the identifier (a string). */
RT_EXPORT extern const RtStringRef kRtBundleIdentifierKey;

/** The runtime type of bundles. */
RT_EXPORT RtTypeID RtBundleGetTypeID(void);
/** Registers the bundle of @p identifier with a copy of @p info (may be NULL), or returns the
 * bundle already registered under it (its info unchanged). Locked: any thread may call it.
 * @return the bundle, borrowed: it lives for the process. NULL when @p identifier is NULL or empty
 *         or @p info is not a dictionary. */
RT_EXPORT RtBundleRef RtBundleRegister(RtStringRef identifier, RtDictionaryRef info);
/** The bundle registered under @p identifier (borrowed, lives for the process), or NULL. */
RT_EXPORT RtBundleRef RtBundleGetBundleWithIdentifier(RtStringRef identifier);
/** The bundle's information dictionary (borrowed), or NULL for a bundle registered without one. */
RT_EXPORT RtDictionaryRef RtBundleGetInfoDictionary(RtBundleRef bundle);
/** The value of @p key in the bundle's information dictionary (borrowed), or NULL. */
RT_EXPORT RtTypeRef RtBundleGetValueForInfoDictionaryKey(RtBundleRef bundle, RtStringRef key);

/** @} */

RT_EXTERN_C_END

#endif
