// HTTP read stream against real servers on 127.0.0.1: round trips, versions and methods, the
// proxy, redirects, connection reuse, every fault ending in exactly one error event, TLS
// verification, and clients that close or release the stream from their callback.
#include <RtNetwork/RtNetwork.h>

#include "FaultServer.h"
#include "ForwardProxy.h"
#include "ScriptedHTTPServer.h"
#include "TestHTTPClient.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using hvtest::FaultScript;
using hvtest::FaultServer;
using hvtest::ScriptedHTTPServer;
using hvtest::ScriptedReply;

const RtStringRef kMode = RTSTR("RtReadStreamTest");
// Only a guard against a hang; no test depends on how long anything takes.
constexpr RtTimeInterval kGuard = 30;

std::string text(RtStringRef s) {
    if (!s) return "(null)";
    RtIndex used = 0, n = RtStringGetLength(s);
    RtStringGetBytes(s, RtRangeMake(0, n), kRtStringEncodingUTF8, '?', false, nullptr, 0, &used);
    std::string out(size_t(used), '\0');
    RtStringGetBytes(s, RtRangeMake(0, n), kRtStringEncodingUTF8, '?', false, reinterpret_cast<uint8_t *>(&out[0]),
                     used, &used);
    return out;
}

RtStringRef str(const std::string &s) {
    return RtStringCreateWithCString(kRtAllocatorDefault, s.c_str(), kRtStringEncodingUTF8);
}

RtHTTPMessageRef makeRequest(const std::string &url, const std::string &method = "POST", const std::string &body = "",
                             RtStringRef version = nullptr,
                             const std::vector<std::pair<std::string, std::string>> &headers = {}) {
    RtStringRef u = str(url), m = str(method);
    RtURLRef parsed = RtURLCreateWithString(kRtAllocatorDefault, u, nullptr);
    RtHTTPMessageRef req = RtHTTPMessageCreateRequest(kRtAllocatorDefault, m, parsed, version);
    for (auto &[name, value] : headers) {
        RtStringRef n = str(name), v = str(value);
        RtHTTPMessageSetHeaderFieldValue(req, n, v);
        RtRelease(n);
        RtRelease(v);
    }
    if (!body.empty()) {
        RtDataRef d = RtDataCreate(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(body.data()), RtIndex(body.size()));
        RtHTTPMessageSetBody(req, d);
        RtRelease(d);
    }
    RtRelease(parsed);
    RtRelease(u);
    RtRelease(m);
    return req;
}

// What one exchange produced, as a client of the stream saw it.
struct Outcome {
    std::vector<RtStreamEventType> events;
    std::string body;
    RtStreamError error{0, 0};
    RtStreamStatus status = kRtStreamStatusNotOpen;
    int32_t statusCode = 0;
    std::string statusLine;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string finalURL;
    int32_t lastRun = 0;

    size_t count(RtStreamEventType e) const { return size_t(std::count(events.begin(), events.end(), e)); }
    std::string header(const std::string &name) const {
        for (auto &h : headers)
            if (strcasecmp(h.first.c_str(), name.c_str()) == 0) return h.second;
        return "";
    }
};

// Records events; reads on the turn after has-bytes-available, as the library's transport does.
struct Client {
    Outcome *fOut;
    bool fReadPending = false;
    bool fDone = false;
    std::function<void(RtReadStreamRef, RtStreamEventType)> fHook;
};

void _clientCallback(RtReadStreamRef stream, RtStreamEventType type, void *info) {
    auto *c = static_cast<Client *>(info);
    c->fOut->events.push_back(type);
    if (type == kRtStreamEventHasBytesAvailable) c->fReadPending = true;
    if (type == kRtStreamEventEndEncountered || type == kRtStreamEventErrorOccurred) c->fDone = true;
    if (c->fHook) c->fHook(stream, type);
}

const RtOptionFlags kAllEvents = kRtStreamEventOpenCompleted | kRtStreamEventHasBytesAvailable |
                                 kRtStreamEventErrorOccurred | kRtStreamEventEndEncountered;

void readAvailable(RtReadStreamRef stream, std::string &into) {
    uint8_t buf[1024];
    for (;;) {
        RtIndex n = RtReadStreamRead(stream, buf, sizeof buf);
        if (n < 1) return;
        into.append(reinterpret_cast<char *>(buf), size_t(n));
        if (n < RtIndex(sizeof buf)) return;
    }
}

void collect(RtReadStreamRef stream, Outcome &out) {
    out.error = RtReadStreamGetError(stream);
    out.status = RtReadStreamGetStatus(stream);
    auto *response = static_cast<RtHTTPMessageRef>(
        const_cast<void *>(RtReadStreamCopyProperty(stream, kRtStreamPropertyHTTPResponseHeader)));
    if (response) {
        out.statusCode = RtHTTPMessageGetResponseStatusCode(response);
        RtStringRef line = RtHTTPMessageCopyResponseStatusLine(response);
        out.statusLine = text(line);
        RtRelease(line);
        RtDictionaryRef all = RtHTTPMessageCopyAllHeaderFields(response);
        RtIndex n = RtDictionaryGetCount(all);
        std::vector<const void *> keys(static_cast<size_t>(n)), values(static_cast<size_t>(n));
        RtDictionaryGetKeysAndValues(all, keys.data(), values.data());
        for (RtIndex i = 0; i < n; i++)
            out.headers.emplace_back(text(static_cast<RtStringRef>(keys[size_t(i)])),
                                     text(static_cast<RtStringRef>(values[size_t(i)])));
        RtRelease(all);
        RtRelease(response);
    }
    auto *finalURL = static_cast<RtURLRef>(RtReadStreamCopyProperty(stream, kRtStreamPropertyHTTPFinalURL));
    if (finalURL) out.finalURL = text(RtURLGetString(finalURL));
    RtRelease(finalURL);
}

// Sends request on a stream scheduled in a private mode of this thread's loop and runs that mode
// until the end or an error (or the run's time limit), then one more turn to catch stragglers.
Outcome exchange(RtHTTPMessageRef request, const std::function<void(RtReadStreamRef)> &configure = {},
                 RtTimeInterval limit = kGuard, std::function<void(RtReadStreamRef, RtStreamEventType)> hook = {}) {
    Outcome out;
    Client client{&out, false, false, std::move(hook)};
    RtReadStreamRef stream = RtReadStreamCreateForHTTPRequest(kRtAllocatorDefault, request);
    EXPECT_NE(nullptr, stream);
    if (!stream) return out;
    if (configure) configure(stream);
    RtStreamClientContext ctx = {0, &client, nullptr, nullptr, nullptr};
    EXPECT_TRUE(RtReadStreamSetClient(stream, kAllEvents, _clientCallback, &ctx));
    RtReadStreamScheduleWithRunLoop(stream, RtRunLoopGetCurrent(), kMode);
    bool opened = RtReadStreamOpen(stream);
    EXPECT_TRUE(opened);
    while (opened && !client.fDone) {
        out.lastRun = RtRunLoopRunInMode(kMode, limit, true);
        if (client.fReadPending) {
            client.fReadPending = false;
            readAvailable(stream, out.body);
        }
        if (out.lastRun != kRtRunLoopRunHandledSource || RtReadStreamGetStatus(stream) == kRtStreamStatusClosed) break;
    }
    RtRunLoopRunInMode(kMode, 0, false);
    collect(stream, out);
    RtReadStreamUnscheduleFromRunLoop(stream, RtRunLoopGetCurrent(), kMode);
    RtReadStreamClose(stream);
    RtRelease(stream);
    return out;
}

void expectCleanEnd(const Outcome &out) {
    ASSERT_FALSE(out.events.empty());
    EXPECT_EQ(kRtStreamEventOpenCompleted, out.events.front());
    EXPECT_EQ(kRtStreamEventEndEncountered, out.events.back());
    EXPECT_EQ(1u, out.count(kRtStreamEventOpenCompleted));
    EXPECT_EQ(1u, out.count(kRtStreamEventEndEncountered));
    EXPECT_EQ(0u, out.count(kRtStreamEventErrorOccurred));
    EXPECT_EQ(0, out.error.domain);
    EXPECT_EQ(kRtStreamStatusAtEnd, out.status);
}

RtDictionaryRef proxyDictionary(uint16_t port) {
    int32_t p = port;
    RtNumberRef number = RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt32Type, &p);
    const void *keys[] = {kRtStreamPropertyHTTPProxyHost, kRtStreamPropertyHTTPProxyPort};
    const void *values[] = {RTSTR("127.0.0.1"), number};
    RtDictionaryRef dict = RtDictionaryCreate(kRtAllocatorDefault, keys, values, 2, &kRtTypeDictionaryKeyCallBacks,
                                              &kRtTypeDictionaryValueCallBacks);
    RtRelease(number);
    return dict;
}

class RtReadStreamTest : public ::testing::Test {
  protected:
    void SetUp() override { fLive = RtRuntimeGetLiveObjectCount(); }
    void TearDown() override { EXPECT_EQ(fLive, RtRuntimeGetLiveObjectCount()) << "runtime objects leaked"; }

    // The first exchange on a thread makes the thread's transfer machinery, which lives on.
    static void SetUpTestSuite() {
        RtHTTPMessageRef req = makeRequest("http://127.0.0.1:" + std::to_string(hvtest::freeLoopbackPort()) + "/");
        exchange(req);
        RtRelease(req);
    }

    long fLive = 0;
};

TEST_F(RtReadStreamTest, RoundTripSendsExactlyTheMessageFields) {
    ScriptedHTTPServer server;
    server.route("POST", "/RPC2", [](const hvtest::RecordedRequest &r) {
        ScriptedReply reply = ScriptedReply::xml("<echo>" + r.body + "</echo>");
        reply.headers.emplace_back("X-Reply", "yes");
        return reply;
    });
    // Long enough (over 1 MB) that libcurl would otherwise ask "Expect: 100-continue".
    std::string body(1100000, 'b');
    RtHTTPMessageRef req = makeRequest(server.url("/RPC2"), "POST", body, nullptr,
                                       {{"Host", "127.0.0.1"}, {"User-Agent", "tests"}, {"Content-Type", "text/xml"},
                                        {"X-Custom", "a b"}});
    Outcome out = exchange(req);
    RtRelease(req);
    expectCleanEnd(out);
    EXPECT_EQ(200, out.statusCode);
    EXPECT_EQ("HTTP/1.1 200 OK", out.statusLine);
    EXPECT_EQ("yes", out.header("x-reply"));
    EXPECT_EQ("<echo>" + body + "</echo>", out.body);

    hvtest::RecordedRequest seen = server.lastRequest();
    EXPECT_EQ("POST", seen.method);
    EXPECT_EQ("HTTP/1.1", seen.version);
    EXPECT_EQ(body, seen.body);
    std::vector<std::string> names;
    for (auto &h : seen.headers) names.push_back(h.first);
    std::sort(names.begin(), names.end());
    EXPECT_EQ((std::vector<std::string>{"Content-Length", "Content-Type", "Host", "User-Agent", "X-Custom"}), names);
    EXPECT_EQ("1100000", seen.header("Content-Length"));
    EXPECT_EQ("127.0.0.1", seen.header("Host"));
    EXPECT_EQ("a b", seen.header("X-Custom"));
}

TEST_F(RtReadStreamTest, VersionsAndMethodsAsTheMessageSays) {
    ScriptedHTTPServer server;
    server.route("*", "*", [](const hvtest::RecordedRequest &r) {
        ScriptedReply reply = ScriptedReply::with(200, "text/plain", r.method + " " + r.version);
        reply.http10 = r.version == "HTTP/1.0";
        return reply;
    });
    RtHTTPMessageRef old = makeRequest(server.url("/"), "POST", "x", kRtHTTPVersion1_0);
    Outcome o10 = exchange(old);
    RtRelease(old);
    expectCleanEnd(o10);
    EXPECT_EQ("POST HTTP/1.0", o10.body);
    EXPECT_EQ("HTTP/1.0 200 OK", o10.statusLine);

    RtHTTPMessageRef get = makeRequest(server.url("/"), "GET");
    Outcome og = exchange(get);
    RtRelease(get);
    expectCleanEnd(og);
    EXPECT_EQ("GET HTTP/1.1", og.body);
    EXPECT_FALSE(server.lastRequest().hasHeader("Content-Length"));

    RtHTTPMessageRef put = makeRequest(server.url("/"), "PUT", "payload");
    Outcome op = exchange(put);
    RtRelease(put);
    expectCleanEnd(op);
    EXPECT_EQ("PUT HTTP/1.1", op.body);
    EXPECT_EQ("payload", server.lastRequest().body);

    // A large chunked reply arrives whole.
    server.route("GET", "/big", [](const hvtest::RecordedRequest &) {
        ScriptedReply reply = ScriptedReply::with(200, "application/octet-stream", std::string(10000, 'z'));
        reply.bodyRepeat = 200;
        reply.chunked = true;
        return reply;
    });
    RtHTTPMessageRef big = makeRequest(server.url("/big"), "GET");
    Outcome ob = exchange(big);
    RtRelease(big);
    expectCleanEnd(ob);
    EXPECT_EQ(2000000u, ob.body.size());
    EXPECT_EQ(std::string::npos, ob.body.find_first_not_of('z'));
    // How many has-bytes events a large body takes depends on how the kernel delivers it.
    EXPECT_GE(ob.count(kRtStreamEventHasBytesAvailable), 1u);
}

TEST_F(RtReadStreamTest, SequentialRequestsReuseOneConnection) {
    ScriptedHTTPServer server;
    server.reply("POST", "/RPC2", ScriptedReply::xml("<ok/>"));
    for (int i = 0; i < 2; i++) {
        RtHTTPMessageRef req = makeRequest(server.url("/RPC2"), "POST", "<call/>");
        Outcome out = exchange(req);
        RtRelease(req);
        expectCleanEnd(out);
        EXPECT_EQ("<ok/>", out.body);
    }
    EXPECT_EQ(2u, server.requestCount());
    EXPECT_EQ(1u, server.connectionCount());
}

TEST_F(RtReadStreamTest, AStreamHearsNothingOutsideItsMode) {
    ScriptedHTTPServer server;
    server.reply("GET", "/", ScriptedReply::with(200, "text/plain", std::string(30000, 'a')));
    // Scheduled in another mode and opened first, as an asynchronous call would be.
    Outcome outside;
    Client client{&outside, false, false, {}};
    RtHTTPMessageRef req = makeRequest(server.url("/"), "GET");
    RtReadStreamRef other = RtReadStreamCreateForHTTPRequest(kRtAllocatorDefault, req);
    RtStreamClientContext ctx = {0, &client, nullptr, nullptr, nullptr};
    RtReadStreamSetClient(other, kAllEvents, _clientCallback, &ctx);
    RtReadStreamScheduleWithRunLoop(other, RtRunLoopGetCurrent(), RTSTR("RtReadStreamTest.other"));
    ASSERT_TRUE(RtReadStreamOpen(other));

    // A whole exchange in the private mode: the other stream's transfer may progress, but its
    // client hears nothing.
    Outcome inside = exchange(req);
    expectCleanEnd(inside);
    EXPECT_TRUE(outside.events.empty());

    // Its own mode delivers everything, in order, with every byte.
    while (!client.fDone) {
        ASSERT_EQ(kRtRunLoopRunHandledSource, RtRunLoopRunInMode(RTSTR("RtReadStreamTest.other"), kGuard, true));
        if (client.fReadPending) {
            client.fReadPending = false;
            readAvailable(other, outside.body);
        }
    }
    EXPECT_EQ(kRtStreamEventOpenCompleted, outside.events.front());
    EXPECT_EQ(kRtStreamEventEndEncountered, outside.events.back());
    EXPECT_EQ(std::string(30000, 'a'), outside.body);
    RtRelease(other);
    RtRelease(req);
}

TEST_F(RtReadStreamTest, ProxyProperty) {
    ScriptedHTTPServer server;
    server.reply("POST", "/RPC2", ScriptedReply::xml("<via-proxy/>"));
    hvtest::ForwardProxy proxy;
    RtDictionaryRef dict = proxyDictionary(proxy.port());
    RtHTTPMessageRef req = makeRequest(server.url("/RPC2"), "POST", "<call/>");
    Outcome out = exchange(req, [&](RtReadStreamRef s) {
        EXPECT_TRUE(RtReadStreamSetProperty(s, kRtStreamPropertyHTTPProxy, dict));
        RtTypeRef back = RtReadStreamCopyProperty(s, kRtStreamPropertyHTTPProxy);
        EXPECT_TRUE(RtEqual(dict, back));
        RtRelease(back);
    });
    RtRelease(req);
    RtRelease(dict);
    expectCleanEnd(out);
    EXPECT_EQ("<via-proxy/>", out.body);
    ASSERT_EQ(1u, proxy.requestCount());
    EXPECT_EQ(server.url("/RPC2"), proxy.requests()[0].path);
    EXPECT_EQ("<call/>", server.lastRequest().body);
}

TEST_F(RtReadStreamTest, RedirectsFollowedOnlyWhenAsked) {
    ScriptedHTTPServer server;
    ScriptedReply moved = ScriptedReply::with(302, "text/plain", "moved");
    moved.headers.emplace_back("Location", server.url("/new"));
    server.reply("GET", "/old", moved);
    server.reply("GET", "/new", ScriptedReply::with(200, "text/plain", "arrived"));

    RtHTTPMessageRef req = makeRequest(server.url("/old"), "GET");
    Outcome off = exchange(req, [](RtReadStreamRef s) {
        EXPECT_EQ(kRtBooleanFalse, RtReadStreamCopyProperty(s, kRtStreamPropertyHTTPShouldAutoredirect));
    });
    expectCleanEnd(off);
    EXPECT_EQ(302, off.statusCode);
    EXPECT_EQ("HTTP/1.1 302 Found", off.statusLine);
    EXPECT_EQ(server.url("/old"), off.finalURL);

    Outcome on = exchange(req, [](RtReadStreamRef s) {
        EXPECT_TRUE(RtReadStreamSetProperty(s, kRtStreamPropertyHTTPShouldAutoredirect, kRtBooleanTrue));
    });
    RtRelease(req);
    expectCleanEnd(on);
    EXPECT_EQ(200, on.statusCode);
    EXPECT_EQ("arrived", on.body);
    EXPECT_EQ(server.url("/new"), on.finalURL);

    // A redirect loop ends in an error, not a hang.
    FaultServer loop(FaultScript::redirectLoop());
    RtHTTPMessageRef looping = makeRequest(loop.url("/loop"), "GET");
    Outcome lo = exchange(looping, [](RtReadStreamRef s) {
        RtReadStreamSetProperty(s, kRtStreamPropertyHTTPShouldAutoredirect, kRtBooleanTrue);
    });
    RtRelease(looping);
    EXPECT_EQ(1u, lo.count(kRtStreamEventErrorOccurred));
    EXPECT_EQ(kRtStreamErrorDomainCurl, lo.error.domain);
    EXPECT_EQ(CURLE_TOO_MANY_REDIRECTS, lo.error.error);
}

TEST_F(RtReadStreamTest, EveryFaultEndsInExactlyOneError) {
    struct Case {
        const char *name;
        FaultScript script;
        int code; // the CURLcode expected, or 0 for any
    };
    std::vector<Case> cases = {
        {"close before status line", FaultScript::closeBeforeStatus(), CURLE_GOT_NOTHING},
        {"reset before status line", FaultScript::resetBeforeStatus(), 0},
        {"reset in the head", FaultScript::resetMidHeaders(), 0},
        {"reset mid-body", FaultScript::resetMidBody(), 0},
        {"body shorter than its length", FaultScript::bodyShorterThanLength(), CURLE_PARTIAL_FILE},
        {"broken chunked framing", FaultScript::brokenChunked(), 0},
        {"garbage status line", FaultScript::garbageStatusLine(), 0},
    };
    for (Case &c : cases) {
        SCOPED_TRACE(c.name);
        FaultServer server(c.script);
        RtHTTPMessageRef req = makeRequest(server.url("/RPC2"), "POST", "<call/>");
        Outcome out = exchange(req);
        RtRelease(req);
        EXPECT_EQ(1u, out.count(kRtStreamEventErrorOccurred));
        EXPECT_EQ(0u, out.count(kRtStreamEventEndEncountered));
        EXPECT_EQ(kRtStreamEventErrorOccurred, out.events.back());
        EXPECT_EQ(kRtStreamErrorDomainCurl, out.error.domain);
        EXPECT_NE(0, out.error.error);
        if (c.code) {
            EXPECT_EQ(c.code, out.error.error);
        }
        EXPECT_EQ(kRtStreamStatusError, out.status);
    }

    SCOPED_TRACE("connection refused");
    RtHTTPMessageRef req = makeRequest("http://127.0.0.1:" + std::to_string(hvtest::freeLoopbackPort()) + "/");
    Outcome refused = exchange(req);
    RtRelease(req);
    EXPECT_EQ((std::vector<RtStreamEventType>{kRtStreamEventErrorOccurred}), refused.events);
    EXPECT_EQ(kRtStreamErrorDomainCurl, refused.error.domain);
    EXPECT_EQ(CURLE_COULDNT_CONNECT, refused.error.error);
}

TEST_F(RtReadStreamTest, ServerThatNeverAnswersLeavesTheRunToItsTimeLimit) {
    FaultServer server(FaultScript::neverAnswer());
    RtHTTPMessageRef req = makeRequest(server.url("/RPC2"), "POST", "<call/>");
    Outcome out = exchange(req, {}, 0.3);
    RtRelease(req);
    EXPECT_EQ(kRtRunLoopRunTimedOut, out.lastRun);
    EXPECT_EQ(0u, out.count(kRtStreamEventErrorOccurred));
    EXPECT_EQ(0u, out.count(kRtStreamEventEndEncountered));
}

TEST_F(RtReadStreamTest, ClientsMayCloseOrReleaseFromTheirCallback) {
    ScriptedHTTPServer server;
    ScriptedReply big = ScriptedReply::with(200, "text/plain", std::string(50000, 'q'));
    server.reply("GET", "/", big);

    // Released on open-completed: nothing more arrives and nothing is left behind.
    int calls = 0;
    RtHTTPMessageRef req = makeRequest(server.url("/"), "GET");
    RtReadStreamRef stream = RtReadStreamCreateForHTTPRequest(kRtAllocatorDefault, req);
    RtStreamClientContext ctx = {0, &calls, nullptr, nullptr, nullptr};
    RtReadStreamSetClient(stream, kAllEvents,
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
    Outcome out = exchange(req, {}, kGuard, [](RtReadStreamRef s, RtStreamEventType type) {
        if (type == kRtStreamEventHasBytesAvailable) RtReadStreamClose(s);
    });
    RtRelease(req);
    EXPECT_EQ((std::vector<RtStreamEventType>{kRtStreamEventOpenCompleted, kRtStreamEventHasBytesAvailable}), out.events);
    EXPECT_EQ(kRtStreamStatusClosed, out.status);
    EXPECT_TRUE(out.body.empty());
}

TEST_F(RtReadStreamTest, RefusesWhatItCannotStart) {
    RtHTTPMessageRef response = RtHTTPMessageCreateResponse(kRtAllocatorDefault, 200, nullptr, nullptr);
    EXPECT_EQ(nullptr, RtReadStreamCreateForHTTPRequest(kRtAllocatorDefault, response));
    RtRelease(response);

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

    // A method that is not a token never reaches the network.
    RtHTTPMessageRef bad = makeRequest("http://127.0.0.1:9/", "BAD METHOD");
    RtReadStreamRef badStream = RtReadStreamCreateForHTTPRequest(kRtAllocatorDefault, bad);
    RtReadStreamScheduleWithRunLoop(badStream, RtRunLoopGetCurrent(), kMode);
    EXPECT_FALSE(RtReadStreamOpen(badStream));
    EXPECT_EQ(kRtStreamErrorDomainPOSIX, RtReadStreamGetError(badStream).domain);
    RtRelease(badStream);
    RtRelease(bad);
}

// openssl s_server with a fresh self-signed certificate, for the verification test.
class SelfSignedServer {
  public:
    SelfSignedServer() {
        char dir[] = "/tmp/rtnet-tls-XXXXXX";
        if (!mkdtemp(dir)) return;
        fDir = dir;
        std::string make = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
                           "-subj /CN=127.0.0.1 -days 1 -keyout " + fDir + "/key.pem -out " + fDir +
                           "/cert.pem >/dev/null 2>&1";
        if (std::system(make.c_str()) != 0) return;
        fPort = hvtest::freeLoopbackPort();
        std::string accept = "127.0.0.1:" + std::to_string(fPort), cert = fDir + "/cert.pem", key = fDir + "/key.pem";
        fPid = fork();
        if (fPid == 0) {
            if (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "w", stderr)) _exit(126);
            execlp("openssl", "openssl", "s_server", "-accept", accept.c_str(), "-cert", cert.c_str(), "-key",
                   key.c_str(), "-www", "-quiet", static_cast<char *>(nullptr));
            _exit(127);
        }
        for (int i = 0; i < 200 && !fReady; i++) { // up to ~10 s for the server to listen
            std::string error;
            fReady = hvtest::connectLoopback(fPort, std::chrono::milliseconds(50), &error).valid();
            if (!fReady) usleep(50000);
        }
    }
    ~SelfSignedServer() {
        if (fPid > 0) {
            kill(fPid, SIGTERM);
            waitpid(fPid, nullptr, 0);
        }
        if (fDir.empty()) return;
        unlink((fDir + "/key.pem").c_str());
        unlink((fDir + "/cert.pem").c_str());
        rmdir(fDir.c_str());
    }
    bool ready() const { return fReady; }
    uint16_t port() const { return fPort; }

  private:
    std::string fDir;
    pid_t fPid = -1;
    uint16_t fPort = 0;
    bool fReady = false;
};

TEST_F(RtReadStreamTest, HTTPSVerifiesTheServer) {
    // TLS spoken to a plain HTTP server fails in the handshake.
    ScriptedHTTPServer plain;
    RtHTTPMessageRef req = makeRequest("https://127.0.0.1:" + std::to_string(plain.port()) + "/", "GET");
    Outcome out = exchange(req);
    RtRelease(req);
    EXPECT_EQ(1u, out.count(kRtStreamEventErrorOccurred));
    EXPECT_EQ(kRtStreamEventErrorOccurred, out.events.back());
    EXPECT_EQ(kRtStreamErrorDomainCurl, out.error.domain);
    EXPECT_EQ(CURLE_SSL_CONNECT_ERROR, out.error.error);

    // A certificate nobody vouches for is refused.
    SelfSignedServer tls;
    if (!tls.ready()) GTEST_SKIP() << "openssl s_server did not start";
    RtHTTPMessageRef secure = makeRequest("https://127.0.0.1:" + std::to_string(tls.port()) + "/", "GET");
    Outcome refused = exchange(secure);
    RtRelease(secure);
    EXPECT_EQ(1u, refused.count(kRtStreamEventErrorOccurred));
    EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION, refused.error.error);
}

} // namespace
