// RtURL: URLs parsed once, at creation, by the generic syntax of RFC 3986. A URL keeps the
// text it was made from, its base URL, and the resolved absolute text with the position of
// each component in it. Only ASCII text is accepted; components are returned as written.
// Immutable, so any thread may read it.
#include "RtRuntime.h"
#include "RtValues.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

// A component's place in the absolute text; start -1 when the URL has none.
struct Span {
    int32_t start;
    int32_t length;
};

} // namespace

struct __RtURL {
    RtRuntimeBase fBase;
    RtStringRef fString;
    RtURLRef fBaseURL;
    char *fText; // absolute text, NUL-terminated
    Span fScheme, fUser, fPassword, fHost, fPath, fQuery, fFragment;
    int32_t fPort;
};

namespace {

using std::string_view;

constexpr size_t kMaxURLLength = 1 << 20;

struct Parts {
    bool hasScheme = false, hasAuthority = false, hasUser = false, hasPassword = false;
    bool hasQuery = false, hasFragment = false;
    string_view scheme, authority, user, password, host, path, query, fragment;
    int32_t port = -1;
};

bool isAlpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isHex(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
bool isUnreserved(char c) {
    return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}
bool isSubDelim(char c) {
    return c && std::strchr("!$&'()*+,;=", c);
}

// True when every character of s is unreserved, a sub-delimiter, one of extra, or part of a
// well-formed percent escape.
bool allowed(string_view s, const char *extra) {
    for (size_t i = 0; i < s.size(); i++) {
        char c = s[i];
        if (c == '%') {
            if (i + 2 >= s.size() || !isHex(s[i + 1]) || !isHex(s[i + 2])) return false;
            i += 2;
        } else if (!isUnreserved(c) && !isSubDelim(c) && !std::strchr(extra, c)) {
            return false;
        }
    }
    return true;
}

bool parseAuthority(string_view a, Parts &p) {
    size_t at = a.find('@');
    if (at != string_view::npos) {
        string_view info = a.substr(0, at);
        if (!allowed(info, ":")) return false;
        size_t colon = info.find(':');
        p.hasUser = true;
        p.user = info.substr(0, colon);
        if (colon != string_view::npos) {
            p.hasPassword = true;
            p.password = info.substr(colon + 1);
        }
        a = a.substr(at + 1);
    }
    string_view rest;
    if (!a.empty() && a[0] == '[') {
        size_t close = a.find(']');
        if (close == string_view::npos) return false;
        p.host = a.substr(1, close - 1);
        if (p.host.empty()) return false;
        for (char c : p.host)
            if (!isHex(c) && c != ':' && c != '.') return false;
        if (p.host.find(':') == string_view::npos) return false;
        rest = a.substr(close + 1);
        if (!rest.empty() && rest[0] != ':') return false;
    } else {
        size_t colon = a.find(':');
        p.host = a.substr(0, colon);
        if (!allowed(p.host, "")) return false;
        rest = colon == string_view::npos ? string_view() : a.substr(colon);
    }
    if (rest.empty()) return true;
    // rest is ":" followed by the port; an empty port means none.
    long port = 0;
    for (char c : rest.substr(1)) {
        if (!isDigit(c)) return false;
        port = port * 10 + (c - '0');
        if (port > 65535) return false;
    }
    if (rest.size() > 1) p.port = static_cast<int32_t>(port);
    return true;
}

// Splits a URL or relative reference; false when the text is not valid.
bool parse(string_view s, Parts &p) {
    for (char c : s)
        if (c <= ' ' || c >= 0x7F || std::strchr("<>\"{}|\\^`", c)) return false;
    size_t i = 0;
    if (!s.empty() && isAlpha(s[0])) {
        size_t j = 1;
        while (j < s.size() && (isAlpha(s[j]) || isDigit(s[j]) || s[j] == '+' || s[j] == '-' || s[j] == '.'))
            j++;
        if (j < s.size() && s[j] == ':') {
            p.hasScheme = true;
            p.scheme = s.substr(0, j);
            i = j + 1;
        }
    }
    string_view rest = s.substr(i);
    size_t hash = rest.find('#');
    if (hash != string_view::npos) {
        p.hasFragment = true;
        p.fragment = rest.substr(hash + 1);
        if (!allowed(p.fragment, ":@/?")) return false;
        rest = rest.substr(0, hash);
    }
    size_t question = rest.find('?');
    if (question != string_view::npos) {
        p.hasQuery = true;
        p.query = rest.substr(question + 1);
        if (!allowed(p.query, ":@/?")) return false;
        rest = rest.substr(0, question);
    }
    if (rest.substr(0, 2) == "//") {
        size_t end = rest.find('/', 2);
        p.hasAuthority = true;
        p.authority = rest.substr(2, end == string_view::npos ? string_view::npos : end - 2);
        if (!parseAuthority(p.authority, p)) return false;
        // An empty path still has a place: right after the authority.
        rest = rest.substr(end == string_view::npos ? rest.size() : end);
    }
    p.path = rest;
    if (!allowed(p.path, ":@/")) return false;
    // Without a scheme, a first segment holding ':' would read as a scheme: not a valid reference.
    if (!p.hasScheme && !p.hasAuthority) {
        string_view first = p.path.substr(0, p.path.find('/'));
        if (first.find(':') != string_view::npos) return false;
    }
    return true;
}

// Removes "." and ".." segments from a path.
std::string removeDotSegments(string_view in) {
    std::string out;
    while (!in.empty()) {
        if (in.substr(0, 3) == "../") {
            in.remove_prefix(3);
        } else if (in.substr(0, 2) == "./") {
            in.remove_prefix(2);
        } else if (in.substr(0, 3) == "/./") {
            in.remove_prefix(2);
        } else if (in == "/.") {
            in = "/";
        } else if (in.substr(0, 4) == "/../" || in == "/..") {
            in = in.size() == 3 ? string_view("/") : in.substr(3);
            size_t last = out.rfind('/');
            out.erase(last == std::string::npos ? 0 : last);
        } else if (in == "." || in == "..") {
            in = string_view();
        } else {
            size_t next = in.find('/', 1);
            out.append(in.substr(0, next));
            in = next == string_view::npos ? string_view() : in.substr(next);
        }
    }
    return out;
}

void appendComponents(std::string &out, const Parts &p, string_view path, bool hasQuery, string_view query) {
    if (p.hasScheme) out.append(p.scheme).append(":");
    if (p.hasAuthority) out.append("//").append(p.authority);
    out.append(path);
    if (hasQuery) out.append("?").append(query);
}

// The absolute text of reference r resolved against base b (RFC 3986 section 5.2.2).
std::string resolve(const Parts &r, const Parts &b) {
    std::string out;
    if (r.hasScheme) {
        appendComponents(out, r, removeDotSegments(r.path), r.hasQuery, r.query);
    } else {
        Parts t = r;
        t.hasScheme = b.hasScheme;
        t.scheme = b.scheme;
        if (r.hasAuthority) {
            appendComponents(out, t, removeDotSegments(r.path), r.hasQuery, r.query);
        } else {
            t.hasAuthority = b.hasAuthority;
            t.authority = b.authority;
            if (r.path.empty()) {
                appendComponents(out, t, b.path, r.hasQuery || b.hasQuery, r.hasQuery ? r.query : b.query);
            } else if (r.path[0] == '/') {
                appendComponents(out, t, removeDotSegments(r.path), r.hasQuery, r.query);
            } else {
                std::string merged;
                if (b.hasAuthority && b.path.empty())
                    merged = "/";
                else
                    merged = std::string(b.path.substr(0, b.path.rfind('/') + 1));
                merged.append(r.path);
                appendComponents(out, t, removeDotSegments(merged), r.hasQuery, r.query);
            }
        }
    }
    if (r.hasFragment) out.append("#").append(r.fragment);
    return out;
}

Span spanOf(const char *text, bool present, string_view part) {
    if (!present) return Span{-1, 0};
    return Span{static_cast<int32_t>(part.data() - text), static_cast<int32_t>(part.size())};
}

void _urlFinalize(RtTypeRef obj) {
    auto *u = static_cast<__RtURL *>(const_cast<void *>(obj));
    RtRelease(u->fString);
    RtRelease(u->fBaseURL);
    std::free(u->fText);
}

bool _urlEqual(RtTypeRef a, RtTypeRef b) {
    auto *x = static_cast<const __RtURL *>(a);
    auto *y = static_cast<const __RtURL *>(b);
    return RtEqual(x->fString, y->fString) && RtEqual(x->fBaseURL, y->fBaseURL);
}

RtHashCode _urlHash(RtTypeRef obj) {
    return RtHash(static_cast<const __RtURL *>(obj)->fString);
}

RtStringRef _urlDesc(RtTypeRef obj, RtDictionaryRef) {
    return RtStringCreateWithCString(kRtAllocatorDefault, static_cast<const __RtURL *>(obj)->fText,
                                     kRtStringEncodingASCII);
}

RtStringRef _urlDebugDesc(RtTypeRef obj) {
    return _urlDesc(obj, nullptr);
}

const RtRuntimeClass sURLClass = {0,         "RtURL",  nullptr,  nullptr,      _urlFinalize,
                                  _urlEqual, _urlHash, _urlDesc, _urlDebugDesc};
std::atomic<RtTypeID> sURLTypeID{kRtNotATypeID};

bool isURL(RtTypeRef obj) {
    return rt::isA(obj, RtURLGetTypeID());
}

// The ASCII text of str, or false when it is longer than any URL we accept or not ASCII.
bool asciiText(RtStringRef str, std::string &out) {
    RtIndex len = RtStringGetLength(str);
    if (len < 0 || size_t(len) > kMaxURLLength) return false;
    out.resize(size_t(len) + 1);
    if (!RtStringGetCString(str, &out[0], len + 1, kRtStringEncodingASCII)) return false;
    out.resize(size_t(len));
    return true;
}

RtStringRef copySpan(RtURLRef url, Span s) {
    if (!isURL(url) || s.start < 0) return nullptr;
    return RtStringCreateWithBytes(kRtAllocatorDefault,
                                   reinterpret_cast<const uint8_t *>(url->fText + s.start), s.length,
                                   kRtStringEncodingASCII, false);
}

} // namespace

RtTypeID RtURLGetTypeID(void) {
    return rt::typeIDOf(sURLTypeID, &sURLClass);
}

RtURLRef RtURLCreateWithString(RtAllocatorRef alloc, RtStringRef str, RtURLRef baseURL) {
    if (RtGetTypeID(str) != RtStringGetTypeID() || (baseURL && !isURL(baseURL))) return nullptr;
    std::string text;
    Parts parts;
    if (!asciiText(str, text) || !parse(text, parts)) return nullptr;
    if (!baseURL && text.empty()) return nullptr;
    // Relative text against a base: parse the base's absolute text and resolve.
    std::string absolute;
    if (baseURL) {
        Parts base;
        parse(baseURL->fText, base);
        absolute = resolve(parts, base);
        parts = Parts();
        if (absolute.size() > kMaxURLLength || !parse(absolute, parts)) return nullptr;
    } else {
        absolute = text;
        parts = Parts();
        parse(absolute, parts); // re-points the views into the string the URL keeps
    }
    auto *u = static_cast<__RtURL *>(const_cast<void *>(
        RtRuntimeCreateInstance(alloc, RtURLGetTypeID(), sizeof(__RtURL) - sizeof(RtRuntimeBase))));
    if (!u) return nullptr;
    u->fText = static_cast<char *>(std::malloc(absolute.size() + 1));
    u->fString = RtStringCreateCopy(alloc, str);
    if (!u->fText || !u->fString) {
        RtRelease(u);
        return nullptr;
    }
    std::memcpy(u->fText, absolute.c_str(), absolute.size() + 1);
    u->fBaseURL = static_cast<RtURLRef>(RtRetain(baseURL));
    // parts views point into absolute; translate them to offsets, valid in the copy too.
    const char *t = absolute.data();
    u->fScheme = spanOf(t, parts.hasScheme, parts.scheme);
    u->fUser = spanOf(t, parts.hasUser, parts.user);
    u->fPassword = spanOf(t, parts.hasPassword, parts.password);
    u->fHost = spanOf(t, parts.hasAuthority, parts.host);
    u->fPath = spanOf(t, true, parts.path);
    u->fQuery = spanOf(t, parts.hasQuery, parts.query);
    u->fFragment = spanOf(t, parts.hasFragment, parts.fragment);
    u->fPort = parts.port;
    return u;
}

RtStringRef RtURLGetString(RtURLRef url) {
    return isURL(url) ? url->fString : nullptr;
}

RtURLRef RtURLGetBaseURL(RtURLRef url) {
    return isURL(url) ? url->fBaseURL : nullptr;
}

RtURLRef RtURLCopyAbsoluteURL(RtURLRef url) {
    if (!isURL(url)) return nullptr;
    if (!url->fBaseURL) return static_cast<RtURLRef>(RtRetain(url));
    RtStringRef s = RtStringCreateWithCString(kRtAllocatorDefault, url->fText, kRtStringEncodingASCII);
    RtURLRef abs = RtURLCreateWithString(kRtAllocatorDefault, s, nullptr);
    RtRelease(s);
    return abs;
}

RtStringRef RtURLCopyScheme(RtURLRef url) {
    return isURL(url) ? copySpan(url, url->fScheme) : nullptr;
}
RtStringRef RtURLCopyHostName(RtURLRef url) {
    return isURL(url) ? copySpan(url, url->fHost) : nullptr;
}
RtStringRef RtURLCopyPath(RtURLRef url) {
    return isURL(url) ? copySpan(url, url->fPath) : nullptr;
}
RtStringRef RtURLCopyQueryString(RtURLRef url) {
    return isURL(url) ? copySpan(url, url->fQuery) : nullptr;
}
RtStringRef RtURLCopyUserName(RtURLRef url) {
    return isURL(url) ? copySpan(url, url->fUser) : nullptr;
}
RtStringRef RtURLCopyPassword(RtURLRef url) {
    return isURL(url) ? copySpan(url, url->fPassword) : nullptr;
}
int32_t RtURLGetPortNumber(RtURLRef url) {
    return isURL(url) ? url->fPort : -1;
}
