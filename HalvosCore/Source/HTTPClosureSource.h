// HTTPClosureSource: one HTTP exchange for one invocation.
// A small state machine driven by three kinds of event on one run loop: its own perform (the
// source was signalled), the read stream's client callback and the optional time-out timer.
// Owns the request message, the read stream, the response buffer, a copy of the request body
// for the debug capture, and the time-out timer; retains the endpoint URL and the run loop the
// stream is scheduled on. Runs on the thread of the run loop it was scheduled on; no locks.
// Every road ends in exactly one finish(), which delivers the result once.
#pragma once

#include "ClosureSource.h"

class HTTPClosureSource : public ClosureSource {
  public:
    // The states; their names in verbose log lines come from a table of five.
    enum {
        eUninit = 0,               // "uninit": no request sent yet
        eWaitForOpen = 1,          // "waitforopen": request sent, waiting for data
        eReadIntoBuffer = 2,       // "readintobuffer": bytes available, perform reads them
        eStreamEndEncountered = 3, // "streamendencountered": perform processes the reply
        eTimedOut = 4              // "timedout": the timer fired before the end of the stream
    };

    // Retains url; state 0; every capture switch on.
    HTTPClosureSource(HalvoMethodInvocation *closure, RtURLRef url);
    // Releases what the transaction made and unschedules the stream. A call that never finished
    // takes its timer and its result record with it.
    ~HTTPClosureSource() override;

    void perform() override;
    // Stops the timer, then delivers the result (ClosureSource::finish).
    void finish() override;
    // When the source is added to a loop after an earlier transaction has delivered its result,
    // clears that transaction so the invocation can be called again.
    void schedule(RtRunLoopRef loop, RtStringRef mode) override;

    void readStreamCallback(RtStreamEventType type);
    void timedOut();

    // kHVPostingMethod, else "POST".
    RtStringRef getMethod();
    // kHVHTTPVersion, else HTTP/1.1.
    RtStringRef getHttpVersion();
    // True unless kHVHTTPFollowsRedirects is set to something other than the boolean true.
    bool getFollowsRedirects();

    int32_t getState() const { return fState; }

  private:
    // Builds and sends the request; false (the call already finished with a fault) on failure.
    bool initConnection();
    // Reads what the stream holds, 1024 bytes at a time, into fBuffer.
    void fillReadBuffer();
    // Judges the reply, parses it, captures the debug entries and finishes.
    void processBuffer();
    // Puts the opt-in settings (reply limits, authentication, TLS, compression) on the stream;
    // NULL, or the fault message that ends the call.
    RtStringRef applyTransportSettings();
    // Ends the call with the stream's error and its detail.
    void streamFailed();
    // Releases everything a finished transaction left behind and starts a fresh result.
    void resetTransaction();
    void releaseStream();

    int32_t fState;
    RtURLRef fURL;
    RtHTTPMessageRef fHttpMessage;
    RtMutableDataRef fBuffer;
    RtReadStreamRef fReadStream;
    RtRunLoopRef fRunLoop;
    RtStringRef fRunLoopMode;
    RtDataRef fDebugMessage;
    bool fOutgoingHeaders;
    bool fOutgoingBody;
    bool fIncomingHeaders;
    bool fIncomingBody;
    RtRunLoopTimerRef fTimer;
};
