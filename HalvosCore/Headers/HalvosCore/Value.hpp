/// @file
/// @ingroup HalvosCore
/// @brief hv::Value, the C++ form of any runtime value, and the conversions to and from
/// native types (hv::convert, HV_RECORD).
///
/// Values go in implicitly from a closed set of types: bool, the integer types, float and double,
/// std::string / std::string_view / const char*, std::chrono::system_clock time points,
/// std::vector<std::byte> (base64 data), std::vector<T>, std::map<std::string, T>, hv::Record
/// (members in insertion order), std::optional<T> (absent when empty), hv::Value itself, and any
/// type with an hv::convert specialisation or ADL toValue/fromValue functions (HV_RECORD writes
/// them). Values come out only through as<T>(), tryAs<T>() and getTo(T&). A conversion that would
/// lose something throws hv::ConversionError, naming where in the value it failed.
#ifndef HALVOSCORE_VALUE_HPP
#define HALVOSCORE_VALUE_HPP

#include <HalvosCore/RecordMacros.hpp>
#include <HalvosCore/Ref.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <limits>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace hv {
inline namespace v1 {

class Value;

/** The conversion of T to and from hv::Value. The default calls toValue(const T&) and
 * fromValue(const hv::Value&, T&) found by argument-dependent lookup beside T (HV_RECORD writes
 * them); specialise it for types you do not own, with static Value toValue(const T&) and static T
 * fromValue(const Value&). */
template <class T, class Enable = void> struct convert;

// ---- Errors ---------------------------------------------------------------------------------

/** The base of every exception the C++ interface throws (hv::Fault, hv::TransportError,
 * hv::ConversionError): one catch takes them all. */
class HV_API Error : public std::runtime_error {
  public:
    /** An error whose what() is message. */
    explicit Error(const std::string &message);
    ~Error() override;
    /** Throws a copy of this error with its own dynamic type, so that a stored error (in an
     * hv::Result, say) is rethrown as what it is. */
    [[noreturn]] virtual void raise() const;
};

/** Why a conversion failed. The values never change. */
enum class ConversionErrc {
    WrongKind = 1,     ///< the value is of another kind than the target needs
    OutOfRange = 2,    ///< a number, date or size does not fit the target or the wire
    InvalidText = 3,   ///< text that is not valid UTF-8 (or a string UTF-8 cannot carry)
    MissingMember = 4, ///< a record member the target needs is not there
    Absent = 5         ///< no value at all where one is needed (a null pointer, an absent element)
};

/** A value that cannot be converted without losing something. what() reads
 * "<path>: <detail>", the path naming the element that failed ("params[1].address.zip");
 * the path is built only while the error travels out. */
class HV_API ConversionError : public Error {
  public:
    /** An error of kind code with the given detail, at path (empty: the value itself). */
    ConversionError(ConversionErrc code, std::string detail, std::string path = {});
    ~ConversionError() override;
    /** Why it failed. */
    ConversionErrc code() const noexcept { return fCode; }
    /** Where: "[2].name", "params[0].count"; empty for the value itself. */
    const std::string &path() const noexcept { return fPath; }
    /** What went wrong, without the path. */
    const std::string &detail() const noexcept { return fDetail; }
    /** "<path>: <detail>", or the detail alone when the path is empty. */
    const char *what() const noexcept override { return fMessage.c_str(); }
    /** Puts segment ("[3]", ".name", "params[0]") in front of the path. */
    void prependPath(std::string_view segment);
    [[noreturn]] void raise() const override;

  private:
    ConversionErrc fCode;
    std::string fDetail;
    std::string fPath;
    std::string fMessage;
};

// ---- Traits ---------------------------------------------------------------------------------

/// \cond HV_INTERNAL
namespace detail {
template <class T> inline constexpr bool kAlwaysFalse = false;
template <class T> using Decay = std::decay_t<T>;

// The integer types a Value takes as numbers: every integral type but bool and the character
// types (a char is text, not a number).
template <class T>
inline constexpr bool kIsInteger =
    std::is_integral_v<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, char> &&
    !std::is_same_v<T, wchar_t> && !std::is_same_v<T, char16_t> && !std::is_same_v<T, char32_t>;

// Argument-dependent lookup of the user's toValue/fromValue: the deleted declarations stop
// ordinary lookup here, so only the functions beside T's own namespace are found.
namespace adl {
void toValue() = delete;
void fromValue() = delete;
template <class T> auto callToValue(const T &in) -> decltype(toValue(in)) {
    return toValue(in);
}
template <class T> auto callFromValue(const Value &in, T &out) -> decltype(fromValue(in, out), void()) {
    fromValue(in, out);
}
} // namespace adl

template <class T, class = void> struct HasToValue : std::false_type {};
template <class T>
struct HasToValue<T, std::void_t<decltype(convert<T>::toValue(std::declval<const T &>()))>> : std::true_type {
};
template <class T, class = void> struct HasFromValue : std::false_type {};
template <class T>
struct HasFromValue<T, std::void_t<decltype(convert<T>::fromValue(std::declval<const Value &>()))>>
    : std::true_type {};

/** True when T converts to a Value. */
template <class T> inline constexpr bool kHasToValue = HasToValue<T>::value;
/** True when a Value converts to T. */
template <class T> inline constexpr bool kHasFromValue = HasFromValue<T>::value;

// Pointers a Value refuses: anything but the C strings.
template <class T>
inline constexpr bool kIsRejectedPointer =
    std::is_pointer_v<T> && !std::is_same_v<T, const char *> && !std::is_same_v<T, char *>;
} // namespace detail
/// \endcond

// ---- Value ----------------------------------------------------------------------------------

/** Any runtime value: a regular type over one reference (copy shares, move steals). A
 * default-constructed Value is absent (no value: an empty std::optional, a member left out);
 * hv::Value::null() is the null value (nil on the wire). */
class HV_API Value {
  public:
    /** The kinds of value, as the protocols see them. */
    enum class Kind {
        Absent,     ///< no value
        Null,       ///< nil / xsi:nil
        Boolean,    ///< boolean
        Integer,    ///< i4 (or i8 with extensions)
        Double,     ///< double
        String,     ///< string
        Date,       ///< dateTime.iso8601 / xsd:dateTime
        Data,       ///< base64
        Array,      ///< array
        Dictionary, ///< struct / record
        Other       ///< a runtime object the protocols do not write by themselves (a URL, say)
    };

    /** An absent value. */
    Value() noexcept = default;
    /** The null value. */
    Value(std::nullptr_t) noexcept;
    /** Converts any supported type (see the file comment); a conversion that would lose
     * something throws hv::ConversionError. */
    template <class T,
              std::enable_if_t<
                  !std::is_same_v<detail::Decay<T>, Value> && detail::kHasToValue<detail::Decay<T>>, int> = 0>
    Value(T &&value) : Value(convert<detail::Decay<T>>::toValue(std::forward<T>(value))) {}
    /** Pointers other than C strings are refused at compile time. */
    template <class T, std::enable_if_t<detail::kIsRejectedPointer<T *>, int> = 0> Value(T *) {
        static_assert(detail::kAlwaysFalse<T>, "hv::Value: pass a value or a string, not a pointer");
    }

    /** A Value that takes over a runtime object the caller owns (a Create or Copy result). */
    static Value adopt(RtTypeRef object) noexcept;
    /** A Value that adds its own reference to a borrowed runtime object. */
    static Value retain(RtTypeRef object) noexcept;
    /** The null value (kRtNull). */
    static Value null() noexcept;

    /** The runtime object, borrowed (NULL when absent). */
    RtTypeRef get() const noexcept { return fObject.get(); }
    /** The kind of value held. */
    Kind kind() const noexcept;
    /** True when no value is held. */
    bool isAbsent() const noexcept { return !fObject; }
    /** True for the null value. */
    bool isNull() const noexcept;
    /** Elements of an array or members of a dictionary; 0 for every other kind. */
    std::size_t size() const noexcept;
    /** The element at index of an array; throws hv::ConversionError when this is no array or
     * index is past the end. */
    Value operator[](std::size_t index) const;
    /** The member name of a dictionary, absent when there is none; throws hv::ConversionError
     * when this is no dictionary. */
    Value operator[](std::string_view name) const;

    /** The value converted to T; throws hv::ConversionError when it does not convert exactly. */
    template <class T> T as() const {
        static_assert(!std::is_pointer_v<T>,
                      "hv::Value::as: ask for a value type (std::string, not const char*)");
        static_assert(detail::kHasFromValue<T>,
                      "hv::Value::as: no conversion to this type; add HV_RECORD or specialise hv::convert");
        return convert<T>::fromValue(*this);
    }
    /** The value converted to T, or std::nullopt when it does not convert. */
    template <class T> std::optional<T> tryAs() const {
        try {
            return as<T>();
        } catch (const ConversionError &) {
            return std::nullopt;
        }
    }
    /** Stores the value converted to T in out; throws as as<T>() does (out is then unchanged). */
    template <class T> void getTo(T &out) const { out = as<T>(); }

    /** The runtime's readable description (what RtCopyDescription gives), as UTF-8. */
    std::string description() const;
    /** The name of a kind, as the error messages use it ("integer", "dictionary", ...). */
    static const char *kindName(Kind kind) noexcept;

    /** Equal values (RtEqual): same kind and contents; two absent values are equal. */
    friend bool operator==(const Value &a, const Value &b) noexcept { return equal(a, b); }
    /** Not equal. */
    friend bool operator!=(const Value &a, const Value &b) noexcept { return !equal(a, b); }

  private:
    explicit Value(Ref<RtTypeRef> object) noexcept : fObject(std::move(object)) {}
    static bool equal(const Value &a, const Value &b) noexcept;

    Ref<RtTypeRef> fObject;
};

/** Prints the value's description (as the runtime prints it), "(absent)" for an absent value. */
HV_API std::ostream &operator<<(std::ostream &out, const Value &value);

// ---- Record ---------------------------------------------------------------------------------

/** A dictionary whose members keep the order they were set in, which is the order they go out
 * on the wire. Setting an existing name replaces its value in place. */
class HV_API Record {
  public:
    /** One member: its name and value. */
    using Member = std::pair<std::string, Value>;

    /** An empty record. */
    Record() = default;
    /** The members in the order given (a repeated name keeps its first place, last value). */
    Record(std::initializer_list<Member> members);

    /** Sets member name to value, in place when present, at the end when not. */
    Record &set(std::string name, Value value);
    /** The value of member name, or nullptr when there is none. */
    const Value *find(std::string_view name) const noexcept;
    /** The value of member name, absent when there is none. */
    Value get(std::string_view name) const;
    /** Removes member name; false when there was none. */
    bool erase(std::string_view name);

    /** The number of members. */
    std::size_t size() const noexcept { return fMembers.size(); }
    /** True when there are no members. */
    bool empty() const noexcept { return fMembers.empty(); }
    /** The first member (members in order). */
    std::vector<Member>::const_iterator begin() const noexcept { return fMembers.begin(); }
    /** Past the last member. */
    std::vector<Member>::const_iterator end() const noexcept { return fMembers.end(); }

    /** Same members with equal values in the same order. */
    friend bool operator==(const Record &a, const Record &b) { return a.fMembers == b.fMembers; }
    /** Not equal. */
    friend bool operator!=(const Record &a, const Record &b) { return !(a == b); }

  private:
    std::vector<Member> fMembers;
};

// ---- The built-in conversions' exported core --------------------------------------------------

/// \cond HV_INTERNAL
namespace detail {
/** A number from a signed integer (32-bit kind when it fits, 64-bit otherwise). */
HV_API Value makeInteger(std::int64_t value);
/** A number from an unsigned integer; OutOfRange past the 64-bit signed range. */
HV_API Value makeUnsigned(std::uint64_t value);
/** A 64-bit floating-point number. */
HV_API Value makeDouble(double value);
/** A string from UTF-8 text; InvalidText when it is not valid UTF-8. */
HV_API Value makeString(std::string_view utf8);
/** A string from a C string; Absent for a null pointer. */
HV_API Value makeCString(const char *utf8);
/** A date from seconds since 1970-01-01 GMT; OutOfRange outside the years 1 to 9999. */
HV_API Value makeDate(double secondsSince1970);
/** Data holding a copy of size bytes. */
HV_API Value makeData(const std::byte *bytes, std::size_t size);

/** The boolean held; WrongKind for any other kind. */
HV_API bool readBool(const Value &value);
/** The integer held, checked against [min, max]; WrongKind for a non-integer. */
HV_API std::int64_t readInteger(const Value &value, std::int64_t min, std::int64_t max);
/** The integer held, checked against [0, max]. */
HV_API std::uint64_t readUnsigned(const Value &value, std::uint64_t max);
/** The number held (integers widen); WrongKind for any other kind. */
HV_API double readDouble(const Value &value);
/** The number held as a float; OutOfRange when a finite number is beyond float's range. */
HV_API float readFloat(const Value &value);
/** The text of a string as UTF-8. */
HV_API std::string readString(const Value &value);
/** The seconds since 1970-01-01 GMT of a date. */
HV_API double readDate(const Value &value);
/** The bytes of data. */
HV_API std::vector<std::byte> readData(const Value &value);
/** Throws WrongKind unless value is of kind expected; for says what was being converted. */
HV_API void requireKind(const Value &value, Value::Kind expected, const char *forWhat = nullptr);
/** Throws OutOfRange: detail says what did not fit. */
[[noreturn]] HV_API void throwOutOfRange(const std::string &detail);

/** Builds an array element by element (absent elements are refused). */
class HV_API ArrayBuilder {
  public:
    explicit ArrayBuilder(std::size_t capacity);
    /** Appends value; Absent error for an absent value. */
    void append(const Value &value);
    /** The array built. */
    Value finish();

  private:
    Ref<RtMutableArrayRef> fArray;
};

/** Builds a dictionary member by member, in order; absent values are left out. */
class HV_API DictionaryBuilder {
  public:
    explicit DictionaryBuilder(std::size_t capacity);
    /** Sets name (UTF-8) to value. */
    void set(std::string_view name, const Value &value);
    /** Sets a runtime string key to value. */
    void set(RtStringRef name, const Value &value);
    /** The dictionary built. */
    Value finish();

  private:
    Ref<RtMutableDictionaryRef> fDictionary;
};

/** Calls f(name, element) for every member of a dictionary (string keys; a key of another kind
 * is an error), in order, and f(index, element) for every element of an array. */
HV_API void forEachMember(const Value &dictionary,
                          void (*f)(void *context, std::string &&name, Value &&member), void *context);
HV_API void forEachElement(const Value &array, void (*f)(void *context, std::size_t index, Value &&element),
                           void *context);

/** Runs f, putting prefix and segment in front of the path of a ConversionError it throws. */
template <class F> decltype(auto) withPath(F &&f, const char *prefix, std::string_view segment) {
    try {
        return f();
    } catch (ConversionError &error) {
        error.prependPath(std::string(prefix) + std::string(segment));
        throw;
    }
}
inline std::string indexSegment(std::size_t index) {
    return "[" + std::to_string(index) + "]";
}

/** Writes one record (HV_RECORD): members in macro order, absent ones left out. */
class HV_API RecordWriter {
  public:
    explicit RecordWriter(std::size_t count) : fBuilder(count) {}
    template <class F> void put(RtStringRef key, const char *name, const F &field) {
        Value value;
        try {
            value = convert<F>::toValue(field);
        } catch (ConversionError &error) {
            error.prependPath(std::string(".") + name);
            throw;
        }
        fBuilder.set(key, value);
    }
    Value finish() { return fBuilder.finish(); }

  private:
    DictionaryBuilder fBuilder;
};

template <class T> struct IsOptional : std::false_type {};
template <class T> struct IsOptional<std::optional<T>> : std::true_type {};

/** Reads one record (HV_RECORD): members by name. */
class HV_API RecordReader {
  public:
    /** Checks that in is a dictionary; type names the record in messages. keepDefaults: a
     * missing member leaves the field as it is instead of failing. */
    RecordReader(const Value &in, const char *type, bool keepDefaults);
    template <class F> void get(RtStringRef key, const char *name, F &field) {
        RtTypeRef member = lookUp(key);
        if (!member) {
            if (fKeepDefaults) return;
            if constexpr (IsOptional<F>::value)
                field.reset();
            else
                missing(name);
            return;
        }
        try {
            field = convert<F>::fromValue(Value::retain(member));
        } catch (ConversionError &error) {
            error.prependPath(std::string(".") + name);
            throw;
        }
    }

  private:
    RtTypeRef lookUp(RtStringRef key) const noexcept;
    [[noreturn]] void missing(const char *name) const;

    RtDictionaryRef fDictionary;
    const char *fType;
    bool fKeepDefaults;
};
} // namespace detail
/// \endcond

// ---- Built-in conversions -------------------------------------------------------------------

/** Values convert to themselves. */
template <> struct convert<Value> {
    /** Converts to a Value. */
    static Value toValue(const Value &value) { return value; }
    /** Converts from a Value. */
    static Value fromValue(const Value &value) { return value; }
};

/** The ADL customisation point: toValue/fromValue beside T (HV_RECORD writes them). */
template <class T, class Enable> struct convert {
    /** Converts to a Value. */
    template <class U = T> static auto toValue(const U &in) -> decltype(detail::adl::callToValue(in)) {
        return detail::adl::callToValue(in);
    }
    /** Converts from a Value. */
    template <class U = T>
    static auto fromValue(const Value &in)
        -> decltype(detail::adl::callFromValue(in, std::declval<U &>()), U()) {
        U out{};
        detail::adl::callFromValue(in, out);
        return out;
    }
};

/** bool: the boolean kind only. */
template <> struct convert<bool> {
    /** Converts to a Value. */
    static Value toValue(bool value) noexcept;
    /** Converts from a Value. */
    static bool fromValue(const Value &value) { return detail::readBool(value); }
};

/** The integer types: range-checked both ways. */
template <class T> struct convert<T, std::enable_if_t<detail::kIsInteger<T>>> {
    /** Converts to a Value. */
    static Value toValue(T value) {
        if constexpr (std::is_signed_v<T>)
            return detail::makeInteger(static_cast<std::int64_t>(value));
        else
            return detail::makeUnsigned(static_cast<std::uint64_t>(value));
    }
    /** Converts from a Value. */
    static T fromValue(const Value &value) {
        if constexpr (std::is_signed_v<T>)
            return static_cast<T>(
                detail::readInteger(value, std::numeric_limits<T>::min(), std::numeric_limits<T>::max()));
        else
            return static_cast<T>(detail::readUnsigned(value, std::numeric_limits<T>::max()));
    }
};

/** double: from integers too. */
template <> struct convert<double> {
    /** Converts to a Value. */
    static Value toValue(double value) { return detail::makeDouble(value); }
    /** Converts from a Value. */
    static double fromValue(const Value &value) { return detail::readDouble(value); }
};

/** float: written as a double; read back only when the double is within float's range. */
template <> struct convert<float> {
    /** Converts to a Value. */
    static Value toValue(float value) { return detail::makeDouble(value); }
    /** Converts from a Value. */
    static float fromValue(const Value &value) { return detail::readFloat(value); }
};

/** std::string: UTF-8 text, checked on the way in. */
template <> struct convert<std::string> {
    /** Converts to a Value. */
    static Value toValue(const std::string &value) { return detail::makeString(value); }
    /** Converts from a Value. */
    static std::string fromValue(const Value &value) { return detail::readString(value); }
};

/** std::string_view: in only (a view could not outlive the value it was read from). */
template <> struct convert<std::string_view> {
    /** Converts to a Value. */
    static Value toValue(std::string_view value) { return detail::makeString(value); }
};

/** C strings: in only; a null pointer is an error. */
template <> struct convert<const char *> {
    /** Converts to a Value. */
    static Value toValue(const char *value) { return detail::makeCString(value); }
};
/** C strings: in only; a null pointer is an error. */
template <> struct convert<char *> {
    /** Converts to a Value. */
    static Value toValue(const char *value) { return detail::makeCString(value); }
};

/** Time points of the system clock: dates of the years 1 to 9999 (GMT). */
template <class Duration> struct convert<std::chrono::time_point<std::chrono::system_clock, Duration>> {
    /** The time point type. */
    using TimePoint = std::chrono::time_point<std::chrono::system_clock, Duration>;
    /** Converts to a Value. */
    static Value toValue(const TimePoint &value) {
        return detail::makeDate(std::chrono::duration<double>(value.time_since_epoch()).count());
    }
    /** Converts from a Value. */
    static TimePoint fromValue(const Value &value) {
        std::chrono::duration<double> seconds(detail::readDate(value));
        if (seconds > std::chrono::duration<double>(Duration::max()) ||
            seconds < std::chrono::duration<double>(Duration::min()))
            detail::throwOutOfRange("the date does not fit this time point's range");
        if constexpr (std::chrono::treat_as_floating_point_v<typename Duration::rep>)
            return TimePoint(std::chrono::duration_cast<Duration>(seconds));
        else
            return TimePoint(std::chrono::round<Duration>(seconds));
    }
};

/** std::vector<std::byte>: data (base64 on the wire). */
template <> struct convert<std::vector<std::byte>> {
    /** Converts to a Value. */
    static Value toValue(const std::vector<std::byte> &value) {
        return detail::makeData(value.data(), value.size());
    }
    /** Converts from a Value. */
    static std::vector<std::byte> fromValue(const Value &value) { return detail::readData(value); }
};

/** std::vector<T>: arrays, element by element. */
template <class T, class A> struct convert<std::vector<T, A>> {
    /** Converts to a Value. */
    template <class U = T, std::enable_if_t<detail::kHasToValue<U>, int> = 0>
    static Value toValue(const std::vector<U, A> &value) {
        detail::ArrayBuilder builder(value.size());
        for (std::size_t i = 0; i < value.size(); i++)
            detail::withPath([&] { builder.append(convert<U>::toValue(value[i])); }, "",
                             detail::indexSegment(i));
        return builder.finish();
    }
    /** Converts from a Value. */
    template <class U = T, std::enable_if_t<detail::kHasFromValue<U>, int> = 0>
    static std::vector<U, A> fromValue(const Value &value) {
        std::vector<U, A> out;
        out.reserve(value.size());
        detail::forEachElement(
            value,
            [](void *context, std::size_t index, Value &&element) {
                auto &target = *static_cast<std::vector<U, A> *>(context);
                detail::withPath([&] { target.push_back(convert<U>::fromValue(element)); }, "",
                                 detail::indexSegment(index));
            },
            &out);
        return out;
    }
};

/** std::map<std::string, T>: dictionaries (written in the map's key order). */
template <class T, class C, class A> struct convert<std::map<std::string, T, C, A>> {
    /** The map type. */
    using Map = std::map<std::string, T, C, A>;
    /** Converts to a Value. */
    template <class U = T, std::enable_if_t<detail::kHasToValue<U>, int> = 0>
    static Value toValue(const std::map<std::string, U, C, A> &value) {
        detail::DictionaryBuilder builder(value.size());
        for (const auto &member : value)
            builder.set(member.first, detail::withPath([&] { return convert<U>::toValue(member.second); },
                                                       ".", member.first));
        return builder.finish();
    }
    /** Converts from a Value. */
    template <class U = T, std::enable_if_t<detail::kHasFromValue<U>, int> = 0>
    static std::map<std::string, U, C, A> fromValue(const Value &value) {
        Map out;
        detail::forEachMember(
            value,
            [](void *context, std::string &&name, Value &&member) {
                auto &target = *static_cast<Map *>(context);
                U converted = detail::withPath([&] { return convert<U>::fromValue(member); }, ".", name);
                target.insert_or_assign(std::move(name), std::move(converted));
            },
            &out);
        return out;
    }
};

/** Record: dictionaries, members in order. */
template <> struct HV_API convert<Record> {
    /** Converts to a Value. */
    static Value toValue(const Record &value);
    /** Converts from a Value. */
    static Record fromValue(const Value &value);
};

/** std::optional<T>: absent when empty; an absent or null value reads as std::nullopt. */
template <class T> struct convert<std::optional<T>> {
    /** Converts to a Value. */
    template <class U = T, std::enable_if_t<detail::kHasToValue<U>, int> = 0>
    static Value toValue(const std::optional<U> &value) {
        return value ? convert<U>::toValue(*value) : Value();
    }
    /** Converts from a Value. */
    template <class U = T, std::enable_if_t<detail::kHasFromValue<U>, int> = 0>
    static std::optional<U> fromValue(const Value &value) {
        if (value.isAbsent() || value.isNull()) return std::nullopt;
        return convert<U>::fromValue(value);
    }
};

inline Value::Value(std::nullptr_t) noexcept : fObject(hv::retain<RtTypeRef>(kRtNull)) {}
inline Value Value::adopt(RtTypeRef object) noexcept {
    return Value(hv::adopt(object));
}
inline Value Value::retain(RtTypeRef object) noexcept {
    return Value(hv::retain(object));
}
inline Value Value::null() noexcept {
    return Value(nullptr);
}
inline Value convert<bool>::toValue(bool value) noexcept {
    return Value::retain(value ? kRtBooleanTrue : kRtBooleanFalse);
}

} // namespace v1
} // namespace hv

#endif
