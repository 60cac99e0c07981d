/* RtPropertyList.h: XML property lists (version 1.0: dict, array, string, integer, real, true,
 * false, date, data) written from and read into runtime values. */
#ifndef RTCORE_RTPROPERTYLIST_H
#define RTCORE_RTPROPERTYLIST_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

typedef const struct __RtData *RtDataRef;

typedef enum {
    kRtPropertyListImmutable = 0,
    kRtPropertyListMutableContainers = 1,
    kRtPropertyListMutableContainersAndLeaves = 2
} RtPropertyListMutabilityOptions;

/* The XML property-list data of plist (a tree of strings, numbers, booleans, dates, data,
 * arrays and dictionaries with string keys). New data, or NULL when the tree holds another
 * kind. Dictionaries are written in their enumeration order. */
RT_EXPORT RtDataRef RtPropertyListCreateXMLData(RtAllocatorRef alloc, RtTypeRef plist);
/* Reads XML property-list data. A string whose text is that of a registered constant string
 * (RTSTR) comes back as that very constant object. NULL on malformed input; errorString (may
 * be NULL) then receives a new string the caller releases. */
RT_EXPORT RtTypeRef RtPropertyListCreateFromXMLData(RtAllocatorRef alloc, RtDataRef xmlData,
                                                    RtOptionFlags mutabilityOption, RtStringRef *errorString);

RT_EXTERN_C_END

#endif
