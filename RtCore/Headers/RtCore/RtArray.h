/* RtArray.h: ordered collections of pointers, with callbacks that decide ownership. */
#ifndef RTCORE_RTARRAY_H
#define RTCORE_RTARRAY_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

typedef const struct __RtArray *RtArrayRef;
typedef struct __RtArray *RtMutableArrayRef;

typedef const void *(*RtArrayRetainCallBack)(RtAllocatorRef allocator, const void *value);
typedef void (*RtArrayReleaseCallBack)(RtAllocatorRef allocator, const void *value);
typedef RtStringRef (*RtArrayCopyDescriptionCallBack)(const void *value);
typedef bool (*RtArrayEqualCallBack)(const void *value1, const void *value2);

/* Value callbacks; a NULL record, or NULL fields, mean "not owned" and pointer identity. */
typedef struct {
    RtIndex version;
    RtArrayRetainCallBack retain;
    RtArrayReleaseCallBack release;
    RtArrayCopyDescriptionCallBack copyDescription;
    RtArrayEqualCallBack equal;
} RtArrayCallBacks;

/* RtRetain/RtRelease/RtCopyDescription/RtEqual: for arrays of runtime objects. */
RT_EXPORT extern const RtArrayCallBacks kRtTypeArrayCallBacks;

typedef void (*RtArrayApplierFunction)(const void *value, void *context);

RT_EXPORT RtTypeID RtArrayGetTypeID(void);
RT_EXPORT RtArrayRef RtArrayCreate(RtAllocatorRef alloc, const void **values, RtIndex numValues,
                                   const RtArrayCallBacks *callBacks);
/* An immutable copy with the same callbacks (values retained, not copied). */
RT_EXPORT RtArrayRef RtArrayCreateCopy(RtAllocatorRef alloc, RtArrayRef array);
/* capacity is a size hint (0: none); the contents still grow past it. */
RT_EXPORT RtMutableArrayRef RtArrayCreateMutable(RtAllocatorRef alloc, RtIndex capacity,
                                                 const RtArrayCallBacks *callBacks);
RT_EXPORT RtMutableArrayRef RtArrayCreateMutableCopy(RtAllocatorRef alloc, RtIndex capacity,
                                                     RtArrayRef array);

RT_EXPORT RtIndex RtArrayGetCount(RtArrayRef array);
/* Borrowed value; NULL when idx is out of range. */
RT_EXPORT const void *RtArrayGetValueAtIndex(RtArrayRef array, RtIndex idx);
RT_EXPORT void RtArrayGetValues(RtArrayRef array, RtRange range, const void **values);
RT_EXPORT bool RtArrayContainsValue(RtArrayRef array, RtRange range, const void *value);
RT_EXPORT RtIndex RtArrayGetFirstIndexOfValue(RtArrayRef array, RtRange range, const void *value);
RT_EXPORT void RtArrayApplyFunction(RtArrayRef array, RtRange range, RtArrayApplierFunction applier,
                                    void *context);

RT_EXPORT void RtArrayAppendValue(RtMutableArrayRef array, const void *value);
RT_EXPORT void RtArrayAppendArray(RtMutableArrayRef array, RtArrayRef other, RtRange otherRange);
RT_EXPORT void RtArrayInsertValueAtIndex(RtMutableArrayRef array, RtIndex idx, const void *value);
RT_EXPORT void RtArraySetValueAtIndex(RtMutableArrayRef array, RtIndex idx, const void *value);
RT_EXPORT void RtArrayRemoveValueAtIndex(RtMutableArrayRef array, RtIndex idx);
RT_EXPORT void RtArrayRemoveAllValues(RtMutableArrayRef array);
RT_EXPORT void RtArraySortValues(RtMutableArrayRef array, RtRange range, RtComparatorFunction comparator,
                                 void *context);

RT_EXTERN_C_END

#endif
