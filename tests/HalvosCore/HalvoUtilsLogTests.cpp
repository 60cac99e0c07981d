// Diagnostic switches and printers. The switches are read once per process, so the environment
// cases run this test binary again as a child with a chosen environment.
#include "HalvoUtilsTestSupport.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

using namespace hvutils_test;

namespace {

class LogTest : public UtilsTest {
protected:
    void SetUp() override {
        UtilsTest::SetUp();
        fSavedDebug = gHVDebug;
        fSavedVerbose = gHVDebugVerbose;
    }
    void TearDown() override {
        gHVDebug = fSavedDebug;
        gHVDebugVerbose = fSavedVerbose;
        UtilsTest::TearDown();
    }

private:
    int fSavedDebug = 0, fSavedVerbose = 0;
};

std::string capture(void (*body)()) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

TEST_F(LogTest, TaggedLinesOnlyWhenDebugIsOn) {
    gHVDebug = 0;
    EXPECT_EQ(capture([] { EXPECT_EQ(_hvLogf("quiet %d", 1), 0); }), "");
    gHVDebug = 1;
    EXPECT_EQ(capture([] { EXPECT_EQ(_hvLogf("value %d %@", 5, RTSTR("x")), 0); }),
              "HV (" + std::to_string(getpid()) + "): value 5 x\n");
    // Characters outside the default 8-bit encoding print as "."; the text is never cut.
    EXPECT_EQ(capture([] {
                  Owned<RtStringRef> s(newString("a\xE4\xB8\xAD\xE4\xB8\xAD" "b"));
                  _hvLogf("%@", s.get());
              }),
              "HV (" + std::to_string(getpid()) + "): a..b\n");
    std::string out = capture([] {
        Owned<RtStringRef> s(newString(std::string(100000, 'z')));
        _hvLogf("[%@]", s.get());
    });
    EXPECT_EQ(out.size(), std::string("HV (" + std::to_string(getpid()) + "): [").size() + 100000 + 2);
}

TEST_F(LogTest, UntaggedPrinterAndDictionaryDump) {
    gHVDebug = 0;
    EXPECT_EQ(capture([] { hvPrintf(RTSTR("no tag %d"), 7); }), "no tag 7");
    std::string dump = capture([] {
        const void *keys[] = {RTSTR("k")};
        const void *values[] = {RTSTR("v")};
        Owned<RtDictionaryRef> dict(RtDictionaryCreate(kRtAllocatorDefault, keys, values, 1, &kRtTypeDictionaryKeyCallBacks,
                                                       &kRtTypeDictionaryValueCallBacks));
        hvDumpDict("label", dict);
    });
    EXPECT_EQ(dump.rfind("label ---\n--------------\n", 0), 0u) << dump;
    EXPECT_NE(dump.find("<key>k</key>"), std::string::npos) << dump;
    EXPECT_EQ(dump.substr(dump.size() - 16), "\n--------------\n");
}

// Runs this binary's EnvironmentChild test with the given environment prefix ("env ..." words)
// and returns what the child printed on standard error and standard output.
std::string runChild(const std::string &envWords) {
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0)
        return "<no self>";
    self[n] = '\0';
    std::string cmd = "env -u HVDebug -u HVDebugVerbose HV_UTILS_LOG_CHILD=1 " + envWords + " '" + self +
                      "' --gtest_filter=LogChild.EnvironmentChild 2>&1";
    FILE *pipe = popen(cmd.c_str(), "r");
    if (!pipe)
        return "<no pipe>";
    std::string out;
    char buf[512];
    size_t got;
    while ((got = fread(buf, 1, sizeof buf, pipe)) > 0)
        out.append(buf, got);
    pclose(pipe);
    return out;
}

TEST(LogChild, EnvironmentChild) {
    if (!getenv("HV_UTILS_LOG_CHILD"))
        GTEST_SKIP() << "runs only as the child of SwitchesComeFromTheEnvironmentOnce";
    _hvLogf("before-init");
    hvInitStatics();
    _hvLogf("after-init");
    printf("switches %d %d\n", gHVDebug, gHVDebugVerbose);
    fflush(stdout);
    // Later changes to the environment are not seen.
    setenv("HVDebugVerbose", "1", 1);
    hvInitStatics();
    printf("again %d\n", gHVDebugVerbose);
    fflush(stdout);
}

TEST(LogSwitches, SwitchesComeFromTheEnvironmentOnce) {
    std::string on = runChild("HVDebug=");
    EXPECT_NE(on.find("switches 1 0"), std::string::npos) << on;
    EXPECT_EQ(on.find("before-init"), std::string::npos) << on;
    EXPECT_NE(on.find("): after-init\n"), std::string::npos) << on;
    EXPECT_NE(on.find("again 0"), std::string::npos) << on;

    std::string verboseOnly = runChild("HVDebugVerbose=1");
    EXPECT_NE(verboseOnly.find("switches 0 1"), std::string::npos) << verboseOnly;
    EXPECT_EQ(verboseOnly.find("after-init"), std::string::npos) << verboseOnly;

    std::string off = runChild("");
    EXPECT_NE(off.find("switches 0 0"), std::string::npos) << off;
}

} // namespace
