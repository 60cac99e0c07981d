// RtReadStream: one HTTP request sent through the thread's libcurl multi handle, its response
// body buffered for RtReadStreamRead and its events delivered to the client.
//
// libcurl's callbacks only record (body bytes, response head, connection made) and mark events
// pending; a run-loop source added to each (loop, mode) the stream is scheduled in delivers them
// to the client. So the client is never called from inside libcurl, may close or release the
// stream from its callback, and hears nothing in a mode it was not scheduled in.
// End-encountered waits until the buffered body has been read, so a client that reads on a
// later turn still sees every byte before the end. Used on the thread of the loop it runs on.
#include "RtCurlDriver.h"
#include "RtHTTPMessageInternal.h"

#include <RtNetwork/RtReadStream.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <vector>

const RtStringRef kRtStreamPropertyHTTPResponseHeader =
    __RtStringMakeConstantString("kRtStreamPropertyHTTPResponseHeader");
const RtStringRef kRtStreamPropertyHTTPProxy = __RtStringMakeConstantString("kRtStreamPropertyHTTPProxy");
const RtStringRef kRtStreamPropertyHTTPProxyHost =
    __RtStringMakeConstantString("kRtStreamPropertyHTTPProxyHost");
const RtStringRef kRtStreamPropertyHTTPProxyPort =
    __RtStringMakeConstantString("kRtStreamPropertyHTTPProxyPort");
const RtStringRef kRtStreamPropertyHTTPShouldAutoredirect =
    __RtStringMakeConstantString("kRtStreamPropertyHTTPShouldAutoredirect");
const RtStringRef kRtStreamPropertyHTTPFinalURL =
    __RtStringMakeConstantString("kRtStreamPropertyHTTPFinalURL");
const RtStringRef kRtStreamPropertyHTTPMaxBodyLength =
    __RtStringMakeConstantString("kRtStreamPropertyHTTPMaxBodyLength");
const RtStringRef kRtStreamPropertyHTTPMaxHeadLength =
    __RtStringMakeConstantString("kRtStreamPropertyHTTPMaxHeadLength");
const RtStringRef kRtStreamPropertyHTTPAuthentication =
    __RtStringMakeConstantString("kRtStreamPropertyHTTPAuthentication");
const RtStringRef kRtStreamHTTPAuthUser = __RtStringMakeConstantString("kRtStreamHTTPAuthUser");
const RtStringRef kRtStreamHTTPAuthPassword = __RtStringMakeConstantString("kRtStreamHTTPAuthPassword");
const RtStringRef kRtStreamHTTPAuthScheme = __RtStringMakeConstantString("kRtStreamHTTPAuthScheme");
const RtStringRef kRtStreamHTTPAuthForProxy = __RtStringMakeConstantString("kRtStreamHTTPAuthForProxy");
const RtStringRef kRtStreamPropertyTLS = __RtStringMakeConstantString("kRtStreamPropertyTLS");
const RtStringRef kRtStreamTLSCAFile = __RtStringMakeConstantString("kRtStreamTLSCAFile");
const RtStringRef kRtStreamTLSCADirectory = __RtStringMakeConstantString("kRtStreamTLSCADirectory");
const RtStringRef kRtStreamTLSCertificateFile = __RtStringMakeConstantString("kRtStreamTLSCertificateFile");
const RtStringRef kRtStreamTLSKeyFile = __RtStringMakeConstantString("kRtStreamTLSKeyFile");
const RtStringRef kRtStreamTLSVerifyPeer = __RtStringMakeConstantString("kRtStreamTLSVerifyPeer");
const RtStringRef kRtStreamPropertyHTTPAcceptCompression =
    __RtStringMakeConstantString("kRtStreamPropertyHTTPAcceptCompression");
const RtStringRef kRtStreamPropertyErrorDetail = __RtStringMakeConstantString("kRtStreamPropertyErrorDetail");

namespace {

// Redirects followed before the transfer fails with CURLE_TOO_MANY_REDIRECTS.
constexpr long kMaxRedirects = 20;

struct Schedule {
    RtRunLoopRef fLoop; // retained
    RtStringRef fMode;  // immutable copy
};

struct StreamState final : rt::CurlTransfer {
    RtHTTPMessageRef fRequest = nullptr;
    RtStreamStatus fStatus = kRtStreamStatusNotOpen;
    RtStreamError fError{0, 0};

    RtOptionFlags fClientEvents = 0;
    RtReadStreamClientCallBack fClientCB = nullptr;
    RtStreamClientContext fClientContext{};

    RtRunLoopSourceRef fSource = nullptr; // delivers pending events
    std::vector<Schedule> fSchedules;
    RtStreamEventType fPending = 0;

    RtDictionaryRef fProxy = nullptr;
    bool fAutoredirect = false;

    // The opt-in settings, taken from their properties when set and applied at open.
    uint64_t fMaxBody = 0, fMaxHead = 0; // 0: no limit of ours
    bool fHasAuth = false, fAuthForProxy = false;
    unsigned long fAuthMask = CURLAUTH_ANY;
    std::string fAuthUser, fAuthPassword;
    bool fHasTLS = false, fVerifyPeer = true;
    std::string fCAFile, fCADirectory, fCertificateFile, fKeyFile;
    bool fCompression = false;
    // Counted against the limits: the current response's head and body.
    uint64_t fBodyBytes = 0;
    size_t fHeadBytes = 0;
    bool fRefused = false;            // a limit stopped the transfer; fDetail says which
    std::string fDetail;              // why the transfer failed, once it has
    char fErrorText[CURL_ERROR_SIZE]; // libcurl's message for the failure

    rt::CurlDriver *fDriver = nullptr;
    CURL *fEasy = nullptr;
    bool fInMulti = false;
    rt::CurlHeaderList *fHeaders = nullptr;  // shared through the driver
    rt::CurlParsedURL *fParsedURL = nullptr; // shared through the driver; NULL: CURLOPT_URL
    std::vector<RtStringRef> fActiveModes;   // modes this stream activated on the driver
    std::string fURLText, fMethodText;

    std::string fHead; // the head being received
    bool fInHead = false;
    RtHTTPMessageRef fResponse = nullptr;
    std::string fBuffer; // body bytes; fBuffer[fReadPos...] not yet read
    size_t fReadPos = 0;
    bool fConnected = false;
    bool fTransferDone = false;
    bool fEndDelivered = false;
    RtURLRef fFinalURL = nullptr;
    std::string fEffectiveURL; // libcurl's last URL, made into fFinalURL when first asked for
    bool fHasEffectiveURL = false;

    size_t buffered() const { return fBuffer.size() - fReadPos; }
    void transferDone(CURLcode result) override;
};

} // namespace

struct __RtReadStream {
    RtRuntimeBase fBase;
    StreamState fState;
};

namespace {

void stopTransfer(StreamState &st);
void releaseClient(StreamState &st);

void _finalizeStream(RtTypeRef obj) {
    StreamState &st = static_cast<__RtReadStream *>(const_cast<void *>(obj))->fState;
    stopTransfer(st);
    for (Schedule &s : st.fSchedules) {
        RtRunLoopRemoveSource(s.fLoop, st.fSource, s.fMode);
        RtRelease(s.fMode);
        RtRelease(s.fLoop);
    }
    RtRunLoopSourceInvalidate(st.fSource);
    RtRelease(st.fSource);
    releaseClient(st);
    RtRelease(st.fRequest);
    RtRelease(st.fResponse);
    RtRelease(st.fProxy);
    RtRelease(st.fFinalURL);
    if (st.fDriver) st.fDriver->release();
    st.~StreamState();
}

const RtRuntimeClass sStreamClass = {0,       "RtReadStream", nullptr, nullptr, _finalizeStream,
                                     nullptr, nullptr,        nullptr, nullptr};
std::atomic<RtTypeID> gStreamTypeID{kRtNotATypeID};

bool isStream(RtReadStreamRef s) {
    return s && RtGetTypeID(s) == RtReadStreamGetTypeID();
}

bool sameMode(RtStringRef a, RtStringRef b) {
    return a == b || RtEqual(a, b);
}

// Marks events pending and signals the delivery source. The loop's own thread reaches the
// source before it sleeps again; another thread's loop is woken.
void post(StreamState &st, RtStreamEventType events) {
    st.fPending |= events;
    RtRunLoopSourceSignal(st.fSource);
    RtRunLoopRef current = RtRunLoopGetCurrent();
    for (Schedule &s : st.fSchedules)
        if (s.fLoop != current) RtRunLoopWakeUp(s.fLoop);
}

void releaseClient(StreamState &st) {
    if (st.fClientContext.release && st.fClientContext.info)
        st.fClientContext.release(st.fClientContext.info);
    st.fClientContext = RtStreamClientContext{};
    st.fClientCB = nullptr;
    st.fClientEvents = 0;
}

void activateModes(StreamState &st) {
    if (!st.fDriver) return;
    for (Schedule &s : st.fSchedules) {
        if (s.fLoop != st.fDriver->runLoop()) continue;
        bool active = std::any_of(st.fActiveModes.begin(), st.fActiveModes.end(),
                                  [&](RtStringRef m) { return sameMode(m, s.fMode); });
        if (active) continue;
        st.fDriver->activateMode(s.fMode);
        st.fActiveModes.push_back(static_cast<RtStringRef>(RtRetain(s.fMode)));
    }
}

void deactivateMode(StreamState &st, RtStringRef mode) {
    for (auto it = st.fActiveModes.begin(); it != st.fActiveModes.end(); ++it) {
        if (!sameMode(*it, mode)) continue;
        st.fDriver->deactivateMode(*it);
        RtRelease(*it);
        st.fActiveModes.erase(it);
        return;
    }
}

void deactivateModes(StreamState &st) {
    for (RtStringRef m : st.fActiveModes) {
        st.fDriver->deactivateMode(m);
        RtRelease(m);
    }
    st.fActiveModes.clear();
}

void stopTransfer(StreamState &st) {
    if (st.fEasy) {
        if (st.fInMulti) st.fDriver->remove(st.fEasy);
        st.fInMulti = false;
        st.fDriver->recycleEasy(st.fEasy);
        st.fEasy = nullptr;
    }
    if (st.fDriver) {
        deactivateModes(st);
        st.fDriver->releaseHeaderList(st.fHeaders);
        st.fDriver->releaseParsedURL(st.fParsedURL);
    }
    st.fHeaders = nullptr;
    st.fParsedURL = nullptr;
}

// Why a failed transfer failed, in words: ours for what the stream refused, libcurl's message
// otherwise (its error buffer, else the text of its code).
void describeFailure(StreamState &st, CURLcode result) {
    if (st.fRefused) return; // the refusal wrote its own
    long redirects = 0;
    curl_easy_getinfo(st.fEasy, CURLINFO_REDIRECT_COUNT, &redirects);
    if (result == CURLE_UNSUPPORTED_PROTOCOL && st.fAutoredirect && redirects > 0) {
        std::string target = st.fEffectiveURL;
        char *next = nullptr;
        if (curl_easy_getinfo(st.fEasy, CURLINFO_REDIRECT_URL, &next) == CURLE_OK && next) target = next;
        std::string scheme = target.substr(0, target.find(':'));
        st.fDetail = "Refused to follow a redirect to a " + scheme +
                     " URL: redirects are followed only to http and https URLs";
        return;
    }
    st.fDetail = st.fErrorText[0] ? st.fErrorText : curl_easy_strerror(result);
}

void StreamState::transferDone(CURLcode result) {
    fInMulti = false;
    fTransferDone = true;
    char *effective = nullptr;
    if (curl_easy_getinfo(fEasy, CURLINFO_EFFECTIVE_URL, &effective) == CURLE_OK && effective) {
        // Kept as text: few clients ask for the final URL, and making a URL of it costs more
        // than the rest of finishing the transfer.
        fEffectiveURL.assign(effective);
        fHasEffectiveURL = true;
    }
    if (result != CURLE_OK) describeFailure(*this, result);
    stopTransfer(*this);
    if (result == CURLE_OK) {
        post(*this, kRtStreamEventEndEncountered);
    } else {
        fStatus = kRtStreamStatusError;
        fError = {kRtStreamErrorDomainCurl, int32_t(fRefused ? CURLE_FILESIZE_EXCEEDED : result)};
        post(*this, kRtStreamEventErrorOccurred);
    }
}

// Stops the transfer over a limit: the callback that calls this returns a short count, which
// ends the transfer with a write error that transferDone reports as the limit's.
size_t refuse(StreamState &st, std::string detail) {
    st.fRefused = true;
    st.fDetail = std::move(detail);
    return 0;
}

// ---- libcurl callbacks (record only; never call the client) -----------------------------------

size_t _headerCallback(char *buffer, size_t size, size_t count, void *userdata) {
    auto &st = *static_cast<StreamState *>(userdata);
    size_t n = size * count;
    std::string_view line(buffer, n);
    if (line.substr(0, 5) == "HTTP/") { // each response (redirect, interim, final) starts afresh
        st.fHead.reserve(512);          // a usual head at once, instead of growing by lines
        st.fHead.assign(line);
        st.fInHead = true;
        st.fHeadBytes = 0;
        st.fBodyBytes = 0;
    } else if (st.fInHead) {
        st.fHead.append(line);
    } else {
        return n; // trailers after a chunked body
    }
    st.fHeadBytes += n;
    if (st.fMaxHead && st.fHeadBytes > st.fMaxHead)
        return refuse(st, "The response head is larger than the limit of " + std::to_string(st.fMaxHead) +
                              " bytes");
    if (line != "\r\n" && line != "\n") return n;
    st.fInHead = false;
    RtHTTPMessageRef response = rt::createResponseFromHead(st.fHead);
    st.fHead.clear();
    // Interim 1xx heads are not the response.
    int32_t status = response ? RtHTTPMessageGetResponseStatusCode(response) : 0;
    if (status >= 200) {
        RtRelease(st.fResponse);
        st.fResponse = response;
    } else {
        RtRelease(response);
        return n;
    }
    // A body declared too large is refused before any of it arrives (a redirect's body, which
    // libcurl skips, does not count).
    bool followed = st.fAutoredirect && status >= 300 && status < 400;
    if (st.fMaxBody && !followed) {
        // libcurl has read the Content-Length by the head's last line; -1 when there is none.
        curl_off_t declared = -1;
        curl_easy_getinfo(st.fEasy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &declared);
        if (declared >= 0 && uint64_t(declared) > st.fMaxBody)
            return refuse(st, "The reply body of " + std::to_string(declared) +
                                  " bytes (its Content-Length) is larger than the limit of " +
                                  std::to_string(st.fMaxBody) + " bytes");
    }
    return n;
}

size_t _writeCallback(char *data, size_t size, size_t count, void *userdata) {
    auto &st = *static_cast<StreamState *>(userdata);
    size_t n = size * count;
    st.fBodyBytes += n;
    if (st.fMaxBody && st.fBodyBytes > st.fMaxBody)
        return refuse(st,
                      "The reply body is larger than the limit of " + std::to_string(st.fMaxBody) + " bytes");
    if (st.fReadPos > 0 && st.fReadPos >= st.fBuffer.size() / 2) { // reclaim what was read
        st.fBuffer.erase(0, st.fReadPos);
        st.fReadPos = 0;
    }
    st.fBuffer.append(data, n);
    if (n) post(st, kRtStreamEventHasBytesAvailable);
    return n;
}

int _connectedCallback(void *clientp, char *, char *, int, int) {
    auto &st = *static_cast<StreamState *>(clientp);
    if (!st.fConnected) {
        st.fConnected = true;
        post(st, kRtStreamEventOpenCompleted);
    }
    return CURL_PREREQFUNC_OK;
}

// ---- Delivery ---------------------------------------------------------------------------------

// Hands pending events to the client one at a time, re-checking the stream after each callback
// (which may have read, closed, unscheduled or released it).
void _deliver(void *info) {
    auto *stream = static_cast<RtReadStreamRef>(info);
    RtRetain(stream);
    StreamState &st = stream->fState;
    while (st.fStatus != kRtStreamStatusClosed && st.fPending) {
        RtStreamEventType event = kRtStreamEventNone;
        if (st.fPending & kRtStreamEventOpenCompleted) {
            st.fPending &= ~RtStreamEventType(kRtStreamEventOpenCompleted);
            if (st.fStatus == kRtStreamStatusOpening) st.fStatus = kRtStreamStatusOpen;
            event = kRtStreamEventOpenCompleted;
        } else if (st.fPending & kRtStreamEventHasBytesAvailable) {
            st.fPending &= ~RtStreamEventType(kRtStreamEventHasBytesAvailable);
            if (st.buffered() > 0 && st.fStatus != kRtStreamStatusError)
                event = kRtStreamEventHasBytesAvailable;
        } else if (st.fPending & kRtStreamEventErrorOccurred) {
            st.fPending &= ~RtStreamEventType(kRtStreamEventErrorOccurred);
            event = kRtStreamEventErrorOccurred;
        } else {
            st.fPending &= ~RtStreamEventType(kRtStreamEventEndEncountered);
            if (st.buffered() == 0 && !st.fEndDelivered && st.fStatus != kRtStreamStatusError) {
                st.fEndDelivered = true;
                st.fStatus = kRtStreamStatusAtEnd;
                event = kRtStreamEventEndEncountered;
            }
        }
        if (event && st.fClientCB && (st.fClientEvents & event))
            st.fClientCB(stream, event, st.fClientContext.info);
    }
    RtRelease(stream);
}

// ---- Building the request ---------------------------------------------------------------------

bool isTokenText(const std::string &s) {
    if (s.empty()) return false;
    for (unsigned char c : s)
        if (!rt::isHTTPTokenChar(c)) return false;
    return true;
}

bool equalsIgnoringCase(const std::string &a, const char *b) {
    size_t n = std::strlen(b);
    if (a.size() != n) return false;
    for (size_t i = 0; i < n; i++)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

// Exactly the message's fields, plus what stops libcurl adding its own ("Accept", "Expect",
// a form Content-Type). Content-Length is always libcurl's, from the body's real length.
// The lines go into lines, each ended by a NUL, for the driver to make (or share) the list.
// A Host field holding the URL's bare host name (urlHost, what the transport records) is left to
// libcurl, which writes it as HTTP has it: brackets around an IPv6 literal, the port whenever it
// is not the scheme's default. A Host naming anything else (a virtual host) is sent as given.
void headerLines(RtHTTPMessageRef request, const std::string &urlHost, std::string &lines) {
    bool hasAccept = false, hasExpect = false, hasContentType = false;
    std::string name, value;
    // Room for a usual request's fields at once, instead of growing through each append.
    name.reserve(64);
    value.reserve(256);
    lines.reserve(512);
    rt::forEachHeader(request, [&](RtStringRef nameStr, RtStringRef valueStr) {
        name.clear();
        value.clear();
        rt::appendUTF8(name, nameStr);
        rt::appendUTF8(value, valueStr);
        // A field that could split the request (line ends, NUL) or is no token is not sent.
        bool splits = std::any_of(value.begin(), value.end(),
                                  [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
        if (!isTokenText(name) || splits) return;
        if (equalsIgnoringCase(name, "Content-Length")) return;
        if (equalsIgnoringCase(name, "Host") && !urlHost.empty() &&
            (equalsIgnoringCase(value, urlHost.c_str()) ||
             equalsIgnoringCase(value, ("[" + urlHost + "]").c_str())))
            return;
        hasAccept |= equalsIgnoringCase(name, "Accept");
        hasExpect |= equalsIgnoringCase(name, "Expect");
        hasContentType |= equalsIgnoringCase(name, "Content-Type");
        // "Name;" is libcurl's spelling of a field with an empty value.
        lines += name;
        if (value.empty()) {
            lines += ';';
        } else {
            lines += ": ";
            lines += value;
        }
        lines += '\0';
    });
    //                       field libcurl would add   the message has its own
    const struct {
        const char *fBlank;
        bool fPresent;
    } suppressed[] = {{"Accept:", hasAccept}, {"Expect:", hasExpect}, {"Content-Type:", hasContentType}};
    for (const auto &s : suppressed) {
        if (s.fPresent) continue;
        lines += s.fBlank;
        lines += '\0';
    }
}

// The UTF-8 text of a string entry into text ("" when the key is absent); false when the entry is
// not a string or holds a NUL (which libcurl would cut the text at).
bool copyText(RtDictionaryRef dict, RtStringRef key, std::string &text) {
    text.clear();
    RtTypeRef value = RtDictionaryGetValue(dict, key);
    if (!value) return true;
    if (RtGetTypeID(value) != RtStringGetTypeID()) return false;
    rt::appendUTF8(text, static_cast<RtStringRef>(value));
    return text.find('\0') == std::string::npos;
}

// Sets up st.fEasy for the request; errno-style code on failure (0 on success).
int configureTransfer(StreamState &st) {
    RtHTTPMessageRef request = st.fRequest;
    RtURLRef url = RtHTTPMessageCopyRequestURL(request);
    RtURLRef absolute = url ? RtURLCopyAbsoluteURL(url) : nullptr;
    st.fURLText.clear();
    if (absolute) rt::appendUTF8(st.fURLText, RtURLGetString(absolute));
    std::string urlHost;
    if (RtStringRef host = absolute ? RtURLCopyHostName(absolute) : nullptr) {
        rt::appendUTF8(urlHost, host);
        RtRelease(host);
    }
    RtRelease(absolute);
    RtRelease(url);
    RtStringRef method = RtHTTPMessageCopyRequestMethod(request);
    st.fMethodText.clear();
    rt::appendUTF8(st.fMethodText, method);
    RtRelease(method);
    RtStringRef version = RtHTTPMessageCopyVersion(request);
    bool http10 = version && RtEqual(version, kRtHTTPVersion1_0);
    RtRelease(version);
    if (st.fURLText.empty() || !isTokenText(st.fMethodText)) return EINVAL;

    CURL *e = st.fDriver->takeEasy();
    if (!e) return ENOMEM;
    st.fEasy = e;
    std::string lines;
    headerLines(request, urlHost, lines);
    st.fHeaders = st.fDriver->shareHeaderList(lines);
    if (!st.fHeaders) return ENOMEM;

    bool ok = true;
    auto set = [&](CURLoption option, auto value) {
        ok = ok && curl_easy_setopt(e, option, value) == CURLE_OK;
    };
    st.fParsedURL = st.fDriver->shareParsedURL(st.fURLText);
    if (st.fParsedURL)
        set(CURLOPT_CURLU, st.fParsedURL->fHandle);
    else
        set(CURLOPT_URL, st.fURLText.c_str());
    set(CURLOPT_PRIVATE, static_cast<rt::CurlTransfer *>(&st));
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    set(CURLOPT_HTTP_VERSION, long(http10 ? CURL_HTTP_VERSION_1_0 : CURL_HTTP_VERSION_1_1));
    set(CURLOPT_SSL_VERIFYPEER, 1L);
    set(CURLOPT_SSL_VERIFYHOST, 2L);
    set(CURLOPT_FOLLOWLOCATION, st.fAutoredirect ? 1L : 0L);
    set(CURLOPT_MAXREDIRS, kMaxRedirects);
    set(CURLOPT_HEADERFUNCTION, _headerCallback);
    set(CURLOPT_HEADERDATA, &st);
    set(CURLOPT_WRITEFUNCTION, _writeCallback);
    set(CURLOPT_WRITEDATA, &st);
    set(CURLOPT_PREREQFUNCTION, _connectedCallback);
    set(CURLOPT_PREREQDATA, &st);
    set(CURLOPT_HTTPHEADER, st.fHeaders->fList);
    set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    st.fErrorText[0] = '\0';
    set(CURLOPT_ERRORBUFFER, st.fErrorText);
    if (st.fHasAuth) { // libcurl never sends these to another host after a redirect
        bool proxy = st.fAuthForProxy;
        if (!st.fAuthUser.empty()) { // else the URL's user-info part, when it has one
            set(proxy ? CURLOPT_PROXYUSERNAME : CURLOPT_USERNAME, st.fAuthUser.c_str());
            set(proxy ? CURLOPT_PROXYPASSWORD : CURLOPT_PASSWORD, st.fAuthPassword.c_str());
        }
        set(proxy ? CURLOPT_PROXYAUTH : CURLOPT_HTTPAUTH, st.fAuthMask);
    }
    if (st.fHasTLS) {
        if (!st.fCAFile.empty()) set(CURLOPT_CAINFO, st.fCAFile.c_str());
        if (!st.fCADirectory.empty()) set(CURLOPT_CAPATH, st.fCADirectory.c_str());
        if (!st.fCertificateFile.empty()) set(CURLOPT_SSLCERT, st.fCertificateFile.c_str());
        if (!st.fKeyFile.empty()) set(CURLOPT_SSLKEY, st.fKeyFile.c_str());
        if (!st.fVerifyPeer) {
            set(CURLOPT_SSL_VERIFYPEER, 0L);
            set(CURLOPT_SSL_VERIFYHOST, 0L);
        }
    }
    if (st.fCompression) set(CURLOPT_ACCEPT_ENCODING, "gzip, deflate"); // decoded by libcurl

    // Only the proxy property proxies: the environment's proxy variables are ignored.
    const void *host = st.fProxy ? RtDictionaryGetValue(st.fProxy, kRtStreamPropertyHTTPProxyHost) : nullptr;
    if (host && RtGetTypeID(host) == RtStringGetTypeID()) {
        std::string proxy;
        rt::appendUTF8(proxy, static_cast<RtStringRef>(host));
        long port = 0;
        const void *portValue = RtDictionaryGetValue(st.fProxy, kRtStreamPropertyHTTPProxyPort);
        if (portValue && RtGetTypeID(portValue) == RtNumberGetTypeID()) {
            int32_t p = 0;
            RtNumberGetValue(static_cast<RtNumberRef>(portValue), kRtNumberSInt32Type, &p);
            port = p;
        }
        set(CURLOPT_PROXY, proxy.c_str()); // libcurl copies option strings
        set(CURLOPT_PROXYTYPE, long(CURLPROXY_HTTP));
        if (port > 0 && port < 65536) set(CURLOPT_PROXYPORT, port);
    } else {
        set(CURLOPT_PROXY, "");
        // No proxy, so no host is excepted from one: an empty exception list spares libcurl
        // reading no_proxy and NO_PROXY from the environment on every transfer.
        set(CURLOPT_NOPROXY, "");
    }

    rt::BodyView body = rt::httpBody(request);
    const std::string &m = st.fMethodText;
    if (m == "HEAD" && body.fLength == 0) {
        set(CURLOPT_NOBODY, 1L);
    } else if (m == "GET" && body.fLength == 0) {
        set(CURLOPT_HTTPGET, 1L);
    } else {
        // The request (a copy the stream owns) keeps the bytes alive for the transfer.
        set(CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(body.fLength));
        set(CURLOPT_POSTFIELDS, body.fLength ? reinterpret_cast<const char *>(body.fBytes) : "");
        if (m != "POST") set(CURLOPT_CUSTOMREQUEST, m.c_str());
    }
    return ok ? 0 : EINVAL;
}

} // namespace

// ---- Public interface -----------------------------------------------------------------------

RtTypeID RtReadStreamGetTypeID(void) {
    RtTypeID id = gStreamTypeID.load(std::memory_order_acquire);
    if (id != kRtNotATypeID) return id;
    RtTypeID fresh = RtRuntimeRegisterClass(&sStreamClass);
    RtTypeID expected = kRtNotATypeID;
    return gStreamTypeID.compare_exchange_strong(expected, fresh) ? fresh : expected;
}

RtReadStreamRef RtReadStreamCreateForHTTPRequest(RtAllocatorRef, RtHTTPMessageRef request) {
    if (!request || RtGetTypeID(request) != RtHTTPMessageGetTypeID() || !RtHTTPMessageIsRequest(request))
        return nullptr;
    auto *stream = static_cast<__RtReadStream *>(const_cast<void *>(RtRuntimeCreateInstance(
        nullptr, RtReadStreamGetTypeID(), RtIndex(sizeof(__RtReadStream) - sizeof(RtRuntimeBase)))));
    if (!stream) return nullptr;
    StreamState &st = *new (&stream->fState) StreamState();
    st.fRequest = RtHTTPMessageCreateCopy(kRtAllocatorDefault, request);
    // The source does not retain the stream: the stream owns the source.
    RtRunLoopSourceContext ctx = {0,       stream,  nullptr, nullptr, nullptr,
                                  nullptr, nullptr, nullptr, nullptr, _deliver};
    st.fSource = RtRunLoopSourceCreate(kRtAllocatorDefault, 0, &ctx);
    if (!st.fRequest || !st.fSource) {
        RtRelease(stream);
        return nullptr;
    }
    return stream;
}

bool RtReadStreamSetClient(RtReadStreamRef stream, RtOptionFlags streamEvents,
                           RtReadStreamClientCallBack clientCB, RtStreamClientContext *clientContext) {
    if (!isStream(stream)) return false;
    StreamState &st = stream->fState;
    RtStreamClientContext fresh{};
    if (clientCB && clientContext) {
        fresh = *clientContext;
        if (fresh.retain && fresh.info) fresh.info = fresh.retain(fresh.info);
    }
    releaseClient(st);
    if (!clientCB) return true;
    st.fClientCB = clientCB;
    st.fClientEvents = streamEvents;
    st.fClientContext = fresh;
    return true;
}

void RtReadStreamScheduleWithRunLoop(RtReadStreamRef stream, RtRunLoopRef runLoop, RtStringRef runLoopMode) {
    if (!isStream(stream) || !runLoop || !runLoopMode) return;
    StreamState &st = stream->fState;
    for (Schedule &s : st.fSchedules)
        if (s.fLoop == runLoop && sameMode(s.fMode, runLoopMode)) return;
    RtStringRef mode = RtStringCreateCopy(kRtAllocatorDefault, runLoopMode);
    if (!mode) return;
    RtRetain(runLoop);
    st.fSchedules.push_back({runLoop, mode});
    RtRunLoopAddSource(runLoop, st.fSource, mode);
    if (st.fInMulti) activateModes(st);
}

void RtReadStreamUnscheduleFromRunLoop(RtReadStreamRef stream, RtRunLoopRef runLoop,
                                       RtStringRef runLoopMode) {
    if (!isStream(stream) || !runLoop || !runLoopMode) return;
    StreamState &st = stream->fState;
    for (auto it = st.fSchedules.begin(); it != st.fSchedules.end(); ++it) {
        if (it->fLoop != runLoop || !sameMode(it->fMode, runLoopMode)) continue;
        Schedule s = *it;
        st.fSchedules.erase(it);
        RtRunLoopRemoveSource(s.fLoop, st.fSource, s.fMode);
        if (st.fDriver && s.fLoop == st.fDriver->runLoop()) deactivateMode(st, s.fMode);
        RtRelease(s.fMode);
        RtRelease(s.fLoop);
        return;
    }
}

bool RtReadStreamOpen(RtReadStreamRef stream) {
    if (!isStream(stream)) return false;
    StreamState &st = stream->fState;
    if (st.fStatus != kRtStreamStatusNotOpen) return false;
    // libcurl is driven by the thread's own loop: the stream must be scheduled on it.
    RtRunLoopRef current = RtRunLoopGetCurrent();
    bool onCurrent = std::any_of(st.fSchedules.begin(), st.fSchedules.end(),
                                 [&](const Schedule &s) { return s.fLoop == current; });
    if (!current || !onCurrent) return false;
    st.fDriver = rt::CurlDriver::acquireCurrent();
    int failure = st.fDriver ? configureTransfer(st) : ENOMEM;
    if (!failure) {
        st.fStatus = kRtStreamStatusOpening;
        activateModes(st);
        st.fInMulti = st.fDriver->add(st.fEasy);
        if (!st.fInMulti) failure = ENOMEM;
    }
    if (failure) {
        stopTransfer(st);
        st.fStatus = kRtStreamStatusError;
        st.fError = {kRtStreamErrorDomainPOSIX, int32_t(failure)};
        return false;
    }
    return true;
}

RtIndex RtReadStreamRead(RtReadStreamRef stream, uint8_t *buffer, RtIndex bufferLength) {
    if (!isStream(stream) || bufferLength < 0 || (bufferLength > 0 && !buffer)) return -1;
    StreamState &st = stream->fState;
    if (st.fStatus == kRtStreamStatusNotOpen || st.fStatus == kRtStreamStatusClosed ||
        st.fStatus == kRtStreamStatusError)
        return -1;
    size_t available = st.buffered();
    if (available > 0) {
        size_t n = std::min(available, size_t(bufferLength));
        std::memcpy(buffer, st.fBuffer.data() + st.fReadPos, n);
        st.fReadPos += n;
        if (st.buffered() > 0) {
            post(st, kRtStreamEventHasBytesAvailable);
        } else {
            st.fBuffer.clear();
            st.fReadPos = 0;
            if (st.fTransferDone) post(st, kRtStreamEventEndEncountered);
        }
        return RtIndex(n);
    }
    if (st.fTransferDone) return 0;
    return st.fSchedules.empty() ? -1 : 0;
}

bool RtReadStreamHasBytesAvailable(RtReadStreamRef stream) {
    return isStream(stream) && stream->fState.fStatus != kRtStreamStatusClosed &&
           stream->fState.buffered() > 0;
}

RtStreamStatus RtReadStreamGetStatus(RtReadStreamRef stream) {
    if (!isStream(stream)) return kRtStreamStatusError;
    const StreamState &st = stream->fState;
    bool open = st.fStatus == kRtStreamStatusOpening || st.fStatus == kRtStreamStatusOpen;
    if (open && st.fTransferDone && st.buffered() == 0) return kRtStreamStatusAtEnd;
    return st.fStatus;
}

RtStreamError RtReadStreamGetError(RtReadStreamRef stream) {
    return isStream(stream) ? stream->fState.fError : RtStreamError{0, 0};
}

void RtReadStreamClose(RtReadStreamRef stream) {
    if (!isStream(stream)) return;
    StreamState &st = stream->fState;
    if (st.fStatus == kRtStreamStatusClosed) return;
    stopTransfer(st);
    st.fStatus = kRtStreamStatusClosed;
    st.fPending = 0;
    std::string().swap(st.fBuffer);
    st.fReadPos = 0;
}

RtTypeRef RtReadStreamCopyProperty(RtReadStreamRef stream, RtStringRef propertyName) {
    if (!isStream(stream) || !propertyName) return nullptr;
    StreamState &st = stream->fState;
    if (RtEqual(propertyName, kRtStreamPropertyHTTPResponseHeader))
        return st.fResponse ? RtHTTPMessageCreateCopy(kRtAllocatorDefault, st.fResponse) : nullptr;
    if (RtEqual(propertyName, kRtStreamPropertyHTTPProxy)) return RtRetain(st.fProxy);
    if (RtEqual(propertyName, kRtStreamPropertyHTTPShouldAutoredirect))
        return st.fAutoredirect ? kRtBooleanTrue : kRtBooleanFalse;
    if (RtEqual(propertyName, kRtStreamPropertyErrorDetail))
        return st.fStatus == kRtStreamStatusError && !st.fDetail.empty()
                   ? RtStringCreateWithCString(kRtAllocatorDefault, st.fDetail.c_str(), kRtStringEncodingUTF8)
                   : nullptr;
    if (RtEqual(propertyName, kRtStreamPropertyHTTPFinalURL)) {
        if (st.fHasEffectiveURL) {
            st.fHasEffectiveURL = false;
            RtStringRef text = RtStringCreateWithCString(kRtAllocatorDefault, st.fEffectiveURL.c_str(),
                                                         kRtStringEncodingUTF8);
            if (text) {
                RtRelease(st.fFinalURL);
                st.fFinalURL = RtURLCreateWithString(kRtAllocatorDefault, text, nullptr);
            }
            RtRelease(text);
        }
        return st.fFinalURL ? RtRetain(st.fFinalURL) : RtHTTPMessageCopyRequestURL(st.fRequest);
    }
    return nullptr;
}

bool RtReadStreamSetProperty(RtReadStreamRef stream, RtStringRef propertyName, RtTypeRef propertyValue) {
    if (!isStream(stream) || !propertyName) return false;
    StreamState &st = stream->fState;
    if (st.fStatus != kRtStreamStatusNotOpen) return false;
    if (RtEqual(propertyName, kRtStreamPropertyHTTPProxy)) {
        if (propertyValue && RtGetTypeID(propertyValue) != RtDictionaryGetTypeID()) return false;
        RtRelease(st.fProxy);
        st.fProxy = propertyValue ? RtDictionaryCreateCopy(kRtAllocatorDefault,
                                                           static_cast<RtDictionaryRef>(propertyValue))
                                  : nullptr;
        return true;
    }
    if (RtEqual(propertyName, kRtStreamPropertyHTTPMaxBodyLength) ||
        RtEqual(propertyName, kRtStreamPropertyHTTPMaxHeadLength)) {
        int64_t v = 0;
        if (!propertyValue || RtGetTypeID(propertyValue) != RtNumberGetTypeID() ||
            !RtNumberGetValue(static_cast<RtNumberRef>(propertyValue), kRtNumberSInt64Type, &v) || v < 0)
            return false;
        (RtEqual(propertyName, kRtStreamPropertyHTTPMaxBodyLength) ? st.fMaxBody : st.fMaxHead) = uint64_t(v);
        return true;
    }
    if (RtEqual(propertyName, kRtStreamPropertyHTTPAuthentication)) {
        if (!propertyValue) {
            st.fHasAuth = false;
            return true;
        }
        if (RtGetTypeID(propertyValue) != RtDictionaryGetTypeID()) return false;
        auto dict = static_cast<RtDictionaryRef>(propertyValue);
        std::string user, password, scheme;
        if (!copyText(dict, kRtStreamHTTPAuthUser, user) ||
            !copyText(dict, kRtStreamHTTPAuthPassword, password) ||
            !copyText(dict, kRtStreamHTTPAuthScheme, scheme))
            return false;
        unsigned long mask = CURLAUTH_ANY;
        if (equalsIgnoringCase(scheme, "Basic"))
            mask = CURLAUTH_BASIC;
        else if (equalsIgnoringCase(scheme, "Digest"))
            mask = CURLAUTH_DIGEST;
        else if (!scheme.empty() && !equalsIgnoringCase(scheme, "Any"))
            return false;
        st.fAuthUser = std::move(user);
        st.fAuthPassword = std::move(password);
        st.fAuthMask = mask;
        st.fAuthForProxy = RtDictionaryGetValue(dict, kRtStreamHTTPAuthForProxy) == kRtBooleanTrue;
        st.fHasAuth = true;
        return true;
    }
    if (RtEqual(propertyName, kRtStreamPropertyTLS)) {
        if (!propertyValue) {
            st.fHasTLS = false;
            return true;
        }
        if (RtGetTypeID(propertyValue) != RtDictionaryGetTypeID()) return false;
        auto dict = static_cast<RtDictionaryRef>(propertyValue);
        std::string files[4];
        if (!copyText(dict, kRtStreamTLSCAFile, files[0]) ||
            !copyText(dict, kRtStreamTLSCADirectory, files[1]) ||
            !copyText(dict, kRtStreamTLSCertificateFile, files[2]) ||
            !copyText(dict, kRtStreamTLSKeyFile, files[3]))
            return false;
        st.fCAFile = std::move(files[0]);
        st.fCADirectory = std::move(files[1]);
        st.fCertificateFile = std::move(files[2]);
        st.fKeyFile = std::move(files[3]);
        st.fVerifyPeer = RtDictionaryGetValue(dict, kRtStreamTLSVerifyPeer) != kRtBooleanFalse;
        st.fHasTLS = true;
        return true;
    }
    if (RtEqual(propertyName, kRtStreamPropertyHTTPAcceptCompression)) {
        if (propertyValue != kRtBooleanTrue && propertyValue != kRtBooleanFalse) return false;
        st.fCompression = propertyValue == kRtBooleanTrue;
        return true;
    }
    if (RtEqual(propertyName, kRtStreamPropertyHTTPShouldAutoredirect)) {
        if (propertyValue == kRtBooleanTrue || propertyValue == kRtBooleanFalse) {
            st.fAutoredirect = propertyValue == kRtBooleanTrue;
            return true;
        }
        if (propertyValue && RtGetTypeID(propertyValue) == RtNumberGetTypeID()) {
            int64_t v = 0;
            RtNumberGetValue(static_cast<RtNumberRef>(propertyValue), kRtNumberSInt64Type, &v);
            st.fAutoredirect = v != 0;
            return true;
        }
        return false;
    }
    return false;
}
