#include "HostilePeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <poll.h>

namespace hvtest {

long scaledCount(long small, long full) {
    const char *value = std::getenv("HV_TEST_LONG");
    return value && *value && std::string(value) != "0" ? full : small;
}

size_t raiseDescriptorLimit(size_t wanted) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
    if (limit.rlim_cur < wanted) {
        rlimit raised = limit;
        raised.rlim_cur = limit.rlim_max == RLIM_INFINITY ? wanted : std::min<rlim_t>(wanted, limit.rlim_max);
        if (setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
    }
    if (limit.rlim_cur < wanted)
        fprintf(stderr, "hostile peer: descriptor limit %llu (hard %llu), below the %zu wanted\n",
                (unsigned long long)limit.rlim_cur, (unsigned long long)limit.rlim_max, wanted);
    return size_t(limit.rlim_cur);
}

size_t residentBytes() {
    std::ifstream status("/proc/self/statm");
    size_t pages = 0, resident = 0;
    if (!(status >> pages >> resident)) return 0;
    return resident * size_t(sysconf(_SC_PAGESIZE));
}

SlowSwarm::SlowSwarm(uint16_t port, size_t count, size_t perAddress, size_t bodyBytes) {
    const std::string head = "POST /RPC2 HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: text/xml\r\n"
                             "Content-Length: " +
                             std::to_string(bodyBytes) + "\r\n\r\n";
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(port);
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    fSockets.reserve(count);
    for (size_t i = 0; i < count; i++) {
        Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!socket.valid()) {
            fError = "socket " + std::to_string(i) + ": " + strerror(errno);
            return;
        }
        sockaddr_in source{};
        source.sin_family = AF_INET;
        source.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1 + uint32_t(i / std::max<size_t>(perAddress, 1)));
        if (bind(socket.fd(), reinterpret_cast<sockaddr *>(&source), sizeof source) != 0 ||
            connect(socket.fd(), reinterpret_cast<sockaddr *>(&server), sizeof server) != 0 ||
            !sendAll(socket.fd(), head, -1, 5000)) {
            fError = "connection " + std::to_string(i) + ": " + strerror(errno);
            return;
        }
        fSockets.push_back(std::move(socket));
    }
}

size_t SlowSwarm::stillOpen() const {
    size_t open = 0;
    for (const Socket &socket : fSockets) {
        pollfd watch = {socket.fd(), POLLIN, 0};
        // Readable means the server closed it (or answered, which it must not do to these).
        if (poll(&watch, 1, 0) == 0) open++;
    }
    return open;
}

TrickleResult trickle(uint16_t port, const std::string &prefix, const std::string &request,
                      std::chrono::milliseconds interval, std::chrono::milliseconds giveUp) {
    using Clock = std::chrono::steady_clock;
    TrickleResult result;
    std::string error;
    Socket socket = connectLoopback(port, std::chrono::seconds(10), &error);
    if (!socket.valid()) {
        result.answer = "no connection: " + error;
        return result;
    }
    Clock::time_point start = Clock::now(), end = start + giveUp;
    if (!sendAll(socket.fd(), prefix, -1, 1000)) result.cut = true;
    while (!result.cut && Clock::now() < end) {
        if (result.sent < request.size()) {
            if (!sendAll(socket.fd(), std::string_view(request).substr(result.sent, 1), -1, 1000)) {
                result.cut = true; // reset by the server
                break;
            }
            result.sent++;
        }
        auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        if (result.sent < request.size()) wait = std::min(wait, interval);
        if (waitReadable(socket.fd(), -1, int(std::max<long>(0, wait.count()))) != WaitResult::eReady)
            continue;
        // What the server sends before its end; the end itself (or a reset) is the cut.
        long got = 0;
        while ((got = readSome(socket.fd(), result.answer, -1, 2000)) > 0) {
        }
        result.cut = got <= 0;
    }
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return result;
}

std::string probe(uint16_t port, const std::string &head, const std::string &body, bool sendBody,
                  std::chrono::milliseconds timeout) {
    std::string error;
    Socket socket = connectLoopback(port, std::chrono::seconds(10), &error);
    if (!socket.valid()) return "no connection: " + error;
    sendAll(socket.fd(), head, -1, int(timeout.count()));
    if (sendBody) sendAll(socket.fd(), body, -1, int(timeout.count()));
    std::string buffer;
    size_t length = 0;
    if (!readHTTPMessage(socket.fd(), buffer, length, -1, int(timeout.count()))) return "";
    return buffer.substr(0, buffer.find("\r\n"));
}

} // namespace hvtest
