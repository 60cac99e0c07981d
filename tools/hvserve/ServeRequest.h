// ServeRequest: one received request document in, one reply document out, through the
// library's protocol handlers; the HTTP side lives in hvserve.cpp.
// Owns nothing between calls: every call makes the handler it needs and releases it.
// Runs on any connection thread; warmUp() must have run on the main thread first, so that the
// library's lazily built process-wide tables exist before several threads read them.
#ifndef HV_TOOLS_SERVEREQUEST_H
#define HV_TOOLS_SERVEREQUEST_H

#include <HalvosCore/HalvosCore.h>

#include <string>

namespace hvserve {

enum class Dialect { eXMLRPC, eSOAP };

struct ServedReply {
    unsigned fStatus = 200; // HTTP status: 200, or 500 for a SOAP fault
    std::string fBody;      // the reply or fault document (UTF-8 XML)
    std::string fProtocol;  // "XML-RPC", "SOAP-1999" or "SOAP-2001"
    std::string fMethod;    // the method called, empty when the request did not parse
    bool fFault = false;
};

// Reads body as a request of the dialect, runs the method and writes the reply. SOAP requests
// are answered in the schema flavour they declare (the 1999 XML Schema namespace picks
// SOAP-1999, anything else SOAP-2001). A request that does not parse gets a fault document.
ServedReply serveRequest(Dialect dialect, const std::string &body);

// Runs one request of every protocol through the handlers, on the calling thread.
void warmUp();

} // namespace hvserve

#endif
