// The HTTP transport: one request out, one reply in, one result delivered.
#include "HTTPClosureSource.h"

#include "HalvoClosure.h"
#include "HalvoResult.h"
#include "HalvoUtils.h"

#include <initializer_list>
#include <utility>
#include <vector>

namespace {

// Stream events the transaction listens to: open-completed, has-bytes, error and end (0x1B).
constexpr RtOptionFlags kStreamEvents = kRtStreamEventOpenCompleted | kRtStreamEventHasBytesAvailable |
                                        kRtStreamEventErrorOccurred | kRtStreamEventEndEncountered;

// The state names of the verbose log, indexed by the state number modulo 5.
const char *const kStateNames[] = {"uninit", "waitforopen", "readintobuffer", "streamendencountered",
                                   "timedout"};

const char *stateName(int32_t state) {
    return kStateNames[static_cast<uint32_t>(state) % 5];
}

// The event names of the verbose log.
const char *cbNames(RtStreamEventType type) {
    switch (type) {
    case kRtStreamEventNone:
        return "kRtStreamEventNone";
    case kRtStreamEventOpenCompleted:
        return "kRtStreamEventOpenCompleted";
    case kRtStreamEventHasBytesAvailable:
        return "kRtStreamEventHasBytesAvailable";
    case kRtStreamEventCanAcceptBytes:
        return "kRtStreamEventCanAcceptBytes";
    case kRtStreamEventErrorOccurred:
        return "kRtStreamEventErrorOccurred";
    case kRtStreamEventEndEncountered:
        return "kRtStreamEventEndEncountered";
    default:
        return "? unknown RtStreamEventType ?";
    }
}

// Built once per process and never released. A function-local static: threads sending their
// first requests at the same moment wait for the one that builds it; later calls take no lock.
RtStringRef getUserAgentString() {
    static const RtStringRef sUserAgent = [] {
        RtTypeRef version = nullptr;
        if (RtBundleRef bundle = RtBundleGetBundleWithIdentifier(RTSTR(HV_BUNDLE_IDENTIFIER))) {
            if (RtDictionaryRef info = RtBundleGetInfoDictionary(bundle))
                version = RtDictionaryGetValue(info, kRtBundleVersionKey);
        }
        if (!version) version = RTSTR("1.0.0");
        return RtStringCreateWithFormat(kRtAllocatorDefault, nullptr,
                                        RTSTR("Tessaly; HalvosCore.framework (%@)"), version);
    }();
    return sUserAgent;
}

// A header the caller put in the template message wins over the library's default.
void setHeaderFieldValue(RtHTTPMessageRef templateMessage, RtHTTPMessageRef message, RtStringRef name,
                         RtStringRef value) {
    if (templateMessage) {
        RtStringRef existing = RtHTTPMessageCopyHeaderFieldValue(templateMessage, name);
        if (existing) {
            RtRelease(existing);
            return;
        }
    }
    RtHTTPMessageSetHeaderFieldValue(message, name, value);
}

void myRtHTTPReadStreamSetProxy(RtReadStreamRef stream, RtStringRef host, RtIndex port) {
    RtNumberRef portNumber = RtNumberCreate(kRtAllocatorDefault, kRtNumberIndexType, &port);
    if (!portNumber) return;
    const void *keys[] = {kRtStreamPropertyHTTPProxyHost, kRtStreamPropertyHTTPProxyPort};
    const void *values[] = {host, portNumber};
    RtDictionaryRef proxy =
        RtDictionaryCreate(kRtAllocatorDefault, keys, values, 2, &kRtTypeDictionaryKeyCallBacks,
                           &kRtTypeDictionaryValueCallBacks);
    RtReadStreamSetProperty(stream, kRtStreamPropertyHTTPProxy, proxy);
    safeRtRelease(proxy);
    RtRelease(portNumber);
}

// The captured request headers with the values of credential fields (a caller's own
// Authorization or Proxy-Authorization field) replaced by "(hidden)". Takes headers over.
RtDictionaryRef maskCredentials(RtHTTPMessageRef request, RtDictionaryRef headers) {
    static const RtStringRef kFields[] = {RTSTR("Authorization"), RTSTR("Proxy-Authorization")};
    bool any = false;
    for (RtStringRef field : kFields) {
        RtStringRef value = RtHTTPMessageCopyHeaderFieldValue(request, field);
        any |= value != nullptr;
        safeRtRelease(value);
    }
    if (!any || !headers) return headers;
    RtMutableDictionaryRef masked = RtDictionaryCreateMutableCopy(kRtAllocatorDefault, 0, headers);
    RtRelease(headers);
    if (!masked) return nullptr;
    RtIndex count = RtDictionaryGetCount(masked);
    std::vector<const void *> names(static_cast<size_t>(count));
    RtDictionaryGetKeysAndValues(masked, names.data(), nullptr);
    for (const void *name : names)
        for (RtStringRef field : kFields)
            if (RtStringCompare(static_cast<RtStringRef>(name), field, kRtCompareCaseInsensitive) ==
                kRtCompareEqualTo)
                RtDictionarySetValue(masked, name, RTSTR("(hidden)"));
    return masked;
}

void *_nullRetain(void *info) {
    return info;
}

void _nullRelease(void *) {}

RtStringRef _copyDescription(void *info) {
    return static_cast<HTTPClosureSource *>(info)->description();
}

void _readStreamCallback(RtReadStreamRef, RtStreamEventType type, void *info) {
    static_cast<HTTPClosureSource *>(info)->readStreamCallback(type);
}

void _timerCallback(RtRunLoopTimerRef, void *info) {
    static_cast<HTTPClosureSource *>(info)->timedOut();
}

// The stream's error for a reply refused over a limit: libcurl's CURLE_FILESIZE_EXCEEDED.
constexpr int32_t kReplyTooLargeError = 63;

// The reply limits when their properties are absent.
constexpr int64_t kDefaultMaxReplyLength = int64_t(64) * 1024 * 1024;
constexpr int64_t kDefaultMaxReplyHeadLength = int64_t(256) * 1024;

RtNumberRef createNumber(int64_t value) {
    return RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt64Type, &value);
}

// Sets a limit property of the stream from the invocation's property: its number when it is a
// positive one, 0 (no limit) for 0 or less, the default when absent or not a number. The
// default's number is made once per process, so an ordinary call allocates nothing for it.
void setLimit(RtReadStreamRef stream, RtStringRef streamKey, RtTypeRef value, int64_t fallback) {
    static const RtNumberRef sNoLimit = createNumber(0);
    static const RtNumberRef sDefaultBody = createNumber(kDefaultMaxReplyLength);
    static const RtNumberRef sDefaultHead = createNumber(kDefaultMaxReplyHeadLength);
    RtTypeRef number = fallback == kDefaultMaxReplyLength ? sDefaultBody : sDefaultHead;
    if (value && RtGetTypeID(value) == RtNumberGetTypeID()) {
        int64_t v = 0;
        RtNumberGetValue(static_cast<RtNumberRef>(value), kRtNumberSInt64Type, &v);
        number = v > 0 ? value : sNoLimit;
    }
    RtReadStreamSetProperty(stream, streamKey, number);
}

// A stream settings dictionary from (invocation property value, stream key) pairs whose value is
// set; NULL when none is. *wrongType when a value is not of the type wanted (string or boolean).
RtDictionaryRef createSettings(std::initializer_list<std::pair<RtTypeRef, RtStringRef>> pairs,
                               bool *wrongType) {
    RtMutableDictionaryRef settings = nullptr;
    for (const auto &pair : pairs) {
        if (!pair.first) continue;
        if (RtGetTypeID(pair.first) != RtStringGetTypeID() &&
            RtGetTypeID(pair.first) != RtBooleanGetTypeID()) {
            *wrongType = true;
            continue;
        }
        if (!settings)
            settings = RtDictionaryCreateMutable(kRtAllocatorDefault, 0, &kRtTypeDictionaryKeyCallBacks,
                                                 &kRtTypeDictionaryValueCallBacks);
        if (settings) RtDictionarySetValue(settings, pair.second, pair.first);
    }
    return settings;
}

// A boolean flag that may also be given as a number: true for the boolean true or a non-zero number.
bool isTrue(RtTypeRef value) {
    if (value == kRtBooleanTrue) return true;
    if (!value || RtGetTypeID(value) != RtNumberGetTypeID()) return false;
    int64_t v = 0;
    RtNumberGetValue(static_cast<RtNumberRef>(value), kRtNumberSInt64Type, &v);
    return v != 0;
}

// The stream error of the library's own transport failures.
const RtStreamError kTransportStreamError = {kRtStreamErrorDomainCustom, HalvoResult::kTransportError};
const RtStreamError kTimedOutStreamError = {kRtStreamErrorDomainCustom, HalvoResult::kTimedOutError};

} // namespace

HTTPClosureSource::HTTPClosureSource(HalvoMethodInvocation *closure, RtURLRef url)
    : ClosureSource(closure), fState(eUninit), fURL(static_cast<RtURLRef>(safeRtRetain(url))),
      fHttpMessage(nullptr), fBuffer(nullptr), fReadStream(nullptr), fRunLoop(nullptr), fRunLoopMode(nullptr),
      fDebugMessage(nullptr), fOutgoingHeaders(true), fOutgoingBody(true), fIncomingHeaders(true),
      fIncomingBody(true), fTimer(nullptr) {}

HTTPClosureSource::~HTTPClosureSource() {
    safeRtRelease(fURL);
    safeRtRelease(fHttpMessage);
    safeRtRelease(fBuffer);
    releaseStream();
    safeRtRelease(fDebugMessage);
    // A call released before it finished (its invocation let go in mid-call) never delivers:
    // its timer must not call into a dead object, and its result record goes with it.
    if (fTimer) {
        RtRunLoopTimerInvalidate(fTimer);
        RtRelease(fTimer);
    }
    delete fResult;
    fResult = nullptr;
}

void HTTPClosureSource::releaseStream() {
    if (fReadStream) {
        RtReadStreamSetClient(fReadStream, kStreamEvents, nullptr, nullptr);
        if (fRunLoop && fRunLoopMode) {
            RtReadStreamUnscheduleFromRunLoop(fReadStream, fRunLoop, fRunLoopMode);
            RtRelease(fRunLoop);
            RtRelease(fRunLoopMode);
            fRunLoop = nullptr;
            fRunLoopMode = nullptr;
        }
        // Not closed explicitly: the last release stops the transfer.
        RtRelease(fReadStream);
        fReadStream = nullptr;
    }
    safeRtRelease(fRunLoop);
    safeRtRelease(fRunLoopMode);
    fRunLoop = nullptr;
    fRunLoopMode = nullptr;
}

void HTTPClosureSource::resetTransaction() {
    releaseStream();
    safeRtRelease(fHttpMessage);
    safeRtRelease(fBuffer);
    safeRtRelease(fDebugMessage);
    fHttpMessage = nullptr;
    fBuffer = nullptr;
    fDebugMessage = nullptr;
    fState = eUninit;
    fResult = new HalvoResult;
}

void HTTPClosureSource::schedule(RtRunLoopRef, RtStringRef) {
    // A call that delivered its result is over; adding the source again starts the next one.
    // The first schedule finds the result of the constructor and changes nothing.
    if (!getResult()) resetTransaction();
}

// A method that is not a string counts as none.
RtStringRef HTTPClosureSource::getMethod() {
    RtTypeRef method = fClosure->getProperty(kHVPostingMethod);
    if (!method) return RTSTR("POST");
    return RtGetTypeID(method) == RtStringGetTypeID() ? static_cast<RtStringRef>(method) : nullptr;
}

RtStringRef HTTPClosureSource::getHttpVersion() {
    RtTypeRef version = fClosure->getProperty(kHVHTTPVersion);
    return RtGetTypeID(version) == RtStringGetTypeID() ? static_cast<RtStringRef>(version)
                                                       : kRtHTTPVersion1_1;
}

bool HTTPClosureSource::getFollowsRedirects() {
    RtTypeRef follows = fClosure->getProperty(kHVHTTPFollowsRedirects);
    return !follows || RtEqual(follows, kRtBooleanTrue);
}

bool HTTPClosureSource::initConnection() {
    // On a failure what was made so far stays in the fields; the destructor releases it.
    auto fail = [this](RtStringRef message) {
        getResult()->becomeFault(message);
        finish();
        return false;
    };

    // An empty authority ("file:///x") names no host either.
    AutoString host;
    if (fURL) *host.getStringPtr() = RtURLCopyHostName(fURL);
    if (host.isNull() || RtStringGetLength(host.getString()) == 0) return fail(RTSTR("Missing host in URL"));

    AutoString contentType;
    RtDataRef body = fClosure->constructMessage(contentType);
    if (!body) {
        // In exact mode the refusal says which value could not travel, and why.
        if (RtStringRef refusal = fClosure->getRequestRefusal()) {
            getResult()->becomeFault(refusal, kRefusedRequestFaultCode, nullptr, kRtStringEncodingUTF8);
            finish();
            return false;
        }
        return fail(RTSTR("Can't serialize request"));
    }

    RtStringRef method = getMethod();
    if (!method) {
        RtRelease(body);
        return fail(RTSTR("Can't get posting method"));
    }

    // A template message brings its own method, URL and version.
    RtHTTPMessageRef templateMessage = nullptr;
    RtTypeRef templateValue = fClosure->getProperty(kHVHTTPMessage);
    if (!templateValue) {
        fHttpMessage = RtHTTPMessageCreateRequest(kRtAllocatorDefault, method, fURL, getHttpVersion());
    } else if (RtGetTypeID(templateValue) == RtHTTPMessageGetTypeID()) {
        templateMessage = static_cast<RtHTTPMessageRef>(const_cast<void *>(templateValue));
        fHttpMessage = RtHTTPMessageCreateCopy(kRtAllocatorDefault, templateMessage);
    }
    if (!fHttpMessage) {
        RtRelease(body);
        return fail(RTSTR("Can't create HTTP message request"));
    }

    RtHTTPMessageSetBody(fHttpMessage, body);
    if (fOutgoingBody)
        fDebugMessage = body;
    else
        RtRelease(body);

    setHeaderFieldValue(templateMessage, fHttpMessage, RTSTR("User-Agent"), getUserAgentString());
    setHeaderFieldValue(templateMessage, fHttpMessage, RTSTR("Host"), host.getString());
    setHeaderFieldValue(templateMessage, fHttpMessage, RTSTR("Content-Type"),
                        contentType.isNull() ? RTSTR("text/xml") : contentType.getString());

    // Extra headers replace whatever was set before. Only string pairs can be header fields;
    // anything else is skipped like a NULL key or value.
    RtTypeRef extra = fClosure->getProperty(kHVHTTPExtraHeaders);
    if (extra && RtGetTypeID(extra) == RtDictionaryGetTypeID()) {
        DictIterator headers(static_cast<RtDictionaryRef>(extra));
        while (headers.hasMoreElements()) {
            RtTypeRef name = headers.nextElement();
            RtTypeRef value = name ? headers.getValue(name) : nullptr;
            if (RtGetTypeID(name) == RtStringGetTypeID() && RtGetTypeID(value) == RtStringGetTypeID())
                RtHTTPMessageSetHeaderFieldValue(fHttpMessage, static_cast<RtStringRef>(name),
                                                 static_cast<RtStringRef>(value));
        }
    }

    fReadStream = RtReadStreamCreateForHTTPRequest(kRtAllocatorDefault, fHttpMessage);
    if (!fReadStream) return fail(RTSTR("Can't create read stream from http message"));

    RtTypeRef proxy = fClosure->getProperty(kHVHTTPProxy);
    if (proxy && RtGetTypeID(proxy) == RtURLGetTypeID()) {
        AutoString proxyHost;
        *proxyHost.getStringPtr() = RtURLCopyHostName(static_cast<RtURLRef>(proxy));
        int32_t port = RtURLGetPortNumber(static_cast<RtURLRef>(proxy));
        if (!proxyHost.isNull())
            myRtHTTPReadStreamSetProxy(fReadStream, proxyHost.getString(), port < 0 ? 80 : port);
    }

    RtReadStreamSetProperty(fReadStream, kRtStreamPropertyHTTPShouldAutoredirect,
                            getFollowsRedirects() ? kRtBooleanTrue : kRtBooleanFalse);
    if (RtStringRef refused = applyTransportSettings()) return fail(refused);

    // perform runs on the loop the invocation was scheduled on, in the mode it is running.
    RtRunLoopRef loop = RtRunLoopGetCurrent();
    RtRetain(loop);
    fRunLoop = loop;
    fRunLoopMode = RtRunLoopCopyCurrentMode(loop);
    RtReadStreamScheduleWithRunLoop(fReadStream, fRunLoop, fRunLoopMode);

    RtStreamClientContext client = {0, this, _nullRetain, _nullRelease, _copyDescription};
    if (!RtReadStreamSetClient(fReadStream, kStreamEvents, _readStreamCallback, &client))
        return fail(RTSTR("Can't set read stream client"));

    if (!RtReadStreamOpen(fReadStream)) return fail(RTSTR("Can't issue read stream open"));

    // Without the property, or with 0 or less, the call has no time limit at all.
    RtTypeRef timeout = fClosure->getProperty(kHVMethodInvocationTimeoutValue);
    int32_t seconds = 0;
    if (timeout && RtGetTypeID(timeout) == RtNumberGetTypeID())
        RtNumberGetValue(static_cast<RtNumberRef>(timeout), kRtNumberSInt32Type, &seconds);
    if (seconds > 0) {
        // The repeat interval is the 1970-to-2001 epoch difference on purpose: in effect the
        // timer fires once, and finish() removes it long before a second firing.
        RtRunLoopTimerContext timerContext = {0, this, nullptr, nullptr, nullptr};
        fTimer = RtRunLoopTimerCreate(kRtAllocatorDefault, RtAbsoluteTimeGetCurrent() + seconds,
                                      kRtAbsoluteTimeIntervalSince1970, 0, 0, _timerCallback, &timerContext);
        if (fTimer) RtRunLoopAddTimer(loop, fTimer, fRunLoopMode);
    }
    return true;
}

RtStringRef HTTPClosureSource::applyTransportSettings() {
    setLimit(fReadStream, kRtStreamPropertyHTTPMaxBodyLength, fClosure->getProperty(kHVHTTPMaxReplyLength),
             kDefaultMaxReplyLength);
    setLimit(fReadStream, kRtStreamPropertyHTTPMaxHeadLength,
             fClosure->getProperty(kHVHTTPMaxReplyHeadLength), kDefaultMaxReplyHeadLength);

    if (RtTypeRef auth = fClosure->getProperty(kHVAuthInfo)) {
        if (RtGetTypeID(auth) != RtDictionaryGetTypeID()) return RTSTR("Can't use kHVAuthInfo");
        auto info = static_cast<RtDictionaryRef>(auth);
        bool wrongType = false;
        RtDictionaryRef settings = createSettings(
            {{RtDictionaryGetValue(info, kHVAuthInfo_user), kRtStreamHTTPAuthUser},
             {RtDictionaryGetValue(info, kHVAuthInfo_password), kRtStreamHTTPAuthPassword},
             {RtDictionaryGetValue(info, kHVAuthInfo_authScheme), kRtStreamHTTPAuthScheme},
             {isTrue(RtDictionaryGetValue(info, kHVAuthInfo_forProxy)) ? kRtBooleanTrue : nullptr,
              kRtStreamHTTPAuthForProxy}},
            &wrongType);
        if (!settings)
            settings = RtDictionaryCreate(kRtAllocatorDefault, nullptr, nullptr, 0,
                                          &kRtTypeDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
        bool taken =
            !wrongType && RtReadStreamSetProperty(fReadStream, kRtStreamPropertyHTTPAuthentication, settings);
        safeRtRelease(settings);
        if (!taken) return RTSTR("Can't use kHVAuthInfo");
    }

    RtTypeRef verify = fClosure->getProperty(kHVTLSVerifyPeer);
    bool wrongType = false;
    RtDictionaryRef tls =
        createSettings({{fClosure->getProperty(kHVTLSCAFile), kRtStreamTLSCAFile},
                        {fClosure->getProperty(kHVTLSCADirectory), kRtStreamTLSCADirectory},
                        {fClosure->getProperty(kHVTLSClientCertificate), kRtStreamTLSCertificateFile},
                        {fClosure->getProperty(kHVTLSClientKey), kRtStreamTLSKeyFile},
                        {verify == kRtBooleanFalse ? verify : nullptr, kRtStreamTLSVerifyPeer}},
                       &wrongType);
    if (tls) {
        if (!RtReadStreamSetProperty(fReadStream, kRtStreamPropertyTLS, tls)) wrongType = true;
        RtRelease(tls);
    }
    if (wrongType) return RTSTR("Can't use the TLS settings");

    if (fClosure->getProperty(kHVHTTPAcceptCompression) == kRtBooleanTrue)
        RtReadStreamSetProperty(fReadStream, kRtStreamPropertyHTTPAcceptCompression, kRtBooleanTrue);
    return nullptr;
}

void HTTPClosureSource::streamFailed() {
    RtStreamError error = RtReadStreamGetError(fReadStream);
    HalvoResult *result = getResult();
    result->becomeFault(error);
    auto detail =
        static_cast<RtStringRef>(RtReadStreamCopyProperty(fReadStream, kRtStreamPropertyErrorDetail));
    if (detail && error.domain == kRtStreamErrorDomainCurl && error.error == kReplyTooLargeError) {
        // A refused reply: say which property raises the limit.
        bool head = RtStringHasPrefix(detail, RTSTR("The response head"));
        RtStringRef advice = RtStringCreateWithFormat(
            kRtAllocatorDefault, nullptr, RTSTR("%@; raise it with the property %s"), detail,
            head ? "kHVHTTPMaxReplyHeadLength" : "kHVHTTPMaxReplyLength (hvcall --max-reply BYTES)");
        RtRelease(detail);
        detail = advice;
    }
    result->addFaultDetail(detail);
    safeRtRelease(detail);
    finish();
}

void HTTPClosureSource::perform() {
    if (gHVDebugVerbose) _hvLogf("HTTPClosureSource::perform state %d (%s)", fState, stateName(fState));

    // A signal left over from a transaction that has already delivered its result (the stream
    // reported an error after announcing bytes): nothing is left to do.
    if (!getResult()) return;

    // The client's callback may release the invocation, and with it this source: hold the
    // handle until perform has finished with its fields.
    RtTypeRef handle = safeRtRetain(fClosure->getRtRef());

    switch (static_cast<uint32_t>(fState)) {
    case eUninit:
        if (initConnection()) {
            fState = eWaitForOpen;
            fBuffer = RtDataCreateMutable(kRtAllocatorDefault, 0);
        }
        break;
    case eWaitForOpen:
        if (gHVDebugVerbose)
            _hvLogf("We should not be ever in this state...  We care about bytes being available only.");
        getResult()->becomeFault(RTSTR("Timed Out Waiting For Open"), kTimedOutStreamError);
        finish();
        break;
    case eReadIntoBuffer:
        fillReadBuffer();
        break;
    case eStreamEndEncountered:
        processBuffer();
        break;
    case eTimedOut: {
        getResult()->becomeFault(RTSTR("Timed Out"), kTimedOutStreamError);
        int32_t seconds = 0;
        RtTypeRef timeout = fClosure->getProperty(kHVMethodInvocationTimeoutValue);
        if (timeout && RtGetTypeID(timeout) == RtNumberGetTypeID())
            RtNumberGetValue(static_cast<RtNumberRef>(timeout), kRtNumberSInt32Type, &seconds);
        RtStringRef detail = RtStringCreateWithFormat(
            kRtAllocatorDefault, nullptr,
            RTSTR("No complete reply within %d seconds (the property kHVMethodInvocationTimeoutValue)"),
            static_cast<int>(seconds));
        getResult()->addFaultDetail(detail);
        safeRtRelease(detail);
        finish();
        break;
    }
    default:
        if (gHVDebugVerbose) _hvLogf("Unknown state: %d", fState);
        getResult()->becomeFault(RTSTR("Uknown State")); // spelled so on purpose
        finish();
        break;
    }

    if (gHVDebugVerbose)
        _hvLogf("HTTPClosureSource::perform new state state %d (%s)", fState, stateName(fState));
    safeRtRelease(handle);
}

void HTTPClosureSource::readStreamCallback(RtStreamEventType type) {
    if (gHVDebugVerbose)
        _hvLogf("HTTPClosureSource::readStreamCallback type %d (%s), state %s\n", static_cast<int>(type),
                cbNames(type), stateName(fState));

    if (!getResult()) {
        if (gHVDebugVerbose)
            _hvLogf("We shouldn't be serviging any more callback signals"); // spelled so on purpose
        return;
    }

    // The events set the state unconditionally: bytes after a time-out put the machine back to 2.
    switch (type) {
    case kRtStreamEventHasBytesAvailable:
        fState = eReadIntoBuffer;
        signal();
        break;
    case kRtStreamEventEndEncountered:
        fState = eStreamEndEncountered;
        signal();
        break;
    case kRtStreamEventErrorOccurred:
        streamFailed();
        break;
    case kRtStreamEventOpenCompleted:
        break;
    default:
        getResult()->becomeFault(RTSTR("Unlikely state for a read stream"));
        finish();
        break;
    }
}

void HTTPClosureSource::timedOut() {
    if (gHVDebugVerbose) _hvLogf("closure timed out: current state is %d", fState);
    // Past the end of the stream (or already timed out) the reply wins.
    if (fState > eReadIntoBuffer) return;
    fState = eTimedOut;
    signal();
}

void HTTPClosureSource::finish() {
    if (fTimer) {
        // Removed from the loop and mode running now, which are the ones it was added to; the
        // invalidation also covers a finish reached from a nested run in another mode.
        RtRunLoopRef loop = RtRunLoopGetCurrent();
        RtStringRef mode = RtRunLoopCopyCurrentMode(loop);
        if (mode) {
            RtRunLoopRemoveTimer(loop, fTimer, mode);
            RtRelease(mode);
        }
        RtRunLoopTimerInvalidate(fTimer);
        RtRelease(fTimer);
        fTimer = nullptr;
    }
    ClosureSource::finish();
}

void HTTPClosureSource::fillReadBuffer() {
    uint8_t bytes[1024];
    RtIndex count;
    do {
        count = RtReadStreamRead(fReadStream, bytes, sizeof(bytes));
        // End or error: errors arrive through the stream's error event.
        if (count < 1) break;
        RtDataAppendBytes(fBuffer, bytes, count);
    } while (count == static_cast<RtIndex>(sizeof(bytes)));
}

void HTTPClosureSource::processBuffer() {
    HalvoResult *result = getResult();
    RtStringEncoding charset = kRtStringEncodingUTF8;
    RtHTTPMessageRef response = nullptr;

    if (fBuffer)
        response = static_cast<RtHTTPMessageRef>(
            const_cast<void *>(RtReadStreamCopyProperty(fReadStream, kRtStreamPropertyHTTPResponseHeader)));
    if (!fBuffer || !response) {
        result->becomeFault(RTSTR("Could not read any data"));
    } else {
        result->addToResult(kHVHTTPResponseMessage, response);
        int32_t status = RtHTTPMessageGetResponseStatusCode(response);
        charset = getResponseCharset(response);
        bool knownXML = false;
        bool possiblyContainsXML = false;
        checkForXMLContent(response, &knownXML, &possiblyContainsXML);
        bool isXML = knownXML || possiblyContainsXML;
        bool success = status >= 200 && status <= 299;

        if (success && !isXML) {
            result->becomeFault(RTSTR("The server did not return a 'text/xml' response."),
                                kTransportStreamError);
        } else if (success || (status == 500 && isXML)) {
            RtStringRef errorString = nullptr;
            if (!fClosure->readReply(result, fBuffer, knownXML, charset, &errorString))
                result->becomeFault(errorString ? errorString : RTSTR("Could not parse XML."),
                                    kTransportStreamError);
            safeRtRelease(errorString);
        } else {
            // The status line exactly as the server sent it.
            RtStringRef statusLine = RtHTTPMessageCopyResponseStatusLine(response);
            result->becomeFault(statusLine, kTransportStreamError);
            safeRtRelease(statusLine);
            if (status == 401)
                result->addFaultDetail(RTSTR("The server wants credentials, or refused the ones sent: set "
                                             "kHVAuthInfo or put user:password in the URL (hvcall --user)"));
            else if (status == 407)
                result->addFaultDetail(RTSTR("The proxy wants credentials, or refused the ones sent: set "
                                             "kHVAuthInfo with kHVAuthInfo_forProxy true"));
        }
    }

    // The raw exchange goes into every result, fault or not.
    if (fOutgoingHeaders && fHttpMessage) {
        RtDictionaryRef headers =
            maskCredentials(fHttpMessage, RtHTTPMessageCopyAllHeaderFields(fHttpMessage));
        if (headers) {
            result->addToResult(kHVDebugOutgoingHeaders, headers);
            RtRelease(headers);
        }
    }
    if (fIncomingHeaders && response) {
        RtDictionaryRef headers = RtHTTPMessageCopyAllHeaderFields(response);
        if (headers) {
            result->addToResult(kHVDebugIncomingHeaders, headers);
            RtRelease(headers);
        }
    }
    if (fOutgoingBody && fDebugMessage) {
        RtStringRef text = prettyPrintXML(fDebugMessage, kRtStringEncodingUTF8);
        if (text) {
            result->addToResult(kHVDebugOutgoingBody, text);
            RtRelease(text);
        }
    }
    if (fIncomingBody && fBuffer) {
        RtStringRef text = prettyPrintXML(fBuffer, charset);
        if (text) {
            result->addToResult(kHVDebugIncomingBody, text);
            RtRelease(text);
        }
    }

    if (gHVDebug) {
        // "Transaction Log:" has no line end of its own: it runs on into the first entry.
        RtDictionaryRef log = result->copyDictionary();
        hvPrintf(RTSTR("Transaction Log:"));
        hvPrintf(RTSTR("Outgoing Headers: %@\n"), RtDictionaryGetValue(log, kHVDebugOutgoingHeaders));
        hvPrintf(RTSTR("Outgoing Body: %@\n"), RtDictionaryGetValue(log, kHVDebugOutgoingBody));
        hvPrintf(RTSTR("Incoming Headers: %@\n"), RtDictionaryGetValue(log, kHVDebugIncomingHeaders));
        hvPrintf(RTSTR("Incoming Body: %@\n"), RtDictionaryGetValue(log, kHVDebugIncomingBody));
        hvPrintf(RTSTR("\n"));
        safeRtRelease(log);
    }

    safeRtRelease(response);
    finish();
}
