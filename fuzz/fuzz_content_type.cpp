// What the transport does with a reply's head before it parses the body: the response head as
// the HTTP message reads it, the Content-Type checks, the charset it names, and then the body
// read as XML and as log text in that charset. The input's first line is the Content-Type value
// (further header lines may follow it); after the first blank line comes the body.
#include "FuzzSupport.h"

#include "HalvoUtils.h"

#include <RtNetwork/RtNetwork.h>

#include <string>

using namespace hvfuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    std::string input(reinterpret_cast<const char *>(bytes), size);
    size_t blank = input.find("\n\n");
    std::string head = blank == std::string::npos ? input : input.substr(0, blank);
    std::string body = blank == std::string::npos ? std::string() : input.substr(blank + 2);

    std::string message = "HTTP/1.1 200 OK\r\nContent-Type: " + head + "\r\n\r\n";
    Held response(RtHTTPMessageCreateEmpty(kRtAllocatorDefault, false));
    auto http = response.as<RtHTTPMessageRef>();
    if (!RtHTTPMessageAppendBytes(http, reinterpret_cast<const uint8_t *>(message.data()),
                                  static_cast<RtIndex>(message.size())))
        return 0; // a head libcurl would have refused as well

    bool knownXML = false, possiblyXML = false;
    checkForXMLContent(http, &knownXML, &possiblyXML);
    RtStringEncoding charset = getResponseCharset(http);
    RtStringEncoding fallback = 0;
    require(getIANAString(charset, &fallback) != nullptr, "every charset has a name");

    Held data(copyData(reinterpret_cast<const uint8_t *>(body.data()), body.size()));
    RtStringRef error = nullptr;
    Held tree(parseXML(data.as<RtDataRef>(), knownXML, charset, &error));
    Held heldError(error);
    require(!tree == !!error, "an error message exactly when parsing failed");
    Held text(prettyPrintXML(data.as<RtDataRef>(), charset));
    require(!!text, "any body can be shown in a log");
    return 0;
}
