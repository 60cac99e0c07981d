// Dates: Gregorian fields in GMT both ways, carry-over of unnormalised fields, date objects.
// The ISO 8601 tests of the library check many more dates against the C library's timegm.
#include "RtValueTestSupport.h"

#include <cstdio>

using namespace rttest;

namespace {

class DateTests : public LeakChecked {};

RtAbsoluteTime at(int y, int mo, int d, int h, int mi, double s) {
    return RtGregorianDateGetAbsoluteTime(RtGregorianDate{y, mo, d, h, mi, s});
}

// "YYYY-MM-DD hh:mm:ss" of the fields at t, seconds with their fraction.
std::string fields(RtAbsoluteTime t) {
    RtGregorianDate g = RtAbsoluteTimeGetGregorianDate(t);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%g", g.year, g.month, g.day, g.hour, g.minute,
                  g.second);
    return buf;
}

TEST_F(DateTests, GregorianFieldsBothWays) {
    EXPECT_EQ(at(2001, 1, 1, 0, 0, 0), 0.0);
    EXPECT_EQ(fields(0.0), "2001-01-01 00:00:0");
    EXPECT_EQ(fields(-1.0), "2000-12-31 23:59:59");
    EXPECT_EQ(fields(-kRtAbsoluteTimeIntervalSince1970), "1970-01-01 00:00:0");
    // Leap days, century rules and a date far before the epoch.
    EXPECT_EQ(fields(at(2024, 2, 29, 12, 30, 15.25)), "2024-02-29 12:30:15.25");
    EXPECT_EQ(fields(at(1900, 3, 1, 0, 0, 0) - 1), "1900-02-28 23:59:59");
    EXPECT_EQ(fields(at(2000, 3, 1, 0, 0, 0) - 1), "2000-02-29 23:59:59");
    EXPECT_EQ(fields(at(1066, 10, 14, 9, 0, 0)), "1066-10-14 09:00:0");
    EXPECT_EQ(RtAbsoluteTimeGetDayOfWeek(0), 1);                              // a Monday
    EXPECT_EQ(RtAbsoluteTimeGetDayOfWeek(at(2024, 2, 29, 12, 30, 15.25)), 4); // a Thursday
    EXPECT_EQ(RtAbsoluteTimeGetDayOfWeek(-86400.0), 7);                       // a Sunday

    // Fields out of range carry over.
    EXPECT_EQ(at(2023, 12, 31, 25, 0, 0), at(2024, 1, 1, 1, 0, 0));
    EXPECT_EQ(at(2024, 1, 1, 0, -10, 0), at(2023, 12, 31, 23, 50, 0));
    EXPECT_EQ(at(2023, 13, 1, 0, 0, 0), at(2024, 1, 1, 0, 0, 0));
    EXPECT_EQ(at(2024, -13, 1, 0, 0, 0), at(2022, 11, 1, 0, 0, 0));
    EXPECT_EQ(at(2024, 3, 0, 0, 0, 0), at(2024, 2, 29, 0, 0, 0));
    EXPECT_EQ(at(2023, 2, 30, 0, 0, 0), at(2023, 3, 2, 0, 0, 0));
    EXPECT_FALSE(RtGregorianDateIsValid(RtGregorianDate{2023, 2, 29, 0, 0, 0}));
    EXPECT_TRUE(RtGregorianDateIsValid(RtGregorianDate{2024, 2, 29, 23, 59, 59.5}));
    // Absurd times do not crash.
    RtAbsoluteTimeGetGregorianDate(1e300);
    RtAbsoluteTimeGetGregorianDate(-1e300);
}

TEST_F(DateTests, DateObjects) {
    RtDateRef a = own(RtDateCreate(nullptr, 86400.5)), c = own(RtDateCreate(nullptr, 0));
    EXPECT_TRUE(RtEqual(a, own(RtDateCreate(nullptr, 86400.5))));
    EXPECT_EQ(RtDateCompare(c, a, nullptr), kRtCompareLessThan);
    EXPECT_EQ(formatted(a), "2001-01-02 00:00:00.5 +0000");
    EXPECT_EQ(description(c), "2001-01-01 00:00:00 +0000");
    EXPECT_GT(RtAbsoluteTimeGetCurrent(), 7.0e8); // after 2023
}

} // namespace
