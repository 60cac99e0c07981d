// hv::Server in this process: signatures and conversions derived from the callables' types,
// untyped SOAP text inside records and arrays, exceptions turned into faults, registration and
// start/stop misuse.
#include "TestHTTPClient.h"

#include <HalvosCore/HalvosCore.hpp>

#include <gtest/gtest.h>

#include <atomic>

namespace shop {
struct Item {
    std::string name;
    int count = 0;
    double price = 0;
    bool taxed = false;
};
HV_RECORD(Item, name, count, price, taxed)
} // namespace shop

namespace {

using namespace hvtest;

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

std::string soapCall(const std::string &method, const std::string &params) {
    return "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\" "
           "xmlns:SOAP-ENC=\"http://schemas.xmlsoap.org/soap/encoding/\"><SOAP-ENV:Body><m:" +
           method + " xmlns:m=\"urn:shop\">" + params + "</m:" + method +
           "></SOAP-ENV:Body></SOAP-ENV:Envelope>";
}

std::string xmlrpcCall(const std::string &method, const std::string &params) {
    return "<methodCall><methodName>" + method + "</methodName><params>" + params + "</params></methodCall>";
}

TEST(CPlusServer, TypedHandlersTakeWhatEveryClientSends) {
    std::atomic<int> errors{0};
    hv::Server server;
    server.add("shop.total", [](const std::vector<shop::Item> &items) {
        double total = 0;
        for (const shop::Item &item : items)
            total += item.count * item.price * (item.taxed ? 1.5 : 1);
        return total;
    });
    server.add(
        "shop.first", [](shop::Item item) { return item.name; }, "The item's name.");
    server.add("shop.broken", []() -> int { throw std::runtime_error("a secret"); });
    server.onError([&](std::exception_ptr error) {
        try {
            std::rethrow_exception(error);
        } catch (const std::runtime_error &e) {
            if (std::string(e.what()) == "a secret") errors++;
        }
    });
    server.listen(0);
    EXPECT_NE(server.port(), 0);
    server.start();

    // Untyped text (as gSOAP and zeep send it) inside a record and an array of records.
    std::string item = "<name>bolt</name><count> 3 </count><price>0.5</price><taxed>true</taxed>";
    //  protocol  path     document                                                               reply holds
    struct {
        const char *path;
        std::string body;
        const char *expected;
    } cases[] = {
        {"/soap", soapCall("shop.first", "<item>" + item + "</item>"), ">bolt</Result>"},
        {"/soap",
         soapCall("shop.total", "<items SOAP-ENC:arrayType=\"xsd:anyType[2]\"><item>" + item +
                                    "</item><item>" + item + "</item></items>"),
         ">4.5</Result>"},
        {"/soap", soapCall("shop.first", "<item><name>bolt</name><count>three</count></item>"),
         "shop.first: params[0].count: expected integer, got string"},
        {"/RPC2",
         xmlrpcCall("shop.first",
                    "<param><value><struct><member><name>name</name><value>bolt</value></member>"
                    "<member><name>count</name><value>3</value></member></struct></value></param>"),
         "shop.first: params[0].count: expected integer, got string"}, // XML-RPC text is text
        {"/RPC2", xmlrpcCall("shop.broken", ""), "<string>internal error</string>"},
        {"/RPC2", xmlrpcCall("system.methodSignature", "<param><value>shop.total</value></param>"),
         "<string>double</string>"},
    };
    for (const auto &c : cases) {
        TestHTTPResponse reply = httpRequest(server.port(), "POST", c.path, {}, c.body);
        EXPECT_TRUE(contains(reply.body, c.expected)) << c.body << "\n" << reply.body;
        EXPECT_FALSE(contains(reply.body, "secret"));
    }
    EXPECT_EQ(errors, 1);
}

TEST(CPlusServer, MisuseIsRefusedAtOnce) {
    hv::Server server;
    server.add("a.b", [](int x) { return x; });
    EXPECT_THROW(server.add("a.b", [](int x) { return x; }), std::invalid_argument);
    EXPECT_THROW(server.addRaw("system.listMethods", [](const hv::Params &) { return hv::Value(1); }),
                 std::invalid_argument);
    server.stop(); // before start: the server never starts
    server.stop();
    EXPECT_THROW(server.start(), hv::Error);

    hv::Server twice;
    twice.start();
    EXPECT_THROW(twice.start(), hv::Error);
    EXPECT_THROW(twice.add("late", [] { return 1; }), std::invalid_argument);
    twice.stop();
    twice.stop();
}

} // namespace
