/// @file
/// @ingroup HalvosCore
/// @brief hv::Server, the embeddable XML-RPC and SOAP server in C++ (over HVServerRef).
///
/// @code
/// hv::Server server;                                     // or hv::Server{hv::ServerOptions{...}}
/// server.add("examples.add", [](int a, int b) { return a + b; }, "Adds two integers.");
/// server.add("examples.fail", []() -> int { throw hv::Fault(7, "no"); });
/// server.listen(0).start();                              // port 0: a free one
/// std::cout << server.port() << "\n";
/// server.stop();                                         // running calls finish first
/// @endcode
///
/// add() derives the argument conversions (hv::convert) and the signature system.methodSignature
/// answers from the callable's type. A call with the wrong number of parameters, or a parameter
/// that does not convert, is answered with a fault naming the method and the parameter
/// ("examples.add: params[1]: expected integer, got string"). Text that SOAP clients send without
/// xsi:type is converted to the declared type, inside arrays and records too. A handler that
/// throws hv::Fault answers with that fault; any other exception answers "internal error" (its
/// text never reaches the client) and goes to the onError hook. Handlers run on the server's
/// threads, several at once (see HVServer.h for what that means for the runtime).
#ifndef HALVOSCORE_SERVER_HPP
#define HALVOSCORE_SERVER_HPP

#include <HalvosCore/Errors.hpp>
#include <HalvosCore/Value.hpp>

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace hv {
inline namespace v1 {

/** How a server serves; the defaults are the C API's, except exact values (on). */
struct ServerOptions {
    unsigned threads = 8;                    ///< threads handlers run on (1: one at a time)
    std::size_t maxQueued = 1024;            ///< calls waiting for a thread before 503
    std::uint64_t maxBodyBytes = 1 << 20;    ///< larger request bodies get 413
    unsigned maxConnections = 4096;          ///< connections open at once
    std::chrono::seconds idleTimeout{30};    ///< silence that closes a connection
    std::chrono::seconds requestTimeout{60}; ///< time a request may take to arrive
    std::string xmlrpcPath = "/RPC2";        ///< where XML-RPC is served
    std::string soapPath = "/soap";          ///< where SOAP is served (may equal xmlrpcPath)
    bool logRequests = false;                ///< one line per request on standard error
    std::string tlsCertificate;              ///< PEM certificate: with tlsKey, HTTPS
    std::string tlsKey;                      ///< PEM private key
    bool exactValues = true;                 ///< kHVExactValues on the server's handlers
    bool valueExtensions = true;             ///< kHVValueExtensions (i8, nil) likewise
};

/** The parameters of one call, in order, for addRaw handlers. */
class HV_API Params {
  public:
    /** Parameters as received: names and values in document order. */
    Params(std::string method, std::string protocol, std::vector<std::string> names,
           std::vector<Value> values);
    /** The number of parameters. */
    std::size_t size() const noexcept { return fValues.size(); }
    /** The parameter at index; absent past the end. */
    Value operator[](std::size_t index) const { return index < fValues.size() ? fValues[index] : Value(); }
    /** The parameter named name (SOAP element names; XML-RPC's are "anon0", ...), absent when none. */
    Value named(std::string_view name) const;
    /** The parameters' names, in order. */
    const std::vector<std::string> &names() const noexcept { return fNames; }
    /** The method called. */
    const std::string &method() const noexcept { return fMethod; }
    /** "XML-RPC", "SOAP-1999" or "SOAP-2001". */
    const std::string &protocol() const noexcept { return fProtocol; }

  private:
    std::string fMethod, fProtocol;
    std::vector<std::string> fNames;
    std::vector<Value> fValues;
};

/// \cond HV_INTERNAL
namespace detail {

// The call operator of a callable, reduced to its result and decayed argument types.
template <class R, class... A> struct Signature {
    using Result = R;
    using Arguments = std::tuple<std::decay_t<A>...>;
    static constexpr std::size_t kArity = sizeof...(A);
};
template <class F, class = void> struct CallableTraits { static constexpr bool kKnown = false; };
template <class R, class... A> struct CallableTraits<R (*)(A...), void> : Signature<R, A...> {
    static constexpr bool kKnown = true;
};
template <class R, class... A> struct CallableTraits<R (*)(A...) noexcept, void> : Signature<R, A...> {
    static constexpr bool kKnown = true;
};
template <class M> struct MemberCall { static constexpr bool kKnown = false; };
template <class C, class R, class... A> struct MemberCall<R (C::*)(A...)> : Signature<R, A...> {
    static constexpr bool kKnown = true;
};
template <class C, class R, class... A> struct MemberCall<R (C::*)(A...) const> : Signature<R, A...> {
    static constexpr bool kKnown = true;
};
template <class C, class R, class... A> struct MemberCall<R (C::*)(A...) noexcept> : Signature<R, A...> {
    static constexpr bool kKnown = true;
};
template <class C, class R, class... A>
struct MemberCall<R (C::*)(A...) const noexcept> : Signature<R, A...> {
    static constexpr bool kKnown = true;
};
template <class F>
struct CallableTraits<F, std::void_t<decltype(&F::operator())>> : MemberCall<decltype(&F::operator())> {};

// The XML-RPC type name of a parameter or result type, for system.methodSignature.
template <class T> struct WireName {
    static const char *get() {
        if constexpr (std::is_same_v<T, bool>)
            return "boolean";
        else if constexpr (kIsInteger<T>)
            return (std::is_signed_v<T> ? sizeof(T) <= 4 : sizeof(T) < 4) ? "int" : "i8";
        else if constexpr (std::is_floating_point_v<T>)
            return "double";
        else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view>)
            return "string";
        else if constexpr (std::is_same_v<T, std::vector<std::byte>>)
            return "base64";
        else if constexpr (std::is_same_v<T, Value>)
            return "value";
        else if constexpr (std::is_same_v<T, Record> || std::is_class_v<T>)
            return "struct";
        else
            return "value";
    }
};
template <> struct WireName<void> {
    static const char *get() { return "nil"; }
};
template <class D> struct WireName<std::chrono::time_point<std::chrono::system_clock, D>> {
    static const char *get() { return "dateTime.iso8601"; }
};
template <class T, class A> struct WireName<std::vector<T, A>> {
    static const char *get() { return "array"; }
};
template <class T> struct WireName<std::optional<T>> : WireName<T> {};

template <class Traits, std::size_t... I> std::vector<std::string> signatureOf(std::index_sequence<I...>) {
    return {WireName<typename Traits::Result>::get(),
            WireName<std::tuple_element_t<I, typename Traits::Arguments>>::get()...};
}

/** Turns the string where error says a value of another kind was expected into that kind, in
 * place inside value (SOAP text without xsi:type). False when that cannot be done. */
HV_API bool convertUntypedText(Value &value, const ConversionError &error);

/** The parameter at index converted to T, with untyped SOAP text converted to what T needs. */
template <class T> T argument(const Params &params, std::size_t index) {
    Value value = params[index];
    bool soap = params.protocol() != "XML-RPC";
    for (int attempt = 0;; attempt++) {
        try {
            return value.as<T>();
        } catch (ConversionError &error) {
            if (soap && attempt < 100000 && convertUntypedText(value, error)) continue;
            error.prependPath("params[" + std::to_string(index) + "]");
            throw;
        }
    }
}

template <class Traits, class F, std::size_t... I>
Value invokeTyped(F &f, const Params &params, std::index_sequence<I...>) {
    using Result = typename Traits::Result;
    // Braced initialisation converts the arguments left to right.
    typename Traits::Arguments arguments{
        argument<std::tuple_element_t<I, typename Traits::Arguments>>(params, I)...};
    if constexpr (std::is_void_v<Result>) {
        std::apply(f, std::move(arguments));
        return Value::null();
    } else {
        return Value(std::apply(f, std::move(arguments)));
    }
}

} // namespace detail
/// \endcond

/** An embeddable server (see the file comment). Not copyable; destroying it stops it. */
class HV_API Server {
  public:
    /** A handler that takes the parameters as received. */
    using RawHandler = std::function<Value(const Params &)>;

    /** A server with the default options. */
    Server();
    /** A server with options. */
    explicit Server(const ServerOptions &options);
    /** Stops the server (see stop()). */
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    /** Registers f under name: f's parameters (converted from the call's, in order) and result
     * (converted to a Value) make the method's signature. f may throw hv::Fault. Throws
     * std::invalid_argument for a name already registered or starting with "system.", and
     * std::logic_error once the server runs. */
    template <class F> Server &add(std::string_view name, F &&f, std::string_view help = {}) {
        using Callable = std::decay_t<F>;
        using Traits = detail::CallableTraits<Callable>;
        static_assert(Traits::kKnown,
                      "hv::Server::add: the callable needs one call operator with fixed parameter types "
                      "(no auto parameters, no overloads); use addRaw for anything else");
        std::vector<std::string> signature =
            detail::signatureOf<Traits>(std::make_index_sequence<Traits::kArity>());
        RawHandler handler = [callable = Callable(std::forward<F>(f))](const Params &params) mutable {
            return detail::invokeTyped<Traits>(callable, params, std::make_index_sequence<Traits::kArity>());
        };
        return addHandler(name, std::move(handler), signature, help);
    }
    /** Registers handler under name, taking the parameters as received; signature (result type
     * first, as system.methodSignature lists it) is optional and, when given, checked before
     * handler runs. Throws as add() does. */
    Server &addRaw(std::string_view name, RawHandler handler, std::string_view help = {},
                   const std::vector<std::string> &signature = {});
    /** Called with every exception a handler lets out other than hv::Fault (the client gets
     * "internal error"); runs on the handler's thread. Set it before start(). */
    Server &onError(std::function<void(std::exception_ptr)> hook);
    /** Binds address (IPv4 or IPv6) and port; port 0 picks a free one (see port()). Throws
     * hv::Error when it cannot. */
    Server &listen(std::uint16_t port, std::string_view address = "127.0.0.1");
    /** The port listened on; 0 before listen() or start(). */
    std::uint16_t port() const noexcept;
    /** Starts serving (on 127.0.0.1, a free port, without listen()); returns once connections
     * are accepted. Throws hv::Error when it cannot start. */
    Server &start();
    /** Stops: no new connections, running handlers finish, then returns. Idempotent; works
     * before, during and after start(); from inside a handler it only stops accepting. */
    void stop() noexcept;
    /** The C server underneath, borrowed. */
    HVServerRef get() const noexcept;

  private:
    Server &addHandler(std::string_view name, RawHandler handler, const std::vector<std::string> &signature,
                       std::string_view help);
    struct State;
    std::unique_ptr<State> fState;
};

} // namespace v1
} // namespace hv

#endif
