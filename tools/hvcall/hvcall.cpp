// hvcall: calls one method of an XML-RPC or SOAP endpoint from the command line, parameters
// and result as JSON. Built on the public C API only, synchronously on the main thread.
//
// Exit status: 0 the result was printed on standard output; 1 the call ended in a fault (code,
// string and extra on standard error); 2 bad usage (one line on standard error).
#include "JSONValues.h"
#include "ToolStrings.h"

#include <HalvosCore/HalvosCore.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <string>
#include <utility>
#include <vector>

namespace {

const char kUsage[] =
    "usage: hvcall [options] URL METHOD [PARAM...]\n"
    "\n"
    "Calls METHOD at the XML-RPC or SOAP endpoint URL and prints the result as JSON.\n"
    "Each PARAM is one JSON value. Values travel exactly or the call fails before anything is\n"
    "sent, with a fault naming the parameter (params[0].name[2]) and the reason:\n"
    "  42            an integer: XML-RPC <i4>; beyond 32 bits refused, <i8> with --extensions;\n"
    "                SOAP xsd:int, xsd:long beyond 32 bits\n"
    "  2.5           a double in the shortest form that reads back identical (SOAP: also\n"
    "                NaN, INF, -INF, which XML-RPC refuses)\n"
    "  \"text\"        a string; \"\" stays an empty string (not null)\n"
    "  true, false   a boolean\n"
    "  null          XML-RPC: refused, <nil/> with --extensions; SOAP: xsi:nil=\"true\"\n"
    "  [1, 2]        an array\n"
    "  {\"key\": 1}    a struct (SOAP: a record), members in key order\n"
    "  {\"$date\": \"2001-12-31T23:59:07Z\"}  a date (whole seconds)\n"
    "  {\"$base64\": \"TWFu\"}                 data\n"
    "Quote parameters for the shell: '\"text\"'. Options come before URL; \"--\" ends them.\n"
    "\n"
    "options:\n"
    "  --protocol xmlrpc|soap1999|soap2001  the protocol (default xmlrpc)\n"
    "  --timeout SECONDS       fail when no reply has come after SECONDS (whole seconds;\n"
    "                          default: wait as long as the connection lasts)\n"
    "  --header \"Name: value\"  add an HTTP header (repeatable)\n"
    "  --proxy URL             go through the HTTP proxy at URL\n"
    "  --no-redirects          do not follow HTTP redirects\n"
    "  --http1.0               speak HTTP/1.0\n"
    "  --namespace URI         SOAP: the method's namespace\n"
    "  --soap-action VALUE     SOAP: the SOAPAction header's value (default \"\"; quoted on the wire)\n"
    "  --rpc                   SOAP-2001: write the body in rpc style (SOAP-1999 always does)\n"
    "  --result-name NAME      SOAP: the reply element to take as the result\n"
    "  --param-names a,b,...   SOAP: the parameters' names (default arg0, arg1, ...);\n"
    "                          XML-RPC parameters have no names\n"
    "  --user NAME:PASSWORD    authenticate to the server (or, with --proxy-auth, the proxy)\n"
    "  --auth basic|digest|any the authentication scheme (default any: what the server offers)\n"
    "  --proxy-auth            send the --user credentials to the --proxy instead\n"
    "  --cacert FILE           trust the certificate authorities in the PEM FILE (a private CA)\n"
    "                          instead of the system's\n"
    "  --capath DIR            trust the certificate authorities in the hashed directory DIR\n"
    "  --cert FILE             present the client certificate in the PEM FILE\n"
    "  --key FILE              the PEM FILE holding that certificate's private key\n"
    "  --insecure              do not verify the server's certificate or name (unsafe)\n"
    "  --max-reply BYTES       refuse replies larger than BYTES (default 67108864, 64 MiB;\n"
    "                          0: no limit)\n"
    "  --compressed            ask for a gzip or deflate compressed reply\n"
    "  --show-wire             print the request and the reply, headers and bodies, on standard error\n"
    "  --extensions            XML-RPC: send and accept <i8> (64-bit integers) and <nil/> (null)\n"
    "  --default-values        write and read values the default way instead of exactly: integers\n"
    "                          beyond 32 bits as 0, doubles with 6 digits (SOAP 8), \"\" read as\n"
    "                          null, null written as text\n"
    "  --help                  print this help\n"
    "\n"
    "Exit status: 0 the result was printed; 1 the call ended in a fault (code, string and\n"
    "extra on standard error); 2 bad usage.\n";

enum { eExitResult = 0, eExitFault = 1, eExitUsage = 2 };

struct CallOptions {
    RtStringRef fProtocol = nullptr;
    long fTimeout = -1;
    std::vector<std::pair<std::string, std::string>> fHeaders;
    std::string fProxy;
    bool fNoRedirects = false;
    bool fHTTP10 = false;
    std::string fNamespace;
    std::string fSOAPAction; // sent quoted on SOAP calls
    bool fRPC = false;
    std::string fResultName;
    bool fHaveParamNames = false;
    std::vector<std::string> fParamNames;
    bool fShowWire = false;
    std::string fUser, fPassword, fAuthScheme;
    bool fHaveUser = false, fProxyAuth = false;
    std::string fCACert, fCAPath, fCert, fKey;
    bool fInsecure = false;
    long long fMaxReply = -1;
    bool fCompressed = false;
    bool fExtensions = false;
    bool fDefaultValues = false;
    bool fHelp = false;
    std::string fURL;
    std::string fMethod;
    std::vector<std::string> fParams;
};

// The owner of every runtime value made for one call, released together whatever the road out.
class Owned {
  public:
    Owned() = default;
    Owned(const Owned &) = delete;
    Owned &operator=(const Owned &) = delete;
    ~Owned() {
        for (RtTypeRef value : fValues)
            RtRelease(value);
    }
    template <typename T> T keep(T value) {
        if (value) fValues.push_back(value);
        return value;
    }

  private:
    std::vector<RtTypeRef> fValues;
};

// The options that take no value.
//                  option            field set
const struct {
    const char *fName;
    bool CallOptions::*fField;
} kFlags[] = {
    {"--help", &CallOptions::fHelp},
    {"--no-redirects", &CallOptions::fNoRedirects},
    {"--http1.0", &CallOptions::fHTTP10},
    {"--rpc", &CallOptions::fRPC},
    {"--show-wire", &CallOptions::fShowWire},
    {"--insecure", &CallOptions::fInsecure},
    {"--proxy-auth", &CallOptions::fProxyAuth},
    {"--compressed", &CallOptions::fCompressed},
    {"--extensions", &CallOptions::fExtensions},
    {"--default-values", &CallOptions::fDefaultValues},
};

// The options that take a file or directory path.
const struct {
    const char *fName;
    std::string CallOptions::*fField;
} kPaths[] = {
    {"--cacert", &CallOptions::fCACert},
    {"--capath", &CallOptions::fCAPath},
    {"--cert", &CallOptions::fCert},
    {"--key", &CallOptions::fKey},
};

std::vector<std::string> split(const std::string &text, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t at; (at = text.find(separator, start)) != std::string::npos; start = at + 1)
        parts.push_back(text.substr(start, at - start));
    parts.push_back(text.substr(start));
    return parts;
}

std::string trim(const std::string &text) {
    size_t first = text.find_first_not_of(" \t");
    size_t last = text.find_last_not_of(" \t");
    return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
}

bool isHTTPURL(const std::string &text) {
    return text.compare(0, 7, "http://") == 0 || text.compare(0, 8, "https://") == 0;
}

// Fills options from the command line; false with a one-line reason for bad usage.
bool parseArguments(int argc, char **argv, CallOptions &options, std::string &error) {
    int i = 1;
    for (; i < argc; i++) {
        std::string arg = argv[i];
        if (arg == "--") {
            i++;
            break;
        }
        if (arg.compare(0, 2, "--") != 0) break;
        // "--name value" and "--name=value" are the same.
        std::string name = arg, value;
        bool inlineValue = false;
        if (size_t equals = arg.find('='); equals != std::string::npos) {
            name = arg.substr(0, equals);
            value = arg.substr(equals + 1);
            inlineValue = true;
        }
        auto takeValue = [&]() {
            if (inlineValue) return true;
            if (i + 1 >= argc) {
                error = name + " needs a value";
                return false;
            }
            value = argv[++i];
            return true;
        };
        bool CallOptions::*flag = nullptr;
        for (const auto &row : kFlags)
            if (name == row.fName) flag = row.fField;
        std::string CallOptions::*path = nullptr;
        for (const auto &row : kPaths)
            if (name == row.fName) path = row.fField;

        if (flag) {
            if (inlineValue) {
                error = name + " takes no value";
                return false;
            }
            options.*flag = true;
        } else if (path) {
            if (!takeValue()) return false;
            if (value.empty()) {
                error = name + " needs a path";
                return false;
            }
            options.*path = value;
        } else if (name == "--user") {
            if (!takeValue()) return false;
            size_t colon = value.find(':');
            if (colon == std::string::npos || colon == 0) {
                error = "--user takes NAME:PASSWORD";
                return false;
            }
            options.fUser = value.substr(0, colon);
            options.fPassword = value.substr(colon + 1);
            options.fHaveUser = true;
        } else if (name == "--auth") {
            if (!takeValue()) return false;
            if (value == "basic")
                options.fAuthScheme = "Basic";
            else if (value == "digest")
                options.fAuthScheme = "Digest";
            else if (value == "any")
                options.fAuthScheme = "Any";
            else {
                error = "--auth takes basic, digest or any, not '" + value + "'";
                return false;
            }
        } else if (name == "--max-reply") {
            if (!takeValue()) return false;
            char *end = nullptr;
            errno = 0;
            long long bytes = strtoll(value.c_str(), &end, 10);
            if (value.empty() || *end || errno || bytes < 0) {
                error = "--max-reply takes a number of bytes, not '" + value + "'";
                return false;
            }
            options.fMaxReply = bytes;
        } else if (name == "--protocol") {
            if (!takeValue()) return false;
            if (value == "xmlrpc")
                options.fProtocol = kHVXMLRPCProtocol;
            else if (value == "soap1999")
                options.fProtocol = kHVSOAP1999Protocol;
            else if (value == "soap2001")
                options.fProtocol = kHVSOAP2001Protocol;
            else {
                error = "unknown protocol '" + value + "' (xmlrpc, soap1999 or soap2001)";
                return false;
            }
        } else if (name == "--timeout") {
            if (!takeValue()) return false;
            char *end = nullptr;
            errno = 0;
            long seconds = strtol(value.c_str(), &end, 10);
            if (value.empty() || *end || errno || seconds < 0 || seconds > INT32_MAX) {
                error = "--timeout takes whole seconds, not '" + value + "'";
                return false;
            }
            options.fTimeout = seconds;
        } else if (name == "--header") {
            if (!takeValue()) return false;
            size_t colon = value.find(':');
            std::string headerName =
                colon == std::string::npos ? std::string() : trim(value.substr(0, colon));
            if (headerName.empty() || headerName.find_first_of(" \t") != std::string::npos) {
                error = "--header takes \"Name: value\", not '" + value + "'";
                return false;
            }
            options.fHeaders.emplace_back(headerName, trim(value.substr(colon + 1)));
        } else if (name == "--proxy") {
            if (!takeValue()) return false;
            if (!isHTTPURL(value)) {
                error = "--proxy takes an http:// URL, not '" + value + "'";
                return false;
            }
            options.fProxy = value;
        } else if (name == "--namespace") {
            if (!takeValue()) return false;
            options.fNamespace = value;
        } else if (name == "--soap-action") {
            if (!takeValue()) return false;
            options.fSOAPAction = value;
        } else if (name == "--result-name") {
            if (!takeValue()) return false;
            options.fResultName = value;
        } else if (name == "--param-names") {
            if (!takeValue()) return false;
            options.fHaveParamNames = true;
            options.fParamNames = value.empty() ? std::vector<std::string>() : split(value, ',');
        } else {
            error = "unknown option '" + name + "'";
            return false;
        }
    }
    if (options.fHelp) return true;
    if (!options.fHaveUser && (options.fProxyAuth || !options.fAuthScheme.empty())) {
        error = "--auth and --proxy-auth need --user";
        return false;
    }
    if (options.fProxyAuth && options.fProxy.empty()) {
        error = "--proxy-auth needs --proxy";
        return false;
    }
    if (options.fKey.size() && options.fCert.empty()) {
        error = "--key needs --cert";
        return false;
    }
    if (argc - i < 2) {
        error = "URL and METHOD are required";
        return false;
    }
    options.fURL = argv[i++];
    options.fMethod = argv[i++];
    options.fParams.assign(argv + i, argv + argc);
    if (!isHTTPURL(options.fURL)) {
        error = "the URL must start with http:// or https://, not '" + options.fURL + "'";
        return false;
    }
    if (options.fMethod.empty()) {
        error = "the METHOD is empty";
        return false;
    }
    if (options.fHaveParamNames) {
        if (options.fParamNames.size() != options.fParams.size()) {
            error = "--param-names gives " + std::to_string(options.fParamNames.size()) + " names for " +
                    std::to_string(options.fParams.size()) + " parameters";
            return false;
        }
        for (size_t a = 0; a < options.fParamNames.size(); a++) {
            if (options.fParamNames[a].empty()) {
                error = "--param-names holds an empty name";
                return false;
            }
            for (size_t b = 0; b < a; b++)
                if (options.fParamNames[a] == options.fParamNames[b]) {
                    error = "--param-names names '" + options.fParamNames[a] + "' twice";
                    return false;
                }
        }
    } else {
        for (size_t n = 0; n < options.fParams.size(); n++)
            options.fParamNames.push_back("arg" + std::to_string(n));
    }
    if (!options.fProtocol) options.fProtocol = kHVXMLRPCProtocol;
    return true;
}

// Prints text line by line behind a direction marker ("> " going out, "< " coming back). The
// debug bodies have each line end turned into two line feeds, so blank lines are left out.
void printMarked(const char *marker, const std::string &text) {
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.find_first_not_of(" \t") != std::string::npos)
            fprintf(stderr, "%s%s\n", marker, line.c_str());
        if (end == std::string::npos) break;
        start = end + 1;
    }
}

void printHeaders(const char *marker, RtTypeRef headers) {
    if (RtGetTypeID(headers) != RtDictionaryGetTypeID()) return;
    RtDictionaryRef dictionary = static_cast<RtDictionaryRef>(headers);
    std::vector<const void *> names(size_t(RtDictionaryGetCount(dictionary)));
    std::vector<const void *> values(names.size());
    RtDictionaryGetKeysAndValues(dictionary, names.data(), values.data());
    for (size_t i = 0; i < names.size(); i++)
        fprintf(stderr, "%s%s: %s\n", marker, hvtools::describe(names[i]).c_str(),
                hvtools::describe(values[i]).c_str());
}

std::string bodyText(RtTypeRef body) {
    if (RtGetTypeID(body) == RtDataGetTypeID()) {
        RtDataRef data = static_cast<RtDataRef>(body);
        return std::string(reinterpret_cast<const char *>(RtDataGetBytePtr(data)),
                           size_t(RtDataGetLength(data)));
    }
    return body ? hvtools::describe(body) : std::string();
}

// url with the password of its user-info part (if any) replaced by "***".
std::string withoutPassword(const std::string &url) {
    size_t scheme = url.find("://");
    if (scheme == std::string::npos) return url;
    size_t authority = scheme + 3;
    size_t end = url.find_first_of("/?#", authority);
    size_t at = url.rfind('@', end == std::string::npos ? url.size() : end);
    if (at == std::string::npos || at < authority) return url;
    size_t colon = url.find(':', authority);
    if (colon == std::string::npos || colon > at) return url;
    return url.substr(0, colon + 1) + "***" + url.substr(at);
}

// The exchange as the transport recorded it in the result's debug entries.
void printWire(RtDictionaryRef result, const CallOptions &options) {
    fprintf(stderr, "> POST %s %s\n", withoutPassword(options.fURL).c_str(),
            options.fHTTP10 ? "HTTP/1.0" : "HTTP/1.1");
    printHeaders("> ", RtDictionaryGetValue(result, kHVDebugOutgoingHeaders));
    fprintf(stderr, ">\n");
    printMarked("> ", bodyText(RtDictionaryGetValue(result, kHVDebugOutgoingBody)));

    auto response = (RtHTTPMessageRef)RtDictionaryGetValue(result, kHVHTTPResponseMessage);
    if (!response) {
        fprintf(stderr, "< (no response)\n");
        return;
    }
    RtStringRef statusLine = RtHTTPMessageCopyResponseStatusLine(response);
    fprintf(stderr, "< %s\n", hvtools::utf8String(statusLine).c_str());
    RtRelease(statusLine);
    printHeaders("< ", RtDictionaryGetValue(result, kHVDebugIncomingHeaders));
    fprintf(stderr, "<\n");
    printMarked("< ", bodyText(RtDictionaryGetValue(result, kHVDebugIncomingBody)));
}

void printFault(RtDictionaryRef result) {
    int32_t code = 0;
    auto number = static_cast<RtNumberRef>(RtDictionaryGetValue(result, kHVFaultCode));
    if (RtGetTypeID(number) == RtNumberGetTypeID()) RtNumberGetValue(number, kRtNumberSInt32Type, &code);
    RtTypeRef string = RtDictionaryGetValue(result, kHVFaultString);
    fprintf(stderr, "hvcall: fault %d: %s\n", code,
            string ? hvtools::describe(string).c_str() : "(no fault string)");
    if (RtTypeRef extra = RtDictionaryGetValue(result, kHVFaultExtra)) {
        fprintf(stderr, "hvcall: fault extra: %s\n", hvtools::jsonFromValue(extra).c_str());
        // What went wrong in words, on a line of its own.
        RtTypeRef detail =
            RtGetTypeID(extra) == RtDictionaryGetTypeID()
                ? RtDictionaryGetValue(static_cast<RtDictionaryRef>(extra), kHVStreamErrorDetail)
                : nullptr;
        if (RtGetTypeID(detail) == RtStringGetTypeID())
            fprintf(stderr, "hvcall: %s\n", hvtools::describe(detail).c_str());
    }
}

int usageError(const std::string &reason) {
    fprintf(stderr, "hvcall: %s (see hvcall --help)\n", reason.c_str());
    return eExitUsage;
}

// Sets a property from a new value and lets owned release it.
void setProperty(HVMethodInvocationRef invocation, RtStringRef name, RtTypeRef value, Owned &owned) {
    HVMethodInvocationSetProperty(invocation, name, owned.keep(value));
}

int call(const CallOptions &options) {
    Owned owned;
    RtStringRef urlText = owned.keep(hvtools::createString(options.fURL));
    RtURLRef url =
        owned.keep(urlText ? RtURLCreateWithString(kRtAllocatorDefault, urlText, nullptr) : nullptr);
    if (!url) return usageError("'" + options.fURL + "' is not a URL");
    RtStringRef method = owned.keep(hvtools::createString(options.fMethod));
    if (!method) return usageError("the METHOD is not valid UTF-8");

    RtMutableDictionaryRef params = owned.keep(RtDictionaryCreateMutable(
        kRtAllocatorDefault, 0, &kRtCopyStringDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks));
    RtMutableArrayRef order =
        owned.keep(RtArrayCreateMutable(kRtAllocatorDefault, 0, &kRtTypeArrayCallBacks));
    for (size_t n = 0; n < options.fParams.size(); n++) {
        std::string error;
        RtTypeRef value = owned.keep(hvtools::createValueFromJSON(options.fParams[n], error));
        RtStringRef name = owned.keep(hvtools::createString(options.fParamNames[n]));
        if (!value)
            return usageError("parameter " + std::to_string(n + 1) + " (" + options.fParams[n] +
                              "): " + error);
        if (!name) return usageError("a parameter name is not valid UTF-8");
        RtDictionarySetValue(params, name, value);
        RtArrayAppendValue(order, name);
    }

    HVMethodInvocationRef invocation = owned.keep(HVMethodInvocationCreate(url, method, options.fProtocol));
    if (!invocation) return usageError("cannot make an invocation for '" + options.fURL + "'");
    HVMethodInvocationSetParameters(invocation, params, order);
    // A command-line user never wants a silent change: exact unless asked otherwise.
    if (!options.fDefaultValues) HVMethodInvocationSetProperty(invocation, kHVExactValues, kRtBooleanTrue);
    if (options.fExtensions) HVMethodInvocationSetProperty(invocation, kHVValueExtensions, kRtBooleanTrue);

    if (options.fTimeout >= 0) {
        int32_t seconds = int32_t(options.fTimeout);
        setProperty(invocation, kHVMethodInvocationTimeoutValue,
                    RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt32Type, &seconds), owned);
    }
    // SOAP servers dispatch on SOAPAction or expect it present: every SOAP call carries one,
    // unless a --header names it.
    std::vector<std::pair<std::string, std::string>> fields = options.fHeaders;
    bool hasAction = false;
    for (const auto &header : fields)
        hasAction |= strcasecmp(header.first.c_str(), "SOAPAction") == 0;
    if (options.fProtocol != kHVXMLRPCProtocol && !hasAction)
        fields.emplace_back("SOAPAction", "\"" + options.fSOAPAction + "\"");
    if (!fields.empty()) {
        RtMutableDictionaryRef headers = owned.keep(RtDictionaryCreateMutable(
            kRtAllocatorDefault, 0, &kRtCopyStringDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks));
        for (const auto &header : fields) {
            RtStringRef name = owned.keep(hvtools::createString(header.first));
            RtStringRef value = owned.keep(hvtools::createString(header.second));
            if (!name || !value) return usageError("a header is not valid UTF-8");
            RtDictionarySetValue(headers, name, value);
        }
        HVMethodInvocationSetProperty(invocation, kHVHTTPExtraHeaders, headers);
    }
    if (!options.fProxy.empty()) {
        RtStringRef text = owned.keep(hvtools::createString(options.fProxy));
        RtURLRef proxy =
            owned.keep(text ? RtURLCreateWithString(kRtAllocatorDefault, text, nullptr) : nullptr);
        if (!proxy) return usageError("'" + options.fProxy + "' is not a URL");
        HVMethodInvocationSetProperty(invocation, kHVHTTPProxy, proxy);
    }
    if (options.fNoRedirects)
        HVMethodInvocationSetProperty(invocation, kHVHTTPFollowsRedirects, kRtBooleanFalse);
    if (options.fHTTP10) HVMethodInvocationSetProperty(invocation, kHVHTTPVersion, kRtHTTPVersion1_0);
    if (options.fHaveUser) {
        RtMutableDictionaryRef auth = owned.keep(RtDictionaryCreateMutable(
            kRtAllocatorDefault, 0, &kRtTypeDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks));
        RtStringRef user = owned.keep(hvtools::createString(options.fUser));
        RtStringRef password = owned.keep(hvtools::createString(options.fPassword));
        if (!user || !password) return usageError("--user is not valid UTF-8");
        RtDictionarySetValue(auth, kHVAuthInfo_user, user);
        RtDictionarySetValue(auth, kHVAuthInfo_password, password);
        if (!options.fAuthScheme.empty())
            RtDictionarySetValue(auth, kHVAuthInfo_authScheme,
                                 owned.keep(hvtools::createString(options.fAuthScheme)));
        if (options.fProxyAuth) RtDictionarySetValue(auth, kHVAuthInfo_forProxy, kRtBooleanTrue);
        HVMethodInvocationSetProperty(invocation, kHVAuthInfo, auth);
    }
    //             option value          property
    const std::pair<const std::string *, RtStringRef> tlsPaths[] = {{&options.fCACert, kHVTLSCAFile},
                                                                    {&options.fCAPath, kHVTLSCADirectory},
                                                                    {&options.fCert, kHVTLSClientCertificate},
                                                                    {&options.fKey, kHVTLSClientKey}};
    for (const auto &tls : tlsPaths) {
        if (tls.first->empty()) continue;
        RtStringRef text = hvtools::createString(*tls.first);
        if (!text) return usageError("a path is not valid UTF-8");
        setProperty(invocation, tls.second, text, owned);
    }
    if (options.fInsecure) HVMethodInvocationSetProperty(invocation, kHVTLSVerifyPeer, kRtBooleanFalse);
    if (options.fMaxReply >= 0) {
        int64_t bytes = options.fMaxReply;
        setProperty(invocation, kHVHTTPMaxReplyLength,
                    RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt64Type, &bytes), owned);
    }
    if (options.fCompressed)
        HVMethodInvocationSetProperty(invocation, kHVHTTPAcceptCompression, kRtBooleanTrue);
    if (!options.fNamespace.empty())
        setProperty(invocation, kHVSOAPMethodNamespaceURI, hvtools::createString(options.fNamespace), owned);
    if (options.fRPC) HVMethodInvocationSetProperty(invocation, kHVSOAPBodyEncodingStyle, kHVSOAPStyleRPC);
    if (!options.fResultName.empty())
        setProperty(invocation, kHVMethodInvocationResultParameterName,
                    hvtools::createString(options.fResultName), owned);

    RtDictionaryRef result = owned.keep(HVMethodInvocationInvoke(invocation));
    if (!result) {
        fprintf(stderr, "hvcall: the call delivered no result\n");
        return eExitFault;
    }
    if (options.fShowWire) printWire(result, options);
    if (HVMethodResultIsFault(result)) {
        printFault(result);
        return eExitFault;
    }
    // A reply without a value (an empty XML-RPC string, say) prints as null.
    printf("%s\n",
           hvtools::jsonFromValue(RtDictionaryGetValue(result, kHVMethodInvocationResult), 2).c_str());
    return eExitResult;
}

} // namespace

int main(int argc, char **argv) {
    CallOptions options;
    std::string error;
    if (!parseArguments(argc, argv, options, error)) return usageError(error);
    if (options.fHelp) {
        fputs(kUsage, stdout);
        return eExitResult;
    }
    int status = call(options);
    fflush(stdout);
    return status;
}
