// CPlusValue: the exported core of hv::Value, hv::Record and the built-in conversions. The
// templates in Value.hpp stay thin and call these; everything that touches the runtime is here.
#include <HalvosCore/Value.hpp>

#include <cmath>
#include <cstdio>
#include <limits>
#include <cstring>
#include <ostream>

namespace hv {
inline namespace v1 {

// ---- Errors ---------------------------------------------------------------------------------

Error::Error(const std::string &message) : std::runtime_error(message) {}
Error::~Error() = default;
void Error::raise() const {
    throw *this;
}

namespace {
std::string joinMessage(const std::string &path, const std::string &detail) {
    if (path.empty()) return detail;
    // A path that starts at a member of the value itself reads better without its dot.
    return (path[0] == '.' ? path.substr(1) : path) + ": " + detail;
}
} // namespace

ConversionError::ConversionError(ConversionErrc code, std::string detail, std::string path)
    : Error(joinMessage(path, detail)), fCode(code), fDetail(std::move(detail)), fPath(std::move(path)),
      fMessage(joinMessage(fPath, fDetail)) {}
ConversionError::~ConversionError() = default;

void ConversionError::prependPath(std::string_view segment) {
    fPath.insert(0, segment);
    fMessage = joinMessage(fPath, fDetail);
}

void ConversionError::raise() const {
    throw *this;
}

// ---- Helpers --------------------------------------------------------------------------------

namespace {

// The byte offset of the first byte that breaks UTF-8 (overlong forms, surrogates and code
// points past U+10FFFF included), or npos when the text is valid.
std::size_t firstInvalidUTF8(std::string_view text) {
    const auto *p = reinterpret_cast<const unsigned char *>(text.data());
    std::size_t n = text.size(), i = 0;
    while (i < n) {
        unsigned char c = p[i];
        if (c < 0x80) {
            i++;
            continue;
        }
        std::size_t length;
        uint32_t cp;
        if ((c & 0xE0) == 0xC0) {
            length = 2, cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            length = 3, cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            length = 4, cp = c & 0x07;
        } else {
            return i;
        }
        if (i + length > n) return i;
        for (std::size_t k = 1; k < length; k++) {
            if ((p[i + k] & 0xC0) != 0x80) return i;
            cp = (cp << 6) | (p[i + k] & 0x3F);
        }
        static const uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < kSmallest[length] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return i;
        i += length;
    }
    return std::string_view::npos;
}

// A new runtime string from UTF-8 text; InvalidText when it is not valid UTF-8.
Ref<RtStringRef> createString(std::string_view utf8) {
    std::size_t bad = firstInvalidUTF8(utf8);
    RtStringRef string =
        bad == std::string_view::npos
            ? RtStringCreateWithBytes(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(utf8.data()),
                                      RtIndex(utf8.size()), kRtStringEncodingUTF8, false)
            : nullptr;
    if (!string)
        throw ConversionError(ConversionErrc::InvalidText,
                              "not valid UTF-8 (byte " +
                                  std::to_string(bad == std::string_view::npos ? 0 : bad) + " of " +
                                  std::to_string(utf8.size()) + ")");
    return adopt(string);
}

// The text of a runtime string as UTF-8.
std::string utf8Text(RtStringRef string) {
    RtIndex length = RtStringGetLength(string);
    if (const char *ascii = RtStringGetCStringPtr(string, kRtStringEncodingASCII))
        return std::string(ascii, std::size_t(length));
    RtIndex used = 0;
    RtRange all = RtRangeMake(0, length);
    if (RtStringGetBytes(string, all, kRtStringEncodingUTF8, 0, false, nullptr, 0, &used) != length)
        throw ConversionError(ConversionErrc::InvalidText,
                              "the string holds a lone surrogate, which UTF-8 cannot carry");
    std::string out(std::size_t(used), '\0');
    RtStringGetBytes(string, all, kRtStringEncodingUTF8, 0, false, reinterpret_cast<uint8_t *>(out.data()),
                     used, &used);
    return out;
}

[[noreturn]] void throwWrongKind(Value::Kind expected, const Value &actual, const char *forWhat) {
    std::string detail = std::string("expected ") + Value::kindName(expected);
    if (forWhat) detail += std::string(" (for ") + forWhat + ")";
    detail += std::string(", got ") + Value::kindName(actual.kind());
    if (actual.kind() == Value::Kind::Other) {
        Ref<RtStringRef> name = adopt(RtCopyTypeIDDescription(RtGetTypeID(actual.get())));
        if (name) detail += " (" + utf8Text(name.get()) + ")";
    }
    throw ConversionError(actual.isAbsent() ? ConversionErrc::Absent : ConversionErrc::WrongKind, detail);
}

// The years the wire's dates carry: 0001-01-01T00:00:00Z up to the end of 9999, in seconds
// since 1970.
struct DateLimits {
    double fFirst, fEnd;
};
const DateLimits &dateLimits() {
    static const DateLimits sLimits = [] {
        RtGregorianDate first = {1, 1, 1, 0, 0, 0}, end = {10000, 1, 1, 0, 0, 0};
        return DateLimits{RtGregorianDateGetAbsoluteTime(first) + kRtAbsoluteTimeIntervalSince1970,
                          RtGregorianDateGetAbsoluteTime(end) + kRtAbsoluteTimeIntervalSince1970};
    }();
    return sLimits;
}

} // namespace

// ---- Value ----------------------------------------------------------------------------------

Value::Kind Value::kind() const noexcept {
    if (!fObject) return Kind::Absent;
    switch (HVGetHVTypeIDFromRtType(fObject.get())) {
    case eHVNullType:
        return Kind::Null;
    case eHVBooleanType:
        return Kind::Boolean;
    case eHVIntegerType:
        return Kind::Integer;
    case eHVDoubleType:
        return Kind::Double;
    case eHVStringType:
        return Kind::String;
    case eHVDateType:
        return Kind::Date;
    case eHVDataType:
        return Kind::Data;
    case eHVArrayType:
        return Kind::Array;
    case eHVDictionaryType:
        return Kind::Dictionary;
    default:
        return Kind::Other;
    }
}

bool Value::isNull() const noexcept {
    return fObject.get() == static_cast<RtTypeRef>(kRtNull);
}

std::size_t Value::size() const noexcept {
    RtTypeID type = RtGetTypeID(fObject.get());
    if (type == RtArrayGetTypeID())
        return std::size_t(RtArrayGetCount(static_cast<RtArrayRef>(fObject.get())));
    if (type == RtDictionaryGetTypeID())
        return std::size_t(RtDictionaryGetCount(static_cast<RtDictionaryRef>(fObject.get())));
    return 0;
}

Value Value::operator[](std::size_t index) const {
    detail::requireKind(*this, Kind::Array);
    auto array = static_cast<RtArrayRef>(fObject.get());
    if (index >= std::size_t(RtArrayGetCount(array)))
        throw ConversionError(ConversionErrc::OutOfRange,
                              "index " + std::to_string(index) + " is past the end of " +
                                  std::to_string(RtArrayGetCount(array)) + " elements");
    return retain(RtArrayGetValueAtIndex(array, RtIndex(index)));
}

Value Value::operator[](std::string_view name) const {
    detail::requireKind(*this, Kind::Dictionary);
    Ref<RtStringRef> key = createString(name);
    return retain(RtDictionaryGetValue(static_cast<RtDictionaryRef>(fObject.get()), key.get()));
}

std::string Value::description() const {
    if (!fObject) return "(absent)";
    Ref<RtStringRef> text = hv::adopt(RtCopyDescription(fObject.get()));
    return text ? utf8Text(text.get()) : std::string();
}

const char *Value::kindName(Kind kind) noexcept {
    switch (kind) {
    case Kind::Absent:
        return "no value";
    case Kind::Null:
        return "null";
    case Kind::Boolean:
        return "boolean";
    case Kind::Integer:
        return "integer";
    case Kind::Double:
        return "double";
    case Kind::String:
        return "string";
    case Kind::Date:
        return "date";
    case Kind::Data:
        return "data";
    case Kind::Array:
        return "array";
    case Kind::Dictionary:
        return "dictionary";
    case Kind::Other:
        break;
    }
    return "another kind of object";
}

bool Value::equal(const Value &a, const Value &b) noexcept {
    return RtEqual(a.get(), b.get());
}

std::ostream &operator<<(std::ostream &out, const Value &value) {
    return out << value.description();
}

// ---- Record ---------------------------------------------------------------------------------

Record::Record(std::initializer_list<Member> members) {
    fMembers.reserve(members.size());
    for (const Member &member : members)
        set(member.first, member.second);
}

Record &Record::set(std::string name, Value value) {
    for (Member &member : fMembers)
        if (member.first == name) {
            member.second = std::move(value);
            return *this;
        }
    fMembers.emplace_back(std::move(name), std::move(value));
    return *this;
}

const Value *Record::find(std::string_view name) const noexcept {
    for (const Member &member : fMembers)
        if (member.first == name) return &member.second;
    return nullptr;
}

Value Record::get(std::string_view name) const {
    const Value *value = find(name);
    return value ? *value : Value();
}

bool Record::erase(std::string_view name) {
    for (auto it = fMembers.begin(); it != fMembers.end(); ++it)
        if (it->first == name) {
            fMembers.erase(it);
            return true;
        }
    return false;
}

Value convert<Record>::toValue(const Record &value) {
    detail::DictionaryBuilder builder(value.size());
    for (const Record::Member &member : value)
        builder.set(member.first, member.second);
    return builder.finish();
}

Record convert<Record>::fromValue(const Value &value) {
    Record out;
    detail::forEachMember(
        value,
        [](void *context, std::string &&name, Value &&member) {
            static_cast<Record *>(context)->set(std::move(name), std::move(member));
        },
        &out);
    return out;
}

// ---- Built-in conversions -------------------------------------------------------------------

namespace detail {

Value makeInteger(std::int64_t value) {
    if (value >= INT32_MIN && value <= INT32_MAX) {
        int32_t narrow = int32_t(value);
        return Value::adopt(RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt32Type, &narrow));
    }
    return Value::adopt(RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt64Type, &value));
}

Value makeUnsigned(std::uint64_t value) {
    if (value > std::uint64_t(INT64_MAX))
        throwOutOfRange(std::to_string(value) + " does not fit a 64-bit signed integer");
    return makeInteger(std::int64_t(value));
}

Value makeDouble(double value) {
    return Value::adopt(RtNumberCreate(kRtAllocatorDefault, kRtNumberFloat64Type, &value));
}

Value makeString(std::string_view utf8) {
    return Value::adopt(createString(utf8).release());
}

Value makeCString(const char *utf8) {
    if (!utf8) throw ConversionError(ConversionErrc::Absent, "a null const char* is no string");
    return makeString(utf8);
}

Value makeDate(double secondsSince1970) {
    const DateLimits &limits = dateLimits();
    if (!(secondsSince1970 >= limits.fFirst && secondsSince1970 < limits.fEnd))
        throwOutOfRange("the date lies outside the years 1 to 9999 that the wire's dates carry");
    return Value::adopt(
        RtDateCreate(kRtAllocatorDefault, secondsSince1970 - kRtAbsoluteTimeIntervalSince1970));
}

Value makeData(const std::byte *bytes, std::size_t size) {
    return Value::adopt(
        RtDataCreate(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(bytes), RtIndex(size)));
}

void requireKind(const Value &value, Value::Kind expected, const char *forWhat) {
    if (value.kind() != expected) throwWrongKind(expected, value, forWhat);
}

void throwOutOfRange(const std::string &detail) {
    throw ConversionError(ConversionErrc::OutOfRange, detail);
}

bool readBool(const Value &value) {
    requireKind(value, Value::Kind::Boolean);
    return value.get() == static_cast<RtTypeRef>(kRtBooleanTrue);
}

std::int64_t readInteger(const Value &value, std::int64_t min, std::int64_t max) {
    requireKind(value, Value::Kind::Integer);
    std::int64_t number = 0;
    RtNumberGetValue(static_cast<RtNumberRef>(value.get()), kRtNumberSInt64Type, &number);
    if (number < min || number > max)
        throwOutOfRange(std::to_string(number) + " does not fit the range " + std::to_string(min) + " to " +
                        std::to_string(max));
    return number;
}

std::uint64_t readUnsigned(const Value &value, std::uint64_t max) {
    requireKind(value, Value::Kind::Integer);
    std::int64_t number = 0;
    RtNumberGetValue(static_cast<RtNumberRef>(value.get()), kRtNumberSInt64Type, &number);
    if (number < 0 || std::uint64_t(number) > max)
        throwOutOfRange(std::to_string(number) + " does not fit the range 0 to " + std::to_string(max));
    return std::uint64_t(number);
}

double readDouble(const Value &value) {
    Value::Kind kind = value.kind();
    if (kind == Value::Kind::Integer) {
        std::int64_t number = 0;
        RtNumberGetValue(static_cast<RtNumberRef>(value.get()), kRtNumberSInt64Type, &number);
        return double(number);
    }
    requireKind(value, Value::Kind::Double);
    double number = 0;
    RtNumberGetValue(static_cast<RtNumberRef>(value.get()), kRtNumberFloat64Type, &number);
    return number;
}

float readFloat(const Value &value) {
    double wide = readDouble(value);
    if (std::isfinite(wide) && std::fabs(wide) > double(std::numeric_limits<float>::max())) {
        char text[32];
        std::snprintf(text, sizeof text, "%g", wide);
        throwOutOfRange(std::string(text) + " does not fit a float");
    }
    return float(wide);
}

std::string readString(const Value &value) {
    requireKind(value, Value::Kind::String);
    return utf8Text(static_cast<RtStringRef>(value.get()));
}

double readDate(const Value &value) {
    requireKind(value, Value::Kind::Date);
    return RtDateGetAbsoluteTime(static_cast<RtDateRef>(value.get())) + kRtAbsoluteTimeIntervalSince1970;
}

std::vector<std::byte> readData(const Value &value) {
    requireKind(value, Value::Kind::Data);
    auto data = static_cast<RtDataRef>(value.get());
    const auto *bytes = reinterpret_cast<const std::byte *>(RtDataGetBytePtr(data));
    return std::vector<std::byte>(bytes, bytes + RtDataGetLength(data));
}

ArrayBuilder::ArrayBuilder(std::size_t capacity)
    : fArray(adopt(RtArrayCreateMutable(kRtAllocatorDefault, RtIndex(capacity), &kRtTypeArrayCallBacks))) {}

void ArrayBuilder::append(const Value &value) {
    if (value.isAbsent())
        throw ConversionError(
            ConversionErrc::Absent,
            "an array element cannot be absent (an empty std::optional); use hv::Value::null()");
    RtArrayAppendValue(fArray.get(), value.get());
}

Value ArrayBuilder::finish() {
    return Value::adopt(fArray.release());
}

DictionaryBuilder::DictionaryBuilder(std::size_t capacity)
    : fDictionary(adopt(RtDictionaryCreateMutable(kRtAllocatorDefault, RtIndex(capacity),
                                                  &kRtTypeDictionaryKeyCallBacks,
                                                  &kRtTypeDictionaryValueCallBacks))) {}

void DictionaryBuilder::set(std::string_view name, const Value &value) {
    if (value.isAbsent()) return;
    Ref<RtStringRef> key;
    try {
        key = createString(name);
    } catch (ConversionError &error) {
        error.prependPath(std::string(".") + std::string(name));
        throw;
    }
    RtDictionarySetValue(fDictionary.get(), key.get(), value.get());
}

void DictionaryBuilder::set(RtStringRef name, const Value &value) {
    if (!value.isAbsent()) RtDictionarySetValue(fDictionary.get(), name, value.get());
}

Value DictionaryBuilder::finish() {
    return Value::adopt(fDictionary.release());
}

void forEachMember(const Value &dictionary, void (*f)(void *, std::string &&, Value &&), void *context) {
    requireKind(dictionary, Value::Kind::Dictionary);
    auto dict = static_cast<RtDictionaryRef>(dictionary.get());
    std::size_t count = std::size_t(RtDictionaryGetCount(dict));
    std::vector<const void *> keys(count), values(count);
    RtDictionaryGetKeysAndValues(dict, keys.data(), values.data());
    for (std::size_t i = 0; i < count; i++) {
        if (RtGetTypeID(keys[i]) != RtStringGetTypeID())
            throw ConversionError(ConversionErrc::WrongKind, "a dictionary key is not a string",
                                  "[" + std::to_string(i) + "]");
        std::string name = utf8Text(static_cast<RtStringRef>(keys[i]));
        f(context, std::move(name), Value::retain(values[i]));
    }
}

void forEachElement(const Value &array, void (*f)(void *, std::size_t, Value &&), void *context) {
    requireKind(array, Value::Kind::Array);
    auto list = static_cast<RtArrayRef>(array.get());
    std::size_t count = std::size_t(RtArrayGetCount(list));
    for (std::size_t i = 0; i < count; i++)
        f(context, i, Value::retain(RtArrayGetValueAtIndex(list, RtIndex(i))));
}

RecordReader::RecordReader(const Value &in, const char *type, bool keepDefaults)
    : fDictionary(nullptr), fType(type), fKeepDefaults(keepDefaults) {
    requireKind(in, Value::Kind::Dictionary, type);
    fDictionary = static_cast<RtDictionaryRef>(in.get());
}

RtTypeRef RecordReader::lookUp(RtStringRef key) const noexcept {
    return RtDictionaryGetValue(fDictionary, key);
}

void RecordReader::missing(const char *name) const {
    throw ConversionError(ConversionErrc::MissingMember,
                          std::string("missing member \"") + name + "\" of " + fType);
}

} // namespace detail

} // namespace v1
} // namespace hv
