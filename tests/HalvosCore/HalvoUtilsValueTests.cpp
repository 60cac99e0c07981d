// Value conversions of the utilities: Base64 (the writer's lines and tabs; junk, padding and
// "<" in the reader), ISO 8601 dates (the writer's two forms; the reader's separators, zone and
// fraction quirks and bounds), integers from text, qualified type names and the public kind
// mapping. How each runtime kind is classified shows in the writers' golden documents, and the
// usual schema type names in the SOAP reply tests.
#include "HalvoUtilsTestSupport.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <algorithm>
#include <vector>

using namespace hvutils_test;

namespace {

class Base64Test : public UtilsTest {};

std::string encode(const std::string &bytes, int indent) {
    Owned<RtDataRef> data(newData(bytes));
    Owned<RtStringRef> s(encodeBinaryData(data, indent));
    return text(s.get());
}

std::string decode(const std::string &textIn) {
    Owned<RtStringRef> s(newString(textIn));
    Owned<RtDataRef> d(decodeBinaryData(s));
    return bytesOf(d);
}

std::string pattern(size_t n) {
    std::string s;
    for (size_t i = 0; i < n; i++)
        s.push_back(static_cast<char>((i * 37 + 11) & 0xFF));
    return s;
}

TEST_F(Base64Test, WriterLinesFollowTheIndent) {
    EXPECT_EQ(encode("M", 0), "TQ==");
    EXPECT_EQ(encode(std::string("\xFF\xFE\x00", 3), 0), "//4A");
    // Indent 8: lines of 44 characters behind four tabs; a partial last line has no "\n".
    std::string one = encode(pattern(33), 8), two = encode(pattern(34), 8);
    EXPECT_EQ(one, "\t\t\t\t" + encode(pattern(33), 0) + "\n");
    EXPECT_EQ(two, one + "\t\t\t\t" + encode(pattern(34), 0).substr(44));
    // Indent 0: 76 characters, no tabs; a full last line ends with "\n".
    EXPECT_EQ(encode(pattern(57), 0).size(), 77u);
    EXPECT_EQ(encode(pattern(56), 0).size(), 76u);
    // Odd indents: 3 gives one tab and 64 characters; beyond 8 counts as 8; below 0 as 0.
    EXPECT_EQ(encode(pattern(48), 3), "\t" + encode(pattern(48), 0).substr(0, 64) + "\n");
    EXPECT_EQ(encode(pattern(100), 20), encode(pattern(100), 8));
    EXPECT_EQ(encode(pattern(100), -4), encode(pattern(100), 0));

    for (size_t n : {0u, 1u, 2u, 3u, 32u, 33u, 34u, 56u, 57u, 58u, 1000u, 4099u}) {
        for (int indent : {0, 1, 5, 8})
            EXPECT_EQ(decode(encode(pattern(n), indent)), pattern(n)) << n << " bytes at indent " << indent;
        // Unwrapped: the same characters on one line, no tab or line feed among them.
        Owned<RtDataRef> data(newData(pattern(n)));
        Owned<RtStringRef> unwrapped(encodeBinaryDataUnwrapped(data));
        std::string wrapped = encode(pattern(n), 0);
        wrapped.erase(std::remove(wrapped.begin(), wrapped.end(), '\n'), wrapped.end());
        EXPECT_EQ(text(unwrapped.get()), wrapped) << n << " bytes";
    }
}

TEST_F(Base64Test, ReaderSkipsJunkAndStopsAtMarkup) {
    const std::pair<const char *, std::string> cases[] = {
        {"TW Fu\n", "Man"},
        {"TWE=", "Ma"},
        {"TWFu<x>TWFu", "Man"},
        {"TWF", ""}, // an incomplete group is dropped
        {"T*W!F#u\x7F", "Man"},
        {"<TWFu", ""},
        {"TQ= =", "M"}, // white space keeps the padding count, any other byte resets it
        {"TQ=*=", std::string("M\0", 2)},
        {"T=Fu", std::string("\x4C\x01\x6E", 3)}, // "=" counts as a zero digit wherever it stands
    };
    for (const auto &c : cases)
        EXPECT_EQ(decode(c.first), c.second) << c.first;
    // Text that is not plain ASCII is refused.
    Owned<RtStringRef> accented(newString("TWFu\xC3\xA9"));
    Owned<RtDataRef> refused(decodeBinaryData(accented));
    EXPECT_EQ(refused.get(), nullptr);
    EXPECT_EQ(decodeBinaryData(nullptr), nullptr);
}

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

TEST_F(DateTest, ReaderSeparatorsZonesFractionsAndBounds) {
    const RtAbsoluteTime expected = gmt(1998, 7, 17, 14, 8, 55);
    const std::pair<const char *, RtAbsoluteTime> cases[] = {
        {"19980717T14:08:55", expected},
        {"1998-07-17T14:08:55Z", expected},
        {"1998-07-17T14:08:55+05", expected}, // a zone of three characters is ignored
        {"1998-07-17T14:08:55-0", expected},
        {"1998-07-17", gmt(1998, 7, 17)},
        {"1998-07-17 14:08:55", gmt(1998, 7, 17)}, // only T or Z start a time
        {"1998-07-17T1430", gmt(1998, 7, 17, 14)}, // no colon: the rest is lost
        {"1998-07-17Z14:08:55+02:00", expected},   // after a Z separator no zone is read
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
    Owned<RtDateRef> nullText(hvCreateDateFromISO8601(nullptr, 25)),
        negative(hvCreateDateFromISO8601(full, -3));
    EXPECT_EQ(RtDateGetAbsoluteTime(nullText), readDate(""));
    EXPECT_EQ(RtDateGetAbsoluteTime(negative), readDate(""));
    // Every prefix of every shape makes some date; so does garbage.
    for (const char *shape : {full, "19980717T14:08:55+0530", "1998-07-17T10:00:00.5Z", "T:::", "1998-07-17Z",
                              "--::", "x!?-::TT"})
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
                EXPECT_EQ(std::string(written.data()), std::string(reference).substr(0, size_t(len - 1)))
                    << year;
            }
            Owned<RtStringRef> encoded(isoEncodeDate(date, noDashes));
            EXPECT_EQ(text(encoded.get()), reference);
        }
    }
}

class TypesTest : public UtilsTest {};

TEST_F(TypesTest, QualifiedTypeNamesAndDictNumbers) {
    RtStringRef xsd2001 = HV_SOAP_2001_SCHEMA_NAMESPACE, unrelated = RTSTR("urn:unrelated");
    const struct {
        RtStringRef ns;
        const char *name;
        HVTypeID expected;
    } cases[] = {
        {HV_SOAP_1999_ENCODING_NAMESPACE, "Array", eHVArrayType},
        {RTSTR("HTTP://WWW.W3.ORG/2001/XMLSCHEMA"), "int", eHVIntegerType}, // namespaces are not
        {unrelated, "xsd:float", eHVDoubleType},
        {unrelated, "anything:NULL", eHVNullType}, // the prefix is ignored
        {unrelated, "float", eHVUnknownType},
        {unrelated, ":int", eHVUnknownType},
        {nullptr, "a:b:Dictionary", eHVDictionaryType},
    };
    for (const auto &c : cases) {
        Owned<RtStringRef> name(newString(c.name));
        EXPECT_EQ(HVQualifiedtoHVType(c.ns, name), c.expected) << c.name;
    }
    EXPECT_EQ(HVQualifiedtoHVType(xsd2001, nullptr), eHVUnknownType);

    EXPECT_EQ(HVGetRtTypeIDFromHVTypeID(eHVDoubleType), RtNumberGetTypeID());
    EXPECT_EQ(HVGetRtTypeIDFromHVTypeID(eHVDictionaryType), RtDictionaryGetTypeID());
    EXPECT_EQ(HVGetRtTypeIDFromHVTypeID(static_cast<HVTypeID>(42)), 0u);

    double half = 2.5;
    Owned<RtNumberRef> nHalf(RtNumberCreate(kRtAllocatorDefault, kRtNumberDoubleType, &half));
    Owned<RtDictionaryRef> dict(rtTypeCreateDictionary(nullptr, RTSTR("seven"), internedInt(7), RTSTR("half"),
                                                       nHalf.get(), RTSTR("text"), RTSTR("7"), nullptr));
    EXPECT_EQ(getDictNumber(dict, RTSTR("seven"), -1), 7);
    EXPECT_EQ(getDictNumber(dict, RTSTR("missing"), -1), -1);
    EXPECT_EQ(getDictNumber(dict, RTSTR("half"), -1), -1); // not exactly an integer
    EXPECT_EQ(getDictNumber(dict, RTSTR("text"), -1), -1);
    EXPECT_EQ(getDictNumber(nullptr, RTSTR("seven"), 3), 3);
}

TEST_F(TypesTest, IntegersFromTextAre32Or64Bit) {
    struct Case {
        std::string in;
        int64_t value;
        bool wide;
    } cases[] = {
        {"09", 0, false}, // a leading 0 is octal; hex, blanks and wide values show in the readers' tests
        {"12abc", 12, false},
        {"abc", 0, false},
        {"-2147483648", INT32_MIN, false},
        {"2147483647", INT32_MAX, false},
        {"-2147483649", -2147483649LL, true},
        {"99999999999999999999", INT64_MAX, true}, // saturates
        {"\xC3\xA9"
         "5",
         5, false},                              // non-ASCII reads as a space
        {std::string(128, ' ') + "5", 0, false}, // only the first 128 characters count
        {std::string(127, ' ') + "56", 5, false},
    };
    for (const Case &c : cases) {
        Owned<RtStringRef> s(newString(c.in));
        Owned<RtNumberRef> n(makeIntValueFromString(s));
        ASSERT_NE(n.get(), nullptr) << c.in;
        int64_t v = 0;
        EXPECT_TRUE(RtNumberGetValue(n, kRtNumberSInt64Type, &v));
        EXPECT_EQ(v, c.value) << c.in;
        EXPECT_EQ(RtNumberGetType(n), c.wide ? kRtNumberSInt64Type : kRtNumberSInt32Type) << c.in;
    }
    Owned<RtNumberRef> fromNull(makeIntValueFromString(nullptr));
    EXPECT_EQ(HVGetHVTypeIDFromRtType(fromNull), eHVIntegerType);
}

} // namespace
