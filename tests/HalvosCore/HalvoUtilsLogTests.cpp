// Diagnostic switches and printers. The switches are read once per process, so the environment
// cases run in fresh child processes.
#include "HalvoUtilsTestSupport.h"

#include <cstdlib>
#include <unistd.h>

using namespace hvutils_test;

namespace {

class LogTest : public UtilsTest {};

std::string capture(void (*body)()) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

TEST_F(LogTest, TaggedLinesOnlyWhenDebugIsOnAndUntaggedPrinters) {
    const std::string tag = "HV (" + std::to_string(getpid()) + "): ";
    const int savedDebug = gHVDebug;
    gHVDebug = 0;
    EXPECT_EQ(capture([] { EXPECT_EQ(_hvLogf("quiet %d", 1), 0); }), "");
    EXPECT_EQ(capture([] { hvPrintf(RTSTR("no tag %d"), 7); }), "no tag 7");
    gHVDebug = 1;
    EXPECT_EQ(capture([] { EXPECT_EQ(_hvLogf("value %d %@", 5, RTSTR("x")), 0); }), tag + "value 5 x\n");
    // Characters outside the default 8-bit encoding print as "."; the text is never cut.
    EXPECT_EQ(capture([] {
                  Owned<RtStringRef> s(newString("a\xE4\xB8\xAD\xE4\xB8\xAD"
                                                 "b"));
                  _hvLogf("%@", s.get());
              }),
              tag + "a..b\n");
    std::string out = capture([] {
        Owned<RtStringRef> s(newString(std::string(100000, 'z')));
        _hvLogf("[%@]", s.get());
    });
    EXPECT_EQ(out, tag + "[" + std::string(100000, 'z') + "]\n");
    gHVDebug = savedDebug;
}

// Each row runs in a fresh process: the first Create reads HVDebug (present, even empty, is
// on) and HVDebugVerbose; later changes to the environment are not seen.
TEST(LogDeathTest, SwitchesComeFromTheEnvironmentOnceAtTheFirstCreate) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const struct {
        const char *debug, *verbose;
        int switches;    // gHVDebug * 2 + gHVDebugVerbose
        const char *log; // what the child prints
    } rows[] = {{"", nullptr, 2, "^HV \\([0-9]+\\): after-create\n$"},
                {nullptr, "1", 1, "^$"},
                {nullptr, nullptr, 0, "^$"}};
    for (const auto &row : rows) {
        EXPECT_EXIT(
            {
                row.debug ? setenv("HVDebug", row.debug, 1) : unsetenv("HVDebug");
                row.verbose ? setenv("HVDebugVerbose", row.verbose, 1) : unsetenv("HVDebugVerbose");
                RtRelease(HVProtocolHandlerCreate(kRtAllocatorDefault, kHVXMLRPCProtocol));
                _hvLogf("after-create");
                row.debug ? unsetenv("HVDebug") : setenv("HVDebug", "", 1);
                setenv("HVDebugVerbose", "1", 1);
                hvInitStatics();
                exit(gHVDebug * 2 + gHVDebugVerbose);
            },
            ::testing::ExitedWithCode(row.switches), row.log);
    }
}

} // namespace
