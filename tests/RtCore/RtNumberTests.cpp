// Numbers, booleans and null: kinds, exact and lossy conversion, equality across kinds,
// descriptions and the immortal singletons.
#include "RtValueTestSupport.h"

#include <cmath>
#include <limits>

using namespace rttest;

namespace {

class NumberTests : public LeakChecked {};

template <typename T> RtNumberRef make(RtNumberType type, T value) {
    return RtNumberCreate(nullptr, type, &value);
}

TEST_F(NumberTests, KeepsItsKindAndReportsExactConversion) {
    RtNumberRef big = make<int64_t>(kRtNumberSInt64Type, 300);
    EXPECT_EQ(RtNumberGetType(big), kRtNumberSInt64Type);
    EXPECT_EQ(RtNumberGetByteSize(big), 8);
    EXPECT_FALSE(RtNumberIsFloatType(big));
    int8_t i8 = 0;
    EXPECT_FALSE(RtNumberGetValue(big, kRtNumberSInt8Type, &i8)); // 300 does not fit: clamped, lossy
    EXPECT_EQ(i8, 127);
    int16_t i16 = 0;
    EXPECT_TRUE(RtNumberGetValue(big, kRtNumberSInt16Type, &i16));
    EXPECT_EQ(i16, 300);
    double d = 0;
    EXPECT_TRUE(RtNumberGetValue(big, kRtNumberDoubleType, &d));
    EXPECT_EQ(d, 300.0);

    RtNumberRef huge = make<int64_t>(kRtNumberSInt64Type, (int64_t(1) << 53) + 1);
    EXPECT_FALSE(RtNumberGetValue(huge, kRtNumberFloat64Type, &d)); // not representable as a double
    int64_t i64 = 0;
    EXPECT_TRUE(RtNumberGetValue(huge, kRtNumberLongLongType, &i64));
    EXPECT_EQ(i64, (int64_t(1) << 53) + 1);

    RtNumberRef half = make<double>(kRtNumberDoubleType, 2.5);
    EXPECT_TRUE(RtNumberIsFloatType(half));
    int32_t i32 = 0;
    EXPECT_FALSE(RtNumberGetValue(half, kRtNumberIntType, &i32));
    EXPECT_EQ(i32, 2);
    float f = 0;
    EXPECT_TRUE(RtNumberGetValue(half, kRtNumberFloatType, &f));
    EXPECT_EQ(f, 2.5f);

    RtNumberRef tenth = make<double>(kRtNumberFloat64Type, 0.1);
    EXPECT_FALSE(RtNumberGetValue(tenth, kRtNumberFloat32Type, &f)); // rounding
    RtNumberRef whole = make<double>(kRtNumberFloat64Type, -7.0);
    EXPECT_TRUE(RtNumberGetValue(whole, kRtNumberSInt8Type, &i8));
    EXPECT_EQ(i8, -7);
    RtNumberRef tooBig = make<double>(kRtNumberFloat64Type, 1e30);
    EXPECT_FALSE(RtNumberGetValue(tooBig, kRtNumberSInt64Type, &i64));
    EXPECT_EQ(i64, std::numeric_limits<int64_t>::max());
    EXPECT_FALSE(RtNumberGetValue(kRtNumberNaN, kRtNumberIntType, &i32));
    EXPECT_EQ(i32, 0);
    EXPECT_TRUE(RtNumberGetValue(kRtNumberPositiveInfinity, kRtNumberFloatType, &f));
    EXPECT_TRUE(std::isinf(f));

    RtNumberRef two63 = make<double>(kRtNumberDoubleType, 9223372036854775808.0);
    EXPECT_FALSE(RtNumberGetValue(two63, kRtNumberSInt64Type, &i64)); // 2^63 is one past the range
    RtNumberRef min64 = make<int64_t>(kRtNumberSInt64Type, std::numeric_limits<int64_t>::min());
    EXPECT_TRUE(RtNumberGetValue(min64, kRtNumberDoubleType, &d));

    EXPECT_EQ(RtNumberCreate(nullptr, kRtNumberIntType, nullptr), nullptr);
    EXPECT_EQ(RtNumberCreate(nullptr, RtNumberType(99), &i32), nullptr);
    EXPECT_FALSE(RtNumberGetValue(nullptr, kRtNumberIntType, &i32));
    for (RtNumberRef n : {big, huge, half, tenth, whole, tooBig, two63, min64})
        RtRelease(n);
}

TEST_F(NumberTests, EqualAcrossKindsByValue) {
    RtNumberRef i = make<int32_t>(kRtNumberIntType, 1000);
    RtNumberRef l = make<long>(kRtNumberLongType, 1000);
    RtNumberRef d = make<double>(kRtNumberDoubleType, 1000.0);
    RtNumberRef f = make<float>(kRtNumberFloat32Type, 1000.5f);
    EXPECT_TRUE(RtEqual(i, l));
    EXPECT_TRUE(RtEqual(i, d));
    EXPECT_EQ(RtHash(i), RtHash(d));
    EXPECT_FALSE(RtEqual(d, f));
    EXPECT_EQ(RtNumberCompare(i, f, nullptr), kRtCompareLessThan);
    EXPECT_EQ(RtNumberCompare(f, l, nullptr), kRtCompareGreaterThan);
    // A huge integer against the double it rounds to: not equal, ordered exactly.
    RtNumberRef odd = make<int64_t>(kRtNumberSInt64Type, (int64_t(1) << 53) + 1);
    RtNumberRef rounded = make<double>(kRtNumberDoubleType, double(int64_t(1) << 53));
    EXPECT_FALSE(RtEqual(odd, rounded));
    EXPECT_EQ(RtNumberCompare(rounded, odd, nullptr), kRtCompareLessThan);
    EXPECT_TRUE(RtEqual(kRtNumberNaN, kRtNumberNaN));
    for (RtNumberRef n : {i, l, d, f, odd, rounded})
        RtRelease(n);
}

TEST_F(NumberTests, SmallIntegersAreSharedPerKind) {
    RtNumberRef a = make<int32_t>(kRtNumberIntType, 5);
    RtNumberRef b = make<int32_t>(kRtNumberIntType, 5);
    RtNumberRef c = make<int64_t>(kRtNumberSInt64Type, 5);
    EXPECT_EQ(a, b);
    EXPECT_NE(a, c); // each kind keeps its own objects
    EXPECT_EQ(RtNumberGetType(c), kRtNumberSInt64Type);
    EXPECT_TRUE(RtEqual(a, c));
    RtRelease(a);
    RtRelease(b);
    RtRelease(c);
    EXPECT_EQ(RtNumberGetType(a), kRtNumberIntType); // still alive: immortal
}

TEST_F(NumberTests, DescriptionsAndSingletons) {
    RtNumberRef neg = make<int16_t>(kRtNumberShortType, -1234);
    RtNumberRef real = make<double>(kRtNumberDoubleType, 0.1);
    RtNumberRef flt = make<float>(kRtNumberFloatType, 0.1f);
    RtNumberRef big = make<double>(kRtNumberDoubleType, 1e300);
    EXPECT_EQ(formatted(neg), "-1234");
    EXPECT_EQ(formatted(real), "0.1");
    EXPECT_EQ(formatted(flt), "0.1");
    EXPECT_EQ(formatted(big), "1e+300");
    EXPECT_EQ(formatted(kRtNumberNegativeInfinity), "-infinity");
    EXPECT_EQ(description(neg), "-1234");
    for (RtNumberRef n : {neg, real, flt, big})
        RtRelease(n);

    EXPECT_EQ(formatted(kRtBooleanTrue), "true");
    EXPECT_EQ(formatted(kRtBooleanFalse), "false");
    EXPECT_EQ(formatted(kRtNull), "<null>");
    EXPECT_TRUE(RtBooleanGetValue(kRtBooleanTrue));
    EXPECT_FALSE(RtBooleanGetValue(kRtBooleanFalse));
    EXPECT_FALSE(RtEqual(kRtBooleanTrue, kRtBooleanFalse));
    EXPECT_EQ(RtGetTypeID(kRtBooleanTrue), RtBooleanGetTypeID());
    EXPECT_EQ(RtGetTypeID(kRtNull), RtNullGetTypeID());
    EXPECT_EQ(RtGetTypeID(kRtNumberNaN), RtNumberGetTypeID());
    RtRelease(kRtBooleanTrue);
    RtRelease(kRtNull);
    EXPECT_TRUE(RtBooleanGetValue(kRtBooleanTrue)); // immortal: release does nothing
    EXPECT_EQ(take(RtCopyTypeIDDescription(RtNumberGetTypeID())), "RtNumber");
}

} // namespace
