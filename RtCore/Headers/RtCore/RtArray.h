/** @file
 * @ingroup RtCore
 * @brief Ordered collections of pointers, with callbacks that decide ownership.
 *
 * An array made with kRtTypeArrayCallBacks retains the runtime objects put in it and releases
 * them when they leave or the array dies; one made with NULL callbacks stores plain pointers.
 * Values read from an array are borrowed. Out-of-range indices or ranges, and NULL or non-array
 * arguments, make a call do nothing (readers then return NULL, 0, false or #kRtNotFound). */
#ifndef RTCORE_RTARRAY_H
#define RTCORE_RTARRAY_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

/** @addtogroup RtCore
 * @{ */

/** An immutable array. */
typedef const struct __RtArray *RtArrayRef;
/** An array that can change (RtArrayCreateMutable()). */
typedef struct __RtArray *RtMutableArrayRef;

/** Called when a value enters the array; returns the pointer to store (usually @p value). */
typedef const void *(*RtArrayRetainCallBack)(RtAllocatorRef allocator, const void *value);
/** Called when a value leaves the array or the array dies. */
typedef void (*RtArrayReleaseCallBack)(RtAllocatorRef allocator, const void *value);
/** Returns a new string describing @p value, for RtCopyDescription() of the array. */
typedef RtStringRef (*RtArrayCopyDescriptionCallBack)(const void *value);
/** True when two values are equal (for searching and RtEqual() of arrays). */
typedef bool (*RtArrayEqualCallBack)(const void *value1, const void *value2);

/** Value callbacks, copied into the array. A NULL record, or NULL fields, mean "not owned" and
 * pointer identity. */
typedef struct {
    RtIndex version;                                ///< Record version; 0.
    RtArrayRetainCallBack retain;                   ///< Takes a value in, or NULL.
    RtArrayReleaseCallBack release;                 ///< Lets a value go, or NULL.
    RtArrayCopyDescriptionCallBack copyDescription; ///< Describes a value, or NULL.
    RtArrayEqualCallBack equal;                     ///< Compares values, or NULL for identity.
} RtArrayCallBacks;

/** RtRetain/RtRelease/RtCopyDescription/RtEqual: for arrays of runtime objects. */
RT_EXPORT extern const RtArrayCallBacks kRtTypeArrayCallBacks;

/** Called by RtArrayApplyFunction() with each value and the caller's context. */
typedef void (*RtArrayApplierFunction)(const void *value, void *context);

/** The runtime type of arrays, mutable or not. */
RT_EXPORT RtTypeID RtArrayGetTypeID(void);
/** Creates an immutable array of the @p numValues pointers at @p values, each taken in through
 * @p callBacks (NULL: plain pointers). The caller owns the array.
 * @return the new array, or NULL when @p numValues is negative or @p values is NULL with a count. */
RT_EXPORT RtArrayRef RtArrayCreate(RtAllocatorRef alloc, const void **values, RtIndex numValues,
                                   const RtArrayCallBacks *callBacks);
/** An immutable copy with the same callbacks (values retained, not copied); an immutable @p array
 * comes back retained. Caller releases; NULL when @p array is not an array. */
RT_EXPORT RtArrayRef RtArrayCreateCopy(RtAllocatorRef alloc, RtArrayRef array);
/** Creates an empty mutable array (caller releases). @p capacity is a size hint (0: none); the
 * contents still grow past it. @p callBacks as for RtArrayCreate(). */
RT_EXPORT RtMutableArrayRef RtArrayCreateMutable(RtAllocatorRef alloc, RtIndex capacity,
                                                 const RtArrayCallBacks *callBacks);
/** A mutable copy of @p array with its callbacks (caller releases); NULL when @p array is not an
 * array. @p capacity as for RtArrayCreateMutable(). */
RT_EXPORT RtMutableArrayRef RtArrayCreateMutableCopy(RtAllocatorRef alloc, RtIndex capacity,
                                                     RtArrayRef array);

/** The number of values; 0 for NULL. */
RT_EXPORT RtIndex RtArrayGetCount(RtArrayRef array);
/** Borrowed value; NULL when idx is out of range. */
RT_EXPORT const void *RtArrayGetValueAtIndex(RtArrayRef array, RtIndex idx);
/** Copies the (borrowed) values of @p range into @p values, which holds range.length pointers. */
RT_EXPORT void RtArrayGetValues(RtArrayRef array, RtRange range, const void **values);
/** True when a value within @p range equals @p value (by the equal callback). */
RT_EXPORT bool RtArrayContainsValue(RtArrayRef array, RtRange range, const void *value);
/** The first index within @p range whose value equals @p value, or #kRtNotFound. */
RT_EXPORT RtIndex RtArrayGetFirstIndexOfValue(RtArrayRef array, RtRange range, const void *value);
/** Calls @p applier with each value of @p range in order. The applier may shrink the array; the
 * walk then stops at its new end. */
RT_EXPORT void RtArrayApplyFunction(RtArrayRef array, RtRange range, RtArrayApplierFunction applier,
                                    void *context);

/** Appends @p value (taken in through the retain callback). */
RT_EXPORT void RtArrayAppendValue(RtMutableArrayRef array, const void *value);
/** Appends the values of @p otherRange of @p other (which may be @p array itself). */
RT_EXPORT void RtArrayAppendArray(RtMutableArrayRef array, RtArrayRef other, RtRange otherRange);
/** Inserts @p value at @p idx (0 to the count), moving later values up. */
RT_EXPORT void RtArrayInsertValueAtIndex(RtMutableArrayRef array, RtIndex idx, const void *value);
/** Replaces the value at @p idx (the old one is released after the new one is retained); an
 * @p idx equal to the count appends. */
RT_EXPORT void RtArraySetValueAtIndex(RtMutableArrayRef array, RtIndex idx, const void *value);
/** Removes and releases the value at @p idx, moving later values down. */
RT_EXPORT void RtArrayRemoveValueAtIndex(RtMutableArrayRef array, RtIndex idx);
/** Removes and releases every value. */
RT_EXPORT void RtArrayRemoveAllValues(RtMutableArrayRef array);
/** Sorts the values of @p range with @p comparator (stable: equal values keep their order). */
RT_EXPORT void RtArraySortValues(RtMutableArrayRef array, RtRange range, RtComparatorFunction comparator,
                                 void *context);

/** @} */

RT_EXTERN_C_END

#endif
