/// @file
/// @ingroup HalvosCore
/// @brief Calls: hv::Client, hv::Result and hv::RunLoop.
///
/// hv::Client calls one endpoint synchronously, on the caller's run loop, or through
/// std::future; hv::Result is the non-throwing outcome of a call; hv::RunLoop runs the calling
/// thread's run loop until calls have completed.
///
/// @code
/// hv::Client client{"http://127.0.0.1:8080/RPC2"};
/// int sum = client.call<int>("examples.add", 2, 3);
/// @endcode
///
/// Arguments are converted to hv::Value on the calling thread before anything is sent, so a
/// conversion error throws at once and nothing a std::string_view points to needs to outlive the
/// call. Positional arguments are XML-RPC params; hv::arg(name, value) names a SOAP parameter
/// (unnamed SOAP parameters are called arg0, arg1, ... by position, as hvcall does). A client
/// belongs to one thread at a time, like the invocations it makes.
#ifndef HALVOSCORE_CLIENT_HPP
#define HALVOSCORE_CLIENT_HPP

#include <HalvosCore/Errors.hpp>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace hv {
inline namespace v1 {

/** The protocol a client speaks. */
enum class Protocol {
    XMLRPC,   ///< XML-RPC (the default)
    SOAP1999, ///< SOAP 1.1 with the 1999 XML Schema flavour
    SOAP2001  ///< SOAP 1.1 with the 2001 XML Schema flavour
};

/** The HTTP version of requests. */
enum class HTTPVersion {
    HTTP1_0, ///< HTTP/1.0
    HTTP1_1  ///< HTTP/1.1 (the default)
};

/** How a SOAP-2001 body is written. */
enum class SOAPStyle {
    Document, ///< the method element without a prefix (the default)
    RPC       ///< the method element with the m: prefix (SOAP-1999 always writes it so)
};

/** One argument of a call: a name (empty: named by position) and a value. */
struct Argument {
    std::string name; ///< the parameter's name; empty for a positional argument
    Value value;      ///< the parameter's value
};

/** A named argument: hv::arg("count", 3). SOAP sends it as an element of that name. */
template <class T> Argument arg(std::string name, T &&value) {
    return Argument{std::move(name), Value(std::forward<T>(value))};
}

/** The outcome of a call that does not throw: a value of type R, or the error the call ended in.
 * Its explicit bool means success; value() gives the value or throws the error (hv::Fault,
 * hv::TransportError or hv::ConversionError), which bridges the two styles. */
template <class R> class [[nodiscard]] Result {
  public:
    /** The outcome of the call recorded in record, its result converted to R. */
    static Result fromRecord(CallRecord record);
    /** True when the call succeeded and its result converted to R. */
    explicit operator bool() const noexcept { return !fError; }
    /** The value; throws the error when the call failed. */
    const R &value() const & {
        if (fError) fError->raise();
        return *fValue;
    }
    /** The value, moved out; throws the error when the call failed. */
    R &&value() && {
        if (fError) fError->raise();
        return std::move(*fValue);
    }
    /** The error, or nullptr on success. */
    const Error *error() const noexcept { return fError.get(); }
    /** The fault when the server answered with one, else nullptr. */
    const Fault *fault() const noexcept { return dynamic_cast<const Fault *>(fError.get()); }
    /** The transport error when no usable reply came, else nullptr. */
    const TransportError *transportError() const noexcept {
        return dynamic_cast<const TransportError *>(fError.get());
    }
    /** The call's whole record (request and reply, headers and bodies), for debugging. */
    const CallRecord &record() const noexcept { return fRecord; }

  private:
    std::optional<R> fValue;
    std::shared_ptr<const Error> fError;
    CallRecord fRecord;
};

/** The outcome of a call whose result is not wanted. */
template <> class [[nodiscard]] Result<void> {
  public:
    /** The outcome of the call recorded in record. */
    static Result fromRecord(CallRecord record) {
        Result result;
        result.fError = record.error();
        result.fRecord = std::move(record);
        return result;
    }
    /** True when the call succeeded. */
    explicit operator bool() const noexcept { return !fError; }
    /** Throws the error when the call failed. */
    void value() const {
        if (fError) fError->raise();
    }
    /** The error, or nullptr on success. */
    const Error *error() const noexcept { return fError.get(); }
    /** The fault when the server answered with one, else nullptr. */
    const Fault *fault() const noexcept { return dynamic_cast<const Fault *>(fError.get()); }
    /** The transport error when no usable reply came, else nullptr. */
    const TransportError *transportError() const noexcept {
        return dynamic_cast<const TransportError *>(fError.get());
    }
    /** The call's whole record, for debugging. */
    const CallRecord &record() const noexcept { return fRecord; }

  private:
    std::shared_ptr<const Error> fError;
    CallRecord fRecord;
};

// The record is moved into the result at the end; the lint misses that in a template.
template <class R>
Result<R> Result<R>::fromRecord(CallRecord record) { // NOLINT(performance-unnecessary-value-param)
    Result result;
    result.fError = record.error();
    if (!result.fError) {
        try {
            result.fValue.emplace(record.result().template as<R>());
        } catch (ConversionError &error) {
            error.prependPath("result");
            result.fError = std::make_shared<ConversionError>(error);
        }
    }
    result.fRecord = std::move(record);
    return result;
}

/// \cond HV_INTERNAL
namespace detail {
struct ClientState;
struct CallFlag;

// Converts one argument of a call; position i names it in an error's path.
template <class T> Argument packArgument(std::size_t i, T &&value) {
    try {
        if constexpr (std::is_same_v<std::decay_t<T>, Argument>)
            return Argument(std::forward<T>(value));
        else
            return Argument{std::string(), Value(std::forward<T>(value))};
    } catch (ConversionError &error) {
        error.prependPath("params[" + std::to_string(i) + "]");
        throw;
    }
}

template <class... Args> std::vector<Argument> pack(Args &&...args) {
    std::vector<Argument> packed;
    packed.reserve(sizeof...(Args));
    std::size_t i = 0;
    (packed.push_back(packArgument(i++, std::forward<Args>(args))), ...);
    return packed;
}
} // namespace detail
/// \endcond

/** A call started with Client::callAsync: tells whether it has completed. Cheap to copy. */
class HV_API CallHandle {
  public:
    /** A handle of no call (always done). */
    CallHandle() = default;
    /** True once the call's callback has run (or the call was cancelled). */
    bool done() const noexcept;

  private:
    friend struct detail::ClientState;
    std::shared_ptr<detail::CallFlag> fFlag;
};

/** A client of one endpoint. Properties are set once with the named setters and apply to every
 * call that follows. Exact values are on by default (a double goes out with every digit, an
 * integer beyond 32 bits is refused unless extensions are allowed): see setExact.
 *
 * Threads: synchronous calls and callAsync with a callback run on the calling thread's run loop;
 * the std::future form of callAsync runs its calls on a thread the client starts on first use.
 * Destroying a client cancels the calls still in flight: their callbacks run at once, from the
 * destructor, with a TransportError of kind Cancelled, and their futures hold that error. */
class HV_API Client {
  public:
    /** A client of url (http or https) speaking protocol; throws std::invalid_argument when url
     * is not a URL. */
    explicit Client(const std::string &url, Protocol protocol = Protocol::XMLRPC);
    /** Cancels the calls in flight (see the class comment). */
    ~Client();
    /** Takes over other's properties and calls; other may only be destroyed or assigned. */
    Client(Client &&other) noexcept;
    /** Takes over other's properties and calls, cancelling this client's own first. */
    Client &operator=(Client &&other) noexcept;
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    /** The endpoint. */
    const std::string &url() const;
    /** The protocol. */
    Protocol protocol() const;

    /** Calls fail with a TransportError of kind Timeout when no complete reply came within
     * timeout (rounded up to whole seconds; zero or less: no limit, the default). */
    template <class Rep, class Period> Client &setTimeout(std::chrono::duration<Rep, Period> timeout) {
        return setTimeoutMilliseconds(std::chrono::ceil<std::chrono::milliseconds>(timeout).count());
    }
    /** Sends the header name: value with every request, replacing the library's own value of
     * that name; an empty value removes a header set before. Throws std::invalid_argument for a
     * name that is not an HTTP token or a value holding a line break. */
    Client &setHeader(const std::string &name, const std::string &value);
    /** The HTTP version of requests (default HTTP/1.1). */
    Client &setHTTPVersion(HTTPVersion version);
    /** Sends requests through the HTTP proxy at url; empty: none (the default). */
    Client &setProxy(const std::string &url);
    /** Whether redirects are followed (default true). */
    Client &setFollowRedirects(bool follow);
    /** SOAP: the namespace URI of the method element. */
    Client &setNamespace(const std::string &uri);
    /** SOAP: the SOAPAction header's value, sent quoted. A SOAP client sends "" until this or
     * setHeader("SOAPAction", ...) says otherwise (an empty setHeader value removes it). */
    Client &setSOAPAction(const std::string &action);
    /** SOAP-2001: the body style (default Document). */
    Client &setSOAPStyle(SOAPStyle style);
    /** SOAP: the reply element taken as the result; empty: a dictionary of all of them. */
    Client &setResultName(const std::string &name);
    /** Exact values (default on): every value travels exactly or the call fails before sending.
     * Off gives the C API's default writing and reading. */
    Client &setExact(bool exact);
    /** XML-RPC extensions (default off): i8 and nil are read, and written where a value needs
     * them. */
    Client &setExtensions(bool extensions);
    /** Sets any invocation property (key: one of the kHV... property constants); an absent
     * value removes it. */
    Client &setProperty(RtStringRef key, const Value &value);
    /** Values of runtime type type are written by write: the text it returns goes into the
     * document verbatim, as for HVMethodInvocationAddSerializationOverride; std::nullopt lets the
     * normal writing run. An exception write throws is rethrown by the synchronous call that
     * wrote the value. */
    Client &addSerializationOverride(RtTypeID type,
                                     std::function<std::optional<std::string>(const Value &)> write);

    /** Calls method with args and returns its result converted to R (void: discarded, Value: as
     * it came). Throws hv::Fault, hv::TransportError or hv::ConversionError. */
    template <class R = Value, class... Args> R call(std::string_view method, Args &&...args) {
        if constexpr (std::is_void_v<R>)
            Result<void>::fromRecord(callValues(method, detail::pack(std::forward<Args>(args)...))).value();
        else
            return Result<R>::fromRecord(callValues(method, detail::pack(std::forward<Args>(args)...)))
                .value();
    }
    /** As call, but returns the outcome instead of throwing for a fault, a transport error or a
     * result that does not convert (arguments that do not convert still throw). */
    template <class R = Value, class... Args> Result<R> tryCall(std::string_view method, Args &&...args) {
        return Result<R>::fromRecord(callValues(method, detail::pack(std::forward<Args>(args)...)));
    }
    /** Starts the call on the calling thread's run loop (default mode) and returns at once;
     * onDone(hv::Result<R>) runs on that loop when the call has ended. Run the loop (hv::RunLoop,
     * wait(), or RtRunLoopRunInMode) for calls to proceed; many calls overlap. */
    template <class R = Value, class F, class... Args,
              std::enable_if_t<std::is_invocable_v<F &, Result<R>>, int> = 0>
    CallHandle callAsync(F &&onDone, std::string_view method, Args &&...args) {
        return callValuesAsync(method, detail::pack(std::forward<Args>(args)...),
                               [done = std::forward<F>(onDone)](CallRecord record) mutable {
                                   done(Result<R>::fromRecord(std::move(record)));
                               });
    }
    /** Starts the call on the client's own run-loop thread and returns a future of its result;
     * get() rethrows hv::Fault, hv::TransportError or hv::ConversionError. */
    template <class R = Value, class... Args>
    [[nodiscard]] std::future<R> callAsync(std::string_view method, Args &&...args) {
        auto promise = std::make_shared<std::promise<R>>();
        std::future<R> future = promise->get_future();
        callValuesOnClientThread(method, detail::pack(std::forward<Args>(args)...),
                                 [promise](CallRecord record) {
                                     Result<R> result = Result<R>::fromRecord(std::move(record));
                                     if (!result) {
                                         try {
                                             result.error()->raise();
                                         } catch (...) {
                                             promise->set_exception(std::current_exception());
                                         }
                                     } else if constexpr (std::is_void_v<R>) {
                                         promise->set_value();
                                     } else {
                                         promise->set_value(std::move(result).value());
                                     }
                                 });
        return future;
    }

    /** Runs the calling thread's run loop until every callAsync call of this client has ended,
     * or until limit passes; true when none is left. */
    bool wait(std::chrono::milliseconds limit = std::chrono::milliseconds::max());
    /** The number of callAsync calls (callback form) still in flight. */
    std::size_t pending() const;
    /** The record of the last synchronous call, for debugging. */
    const CallRecord &lastRecord() const;

    /** The type-erased core of call and tryCall: one synchronous call; the record of how it
     * ended (faults included). Throws hv::ConversionError for arguments the wire cannot carry. */
    CallRecord callValues(std::string_view method, std::vector<Argument> arguments);
    /** The core of callAsync with a callback. */
    CallHandle callValuesAsync(std::string_view method, std::vector<Argument> arguments,
                               std::function<void(CallRecord)> done);
    /** The core of the std::future form: done runs on the client's own thread. */
    void callValuesOnClientThread(std::string_view method, std::vector<Argument> arguments,
                                  std::function<void(CallRecord)> done);

  private:
    Client &setTimeoutMilliseconds(long long milliseconds);
    detail::ClientState &state() const;

    std::unique_ptr<detail::ClientState> fState;
};

/** The calling thread's run loop, run in the default mode by a few helpers. An exception thrown
 * by a completion callback stops the loop and is rethrown from here. */
class HV_API RunLoop {
  public:
    /** Runs until every call in calls is done or limit passes; true when all are done. */
    static bool runUntilDone(const std::vector<CallHandle> &calls,
                             std::chrono::milliseconds limit = std::chrono::milliseconds::max());
    /** Runs until condition() is true or limit passes; true when it is. */
    static bool runUntil(const std::function<bool()> &condition,
                         std::chrono::milliseconds limit = std::chrono::milliseconds::max());
    /** Runs for duration. */
    static void runFor(std::chrono::milliseconds duration);
};

} // namespace v1
} // namespace hv

#endif
