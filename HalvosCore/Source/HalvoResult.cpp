// The result record: the method's value or a fault, and the stream-error fault forms.
#include "HalvoResult.h"

#include "CPlusAutoTypes.h"

#include <cstdio>
#include <vector>

RtStringRef HalvoResult::isFaultKey() {
    return RTSTR("/kHVResultIsFault");
}

HalvoResult::HalvoResult() : fResult(newMutableDict()) {}

HalvoResult::~HalvoResult() {
    validateDictionary(fResult);
    RtRelease(fResult);
}

void HalvoResult::addToResult(RtStringRef key, RtTypeRef value) {
    // A NULL value (say, text a peer sent in an undecodable encoding) is skipped rather than
    // stored: a dictionary cannot hold one.
    if (key && value) RtDictionarySetValue(fResult, key, value);
}

void HalvoResult::addNumberToResult(RtStringRef key, int32_t number) {
    RtNumberRef n = RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt32Type, &number);
    addToResult(key, n);
    safeRtRelease(n);
}

void HalvoResult::restore(RtDictionaryRef saved) {
    RtDictionaryRemoveAllValues(fResult);
    RtDictionaryApplyFunction(
        saved,
        [](const void *key, const void *value, void *result) {
            RtDictionarySetValue(static_cast<RtMutableDictionaryRef>(result), key, value);
        },
        fResult);
}

void HalvoResult::becomeFault() {
    addToResult(isFaultKey(), kRtBooleanTrue);
}

void HalvoResult::becomeFault(const RtStreamError &streamError) {
    becomeFault(RTSTR("Stream Error"), streamError);
}

void HalvoResult::becomeFault(RtStringRef message) {
    // Domain 2 is the platform's OS-status domain; the error repeats the fault code.
    RtStreamError err = {kRtStreamErrorDomainOSStatus, kStreamFaultCode};
    becomeFault(message, err);
}

void HalvoResult::becomeFault(RtStringRef message, const RtStreamError &streamError) {
    becomeFault();
    setFaultString(kHVNetworkStreamFaultString);
    setFaultCode(kStreamFaultCode);
    RtDictionaryRef extra = copyStreamErrorDict(message, streamError.domain, streamError.error);
    setFaultExtra(extra);
    safeRtRelease(extra);
}

void HalvoResult::becomeFault(RtStringRef faultString, int32_t faultCode, RtDataRef data,
                              RtStringEncoding encoding) {
    becomeFault();
    setFaultString(faultString);
    setFaultCode(faultCode);
    if (data) {
        RtStringRef text = RtStringCreateWithBytes(kRtAllocatorDefault, RtDataGetBytePtr(data),
                                                   RtDataGetLength(data), encoding, false);
        setFaultExtra(text);
        safeRtRelease(text);
    }
}

void HalvoResult::addFaultDetail(RtStringRef detail) {
    RtTypeRef extra = RtDictionaryGetValue(fResult, kHVFaultExtra);
    if (!detail || RtGetTypeID(extra) != RtDictionaryGetTypeID()) return;
    RtMutableDictionaryRef withDetail =
        RtDictionaryCreateMutableCopy(kRtAllocatorDefault, 0, static_cast<RtDictionaryRef>(extra));
    if (!withDetail) return;
    RtDictionarySetValue(withDetail, kHVStreamErrorDetail, detail);
    setFaultExtra(withDetail);
    RtRelease(withDetail);
}

bool HalvoResult::isFault() const {
    return RtDictionaryGetValue(fResult, isFaultKey()) == kRtBooleanTrue;
}

RtDictionaryRef HalvoResult::copyDictionary() const {
    return RtDictionaryCreateCopy(kRtAllocatorDefault, fResult);
}

RtDictionaryRef HalvoResult::copyStreamErrorDict(RtStringRef message, RtIndex domain, int32_t error) {
    int32_t domain32 = static_cast<int32_t>(domain);
    AutoScalar domainNumber(RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt32Type, &domain32));
    AutoScalar errorNumber(RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt32Type, &error));
    // A NULL message ends the argument list after the first key: the dictionary is then empty.
    return rtTypeCreateDictionary(nullptr, kHVStreamErrorMessage, message, kHVStreamErrorDomain,
                                  domainNumber.getRef(), kHVStreamErrorError, errorNumber.getRef(), nullptr);
}

void HalvoResult::validateDictionary(RtDictionaryRef dict) {
    RtIndex count = dict ? RtDictionaryGetCount(dict) : 0;
    if (count <= 0) return;
    const void *smallKeys[16];
    const void *smallValues[16];
    std::vector<const void *> bigKeys, bigValues;
    const void **keys = smallKeys;
    const void **values = smallValues;
    if (count > 16) {
        bigKeys.resize(static_cast<size_t>(count));
        bigValues.resize(static_cast<size_t>(count));
        keys = bigKeys.data();
        values = bigValues.data();
    }
    RtDictionaryGetKeysAndValues(dict, keys, values);
    for (RtIndex i = 0; i < count; i++) {
        if (RtGetRetainCount(keys[i]) < 1)
            fprintf(stderr, "bad dictionary key @ %d (0x%p) \n", static_cast<int>(i), keys[i]);
        if (RtGetRetainCount(values[i]) < 1)
            fprintf(stderr, "bad dictionary value @ %d (0x%p) \n", static_cast<int>(i), values[i]);
    }
}
