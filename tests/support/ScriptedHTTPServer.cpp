#include "ScriptedHTTPServer.h"

#include <arpa/inet.h>
#include <cstring>
#include <microhttpd.h>
#include <netinet/in.h>
#include <stdexcept>
#include <utility>

namespace hvtest {

// One request in progress: created when its request line arrives, freed when MHD completes it.
struct ScriptedHTTPServer::Exchange {
    RecordedRequest fRequest;
    bool fHeadersSeen = false;
};

namespace {

// The body source of one queued response; MHD frees it through _freeBody.
struct BodySource {
    std::string fHead, fBody, fTail;
    size_t fRepeat;

    uint64_t size() const { return fHead.size() + uint64_t(fBody.size()) * fRepeat + fTail.size(); }
    // The bytes from pos up to the end of the part that holds pos.
    std::pair<const char *, size_t> at(uint64_t pos) const {
        if (pos < fHead.size()) return {fHead.data() + pos, size_t(fHead.size() - pos)};
        pos -= fHead.size();
        uint64_t repeated = uint64_t(fBody.size()) * fRepeat;
        if (pos < repeated) {
            size_t offset = size_t(pos % fBody.size());
            return {fBody.data() + offset, fBody.size() - offset};
        }
        pos -= repeated;
        return {fTail.data() + pos, size_t(fTail.size() - pos)};
    }
};

ssize_t _readBody(void *info, uint64_t pos, char *buf, size_t max) {
    auto *source = static_cast<BodySource *>(info);
    uint64_t total = source->size();
    if (pos >= total) return MHD_CONTENT_READER_END_OF_STREAM;
    size_t written = 0;
    while (written < max && pos < total) {
        std::pair<const char *, size_t> part = source->at(pos);
        size_t n = std::min(max - written, part.second);
        memcpy(buf + written, part.first, n);
        written += n;
        pos += n;
    }
    return ssize_t(written);
}

void _freeBody(void *info) {
    delete static_cast<BodySource *>(info);
}

MHD_Result _collectHeader(void *info, MHD_ValueKind, const char *name, const char *value) {
    static_cast<HTTPHeaders *>(info)->emplace_back(name ? name : "", value ? value : "");
    return MHD_YES;
}

} // namespace

struct ScriptedHTTPServerCallbacks {
    static void *_startRequest(void *info, const char *uri, MHD_Connection *) {
        auto *exchange = new ScriptedHTTPServer::Exchange;
        exchange->fRequest.path = uri ? uri : "";
        return exchange;
    }

    static void _completeRequest(void *, MHD_Connection *, void **requestInfo, MHD_RequestTerminationCode) {
        delete static_cast<ScriptedHTTPServer::Exchange *>(*requestInfo);
        *requestInfo = nullptr;
    }

    static void _connectionEvent(void *info, MHD_Connection *, void **, MHD_ConnectionNotificationCode code) {
        if (code != MHD_CONNECTION_NOTIFY_STARTED) return;
        auto *server = static_cast<ScriptedHTTPServer *>(info);
        std::lock_guard<std::mutex> hold(server->fLock);
        ++server->fConnections;
    }

    static MHD_Result _handle(void *info, MHD_Connection *connection, const char *, const char *method,
                              const char *version, const char *upload, size_t *uploadSize,
                              void **requestInfo) {
        auto *server = static_cast<ScriptedHTTPServer *>(info);
        auto *exchange = static_cast<ScriptedHTTPServer::Exchange *>(*requestInfo);
        if (!exchange) return MHD_NO;
        RecordedRequest &request = exchange->fRequest;
        // MHD calls once for the head, once per body piece, and once more when the body is complete.
        if (!exchange->fHeadersSeen) {
            exchange->fHeadersSeen = true;
            request.method = method;
            request.version = version;
            MHD_get_connection_values(connection, MHD_HEADER_KIND, _collectHeader, &request.headers);
            return MHD_YES;
        }
        if (*uploadSize != 0) {
            request.body.append(upload, *uploadSize);
            *uploadSize = 0;
            return MHD_YES;
        }
        server->record(request);
        ScriptedReply reply = server->dispatch(request);
        if (reply.delay.count() > 0 && !server->waitUnlessStopping(reply.delay)) return MHD_NO;

        bool empty = reply.body.empty() || reply.bodyRepeat == 0;
        auto *source = new BodySource{std::move(reply.bodyHead), empty ? std::string(" ") : std::move(reply.body),
                                      std::move(reply.bodyTail), empty ? 0 : reply.bodyRepeat};
        MHD_Response *response = MHD_create_response_from_callback(
            reply.chunked && !reply.http10 ? MHD_SIZE_UNKNOWN : source->size(), 64 * 1024, _readBody, source,
            _freeBody);
        if (!response) {
            delete source;
            return MHD_NO;
        }
        for (const auto &field : reply.headers)
            MHD_add_response_header(response, field.first.c_str(), field.second.c_str());
        if (reply.http10)
            MHD_set_response_options(
                response, MHD_ResponseFlags(MHD_RF_HTTP_1_0_SERVER | MHD_RF_HTTP_1_0_COMPATIBLE_STRICT),
                MHD_RO_END);
        MHD_Result queued = MHD_queue_response(connection, unsigned(reply.status), response);
        MHD_destroy_response(response);
        return queued;
    }
};

ScriptedReply ScriptedReply::with(int status, std::string contentType, std::string body) {
    ScriptedReply reply;
    reply.status = status;
    reply.headers.emplace_back("Content-Type", std::move(contentType));
    reply.body = std::move(body);
    return reply;
}

ScriptedHTTPServer::ScriptedHTTPServer() {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    // One thread per connection keeps a delayed or stalled reply from holding up the others.
    unsigned flags =
        MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_AUTO | MHD_USE_ITC;
    fDaemon = MHD_start_daemon(flags, 0, nullptr, nullptr, &ScriptedHTTPServerCallbacks::_handle, this,
                               MHD_OPTION_SOCK_ADDR, &addr, MHD_OPTION_URI_LOG_CALLBACK,
                               &ScriptedHTTPServerCallbacks::_startRequest, this, MHD_OPTION_NOTIFY_COMPLETED,
                               &ScriptedHTTPServerCallbacks::_completeRequest, this,
                               MHD_OPTION_NOTIFY_CONNECTION, &ScriptedHTTPServerCallbacks::_connectionEvent,
                               this, MHD_OPTION_LISTEN_BACKLOG_SIZE, 256u, MHD_OPTION_END);
    if (!fDaemon) throw std::runtime_error("ScriptedHTTPServer: the HTTP daemon did not start on 127.0.0.1");
    const MHD_DaemonInfo *info = MHD_get_daemon_info(fDaemon, MHD_DAEMON_INFO_BIND_PORT);
    fPort = info ? info->port : 0;
}

ScriptedHTTPServer::~ScriptedHTTPServer() {
    {
        std::lock_guard<std::mutex> hold(fLock);
        fStopping = true;
    }
    fChanged.notify_all();
    MHD_stop_daemon(fDaemon);
}

std::string ScriptedHTTPServer::url(const std::string &path) const {
    return "http://127.0.0.1:" + std::to_string(fPort) + path;
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

void ScriptedHTTPServer::record(const RecordedRequest &request) {
    {
        std::lock_guard<std::mutex> hold(fLock);
        fRequests.push_back(request);
    }
    fChanged.notify_all();
}

bool ScriptedHTTPServer::waitUnlessStopping(std::chrono::milliseconds delay) {
    std::unique_lock<std::mutex> hold(fLock);
    return !fChanged.wait_for(hold, delay, [this] { return fStopping; });
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

size_t ScriptedHTTPServer::connectionCount() const {
    std::lock_guard<std::mutex> hold(fLock);
    return fConnections;
}

bool ScriptedHTTPServer::waitForRequests(size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> hold(fLock);
    return fChanged.wait_for(hold, timeout, [&] { return fRequests.size() >= count; });
}

void ScriptedHTTPServer::clearRecords() {
    std::lock_guard<std::mutex> hold(fLock);
    fRequests.clear();
    fConnections = 0;
}

} // namespace hvtest
