/* RtNumber.h: numbers, booleans and the null object.
 *
 * A number keeps the kind it was made with. kRtBooleanTrue, kRtBooleanFalse and kRtNull are
 * immortal singletons; compare booleans by identity. */
#ifndef RTCORE_RTNUMBER_H
#define RTCORE_RTNUMBER_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

typedef const struct __RtNumber *RtNumberRef;
typedef const struct __RtBoolean *RtBooleanRef;
typedef const struct __RtNull *RtNullRef;

typedef enum {
    kRtNumberSInt8Type = 1,
    kRtNumberSInt16Type = 2,
    kRtNumberSInt32Type = 3,
    kRtNumberSInt64Type = 4,
    kRtNumberFloat32Type = 5,
    kRtNumberFloat64Type = 6,
    kRtNumberCharType = 7,
    kRtNumberShortType = 8,
    kRtNumberIntType = 9,
    kRtNumberLongType = 10,
    kRtNumberLongLongType = 11,
    kRtNumberFloatType = 12,
    kRtNumberDoubleType = 13,
    kRtNumberIndexType = 14,
    kRtNumberMaxType = 14
} RtNumberType;

RT_EXPORT RtTypeID RtNumberGetTypeID(void);
/* A new number of theType from the value valuePtr points to (a C value of that type). NULL
 * when valuePtr is NULL or theType unknown. Small integers may be shared immortal objects. */
RT_EXPORT RtNumberRef RtNumberCreate(RtAllocatorRef alloc, RtNumberType theType, const void *valuePtr);
/* The kind the number was made with. */
RT_EXPORT RtNumberType RtNumberGetType(RtNumberRef number);
RT_EXPORT RtIndex RtNumberGetByteSize(RtNumberRef number);
RT_EXPORT bool RtNumberIsFloatType(RtNumberRef number);
/* Converts to theType into valuePtr; returns true when the conversion was exact (no
 * truncation, rounding or overflow). The converted value is stored either way. */
RT_EXPORT bool RtNumberGetValue(RtNumberRef number, RtNumberType theType, void *valuePtr);
RT_EXPORT RtComparisonResult RtNumberCompare(RtNumberRef a, RtNumberRef b, void *context);

RT_EXPORT extern const RtNumberRef kRtNumberPositiveInfinity;
RT_EXPORT extern const RtNumberRef kRtNumberNegativeInfinity;
RT_EXPORT extern const RtNumberRef kRtNumberNaN;

RT_EXPORT RtTypeID RtBooleanGetTypeID(void);
RT_EXPORT extern const RtBooleanRef kRtBooleanTrue;
RT_EXPORT extern const RtBooleanRef kRtBooleanFalse;
RT_EXPORT bool RtBooleanGetValue(RtBooleanRef boolean);

RT_EXPORT RtTypeID RtNullGetTypeID(void);
RT_EXPORT extern const RtNullRef kRtNull;

RT_EXTERN_C_END

#endif
