// The run-loop source that runs one invocation and delivers its result.
#include "ClosureSource.h"

#include "HalvoClosure.h"
#include "HalvoResult.h"

ClosureSource::ClosureSource(HalvoMethodInvocation *closure) : fClosure(closure), fResult(new HalvoResult) {}

// A record finish() has not handed over is deliberately left alone: finish() always runs
// before an invocation lets its source go.
ClosureSource::~ClosureSource() = default;

void ClosureSource::perform() {
    if (fResult) fResult->becomeFault(RTSTR("ClosureSource::perform not overridden"));
    finish();
}

void ClosureSource::finish() {
    // Clear the field first: later stream and timer callbacks test it to learn the call is over.
    HalvoResult *result = fResult;
    fResult = nullptr;
    if (fClosure) fClosure->doCallback(result);
    delete result;
}
