/** @file
 * @ingroup RtCore
 * @brief Absolute times, date objects and Gregorian calendar fields in GMT. */
#ifndef RTCORE_RTDATE_H
#define RTCORE_RTDATE_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

/** @addtogroup RtCore
 * @{ */

/** A point in time: seconds since 2001-01-01 00:00:00 GMT (negative before). */
typedef double RtAbsoluteTime;
/** A duration in seconds. */
typedef double RtTimeInterval;
/** Seconds between 1970-01-01 and 2001-01-01: add it to an RtAbsoluteTime to get Unix time. */
#define kRtAbsoluteTimeIntervalSince1970 978307200.0

/** An immutable date object holding an RtAbsoluteTime. */
typedef const struct __RtDate *RtDateRef;

/** Calendar fields. Fields may be out of their usual ranges (hour 25, minute -10): converting
 * to an absolute time carries them over, as the arithmetic implies. */
typedef struct {
    int32_t year;   ///< The year (proleptic Gregorian calendar).
    int32_t month;  ///< 1..12.
    int32_t day;    ///< 1..31.
    int32_t hour;   ///< 0..23.
    int32_t minute; ///< 0..59.
    double second;  ///< 0 up to (not including) 60, with the fraction.
} RtGregorianDate;

/** The current time from the system's real-time clock. */
RT_EXPORT RtAbsoluteTime RtAbsoluteTimeGetCurrent(void);
/** The runtime type of dates. */
RT_EXPORT RtTypeID RtDateGetTypeID(void);
/** A new date at @p at (caller releases), or NULL when memory runs out. */
RT_EXPORT RtDateRef RtDateCreate(RtAllocatorRef alloc, RtAbsoluteTime at);
/** The time of @p date; 0 for NULL or a non-date. */
RT_EXPORT RtAbsoluteTime RtDateGetAbsoluteTime(RtDateRef date);
/** The order of two dates in time; @p context is unused (the signature fits RtComparatorFunction). */
RT_EXPORT RtComparisonResult RtDateCompare(RtDateRef a, RtDateRef b, void *context);

/** GMT calendar fields of an absolute time (proleptic Gregorian calendar). */
RT_EXPORT RtGregorianDate RtAbsoluteTimeGetGregorianDate(RtAbsoluteTime at);
/** The absolute time of calendar fields in GMT; unnormalised fields are carried. */
RT_EXPORT RtAbsoluteTime RtGregorianDateGetAbsoluteTime(RtGregorianDate gdate);
/** True when every field is within its usual range for that month. */
RT_EXPORT bool RtGregorianDateIsValid(RtGregorianDate gdate);
/** The day of the week of @p at in GMT: 1 = Monday ... 7 = Sunday. */
RT_EXPORT int32_t RtAbsoluteTimeGetDayOfWeek(RtAbsoluteTime at);

/** @} */

RT_EXTERN_C_END

#endif
