#include "ExampleMethods.h"
#include "ToolStrings.h"

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <mutex>

namespace hvserve {

namespace {

const double kMaxSleepSeconds = 60;

std::mutex gSleepLock;
std::condition_variable gSleepWake;
bool gStopping = false;

using MethodProc = MethodOutcome (*)(const std::vector<RtTypeRef> &params, RtStringRef protocol);

MethodOutcome value(RtTypeRef v) {
    return MethodOutcome{v, nullptr};
}
MethodOutcome fault(int32_t code, const std::string &text) {
    return MethodOutcome{nullptr, createFault(code, text)};
}

bool isNumber(RtTypeRef v) {
    return RtGetTypeID(v) == RtNumberGetTypeID();
}

MethodOutcome echo(const std::vector<RtTypeRef> &params, RtStringRef) {
    if (params.size() == 1) return value(RtRetain(params[0]));
    return value(RtArrayCreate(kRtAllocatorDefault, const_cast<const void **>(params.data()),
                               static_cast<RtIndex>(params.size()), &kRtTypeArrayCallBacks));
}

MethodOutcome add(const std::vector<RtTypeRef> &params, RtStringRef) {
    int64_t integerSum = 0;
    double doubleSum = 0;
    bool anyDouble = false;
    for (RtTypeRef param : params) {
        if (!isNumber(param)) return fault(eFaultBadParameters, "examples.add takes numbers only");
        auto number = static_cast<RtNumberRef>(param);
        double d = 0;
        RtNumberGetValue(number, kRtNumberFloat64Type, &d);
        doubleSum += d;
        if (RtNumberIsFloatType(number)) {
            anyDouble = true;
        } else {
            int64_t i = 0;
            RtNumberGetValue(number, kRtNumberSInt64Type, &i);
            if (__builtin_add_overflow(integerSum, i, &integerSum)) anyDouble = true;
        }
    }
    if (anyDouble) return value(RtNumberCreate(kRtAllocatorDefault, kRtNumberFloat64Type, &doubleSum));
    // Both protocols write integers as 32-bit values; a larger sum would go out as garbage.
    if (integerSum < INT32_MIN || integerSum > INT32_MAX)
        return fault(eFaultBadParameters, "examples.add: the sum does not fit in 32 bits");
    return value(hvtools::createInteger(integerSum));
}

MethodOutcome raiseFault(const std::vector<RtTypeRef> &params, RtStringRef) {
    int32_t code = eFaultDefault;
    std::string text = "examples.fault always fails";
    if (params.size() > 0 && isNumber(params[0]))
        RtNumberGetValue(static_cast<RtNumberRef>(params[0]), kRtNumberSInt32Type, &code);
    if (params.size() > 1 && RtGetTypeID(params[1]) == RtStringGetTypeID())
        text = hvtools::utf8String(static_cast<RtStringRef>(params[1]));
    return fault(code, text);
}

// XML-RPC has no null: its writer would put the null's description where a value goes.
MethodOutcome types(const std::vector<RtTypeRef> &, RtStringRef protocol) {
    return value(createEveryKind(protocol != kHVXMLRPCProtocol));
}

MethodOutcome sleep(const std::vector<RtTypeRef> &params, RtStringRef) {
    double seconds = -1;
    if (params.size() == 1 && isNumber(params[0]))
        RtNumberGetValue(static_cast<RtNumberRef>(params[0]), kRtNumberFloat64Type, &seconds);
    if (!(seconds >= 0 && seconds <= kMaxSleepSeconds))
        return fault(eFaultBadParameters, "examples.sleep takes a number of seconds from 0 to 60");
    std::unique_lock<std::mutex> lock(gSleepLock);
    gSleepWake.wait_for(lock, std::chrono::duration<double>(seconds), [] { return gStopping; });
    return value(RtRetain(params[0]));
}

MethodOutcome listMethods(const std::vector<RtTypeRef> &, RtStringRef);

//                    name                  procedure
const struct {
    const char *fName;
    MethodProc fProc;
} kMethods[] = {
    {"examples.echo", echo},   {"examples.add", add},     {"examples.fault", raiseFault},
    {"examples.types", types}, {"examples.sleep", sleep}, {"system.listMethods", listMethods},
};

MethodOutcome listMethods(const std::vector<RtTypeRef> &, RtStringRef) {
    RtMutableArrayRef names = RtArrayCreateMutable(kRtAllocatorDefault, 0, &kRtTypeArrayCallBacks);
    for (const auto &method : kMethods) {
        RtStringRef name = hvtools::createString(method.fName);
        RtArrayAppendValue(names, name);
        RtRelease(name);
    }
    return value(names);
}

// Sets key to a new value and drops the local reference.
void put(RtMutableDictionaryRef dictionary, const char *key, RtTypeRef v) {
    RtStringRef name = hvtools::createString(key);
    RtDictionarySetValue(dictionary, name, v);
    RtRelease(name);
    RtRelease(v);
}

} // namespace

RtDictionaryRef createFault(int32_t code, const std::string &text) {
    RtMutableDictionaryRef fault = RtDictionaryCreateMutable(
        kRtAllocatorDefault, 0, &kRtCopyStringDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
    RtNumberRef number = RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt32Type, &code);
    RtStringRef string = hvtools::createString(text);
    RtDictionarySetValue(fault, kHVFaultCode, number);
    if (string) RtDictionarySetValue(fault, kHVFaultString, string);
    RtRelease(number);
    RtRelease(string);
    return fault;
}

RtDictionaryRef createEveryKind(bool withNull) {
    RtMutableDictionaryRef all = RtDictionaryCreateMutable(
        kRtAllocatorDefault, 0, &kRtCopyStringDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
    put(all, "string", hvtools::createString("caf\xc3\xa9 <&> \"quoted\""));
    put(all, "integer", hvtools::createInteger(-42));
    double d = 2.5;
    put(all, "double", RtNumberCreate(kRtAllocatorDefault, kRtNumberFloat64Type, &d));
    put(all, "boolean", kRtBooleanTrue);
    static const char kDate[] = "2001-12-31T23:59:07Z";
    put(all, "date", hvCreateDateFromISO8601(kDate, sizeof kDate - 1));
    static const uint8_t kBytes[] = {'M', 'a', 'n', 0x00, 0xff};
    put(all, "data", RtDataCreate(kRtAllocatorDefault, kBytes, sizeof kBytes));

    RtMutableArrayRef array = RtArrayCreateMutable(kRtAllocatorDefault, 0, &kRtTypeArrayCallBacks);
    RtNumberRef one = hvtools::createInteger(1);
    RtStringRef two = hvtools::createString("two");
    RtArrayAppendValue(array, one);
    RtArrayAppendValue(array, two);
    RtArrayAppendValue(array, kRtBooleanFalse);
    RtRelease(one);
    RtRelease(two);
    put(all, "array", array);

    RtMutableDictionaryRef record = RtDictionaryCreateMutable(
        kRtAllocatorDefault, 0, &kRtCopyStringDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
    put(record, "name", hvtools::createString("Ada"));
    put(record, "year", hvtools::createInteger(1815));
    put(all, "struct", record);
    if (withNull) put(all, "null", kRtNull);
    return all;
}

MethodOutcome runMethod(const std::string &name, const std::vector<RtTypeRef> &params, RtStringRef protocol) {
    for (const auto &method : kMethods)
        if (name == method.fName) return method.fProc(params, protocol);
    return fault(eFaultUnknownMethod, "unknown method '" + name + "'");
}

std::vector<MethodInfo> methodList() {
    //                    name                  help
    static const MethodInfo kHelp[] = {
        {"examples.echo", "Returns its parameter; with no or several parameters, the array of them."},
        {"examples.add", "Returns the sum of its numbers: an integer when every one is, else a double."},
        {"examples.fault", "Always answers with a fault: examples.fault(code, string)."},
        {"examples.types", "Returns a struct holding one value of every kind the protocol carries."},
        {"examples.sleep", "Waits the seconds given (0 to 60), then returns them."},
    };
    std::vector<MethodInfo> list;
    for (const auto &method : kMethods) {
        MethodInfo info{method.fName, ""};
        for (const auto &help : kHelp)
            if (strcmp(help.fName, method.fName) == 0) info.fHelp = help.fHelp;
        list.push_back(info);
    }
    return list;
}

void cancelSleeps() {
    {
        std::lock_guard<std::mutex> lock(gSleepLock);
        gStopping = true;
    }
    gSleepWake.notify_all();
}

} // namespace hvserve
