/* RtDate.h: absolute times, date objects and Gregorian calendar fields in GMT. */
#ifndef RTCORE_RTDATE_H
#define RTCORE_RTDATE_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

/* Seconds since 2001-01-01 00:00:00 GMT. */
typedef double RtAbsoluteTime;
typedef double RtTimeInterval;
/* Seconds between 1970-01-01 and 2001-01-01. */
#define kRtAbsoluteTimeIntervalSince1970 978307200.0

typedef const struct __RtDate *RtDateRef;

/* Calendar fields. Fields may be out of their usual ranges (hour 25, minute -10): converting
 * to an absolute time carries them over, as the arithmetic implies. */
typedef struct {
    int32_t year;
    int32_t month; /* 1..12 */
    int32_t day;   /* 1..31 */
    int32_t hour;
    int32_t minute;
    double second;
} RtGregorianDate;

RT_EXPORT RtAbsoluteTime RtAbsoluteTimeGetCurrent(void);
RT_EXPORT RtTypeID RtDateGetTypeID(void);
RT_EXPORT RtDateRef RtDateCreate(RtAllocatorRef alloc, RtAbsoluteTime at);
RT_EXPORT RtAbsoluteTime RtDateGetAbsoluteTime(RtDateRef date);
RT_EXPORT RtComparisonResult RtDateCompare(RtDateRef a, RtDateRef b, void *context);

/* GMT calendar fields of an absolute time (proleptic Gregorian calendar). */
RT_EXPORT RtGregorianDate RtAbsoluteTimeGetGregorianDate(RtAbsoluteTime at);
/* The absolute time of calendar fields in GMT; unnormalised fields are carried. */
RT_EXPORT RtAbsoluteTime RtGregorianDateGetAbsoluteTime(RtGregorianDate gdate);
/* True when every field is within its usual range for that month. */
RT_EXPORT bool RtGregorianDateIsValid(RtGregorianDate gdate);
/* Day of week, 1 = Monday ... 7 = Sunday. */
RT_EXPORT int32_t RtAbsoluteTimeGetDayOfWeek(RtAbsoluteTime at);

RT_EXTERN_C_END

#endif
