// hv::Server: the C++ server over HVServerRef. Each handler is a std::function behind one C
// method procedure; the procedure turns the handler's Value into the reply and every exception
// into a fault, so that none crosses the C API.
#include <HalvosCore/HalvosCore.hpp>
#include <HalvosCore/Server.hpp>

#include "HalvoUtils.h"

#include <charconv>
#include <cstring>
#include <stdexcept>

namespace hv {
inline namespace v1 {

namespace {

std::string utf8(RtStringRef string) {
    return string ? Value::retain(string).as<std::string>() : std::string();
}

RtDictionaryRef createFault(std::int32_t code, const std::string &text, const Value &detail = {}) {
    detail::DictionaryBuilder fault(3);
    fault.set(kHVFaultCode, Value(code));
    fault.set(kHVFaultString, Value(text));
    if (!detail.isAbsent()) fault.set(kHVFaultExtra, detail);
    return static_cast<RtDictionaryRef>(RtRetain(fault.finish().get()));
}

} // namespace

struct Server::State {
    Ref<HVServerRef> fServer;
    std::function<void(std::exception_ptr)> fOnError;
};

namespace {

// One registered handler, the info of its C procedure.
struct Entry {
    Server::RawHandler fHandler;
    std::function<void(std::exception_ptr)> *fOnError;
};

void releaseEntry(const void *info) {
    delete static_cast<const Entry *>(info);
}

RtTypeRef callEntry(HVServerRef, RtStringRef protocol, RtStringRef methodName, RtDictionaryRef parameters,
                    RtArrayRef order, RtDictionaryRef *fault, void *info) {
    const auto *entry = static_cast<const Entry *>(info);
    std::string method;
    try {
        method = utf8(methodName);
        std::vector<std::string> names;
        std::vector<Value> values;
        for (RtIndex i = 0, n = RtArrayGetCount(order); i < n; i++) {
            auto name = static_cast<RtStringRef>(RtArrayGetValueAtIndex(order, i));
            names.push_back(utf8(name));
            values.push_back(Value::retain(RtDictionaryGetValue(parameters, name)));
        }
        Params params(method, utf8(protocol), std::move(names), std::move(values));
        Value result = entry->fHandler(params);
        if (result.isAbsent()) throw std::logic_error(method + " returned no value");
        return RtRetain(result.get());
    } catch (const Fault &raised) {
        *fault = createFault(raised.code(), raised.what(), raised.detail());
    } catch (const ConversionError &error) {
        *fault = createFault(-32602, method + ": " + error.what());
    } catch (...) {
        std::exception_ptr caught = std::current_exception();
        if (*entry->fOnError) {
            try {
                (*entry->fOnError)(caught);
            } catch (...) {
                // A hook that throws changes nothing: the client gets the same fault.
            }
        }
        try {
            *fault = createFault(-32603, "internal error");
        } catch (...) {
            *fault = nullptr; // out of memory: the server answers "internal error" itself
        }
    }
    return nullptr;
}

RtArrayRef createSignature(const std::vector<std::string> &types) {
    detail::ArrayBuilder entry(types.size());
    for (const std::string &type : types)
        entry.append(Value(type));
    detail::ArrayBuilder all(1);
    all.append(entry.finish());
    return static_cast<RtArrayRef>(RtRetain(all.finish().get()));
}

void setNumber(HVServerRef server, RtStringRef key, long long number) {
    Value value(number);
    if (!HVServerSetProperty(server, key, value.get()))
        throw std::invalid_argument("hv::ServerOptions: a value is out of range");
}

void setText(HVServerRef server, RtStringRef key, const std::string &text) {
    Value value(text);
    if (!HVServerSetProperty(server, key, value.get()))
        throw std::invalid_argument("hv::ServerOptions: a path must start with '/'");
}

[[noreturn]] void throwFrom(RtDictionaryRef error, const char *what) {
    Value dictionary = Value::adopt(error);
    std::string text = what;
    if (!dictionary.isAbsent()) {
        Value message = Value::retain(
            RtDictionaryGetValue(static_cast<RtDictionaryRef>(dictionary.get()), kHVFaultString));
        if (!message.isAbsent()) text += ": " + message.as<std::string>();
    }
    throw Error(text);
}

} // namespace

Params::Params(std::string method, std::string protocol, std::vector<std::string> names,
               std::vector<Value> values)
    : fMethod(std::move(method)), fProtocol(std::move(protocol)), fNames(std::move(names)),
      fValues(std::move(values)) {}

Value Params::named(std::string_view name) const {
    for (std::size_t i = 0; i < fNames.size(); i++)
        if (fNames[i] == name) return fValues[i];
    return Value();
}

Server::Server() : Server(ServerOptions()) {}

Server::Server(const ServerOptions &options) : fState(std::make_unique<State>()) {
    fState->fServer = adopt(HVServerCreate(nullptr));
    if (!fState->fServer) throw std::bad_alloc();
    HVServerRef server = fState->fServer.get();
    setNumber(server, kHVServerThreads, options.threads);
    setNumber(server, kHVServerMaxQueued, (long long)options.maxQueued);
    setNumber(server, kHVServerMaxBodyBytes, (long long)options.maxBodyBytes);
    setNumber(server, kHVServerMaxConnections, options.maxConnections);
    setNumber(server, kHVServerIdleTimeout, options.idleTimeout.count());
    setNumber(server, kHVServerRequestTimeout, options.requestTimeout.count());
    setText(server, kHVServerXMLRPCPath, options.xmlrpcPath);
    setText(server, kHVServerSOAPPath, options.soapPath);
    HVServerSetProperty(server, kHVServerLogRequests, options.logRequests ? kRtBooleanTrue : kRtBooleanFalse);
    HVServerSetProperty(server, kHVExactValues, options.exactValues ? kRtBooleanTrue : kRtBooleanFalse);
    HVServerSetProperty(server, kHVValueExtensions,
                        options.valueExtensions ? kRtBooleanTrue : kRtBooleanFalse);
    if (!options.tlsCertificate.empty() || !options.tlsKey.empty()) {
        Value certificate(options.tlsCertificate), key(options.tlsKey);
        HVServerSetProperty(server, kHVServerTLSCertificate, certificate.get());
        HVServerSetProperty(server, kHVServerTLSKey, key.get());
    }
}

Server::~Server() {
    stop();
}

Server &Server::addHandler(std::string_view name, RawHandler handler,
                           const std::vector<std::string> &signature, std::string_view help) {
    std::string key(name);
    if (key.empty() || key.compare(0, 7, "system.") == 0)
        throw std::invalid_argument("hv::Server::add: '" + key + "' is a name the server keeps for itself");
    auto *entry = new Entry{std::move(handler), &fState->fOnError};
    HVClientContext context = {0, entry, nullptr, releaseEntry, nullptr};
    Value nameValue(key), helpValue{std::string(help)};
    RtArrayRef signatureArray = signature.empty() ? nullptr : createSignature(signature);
    bool added = HVServerAddMethod(
        fState->fServer.get(), static_cast<RtStringRef>(nameValue.get()), callEntry, &context,
        help.empty() ? nullptr : static_cast<RtStringRef>(helpValue.get()), signatureArray);
    RtRelease(signatureArray);
    if (!added) {
        delete entry;
        throw std::invalid_argument("hv::Server::add: '" + key +
                                    "' is registered already, or the server runs");
    }
    return *this;
}

Server &Server::addRaw(std::string_view name, RawHandler handler, std::string_view help,
                       const std::vector<std::string> &signature) {
    return addHandler(name, std::move(handler), signature, help);
}

Server &Server::onError(std::function<void(std::exception_ptr)> hook) {
    fState->fOnError = std::move(hook);
    return *this;
}

Server &Server::listen(std::uint16_t port, std::string_view address) {
    Value where{std::string(address)};
    RtDictionaryRef error = nullptr;
    if (!HVServerListen(fState->fServer.get(), static_cast<RtStringRef>(where.get()), port, &error))
        throwFrom(error, "hv::Server::listen");
    return *this;
}

std::uint16_t Server::port() const noexcept {
    return HVServerGetPort(fState->fServer.get());
}

Server &Server::start() {
    RtDictionaryRef error = nullptr;
    if (!HVServerStart(fState->fServer.get(), &error)) throwFrom(error, "hv::Server::start");
    return *this;
}

void Server::stop() noexcept {
    if (fState) HVServerStop(fState->fServer.get());
}

HVServerRef Server::get() const noexcept {
    return fState->fServer.get();
}

// ---- Untyped SOAP text -------------------------------------------------------------------------

namespace detail {

namespace {

// The path of a conversion error as steps: member names and array indices.
struct Step {
    bool fIndex;
    std::size_t fAt;
    std::string fName;
};

bool parsePath(const std::string &path, std::vector<Step> &steps) {
    for (std::size_t i = 0; i < path.size();) {
        if (path[i] == '[') {
            std::size_t end = path.find(']', i);
            if (end == std::string::npos) return false;
            std::size_t at = 0;
            auto [stop, problem] = std::from_chars(path.data() + i + 1, path.data() + end, at);
            if (problem != std::errc() || stop != path.data() + end) return false;
            steps.push_back({true, at, {}});
            i = end + 1;
        } else if (path[i] == '.') {
            std::size_t end = path.find_first_of(".[", i + 1);
            if (end == std::string::npos) end = path.size();
            steps.push_back({false, 0, path.substr(i + 1, end - i - 1)});
            i = end;
        } else {
            return false;
        }
    }
    return true;
}

// value with the element at steps[from...] replaced by leaf (containers are copied on the way).
bool replaceAt(const Value &value, const std::vector<Step> &steps, std::size_t from, const Value &leaf,
               Value &out) {
    if (from == steps.size()) {
        out = leaf;
        return true;
    }
    const Step &step = steps[from];
    if (step.fIndex && value.kind() == Value::Kind::Array) {
        if (step.fAt >= value.size()) return false;
        ArrayBuilder copy(value.size());
        for (std::size_t i = 0; i < value.size(); i++) {
            Value element = value[i];
            if (i == step.fAt && !replaceAt(element, steps, from + 1, leaf, element)) return false;
            copy.append(element);
        }
        out = copy.finish();
        return true;
    }
    if (!step.fIndex && value.kind() == Value::Kind::Dictionary) {
        auto dictionary = static_cast<RtDictionaryRef>(value.get());
        RtIndex n = RtDictionaryGetCount(dictionary);
        std::vector<const void *> keys(static_cast<std::size_t>(n)), values(static_cast<std::size_t>(n));
        RtDictionaryGetKeysAndValues(dictionary, keys.data(), values.data());
        DictionaryBuilder copy{static_cast<std::size_t>(n)};
        bool found = false;
        for (std::size_t i = 0; i < keys.size(); i++) {
            auto key = static_cast<RtStringRef>(keys[i]);
            Value member = Value::retain(values[i]);
            if (RtGetTypeID(key) == RtStringGetTypeID() && utf8(key) == step.fName) {
                if (!replaceAt(member, steps, from + 1, leaf, member)) return false;
                found = true;
            }
            copy.set(key, member);
        }
        out = copy.finish();
        return found;
    }
    return false;
}

Value at(const Value &value, const std::vector<Step> &steps) {
    Value here = value;
    for (const Step &step : steps) {
        if (step.fIndex ? here.kind() != Value::Kind::Array : here.kind() != Value::Kind::Dictionary)
            return {};
        here = step.fIndex ? (step.fAt < here.size() ? here[step.fAt] : Value()) : here[step.fName];
    }
    return here;
}

// The value of the kind named in a conversion error's detail ("expected integer, got string")
// that text stands for, or absent.
Value fromText(const std::string &expected, const std::string &raw) {
    std::size_t begin = raw.find_first_not_of(" \t\r\n"), end = raw.find_last_not_of(" \t\r\n");
    std::string text = begin == std::string::npos ? std::string() : raw.substr(begin, end - begin + 1);
    const char *first = text.data() + (text.size() > 1 && text[0] == '+'), *last = text.data() + text.size();
    if (expected == "integer") {
        std::int64_t integer = 0;
        auto [stop, problem] = std::from_chars(first, last, integer);
        if (text.empty() || problem != std::errc() || stop != last) return {};
        return Value(integer);
    }
    if (expected == "double") {
        double real = 0;
        auto [stop, problem] = std::from_chars(first, last, real);
        if (text.empty() || problem != std::errc() || stop != last) return {};
        return Value(real);
    }
    if (expected == "boolean") {
        if (text == "true" || text == "1") return Value(true);
        if (text == "false" || text == "0") return Value(false);
        return {};
    }
    if (expected == "date") {
        if (text.size() < 8 || !std::isdigit(static_cast<unsigned char>(text[0]))) return {};
        return Value::adopt(hvCreateDateFromISO8601(text.data(), RtIndex(text.size())));
    }
    if (expected == "data") {
        Value string(text);
        return Value::adopt(decodeBinaryData(static_cast<RtStringRef>(string.get())));
    }
    return {};
}

} // namespace

bool convertUntypedText(Value &value, const ConversionError &error) {
    if (error.code() != ConversionErrc::WrongKind) return false;
    const std::string &detail = error.detail();
    const char kExpected[] = "expected ";
    if (detail.compare(0, sizeof kExpected - 1, kExpected) != 0 ||
        detail.find(", got string") == std::string::npos)
        return false;
    std::string expected = detail.substr(
        sizeof kExpected - 1, detail.find_first_of(" ,", sizeof kExpected - 1) - (sizeof kExpected - 1));
    std::vector<Step> steps;
    if (!parsePath(error.path(), steps)) return false;
    Value text = at(value, steps);
    if (text.kind() != Value::Kind::String) return false;
    Value converted = fromText(expected, text.as<std::string>());
    if (converted.isAbsent()) return false;
    Value replaced;
    if (!replaceAt(value, steps, 0, converted, replaced)) return false;
    value = replaced;
    return true;
}

} // namespace detail

} // namespace v1
} // namespace hv
