// ISO 8601: the writer's two forms, and the reader's separators, zone and fraction quirks and
// its bounds.
#include "HalvoUtilsTestSupport.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

using namespace hvutils_test;

namespace {

class DateTest : public UtilsTest {};

// The absolute time of a GMT calendar time, computed by the C library (fields normalised as
// timegm does), independently of the runtime's own calendar code.
RtAbsoluteTime gmt(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
    struct tm t;
    memset(&t, 0, sizeof t);
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    return static_cast<RtAbsoluteTime>(timegm(&t)) - kRtAbsoluteTimeIntervalSince1970;
}

RtAbsoluteTime readDate(const char *p, RtIndex len) {
    Owned<RtDateRef> date(hvCreateDateFromISO8601(p, len));
    EXPECT_NE(date.get(), nullptr);
    return date.get() ? RtDateGetAbsoluteTime(date) : 0;
}

RtAbsoluteTime readDate(const char *s) { return readDate(s, static_cast<RtIndex>(strlen(s))); }

TEST_F(DateTest, WritesBothFormsTruncatingSeconds) {
    Owned<RtDateRef> date(RtDateCreate(kRtAllocatorDefault, gmt(2001, 12, 31, 23, 59, 7) + 0.9));
    Owned<RtStringRef> compact(isoEncodeDate(date, true));
    Owned<RtStringRef> dashed(isoEncodeDate(date, false));
    EXPECT_EQ(text(compact.get()), "20011231T23:59:07Z");
    EXPECT_EQ(text(dashed.get()), "2001-12-31T23:59:07Z");

    char small[6];
    memset(small, '#', sizeof small);
    hvRtDateToISO8601String(small, 5, date, false);
    EXPECT_STREQ(small, "2001");
    EXPECT_EQ(small[5], '#'); // nothing written past len

    Owned<RtDateRef> early(RtDateCreate(kRtAllocatorDefault, gmt(987, 3, 4, 5, 6, 7)));
    Owned<RtStringRef> padded(isoEncodeDate(early, false));
    EXPECT_EQ(text(padded.get()), "0987-03-04T05:06:07Z");
}

TEST_F(DateTest, ReadsSeparatorsOptionallyAndIgnoresShortZones) {
    const RtAbsoluteTime expected = gmt(1998, 7, 17, 14, 8, 55);
    EXPECT_EQ(readDate("19980717T14:08:55"), expected);
    EXPECT_EQ(readDate("1998-07-17T14:08:55Z"), expected);
    EXPECT_EQ(readDate("1998-07-17T14:08:55+05"), expected); // a zone of three characters is ignored
    EXPECT_EQ(readDate("1998-07-17T14:08:55-0"), expected);
    EXPECT_EQ(readDate("1998-07-17"), gmt(1998, 7, 17));
    EXPECT_EQ(readDate("1998-07-17 14:08:55"), gmt(1998, 7, 17)); // only T or Z start a time
    EXPECT_EQ(readDate("1998-07-17T1430"), gmt(1998, 7, 17, 14)); // no colon: the rest is lost
    EXPECT_EQ(readDate("1998-07-17Z14:08:55+02:00"), expected); // after a Z separator no zone is read
}

TEST_F(DateTest, ZoneSignAndFractionQuirks) {
    // A "-" zone subtracts, a "+" zone adds: the reverse of the usual reading, kept on purpose.
    EXPECT_EQ(readDate("1998-07-17T14:08:55-05:00"), gmt(1998, 7, 17, 9, 8, 55));
    EXPECT_EQ(readDate("1998-07-17T10:00:00+02:00"), gmt(1998, 7, 17, 12, 0, 0));
    EXPECT_EQ(readDate("1998-07-17T10:00:00+02:30"), gmt(1998, 7, 17, 12, 30, 0));
    // A fraction is read as a zone: ".2" is two hours, ".5Z" five.
    EXPECT_EQ(readDate("1998-07-17T14:08:55.25"), gmt(1998, 7, 17, 16, 8, 55));
    EXPECT_EQ(readDate("1998-07-17T10:00:00.5Z"), gmt(1998, 7, 17, 15, 0, 0));
    // Out-of-range results are carried into the next day.
    EXPECT_EQ(readDate("1998-07-17T23:00:00+02:00"), gmt(1998, 7, 18, 1, 0, 0));
}

TEST_F(DateTest, FixedWidthReadsStopAtTheLength) {
    static const char full[] = "1998-07-17T14:08:55-05:00";
    // Each prefix is read as if the text ended there: fields cut short read missing digits as 0.
    EXPECT_EQ(readDate(full, 19), gmt(1998, 7, 17, 14, 8, 55)); // the zone behind is not seen
    EXPECT_EQ(readDate(full, 17), gmt(1998, 7, 17, 14, 8, 0));  // seconds after the last ':' are past the end
    EXPECT_EQ(readDate(full, 18), gmt(1998, 7, 17, 14, 8, 50));
    EXPECT_EQ(readDate(full, 7), gmt(1998, 7, 0));
    EXPECT_EQ(readDate(full, 2), readDate("1900", 4));
    // No text at all still makes a date; a NULL pointer is read as no text.
    EXPECT_EQ(readDate(full, 0), readDate("", 0));
    EXPECT_EQ(readDate(nullptr, 25), readDate("", 0));
    EXPECT_EQ(readDate(full, -3), readDate("", 0));

    // Every prefix of every shape, from a heap buffer of exactly that length, so that a read
    // past the end trips the address sanitizer.
    for (const char *shape : {"1998-07-17T14:08:55-05:00", "19980717T14:08:55+0530", "1998-07-17T10:00:00.5Z",
                              "T:::", "1998-07-17Z", "--::"}) {
        for (size_t len = 0; len <= strlen(shape); len++) {
            std::vector<char> exact(shape, shape + len);
            Owned<RtDateRef> date(hvCreateDateFromISO8601(len ? exact.data() : nullptr, static_cast<RtIndex>(len)));
            EXPECT_NE(date.get(), nullptr) << shape << " / " << len;
        }
    }
    // Garbage makes some date without complaint.
    Owned<RtDateRef> junk(hvCreateDateFromISO8601("x!?-::TT", 8));
    EXPECT_NE(junk.get(), nullptr);
}

TEST_F(DateTest, StringFormRendersAsASCII) {
    Owned<RtStringRef> s(newString("1998-07-17T14:08:55\xC3\xA9\xC3\xA9\xC3\xA9"));
    Owned<RtDateRef> date(isoDecodeDate(s));
    ASSERT_NE(date.get(), nullptr);
    // The three non-ASCII characters become "xxx": a zone of "xx" reads as 0 hours.
    EXPECT_EQ(RtDateGetAbsoluteTime(date), gmt(1998, 7, 17, 14, 8, 55));
    EXPECT_EQ(isoDecodeDate(nullptr), nullptr);

    // A very long text reads like its beginning.
    Owned<RtStringRef> longText(newString("1998-07-17T14:08:55-05:00" + std::string(100000, '7')));
    Owned<RtDateRef> longDate(isoDecodeDate(longText));
    EXPECT_EQ(RtDateGetAbsoluteTime(longDate), gmt(1998, 7, 17, 9, 8, 55));
}

TEST_F(DateTest, WriterPrintsEveryFieldAsTheCFormatDoes) {
    // Years past 9999 and before year 0 (printed unsigned), and every cut of the buffer.
    for (int year : {-44, 0, 7, 1999, 12345}) {
        RtGregorianDate gd = {year, 2, 3, 4, 5, 6.75};
        Owned<RtDateRef> date(RtDateCreate(kRtAllocatorDefault, RtGregorianDateGetAbsoluteTime(gd)));
        RtGregorianDate back = RtAbsoluteTimeGetGregorianDate(RtDateGetAbsoluteTime(date));
        for (bool noDashes : {false, true}) {
            char reference[64];
            snprintf(reference, sizeof reference,
                     noDashes ? "%4.4u%2.2u%2.2uT%2.2u:%2.2u:%2.2uZ" : "%4.4u-%2.2u-%2.2uT%2.2u:%2.2u:%2.2uZ",
                     unsigned(back.year), unsigned(back.month), unsigned(back.day), unsigned(back.hour),
                     unsigned(back.minute), unsigned(back.second));
            for (RtIndex len = 1; len <= 40; len++) {
                char written[64];
                hvRtDateToISO8601String(written, len, date, noDashes);
                EXPECT_EQ(std::string(written), std::string(reference).substr(0, size_t(len - 1))) << year;
            }
        }
    }
}

} // namespace
