// Helpers shared by the invocation-core tests: a minimal invocation subclass that records its
// own destruction, and a counting client context.
#pragma once

#include "ClosureSource.h"
#include "HalvoClosure.h"

// An invocation with no protocol: no message, no reply; its source is a plain ClosureSource.
class RecordingInvocation : public HalvoMethodInvocation {
  public:
    explicit RecordingInvocation(bool *destroyed = nullptr, RtTypeRef *refAtDestruction = nullptr)
        : fDestroyed(destroyed), fRefAtDestruction(refAtDestruction) {}
    ~RecordingInvocation() override {
        if (fDestroyed) *fDestroyed = true;
        if (fRefAtDestruction) *fRefAtDestruction = getRtRef();
    }
    RtDictionaryRef copyAgreement() override { return nullptr; }
    RtDataRef constructMessage(AutoString &) override { return nullptr; }
    void parseReply(HalvoResult *, RtTreeRef) override {}
    HVRunLoopSource *createRunLoopSource() override { return new ClosureSource(this); }

  private:
    bool *fDestroyed;
    RtTypeRef *fRefAtDestruction;
};

// Counts retain and release calls on an int counter pair passed as info.
struct ContextCounts {
    int retains = 0;
    int releases = 0;
};

inline const void *countingRetain(const void *info) {
    static_cast<ContextCounts *>(const_cast<void *>(info))->retains++;
    return info;
}

inline void countingRelease(const void *info) {
    static_cast<ContextCounts *>(const_cast<void *>(info))->releases++;
}

inline HVClientContext countingContext(ContextCounts *counts) {
    return HVClientContext{0, counts, countingRetain, countingRelease, nullptr};
}

// Wraps a string the caller already owns (a Copy or Create result).
inline AutoString adopt(RtStringRef owned) {
    AutoString wrapper;
    *wrapper.getStringPtr() = owned;
    return wrapper;
}
