// A C++17 program outside the project that uses only the installed <HalvosCore/HalvosCore.hpp>:
// it calls an XML-RPC server (Python's xmlrpc.server in the packaging test) for sums, an echo of a
// nested value of every kind that must come back equal, and a fault, then a port where nobody
// listens. The URL is the first argument, or comes as "PORT <n>" on standard input.
// Exit status 0 means every check held.
#include <HalvosCore/HalvosCore.hpp>

#include <iostream>
#include <string>
#include <tuple>

namespace app {
struct Sample {
    std::string text;
    int count = 0;
    double ratio = 0;
    bool on = false;
    std::chrono::system_clock::time_point when;
    std::vector<std::byte> bytes;
    std::vector<std::map<std::string, int>> nested;
    bool operator==(const Sample &o) const {
        return std::tie(text, count, ratio, on, when, bytes, nested) ==
               std::tie(o.text, o.count, o.ratio, o.on, o.when, o.bytes, o.nested);
    }
};
HV_RECORD(Sample, text, count, ratio, on, when, bytes, nested)
} // namespace app

static int gFailures = 0;

static void check(bool ok, const std::string &what) {
    if (!ok) {
        std::cerr << "cpp_consumer: FAILED: " << what << "\n";
        gFailures++;
    }
}

int main(int argc, char **argv) {
    std::string url = argc > 1 ? argv[1] : "";
    if (url.empty()) {
        std::string word, port;
        std::cin >> word >> port;
        url = "http://127.0.0.1:" + port + "/RPC2";
    }
    try {
        hv::Client client{url};
        client.setTimeout(std::chrono::seconds(30));
        check(client.call<int>("add", 2, 3) == 5, "add(2, 3) is 5");
        check(client.call<double>("add", 1, 0.5) == 1.5, "add(1, 0.5) is 1.5");

        app::Sample sample{"caf\xc3\xa9 <&>",
                           -7,
                           0.25,
                           true,
                           std::chrono::system_clock::time_point(std::chrono::seconds(1000000000)),
                           {std::byte{0}, std::byte{0xff}},
                           {{{"a", 1}}, {}}};
        app::Sample back = client.call<app::Sample>("echo", sample);
        check(back == sample, "the echo comes back equal: " + hv::Value(back).description());

        try {
            client.call<void>("fault", 42, "no");
            check(false, "fault() throws");
        } catch (const hv::Fault &fault) {
            check(fault.code() == 42 && std::string(fault.what()) == "no", "the fault's code and string");
        }
    } catch (const hv::Error &error) {
        check(false, std::string("unexpected: ") + error.what());
    }
    try {
        hv::Client{"http://127.0.0.1:1/RPC2"}.call<int>("add", 1, 2);
        check(false, "a refused port throws");
    } catch (const hv::TransportError &error) {
        check(error.kind() == hv::TransportErrc::Refused, std::string("refused: ") + error.what());
    }
    std::cout << "cpp_consumer: " << (gFailures ? "FAILED" : "ok") << "\n";
    return gFailures ? 1 : 0;
}
