// Dates: Gregorian fields in GMT both ways, carry-over of unnormalised fields, date objects.
#include "RtValueTestSupport.h"

#include <ctime>

using namespace rttest;

namespace {

class DateTests : public LeakChecked {};

RtGregorianDate gdate(int y, int mo, int d, int h, int mi, double s) {
    RtGregorianDate g;
    g.year = y;
    g.month = mo;
    g.day = d;
    g.hour = h;
    g.minute = mi;
    g.second = s;
    return g;
}

void expectFields(RtAbsoluteTime at, int y, int mo, int d, int h, int mi, double s) {
    RtGregorianDate g = RtAbsoluteTimeGetGregorianDate(at);
    EXPECT_EQ(g.year, y);
    EXPECT_EQ(g.month, mo);
    EXPECT_EQ(g.day, d);
    EXPECT_EQ(g.hour, h);
    EXPECT_EQ(g.minute, mi);
    EXPECT_DOUBLE_EQ(g.second, s);
}

TEST_F(DateTests, GregorianFieldsBothWays) {
    EXPECT_EQ(RtGregorianDateGetAbsoluteTime(gdate(2001, 1, 1, 0, 0, 0)), 0.0);
    expectFields(0.0, 2001, 1, 1, 0, 0, 0);
    expectFields(-1.0, 2000, 12, 31, 23, 59, 59);
    expectFields(-kRtAbsoluteTimeIntervalSince1970, 1970, 1, 1, 0, 0, 0);
    // Leap days, century rules and a date far before the epoch.
    RtAbsoluteTime leap = RtGregorianDateGetAbsoluteTime(gdate(2024, 2, 29, 12, 30, 15.25));
    expectFields(leap, 2024, 2, 29, 12, 30, 15.25);
    expectFields(RtGregorianDateGetAbsoluteTime(gdate(1900, 3, 1, 0, 0, 0)) - 1, 1900, 2, 28, 23, 59, 59);
    expectFields(RtGregorianDateGetAbsoluteTime(gdate(2000, 3, 1, 0, 0, 0)) - 1, 2000, 2, 29, 23, 59, 59);
    expectFields(RtGregorianDateGetAbsoluteTime(gdate(1066, 10, 14, 9, 0, 0)), 1066, 10, 14, 9, 0, 0);
    // Agrees with the C library's own GMT conversion.
    time_t t = 1700000000;
    struct tm tm;
    gmtime_r(&t, &tm);
    expectFields(double(t) - kRtAbsoluteTimeIntervalSince1970, tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                 tm.tm_hour, tm.tm_min, tm.tm_sec);
    EXPECT_EQ(RtAbsoluteTimeGetDayOfWeek(0), 1);            // 2001-01-01, a Monday
    EXPECT_EQ(RtAbsoluteTimeGetDayOfWeek(leap), 4);         // 2024-02-29, a Thursday
    EXPECT_EQ(RtAbsoluteTimeGetDayOfWeek(-86400.0 * 1), 7); // 2000-12-31, a Sunday
}

TEST_F(DateTests, UnnormalisedFieldsCarryOver) {
    auto at = [](int y, int mo, int d, int h, int mi, double s) {
        return RtGregorianDateGetAbsoluteTime(gdate(y, mo, d, h, mi, s));
    };
    EXPECT_EQ(at(2023, 12, 31, 25, 0, 0), at(2024, 1, 1, 1, 0, 0));
    EXPECT_EQ(at(2024, 1, 1, 0, -10, 0), at(2023, 12, 31, 23, 50, 0));
    EXPECT_EQ(at(2023, 13, 1, 0, 0, 0), at(2024, 1, 1, 0, 0, 0));
    EXPECT_EQ(at(2024, 0, 1, 0, 0, 0), at(2023, 12, 1, 0, 0, 0));
    EXPECT_EQ(at(2024, -13, 1, 0, 0, 0), at(2022, 11, 1, 0, 0, 0));
    EXPECT_EQ(at(2024, 3, 0, 0, 0, 0), at(2024, 2, 29, 0, 0, 0));
    EXPECT_EQ(at(2023, 2, 30, 0, 0, 0), at(2023, 3, 2, 0, 0, 0));
    EXPECT_EQ(at(2024, 1, 1, 0, 0, 3600), at(2024, 1, 1, 1, 0, 0));
    EXPECT_FALSE(RtGregorianDateIsValid(gdate(2023, 2, 29, 0, 0, 0)));
    EXPECT_TRUE(RtGregorianDateIsValid(gdate(2024, 2, 29, 23, 59, 59.5)));
    EXPECT_FALSE(RtGregorianDateIsValid(gdate(2024, 1, 1, 24, 0, 0)));
    EXPECT_FALSE(RtGregorianDateIsValid(gdate(2024, 13, 1, 0, 0, 0)));
    // Absurd times do not crash and stay finite in their fields.
    RtAbsoluteTimeGetGregorianDate(1e300);
    RtAbsoluteTimeGetGregorianDate(-1e300);
}

TEST_F(DateTests, DateObjects) {
    RtDateRef a = RtDateCreate(nullptr, 86400.5);
    RtDateRef b = RtDateCreate(nullptr, 86400.5);
    RtDateRef c = RtDateCreate(nullptr, 0);
    EXPECT_TRUE(RtEqual(a, b));
    EXPECT_EQ(RtHash(a), RtHash(b));
    EXPECT_EQ(RtDateCompare(c, a, nullptr), kRtCompareLessThan);
    EXPECT_EQ(RtDateGetAbsoluteTime(a), 86400.5);
    EXPECT_EQ(formatted(a), "2001-01-02 00:00:00.5 +0000");
    EXPECT_EQ(description(c), "2001-01-01 00:00:00 +0000");
    RtAbsoluteTime now = RtAbsoluteTimeGetCurrent();
    EXPECT_GT(now, 7.0e8); // after 2023
    EXPECT_LT(now, 3.2e9); // before 2100
    RtRelease(a);
    RtRelease(b);
    RtRelease(c);
}

} // namespace
