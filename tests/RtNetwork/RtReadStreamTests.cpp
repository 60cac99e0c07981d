// HTTP read stream against real servers on 127.0.0.1: round trips, a GET, redirects, every fault ending in
// exactly one error event, TLS verification, and clients that close or release the stream from their
// callback. Proxies, connection reuse, redirect loops and stalls are pinned through the transport in
// tests/integration.
#include <RtNetwork/RtNetwork.h>

#include "../RtCore/RtValueTestSupport.h"
#include "FaultServer.h"
#include "ScriptedHTTPServer.h"
#include "TestHTTPClient.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

using namespace rttest;

namespace {

using hvtest::FaultScript;
using hvtest::FaultServer;
using hvtest::ScriptedHTTPServer;
using hvtest::ScriptedReply;

const RtStringRef kMode = RTSTR("RtReadStreamTest");
// Only a guard against a hang; no test depends on how long anything takes.
constexpr RtTimeInterval kGuard = 30;
const RtOptionFlags kAllEvents = kRtStreamEventOpenCompleted | kRtStreamEventHasBytesAvailable |
                                 kRtStreamEventErrorOccurred | kRtStreamEventEndEncountered;

RtHTTPMessageRef makeRequest(const std::string &url, const std::string &method = "POST",
                             const std::string &body = "", const hvtest::HTTPHeaders &headers = {}) {
    RtStringRef u = str(url), m = str(method);
    RtURLRef parsed = RtURLCreateWithString(kRtAllocatorDefault, u, nullptr);
    RtHTTPMessageRef req = RtHTTPMessageCreateRequest(kRtAllocatorDefault, m, parsed, nullptr);
    for (auto &[name, value] : headers) {
        RtStringRef n = str(name), v = str(value);
        RtHTTPMessageSetHeaderFieldValue(req, n, v);
        for (RtTypeRef x : {RtTypeRef(n), RtTypeRef(v)})
            RtRelease(x);
    }
    RtDataRef d = body.empty() ? nullptr : dataOf(body);
    if (d) RtHTTPMessageSetBody(req, d);
    for (RtTypeRef x : {RtTypeRef(d), RtTypeRef(parsed), RtTypeRef(u), RtTypeRef(m)})
        RtRelease(x);
    return req;
}

// What one exchange produced, as a client of the stream saw it. It is the stream's client too:
// it records events and reads on the turn after has-bytes-available, as the library's transport does.
struct Outcome {
    std::vector<RtStreamEventType> events;
    std::string body;
    RtStreamError error{0, 0};
    RtStreamStatus status = kRtStreamStatusNotOpen;
    int32_t statusCode = 0;
    std::string head; // the response head as serialized again, "" without one
    std::string finalURL;
    std::string detail; // the error detail, "" without one
    bool fReadPending = false, fDone = false;
    std::function<void(RtReadStreamRef, RtStreamEventType)> fHook;

    size_t count(RtStreamEventType e) const { return size_t(std::count(events.begin(), events.end(), e)); }
    // The events but has-bytes-available, whose number depends on how the kernel delivers a body.
    std::vector<RtStreamEventType> milestones() const {
        std::vector<RtStreamEventType> m;
        std::copy_if(events.begin(), events.end(), std::back_inserter(m),
                     [](RtStreamEventType e) { return e != kRtStreamEventHasBytesAvailable; });
        return m;
    }
};

void _clientCallback(RtReadStreamRef stream, RtStreamEventType type, void *info) {
    auto *out = static_cast<Outcome *>(info);
    out->events.push_back(type);
    out->fReadPending |= type == kRtStreamEventHasBytesAvailable;
    out->fDone |= type == kRtStreamEventEndEncountered || type == kRtStreamEventErrorOccurred;
    if (out->fHook) out->fHook(stream, type);
}

// Makes out the client of stream, scheduled in mode of this thread's loop.
void attach(RtReadStreamRef stream, Outcome &out, RtStringRef mode) {
    RtStreamClientContext ctx = {0, &out, nullptr, nullptr, nullptr};
    EXPECT_TRUE(RtReadStreamSetClient(stream, kAllEvents, _clientCallback, &ctx));
    RtReadStreamScheduleWithRunLoop(stream, RtRunLoopGetCurrent(), mode);
}

// Runs mode until the stream ends or fails, or a run handles no source, reading as bytes arrive.
int32_t runUntilDone(RtReadStreamRef stream, Outcome &out, RtStringRef mode) {
    int32_t result = kRtRunLoopRunHandledSource;
    while (!out.fDone && result == kRtRunLoopRunHandledSource &&
           RtReadStreamGetStatus(stream) != kRtStreamStatusClosed) {
        result = RtRunLoopRunInMode(mode, kGuard, true);
        uint8_t buf[1024];
        for (RtIndex n = sizeof buf; out.fReadPending && n == RtIndex(sizeof buf);) {
            n = RtReadStreamRead(stream, buf, sizeof buf);
            if (n > 0) out.body.append(reinterpret_cast<char *>(buf), size_t(n));
        }
        out.fReadPending = false;
    }
    return result;
}

// Sends request on a stream in a private mode and runs that mode until the end or an error,
// then one more turn to catch stragglers.
Outcome exchange(RtHTTPMessageRef request, const std::function<void(RtReadStreamRef)> &configure = {},
                 std::function<void(RtReadStreamRef, RtStreamEventType)> hook = {}) {
    Outcome out;
    out.fHook = std::move(hook);
    RtReadStreamRef stream = RtReadStreamCreateForHTTPRequest(kRtAllocatorDefault, request);
    if (configure) configure(stream);
    attach(stream, out, kMode);
    EXPECT_TRUE(RtReadStreamOpen(stream));
    runUntilDone(stream, out, kMode);
    RtRunLoopRunInMode(kMode, 0, false);

    out.error = RtReadStreamGetError(stream);
    out.status = RtReadStreamGetStatus(stream);
    auto *response = static_cast<RtHTTPMessageRef>(
        const_cast<void *>(RtReadStreamCopyProperty(stream, kRtStreamPropertyHTTPResponseHeader)));
    out.statusCode = response ? RtHTTPMessageGetResponseStatusCode(response) : 0;
    out.head = response ? takeData(RtHTTPMessageCopySerializedMessage(response)) : "";
    auto *finalURL = static_cast<RtURLRef>(RtReadStreamCopyProperty(stream, kRtStreamPropertyHTTPFinalURL));
    out.finalURL = text(RtURLGetString(finalURL));
    auto *detail = static_cast<RtStringRef>(RtReadStreamCopyProperty(stream, kRtStreamPropertyErrorDetail));
    out.detail = text(detail);
    for (RtTypeRef x : {RtTypeRef(response), RtTypeRef(finalURL), RtTypeRef(detail), RtTypeRef(stream)})
        RtRelease(x); // releasing the stream closes it and takes it out of the loop
    return out;
}

Outcome exchange(const std::string &url, const std::string &method = "POST", const std::string &body = "") {
    RtHTTPMessageRef req = makeRequest(url, method, body);
    Outcome out = exchange(req);
    RtRelease(req);
    return out;
}

using Events = std::vector<RtStreamEventType>;

void expectCleanEnd(const Outcome &out) {
    EXPECT_EQ((Events{kRtStreamEventOpenCompleted, kRtStreamEventEndEncountered}), out.milestones());
    EXPECT_EQ(0, out.error.domain);
    EXPECT_EQ(kRtStreamStatusAtEnd, out.status);
}

// Exactly one error event, last, and nothing after; code is the CURLcode expected, or 0 for any.
void expectOneError(const Outcome &out, int code) {
    Events m = out.milestones();
    EXPECT_TRUE(m == Events{kRtStreamEventErrorOccurred} ||
                m == (Events{kRtStreamEventOpenCompleted, kRtStreamEventErrorOccurred}));
    EXPECT_EQ(kRtStreamEventErrorOccurred, out.events.back());
    EXPECT_EQ(kRtStreamErrorDomainCurl, out.error.domain);
    EXPECT_NE(0, out.error.error);
    if (code) {
        EXPECT_EQ(code, out.error.error);
    }
    EXPECT_EQ(kRtStreamStatusError, out.status);
    EXPECT_NE("", out.detail) << "a failure says why in words";
}

class RtReadStreamTest : public LeakChecked {
  protected:
    // The first exchange on a thread makes the thread's transfer machinery, which lives on.
    static void SetUpTestSuite() {
        exchange("http://127.0.0.1:" + std::to_string(hvtest::freeLoopbackPort()) + "/");
    }
};

TEST_F(RtReadStreamTest, RoundTripSendsExactlyTheMessageFields) {
    ScriptedHTTPServer server;
    server.route("POST", "/RPC2", [](const hvtest::RecordedRequest &r) {
        ScriptedReply reply = ScriptedReply::xml("<echo>" + r.body + "</echo>");
        reply.headers.emplace_back("X-Reply", "yes");
        reply.chunked = true;
        return reply;
    });
    // Long enough (over 1 MB) that libcurl would otherwise ask "Expect: 100-continue".
    std::string body(1100000, 'b');
    RtHTTPMessageRef req = own(makeRequest(
        server.url("/RPC2"), "POST", body,
        {{"Host", "127.0.0.1"}, {"User-Agent", "tests"}, {"Content-Type", "text/xml"}, {"X-Custom", "a b"}}));
    Outcome out = exchange(req);
    expectCleanEnd(out);
    EXPECT_EQ(200, out.statusCode);
    EXPECT_EQ(0u, out.head.find("HTTP/1.1 200 OK\r\n")) << out.head;
    EXPECT_NE(std::string::npos, out.head.find("\r\nX-Reply: yes\r\n")) << out.head;
    EXPECT_EQ("<echo>" + body + "</echo>", out.body) << "a large chunked reply arrives whole";

    hvtest::RecordedRequest seen = server.lastRequest();
    EXPECT_EQ("POST", seen.method);
    EXPECT_EQ("HTTP/1.1", seen.version);
    EXPECT_EQ(body, seen.body);
    EXPECT_EQ(5u, seen.headers.size()) << "no Expect, Accept or Transfer-Encoding of libcurl's own";
    // The message's Host is the URL's bare host name: the field on the wire carries the port.
    EXPECT_EQ("127.0.0.1:" + std::to_string(server.port()), seen.header("Host"));
    for (auto [name, value] : {std::make_pair("Content-Length", "1100000"),
                               {"Content-Type", "text/xml"},
                               {"User-Agent", "tests"},
                               {"X-Custom", "a b"}})
        EXPECT_EQ(value, seen.header(name)) << name;
}

// (HTTP/1.0 both ways and other posting methods are pinned through the transport.)
TEST_F(RtReadStreamTest, AGetSendsNoBodyAndNoLength) {
    ScriptedHTTPServer server;
    server.route("*", "*", [](const hvtest::RecordedRequest &r) {
        return ScriptedReply::with(200, "text/plain", r.method + " " + r.version);
    });
    Outcome out = exchange(server.url("/"), "GET");
    expectCleanEnd(out);
    EXPECT_EQ("GET HTTP/1.1", out.body);
    EXPECT_EQ("", server.lastRequest().body);
    EXPECT_FALSE(server.lastRequest().hasHeader("Content-Length"));
}

TEST_F(RtReadStreamTest, AStreamHearsNothingOutsideItsMode) {
    ScriptedHTTPServer server;
    server.reply("GET", "/", ScriptedReply::with(200, "text/plain", std::string(30000, 'a')));
    // Scheduled in another mode and opened first, as an asynchronous call would be.
    RtStringRef otherMode = RTSTR("RtReadStreamTest.other");
    Outcome outside;
    RtHTTPMessageRef req = own(makeRequest(server.url("/"), "GET"));
    RtReadStreamRef other = own(RtReadStreamCreateForHTTPRequest(kRtAllocatorDefault, req));
    attach(other, outside, otherMode);
    ASSERT_TRUE(RtReadStreamOpen(other));

    // A whole exchange in the private mode: the other stream's transfer may progress, but its
    // client hears nothing.
    expectCleanEnd(exchange(req));
    EXPECT_TRUE(outside.events.empty());

    // Its own mode delivers everything, in order, with every byte.
    EXPECT_EQ(kRtRunLoopRunHandledSource, runUntilDone(other, outside, otherMode));
    EXPECT_EQ((Events{kRtStreamEventOpenCompleted, kRtStreamEventEndEncountered}), outside.milestones());
    EXPECT_EQ(std::string(30000, 'a'), outside.body);
}

TEST_F(RtReadStreamTest, RedirectsFollowedOnlyWhenAskedAndTheFinalURLSaysWhere) {
    ScriptedHTTPServer server;
    ScriptedReply moved = ScriptedReply::with(302, "text/plain", "moved");
    moved.headers.emplace_back("Location", server.url("/new"));
    server.reply("GET", "/old", moved);
    server.reply("GET", "/new", ScriptedReply::with(200, "text/plain", "arrived"));
    RtHTTPMessageRef req = own(makeRequest(server.url("/old"), "GET"));
    Outcome off = exchange(req);
    expectCleanEnd(off);
    EXPECT_EQ(0u, off.head.find("HTTP/1.1 302 Found\r\n"));
    EXPECT_EQ(server.url("/old"), off.finalURL);

    Outcome on = exchange(req, [](RtReadStreamRef s) {
        EXPECT_TRUE(RtReadStreamSetProperty(s, kRtStreamPropertyHTTPShouldAutoredirect, kRtBooleanTrue));
    });
    expectCleanEnd(on);
    EXPECT_EQ("arrived", on.body);
    EXPECT_EQ(server.url("/new"), on.finalURL);
}

TEST_F(RtReadStreamTest, EveryFaultEndsInExactlyOneError) {
    const struct {
        const char *name;
        FaultScript script;
        int code; // the CURLcode expected, or 0 for any
    } cases[] = {
        {"close before status line", FaultScript::closeBeforeStatus(), CURLE_GOT_NOTHING},
        {"reset before status line", FaultScript::resetBeforeStatus(), 0},
        {"reset in the head", FaultScript::resetMidHeaders(), 0},
        {"reset mid-body", FaultScript::resetMidBody(), 0},
        {"body shorter than its length", FaultScript::bodyShorterThanLength(), CURLE_PARTIAL_FILE},
        {"broken chunked framing", FaultScript::brokenChunked(), 0},
        {"garbage status line", FaultScript::garbageStatusLine(), 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        FaultServer server(c.script);
        expectOneError(exchange(server.url("/RPC2"), "POST", "<call/>"), c.code);
    }

    Outcome refused = exchange("http://127.0.0.1:" + std::to_string(hvtest::freeLoopbackPort()) + "/");
    EXPECT_EQ((Events{kRtStreamEventErrorOccurred}), refused.events);
    EXPECT_EQ(CURLE_COULDNT_CONNECT, refused.error.error);
}

TEST_F(RtReadStreamTest, ClientsMayCloseOrReleaseFromTheirCallback) {
    ScriptedHTTPServer server;
    server.reply("GET", "/", ScriptedReply::with(200, "text/plain", std::string(50000, 'q')));

    // Released on open-completed: nothing more arrives and nothing is left behind.
    int calls = 0;
    RtHTTPMessageRef req = own(makeRequest(server.url("/"), "GET"));
    RtReadStreamRef stream = RtReadStreamCreateForHTTPRequest(kRtAllocatorDefault, req);
    RtStreamClientContext ctx = {0, &calls, nullptr, nullptr, nullptr};
    RtReadStreamSetClient(
        stream, kAllEvents,
        [](RtReadStreamRef s, RtStreamEventType, void *info) {
            ++*static_cast<int *>(info);
            RtReadStreamClose(s);
            RtRelease(s);
        },
        &ctx);
    RtReadStreamScheduleWithRunLoop(stream, RtRunLoopGetCurrent(), kMode);
    ASSERT_TRUE(RtReadStreamOpen(stream));
    EXPECT_EQ(kRtRunLoopRunHandledSource, RtRunLoopRunInMode(kMode, kGuard, true));
    EXPECT_EQ(kRtRunLoopRunFinished, RtRunLoopRunInMode(kMode, 0.2, false));
    EXPECT_EQ(1, calls);

    // Closed on the first bytes: no end event follows and reading fails.
    Outcome out = exchange(req, {}, [](RtReadStreamRef s, RtStreamEventType type) {
        if (type == kRtStreamEventHasBytesAvailable) RtReadStreamClose(s);
    });
    EXPECT_EQ((Events{kRtStreamEventOpenCompleted, kRtStreamEventHasBytesAvailable}), out.events);
    EXPECT_EQ(kRtStreamStatusClosed, out.status);
    EXPECT_TRUE(out.body.empty());
}

TEST_F(RtReadStreamTest, RefusesWhatItCannotStart) {
    // (A response message, or a method that is not a token, are refused through the transport.)
    RtHTTPMessageRef req = makeRequest("http://127.0.0.1:9/");
    RtReadStreamRef stream = RtReadStreamCreateForHTTPRequest(kRtAllocatorDefault, req);
    EXPECT_FALSE(RtReadStreamOpen(stream)); // not scheduled
    uint8_t byte;
    EXPECT_EQ(-1, RtReadStreamRead(stream, &byte, 1));
    RtReadStreamScheduleWithRunLoop(stream, RtRunLoopGetCurrent(), kMode);
    EXPECT_TRUE(RtReadStreamOpen(stream));
    EXPECT_FALSE(RtReadStreamOpen(stream)); // only once
    EXPECT_FALSE(RtReadStreamSetProperty(stream, kRtStreamPropertyHTTPShouldAutoredirect, kRtBooleanTrue));
    RtReadStreamClose(stream);
    RtRelease(stream); // still scheduled: releasing takes it out of the loop
    RtRelease(req);
    EXPECT_EQ(kRtRunLoopRunFinished, RtRunLoopRunInMode(kMode, 0, false));
}

// The settings are taken only in their documented form; anything else is refused.
TEST_F(RtReadStreamTest, SettingsTakenOnlyInTheirForm) {
    RtHTTPMessageRef req = own(makeRequest("http://127.0.0.1:9/", "GET"));
    RtReadStreamRef stream = own(RtReadStreamCreateForHTTPRequest(kRtAllocatorDefault, req));
    int64_t minusOne = -1, ten = 10;
    RtNumberRef negative = own(RtNumberCreate(nullptr, kRtNumberSInt64Type, &minusOne));
    RtNumberRef positive = own(RtNumberCreate(nullptr, kRtNumberSInt64Type, &ten));
    auto dict = [&](RtStringRef key, RtTypeRef value) {
        const void *keys[] = {key}, *values[] = {value};
        return own(RtDictionaryCreate(nullptr, keys, values, 1, &kRtTypeDictionaryKeyCallBacks,
                                      &kRtTypeDictionaryValueCallBacks));
    };
    struct Row {
        const char *name;
        RtStringRef property;
        RtTypeRef value;
        bool taken;
    } rows[] = {
        {"body limit", kRtStreamPropertyHTTPMaxBodyLength, positive, true},
        {"negative body limit", kRtStreamPropertyHTTPMaxBodyLength, negative, false},
        {"body limit as text", kRtStreamPropertyHTTPMaxBodyLength, RTSTR("10"), false},
        {"head limit", kRtStreamPropertyHTTPMaxHeadLength, positive, true},
        {"digest", kRtStreamPropertyHTTPAuthentication, dict(kRtStreamHTTPAuthScheme, RTSTR("digest")), true},
        {"unknown scheme", kRtStreamPropertyHTTPAuthentication,
         dict(kRtStreamHTTPAuthScheme, RTSTR("NTLMv9")), false},
        {"user as a number", kRtStreamPropertyHTTPAuthentication, dict(kRtStreamHTTPAuthUser, positive),
         false},
        {"no authentication", kRtStreamPropertyHTTPAuthentication, nullptr, true},
        {"CA file", kRtStreamPropertyTLS, dict(kRtStreamTLSCAFile, RTSTR("/tmp/ca.pem")), true},
        {"CA file as a number", kRtStreamPropertyTLS, dict(kRtStreamTLSCAFile, positive), false},
        {"TLS as text", kRtStreamPropertyTLS, RTSTR("insecure"), false},
        {"compression", kRtStreamPropertyHTTPAcceptCompression, kRtBooleanTrue, true},
        {"compression as a number", kRtStreamPropertyHTTPAcceptCompression, positive, false},
    };
    for (const Row &row : rows)
        EXPECT_EQ(row.taken, RtReadStreamSetProperty(stream, row.property, row.value)) << row.name;
    EXPECT_EQ(nullptr, RtReadStreamCopyProperty(stream, kRtStreamPropertyErrorDetail));
}

TEST_F(RtReadStreamTest, HTTPSRefusesACertificateNobodyVouchesFor) {
    // openssl s_server with a fresh self-signed certificate, for one connection (30 s at most).
    char dir[] = "/tmp/rtnet-tls-XXXXXX";
    ASSERT_TRUE(mkdtemp(dir));
    std::string d = dir, port = std::to_string(hvtest::freeLoopbackPort());
    std::string make =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=127.0.0.1 "
        "-days 1 -keyout " +
        d + "/key.pem -out " + d + "/cert.pem >/dev/null 2>&1";
    std::string serve = "exec timeout 30 openssl s_server -naccept 1 -www -accept 127.0.0.1:" + port +
                        " -cert " + d + "/cert.pem -key " + d + "/key.pem 2>/dev/null";
    FILE *server = std::system(make.c_str()) == 0 ? popen(serve.c_str(), "r") : nullptr;
    char line[256] = "";
    while (server && std::strncmp(line, "ACCEPT", 6) != 0 && fgets(line, sizeof line, server)) {
    }
    bool listening = std::strncmp(line, "ACCEPT", 6) == 0;
    if (listening)
        expectOneError(exchange("https://127.0.0.1:" + port + "/", "GET"), CURLE_PEER_FAILED_VERIFICATION);
    if (server) pclose(server);
    for (const char *file : {"/key.pem", "/cert.pem"})
        unlink((d + file).c_str());
    rmdir(dir);
    if (!listening) GTEST_SKIP() << "openssl s_server did not start";
}

} // namespace
