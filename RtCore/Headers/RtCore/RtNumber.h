/** @file
 * @ingroup RtCore
 * @brief Numbers, booleans and the null object.
 *
 * A number keeps the kind it was made with. kRtBooleanTrue, kRtBooleanFalse and kRtNull are
 * immortal singletons; compare booleans by identity. */
#ifndef RTCORE_RTNUMBER_H
#define RTCORE_RTNUMBER_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

/** @addtogroup RtCore
 * @{ */

/** An immutable number (integer or floating point). */
typedef const struct __RtNumber *RtNumberRef;
/** One of the two boolean singletons, kRtBooleanTrue and kRtBooleanFalse. */
typedef const struct __RtBoolean *RtBooleanRef;
/** The null singleton kRtNull (a value that stands for "nothing" inside collections). */
typedef const struct __RtNull *RtNullRef;

/** The C type a number is made from or converted to. */
typedef enum {
    kRtNumberSInt8Type = 1,     ///< int8_t.
    kRtNumberSInt16Type = 2,    ///< int16_t.
    kRtNumberSInt32Type = 3,    ///< int32_t (XML-RPC i4 and SOAP int values).
    kRtNumberSInt64Type = 4,    ///< int64_t.
    kRtNumberFloat32Type = 5,   ///< float.
    kRtNumberFloat64Type = 6,   ///< double (XML-RPC and SOAP double values).
    kRtNumberCharType = 7,      ///< char.
    kRtNumberShortType = 8,     ///< short.
    kRtNumberIntType = 9,       ///< int.
    kRtNumberLongType = 10,     ///< long.
    kRtNumberLongLongType = 11, ///< long long.
    kRtNumberFloatType = 12,    ///< float.
    kRtNumberDoubleType = 13,   ///< double.
    kRtNumberIndexType = 14,    ///< RtIndex.
    kRtNumberMaxType = 14       ///< The largest valid type.
} RtNumberType;

/** The runtime type of numbers. */
RT_EXPORT RtTypeID RtNumberGetTypeID(void);
/** A new number of theType from the value valuePtr points to (a C value of that type). NULL
 * when valuePtr is NULL or theType unknown. Small integers may be shared immortal objects.
 * The caller releases the result either way. */
RT_EXPORT RtNumberRef RtNumberCreate(RtAllocatorRef alloc, RtNumberType theType, const void *valuePtr);
/** The kind the number was made with; 0 for NULL or a non-number. */
RT_EXPORT RtNumberType RtNumberGetType(RtNumberRef number);
/** The size in bytes of the number's kind; 0 for a non-number. */
RT_EXPORT RtIndex RtNumberGetByteSize(RtNumberRef number);
/** True when the number was made from a floating-point type. */
RT_EXPORT bool RtNumberIsFloatType(RtNumberRef number);
/** Converts to @p theType into @p valuePtr; returns true when the conversion was exact (no
 * truncation, rounding or overflow). The converted value is stored either way. False, with
 * nothing stored, for a NULL @p valuePtr or a non-number. */
RT_EXPORT bool RtNumberGetValue(RtNumberRef number, RtNumberType theType, void *valuePtr);
/** The numeric order of two numbers of any kinds; a non-number orders before every number.
 * @p context is unused (the signature fits RtComparatorFunction). */
RT_EXPORT RtComparisonResult RtNumberCompare(RtNumberRef a, RtNumberRef b, void *context);

/** The immortal double +infinity. */
RT_EXPORT extern const RtNumberRef kRtNumberPositiveInfinity;
/** The immortal double -infinity. */
RT_EXPORT extern const RtNumberRef kRtNumberNegativeInfinity;
/** The immortal double not-a-number. */
RT_EXPORT extern const RtNumberRef kRtNumberNaN;

/** The runtime type of the two booleans. */
RT_EXPORT RtTypeID RtBooleanGetTypeID(void);
/** The immortal true value. */
RT_EXPORT extern const RtBooleanRef kRtBooleanTrue;
/** The immortal false value. */
RT_EXPORT extern const RtBooleanRef kRtBooleanFalse;
/** True only for kRtBooleanTrue (false for NULL and anything else). */
RT_EXPORT bool RtBooleanGetValue(RtBooleanRef boolean);

/** The runtime type of the null object. */
RT_EXPORT RtTypeID RtNullGetTypeID(void);
/** The immortal null object: a nil value (XML-RPC `<nil/>`) where collections need an object. */
RT_EXPORT extern const RtNullRef kRtNull;

/** @} */

RT_EXTERN_C_END

#endif
