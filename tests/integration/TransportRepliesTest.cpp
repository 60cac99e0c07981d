// How a call judges the reply it receives: status, content type, charset and parse failures,
// driven by the cases of tests/data/transport/reply_cases.txt on both roads.
#include "ScriptedHTTPServer.h"
#include "TransportHarness.h"

#include <gmock/gmock.h>

#include <sstream>
#include <vector>

using namespace hvit;

namespace {

std::string readFile(const std::string &name) {
    return xmlrpctest::readGolden(name, "transport");
}

std::string trim(const std::string &s) {
    size_t start = s.find_first_not_of(' ');
    size_t end = s.find_last_not_of(' ');
    return start == std::string::npos ? "" : s.substr(start, end - start + 1);
}

struct ReplyCase {
    std::string name;
    int status = 0;
    std::string contentType; // "" for none
    std::string body;
    std::string expectation; // "result ...", "fault ...", "stream ..."
};

std::vector<ReplyCase> loadCases() {
    std::vector<ReplyCase> cases;
    std::istringstream in(readFile("reply_cases.txt"));
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::vector<std::string> fields;
        std::istringstream columns(line);
        for (std::string field; std::getline(columns, field, '|');)
            fields.push_back(trim(field));
        if (fields.size() != 5) {
            ADD_FAILURE() << "malformed case line: " << line;
            continue;
        }
        ReplyCase c;
        c.name = fields[0];
        c.status = std::stoi(fields[1]);
        c.contentType = fields[2] == "-" ? "" : fields[2];
        c.body = readFile(fields[3]);
        c.expectation = fields[4];
        EXPECT_FALSE(c.body.empty()) << "missing body file " << fields[3];
        cases.push_back(c);
    }
    return cases;
}

void expectOutcome(const Outcome &outcome, const std::string &expectation) {
    std::istringstream words(expectation);
    std::string kind;
    words >> kind;
    std::string rest;
    if (kind == "result") {
        std::getline(words >> std::ws, rest);
        EXPECT_FALSE(outcome.isFault()) << outcome.faultString() << " / " << outcome.streamMessage();
        EXPECT_EQ(outcome.resultText(), rest);
    } else if (kind == "fault") {
        int64_t code = 0;
        words >> code;
        std::getline(words >> std::ws, rest);
        EXPECT_TRUE(outcome.isFault());
        EXPECT_EQ(outcome.faultCode(), code);
        EXPECT_EQ(outcome.faultString(), rest);
    } else if (kind == "stream") {
        int64_t domain = 0, error = 0;
        words >> domain >> error;
        std::getline(words >> std::ws, rest);
        expectStreamFault(outcome, rest, domain, error);
    } else {
        ADD_FAILURE() << "unknown expectation " << expectation;
    }
}

class TransportReplies : public testing::TestWithParam<Road> {};

} // namespace

// Every scripted reply ends in exactly one result with the expected value or fault, and every
// one of them carries the four debug entries.
TEST_P(TransportReplies, EachScriptedReplyGivesItsResult) {
    std::vector<ReplyCase> cases = loadCases();
    ASSERT_GT(cases.size(), 10u);
    hvtest::ScriptedHTTPServer server;
    for (const ReplyCase &c : cases) {
        SCOPED_TRACE(c.name);
        hvtest::ScriptedReply reply;
        reply.status = c.status;
        if (!c.contentType.empty()) reply.headers.push_back({"Content-Type", c.contentType});
        reply.body = c.body;
        server.reply("*", "*", reply);

        Invocation call(server.url("/RPC2"), "echo");
        call.param("text", S("hello"));
        Outcome outcome = call.run(GetParam());
        ASSERT_EQ(outcome.callbacks, 1);
        expectOutcome(outcome, c.expectation);
        expectDebugEntries(outcome, true);
        EXPECT_EQ(RtHTTPMessageGetResponseStatusCode(static_cast<RtHTTPMessageRef>(
                      const_cast<void *>(outcome.value(kHVHTTPResponseMessage)))),
                  c.status);
    }
}

// The reply body is shown in the charset the server declared. A reply with an HTTP/1.0 status
// line is accepted like any other, and a request can be sent as HTTP/1.0.
TEST_P(TransportReplies, CharsetsAndHTTP10) {
    hvtest::ScriptedHTTPServer server;
    server.reply(
        "POST", "/latin1",
        hvtest::ScriptedReply::with(200, "text/xml; charset=ISO-8859-1", readFile("latin1_reply.xml")));
    hvtest::ScriptedReply reply = hvtest::ScriptedReply::xml(readFile("echo_reply.xml"));
    reply.http10 = true;
    server.reply("POST", "/RPC2", reply);

    Outcome latin1 = Invocation(server.url("/latin1"), "echo").run(GetParam());
    ASSERT_EQ(latin1.callbacks, 1);
    EXPECT_NE(text(latin1.value(kHVDebugIncomingBody)).find("caf\u00e9 cr\u00e8me"), std::string::npos);

    Outcome outcome = Invocation(server.url("/RPC2"), "echo").run(GetParam());
    ASSERT_EQ(outcome.callbacks, 1);
    EXPECT_EQ(outcome.resultText(), "hello");
    Owned statusLine = Owned::adopt(RtHTTPMessageCopyResponseStatusLine(
        static_cast<RtHTTPMessageRef>(const_cast<void *>(outcome.value(kHVHTTPResponseMessage)))));
    EXPECT_EQ(text(statusLine.get()), "HTTP/1.0 200 OK");

    Invocation old(server.url("/RPC2"), "echo");
    old.property(kHVHTTPVersion, kRtHTTPVersion1_0);
    Outcome oldOutcome = old.run(GetParam());
    ASSERT_EQ(oldOutcome.callbacks, 1);
    EXPECT_EQ(oldOutcome.resultText(), "hello");
    EXPECT_EQ(server.lastRequest().version, "HTTP/1.0");
}

INSTANTIATE_TEST_SUITE_P(Roads, TransportReplies, testing::Values(Road::eSync, Road::eAsync), roadName);
