/* RtDictionary.h: key-value maps that enumerate in insertion order.
 *
 * Removing a key leaves the other keys in their order; setting an existing key keeps its
 * place. Callback records decide ownership, equality and hashing of keys and values. */
#ifndef RTCORE_RTDICTIONARY_H
#define RTCORE_RTDICTIONARY_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

typedef const struct __RtDictionary *RtDictionaryRef;
typedef struct __RtDictionary *RtMutableDictionaryRef;

typedef const void *(*RtDictionaryRetainCallBack)(RtAllocatorRef allocator, const void *value);
typedef void (*RtDictionaryReleaseCallBack)(RtAllocatorRef allocator, const void *value);
typedef RtStringRef (*RtDictionaryCopyDescriptionCallBack)(const void *value);
typedef bool (*RtDictionaryEqualCallBack)(const void *value1, const void *value2);
typedef RtHashCode (*RtDictionaryHashCallBack)(const void *value);

typedef struct {
    RtIndex version;
    RtDictionaryRetainCallBack retain;
    RtDictionaryReleaseCallBack release;
    RtDictionaryCopyDescriptionCallBack copyDescription;
    RtDictionaryEqualCallBack equal;
    RtDictionaryHashCallBack hash;
} RtDictionaryKeyCallBacks;

typedef struct {
    RtIndex version;
    RtDictionaryRetainCallBack retain;
    RtDictionaryReleaseCallBack release;
    RtDictionaryCopyDescriptionCallBack copyDescription;
    RtDictionaryEqualCallBack equal;
} RtDictionaryValueCallBacks;

/* Keys retained, compared with RtEqual and hashed with RtHash. */
RT_EXPORT extern const RtDictionaryKeyCallBacks kRtTypeDictionaryKeyCallBacks;
/* As above, but a mutable string key is copied to an immutable one first. */
RT_EXPORT extern const RtDictionaryKeyCallBacks kRtCopyStringDictionaryKeyCallBacks;
RT_EXPORT extern const RtDictionaryValueCallBacks kRtTypeDictionaryValueCallBacks;

typedef void (*RtDictionaryApplierFunction)(const void *key, const void *value, void *context);

RT_EXPORT RtTypeID RtDictionaryGetTypeID(void);
RT_EXPORT RtDictionaryRef RtDictionaryCreate(RtAllocatorRef alloc, const void **keys, const void **values,
                                             RtIndex numValues, const RtDictionaryKeyCallBacks *keyCallBacks,
                                             const RtDictionaryValueCallBacks *valueCallBacks);
RT_EXPORT RtDictionaryRef RtDictionaryCreateCopy(RtAllocatorRef alloc, RtDictionaryRef dict);
/* capacity is a size hint (0: none); the contents still grow past it. */
RT_EXPORT RtMutableDictionaryRef RtDictionaryCreateMutable(RtAllocatorRef alloc, RtIndex capacity,
                                                           const RtDictionaryKeyCallBacks *keyCallBacks,
                                                           const RtDictionaryValueCallBacks *valueCallBacks);
RT_EXPORT RtMutableDictionaryRef RtDictionaryCreateMutableCopy(RtAllocatorRef alloc, RtIndex capacity,
                                                               RtDictionaryRef dict);

RT_EXPORT RtIndex RtDictionaryGetCount(RtDictionaryRef dict);
/* Borrowed value, or NULL. */
RT_EXPORT const void *RtDictionaryGetValue(RtDictionaryRef dict, const void *key);
RT_EXPORT bool RtDictionaryGetValueIfPresent(RtDictionaryRef dict, const void *key, const void **value);
RT_EXPORT bool RtDictionaryContainsKey(RtDictionaryRef dict, const void *key);
RT_EXPORT bool RtDictionaryContainsValue(RtDictionaryRef dict, const void *value);
/* Fills keys and values (either may be NULL) in insertion order. */
RT_EXPORT void RtDictionaryGetKeysAndValues(RtDictionaryRef dict, const void **keys, const void **values);
RT_EXPORT void RtDictionaryApplyFunction(RtDictionaryRef dict, RtDictionaryApplierFunction applier,
                                         void *context);

/* Sets key to value, replacing (the key keeps its place when present). */
RT_EXPORT void RtDictionarySetValue(RtMutableDictionaryRef dict, const void *key, const void *value);
/* Adds only when key is absent. */
RT_EXPORT void RtDictionaryAddValue(RtMutableDictionaryRef dict, const void *key, const void *value);
/* Replaces only when key is present. */
RT_EXPORT void RtDictionaryReplaceValue(RtMutableDictionaryRef dict, const void *key, const void *value);
RT_EXPORT void RtDictionaryRemoveValue(RtMutableDictionaryRef dict, const void *key);
RT_EXPORT void RtDictionaryRemoveAllValues(RtMutableDictionaryRef dict);

RT_EXTERN_C_END

#endif
