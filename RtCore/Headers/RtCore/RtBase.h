/** @file
 * @ingroup RtCore
 * @brief RtCore's object model.
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

/** @def RT_EXPORT
 * Marks a declaration as exported from the shared libraries (default symbol visibility while the
 * libraries themselves are built; empty for their users). */
#if defined(RTCORE_BUILDING) || defined(RTNETWORK_BUILDING) || defined(HALVOSCORE_BUILDING)
#define RT_EXPORT __attribute__((visibility("default")))
#else
#define RT_EXPORT
#endif

/** @def RT_EXTERN_C_BEGIN
 * Opens a block of C declarations (`extern "C" {` in C++, nothing in C).
 * @def RT_EXTERN_C_END
 * Closes the block RT_EXTERN_C_BEGIN opened. */
#ifdef __cplusplus
#define RT_EXTERN_C_BEGIN extern "C" {
#define RT_EXTERN_C_END }
#else
#define RT_EXTERN_C_BEGIN
#define RT_EXTERN_C_END
#endif

RT_EXTERN_C_BEGIN

/** @addtogroup RtCore
 * @{ */

/** Any runtime object (a string, number, array, invocation...); NULL is no object. */
typedef const void *RtTypeRef;
/** The identifier a class receives when it is registered; RtGetTypeID() gives an object's. Compare
 * it with the kind's own ...GetTypeID() (RtStringGetTypeID() and so on) to tell values apart. */
typedef uint32_t RtTypeID;
/** A count, length or index (signed: #kRtNotFound and -1 report failures). */
typedef long RtIndex;
/** A hash value: objects that are RtEqual() have equal hashes. */
typedef unsigned long RtHashCode;
/** A set of option bits (for example kRtCompare... or kRtXMLParser... values ORed together). */
typedef unsigned long RtOptionFlags;

/** Anonymous constants of the object model. */
enum {
    kRtNotFound = -1 ///< The index or range location reported when a value or text is not found.
};

/** A run of indices: `length` items starting at `location`. */
typedef struct {
    RtIndex location; ///< The first index.
    RtIndex length;   ///< The number of indices (0 for an empty range).
} RtRange;

/** Returns the range of @p length items starting at @p location. */
static inline RtRange RtRangeMake(RtIndex location, RtIndex length) {
    RtRange r;
    r.location = location;
    r.length = length;
    return r;
}

/** The order of two values, as comparators and the ...Compare functions report it. */
typedef enum {
    kRtCompareLessThan = -1,  ///< The first value orders before the second.
    kRtCompareEqualTo = 0,    ///< The two values order the same.
    kRtCompareGreaterThan = 1 ///< The first value orders after the second.
} RtComparisonResult;

/** A comparator for sorting: the order of @p a and @p b, given the caller's @p context. */
typedef RtComparisonResult (*RtComparatorFunction)(const void *a, const void *b, void *context);

/** An allocator. Only the default allocator (NULL) and kRtAllocatorNull exist; the argument is
 * accepted everywhere for symmetry and objects always come from malloc. kRtAllocatorNull as a
 * bytes deallocator means "do not free". */
typedef const struct __RtAllocator *RtAllocatorRef;
/** The default allocator (NULL): objects and copied bytes come from malloc. */
#define kRtAllocatorDefault ((RtAllocatorRef)NULL)
/** As a bytes deallocator (RtDataCreateWithBytesNoCopy(), RtStringCreateWithCStringNoCopy()):
 * the bytes belong to the caller and are never freed. */
RT_EXPORT extern const RtAllocatorRef kRtAllocatorNull;
/** As a bytes deallocator: the bytes came from malloc and are freed with free(). */
RT_EXPORT extern const RtAllocatorRef kRtAllocatorMalloc;

/** An immutable string (see RtString.h). */
typedef const struct __RtString *RtStringRef;
/** A string that can change (see RtStringCreateMutable()). */
typedef struct __RtString *RtMutableStringRef;
/** An immutable dictionary (see RtDictionary.h). */
typedef const struct __RtDictionary *RtDictionaryRef;

/* ---- Class registration ------------------------------------------------------------------ */

/** The class record of a runtime class, for RtRuntimeRegisterClass(). `equal` is only called
 * with two objects of the same class. `copyFormattingDesc` gives the text "%@" prints;
 * `copyDebugDesc` the text of RtCopyDescription(). Either may be NULL: a class without a debug
 * description is described by its formatting description, and one without both by a generic
 * "<ClassName 0x...>". */
typedef struct {
    RtIndex version;             ///< Record version; 0.
    const char *className;       ///< The class name descriptions print; must live for the process.
    void (*init)(RtTypeRef obj); ///< Runs on each new zero-filled instance (may be NULL).
    RtTypeRef (*copy)(RtAllocatorRef allocator, RtTypeRef obj); ///< Reserved: NULL.
    void (*finalize)(RtTypeRef obj);         ///< Frees what the instance owns when it dies (may be NULL).
    bool (*equal)(RtTypeRef a, RtTypeRef b); ///< Value equality; NULL compares identity.
    RtHashCode (*hash)(RtTypeRef obj);       ///< Hash consistent with equal; NULL hashes the address.
    /** The text "%@" prints (a new string), or NULL. */
    RtStringRef (*copyFormattingDesc)(RtTypeRef obj, RtDictionaryRef formatOptions);
    RtStringRef (*copyDebugDesc)(RtTypeRef obj); ///< The text of RtCopyDescription() (new), or NULL.
} RtRuntimeClass;

/** The header every runtime object starts with. Treat as opaque; classes embed it first. */
typedef struct {
    const void *_isa; ///< The object's class entry; private.
    uint64_t _rc;     ///< The atomic reference count; private (the high bit marks immortal objects).
} RtRuntimeBase;

/** The type identifier of no class: RtGetTypeID(NULL) and failed registrations report it. */
#define kRtNotATypeID ((RtTypeID)0)

/** Registers a class. The record must live for the process. Locked: may be called from any thread.
 * @return the class's new type identifier, or #kRtNotATypeID when @p cls is NULL or the class
 *         table is full. */
RT_EXPORT RtTypeID RtRuntimeRegisterClass(const RtRuntimeClass *cls);
/** The class record registered under @p typeID, or NULL for an unknown identifier. */
RT_EXPORT const RtRuntimeClass *RtRuntimeGetClassWithTypeID(RtTypeID typeID);
/** Creates an instance of a registered class: zero-filled, sizeof(RtRuntimeBase) + @p extraBytes
 * long, reference count 1; the class's init runs before it is returned. The caller owns it.
 * @return the new object, or NULL when @p typeID is unknown, @p extraBytes is negative or memory
 *         runs out. */
RT_EXPORT RtTypeRef RtRuntimeCreateInstance(RtAllocatorRef allocator, RtTypeID typeID, RtIndex extraBytes);
/** Marks @p obj immortal: retain and release no longer change it and it is never freed. For
 * process-wide constants; call it before other threads can see the object. */
RT_EXPORT void RtRuntimeSetImmortal(RtTypeRef obj);

/* ---- Polymorphic operations (on any runtime object) -------------------------------------- */

/** Adds a reference to @p obj (atomic; any thread). RtRetain(NULL) does nothing.
 * @return @p obj, so that `x = RtRetain(y)` reads naturally. */
RT_EXPORT RtTypeRef RtRetain(RtTypeRef obj);
/** Drops a reference to @p obj (atomic; any thread); the last one destroys it, running its class's
 * finalize. RtRelease(NULL) and releasing an immortal object do nothing. */
RT_EXPORT void RtRelease(RtTypeRef obj);
/** The reference count of @p obj, for tests and diagnostics. Immortal objects report a very large
 * count, NULL reports 0, and a node of an XML tree reports its document's count. */
RT_EXPORT RtIndex RtGetRetainCount(RtTypeRef obj);
/** The type identifier of @p obj's class; #kRtNotATypeID for NULL. */
RT_EXPORT RtTypeID RtGetTypeID(RtTypeRef obj);
/** True when @p a and @p b are the same object, or of the same class and that class's equal says
 * so (classes without equal compare identity). Two NULLs are equal; NULL equals nothing else. */
RT_EXPORT bool RtEqual(RtTypeRef a, RtTypeRef b);
/** A hash of @p obj consistent with RtEqual() (the object's address for classes without a hash);
 * 0 for NULL. */
RT_EXPORT RtHashCode RtHash(RtTypeRef obj);
/** The formatting description ("%@" text): a string's own text, a number's digits, and so on.
 * @return a new string the caller releases; for NULL the text "(null)". */
RT_EXPORT RtStringRef RtCopyFormattingDescription(RtTypeRef obj);
/** A readable debug description of @p obj (nested for collections), for logs and RtShow().
 * @return a new string the caller releases. */
RT_EXPORT RtStringRef RtCopyDescription(RtTypeRef obj);
/** The class name of @p typeID as a new string the caller releases, or NULL when unknown. */
RT_EXPORT RtStringRef RtCopyTypeIDDescription(RtTypeID typeID);
/** Prints RtCopyDescription(obj) and a line feed to standard error, for debugging. */
RT_EXPORT void RtShow(RtTypeRef obj);

/* ---- Diagnostics for tests ---------------------------------------------------------------- */

/** The number of runtime objects currently alive in the process (immortal ones excluded); tests
 * compare it before and after a piece of work to find leaks. */
RT_EXPORT long RtRuntimeGetLiveObjectCount(void);

/** @} */

RT_EXTERN_C_END

#endif
