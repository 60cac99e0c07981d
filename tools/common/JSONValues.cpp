#include "JSONValues.h"
#include "ToolStrings.h"

#include <nlohmann/json.hpp>

#include <cctype>
#include <cmath>

namespace hvtools {

// Objects keep their key order, as the dictionaries they become do.
using Json = nlohmann::ordered_json;

namespace {

const char kDateTag[] = "$date";
const char kDataTag[] = "$base64";

// True for "YYYY-MM-DD", "YYYYMMDD", optionally followed by "T" and a time: enough to refuse
// text that the lenient date reader would quietly turn into the year 0.
bool looksLikeISO8601Date(const std::string &text) {
    int digits = 0;
    size_t i = 0;
    for (; i < text.size() && digits < 8; i++) {
        if (std::isdigit(static_cast<unsigned char>(text[i])))
            digits++;
        else if (text[i] != '-' || digits == 0)
            return false;
    }
    return digits == 8 && (i == text.size() || text[i] == 'T');
}

// A tagged object is an object of exactly one member named by a tag, holding a string.
bool isTagged(const Json &json, const char *tag) {
    return json.is_object() && json.size() == 1 && json.begin().key() == tag && json.begin()->is_string();
}

RtTypeRef createValue(const Json &json, int depth, std::string &error);

RtTypeRef createArray(const Json &json, int depth, std::string &error) {
    RtMutableArrayRef array = RtArrayCreateMutable(kRtAllocatorDefault, 0, &kRtTypeArrayCallBacks);
    for (const Json &element : json) {
        RtTypeRef value = createValue(element, depth + 1, error);
        if (!value) {
            RtRelease(array);
            return nullptr;
        }
        RtArrayAppendValue(array, value);
        RtRelease(value);
    }
    return array;
}

RtTypeRef createDictionary(const Json &json, int depth, std::string &error) {
    RtMutableDictionaryRef dictionary = RtDictionaryCreateMutable(
        kRtAllocatorDefault, 0, &kRtCopyStringDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
    for (auto member = json.begin(); member != json.end(); ++member) {
        RtStringRef key = createString(member.key());
        RtTypeRef value = key ? createValue(member.value(), depth + 1, error) : nullptr;
        if (key && value) RtDictionarySetValue(dictionary, key, value);
        RtRelease(key);
        RtRelease(value);
        if (!key || !value) {
            if (error.empty()) error = "a key is not valid UTF-8";
            RtRelease(dictionary);
            return nullptr;
        }
    }
    return dictionary;
}

RtTypeRef createValue(const Json &json, int depth, std::string &error) {
    if (depth > kJSONMaxDepth) {
        error = "nested deeper than " + std::to_string(kJSONMaxDepth) + " levels";
        return nullptr;
    }
    switch (json.type()) {
    case Json::value_t::null:
        return kRtNull;
    case Json::value_t::boolean:
        return json.get<bool>() ? kRtBooleanTrue : kRtBooleanFalse;
    case Json::value_t::number_integer:
        return createInteger(json.get<int64_t>());
    case Json::value_t::number_unsigned:
        if (json.get<uint64_t>() > uint64_t(INT64_MAX)) {
            error = "the integer " + json.dump() + " does not fit in 64 bits";
            return nullptr;
        }
        return createInteger(json.get<int64_t>());
    case Json::value_t::number_float: {
        double value = json.get<double>();
        return RtNumberCreate(kRtAllocatorDefault, kRtNumberFloat64Type, &value);
    }
    case Json::value_t::string: {
        RtStringRef string = createString(json.get_ref<const std::string &>());
        if (!string) error = "a string is not valid UTF-8";
        return string;
    }
    case Json::value_t::array:
        return createArray(json, depth, error);
    case Json::value_t::object:
        if (isTagged(json, kDateTag)) {
            const std::string &text = json.begin()->get_ref<const std::string &>();
            if (!looksLikeISO8601Date(text)) {
                error = "\"" + text + "\" is not an ISO 8601 date such as 2001-12-31T23:59:07Z";
                return nullptr;
            }
            return hvCreateDateFromISO8601(text.data(), static_cast<RtIndex>(text.size()));
        }
        if (isTagged(json, kDataTag)) {
            auto bytes = base64Decode(json.begin()->get_ref<const std::string &>());
            if (!bytes) {
                error = "the " + std::string(kDataTag) + " text is not base64";
                return nullptr;
            }
            return RtDataCreate(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(bytes->data()),
                                static_cast<RtIndex>(bytes->size()));
        }
        return createDictionary(json, depth, error);
    default: // binary and discarded values never come out of the text parser
        error = "unsupported JSON value";
        return nullptr;
    }
}

Json toJson(RtTypeRef value, int depth) {
    if (!value) return nullptr;
    if (depth > kJSONMaxDepth) return "(nested too deeply)";
    RtTypeID type = RtGetTypeID(value);
    if (type == RtStringGetTypeID()) return utf8String(static_cast<RtStringRef>(value));
    if (type == RtBooleanGetTypeID()) return RtBooleanGetValue(static_cast<RtBooleanRef>(value));
    if (type == RtNullGetTypeID()) return nullptr;
    if (type == RtNumberGetTypeID()) {
        RtNumberRef number = static_cast<RtNumberRef>(value);
        if (RtNumberIsFloatType(number)) {
            double d = 0;
            RtNumberGetValue(number, kRtNumberFloat64Type, &d);
            return d;
        }
        int64_t i = 0;
        RtNumberGetValue(number, kRtNumberSInt64Type, &i);
        return i;
    }
    if (type == RtDateGetTypeID()) {
        char text[64];
        hvRtDateToISO8601String(text, sizeof text, static_cast<RtDateRef>(value), false);
        return Json{{kDateTag, text}};
    }
    if (type == RtDataGetTypeID()) {
        RtDataRef data = static_cast<RtDataRef>(value);
        return Json{{kDataTag, base64Encode(RtDataGetBytePtr(data), size_t(RtDataGetLength(data)))}};
    }
    if (type == RtArrayGetTypeID()) {
        RtArrayRef array = static_cast<RtArrayRef>(value);
        Json json = Json::array();
        for (RtIndex i = 0, n = RtArrayGetCount(array); i < n; i++)
            json.push_back(toJson(RtArrayGetValueAtIndex(array, i), depth + 1));
        return json;
    }
    if (type == RtDictionaryGetTypeID()) {
        RtDictionaryRef dictionary = static_cast<RtDictionaryRef>(value);
        std::vector<const void *> keys(size_t(RtDictionaryGetCount(dictionary)));
        std::vector<const void *> values(keys.size());
        RtDictionaryGetKeysAndValues(dictionary, keys.data(), values.data());
        Json json = Json::object();
        for (size_t i = 0; i < keys.size(); i++)
            json[describe(keys[i])] = toJson(values[i], depth + 1);
        return json;
    }
    return describe(value);
}

} // namespace

RtTypeRef createValueFromJSON(const std::string &text, std::string &error) {
    error.clear();
    Json json = Json::parse(text, nullptr, false);
    if (json.is_discarded()) {
        error = "not valid JSON (strings need double quotes: '\"text\"')";
        return nullptr;
    }
    return createValue(json, 1, error);
}

std::string jsonFromValue(RtTypeRef value, int indent) {
    // Invalid UTF-8 cannot come out of runtime strings; replacing keeps dump() from throwing
    // should a description ever carry some.
    return toJson(value, 1).dump(indent, ' ', false, Json::error_handler_t::replace);
}

} // namespace hvtools
