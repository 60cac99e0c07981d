// The HTTP side of the server: the listening socket, libmicrohttpd's callbacks, the method
// threads and the stop. What a request means is ServerDispatch.cpp's business.
#include "Server.h"
#include "HalvoUtils.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace hvserver {

namespace {

thread_local Server *tServing = nullptr; // the server whose method this thread runs, if any

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

bool parseCount(const char *text, uint64_t &value) {
    if (!text || !*text || *text == '-' || *text == '+') return false;
    char *end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(text, &end, 10);
    if (errno || *end) return false;
    value = v;
    return true;
}

} // namespace

// One HTTP request between libmicrohttpd's calls. Every request is read to its end before it is
// answered, unless the answer says the connection closes: a server that closes on unread bytes
// makes the client's system reset the connection, and the client then never sees the answer.
struct Request {
    Server *fServer = nullptr;
    MHD_Connection *fConnection = nullptr;
    std::string fHTTPMethod, fPath, fVersion, fUser;
    Dialect fDialect = Dialect::eXMLRPC;
    double fStarted = 0;

    unsigned fFixedStatus = 0; // when not 0, the fixed answer: the body is dropped
    std::string fFixedText;
    const char *fAllow = nullptr;
    bool fChallenge = false;
    bool fTooLarge = false; // the body passed the limit: the rest is dropped
    uint64_t fReceived = 0; // body bytes so far
    std::string fBody;

    bool fArrived = false;    // head and body are in
    bool fDispatched = false; // handed to a method thread
    bool fReplyReady = false;
    ServedReply fReply;

    unsigned fSentStatus = 0; // for the log
    size_t fSentBytes = 0;
};

namespace {

const char kPlain[] = "text/plain; charset=utf-8";

MHD_Result respond(Request &req, unsigned status, const std::string &body, const char *contentType,
                   bool close = false) {
    MHD_Response *response =
        MHD_create_response_from_buffer(body.size(), const_cast<char *>(body.data()), MHD_RESPMEM_MUST_COPY);
    if (!response) return MHD_NO;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, contentType);
    if (req.fAllow) MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, req.fAllow);
    if (req.fChallenge) {
        std::string challenge = "Basic realm=\"" + req.fServer->options().fRealm + "\"";
        MHD_add_response_header(response, MHD_HTTP_HEADER_WWW_AUTHENTICATE, challenge.c_str());
    }
    if (close) MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    MHD_Result queued = MHD_queue_response(req.fConnection, status, response);
    MHD_destroy_response(response);
    if (queued == MHD_YES) {
        req.fServer->requestAnswered(req.fConnection);
        req.fSentStatus = status;
        req.fSentBytes = body.size();
    }
    return queued;
}

MHD_Result respondFixed(Request &req, unsigned status, const char *text, bool close) {
    req.fFixedStatus = status;
    req.fFixedText = text;
    return respond(req, status, req.fFixedText, kPlain, close);
}

// The fixed answer of a request that is not a call (0 when it is one; the dialect is then set).
unsigned route(Request &req, const Server::Options &options) {
    bool xmlrpc = req.fPath == options.fXMLRPCPath, soap = req.fPath == options.fSOAPPath;
    if (!xmlrpc && !soap) {
        if (req.fPath == "/" && req.fHTTPMethod == MHD_HTTP_METHOD_GET && options.fHasIndex) {
            req.fFixedText = options.fIndexText;
            return MHD_HTTP_OK;
        }
        req.fFixedText = "not found\n";
        return MHD_HTTP_NOT_FOUND;
    }
    if (req.fHTTPMethod != MHD_HTTP_METHOD_POST) {
        req.fFixedText = "only POST is served here\n";
        req.fAllow = "POST";
        return MHD_HTTP_METHOD_NOT_ALLOWED;
    }
    req.fDialect = xmlrpc && soap ? Dialect::eEither : xmlrpc ? Dialect::eXMLRPC : Dialect::eSOAP;
    return 0;
}

// The head of a request: route it, refuse what can be refused before the body.
MHD_Result beginRequest(Request &req) {
    Server &server = *req.fServer;
    const Server::Options &options = server.options();
    MHD_Connection *connection = req.fConnection;
    req.fFixedStatus = route(req, options);

    const char *length =
        MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    const char *coding =
        MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_TRANSFER_ENCODING);
    // Two framings at once is how requests are smuggled past proxies: refuse, and close.
    if (length && coding)
        return respondFixed(req, MHD_HTTP_BAD_REQUEST, "Content-Length and Transfer-Encoding together\n",
                            true);
    uint64_t declared = 0;
    if (length && !parseCount(length, declared))
        return respondFixed(req, MHD_HTTP_BAD_REQUEST, "bad Content-Length\n", true);
    if (req.fFixedStatus) return MHD_YES;

    if (length && declared > options.fMaxBody)
        return respondFixed(req, MHD_HTTP_CONTENT_TOO_LARGE, "request body too large\n", true);
    if (server.hasAuthentication()) {
        char *password = nullptr;
        char *user = MHD_basic_auth_get_username_password(connection, &password);
        if (user) req.fUser = user;
        bool allowed = server.authenticate(user, password, req.fPath);
        if (user) MHD_free(user);
        if (password) MHD_free(password);
        if (!allowed) {
            req.fFixedStatus = MHD_HTTP_UNAUTHORIZED;
            req.fFixedText = "authentication required\n";
            req.fChallenge = true;
            return MHD_YES;
        }
    }
    if (length) req.fBody.reserve(size_t(declared));
    return MHD_YES;
}

MHD_Result answer(void *cls, MHD_Connection *connection, const char *url, const char *method,
                  const char *version, const char *uploadData, size_t *uploadSize, void **state) {
    auto *server = static_cast<Server *>(cls);
    auto *req = static_cast<Request *>(*state);
    try {
        if (!req) {
            req = new Request;
            *state = req;
            req->fServer = server;
            req->fConnection = connection;
            req->fHTTPMethod = method;
            req->fPath = url;
            req->fVersion = version;
            req->fStarted = now();
            return beginRequest(*req);
        }
        const Server::Options &options = server->options();
        if (*uploadSize > 0) {
            size_t size = *uploadSize;
            *uploadSize = 0;
            if (req->fSentStatus) return MHD_YES; // answered early; the rest is dropped
            // libmicrohttpd answers only once a body is complete: a body past the limit is read
            // on (dropped) so that its 413 can be sent, up to a bound past which the connection
            // is dropped as well. A body that takes too long is cut by the sweeper.
            req->fReceived += size;
            if (req->fTooLarge)
                return req->fReceived > std::max<uint64_t>(4 * options.fMaxBody, 16 << 20) ? MHD_NO : MHD_YES;
            if (req->fFixedStatus) return MHD_YES;
            if (req->fBody.size() + size > options.fMaxBody) {
                std::string().swap(req->fBody);
                req->fTooLarge = true;
                return MHD_YES;
            }
            req->fBody.append(uploadData, size);
            return MHD_YES;
        }
        if (!req->fArrived) {
            req->fArrived = true;
            server->requestArrived(connection);
        }
        if (req->fSentStatus) return MHD_YES; // answered early
        if (req->fFixedStatus) return respond(*req, req->fFixedStatus, req->fFixedText, kPlain);
        if (req->fTooLarge)
            return respondFixed(*req, MHD_HTTP_CONTENT_TOO_LARGE, "request body too large\n", false);
        if (req->fReplyReady)
            return respond(*req, req->fReply.fStatus, req->fReply.fBody, "text/xml; charset=utf-8");
        if (req->fDispatched) return MHD_YES; // resumed for nothing: wait on
        if (!server->enqueue(req))
            return respondFixed(*req, MHD_HTTP_SERVICE_UNAVAILABLE, "server busy\n", false);
        return MHD_YES;
    } catch (...) {
        return MHD_NO; // out of memory: drop the connection
    }
}

void completed(void *cls, MHD_Connection *connection, void **state, MHD_RequestTerminationCode) {
    static_cast<Server *>(cls)->requestEnded(connection);
    auto *req = static_cast<Request *>(*state);
    if (!req) return;
    *state = nullptr;
    static_cast<Server *>(cls)->requestCompleted(req);
}

void notifyConnection(void *cls, MHD_Connection *connection, void **, MHD_ConnectionNotificationCode code) {
    auto *server = static_cast<Server *>(cls);
    if (code == MHD_CONNECTION_NOTIFY_STARTED)
        server->connectionStarted(connection);
    else
        server->connectionClosed(connection);
}

// Called once a request line is in, before its fields; what it returns would become the
// request's state, which answer() makes itself.
void *requestLine(void *cls, const char *, MHD_Connection *connection) {
    static_cast<Server *>(cls)->requestBegun(connection);
    return nullptr;
}

void logMHD(void *, const char *format, va_list args) {
    if (!gHVDebug) return;
    flockfile(stderr);
    fprintf(stderr, "HV (%d): server: ", int(getpid()));
    vfprintf(stderr, format, args);
    funlockfile(stderr);
}

std::string clientAddress(MHD_Connection *connection) {
    char address[INET6_ADDRSTRLEN] = "-";
    const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    if (info && info->client_addr) {
        const sockaddr *peer = info->client_addr;
        if (peer->sa_family == AF_INET)
            inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(peer)->sin_addr, address,
                      sizeof address);
        else if (peer->sa_family == AF_INET6)
            inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 *>(peer)->sin6_addr, address,
                      sizeof address);
    }
    return address;
}

// One line in the common log format, followed by the seconds taken and the method called.
void logRequest(const Request &req) {
    char when[64];
    time_t t = time(nullptr);
    struct tm tm;
    gmtime_r(&t, &tm);
    strftime(when, sizeof when, "%d/%b/%Y:%H:%M:%S +0000", &tm);
    const std::string &method = req.fReply.fMethod;
    fprintf(stderr, "%s - %s [%s] \"%s %s %s\" %u %zu %.6f %s\n", clientAddress(req.fConnection).c_str(),
            req.fUser.empty() ? "-" : req.fUser.c_str(), when, req.fHTTPMethod.c_str(), req.fPath.c_str(),
            req.fVersion.c_str(), req.fSentStatus, req.fSentBytes, now() - req.fStarted,
            method.empty() ? "-" : method.c_str());
}

} // namespace

// ---- Method threads --------------------------------------------------------------------------

bool Server::enqueue(Request *req) {
    {
        std::lock_guard<std::mutex> lock(fLock);
        if (fDraining || fQueue.size() >= fOptions.fMaxQueued) return false;
        req->fDispatched = true;
        fDispatched++;
        // Suspended before a method thread can see it: resuming must come after suspending.
        MHD_suspend_connection(req->fConnection);
        fQueue.push_back(req);
    }
    fWake.notify_one();
    return true;
}

void Server::workerLoop() {
    tServing = this;
    std::unique_lock<std::mutex> lock(fLock);
    for (;;) {
        fWake.wait(lock, [this] { return !fQueue.empty() || fState == State::eStopping; });
        if (fQueue.empty()) return; // stopping, nothing left
        Request *req = fQueue.front();
        fQueue.pop_front();
        bool draining = fDraining;
        fBusy++;
        lock.unlock();
        if (draining) {
            req->fReply.fStatus = MHD_HTTP_SERVICE_UNAVAILABLE;
            req->fReply.fBody = "server stopping\n";
            // Written as text by the answer callback's fixed road.
            req->fFixedStatus = MHD_HTTP_SERVICE_UNAVAILABLE;
            req->fFixedText = "server stopping\n";
        } else {
            try {
                req->fReply = serve(req->fDialect, req->fBody);
            } catch (...) {
                req->fReply = ServedReply();
                req->fReply.fStatus = MHD_HTTP_INTERNAL_SERVER_ERROR;
                req->fFixedStatus = MHD_HTTP_INTERNAL_SERVER_ERROR;
                req->fFixedText = "internal error\n";
            }
            std::string().swap(req->fBody);
            req->fReplyReady = true;
        }
        lock.lock();
        fBusy--;
        MHD_resume_connection(req->fConnection);
        fWake.notify_all();
    }
}

void Server::requestCompleted(Request *req) {
    if (fOptions.fLog && req->fSentStatus) logRequest(*req);
    if (req->fDispatched) {
        std::lock_guard<std::mutex> lock(fLock);
        fDispatched--;
        fWake.notify_all();
    }
    delete req;
}

bool Server::authenticate(const char *user, const char *password, const std::string &path) {
    RtStringRef u = user ? RtStringCreateWithCString(nullptr, user, kRtStringEncodingUTF8) : nullptr;
    RtStringRef p = password ? RtStringCreateWithCString(nullptr, password, kRtStringEncodingUTF8) : nullptr;
    RtStringRef where = RtStringCreateWithCString(nullptr, path.c_str(), kRtStringEncodingUTF8);
    bool allowed = false;
    // Text that is no UTF-8 cannot match any user: refused without asking.
    if ((!user || u) && (!password || p)) {
        try {
            allowed = fAuthProc(fHandle, u, p, where, fAuthContext.info);
        } catch (...) {
            allowed = false;
        }
    }
    if (u) RtRelease(u);
    if (p) RtRelease(p);
    if (where) RtRelease(where);
    return allowed;
}

// ---- The request deadline ----------------------------------------------------------------------

void Server::connectionStarted(MHD_Connection *connection) {
    const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    try {
        std::lock_guard<std::mutex> lock(fArrivalLock);
        Arrival &arrival = fArrivals[connection];
        arrival.fSince = now();
        arrival.fFd = info ? info->connect_fd : -1;
    } catch (...) {
        // Out of memory: this connection has only the idle timeout.
    }
}

void Server::connectionClosed(MHD_Connection *connection) {
    // Erased before libmicrohttpd closes the descriptor, so the sweeper never touches a
    // descriptor number that a new connection may reuse.
    std::lock_guard<std::mutex> lock(fArrivalLock);
    fArrivals.erase(connection);
}

void Server::requestBegun(MHD_Connection *connection) {
    std::lock_guard<std::mutex> lock(fArrivalLock);
    auto found = fArrivals.find(connection);
    if (found != fArrivals.end()) found->second.fBegun = true;
}

void Server::requestAnswered(MHD_Connection *connection) {
    std::lock_guard<std::mutex> lock(fArrivalLock);
    auto found = fArrivals.find(connection);
    if (found != fArrivals.end()) found->second.fAnswered = true;
}

void Server::requestArrived(MHD_Connection *connection) {
    std::lock_guard<std::mutex> lock(fArrivalLock);
    auto found = fArrivals.find(connection);
    if (found != fArrivals.end()) found->second.fArriving = false;
}

void Server::requestEnded(MHD_Connection *connection) {
    std::lock_guard<std::mutex> lock(fArrivalLock);
    auto found = fArrivals.find(connection);
    if (found == fArrivals.end() || found->second.fCut) return;
    Arrival &arrival = found->second;
    arrival.fSince = now();
    arrival.fArriving = true;
    arrival.fBegun = arrival.fAnswered = false;
}

// Four times a second, cuts the connections whose request has not arrived whole within the
// request time-out: a plain connection whose request had begun and has no answer yet is told
// 408 first. Shutting the socket down makes libmicrohttpd see its end and close it as usual.
void Server::sweepLoop() {
    static const char kTimedOut[] = "HTTP/1.1 408 Request Timeout\r\nConnection: close\r\n"
                                    "Content-Type: text/plain; charset=utf-8\r\nContent-Length: 22\r\n\r\n"
                                    "request took too long\n";
    bool tls = !fOptions.fCertificate.empty() && !fOptions.fKey.empty();
    std::unique_lock<std::mutex> lock(fArrivalLock);
    while (fSweeping) {
        fSweepWake.wait_for(lock, std::chrono::milliseconds(250));
        double deadline = now() - fOptions.fRequestTimeout;
        for (auto &entry : fArrivals) {
            Arrival &arrival = entry.second;
            if (!arrival.fArriving || arrival.fCut || arrival.fSince > deadline || arrival.fFd < 0) continue;
            arrival.fCut = true;
            if (!tls && arrival.fBegun && !arrival.fAnswered)
                (void)!send(arrival.fFd, kTimedOut, sizeof kTimedOut - 1, MSG_NOSIGNAL | MSG_DONTWAIT);
            shutdown(arrival.fFd, SHUT_RDWR);
        }
    }
}

// ---- Listening, starting, stopping -----------------------------------------------------------

bool Server::listen(const std::string &address, uint16_t port, std::string &error, int &code) {
    std::lock_guard<std::mutex> guard(fStopLock);
    if (fListenSocket >= 0 || fState != State::eIdle) {
        error = "the server is already listening";
        code = -1;
        return false;
    }
    sockaddr_in v4{};
    sockaddr_in6 v6{};
    const sockaddr *where = nullptr;
    socklen_t size = 0;
    if (inet_pton(AF_INET, address.c_str(), &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        v4.sin_port = htons(port);
        where = reinterpret_cast<const sockaddr *>(&v4);
        size = sizeof v4;
    } else if (inet_pton(AF_INET6, address.c_str(), &v6.sin6_addr) == 1) {
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(port);
        where = reinterpret_cast<const sockaddr *>(&v6);
        size = sizeof v6;
    } else {
        error = "not an IPv4 or IPv6 address: '" + address + "'";
        code = EINVAL;
        return false;
    }
    int fd = socket(where->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int on = 1;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd, where, size) != 0 || ::listen(fd, SOMAXCONN) != 0) {
        code = errno;
        error = "cannot listen on " + address + " port " + std::to_string(port) + ": " + strerror(code);
        if (fd >= 0) close(fd);
        return false;
    }
    sockaddr_storage bound{};
    socklen_t boundSize = sizeof bound;
    getsockname(fd, reinterpret_cast<sockaddr *>(&bound), &boundSize);
    fPort = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 *>(&bound)->sin6_port
                                              : reinterpret_cast<sockaddr_in *>(&bound)->sin_port);
    fListenSocket = fd;
    return true;
}

bool Server::start(std::string &error, int &code) {
    if (fListenSocket < 0 && fState == State::eIdle && !listen("127.0.0.1", 0, error, code)) return false;
    std::lock_guard<std::mutex> guard(fStopLock);
    if (fState != State::eIdle) {
        error = fState == State::eRunning ? "the server is already running" : "the server was stopped";
        code = -1;
        return false;
    }
    // The library builds some process-wide tables on first use, without locks: build them here,
    // before several threads read them.
    warmUp();

    bool tls = !fOptions.fCertificate.empty() && !fOptions.fKey.empty();
    unsigned flags =
        MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ITC | MHD_USE_ERROR_LOG;
    if (tls) flags |= MHD_USE_TLS;
    unsigned hardware = std::thread::hardware_concurrency();
    unsigned networkThreads = std::min(4u, std::max(1u, hardware));
    std::vector<MHD_OptionItem> items = {
        {MHD_OPTION_LISTEN_SOCKET, fListenSocket, nullptr},
        {MHD_OPTION_THREAD_POOL_SIZE, intptr_t(networkThreads), nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, intptr_t(fOptions.fMaxConnections), nullptr},
        {MHD_OPTION_PER_IP_CONNECTION_LIMIT, intptr_t(fOptions.fMaxPerAddress), nullptr},
        // A connection's memory pool holds its request head, plus room to read the body through
        // and write the answer's head.
        {MHD_OPTION_CONNECTION_MEMORY_LIMIT, intptr_t(fOptions.fMaxHead + 8192), nullptr},
        {MHD_OPTION_NOTIFY_CONNECTION, intptr_t(notifyConnection), this},
        {MHD_OPTION_URI_LOG_CALLBACK, intptr_t(requestLine), this},
        {MHD_OPTION_CONNECTION_TIMEOUT, intptr_t(fOptions.fIdleTimeout), nullptr},
        {MHD_OPTION_NOTIFY_COMPLETED, intptr_t(completed), this},
        {MHD_OPTION_EXTERNAL_LOGGER, intptr_t(logMHD), nullptr},
    };
    if (tls) {
        items.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, const_cast<char *>(fOptions.fCertificate.c_str())});
        items.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char *>(fOptions.fKey.c_str())});
    }
    items.push_back({MHD_OPTION_END, 0, nullptr});
    // Function pointers travel in the intptr_t slot of the option array.
    fDaemon = MHD_start_daemon(flags, 0, nullptr, nullptr, answer, this, MHD_OPTION_ARRAY, items.data(),
                               MHD_OPTION_END);
    if (!fDaemon) {
        code = errno ? errno : -1;
        error = tls ? "cannot start the server (does the TLS certificate and key load?)"
                    : "cannot start the server";
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(fLock);
        fState = State::eRunning;
    }
    try {
        std::lock_guard<std::mutex> lock(fArrivalLock);
        fSweeping = true;
        fSweeper = std::thread([this] { sweepLoop(); });
    } catch (...) {
        fSweeping = false; // no thread to be had: only the idle timeout holds
    }
    unsigned threads = std::max(1u, fOptions.fThreads);
    try {
        for (unsigned i = 0; i < threads; i++)
            fWorkers.emplace_back([this] { workerLoop(); });
    } catch (...) {
        // Too few threads to be had: serve with those that started.
        if (fWorkers.empty()) {
            error = "cannot start the method threads";
            code = EAGAIN;
            std::lock_guard<std::mutex> lock(fLock);
            fState = State::eIdle;
            stopSweeping();
            MHD_stop_daemon(fDaemon);
            fDaemon = nullptr;
            fListenSocket = -1;
            return false;
        }
    }
    return true;
}

void Server::stop() noexcept {
    if (tServing == this) {
        // From inside a method: stop accepting, and leave the rest to a stop from outside.
        std::lock_guard<std::mutex> lock(fLock);
        if (fState == State::eRunning && fDaemon && fListenSocket >= 0) {
            MHD_socket quiet = MHD_quiesce_daemon(fDaemon);
            if (quiet != MHD_INVALID_SOCKET) close(quiet);
            fListenSocket = -1;
        }
        return;
    }
    std::lock_guard<std::mutex> guard(fStopLock);
    finishStop();
}

void Server::stopSweeping() {
    {
        std::lock_guard<std::mutex> lock(fArrivalLock);
        fSweeping = false;
    }
    fSweepWake.notify_all();
    if (fSweeper.joinable()) fSweeper.join();
}

void Server::finishStop() {
    State was;
    {
        std::lock_guard<std::mutex> lock(fLock);
        was = fState;
        if (was == State::eStopped) return;
        fState = State::eStopping;
        fDraining = true; // with the state, so that no request is queued once the threads may leave
    }
    if (was == State::eIdle) {
        if (fListenSocket >= 0) close(fListenSocket);
        fListenSocket = -1;
        std::lock_guard<std::mutex> lock(fLock);
        fState = State::eStopped;
        return;
    }
    if (fListenSocket >= 0) {
        MHD_socket quiet = MHD_quiesce_daemon(fDaemon);
        if (quiet != MHD_INVALID_SOCKET) close(quiet);
        fListenSocket = -1;
    }
    {
        std::unique_lock<std::mutex> lock(fLock);
        fWake.notify_all();
        // Running methods finish; queued calls are answered 503 by the method threads.
        fWake.wait(lock, [this] { return fQueue.empty() && fBusy == 0; });
    }
    fWake.notify_all();
    for (std::thread &worker : fWorkers)
        worker.join();
    fWorkers.clear();
    {
        // Replies in flight get a moment to be sent before the connections close.
        std::unique_lock<std::mutex> lock(fLock);
        fWake.wait_for(lock, std::chrono::seconds(5), [this] { return fDispatched == 0; });
    }
    stopSweeping();
    MHD_stop_daemon(fDaemon);
    fDaemon = nullptr;
    std::lock_guard<std::mutex> lock(fLock);
    fState = State::eStopped;
}

Server::~Server() {
    stop();
    if (fAuthContext.release && fAuthContext.info) fAuthContext.release(fAuthContext.info);
}

} // namespace hvserver
