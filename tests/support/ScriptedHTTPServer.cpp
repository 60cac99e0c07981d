#include "ScriptedHTTPServer.h"

#include <cstdio>

namespace hvtest {

namespace {

const char *reasonPhrase(int status) {
    static const std::pair<int, const char *> kPhrases[] = {{200, "OK"},
                                                            {202, "Accepted"},
                                                            {204, "No Content"},
                                                            {301, "Moved Permanently"},
                                                            {302, "Found"},
                                                            {307, "Temporary Redirect"},
                                                            {400, "Bad Request"},
                                                            {404, "Not Found"},
                                                            {405, "Method Not Allowed"},
                                                            {413, "Payload Too Large"},
                                                            {500, "Internal Server Error"},
                                                            {503, "Service Unavailable"}};
    for (const auto &phrase : kPhrases)
        if (phrase.first == status) return phrase.second;
    return "Unknown";
}

} // namespace

ScriptedReply ScriptedReply::with(int status, std::string contentType, std::string body) {
    ScriptedReply reply;
    reply.status = status;
    reply.headers.emplace_back("Content-Type", std::move(contentType));
    reply.body = std::move(body);
    return reply;
}

ScriptedHTTPServer::ScriptedHTTPServer() {
    fServer = std::make_unique<LoopbackServer>([this](Socket &connection, size_t) { serve(connection); });
}

ScriptedHTTPServer::~ScriptedHTTPServer() {
    fServer->stop();
}

std::string ScriptedHTTPServer::url(const std::string &path) const {
    return "http://127.0.0.1:" + std::to_string(port()) + path;
}

void ScriptedHTTPServer::route(std::string method, std::string path, ScriptedHandler handler) {
    std::lock_guard<std::mutex> hold(fLock);
    fRoutes.push_back({std::move(method), std::move(path), std::move(handler)});
}

void ScriptedHTTPServer::reply(std::string method, std::string path, ScriptedReply reply) {
    route(std::move(method), std::move(path), [reply](const RecordedRequest &) { return reply; });
}

ScriptedReply ScriptedHTTPServer::dispatch(const RecordedRequest &request) {
    ScriptedHandler handler;
    {
        std::lock_guard<std::mutex> hold(fLock);
        std::string path = request.pathWithoutQuery();
        for (auto it = fRoutes.rbegin(); it != fRoutes.rend() && !handler; ++it)
            if ((it->fMethod == "*" || it->fMethod == request.method) &&
                (it->fPath == "*" || it->fPath == path))
                handler = it->fHandler;
    }
    if (!handler)
        return ScriptedReply::with(404, "text/plain",
                                   "no route for " + request.method + " " + request.path + "\n");
    try {
        return handler(request);
    } catch (const std::exception &e) {
        return ScriptedReply::with(500, "text/plain", std::string("handler threw: ") + e.what() + "\n");
    }
}

void ScriptedHTTPServer::serve(Socket &connection) {
    const int fd = connection.fd(), stop = fServer->stopFd();
    std::string buffer;
    RecordedRequest request;
    while (readRequest(fd, buffer, request, stop)) {
        {
            std::lock_guard<std::mutex> hold(fLock);
            fRequests.push_back(request);
        }
        ScriptedReply reply = dispatch(request);
        if (reply.delay.count() > 0 && !sleepUnlessStopped(stop, reply.delay)) return;

        bool close = reply.http10 || request.version == "HTTP/1.0" ||
                     equalsIgnoringCase(request.header("Connection"), "close");
        bool chunked = reply.chunked && !reply.http10 && request.version != "HTTP/1.0";
        size_t repeat = reply.body.empty() ? 0 : reply.bodyRepeat;
        std::string head = std::string(reply.http10 ? "HTTP/1.0 " : "HTTP/1.1 ") +
                           std::to_string(reply.status) + " " + reasonPhrase(reply.status) + "\r\n";
        for (const auto &field : reply.headers)
            head += field.first + ": " + field.second + "\r\n";
        uint64_t length =
            reply.bodyHead.size() + uint64_t(reply.body.size()) * repeat + reply.bodyTail.size();
        head +=
            chunked ? "Transfer-Encoding: chunked\r\n" : "Content-Length: " + std::to_string(length) + "\r\n";
        head += close ? "Connection: close\r\n\r\n" : "\r\n";
        auto send = [&](const std::string &bytes) {
            if (bytes.empty() || !chunked) return sendAll(fd, bytes, stop);
            char size[24];
            std::snprintf(size, sizeof size, "%zx\r\n", bytes.size());
            return sendAll(fd, size + bytes + "\r\n", stop);
        };
        bool sent = sendAll(fd, head, stop) && send(reply.bodyHead);
        for (size_t i = 0; sent && i < repeat; i++)
            sent = send(reply.body);
        sent = sent && send(reply.bodyTail) && (!chunked || sendAll(fd, "0\r\n\r\n", stop));
        if (!sent) return;
        if (close) break;
    }
    if (!buffer.empty()) // not HTTP (a TLS handshake, say)
        sendAll(fd, "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n", stop);
    closeGracefully(fd, stop);
}

std::vector<RecordedRequest> ScriptedHTTPServer::requests() const {
    std::lock_guard<std::mutex> hold(fLock);
    return fRequests;
}

RecordedRequest ScriptedHTTPServer::lastRequest() const {
    std::lock_guard<std::mutex> hold(fLock);
    return fRequests.empty() ? RecordedRequest() : fRequests.back();
}

size_t ScriptedHTTPServer::requestCount() const {
    std::lock_guard<std::mutex> hold(fLock);
    return fRequests.size();
}

} // namespace hvtest
