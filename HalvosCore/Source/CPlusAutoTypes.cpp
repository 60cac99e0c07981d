// Owning wrappers of runtime values, iterators and small value helpers.
#include "CPlusAutoTypes.h"

#include <cstdlib>
#include <atomic>
#include <vector>

RtStringRef rtCreateString(const char *format, va_list arguments) {
    // Formats are literals: interning them costs one lookup and lets the runtime keep their
    // parse, where a temporary string would be parsed again on every call.
    RtStringRef fmt = __RtStringMakeConstantString(format);
    return RtStringCreateWithFormatAndArguments(kRtAllocatorDefault, nullptr, fmt, arguments);
}

// ---- AutoString ------------------------------------------------------------------------------

AutoString::AutoString(RtStringRef str) : fString(str) {
    safeRtRetain(fString);
}

AutoString::AutoString(const AutoString &other) : AutoCountable(), fString(other.fString) {
    safeRtRetain(fString);
}

AutoString::AutoString(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    fString = rtCreateString(format, ap);
    va_end(ap);
}

AutoString::~AutoString() {
    safeRtRelease(fString);
}

RtStringRef AutoString::getRetainedString() const {
    return static_cast<RtStringRef>(safeRtRetain(fString));
}

void AutoString::setString(RtStringRef str) {
    // Retain first: str may be the string already held.
    safeRtRetain(str);
    safeRtRelease(fString);
    fString = str;
}

void AutoString::append(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    RtStringRef tail = rtCreateString(format, ap);
    va_end(ap);
    if (!fString) {
        fString = tail;
        return;
    }
    RtStringRef joined = RtStringCreateWithFormat(kRtAllocatorDefault, nullptr, RTSTR("%@%@"), fString, tail);
    RtRelease(fString);
    RtRelease(tail);
    fString = joined;
}

// ---- AutoScalar ------------------------------------------------------------------------------

AutoScalar::AutoScalar(int value) : fRef(RtNumberCreate(kRtAllocatorDefault, kRtNumberIntType, &value)) {}

AutoScalar::AutoScalar(long value) {
    // The long constructor has always made a 32-bit number; keep that on LP64 too.
    int32_t v = static_cast<int32_t>(value);
    fRef = RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt32Type, &v);
}

AutoScalar::AutoScalar(double value)
    : fRef(RtNumberCreate(kRtAllocatorDefault, kRtNumberDoubleType, &value)) {}

AutoScalar::AutoScalar(float value) : fRef(RtNumberCreate(kRtAllocatorDefault, kRtNumberFloatType, &value)) {}

AutoScalar::~AutoScalar() {
    safeRtRelease(fRef);
}

int32_t AutoScalar::toInt() const {
    return getIntValue(fRef);
}

float AutoScalar::toFloat() const {
    float v = 0;
    if (!fRef || !RtNumberGetValue(fRef, kRtNumberFloatType, &v)) return 0;
    return v;
}

double AutoScalar::toDouble() const {
    return getDoubleValue(fRef);
}

// ---- AutoURL ---------------------------------------------------------------------------------

AutoURL::AutoURL(RtStringRef str) : fURL(RtURLCreateWithString(kRtAllocatorDefault, str, nullptr)) {}

AutoURL::AutoURL(const AutoString &str) : AutoURL(str.getString()) {}

AutoURL::AutoURL(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    RtStringRef str = rtCreateString(format, ap);
    va_end(ap);
    fURL = RtURLCreateWithString(kRtAllocatorDefault, str, nullptr);
    safeRtRelease(str);
}

AutoURL::~AutoURL() {
    safeRtRelease(fURL);
}

// ---- AutoArray -------------------------------------------------------------------------------

AutoArray::AutoArray() : fMutableArray(newMutableArray()), fImmutableArray(nullptr) {}

AutoArray::~AutoArray() {
    safeRtRelease(fMutableArray);
    safeRtRelease(fImmutableArray);
}

RtArrayRef AutoArray::getEmptyArray() {
    static const RtMutableArrayRef sEmpty = newMutableArray(); // process-wide, never released
    return sEmpty;
}

RtMutableArrayRef AutoArray::getMutableArray() {
    if (!fMutableArray) {
        if (fImmutableArray) {
            fMutableArray = RtArrayCreateMutableCopy(kRtAllocatorDefault, 0, fImmutableArray);
            RtRelease(fImmutableArray);
            fImmutableArray = nullptr;
        } else {
            fMutableArray = newMutableArray();
        }
    }
    return fMutableArray;
}

RtArrayRef AutoArray::getImmutableArray() const {
    if (fMutableArray) return fMutableArray;
    if (fImmutableArray) return fImmutableArray;
    return getEmptyArray();
}

RtIndex AutoArray::getCount() const {
    return RtArrayGetCount(getImmutableArray());
}

void AutoArray::appendValue(RtTypeRef value) {
    if (value) RtArrayAppendValue(getMutableArray(), value);
}

void AutoArray::appendValue(const AutoCountable &value) {
    appendValue(value.getRef());
}

void AutoArray::appendNonEmpty(const AutoCountable &value) {
    if (!value.isEmpty()) appendValue(value.getRef());
}

RtTypeRef AutoArray::getValueAtIndex(RtIndex idx) const {
    return RtArrayGetValueAtIndex(getImmutableArray(), idx);
}

RtTypeRef AutoArray::copyValueAtIndex(RtIndex idx) const {
    return safeRtRetain(getValueAtIndex(idx));
}

bool AutoArray::isEmpty() const {
    RtArrayRef a = fMutableArray ? fMutableArray : fImmutableArray;
    return !a || RtArrayGetCount(a) == 0;
}

// ---- AutoDict --------------------------------------------------------------------------------

AutoDict::AutoDict(RtDictionaryRef dict)
    : fImmutableDict(static_cast<RtDictionaryRef>(safeRtRetain(dict))), fMutableDict(nullptr) {}

AutoDict::AutoDict(const AutoDict &other)
    : AutoCountable(), fImmutableDict(static_cast<RtDictionaryRef>(safeRtRetain(other.getImmutableDict()))),
      fMutableDict(nullptr) {}

AutoDict::~AutoDict() {
    safeRtRelease(fImmutableDict);
    safeRtRelease(fMutableDict);
}

RtDictionaryRef AutoDict::getEmptyDictionary() {
    static const RtMutableDictionaryRef sEmpty = newMutableDict(); // process-wide, never released
    return sEmpty;
}

RtMutableDictionaryRef AutoDict::getMutableDict() {
    if (!fMutableDict) {
        if (fImmutableDict) {
            fMutableDict = RtDictionaryCreateMutableCopy(kRtAllocatorDefault, 0, fImmutableDict);
            RtRelease(fImmutableDict);
            fImmutableDict = nullptr;
        } else {
            fMutableDict = newMutableDict();
        }
    }
    return fMutableDict;
}

RtDictionaryRef AutoDict::getImmutableDict() const {
    if (fMutableDict) return fMutableDict;
    if (fImmutableDict) return fImmutableDict;
    return getEmptyDictionary();
}

RtTypeRef AutoDict::getValue(RtStringRef key) const {
    RtDictionaryRef d = fMutableDict ? fMutableDict : fImmutableDict;
    return d && key ? RtDictionaryGetValue(d, key) : nullptr;
}

RtIndex AutoDict::getCount() const {
    return RtDictionaryGetCount(getImmutableDict());
}

RtDictionaryRef AutoDict::copyDict() const {
    return RtDictionaryCreateCopy(kRtAllocatorDefault, getImmutableDict());
}

void AutoDict::addValue(RtStringRef key, RtTypeRef value) {
    if (value) RtDictionarySetValue(getMutableDict(), key, value);
}

void AutoDict::addNonEmpty(const AutoString &key, const AutoCountable &value) {
    if (!value.isEmpty()) addValue(key.getString(), value.getRef());
}

bool AutoDict::isEmpty() const {
    RtDictionaryRef d = fMutableDict ? fMutableDict : fImmutableDict;
    return !d || RtDictionaryGetCount(d) == 0;
}

// ---- Iterators -------------------------------------------------------------------------------

ArrayIterator::ArrayIterator(const AutoArray &array) : ArrayIterator(array.getImmutableArray()) {}

ArrayIterator::ArrayIterator(RtArrayRef array)
    : fIndex(0), fCount(array ? static_cast<int32_t>(RtArrayGetCount(array)) : 0),
      fArray(static_cast<RtArrayRef>(safeRtRetain(array))) {}

ArrayIterator::~ArrayIterator() {
    safeRtRelease(fArray);
}

RtTypeRef ArrayIterator::nextElement() {
    if (fIndex >= fCount) return nullptr;
    return RtArrayGetValueAtIndex(fArray, fIndex++);
}

DictIterator::DictIterator(const AutoDict &dict) {
    setup(dict.getImmutableDict());
}

DictIterator::DictIterator(RtDictionaryRef dict) {
    setup(dict);
}

void DictIterator::setup(RtDictionaryRef dict) {
    fIndex = 0;
    fDict = static_cast<RtDictionaryRef>(safeRtRetain(dict));
    fCount = dict ? static_cast<int32_t>(RtDictionaryGetCount(dict)) : 0;
    fKeys = nullptr;
    if (fCount > 0) {
        fKeys = static_cast<const void **>(malloc(sizeof(void *) * static_cast<size_t>(fCount)));
        RtDictionaryGetKeysAndValues(dict, fKeys, nullptr);
    }
}

DictIterator::~DictIterator() {
    safeRtRelease(fDict);
    free(fKeys);
}

RtTypeRef DictIterator::nextElement() {
    return fIndex < fCount ? fKeys[fIndex++] : nullptr;
}

RtTypeRef DictIterator::getValue(RtTypeRef key) const {
    return key && fDict ? RtDictionaryGetValue(fDict, key) : nullptr;
}

// ---- Free functions --------------------------------------------------------------------------

RtMutableDictionaryRef newMutableDict() {
    return RtDictionaryCreateMutable(kRtAllocatorDefault, 0, &kRtCopyStringDictionaryKeyCallBacks,
                                     &kRtTypeDictionaryValueCallBacks);
}

RtMutableArrayRef newMutableArray() {
    return RtArrayCreateMutable(kRtAllocatorDefault, 0, &kRtTypeArrayCallBacks);
}

// Collects the variadic arguments up to the first NULL.
static std::vector<const void *> collectUntilNull(va_list ap) {
    std::vector<const void *> out;
    for (const void *v = va_arg(ap, const void *); v; v = va_arg(ap, const void *))
        out.push_back(v);
    return out;
}

RtDictionaryRef rtTypeCreateDictionary(RtDictionaryRef base, ...) {
    va_list ap;
    va_start(ap, base);
    std::vector<const void *> args = collectUntilNull(ap);
    va_end(ap);
    RtMutableDictionaryRef dict =
        base ? RtDictionaryCreateMutableCopy(kRtAllocatorDefault, 0, base) : newMutableDict();
    size_t pairs = args.size() / 2;
    for (size_t i = 0; i < pairs; i++) {
        const void *key = args[2 * i];
        const void *value = args[2 * i + 1];
        if (!key || !value) {
            RtRelease(dict);
            return nullptr;
        }
        RtDictionarySetValue(dict, key, value);
    }
    return dict;
}

RtArrayRef rtTypeCreateArray(RtArrayRef base, ...) {
    va_list ap;
    va_start(ap, base);
    std::vector<const void *> args = collectUntilNull(ap);
    va_end(ap);
    RtMutableArrayRef array =
        base ? RtArrayCreateMutableCopy(kRtAllocatorDefault, 0, base) : newMutableArray();
    for (const void *v : args)
        RtArrayAppendValue(array, v);
    return array;
}

RtArrayRef copyDictionaryKeys(RtDictionaryRef dict) {
    RtIndex count = dict ? RtDictionaryGetCount(dict) : 0;
    if (count <= 0) return static_cast<RtArrayRef>(RtRetain(AutoArray::getEmptyArray()));
    std::vector<const void *> keys(static_cast<size_t>(count));
    RtDictionaryGetKeysAndValues(dict, keys.data(), nullptr);
    return RtArrayCreate(kRtAllocatorDefault, keys.data(), count, &kRtTypeArrayCallBacks);
}

RtNumberRef internedInt(int i) {
    // Each made on first use and never released. Threads that reach an empty slot at the same
    // moment each make a number; the first to store it wins and the others release theirs.
    static std::atomic<RtNumberRef> sInterned[15];
    // Callers pass small constants (-3 through 11); there is deliberately no bounds check.
    std::atomic<RtNumberRef> &slot = sInterned[i + 3];
    RtNumberRef number = slot.load(std::memory_order_acquire);
    if (number) return number;
    RtNumberRef fresh = RtNumberCreate(kRtAllocatorDefault, kRtNumberIntType, &i);
    if (slot.compare_exchange_strong(number, fresh, std::memory_order_acq_rel)) return fresh;
    safeRtRelease(fresh);
    return number;
}

int32_t getIntValue(RtNumberRef number) {
    int32_t v = 0;
    if (!number || !RtNumberGetValue(number, kRtNumberSInt32Type, &v)) return 0;
    return v;
}

double getDoubleValue(RtNumberRef number) {
    double v = 0;
    if (!number || !RtNumberGetValue(number, kRtNumberDoubleType, &v)) return 0;
    return v;
}
