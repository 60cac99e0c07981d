// Every way a call can fail before a reply is judged: requests that cannot be built or sent,
// servers that close, reset, stall or misbehave, the time-out, and perform in the wrong state.
// Each ends in exactly one fault result on both roads. Also the diagnostic log lines.
#include "FaultServer.h"
#include "HalvoUtils.h"
#include "ScriptedHTTPServer.h"
#include "TestHTTPClient.h"
#include "TransportHarness.h"

#include <gmock/gmock.h>

#include <unistd.h>

using namespace hvit;
using testing::HasSubstr;

namespace {

class TransportFaults : public testing::TestWithParam<Road> {};

const char *const kHelloReply = "<?xml version=\"1.0\"?>\n<methodResponse><params><param><value><string>hello"
                                "</string></value></param></params></methodResponse>\n";

} // namespace

// Requests that cannot be built or sent end at once, before any network activity, with the
// step's message (domain 2, error -65794) and without debug entries.
TEST_P(TransportFaults, RequestCannotBeSent) {
    hvtest::ScriptedHTTPServer server;
    server.reply("*", "*", hvtest::ScriptedReply::xml(kHelloReply));
    Owned responseMessage(RtHTTPMessageCreateResponse(kRtAllocatorDefault, 200, nullptr, kRtHTTPVersion1_1));
    struct Row {
        const char *message;
        std::string url;
        RtStringRef property;
        RtTypeRef value;
    } rows[] = {
        // message                                       endpoint                 property          value
        {"Missing host in URL", "urn:isbn:0451450523", nullptr, nullptr},
        {"Missing host in URL", "file:///tmp/RPC2", nullptr, nullptr},
        {"Can't get posting method", server.url("/RPC2"), kHVPostingMethod, kRtBooleanTrue},
        {"Can't create HTTP message request", server.url("/RPC2"), kHVHTTPMessage, RTSTR("not a message")},
        {"Can't create read stream from http message", server.url("/RPC2"), kHVHTTPMessage, responseMessage.get()},
        {"Can't issue read stream open", server.url("/RPC2"), kHVPostingMethod, RTSTR("NOT A METHOD")},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.message);
        Invocation call(row.url, "echo");
        if (row.property)
            call.property(row.property, row.value);
        Outcome outcome = call.run(GetParam());
        ASSERT_EQ(outcome.callbacks, 1);
        expectStreamFault(outcome, row.message, 2, -65794);
        EXPECT_EQ(outcome.value(kHVDebugOutgoingHeaders), nullptr);
    }
    EXPECT_EQ(server.requestCount(), 0u);
}

// Servers that fail the exchange: the stream's own error ({libcurl domain 20, CURLcode}).
TEST_P(TransportFaults, StreamErrors) {
    struct Row {
        const char *name;
        hvtest::FaultScript script;
        int error;
    } rows[] = {
        // name                script                                          CURLcode
        {"no reply", hvtest::FaultScript::closeBeforeStatus(), 52},            // GOT_NOTHING
        {"reset before status", hvtest::FaultScript::resetBeforeStatus(), 56}, // RECV_ERROR
        {"reset in headers", hvtest::FaultScript::resetMidHeaders(), 56},
        {"reset in body", hvtest::FaultScript::resetMidBody(), 56},
        {"body cut short", hvtest::FaultScript::bodyShorterThanLength(), 18}, // PARTIAL_FILE
        {"broken chunks", hvtest::FaultScript::brokenChunked(), 56},
        {"redirect loop", hvtest::FaultScript::redirectLoop(), 47}, // TOO_MANY_REDIRECTS
        {"garbage status line", hvtest::FaultScript::garbageStatusLine(), 1},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        hvtest::FaultServer server(row.script);
        Outcome outcome = Invocation(server.url("/loop"), "echo").run(GetParam());
        ASSERT_EQ(outcome.callbacks, 1);
        expectStreamFault(outcome, "Stream Error", 20, row.error);
    }

    Outcome refused =
        Invocation("http://127.0.0.1:" + std::to_string(hvtest::freeLoopbackPort()) + "/", "echo").run(GetParam());
    ASSERT_EQ(refused.callbacks, 1);
    expectStreamFault(refused, "Stream Error", 20, 7); // COULDNT_CONNECT
}

// Replies that arrive whole but wrong, and one that arrives a byte at a time.
TEST_P(TransportFaults, OddButCompleteReplies) {
    hvtest::FaultServer longer(hvtest::FaultScript::bodyLongerThanLength());
    Outcome truncated = Invocation(longer.url("/RPC2"), "echo").run(GetParam());
    ASSERT_EQ(truncated.callbacks, 1);
    expectStreamFault(truncated, truncated.streamMessage(), -1, -65795);
    EXPECT_THAT(truncated.streamMessage(), HasSubstr("(line "));

    hvtest::FaultServer statusLine(hvtest::FaultScript::reply("503 Come Back Later", "text/plain", "busy"));
    Outcome unavailable = Invocation(statusLine.url("/RPC2"), "echo").run(GetParam());
    ASSERT_EQ(unavailable.callbacks, 1);
    expectStreamFault(unavailable, "HTTP/1.1 503 Come Back Later", -1, -65795);
    expectDebugEntries(unavailable, true);

    hvtest::FaultServer trickle(hvtest::FaultScript::slowTrickle(std::chrono::milliseconds(1)));
    Outcome slow = Invocation(trickle.url("/RPC2"), "echo").run(GetParam());
    ASSERT_EQ(slow.callbacks, 1);
    EXPECT_EQ(slow.resultText(), "fault server says hello");
}

// A server that never answers: the time-out property ends the call with "Timed Out".
TEST_P(TransportFaults, StallPastTheTimeOut) {
    hvtest::FaultServer server(hvtest::FaultScript::neverAnswer());
    Invocation call(server.url("/RPC2"), "echo");
    call.property(kHVMethodInvocationTimeoutValue, newNumber(1));
    Outcome outcome = call.run(GetParam());
    ASSERT_EQ(outcome.callbacks, 1);
    expectStreamFault(outcome, "Timed Out", -1, -65796);
    EXPECT_EQ(outcome.value(kHVDebugOutgoingHeaders), nullptr);
}

// A reply that comes after the time-out changes nothing: the result was delivered once.
TEST_P(TransportFaults, ReplyAfterTheTimeOutIsIgnored) {
    hvtest::ScriptedHTTPServer server;
    hvtest::ScriptedReply late = hvtest::ScriptedReply::xml(kHelloReply);
    late.delay = std::chrono::milliseconds(2000);
    server.reply("*", "*", late);
    Invocation call(server.url("/RPC2"), "echo");
    call.property(kHVMethodInvocationTimeoutValue, newNumber(1));
    Outcome outcome = call.run(GetParam(), 1.5);
    ASSERT_EQ(outcome.callbacks, 1);
    expectStreamFault(outcome, "Timed Out", -1, -65796);
    EXPECT_EQ(server.requestCount(), 1u);
}

namespace {

void _scheduleInSecondMode(RtRunLoopTimerRef, void *info) {
    HVMethodInvocationScheduleWithRunLoop(static_cast<HVMethodInvocationRef>(info), RtRunLoopGetCurrent(),
                                          RTSTR("HVTransportSecondMode"));
}

} // namespace

// Scheduling a call that is waiting for its reply signals it again: perform finds it still
// waiting for the stream and ends it with "Timed Out Waiting For Open".
TEST_P(TransportFaults, PerformWhileWaitingForTheStream) {
    hvtest::FaultServer server(hvtest::FaultScript::neverAnswer());
    Invocation call(server.url("/RPC2"), "echo");
    RtRunLoopTimerContext context = {0, const_cast<void *>(static_cast<const void *>(call.get())), nullptr, nullptr,
                                     nullptr};
    Owned timer(RtRunLoopTimerCreate(kRtAllocatorDefault, RtAbsoluteTimeGetCurrent() + 0.3, 0, 0, 0,
                                     _scheduleInSecondMode, &context));
    RtStringRef callMode = GetParam() == Road::eSync ? RTSTR("HVSYNC") : asyncTestMode();
    RtRunLoopAddTimer(RtRunLoopGetCurrent(), timer.as<RtRunLoopTimerRef>(), callMode);

    Outcome outcome = call.run(GetParam());
    ASSERT_EQ(outcome.callbacks, 1);
    expectStreamFault(outcome, "Timed Out Waiting For Open", -1, -65796);
    RtRunLoopRemoveTimer(RtRunLoopGetCurrent(), timer.as<RtRunLoopTimerRef>(), callMode);
    HVMethodInvocationUnscheduleFromRunLoop(call.get(), RtRunLoopGetCurrent(), RTSTR("HVTransportSecondMode"));
}

INSTANTIATE_TEST_SUITE_P(Roads, TransportFaults, testing::Values(Road::eSync, Road::eAsync), roadName);

namespace {

// Switches the diagnostics on for one scope and captures standard error.
class DiagnosticCapture {
public:
    DiagnosticCapture(int debug, int verbose) : fDebug((hvInitStatics(), gHVDebug)), fVerbose(gHVDebugVerbose) {
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

// The position of needle in haystack at or after from; fails the test when it is missing.
size_t expectAfter(const std::string &haystack, const std::string &needle, size_t from) {
    size_t at = haystack.find(needle, from);
    EXPECT_NE(at, std::string::npos) << "missing, in order: " << needle << "\n--- log ---\n" << haystack;
    return at == std::string::npos ? from : at + needle.size();
}

} // namespace

// The verbose log follows the state machine; the transaction log shows the exchange.
TEST(TransportDiagnostics, VerboseAndTransactionLogLines) {
    hvtest::ScriptedHTTPServer server;
    server.reply("*", "*", hvtest::ScriptedReply::xml(kHelloReply));
    const std::string tag = "HV (" + std::to_string(getpid()) + "): ";

    DiagnosticCapture verbose(1, 1);
    Outcome outcome = Invocation(server.url("/RPC2"), "echo").run(Road::eAsync);
    std::string log = verbose.finish();
    ASSERT_EQ(outcome.callbacks, 1);
    size_t at = expectAfter(log, tag + "HTTPClosureSource::perform state 0 (uninit)\n", 0);
    at = expectAfter(log, tag + "HTTPClosureSource::perform new state state 1 (waitforopen)\n", at);
    expectAfter(log,
                tag + "HTTPClosureSource::readStreamCallback type 1 (kRtStreamEventOpenCompleted), state waitforopen\n\n",
                at);
    at = expectAfter(log,
                     tag + "HTTPClosureSource::readStreamCallback type 2 (kRtStreamEventHasBytesAvailable), state "
                           "waitforopen\n\n",
                     at);
    at = expectAfter(log, tag + "HTTPClosureSource::perform state 2 (readintobuffer)\n", at);
    at = expectAfter(log, tag + "HTTPClosureSource::readStreamCallback type 16 (kRtStreamEventEndEncountered), state ", at);
    at = expectAfter(log, tag + "HTTPClosureSource::perform state 3 (streamendencountered)\n", at);
    at = expectAfter(log, "Transaction Log:Outgoing Headers: ", at);
    at = expectAfter(log, "Outgoing Body: ", at);
    at = expectAfter(log, "Incoming Headers: ", at);
    at = expectAfter(log, "Incoming Body: ", at);
    expectAfter(log, tag + "HTTPClosureSource::perform new state state 3 (streamendencountered)\n", at);

    // HVDebug alone: the transaction log, none of the state machine's lines.
    DiagnosticCapture plain(1, 0);
    Outcome quiet = Invocation(server.url("/RPC2"), "echo").run(Road::eSync);
    log = plain.finish();
    ASSERT_EQ(quiet.callbacks, 1);
    EXPECT_THAT(log, HasSubstr("Transaction Log:Outgoing Headers: "));
    EXPECT_THAT(log, HasSubstr("hello"));
    EXPECT_THAT(log, testing::Not(HasSubstr("HTTPClosureSource::")));

    // A time-out and a late reply, verbosely: the timer's line and the ignored callbacks.
    hvtest::ScriptedHTTPServer lateServer;
    hvtest::ScriptedReply late = hvtest::ScriptedReply::xml(kHelloReply);
    late.delay = std::chrono::milliseconds(1800);
    lateServer.reply("*", "*", late);
    Invocation slow(lateServer.url("/RPC2"), "echo");
    slow.property(kHVMethodInvocationTimeoutValue, newNumber(1));
    DiagnosticCapture timing(1, 1);
    Outcome timedOut = slow.run(Road::eAsync, 1.3);
    log = timing.finish();
    ASSERT_EQ(timedOut.callbacks, 1);
    at = expectAfter(log, tag + "closure timed out: current state is 1\n", 0);
    at = expectAfter(log, tag + "HTTPClosureSource::perform state 4 (timedout)\n", at);
    expectAfter(log, tag + "We shouldn't be serviging any more callback signals\n", at);
}
