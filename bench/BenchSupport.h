// BenchSupport.h: what the benchmark programs and their peers share (header-only, no RtCore).
// - peakRSSRatio: the peak memory of one operation, as a multiple of the document it reads,
//   measured in a forked child so that neither earlier iterations nor the parent's heap count.
// - LoopbackReplier: a keep-alive HTTP/1.1 server on 127.0.0.1 that answers every request with
//   the same reply, so that every client measured against it pays the same server cost.
// - The small call every "calls per second" benchmark makes, and the record values in the forms
//   a writer starts from (decoded base64 bytes, dates as Unix time).
// Everything here runs on the benchmark's thread except the replier's own threads.
#pragma once

#include "DocumentGenerator.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace hvbench {

// The documents every side of a comparison reads or writes: 5,000 records, about 3.0 MB as an
// XML-RPC reply, 2.0 MB as a SOAP reply (2.3 MB with multi-references).
constexpr size_t kRecordCount = 5000;

inline const std::string &xmlrpcReplyDocument() {
    static const std::string *s = new std::string(hvtest::xmlrpcReply(kRecordCount));
    return *s;
}

inline const std::string &soapReplyDocument(bool multiRef) {
    static const std::string *plain = new std::string(hvtest::soapReply(kRecordCount, false));
    static const std::string *shared = new std::string(hvtest::soapReply(kRecordCount, true));
    return multiRef ? *shared : *plain;
}

// One kernel counter of /proc/self/status ("VmRSS", "VmHWM"), in bytes; -1 when unreadable.
inline long processMemory(const char *key) {
    FILE *status = std::fopen("/proc/self/status", "r");
    if (!status) return -1;
    char line[256];
    long kib = -1;
    size_t keyLength = std::strlen(key);
    while (std::fgets(line, sizeof line, status)) {
        if (std::strncmp(line, key, keyLength) == 0 && line[keyLength] == ':') {
            kib = std::atol(line + keyLength + 1);
            break;
        }
    }
    std::fclose(status);
    return kib < 0 ? -1 : kib * 1024;
}

// Runs `operation` once in a forked child and returns (document + the growth of the child's
// peak resident set during the operation) / document: 1.0 means the operation needed no memory
// beyond the document it was given. The child returns freed heap pages to the kernel and resets
// its peak counter first. Returns -1 when the measurement cannot be made.
inline double peakRSSRatio(size_t documentSize, const std::function<void()> &operation) {
    int channel[2];
    if (documentSize == 0 || pipe(channel) != 0) return -1;
    pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
        malloc_trim(0);
        int reset = open("/proc/self/clear_refs", O_WRONLY);
        bool wasReset = reset >= 0 && write(reset, "5", 1) == 1;
        if (reset >= 0) close(reset);
        long before = processMemory("VmRSS");
        operation();
        long peak = processMemory("VmHWM");
        double ratio = -1;
        if (wasReset && before > 0 && peak > 0)
            ratio = double(documentSize + size_t(peak > before ? peak - before : 0)) / double(documentSize);
        ssize_t written = write(channel[1], &ratio, sizeof ratio);
        _exit(written == sizeof ratio ? 0 : 1);
    }
    close(channel[1]);
    double ratio = -1;
    if (child > 0) {
        if (read(channel[0], &ratio, sizeof ratio) != sizeof ratio) ratio = -1;
        int status = 0;
        waitpid(child, &status, 0);
    }
    close(channel[0]);
    return ratio;
}

// The small call of every calls-per-second benchmark: echo("hello") over XML-RPC, the request
// as the library writes it and the reply every client reads.
constexpr char kSmallRequestBody[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n  <methodCall>\r\n"
    "    <methodName>echo</methodName>\r\n    <params>\r\n      <param>\r\n"
    "          <value>\r\n            <string>hello</string>\r\n"
    "          </value>\r\n      </param>\r\n    </params>\r\n  </methodCall>\r\n";
constexpr char kSmallReplyBody[] =
    "<?xml version=\"1.0\"?>\r\n<methodResponse><params><param><value><string>hello"
    "</string></value></param></params></methodResponse>\r\n";

// A keep-alive HTTP/1.1 server on 127.0.0.1: one thread per connection, every request (head
// and Content-Length body) answered with the same reply. Nothing is parsed beyond the framing,
// so the server costs as little as a server can and the same for every client.
class LoopbackReplier {
  public:
    explicit LoopbackReplier(const std::string &body) {
        fReply =
            "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nContent-Length: " + std::to_string(body.size()) +
            "\r\n\r\n" + body;
        fListen = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (fListen < 0 || bind(fListen, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            listen(fListen, 128) != 0 ||
            getsockname(fListen, reinterpret_cast<sockaddr *>(&address), &length) != 0)
            std::abort();
        fPort = ntohs(address.sin_port);
        fAccept = std::thread([this] { acceptLoop(); });
    }

    ~LoopbackReplier() {
        fStopping = true;
        shutdown(fListen, SHUT_RDWR);
        fAccept.join();
        close(fListen);
        {
            std::lock_guard<std::mutex> lock(fLock);
            for (int fd : fConnections)
                shutdown(fd, SHUT_RDWR);
        }
        for (std::thread &worker : fWorkers)
            worker.join();
    }

    LoopbackReplier(const LoopbackReplier &) = delete;
    LoopbackReplier &operator=(const LoopbackReplier &) = delete;

    std::string url() const { return "http://127.0.0.1:" + std::to_string(fPort) + "/RPC2"; }

  private:
    void acceptLoop() {
        while (!fStopping) {
            int fd = accept(fListen, nullptr, nullptr);
            if (fd < 0) return;
            int on = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            std::lock_guard<std::mutex> lock(fLock);
            fConnections.push_back(fd);
            fWorkers.emplace_back([this, fd] { serve(fd); });
        }
    }

    void serve(int fd) {
        std::string buffer;
        std::vector<char> chunk(size_t(64) << 10);
        for (;;) {
            size_t head = buffer.find("\r\n\r\n");
            if (head != std::string::npos) {
                size_t need = head + 4 + contentLength(buffer, head);
                if (buffer.size() >= need) {
                    buffer.erase(0, need);
                    if (!sendAll(fd)) break;
                    continue;
                }
            }
            ssize_t n = recv(fd, chunk.data(), chunk.size(), 0);
            if (n <= 0) break;
            buffer.append(chunk.data(), size_t(n));
        }
        close(fd);
    }

    bool sendAll(int fd) const {
        for (size_t sent = 0; sent < fReply.size();) {
            ssize_t n = send(fd, fReply.data() + sent, fReply.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) return false;
            sent += size_t(n);
        }
        return true;
    }

    // A client that sends "Expect: 100-continue" would wait for an interim reply first; none of
    // the clients measured here does, so the framing stops at the declared body length.
    static size_t contentLength(const std::string &buffer, size_t headEnd) {
        for (size_t line = buffer.find("\r\n"); line < headEnd; line = buffer.find("\r\n", line + 2)) {
            if (strncasecmp(buffer.c_str() + line + 2, "Content-Length:", 15) == 0)
                return std::strtoul(buffer.c_str() + line + 17, nullptr, 10);
        }
        return 0;
    }

    int fListen = -1;
    uint16_t fPort = 0;
    std::string fReply;
    std::atomic<bool> fStopping{false};
    std::thread fAccept;
    std::mutex fLock;
    std::vector<int> fConnections;
    std::vector<std::thread> fWorkers;
};

// The bytes a record's base64 text stands for (the generator writes whole groups, no padding).
inline std::vector<unsigned char> recordBlob(const hvtest::XMLRPCRecord &record) {
    static const std::string kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::vector<unsigned char> bytes;
    uint32_t group = 0;
    int bits = 0;
    for (char c : record.base64) {
        group = (group << 6) | uint32_t(kAlphabet.find(c));
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes.push_back(static_cast<unsigned char>(group >> bits));
        }
    }
    return bytes;
}

// A record's date ("19900131T12:30:00", GMT) as Unix time.
inline time_t recordTime(const hvtest::XMLRPCRecord &record) {
    struct tm fields {};
    std::sscanf(record.when.c_str(), "%4d%2d%2dT%2d:%2d:%2d", &fields.tm_year, &fields.tm_mon,
                &fields.tm_mday, &fields.tm_hour, &fields.tm_min, &fields.tm_sec);
    fields.tm_year -= 1900;
    fields.tm_mon -= 1;
    return timegm(&fields);
}

} // namespace hvbench
