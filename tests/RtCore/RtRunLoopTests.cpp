// Run loop: mode isolation, results of a run, timers, descriptor watchers, signalling and waking
// across threads, and objects that remove or release themselves from their own callbacks.
#include "RtValueTestSupport.h"

#include <atomic>
#include <fcntl.h>
#include <functional>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace rttest;

namespace {

// Callbacks of sources, timers and descriptor watchers record their calls in a Probe, with the
// mode the loop was running, and may run a test hook.
struct Probe {
    int calls = 0, schedules = 0, cancels = 0;
    RtOptionFlags lastTypes = 0;        // of a descriptor watcher's last call
    std::vector<std::string> modesSeen; // the current mode during each call
    std::function<void()> hook;

    void called() {
        calls++;
        modesSeen.push_back(take(RtRunLoopCopyCurrentMode(RtRunLoopGetCurrent())));
        if (hook) hook();
    }
};

void _perform(void *info) {
    static_cast<Probe *>(info)->called();
}
void _schedule(void *info, RtRunLoopRef, RtStringRef) {
    static_cast<Probe *>(info)->schedules++;
}
void _cancel(void *info, RtRunLoopRef, RtStringRef) {
    static_cast<Probe *>(info)->cancels++;
}
void _timerFired(RtRunLoopTimerRef, void *info) {
    static_cast<Probe *>(info)->called();
}
void _ready(RtFileDescriptorRef, RtOptionFlags types, void *info) {
    static_cast<Probe *>(info)->lastTypes = types;
    static_cast<Probe *>(info)->called();
}

RtRunLoopSourceRef makeSource(Probe &p, RtIndex order = 0) {
    RtRunLoopSourceContext ctx = {0,       &p,      nullptr,   nullptr, nullptr,
                                  nullptr, nullptr, _schedule, _cancel, _perform};
    return RtRunLoopSourceCreate(kRtAllocatorDefault, order, &ctx);
}

RtRunLoopTimerRef makeTimer(Probe &p, RtTimeInterval in, RtTimeInterval interval = 0) {
    RtRunLoopTimerContext ctx = {0, &p, nullptr, nullptr, nullptr};
    return RtRunLoopTimerCreate(kRtAllocatorDefault, RtAbsoluteTimeGetCurrent() + in, interval, 0, 0,
                                _timerFired, &ctx);
}

class RtRunLoopTest : public LeakChecked {
  protected:
    RtRunLoopRef fLoop = RtRunLoopGetCurrent();
    RtStringRef fModeA = RTSTR("RtRunLoopTest.A");
    RtStringRef fModeB = RTSTR("RtRunLoopTest.B");
};

TEST_F(RtRunLoopTest, OnlyWhatIsInTheRunningModeFires) {
    Probe a, b;
    RtRunLoopSourceRef sa = own(makeSource(a)), sb = own(makeSource(b));
    RtRunLoopAddSource(fLoop, sa, fModeA);
    RtRunLoopAddSource(fLoop, sa, fModeA); // a second add is a no-op
    RtRunLoopAddSource(fLoop, sb, fModeB);
    EXPECT_EQ(1, a.schedules);
    EXPECT_TRUE(RtRunLoopContainsSource(fLoop, sa, fModeA));
    EXPECT_FALSE(RtRunLoopContainsSource(fLoop, sa, fModeB));

    RtRunLoopSourceSignal(sa);
    RtRunLoopSourceSignal(sb);
    EXPECT_EQ(kRtRunLoopRunHandledSource, RtRunLoopRunInMode(fModeB, 0, true));
    EXPECT_EQ(0, a.calls);
    EXPECT_EQ(std::vector<std::string>{"RtRunLoopTest.B"}, b.modesSeen);

    // A's signal waited for a run of mode A.
    EXPECT_EQ(kRtRunLoopRunHandledSource, RtRunLoopRunInMode(fModeA, 0, true));
    EXPECT_EQ(1, a.calls);
    EXPECT_EQ(nullptr, RtRunLoopCopyCurrentMode(fLoop));

    // A mode string equal to another by text is the same mode.
    EXPECT_TRUE(RtRunLoopContainsSource(fLoop, sa, own(str("RtRunLoopTest.A"))));

    RtRunLoopRemoveSource(fLoop, sa, fModeA);
    RtRunLoopRemoveSource(fLoop, sb, fModeB);
    EXPECT_EQ(1, a.cancels);
    EXPECT_EQ(kRtRunLoopRunFinished, RtRunLoopRunInMode(fModeA, 1.0e30, false));
    EXPECT_EQ(kRtRunLoopRunFinished, RtRunLoopRunInMode(RTSTR("RtRunLoopTest.never"), 1.0e30, false));
}

TEST_F(RtRunLoopTest, RunResults) {
    Probe idle;
    RtRunLoopSourceRef s = own(makeSource(idle));
    RtRunLoopAddSource(fLoop, s, fModeA);
    // Something to wait for but nothing happening: the limit passes.
    EXPECT_EQ(kRtRunLoopRunTimedOut, RtRunLoopRunInMode(fModeA, 0.02, false));
    EXPECT_EQ(kRtRunLoopRunTimedOut, RtRunLoopRunInMode(fModeA, -5, false));

    // Without returnAfterSourceHandled the run goes on after a source until the limit.
    RtRunLoopSourceSignal(s);
    EXPECT_EQ(kRtRunLoopRunTimedOut, RtRunLoopRunInMode(fModeA, 0.02, false));
    EXPECT_EQ(1, idle.calls);

    // Stop from inside a callback ends the run that is going on.
    Probe tp;
    tp.hook = [&] { RtRunLoopStop(fLoop); };
    RtRunLoopTimerRef t = own(makeTimer(tp, 0));
    RtRunLoopAddTimer(fLoop, t, fModeA);
    EXPECT_EQ(kRtRunLoopRunStopped, RtRunLoopRunInMode(fModeA, 1.0e30, false));
    EXPECT_EQ(1, tp.calls);
    EXPECT_FALSE(RtRunLoopTimerIsValid(t)); // one-shot: invalid after firing
    EXPECT_FALSE(RtRunLoopContainsTimer(fLoop, t, fModeA));

    // A source that removes itself empties the mode: the run finishes.
    idle.hook = [&] { RtRunLoopRemoveSource(fLoop, s, fModeA); };
    RtRunLoopSourceSignal(s);
    EXPECT_EQ(kRtRunLoopRunFinished, RtRunLoopRunInMode(fModeA, 1.0e30, false));
}

TEST_F(RtRunLoopTest, Timers) {
    // Repeating: fires until it invalidates itself on the third firing.
    Probe rep;
    RtRunLoopTimerRef repeating = own(makeTimer(rep, 0, 0.001));
    rep.hook = [&] {
        if (rep.calls == 3) RtRunLoopTimerInvalidate(repeating);
    };
    RtRunLoopAddTimer(fLoop, repeating, fModeA);
    EXPECT_EQ(kRtRunLoopRunFinished, RtRunLoopRunInMode(fModeA, 1.0e30, false));
    EXPECT_EQ(3, rep.calls);

    // Removed before it is due: never fires. A timer in another mode does not fire either.
    Probe removed, other, guard;
    RtRunLoopTimerRef r = own(makeTimer(removed, 0)), o = own(makeTimer(other, 0)),
                      g = own(makeTimer(guard, 0.01));
    RtRunLoopAddTimer(fLoop, r, fModeA);
    RtRunLoopAddTimer(fLoop, o, fModeB);
    RtRunLoopAddTimer(fLoop, g, fModeA);
    RtRunLoopRemoveTimer(fLoop, r, fModeA);
    EXPECT_EQ(kRtRunLoopRunFinished, RtRunLoopRunInMode(fModeA, 1.0e30, false));
    EXPECT_EQ(0, removed.calls);
    EXPECT_EQ(0, other.calls);
    EXPECT_EQ(1, guard.calls);
    EXPECT_TRUE(RtRunLoopTimerIsValid(r));

    // Moving a fire date: far away first (the run times out), then into the past.
    RtRunLoopAddTimer(fLoop, r, fModeA);
    RtRunLoopTimerSetNextFireDate(r, RtAbsoluteTimeGetCurrent() + 1000);
    EXPECT_EQ(kRtRunLoopRunTimedOut, RtRunLoopRunInMode(fModeA, 0.01, false));
    RtRunLoopTimerSetNextFireDate(r, RtAbsoluteTimeGetCurrent() - 1);
    EXPECT_EQ(kRtRunLoopRunFinished, RtRunLoopRunInMode(fModeA, 1.0e30, false));
    EXPECT_EQ(1, removed.calls);

    // A timer that releases the last reference to itself from its callback (ASan watches).
    Probe self;
    RtRunLoopTimerRef t = makeTimer(self, 0, 1000);
    self.hook = [&] {
        RtRunLoopTimerInvalidate(t);
        RtRelease(t);
    };
    RtRunLoopAddTimer(fLoop, t, fModeA);
    EXPECT_EQ(kRtRunLoopRunFinished, RtRunLoopRunInMode(fModeA, 1.0e30, false));
    EXPECT_EQ(1, self.calls);
    RtRunLoopTimerInvalidate(o);
}

TEST_F(RtRunLoopTest, SourcesRemovedOrReleasedFromCallbacks) {
    // The first source (order 0) removes the second before its turn: the second never performs.
    Probe first, second, third;
    RtRunLoopSourceRef s1 = makeSource(first, 0), s2 = makeSource(second, 1), s3 = makeSource(third, 2);
    first.hook = [&] { RtRunLoopSourceInvalidate(s2); };
    // The third releases the last reference to itself while performing.
    third.hook = [&] {
        RtRunLoopRemoveSource(fLoop, s3, fModeA);
        RtRelease(s3);
    };
    for (RtRunLoopSourceRef s : {s1, s2, s3}) {
        RtRunLoopAddSource(fLoop, s, fModeA);
        RtRunLoopSourceSignal(s);
    }
    EXPECT_EQ(kRtRunLoopRunTimedOut, RtRunLoopRunInMode(fModeA, 0, false));
    EXPECT_EQ(1, first.calls);
    EXPECT_EQ(0, second.calls);
    EXPECT_EQ(1, third.calls);
    EXPECT_FALSE(RtRunLoopSourceIsValid(s2));
    EXPECT_EQ(1, second.cancels);
    RtRunLoopAddSource(fLoop, s2, fModeA); // an invalid source cannot come back
    EXPECT_FALSE(RtRunLoopContainsSource(fLoop, s2, fModeA));

    // Order decides among signalled sources; returnAfterSourceHandled returns after one.
    first.hook = nullptr;
    Probe early;
    RtRunLoopSourceRef s0 = own(makeSource(early, -5));
    RtRunLoopAddSource(fLoop, s0, fModeA);
    RtRunLoopSourceSignal(s1);
    RtRunLoopSourceSignal(s0);
    EXPECT_EQ(kRtRunLoopRunHandledSource, RtRunLoopRunInMode(fModeA, 0, true));
    EXPECT_EQ(1, early.calls);
    EXPECT_EQ(1, first.calls);
    EXPECT_EQ(kRtRunLoopRunHandledSource, RtRunLoopRunInMode(fModeA, 0, true));
    EXPECT_EQ(2, first.calls);

    RtRunLoopSourceInvalidate(s0);
    RtRunLoopSourceInvalidate(s1);
    RtRelease(s1);
    RtRelease(s2);
}

TEST_F(RtRunLoopTest, NestedRunsKeepTheirOwnMode) {
    Probe outer, inner;
    RtRunLoopSourceRef s = own(makeSource(outer));
    RtRunLoopAddSource(fLoop, s, fModeA);
    RtRunLoopAddTimer(fLoop, own(makeTimer(inner, 0)), fModeB);
    std::string after;
    outer.hook = [&] {
        EXPECT_EQ(kRtRunLoopRunFinished, RtRunLoopRunInMode(fModeB, 1.0e30, false));
        after = take(RtRunLoopCopyCurrentMode(fLoop));
    };
    RtRunLoopSourceSignal(s);
    EXPECT_EQ(kRtRunLoopRunHandledSource, RtRunLoopRunInMode(fModeA, 1.0e30, true));
    EXPECT_EQ(std::vector<std::string>{"RtRunLoopTest.B"}, inner.modesSeen);
    EXPECT_EQ("RtRunLoopTest.A", after);
    RtRunLoopRemoveSource(fLoop, s, fModeA);
}

TEST_F(RtRunLoopTest, DescriptorWatchersAreLevelTriggered) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    Probe rp, wp;
    RtFileDescriptorContext rctx = {0, &rp, nullptr, nullptr, nullptr},
                            wctx = {0, &wp, nullptr, nullptr, nullptr};
    RtFileDescriptorRef reader =
        own(RtFileDescriptorCreate(kRtAllocatorDefault, fds[0], true, _ready, &rctx));
    RtFileDescriptorRef writer =
        own(RtFileDescriptorCreate(kRtAllocatorDefault, fds[1], true, _ready, &wctx));
    RtRunLoopAddFileDescriptor(fLoop, reader, fModeA);
    RtRunLoopAddFileDescriptor(fLoop, writer, fModeA);

    // Nothing enabled yet: nothing fires.
    EXPECT_EQ(kRtRunLoopRunTimedOut, RtRunLoopRunInMode(fModeA, 0, false));
    EXPECT_EQ(0, rp.calls + wp.calls);

    RtFileDescriptorEnableCallBacks(writer, kRtFileDescriptorWriteCallBack);
    wp.hook = [&] {
        ASSERT_EQ(1, write(fds[1], "x", 1));
        RtFileDescriptorDisableCallBacks(writer, kRtFileDescriptorWriteCallBack);
    };
    RtFileDescriptorEnableCallBacks(reader, kRtFileDescriptorReadCallBack);
    EXPECT_EQ(kRtRunLoopRunTimedOut, RtRunLoopRunInMode(fModeA, 0, false));
    EXPECT_EQ(kRtRunLoopRunTimedOut, RtRunLoopRunInMode(fModeA, 0, false));
    EXPECT_EQ(1, wp.calls);
    EXPECT_EQ(kRtFileDescriptorWriteCallBack, wp.lastTypes);
    ASSERT_GE(rp.calls, 1);
    EXPECT_EQ(kRtFileDescriptorReadCallBack, rp.lastTypes);
    // The byte is never read, so the reader is ready again on the next run.
    int before = rp.calls;
    RtRunLoopRunInMode(fModeA, 0, false);
    EXPECT_EQ(before + 1, rp.calls);

    // Invalidating from its own callback removes it everywhere and closes the descriptor.
    rp.hook = [&] { RtFileDescriptorInvalidate(reader); };
    int calls = rp.calls;
    RtRunLoopRunInMode(fModeA, 0, false);
    EXPECT_EQ(calls + 1, rp.calls);
    EXPECT_FALSE(RtFileDescriptorIsValid(reader));
    EXPECT_EQ(-1, fcntl(fds[0], F_GETFD));
    RtRunLoopRemoveFileDescriptor(fLoop, writer, fModeA);
    EXPECT_EQ(kRtRunLoopRunFinished, RtRunLoopRunInMode(fModeA, 0, false));
    RtFileDescriptorInvalidate(writer);
}

TEST_F(RtRunLoopTest, SignalDoesNotWakeButWakeUpDoes) {
    Probe p;
    RtRunLoopSourceRef s = own(makeSource(p));
    RtRunLoopAddSource(fLoop, s, fModeA);
    RtRunLoopRef loop = fLoop;
    std::atomic<bool> stillWaitingAfterSignal{false};
    std::thread other([&] {
        while (!RtRunLoopIsWaiting(loop))
            std::this_thread::yield();
        RtRunLoopSourceSignal(s);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        stillWaitingAfterSignal = RtRunLoopIsWaiting(loop);
        RtRunLoopWakeUp(loop);
    });
    EXPECT_EQ(kRtRunLoopRunHandledSource, RtRunLoopRunInMode(fModeA, 1.0e30, true));
    other.join();
    EXPECT_TRUE(stillWaitingAfterSignal);
    EXPECT_EQ(1, p.calls);

    // Stop from another thread ends a run with no time limit.
    std::thread stopper([&] {
        while (!RtRunLoopIsWaiting(loop))
            std::this_thread::yield();
        RtRunLoopStop(loop);
    });
    EXPECT_EQ(kRtRunLoopRunStopped, RtRunLoopRunInMode(fModeA, 1.0e30, false));
    stopper.join();
    RtRunLoopRemoveSource(fLoop, s, fModeA);
}

TEST_F(RtRunLoopTest, EachThreadHasItsOwnLoopFreedAtExit) {
    Probe left;
    RtRunLoopSourceRef s = own(makeSource(left));
    RtRunLoopRef theirs = nullptr;
    std::thread worker([&] {
        theirs = RtRunLoopGetCurrent();
        EXPECT_EQ(theirs, RtRunLoopGetCurrent());
        RtRunLoopAddSource(theirs, s, kRtRunLoopDefaultMode); // still there when the thread ends
    });
    worker.join();
    EXPECT_NE(nullptr, theirs);
    EXPECT_NE(fLoop, theirs);
    EXPECT_EQ(1, left.cancels); // the exiting thread's loop cancelled what it still held
    EXPECT_EQ(1, RtGetRetainCount(s));
}

} // namespace
