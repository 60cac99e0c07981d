/// @file
/// @ingroup HalvosCore
/// @brief How a call ends when it does not end in a value, and the record of a call.
///
/// hv::Fault is the remote method's fault (code, fault string as what(), the extra value);
/// hv::TransportError is everything that kept a usable reply from arriving (refused, time-out,
/// TLS, an HTTP error status, a reply that is not a proper reply). Both derive from hv::Error (in
/// Value.hpp), so one catch takes both. hv::CallRecord is the whole result record of one call:
/// the value or fault, and the request and response with their headers and bodies.
#ifndef HALVOSCORE_ERRORS_HPP
#define HALVOSCORE_ERRORS_HPP

#include <HalvosCore/Value.hpp>

#include <iosfwd>
#include <memory>

namespace hv {
inline namespace v1 {

/** The result record of one call (the C API's result dictionary): the value or the fault, and
 * the wire capture of the call. Cheap to copy (it shares one runtime dictionary). */
class HV_API CallRecord {
  public:
    /** An empty record (no call). */
    CallRecord() = default;
    /** The record of a result dictionary, for method called at url (both used in messages). */
    CallRecord(Ref<RtDictionaryRef> result, std::string method, std::string url);
    /** The record of a call that ended without a result dictionary (cancelled, say): error()
     * returns error. */
    static CallRecord failed(std::shared_ptr<const Error> error, std::string method, std::string url);

    /** True when no result dictionary is recorded. */
    bool empty() const noexcept { return !fResult; }
    /** True when the call ended in a fault (the server's or the transport's). */
    bool isFault() const noexcept;
    /** The method's result value; absent for a fault (and for an XML-RPC empty string reply). */
    Value result() const;
    /** The method called. */
    const std::string &method() const noexcept { return fMethod; }
    /** The endpoint called. */
    const std::string &url() const noexcept { return fURL; }
    /** The request document as sent (empty when nothing was sent). */
    std::string requestBody() const;
    /** The reply document as received (empty when none arrived). */
    std::string responseBody() const;
    /** The request's header fields, in order. */
    Record requestHeaders() const;
    /** The reply's header fields, in order (empty when no reply arrived). */
    Record responseHeaders() const;
    /** The reply's HTTP status code, or 0 when no reply arrived. */
    int httpStatus() const;
    /** The whole result dictionary as a Value (every key the C API documents). */
    Value dictionary() const { return Value::retain(fResult.get()); }
    /** The result dictionary, borrowed. */
    RtDictionaryRef get() const noexcept { return fResult.get(); }
    /** The exception this record's fault stands for (hv::Fault or hv::TransportError), or null
     * when the call succeeded. */
    std::shared_ptr<const Error> error() const;

  private:
    Ref<RtDictionaryRef> fResult;
    std::string fMethod;
    std::string fURL;
    std::shared_ptr<const Error> fError;
};

/** A fault the remote method answered with. what() is the fault string. */
class HV_API Fault : public Error {
  public:
    /** A fault with code and message; detail is the extra value (a SOAP fault's detail, say). */
    Fault(std::int32_t code, const std::string &message, Value detail = {}, std::string method = {});
    ~Fault() override;
    /** The fault code (-1 for a SOAP fault whose code is not a number). */
    std::int32_t code() const noexcept { return fCode; }
    /** The extra value sent with the fault, absent when none came. */
    const Value &detail() const noexcept { return fDetail; }
    /** The method whose call ended in this fault (empty when made by hand). */
    const std::string &method() const noexcept { return fMethod; }
    /** The call's whole record, for debugging (empty when made by hand). */
    const CallRecord &record() const noexcept { return fRecord; }
    /** Attaches the call's record. */
    void setRecord(CallRecord record) { fRecord = std::move(record); }
    [[noreturn]] void raise() const override;

  private:
    std::int32_t fCode;
    Value fDetail;
    std::string fMethod;
    CallRecord fRecord;
};

/** What kept a reply from arriving. The values never change; new ones come at the end. */
enum class TransportErrc {
    Refused = 1,        ///< nobody accepted the connection
    Resolve = 2,        ///< the host name did not resolve
    Timeout = 3,        ///< no complete reply within the time-out
    TLS = 4,            ///< the TLS handshake or certificate check failed
    HTTPStatus = 5,     ///< the server answered with an HTTP error status
    BadReply = 6,       ///< a reply came but is not a proper reply document
    ConnectionLost = 7, ///< the connection broke before the reply was complete
    Cancelled = 8,      ///< the call was cancelled (its client was destroyed with it in flight)
    Other = 9           ///< any other failure of the transport
};

/** The name of a kind ("refused", "timeout", ...). */
HV_API const char *to_string(TransportErrc kind) noexcept;
/** Prints to_string(kind). */
HV_API std::ostream &operator<<(std::ostream &out, TransportErrc kind);

/** A call that got no usable reply. what() says what happened and what to try. */
class HV_API TransportError : public Error {
  public:
    /** An error of kind with a readable message; the rest is what the transport reported. */
    TransportError(TransportErrc kind, const std::string &message, std::int32_t domain = 0,
                   std::int32_t streamCode = 0, int httpStatus = 0, std::string method = {});
    ~TransportError() override;
    /** What kind of failure. */
    TransportErrc kind() const noexcept { return fKind; }
    /** The stream error's domain (20: libcurl's codes, -1: the library's own). */
    std::int32_t domain() const noexcept { return fDomain; }
    /** The stream error's code within its domain (for domain 20, the libcurl error number). */
    std::int32_t streamCode() const noexcept { return fStreamCode; }
    /** The reply's HTTP status, or 0 when no reply arrived. */
    int httpStatus() const noexcept { return fHTTPStatus; }
    /** The method whose call failed. */
    const std::string &method() const noexcept { return fMethod; }
    /** The call's whole record, for debugging (empty when made by hand or cancelled). */
    const CallRecord &record() const noexcept { return fRecord; }
    /** Attaches the call's record. */
    void setRecord(CallRecord record) { fRecord = std::move(record); }
    [[noreturn]] void raise() const override;

  private:
    TransportErrc fKind;
    std::int32_t fDomain;
    std::int32_t fStreamCode;
    int fHTTPStatus;
    std::string fMethod;
    CallRecord fRecord;
};

} // namespace v1
} // namespace hv

#endif
