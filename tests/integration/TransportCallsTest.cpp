// Calls over HTTP against real servers on loopback: the scripted server for what goes on the
// wire, the forward proxy, redirects, the time-out property and connection reuse, every case on
// both roads; then what a synchronous call leaves alone and many asynchronous calls at once.
// Method results against Python's server are in tests/interop.
#include "ForwardProxy.h"
#include "HalvoUtils.h"
#include "ScriptedHTTPServer.h"
#include "TestHTTPClient.h"
#include "TransportHarness.h"

#include <HalvosCore/HVVersion.h>

#include <gmock/gmock.h>

#include <memory>

using namespace hvit;
using testing::HasSubstr;

namespace {

class TransportCalls : public testing::TestWithParam<Road> {};

} // namespace

// A time-out of 0, a negative one or one longer than the call mean no limit (the time-out that
// ends a call is in the fault matrix).
TEST_P(TransportCalls, TimeOutsThatDoNotLimit) {
    hvtest::ScriptedHTTPServer server;
    hvtest::ScriptedReply late = hvtest::ScriptedReply::xml(kHelloReply);
    late.delay = std::chrono::milliseconds(1100);
    server.reply("*", "*", late);
    for (int32_t limit : {0, -5, 30}) {
        SCOPED_TRACE(limit);
        Invocation quick(server.url("/RPC2"), "echo");
        quick.property(kHVMethodInvocationTimeoutValue, I(limit));
        Outcome done = quick.run(GetParam());
        ASSERT_EQ(done.callbacks, 1);
        EXPECT_EQ(done.resultText(), "hello") << done.streamMessage();
    }
}

// The request on the wire: method, target, version, the three standard headers, the body.
// Then posting method, extra headers and a template message: the template's own headers win
// over the library's defaults, extra headers replace everything, the template's method and URL
// stand.
TEST_P(TransportCalls, RequestOnTheWireAndHeaderPrecedence) {
    hvtest::ScriptedHTTPServer server;
    server.reply("*", "*", hvtest::ScriptedReply::xml(kHelloReply));
    Outcome outcome = Invocation(server.url("/RPC2?x=1"), "echo").param("s", S("hi")).run(GetParam());
    ASSERT_EQ(outcome.callbacks, 1);
    EXPECT_EQ(outcome.resultText(), "hello");

    hvtest::RecordedRequest request = server.lastRequest();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.path, "/RPC2?x=1");
    EXPECT_EQ(request.version, "HTTP/1.1");
    EXPECT_EQ(request.header("User-Agent"), "Tessaly; HalvosCore.framework (" HV_VERSION_STRING ")");
    // The message records the URL's host name alone; the wire has the port too, as HTTP wants.
    EXPECT_EQ(request.header("Host"), "127.0.0.1:" + std::to_string(server.port()));
    EXPECT_EQ(request.header("Content-Type"), "text/xml");
    EXPECT_EQ(request.headerCount("User-Agent"), 1u);
    EXPECT_EQ(request.headerCount("Host"), 1u);
    EXPECT_FALSE(request.hasHeader("SOAPAction"));
    EXPECT_FALSE(request.hasHeader("Expect"));
    EXPECT_THAT(request.body, HasSubstr("<methodName>echo</methodName>"));
    EXPECT_EQ(request.header("Content-Length"), std::to_string(request.body.size()));

    // The outgoing debug entries show what was sent.
    RtDictionaryRef outHeaders = static_cast<RtDictionaryRef>(outcome.value(kHVDebugOutgoingHeaders));
    EXPECT_EQ(text(RtDictionaryGetValue(outHeaders, RTSTR("Host"))), "127.0.0.1");
    EXPECT_THAT(text(outcome.value(kHVDebugOutgoingBody)), HasSubstr("<methodName>echo</methodName>"));

    Invocation put(server.url("/RPC2"), "echo");
    put.property(kHVPostingMethod, S("PUT"))
        .property(kHVHTTPExtraHeaders, Dict({{"X-Trace", S("abc")},
                                             {"Content-Type", S("application/xml")},
                                             {"Host", S("virtual.test")}}));
    Outcome putOutcome = put.run(GetParam());
    ASSERT_EQ(putOutcome.callbacks, 1);
    EXPECT_EQ(putOutcome.resultText(), "hello");
    hvtest::RecordedRequest sent = server.lastRequest();
    EXPECT_EQ(sent.method, "PUT");
    EXPECT_EQ(sent.header("X-Trace"), "abc");
    EXPECT_EQ(sent.header("Host"), "virtual.test"); // a host name of the caller's own stands
    EXPECT_EQ(sent.header("Content-Type"), "application/xml");
    EXPECT_EQ(sent.headerCount("Content-Type"), 1u);

    Owned templateURL = newURL(server.url("/from-template"));
    Owned templateMessage = Owned::adopt(RtHTTPMessageCreateRequest(
        kRtAllocatorDefault, RTSTR("POST"), as<RtURLRef>(templateURL), kRtHTTPVersion1_1));
    RtHTTPMessageSetHeaderFieldValue(as<RtHTTPMessageRef>(templateMessage), RTSTR("User-Agent"),
                                     RTSTR("Custom/2.0"));
    RtHTTPMessageSetHeaderFieldValue(as<RtHTTPMessageRef>(templateMessage), RTSTR("Content-Type"),
                                     RTSTR("text/plain"));
    RtHTTPMessageSetHeaderFieldValue(as<RtHTTPMessageRef>(templateMessage), RTSTR("X-Template"),
                                     RTSTR("kept"));
    Invocation templated(server.url("/RPC2"), "echo");
    templated.property(kHVHTTPMessage, templateMessage)
        .property(kHVPostingMethod, S("PUT")) // the template's method stands
        .property(kHVHTTPExtraHeaders, Dict({{"content-type", S("text/xml; charset=utf-8")}}));
    Outcome templatedOutcome = templated.run(GetParam());
    ASSERT_EQ(templatedOutcome.callbacks, 1);
    EXPECT_EQ(templatedOutcome.resultText(), "hello");
    sent = server.lastRequest();
    EXPECT_EQ(sent.method, "POST");
    EXPECT_EQ(sent.path, "/from-template");
    EXPECT_EQ(sent.header("User-Agent"), "Custom/2.0");
    EXPECT_EQ(sent.header("X-Template"), "kept");
    EXPECT_EQ(sent.header("Host"), "127.0.0.1:" + std::to_string(server.port()));
    EXPECT_EQ(sent.header("Content-Type"), "text/xml; charset=utf-8");
    EXPECT_EQ(sent.headerCount("Content-Type"), 1u);
    EXPECT_THAT(sent.body, HasSubstr("<methodName>echo</methodName>"));
}

// The proxy property sends the request through the proxy in absolute form. A proxy URL without
// a port means port 80; nothing listens there on a test machine, so that call fails to connect
// instead of reaching the origin directly.
TEST_P(TransportCalls, ThroughTheForwardProxy) {
    hvtest::ScriptedHTTPServer origin;
    origin.reply("POST", "/RPC2", hvtest::ScriptedReply::xml(kHelloReply));
    hvtest::ForwardProxy proxy;

    Invocation call(origin.url("/RPC2"), "echo");
    call.property(kHVHTTPProxy, newURL("http://127.0.0.1:" + std::to_string(proxy.port()) + "/"));
    Outcome outcome = call.run(GetParam());
    ASSERT_EQ(outcome.callbacks, 1);
    EXPECT_EQ(outcome.resultText(), "hello");
    ASSERT_EQ(proxy.requestCount(), 1u);
    EXPECT_EQ(proxy.requests()[0].path, origin.url("/RPC2"));
    EXPECT_EQ(origin.requestCount(), 1u);

    if (hvtest::connectLoopback(80, std::chrono::milliseconds(500), nullptr).valid())
        GTEST_SKIP() << "something listens on 127.0.0.1:80";
    Invocation port80(origin.url("/RPC2"), "echo");
    port80.property(kHVHTTPProxy, newURL("http://127.0.0.1/"));
    Outcome refused = port80.run(GetParam());
    ASSERT_EQ(refused.callbacks, 1);
    expectStreamFault(refused, "Stream Error", 20, 7); // CURLE_COULDNT_CONNECT
    EXPECT_EQ(origin.requestCount(), 1u);
}

// Redirects are followed unless the property says otherwise; then the status line is the fault.
TEST_P(TransportCalls, Redirects) {
    hvtest::ScriptedHTTPServer server;
    hvtest::ScriptedReply moved;
    moved.status = 307;
    moved.headers = {{"Location", server.url("/RPC2")}, {"Content-Type", "text/html"}};
    moved.body = "<html>moved</html>";
    server.reply("*", "/old", moved);
    server.reply("*", "/RPC2", hvtest::ScriptedReply::xml(kHelloReply));

    Outcome followed = Invocation(server.url("/old"), "echo").run(GetParam());
    ASSERT_EQ(followed.callbacks, 1);
    EXPECT_EQ(followed.resultText(), "hello");
    EXPECT_EQ(server.lastRequest().path, "/RPC2");
    EXPECT_THAT(server.lastRequest().body, HasSubstr("<methodName>echo</methodName>"));

    for (RtTypeRef setting :
         {static_cast<RtTypeRef>(kRtBooleanFalse), static_cast<RtTypeRef>(RTSTR("yes"))}) {
        size_t before = server.requestCount();
        Invocation stays(server.url("/old"), "echo");
        stays.property(kHVHTTPFollowsRedirects, setting);
        Outcome notFollowed = stays.run(GetParam());
        ASSERT_EQ(notFollowed.callbacks, 1);
        expectStreamFault(notFollowed, "HTTP/1.1 307 Temporary Redirect", -1, -65795);
        expectDebugEntries(notFollowed, true);
        EXPECT_EQ(server.requestCount(), before + 1);
    }
}

// Sequential calls to one server share one connection, whatever the road; one invocation can
// be called again, each call sending its own request and delivering its own result once.
TEST_P(TransportCalls, ConnectionReuseAndRepeatedCalls) {
    hvtest::ScriptedHTTPServer server;
    server.reply("*", "*", hvtest::ScriptedReply::xml(kHelloReply));
    Invocation again(server.url("/RPC2"), "echo");
    for (int i = 0; i < 6; i++) {
        Outcome outcome =
            i < 3 ? Invocation(server.url("/RPC2"), "echo").run(GetParam()) : again.run(GetParam());
        ASSERT_EQ(outcome.callbacks, 1);
        EXPECT_EQ(outcome.resultText(), "hello");
    }
    EXPECT_EQ(server.requestCount(), 6u);
    EXPECT_EQ(server.connectionCount(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Roads, TransportCalls, testing::Values(Road::eSync, Road::eAsync), roadName);

namespace {

int gOtherFired = 0;

void _otherPerform(void *) {
    gOtherFired++;
}
void _otherTimer(RtRunLoopTimerRef, void *) {
    gOtherFired++;
}

} // namespace

// A synchronous call runs only its private mode: a signalled source and a due timer in the
// caller's modes wait until the caller runs those modes again.
TEST(TransportSync, OtherModesDoNotFireDuringInvoke) {
    hvtest::ScriptedHTTPServer server;
    server.reply("*", "*", hvtest::ScriptedReply::xml(kHelloReply));
    RtRunLoopRef loop = RtRunLoopGetCurrent();
    RtRunLoopSourceContext context = {0,       nullptr, nullptr, nullptr, nullptr,
                                      nullptr, nullptr, nullptr, nullptr, _otherPerform};
    Owned source = Owned::adopt(RtRunLoopSourceCreate(kRtAllocatorDefault, 0, &context));
    Owned timer = Owned::adopt(RtRunLoopTimerCreate(kRtAllocatorDefault, RtAbsoluteTimeGetCurrent() - 1, 0, 0,
                                                    0, _otherTimer, nullptr));
    RtRunLoopAddSource(loop, as<RtRunLoopSourceRef>(source), kRtRunLoopDefaultMode);
    RtRunLoopAddTimer(loop, as<RtRunLoopTimerRef>(timer), asyncTestMode());
    RtRunLoopSourceSignal(as<RtRunLoopSourceRef>(source));
    gOtherFired = 0;

    Outcome outcome = Invocation(server.url("/RPC2"), "echo").run(Road::eSync);
    ASSERT_EQ(outcome.callbacks, 1);
    EXPECT_EQ(outcome.resultText(), "hello");
    EXPECT_EQ(gOtherFired, 0);

    RtRunLoopRunInMode(kRtRunLoopDefaultMode, 0.05, false);
    RtRunLoopRunInMode(asyncTestMode(), 0.05, false);
    EXPECT_EQ(gOtherFired, 2);
    RtRunLoopRemoveSource(loop, as<RtRunLoopSourceRef>(source), kRtRunLoopDefaultMode);
    RtRunLoopRemoveTimer(loop, as<RtRunLoopTimerRef>(timer), asyncTestMode());
}

namespace {

const char *const kAddReplyFormat = "<?xml version=\"1.0\"?>\n<methodResponse><params><param><value><int>%d"
                                    "</int></value></param></params></methodResponse>\n";

} // namespace

// Many calls in flight on one run loop each deliver exactly their own result once.
TEST(TransportAsync, ManyCallsInFlightOnOneLoop) {
    hvtest::ScriptedHTTPServer server;
    server.route("POST", "*", [](const hvtest::RecordedRequest &request) {
        // Echo the path number back as the result, after a pause so that the calls overlap.
        int n = std::stoi(request.path.substr(1));
        char body[256];
        snprintf(body, sizeof body, kAddReplyFormat, n * 10 + 1);
        hvtest::ScriptedReply reply = hvtest::ScriptedReply::xml(body);
        reply.delay = std::chrono::milliseconds(100);
        return reply;
    });
    constexpr int kCalls = 12;
    std::vector<std::unique_ptr<Invocation>> calls;
    std::vector<HVMethodInvocationRef> refs;
    for (int i = 0; i < kCalls; i++) {
        calls.push_back(std::make_unique<Invocation>(server.url("/" + std::to_string(i)), "add"));
        refs.push_back(calls.back()->get());
    }
    std::vector<Outcome> outcomes = runConcurrently(refs);
    for (int i = 0; i < kCalls; i++) {
        SCOPED_TRACE(i);
        EXPECT_EQ(outcomes[i].callbacks, 1);
        EXPECT_FALSE(outcomes[i].isFault());
        EXPECT_EQ(integer(outcomes[i].value(kHVMethodInvocationResult)), i * 10 + 1);
    }
    EXPECT_EQ(server.requestCount(), static_cast<size_t>(kCalls));
}

namespace {

struct ReleasingDelivery {
    HVMethodInvocationRef invocation;
    int callbacks = 0;
    bool fault = true;
};

void _releaseInCallback(HVMethodInvocationRef invocation, void *info, RtDictionaryRef result) {
    ReleasingDelivery *delivery = static_cast<ReleasingDelivery *>(info);
    delivery->callbacks++;
    delivery->fault = HVMethodResultIsFault(result);
    RtRelease(result);
    // The usual end of an asynchronous call: the client lets go of everything in its callback.
    HVMethodInvocationUnscheduleFromRunLoop(invocation, RtRunLoopGetCurrent(), asyncTestMode());
    RtRelease(invocation);
    delivery->invocation = nullptr;
}

} // namespace

// A client may unschedule and release the invocation from inside its callback, on every way a
// call can end, with verbose logging on (the log lines run after the result was delivered).
TEST(TransportAsync, ReleaseFromInsideTheCallback) {
    hvtest::ScriptedHTTPServer server;
    server.reply("POST", "/ok", hvtest::ScriptedReply::xml(kHelloReply));
    server.reply("POST", "/json", hvtest::ScriptedReply::with(200, "application/json", "{}"));
    DiagnosticCapture verbose(1, 1);
    const std::string urls[] = {server.url("/ok"), server.url("/json"),
                                "http://127.0.0.1:" + std::to_string(hvtest::freeLoopbackPort()) + "/",
                                "urn:no-host"};
    for (const std::string &url : urls) {
        SCOPED_TRACE(url);
        Owned endpoint = newURL(url);
        ReleasingDelivery delivery;
        delivery.invocation =
            HVMethodInvocationCreate(as<RtURLRef>(endpoint), RTSTR("echo"), kHVXMLRPCProtocol);
        HVClientContext context = {0, &delivery, nullptr, nullptr, nullptr};
        HVMethodInvocationSetCallBack(delivery.invocation, _releaseInCallback, &context);
        HVMethodInvocationScheduleWithRunLoop(delivery.invocation, RtRunLoopGetCurrent(), asyncTestMode());
        RtAbsoluteTime guard = RtAbsoluteTimeGetCurrent() + 30;
        while (delivery.callbacks == 0 && RtAbsoluteTimeGetCurrent() < guard)
            RtRunLoopRunInMode(asyncTestMode(), 1.0, true);
        RtRunLoopRunInMode(asyncTestMode(), 0.05, false);
        EXPECT_EQ(delivery.callbacks, 1);
        EXPECT_EQ(delivery.fault, url != urls[0]);
    }
    EXPECT_THAT(verbose.finish(), HasSubstr("HTTPClosureSource::perform state 0 (uninit)"));
}
