// The test servers' own tests: each server talked to with the plain-socket client.
#include "FaultServer.h"
#include "ScriptedHTTPServer.h"
#include "TestHTTPClient.h"

#include <gtest/gtest.h>

using namespace hvtest;
using namespace std::chrono_literals;

TEST(ScriptedHTTPServer, RoutesRecordsAndReplies) {
    ScriptedHTTPServer server;
    ASSERT_NE(server.port(), 0);
    server.route("POST", "/RPC2", [](const RecordedRequest &request) {
        ScriptedReply reply = ScriptedReply::xml("<echo>" + request.body + "</echo>");
        reply.headers.emplace_back("X-Seen-Agent", request.header("user-agent"));
        return reply;
    });
    server.reply("GET", "*", ScriptedReply::with(503, "text/html", "<html>busy</html>"));

    TestHTTPResponse posted =
        httpRequest(server.port(), "POST", "/RPC2?q=1",
                    {{"User-Agent", "probe/1"}, {"X-Twice", "a"}, {"x-twice", "b"}}, "abc");
    ASSERT_TRUE(posted.ok) << posted.error;
    EXPECT_EQ(posted.statusLine, "HTTP/1.1 200 OK");
    EXPECT_EQ(posted.header("content-type"), "text/xml");
    EXPECT_EQ(posted.header("X-SEEN-AGENT"), "probe/1");
    EXPECT_EQ(posted.body, "<echo>abc</echo>");

    TestHTTPResponse got = httpRequest(server.port(), "GET", "/anything");
    EXPECT_EQ(got.status, 503);
    EXPECT_EQ(got.body, "<html>busy</html>");
    EXPECT_EQ(httpRequest(server.port(), "PUT", "/RPC2").status, 404);

    ASSERT_EQ(server.requestCount(), 3u);
    RecordedRequest first = server.requests()[0];
    EXPECT_EQ(first.method, "POST");
    EXPECT_EQ(first.path, "/RPC2?q=1");
    EXPECT_EQ(first.version, "HTTP/1.1");
    EXPECT_EQ(first.body, "abc");
    EXPECT_EQ(first.headerCount("X-TWICE"), 2u);
    // Fields keep their arrival order: Host and Content-Length come first from the test client.
    ASSERT_GE(first.headers.size(), 5u);
    EXPECT_EQ(first.headers[0].first, "Host");
    EXPECT_EQ(first.headers[3].second, "a");
    EXPECT_EQ(first.headers[4].second, "b");
    EXPECT_FALSE(first.hasHeader("Accept"));
    EXPECT_EQ(server.lastRequest().method, "PUT");
}

TEST(ScriptedHTTPServer, FramingVersionsAndConnections) {
    ScriptedHTTPServer server;
    ScriptedReply chunked = ScriptedReply::xml("0123456789");
    chunked.chunked = true;
    chunked.bodyRepeat = 1000;
    server.reply("POST", "/chunked", chunked);
    ScriptedReply old = ScriptedReply::xml("<old/>");
    old.http10 = true;
    server.reply("POST", "/old", old);
    ScriptedReply slow = ScriptedReply::xml("<slow/>");
    slow.delay = 50ms;
    server.reply("POST", "/slow", slow);

    // Two requests on one kept-alive connection count one connection.
    TestHTTPConnection connection(server.port());
    TestHTTPResponse a = connection.request("POST", "/chunked", {}, "x");
    TestHTTPResponse b = connection.request("POST", "/slow", {}, "y");
    ASSERT_TRUE(a.ok && b.ok) << a.error << b.error;
    EXPECT_EQ(a.header("Transfer-Encoding"), "chunked");
    EXPECT_EQ(a.body.size(), 10000u);
    EXPECT_EQ(b.body, "<slow/>");
    EXPECT_EQ(server.connectionCount(), 1u);

    TestHTTPConnection second(server.port());
    TestHTTPResponse c = second.request("POST", "/old", {}, "z");
    ASSERT_TRUE(c.ok) << c.error;
    EXPECT_EQ(c.statusLine, "HTTP/1.0 200 OK");
    EXPECT_EQ(c.body, "<old/>");
    EXPECT_EQ(second.readUntilClose(), ""); // closed after the reply
    EXPECT_EQ(server.connectionCount(), 2u);
    EXPECT_TRUE(server.waitForRequests(3, 1s));
    server.clearRecords();
    EXPECT_EQ(server.requestCount(), 0u);
}

TEST(ScriptedHTTPServer, StopsWithIdleAndDelayedClients) {
    auto server = std::make_unique<ScriptedHTTPServer>();
    ScriptedReply stalled = ScriptedReply::xml("<late/>");
    stalled.delay = 1h;
    server->reply("*", "/stall", stalled);
    TestHTTPConnection idle(server->port());
    TestHTTPConnection waiting(server->port());
    ASSERT_TRUE(waiting.sendRaw("POST /stall HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n\r\n"));
    ASSERT_TRUE(server->waitForRequests(1, 5s));
    server.reset(); // must not wait for the hour
    EXPECT_EQ(waiting.readUntilClose(), "");
}

TEST(FaultServer, CannedFaultsOnTheWire) {
    const std::string request = "POST /RPC2 HTTP/1.1\r\nHost: x\r\nContent-Length: 4\r\n\r\nbody";
    auto exchange = [&](FaultScript script) {
        FaultServer server(std::move(script));
        TestHTTPConnection connection(server.port(), 5s);
        connection.sendRaw(request);
        std::string received = connection.readUntilClose();
        EXPECT_EQ(server.requests().size(), 1u);
        if (!server.requests().empty()) {
            EXPECT_EQ(server.requests()[0], request);
        }
        return received;
    };
    EXPECT_EQ(exchange(FaultScript::closeBeforeStatus()), "");
    EXPECT_EQ(exchange(FaultScript::resetBeforeStatus()), "");
    EXPECT_EQ(exchange(FaultScript::resetMidHeaders()).rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
    EXPECT_EQ(exchange(FaultScript::garbageStatusLine()).rfind("SPLORK", 0), 0u);
    EXPECT_NE(exchange(FaultScript::brokenChunked()).find("zz-not-hex"), std::string::npos);
    EXPECT_EQ(exchange(FaultScript::raw("HTTP/1.1 200 Fine By Me\r\n\r\n")),
              "HTTP/1.1 200 Fine By Me\r\n\r\n");
    EXPECT_NE(exchange(FaultScript::slowTrickle(1ms)).find("fault server says hello"), std::string::npos);

    // Declared lengths lie in both directions.
    std::string body = kFaultReplyBody;
    std::string longer = exchange(FaultScript::bodyLongerThanLength());
    EXPECT_NE(longer.find("Content-Length: " + std::to_string(body.size() / 2) + "\r\n"), std::string::npos);
    EXPECT_EQ(longer.substr(longer.find("\r\n\r\n") + 4), body);
    std::string shorter = exchange(FaultScript::bodyShorterThanLength());
    EXPECT_NE(shorter.find("Content-Length: " + std::to_string(body.size()) + "\r\n"), std::string::npos);
    EXPECT_EQ(shorter.substr(shorter.find("\r\n\r\n") + 4), body.substr(0, body.size() / 2));
}

TEST(FaultServer, RedirectsPerConnectionScriptsAndStalls) {
    FaultServer server(
        {FaultScript::redirectLoop("/again"), FaultScript::reply("404 Gone Fishing", "text/plain", "no")});
    TestHTTPResponse first = httpRequest(server.port(), "GET", "/again");
    ASSERT_TRUE(first.ok) << first.error;
    EXPECT_EQ(first.status, 302);
    EXPECT_EQ(first.header("Location"), server.url("/again"));
    for (int i = 0; i < 2; ++i) {
        TestHTTPResponse later = httpRequest(server.port(), "GET", "/x");
        EXPECT_EQ(later.statusLine, "HTTP/1.1 404 Gone Fishing");
        EXPECT_EQ(later.body, "no");
    }
    EXPECT_EQ(server.connectionCount(), 3u);

    // A stalled connection and a client that never sends a byte do not hold up the destructor.
    auto stalling = std::make_unique<FaultServer>(FaultScript::neverAnswer());
    TestHTTPConnection silent(stalling->port());
    TestHTTPConnection stalled(stalling->port(), 100ms);
    ASSERT_TRUE(stalled.sendRaw("GET / HTTP/1.1\r\nHost: x\r\n\r\n"));
    EXPECT_FALSE(stalled.request("GET", "/", {}, {}).ok); // times out: the server never answers
    stalling.reset();
    EXPECT_TRUE(silent.connected());
}
