// CPlusClient: hv::Client over HVMethodInvocation, hv::RunLoop, and the client's own run-loop
// thread behind the std::future form.
//
// Every call makes one invocation, sets the client's parameters, properties and overrides on it,
// and either invokes it (synchronous) or schedules it with a C callback (asynchronous). The C
// callbacks below never let an exception out: a user callback's exception is kept for the
// hv::RunLoop call that runs the loop. An invocation is never released inside its own callback
// (its source is still at work there): finished invocations wait in a per-thread list that the
// next call, hv::RunLoop and thread exit empty.
#include <HalvosCore/Client.hpp>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace hv {
inline namespace v1 {
namespace detail {

struct CallFlag {
    std::atomic<bool> fDone{false};
};

namespace {

// An exception a completion callback threw, kept until a RunLoop call on this thread rethrows it.
thread_local std::exception_ptr tCallbackError;
// An exception a serialization override threw during the current synchronous call.
thread_local std::exception_ptr tOverrideError;

void keepCallbackError(std::exception_ptr error) {
    if (!tCallbackError) tCallbackError = std::move(error);
}

// Invocations whose callback has run, waiting to be unscheduled and released outside it.
struct Graveyard {
    struct Entry {
        Ref<HVMethodInvocationRef> fInvocation;
        RtRunLoopRef fLoop;
        RtStringRef fMode;
    };
    std::vector<Entry> fEntries;

    void sweep() {
        std::vector<Entry> entries = std::move(fEntries);
        fEntries.clear();
        for (Entry &entry : entries)
            HVMethodInvocationUnscheduleFromRunLoop(entry.fInvocation.get(), entry.fLoop, entry.fMode);
    }
    ~Graveyard() { sweep(); }
};
thread_local Graveyard tGraveyard;

std::shared_ptr<const Error> cancelledError(const std::string &method) {
    return std::make_shared<TransportError>(
        TransportErrc::Cancelled,
        (method.empty() ? std::string() : method + ": ") +
            "the call was cancelled: its hv::Client was destroyed while the call was in flight",
        0, 0, 0, method);
}

// One asynchronous call in flight, owned by the list of the thread it runs on.
struct PendingCall;
using CallList = std::vector<std::unique_ptr<PendingCall>>;

struct PendingCall {
    Ref<HVMethodInvocationRef> fInvocation;
    RtRunLoopRef fLoop = nullptr;
    std::function<void(CallRecord)> fDone;
    std::shared_ptr<CallFlag> fFlag = std::make_shared<CallFlag>();
    std::string fMethod;
    std::string fURL;
    CallList *fList = nullptr;
};

// Runs done with record; what it throws is kept for RunLoop.
void deliver(std::function<void(CallRecord)> &done, CallRecord record) noexcept {
    try {
        if (done) done(std::move(record));
    } catch (...) {
        keepCallbackError(std::current_exception());
    }
}

// The C completion callback of every asynchronous call.
void completed(HVMethodInvocationRef, void *info, RtDictionaryRef result) noexcept {
    Ref<RtDictionaryRef> owned = adopt(result);
    auto *call = static_cast<PendingCall *>(info);
    std::unique_ptr<PendingCall> mine;
    CallList &list = *call->fList;
    for (auto it = list.begin(); it != list.end(); ++it)
        if (it->get() == call) {
            mine = std::move(*it);
            list.erase(it);
            break;
        }
    if (!mine) return; // not ours any more: cannot happen, the list is only emptied with callbacks cleared
    try {
        tGraveyard.fEntries.push_back({mine->fInvocation, mine->fLoop, kRtRunLoopDefaultMode});
    } catch (...) {
        keepCallbackError(std::current_exception());
    }
    mine->fFlag->fDone = true;
    deliver(mine->fDone, CallRecord(std::move(owned), mine->fMethod, mine->fURL));
}

// Starts call on loop (the loop of the calling thread) and adds it to list.
void start(std::unique_ptr<PendingCall> call, RtRunLoopRef loop, CallList &list) {
    call->fLoop = loop;
    call->fList = &list;
    HVClientContext context = {0, call.get(), nullptr, nullptr, nullptr};
    HVMethodInvocationSetCallBack(call->fInvocation.get(), completed, &context);
    HVMethodInvocationRef invocation = call->fInvocation.get();
    list.push_back(std::move(call));
    HVMethodInvocationScheduleWithRunLoop(invocation, loop, kRtRunLoopDefaultMode);
}

// Ends every call of list at once with a cancellation (on the list's own thread).
void cancelAll(CallList &list) noexcept {
    CallList calls = std::move(list);
    list.clear();
    for (auto &call : calls) {
        HVMethodInvocationSetCallBack(call->fInvocation.get(), nullptr, nullptr);
        HVMethodInvocationUnscheduleFromRunLoop(call->fInvocation.get(), call->fLoop, kRtRunLoopDefaultMode);
        call->fInvocation.reset();
        call->fFlag->fDone = true;
        deliver(call->fDone, CallRecord::failed(cancelledError(call->fMethod), call->fMethod, call->fURL));
    }
}

// A serialization override's function, shared by the client and the invocations it made.
struct OverrideHolder {
    std::atomic<int> fReferences{1};
    std::function<std::optional<std::string>(const Value &)> fWrite;

    static const void *retain(const void *info) {
        static_cast<OverrideHolder *>(const_cast<void *>(info))->fReferences++;
        return info;
    }
    static void release(const void *info) {
        auto *holder = static_cast<OverrideHolder *>(const_cast<void *>(info));
        if (--holder->fReferences == 0) delete holder;
    }
    static RtStringRef write(HVMethodInvocationRef, RtTypeRef value, void *info) noexcept {
        try {
            std::optional<std::string> text =
                static_cast<OverrideHolder *>(info)->fWrite(Value::retain(value));
            if (!text) return nullptr;
            Value string = makeString(*text);
            return static_cast<RtStringRef>(RtRetain(string.get()));
        } catch (...) {
            if (!tOverrideError) tOverrideError = std::current_exception();
            return nullptr;
        }
    }
};

// 64-bit integers and nulls that the wire would not carry as they are, named by their path.
void checkWire(RtTypeRef value, std::string &path, bool bigIntegers, bool nulls) {
    RtTypeID type = RtGetTypeID(value);
    if (type == RtNumberGetTypeID() && !bigIntegers &&
        !RtNumberIsFloatType(static_cast<RtNumberRef>(value))) {
        int64_t number = 0;
        RtNumberGetValue(static_cast<RtNumberRef>(value), kRtNumberSInt64Type, &number);
        if (number < INT32_MIN || number > INT32_MAX)
            throw ConversionError(
                ConversionErrc::OutOfRange,
                std::to_string(number) +
                    " does not fit a 32-bit XML-RPC int; allow extensions (setExtensions) to "
                    "send it as i8, or send a double or a string",
                path);
    } else if (value == static_cast<RtTypeRef>(kRtNull) && !nulls) {
        throw ConversionError(
            ConversionErrc::WrongKind,
            "null cannot be sent this way; allow extensions (setExtensions) to send it as nil, "
            "or leave the value out",
            path);
    } else if (type == RtArrayGetTypeID()) {
        auto array = static_cast<RtArrayRef>(value);
        std::size_t length = path.size();
        for (RtIndex i = 0, n = RtArrayGetCount(array); i < n; i++) {
            path += "[" + std::to_string(i) + "]";
            checkWire(RtArrayGetValueAtIndex(array, i), path, bigIntegers, nulls);
            path.resize(length);
        }
    } else if (type == RtDictionaryGetTypeID()) {
        auto dictionary = static_cast<RtDictionaryRef>(value);
        std::size_t count = std::size_t(RtDictionaryGetCount(dictionary)), length = path.size();
        std::vector<const void *> keys(count), values(count);
        RtDictionaryGetKeysAndValues(dictionary, keys.data(), values.data());
        for (std::size_t i = 0; i < count; i++) {
            Value key = Value::retain(keys[i]);
            path += "." + (key.kind() == Value::Kind::String ? key.as<std::string>() : key.description());
            checkWire(values[i], path, bigIntegers, nulls);
            path.resize(length);
        }
    }
}

} // namespace

// The client's own thread with its run loop, for the std::future form. Tasks are invocations
// built on the caller's thread and handed over through a locked queue; everything else happens
// on the thread itself.
struct ClientThread {
    struct Task {
        std::unique_ptr<PendingCall> fCall;
    };

    std::mutex fLock;
    std::vector<Task> fQueue;
    std::atomic<bool> fStopping{false};
    RtRunLoopRef fLoop = nullptr;
    Ref<RtRunLoopSourceRef> fSource;
    CallList fCalls; // the thread's own
    std::thread fThread;

    std::promise<void> fReady;

    ClientThread() {
        std::future<void> started = fReady.get_future();
        fThread = std::thread([this] { run(); });
        started.wait();
    }

    ~ClientThread() {
        fStopping = true;
        RtRunLoopSourceSignal(fSource.get());
        RtRunLoopWakeUp(fLoop);
        fThread.join();
    }

    void post(std::unique_ptr<PendingCall> call) {
        {
            std::lock_guard<std::mutex> guard(fLock);
            fQueue.push_back(Task{std::move(call)});
        }
        RtRunLoopSourceSignal(fSource.get());
        RtRunLoopWakeUp(fLoop);
    }

    std::vector<Task> takeQueue() {
        std::lock_guard<std::mutex> guard(fLock);
        std::vector<Task> tasks = std::move(fQueue);
        fQueue.clear();
        return tasks;
    }

    static void perform(void *info) noexcept {
        auto *self = static_cast<ClientThread *>(info);
        if (self->fStopping) {
            RtRunLoopStop(self->fLoop);
            return;
        }
        try {
            for (Task &task : self->takeQueue())
                start(std::move(task.fCall), self->fLoop, self->fCalls);
        } catch (...) { // out of memory: nothing may leave a run-loop callback
            keepCallbackError(std::current_exception());
        }
    }

    void run() {
        fLoop = RtRunLoopGetCurrent();
        RtRunLoopSourceContext context = {};
        context.info = this;
        context.perform = perform;
        fSource = adopt(RtRunLoopSourceCreate(kRtAllocatorDefault, 0, &context));
        RtRunLoopAddSource(fLoop, fSource.get(), kRtRunLoopDefaultMode);
        fReady.set_value();
        while (!fStopping) {
            RtRunLoopRunInMode(kRtRunLoopDefaultMode, 1.0, true);
            tGraveyard.sweep();
        }
        // Calls not started yet and calls in flight end as cancelled.
        for (Task &task : takeQueue())
            deliver(task.fCall->fDone, CallRecord::failed(cancelledError(task.fCall->fMethod),
                                                          task.fCall->fMethod, task.fCall->fURL));
        cancelAll(fCalls);
        RtRunLoopRemoveSource(fLoop, fSource.get(), kRtRunLoopDefaultMode);
        fSource.reset();
        tGraveyard.sweep();
    }
};

struct ClientState {
    std::string fURLText;
    Ref<RtURLRef> fURL;
    Protocol fProtocol;
    RtStringRef fProtocolConstant;
    Ref<RtMutableDictionaryRef> fProperties;
    std::vector<std::pair<std::string, std::string>> fHeaders;
    std::vector<std::pair<RtTypeID, OverrideHolder *>> fOverrides;
    bool fExact = true, fExtensions = false;
    CallList fCalls; // callback form, on the calling thread's loop
    CallRecord fLast;
    std::unique_ptr<ClientThread> fThread;

    ClientState(const std::string &url, Protocol protocol) : fURLText(url), fProtocol(protocol) {
        Value text;
        try {
            text = makeString(url);
        } catch (const ConversionError &) {
        }
        if (text.isAbsent() || url.empty() ||
            !(fURL = adopt(
                  RtURLCreateWithString(kRtAllocatorDefault, static_cast<RtStringRef>(text.get()), nullptr))))
            throw std::invalid_argument("hv::Client: '" + url + "' is not a URL");
        fProtocolConstant = protocol == Protocol::SOAP1999   ? kHVSOAP1999Protocol
                            : protocol == Protocol::SOAP2001 ? kHVSOAP2001Protocol
                                                             : kHVXMLRPCProtocol;
        fProperties = adopt(RtDictionaryCreateMutable(kRtAllocatorDefault, 0, &kRtTypeDictionaryKeyCallBacks,
                                                      &kRtTypeDictionaryValueCallBacks));
        setProperty(kHVExactValues, true);
        // SOAP servers dispatch on SOAPAction or expect it present: "" until set otherwise.
        if (protocol != Protocol::XMLRPC) setHeaders({{"SOAPAction", "\"\""}});
    }

    // Replaces the extra header fields sent with every request.
    void setHeaders(std::vector<std::pair<std::string, std::string>> headers) {
        fHeaders = std::move(headers);
        Record record;
        for (const auto &header : fHeaders)
            record.set(header.first, header.second);
        setProperty(kHVHTTPExtraHeaders, fHeaders.empty() ? Value() : Value(record));
    }

    ~ClientState() {
        fThread.reset();
        cancelAll(fCalls);
        tGraveyard.sweep();
        for (auto &entry : fOverrides)
            OverrideHolder::release(entry.second);
    }

    void setProperty(RtStringRef key, const Value &value) {
        if (value.isAbsent())
            RtDictionaryRemoveValue(fProperties.get(), key);
        else
            RtDictionarySetValue(fProperties.get(), key, value.get());
    }

    static CallHandle handleOf(const PendingCall &call) {
        CallHandle handle;
        handle.fFlag = call.fFlag;
        return handle;
    }

    std::unique_ptr<PendingCall> prepare(std::string_view method, std::vector<Argument> &arguments,
                                         std::function<void(CallRecord)> done) {
        auto call = std::make_unique<PendingCall>();
        call->fInvocation = makeInvocation(method, arguments);
        call->fDone = std::move(done);
        call->fMethod = std::string(method);
        call->fURL = fURLText;
        return call;
    }

    Ref<HVMethodInvocationRef> makeInvocation(std::string_view method, std::vector<Argument> &arguments) {
        Value name = makeString(method);
        auto parameters = adopt(RtDictionaryCreateMutable(kRtAllocatorDefault, RtIndex(arguments.size()),
                                                          &kRtTypeDictionaryKeyCallBacks,
                                                          &kRtTypeDictionaryValueCallBacks));
        auto order = adopt(
            RtArrayCreateMutable(kRtAllocatorDefault, RtIndex(arguments.size()), &kRtTypeArrayCallBacks));
        bool bigIntegers = fExact && (fExtensions || fProtocol != Protocol::XMLRPC);
        bool nulls = fExact && (fExtensions || fProtocol != Protocol::XMLRPC);
        for (std::size_t i = 0; i < arguments.size(); i++) {
            Argument &argument = arguments[i];
            if (argument.value.isAbsent()) continue; // an empty optional: the parameter is left out
            std::string path = "params[" + std::to_string(i) + "]";
            checkWire(argument.value.get(), path, bigIntegers, nulls);
            Value key;
            try {
                key = makeString(argument.name.empty() ? "arg" + std::to_string(i) : argument.name);
            } catch (ConversionError &error) {
                error.prependPath("params[" + std::to_string(i) + "] name");
                throw;
            }
            if (RtDictionaryContainsKey(parameters.get(), key.get()))
                throw std::invalid_argument("hv::Client: the parameter name '" + key.as<std::string>() +
                                            "' is given twice");
            RtDictionarySetValue(parameters.get(), key.get(), argument.value.get());
            RtArrayAppendValue(order.get(), key.get());
        }
        auto invocation = adopt(
            HVMethodInvocationCreate(fURL.get(), static_cast<RtStringRef>(name.get()), fProtocolConstant));
        if (!invocation) throw std::runtime_error("hv::Client: the library refused to make an invocation");
        HVMethodInvocationSetParameters(invocation.get(), parameters.get(), order.get());
        std::size_t count = std::size_t(RtDictionaryGetCount(fProperties.get()));
        std::vector<const void *> keys(count), values(count);
        RtDictionaryGetKeysAndValues(fProperties.get(), keys.data(), values.data());
        for (std::size_t i = 0; i < count; i++)
            HVMethodInvocationSetProperty(invocation.get(), static_cast<RtStringRef>(keys[i]), values[i]);
        for (auto &entry : fOverrides) {
            HVClientContext context = {0, entry.second, OverrideHolder::retain, OverrideHolder::release,
                                       nullptr};
            HVMethodInvocationAddSerializationOverride(invocation.get(), entry.first, OverrideHolder::write,
                                                       &context);
        }
        return invocation;
    }
};

} // namespace detail

// ---- CallHandle -----------------------------------------------------------------------------

bool CallHandle::done() const noexcept {
    return !fFlag || fFlag->fDone;
}

// ---- Client ---------------------------------------------------------------------------------

Client::Client(const std::string &url, Protocol protocol)
    : fState(std::make_unique<detail::ClientState>(url, protocol)) {}
Client::~Client() = default;
Client::Client(Client &&other) noexcept = default;
Client &Client::operator=(Client &&other) noexcept = default;

detail::ClientState &Client::state() const {
    if (!fState) throw std::logic_error("hv::Client: used after it was moved from");
    return *fState;
}

const std::string &Client::url() const {
    return state().fURLText;
}
Protocol Client::protocol() const {
    return state().fProtocol;
}

Client &Client::setTimeoutMilliseconds(long long milliseconds) {
    if (milliseconds <= 0) {
        state().setProperty(kHVMethodInvocationTimeoutValue, Value());
    } else {
        long long seconds = (milliseconds + 999) / 1000;
        state().setProperty(kHVMethodInvocationTimeoutValue,
                            std::int32_t(std::min<long long>(seconds, INT32_MAX)));
    }
    return *this;
}

Client &Client::setHeader(const std::string &name, const std::string &value) {
    static const std::string kSeparators = "()<>@,;:\\\"/[]?={} \t";
    bool token = !name.empty();
    for (char c : name)
        if (static_cast<unsigned char>(c) <= 32 || static_cast<unsigned char>(c) >= 127 ||
            kSeparators.find(c) != std::string::npos)
            token = false;
    if (!token)
        throw std::invalid_argument("hv::Client::setHeader: '" + name + "' is not an HTTP header name");
    if (value.find_first_of(std::string("\r\n\0", 3)) != std::string::npos)
        throw std::invalid_argument("hv::Client::setHeader: the value of " + name + " holds a line break");
    detail::ClientState &s = state();
    auto headers = s.fHeaders;
    for (auto it = headers.begin(); it != headers.end(); ++it)
        if (it->first == name) {
            headers.erase(it);
            break;
        }
    if (!value.empty()) headers.emplace_back(name, value);
    s.setHeaders(std::move(headers));
    return *this;
}

Client &Client::setSOAPAction(const std::string &action) {
    return setHeader("SOAPAction", "\"" + action + "\"");
}

Client &Client::setHTTPVersion(HTTPVersion version) {
    state().setProperty(kHVHTTPVersion, Value::retain(version == HTTPVersion::HTTP1_0 ? kRtHTTPVersion1_0
                                                                                      : kRtHTTPVersion1_1));
    return *this;
}

Client &Client::setProxy(const std::string &url) {
    if (url.empty()) {
        state().setProperty(kHVHTTPProxy, Value());
        return *this;
    }
    Value text = detail::makeString(url);
    RtURLRef proxy =
        RtURLCreateWithString(kRtAllocatorDefault, static_cast<RtStringRef>(text.get()), nullptr);
    if (!proxy) throw std::invalid_argument("hv::Client::setProxy: '" + url + "' is not a URL");
    state().setProperty(kHVHTTPProxy, Value::adopt(proxy));
    return *this;
}

Client &Client::setFollowRedirects(bool follow) {
    state().setProperty(kHVHTTPFollowsRedirects, follow);
    return *this;
}

Client &Client::setNamespace(const std::string &uri) {
    state().setProperty(kHVSOAPMethodNamespaceURI, uri.empty() ? Value() : Value(uri));
    return *this;
}

Client &Client::setSOAPStyle(SOAPStyle style) {
    state().setProperty(kHVSOAPBodyEncodingStyle,
                        style == SOAPStyle::RPC ? Value::retain(kHVSOAPStyleRPC) : Value());
    return *this;
}

Client &Client::setResultName(const std::string &name) {
    state().setProperty(kHVMethodInvocationResultParameterName, name.empty() ? Value() : Value(name));
    return *this;
}

Client &Client::setExact(bool exact) {
    state().fExact = exact;
    state().setProperty(kHVExactValues, exact ? Value(true) : Value());
    return *this;
}

Client &Client::setExtensions(bool extensions) {
    state().fExtensions = extensions;
    state().setProperty(kHVValueExtensions, extensions ? Value(true) : Value());
    return *this;
}

Client &Client::setProperty(RtStringRef key, const Value &value) {
    if (!key) throw std::invalid_argument("hv::Client::setProperty: no key");
    state().setProperty(key, value);
    return *this;
}

Client &Client::addSerializationOverride(RtTypeID type,
                                         std::function<std::optional<std::string>(const Value &)> write) {
    if (!write) throw std::invalid_argument("hv::Client::addSerializationOverride: no function");
    auto *holder = new detail::OverrideHolder;
    holder->fWrite = std::move(write);
    state().fOverrides.emplace_back(type, holder);
    return *this;
}

CallRecord Client::callValues(std::string_view method, std::vector<Argument> arguments) {
    detail::ClientState &s = state();
    detail::tGraveyard.sweep();
    Ref<HVMethodInvocationRef> invocation = s.makeInvocation(method, arguments);
    detail::tOverrideError = nullptr;
    Ref<RtDictionaryRef> result = adopt(HVMethodInvocationInvoke(invocation.get()));
    if (std::exception_ptr error = std::exchange(detail::tOverrideError, nullptr))
        std::rethrow_exception(error);
    s.fLast = CallRecord(std::move(result), std::string(method), s.fURLText);
    return s.fLast;
}

CallHandle Client::callValuesAsync(std::string_view method, std::vector<Argument> arguments,
                                   std::function<void(CallRecord)> done) {
    detail::ClientState &s = state();
    detail::tGraveyard.sweep();
    std::unique_ptr<detail::PendingCall> call = s.prepare(method, arguments, std::move(done));
    CallHandle handle = detail::ClientState::handleOf(*call);
    detail::start(std::move(call), RtRunLoopGetCurrent(), s.fCalls);
    return handle;
}

void Client::callValuesOnClientThread(std::string_view method, std::vector<Argument> arguments,
                                      std::function<void(CallRecord)> done) {
    detail::ClientState &s = state();
    std::unique_ptr<detail::PendingCall> call = s.prepare(method, arguments, std::move(done));
    if (!s.fThread) s.fThread = std::make_unique<detail::ClientThread>();
    s.fThread->post(std::move(call));
}

bool Client::wait(std::chrono::milliseconds limit) {
    detail::ClientState &s = state();
    return RunLoop::runUntil([&s] { return s.fCalls.empty(); }, limit);
}

std::size_t Client::pending() const {
    return state().fCalls.size();
}
const CallRecord &Client::lastRecord() const {
    return state().fLast;
}

// ---- RunLoop --------------------------------------------------------------------------------

bool RunLoop::runUntil(const std::function<bool()> &condition, std::chrono::milliseconds limit) {
    using Clock = std::chrono::steady_clock;
    Clock::time_point end =
        limit >= std::chrono::hours(24 * 365) ? Clock::time_point::max() : Clock::now() + limit;
    for (;;) {
        detail::tGraveyard.sweep();
        if (std::exception_ptr error = std::exchange(detail::tCallbackError, nullptr))
            std::rethrow_exception(error);
        if (condition()) return true;
        Clock::time_point now = Clock::now();
        if (now >= end) return false;
        double seconds = std::min(0.5, std::chrono::duration<double>(end - now).count());
        if (RtRunLoopRunInMode(kRtRunLoopDefaultMode, seconds, true) == kRtRunLoopRunFinished) {
            detail::tGraveyard.sweep();
            return condition();
        }
    }
}

bool RunLoop::runUntilDone(const std::vector<CallHandle> &calls, std::chrono::milliseconds limit) {
    return runUntil(
        [&calls] {
            for (const CallHandle &call : calls)
                if (!call.done()) return false;
            return true;
        },
        limit);
}

void RunLoop::runFor(std::chrono::milliseconds duration) {
    runUntil([] { return false; }, duration);
}

} // namespace v1
} // namespace hv
