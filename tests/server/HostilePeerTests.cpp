// The server against hostile peers (tests/support/HostilePeer.h): a swarm of slow clients is held
// while a normal call is answered, a request that trickles is cut at its deadline, framing
// tricks and oversized heads are refused from the head alone. Small in the ordinary run, full
// size with HV_TEST_LONG=1 (./hv test --long); the figures are printed for docs/reliability.md.
#include "HostilePeer.h"
#include "TestHTTPClient.h"

#include <HalvosCore/HalvosCore.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

namespace {

using namespace hvtest;

RtTypeRef echoFirst(HVServerRef, RtStringRef, RtStringRef, RtDictionaryRef params, RtArrayRef order,
                    RtDictionaryRef *, void *) {
    return RtRetain(RtDictionaryGetValue(params, RtArrayGetValueAtIndex(order, 0)));
}

// A server with examples.echo and the given numeric properties, started on a free port.
struct HostileTestServer {
    explicit HostileTestServer(std::initializer_list<std::pair<RtStringRef, long long>> properties) {
        server = HVServerCreate(nullptr);
        HVServerAddMethod(server, RTSTR("examples.echo"), echoFirst, nullptr, nullptr, nullptr);
        for (const auto &property : properties) {
            RtNumberRef value = RtNumberCreate(nullptr, kRtNumberSInt64Type, &property.second);
            EXPECT_TRUE(HVServerSetProperty(server, property.first, value));
            RtRelease(value);
        }
        EXPECT_TRUE(HVServerStart(server, nullptr));
        port = HVServerGetPort(server);
    }
    ~HostileTestServer() {
        HVServerStop(server);
        RtRelease(server);
    }
    HVServerRef server;
    uint16_t port = 0;
};

const std::string kCall = "<?xml version=\"1.0\"?><methodCall><methodName>examples.echo</methodName>"
                          "<params><param><value><string>still here</string></value></param></params>"
                          "</methodCall>";

// A normal call's time in seconds, or a negative number when it was not answered right.
double timedCall(uint16_t port) {
    auto start = std::chrono::steady_clock::now();
    TestHTTPResponse reply = httpRequest(port, "POST", "/RPC2", {}, kCall);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    bool right = reply.status == 200 && reply.body.find("still here") != std::string::npos;
    return right ? seconds : -1;
}

std::string postHead(const std::string &fields) {
    return "POST /RPC2 HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/xml\r\n" + fields + "\r\n";
}

TEST(HostilePeers, SlowClientsAreHeldWhileANormalCallIsAnswered) {
    const size_t count = size_t(scaledCount(1000, 5000));
    const auto hold = std::chrono::seconds(scaledCount(2, 10));
    // The swarm's descriptors, the server's, and some for the rest of the process.
    if (raiseDescriptorLimit(2 * count + 256) < 2 * count + 256)
        GTEST_SKIP() << "the descriptor limit holds fewer than " << 2 * count + 256 << " descriptors";

    HostileTestServer server({}); // the defaults must hold the swarm
    ASSERT_GE(timedCall(server.port), 0);
    size_t before = residentBytes();
    SlowSwarm swarm(server.port, count, 100);
    ASSERT_EQ(swarm.opened(), count) << swarm.error();
    std::this_thread::sleep_for(std::chrono::milliseconds(500)); // the server takes them all in

    std::vector<double> times;
    auto end = std::chrono::steady_clock::now() + hold;
    while (std::chrono::steady_clock::now() < end) {
        times.push_back(timedCall(server.port));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    size_t held = swarm.stillOpen();
    size_t memory = residentBytes() - std::min(before, residentBytes());
    std::sort(times.begin(), times.end());
    EXPECT_GE(times.front(), 0) << "a normal call went unanswered";
    double median = times[times.size() / 2], slowest = times.back();
    EXPECT_LT(median, 0.1);
    EXPECT_EQ(held, count);
    // Per-connection memory, scaled to 5,000 connections; the sanitizers' own bookkeeping
    // inflates it, so the bound is for the figure of the release build.
    double perConnection = double(memory) / double(count);
    printf("held %zu of %zu slow clients for %lld s; memory %.1f MB (%.1f KB each, %.0f MB for 5000); "
           "normal call: %zu calls, median %.1f ms, slowest %.1f ms\n",
           held, count, (long long)hold.count(), memory / 1e6, perConnection / 1e3,
           perConnection * 5000 / 1e6, times.size(), median * 1e3, slowest * 1e3);
#if !defined(__SANITIZE_ADDRESS__)
    EXPECT_LT(perConnection * 5000, 200e6);
#endif
}

TEST(HostilePeers, OneAddressGetsNoMoreThanItsShareOfConnections) {
    HostileTestServer server({{kHVServerMaxConnectionsPerAddress, 20}});
    SlowSwarm swarm(server.port, 30, 30); // all from 127.0.0.2
    ASSERT_EQ(swarm.opened(), 30u) << swarm.error();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(swarm.stillOpen(), 20u);
    EXPECT_GE(timedCall(server.port), 0) << "another address is served";
}

TEST(HostilePeers, ARequestThatTricklesIsCutAtItsDeadline) {
    const long deadline = scaledCount(2, 5);
    HostileTestServer server({{kHVServerRequestTimeout, deadline}});
    const std::string body = kCall;
    const std::string head = postHead("Content-Length: " + std::to_string(body.size()) + "\r\n");
    const std::string line = "POST /RPC2 HTTP/1.1\r\n";
    //  what                       sent at once  trickled               answer begins
    struct {
        const char *what;
        std::string quick, slow;
        const char *answer;
    } cases[] = {
        {"head", line, head.substr(line.size()) + body, "HTTP/1.1 408"},
        {"body", head, body, "HTTP/1.1 408"},
        {"request line", "", line, ""},
        {"nothing after connecting", "", "", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        TrickleResult result = trickle(server.port, c.quick, c.slow, std::chrono::milliseconds(500),
                                       std::chrono::seconds(deadline + 5));
        printf("trickled %s: cut %d after %.2f s at a %ld s deadline\n", c.what, int(result.cut),
               result.seconds, deadline);
        EXPECT_TRUE(result.cut) << result.sent << " bytes sent";
        EXPECT_GE(result.seconds, deadline - 0.1);
        EXPECT_LT(result.seconds, deadline + 2.0);
        EXPECT_EQ(result.answer.substr(0, 12), c.answer) << result.answer;
        EXPECT_GE(timedCall(server.port), 0);
    }
}

TEST(HostilePeers, FramingTricksAndOversizedHeadsAreRefusedFromTheHeadAlone) {
    HostileTestServer server({{kHVServerMaxBodyBytes, 1 << 16}, {kHVServerMaxHeadBytes, 8192}});
    const std::string body = "5\r\nhello\r\n0\r\n\r\n";
    struct {
        const char *what;
        std::string head;
        const char *status;
    } cases[] = {
        {"Content-Length with chunked", postHead("Content-Length: 15\r\nTransfer-Encoding: chunked\r\n"),
         "HTTP/1.1 400"},
        {"chunked with Content-Length", postHead("Transfer-Encoding: chunked\r\nContent-Length: 15\r\n"),
         "HTTP/1.1 400"},
        {"body over the limit", postHead("Content-Length: 65537\r\n"), "HTTP/1.1 413"},
        {"body over the limit, Expect", postHead("Content-Length: 65537\r\nExpect: 100-continue\r\n"),
         "HTTP/1.1 413"},
        {"huge Content-Length", postHead("Content-Length: 99999999999999999999\r\n"), "HTTP/1.1 413"},
        {"head over the limit", postHead("X-Pad: " + std::string(20000, 'p') + "\r\nContent-Length: 15\r\n"),
         "HTTP/1.1 431"},
        {"request line over the limit",
         "POST /" + std::string(20000, 'p') + " HTTP/1.1\r\nHost: x\r\nContent-Length: 15\r\n\r\n",
         "HTTP/1.1 414"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        // No body is sent: the answer must come from the head.
        EXPECT_EQ(probe(server.port, c.head, body, false, std::chrono::seconds(5)).substr(0, 12), c.status);
        EXPECT_GE(timedCall(server.port), 0);
    }
    // A head within the limit is served.
    std::string padded = postHead("X-Pad: " + std::string(4000, 'p') +
                                  "\r\nContent-Length: " + std::to_string(kCall.size()) + "\r\n");
    EXPECT_EQ(probe(server.port, padded, kCall, true, std::chrono::seconds(5)), "HTTP/1.1 200 OK");
}

} // namespace
