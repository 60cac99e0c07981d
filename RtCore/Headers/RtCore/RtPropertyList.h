/** @file
 * @ingroup RtCore
 * @brief XML property lists (version 1.0: dict, array, string, integer, real, true,
 * false, date, data) written from and read into runtime values. */
#ifndef RTCORE_RTPROPERTYLIST_H
#define RTCORE_RTPROPERTYLIST_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

/** @addtogroup RtCore
 * @{ */

/** An immutable run of bytes (declared again from RtData.h). */
typedef const struct __RtData *RtDataRef;

/** What RtPropertyListCreateFromXMLData() makes mutable. */
typedef enum {
    kRtPropertyListImmutable = 0,                 ///< Nothing: every value is immutable.
    kRtPropertyListMutableContainers = 1,         ///< Arrays and dictionaries.
    kRtPropertyListMutableContainersAndLeaves = 2 ///< Containers, strings (not keys) and data.
} RtPropertyListMutabilityOptions;

/** The XML property-list data of plist (a tree of strings, numbers, booleans, dates, data,
 * arrays and dictionaries with string keys). New data, or NULL when the tree holds another
 * kind, a dictionary key is not a string, a string holds a control character XML cannot
 * carry, or the tree nests deeper than 512 levels. Dictionaries are written in their
 * enumeration order; integers as `<integer>`, floating-point numbers as `<real>` (the shortest text
 * that reads back as the same double), dates in GMT as "2001-01-01T00:00:00Z" (fractions of a
 * second kept to the microsecond). */
RT_EXPORT RtDataRef RtPropertyListCreateXMLData(RtAllocatorRef alloc, RtTypeRef plist);
/** Reads XML property-list data into a new value the caller releases. A string whose text is that of a
 * registered constant string (RTSTR) comes back as that very constant object. NULL on malformed input;
 * errorString (may be NULL) then receives a new string the caller releases. The document is treated as
 * untrusted: no DTD or external entity is loaded, entity declarations are refused, and
 * nesting deeper than 512 elements is an error. `<integer>` gives a kRtNumberSInt32Type number
 * when the value fits, else kRtNumberSInt64Type; `<real>` gives kRtNumberFloat64Type.
 * mutabilityOption: containers are mutable unless kRtPropertyListImmutable; with
 * kRtPropertyListMutableContainersAndLeaves strings (not keys) and data are mutable too. */
RT_EXPORT RtTypeRef RtPropertyListCreateFromXMLData(RtAllocatorRef alloc, RtDataRef xmlData,
                                                    RtOptionFlags mutabilityOption, RtStringRef *errorString);

/** @} */

RT_EXTERN_C_END

#endif
