// ClosureSource: the run-loop source that runs one method invocation.
// Borrows the invocation; owns the result record until finish() hands its dictionary to the
// invocation's callback and deletes it. Subclasses (the HTTP transport) override perform and
// finish. Runs on the thread of the loop it was added to; no locks.
#pragma once

#include "HVRunLoopSource.h"

class HalvoMethodInvocation;
class HalvoResult;

class ClosureSource : public HVRunLoopSource {
  public:
    // Creates an empty result record.
    explicit ClosureSource(HalvoMethodInvocation *closure);
    // Does not delete a result record that finish() has not handed over.
    ~ClosureSource() override;

    // Delivers the fault "ClosureSource::perform not overridden".
    void perform() override;
    // Takes the result (getResult() is NULL from then on), calls the invocation's doCallback
    // with it, then deletes it. The order matters: later callbacks test getResult().
    virtual void finish();

    HalvoMethodInvocation *getClosure() const { return fClosure; }
    HalvoResult *getResult() const { return fResult; }

  protected:
    HalvoMethodInvocation *fClosure;
    HalvoResult *fResult;
};
