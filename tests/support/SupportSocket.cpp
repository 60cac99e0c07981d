#include "SupportSocket.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

namespace hvtest {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

const std::string *findHeader(const HTTPHeaders &headers, std::string_view name) {
    for (const auto &field : headers)
        if (equalsIgnoringCase(field.first, name)) return &field.second;
    return nullptr;
}

std::string RecordedRequest::header(std::string_view name) const {
    const std::string *value = findHeader(headers, name);
    return value ? *value : std::string();
}

size_t RecordedRequest::headerCount(std::string_view name) const {
    return size_t(std::count_if(headers.begin(), headers.end(),
                                [&](const auto &f) { return equalsIgnoringCase(f.first, name); }));
}

void Socket::close() {
    if (fFd >= 0) ::close(fFd);
    fFd = -1;
}

void Socket::reset() {
    if (fFd < 0) return;
    linger abort = {1, 0};
    setsockopt(fFd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    close();
}

StopSignal::StopSignal() {
    if (pipe2(fPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        throw std::runtime_error(std::string("pipe2: ") + strerror(errno));
}

StopSignal::~StopSignal() {
    ::close(fPipe[0]);
    ::close(fPipe[1]);
}

void StopSignal::raise() {
    // The pipe stays readable once written, so every later wait sees the stop too.
    if (!fRaised.exchange(true)) {
        char byte = 1;
        ssize_t ignored = write(fPipe[1], &byte, 1);
        (void)ignored;
    }
}

Socket listenLoopback(uint16_t &port) {
    Socket s(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!s.valid()) throw std::runtime_error(std::string("socket: ") + strerror(errno));
    int on = 1;
    setsockopt(s.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    if (bind(s.fd(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(s.fd(), 128) != 0)
        throw std::runtime_error(std::string("bind/listen on 127.0.0.1: ") + strerror(errno));
    socklen_t len = sizeof addr;
    getsockname(s.fd(), reinterpret_cast<sockaddr *>(&addr), &len);
    port = ntohs(addr.sin_port);
    return s;
}

static WaitResult waitFor(int fd, short events, int stopFd, int timeoutMs) {
    pollfd fds[2] = {{fd, events, 0}, {stopFd, POLLIN, 0}};
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int wait = timeoutMs;
        if (timeoutMs >= 0) {
            auto left =
                std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            wait = left.count() > 0 ? int(left.count()) : 0;
        }
        int n = poll(fds, stopFd >= 0 ? 2 : 1, wait);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return WaitResult::eError;
        if (stopFd >= 0 && (fds[1].revents & POLLIN)) return WaitResult::eStopped;
        if (n == 0) return WaitResult::eTimeout;
        // Errors and hang-ups count as ready: the following read or write reports them.
        return WaitResult::eReady;
    }
}

WaitResult waitReadable(int fd, int stopFd, int timeoutMs) {
    return waitFor(fd, POLLIN, stopFd, timeoutMs);
}
WaitResult waitWritable(int fd, int stopFd, int timeoutMs) {
    return waitFor(fd, POLLOUT, stopFd, timeoutMs);
}

bool sleepUnlessStopped(int stopFd, std::chrono::milliseconds d) {
    return waitFor(stopFd, POLLIN, -1, int(d.count())) == WaitResult::eTimeout;
}

Socket connectLoopback(uint16_t port, std::chrono::milliseconds timeout, std::string *error) {
    Socket s(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(port);
    int rc = s.valid() ? connect(s.fd(), reinterpret_cast<sockaddr *>(&addr), sizeof addr) : -1;
    if (rc != 0 && s.valid() && errno == EINPROGRESS) {
        int soError = ETIMEDOUT;
        if (waitWritable(s.fd(), -1, int(timeout.count())) == WaitResult::eReady) {
            socklen_t len = sizeof soError;
            getsockopt(s.fd(), SOL_SOCKET, SO_ERROR, &soError, &len);
        }
        errno = soError;
        rc = soError == 0 ? 0 : -1;
    }
    if (rc != 0) {
        if (error)
            *error = std::string("connect to 127.0.0.1:") + std::to_string(port) + ": " + strerror(errno);
        return Socket();
    }
    // Back to blocking: every read and write below is preceded by a poll anyway.
    fcntl(s.fd(), F_SETFL, fcntl(s.fd(), F_GETFL) & ~O_NONBLOCK);
    int on = 1;
    setsockopt(s.fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return s;
}

bool sendAll(int fd, std::string_view data, int stopFd, int timeoutMs) {
    while (!data.empty()) {
        if (waitWritable(fd, stopFd, timeoutMs) != WaitResult::eReady) return false;
        ssize_t n = send(fd, data.data(), data.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) return false;
        data.remove_prefix(size_t(n));
    }
    return true;
}

long readSome(int fd, std::string &buffer, int stopFd, int timeoutMs) {
    for (;;) {
        if (waitReadable(fd, stopFd, timeoutMs) != WaitResult::eReady) return -1;
        char chunk[16384];
        ssize_t n = read(fd, chunk, sizeof chunk); // read, not recv: PythonPeer reads a pipe
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n > 0) buffer.append(chunk, size_t(n));
        return long(n);
    }
}

void closeGracefully(int fd, int stopFd) {
    shutdown(fd, SHUT_WR);
    std::string discarded;
    while (readSome(fd, discarded, stopFd, 2000) > 0)
        discarded.clear();
}

static size_t contentLengthOf(std::string_view head) {
    std::string startLine;
    HTTPHeaders headers;
    parseHead(head, startLine, headers);
    const std::string *value = findHeader(headers, "Content-Length");
    return value ? size_t(std::strtoull(value->c_str(), nullptr, 10)) : 0;
}

bool readHTTPMessage(int fd, std::string &buffer, size_t &messageLength, int stopFd, int timeoutMs,
                     size_t maxBody) {
    size_t headEnd;
    while ((headEnd = buffer.find("\r\n\r\n")) == std::string::npos) {
        // A message starts with a printable token; anything else (a TLS handshake) is no HTTP.
        if (!buffer.empty() && (buffer[0] < 0x20 || buffer[0] > 0x7e)) return false;
        if (buffer.size() > (size_t(1) << 20) || readSome(fd, buffer, stopFd, timeoutMs) <= 0) return false;
    }
    headEnd += 4;
    size_t bodyLength = contentLengthOf(std::string_view(buffer).substr(0, headEnd));
    if (bodyLength > maxBody) return false;
    while (buffer.size() < headEnd + bodyLength)
        if (readSome(fd, buffer, stopFd, timeoutMs) <= 0) return false;
    messageLength = headEnd + bodyLength;
    return true;
}

void parseHead(std::string_view head, std::string &startLine, HTTPHeaders &headers) {
    bool first = true;
    while (!head.empty()) {
        size_t eol = head.find("\r\n");
        std::string_view line = head.substr(0, eol);
        head.remove_prefix(eol == std::string_view::npos ? head.size() : eol + 2);
        if (first) {
            startLine = std::string(line);
            first = false;
            continue;
        }
        if (line.empty()) break;
        auto trim = [](std::string_view s) {
            while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
                s.remove_prefix(1);
            while (!s.empty() && (s.back() == ' ' || s.back() == '\t'))
                s.remove_suffix(1);
            return std::string(s);
        };
        size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        headers.emplace_back(std::string(line.substr(0, colon)), trim(line.substr(colon + 1)));
    }
}

bool readRequest(int fd, std::string &buffer, RecordedRequest &request, int stopFd) {
    size_t length = 0;
    if (!readHTTPMessage(fd, buffer, length, stopFd, -1)) return false;
    size_t headEnd = buffer.find("\r\n\r\n") + 4;
    std::string requestLine;
    request = RecordedRequest();
    parseHead(std::string_view(buffer).substr(0, headEnd), requestLine, request.headers);
    request.body = buffer.substr(headEnd, length - headEnd);
    buffer.erase(0, length);
    size_t sp1 = requestLine.find(' '), sp2 = requestLine.rfind(' ');
    if (sp1 != std::string::npos && sp2 > sp1) {
        request.method = requestLine.substr(0, sp1);
        request.path = requestLine.substr(sp1 + 1, sp2 - sp1 - 1);
        request.version = requestLine.substr(sp2 + 1);
    }
    return true;
}

LoopbackServer::LoopbackServer(Serve serve) : fServe(std::move(serve)), fListener(listenLoopback(fPort)) {
    fAcceptThread = std::thread([this] { acceptLoop(); });
}

LoopbackServer::~LoopbackServer() {
    stop();
}

void LoopbackServer::stop() {
    fStop.raise();
    if (fAcceptThread.joinable()) fAcceptThread.join();
    for (std::thread &worker : fWorkers)
        worker.join();
    fWorkers.clear();
    fListener.close();
}

void LoopbackServer::acceptLoop() {
    for (;;) {
        WaitResult ready = waitReadable(fListener.fd(), fStop.fd(), -1);
        if (ready == WaitResult::eStopped || ready == WaitResult::eError) return;
        int fd = accept4(fListener.fd(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        size_t index = fAccepted.fetch_add(1);
        fWorkers.emplace_back([this, fd, index] {
            Socket connection(fd);
            try {
                fServe(connection, index);
            } catch (...) {
                // A throwing script ends its connection only; the server keeps serving.
            }
        });
    }
}

} // namespace hvtest
