// The rest of the transport's fault matrix; refused connections, resets, lying framing, broken
// chunks, redirect loops and the time-out are in TransportFaultsTest.cpp. Here: an unresolvable
// host, a TLS handshake with a plain-HTTP server, a reply of invalid UTF-8 under a UTF-8
// charset, a 100 MB reply, and a stall with no time-out. Each call delivers exactly one result
// (the stall none within its bound) and leaves no runtime object behind; LeakSanitizer checks
// the rest of the memory when the suite ends.
#include "FaultServer.h"
#include "ScriptedHTTPServer.h"
#include "TransportHarness.h"

#include <gmock/gmock.h>

using namespace hvit;
using testing::HasSubstr;

namespace {

const char *const kHelloReply = "<?xml version=\"1.0\"?>\n<methodResponse><params><param><value><string>hello"
                                "</string></value></param></params></methodResponse>\n";

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

class TransportFaultMatrix : public LiveObjects, public testing::WithParamInterface<Road> {};

} // namespace

// A host under .invalid whose first label is longer than the 63 bytes a DNS label may hold: the
// resolver refuses the name itself, so the test never sends a query off the machine.
TEST_P(TransportFaultMatrix, UnresolvableHost) {
    Outcome outcome = Invocation("http://" + std::string(64, 'n') + ".invalid/RPC2", "echo").run(GetParam());
    ASSERT_EQ(outcome.callbacks, 1);
    expectStreamFault(outcome, "Stream Error", 20, 6); // COULDNT_RESOLVE_HOST
}

// https to a server that speaks plain HTTP: the handshake fails, the call does not hang.
TEST_P(TransportFaultMatrix, TLSHandshakeWithPlainHTTPServer) {
    hvtest::ScriptedHTTPServer server;
    server.reply("*", "*", hvtest::ScriptedReply::xml(kHelloReply));
    std::string url = "https://127.0.0.1:" + std::to_string(server.port()) + "/RPC2";
    Outcome outcome = Invocation(url, "echo").run(GetParam());
    ASSERT_EQ(outcome.callbacks, 1);
    expectStreamFault(outcome, "Stream Error", 20, 35); // SSL_CONNECT_ERROR
    EXPECT_EQ(server.requestCount(), 0u);
}

// Bytes that are not UTF-8 in a reply that says it is: a parse fault naming the position, with
// the body still shown in the debug entries.
TEST_P(TransportFaultMatrix, InvalidUTF8UnderAUTF8Charset) {
    const std::string body = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<methodResponse><params><param><value>"
                             "<string>caf\xE9 \xFF\xFE</string></value></param></params></methodResponse>\n";
    for (RtStringRef protocol : {kHVXMLRPCProtocol, kHVSOAP2001Protocol}) {
        SCOPED_TRACE(text(protocol));
        hvtest::FaultServer server(hvtest::FaultScript::reply("200 OK", "text/xml; charset=utf-8", body));
        Outcome outcome = Invocation(server.url("/RPC2"), "echo", protocol).run(GetParam());
        ASSERT_EQ(outcome.callbacks, 1);
        expectStreamFault(outcome, outcome.streamMessage(), -1, -65795);
        EXPECT_THAT(outcome.streamMessage(), HasSubstr("(line 2, pos "));
        expectDebugEntries(outcome, true);
        EXPECT_THAT(text(outcome.value(kHVDebugIncomingBody)), HasSubstr("<methodResponse>"));
    }
}

// A 100 MB reply is read whole and delivered as one 100 MB string.
TEST_P(TransportFaultMatrix, HundredMegabyteReply) {
    const size_t kPiece = 100 * 1000, kPieces = 1000;
    std::string piece;
    for (size_t i = 0; piece.size() < kPiece; i++)
        piece += static_cast<char>('a' + i % 26);
    piece.resize(kPiece);
    hvtest::ScriptedHTTPServer server;
    hvtest::ScriptedReply reply = hvtest::ScriptedReply::xml(piece);
    reply.bodyRepeat = kPieces;
    reply.bodyHead = "<?xml version=\"1.0\"?>\n<methodResponse><params><param><value><string>";
    reply.bodyTail = "</string></value></param></params></methodResponse>\n";
    server.reply("*", "*", reply);

    Outcome outcome = Invocation(server.url("/RPC2"), "echo").run(GetParam());
    ASSERT_EQ(outcome.callbacks, 1);
    ASSERT_FALSE(outcome.isFault()) << outcome.streamMessage();
    RtTypeRef value = outcome.value(kHVMethodInvocationResult);
    ASSERT_TRUE(value && RtGetTypeID(value) == RtStringGetTypeID());
    EXPECT_EQ(RtStringGetLength(static_cast<RtStringRef>(value)), static_cast<RtIndex>(kPiece * kPieces));
}

namespace {

void _countCallback(HVMethodInvocationRef, void *info, RtDictionaryRef result) {
    ++*static_cast<int *>(info);
    if (result)
        RtRelease(result);
}

} // namespace

// A server that never answers and no time-out property: the call waits as long as its loop runs.
// The test bounds it with the run loop's own limit, then unschedules and releases the call,
// which must tear the exchange down without a callback, a crash or a leak.
using TransportFaultMatrixStall = LiveObjects;

TEST_F(TransportFaultMatrixStall, WithoutTimeOutEndsWhenReleased) {
    hvtest::FaultServer server(hvtest::FaultScript::neverAnswer());
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

INSTANTIATE_TEST_SUITE_P(Roads, TransportFaultMatrix, testing::Values(Road::eSync, Road::eAsync), roadName);
