// FaultServer: a raw-socket server on 127.0.0.1 that misbehaves on purpose, by script.
// Owns its listening socket, an accept thread and one thread per connection.
//
// Contract:
// - A FaultScript is a list of steps run in order on each connection: read a request, send
//   bytes, trickle bytes slowly, sleep, close, reset, stall. "{port}" in sent bytes becomes the
//   server's port (for absolute Location fields). A script that ends without close, reset or
//   stall ends with an orderly close (FIN).
// - FaultServer(script) runs script on every connection; FaultServer(scripts) runs scripts[i] on
//   the i-th connection and the last one on every connection after them.
// - The constructor starts the server on an ephemeral port; the destructor interrupts every
//   step (a stall, a sleep, a trickle, a read from a client that sends nothing) and returns
//   promptly even with clients still connected.
// - requests() holds the raw bytes of each request read by a readRequest step, in order.
#ifndef HV_TESTS_SUPPORT_FAULTSERVER_H
#define HV_TESTS_SUPPORT_FAULTSERVER_H

#include "SupportSocket.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace hvtest {

// A valid XML-RPC reply body the canned scripts cut, stretch or frame wrongly.
extern const char *const kFaultReplyBody;

class FaultScript {
  public:
    enum class Step { eReadRequest, eSend, eTrickle, eSleep, eClose, eReset, eStall };
    struct Action {
        Step fStep;
        std::string fBytes;
        std::chrono::milliseconds fInterval{0};
    };

    // Builders, chainable.
    FaultScript &readRequest(); // reads one request head and its Content-Length body
    FaultScript &send(std::string bytes);
    FaultScript &trickle(std::string bytes, std::chrono::milliseconds interval); // one byte per interval
    FaultScript &sleep(std::chrono::milliseconds duration);
    FaultScript &close(); // orderly close
    FaultScript &reset(); // SO_LINGER 0 then close: the client sees a reset
    FaultScript &stall(); // holds the connection open, silent, until the server stops

    // Canned faults. Each reads the request first.
    static FaultScript closeBeforeStatus();
    static FaultScript resetBeforeStatus();
    static FaultScript resetMidHeaders();
    static FaultScript resetMidBody();
    static FaultScript bodyLongerThanLength();  // Content-Length counts only the first half of the body
    static FaultScript bodyShorterThanLength(); // half the declared body, then an orderly close
    static FaultScript brokenChunked();         // a bad chunk size after one good chunk
    static FaultScript neverAnswer();           // reads the request, then stalls
    static FaultScript garbageStatusLine();
    static FaultScript slowTrickle(std::chrono::milliseconds interval); // a valid reply, byte by byte
    static FaultScript redirectLoop(const std::string &path = "/loop"); // 302 to its own path
    // Reads the request, sends a complete HTTP/1.1 reply with this status line tail and body, closes.
    static FaultScript reply(const std::string &statusAndReason, const std::string &contentType,
                             const std::string &body);

    const std::vector<Action> &actions() const { return fActions; }

  private:
    FaultScript &add(Step step, std::string bytes = {}, std::chrono::milliseconds interval = {});
    std::vector<Action> fActions;
};

class FaultServer {
  public:
    explicit FaultServer(FaultScript script);
    explicit FaultServer(std::vector<FaultScript> scripts);
    ~FaultServer();
    FaultServer(const FaultServer &) = delete;
    FaultServer &operator=(const FaultServer &) = delete;

    uint16_t port() const { return fServer->port(); }
    std::string url(const std::string &path = "/") const;
    size_t connectionCount() const { return fServer->connectionCount(); }
    std::vector<std::string> requests() const;

  private:
    void run(Socket &connection, size_t index);

    std::vector<FaultScript> fScripts;
    mutable std::mutex fLock;
    std::vector<std::string> fRequests;
    std::unique_ptr<LoopbackServer> fServer; // last: stopped before the members its threads use
};

} // namespace hvtest

#endif
