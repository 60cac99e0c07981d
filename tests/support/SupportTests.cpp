// The test servers' own tests: each server talked to with the plain-socket client.
#include "FaultServer.h"
#include "ForwardProxy.h"
#include "PythonPeer.h"
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

TEST(ForwardProxy, RelaysAbsoluteRequestsAndRecordsThem) {
    ScriptedHTTPServer origin;
    origin.route("POST", "/RPC2", [](const RecordedRequest &request) {
        ScriptedReply reply = ScriptedReply::xml("<got>" + request.body + "</got>");
        reply.headers.emplace_back("X-Origin-Saw-Connection", request.header("Connection"));
        return reply;
    });
    ForwardProxy proxy;
    TestHTTPResponse relayed =
        httpRequest(proxy.port(), "POST", origin.url("/RPC2"),
                    {{"Proxy-Connection", "Keep-Alive"}, {"X-Custom", "1"}}, "payload");
    ASSERT_TRUE(relayed.ok) << relayed.error;
    EXPECT_EQ(relayed.status, 200);
    EXPECT_EQ(relayed.body, "<got>payload</got>");
    EXPECT_EQ(relayed.header("X-Origin-Saw-Connection"), "close");

    ASSERT_EQ(proxy.requestCount(), 1u);
    RecordedRequest seen = proxy.requests()[0];
    EXPECT_EQ(seen.method, "POST");
    EXPECT_EQ(seen.path, origin.url("/RPC2"));
    EXPECT_EQ(seen.header("proxy-connection"), "Keep-Alive");
    EXPECT_EQ(seen.body, "payload");
    RecordedRequest atOrigin = origin.lastRequest();
    EXPECT_EQ(atOrigin.path, "/RPC2");
    EXPECT_EQ(atOrigin.header("X-Custom"), "1");
    EXPECT_FALSE(atOrigin.hasHeader("Proxy-Connection"));

    // Refusals: origin form, a host beyond loopback, a dead origin, a tunnel.
    EXPECT_EQ(httpRequest(proxy.port(), "GET", "/RPC2").status, 400);
    EXPECT_EQ(httpRequest(proxy.port(), "GET", "http://192.0.2.1/").status, 502);
    EXPECT_EQ(httpRequest(proxy.port(), "GET", "http://127.0.0.1:" + std::to_string(freeLoopbackPort()) + "/")
                  .status,
              502);
    EXPECT_EQ(httpRequest(proxy.port(), "CONNECT", "127.0.0.1:443").status, 501);
    EXPECT_EQ(proxy.requestCount(), 5u);
}

TEST(PythonPeer, XMLRPCServerAnswersRawPosts) {
    PythonPeer peer("xmlrpc_server.py");
    ASSERT_TRUE(peer.ready()) << peer.error();
    auto call = [&](const std::string &method, const std::string &params) {
        return httpRequest(peer.port(), "POST", "/RPC2", {{"Content-Type", "text/xml"}},
                           "<?xml version=\"1.0\"?><methodCall><methodName>" + method +
                               "</methodName><params>" + params + "</params></methodCall>");
    };
    TestHTTPResponse sum = call("add", "<param><value><int>2</int></value></param>"
                                       "<param><value><int>40</int></value></param>");
    ASSERT_TRUE(sum.ok) << sum.error;
    EXPECT_EQ(sum.status, 200);
    EXPECT_NE(sum.body.find("<int>42</int>"), std::string::npos) << sum.body;

    std::string types = call("types", "").body;
    for (const char *tag :
         {"<i8>1099511627779</i8>", "<double>3.25</double>", "a&lt;b &amp; c&gt;d", "\xc3\xa9\xe2\x82\xac",
          "<boolean>1</boolean>", "<dateTime.iso8601>20240229T13:45:07", "<base64>", "<array>", "<nil/>"})
        EXPECT_NE(types.find(tag), std::string::npos) << tag;

    std::string fault = call("fault", "<param><value><int>7</int></value></param>"
                                      "<param><value><string>bad thing</string></value></param>")
                            .body;
    EXPECT_NE(fault.find("<fault>"), std::string::npos);
    EXPECT_NE(fault.find("bad thing"), std::string::npos);

    PythonPeer noNil("xmlrpc_server.py", {"--no-nil"});
    ASSERT_TRUE(noNil.ready()) << noNil.error();
    EXPECT_EQ(
        httpRequest(noNil.port(), "POST", "/", {}, "<methodCall><methodName>types</methodName></methodCall>")
            .body.find("<nil/>"),
        std::string::npos);
}

TEST(PythonPeer, SpyneServerAnswersSOAP) {
    if (!PythonPeer::hasModule("spyne"))
        GTEST_SKIP() << "spyne is not installed for " << PythonPeer::interpreter();
    PythonPeer peer("spyne_server.py");
    ASSERT_TRUE(peer.ready()) << peer.error();
    auto call = [&](const std::string &body) {
        return httpRequest(
            peer.port(), "POST", "/", {{"Content-Type", "text/xml; charset=utf-8"}, {"SOAPAction", "\"\""}},
            "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\">"
            "<s:Body>" +
                body + "</s:Body></s:Envelope>");
    };
    TestHTTPResponse sum = call("<m:add xmlns:m=\"urn:halvos:test\"><a>2</a><b>40</b></m:add>");
    ASSERT_TRUE(sum.ok) << sum.error;
    EXPECT_EQ(sum.status, 200);
    EXPECT_NE(sum.body.find("<tns:addResult>42</tns:addResult>"), std::string::npos) << sum.body;
    EXPECT_NE(call("<m:records xmlns:m=\"urn:halvos:test\"><count>3</count></m:records>")
                  .body.find("record 2 &lt;&amp;&gt;"),
              std::string::npos);
    TestHTTPResponse fault =
        call("<m:fail xmlns:m=\"urn:halvos:test\"><code>Client.Bad</code><message>no</message></m:fail>");
    EXPECT_EQ(fault.status, 500);
    EXPECT_NE(fault.body.find("<faultstring>no</faultstring>"), std::string::npos) << fault.body;
}

TEST(PythonPeer, ReportsAScriptThatNeverStarts) {
    PythonPeer missing("no_such_script.py", {}, 5s);
    EXPECT_FALSE(missing.ready());
    EXPECT_NE(missing.error().find("exited before printing its port"), std::string::npos) << missing.error();
}
