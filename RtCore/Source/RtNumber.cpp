// RtNumber: numbers that keep the kind they were made with, the two booleans and the null object.
// Integers are stored as 64-bit signed values and floating-point numbers as doubles, so every
// conversion in RtNumberGetValue is decided against one of two representations. The booleans,
// null, the infinities, NaN and a table of small integers are static immortal objects.
#include "RtRuntime.h"
#include "RtValues.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <mutex>

struct __RtNumber {
    RtRuntimeBase fBase;
    RtNumberType fType;
    union {
        int64_t fInt; // every integer kind
        double fReal; // Float32/Float64/Float/Double (a float value is stored widened, exactly)
    };
};

struct __RtBoolean {
    RtRuntimeBase fBase;
    bool fValue;
};

struct __RtNull {
    RtRuntimeBase fBase;
};

namespace {

using Num = const __RtNumber;

bool isFloatKind(RtNumberType t) {
    return t == kRtNumberFloat32Type || t == kRtNumberFloat64Type || t == kRtNumberFloatType ||
           t == kRtNumberDoubleType;
}

bool isFloat(Num *n) {
    return isFloatKind(n->fType);
}

RtIndex byteSizeOf(RtNumberType t) {
    switch (t) {
    case kRtNumberSInt8Type:
    case kRtNumberCharType:
        return 1;
    case kRtNumberSInt16Type:
    case kRtNumberShortType:
        return 2;
    case kRtNumberSInt32Type:
    case kRtNumberIntType:
    case kRtNumberFloat32Type:
    case kRtNumberFloatType:
        return 4;
    case kRtNumberSInt64Type:
    case kRtNumberLongLongType:
    case kRtNumberFloat64Type:
    case kRtNumberDoubleType:
        return 8;
    case kRtNumberLongType:
        return sizeof(long);
    case kRtNumberIndexType:
        return sizeof(RtIndex);
    }
    return 0;
}

// 2^63 as a double: the first value no int64_t holds.
constexpr double kTwo63 = 9223372036854775808.0;

// True when d is integral and within int64_t; then *out holds it.
bool doubleToInt64Exact(double d, int64_t *out) {
    if (!(d >= -kTwo63 && d < kTwo63)) return false;
    double t = std::trunc(d);
    if (t != d) return false;
    *out = static_cast<int64_t>(t);
    return true;
}

// Clamps d into [lo, hi] and truncates toward zero; NaN becomes 0.
int64_t saturate(double d, int64_t lo, int64_t hi) {
    if (std::isnan(d)) return 0;
    if (d <= static_cast<double>(lo)) return lo;
    if (d >= static_cast<double>(hi)) return hi;
    return static_cast<int64_t>(d);
}

template <typename T> bool storeInteger(Num *n, void *out) {
    constexpr int64_t lo = std::numeric_limits<T>::min();
    constexpr int64_t hi = std::numeric_limits<T>::max();
    T v;
    bool exact;
    if (isFloat(n)) {
        int64_t i;
        exact = doubleToInt64Exact(n->fReal, &i) && i >= lo && i <= hi;
        v = static_cast<T>(saturate(n->fReal, lo, hi));
    } else {
        int64_t i = n->fInt;
        v = static_cast<T>(i < lo ? lo : i > hi ? hi : i);
        exact = i >= lo && i <= hi;
    }
    std::memcpy(out, &v, sizeof v);
    return exact;
}

template <typename T> bool storeReal(Num *n, void *out) {
    T v;
    bool exact;
    if (isFloat(n)) {
        v = static_cast<T>(n->fReal);
        exact = static_cast<double>(v) == n->fReal || (std::isnan(n->fReal) && std::isnan(v));
    } else {
        v = static_cast<T>(n->fInt);
        int64_t back;
        exact = doubleToInt64Exact(static_cast<double>(v), &back) && back == n->fInt;
    }
    std::memcpy(out, &v, sizeof v);
    return exact;
}

// Orders by value across kinds; NaN sorts below everything and equals itself.
RtComparisonResult compareNumbers(Num *a, Num *b) {
    auto cmp = [](auto x, auto y) {
        return x < y ? kRtCompareLessThan : (y < x ? kRtCompareGreaterThan : kRtCompareEqualTo);
    };
    if (!isFloat(a) && !isFloat(b)) return cmp(a->fInt, b->fInt);
    if (isFloat(a) && isFloat(b)) {
        bool na = std::isnan(a->fReal), nb = std::isnan(b->fReal);
        if (na || nb) return na && nb ? kRtCompareEqualTo : (na ? kRtCompareLessThan : kRtCompareGreaterThan);
        return cmp(a->fReal, b->fReal);
    }
    // Mixed: compare the integer with the double exactly, without rounding the integer.
    bool swapped = isFloat(a);
    int64_t i = swapped ? b->fInt : a->fInt;
    double d = swapped ? a->fReal : b->fReal;
    RtComparisonResult r;
    if (std::isnan(d)) {
        r = kRtCompareGreaterThan;
    } else if (d >= kTwo63) {
        r = kRtCompareLessThan;
    } else if (d < -kTwo63) {
        r = kRtCompareGreaterThan;
    } else {
        double t = std::trunc(d);
        auto ti = static_cast<int64_t>(t);
        r = cmp(i, ti);
        if (r == kRtCompareEqualTo) r = d > t ? kRtCompareLessThan : (d < t ? kRtCompareGreaterThan : r);
    }
    return swapped ? static_cast<RtComparisonResult>(-r) : r;
}

bool _numberEqual(RtTypeRef a, RtTypeRef b) {
    return compareNumbers(static_cast<Num *>(a), static_cast<Num *>(b)) == kRtCompareEqualTo;
}

// Equal numbers hash alike whatever their kind: integral doubles hash as the integer.
RtHashCode _numberHash(RtTypeRef obj) {
    auto *n = static_cast<Num *>(obj);
    int64_t i = n->fInt;
    if (isFloat(n) && !doubleToInt64Exact(n->fReal, &i)) {
        if (std::isnan(n->fReal)) return 0x7ff8;
        uint64_t bits;
        std::memcpy(&bits, &n->fReal, sizeof bits);
        return static_cast<RtHashCode>(bits ^ (bits >> 29));
    }
    return static_cast<RtHashCode>(static_cast<uint64_t>(i) * 2654435761u);
}

RtStringRef _numberDesc(RtTypeRef obj, RtDictionaryRef) {
    char buf[40];
    size_t n = rt::formatNumber(static_cast<RtNumberRef>(obj), buf, sizeof buf, false);
    return RtStringCreateWithBytes(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(buf),
                                   static_cast<RtIndex>(n), kRtStringEncodingASCII, false);
}

RtStringRef _numberDebugDesc(RtTypeRef obj) {
    return _numberDesc(obj, nullptr);
}

const RtRuntimeClass sNumberClass = {
    0, "RtNumber", nullptr, nullptr, nullptr, _numberEqual, _numberHash, _numberDesc, _numberDebugDesc};
std::atomic<RtTypeID> sNumberTypeID{kRtNotATypeID};

// Booleans and null exist only as the static singletons: identity is equality.
RtHashCode _booleanHash(RtTypeRef obj) {
    return static_cast<const __RtBoolean *>(obj)->fValue ? 1 : 2;
}

RtStringRef _booleanDesc(RtTypeRef obj, RtDictionaryRef) {
    return RtStringCreateWithCString(kRtAllocatorDefault,
                                     static_cast<const __RtBoolean *>(obj)->fValue ? "true" : "false",
                                     kRtStringEncodingASCII);
}

RtStringRef _booleanDebugDesc(RtTypeRef obj) {
    return _booleanDesc(obj, nullptr);
}

const RtRuntimeClass sBooleanClass = {0,       "RtBoolean",  nullptr,      nullptr,          nullptr,
                                      nullptr, _booleanHash, _booleanDesc, _booleanDebugDesc};
std::atomic<RtTypeID> sBooleanTypeID{kRtNotATypeID};

RtHashCode _nullHash(RtTypeRef) {
    return 3;
}
RtStringRef _nullDesc(RtTypeRef, RtDictionaryRef) {
    return RtStringCreateWithCString(kRtAllocatorDefault, "<null>", kRtStringEncodingASCII);
}
RtStringRef _nullDebugDesc(RtTypeRef obj) {
    return _nullDesc(obj, nullptr);
}

const RtRuntimeClass sNullClass = {0,       "RtNull",  nullptr,   nullptr,       nullptr,
                                   nullptr, _nullHash, _nullDesc, _nullDebugDesc};
std::atomic<RtTypeID> sNullTypeID{kRtNotATypeID};

// Small integers of every integer kind are shared: the readers create them by the thousand.
constexpr int kSmallMin = -1;
constexpr int kSmallMax = 31;
constexpr int kSmallCount = kSmallMax - kSmallMin + 1;
__RtNumber sSmall[kRtNumberMaxType + 1][kSmallCount];

__RtBoolean sTrue, sFalse;
__RtNull sNull;
__RtNumber sPositiveInfinity, sNegativeInfinity, sNaN;

void initStaticNumber(__RtNumber *n, RtNumberType type, double value) {
    rt::initStaticObject(&n->fBase, RtNumberGetTypeID());
    n->fType = type;
    n->fReal = value;
}

// The immortal objects behind the exported constants must exist before any other code of the
// process can read the constants, so they are set up ahead of ordinary static initialisers.
struct StaticNumbers {
    StaticNumbers() {
        RtTypeID numberID = RtNumberGetTypeID();
        for (int t = 1; t <= kRtNumberMaxType; t++) {
            if (isFloatKind(static_cast<RtNumberType>(t))) continue;
            for (int v = kSmallMin; v <= kSmallMax; v++) {
                __RtNumber *n = &sSmall[t][v - kSmallMin];
                rt::initStaticObject(&n->fBase, numberID);
                n->fType = static_cast<RtNumberType>(t);
                n->fInt = v;
            }
        }
        initStaticNumber(&sPositiveInfinity, kRtNumberFloat64Type, std::numeric_limits<double>::infinity());
        initStaticNumber(&sNegativeInfinity, kRtNumberFloat64Type, -std::numeric_limits<double>::infinity());
        initStaticNumber(&sNaN, kRtNumberFloat64Type, std::numeric_limits<double>::quiet_NaN());
        rt::initStaticObject(&sTrue.fBase, RtBooleanGetTypeID());
        sTrue.fValue = true;
        rt::initStaticObject(&sFalse.fBase, RtBooleanGetTypeID());
        sFalse.fValue = false;
        rt::initStaticObject(&sNull.fBase, RtNullGetTypeID());
    }
};
__attribute__((init_priority(101))) StaticNumbers sStaticNumbers;

// Reads a C value of type t from p as int64 or double.
bool loadValue(RtNumberType t, const void *p, int64_t *i, double *d) {
    switch (t) {
    case kRtNumberSInt8Type:
    case kRtNumberCharType:
        *i = *static_cast<const int8_t *>(p);
        return true;
    case kRtNumberSInt16Type:
    case kRtNumberShortType:
        *i = *static_cast<const int16_t *>(p);
        return true;
    case kRtNumberSInt32Type:
    case kRtNumberIntType:
        *i = *static_cast<const int32_t *>(p);
        return true;
    case kRtNumberSInt64Type:
    case kRtNumberLongLongType:
        *i = *static_cast<const int64_t *>(p);
        return true;
    case kRtNumberLongType:
        *i = *static_cast<const long *>(p);
        return true;
    case kRtNumberIndexType:
        *i = *static_cast<const RtIndex *>(p);
        return true;
    case kRtNumberFloat32Type:
    case kRtNumberFloatType:
        *d = *static_cast<const float *>(p);
        return true;
    case kRtNumberFloat64Type:
    case kRtNumberDoubleType:
        *d = *static_cast<const double *>(p);
        return true;
    }
    return false;
}

} // namespace

const RtNumberRef kRtNumberPositiveInfinity = &sPositiveInfinity;
const RtNumberRef kRtNumberNegativeInfinity = &sNegativeInfinity;
const RtNumberRef kRtNumberNaN = &sNaN;
const RtBooleanRef kRtBooleanTrue = &sTrue;
const RtBooleanRef kRtBooleanFalse = &sFalse;
const RtNullRef kRtNull = &sNull;

namespace rt {

size_t formatNumber(RtNumberRef number, char *buf, size_t size, bool asDouble) {
    std::to_chars_result r;
    if (!isFloat(number)) {
        r = std::to_chars(buf, buf + size, number->fInt);
    } else {
        double d = number->fReal;
        if (std::isnan(d)) return static_cast<size_t>(std::snprintf(buf, size, "nan"));
        if (std::isinf(d))
            return static_cast<size_t>(std::snprintf(buf, size, d > 0 ? "+infinity" : "-infinity"));
        // Shortest text that reads back as the same value (of the kind's own precision).
        if (!asDouble && (number->fType == kRtNumberFloat32Type || number->fType == kRtNumberFloatType))
            r = std::to_chars(buf, buf + size, static_cast<float>(d));
        else
            r = std::to_chars(buf, buf + size, d);
    }
    if (r.ec != std::errc()) return 0;
    return static_cast<size_t>(r.ptr - buf);
}

} // namespace rt

RtTypeID RtNumberGetTypeID(void) {
    return rt::typeIDOf(sNumberTypeID, &sNumberClass);
}
RtTypeID RtBooleanGetTypeID(void) {
    return rt::typeIDOf(sBooleanTypeID, &sBooleanClass);
}
RtTypeID RtNullGetTypeID(void) {
    return rt::typeIDOf(sNullTypeID, &sNullClass);
}

RtNumberRef RtNumberCreate(RtAllocatorRef alloc, RtNumberType theType, const void *valuePtr) {
    if (!valuePtr) return nullptr;
    int64_t i = 0;
    double d = 0;
    if (!loadValue(theType, valuePtr, &i, &d)) return nullptr;
    bool real = isFloatKind(theType);
    if (!real && i >= kSmallMin && i <= kSmallMax) return &sSmall[theType][i - kSmallMin];
    auto *n = static_cast<__RtNumber *>(const_cast<void *>(
        RtRuntimeCreateInstance(alloc, RtNumberGetTypeID(), sizeof(__RtNumber) - sizeof(RtRuntimeBase))));
    if (!n) return nullptr;
    n->fType = theType;
    if (real)
        n->fReal = d;
    else
        n->fInt = i;
    return n;
}

RtNumberType RtNumberGetType(RtNumberRef number) {
    return rt::isA(number, RtNumberGetTypeID()) ? number->fType : static_cast<RtNumberType>(0);
}

RtIndex RtNumberGetByteSize(RtNumberRef number) {
    return rt::isA(number, RtNumberGetTypeID()) ? byteSizeOf(number->fType) : 0;
}

bool RtNumberIsFloatType(RtNumberRef number) {
    return rt::isA(number, RtNumberGetTypeID()) && isFloat(number);
}

bool RtNumberGetValue(RtNumberRef number, RtNumberType theType, void *valuePtr) {
    if (!valuePtr || !rt::isA(number, RtNumberGetTypeID())) return false;
    switch (theType) {
    case kRtNumberSInt8Type:
    case kRtNumberCharType:
        return storeInteger<int8_t>(number, valuePtr);
    case kRtNumberSInt16Type:
    case kRtNumberShortType:
        return storeInteger<int16_t>(number, valuePtr);
    case kRtNumberSInt32Type:
    case kRtNumberIntType:
        return storeInteger<int32_t>(number, valuePtr);
    case kRtNumberSInt64Type:
    case kRtNumberLongLongType:
        return storeInteger<int64_t>(number, valuePtr);
    case kRtNumberLongType:
        return storeInteger<long>(number, valuePtr);
    case kRtNumberIndexType:
        return storeInteger<RtIndex>(number, valuePtr);
    case kRtNumberFloat32Type:
    case kRtNumberFloatType:
        return storeReal<float>(number, valuePtr);
    case kRtNumberFloat64Type:
    case kRtNumberDoubleType:
        return storeReal<double>(number, valuePtr);
    }
    return false;
}

RtComparisonResult RtNumberCompare(RtNumberRef a, RtNumberRef b, void *) {
    RtTypeID id = RtNumberGetTypeID();
    if (!rt::isA(a, id) || !rt::isA(b, id))
        return rt::isA(a, id) ? kRtCompareGreaterThan
                              : (rt::isA(b, id) ? kRtCompareLessThan : kRtCompareEqualTo);
    return compareNumbers(a, b);
}

bool RtBooleanGetValue(RtBooleanRef boolean) {
    return boolean == kRtBooleanTrue;
}
