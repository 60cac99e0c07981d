// HalvoResult: the builder of the one result dictionary every call ends in.
// The transport and the reply parsers write the method's value or a fault into it; a copy of
// the dictionary is delivered once. Owns its mutable dictionary. Used on the thread of the run
// loop that runs the call; no locks.
#pragma once

#include <HalvosCore/HalvosCore.h>

class HalvoResult {
  public:
    HalvoResult();
    HalvoResult(const HalvoResult &) = delete;
    HalvoResult &operator=(const HalvoResult &) = delete;
    virtual ~HalvoResult();

    // Sets value under key, replacing (callers pass non-NULL values).
    void addToResult(RtStringRef key, RtTypeRef value);
    void addNumberToResult(RtStringRef key, int32_t number);
    void setFaultCode(int32_t code) { addNumberToResult(kHVFaultCode, code); }
    void setFaultString(RtStringRef faultString) { addToResult(kHVFaultString, faultString); }
    void setFaultExtra(RtTypeRef extra) { addToResult(kHVFaultExtra, extra); }

    // Marks the result as a fault; nothing already present is removed.
    void becomeFault();
    // A transport fault: "/RtStreamFault", code -65794, extra = the stream-error dictionary
    // with the message "Stream Error".
    void becomeFault(const RtStreamError &streamError);
    // A transport fault carrying message, with domain 2 and error -65794.
    void becomeFault(RtStringRef message);
    void becomeFault(RtStringRef message, const RtStreamError &streamError);
    // A fault with its own string and code; a non-NULL data becomes the extra as text.
    void becomeFault(RtStringRef faultString, int32_t faultCode, RtDataRef data, RtStringEncoding encoding);

    // Adds "detail" (kHVStreamErrorDetail) to a transport fault's stream-error dictionary; does
    // nothing for a NULL detail or a fault without that dictionary.
    void addFaultDetail(RtStringRef detail);

    bool isFault() const;
    // A new immutable copy of the result (values shared). Caller releases.
    RtDictionaryRef copyDictionary() const;
    // Puts back what a copyDictionary held, removing everything added since.
    void restore(RtDictionaryRef saved);

    // A new {msg, domain, error} dictionary; empty when message is NULL.
    static RtDictionaryRef copyStreamErrorDict(RtStringRef message, RtIndex domain, int32_t error);
    // Reports, on standard error, keys and values whose reference count is below 1.
    static void validateDictionary(RtDictionaryRef dict);
    // "/kHVResultIsFault": the unexported key that marks a fault.
    static RtStringRef isFaultKey();

    // Transport and parse failures: domain -1 with this error; time-outs use kTimedOutError.
    static constexpr int32_t kStreamFaultCode = -65794;
    static constexpr int32_t kTransportError = -65795;
    static constexpr int32_t kTimedOutError = -65796;

  protected:
    RtMutableDictionaryRef fResult;
};
