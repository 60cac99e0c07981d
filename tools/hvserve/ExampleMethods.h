// ExampleMethods: the methods hvserve answers, apart from any protocol or HTTP.
//   examples.echo(x)           x; with no or several parameters, the array of them all
//   examples.add(n...)         the sum: an integer when every n is one, else a double
//   examples.fault(code, text) always a fault (code 42, "examples.fault always fails" by default)
//   examples.types()           a dictionary holding one value of every kind the protocol carries
//                              (XML-RPC has no null)
//   examples.sleep(seconds)    waits (at most 60 s, less when the server stops), returns seconds
//   system.listMethods()       the names of these methods
// Owns nothing but the shutdown flag that cuts sleeps short. Every function may run on any
// of the server's connection threads at once: each call touches only its own values.
#ifndef HV_TOOLS_EXAMPLEMETHODS_H
#define HV_TOOLS_EXAMPLEMETHODS_H

#include <HalvosCore/HalvosCore.h>

#include <string>
#include <vector>

namespace hvserve {

// Fault codes, after the usual XML-RPC server conventions.
enum : int32_t {
    eFaultParse = -32700,         // the request is not a well-formed document of the protocol
    eFaultUnknownMethod = -32601, // no such method
    eFaultBadParameters = -32602, // the parameters do not suit the method
    eFaultDefault = 42            // what examples.fault raises when not told otherwise
};

// What a method produced: exactly one of the two is set; both are new references.
struct MethodOutcome {
    RtTypeRef fValue = nullptr;
    RtDictionaryRef fFault = nullptr;
};

// Runs the method called name with its parameters in order (borrowed), for a request in
// protocol (one of the kHV...Protocol constants).
MethodOutcome runMethod(const std::string &name, const std::vector<RtTypeRef> &params, RtStringRef protocol);

// A new fault dictionary (kHVFaultCode, kHVFaultString).
RtDictionaryRef createFault(int32_t code, const std::string &text);

// The dictionary examples.types returns (new reference); the null member only withNull.
RtDictionaryRef createEveryKind(bool withNull);

// Ends every sleep at once and makes later ones return at once: called when the server stops.
void cancelSleeps();

// A method runMethod answers, with its help text (what system.methodHelp tells).
struct MethodInfo {
    const char *fName;
    const char *fHelp;
};

// Every method runMethod answers, in a fixed order.
std::vector<MethodInfo> methodList();

} // namespace hvserve

#endif
