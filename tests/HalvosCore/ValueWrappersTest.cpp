// Owning value wrappers and value helpers: who retains, who takes over, and copy on write.
#include "CPlusAutoTypes.h"

#include <gtest/gtest.h>

namespace {

TEST(ValueWrappersTest, StringsAndScalarsBalanceTheirReferences) {
    RtStringRef s = RtStringCreateWithCString(kRtAllocatorDefault, "abc", kRtStringEncodingUTF8);
    {
        AutoString held(s);
        held.setString(s); // the same string again: retained before the old one is released
        EXPECT_EQ(2, RtGetRetainCount(s));
        AutoString appended;
        appended.append("x%d-%@", 1, s); // an empty wrapper holds just the tail
        EXPECT_TRUE(RtEqual(RTSTR("x1-abc"), appended.getString()));
    }
    EXPECT_EQ(1, RtGetRetainCount(s));
    AutoString stored;
    *stored.getStringPtr() = s; // the wrapper takes over a stored string

    double half = 2.5;
    AutoScalar d(RtNumberCreate(kRtAllocatorDefault, kRtNumberDoubleType, &half)); // taken over, not retained
    EXPECT_EQ(1, RtGetRetainCount(d.getRef()));
    EXPECT_EQ(0, d.toInt()); // inexact conversions read as 0
    EXPECT_DOUBLE_EQ(2.5, d.toDouble());
    EXPECT_EQ(kRtNumberSInt32Type, RtNumberGetType(AutoScalar(7L).getImmutableRef()));
}

TEST(ValueWrappersTest, ArraysDictionariesAndIterators) {
    const void *values[] = {RTSTR("a"), RTSTR("b")};
    RtArrayRef immutable = RtArrayCreate(kRtAllocatorDefault, values, 2, &kRtTypeArrayCallBacks);
    RtRetain(immutable);
    {
        AutoArray wrapped(immutable);    // taken over: no retain
        wrapped.appendValue(RTSTR("c")); // makes a mutable copy and drops the original
        EXPECT_EQ(1, RtGetRetainCount(immutable));
        wrapped.appendValue(static_cast<RtTypeRef>(nullptr)); // NULL is never appended
        AutoString none;
        wrapped.appendNonEmpty(none);
        EXPECT_EQ(3, wrapped.getCount());
    }
    EXPECT_EQ(1, RtGetRetainCount(immutable));
    RtRelease(immutable);
    EXPECT_EQ(AutoArray::getEmptyArray(), AutoArray(static_cast<RtArrayRef>(nullptr)).getImmutableArray());

    EXPECT_EQ(AutoDict::getEmptyDictionary(), AutoDict().getImmutableDict()); // one shared empty dictionary
    RtMutableDictionaryRef base = newMutableDict();
    RtDictionarySetValue(base, RTSTR("k"), RTSTR("v"));
    {
        AutoDict retained(static_cast<RtDictionaryRef>(base));
        AutoDict shared(retained); // shares the object until it changes
        EXPECT_EQ(3, RtGetRetainCount(base));
        shared.addValue(RTSTR("k2"), RTSTR("v2"));
        shared.addValue(RTSTR("k3"), nullptr); // NULL values are not set
        EXPECT_EQ(1, RtDictionaryGetCount(base));
        EXPECT_EQ(2, shared.getCount());
        EXPECT_EQ(RTSTR("v"), shared.getValue(RTSTR("k")));
    }
    EXPECT_EQ(1, RtGetRetainCount(base));
    AutoDict owner(base); // a mutable dictionary is taken over

    RtArrayRef array = rtTypeCreateArray(nullptr, RTSTR("x"), nullptr);
    {
        ArrayIterator it(array);
        EXPECT_EQ(2, RtGetRetainCount(array));
        EXPECT_EQ(RTSTR("x"), it.nextElement());
        EXPECT_EQ(nullptr, it.nextElement());
    }
    RtDictionaryRef d = rtTypeCreateDictionary(nullptr, RTSTR("a"), RTSTR("1"), nullptr);
    RtDictionaryRef extended = rtTypeCreateDictionary(d, RTSTR("c"), RTSTR("3"), RTSTR("odd"), nullptr);
    EXPECT_EQ(1, RtDictionaryGetCount(d));
    EXPECT_EQ(2, RtDictionaryGetCount(extended)); // half a pair sets nothing
    for (RtTypeRef v : {RtTypeRef(array), RtTypeRef(d), RtTypeRef(extended)})
        RtRelease(v);
}

} // namespace
