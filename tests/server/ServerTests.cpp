// The embeddable server (HVServer...) in this process, on a free loopback port: hostile requests
// each end in a clean answer while other clients are served; methods that misbehave become
// faults; the queue, the stop and the authentication hook behave as documented.
#include "SupportSocket.h"
#include "TestHTTPClient.h"

#include <HalvosCore/HalvosCore.h>

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <thread>

namespace {

using namespace hvtest;

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// A method procedure made of a C++ function, for tests that need to see inside one.
using Body = std::function<RtTypeRef(RtDictionaryRef params, RtArrayRef order, RtDictionaryRef *fault)>;

RtTypeRef runBody(HVServerRef, RtStringRef, RtStringRef, RtDictionaryRef params, RtArrayRef order,
                  RtDictionaryRef *fault, void *info) {
    return (*static_cast<Body *>(info))(params, order, fault);
}

// A server with the given methods and properties, started on a free port; stopped and released
// at the end of the test.
class TestServer {
  public:
    TestServer() : fServer(HVServerCreate(nullptr)) {}
    ~TestServer() {
        HVServerStop(fServer);
        RtRelease(fServer);
    }
    void add(const char *name, Body body, RtArrayRef signature = nullptr) {
        fBodies.push_back(std::make_unique<Body>(std::move(body)));
        HVClientContext context = {0, fBodies.back().get(), nullptr, nullptr, nullptr};
        RtStringRef key = RtStringCreateWithCString(nullptr, name, kRtStringEncodingUTF8);
        EXPECT_TRUE(HVServerAddMethod(fServer, key, runBody, &context, nullptr, signature)) << name;
        RtRelease(key);
    }
    void set(RtStringRef key, long long number) {
        RtNumberRef value = RtNumberCreate(nullptr, kRtNumberSInt64Type, &number);
        EXPECT_TRUE(HVServerSetProperty(fServer, key, value));
        RtRelease(value);
    }
    void start() {
        RtDictionaryRef error = nullptr;
        ASSERT_TRUE(HVServerStart(fServer, &error));
        fPort = HVServerGetPort(fServer);
    }
    HVServerRef get() const { return fServer; }
    uint16_t port() const { return fPort; }

  private:
    HVServerRef fServer;
    uint16_t fPort = 0;
    std::vector<std::unique_ptr<Body>> fBodies;
};

std::string methodCall(const std::string &name, const std::string &params) {
    return "<?xml version=\"1.0\"?><methodCall><methodName>" + name + "</methodName><params>" + params +
           "</params></methodCall>";
}

std::string intParam(int value) {
    return "<param><value><i4>" + std::to_string(value) + "</i4></value></param>";
}

TestHTTPResponse post(uint16_t port, const std::string &body, const std::string &path = "/RPC2") {
    return httpRequest(port, "POST", path, {}, body);
}

// Sends head and body as given (ignoring a server that stops reading) and reads one answer: its
// status line, or "" when the connection closed without one.
std::string exchange(uint16_t port, const std::string &head, const std::string &body = "", int repeat = 1) {
    std::string error;
    Socket socket = connectLoopback(port, std::chrono::seconds(10), &error);
    if (!socket.valid()) return "no connection: " + error;
    sendAll(socket.fd(), head, -1, 10000);
    for (int i = 0; i < repeat && sendAll(socket.fd(), body, -1, 10000); i++) {
    }
    std::string buffer;
    size_t length = 0;
    if (!readHTTPMessage(socket.fd(), buffer, length, -1, 20000)) return "";
    return buffer.substr(0, buffer.find("\r\n"));
}

// examples.add(int, int), the normal client every hostile case is followed by.
RtTypeRef addBody(RtDictionaryRef params, RtArrayRef order, RtDictionaryRef *) {
    int32_t a = 0, b = 0;
    RtNumberGetValue(static_cast<RtNumberRef>(RtDictionaryGetValue(params, RtArrayGetValueAtIndex(order, 0))),
                     kRtNumberSInt32Type, &a);
    RtNumberGetValue(static_cast<RtNumberRef>(RtDictionaryGetValue(params, RtArrayGetValueAtIndex(order, 1))),
                     kRtNumberSInt32Type, &b);
    int32_t sum = a + b;
    return RtNumberCreate(nullptr, kRtNumberSInt32Type, &sum);
}

RtArrayRef createSignature(std::initializer_list<const char *> types) {
    RtMutableArrayRef entry = RtArrayCreateMutable(nullptr, 0, &kRtTypeArrayCallBacks);
    for (const char *type : types) {
        RtStringRef name = RtStringCreateWithCString(nullptr, type, kRtStringEncodingUTF8);
        RtArrayAppendValue(entry, name);
        RtRelease(name);
    }
    const void *entries[] = {entry};
    RtArrayRef signature = RtArrayCreate(nullptr, entries, 1, &kRtTypeArrayCallBacks);
    RtRelease(entry);
    return signature;
}

void addTypedAdd(TestServer &server) {
    RtArrayRef signature = createSignature({"int", "int", "int"});
    server.add("examples.add", addBody, signature);
    RtRelease(signature);
}

void expectServing(uint16_t port) {
    TestHTTPResponse reply = post(port, methodCall("examples.add", intParam(2) + intParam(3)));
    EXPECT_EQ(reply.status, 200) << reply.error;
    EXPECT_TRUE(contains(reply.body, "<i4>5</i4>")) << reply.body;
}

std::string nested(int depth) {
    std::string open, close;
    for (int i = 0; i < depth; i++)
        open += "<value><array><data>", close += "</data></array></value>";
    return "<param>" + open + close + "</param>";
}

TEST(Server, HostileRequestsEndInCleanAnswersWhileOthersAreServed) {
    TestServer server;
    addTypedAdd(server);
    server.start();
    const std::string post1 = "POST /RPC2 HTTP/1.1\r\nHost: x\r\n";
    std::string manyParams;
    for (int i = 0; i < 1000000; i++)
        manyParams += "<param><value>1</value></param>";
    // Ten entities, each ten of the one before: a billion letters from a few hundred bytes.
    std::string laughs = "<?xml version=\"1.0\"?><!DOCTYPE methodCall [<!ENTITY a \"aaaaaaaaaa\">";
    for (char c = 'b'; c <= 'k'; c++) {
        laughs += std::string("<!ENTITY ") + c + " \"";
        for (int i = 0; i < 10; i++)
            laughs += std::string("&") + char(c - 1) + ";";
        laughs += "\">";
    }
    laughs += "]><methodCall><methodName>examples.add</methodName><params><param><value>&k;</value></param>"
              "</params></methodCall>";
    std::string chunks;
    for (int i = 0; i < 40; i++)
        chunks += "8000\r\n" + std::string(0x8000, 'x') + "\r\n";

    //  what                     head (after the request line)                     body            expected
    struct {
        const char *what;
        std::string head, body;
        const char *status;
        const char *inBody; // for 200 answers: a fault document holding this
    } cases[] = {
        {"malformed XML", "Content-Length: 9\r\n\r\n", "<methodCa", "HTTP/1.1 200", "<i4>-32700</i4>"},
        {"100 MB body", "Content-Length: 100000000\r\n\r\n", std::string(1 << 20, 'x'), "HTTP/1.1 413",
         nullptr},
        {"a million parameters", "Content-Length: " + std::to_string(manyParams.size()) + "\r\n\r\n",
         manyParams, "HTTP/1.1 413", nullptr},
        {"chunked past the limit", "Transfer-Encoding: chunked\r\n\r\n", chunks + "0\r\n\r\n", "HTTP/1.1 413",
         nullptr},
        {"Content-Length with chunked", "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n",
         "5\r\nhello\r\n0\r\n\r\n", "HTTP/1.1 400", nullptr},
        {"deep nesting", "Content-Length: ", methodCall("examples.add", nested(5000)), "HTTP/1.1 200",
         "<i4>-32700</i4>"},
        {"entity expansion", "Content-Length: ", laughs, "HTTP/1.1 200", "<i4>-32700</i4>"},
        {"too many parameters for the method",
         "Content-Length: ", methodCall("examples.add", manyParams.substr(0, 31 * 3000)), "HTTP/1.1 200",
         "examples.add takes 2 parameters, not 3000"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.what);
        if (c.head == "Content-Length: ") c.head += std::to_string(c.body.size()) + "\r\n\r\n";
        if (c.inBody) {
            TestHTTPResponse reply = post(server.port(), c.body);
            EXPECT_EQ("HTTP/1.1 " + std::to_string(reply.status), c.status) << reply.error;
            EXPECT_TRUE(contains(reply.body, c.inBody)) << reply.body.substr(0, 2000);
        } else {
            EXPECT_EQ(exchange(server.port(), post1 + c.head, c.body).substr(0, 12), c.status);
        }
        expectServing(server.port());
    }
    EXPECT_EQ(httpRequest(server.port(), "GET", "/RPC2").status, 405);
    EXPECT_EQ(post(server.port(), "<x/>", "/elsewhere").status, 404);
}

TEST(Server, MisbehavingMethodsBecomeInternalErrorFaults) {
    TestServer server;
    server.add("returns.url", [](RtDictionaryRef, RtArrayRef, RtDictionaryRef *) -> RtTypeRef {
        return RtURLCreateWithString(nullptr, RTSTR("http://example.com/"), nullptr);
    });
    server.add("returns.nothing",
               [](RtDictionaryRef, RtArrayRef, RtDictionaryRef *) -> RtTypeRef { return nullptr; });
    server.add("returns.itself", [](RtDictionaryRef, RtArrayRef, RtDictionaryRef *) -> RtTypeRef {
        RtMutableArrayRef array = RtArrayCreateMutable(nullptr, 0, nullptr); // holds itself, unretained
        RtArrayAppendValue(array, array);
        return array;
    });
    server.add("returns.null",
               [](RtDictionaryRef, RtArrayRef, RtDictionaryRef *) -> RtTypeRef { return kRtNull; });
    server.add("returns.big", [](RtDictionaryRef, RtArrayRef, RtDictionaryRef *) -> RtTypeRef {
        int64_t big = int64_t(1) << 40;
        return RtNumberCreate(nullptr, kRtNumberSInt64Type, &big);
    });
    server.add("returns.badFault", [](RtDictionaryRef, RtArrayRef, RtDictionaryRef *fault) -> RtTypeRef {
        *fault = static_cast<RtDictionaryRef>(RtRetain(RTSTR("not a dictionary")));
        return nullptr;
    });
    server.add("throws", [](RtDictionaryRef, RtArrayRef, RtDictionaryRef *) -> RtTypeRef {
        throw std::runtime_error("secret detail");
    });
    server.start();
    for (const char *name :
         {"returns.url", "returns.nothing", "returns.itself", "returns.badFault", "throws"}) {
        SCOPED_TRACE(name);
        TestHTTPResponse reply = post(server.port(), methodCall(name, ""));
        EXPECT_EQ(reply.status, 200);
        EXPECT_TRUE(contains(reply.body, "<i4>-32603</i4>")) << reply.body;
        EXPECT_TRUE(contains(reply.body, "<string>internal error</string>")) << reply.body;
        EXPECT_FALSE(contains(reply.body, "secret")) << reply.body;
    }
    // Values XML-RPC cannot carry for a client that sent no extension element: exact replies
    // say which and why, with the same code.
    for (auto [name, text] :
         {std::pair{"returns.null", "result: null has no XML-RPC form; allow extensions to send it as nil"},
          {"returns.big", "result: 1099511627776 does not fit a 32-bit XML-RPC int; allow extensions"}}) {
        TestHTTPResponse reply = post(server.port(), methodCall(name, ""));
        EXPECT_TRUE(contains(reply.body, "<i4>-32603</i4>")) << reply.body;
        EXPECT_TRUE(contains(reply.body, text)) << reply.body;
    }
}

// Raises the descriptor limit so that a test can hold a thousand connections (and the server
// its thousand), and restores it afterwards.
class DescriptorLimit {
  public:
    DescriptorLimit() {
        getrlimit(RLIMIT_NOFILE, &fSaved);
        rlimit raised = fSaved;
        raised.rlim_cur = std::min<rlim_t>(fSaved.rlim_max, 8192);
        setrlimit(RLIMIT_NOFILE, &raised);
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &fSaved); }
    bool atLeast(rlim_t n) const {
        rlimit now;
        getrlimit(RLIMIT_NOFILE, &now);
        return now.rlim_cur >= n;
    }

  private:
    rlimit fSaved;
};

TEST(Server, IdleAndTricklingConnectionsDoNotHoldUpOthers) {
    DescriptorLimit limit;
    if (!limit.atLeast(2200)) GTEST_SKIP() << "the descriptor limit is below 2200";
    TestServer server;
    addTypedAdd(server);
    server.set(kHVServerRequestTimeout, 1);
    server.start();
    std::vector<Socket> idle;
    for (int i = 0; i < 1000; i++) {
        std::string error;
        idle.push_back(connectLoopback(server.port(), std::chrono::seconds(10), &error));
        ASSERT_TRUE(idle.back().valid()) << i << ": " << error;
    }
    expectServing(server.port());

    // A body that trickles in a byte at a time is answered 408 and dropped once the request time
    // is over.
    std::string error;
    Socket trickle = connectLoopback(server.port(), std::chrono::seconds(10), &error);
    ASSERT_TRUE(sendAll(trickle.fd(), "POST /RPC2 HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\n"));
    bool dropped = false;
    for (int i = 0; i < 100 && !dropped; i++) {
        dropped = !sendAll(trickle.fd(), "x", -1, 1000) ||
                  waitReadable(trickle.fd(), -1, 100) == WaitResult::eReady;
        if (i == 3) expectServing(server.port());
    }
    std::string rest;
    EXPECT_TRUE(dropped);
    while (readSome(trickle.fd(), rest, -1, 5000) > 0) {
    }
    EXPECT_EQ(rest.substr(0, 12), "HTTP/1.1 408") << rest;
    expectServing(server.port());
}

TEST(Server, AFullQueueAnswers503AndTheQueuedCallsStillRun) {
    TestServer server;
    std::mutex lock;
    std::condition_variable wake;
    bool open = false;
    std::atomic<int> entered{0};
    server.add("examples.wait", [&](RtDictionaryRef, RtArrayRef, RtDictionaryRef *) -> RtTypeRef {
        entered++;
        std::unique_lock<std::mutex> guard(lock);
        wake.wait(guard, [&] { return open; });
        return RtRetain(kRtBooleanTrue);
    });
    server.set(kHVServerThreads, 1);
    server.set(kHVServerMaxQueued, 1);
    server.start();
    auto call = [&] { return post(server.port(), methodCall("examples.wait", "")).status; };
    std::thread first([&] { EXPECT_EQ(call(), 200); });
    while (entered == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    // One more fits in the queue; of two more, one is turned away.
    int statuses[2] = {0, 0};
    std::thread second([&] { statuses[0] = call(); });
    std::thread third([&] { statuses[1] = call(); });
    while (statuses[0] == 0 && statuses[1] == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    {
        std::lock_guard<std::mutex> guard(lock);
        open = true;
    }
    wake.notify_all();
    first.join();
    second.join();
    third.join();
    EXPECT_EQ(std::min(statuses[0], statuses[1]), 200);
    EXPECT_EQ(std::max(statuses[0], statuses[1]), 503);
    EXPECT_EQ(entered, 2);
}

TEST(Server, StopBeforeDuringAndAfterStartAndFromInsideAMethod) {
    {
        TestServer never;
        HVServerStop(never.get());
        HVServerStop(never.get());
        RtDictionaryRef error = nullptr;
        EXPECT_FALSE(HVServerStart(never.get(), &error));
        EXPECT_NE(error, nullptr);
        RtRelease(error);
    }
    TestServer server;
    std::atomic<bool> running{false}, finished{false};
    server.add("examples.slow", [&](RtDictionaryRef, RtArrayRef, RtDictionaryRef *) -> RtTypeRef {
        running = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        finished = true;
        return RtRetain(kRtBooleanTrue);
    });
    HVServerRef handle = server.get();
    server.add("examples.stop", [handle](RtDictionaryRef, RtArrayRef, RtDictionaryRef *) -> RtTypeRef {
        HVServerStop(handle); // only stops accepting: this call still gets its reply
        return RtRetain(kRtBooleanTrue);
    });
    server.start();
    uint16_t port = server.port();

    // A stop while a method runs returns after it, and its reply reaches the client.
    int slowStatus = 0;
    std::thread slow([&] { slowStatus = post(port, methodCall("examples.slow", "")).status; });
    while (!running)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::thread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        HVServerStop(handle);
        EXPECT_TRUE(finished);
    });
    slow.join();
    stopper.join();
    EXPECT_EQ(slowStatus, 200);
    EXPECT_FALSE(connectLoopback(port, std::chrono::seconds(2), nullptr).valid());
    HVServerStop(handle); // again: nothing left to do

    TestServer inside;
    HVServerRef insideHandle = inside.get();
    inside.add("examples.stop", [insideHandle](RtDictionaryRef, RtArrayRef, RtDictionaryRef *) -> RtTypeRef {
        HVServerStop(insideHandle);
        return RtRetain(kRtBooleanTrue);
    });
    inside.start();
    EXPECT_EQ(post(inside.port(), methodCall("examples.stop", "")).status, 200);
    EXPECT_FALSE(connectLoopback(inside.port(), std::chrono::seconds(2), nullptr).valid());
}

TEST(Server, AuthenticationRefusesBeforeDispatchAndOnePathServesBoth) {
    TestServer server;
    std::atomic<int> calls{0};
    server.add("examples.count", [&](RtDictionaryRef, RtArrayRef, RtDictionaryRef *) -> RtTypeRef {
        calls++;
        return RtRetain(kRtBooleanTrue);
    });
    HVClientContext none = {0, nullptr, nullptr, nullptr, nullptr};
    HVServerSetAuthentication(
        server.get(),
        [](HVServerRef, RtStringRef user, RtStringRef password, RtStringRef, void *) {
            return user && password && RtEqual(user, RTSTR("ada")) && RtEqual(password, RTSTR("secret"));
        },
        &none);
    EXPECT_TRUE(HVServerSetProperty(server.get(), kHVServerSOAPPath, RTSTR("/RPC2")));
    EXPECT_FALSE(HVServerSetProperty(server.get(), kHVServerThreads, RTSTR("many")));
    server.start();
    EXPECT_FALSE(HVServerSetProperty(server.get(), kHVServerThreads, kRtBooleanTrue)); // started

    std::string call = methodCall("examples.count", "");
    //  credentials (user:password in base64)   status
    struct {
        const char *authorization;
        int status;
    } cases[] = {{nullptr, 401}, {"Basic YWRhOndyb25n", 401}, {"Basic YWRhOnNlY3JldA==", 200}};
    for (const auto &c : cases) {
        HTTPHeaders headers;
        if (c.authorization) headers.emplace_back("Authorization", c.authorization);
        TestHTTPResponse reply = httpRequest(server.port(), "POST", "/RPC2", headers, call);
        EXPECT_EQ(reply.status, c.status) << (c.authorization ? c.authorization : "none");
        if (c.status == 401) {
            EXPECT_EQ(reply.header("WWW-Authenticate"), "Basic realm=\"HalvosCore\"");
        }
    }
    EXPECT_EQ(calls, 1);

    std::string envelope =
        "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\">"
        "<SOAP-ENV:Body><m:examples.count xmlns:m=\"urn:x\"/></SOAP-ENV:Body></SOAP-ENV:Envelope>";
    TestHTTPResponse soap =
        httpRequest(server.port(), "POST", "/RPC2", {{"Authorization", "Basic YWRhOnNlY3JldA=="}}, envelope);
    EXPECT_EQ(soap.status, 200);
    EXPECT_TRUE(contains(soap.body, "examples.countResponse")) << soap.body;
    EXPECT_EQ(calls, 2);
}

} // namespace
