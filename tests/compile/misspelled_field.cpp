// expect: agee
#include "CompileCheck.h"
namespace app {
struct Person {
    int age = 0;
};
HV_RECORD(Person, HV_PICK(agee, age))
} // namespace app
int main() {
    return hv::Value(app::Person{}).size() == 1 ? 0 : 1;
}
