// TestHTTPClient: one blocking HTTP/1.1 request on plain sockets, for tests that must send bytes
// or headers no real client would (a body over a server's limit, Expect: 100-continue) and for
// the test servers' own smoke tests. Used from the calling thread only.
//
// Contract:
// - httpRequest() adds Host (and Content-Length when there is a body or the method is POST or
//   PUT) unless the caller gave them, skips interim 100 replies and reads one reply: its
//   Content-Length body, or everything until the server closes. Every step is bounded by ten
//   seconds; a failure never throws and shows as ok == false with error set.
#ifndef HV_TESTS_SUPPORT_TESTHTTPCLIENT_H
#define HV_TESTS_SUPPORT_TESTHTTPCLIENT_H

#include "SupportSocket.h"

#include <cstdint>
#include <string>

namespace hvtest {

struct TestHTTPResponse {
    bool ok = false;
    std::string error;      // why ok is false
    std::string statusLine; // as received, without CRLF
    int status = 0;
    HTTPHeaders headers;
    std::string body;

    std::string header(std::string_view name) const;
};

TestHTTPResponse httpRequest(uint16_t port, const std::string &method, const std::string &target,
                             const HTTPHeaders &headers = {}, const std::string &body = {});
// A port on 127.0.0.1 that was free a moment ago (nothing listens on it: connections are refused).
uint16_t freeLoopbackPort();

} // namespace hvtest

#endif
