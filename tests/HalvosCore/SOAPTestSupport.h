// Helpers of the SOAP tests (unit and interoperability), beside the value and handler helpers
// they share with the XML-RPC tests.
#pragma once

#include "XMLRPCTestSupport.h"

namespace soaptest {

using namespace xmlrpctest;

inline Value Null() { return Value::retain(kRtNull); }

// A SOAP protocol handler, SOAP-2001 unless another flavour is given.
struct SOAPHandler : Handler {
    explicit SOAPHandler(RtStringRef protocol = kHVSOAP2001Protocol) : Handler(protocol) {}
};

inline std::string soapGolden(const std::string &name) { return readGolden(name, "soap"); }

// The result dictionary of a reply that the reader refused with message.
inline Value readerFault(const char *message) {
    return Dict({{"/kHVResultIsFault", B(true)},
                 {"/FaultCode", I(-65794)},
                 {"/FaultString", S("/RtStreamFault")},
                 {"/FaultExtra", Dict({{"msg", S(message)}, {"domain", I(-1)}, {"error", I(-65795)}})}});
}

} // namespace soaptest
