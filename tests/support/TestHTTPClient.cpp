#include "TestHTTPClient.h"

#include <cstdlib>

namespace hvtest {

std::string TestHTTPResponse::header(std::string_view name) const {
    const std::string *value = findHeader(headers, name);
    return value ? *value : std::string();
}

TestHTTPConnection::TestHTTPConnection(uint16_t port, std::chrono::milliseconds timeout)
    : fPort(port), fTimeoutMs(int(timeout.count())) {
    fSocket = connectLoopback(port, timeout, &fError);
}

bool TestHTTPConnection::sendRaw(std::string_view bytes) {
    if (!fSocket.valid() || !sendAll(fSocket.fd(), bytes, -1, fTimeoutMs)) {
        fError = "send failed";
        return false;
    }
    return true;
}

bool TestHTTPConnection::fill() {
    long n = readSome(fSocket.fd(), fBuffer, -1, fTimeoutMs);
    if (n < 0) fError = "read failed or timed out";
    return n > 0;
}

std::string TestHTTPConnection::readUntilClose() {
    while (fSocket.valid() && fill()) {
    }
    std::string all;
    all.swap(fBuffer);
    return all;
}

TestHTTPResponse TestHTTPConnection::request(const std::string &method, const std::string &target,
                                             const HTTPHeaders &headers, const std::string &body,
                                             const std::string &version) {
    TestHTTPResponse response;
    std::string message = method + " " + target + " " + version + "\r\n";
    if (!findHeader(headers, "Host")) message += "Host: 127.0.0.1:" + std::to_string(fPort) + "\r\n";
    if (!findHeader(headers, "Content-Length") && !findHeader(headers, "Transfer-Encoding") &&
        (!body.empty() || method == "POST" || method == "PUT"))
        message += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    for (const auto &field : headers)
        message += field.first + ": " + field.second + "\r\n";
    message += "\r\n" + body;
    if (!sendRaw(message) || !readResponse(response, method == "HEAD")) {
        response.ok = false;
        response.error = fError;
    }
    return response;
}

bool TestHTTPConnection::readResponse(TestHTTPResponse &response, bool headRequest) {
    for (;;) {
        size_t headEnd;
        while ((headEnd = fBuffer.find("\r\n\r\n")) == std::string::npos)
            if (!fill()) {
                if (fError.empty()) fError = "connection closed before the end of the reply head";
                return false;
            }
        response.headers.clear();
        parseHead(std::string_view(fBuffer).substr(0, headEnd + 4), response.statusLine, response.headers);
        fBuffer.erase(0, headEnd + 4);
        size_t sp1 = response.statusLine.find(' ');
        response.version = response.statusLine.substr(0, sp1);
        response.status = sp1 == std::string::npos ? 0 : std::atoi(response.statusLine.c_str() + sp1 + 1);
        size_t sp2 = sp1 == std::string::npos ? sp1 : response.statusLine.find(' ', sp1 + 1);
        response.reason = sp2 == std::string::npos ? "" : response.statusLine.substr(sp2 + 1);
        if (response.status != 100) break;
    }
    if (headRequest || response.status == 204 || response.status == 304) {
        response.ok = true;
        return true;
    }
    const std::string *length = findHeader(response.headers, "Content-Length");
    const std::string *coding = findHeader(response.headers, "Transfer-Encoding");
    if (coding && equalsIgnoringCase(*coding, "chunked")) {
        for (;;) {
            size_t eol;
            while ((eol = fBuffer.find("\r\n")) == std::string::npos)
                if (!fill()) return false;
            char *end = nullptr;
            size_t size = std::strtoul(fBuffer.c_str(), &end, 16);
            if (end == fBuffer.c_str()) {
                fError = "bad chunk size";
                return false;
            }
            fBuffer.erase(0, eol + 2);
            while (fBuffer.size() < size + 2)
                if (!fill()) return false;
            response.body.append(fBuffer, 0, size);
            fBuffer.erase(0, size + 2);
            if (size == 0) break;
        }
    } else if (length) {
        size_t size = std::strtoul(length->c_str(), nullptr, 10);
        while (fBuffer.size() < size)
            if (!fill()) {
                if (fError.empty()) fError = "connection closed before the end of the body";
                return false;
            }
        response.body = fBuffer.substr(0, size);
        fBuffer.erase(0, size);
    } else {
        response.body = readUntilClose();
    }
    response.ok = true;
    return true;
}

TestHTTPResponse httpRequest(uint16_t port, const std::string &method, const std::string &target,
                             const HTTPHeaders &headers, const std::string &body) {
    TestHTTPConnection connection(port);
    if (!connection.connected()) {
        TestHTTPResponse failed;
        failed.error = connection.error();
        return failed;
    }
    return connection.request(method, target, headers, body);
}

uint16_t freeLoopbackPort() {
    uint16_t port = 0;
    Socket probe = listenLoopback(port);
    return port;
}

} // namespace hvtest
