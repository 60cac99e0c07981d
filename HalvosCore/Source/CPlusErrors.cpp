// CPlusErrors: hv::CallRecord, hv::Fault and hv::TransportError; how a fault result dictionary
// becomes the exception a C++ caller sees, with a message a person can act on.
#include <HalvosCore/Errors.hpp>

#include <ostream>

namespace hv {
inline namespace v1 {

namespace {

// The library's own transport fault code and stream error codes.
constexpr std::int32_t kStreamFaultCode = -65794;
constexpr std::int32_t kUnacceptableReply = -65795;
constexpr std::int32_t kTimedOut = -65796;

// libcurl error numbers the stream reports in its domain (20).
enum : std::int32_t {
    kCurlUnsupportedProtocol = 1,
    kCurlCouldNotResolveProxy = 5,
    kCurlCouldNotResolveHost = 6,
    kCurlCouldNotConnect = 7,
    kCurlPartialFile = 18,
    kCurlOperationTimedOut = 28,
    kCurlSSLConnectError = 35,
    kCurlTooManyRedirects = 47,
    kCurlGotNothing = 52,
    kCurlSendError = 55,
    kCurlRecvError = 56,
    kCurlPeerFailedVerification = 60,
};

bool isTLSCode(std::int32_t code) {
    // Handshake, certificates, keys, CA files, pinning, revocation: libcurl's TLS error numbers.
    static const std::int32_t kCodes[] = {35, 53, 54, 58, 59, 60, 64, 66, 77, 80, 82, 83, 90, 91, 98};
    for (std::int32_t known : kCodes)
        if (code == known) return true;
    return false;
}

std::string text(RtTypeRef value) {
    if (!value) return {};
    if (RtGetTypeID(value) == RtStringGetTypeID()) return Value::retain(value).as<std::string>();
    return Value::retain(value).description();
}

std::int32_t number(RtTypeRef value) {
    std::int32_t out = 0;
    if (RtGetTypeID(value) == RtNumberGetTypeID())
        RtNumberGetValue(static_cast<RtNumberRef>(value), kRtNumberSInt32Type, &out);
    return out;
}

RtTypeRef member(RtDictionaryRef dictionary, RtStringRef key) {
    return RtGetTypeID(dictionary) == RtDictionaryGetTypeID() ? RtDictionaryGetValue(dictionary, key)
                                                              : nullptr;
}

Record headerRecord(RtTypeRef headers) {
    if (RtGetTypeID(headers) != RtDictionaryGetTypeID()) return {};
    return Value::retain(headers).as<Record>();
}

} // namespace

// ---- CallRecord -----------------------------------------------------------------------------

CallRecord::CallRecord(Ref<RtDictionaryRef> result, std::string method, std::string url)
    : fResult(std::move(result)), fMethod(std::move(method)), fURL(std::move(url)) {}

CallRecord CallRecord::failed(std::shared_ptr<const Error> error, std::string method, std::string url) {
    CallRecord record(nullptr, std::move(method), std::move(url));
    record.fError = std::move(error);
    return record;
}

bool CallRecord::isFault() const noexcept {
    return fError || HVMethodResultIsFault(fResult.get());
}

Value CallRecord::result() const {
    if (!fResult || isFault()) return {};
    return Value::retain(RtDictionaryGetValue(fResult.get(), kHVMethodInvocationResult));
}

std::string CallRecord::requestBody() const {
    return text(member(fResult.get(), kHVDebugOutgoingBody));
}
std::string CallRecord::responseBody() const {
    return text(member(fResult.get(), kHVDebugIncomingBody));
}
Record CallRecord::requestHeaders() const {
    return headerRecord(member(fResult.get(), kHVDebugOutgoingHeaders));
}
Record CallRecord::responseHeaders() const {
    return headerRecord(member(fResult.get(), kHVDebugIncomingHeaders));
}

int CallRecord::httpStatus() const {
    RtTypeRef response = member(fResult.get(), kHVHTTPResponseMessage);
    if (RtGetTypeID(response) != RtHTTPMessageGetTypeID()) return 0;
    return int(
        RtHTTPMessageGetResponseStatusCode(static_cast<RtHTTPMessageRef>(const_cast<void *>(response))));
}

std::shared_ptr<const Error> CallRecord::error() const {
    if (fError) return fError;
    if (!fResult)
        return std::make_shared<TransportError>(TransportErrc::Other, "no call was made", 0, 0, 0, fMethod);
    if (!isFault()) return nullptr;
    RtDictionaryRef result = fResult.get();
    std::int32_t code = number(RtDictionaryGetValue(result, kHVFaultCode));
    RtTypeRef faultString = RtDictionaryGetValue(result, kHVFaultString);
    RtTypeRef extra = RtDictionaryGetValue(result, kHVFaultExtra);
    if (code != kStreamFaultCode || !RtEqual(faultString, kHVNetworkStreamFaultString)) {
        auto fault = std::make_shared<Fault>(code, text(faultString), Value::retain(extra), fMethod);
        fault->setRecord(*this);
        return fault;
    }

    auto stream = static_cast<RtDictionaryRef>(extra);
    std::string message = text(member(stream, kHVStreamErrorMessage));
    std::int32_t domain = number(member(stream, kHVStreamErrorDomain));
    std::int32_t error = number(member(stream, kHVStreamErrorError));
    std::string detail =
        text(member(stream, RTSTR("detail"))); // libcurl's own words, when the transport has them
    int status = httpStatus();
    const std::string where = fURL.empty() ? std::string("the server") : fURL;

    TransportErrc kind = TransportErrc::Other;
    std::string what;
    if (error == kTimedOut || (domain == kRtStreamErrorDomainCurl && error == kCurlOperationTimedOut)) {
        kind = TransportErrc::Timeout;
        what = "no complete reply from " + where +
               " within the time-out (raise it with setTimeout, or check the server)";
    } else if (domain == kRtStreamErrorDomainCurl && error == kCurlCouldNotConnect) {
        kind = TransportErrc::Refused;
        what = "could not connect to " + where + " (is a server listening at that host and port?)";
    } else if (domain == kRtStreamErrorDomainCurl &&
               (error == kCurlCouldNotResolveHost || error == kCurlCouldNotResolveProxy)) {
        kind = TransportErrc::Resolve;
        what = std::string("could not resolve the ") +
               (error == kCurlCouldNotResolveProxy ? "proxy's" : "host") + " name for " + where +
               " (check the spelling and the network's name service)";
    } else if (domain == kRtStreamErrorDomainCurl && isTLSCode(error)) {
        kind = TransportErrc::TLS;
        what = "TLS with " + where + " failed" +
               (error == kCurlPeerFailedVerification
                    ? " (the server's certificate did not verify)"
                    : (error == kCurlSSLConnectError ? " (the handshake failed)" : ""));
    } else if (domain == kRtStreamErrorDomainCurl && (error == kCurlGotNothing || error == kCurlRecvError ||
                                                      error == kCurlSendError || error == kCurlPartialFile)) {
        kind = TransportErrc::ConnectionLost;
        what = "the connection to " + where + " broke before a complete reply arrived";
    } else if (status != 0 && (status < 200 || status >= 300)) {
        kind = TransportErrc::HTTPStatus;
        what = where + " answered with HTTP status " + std::to_string(status) +
               (message.empty() ? std::string() : " (" + message + ")") +
               "; check the URL's path and the server";
    } else if (error == kUnacceptableReply || domain == kRtStreamErrorDomainOSStatus) {
        kind = TransportErrc::BadReply;
        what = "the reply from " + where + " is not a proper reply: " + message;
    } else {
        if (domain == kRtStreamErrorDomainCurl && error == kCurlTooManyRedirects)
            message = "too many redirects";
        else if (domain == kRtStreamErrorDomainCurl && error == kCurlUnsupportedProtocol)
            message = "not an HTTP reply, or a URL scheme the transport does not speak";
        what = "the call to " + where + " failed: " + (message.empty() ? "transport error" : message) +
               " (domain " + std::to_string(domain) + ", code " + std::to_string(error) + ")";
    }
    if (!detail.empty()) what += ": " + detail;
    if (!fMethod.empty()) what = fMethod + ": " + what;
    auto failure = std::make_shared<TransportError>(kind, what, domain, error, status, fMethod);
    failure->setRecord(*this);
    return failure;
}

// ---- Fault ----------------------------------------------------------------------------------

Fault::Fault(std::int32_t code, const std::string &message, Value detail, std::string method)
    : Error(message), fCode(code), fDetail(std::move(detail)), fMethod(std::move(method)) {}
Fault::~Fault() = default;
void Fault::raise() const {
    throw *this;
}

// ---- TransportError -------------------------------------------------------------------------

const char *to_string(TransportErrc kind) noexcept {
    switch (kind) {
    case TransportErrc::Refused:
        return "refused";
    case TransportErrc::Resolve:
        return "resolve";
    case TransportErrc::Timeout:
        return "timeout";
    case TransportErrc::TLS:
        return "tls";
    case TransportErrc::HTTPStatus:
        return "http-status";
    case TransportErrc::BadReply:
        return "bad-reply";
    case TransportErrc::ConnectionLost:
        return "connection-lost";
    case TransportErrc::Cancelled:
        return "cancelled";
    case TransportErrc::Other:
        break;
    }
    return "other";
}

std::ostream &operator<<(std::ostream &out, TransportErrc kind) {
    return out << to_string(kind);
}

TransportError::TransportError(TransportErrc kind, const std::string &message, std::int32_t domain,
                               std::int32_t streamCode, int httpStatus, std::string method)
    : Error(message), fKind(kind), fDomain(domain), fStreamCode(streamCode), fHTTPStatus(httpStatus),
      fMethod(std::move(method)) {}
TransportError::~TransportError() = default;
void TransportError::raise() const {
    throw *this;
}

} // namespace v1
} // namespace hv
