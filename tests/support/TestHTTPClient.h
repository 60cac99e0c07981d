// TestHTTPClient: a tiny blocking HTTP/1.x client on plain sockets, for the test servers' own
// tests and for tests that must send bytes no real client would.
// Owns one socket per TestHTTPConnection; used from the calling thread only.
//
// Contract:
// - Every call is bounded by the timeout given at construction; a failure never throws and
//   shows as ok == false with error set.
// - request() adds Host (and Content-Length when there is a body or the method is POST or PUT)
//   unless the caller gave them, then reads one reply: Content-Length, chunked or until close.
#ifndef HV_TESTS_SUPPORT_TESTHTTPCLIENT_H
#define HV_TESTS_SUPPORT_TESTHTTPCLIENT_H

#include "HTTPRecord.h"
#include "SupportSocket.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace hvtest {

struct TestHTTPResponse {
    bool ok = false;
    std::string error;      // why ok is false
    std::string statusLine; // as received, without CRLF
    std::string version;    // "HTTP/1.1"
    int status = 0;
    std::string reason;
    HTTPHeaders headers;
    std::string body; // de-chunked

    std::string header(std::string_view name) const;
};

class TestHTTPConnection {
  public:
    explicit TestHTTPConnection(uint16_t port, std::chrono::milliseconds timeout = std::chrono::seconds(10));

    bool connected() const { return fSocket.valid(); }
    const std::string &error() const { return fError; }

    TestHTTPResponse request(const std::string &method, const std::string &target,
                             const HTTPHeaders &headers = {}, const std::string &body = {},
                             const std::string &version = "HTTP/1.1");
    // Sends bytes as they are.
    bool sendRaw(std::string_view bytes);
    // Everything the server sends until it closes (or the timeout passes).
    std::string readUntilClose();

  private:
    bool readResponse(TestHTTPResponse &response, bool headRequest);
    bool fill();

    Socket fSocket;
    uint16_t fPort;
    int fTimeoutMs;
    std::string fError;
    std::string fBuffer;
};

// One request on a connection of its own.
TestHTTPResponse httpRequest(uint16_t port, const std::string &method, const std::string &target,
                             const HTTPHeaders &headers = {}, const std::string &body = {});
// A port on 127.0.0.1 that was free a moment ago (nothing listens on it: connections are refused).
uint16_t freeLoopbackPort();

} // namespace hvtest

#endif
