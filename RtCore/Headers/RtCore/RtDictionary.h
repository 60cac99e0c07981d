/** @file
 * @ingroup RtCore
 * @brief Key-value maps that enumerate in insertion order.
 *
 * Removing a key leaves the other keys in their order; setting an existing key keeps its
 * place. Callback records decide ownership, equality and hashing of keys and values: with
 * kRtTypeDictionaryKeyCallBacks and kRtTypeDictionaryValueCallBacks a dictionary retains the
 * runtime objects put in it. Values read from a dictionary are borrowed. NULL or non-dictionary
 * arguments make a call do nothing (readers return NULL, 0 or false); a mutator given an
 * immutable dictionary does nothing. */
#ifndef RTCORE_RTDICTIONARY_H
#define RTCORE_RTDICTIONARY_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

/** @addtogroup RtCore
 * @{ */

/** An immutable dictionary. */
typedef const struct __RtDictionary *RtDictionaryRef;
/** A dictionary that can change (RtDictionaryCreateMutable()). */
typedef struct __RtDictionary *RtMutableDictionaryRef;

/** Called when a key or value enters the dictionary; returns the pointer to store. */
typedef const void *(*RtDictionaryRetainCallBack)(RtAllocatorRef allocator, const void *value);
/** Called when a key or value leaves the dictionary or the dictionary dies. */
typedef void (*RtDictionaryReleaseCallBack)(RtAllocatorRef allocator, const void *value);
/** Returns a new string describing a key or value, for RtCopyDescription(). */
typedef RtStringRef (*RtDictionaryCopyDescriptionCallBack)(const void *value);
/** True when two keys (or two values) are equal. */
typedef bool (*RtDictionaryEqualCallBack)(const void *value1, const void *value2);
/** A hash of a key, consistent with the key equal callback. */
typedef RtHashCode (*RtDictionaryHashCallBack)(const void *value);

/** Key callbacks, copied into the dictionary. A NULL record, or NULL fields, mean "not owned",
 * pointer identity and the pointer as hash. */
typedef struct {
    RtIndex version;                                     ///< Record version; 0.
    RtDictionaryRetainCallBack retain;                   ///< Takes a key in, or NULL.
    RtDictionaryReleaseCallBack release;                 ///< Lets a key go, or NULL.
    RtDictionaryCopyDescriptionCallBack copyDescription; ///< Describes a key, or NULL.
    RtDictionaryEqualCallBack equal;                     ///< Compares keys, or NULL for identity.
    RtDictionaryHashCallBack hash;                       ///< Hashes a key, or NULL for its address.
} RtDictionaryKeyCallBacks;

/** Value callbacks, copied into the dictionary; NULL fields as for keys. */
typedef struct {
    RtIndex version;                                     ///< Record version; 0.
    RtDictionaryRetainCallBack retain;                   ///< Takes a value in, or NULL.
    RtDictionaryReleaseCallBack release;                 ///< Lets a value go, or NULL.
    RtDictionaryCopyDescriptionCallBack copyDescription; ///< Describes a value, or NULL.
    RtDictionaryEqualCallBack equal;                     ///< Compares values, or NULL for identity.
} RtDictionaryValueCallBacks;

/** Keys retained, compared with RtEqual and hashed with RtHash. */
RT_EXPORT extern const RtDictionaryKeyCallBacks kRtTypeDictionaryKeyCallBacks;
/** As kRtTypeDictionaryKeyCallBacks, but a mutable string key is copied to an immutable one
 * first, so changing the caller's string later cannot corrupt the dictionary. */
RT_EXPORT extern const RtDictionaryKeyCallBacks kRtCopyStringDictionaryKeyCallBacks;
/** Values retained with RtRetain, released with RtRelease and compared with RtEqual. */
RT_EXPORT extern const RtDictionaryValueCallBacks kRtTypeDictionaryValueCallBacks;

/** Called by RtDictionaryApplyFunction() with each key, its value and the caller's context. */
typedef void (*RtDictionaryApplierFunction)(const void *key, const void *value, void *context);

/** The runtime type of dictionaries, mutable or not. */
RT_EXPORT RtTypeID RtDictionaryGetTypeID(void);
/** Creates an immutable dictionary of @p numValues pairs (keys[i] -> values[i]; a later equal key
 * replaces an earlier one's value). The caller owns it.
 * @return the new dictionary, or NULL when @p numValues is negative or an array is missing. */
RT_EXPORT RtDictionaryRef RtDictionaryCreate(RtAllocatorRef alloc, const void **keys, const void **values,
                                             RtIndex numValues, const RtDictionaryKeyCallBacks *keyCallBacks,
                                             const RtDictionaryValueCallBacks *valueCallBacks);
/** An immutable copy with the same callbacks (caller releases); an immutable @p dict comes back
 * retained. NULL when @p dict is not a dictionary. */
RT_EXPORT RtDictionaryRef RtDictionaryCreateCopy(RtAllocatorRef alloc, RtDictionaryRef dict);
/** Creates an empty mutable dictionary (caller releases). @p capacity is a size hint (0: none);
 * the contents still grow past it. NULL callback records mean plain pointers. */
RT_EXPORT RtMutableDictionaryRef RtDictionaryCreateMutable(RtAllocatorRef alloc, RtIndex capacity,
                                                           const RtDictionaryKeyCallBacks *keyCallBacks,
                                                           const RtDictionaryValueCallBacks *valueCallBacks);
/** A mutable copy of @p dict with its callbacks and order (caller releases); NULL when @p dict is
 * not a dictionary. */
RT_EXPORT RtMutableDictionaryRef RtDictionaryCreateMutableCopy(RtAllocatorRef alloc, RtIndex capacity,
                                                               RtDictionaryRef dict);

/** The number of keys; 0 for NULL. */
RT_EXPORT RtIndex RtDictionaryGetCount(RtDictionaryRef dict);
/** The value of @p key (borrowed), or NULL when absent. Use RtDictionaryGetValueIfPresent() when
 * NULL is a stored value. */
RT_EXPORT const void *RtDictionaryGetValue(RtDictionaryRef dict, const void *key);
/** True when @p key is present; its (borrowed) value is then stored in @p value (may be NULL). */
RT_EXPORT bool RtDictionaryGetValueIfPresent(RtDictionaryRef dict, const void *key, const void **value);
/** True when @p key is present. */
RT_EXPORT bool RtDictionaryContainsKey(RtDictionaryRef dict, const void *key);
/** True when some key maps to a value equal to @p value (a linear search). */
RT_EXPORT bool RtDictionaryContainsValue(RtDictionaryRef dict, const void *value);
/** Fills @p keys and @p values (each RtDictionaryGetCount() pointers, either may be NULL) in
 * insertion order, with borrowed pointers. */
RT_EXPORT void RtDictionaryGetKeysAndValues(RtDictionaryRef dict, const void **keys, const void **values);
/** Calls @p applier with each pair in insertion order. */
RT_EXPORT void RtDictionaryApplyFunction(RtDictionaryRef dict, RtDictionaryApplierFunction applier,
                                         void *context);

/** Sets @p key to @p value, replacing any value (the key keeps its place when present). */
RT_EXPORT void RtDictionarySetValue(RtMutableDictionaryRef dict, const void *key, const void *value);
/** Adds the pair only when @p key is absent. */
RT_EXPORT void RtDictionaryAddValue(RtMutableDictionaryRef dict, const void *key, const void *value);
/** Replaces the value only when @p key is present. */
RT_EXPORT void RtDictionaryReplaceValue(RtMutableDictionaryRef dict, const void *key, const void *value);
/** Removes @p key and its value; the other keys keep their order. */
RT_EXPORT void RtDictionaryRemoveValue(RtMutableDictionaryRef dict, const void *key);
/** Removes every pair. */
RT_EXPORT void RtDictionaryRemoveAllValues(RtMutableDictionaryRef dict);

/** @} */

RT_EXTERN_C_END

#endif
