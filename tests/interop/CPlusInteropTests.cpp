// hv::Client against independent peers: Python's xmlrpc.server (sums, an echo of a nested value
// of every kind, a fault, overlapping calls) and spyne over SOAP with named arguments.
#include <HalvosCore/HalvosCore.hpp>

#include "PythonPeer.h"
#include "TestHTTPClient.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace shop {
struct Item {
    std::string name;
    int count = 0;
    double price = 0;
    std::vector<std::byte> photo;
    std::chrono::system_clock::time_point added;
    std::vector<std::string> tags;
    std::optional<std::string> note;
    bool operator==(const Item &o) const {
        return std::tie(name, count, price, photo, added, tags, note) ==
               std::tie(o.name, o.count, o.price, o.photo, o.added, o.tags, o.note);
    }
};
HV_RECORD(Item, name, count, price, photo, added, tags, note)
} // namespace shop

namespace {

TEST(CPlusInterop, PythonXmlrpcServer) {
    hvtest::PythonPeer peer("xmlrpc_server.py", {"--wire-types"});
    ASSERT_TRUE(peer.ready()) << peer.error();
    hv::Client client{peer.url("/RPC2")};
    client.setTimeout(20s);

    struct Sum {
        hv::Value a, b;
        double expected;
    };
    const Sum sums[] = {{2, 3, 5}, {-7, 7, 0}, {1, 0.5, 1.5}, {INT32_MAX, -1, INT32_MAX - 1.0}};
    for (const Sum &sum : sums)
        EXPECT_EQ(client.call<double>("add", sum.a, sum.b), sum.expected) << sum.a << " + " << sum.b;
    EXPECT_EQ(client.call<int>("add", 2, 3), 5);

    using std::chrono::system_clock;
    shop::Item item{"caf\xc3\xa9 <&>",
                    3,
                    2.5,
                    {std::byte(0), std::byte(0xff), std::byte('M')},
                    system_clock::time_point(std::chrono::seconds(1709214307)), // 2024-02-29T13:45:07Z
                    {"a", "b"},
                    std::nullopt};
    EXPECT_EQ(client.call<shop::Item>("echo", item), item);
    hv::Record nested{
        {"items", std::vector<shop::Item>{item, item}},
        {"flags", std::map<std::string, bool>{{"on", true}, {"off", false}}},
        {"mixed", std::vector<hv::Value>{1, "two", 3.5, hv::Record{{"deep", std::vector<int>{}}}}}};
    hv::Value echoed = client.call("echo", nested);
    EXPECT_EQ(echoed, hv::Value(nested));
    EXPECT_EQ(echoed.as<hv::Record>(), nested); // members in the order sent

    try {
        client.call<void>("fault", 42, "the answer <refused>");
        ADD_FAILURE() << "no fault";
    } catch (const hv::Fault &fault) {
        EXPECT_EQ(fault.code(), 42);
        EXPECT_STREQ(fault.what(), "the answer <refused>");
        EXPECT_EQ(fault.method(), "fault");
    }
    hv::Result<int> fault = client.tryCall<int>("fault", 7, "seven");
    ASSERT_NE(fault.fault(), nullptr);
    EXPECT_EQ(fault.fault()->code(), 7);

    hv::Client nobody{"http://127.0.0.1:" + std::to_string(hvtest::freeLoopbackPort()) + "/RPC2"};
    EXPECT_THROW(nobody.call<int>("add", 1, 2), hv::TransportError);
    try {
        nobody.call<int>("add", 1, 2);
    } catch (const hv::Error &either) { // one catch takes faults and transport errors
        EXPECT_EQ(dynamic_cast<const hv::TransportError &>(either).kind(), hv::TransportErrc::Refused);
    }
}

TEST(CPlusInterop, TwentyCallsOverlap) {
    hvtest::PythonPeer peer("xmlrpc_server.py");
    ASSERT_TRUE(peer.ready()) << peer.error();
    hv::Client client{peer.url("/RPC2")};
    client.setTimeout(20s);
    using Clock = std::chrono::steady_clock;

    // On the calling thread's run loop, with callbacks.
    Clock::time_point start = Clock::now();
    double slept = 0;
    std::vector<hv::CallHandle> calls;
    for (int i = 0; i < 20; i++)
        calls.push_back(
            client.callAsync<double>([&](hv::Result<double> r) { slept += r.value(); }, "sleep", 0.5));
    EXPECT_TRUE(hv::RunLoop::runUntilDone(calls, 20s));
    auto callbacks = Clock::now() - start;
    EXPECT_EQ(slept, 10.0);

    // Through futures, on the client's own thread.
    start = Clock::now();
    std::vector<std::future<double>> futures;
    for (int i = 0; i < 20; i++)
        futures.push_back(client.callAsync<double>("sleep", 0.5));
    slept = 0;
    for (auto &future : futures)
        slept += future.get();
    auto viaFutures = Clock::now() - start;
    EXPECT_EQ(slept, 10.0);
    // One after the other they would take 10 s.
    EXPECT_LT(callbacks, 2s) << std::chrono::duration<double>(callbacks).count();
    EXPECT_LT(viaFutures, 2s) << std::chrono::duration<double>(viaFutures).count();
}

TEST(CPlusInterop, SpyneWithNamedArguments) {
    hvtest::PythonPeer peer("spyne_server.py");
    ASSERT_TRUE(peer.ready()) << peer.error();
    for (hv::Protocol protocol : {hv::Protocol::SOAP2001, hv::Protocol::SOAP1999}) {
        hv::Client client{peer.url("/"), protocol};
        client.setNamespace("urn:halvos:test").setSOAPStyle(hv::SOAPStyle::RPC).setTimeout(20s);
        // spyne answers document/literal without types: values come back as text.
        client.setResultName("tns:addResult");
        EXPECT_EQ(client.call<std::string>("add", hv::arg("a", 2), hv::arg("b", 40)), "42");
        EXPECT_EQ(client.call<std::string>("add", hv::arg("b", -5), hv::arg("a", 5)), "0");
        client.setResultName("tns:echoResult");
        EXPECT_EQ(client.call<std::string>("echo", hv::arg("s", "caf\xc3\xa9 <&>")), "caf\xc3\xa9 <&>");
        client.setResultName("");
        try {
            client.call<void>("fail", hv::arg("code", "Server.Boom"), hv::arg("message", "it broke"));
            ADD_FAILURE() << "no fault";
        } catch (const hv::Fault &fault) {
            EXPECT_EQ(fault.code(), -1); // a SOAP fault code is not a number
            EXPECT_STREQ(fault.what(), "it broke");
        }
    }
}

} // namespace
