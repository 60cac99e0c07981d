// hv::Client against scripted HTTP servers: what reaches the wire, how each failure surfaces as
// an exception or an hv::Result, values refused before sending, and the asynchronous forms
// (cancellation when the client goes, callback exceptions, overrides).
#include <HalvosCore/HalvosCore.hpp>

#include "ScriptedHTTPServer.h"
#include "TestHTTPClient.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace {

const char *kReply42 = "<?xml version=\"1.0\"?><methodResponse><params><param><value><i4>42</i4></value>"
                       "</param></params></methodResponse>";

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

TEST(CPlusClientTest, EachTransportFailureHasItsKindAndAMessageToActOn) {
    hvtest::ScriptedHTTPServer server;
    server.reply("POST", "/missing", hvtest::ScriptedReply::with(404, "text/plain", "no such page"));
    server.reply("POST", "/text", hvtest::ScriptedReply::with(200, "text/plain", "hello"));
    hvtest::ScriptedReply slow = hvtest::ScriptedReply::xml(kReply42);
    slow.delay = 3s;
    server.reply("POST", "/slow", slow);
    struct Case {
        std::string url;
        hv::TransportErrc kind;
        std::string says;
        int status;
    };
    const Case cases[] = {
        {"http://127.0.0.1:" + std::to_string(hvtest::freeLoopbackPort()) + "/RPC2",
         hv::TransportErrc::Refused, "could not connect to http://127.0.0.1:", 0},
        {server.url("/missing"), hv::TransportErrc::HTTPStatus, "answered with HTTP status 404", 404},
        {server.url("/text"), hv::TransportErrc::BadReply, "is not a proper reply", 200},
        {server.url("/slow"), hv::TransportErrc::Timeout, "within the time-out (raise it with setTimeout", 0},
        {"https://127.0.0.1:" + std::to_string(server.port()) + "/RPC2", hv::TransportErrc::TLS,
         "TLS with https://", 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.url);
        hv::Client client{c.url};
        client.setTimeout(500ms); // rounded up to one second
        try {
            client.call<int>("examples.add", 1, 2);
            ADD_FAILURE() << "no error";
        } catch (const hv::TransportError &error) {
            EXPECT_EQ(error.kind(), c.kind) << error.what();
            EXPECT_TRUE(contains(error.what(), "examples.add: " + std::string())) << error.what();
            EXPECT_TRUE(contains(error.what(), c.says)) << error.what();
            EXPECT_EQ(error.httpStatus(), c.status);
            if (c.status) { // a record holds the wire capture once a reply arrived
                EXPECT_TRUE(contains(error.record().requestBody(), "<methodName>examples.add</methodName>"));
            }
        }
        hv::Result<int> result = client.tryCall<int>("examples.add", 1, 2);
        EXPECT_FALSE(result);
        ASSERT_NE(result.transportError(), nullptr);
        EXPECT_EQ(result.transportError()->kind(), c.kind);
        EXPECT_EQ(result.fault(), nullptr);
        EXPECT_THROW(result.value(), hv::Error);
    }
}

TEST(CPlusClientTest, SettersReachTheWireAndTheRecordShowsIt) {
    hvtest::ScriptedHTTPServer server;
    server.reply("POST", "*",
                 hvtest::ScriptedReply::xml("<?xml version=\"1.0\"?><SOAP-ENV:Envelope xmlns:SOAP-ENV="
                                            "\"http://schemas.xmlsoap.org/soap/envelope/\"><SOAP-ENV:Body>"
                                            "<m:addResponse xmlns:m=\"urn:calc\"><sum>5</sum><other>x</other>"
                                            "</m:addResponse></SOAP-ENV:Body></SOAP-ENV:Envelope>"));
    hv::Client client{server.url("/soap"), hv::Protocol::SOAP2001};
    client.setNamespace("urn:calc").setSOAPStyle(hv::SOAPStyle::RPC).setResultName("sum");
    EXPECT_EQ(client.call<std::string>("add", 2, 3), "5");
    EXPECT_EQ(server.lastRequest().header("SOAPAction"), "\"\""); // every SOAP call has one
    client.setSOAPAction("urn:calc#add").setHTTPVersion(hv::HTTPVersion::HTTP1_0);
    EXPECT_EQ(client.call<std::string>("add", hv::arg("first", 2), 3), "5");

    hvtest::RecordedRequest sent = server.lastRequest();
    EXPECT_EQ(sent.version, "HTTP/1.0");
    EXPECT_EQ(sent.header("SOAPAction"), "\"urn:calc#add\"");
    EXPECT_TRUE(contains(sent.body, "<m:add xmlns:m=\"urn:calc\"")) << sent.body;
    EXPECT_TRUE(contains(sent.body, "<first xsi:type=\"xsd:int\">2</first>")) << sent.body;
    EXPECT_TRUE(contains(sent.body, "<arg1 xsi:type=\"xsd:int\">3</arg1>")) << sent.body; // named by position
    const hv::CallRecord &record = client.lastRecord();
    EXPECT_EQ(record.httpStatus(), 200);
    EXPECT_TRUE(contains(record.responseBody(), "addResponse"));
    EXPECT_EQ(record.requestHeaders().get("SOAPAction"), hv::Value("\"urn:calc#add\""));
    EXPECT_FALSE(record.responseHeaders().empty());
    hv::Client xmlrpc{server.url("/RPC2")};
    EXPECT_ANY_THROW(xmlrpc.call<int>("add"));                  // the SOAP reply is no XML-RPC answer
    EXPECT_FALSE(server.lastRequest().hasHeader("SOAPAction")); // XML-RPC calls have none

    EXPECT_THROW(client.setHeader("Bad Name", "x"), std::invalid_argument);
    EXPECT_THROW(client.setHeader("X-Injected", "a\r\nHost: elsewhere"), std::invalid_argument);
    EXPECT_THROW(hv::Client{"not a url"}, std::invalid_argument);
    EXPECT_THROW(client.call<int>("add", hv::arg("a", 1), hv::arg("a", 2)), std::invalid_argument);
    hv::Client moved = std::move(client);
    EXPECT_THROW(client.call<int>("add"), std::logic_error); // NOLINT(bugprone-use-after-move): on purpose
}

TEST(CPlusClientTest, ValuesTheWireCannotCarryAreRefusedBeforeSending) {
    hvtest::ScriptedHTTPServer server;
    server.reply("POST", "*", hvtest::ScriptedReply::xml(kReply42));
    hv::Client client{server.url("/RPC2")};
    struct Case {
        std::function<void()> call;
        std::string message;
    };
    const Case cases[] = {
        {[&] { client.call<int>("f", 1, int64_t(3000000000)); },
         "params[1]: 3000000000 does not fit a 32-bit XML-RPC int; allow extensions (setExtensions) to send "
         "it as "
         "i8, or send a double or a string"},
        {[&] {
             client.call<int>("f", hv::Record{{"list", std::vector<hv::Value>{1, 2, nullptr}}});
         },
         "params[0].list[2]: null cannot be sent this way; allow extensions (setExtensions) to send it as "
         "nil, or "
         "leave the value out"},
        {[&] { client.call<int>("f", std::string("\xff")); }, "params[0]: not valid UTF-8 (byte 0 of 1)"},
        {[&] { client.call<std::string>("f"); }, "result: expected string, got integer"},
    };
    for (const Case &c : cases) {
        try {
            c.call();
            ADD_FAILURE() << "no error; expected " << c.message;
        } catch (const hv::ConversionError &error) {
            EXPECT_EQ(std::string(error.what()), c.message);
        }
    }
    EXPECT_EQ(server.requestCount(), 1u); // only the call whose result did not convert went out
    client.setExtensions(true);
    EXPECT_EQ(client.call<int>("f", int64_t(3000000000), nullptr), 42);
    EXPECT_EQ(client.call<int>("f", std::optional<int>(), 5), 42); // an empty optional is left out
    EXPECT_FALSE(contains(server.lastRequest().body, "arg0"));
}

TEST(CPlusClientTest, DestroyingAClientCancelsItsCallsInFlight) {
    hvtest::ScriptedHTTPServer server;
    hvtest::ScriptedReply slow = hvtest::ScriptedReply::xml(kReply42);
    slow.delay = 5s;
    server.reply("POST", "/slow", slow);
    server.reply("POST", "/fast", hvtest::ScriptedReply::xml(kReply42));
    // The thread's transfer machinery lives as long as the thread: make it before counting.
    hv::Client warm{server.url("/fast")};
    warm.callAsync<int>([](hv::Result<int>) {}, "f");
    warm.wait(10s);
    long live = RtRuntimeGetLiveObjectCount();
    std::vector<hv::TransportErrc> kinds;
    std::future<int> future;
    auto started = std::chrono::steady_clock::now();
    {
        hv::Client client{server.url("/slow")};
        for (int i = 0; i < 3; i++)
            client.callAsync<int>(
                [&](hv::Result<int> result) {
                    if (result.transportError()) kinds.push_back(result.transportError()->kind());
                },
                "slow", i);
        future = client.callAsync<int>("slow", 9);
        hv::RunLoop::runFor(200ms); // the requests are out
        EXPECT_EQ(client.pending(), 3u);
    }
    EXPECT_EQ(kinds, std::vector<hv::TransportErrc>(3, hv::TransportErrc::Cancelled));
    try {
        future.get();
        ADD_FAILURE() << "no error";
    } catch (const hv::TransportError &error) {
        EXPECT_EQ(error.kind(), hv::TransportErrc::Cancelled);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - started, 3s);
    EXPECT_EQ(RtRuntimeGetLiveObjectCount(), live);
}

TEST(CPlusClientTest, CallbackExceptionsAndOverridesNeverCrossTheCBoundary) {
    hvtest::ScriptedHTTPServer server;
    server.reply("POST", "*", hvtest::ScriptedReply::xml(kReply42));
    hv::Client client{server.url("/RPC2")};
    hv::CallHandle handle =
        client.callAsync<int>([](hv::Result<int>) { throw std::runtime_error("from callback"); }, "f");
    EXPECT_THROW(hv::RunLoop::runUntilDone({handle}, 10s), std::runtime_error);
    EXPECT_TRUE(handle.done());

    // A URL is no protocol kind; the override writes it as a string, through the C++ layer.
    client.addSerializationOverride(RtURLGetTypeID(), [](const hv::Value &url) -> std::optional<std::string> {
        std::string text =
            hv::Value::retain(RtURLGetString(static_cast<RtURLRef>(url.get()))).as<std::string>();
        if (text == "http://throw/") throw std::runtime_error("from override");
        return "<string>" + text + "</string>";
    });
    auto url = [](const char *text) {
        hv::Value string = text;
        return hv::Value::adopt(
            RtURLCreateWithString(nullptr, static_cast<RtStringRef>(string.get()), nullptr));
    };
    EXPECT_EQ(client.call<int>("f", url("http://example.com/")), 42);
    EXPECT_TRUE(contains(server.lastRequest().body, "<string>http://example.com/</string>"))
        << server.lastRequest().body;
    EXPECT_THROW(client.call<int>("f", url("http://throw/")), std::runtime_error);
}

} // namespace
