// Smoke checks of the test servers: each answers, records and stops, so that a failure in the
// suites that use them points at the library and not at the servers.
#include "FaultServer.h"
#include "ForwardProxy.h"
#include "PythonPeer.h"
#include "ScriptedHTTPServer.h"
#include "TestHTTPClient.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>

using namespace hvtest;
using namespace std::chrono_literals;

TEST(SupportServers, AnswerRecordAndStop) {
    auto scripted = std::make_unique<ScriptedHTTPServer>();
    scripted->route("POST", "/RPC2", [](const RecordedRequest &request) {
        return ScriptedReply::xml("<echo>" + request.body + "</echo>");
    });
    ScriptedReply stalled = ScriptedReply::xml("<late/>");
    stalled.delay = 1h;
    scripted->reply("GET", "/stall", stalled);
    TestHTTPResponse posted =
        httpRequest(scripted->port(), "POST", "/RPC2?q=1", {{"X-Twice", "a"}, {"x-twice", "b"}}, "abc");
    ASSERT_TRUE(posted.ok) << posted.error;
    EXPECT_EQ(posted.statusLine, "HTTP/1.1 200 OK");
    EXPECT_EQ(posted.body, "<echo>abc</echo>");
    EXPECT_EQ(httpRequest(scripted->port(), "PUT", "/RPC2").status, 404);
    RecordedRequest first = scripted->requests().at(0);
    EXPECT_EQ(first.path, "/RPC2?q=1");
    EXPECT_EQ(first.headerCount("X-TWICE"), 2u);

    // The proxy relays in origin form; it refuses what is not an absolute loopback URI.
    ForwardProxy proxy;
    TestHTTPResponse relayed = httpRequest(proxy.port(), "POST", scripted->url("/RPC2"), {}, "via");
    EXPECT_EQ(relayed.body, "<echo>via</echo>");
    EXPECT_EQ(proxy.requests().at(0).path, scripted->url("/RPC2"));
    EXPECT_EQ(scripted->lastRequest().path, "/RPC2");
    EXPECT_EQ(httpRequest(proxy.port(), "GET", "/RPC2").status, 400);
    EXPECT_EQ(httpRequest(proxy.port(), "GET", "http://192.0.2.1/").status, 502);

    // A reply delayed for an hour does not hold up the destructor.
    std::thread waiting([port = scripted->port()] { httpRequest(port, "GET", "/stall"); });
    while (scripted->requestCount() < 4)
        std::this_thread::sleep_for(10ms);
    scripted.reset();
    waiting.join();
}

TEST(SupportServers, FaultScriptsPerConnection) {
    FaultServer server({FaultScript::redirectLoop("/again"), FaultScript::bodyShorterThanLength()});
    TestHTTPResponse first = httpRequest(server.port(), "GET", "/again");
    EXPECT_EQ(first.status, 302);
    EXPECT_EQ(first.header("Location"), server.url("/again"));
    TestHTTPResponse cut = httpRequest(server.port(), "POST", "/RPC2", {}, "body");
    EXPECT_FALSE(cut.ok); // the body ends before its declared length
    ASSERT_EQ(server.requests().size(), 2u);
    EXPECT_NE(server.requests()[1].find("Content-Length: 4\r\n\r\nbody"), std::string::npos);
}

TEST(SupportServers, PythonPeersStartOrSayWhy) {
    PythonPeer peer("xmlrpc_server.py");
    ASSERT_TRUE(peer.ready()) << peer.error();
    PythonPeer missing("no_such_script.py");
    EXPECT_FALSE(missing.ready());
    EXPECT_NE(missing.error().find("no_such_script.py"), std::string::npos) << missing.error();
}
