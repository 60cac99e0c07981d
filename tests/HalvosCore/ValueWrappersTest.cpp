// Owning value wrappers, iterators and the value helpers.
#include "CPlusAutoTypes.h"

#include <gtest/gtest.h>

namespace {

RtStringRef newString(const char *text) {
    return RtStringCreateWithCString(kRtAllocatorDefault, text, kRtStringEncodingUTF8);
}

bool textIs(RtTypeRef str, const char *text) {
    RtStringRef expected = newString(text);
    bool same = RtEqual(str, expected);
    RtRelease(expected);
    return same;
}

TEST(ValueWrappersTest, StringOwnershipFormattingAndAppend) {
    RtStringRef s = newString("abc");
    {
        AutoString held(s);
        EXPECT_EQ(2, RtGetRetainCount(s));
        held.setString(s); // same string again: retained before the old one is released
        EXPECT_EQ(2, RtGetRetainCount(s));
        RtStringRef extra = held.getRetainedString();
        EXPECT_EQ(3, RtGetRetainCount(s));
        RtRelease(extra);
    }
    EXPECT_EQ(1, RtGetRetainCount(s));

    AutoString formatted("%d-%@", 42, s);
    EXPECT_TRUE(textIs(formatted.getString(), "42-abc"));

    AutoString empty;
    EXPECT_TRUE(empty.isEmpty());
    EXPECT_TRUE(empty.isNull());
    empty.append("x%d", 1); // an empty wrapper holds just the tail
    EXPECT_TRUE(textIs(empty.getString(), "x1"));
    empty.append("%@", s);
    EXPECT_TRUE(textIs(empty.getString(), "x1abc"));

    AutoString stored;
    *stored.getStringPtr() = newString("owned"); // the wrapper takes over a stored string
    EXPECT_EQ(1, RtGetRetainCount(stored.getString()));
    RtRelease(s);
}

TEST(ValueWrappersTest, ScalarKindsAndLossyConversions) {
    AutoScalar i(7);
    EXPECT_EQ(kRtNumberIntType, RtNumberGetType(static_cast<RtNumberRef>(i.getRef())));
    EXPECT_EQ(7, i.toInt());
    AutoScalar l(7L);
    EXPECT_EQ(kRtNumberSInt32Type, RtNumberGetType(l.getImmutableRef()));
    AutoScalar d(2.5);
    EXPECT_EQ(0, d.toInt()); // inexact conversions read as 0
    EXPECT_DOUBLE_EQ(2.5, d.toDouble());
    EXPECT_FLOAT_EQ(2.5f, AutoScalar(2.5f).toFloat());
    EXPECT_FALSE(d.isEmpty());

    double half = 2.5;
    RtNumberRef n = RtNumberCreate(kRtAllocatorDefault, kRtNumberDoubleType, &half);
    EXPECT_EQ(0, getIntValue(n));
    EXPECT_DOUBLE_EQ(2.5, getDoubleValue(n));
    AutoScalar takenOver(n); // released by the wrapper, not retained
    EXPECT_EQ(1, RtGetRetainCount(n));
    EXPECT_EQ(0, getIntValue(nullptr));
}

TEST(ValueWrappersTest, UrlFromStringAndFormat) {
    AutoURL url("http://%s:%d/RPC2", "127.0.0.1", 8080);
    ASSERT_FALSE(url.isEmpty());
    EXPECT_TRUE(textIs(RtURLGetString(url.getURL()), "http://127.0.0.1:8080/RPC2"));
    AutoString text("http://example.invalid/");
    EXPECT_FALSE(AutoURL(text).isEmpty());
    EXPECT_TRUE(AutoURL(static_cast<RtStringRef>(nullptr)).isEmpty());
}

TEST(ValueWrappersTest, ArrayTakesOverAndCopiesOnWrite) {
    const void *values[] = {RTSTR("a"), RTSTR("b")};
    RtArrayRef immutable = RtArrayCreate(kRtAllocatorDefault, values, 2, &kRtTypeArrayCallBacks);
    RtRetain(immutable);
    {
        AutoArray wrapped(immutable); // taken over: no retain
        EXPECT_EQ(2, RtGetRetainCount(immutable));
        EXPECT_EQ(immutable, wrapped.getImmutableArray());
        wrapped.appendValue(RTSTR("c")); // makes a mutable copy and drops the original
        EXPECT_EQ(1, RtGetRetainCount(immutable));
        EXPECT_EQ(3, wrapped.getCount());
        EXPECT_EQ(RTSTR("c"), wrapped.getValueAtIndex(2));
    }
    EXPECT_EQ(1, RtGetRetainCount(immutable));
    RtRelease(immutable);

    AutoArray fresh;
    EXPECT_TRUE(fresh.isEmpty());
    fresh.appendValue(static_cast<RtTypeRef>(nullptr)); // NULL is never appended
    AutoString none;
    fresh.appendNonEmpty(none);
    EXPECT_EQ(0, fresh.getCount());
    AutoString one("1");
    fresh.appendNonEmpty(one);
    fresh.appendValue(one);
    EXPECT_EQ(2, fresh.getCount());
    RtTypeRef copied = fresh.copyValueAtIndex(0);
    EXPECT_EQ(one.getString(), copied);
    RtRelease(copied);

    AutoArray nothing(static_cast<RtArrayRef>(nullptr));
    EXPECT_EQ(AutoArray::getEmptyArray(), nothing.getImmutableArray());
}

TEST(ValueWrappersTest, DictRetainsSharesAndCopiesOnWrite) {
    EXPECT_EQ(AutoDict().getImmutableDict(), AutoDict().getImmutableDict()); // shared empty dictionary
    EXPECT_EQ(AutoDict::getEmptyDictionary(), AutoDict().getImmutableDict());

    RtMutableDictionaryRef base = newMutableDict();
    RtDictionarySetValue(base, RTSTR("k"), RTSTR("v"));
    {
        AutoDict retained(static_cast<RtDictionaryRef>(base));
        EXPECT_EQ(2, RtGetRetainCount(base));
        AutoDict shared(retained); // shares the object until it changes
        EXPECT_EQ(base, shared.getImmutableDict());
        EXPECT_EQ(3, RtGetRetainCount(base));
        shared.addValue(RTSTR("k2"), RTSTR("v2"));
        EXPECT_NE(base, shared.getImmutableDict());
        EXPECT_EQ(1, RtDictionaryGetCount(base)); // the original is untouched
        EXPECT_EQ(2, shared.getCount());
        EXPECT_EQ(RTSTR("v"), shared.getValue(RTSTR("k")));
        AutoString key("k2");
        EXPECT_EQ(RTSTR("v2"), shared.getValue(key));
        shared.addValue(RTSTR("k3"), nullptr); // NULL values are not set
        AutoArray empty;
        shared.addNonEmpty(key, empty);
        EXPECT_EQ(RTSTR("v2"), shared.getValue(key));
        RtDictionaryRef frozen = shared.copyDict();
        EXPECT_EQ(2, RtDictionaryGetCount(frozen));
        RtRelease(frozen);
    }
    EXPECT_EQ(1, RtGetRetainCount(base));
    AutoDict owner(base); // a mutable dictionary is taken over
    EXPECT_FALSE(owner.isEmpty());
    EXPECT_TRUE(AutoDict().isEmpty());
    EXPECT_EQ(nullptr, AutoDict().getValue(RTSTR("k")));
}

TEST(ValueWrappersTest, IteratorsWalkInOrderAndRetain) {
    const void *values[] = {RTSTR("x"), RTSTR("y")};
    RtArrayRef array = RtArrayCreate(kRtAllocatorDefault, values, 2, &kRtTypeArrayCallBacks);
    {
        ArrayIterator it(array);
        EXPECT_EQ(2, RtGetRetainCount(array));
        ASSERT_TRUE(it.hasMoreElements());
        EXPECT_EQ(RTSTR("x"), it.nextElement());
        EXPECT_EQ(RTSTR("y"), it.nextElement());
        EXPECT_FALSE(it.hasMoreElements());
        EXPECT_EQ(nullptr, it.nextElement());
    }
    EXPECT_EQ(1, RtGetRetainCount(array));
    RtRelease(array);
    ArrayIterator none(static_cast<RtArrayRef>(nullptr));
    EXPECT_FALSE(none.hasMoreElements());

    AutoDict dict;
    dict.addValue(RTSTR("second"), RTSTR("2"));
    dict.addValue(RTSTR("first"), RTSTR("1"));
    DictIterator it(dict);
    RtTypeRef key = it.nextElement();
    EXPECT_EQ(RTSTR("second"), key); // insertion order
    EXPECT_EQ(RTSTR("2"), it.getValue(key));
    EXPECT_EQ(RTSTR("first"), it.nextElement());
    EXPECT_EQ(nullptr, it.nextElement());
    EXPECT_EQ(nullptr, it.getValue(nullptr));
}

TEST(ValueWrappersTest, VariadicBuildersKeysAndInternedInts) {
    RtDictionaryRef d = rtTypeCreateDictionary(nullptr, RTSTR("a"), RTSTR("1"), RTSTR("b"), RTSTR("2"), nullptr);
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(2, RtDictionaryGetCount(d));
    RtDictionaryRef extended = rtTypeCreateDictionary(d, RTSTR("c"), RTSTR("3"), nullptr);
    EXPECT_EQ(3, RtDictionaryGetCount(extended));
    EXPECT_EQ(2, RtDictionaryGetCount(d));
    RtDictionaryRef odd = rtTypeCreateDictionary(nullptr, RTSTR("a"), nullptr); // half a pair: nothing set
    EXPECT_EQ(0, RtDictionaryGetCount(odd));

    RtArrayRef keys = copyDictionaryKeys(extended);
    ASSERT_EQ(3, RtArrayGetCount(keys));
    EXPECT_EQ(RTSTR("a"), RtArrayGetValueAtIndex(keys, 0));
    EXPECT_EQ(RTSTR("c"), RtArrayGetValueAtIndex(keys, 2));
    RtArrayRef noKeys = copyDictionaryKeys(odd);
    EXPECT_EQ(AutoArray::getEmptyArray(), noKeys);

    RtArrayRef a = rtTypeCreateArray(nullptr, RTSTR("p"), RTSTR("q"), nullptr);
    RtArrayRef b = rtTypeCreateArray(a, RTSTR("r"), nullptr);
    EXPECT_EQ(2, RtArrayGetCount(a));
    EXPECT_EQ(3, RtArrayGetCount(b));

    EXPECT_EQ(internedInt(-3), internedInt(-3));
    EXPECT_EQ(internedInt(11), internedInt(11));
    EXPECT_EQ(5, getIntValue(internedInt(5)));
    EXPECT_EQ(kRtNumberIntType, RtNumberGetType(internedInt(0)));
    EXPECT_EQ(nullptr, safeRtRetain(nullptr));
    safeRtRelease(nullptr);

    for (RtTypeRef v : {static_cast<RtTypeRef>(d), static_cast<RtTypeRef>(extended), static_cast<RtTypeRef>(odd),
                        static_cast<RtTypeRef>(keys), static_cast<RtTypeRef>(noKeys), static_cast<RtTypeRef>(a),
                        static_cast<RtTypeRef>(b)})
        RtRelease(v);
}

} // namespace
