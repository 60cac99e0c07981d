// ForwardProxy: a plain-HTTP forward proxy on 127.0.0.1 for the proxy tests.
// Owns its listening socket, an accept thread and one thread per client connection.
//
// Contract:
// - The constructor starts the proxy on an ephemeral port; the destructor stops it promptly,
//   even in the middle of a relay.
// - Each client connection carries one request in absolute form ("POST http://127.0.0.1:8080/RPC2
//   HTTP/1.1") with an optional Content-Length body. The proxy records it (path is the absolute
//   URI as sent, headers as sent), opens a new connection to the origin, forwards the request in
//   origin form ("POST /RPC2 HTTP/1.1") with the same fields minus Proxy-Connection, Connection
//   and Keep-Alive, plus "Connection: close", then relays the origin's reply byte for byte and
//   closes the client connection.
// - Only loopback origins (127.0.0.1, localhost) are served; others get 502, as does an origin
//   that refuses the connection. A request not in absolute http:// form (CONNECT too) gets 400.
#ifndef HV_TESTS_SUPPORT_FORWARDPROXY_H
#define HV_TESTS_SUPPORT_FORWARDPROXY_H

#include "SupportSocket.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace hvtest {

class ForwardProxy {
  public:
    ForwardProxy();
    ~ForwardProxy();
    ForwardProxy(const ForwardProxy &) = delete;
    ForwardProxy &operator=(const ForwardProxy &) = delete;

    uint16_t port() const { return fServer->port(); }
    // Requests received, including refused ones, in order.
    std::vector<RecordedRequest> requests() const;
    size_t requestCount() const;
    size_t connectionCount() const { return fServer->connectionCount(); }

  private:
    void serve(Socket &client);

    mutable std::mutex fLock;
    std::vector<RecordedRequest> fRequests;
    std::unique_ptr<LoopbackServer> fServer; // last: stopped before the members its threads use
};

} // namespace hvtest

#endif
