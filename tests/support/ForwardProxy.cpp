#include "ForwardProxy.h"

#include <cstdlib>

namespace hvtest {

namespace {

std::string errorReply(const std::string &statusAndReason) {
    std::string body = statusAndReason + " (test proxy)\n";
    return "HTTP/1.1 " + statusAndReason +
           "\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}

// Splits "http://host[:port]/path" into its parts; false for anything else.
bool splitAbsoluteURI(const std::string &uri, std::string &host, uint16_t &port, std::string &path) {
    const std::string scheme = "http://";
    if (uri.size() <= scheme.size() || !equalsIgnoringCase(uri.substr(0, scheme.size()), scheme))
        return false;
    size_t slash = uri.find('/', scheme.size());
    std::string authority = uri.substr(scheme.size(), slash - scheme.size());
    path = slash == std::string::npos ? "/" : uri.substr(slash);
    size_t colon = authority.rfind(':');
    port = 80;
    if (colon != std::string::npos) {
        long value = std::strtol(authority.c_str() + colon + 1, nullptr, 10);
        if (value <= 0 || value > 65535) return false;
        port = uint16_t(value);
        authority.resize(colon);
    }
    host = authority;
    return !host.empty();
}

} // namespace

ForwardProxy::ForwardProxy() {
    fServer = std::make_unique<LoopbackServer>([this](Socket &client, size_t) { serve(client); });
}

ForwardProxy::~ForwardProxy() {
    fServer->stop();
}

std::vector<RecordedRequest> ForwardProxy::requests() const {
    std::lock_guard<std::mutex> hold(fLock);
    return fRequests;
}

size_t ForwardProxy::requestCount() const {
    std::lock_guard<std::mutex> hold(fLock);
    return fRequests.size();
}

void ForwardProxy::serve(Socket &client) {
    const int stop = fServer->stopFd();
    std::string buffer;
    RecordedRequest request;
    if (!readRequest(client.fd(), buffer, request, stop)) return;
    {
        std::lock_guard<std::mutex> hold(fLock);
        fRequests.push_back(request);
    }

    std::string host, path;
    uint16_t originPort = 0;
    if (!splitAbsoluteURI(request.path, host, originPort, path)) {
        sendAll(client.fd(), errorReply("400 Bad Request"), stop);
        return;
    }
    // Tests stay on this machine: the proxy never reaches beyond loopback.
    if (host != "127.0.0.1" && !equalsIgnoringCase(host, "localhost")) {
        sendAll(client.fd(), errorReply("502 Bad Gateway"), stop);
        return;
    }
    std::string ignored;
    Socket origin = connectLoopback(originPort, std::chrono::seconds(5), &ignored);
    if (!origin.valid()) {
        sendAll(client.fd(), errorReply("502 Bad Gateway"), stop);
        return;
    }

    std::string forwarded = request.method + " " + path + " " + request.version + "\r\n";
    for (const auto &field : request.headers) {
        if (equalsIgnoringCase(field.first, "Proxy-Connection") ||
            equalsIgnoringCase(field.first, "Connection") || equalsIgnoringCase(field.first, "Keep-Alive"))
            continue;
        forwarded += field.first + ": " + field.second + "\r\n";
    }
    forwarded += "Connection: close\r\n\r\n" + request.body;
    if (!sendAll(origin.fd(), forwarded, stop)) return;
    std::string relay;
    while (readSome(origin.fd(), relay, stop, -1) > 0) {
        if (!sendAll(client.fd(), relay, stop)) return;
        relay.clear();
    }
    closeGracefully(client.fd(), stop);
}

} // namespace hvtest
