// SupportSocket: blocking loopback sockets and HTTP message reading shared by the test servers
// and the test client. Owns only the descriptors wrapped in Socket and StopSignal.
// Every wait also watches a stop descriptor, so a server can interrupt its own threads at once
// (a client that never reads or never closes cannot hang a server's destructor).
#ifndef HV_TESTS_SUPPORT_SUPPORTSOCKET_H
#define HV_TESTS_SUPPORT_SUPPORTSOCKET_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace hvtest {

// Header fields in the order they were sent; a name may repeat.
using HTTPHeaders = std::vector<std::pair<std::string, std::string>>;

// ASCII case-insensitive equality, as HTTP compares field names.
bool equalsIgnoringCase(std::string_view a, std::string_view b);
// The value of the first field named name (any case), or nullptr.
const std::string *findHeader(const HTTPHeaders &headers, std::string_view name);

// One request as a server received it.
struct RecordedRequest {
    std::string method;  // "POST"
    std::string path;    // the request target as sent, query included ("/RPC2?x=1"; absolute for a proxy)
    std::string version; // "HTTP/1.1"
    HTTPHeaders headers; // in arrival order, names as sent
    std::string body;    // as sent (Content-Length framing)

    // The first value of the field name (any case), or "" when absent.
    std::string header(std::string_view name) const;
    bool hasHeader(std::string_view name) const { return findHeader(headers, name) != nullptr; }
    // How many fields are named name (any case).
    size_t headerCount(std::string_view name) const;
    // path without its query.
    std::string pathWithoutQuery() const { return path.substr(0, path.find('?')); }
};

// A move-only owner of one descriptor, closed on destruction.
class Socket {
  public:
    Socket() = default;
    explicit Socket(int fd) : fFd(fd) {}
    Socket(Socket &&other) noexcept : fFd(other.fFd) { other.fFd = -1; }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    ~Socket() { close(); }

    int fd() const { return fFd; }
    bool valid() const { return fFd >= 0; }
    void close();
    // Closes with SO_LINGER 0, so the peer receives a TCP reset instead of an orderly end.
    void reset();

  private:
    int fFd = -1;
};

// A pipe raised once to wake every thread blocked in a wait that watches its descriptor.
class StopSignal {
  public:
    StopSignal();
    ~StopSignal();
    StopSignal(const StopSignal &) = delete;
    StopSignal &operator=(const StopSignal &) = delete;
    void raise();
    int fd() const { return fPipe[0]; }

  private:
    int fPipe[2] = {-1, -1};
    std::atomic<bool> fRaised{false};
};

enum class WaitResult { eReady, eTimeout, eStopped, eError };

// A listening socket on 127.0.0.1 at an ephemeral port, written to port. Throws std::runtime_error.
Socket listenLoopback(uint16_t &port);
// A connected socket to 127.0.0.1:port, or an invalid one with *error set.
Socket connectLoopback(uint16_t port, std::chrono::milliseconds timeout, std::string *error);

// Waits until fd is readable (or writable). timeoutMs < 0 waits without limit; stopFd < 0 is ignored.
WaitResult waitReadable(int fd, int stopFd, int timeoutMs);
WaitResult waitWritable(int fd, int stopFd, int timeoutMs);
// Sleeps for d unless stopFd (a StopSignal) is raised first; false when stopped.
bool sleepUnlessStopped(int stopFd, std::chrono::milliseconds d);
// Sends every byte (without SIGPIPE); false on error, stop or timeout.
bool sendAll(int fd, std::string_view data, int stopFd = -1, int timeoutMs = -1);
// Appends what is available to buffer. Returns the byte count, 0 at end of stream, -1 otherwise.
long readSome(int fd, std::string &buffer, int stopFd, int timeoutMs);

// Ends the sending side with an orderly close (FIN) and reads what the peer still sends for up to
// two seconds, so unread bytes do not turn the close into a reset.
void closeGracefully(int fd, int stopFd);

// Reads one HTTP message head and, when it declares a Content-Length, its body into buffer
// (which may already hold bytes). messageLength receives the length of that message inside
// buffer; bytes after it (a pipelined request) stay in buffer. False on end of stream, error,
// stop, timeout, a head over 1 MB, a body over maxBody or bytes that cannot start a message.
bool readHTTPMessage(int fd, std::string &buffer, size_t &messageLength, int stopFd, int timeoutMs,
                     size_t maxBody = size_t(256) << 20);

// Splits a message head ("start line CRLF fields CRLF CRLF") into its start line and fields.
void parseHead(std::string_view head, std::string &startLine, HTTPHeaders &headers);
// Reads one request with readHTTPMessage (no time limit) and takes it out of buffer.
bool readRequest(int fd, std::string &buffer, RecordedRequest &request, int stopFd);

// LoopbackServer: accepts connections on 127.0.0.1:ephemeral on its own thread and runs serve
// on a new thread for each, with the connection's index (0, 1, ...). stop() raises stopFd(),
// waits for every thread and closes every socket; serve must return promptly once stopFd() is
// readable (the helpers above all watch it).
class LoopbackServer {
  public:
    using Serve = std::function<void(Socket &connection, size_t index)>;
    explicit LoopbackServer(Serve serve);
    ~LoopbackServer();
    LoopbackServer(const LoopbackServer &) = delete;
    LoopbackServer &operator=(const LoopbackServer &) = delete;

    uint16_t port() const { return fPort; }
    int stopFd() const { return fStop.fd(); }
    size_t connectionCount() const { return fAccepted.load(); }
    void stop();

  private:
    void acceptLoop();

    Serve fServe;
    StopSignal fStop;
    uint16_t fPort = 0; // before fListener: listenLoopback writes it
    Socket fListener;
    std::atomic<size_t> fAccepted{0};
    std::vector<std::thread> fWorkers; // joined by stop(), after the accept thread
    std::thread fAcceptThread;
};

} // namespace hvtest

#endif
