// Arrays: ownership through callback records, editing, copies, sorting and descriptions.
#include "RtValueTestSupport.h"

#include <string>
#include <vector>

using namespace rttest;

namespace {

class ArrayTests : public LeakChecked {};

int gRetains = 0, gReleases = 0;
const void *_countRetain(RtAllocatorRef, const void *v) {
    gRetains++;
    return v;
}
void _countRelease(RtAllocatorRef, const void *) {
    gReleases++;
}
bool _sameFirstChar(const void *a, const void *b) {
    return *static_cast<const char *>(a) == *static_cast<const char *>(b);
}

TEST_F(ArrayTests, CallbacksDecideOwnership) {
    // Runtime objects with the type callbacks: the array holds its own references.
    RtStringRef a = str("alpha");
    const void *values[] = {a, a};
    RtArrayRef arr = own(RtArrayCreate(nullptr, values, 2, &kRtTypeArrayCallBacks));
    RtRelease(a); // the array frees it: the fixture checks that nothing is left
    EXPECT_EQ(text(static_cast<RtStringRef>(RtArrayGetValueAtIndex(arr, 1))), "alpha");
    EXPECT_EQ(RtArrayGetValueAtIndex(arr, 2), nullptr);
    EXPECT_EQ(RtArrayGetValueAtIndex(arr, -1), nullptr);

    // NULL callbacks: plain pointers, identity equality, nothing retained.
    const char *p = "x", *q = "xy";
    RtMutableArrayRef raw = own(RtArrayCreateMutable(nullptr, 0, nullptr));
    RtArrayAppendValue(raw, p);
    RtArrayAppendValue(raw, nullptr);
    EXPECT_EQ(RtArrayGetFirstIndexOfValue(raw, RtRangeMake(0, 2), q), kRtNotFound);
    EXPECT_EQ(RtArrayGetFirstIndexOfValue(raw, RtRangeMake(0, 2), nullptr), 1);

    // Custom callbacks see every retain and release, including replacement and copies.
    RtArrayCallBacks counting = {0, _countRetain, _countRelease, nullptr, _sameFirstChar};
    gRetains = gReleases = 0;
    RtMutableArrayRef m = RtArrayCreateMutable(nullptr, 0, &counting);
    RtArrayAppendValue(m, p);
    RtArrayInsertValueAtIndex(m, 0, q);
    RtArraySetValueAtIndex(m, 1, q);
    EXPECT_TRUE(RtArrayContainsValue(m, RtRangeMake(0, 2), "xz")); // the equal callback decides
    RtArrayRef frozen = RtArrayCreateCopy(nullptr, m);
    RtMutableArrayRef thawed = RtArrayCreateMutableCopy(nullptr, 0, frozen);
    EXPECT_TRUE(RtEqual(frozen, thawed));
    RtRelease(m);
    RtRelease(frozen);
    RtRelease(thawed);
    EXPECT_EQ(gRetains, gReleases);
    EXPECT_EQ(gRetains, 3 + 2 + 2);
}

TEST_F(ArrayTests, EditingAndSorting) {
    RtMutableArrayRef m = own(RtArrayCreateMutable(nullptr, 2, &kRtTypeArrayCallBacks));
    for (int v : {5, 3, 9, 1, 3}) // outside the shared small integers
        RtArrayAppendValue(m, own(num(kRtNumberIntType, v * 1000)));
    RtArraySortValues(
        m, RtRangeMake(0, 5),
        [](const void *a, const void *b, void *) {
            return RtNumberCompare(static_cast<RtNumberRef>(a), static_cast<RtNumberRef>(b), nullptr);
        },
        nullptr);
    RtArrayRemoveValueAtIndex(m, 0);
    RtArrayRemoveValueAtIndex(m, 10);            // out of range: ignored
    RtArrayAppendArray(m, m, RtRangeMake(0, 2)); // appending from itself
    // Setting a slot to the value it already holds must not free it on the way.
    RtArraySetValueAtIndex(m, 0, RtArrayGetValueAtIndex(m, 0));
    EXPECT_EQ(formatted(m), "(\n    3000,\n    3000,\n    5000,\n    9000,\n    3000,\n    3000\n)");
    EXPECT_EQ(RtArrayGetFirstIndexOfValue(m, RtRangeMake(2, 4), own(num(kRtNumberIntType, 3000))), 4);
    RtArrayAppendValue(nullptr, kRtNull); // tolerated
    EXPECT_EQ(RtArrayGetCount(nullptr), 0);
}

TEST_F(ArrayTests, NestedDescription) {
    RtMutableArrayRef inner = own(RtArrayCreateMutable(nullptr, 0, &kRtTypeArrayCallBacks));
    RtArrayAppendValue(inner, kRtBooleanTrue);
    const void *values[] = {kRtNull, own(str("two")), inner};
    RtArrayRef outer = own(RtArrayCreate(nullptr, values, 3, &kRtTypeArrayCallBacks));
    EXPECT_EQ(description(outer), "(\n    <null>,\n    \"two\",\n    (\n        true\n    )\n)");
    EXPECT_EQ(formatted(outer), description(outer));
    EXPECT_EQ(description(own(RtArrayCreate(nullptr, nullptr, 0, &kRtTypeArrayCallBacks))), "()");
}

} // namespace
