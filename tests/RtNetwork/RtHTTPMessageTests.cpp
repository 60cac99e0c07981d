// HTTP messages: header fields (case, order, replace, remove), copies, serialization, and
// parsing raw bytes given in any pieces.
#include <RtNetwork/RtNetwork.h>

#include "../RtCore/RtValueTestSupport.h"

#include <string>
#include <vector>

using namespace rttest;

namespace {

RtHTTPMessageRef parse(bool isRequest, const std::string &bytes, size_t piece, bool *ok) {
    RtHTTPMessageRef m = RtHTTPMessageCreateEmpty(kRtAllocatorDefault, isRequest);
    *ok = true;
    for (size_t at = 0; at < bytes.size() && *ok; at += piece) {
        std::string chunk = bytes.substr(at, piece);
        *ok = RtHTTPMessageAppendBytes(m, reinterpret_cast<const uint8_t *>(chunk.data()),
                                       RtIndex(chunk.size()));
    }
    return m;
}

class RtHTTPMessageTest : public LeakChecked {};

TEST_F(RtHTTPMessageTest, RequestHeadersAreCaseInsensitiveAndKeepTheirOrder) {
    RtURLRef url =
        own(RtURLCreateWithString(kRtAllocatorDefault, RTSTR("http://example.test:8080/RPC2?x=1"), nullptr));
    RtHTTPMessageRef req = own(RtHTTPMessageCreateRequest(kRtAllocatorDefault, RTSTR("POST"), url, nullptr));
    EXPECT_EQ(nullptr, RtHTTPMessageCreateRequest(kRtAllocatorDefault, nullptr, url, nullptr));

    RtHTTPMessageSetHeaderFieldValue(req, RTSTR("User-Agent"), RTSTR("ua"));
    RtHTTPMessageSetHeaderFieldValue(req, RTSTR("Host"), RTSTR("example.test"));
    RtHTTPMessageSetHeaderFieldValue(req, RTSTR("Content-Type"), RTSTR("text/xml"));
    // Another spelling of a name replaces the value and keeps the first spelling and place.
    RtHTTPMessageSetHeaderFieldValue(req, RTSTR("user-agent"), RTSTR("ua2"));
    EXPECT_EQ("ua2", take(RtHTTPMessageCopyHeaderFieldValue(req, RTSTR("USER-AGENT"))));
    EXPECT_EQ(
        "POST /RPC2?x=1 HTTP/1.1\r\nUser-Agent: ua2\r\nHost: example.test\r\nContent-Type: text/xml\r\n\r\n",
        takeData(RtHTTPMessageCopySerializedMessage(req)));
    RtHTTPMessageSetHeaderFieldValue(req, RTSTR("HOST"), nullptr);
    EXPECT_EQ(nullptr, RtHTTPMessageCopyHeaderFieldValue(req, RTSTR("Host")));

    RtHTTPMessageSetBody(req, own(dataOf("<x/>")));

    // A copy is independent of the original.
    RtHTTPMessageRef copy = own(RtHTTPMessageCreateCopy(kRtAllocatorDefault, req));
    RtHTTPMessageSetHeaderFieldValue(copy, RTSTR("X-Extra"), RTSTR("1"));
    EXPECT_EQ(nullptr, RtHTTPMessageCopyHeaderFieldValue(req, RTSTR("X-Extra")));
    EXPECT_EQ("<x/>", takeData(RtHTTPMessageCopyBody(copy)));

    EXPECT_EQ("POST /RPC2?x=1 HTTP/1.1\r\nUser-Agent: ua2\r\nContent-Type: text/xml\r\n\r\n<x/>",
              takeData(RtHTTPMessageCopySerializedMessage(req)));
}

TEST_F(RtHTTPMessageTest, ResponsesKeepTheirStatusLine) {
    RtHTTPMessageRef ok =
        own(RtHTTPMessageCreateResponse(kRtAllocatorDefault, 404, nullptr, kRtHTTPVersion1_0));
    EXPECT_EQ("HTTP/1.0 404 Not Found", take(RtHTTPMessageCopyResponseStatusLine(ok)));

    // Parsed in every piece size, the message is the same: status line as sent, folded and
    // repeated fields joined, bare LF line ends accepted, the rest of the bytes as body.
    const std::string raw = "HTTP/1.1 500 Server Fell Over  \r\n"
                            "Content-Type: text/xml;\r\n"
                            "  charset=utf-8\r\n"
                            "X-Multi: a\n"
                            "x-multi: b\r\n"
                            "\r\n"
                            "<fault/>\r\n\r\nmore";
    for (size_t piece : {size_t(1), size_t(2), size_t(7), raw.size()}) {
        SCOPED_TRACE(piece);
        bool good = false;
        RtHTTPMessageRef m = own(parse(false, raw, piece, &good));
        EXPECT_TRUE(good);
        EXPECT_TRUE(RtHTTPMessageIsHeaderComplete(m));
        EXPECT_EQ(500, RtHTTPMessageGetResponseStatusCode(m));
        EXPECT_EQ("HTTP/1.1 500 Server Fell Over  ", take(RtHTTPMessageCopyResponseStatusLine(m)));
        EXPECT_EQ("text/xml; charset=utf-8",
                  take(RtHTTPMessageCopyHeaderFieldValue(m, RTSTR("content-type"))));
        EXPECT_EQ("a, b", take(RtHTTPMessageCopyHeaderFieldValue(m, RTSTR("X-Multi"))));
        EXPECT_EQ("<fault/>\r\n\r\nmore", takeData(RtHTTPMessageCopyBody(m)));
    }

    bool good = true;
    EXPECT_FALSE(RtHTTPMessageIsHeaderComplete(own(parse(false, "HTTP/1.1 200 OK\r\nA: b\r\n", 100, &good))));
    EXPECT_TRUE(good);
}

TEST_F(RtHTTPMessageTest, ParsingRefusesWhatIsNotAMessage) {
    const char *bad[] = {
        "SPLORK 42 WHAT\r\n\r\n",   // no HTTP version
        "HTTP/1.1 2000 OK\r\n\r\n", // four-digit status
        "HTTP/1.1 abc OK\r\n\r\n",  // no status code
        "HTTP/1.1 200 OK\r\nno colon here\r\n\r\n",
        "HTTP/1.1 200 OK\r\nBad Name: x\r\n\r\n", // space in a field name
        "HTTP/1.1 200 OK\r\n folded first\r\n\r\n",
    };
    for (const char *raw : bad) {
        SCOPED_TRACE(raw);
        bool good = true;
        RtHTTPMessageRef m = own(parse(false, raw, 3, &good));
        EXPECT_FALSE(good);
        // Once refused, it stays refused.
        EXPECT_FALSE(RtHTTPMessageAppendBytes(m, reinterpret_cast<const uint8_t *>("x"), 1));
    }

    // A head that never ends is cut off instead of growing without bound.
    std::string endless = "HTTP/1.1 200 OK\r\n";
    for (int i = 0; i < 2000; i++)
        endless += "X-Filler: " + std::string(1000, 'f') + "\r\n";
    bool good = true;
    own(parse(false, endless, 1000, &good));
    EXPECT_FALSE(good);
}

TEST_F(RtHTTPMessageTest, ParsedRequestsNameTheirURL) {
    bool good = false;
    RtHTTPMessageRef req =
        own(parse(true, "\r\nPOST /RPC2 HTTP/1.0\r\nHost: 127.0.0.1:9\r\n\r\nabc", 5, &good));
    ASSERT_TRUE(good);
    EXPECT_EQ("HTTP/1.0", take(RtHTTPMessageCopyVersion(req)));
    EXPECT_EQ("http://127.0.0.1:9/RPC2", text(RtURLGetString(own(RtHTTPMessageCopyRequestURL(req)))));
    EXPECT_EQ("POST /RPC2 HTTP/1.0\r\nHost: 127.0.0.1:9\r\n\r\nabc",
              takeData(RtHTTPMessageCopySerializedMessage(req)));
}

} // namespace
