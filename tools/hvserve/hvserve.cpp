// hvserve: a small HTTP server (libmicrohttpd) that answers XML-RPC calls on POST /RPC2 and
// SOAP calls on POST /soap through the library's protocol handlers, with the example methods
// of ExampleMethods.h. One thread per connection, so a sleeping call holds up no other.
//
// The first line on standard output is the port listened on (useful with --port 0). Request
// bodies over the limit (--max-body, 1 MiB by default) are refused with 413. SIGINT and
// SIGTERM stop the server cleanly: sleeps end, running requests finish, exit status 0.
#include "ExampleMethods.h"
#include "ServeRequest.h"

#include <HalvosCore/HalvosCore.h>

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const char kUsage[] =
    "usage: hvserve [options]\n"
    "\n"
    "Answers XML-RPC calls on POST /RPC2 and SOAP calls (SOAP-1999 and SOAP-2001, told apart by\n"
    "the XML Schema namespace the request declares) on POST /soap.\n"
    "Methods: examples.echo, examples.add, examples.fault, examples.types, examples.sleep,\n"
    "system.listMethods. The first line printed is the port listened on.\n"
    "\n"
    "options:\n"
    "  --port N          listen on port N (default 8080; 0 picks a free port)\n"
    "  --bind ADDRESS    listen on ADDRESS, IPv4 or IPv6 (default 127.0.0.1)\n"
    "  --max-body BYTES  refuse larger request bodies with 413 (default 1048576)\n"
    "  --verbose         log one line per request on standard error\n"
    "  --help            print this help\n"
    "\n"
    "SIGINT or SIGTERM stops the server.\n";

enum { eExitOK = 0, eExitFailure = 1, eExitUsage = 2 };

struct ServerOptions {
    long fPort = 8080;
    std::string fBind = "127.0.0.1";
    unsigned long long fMaxBody = 1 << 20;
    bool fVerbose = false;
    bool fHelp = false;
};

// The state of one request between the calls libmicrohttpd makes for it. Every request has
// its body read before it is answered, even one answered with an error: a server that closes
// on unread bytes makes the client's system reset the connection, and the client then never
// sees the answer.
struct PendingRequest {
    hvserve::Dialect fDialect = hvserve::Dialect::eXMLRPC;
    unsigned fStatus = 0;   // when not 0, the fixed answer: the body is dropped
    const char *fText = ""; // its text
    const char *fAllow = nullptr;
    std::string fBody;
    bool fTooLarge = false; // the body passed the limit: the rest is read and dropped
};

const char kHelpPage[] = "hvserve: POST XML-RPC calls to /RPC2 and SOAP calls to /soap.\n";

bool parseNumber(const char *text, unsigned long long max, unsigned long long &value) {
    char *end = nullptr;
    errno = 0;
    value = strtoull(text, &end, 10);
    return *text && *text != '-' && !*end && !errno && value <= max;
}

bool parseArguments(int argc, char **argv, ServerOptions &options, std::string &error) {
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        auto next = [&]() -> const char * {
            if (i + 1 < argc) return argv[++i];
            error = arg + " needs a value";
            return nullptr;
        };
        unsigned long long number = 0;
        if (arg == "--help") {
            options.fHelp = true;
        } else if (arg == "--verbose") {
            options.fVerbose = true;
        } else if (arg == "--port") {
            const char *value = next();
            if (!value) return false;
            if (!parseNumber(value, 65535, number)) {
                error = "--port takes a number from 0 to 65535, not '" + std::string(value) + "'";
                return false;
            }
            options.fPort = long(number);
        } else if (arg == "--bind") {
            const char *value = next();
            if (!value) return false;
            options.fBind = value;
        } else if (arg == "--max-body") {
            const char *value = next();
            if (!value) return false;
            if (!parseNumber(value, 1ull << 30, number) || number == 0) {
                error =
                    "--max-body takes a byte count from 1 to 1073741824, not '" + std::string(value) + "'";
                return false;
            }
            options.fMaxBody = number;
        } else {
            error = "unknown argument '" + arg + "'";
            return false;
        }
    }
    return true;
}

MHD_Result respond(MHD_Connection *connection, unsigned status, const std::string &body,
                   const char *contentType, const char *allow = nullptr) {
    MHD_Response *response =
        MHD_create_response_from_buffer(body.size(), const_cast<char *>(body.data()), MHD_RESPMEM_MUST_COPY);
    if (!response) return MHD_NO;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, contentType);
    if (allow) MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, allow);
    MHD_Result queued = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return queued;
}

void logRequest(const ServerOptions &options, MHD_Connection *connection, const char *method, const char *url,
                unsigned status, const std::string &detail) {
    if (!options.fVerbose) return;
    char address[INET6_ADDRSTRLEN] = "?";
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
    fprintf(stderr, "hvserve: %s %s %s %u%s%s\n", address, method, url, status, detail.empty() ? "" : " ",
            detail.c_str());
}

// The fixed answer to a request that is not a call, or 0 when it is one (dialect then set).
unsigned routeRequest(const char *url, const char *method, PendingRequest &pending) {
    bool isXMLRPC = strcmp(url, "/RPC2") == 0;
    if (!isXMLRPC && strcmp(url, "/soap") != 0) {
        if (strcmp(url, "/") == 0 && strcmp(method, MHD_HTTP_METHOD_GET) == 0) {
            pending.fText = kHelpPage;
            return MHD_HTTP_OK;
        }
        pending.fText = "not found\n";
        return MHD_HTTP_NOT_FOUND;
    }
    if (strcmp(method, MHD_HTTP_METHOD_POST) != 0) {
        pending.fText = "only POST is served here\n";
        pending.fAllow = "POST";
        return MHD_HTTP_METHOD_NOT_ALLOWED;
    }
    pending.fDialect = isXMLRPC ? hvserve::Dialect::eXMLRPC : hvserve::Dialect::eSOAP;
    return 0;
}

// libmicrohttpd calls this once with the head of a request, then once per piece of body, then
// once more with no body left, which answers.
MHD_Result answer(void *cls, MHD_Connection *connection, const char *url, const char *method, const char *,
                  const char *uploadData, size_t *uploadSize, void **state) {
    const ServerOptions &options = *static_cast<const ServerOptions *>(cls);
    auto *pending = static_cast<PendingRequest *>(*state);
    const char *plain = "text/plain; charset=utf-8";

    if (!pending) {
        pending = new PendingRequest;
        *state = pending;
        pending->fStatus = routeRequest(url, method, *pending);
        const char *length =
            MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
        unsigned long long declared = 0;
        pending->fTooLarge = length && parseNumber(length, ~0ull, declared) && declared > options.fMaxBody;
        // A client waiting for "100 Continue" can be told at once: it has sent no body yet.
        const char *expect = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_EXPECT);
        if (pending->fTooLarge && !pending->fStatus && expect && strcasecmp(expect, "100-continue") == 0) {
            logRequest(options, connection, method, url, 413, "");
            return respond(connection, MHD_HTTP_CONTENT_TOO_LARGE, "request body too large\n", plain);
        }
        return MHD_YES;
    }

    if (*uploadSize > 0) {
        if (!pending->fTooLarge && pending->fBody.size() + *uploadSize > options.fMaxBody) {
            pending->fTooLarge = true;
            std::string().swap(pending->fBody);
        }
        if (!pending->fTooLarge && !pending->fStatus) pending->fBody.append(uploadData, *uploadSize);
        *uploadSize = 0;
        return MHD_YES;
    }

    if (pending->fStatus) {
        logRequest(options, connection, method, url, pending->fStatus, "");
        return respond(connection, pending->fStatus, pending->fText, plain, pending->fAllow);
    }
    if (pending->fTooLarge) {
        logRequest(options, connection, method, url, 413, "");
        return respond(connection, MHD_HTTP_CONTENT_TOO_LARGE, "request body too large\n", plain);
    }
    hvserve::ServedReply reply = hvserve::serveRequest(pending->fDialect, pending->fBody);
    logRequest(options, connection, method, url, reply.fStatus,
               reply.fProtocol + " " + (reply.fMethod.empty() ? "(unreadable request)" : reply.fMethod) +
                   (reply.fFault ? " fault" : ""));
    return respond(connection, reply.fStatus, reply.fBody, "text/xml; charset=utf-8");
}

void requestCompleted(void *, MHD_Connection *, void **state, MHD_RequestTerminationCode) {
    delete static_cast<PendingRequest *>(*state);
    *state = nullptr;
}

int usageError(const std::string &reason) {
    fprintf(stderr, "hvserve: %s (see hvserve --help)\n", reason.c_str());
    return eExitUsage;
}

} // namespace

int main(int argc, char **argv) {
    ServerOptions options;
    std::string error;
    if (!parseArguments(argc, argv, options, error)) return usageError(error);
    if (options.fHelp) {
        fputs(kUsage, stdout);
        return eExitOK;
    }

    sockaddr_in v4{};
    sockaddr_in6 v6{};
    const sockaddr *address = nullptr;
    unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_ERROR_LOG;
    if (inet_pton(AF_INET, options.fBind.c_str(), &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        v4.sin_port = htons(uint16_t(options.fPort));
        address = reinterpret_cast<const sockaddr *>(&v4);
    } else if (inet_pton(AF_INET6, options.fBind.c_str(), &v6.sin6_addr) == 1) {
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(uint16_t(options.fPort));
        address = reinterpret_cast<const sockaddr *>(&v6);
        flags |= MHD_USE_IPv6;
    } else {
        return usageError("--bind takes an IPv4 or IPv6 address, not '" + options.fBind + "'");
    }

    // The library builds some process-wide tables on first use, without locks: build them
    // here, before the connection threads exist.
    hvserve::warmUp();

    // Signals are taken by sigwait below; blocking them first keeps them from the threads
    // libmicrohttpd starts, which inherit this mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    MHD_Daemon *daemon =
        MHD_start_daemon(flags, uint16_t(options.fPort), nullptr, nullptr, answer, &options,
                         MHD_OPTION_SOCK_ADDR, address, MHD_OPTION_NOTIFY_COMPLETED, requestCompleted,
                         nullptr, MHD_OPTION_CONNECTION_TIMEOUT, 60u, MHD_OPTION_END);
    if (!daemon) {
        fprintf(stderr, "hvserve: cannot listen on %s port %ld: %s\n", options.fBind.c_str(), options.fPort,
                strerror(errno));
        return eExitFailure;
    }
    const MHD_DaemonInfo *info = MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_BIND_PORT);
    unsigned port = info ? info->port : unsigned(options.fPort);
    std::string host = address->sa_family == AF_INET6 ? "[" + options.fBind + "]" : options.fBind;
    printf("%u\n", port);
    printf("hvserve: XML-RPC at http://%s:%u/RPC2, SOAP at http://%s:%u/soap\n", host.c_str(), port,
           host.c_str(), port);
    fflush(stdout);

    int received = 0;
    sigwait(&stopSignals, &received);
    if (options.fVerbose) fprintf(stderr, "hvserve: stopping on signal %d\n", received);
    hvserve::cancelSleeps();
    MHD_stop_daemon(daemon);
    return eExitOK;
}
