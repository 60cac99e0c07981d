// RtArray: ordered collections of pointers whose callback record decides ownership and
// equality. Immutable arrays keep their values in the same allocation as the object; mutable
// ones own a buffer grown geometrically. Also home of the kRtType... callbacks and of the
// nested descriptions both collections print.
#include "RtRuntime.h"
#include "RtValues.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

struct __RtArray {
    RtRuntimeBase fBase;
    uint32_t fFlags;
    RtArrayCallBacks fCallBacks;
    const void **fValues;
    RtIndex fCount;
    RtIndex fCapacity;
};

namespace rt {

const void *typeRetain(RtAllocatorRef, const void *value) {
    return RtRetain(value);
}
void typeRelease(RtAllocatorRef, const void *value) {
    RtRelease(value);
}
RtStringRef typeCopyDescription(const void *value) {
    return RtCopyDescription(value);
}
bool typeEqual(const void *a, const void *b) {
    return RtEqual(a, b);
}
RtHashCode typeHash(const void *value) {
    return RtHash(value);
}

void appendASCII(RtMutableStringRef out, const char *text) {
    RtStringAppendCString(out, text, kRtStringEncodingASCII);
}

void appendIndent(RtMutableStringRef out, int indent) {
    static const char kSpaces[] = "                                "; // 8 levels
    for (; indent > 8; indent -= 8)
        appendASCII(out, kSpaces);
    if (indent > 0) appendASCII(out, kSpaces + static_cast<ptrdiff_t>(8 - indent) * 4);
}

void appendValueDescription(RtMutableStringRef out, const void *value, RtStringRef (*copyDesc)(const void *),
                            int indent) {
    if (copyDesc == typeCopyDescription && value) {
        RtTypeID id = RtGetTypeID(value);
        if (id == RtArrayGetTypeID())
            return appendArrayDescription(out, static_cast<RtArrayRef>(value), indent);
        if (id == RtDictionaryGetTypeID())
            return appendDictionaryDescription(out, static_cast<RtDictionaryRef>(value), indent);
    }
    if (!copyDesc) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "<%p>", value);
        return appendASCII(out, buf);
    }
    RtStringRef s = copyDesc(value);
    if (s) {
        RtStringAppend(out, s);
        RtRelease(s);
    } else {
        appendASCII(out, "(null)");
    }
}

RtStringRef copyCollectionDescription(RtTypeRef collection) {
    RtMutableStringRef s = RtStringCreateMutable(kRtAllocatorDefault, 0);
    if (s) appendValueDescription(s, collection, typeCopyDescription, 0);
    return s;
}

void appendArrayDescription(RtMutableStringRef out, RtArrayRef array, int indent) {
    if (array->fCount == 0) return appendASCII(out, "()");
    if (indent >= kMaxDescriptionDepth) return appendASCII(out, "(...)");
    appendASCII(out, "(\n");
    for (RtIndex i = 0; i < array->fCount; i++) {
        appendIndent(out, indent + 1);
        appendValueDescription(out, array->fValues[i], array->fCallBacks.copyDescription, indent + 1);
        appendASCII(out, i + 1 < array->fCount ? ",\n" : "\n");
    }
    appendIndent(out, indent);
    appendASCII(out, ")");
}

} // namespace rt

const RtArrayCallBacks kRtTypeArrayCallBacks = {0, rt::typeRetain, rt::typeRelease, rt::typeCopyDescription,
                                                rt::typeEqual};

namespace {

enum : uint32_t { eArrayMutable = 1 };

using Arr = __RtArray;

bool isArray(RtTypeRef obj);
bool isMutableArray(RtTypeRef obj) {
    return isArray(obj) && (static_cast<const Arr *>(obj)->fFlags & eArrayMutable);
}

const void *retainValue(const Arr *a, const void *v) {
    return a->fCallBacks.retain ? a->fCallBacks.retain(kRtAllocatorDefault, v) : v;
}

void releaseValue(const Arr *a, const void *v) {
    if (a->fCallBacks.release) a->fCallBacks.release(kRtAllocatorDefault, v);
}

bool valuesEqual(const Arr *a, const void *x, const void *y) {
    return x == y || (a->fCallBacks.equal && a->fCallBacks.equal(x, y));
}

void _arrayFinalize(RtTypeRef obj) {
    auto *a = static_cast<Arr *>(const_cast<void *>(obj));
    for (RtIndex i = 0; i < a->fCount; i++)
        releaseValue(a, a->fValues[i]);
    if (a->fFlags & eArrayMutable) std::free(a->fValues);
}

bool _arrayEqual(RtTypeRef x, RtTypeRef y) {
    auto *a = static_cast<const Arr *>(x);
    auto *b = static_cast<const Arr *>(y);
    if (a->fCount != b->fCount) return false;
    for (RtIndex i = 0; i < a->fCount; i++)
        if (!valuesEqual(a, a->fValues[i], b->fValues[i])) return false;
    return true;
}

RtHashCode _arrayHash(RtTypeRef obj) {
    return static_cast<RtHashCode>(static_cast<const Arr *>(obj)->fCount);
}

const RtRuntimeClass sArrayClass = {0,          "RtArray",      nullptr,
                                    nullptr,    _arrayFinalize, _arrayEqual,
                                    _arrayHash, nullptr,        rt::copyCollectionDescription};
std::atomic<RtTypeID> sArrayTypeID{kRtNotATypeID};

bool isArray(RtTypeRef obj) {
    return rt::isA(obj, rt::typeIDOf(sArrayTypeID, &sArrayClass));
}

constexpr RtIndex kFieldBytes = sizeof(Arr) - sizeof(RtRuntimeBase);
constexpr RtIndex kMaxCount = RtIndex(1) << 40;

Arr *newArray(RtAllocatorRef alloc, RtIndex inlineValues, const RtArrayCallBacks *cb) {
    if (inlineValues < 0 || inlineValues > kMaxCount) return nullptr;
    auto *a = static_cast<Arr *>(const_cast<void *>(RtRuntimeCreateInstance(
        alloc, RtArrayGetTypeID(), kFieldBytes + inlineValues * RtIndex(sizeof(void *)))));
    if (!a) return nullptr;
    if (cb) a->fCallBacks = *cb;
    // Immutable arrays keep their values right after the fields.
    a->fValues = reinterpret_cast<const void **>(a + 1);
    return a;
}

bool reserve(Arr *a, RtIndex need) {
    if (need <= a->fCapacity) return true;
    if (need > kMaxCount) return false;
    RtIndex cap = a->fCapacity < 8 ? 8 : a->fCapacity;
    while (cap < need)
        cap += cap / 2;
    auto *p = static_cast<const void **>(std::realloc(a->fValues, size_t(cap) * sizeof(void *)));
    if (!p) return false;
    a->fValues = p;
    a->fCapacity = cap;
    return true;
}

Arr *newMutableArray(RtAllocatorRef alloc, RtIndex capacity, const RtArrayCallBacks *cb) {
    if (capacity < 0) return nullptr;
    Arr *a = newArray(alloc, 0, cb);
    if (!a) return nullptr;
    a->fFlags = eArrayMutable;
    a->fValues = nullptr;
    // The capacity is a size hint; the array still grows past it.
    if (capacity > 0 && !reserve(a, capacity)) {
        RtRelease(a);
        return nullptr;
    }
    return a;
}

} // namespace

RtTypeID RtArrayGetTypeID(void) {
    return rt::typeIDOf(sArrayTypeID, &sArrayClass);
}

RtArrayRef RtArrayCreate(RtAllocatorRef alloc, const void **values, RtIndex numValues,
                         const RtArrayCallBacks *callBacks) {
    if (numValues < 0 || (numValues > 0 && !values)) return nullptr;
    Arr *a = newArray(alloc, numValues, callBacks);
    if (!a) return nullptr;
    for (RtIndex i = 0; i < numValues; i++)
        a->fValues[i] = retainValue(a, values[i]);
    a->fCount = numValues;
    return a;
}

RtArrayRef RtArrayCreateCopy(RtAllocatorRef alloc, RtArrayRef array) {
    if (!isArray(array)) return nullptr;
    if (!(array->fFlags & eArrayMutable)) return static_cast<RtArrayRef>(RtRetain(array));
    return RtArrayCreate(alloc, array->fValues, array->fCount, &array->fCallBacks);
}

RtMutableArrayRef RtArrayCreateMutable(RtAllocatorRef alloc, RtIndex capacity,
                                       const RtArrayCallBacks *callBacks) {
    return newMutableArray(alloc, capacity, callBacks);
}

RtMutableArrayRef RtArrayCreateMutableCopy(RtAllocatorRef alloc, RtIndex capacity, RtArrayRef array) {
    if (!isArray(array)) return nullptr;
    Arr *a = newMutableArray(alloc, capacity > array->fCount ? capacity : array->fCount, &array->fCallBacks);
    if (!a) return nullptr;
    for (RtIndex i = 0; i < array->fCount; i++)
        a->fValues[i] = retainValue(a, array->fValues[i]);
    a->fCount = array->fCount;
    return a;
}

RtIndex RtArrayGetCount(RtArrayRef array) {
    return isArray(array) ? array->fCount : 0;
}

const void *RtArrayGetValueAtIndex(RtArrayRef array, RtIndex idx) {
    if (!isArray(array) || idx < 0 || idx >= array->fCount) return nullptr;
    return array->fValues[idx];
}

void RtArrayGetValues(RtArrayRef array, RtRange range, const void **values) {
    if (!isArray(array) || !values || !rt::rangeInside(range, array->fCount) || range.length == 0) return;
    std::memcpy(values, array->fValues + range.location, size_t(range.length) * sizeof(void *));
}

RtIndex RtArrayGetFirstIndexOfValue(RtArrayRef array, RtRange range, const void *value) {
    if (!isArray(array) || !rt::rangeInside(range, array->fCount)) return kRtNotFound;
    for (RtIndex i = range.location; i < range.location + range.length; i++)
        if (valuesEqual(array, array->fValues[i], value)) return i;
    return kRtNotFound;
}

bool RtArrayContainsValue(RtArrayRef array, RtRange range, const void *value) {
    return RtArrayGetFirstIndexOfValue(array, range, value) != kRtNotFound;
}

void RtArrayApplyFunction(RtArrayRef array, RtRange range, RtArrayApplierFunction applier, void *context) {
    if (!isArray(array) || !applier || !rt::rangeInside(range, array->fCount)) return;
    // Re-reads the count each step so an applier that shrinks the array cannot run off its end.
    for (RtIndex i = range.location; i < range.location + range.length && i < array->fCount; i++)
        applier(array->fValues[i], context);
}

void RtArrayAppendValue(RtMutableArrayRef array, const void *value) {
    if (isMutableArray(array)) RtArrayInsertValueAtIndex(array, array->fCount, value);
}

void RtArrayAppendArray(RtMutableArrayRef array, RtArrayRef other, RtRange otherRange) {
    if (!isMutableArray(array) || !isArray(other) || !rt::rangeInside(otherRange, other->fCount)) return;
    if (!reserve(array, array->fCount + otherRange.length)) return;
    // other may be array itself: read through other->fValues after the reserve.
    for (RtIndex i = 0; i < otherRange.length; i++)
        array->fValues[array->fCount + i] = retainValue(array, other->fValues[otherRange.location + i]);
    array->fCount += otherRange.length;
}

void RtArrayInsertValueAtIndex(RtMutableArrayRef array, RtIndex idx, const void *value) {
    if (!isMutableArray(array) || idx < 0 || idx > array->fCount) return;
    if (!reserve(array, array->fCount + 1)) return;
    std::memmove(array->fValues + idx + 1, array->fValues + idx,
                 size_t(array->fCount - idx) * sizeof(void *));
    array->fValues[idx] = retainValue(array, value);
    array->fCount++;
}

void RtArraySetValueAtIndex(RtMutableArrayRef array, RtIndex idx, const void *value) {
    if (!isMutableArray(array) || idx < 0 || idx > array->fCount) return;
    if (idx == array->fCount) return RtArrayInsertValueAtIndex(array, idx, value);
    // Retain first: the new value may be kept alive only by the slot it replaces.
    const void *old = array->fValues[idx];
    array->fValues[idx] = retainValue(array, value);
    releaseValue(array, old);
}

void RtArrayRemoveValueAtIndex(RtMutableArrayRef array, RtIndex idx) {
    if (!isMutableArray(array) || idx < 0 || idx >= array->fCount) return;
    const void *old = array->fValues[idx];
    std::memmove(array->fValues + idx, array->fValues + idx + 1,
                 size_t(array->fCount - idx - 1) * sizeof(void *));
    array->fCount--;
    releaseValue(array, old);
}

void RtArrayRemoveAllValues(RtMutableArrayRef array) {
    if (!isMutableArray(array)) return;
    // Empty the array before releasing, in case a release callback looks at it.
    RtIndex n = array->fCount;
    const void **old = array->fValues;
    array->fValues = nullptr;
    array->fCount = 0;
    array->fCapacity = 0;
    for (RtIndex i = 0; i < n; i++)
        releaseValue(array, old[i]);
    std::free(old);
}

void RtArraySortValues(RtMutableArrayRef array, RtRange range, RtComparatorFunction comparator,
                       void *context) {
    if (!isMutableArray(array) || !comparator || !rt::rangeInside(range, array->fCount)) return;
    std::stable_sort(
        array->fValues + range.location, array->fValues + range.location + range.length,
        [&](const void *a, const void *b) { return comparator(a, b, context) == kRtCompareLessThan; });
}
