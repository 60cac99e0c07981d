// Run-loop sources: context callbacks, adding and removing, and the closure source's delivery.
#include "CoreTestSupport.h"
#include "HalvoResult.h"

#include <gtest/gtest.h>

namespace {

class CountingSource : public HVRunLoopSource {
public:
    void perform() override { fPerformed++; }
    void schedule(RtRunLoopRef, RtStringRef) override { fScheduled++; }
    void cancel(RtRunLoopRef, RtStringRef) override { fCancelled++; }
    int fPerformed = 0, fScheduled = 0, fCancelled = 0;
};

TEST(RunLoopSourcesTest, ContextCallbacksRouteToTheObject) {
    CountingSource a, b;
    EXPECT_EQ(&a, a.info);
    EXPECT_EQ(&a, a.retain(a.info)); // no counting
    a.release(a.info);
    EXPECT_FALSE(a.equal(a.info, b.info));
    EXPECT_TRUE(a.equal(a.info, a.info));
    EXPECT_EQ(reinterpret_cast<RtHashCode>(&a), a.hash(a.info));
    EXPECT_EQ(RTSTR("HVRunLoopSource::copyDescription"), a.copyDescription(a.info));
    ClosureSource closure(nullptr); // every subclass describes itself the same way
    EXPECT_EQ(RTSTR("HVRunLoopSource::copyDescription"), closure.description());
    closure.finish(); // a source destroyed before finish() would leave its record behind
}

TEST(RunLoopSourcesTest, AddSignalPerformAndRemove) {
    CountingSource source;
    RtRunLoopRef loop = RtRunLoopGetCurrent();
    RtStringRef mode = RTSTR("RunLoopSourcesTest");
    EXPECT_TRUE(source.removeFromRunLoop(loop, mode)); // never added: nothing is created
    EXPECT_EQ(nullptr, source.getSource());

    EXPECT_TRUE(source.addToRunLoop(loop, mode));
    ASSERT_NE(nullptr, source.getSource());
    EXPECT_EQ(1, source.fScheduled);
    source.signal();
    EXPECT_EQ(kRtRunLoopRunHandledSource, RtRunLoopRunInMode(mode, 5.0, true));
    EXPECT_EQ(1, source.fPerformed);
    // Unsignalled, the source does not run again.
    EXPECT_EQ(kRtRunLoopRunTimedOut, RtRunLoopRunInMode(mode, 0.01, true));
    EXPECT_EQ(1, source.fPerformed);
    EXPECT_TRUE(source.removeFromRunLoop(loop, mode));
    EXPECT_EQ(1, source.fCancelled);
}

void keepResult(HVMethodInvocationRef, void *info, RtDictionaryRef result) {
    auto *slot = static_cast<RtDictionaryRef *>(info);
    safeRtRelease(*slot);
    *slot = result;
}

TEST(RunLoopSourcesTest, DefaultPerformDeliversAFaultOnceAndFinishHandsOver) {
    RecordingInvocation invocation;
    RtDictionaryRef delivered = nullptr;
    HVClientContext context = {0, &delivered, nullptr, nullptr, nullptr};
    invocation.setCallback(keepResult, &context);

    ClosureSource source(&invocation);
    EXPECT_EQ(&invocation, source.getClosure());
    ASSERT_NE(nullptr, source.getResult());
    source.perform();
    EXPECT_EQ(nullptr, source.getResult());
    ASSERT_NE(nullptr, delivered);
    EXPECT_TRUE(HVMethodResultIsFault(delivered));
    auto extra = static_cast<RtDictionaryRef>(RtDictionaryGetValue(delivered, kHVFaultExtra));
    EXPECT_TRUE(RtEqual(RTSTR("ClosureSource::perform not overridden"), RtDictionaryGetValue(extra, kHVStreamErrorMessage)));
    EXPECT_EQ(kHVNetworkStreamFaultString, RtDictionaryGetValue(delivered, kHVFaultString));

    RtDictionaryRef first = delivered;
    source.finish(); // nothing left to hand over: the callback is not called again
    EXPECT_EQ(first, delivered);
    RtRelease(delivered);
}

} // namespace
