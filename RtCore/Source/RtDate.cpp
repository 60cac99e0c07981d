// RtDate: absolute times, date objects and Gregorian calendar fields in GMT.
// Calendar arithmetic works on whole days counted from 1970-01-01 (proleptic Gregorian), so
// out-of-range fields carry over by plain arithmetic and no time-zone data is involved.
#include "RtRuntime.h"
#include "RtValues.h"

#include <cmath>
#include <cstdio>
#include <ctime>

struct __RtDate {
    RtRuntimeBase fBase;
    RtAbsoluteTime fTime;
};

namespace {

constexpr int64_t kSecondsPerDay = 86400;
// Days from 1970-01-01 to 2001-01-01.
constexpr int64_t kDaysTo2001 = 11323;
// Absolute times are clamped to about +-1.9 billion years so that day counts and years fit.
constexpr double kMaxDays = 7.0e11;

int64_t floorDiv(int64_t a, int64_t b) {
    return a / b - ((a % b != 0) && ((a < 0) != (b < 0)));
}

// Days since 1970-01-01 of a civil date (month 1..12; day may be any value).
int64_t daysFromCivil(int64_t y, int64_t m, int64_t d) {
    y -= m <= 2;
    int64_t era = floorDiv(y, 400);
    int64_t yoe = y - era * 400;
    int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

void civilFromDays(int64_t z, int64_t *y, int32_t *m, int32_t *d) {
    z += 719468;
    int64_t era = floorDiv(z, 146097);
    int64_t doe = z - era * 146097;
    int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    int64_t mp = (5 * doy + 2) / 153;
    *d = static_cast<int32_t>(doy - (153 * mp + 2) / 5 + 1);
    *m = static_cast<int32_t>(mp < 10 ? mp + 3 : mp - 9);
    *y = yoe + era * 400 + (*m <= 2);
}

bool isLeapYear(int64_t y) {
    return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
}

int daysInMonth(int64_t y, int m) {
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && isLeapYear(y) ? 29 : kDays[m - 1];
}

// Splits an absolute time into whole days since 2001-01-01 and the seconds into that day.
void splitTime(RtAbsoluteTime at, int64_t *days, double *secs) {
    if (std::isnan(at)) at = 0;
    double dd = std::floor(at / kSecondsPerDay);
    if (dd > kMaxDays) dd = kMaxDays;
    if (dd < -kMaxDays) dd = -kMaxDays;
    *days = static_cast<int64_t>(dd);
    double s = at - dd * kSecondsPerDay;
    // Rounding can land exactly on the next midnight; the clamp can leave s out of the day.
    if (!(s >= 0)) s = 0;
    if (s >= kSecondsPerDay) {
        if (dd < kMaxDays) {
            ++*days;
            s -= kSecondsPerDay;
        }
        if (s >= kSecondsPerDay) s = std::nextafter(double(kSecondsPerDay), 0.0);
    }
    *secs = s;
}

bool _dateEqual(RtTypeRef a, RtTypeRef b) {
    return static_cast<const __RtDate *>(a)->fTime == static_cast<const __RtDate *>(b)->fTime;
}

RtHashCode _dateHash(RtTypeRef obj) {
    double t = static_cast<const __RtDate *>(obj)->fTime;
    if (!(std::fabs(t) < 9.0e18)) return 0;
    return static_cast<RtHashCode>(static_cast<int64_t>(t));
}

RtStringRef _dateDesc(RtTypeRef obj, RtDictionaryRef) {
    char buf[64];
    size_t n = rt::formatISO8601(static_cast<const __RtDate *>(obj)->fTime, buf, sizeof buf, false);
    return RtStringCreateWithBytes(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(buf),
                                   static_cast<RtIndex>(n), kRtStringEncodingASCII, false);
}

RtStringRef _dateDebugDesc(RtTypeRef obj) {
    return _dateDesc(obj, nullptr);
}

const RtRuntimeClass sDateClass = {0,          "RtDate",  nullptr,   nullptr,       nullptr,
                                   _dateEqual, _dateHash, _dateDesc, _dateDebugDesc};
std::atomic<RtTypeID> sDateTypeID{kRtNotATypeID};

} // namespace

namespace rt {

size_t formatISO8601(RtAbsoluteTime at, char *buf, size_t size, bool compact) {
    RtGregorianDate g = RtAbsoluteTimeGetGregorianDate(at);
    int whole = static_cast<int>(g.second);
    int n =
        std::snprintf(buf, size, compact ? "%04d-%02d-%02dT%02d:%02d:%02d" : "%04d-%02d-%02d %02d:%02d:%02d",
                      g.year, g.month, g.day, g.hour, g.minute, whole);
    if (n < 0 || static_cast<size_t>(n) >= size) return 0;
    // Fractions of a second are kept to the microsecond, trailing zeros dropped.
    double frac = g.second - whole;
    long micros = std::lround(frac * 1e6);
    if (micros > 0 && micros < 1000000) {
        int m = std::snprintf(buf + n, size - static_cast<size_t>(n), ".%06ld", micros);
        if (m < 0 || static_cast<size_t>(n) + static_cast<size_t>(m) >= size) return 0;
        n += m;
        while (buf[n - 1] == '0')
            n--;
    }
    int z = std::snprintf(buf + n, size - static_cast<size_t>(n), compact ? "Z" : " +0000");
    if (z < 0 || static_cast<size_t>(n) + static_cast<size_t>(z) >= size) return 0;
    return static_cast<size_t>(n) + static_cast<size_t>(z);
}

} // namespace rt

RtAbsoluteTime RtAbsoluteTimeGetCurrent(void) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return (static_cast<double>(ts.tv_sec) - kRtAbsoluteTimeIntervalSince1970) + ts.tv_nsec * 1e-9;
}

RtTypeID RtDateGetTypeID(void) {
    return rt::typeIDOf(sDateTypeID, &sDateClass);
}

RtDateRef RtDateCreate(RtAllocatorRef alloc, RtAbsoluteTime at) {
    auto *d = static_cast<__RtDate *>(const_cast<void *>(
        RtRuntimeCreateInstance(alloc, RtDateGetTypeID(), sizeof(__RtDate) - sizeof(RtRuntimeBase))));
    if (d) d->fTime = at;
    return d;
}

RtAbsoluteTime RtDateGetAbsoluteTime(RtDateRef date) {
    return rt::isA(date, RtDateGetTypeID()) ? date->fTime : 0.0;
}

RtComparisonResult RtDateCompare(RtDateRef a, RtDateRef b, void *) {
    double x = RtDateGetAbsoluteTime(a), y = RtDateGetAbsoluteTime(b);
    return x < y ? kRtCompareLessThan : (x > y ? kRtCompareGreaterThan : kRtCompareEqualTo);
}

RtGregorianDate RtAbsoluteTimeGetGregorianDate(RtAbsoluteTime at) {
    int64_t days;
    double secs;
    splitTime(at, &days, &secs);
    RtGregorianDate g;
    int64_t year;
    civilFromDays(days + kDaysTo2001, &year, &g.month, &g.day);
    g.year = static_cast<int32_t>(year);
    int s = static_cast<int>(secs);
    g.hour = s / 3600;
    g.minute = (s / 60) % 60;
    g.second = secs - (g.hour * 3600 + g.minute * 60);
    return g;
}

RtAbsoluteTime RtGregorianDateGetAbsoluteTime(RtGregorianDate gdate) {
    // Months beyond 1..12 move the year; days, hours and minutes carry through the sum.
    int64_t month0 = static_cast<int64_t>(gdate.month) - 1;
    int64_t year = gdate.year + floorDiv(month0, 12);
    int64_t month = month0 - floorDiv(month0, 12) * 12 + 1;
    int64_t days = daysFromCivil(year, month, 1) + (static_cast<int64_t>(gdate.day) - 1) - kDaysTo2001;
    double minutes = static_cast<double>(static_cast<int64_t>(gdate.hour) * 60 + gdate.minute);
    return static_cast<double>(days) * kSecondsPerDay + minutes * 60.0 + gdate.second;
}

bool RtGregorianDateIsValid(RtGregorianDate gdate) {
    if (gdate.month < 1 || gdate.month > 12) return false;
    if (gdate.day < 1 || gdate.day > daysInMonth(gdate.year, gdate.month)) return false;
    if (gdate.hour < 0 || gdate.hour > 23 || gdate.minute < 0 || gdate.minute > 59) return false;
    return gdate.second >= 0 && gdate.second < 60;
}

int32_t RtAbsoluteTimeGetDayOfWeek(RtAbsoluteTime at) {
    int64_t days;
    double secs;
    splitTime(at, &days, &secs);
    // 2001-01-01 was a Monday.
    return static_cast<int32_t>(days - floorDiv(days, 7) * 7) + 1;
}
