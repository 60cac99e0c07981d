// HostilePeer: clients that misbehave on purpose, for the server's reliability tests. Each takes
// its counts and times as arguments, so that the ordinary run uses them small and the long run
// (HV_TEST_LONG=1) at full size.
//   - SlowSwarm: thousands of connections from one process, each sending a request head whose
//     body never comes, spread over loopback source addresses (127.0.0.2, 127.0.0.3, ...) so that
//     a limit per client address does not refuse them all;
//   - trickle(): a request sent a byte at a time, timed until the server cuts it;
//   - probe(): a request head (and optionally a body) sent raw, the answer's status line read
//     back, for framing tricks such as Content-Length with Transfer-Encoding.
#ifndef HV_TESTS_SUPPORT_HOSTILEPEER_H
#define HV_TESTS_SUPPORT_HOSTILEPEER_H

#include "SupportSocket.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace hvtest {

// The long run's figure when HV_TEST_LONG is set, the ordinary run's otherwise.
long scaledCount(long small, long full);

// Raises the soft descriptor limit to at least wanted, within the hard limit. Returns the limit
// now in force; when that is below wanted, says so on standard error.
size_t raiseDescriptorLimit(size_t wanted);

// The resident memory of this process in bytes (0 when it cannot be read).
size_t residentBytes();

class SlowSwarm {
  public:
    // Opens count connections to 127.0.0.1:port, perAddress from each loopback source address,
    // and sends each a POST head declaring a body of bodyBytes that never comes.
    SlowSwarm(uint16_t port, size_t count, size_t perAddress, size_t bodyBytes = 100);
    size_t opened() const { return fSockets.size(); }
    // Why the swarm stopped short of count ("" when it did not).
    const std::string &error() const { return fError; }
    // The connections the server has not closed (checked without waiting).
    size_t stillOpen() const;

  private:
    std::vector<Socket> fSockets;
    std::string fError;
};

struct TrickleResult {
    bool cut = false;   // the server ended the connection (or reset it) before giveUp
    double seconds = 0; // from the first byte sent until the end was seen
    std::string answer; // what the server sent before the end ("" if nothing)
    size_t sent = 0;    // bytes of trickled sent
};

// Sends prefix at once, then trickled one byte every interval, until the server ends the
// connection or giveUp passes (once all is sent, it waits out giveUp for the end).
TrickleResult trickle(uint16_t port, const std::string &prefix, const std::string &trickled,
                      std::chrono::milliseconds interval, std::chrono::milliseconds giveUp);

// Sends head, then body, and reads the answer's status line ("" when the connection closed
// without one) within timeout. With sendBody false the body is never sent: the answer must come
// from the head alone.
std::string probe(uint16_t port, const std::string &head, const std::string &body, bool sendBody,
                  std::chrono::milliseconds timeout);

} // namespace hvtest

#endif
