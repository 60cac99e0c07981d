// RtHTTPMessageInternal: what the read stream needs from a message without copying it.
// A message is used by one thread at a time; nothing here locks.
#pragma once

#include <RtNetwork/RtHTTPMessage.h>

#include <string>
#include <string_view>

namespace rt {

// Calls visit(name, value) for each header field in order (borrowed strings).
template <class Visit> void forEachHeader(RtHTTPMessageRef message, Visit visit);

// The body bytes (borrowed; valid while the message lives unchanged), or {nullptr, 0}.
struct BodyView {
    const uint8_t *fBytes;
    RtIndex fLength;
};
BodyView httpBody(RtHTTPMessageRef message);
RtIndex httpHeaderCount(RtHTTPMessageRef message);
RtStringRef httpHeaderName(RtHTTPMessageRef message, RtIndex index);
RtStringRef httpHeaderValue(RtHTTPMessageRef message, RtIndex index);

template <class Visit> void forEachHeader(RtHTTPMessageRef message, Visit visit) {
    RtIndex n = httpHeaderCount(message);
    for (RtIndex i = 0; i < n; i++)
        visit(httpHeaderName(message, i), httpHeaderValue(message, i));
}

// A complete response from a head as received (status line and fields, line ends included);
// field lines that do not parse are skipped. NULL when the status line is not valid.
RtHTTPMessageRef createResponseFromHead(std::string_view head);

// Whether c may appear in an HTTP token (method, field name): a table, since every field of
// every message is checked.
struct HTTPTokenTable {
    bool fIsToken[256];
    constexpr HTTPTokenTable() : fIsToken() {
        for (int c = 0x21; c < 0x7F; c++) {
            bool separator = false;
            for (const char *p = "()<>@,;:\\\"/[]?={}"; *p; p++)
                separator |= *p == c;
            fIsToken[c] = !separator;
        }
    }
};
inline constexpr HTTPTokenTable kHTTPTokenTable;
inline bool isHTTPTokenChar(unsigned char c) {
    return kHTTPTokenTable.fIsToken[c];
}

// Appends str's UTF-8 bytes to out.
void appendUTF8(std::string &out, RtStringRef str);

} // namespace rt
