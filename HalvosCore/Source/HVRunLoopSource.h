// HVRunLoopSource: one run-loop source whose callbacks are virtual calls on a C++ object.
// The embedded context record is handed to the runtime when the source is created; info is the
// object itself, and the runtime never owns it (retain and release do nothing). Owns one
// reference to the runtime source, created lazily. Callbacks run on the thread of the loop the
// source was added to; no locks.
#pragma once

#include <HalvosCore/HalvosCore.h>

class HVRunLoopSource : public RtRunLoopSourceContext {
  public:
    HVRunLoopSource();
    HVRunLoopSource(const HVRunLoopSource &) = delete;
    HVRunLoopSource &operator=(const HVRunLoopSource &) = delete;
    // Drops the runtime source without removing it from any loop: unschedule first.
    virtual ~HVRunLoopSource();

    // "HVRunLoopSource::copyDescription" (a constant) for every subclass.
    virtual RtStringRef description();
    virtual void perform();
    virtual void schedule(RtRunLoopRef loop, RtStringRef mode);
    virtual void cancel(RtRunLoopRef loop, RtStringRef mode);

    // Marks the source so that perform runs on the next pass of a loop that has it; the source
    // must have been added to a loop.
    void signal();
    RtRunLoopSourceRef getSourceCreatingIfNecessary();
    RtRunLoopSourceRef getSource() const { return fSource; }
    // Always true.
    bool addToRunLoop(RtRunLoopRef loop, RtStringRef mode);
    // Always true; creates nothing.
    bool removeFromRunLoop(RtRunLoopRef loop, RtStringRef mode);

  protected:
    RtRunLoopSourceRef fSource;
};
