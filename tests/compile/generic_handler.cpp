// expect: the callable needs one call operator with fixed parameter types
#include "CompileCheck.h"
int main() {
    hv::Server server;
#ifdef HV_BROKEN
    server.add("examples.add", [](auto a, auto b) { return a + b; });
#else
    server.add("examples.add", [](int a, int b) { return a + b; });
#endif
    return 0;
}
