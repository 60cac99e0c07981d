// expect: add HV_RECORD or specialise hv::convert
#include "CompileCheck.h"
struct Unmapped {};
int main() {
    hv::Value v = 1;
    (void)v.as<HV_PICK(Unmapped, int)>();
    return 0;
}
