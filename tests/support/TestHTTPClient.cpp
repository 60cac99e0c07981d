#include "TestHTTPClient.h"

#include <cstdlib>

namespace hvtest {

std::string TestHTTPResponse::header(std::string_view name) const {
    const std::string *value = findHeader(headers, name);
    return value ? *value : std::string();
}

TestHTTPResponse httpRequest(uint16_t port, const std::string &method, const std::string &target,
                             const HTTPHeaders &headers, const std::string &body) {
    const int kTimeoutMs = 10000;
    TestHTTPResponse response;
    Socket connection = connectLoopback(port, std::chrono::milliseconds(kTimeoutMs), &response.error);
    if (!connection.valid()) return response;
    std::string message = method + " " + target + " HTTP/1.1\r\n";
    if (!findHeader(headers, "Host")) message += "Host: 127.0.0.1:" + std::to_string(port) + "\r\n";
    if (!findHeader(headers, "Content-Length") && (!body.empty() || method == "POST" || method == "PUT"))
        message += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    for (const auto &field : headers)
        message += field.first + ": " + field.second + "\r\n";
    if (!sendAll(connection.fd(), message + "\r\n" + body, -1, kTimeoutMs)) {
        response.error = "send failed";
        return response;
    }
    std::string buffer;
    size_t length = 0;
    do {
        buffer.erase(0, length); // an interim 100 reply
        if (!readHTTPMessage(connection.fd(), buffer, length, -1, kTimeoutMs)) {
            response.error = "connection closed or timed out before the end of the reply";
            return response;
        }
        size_t headEnd = buffer.find("\r\n\r\n") + 4;
        response.headers.clear();
        parseHead(std::string_view(buffer).substr(0, headEnd), response.statusLine, response.headers);
        size_t space = response.statusLine.find(' ');
        response.status = space == std::string::npos ? 0 : std::atoi(response.statusLine.c_str() + space + 1);
        response.body = buffer.substr(headEnd, length - headEnd);
    } while (response.status == 100);
    // Without a declared length the body ends when the server closes.
    if (!findHeader(response.headers, "Content-Length") && method != "HEAD") {
        response.body = buffer.substr(length);
        while (readSome(connection.fd(), response.body, -1, kTimeoutMs) > 0) {
        }
    }
    response.ok = true;
    return response;
}

uint16_t freeLoopbackPort() {
    uint16_t port = 0;
    Socket probe = listenLoopback(port);
    return port;
}

} // namespace hvtest
