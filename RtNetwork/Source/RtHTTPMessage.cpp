// RtHTTPMessage: HTTP requests and responses, built field by field or parsed from raw bytes.
// Header fields live in a vector in the order they were first set; names compare without
// regard to ASCII case. A message belongs to one thread at a time; nothing here locks.
#include "RtHTTPMessageInternal.h"

#include <RtCore/RtCore.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

const RtStringRef kRtHTTPVersion1_0 = __RtStringMakeConstantString("HTTP/1.0");
const RtStringRef kRtHTTPVersion1_1 = __RtStringMakeConstantString("HTTP/1.1");

namespace {

// A head longer than this is refused: a peer cannot make the parser hold more.
constexpr size_t kMaxHeadBytes = size_t(1) << 20;

struct Header {
    RtStringRef fName;
    RtStringRef fValue;
};

struct MessageState {
    bool fIsRequest = false;
    RtStringRef fVersion = nullptr;
    RtStringRef fMethod = nullptr;
    RtURLRef fURL = nullptr;
    RtStringRef fTarget = nullptr; // the request target as parsed ("/RPC2"), else NULL
    int32_t fStatusCode = 0;
    RtStringRef fStatusLine = nullptr;
    std::vector<Header> fHeaders;
    RtDataRef fBody = nullptr;
    bool fBodyIsPrivate = false; // fBody is a mutable data only this message holds
    // Parsing state of RtHTTPMessageAppendBytes.
    std::string fHead;
    bool fHeaderComplete = false;
    bool fFailed = false;
};

} // namespace

struct __RtHTTPMessage {
    RtRuntimeBase fBase;
    MessageState fState;
};

namespace {

void _finalizeMessage(RtTypeRef obj) {
    MessageState &ms = static_cast<__RtHTTPMessage *>(const_cast<void *>(obj))->fState;
    RtRelease(ms.fVersion);
    RtRelease(ms.fMethod);
    RtRelease(ms.fURL);
    RtRelease(ms.fTarget);
    RtRelease(ms.fStatusLine);
    for (Header &h : ms.fHeaders) {
        RtRelease(h.fName);
        RtRelease(h.fValue);
    }
    RtRelease(ms.fBody);
    ms.~MessageState();
}

const RtRuntimeClass sMessageClass = {0,       "RtHTTPMessage", nullptr, nullptr, _finalizeMessage,
                                      nullptr, nullptr,         nullptr, nullptr};
std::atomic<RtTypeID> gMessageTypeID{kRtNotATypeID};

RtHTTPMessageRef createMessage(bool isRequest) {
    RtTypeID typeID = RtHTTPMessageGetTypeID();
    auto *m = static_cast<__RtHTTPMessage *>(const_cast<void *>(
        RtRuntimeCreateInstance(nullptr, typeID, RtIndex(sizeof(__RtHTTPMessage) - sizeof(RtRuntimeBase)))));
    if (!m) return nullptr;
    new (&m->fState) MessageState();
    m->fState.fIsRequest = isRequest;
    return m;
}

bool isMessage(RtHTTPMessageRef m) {
    return m && RtGetTypeID(m) == RtHTTPMessageGetTypeID();
}

// Text from the wire: UTF-8 when it is valid, else ISO Latin 1 (every byte maps).
RtStringRef stringFromBytes(std::string_view bytes) {
    auto *p = reinterpret_cast<const uint8_t *>(bytes.data());
    RtStringRef s =
        RtStringCreateWithBytes(kRtAllocatorDefault, p, RtIndex(bytes.size()), kRtStringEncodingUTF8, false);
    return s ? s
             : RtStringCreateWithBytes(kRtAllocatorDefault, p, RtIndex(bytes.size()),
                                       kRtStringEncodingISOLatin1, false);
}

RtStringRef versionString(std::string_view v) {
    if (v == "HTTP/1.1") return static_cast<RtStringRef>(RtRetain(kRtHTTPVersion1_1));
    if (v == "HTTP/1.0") return static_cast<RtStringRef>(RtRetain(kRtHTTPVersion1_0));
    return stringFromBytes(v);
}

const char *reasonPhrase(int32_t code) {
    //                         code  phrase
    static const struct {
        int32_t fCode;
        const char *fPhrase;
    } sReasons[] = {
        {100, "Continue"},
        {101, "Switching Protocols"},
        {200, "OK"},
        {201, "Created"},
        {202, "Accepted"},
        {203, "Non-Authoritative Information"},
        {204, "No Content"},
        {205, "Reset Content"},
        {206, "Partial Content"},
        {300, "Multiple Choices"},
        {301, "Moved Permanently"},
        {302, "Found"},
        {303, "See Other"},
        {304, "Not Modified"},
        {305, "Use Proxy"},
        {307, "Temporary Redirect"},
        {308, "Permanent Redirect"},
        {400, "Bad Request"},
        {401, "Unauthorized"},
        {402, "Payment Required"},
        {403, "Forbidden"},
        {404, "Not Found"},
        {405, "Method Not Allowed"},
        {406, "Not Acceptable"},
        {407, "Proxy Authentication Required"},
        {408, "Request Timeout"},
        {409, "Conflict"},
        {410, "Gone"},
        {411, "Length Required"},
        {412, "Precondition Failed"},
        {413, "Content Too Large"},
        {414, "URI Too Long"},
        {415, "Unsupported Media Type"},
        {416, "Range Not Satisfiable"},
        {417, "Expectation Failed"},
        {421, "Misdirected Request"},
        {422, "Unprocessable Content"},
        {426, "Upgrade Required"},
        {500, "Internal Server Error"},
        {501, "Not Implemented"},
        {502, "Bad Gateway"},
        {503, "Service Unavailable"},
        {504, "Gateway Timeout"},
        {505, "HTTP Version Not Supported"},
    };
    for (const auto &r : sReasons)
        if (r.fCode == code) return r.fPhrase;
    return "Unknown";
}

bool isToken(std::string_view s) {
    return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
        return rt::isHTTPTokenChar(static_cast<unsigned char>(c));
    });
}

std::string_view trimSpace(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t'))
        s.remove_suffix(1);
    return s;
}

bool isHTTPVersion(std::string_view v) {
    return v.size() == 8 && v.substr(0, 5) == "HTTP/" && v[5] >= '0' && v[5] <= '9' && v[6] == '.' &&
           v[7] >= '0' && v[7] <= '9';
}

Header *findHeader(MessageState &ms, RtStringRef name) {
    for (Header &h : ms.fHeaders)
        if (h.fName == name || RtStringCompare(h.fName, name, kRtCompareCaseInsensitive) == kRtCompareEqualTo)
            return &h;
    return nullptr;
}

void setHeader(MessageState &ms, RtStringRef name, RtStringRef value) {
    if (Header *h = findHeader(ms, name)) {
        RtStringRef old = h->fValue;
        h->fValue = RtStringCreateCopy(kRtAllocatorDefault, value);
        RtRelease(old);
        return;
    }
    ms.fHeaders.push_back(
        {RtStringCreateCopy(kRtAllocatorDefault, name), RtStringCreateCopy(kRtAllocatorDefault, value)});
}

bool parseStartLine(MessageState &ms, std::string_view line) {
    if (ms.fIsRequest) {
        size_t sp1 = line.find(' ');
        size_t sp2 = sp1 == std::string_view::npos ? sp1 : line.find(' ', sp1 + 1);
        if (sp2 == std::string_view::npos) return false;
        std::string_view method = line.substr(0, sp1), target = line.substr(sp1 + 1, sp2 - sp1 - 1);
        std::string_view version = line.substr(sp2 + 1);
        if (!isToken(method) || target.empty() || !isHTTPVersion(version)) return false;
        ms.fMethod = stringFromBytes(method);
        ms.fTarget = stringFromBytes(target);
        ms.fVersion = versionString(version);
        return ms.fMethod && ms.fTarget && ms.fVersion;
    }
    // "HTTP/1.1 200 OK"; the reason phrase may be empty or missing.
    if (line.size() < 12 || !isHTTPVersion(line.substr(0, 8)) || line[8] != ' ') return false;
    std::string_view code = line.substr(9, 3);
    if (!std::all_of(code.begin(), code.end(), [](char c) { return c >= '0' && c <= '9'; }) || code[0] == '0')
        return false;
    if (line.size() > 12 && line[12] != ' ') return false;
    ms.fStatusCode = (code[0] - '0') * 100 + (code[1] - '0') * 10 + (code[2] - '0');
    ms.fVersion = versionString(line.substr(0, 8));
    ms.fStatusLine = stringFromBytes(line);
    return ms.fVersion && ms.fStatusLine;
}

// Parses the complete head (start line and fields, without the blank line). lenient skips
// malformed field lines instead of refusing the message.
bool parseHead(MessageState &ms, std::string_view head, bool lenient) {
    std::vector<std::pair<std::string_view, std::string>> fields;
    fields.reserve(8);
    bool first = true;
    while (!head.empty()) {
        size_t eol = head.find('\n');
        std::string_view line = head.substr(0, eol);
        head = eol == std::string_view::npos ? std::string_view() : head.substr(eol + 1);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (first) {
            if (line.empty()) continue; // stray line ends before a start line are tolerated
            if (!parseStartLine(ms, line)) return false;
            first = false;
            continue;
        }
        if (line.front() == ' ' || line.front() == '\t') { // obsolete folding: continues the last field
            if (fields.empty()) {
                if (lenient) continue;
                return false;
            }
            fields.back().second.append(" ").append(trimSpace(line));
            continue;
        }
        size_t colon = line.find(':');
        if (colon == std::string_view::npos || !isToken(line.substr(0, colon))) {
            if (lenient) continue;
            return false;
        }
        fields.emplace_back(line.substr(0, colon), std::string(trimSpace(line.substr(colon + 1))));
    }
    if (first) return false;
    ms.fHeaders.reserve(ms.fHeaders.size() + fields.size());
    for (auto &[name, value] : fields) {
        RtStringRef n = stringFromBytes(name), v = stringFromBytes(value);
        if (!n || !v) {
            RtRelease(n);
            RtRelease(v);
            return false;
        }
        if (Header *h = findHeader(ms, n)) { // a repeated field joins the earlier value, as HTTP allows
            RtMutableStringRef joined = RtStringCreateMutableCopy(kRtAllocatorDefault, 0, h->fValue);
            RtStringAppendCString(joined, ", ", kRtStringEncodingASCII);
            RtStringAppend(joined, v);
            RtRelease(h->fValue);
            h->fValue = RtStringCreateCopy(kRtAllocatorDefault, joined);
            RtRelease(joined);
            RtRelease(n);
            RtRelease(v);
        } else {
            ms.fHeaders.push_back({n, v});
        }
    }
    return true;
}

// A request parsed from bytes names its URL from the target and the Host field.
void makeRequestURL(MessageState &ms) {
    std::string text;
    rt::appendUTF8(text, ms.fTarget);
    if (!text.empty() && text[0] == '/') {
        Header *host = findHeader(ms, RTSTR("Host"));
        if (!host) return;
        std::string absolute = "http://";
        rt::appendUTF8(absolute, host->fValue);
        text = absolute + text;
    }
    RtStringRef s = RtStringCreateWithCString(kRtAllocatorDefault, text.c_str(), kRtStringEncodingUTF8);
    if (s) ms.fURL = RtURLCreateWithString(kRtAllocatorDefault, s, nullptr);
    RtRelease(s);
}

void appendBody(MessageState &ms, const uint8_t *bytes, RtIndex n) {
    if (n <= 0) return;
    if (!ms.fBodyIsPrivate) {
        RtMutableDataRef copy = ms.fBody ? RtDataCreateMutableCopy(kRtAllocatorDefault, 0, ms.fBody)
                                         : RtDataCreateMutable(kRtAllocatorDefault, 0);
        RtRelease(ms.fBody);
        ms.fBody = copy;
        ms.fBodyIsPrivate = true;
    }
    RtDataAppendBytes(const_cast<RtMutableDataRef>(ms.fBody), bytes, n);
}

// A body another object may hold: immutable data is shared, a private mutable one is copied.
RtDataRef shareBody(const MessageState &ms) {
    if (!ms.fBody) return nullptr;
    if (ms.fBodyIsPrivate) return RtDataCreateCopy(kRtAllocatorDefault, ms.fBody);
    return static_cast<RtDataRef>(RtRetain(ms.fBody));
}

} // namespace

namespace rt {

void appendUTF8(std::string &out, RtStringRef str) {
    if (!str) return;
    if (const char *p = RtStringGetCStringPtr(str, kRtStringEncodingUTF8)) {
        out.append(p);
        return;
    }
    RtIndex length = RtStringGetLength(str), used = 0;
    RtStringGetBytes(str, RtRangeMake(0, length), kRtStringEncodingUTF8, '?', false, nullptr, 0, &used);
    size_t at = out.size();
    out.resize(at + size_t(used));
    RtStringGetBytes(str, RtRangeMake(0, length), kRtStringEncodingUTF8, '?', false,
                     reinterpret_cast<uint8_t *>(&out[at]), used, &used);
    out.resize(at + size_t(used));
}

BodyView httpBody(RtHTTPMessageRef message) {
    const MessageState &ms = message->fState;
    if (!ms.fBody) return {nullptr, 0};
    return {RtDataGetBytePtr(ms.fBody), RtDataGetLength(ms.fBody)};
}

RtHTTPMessageRef createResponseFromHead(std::string_view head) {
    RtHTTPMessageRef m = createMessage(false);
    if (!m) return nullptr;
    while (!head.empty() && (head.back() == '\n' || head.back() == '\r'))
        head.remove_suffix(1);
    if (head.size() > kMaxHeadBytes || !parseHead(m->fState, head, true)) {
        RtRelease(m);
        return nullptr;
    }
    m->fState.fHeaderComplete = true;
    return m;
}

RtIndex httpHeaderCount(RtHTTPMessageRef message) {
    return RtIndex(message->fState.fHeaders.size());
}
RtStringRef httpHeaderName(RtHTTPMessageRef message, RtIndex index) {
    return message->fState.fHeaders[size_t(index)].fName;
}
RtStringRef httpHeaderValue(RtHTTPMessageRef message, RtIndex index) {
    return message->fState.fHeaders[size_t(index)].fValue;
}

} // namespace rt

RtTypeID RtHTTPMessageGetTypeID(void) {
    RtTypeID id = gMessageTypeID.load(std::memory_order_acquire);
    if (id != kRtNotATypeID) return id;
    // Registration is rare and idempotent under the compare-exchange: a losing racer's class
    // entry is simply never used.
    RtTypeID fresh = RtRuntimeRegisterClass(&sMessageClass);
    RtTypeID expected = kRtNotATypeID;
    return gMessageTypeID.compare_exchange_strong(expected, fresh) ? fresh : expected;
}

RtHTTPMessageRef RtHTTPMessageCreateRequest(RtAllocatorRef, RtStringRef requestMethod, RtURLRef url,
                                            RtStringRef httpVersion) {
    if (!requestMethod || !url) return nullptr;
    RtHTTPMessageRef m = createMessage(true);
    if (!m) return nullptr;
    MessageState &ms = m->fState;
    ms.fMethod = RtStringCreateCopy(kRtAllocatorDefault, requestMethod);
    ms.fURL = static_cast<RtURLRef>(RtRetain(url));
    ms.fVersion = RtStringCreateCopy(kRtAllocatorDefault, httpVersion ? httpVersion : kRtHTTPVersion1_1);
    ms.fHeaderComplete = true;
    return m;
}

RtHTTPMessageRef RtHTTPMessageCreateResponse(RtAllocatorRef, int32_t statusCode,
                                             RtStringRef statusDescription, RtStringRef httpVersion) {
    RtHTTPMessageRef m = createMessage(false);
    if (!m) return nullptr;
    MessageState &ms = m->fState;
    ms.fVersion = RtStringCreateCopy(kRtAllocatorDefault, httpVersion ? httpVersion : kRtHTTPVersion1_1);
    ms.fStatusCode = statusCode;
    std::string line;
    rt::appendUTF8(line, ms.fVersion);
    line += ' ' + std::to_string(statusCode) + ' ';
    if (statusDescription)
        rt::appendUTF8(line, statusDescription);
    else
        line += reasonPhrase(statusCode);
    ms.fStatusLine = RtStringCreateWithCString(kRtAllocatorDefault, line.c_str(), kRtStringEncodingUTF8);
    ms.fHeaderComplete = true;
    return m;
}

RtHTTPMessageRef RtHTTPMessageCreateEmpty(RtAllocatorRef, bool isRequest) {
    return createMessage(isRequest);
}

RtHTTPMessageRef RtHTTPMessageCreateCopy(RtAllocatorRef, RtHTTPMessageRef message) {
    if (!isMessage(message)) return nullptr;
    RtHTTPMessageRef m = createMessage(message->fState.fIsRequest);
    if (!m) return nullptr;
    const MessageState &from = message->fState;
    MessageState &ms = m->fState;
    ms.fVersion = static_cast<RtStringRef>(RtRetain(from.fVersion));
    ms.fMethod = static_cast<RtStringRef>(RtRetain(from.fMethod));
    ms.fURL = static_cast<RtURLRef>(RtRetain(from.fURL));
    ms.fTarget = static_cast<RtStringRef>(RtRetain(from.fTarget));
    ms.fStatusCode = from.fStatusCode;
    ms.fStatusLine = static_cast<RtStringRef>(RtRetain(from.fStatusLine));
    ms.fHeaders = from.fHeaders;
    for (Header &h : ms.fHeaders) {
        RtRetain(h.fName);
        RtRetain(h.fValue);
    }
    ms.fBody = shareBody(from);
    ms.fHead = from.fHead;
    ms.fHeaderComplete = from.fHeaderComplete;
    ms.fFailed = from.fFailed;
    return m;
}

bool RtHTTPMessageAppendBytes(RtHTTPMessageRef message, const uint8_t *newBytes, RtIndex numBytes) {
    if (!isMessage(message) || numBytes < 0 || (numBytes > 0 && !newBytes)) return false;
    MessageState &ms = message->fState;
    if (ms.fFailed) return false;
    if (ms.fHeaderComplete) {
        appendBody(ms, newBytes, numBytes);
        return true;
    }
    // Look for the blank line from just before the new bytes, so a split CR LF CR LF is found.
    size_t from = ms.fHead.size() >= 3 ? ms.fHead.size() - 3 : 0;
    ms.fHead.append(reinterpret_cast<const char *>(newBytes), size_t(numBytes));
    size_t end = std::string::npos, bodyAt = 0;
    // A blank line (LF LF or LF CR LF) ends the head; blank lines before the start line do not.
    size_t startLine = ms.fHead.find_first_not_of("\r\n");
    for (size_t i = std::max(from, startLine); startLine != std::string::npos && i < ms.fHead.size(); i++) {
        if (ms.fHead[i] != '\n') continue;
        if (i + 1 < ms.fHead.size() && ms.fHead[i + 1] == '\n') {
            end = i;
            bodyAt = i + 2;
        } else if (i + 2 < ms.fHead.size() && ms.fHead[i + 1] == '\r' && ms.fHead[i + 2] == '\n') {
            end = i;
            bodyAt = i + 3;
        }
        if (end != std::string::npos) break;
    }
    if (end == std::string::npos) {
        if (ms.fHead.size() > kMaxHeadBytes) ms.fFailed = true;
        return !ms.fFailed;
    }
    if (end > kMaxHeadBytes || !parseHead(ms, std::string_view(ms.fHead).substr(0, end), false)) {
        ms.fFailed = true;
        return false;
    }
    ms.fHeaderComplete = true;
    if (ms.fIsRequest) makeRequestURL(ms);
    appendBody(ms, reinterpret_cast<const uint8_t *>(ms.fHead.data()) + bodyAt,
               RtIndex(ms.fHead.size() - bodyAt));
    std::string().swap(ms.fHead);
    return true;
}

bool RtHTTPMessageIsHeaderComplete(RtHTTPMessageRef message) {
    return isMessage(message) && message->fState.fHeaderComplete;
}

RtDataRef RtHTTPMessageCopySerializedMessage(RtHTTPMessageRef message) {
    if (!isMessage(message)) return nullptr;
    const MessageState &ms = message->fState;
    std::string out;
    if (ms.fIsRequest) {
        rt::appendUTF8(out, ms.fMethod);
        out += ' ';
        if (ms.fTarget) {
            rt::appendUTF8(out, ms.fTarget);
        } else {
            RtStringRef path = ms.fURL ? RtURLCopyPath(ms.fURL) : nullptr;
            RtStringRef query = ms.fURL ? RtURLCopyQueryString(ms.fURL) : nullptr;
            size_t at = out.size();
            rt::appendUTF8(out, path);
            if (out.size() == at) out += '/';
            if (query) {
                out += '?';
                rt::appendUTF8(out, query);
            }
            RtRelease(path);
            RtRelease(query);
        }
        out += ' ';
        rt::appendUTF8(out, ms.fVersion);
    } else {
        rt::appendUTF8(out, ms.fStatusLine);
    }
    out += "\r\n";
    for (const Header &h : ms.fHeaders) {
        rt::appendUTF8(out, h.fName);
        out += ": ";
        rt::appendUTF8(out, h.fValue);
        out += "\r\n";
    }
    out += "\r\n";
    if (ms.fBody)
        out.append(reinterpret_cast<const char *>(RtDataGetBytePtr(ms.fBody)),
                   size_t(RtDataGetLength(ms.fBody)));
    return RtDataCreate(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(out.data()),
                        RtIndex(out.size()));
}

bool RtHTTPMessageIsRequest(RtHTTPMessageRef message) {
    return isMessage(message) && message->fState.fIsRequest;
}

RtStringRef RtHTTPMessageCopyVersion(RtHTTPMessageRef message) {
    return isMessage(message) ? static_cast<RtStringRef>(RtRetain(message->fState.fVersion)) : nullptr;
}

RtStringRef RtHTTPMessageCopyRequestMethod(RtHTTPMessageRef request) {
    return isMessage(request) ? static_cast<RtStringRef>(RtRetain(request->fState.fMethod)) : nullptr;
}

RtURLRef RtHTTPMessageCopyRequestURL(RtHTTPMessageRef request) {
    return isMessage(request) ? static_cast<RtURLRef>(RtRetain(request->fState.fURL)) : nullptr;
}

int32_t RtHTTPMessageGetResponseStatusCode(RtHTTPMessageRef response) {
    return isMessage(response) ? response->fState.fStatusCode : 0;
}

RtStringRef RtHTTPMessageCopyResponseStatusLine(RtHTTPMessageRef response) {
    return isMessage(response) ? static_cast<RtStringRef>(RtRetain(response->fState.fStatusLine)) : nullptr;
}

void RtHTTPMessageSetBody(RtHTTPMessageRef message, RtDataRef bodyData) {
    if (!isMessage(message)) return;
    MessageState &ms = message->fState;
    RtDataRef old = ms.fBody;
    ms.fBody = bodyData ? RtDataCreateCopy(kRtAllocatorDefault, bodyData) : nullptr;
    ms.fBodyIsPrivate = false;
    RtRelease(old);
}

RtDataRef RtHTTPMessageCopyBody(RtHTTPMessageRef message) {
    return isMessage(message) ? shareBody(message->fState) : nullptr;
}

void RtHTTPMessageSetHeaderFieldValue(RtHTTPMessageRef message, RtStringRef headerField, RtStringRef value) {
    if (!isMessage(message) || !headerField) return;
    MessageState &ms = message->fState;
    if (value) {
        setHeader(ms, headerField, value);
        return;
    }
    for (auto it = ms.fHeaders.begin(); it != ms.fHeaders.end(); ++it) {
        if (RtStringCompare(it->fName, headerField, kRtCompareCaseInsensitive) == kRtCompareEqualTo) {
            RtRelease(it->fName);
            RtRelease(it->fValue);
            ms.fHeaders.erase(it);
            return;
        }
    }
}

RtStringRef RtHTTPMessageCopyHeaderFieldValue(RtHTTPMessageRef message, RtStringRef headerField) {
    if (!isMessage(message) || !headerField) return nullptr;
    Header *h = findHeader(message->fState, headerField);
    return h ? static_cast<RtStringRef>(RtRetain(h->fValue)) : nullptr;
}

RtDictionaryRef RtHTTPMessageCopyAllHeaderFields(RtHTTPMessageRef message) {
    if (!isMessage(message)) return nullptr;
    RtMutableDictionaryRef dict = RtDictionaryCreateMutable(
        kRtAllocatorDefault, 0, &kRtTypeDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
    for (const Header &h : message->fState.fHeaders)
        RtDictionarySetValue(dict, h.fName, h.fValue);
    return dict;
}
