// Run-loop sources whose callbacks are virtual calls on a C++ object.
#include "HVRunLoopSource.h"

namespace {

// The runtime source never owns the object: no counting.
const void *_retain(const void *info) {
    return info;
}

void _release(const void *) {}

RtStringRef _copyDescription(const void *info) {
    return static_cast<HVRunLoopSource *>(const_cast<void *>(info))->description();
}

bool _equal(const void *info1, const void *info2) {
    return info1 == info2;
}

RtHashCode _hash(const void *info) {
    return reinterpret_cast<RtHashCode>(info);
}

void _schedule(void *info, RtRunLoopRef loop, RtStringRef mode) {
    static_cast<HVRunLoopSource *>(info)->schedule(loop, mode);
}

void _cancel(void *info, RtRunLoopRef loop, RtStringRef mode) {
    static_cast<HVRunLoopSource *>(info)->cancel(loop, mode);
}

void _perform(void *info) {
    static_cast<HVRunLoopSource *>(info)->perform();
}

} // namespace

HVRunLoopSource::HVRunLoopSource() : fSource(nullptr) {
    version = 0;
    info = this;
    retain = _retain;
    release = _release;
    copyDescription = _copyDescription;
    equal = _equal;
    hash = _hash;
    RtRunLoopSourceContext::schedule = _schedule;
    RtRunLoopSourceContext::cancel = _cancel;
    RtRunLoopSourceContext::perform = _perform;
}

HVRunLoopSource::~HVRunLoopSource() {
    if (fSource) {
        RtRelease(fSource);
        fSource = nullptr;
    }
}

RtStringRef HVRunLoopSource::description() {
    return RTSTR("HVRunLoopSource::copyDescription");
}

void HVRunLoopSource::perform() {}

void HVRunLoopSource::schedule(RtRunLoopRef, RtStringRef) {}

void HVRunLoopSource::cancel(RtRunLoopRef, RtStringRef) {}

void HVRunLoopSource::signal() {
    RtRunLoopSourceSignal(fSource);
}

RtRunLoopSourceRef HVRunLoopSource::getSourceCreatingIfNecessary() {
    if (!fSource) fSource = RtRunLoopSourceCreate(kRtAllocatorDefault, 0, this);
    return fSource;
}

bool HVRunLoopSource::addToRunLoop(RtRunLoopRef loop, RtStringRef mode) {
    RtRunLoopSourceRef source = getSourceCreatingIfNecessary();
    if (source && loop && mode) RtRunLoopAddSource(loop, source, mode);
    return true;
}

bool HVRunLoopSource::removeFromRunLoop(RtRunLoopRef loop, RtStringRef mode) {
    if (fSource && loop && mode) RtRunLoopRemoveSource(loop, fSource, mode);
    return true;
}
