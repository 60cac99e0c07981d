// expect: pass a value or a string, not a pointer
#include "CompileCheck.h"
int main() {
    int x = 1;
    hv::Value v = HV_PICK(&x, x);
    return v.isAbsent() ? 1 : 0;
}
