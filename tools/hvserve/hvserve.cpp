// hvserve: the library's embeddable server (HVServer...) with the example methods of
// ExampleMethods.h: XML-RPC on POST /RPC2, SOAP on POST /soap. This file is the options and the
// registration; HTTP, dispatch, limits and the stop are the server's.
//
// The first line on standard output is the port listened on (useful with --port 0). SIGINT and
// SIGTERM stop the server cleanly: sleeps end, running requests finish, exit status 0.
#include "ExampleMethods.h"
#include "ToolStrings.h"

#include <HalvosCore/HalvosCore.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/resource.h>
#include <string>

namespace {

const char kUsage[] =
    "usage: hvserve [options]\n"
    "\n"
    "Answers XML-RPC calls on POST /RPC2 and SOAP calls (SOAP-1999 and SOAP-2001, told apart by\n"
    "the XML Schema namespace the request declares) on POST /soap.\n"
    "Methods: examples.echo, examples.add, examples.fault, examples.types, examples.sleep, and\n"
    "system.listMethods, system.methodHelp, system.methodSignature, system.multicall.\n"
    "The first line printed is the port listened on.\n"
    "\n"
    "options:\n"
    "  --port N             listen on port N (default 8080; 0 picks a free port)\n"
    "  --bind ADDRESS       listen on ADDRESS, IPv4 or IPv6 (default 127.0.0.1)\n"
    "  --max-body BYTES     refuse larger request bodies with 413 (default 1048576)\n"
    "  --threads N          run methods on N threads (default 8; 1 runs them one at a time)\n"
    "  --max-connections N  hold at most N connections at once (default 10000)\n"
    "  --request-timeout SECONDS\n"
    "                       cut a request whose head and body take longer to arrive (default 60)\n"
    "  --tls-cert FILE      serve HTTPS with this PEM certificate (needs --tls-key)\n"
    "  --tls-key FILE       the PEM private key of the certificate\n"
    "  --user USER:PASSWORD answer only requests with these HTTP Basic credentials\n"
    "  --verbose            log one line per request on standard error\n"
    "  --help               print this help\n"
    "\n"
    "SIGINT or SIGTERM stops the server.\n";

enum { eExitOK = 0, eExitFailure = 1, eExitUsage = 2 };

struct ServeOptions {
    long fPort = 8080;
    std::string fBind = "127.0.0.1";
    unsigned long long fMaxBody = 1 << 20;
    long fThreads = 0; // 0: the server's default
    unsigned long long fMaxConnections = 10000;
    unsigned long long fRequestTimeout = 0; // 0: the server's default
    std::string fCertificateFile, fKeyFile;
    std::string fUser, fPassword;
    bool fAuthenticate = false;
    bool fVerbose = false;
    bool fHelp = false;
};

const char kHelpPage[] = "hvserve: POST XML-RPC calls to /RPC2 and SOAP calls to /soap.\n";

bool parseNumber(const char *text, unsigned long long max, unsigned long long &value) {
    char *end = nullptr;
    errno = 0;
    value = strtoull(text, &end, 10);
    return *text && *text != '-' && !*end && !errno && value <= max;
}

bool parseArguments(int argc, char **argv, ServeOptions &options, std::string &error) {
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
        } else if (arg == "--threads") {
            const char *value = next();
            if (!value) return false;
            if (!parseNumber(value, 1024, number) || number == 0) {
                error = "--threads takes a number from 1 to 1024, not '" + std::string(value) + "'";
                return false;
            }
            options.fThreads = long(number);
        } else if (arg == "--max-connections") {
            const char *value = next();
            if (!value) return false;
            if (!parseNumber(value, 1u << 20, number) || number == 0) {
                error =
                    "--max-connections takes a number from 1 to 1048576, not '" + std::string(value) + "'";
                return false;
            }
            options.fMaxConnections = number;
        } else if (arg == "--request-timeout") {
            const char *value = next();
            if (!value) return false;
            if (!parseNumber(value, 86400, number) || number == 0) {
                error = "--request-timeout takes seconds from 1 to 86400, not '" + std::string(value) + "'";
                return false;
            }
            options.fRequestTimeout = number;
        } else if (arg == "--tls-cert" || arg == "--tls-key") {
            const char *value = next();
            if (!value) return false;
            (arg == "--tls-cert" ? options.fCertificateFile : options.fKeyFile) = value;
        } else if (arg == "--user") {
            const char *value = next();
            if (!value) return false;
            const char *colon = strchr(value, ':');
            if (!colon || colon == value) {
                error = "--user takes USER:PASSWORD, not '" + std::string(value) + "'";
                return false;
            }
            options.fUser.assign(value, colon);
            options.fPassword = colon + 1;
            options.fAuthenticate = true;
        } else {
            error = "unknown argument '" + arg + "'";
            return false;
        }
    }
    if (options.fCertificateFile.empty() != options.fKeyFile.empty()) {
        error = "--tls-cert and --tls-key go together";
        return false;
    }
    return true;
}

// ---- The example methods as server methods ---------------------------------------------------

RtTypeRef runExample(HVServerRef, RtStringRef protocol, RtStringRef methodName, RtDictionaryRef parameters,
                     RtArrayRef order, RtDictionaryRef *fault, void *) {
    std::vector<RtTypeRef> params;
    for (RtIndex i = 0, n = RtArrayGetCount(order); i < n; i++)
        params.push_back(RtDictionaryGetValue(parameters, RtArrayGetValueAtIndex(order, i)));
    hvserve::MethodOutcome outcome = hvserve::runMethod(hvtools::utf8String(methodName), params, protocol);
    *fault = outcome.fFault;
    return outcome.fValue;
}

// Compares every byte, so that the time taken tells nothing about where a guess went wrong.
bool sameText(const std::string &a, const char *b) {
    size_t length = strlen(b);
    unsigned char differ = a.size() != length;
    for (size_t i = 0; i < length; i++)
        differ |= static_cast<unsigned char>(a[i % (a.size() + 1)] ^ b[i]);
    return !differ;
}

bool checkUser(HVServerRef, RtStringRef user, RtStringRef password, RtStringRef, void *info) {
    const auto &options = *static_cast<const ServeOptions *>(info);
    if (!user || !password) return false;
    bool userOK = sameText(options.fUser, hvtools::utf8String(user).c_str());
    bool passwordOK = sameText(options.fPassword, hvtools::utf8String(password).c_str());
    return userOK && passwordOK;
}

bool readFile(const std::string &path, std::string &contents) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    contents = text.str();
    return file.good() || file.eof();
}

// Sets a property from a C string or number, releasing the value made for it.
bool setText(HVServerRef server, RtStringRef key, const std::string &text) {
    RtStringRef value = hvtools::createString(text);
    bool set = HVServerSetProperty(server, key, value);
    RtRelease(value);
    return set;
}
bool setNumber(HVServerRef server, RtStringRef key, long long number) {
    RtNumberRef value = RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt64Type, &number);
    bool set = HVServerSetProperty(server, key, value);
    RtRelease(value);
    return set;
}

// Each connection takes a descriptor: raises the soft limit toward the hard one so that the
// connections asked for fit, and says so when they cannot.
void raiseDescriptorLimit(unsigned long long connections) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    rlim_t wanted = rlim_t(connections) + 64; // the listening socket, logs, the runtime's own
    if (limit.rlim_cur >= wanted) return;
    rlim_t reachable = limit.rlim_max == RLIM_INFINITY ? wanted : std::min(wanted, limit.rlim_max);
    if (reachable > limit.rlim_cur) {
        rlimit raised = limit;
        raised.rlim_cur = reachable;
        if (setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
    }
    if (limit.rlim_cur < wanted)
        fprintf(stderr, "hvserve: the descriptor limit %llu holds fewer than %llu connections\n",
                (unsigned long long)limit.rlim_cur, connections);
}

int usageError(const std::string &reason) {
    fprintf(stderr, "hvserve: %s (see hvserve --help)\n", reason.c_str());
    return eExitUsage;
}

int failure(const char *what, RtDictionaryRef error) {
    RtStringRef text =
        error ? static_cast<RtStringRef>(RtDictionaryGetValue(error, kHVFaultString)) : nullptr;
    fprintf(stderr, "hvserve: %s: %s\n", what, text ? hvtools::utf8String(text).c_str() : "unknown error");
    RtRelease(error);
    return eExitFailure;
}

} // namespace

int main(int argc, char **argv) {
    ServeOptions options;
    std::string error;
    if (!parseArguments(argc, argv, options, error)) return usageError(error);
    if (options.fHelp) {
        fputs(kUsage, stdout);
        return eExitOK;
    }

    HVServerRef server = HVServerCreate(kRtAllocatorDefault);
    for (const hvserve::MethodInfo &method : hvserve::methodList()) {
        if (strncmp(method.fName, "system.", 7) == 0) continue; // the server answers these itself
        RtStringRef name = hvtools::createString(method.fName);
        RtStringRef help = hvtools::createString(method.fHelp);
        HVServerAddMethod(server, name, runExample, nullptr, help, nullptr);
        RtRelease(help);
        RtRelease(name);
    }
    setText(server, kHVServerIndexText, kHelpPage);
    setNumber(server, kHVServerMaxBodyBytes, (long long)options.fMaxBody);
    if (options.fThreads) setNumber(server, kHVServerThreads, options.fThreads);
    setNumber(server, kHVServerMaxConnections, (long long)options.fMaxConnections);
    raiseDescriptorLimit(options.fMaxConnections);
    if (options.fRequestTimeout)
        setNumber(server, kHVServerRequestTimeout, (long long)options.fRequestTimeout);
    if (options.fVerbose) HVServerSetProperty(server, kHVServerLogRequests, kRtBooleanTrue);
    // Exact values with the XML-RPC extensions: requests using i8 or nil are read, and replies
    // carry what the methods return.
    HVServerSetProperty(server, kHVExactValues, kRtBooleanTrue);
    HVServerSetProperty(server, kHVValueExtensions, kRtBooleanTrue);
    if (!options.fCertificateFile.empty()) {
        std::string certificate, key;
        if (!readFile(options.fCertificateFile, certificate) || !readFile(options.fKeyFile, key)) {
            fprintf(stderr, "hvserve: cannot read %s or %s\n", options.fCertificateFile.c_str(),
                    options.fKeyFile.c_str());
            RtRelease(server);
            return eExitFailure;
        }
        setText(server, kHVServerTLSCertificate, certificate);
        setText(server, kHVServerTLSKey, key);
    }
    if (options.fAuthenticate) {
        HVClientContext context = {0, &options, nullptr, nullptr, nullptr};
        HVServerSetAuthentication(server, checkUser, &context);
    }

    RtDictionaryRef failed = nullptr;
    RtStringRef bind = hvtools::createString(options.fBind);
    bool listening = HVServerListen(server, bind, uint16_t(options.fPort), &failed);
    RtRelease(bind);
    if (!listening) {
        RtStringRef text =
            failed ? static_cast<RtStringRef>(RtDictionaryGetValue(failed, kHVFaultString)) : nullptr;
        std::string reason = text ? hvtools::utf8String(text) : "";
        RtRelease(failed);
        RtRelease(server);
        if (reason.compare(0, 6, "not an") == 0)
            return usageError("--bind takes an IPv4 or IPv6 address, not '" + options.fBind + "'");
        fprintf(stderr, "hvserve: %s\n", reason.c_str());
        return eExitFailure;
    }

    // Signals are taken by sigwait below; blocking them first keeps them from the threads the
    // server starts, which inherit this mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    if (!HVServerStart(server, &failed)) {
        RtRelease(server);
        return failure("cannot start", failed);
    }
    unsigned port = HVServerGetPort(server);
    bool ipv6 = options.fBind.find(':') != std::string::npos;
    std::string host = ipv6 ? "[" + options.fBind + "]" : options.fBind;
    const char *scheme = options.fCertificateFile.empty() ? "http" : "https";
    printf("%u\n", port);
    printf("hvserve: XML-RPC at %s://%s:%u/RPC2, SOAP at %s://%s:%u/soap\n", scheme, host.c_str(), port,
           scheme, host.c_str(), port);
    fflush(stdout);

    int received = 0;
    sigwait(&stopSignals, &received);
    if (options.fVerbose) fprintf(stderr, "hvserve: stopping on signal %d\n", received);
    hvserve::cancelSleeps();
    HVServerStop(server);
    RtRelease(server);
    return eExitOK;
}
