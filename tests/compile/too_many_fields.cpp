// expect: HV_RECORD takes at most 64 fields
#include "CompileCheck.h"
#define EIGHT(p) p##0, p##1, p##2, p##3, p##4, p##5, p##6, p##7
namespace app {
struct Wide {
    int EIGHT(a), EIGHT(b), EIGHT(c), EIGHT(d), EIGHT(e), EIGHT(f), EIGHT(g), EIGHT(h), z;
};
HV_RECORD(Wide, EIGHT(a), EIGHT(b), EIGHT(c), EIGHT(d), EIGHT(e), EIGHT(f), EIGHT(g), HV_PICK(EIGHT(h), h0),
          z)
} // namespace app
int main() {
    return 0;
}
