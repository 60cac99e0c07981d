// Helpers of the SOAP tests (unit and interoperability), beside the value and handler helpers
// they share with the XML-RPC tests.
#pragma once

#include "XMLRPCTestSupport.h"

namespace soaptest {

using namespace xmlrpctest;

inline Value Null() {
    return Value::retain(kRtNull);
}

// A SOAP protocol handler, SOAP-2001 unless another flavour is given.
struct SOAPHandler : Handler {
    explicit SOAPHandler(RtStringRef protocol = kHVSOAP2001Protocol) : Handler(protocol) {}
};

inline std::string soapGolden(const std::string &name) {
    return readGolden(name, "soap");
}

const char kEnvelopeStart[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
    "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\""
    " xmlns:SOAP-ENC=\"http://schemas.xmlsoap.org/soap/encoding/\""
    " xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\""
    " xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">";

// An envelope declaring the usual prefixes around a Body (and a Header, when given).
inline std::string envelope(const std::string &body, const std::string &header = "") {
    return kEnvelopeStart + header + "<SOAP-ENV:Body>" + body + "</SOAP-ENV:Body></SOAP-ENV:Envelope>";
}

} // namespace soaptest
