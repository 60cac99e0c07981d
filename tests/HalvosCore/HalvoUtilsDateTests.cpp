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
    struct tm t = {};
    t.tm_year = year - 1900, t.tm_mon = month - 1, t.tm_mday = day;
    t.tm_hour = hour, t.tm_min = minute, t.tm_sec = second;
    return static_cast<RtAbsoluteTime>(timegm(&t)) - kRtAbsoluteTimeIntervalSince1970;
}

// Reads the first len characters of p (all of it when len is -1) from a heap buffer of
// exactly that length, so that a read past the end trips the address sanitizer.
RtAbsoluteTime readDate(const char *p, RtIndex len = -1) {
    size_t n = len < 0 ? strlen(p) : static_cast<size_t>(len);
    std::vector<char> exact(p, p + n);
    Owned<RtDateRef> date(hvCreateDateFromISO8601(n ? exact.data() : p, RtIndex(n)));
    EXPECT_NE(date.get(), nullptr) << (p ? p : "(null)") << " / " << len;
    return date.get() ? RtDateGetAbsoluteTime(date) : 0;
}

TEST_F(DateTest, ReaderSeparatorsZonesAndFractions) {
    const RtAbsoluteTime expected = gmt(1998, 7, 17, 14, 8, 55);
    const std::pair<const char *, RtAbsoluteTime> cases[] = {
        {"19980717T14:08:55", expected},
        {"1998-07-17T14:08:55Z", expected},
        {"1998-07-17T14:08:55+05", expected}, // a zone of three characters is ignored
        {"1998-07-17T14:08:55-0", expected},
        {"1998-07-17", gmt(1998, 7, 17)},
        {"1998-07-17 14:08:55", gmt(1998, 7, 17)},     // only T or Z start a time
        {"1998-07-17T1430", gmt(1998, 7, 17, 14)},     // no colon: the rest is lost
        {"1998-07-17Z14:08:55+02:00", expected},       // after a Z separator no zone is read
        // A "-" zone subtracts, a "+" zone adds: the reverse of the usual reading, kept on purpose.
        {"1998-07-17T14:08:55-05:00", gmt(1998, 7, 17, 9, 8, 55)},
        {"1998-07-17T10:00:00+02:30", gmt(1998, 7, 17, 12, 30, 0)},
        // A fraction is read as a zone: ".2" is two hours, ".5Z" five.
        {"1998-07-17T14:08:55.25", gmt(1998, 7, 17, 16, 8, 55)},
        {"1998-07-17T10:00:00.5Z", gmt(1998, 7, 17, 15, 0, 0)},
        {"1998-07-17T23:00:00+02:00", gmt(1998, 7, 18, 1, 0, 0)}, // carried into the next day
    };
    for (const auto &c : cases)
        EXPECT_EQ(readDate(c.first), c.second) << c.first;
}

TEST_F(DateTest, FixedWidthReadsStopAtTheLength) {
    static const char full[] = "1998-07-17T14:08:55-05:00";
    // Each prefix is read as if the text ended there: fields cut short read missing digits as 0.
    EXPECT_EQ(readDate(full, 19), gmt(1998, 7, 17, 14, 8, 55)); // the zone behind is not seen
    EXPECT_EQ(readDate(full, 17), gmt(1998, 7, 17, 14, 8, 0));  // seconds after the last ':' are past the end
    EXPECT_EQ(readDate(full, 18), gmt(1998, 7, 17, 14, 8, 50));
    EXPECT_EQ(readDate(full, 7), gmt(1998, 7, 0));
    EXPECT_EQ(readDate(full, 2), readDate("1900"));
    // No text at all still makes a date; a NULL pointer is read as no text.
    EXPECT_EQ(readDate(full, 0), readDate(""));
    EXPECT_EQ(readDate(nullptr, 0), readDate(""));
    Owned<RtDateRef> nullText(hvCreateDateFromISO8601(nullptr, 25)), negative(hvCreateDateFromISO8601(full, -3));
    EXPECT_EQ(RtDateGetAbsoluteTime(nullText), readDate(""));
    EXPECT_EQ(RtDateGetAbsoluteTime(negative), readDate(""));
    // Every prefix of every shape makes some date; so does garbage.
    for (const char *shape : {full, "19980717T14:08:55+0530", "1998-07-17T10:00:00.5Z", "T:::", "1998-07-17Z", "--::",
                              "x!?-::TT"})
        for (size_t len = 0; len <= strlen(shape); len++)
            readDate(shape, RtIndex(len));

    // The string form reads non-ASCII characters as "x" ("xx" is a zone of 0 hours); a very
    // long text reads like its beginning.
    Owned<RtStringRef> s(newString("1998-07-17T14:08:55\xC3\xA9\xC3\xA9\xC3\xA9"));
    Owned<RtDateRef> date(isoDecodeDate(s));
    EXPECT_EQ(RtDateGetAbsoluteTime(date), gmt(1998, 7, 17, 14, 8, 55));
    EXPECT_EQ(isoDecodeDate(nullptr), nullptr);
    Owned<RtStringRef> longText(newString(std::string(full) + std::string(100000, '7')));
    Owned<RtDateRef> longDate(isoDecodeDate(longText));
    EXPECT_EQ(RtDateGetAbsoluteTime(longDate), gmt(1998, 7, 17, 9, 8, 55));
}

TEST_F(DateTest, WriterPrintsEveryFieldAsTheCFormatDoes) {
    // Years past 9999 and before year 0 (printed unsigned), seconds truncated, and every cut of
    // the buffer, each into a heap buffer of exactly that size.
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
                std::vector<char> written(static_cast<size_t>(len));
                hvRtDateToISO8601String(written.data(), len, date, noDashes);
                EXPECT_EQ(std::string(written.data()), std::string(reference).substr(0, size_t(len - 1))) << year;
            }
            Owned<RtStringRef> encoded(isoEncodeDate(date, noDashes));
            EXPECT_EQ(text(encoded.get()), reference);
        }
    }
}

} // namespace
