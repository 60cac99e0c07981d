/* RtBase.h: RtCore's object model.
 *
 * Every runtime object starts with a header (class pointer and atomic reference count).
 * Classes are registered at run time and receive an RtTypeID. Objects are created with a
 * reference count of 1 and destroyed when the last RtRelease drops it to 0. Immortal objects
 * (constant strings, booleans, the null object, process-wide statics) ignore retain and release.
 *
 * Thread safety: retain and release are atomic; class registration is locked. A single object
 * is otherwise used by one thread at a time unless it is immutable. */
#ifndef RTCORE_RTBASE_H
#define RTCORE_RTBASE_H

#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#if defined(RTCORE_BUILDING) || defined(RTNETWORK_BUILDING) || defined(HALVOSCORE_BUILDING)
#define RT_EXPORT __attribute__((visibility("default")))
#else
#define RT_EXPORT
#endif

#ifdef __cplusplus
#define RT_EXTERN_C_BEGIN extern "C" {
#define RT_EXTERN_C_END }
#else
#define RT_EXTERN_C_BEGIN
#define RT_EXTERN_C_END
#endif

RT_EXTERN_C_BEGIN

typedef const void *RtTypeRef;
typedef uint32_t RtTypeID;
typedef long RtIndex;
typedef unsigned long RtHashCode;
typedef unsigned long RtOptionFlags;

/* The "not found" index and range location. */
enum { kRtNotFound = -1 };

typedef struct {
    RtIndex location;
    RtIndex length;
} RtRange;

static inline RtRange RtRangeMake(RtIndex location, RtIndex length) {
    RtRange r;
    r.location = location;
    r.length = length;
    return r;
}

typedef enum { kRtCompareLessThan = -1, kRtCompareEqualTo = 0, kRtCompareGreaterThan = 1 } RtComparisonResult;

typedef RtComparisonResult (*RtComparatorFunction)(const void *a, const void *b, void *context);

/* Allocators. Only the default allocator (NULL) and kRtAllocatorNull exist; the argument is
 * accepted everywhere for symmetry. kRtAllocatorNull as a bytes deallocator means "do not free". */
typedef const struct __RtAllocator *RtAllocatorRef;
#define kRtAllocatorDefault ((RtAllocatorRef)NULL)
RT_EXPORT extern const RtAllocatorRef kRtAllocatorNull;
RT_EXPORT extern const RtAllocatorRef kRtAllocatorMalloc;

typedef const struct __RtString *RtStringRef;
typedef struct __RtString *RtMutableStringRef;
typedef const struct __RtDictionary *RtDictionaryRef;

/* ---- Class registration ------------------------------------------------------------------ */

/* The class record. Every callback except `init`/`finalize` receives the object. `equal` is
 * only called with two objects of the same class. `copyFormattingDesc` gives the text "%@"
 * prints; `copyDebugDesc` the text of RtCopyDescription. Either may be NULL: a class without a
 * debug description is described by its formatting description, and one without both by a
 * generic "<ClassName 0x...>". `copy` is reserved (NULL). */
typedef struct {
    RtIndex version;
    const char *className;
    void (*init)(RtTypeRef obj);
    RtTypeRef (*copy)(RtAllocatorRef allocator, RtTypeRef obj);
    void (*finalize)(RtTypeRef obj);
    bool (*equal)(RtTypeRef a, RtTypeRef b);
    RtHashCode (*hash)(RtTypeRef obj);
    RtStringRef (*copyFormattingDesc)(RtTypeRef obj, RtDictionaryRef formatOptions);
    RtStringRef (*copyDebugDesc)(RtTypeRef obj);
} RtRuntimeClass;

/* The header every runtime object starts with. Treat as opaque; subclasses embed it first. */
typedef struct {
    const void *_isa;
    uint64_t _rc; /* atomic; high bit marks immortal objects */
} RtRuntimeBase;

#define kRtNotATypeID ((RtTypeID)0)

/* Registers a class; the record must live for the process. Returns its new type identifier. */
RT_EXPORT RtTypeID RtRuntimeRegisterClass(const RtRuntimeClass *cls);
/* The class record registered under typeID, or NULL. */
RT_EXPORT const RtRuntimeClass *RtRuntimeGetClassWithTypeID(RtTypeID typeID);
/* A new zero-filled instance of typeID, sizeof(RtRuntimeBase) + extraBytes long, reference
 * count 1. The class's init runs before it is returned. NULL when typeID is unknown. */
RT_EXPORT RtTypeRef RtRuntimeCreateInstance(RtAllocatorRef allocator, RtTypeID typeID, RtIndex extraBytes);
/* Marks obj immortal: retain and release no longer change it and it is never freed. */
RT_EXPORT void RtRuntimeSetImmortal(RtTypeRef obj);

/* ---- Polymorphic operations (on any runtime object) -------------------------------------- */

/* Retain/release. RtRetain(NULL) and RtRelease(NULL) are no-ops. RtRetain returns obj. */
RT_EXPORT RtTypeRef RtRetain(RtTypeRef obj);
RT_EXPORT void RtRelease(RtTypeRef obj);
/* The reference count; immortal objects report a very large count; NULL reports 0. */
RT_EXPORT RtIndex RtGetRetainCount(RtTypeRef obj);
/* NULL yields kRtNotATypeID. */
RT_EXPORT RtTypeID RtGetTypeID(RtTypeRef obj);
/* Same object, or same class and the class's equal says so. Two NULLs are equal. */
RT_EXPORT bool RtEqual(RtTypeRef a, RtTypeRef b);
RT_EXPORT RtHashCode RtHash(RtTypeRef obj);
/* The formatting description ("%@" text): a string's own text, a number's digits, and so on.
 * Returns a new string the caller releases; NULL prints as "(null)". */
RT_EXPORT RtStringRef RtCopyFormattingDescription(RtTypeRef obj);
/* A readable debug description (nested for collections). New string, caller releases. */
RT_EXPORT RtStringRef RtCopyDescription(RtTypeRef obj);
/* The class name of typeID as a new string, or NULL. */
RT_EXPORT RtStringRef RtCopyTypeIDDescription(RtTypeID typeID);
/* Prints RtCopyDescription(obj) and a line feed to standard error. */
RT_EXPORT void RtShow(RtTypeRef obj);

/* ---- Diagnostics for tests ---------------------------------------------------------------- */

/* Number of runtime objects currently alive (immortal ones excluded). */
RT_EXPORT long RtRuntimeGetLiveObjectCount(void);

RT_EXTERN_C_END

#endif
