// Interoperability with eight independent XML-RPC and SOAP implementations, each run as a
// process from the scripts beside this file, with one table of calls in four directions:
//   request  their client's request, captured, read by our protocol handler;
//   reply    their server's reply to our request, read by our protocol handler;
//   client   our client (HVMethodInvocation) against their server;
//   server   their client against hvserve, which checks the values it gets back.
// Each cell is a case of the table in one direction. The expected matrix below marks the cells
// that must come out right; the others fail for reasons that are the peer's (docs/interop.md
// says which and how to work around them) or are still open on our side. A cell marked as
// failing that comes out right is reported, not failed, so the table can be tightened.
// HV_INTEROP_MATRIX=FILE writes the run's matrix as a Markdown table.
#include "../../HalvosCore/SOAPTestSupport.h"

#include "ChildProcess.h"
#include "PythonPeer.h"
#include "ScriptedHTTPServer.h"
#include "TestHTTPClient.h"
#include "ToolProcess.h"

#include <csignal>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <thread>

using namespace soaptest;

namespace {

// The table of calls, in the order the peers' client scripts make them.
struct Case {
    const char *fName, *fMethod;
    Value fParams; // positional: p0, p1
    Value fExpected;
};

const char *kMarkup = "a<b & c> \"q\" \xC3\xA9\xE2\x82\xAC\xE6\x97\xA5\xE6\x9C\xAC";

const std::vector<Case> &cases() {
    static const std::vector<Case> table = {
        {"add", "examples.add", A({I(2), I(3)}), I(5)},
        {"int", "examples.echo", A({I(42)}), I(42)},
        {"negint", "examples.echo", A({I(-7)}), I(-7)},
        {"int64", "examples.echo", A({I64(3000000000LL)}), I64(3000000000LL)},
        {"e", "examples.echo", A({D(2.718281828459045)}), D(2.718281828459045)},
        {"tenth", "examples.echo", A({D(0.1)}), D(0.1)},
        {"empty", "examples.echo", A({S("")}), S("")},
        {"markup", "examples.echo", A({S(kMarkup)}), S(kMarkup)},
        {"bool", "examples.echo", A({B(true)}), B(true)},
        {"date", "examples.echo", A({Date(730907130.0)}), Date(730907130.0)}, // 2024-02-29T13:45:30Z
        {"base64", "examples.echo",
         A({Bytes(std::string("\0\x01"
                              "binary\xFF",
                              9))}),
         Bytes(std::string("\0\x01"
                           "binary\xFF",
                           9))},
        {"emptyarray", "examples.echo", A({A({})}), A({})},
        {"emptymember", "examples.echo", A({Dict({{"a", S("")}})}), Dict({{"a", S("")}})},
        {"nil", "examples.echo", A({Null()}), Null()},
        {"fault", "examples.fault", A({I(4), S("Too <many>")}), Value()},
    };
    return table;
}

enum Direction { eRequest, eReply, eClient, eServer, kDirections };
const char *kDirectionNames[] = {"request", "reply", "client", "server"};

struct Peer {
    const char *fName;
    bool fSOAP, fExtensions;
    std::vector<std::string> fClient; // "{URL}" stands for the endpoint
    std::vector<std::string> fServer; // "{PORT}"; empty when the peer has no server
    const char *fPath;                // where its server answers
    bool fShortNames;                 // its server's methods are echo, add, fault
    // Expected cells, one string per direction, one character per case: '+' must be right,
    // '-' is known to fail (the peer's doing or still open here).
    const char *fExpected[kDirections];
};

std::string peerScript(const std::string &name) {
    return std::string(HV_SOURCE_DIR) + "/tests/interop/peers/" + name;
}
std::string nodePath() {
    const char *chosen = getenv("HV_NODE_PEERS");
    return chosen && *chosen ? chosen : std::string(HV_SOURCE_DIR) + "/build/peers/node/node_modules";
}
std::vector<std::string> node(const char *script) {
    return {"/usr/bin/env", "NODE_PATH=" + nodePath(), "node", peerScript(script)};
}

//                                          add int neg i64 e .1 "" <&> bool date b64 [] {a:""} nil fault
const std::vector<Peer> &peers() {
    static const std::vector<Peer> table = {
        {"Ruby xmlrpc",
         false,
         false,
         {"ruby", peerScript("ruby_client.rb"), "{URL}"},
         {"ruby", peerScript("ruby_server.rb"), "{PORT}"},
         "/RPC2",
         false,
         {"+++-+++++++++-+", "+++-++++++-++-+", "+++-++++++-++-+", "+++-+++++++++-+"}},
        {"Ruby xmlrpc (nil, bigint)",
         false,
         true,
         {"ruby", peerScript("ruby_client.rb"), "{URL}", "--ext"},
         {"ruby", peerScript("ruby_server.rb"), "{PORT}", "--ext"},
         "/RPC2",
         false,
         {"+++++++++++++++", "++++++++++-++++", "++++++++++-++++", "+++-+++++++++++"}},
        {"Perl RPC::XML",
         false,
         true,
         {"perl", peerScript("rpcxml_client.pl"), "{URL}"},
         {"perl", peerScript("rpcxml_server.pl"), "{PORT}"},
         "/RPC2",
         false,
         {"+++++++-+++++-+", "+++++++--+-++-+", "+++++++--+-++-+", "+++++++-+++++-+"}},
        {"Perl Frontier::RPC",
         false,
         false,
         {"perl", peerScript("frontier_client.pl"), "{URL}"},
         {"perl", peerScript("frontier_server.pl"), "{PORT}"},
         "/RPC2",
         false,
         {"++++-++++++++-+", "+++-+++++++++--", "+++-+++++++++--", "+++--++++-+++-+"}},
        {"PHP xmlrpc",
         false,
         true,
         {"php", peerScript("php_client.php"), "{URL}", "--utf8"},
         {"/usr/bin/env", "HV_PHP_UTF8=1", "php", "-S", "127.0.0.1:{PORT}", peerScript("php_server.php")},
         "/RPC2",
         false,
         {"+++--++++++++-+", "+++--++++++++-+", "+++--++++++++-+", "+++--++++++++-+"}},
        {"node xmlrpc",
         false,
         true,
         {node("node_client.js")[0], node("node_client.js")[1], "node", peerScript("node_client.js"),
          "{URL}"},
         {node("node_server.js")[0], node("node_server.js")[1], "node", peerScript("node_server.js"),
          "{PORT}"},
         "/RPC2",
         false,
         {"+++++++++++++++", "+++-+++++++++++", "+++-+++++++++++", "+++-+++++++++++"}},
        {"node davexmlrpc",
         false,
         false,
         {node("dave_client.js")[0], node("dave_client.js")[1], "node", peerScript("dave_client.js"),
          "{URL}"},
         {node("dave_server.js")[0], node("dave_server.js")[1], "node", peerScript("dave_server.js"),
          "{PORT}"},
         "/rpc2",
         false,
         {"+++++++++++++-+", "+++-+++-++-++--", "+++-+++-++-++--", "+++-++++++-++-+"}},
        {"Java aXMLRPC",
         false,
         false,
         {"/usr/bin/env", "TZ=UTC", "java", "-cp", "/usr/share/java/axmlrpc.jar",
          peerScript("AxmlrpcClient.java"), "{URL}"},
         {},
         "",
         false,
         {"+++-+++++++++-+", "", "", "+++-+++++++++-+"}},
        {"Java aXMLRPC (nil, 8-byte, ex:)",
         false,
         true,
         {"/usr/bin/env", "TZ=UTC", "java", "-cp", "/usr/share/java/axmlrpc.jar",
          peerScript("AxmlrpcClient.java"), "{URL}", "--ext"},
         {},
         "",
         false,
         {"+++++++++++++++", "", "", "+++++++++++++++"}},
        {"Perl SOAP::Lite",
         true,
         false,
         {"perl", peerScript("soaplite_client.pl"), "{URL}"},
         {"perl", peerScript("soaplite_server.pl"), "{PORT}"},
         "/",
         true,
         {"++++-++++++++++", "+++++++--++++++", "+++++++--++++++", "++++-++++++++++"}},
    };
    return table;
}

std::vector<std::string> substitute(std::vector<std::string> argv, const std::string &url, uint16_t port) {
    for (std::string &arg : argv) {
        if (auto at = arg.find("{URL}"); at != std::string::npos) arg.replace(at, 5, url);
        if (auto at = arg.find("{PORT}"); at != std::string::npos) arg.replace(at, 6, std::to_string(port));
    }
    return argv;
}

// A peer's server, on a port that was free a moment ago; ready once it accepts connections.
// Another test can take the port between our choice and the peer's bind; a peer that does not
// come up is therefore started again on a newly chosen port, up to three times.
class PeerServer {
  public:
    PeerServer(const Peer &peer) {
        for (int attempt = 0; attempt < 3 && !fReady; attempt++) {
            if (fChild) fChild->finish(SIGKILL, std::chrono::seconds(2));
            fPort = hvtest::freeLoopbackPort();
            fChild = std::make_unique<hvtest::Child>(substitute(peer.fServer, "", fPort));
            for (int i = 0; i < 200 && !fReady; i++) {
                std::string error;
                fReady = hvtest::connectLoopback(fPort, std::chrono::milliseconds(500), &error).valid();
                if (!fReady) std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        }
    }
    ~PeerServer() { fChild->finish(SIGTERM, std::chrono::seconds(5)); }
    bool ready() const { return fReady; }
    uint16_t port() const { return fPort; }
    std::string error() { return fChild->finish(SIGKILL, std::chrono::seconds(2)).err; }

  private:
    uint16_t fPort = 0;
    std::unique_ptr<hvtest::Child> fChild;
    bool fReady = false;
};

const char *serverMethod(const Peer &peer, const Case &c) {
    return peer.fShortNames ? c.fMethod + strlen("examples.") : c.fMethod;
}

// The properties our side uses with this peer: exact values, and extensions where it has them.
void configure(const Peer &peer, const std::function<void(RtStringRef, RtTypeRef)> &set) {
    set(kHVExactValues, kRtBooleanTrue);
    if (peer.fExtensions) set(kHVValueExtensions, kRtBooleanTrue);
}

RtStringRef protocolOf(const Peer &peer) {
    return peer.fSOAP ? kHVSOAP2001Protocol : kHVXMLRPCProtocol;
}

Value parameters(const Case &c) {
    RtMutableDictionaryRef params = RtDictionaryCreateMutable(
        nullptr, 0, &kRtCopyStringDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
    RtMutableArrayRef order = RtArrayCreateMutable(nullptr, 0, &kRtTypeArrayCallBacks);
    for (RtIndex i = 0; i < RtArrayGetCount(c.fParams.array()); i++) {
        Value key = S(("p" + std::to_string(i)).c_str());
        RtDictionarySetValue(params, key.get(), RtArrayGetValueAtIndex(c.fParams.array(), i));
        RtArrayAppendValue(order, key.get());
    }
    Value both = A({Value::adopt(params), Value::adopt(order)});
    return both;
}

// "ok", or what went wrong, for a result dictionary of ours against the case.
// SOAP fault codes are names: a peer's code travels in its detail, only the text is compared.
std::string judgeResult(const Case &c, const Value &result, const char *resultName = nullptr,
                        bool soap = false) {
    if (!result.get()) return "no result";
    if (HVMethodResultIsFault(result.dict())) {
        std::string got = "fault " + describe(result["/FaultCode"]) + " " + describe(result["/FaultString"]);
        if (!c.fExpected.get() && (soap || RtEqual(I(4).get(), result["/FaultCode"])) &&
            RtEqual(S("Too <many>").get(), result["/FaultString"]))
            return "ok";
        return got;
    }
    if (!c.fExpected.get()) return "no fault: " + describe(result.get());
    RtTypeRef value = result["/Result"];
    if (resultName && value && RtGetTypeID(value) == RtDictionaryGetTypeID())
        value = RtDictionaryGetValue(static_cast<RtDictionaryRef>(value), S(resultName).get());
    if (value && RtEqual(c.fExpected.get(), value)) return "ok";
    return "got " + describe(value);
}

std::string oneLine(std::string text) {
    for (char &ch : text)
        if (ch == '\n' || ch == '\r' || ch == '|') ch = ' ';
    return text.size() > 160 ? text.substr(0, 160) + "..." : text;
}

using Row = std::vector<std::string>; // one cell per case

// Their client's lines ("NAME ok" / "NAME fail DETAIL") as one cell per case.
Row clientCells(const hvtest::Finished &run) {
    Row row(cases().size(), "no line");
    std::istringstream lines(run.out);
    std::string line;
    while (std::getline(lines, line))
        for (size_t i = 0; i < cases().size(); i++)
            if (line.rfind(std::string(cases()[i].fName) + " ", 0) == 0)
                row[i] = line.substr(strlen(cases()[i].fName) + 1);
    for (std::string &cell : row)
        if (cell == "no line") cell += ": " + oneLine(run.err);
    return row;
}

Row theirRequests(const Peer &peer) {
    // Every request is answered with a fault numbering it, which the client prints: that ties
    // the captured request to its case even when the client sent none for some cases.
    hvtest::ScriptedHTTPServer capture;
    std::atomic<int> count{0};
    capture.route("POST", "*", [&](const hvtest::RecordedRequest &) {
        std::string n = std::to_string(++count);
        Handler writer(protocolOf(peer));
        return hvtest::ScriptedReply::with(
            peer.fSOAP ? 500 : 200, "text/xml",
            writer.fault(Dict({{"/FaultCode", I(90)}, {"/FaultString", S(("captured " + n).c_str())}})));
    });
    Row said =
        clientCells(hvtest::run(substitute(peer.fClient, capture.url(peer.fSOAP ? "/soap" : "/RPC2"), 0)));
    std::vector<hvtest::RecordedRequest> requests = capture.requests();
    Row row(cases().size());
    std::regex numbered("captured ([0-9]+)");
    for (size_t i = 0; i < cases().size(); i++) {
        std::smatch m;
        if (!std::regex_search(said[i], m, numbered) || std::stoul(m[1]) > requests.size()) {
            row[i] = "not sent: " + said[i];
            continue;
        }
        const Case &c = cases()[i];
        Handler reader(protocolOf(peer));
        configure(peer, [&](RtStringRef key, RtTypeRef value) { reader.set(key, value); });
        Value request = reader.readRequest(requests[std::stoul(m[1]) - 1].body);
        RtTypeRef name = request.get() ? request["/HVMethodName"] : nullptr;
        if (!name) {
            row[i] = "unread";
            continue;
        }
        std::string method = describe(name);
        Value params = Value::retain(request["/HVMethodParameters"]);
        Value order = Value::retain(request["/HVMethodParameterOrder"]);
        Value want = parameters(c);
        RtArrayRef wantOrder = static_cast<RtArrayRef>(RtArrayGetValueAtIndex(want.array(), 1));
        if (!order.get() || RtArrayGetCount(order.array()) != RtArrayGetCount(wantOrder)) {
            row[i] = "params " + describe(params.get());
            continue;
        }
        row[i] = "ok";
        for (RtIndex p = 0; p < RtArrayGetCount(order.array()); p++) {
            RtTypeRef got = RtDictionaryGetValue(params.dict(), RtArrayGetValueAtIndex(order.array(), p));
            if (!RtEqual(RtArrayGetValueAtIndex(c.fParams.array(), p), got)) row[i] = "got " + describe(got);
        }
        if (method.find(c.fMethod) == std::string::npos) row[i] = "method " + method;
    }
    return row;
}

// The body of a chunked reply (the test client passes the framing through).
std::string dechunk(const std::string &framed) {
    std::string body;
    for (size_t at = 0; at < framed.size();) {
        size_t end = framed.find("\r\n", at);
        if (end == std::string::npos) break;
        size_t size = std::stoul(framed.substr(at, end - at), nullptr, 16);
        if (size == 0) break;
        body += framed.substr(end + 2, size);
        at = end + 2 + size + 2;
    }
    return body;
}

Row theirReplies(const Peer &peer, const PeerServer &server) {
    Row row;
    for (const Case &c : cases()) {
        Handler handler(protocolOf(peer));
        configure(peer, [&](RtStringRef key, RtTypeRef value) { handler.set(key, value); });
        if (peer.fSOAP) handler.set(kHVSOAPMethodNamespaceURI, S("urn:Examples").get());
        Value both = parameters(c);
        std::string request = text(Value::adopt(HVProtocolHandlerCopyRequestDocument(
            handler.get(), S(serverMethod(peer, c)).str(),
            static_cast<RtDictionaryRef>(RtArrayGetValueAtIndex(both.array(), 0)),
            static_cast<RtArrayRef>(RtArrayGetValueAtIndex(both.array(), 1)), nullptr)));
        if (request == "(null)") {
            row.push_back("not written");
            continue;
        }
        hvtest::HTTPHeaders headers = {{"Content-Type", "text/xml"}, {"Connection", "close"}};
        if (peer.fSOAP) headers.push_back({"SOAPAction", "\"\""});
        hvtest::TestHTTPResponse reply =
            hvtest::httpRequest(server.port(), "POST", peer.fPath, headers, request);
        if (!reply.ok) {
            row.push_back("no reply: " + reply.error);
            continue;
        }
        if (reply.header("Transfer-Encoding") == "chunked") reply.body = dechunk(reply.body);
        row.push_back(judgeResult(c, handler.readReply(reply.body, serverMethod(peer, c)),
                                  peer.fSOAP ? "return" : nullptr, peer.fSOAP));
    }
    return row;
}

Row ourClient(const Peer &peer, const PeerServer &server) {
    Row row;
    Value url = Value::adopt(RtURLCreateWithString(
        nullptr, S(("http://127.0.0.1:" + std::to_string(server.port()) + peer.fPath).c_str()).str(),
        nullptr));
    for (const Case &c : cases()) {
        HVMethodInvocationRef invocation = HVMethodInvocationCreate(
            static_cast<RtURLRef>(url.get()), S(serverMethod(peer, c)).str(), protocolOf(peer));
        configure(peer, [&](RtStringRef key, RtTypeRef value) {
            HVMethodInvocationSetProperty(invocation, key, value);
        });
        if (peer.fSOAP) {
            HVMethodInvocationSetProperty(invocation, kHVSOAPMethodNamespaceURI, S("urn:Examples").get());
            HVMethodInvocationSetProperty(invocation, kHVMethodInvocationResultParameterName,
                                          S("return").get());
        }
        Value both = parameters(c);
        HVMethodInvocationSetParameters(invocation,
                                        static_cast<RtDictionaryRef>(RtArrayGetValueAtIndex(both.array(), 0)),
                                        static_cast<RtArrayRef>(RtArrayGetValueAtIndex(both.array(), 1)));
        row.push_back(
            judgeResult(c, Value::adopt(HVMethodInvocationInvoke(invocation)), nullptr, peer.fSOAP));
        RtRelease(invocation);
    }
    return row;
}

std::string cellMark(const std::string &cell) {
    return cell == "ok" ? "ok" : cell == "-" ? "" : "**x**";
}

} // namespace

TEST(PeerInterop, EveryPeerEveryDirection) {
    std::ostringstream matrix, notes;
    matrix << "| peer | direction |";
    for (const Case &c : cases())
        matrix << " " << c.fName << " |";
    matrix << "\n|---|---|";
    for (size_t i = 0; i < cases().size(); i++)
        matrix << "---|";
    matrix << "\n";

    hvtest::Server hvserve;
    ASSERT_NE(0, hvserve.port());
    for (const Peer &peer : peers()) {
        SCOPED_TRACE(peer.fName);
        auto started = std::chrono::steady_clock::now();
        Row rows[kDirections];
        rows[eRequest] = theirRequests(peer);
        // A fresh server for each direction: some peers' servers die on a request they cannot read.
        if (!peer.fServer.empty()) {
            PeerServer server(peer);
            ASSERT_TRUE(server.ready()) << peer.fName << " did not start: " << server.error();
            rows[eReply] = theirReplies(peer, server);
        }
        if (!peer.fServer.empty()) {
            PeerServer server(peer);
            ASSERT_TRUE(server.ready()) << peer.fName << " did not start: " << server.error();
            rows[eClient] = ourClient(peer, server);
        }
        rows[eServer] = clientCells(
            hvtest::run(substitute(peer.fClient, hvserve.url(peer.fSOAP ? "/soap" : "/RPC2"), 0)));

        std::cerr << peer.fName << ": "
                  << std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                           started)
                         .count()
                  << " ms\n";
        for (int d = 0; d < kDirections; d++) {
            if (rows[d].empty()) continue;
            matrix << "| " << peer.fName << " | " << kDirectionNames[d] << " |";
            for (size_t i = 0; i < cases().size(); i++) {
                const std::string &cell = rows[d][i];
                bool must = peer.fExpected[d][i] == '+';
                matrix << " " << cellMark(cell) << " |";
                if (cell != "ok")
                    notes << peer.fName << " / " << kDirectionNames[d] << " / " << cases()[i].fName << ": "
                          << oneLine(cell) << "\n";
                EXPECT_TRUE(!must || cell == "ok")
                    << peer.fName << ", " << kDirectionNames[d] << ", " << cases()[i].fName << ": " << cell;
                if (!must && cell == "ok")
                    std::cout << "now right (mark it '+'): " << peer.fName << ", " << kDirectionNames[d]
                              << ", " << cases()[i].fName << "\n";
            }
            matrix << "\n";
        }
    }
    std::cout << matrix.str() << "\n" << notes.str();
    if (const char *path = getenv("HV_INTEROP_MATRIX"); path && *path)
        std::ofstream(path) << matrix.str() << "\n" << notes.str();
}

// A call to http://[::1]:PORT/RPC2 passes a front server that, as nginx does, answers 400 to a
// Host field other than "[::1]:PORT"; behind it hvserve adds. hvcall and the library's client
// both get through.
TEST(PeerInterop, HostFieldThroughAHostCheckingFrontServer) {
    hvtest::Server hvserve;
    hvtest::PythonPeer front(peerScript("host_check_proxy.py"), {std::to_string(hvserve.port())});
    ASSERT_TRUE(front.ready()) << front.error();
    std::string url = "http://[::1]:" + std::to_string(front.port()) + "/RPC2";

    hvtest::Finished called = hvtest::hvcall({url, "examples.add", "2", "3"});
    EXPECT_EQ(0, called.status) << called.err;
    EXPECT_EQ("5\n", called.out);

    Value target = Value::adopt(RtURLCreateWithString(nullptr, S(url.c_str()).str(), nullptr));
    HVMethodInvocationRef invocation = HVMethodInvocationCreate(static_cast<RtURLRef>(target.get()),
                                                                S("examples.add").str(), kHVXMLRPCProtocol);
    HVMethodInvocationSetParameters(invocation, Dict({{"a", I(2)}, {"b", I(3)}}).dict(),
                                    A({S("a"), S("b")}).array());
    Value result = Value::adopt(HVMethodInvocationInvoke(invocation));
    RtRelease(invocation);
    EXPECT_TRUE(sameValue(I(5), result["/Result"])) << describe(result.get());
}
