// Numbers, booleans and null: kinds, exact and lossy conversion, equality across kinds,
// descriptions and the immortal singletons.
#include "RtValueTestSupport.h"

#include <cmath>
#include <limits>

using namespace rttest;

namespace {

class NumberTests : public LeakChecked {};

// n read as kind `to`, widened for comparison; *exact says whether the conversion lost nothing.
long double convert(RtNumberRef n, RtNumberType to, bool *exact) {
    union {
        int8_t i8;
        int16_t i16;
        int32_t i32;
        int64_t i64;
        float f;
        double d;
    } v{};
    *exact = RtNumberGetValue(n, to, &v);
    switch (to) {
    case kRtNumberSInt8Type:
        return v.i8;
    case kRtNumberSInt16Type:
        return v.i16;
    case kRtNumberIntType:
        return v.i32;
    case kRtNumberFloat32Type:
    case kRtNumberFloatType:
        return v.f;
    case kRtNumberDoubleType:
    case kRtNumberFloat64Type:
        return v.d;
    default:
        return v.i64;
    }
}

TEST_F(NumberTests, ConvertsExactlyOrClampsAndSaysSo) {
    const int64_t odd = (int64_t(1) << 53) + 1; // not representable as a double
    const int64_t min64 = std::numeric_limits<int64_t>::min(), max64 = std::numeric_limits<int64_t>::max();
    const struct {
        RtNumberRef from;
        RtNumberType to;
        bool exact;
        long double result;
    } rows[] = {
        {num<int64_t>(kRtNumberSInt64Type, 300), kRtNumberSInt8Type, false, 127}, // clamped
        {num<int64_t>(kRtNumberSInt64Type, 300), kRtNumberSInt16Type, true, 300},
        {num<int64_t>(kRtNumberSInt64Type, 300), kRtNumberDoubleType, true, 300},
        {num<int64_t>(kRtNumberSInt64Type, odd), kRtNumberFloat64Type, false, odd - 1},
        {num<int64_t>(kRtNumberSInt64Type, odd), kRtNumberLongLongType, true, odd},
        {num<int64_t>(kRtNumberSInt64Type, min64), kRtNumberDoubleType, true, min64},
        {num<double>(kRtNumberDoubleType, 2.5), kRtNumberIntType, false, 2},
        {num<double>(kRtNumberDoubleType, 2.5), kRtNumberFloatType, true, 2.5},
        {num<double>(kRtNumberFloat64Type, 0.1), kRtNumberFloat32Type, false, 0.1f}, // rounded
        {num<double>(kRtNumberFloat64Type, -7.0), kRtNumberSInt8Type, true, -7},
        {num<double>(kRtNumberFloat64Type, 1e30), kRtNumberSInt64Type, false, max64},
        {num<double>(kRtNumberDoubleType, 9223372036854775808.0), kRtNumberSInt64Type, false, max64}, // 2^63
        {kRtNumberNaN, kRtNumberIntType, false, 0},
        {kRtNumberPositiveInfinity, kRtNumberFloatType, true, HUGE_VALL},
    };
    for (size_t i = 0; i < sizeof rows / sizeof rows[0]; i++) {
        SCOPED_TRACE("row " + std::to_string(i));
        bool exact = !rows[i].exact;
        EXPECT_EQ(convert(rows[i].from, rows[i].to, &exact), rows[i].result);
        EXPECT_EQ(exact, rows[i].exact);
        RtRelease(rows[i].from);
    }

    RtNumberRef big = own(num<int64_t>(kRtNumberSInt64Type, 300));
    EXPECT_EQ(RtNumberGetByteSize(big), 8);
    EXPECT_FALSE(RtNumberIsFloatType(big));
    EXPECT_TRUE(RtNumberIsFloatType(kRtNumberNaN));
    int32_t i32 = 0;
    EXPECT_EQ(RtNumberCreate(nullptr, kRtNumberIntType, nullptr), nullptr);
    EXPECT_EQ(RtNumberCreate(nullptr, RtNumberType(99), &i32), nullptr);
    EXPECT_FALSE(RtNumberGetValue(nullptr, kRtNumberIntType, &i32));
}

TEST_F(NumberTests, EqualAcrossKindsByValueAndSmallIntegersShared) {
    RtNumberRef i = own(num<int32_t>(kRtNumberIntType, 1000));
    RtNumberRef l = own(num<long>(kRtNumberLongType, 1000));
    RtNumberRef d = own(num<double>(kRtNumberDoubleType, 1000.0));
    RtNumberRef f = own(num<float>(kRtNumberFloat32Type, 1000.5f));
    EXPECT_TRUE(RtEqual(i, l));
    EXPECT_TRUE(RtEqual(i, d));
    EXPECT_EQ(RtHash(i), RtHash(d));
    EXPECT_FALSE(RtEqual(d, f));
    EXPECT_EQ(RtNumberCompare(i, f, nullptr), kRtCompareLessThan);
    EXPECT_EQ(RtNumberCompare(f, l, nullptr), kRtCompareGreaterThan);
    // A huge integer against the double it rounds to: not equal, ordered exactly.
    RtNumberRef odd = own(num<int64_t>(kRtNumberSInt64Type, (int64_t(1) << 53) + 1));
    RtNumberRef rounded = own(num<double>(kRtNumberDoubleType, double(int64_t(1) << 53)));
    EXPECT_FALSE(RtEqual(odd, rounded));
    EXPECT_EQ(RtNumberCompare(rounded, odd, nullptr), kRtCompareLessThan);
    EXPECT_TRUE(RtEqual(kRtNumberNaN, kRtNumberNaN));

    // Small integers are shared within a kind, not across kinds, and never freed.
    RtNumberRef a = own(num<int32_t>(kRtNumberIntType, 5));
    RtNumberRef c = own(num<int64_t>(kRtNumberSInt64Type, 5));
    EXPECT_EQ(a, own(num<int32_t>(kRtNumberIntType, 5)));
    EXPECT_NE(a, c);
    EXPECT_EQ(RtNumberGetType(c), kRtNumberSInt64Type);
    EXPECT_TRUE(RtEqual(a, c));
}

TEST_F(NumberTests, DescriptionsAndSingletons) {
    EXPECT_EQ(description(own(num<int16_t>(kRtNumberShortType, -1234))), "-1234");
    EXPECT_EQ(formatted(own(num<double>(kRtNumberDoubleType, 0.1))), "0.1");
    EXPECT_EQ(formatted(own(num<float>(kRtNumberFloatType, 0.1f))), "0.1");
    EXPECT_EQ(formatted(own(num<double>(kRtNumberDoubleType, 1e300))), "1e+300");
    EXPECT_EQ(formatted(kRtNumberNegativeInfinity), "-infinity");
    EXPECT_EQ(formatted(kRtBooleanTrue), "true");
    EXPECT_EQ(formatted(kRtBooleanFalse), "false");
    EXPECT_EQ(formatted(kRtNull), "<null>");
    RtRelease(kRtBooleanTrue);
    RtRelease(kRtNull);
    EXPECT_TRUE(RtBooleanGetValue(kRtBooleanTrue)); // immortal: release does nothing
    EXPECT_FALSE(RtBooleanGetValue(kRtBooleanFalse));
}

} // namespace
