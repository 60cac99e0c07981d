// Eight threads that make the process's first calls at the same moment, each on its own run loop:
// every lazily built table (User-Agent, debug switches, type and entity tables, runtime class
// registrations, the thread's transfer driver) is reached first by several threads at once. Its
// own executable, so that nothing ran before; the tsan preset runs it under ThreadSanitizer,
// which fails the test on a data race.
#include "ScriptedHTTPServer.h"
#include "TransportHarness.h"

#include "../HalvosCore/SOAPTestSupport.h"

#include <HalvosCore/HalvosCore.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using namespace hvit;

TEST(ThreadStart, EightThreadsMakeTheirFirstCallsAtOnce) {
    hvtest::ScriptedHTTPServer server;
    server.reply("*", "/RPC2", hvtest::ScriptedReply::xml(kHelloReply));
    server.reply("*", "/soap",
                 hvtest::ScriptedReply::xml(soaptest::envelope(
                     "<m:echoResponse xmlns:m=\"urn:t\"><Result xsi:type=\"xsd:string\">hello &amp; bye"
                     "</Result></m:echoResponse>")));
    const int kThreads = 8;
    std::atomic<int> ready{0};
    std::vector<std::string> problems(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([&, t] {
            // Half XML-RPC, half SOAP, on both roads; the parameter needs entity encoding.
            bool xmlrpc = t % 2 == 0;
            Road road = t % 4 < 2 ? Road::eSync : Road::eAsync;
            ready++;
            while (ready.load() < kThreads) {
            }
            Owned value = S("first <&> call");
            Outcome outcome = Invocation(server.url(xmlrpc ? "/RPC2" : "/soap"), "echo",
                                         xmlrpc ? kHVXMLRPCProtocol : kHVSOAP2001Protocol)
                                  .param("value", value)
                                  .run(road, 0);
            std::string expected = xmlrpc ? "hello" : "hello & bye";
            RtTypeRef result = outcome.value(xmlrpc ? kHVMethodInvocationResult : RTSTR("Result"));
            if (outcome.callbacks != 1 || outcome.isFault() || text(result) != expected)
                problems[size_t(t)] = "callbacks " + std::to_string(outcome.callbacks) + ", fault '" +
                                      outcome.faultString() + "', result '" + text(result) + "'";
        });
    for (std::thread &thread : threads)
        thread.join();
    for (int t = 0; t < kThreads; t++)
        EXPECT_EQ(problems[size_t(t)], "") << "thread " << t;
    EXPECT_EQ(server.requestCount(), size_t(kThreads));
}
