// TransportHarness: what the end-to-end call tests share. Builds invocations through the public
// interface, runs one call on either road (synchronous through HVMethodInvocationInvoke, or
// asynchronous on the calling thread's run loop in a mode of its own, counting callbacks), and
// reads the result dictionary. Used from the test's thread only.
#pragma once

#include "../HalvosCore/XMLRPCTestSupport.h"
#include "HalvoUtils.h"

#include <HalvosCore/HalvosCore.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace hvit {

enum class Road { eSync, eAsync };

// "Sync" / "Async", for parameterised test names.
std::string roadName(const testing::TestParamInfo<Road> &info);

// Owns one runtime reference: the value type of the XML-RPC tests, with its builders S, I, Dict.
using Owned = xmlrpctest::Value;
using xmlrpctest::Dict;
using xmlrpctest::I;
using xmlrpctest::S;
template <class T> T as(const Owned &owned) {
    return static_cast<T>(const_cast<void *>(owned.get()));
}
Owned newURL(const std::string &text);

// The UTF-8 text of a string value; "" for NULL or anything that is not a string.
std::string text(RtTypeRef value);
// The value as a signed 64-bit integer; INT64_MIN for anything that is not a number.
int64_t integer(RtTypeRef value);

// One delivered call: the result dictionary (owned) and how many times the callback ran.
struct Outcome {
    Owned result;
    int callbacks = 0;

    RtDictionaryRef dictionary() const { return result.dict(); }
    RtTypeRef value(RtStringRef key) const;
    bool isFault() const { return HVMethodResultIsFault(dictionary()); }
    std::string resultText() const { return text(value(kHVMethodInvocationResult)); }
    int64_t faultCode() const { return integer(value(kHVFaultCode)); }
    std::string faultString() const { return text(value(kHVFaultString)); }
    // The stream-error dictionary of a transport fault ("msg", "domain", "error").
    std::string streamMessage() const;
    int64_t streamDomain() const;
    int64_t streamError() const;
    // Its "detail" text; "" when there is none.
    std::string streamDetail() const;
};

// One invocation handle, owned.
class Invocation {
  public:
    Invocation(const std::string &url, const char *method, RtStringRef protocol = kHVXMLRPCProtocol);
    ~Invocation();
    Invocation(const Invocation &) = delete;
    Invocation &operator=(const Invocation &) = delete;

    // Appends a parameter (the value is retained).
    Invocation &param(const char *name, RtTypeRef value);
    Invocation &param(const char *name, const Owned &value) { return param(name, value.get()); }
    Invocation &property(RtStringRef key, RtTypeRef value);
    Invocation &property(RtStringRef key, const Owned &value) { return property(key, value.get()); }

    HVMethodInvocationRef get() const { return fRef; }
    Outcome run(Road road, double lingerSeconds = 0.05) const;

  private:
    HVMethodInvocationRef fRef;
    RtMutableDictionaryRef fParameters;
    RtMutableArrayRef fOrder;
};

// The private mode of the asynchronous road.
RtStringRef asyncTestMode();

// Runs the call on road. The asynchronous road schedules it on the current loop in
// asyncTestMode() and runs that mode until the callback came (a 60-second guard against a
// hang). Both roads then keep running the call's mode for lingerSeconds with a counting
// callback installed, so that a late second delivery would be counted.
Outcome runCall(HVMethodInvocationRef invocation, Road road, double lingerSeconds = 0.05);

// Starts the calls of several invocations at once on the current loop in asyncTestMode(), runs
// that mode until every one delivered, then for lingerSeconds more; the outcomes, in order.
std::vector<Outcome> runConcurrently(const std::vector<HVMethodInvocationRef> &invocations,
                                     double lingerSeconds = 0.05);

// A valid XML-RPC reply whose result is the string "hello".
extern const char *const kHelloReply;

// Switches the diagnostics on and captures standard error until finish(), which restores both.
class DiagnosticCapture {
  public:
    DiagnosticCapture(int debug, int verbose)
        : fDebug((hvInitStatics(), gHVDebug)), fVerbose(gHVDebugVerbose) {
        gHVDebug = debug;
        gHVDebugVerbose = verbose;
        testing::internal::CaptureStderr();
    }
    std::string finish() {
        std::string text = testing::internal::GetCapturedStderr();
        gHVDebug = fDebug;
        gHVDebugVerbose = fVerbose;
        return text;
    }

  private:
    int fDebug, fVerbose;
};

// gtest helpers for the result dictionary.
// The four debug entries of a reply that was processed; the incoming headers only when a
// response arrived (withResponse).
void expectDebugEntries(const Outcome &outcome, bool withResponse);
// A transport fault: "/RtStreamFault", code -65794, the extra carrying message (a regular
// expression it contains when message starts with '~'), domain and error.
void expectStreamFault(const Outcome &outcome, const std::string &message, int64_t domain, int64_t error);

} // namespace hvit
