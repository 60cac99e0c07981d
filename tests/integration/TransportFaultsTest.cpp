// Every way a call can fail before a reply is judged, each on both roads: requests that cannot
// be built or sent, the transport's fault matrix (servers that refuse, close, reset, stall, lie
// about their framing or loop; names that do not resolve; TLS to a plain server; invalid UTF-8),
// replies that are slow or huge, perform in the wrong state, and the diagnostic log lines. Each
// call delivers exactly one result (the stall without a time-out none) and leaves no runtime
// object behind; LeakSanitizer checks the rest of the memory when the suite ends.
#include "FaultServer.h"
#include "HalvoUtils.h"
#include "ScriptedHTTPServer.h"
#include "TestHTTPClient.h"
#include "TransportHarness.h"

#include <gmock/gmock.h>

#include <unistd.h>

using namespace hvit;
using namespace std::chrono_literals;
using hvtest::FaultScript;
using testing::HasSubstr;

namespace {

// A whole 302 reply sending the client to location.
std::string redirectTo(const std::string &location) {
    return "HTTP/1.1 302 Found\r\nLocation: " + location + "\r\nContent-Length: 0\r\n\r\n";
}

// A response head of 300 KiB in ordinary 100-byte lines, never ended.
std::string hugeHead() {
    std::string head = "HTTP/1.1 200 OK\r\n";
    for (int i = 0; i < 3072; i++)
        head +=
            "X-Fill-" + std::to_string(i) + ": " + std::string(88 - std::to_string(i).size(), 'f') + "\r\n";
    return head;
}

// Counts the runtime objects alive around one test: every call's objects must be gone once its
// outcome is released. The first calls of the process fill caches that live for good (the
// thread's run loop, the User-Agent text, the protocols' tables), so warm-up calls run before
// the count is taken.
class LiveObjects : public testing::Test {
  protected:
    void SetUp() override {
        static bool sWarm = false;
        if (!sWarm) {
            hvtest::ScriptedHTTPServer server;
            server.reply("*", "*", hvtest::ScriptedReply::xml(kHelloReply));
            Invocation(server.url("/RPC2"), "echo").run(Road::eSync);
            Invocation(server.url("/RPC2"), "echo", kHVSOAP2001Protocol).run(Road::eAsync);
            sWarm = true;
        }
        fLive = RtRuntimeGetLiveObjectCount();
    }
    void TearDown() override { EXPECT_EQ(RtRuntimeGetLiveObjectCount(), fLive) << "runtime objects leaked"; }

  private:
    long fLive = 0;
};

class TransportFaults : public LiveObjects, public testing::WithParamInterface<Road> {};

} // namespace

// Requests that cannot be built or sent end at once, before any network activity, with the
// step's message (domain 2, error -65794) and without debug entries.
TEST_P(TransportFaults, RequestCannotBeSent) {
    hvtest::ScriptedHTTPServer server;
    server.reply("*", "*", hvtest::ScriptedReply::xml(kHelloReply));
    Owned responseMessage =
        Owned::adopt(RtHTTPMessageCreateResponse(kRtAllocatorDefault, 200, nullptr, kRtHTTPVersion1_1));
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
        {"Can't create read stream from http message", server.url("/RPC2"), kHVHTTPMessage,
         responseMessage.get()},
        {"Can't issue read stream open", server.url("/RPC2"), kHVPostingMethod, RTSTR("NOT A METHOD")},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.message);
        Invocation call(row.url, "echo");
        if (row.property) call.property(row.property, row.value);
        Outcome outcome = call.run(GetParam());
        ASSERT_EQ(outcome.callbacks, 1);
        expectStreamFault(outcome, row.message, 2, -65794);
        EXPECT_EQ(outcome.value(kHVDebugOutgoingHeaders), nullptr);
    }
    EXPECT_EQ(server.requestCount(), 0u);
}

// The fault matrix. In url, "{port}" is the fault server's port and "{free}" a port nobody
// listens on; a row without a script has no server. A message starting with '~' is a regular
// expression the message contains. judged: a reply arrived and was judged, so the debug entries are there.
TEST_P(TransportFaults, Matrix) {
    const std::string notUTF8 =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<methodResponse><params><param><value>"
        "<string>caf\xE9 \xFF\xFE</string></value></param></params></methodResponse>\n";
    const std::string local = "http://127.0.0.1:{port}/RPC2";
    struct Row {
        const char *name;
        FaultScript script; // no steps: no server
        std::string url;
        int64_t domain, error;
        const char *message = "Stream Error";
        int32_t timeout = 0; // seconds; 0 for no time-out property
        bool judged = false;
        RtStringRef protocol = kHVXMLRPCProtocol;
        const char *detail = nullptr; // a regular expression the fault's detail contains
        RtStringRef property = nullptr;
        int64_t value = 0;
    } rows[] = {
        // name                 script                              url     domain error (CURLcode in domain
        // 20)
        {"refused", FaultScript(), "http://127.0.0.1:{free}/", 20, 7},
        {"closed before status", FaultScript::closeBeforeStatus(), local, 20, 52},
        {"reset before status", FaultScript::resetBeforeStatus(), local, 20, 56},
        {"reset in headers", FaultScript::resetMidHeaders(), local, 20, 56},
        {"reset in body", FaultScript::resetMidBody(), local, 20, 56},
        {"body shorter", FaultScript::bodyShorterThanLength(), local, 20, 18},
        {"broken chunks", FaultScript::brokenChunked(), local, 20, 56},
        {"redirect loop", FaultScript::redirectLoop(), "http://127.0.0.1:{port}/loop", 20, 47},
        {"garbage status line", FaultScript::garbageStatusLine(), local, 20, 1},
        // A first label over the 63 bytes DNS allows, under .invalid: the resolver refuses the
        // name itself, so no query leaves the machine.
        {"unresolvable host", FaultScript(), "http://" + std::string(64, 'n') + ".invalid/RPC2", 20, 6},
        {"TLS to plain HTTP", FaultScript().send("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n"),
         "https://127.0.0.1:{port}/RPC2", 20, 35},
        // The stall outlasts the time-out; the reply that comes after it changes nothing.
        {"stall past the time-out",
         FaultScript().readRequest().sleep(1800ms).send(std::string("HTTP/1.1 200 OK\r\n\r\n") + kHelloReply),
         local, -1, -65796, "Timed Out", 1},
        // The body is cut at its declared length, so the parser names the line it stopped at.
        {"body longer", FaultScript::bodyLongerThanLength(), local, -1, -65795, "~\\(line ", 0, true},
        {"status 503", FaultScript::reply("503 Come Back Later", "text/plain", "busy"), local, -1, -65795,
         "HTTP/1.1 503 Come Back Later", 0, true},
        {"invalid UTF-8", FaultScript::reply("200 OK", "text/xml; charset=utf-8", notUTF8), local, -1, -65795,
         "~\\(line 2, pos ", 0, true},
        {"invalid UTF-8, SOAP", FaultScript::reply("200 OK", "text/xml; charset=utf-8", notUTF8), local, -1,
         -65795, "~\\(line 2, pos ", 0, true, kHVSOAP2001Protocol},
        // Reply limits: refused from the Content-Length before the body, or as the body passes
        // the limit; a head over the default limit of 256 KiB. Error 63: CURLE_FILESIZE_EXCEEDED.
        {"body declared over the limit",
         FaultScript::reply("200 OK", "text/xml", std::string(5000, ' ') + kHelloReply), local, 20, 63,
         "Stream Error", 0, false, kHVXMLRPCProtocol,
         "Content-Length.* larger than the limit of 1000 bytes; raise it with the property "
         "kHVHTTPMaxReplyLength",
         kHVHTTPMaxReplyLength, 1000},
        {"body passes the limit",
         FaultScript().readRequest().send("HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\n\r\n" +
                                          std::string(5000, ' ') + kHelloReply),
         local, 20, 63, "Stream Error", 0, false, kHVXMLRPCProtocol,
         "^The reply body is larger than the limit of 1000 bytes; .*--max-reply", kHVHTTPMaxReplyLength,
         1000},
        {"head over the default limit", FaultScript().readRequest().send(hugeHead()), local, 20, 63,
         "Stream Error", 0, false, kHVXMLRPCProtocol,
         "^The response head is larger than the limit of 262144 bytes; .*kHVHTTPMaxReplyHeadLength"},
        {"redirect to file", FaultScript().readRequest().send(redirectTo("file:///etc/passwd")), local, 20, 1,
         "Stream Error", 0, false, kHVXMLRPCProtocol, "redirect to a file URL: .*only to http and https"},
        {"redirect to gopher", FaultScript().readRequest().send(redirectTo("gopher://127.0.0.1/1")), local,
         20, 1, "Stream Error", 0, false, kHVXMLRPCProtocol, "redirect to a gopher URL"},
        {"trickle past the time-out", FaultScript::slowTrickle(100ms), local, -1, -65796, "Timed Out", 1,
         false, kHVXMLRPCProtocol, "No complete reply within 1 seconds"},
        {"status 401", FaultScript::reply("401 Unauthorized", "text/plain", "who?"), local, -1, -65795,
         "HTTP/1.1 401 Unauthorized", 0, true, kHVXMLRPCProtocol, "wants credentials"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        std::unique_ptr<hvtest::FaultServer> server;
        std::string url = row.url;
        if (!row.script.actions().empty()) {
            server = std::make_unique<hvtest::FaultServer>(row.script);
            url.replace(url.find("{port}"), 6, std::to_string(server->port()));
        } else if (url.find("{free}") != std::string::npos) {
            url.replace(url.find("{free}"), 6, std::to_string(hvtest::freeLoopbackPort()));
        }
        Invocation call(url, "echo", row.protocol);
        if (row.timeout) call.property(kHVMethodInvocationTimeoutValue, I(row.timeout));
        if (row.property) call.property(row.property, I(int32_t(row.value)));
        Outcome outcome = call.run(GetParam(), row.timeout ? 1.5 : 0.05);
        ASSERT_EQ(outcome.callbacks, 1);
        expectStreamFault(outcome, row.message, row.domain, row.error);
        // Every libcurl failure says in words what went wrong.
        if (row.detail) {
            EXPECT_THAT(outcome.streamDetail(), testing::ContainsRegex(row.detail));
        } else if (row.domain == 20) {
            EXPECT_NE(outcome.streamDetail(), "");
        }
        if (row.judged)
            expectDebugEntries(outcome, true);
        else
            EXPECT_EQ(outcome.value(kHVDebugOutgoingHeaders), nullptr);
    }
}

// A reply that arrives a byte at a time, and one of 100 MB, are read whole.
TEST_P(TransportFaults, SlowAndHugeRepliesArriveWhole) {
    hvtest::FaultServer trickle(FaultScript::slowTrickle(1ms));
    Outcome slow = Invocation(trickle.url("/RPC2"), "echo").run(GetParam());
    ASSERT_EQ(slow.callbacks, 1);
    EXPECT_EQ(slow.resultText(), "fault server says hello");

    const size_t kPiece = 100 * 1000, kPieces = 1000;
    std::string piece;
    for (size_t i = 0; i < kPiece; i++)
        piece += static_cast<char>('a' + i % 26);
    hvtest::ScriptedHTTPServer server;
    hvtest::ScriptedReply reply = hvtest::ScriptedReply::xml(piece);
    reply.bodyRepeat = kPieces;
    reply.bodyHead = "<?xml version=\"1.0\"?>\n<methodResponse><params><param><value><string>";
    reply.bodyTail = "</string></value></param></params></methodResponse>\n";
    server.reply("*", "*", reply);
    // Over the default limit of 64 MiB: raised for this reply.
    Outcome huge =
        Invocation(server.url("/RPC2"), "echo").property(kHVHTTPMaxReplyLength, I(200000000)).run(GetParam());
    ASSERT_EQ(huge.callbacks, 1);
    ASSERT_FALSE(huge.isFault()) << huge.streamMessage();
    RtTypeRef value = huge.value(kHVMethodInvocationResult);
    ASSERT_TRUE(value && RtGetTypeID(value) == RtStringGetTypeID());
    EXPECT_EQ(RtStringGetLength(static_cast<RtStringRef>(value)), static_cast<RtIndex>(kPiece * kPieces));
}

namespace {

void _countCallback(HVMethodInvocationRef, void *info, RtDictionaryRef result) {
    ++*static_cast<int *>(info);
    if (result) RtRelease(result);
}

} // namespace

// A server that never answers and no time-out property: the call waits as long as its loop runs.
// The test bounds it with the run loop's own limit, then unschedules and releases the call,
// which must tear the exchange down without a callback, a crash or a leak.
using TransportStall = LiveObjects;

TEST_F(TransportStall, WithoutTimeOutEndsWhenReleased) {
    hvtest::FaultServer server(FaultScript::neverAnswer());
    int callbacks = 0;
    {
        Invocation call(server.url("/RPC2"), "echo");
        HVClientContext context = {0, &callbacks, nullptr, nullptr, nullptr};
        HVMethodInvocationSetCallBack(call.get(), _countCallback, &context);
        HVMethodInvocationScheduleWithRunLoop(call.get(), RtRunLoopGetCurrent(), asyncTestMode());
        RtAbsoluteTime end = RtAbsoluteTimeGetCurrent() + 1.5;
        while (RtAbsoluteTimeGetCurrent() < end)
            RtRunLoopRunInMode(asyncTestMode(), end - RtAbsoluteTimeGetCurrent(), false);
        EXPECT_EQ(server.connectionCount(), 1u);
        HVMethodInvocationUnscheduleFromRunLoop(call.get(), RtRunLoopGetCurrent(), asyncTestMode());
        HVMethodInvocationSetCallBack(call.get(), nullptr, nullptr);
    }
    // Nothing is left in the mode that could still call back.
    EXPECT_EQ(RtRunLoopRunInMode(asyncTestMode(), 0.2, false), kRtRunLoopRunFinished);
    EXPECT_EQ(callbacks, 0);
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
    hvtest::FaultServer server(FaultScript::neverAnswer());
    Invocation call(server.url("/RPC2"), "echo");
    RtRunLoopTimerContext context = {0, const_cast<void *>(static_cast<const void *>(call.get())), nullptr,
                                     nullptr, nullptr};
    Owned timer = Owned::adopt(RtRunLoopTimerCreate(kRtAllocatorDefault, RtAbsoluteTimeGetCurrent() + 0.3, 0,
                                                    0, 0, _scheduleInSecondMode, &context));
    RtStringRef callMode = GetParam() == Road::eSync ? RTSTR("HVSYNC") : asyncTestMode();
    RtRunLoopAddTimer(RtRunLoopGetCurrent(), as<RtRunLoopTimerRef>(timer), callMode);

    Outcome outcome = call.run(GetParam());
    ASSERT_EQ(outcome.callbacks, 1);
    expectStreamFault(outcome, "Timed Out Waiting For Open", -1, -65796);
    RtRunLoopRemoveTimer(RtRunLoopGetCurrent(), as<RtRunLoopTimerRef>(timer), callMode);
    HVMethodInvocationUnscheduleFromRunLoop(call.get(), RtRunLoopGetCurrent(),
                                            RTSTR("HVTransportSecondMode"));
}

INSTANTIATE_TEST_SUITE_P(Roads, TransportFaults, testing::Values(Road::eSync, Road::eAsync), roadName);

namespace {

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
                tag + "HTTPClosureSource::readStreamCallback type 1 (kRtStreamEventOpenCompleted), state "
                      "waitforopen\n\n",
                at);
    at = expectAfter(
        log,
        tag + "HTTPClosureSource::readStreamCallback type 2 (kRtStreamEventHasBytesAvailable), state "
              "waitforopen\n\n",
        at);
    at = expectAfter(log, tag + "HTTPClosureSource::perform state 2 (readintobuffer)\n", at);
    at = expectAfter(
        log, tag + "HTTPClosureSource::readStreamCallback type 16 (kRtStreamEventEndEncountered), state ",
        at);
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
    slow.property(kHVMethodInvocationTimeoutValue, I(1));
    DiagnosticCapture timing(1, 1);
    Outcome timedOut = slow.run(Road::eAsync, 1.3);
    log = timing.finish();
    ASSERT_EQ(timedOut.callbacks, 1);
    at = expectAfter(log, tag + "closure timed out: current state is 1\n", 0);
    at = expectAfter(log, tag + "HTTPClosureSource::perform state 4 (timedout)\n", at);
    expectAfter(log, tag + "We shouldn't be serviging any more callback signals\n", at);
}
