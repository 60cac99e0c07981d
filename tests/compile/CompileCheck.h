// CompileCheck.h: each program in tests/compile must compile as it stands and must fail to
// compile with HV_BROKEN defined, with the message its first line names (RunCompileChecks.cmake).
// HV_PICK(broken, good) chooses the form.
#include <HalvosCore/HalvosCore.hpp>
#ifdef HV_BROKEN
#define HV_PICK(broken, good) broken
#else
#define HV_PICK(broken, good) good
#endif
