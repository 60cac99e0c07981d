// ScriptedHTTPServer: a well-behaved HTTP/1.1 server on 127.0.0.1 with replies scripted by the test.
// Owns a LoopbackServer (one thread per connection) and the record of every request.
// Handlers run on the connection threads, several at once when clients open several
// connections: state they share with the test needs its own lock.
//
// Contract:
// - The constructor starts the server on an ephemeral port (port() reads it back); the
//   destructor stops it, closing open connections and cutting short any reply delay.
// - route(method, path, handler): requests whose method equals method ("*": any) and whose
//   target without its query equals path ("*": any) go to handler. Later routes win over
//   earlier ones. An unrouted request gets 404 with a text body; a throwing handler, 500.
// - Requests carry a Content-Length body (or none). Every request is recorded before its
//   handler runs: requests(), lastRequest().
// - Connections are kept alive across requests, unless the request or the reply is HTTP/1.0
//   or the request says "Connection: close". connectionCount() counts TCP connections accepted,
//   so two requests over one kept-alive connection count one.
// - Replies carry the standard reason phrase for their status and a Content-Length (or chunked
//   framing). Scripts that need another status line or lying framing belong to FaultServer.
#ifndef HV_TESTS_SUPPORT_SCRIPTEDHTTPSERVER_H
#define HV_TESTS_SUPPORT_SCRIPTEDHTTPSERVER_H

#include "SupportSocket.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace hvtest {

struct ScriptedReply {
    int status = 200;
    HTTPHeaders headers;                // sent in this order
    std::string body;                   // sent bodyRepeat times in a row
    size_t bodyRepeat = 1;              // a large reply without a large string (1000 x 100 KB)
    std::string bodyHead, bodyTail;     // sent once before and after the repeated body
    std::chrono::milliseconds delay{0}; // waited before the reply, on the connection's thread
    bool http10 = false;                // status line "HTTP/1.0", connection closed after the reply
    bool chunked = false;               // HTTP/1.1 chunked framing instead of Content-Length

    // A reply with a Content-Type field and a body.
    static ScriptedReply with(int status, std::string contentType, std::string body);
    static ScriptedReply xml(std::string body) { return with(200, "text/xml", std::move(body)); }
};

using ScriptedHandler = std::function<ScriptedReply(const RecordedRequest &)>;

class ScriptedHTTPServer {
  public:
    // Starts at once; throws std::runtime_error when it cannot listen.
    ScriptedHTTPServer();
    ~ScriptedHTTPServer();
    ScriptedHTTPServer(const ScriptedHTTPServer &) = delete;
    ScriptedHTTPServer &operator=(const ScriptedHTTPServer &) = delete;

    uint16_t port() const { return fServer->port(); }
    // "http://127.0.0.1:<port>" followed by path.
    std::string url(const std::string &path = "/") const;

    void route(std::string method, std::string path, ScriptedHandler handler);
    // Shorthand: every request to path gets a copy of reply.
    void reply(std::string method, std::string path, ScriptedReply reply);

    std::vector<RecordedRequest> requests() const;
    RecordedRequest lastRequest() const; // an empty record when none arrived
    size_t requestCount() const;
    size_t connectionCount() const { return fServer->connectionCount(); }

  private:
    struct Route {
        std::string fMethod, fPath;
        ScriptedHandler fHandler;
    };

    void serve(Socket &connection);
    ScriptedReply dispatch(const RecordedRequest &request);

    mutable std::mutex fLock;
    std::vector<Route> fRoutes;
    std::vector<RecordedRequest> fRequests;
    std::unique_ptr<LoopbackServer> fServer; // last: stopped before the members its threads use
};

} // namespace hvtest

#endif
