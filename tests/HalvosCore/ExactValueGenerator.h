// Generated values of every kind for the exact-mode round trips (our own reader, Python's
// xmlrpc, spyne), a comparison that tells doubles apart bit by bit, and a Python rendering of a
// value for xmlrpc.client.loads to be compared with.
#pragma once

#include "XMLRPCTestSupport.h"

#include <cfloat>
#include <cmath>
#include <cstring>
#include <random>

namespace exacttest {

using namespace xmlrpctest;

// What a dialect can carry: SOAP has null, NaN and infinities and 64-bit integers; XML-RPC has
// null and 64-bit integers only with extensions; SOAP names must be XML names.
struct Carriage {
    bool null = false;
    bool wide = false;     // integers beyond 32 bits
    bool specials = false; // NaN, INF, -INF
    bool xmlNames = false; // member names must be XML names
    bool rawText = false;  // the peer writes text raw: no carriage returns (a parser reads a
                           // raw one as a line feed), no white space alone with a line break
};

class ValueGenerator {
  public:
    ValueGenerator(uint64_t seed, Carriage carriage) : fRandom(seed), fCarriage(carriage) {}

    Value any(int depth = 0) {
        int kinds = depth >= 3 ? 8 : 10;
        switch (pick(kinds)) {
        case 0:
            return B(pick(2) == 1);
        case 1:
            return integer();
        case 2:
        case 3:
            return real();
        case 4:
            return string(pick(8) == 0 ? 3000 : 24);
        case 5:
            // Whole seconds from year 1601 to 9998 (the written form has no fraction).
            return Date(std::floor(static_cast<double>(range(-12622780800LL, 252423993600LL))));
        case 6: {
            std::string bytes(static_cast<size_t>(pick(pick(4) == 0 ? 200 : 8)), '\0');
            for (char &b : bytes)
                b = static_cast<char>(pick(256));
            return Bytes(bytes);
        }
        case 7:
            return fCarriage.null && pick(3) == 0 ? Value::retain(kRtNull) : string(4);
        case 8: {
            RtMutableArrayRef array = RtArrayCreateMutable(nullptr, 0, &kRtTypeArrayCallBacks);
            for (int i = pick(5); i > 0; i--)
                RtArrayAppendValue(array, any(depth + 1).get());
            return Value::adopt(array);
        }
        default: {
            RtMutableDictionaryRef dict = RtDictionaryCreateMutable(
                nullptr, 0, &kRtCopyStringDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
            for (int i = pick(5); i > 0; i--)
                RtDictionarySetValue(dict, memberName().get(), any(depth + 1).get());
            return Value::adopt(dict);
        }
        }
    }

    Value integer() {
        static const int64_t edges[] = {0,
                                        1,
                                        -1,
                                        INT32_MAX,
                                        INT32_MIN,
                                        INT32_MAX - 1LL,
                                        INT32_MIN + 1LL,
                                        INT32_MAX + 1LL,
                                        INT32_MIN - 1LL,
                                        INT64_MAX,
                                        INT64_MIN,
                                        3000000000LL};
        int64_t n = pick(2) ? edges[pick(sizeof edges / sizeof edges[0])] : range(INT32_MIN, INT32_MAX);
        if (!fCarriage.wide && (n < INT32_MIN || n > INT32_MAX)) n = static_cast<int32_t>(n);
        if (pick(4) == 0) n = static_cast<int64_t>(fRandom()); // anywhere in 64 bits
        if (!fCarriage.wide && (n < INT32_MIN || n > INT32_MAX)) n = static_cast<int32_t>(n);
        return n >= INT32_MIN && n <= INT32_MAX && pick(2) ? I(static_cast<int32_t>(n)) : I64(n);
    }

    Value real() {
        static const double edges[] = {
            0.0,           -0.0, DBL_MAX, -DBL_MAX,    DBL_MIN,           -DBL_MIN, DBL_TRUE_MIN,
            -DBL_TRUE_MIN, 0.1,  1e20,    123456789.0, 2.718281828459045, 1.0 / 3};
        double d;
        if (pick(3) == 0) {
            d = edges[pick(sizeof edges / sizeof edges[0])];
        } else {
            uint64_t bits = fRandom();
            if (pick(3) == 0) bits &= 0x800FFFFFFFFFFFFFULL; // a subnormal
            std::memcpy(&d, &bits, sizeof d);
        }
        if (!std::isfinite(d) && !fCarriage.specials) d = 1.5;
        if (fCarriage.specials && pick(20) == 0) d = pick(3) == 0 ? NAN : pick(2) ? HUGE_VAL : -HUGE_VAL;
        return D(d);
    }

    // Characters from every range XML 1.0 can carry, white space included.
    Value string(int maxLength) {
        std::u16string units;
        int length = pick(maxLength + 1);
        if (pick(6) == 0) length = 0;
        for (int i = 0; i < length; i++) {
            switch (pick(8)) {
            case 0: {
                static const char16_t spaces[] = {u'\t', u'\n', u'\r', u' '};
                units.push_back(spaces[pick(4)]);
                break;
            }
            case 1:
                units.push_back(static_cast<char16_t>(u"<>&'\"]"[pick(6)]));
                break;
            case 2:
                units.push_back(static_cast<char16_t>(range(0xA0, 0xD7FF)));
                break;
            case 3:
                units.push_back(static_cast<char16_t>(range(0xE000, 0xFFFD)));
                break;
            case 4: {
                uint32_t c = static_cast<uint32_t>(range(0x10000, 0x10FFFF)) - 0x10000;
                units.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
                units.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
                break;
            }
            default:
                units.push_back(static_cast<char16_t>(range(0x20, 0x7E)));
                break;
            }
        }
        if (fCarriage.rawText) {
            for (char16_t &unit : units)
                if (unit == u'\r') unit = u'\t';
            if (!units.empty() && units.find_first_not_of(u" \t\n") == std::u16string::npos) units += u'x';
        }
        return Value::adopt(RtStringCreateWithCharacters(
            nullptr, reinterpret_cast<const RtUniChar *>(units.data()), static_cast<RtIndex>(units.size())));
    }

    Value memberName() {
        if (!fCarriage.xmlNames) {
            // Any text but a leading '/' (record settings) or nothing at all.
            Value name = string(10);
            return RtStringGetLength(name.str()) == 0 || RtStringGetCharacterAtIndex(name.str(), 0) == '/'
                       ? S("m")
                       : name;
        }
        static const char *starts[] = {"a", "Z", "_", "\xC3\xA9", "\xE6\x97\xA5"};
        static const char *rest[] = {"b", "9", "-", ".", "_", "\xC2\xB7", "x"};
        std::string name = starts[pick(5)];
        for (int i = pick(8); i > 0; i--)
            name += rest[pick(7)];
        return S(name.c_str());
    }

  private:
    int pick(int n) { return static_cast<int>(fRandom() % static_cast<uint64_t>(n)); }
    int64_t range(int64_t low, int64_t high) {
        return low + static_cast<int64_t>(fRandom() % static_cast<uint64_t>(high - low + 1));
    }

    std::mt19937_64 fRandom;
    Carriage fCarriage;
};

// Deep equality where numbers compare by value and doubles by their bits.
inline bool sameExactly(RtTypeRef a, RtTypeRef b) {
    if (a == b) return true;
    if (!a || !b || RtGetTypeID(a) != RtGetTypeID(b)) return false;
    RtTypeID type = RtGetTypeID(a);
    if (type == RtNumberGetTypeID()) {
        RtNumberRef x = static_cast<RtNumberRef>(a), y = static_cast<RtNumberRef>(b);
        if (RtNumberIsFloatType(x) != RtNumberIsFloatType(y)) return false;
        if (RtNumberIsFloatType(x)) {
            double dx = 0, dy = 0;
            RtNumberGetValue(x, kRtNumberFloat64Type, &dx);
            RtNumberGetValue(y, kRtNumberFloat64Type, &dy);
            if (std::isnan(dx) && std::isnan(dy)) return true;
            return std::memcmp(&dx, &dy, sizeof dx) == 0;
        }
        int64_t ix = 0, iy = 0;
        RtNumberGetValue(x, kRtNumberSInt64Type, &ix);
        RtNumberGetValue(y, kRtNumberSInt64Type, &iy);
        return ix == iy;
    }
    if (type == RtArrayGetTypeID()) {
        RtArrayRef x = static_cast<RtArrayRef>(a), y = static_cast<RtArrayRef>(b);
        if (RtArrayGetCount(x) != RtArrayGetCount(y)) return false;
        for (RtIndex i = 0; i < RtArrayGetCount(x); i++)
            if (!sameExactly(RtArrayGetValueAtIndex(x, i), RtArrayGetValueAtIndex(y, i))) return false;
        return true;
    }
    if (type == RtDictionaryGetTypeID()) {
        RtDictionaryRef x = static_cast<RtDictionaryRef>(a), y = static_cast<RtDictionaryRef>(b);
        if (RtDictionaryGetCount(x) != RtDictionaryGetCount(y)) return false;
        RtIndex count = RtDictionaryGetCount(x);
        std::vector<const void *> keys(static_cast<size_t>(count)), values(static_cast<size_t>(count));
        RtDictionaryGetKeysAndValues(x, keys.data(), values.data());
        for (RtIndex i = 0; i < count; i++)
            if (!sameExactly(values[static_cast<size_t>(i)],
                             RtDictionaryGetValue(y, keys[static_cast<size_t>(i)])))
                return false;
        return true;
    }
    return RtEqual(a, b);
}

inline ::testing::AssertionResult travelledExactly(const Value &sent, RtTypeRef received) {
    if (sameExactly(sent.get(), received)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << "sent " << describe(sent.get()) << "\nreceived " << describe(received);
}

} // namespace exacttest
