// RtRunLoop: the per-thread event loop with modes, sources, timers and descriptor watchers.
//
// Each thread gets one loop on its first RtRunLoopGetCurrent; a thread_local holder tears it
// down (removing everything from every mode) when the thread exits. A loop's mode table is
// guarded by the loop's lock so that other threads may add, remove, signal, stop and wake; the
// lock is never held while a callback runs. Every object taken out of a mode for a pass is
// retained for the length of its callout, so a callback may remove, invalidate or release the
// very object that is calling it. Lock order: loop lock, then an object's lock.
#include "RtRuntime.h"

#include <RtCore/RtRunLoop.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

const RtStringRef kRtRunLoopDefaultMode = __RtStringMakeConstantString("kRtRunLoopDefaultMode");

namespace {

// One (loop, mode) an object was added to; both retained.
struct Membership {
    RtRunLoopRef fLoop;
    RtStringRef fMode;
};

// What sources, timers and watchers share: validity and the list of places they are in.
struct Scheduled {
    std::mutex fLock;
    std::vector<Membership> fMemberships;
    bool fValid = true; // under fLock
};

struct Mode {
    RtStringRef fName; // immutable copy, retained
    std::vector<RtRunLoopSourceRef> fSources;
    std::vector<RtRunLoopTimerRef> fTimers;
    std::vector<RtFileDescriptorRef> fWatchers;

    bool empty() const { return fSources.empty() && fTimers.empty() && fWatchers.empty(); }
};

struct LoopState {
    std::mutex fLock;
    std::vector<Mode *> fModes;             // a mode, once made, lives as long as the loop
    std::vector<RtStringRef> fRunningModes; // one per active RtRunLoopRunInMode, innermost last
    std::thread::id fThread;
    int fWakeFd = -1;
    bool fTornDown = false;
    std::atomic<bool> fStopRequested{false};
    std::atomic<bool> fWaiting{false};
};

struct SourceState {
    Scheduled fSched;
    RtIndex fOrder = 0;
    RtRunLoopSourceContext fContext{};
    std::atomic<bool> fSignalled{false};
};

struct TimerState {
    Scheduled fSched;
    std::mutex fLock; // fFireDate, fFiring, fRescheduled
    RtAbsoluteTime fFireDate = 0;
    RtTimeInterval fInterval = 0;
    RtIndex fOrder = 0;
    RtRunLoopTimerCallBack fCallout = nullptr;
    RtRunLoopTimerContext fContext{};
    bool fFiring = false;
    bool fRescheduled = false;
};

struct WatcherState {
    Scheduled fSched;
    int fFd = -1;
    bool fCloseOnInvalidate = false;
    RtFileDescriptorCallBack fCallout = nullptr;
    RtFileDescriptorContext fContext{};
    std::atomic<RtOptionFlags> fEnabled{0};
};

} // namespace

struct __RtRunLoop {
    RtRuntimeBase fBase;
    LoopState fState;
};
struct __RtRunLoopSource {
    RtRuntimeBase fBase;
    SourceState fState;
};
struct __RtRunLoopTimer {
    RtRuntimeBase fBase;
    TimerState fState;
};
struct __RtFileDescriptor {
    RtRuntimeBase fBase;
    WatcherState fState;
};

namespace {

// ---- Classes ------------------------------------------------------------------------------

void _finalizeLoop(RtTypeRef obj);
void _finalizeSource(RtTypeRef obj);
void _finalizeTimer(RtTypeRef obj);
void _finalizeWatcher(RtTypeRef obj);
bool _equalSources(RtTypeRef a, RtTypeRef b);
RtHashCode _hashSource(RtTypeRef obj);

//                                      version name                  init     copy     finalize
const RtRuntimeClass sLoopClass = {0,       "RtRunLoop", nullptr, nullptr, _finalizeLoop,
                                   nullptr, nullptr,     nullptr, nullptr};
const RtRuntimeClass sSourceClass = {
    0, "RtRunLoopSource", nullptr, nullptr, _finalizeSource, _equalSources, _hashSource, nullptr, nullptr};
const RtRuntimeClass sTimerClass = {0,       "RtRunLoopTimer", nullptr, nullptr, _finalizeTimer,
                                    nullptr, nullptr,          nullptr, nullptr};
const RtRuntimeClass sWatcherClass = {
    0, "RtFileDescriptor", nullptr, nullptr, _finalizeWatcher, nullptr, nullptr, nullptr, nullptr};

std::atomic<RtTypeID> gLoopTypeID{kRtNotATypeID};
std::atomic<RtTypeID> gSourceTypeID{kRtNotATypeID};
std::atomic<RtTypeID> gTimerTypeID{kRtNotATypeID};
std::atomic<RtTypeID> gWatcherTypeID{kRtNotATypeID};

// Allocates a runtime object whose C++ state follows the header and constructs that state.
template <class Object> Object *createObject(std::atomic<RtTypeID> &slot, const RtRuntimeClass *cls) {
    RtTypeID typeID = rt::registerOnce(slot, cls);
    auto *obj = static_cast<Object *>(const_cast<void *>(
        RtRuntimeCreateInstance(nullptr, typeID, RtIndex(sizeof(Object) - sizeof(RtRuntimeBase)))));
    if (obj) new (&obj->fState) decltype(obj->fState)();
    return obj;
}

RtAbsoluteTime now() {
    return RtAbsoluteTimeGetCurrent();
}

bool sameMode(RtStringRef a, RtStringRef b) {
    return a == b || RtEqual(a, b);
}

// ---- Mode table (callers hold the loop's lock) --------------------------------------------

Mode *findMode(LoopState &ls, RtStringRef name, bool create) {
    for (Mode *m : ls.fModes)
        if (sameMode(m->fName, name)) return m;
    if (!create) return nullptr;
    RtStringRef copy = RtStringCreateCopy(kRtAllocatorDefault, name);
    if (!copy) return nullptr;
    Mode *m = new Mode;
    m->fName = copy;
    ls.fModes.push_back(m);
    return m;
}

template <class Ref> bool listContains(const std::vector<Ref> &list, Ref obj) {
    return std::find(list.begin(), list.end(), obj) != list.end();
}

bool onLoopThread(RtRunLoopRef rl) {
    return rl->fState.fThread == std::this_thread::get_id();
}

// Another thread changed what the loop waits for: let a sleeping loop recompute its wait.
void wakeIfForeign(RtRunLoopRef rl) {
    if (!onLoopThread(rl)) RtRunLoopWakeUp(rl);
}

// Adds obj to (rl, mode); the mode retains obj, the object records the membership. False when
// obj is invalid, already there, or the loop has been torn down.
template <class Ref>
bool addToMode(RtRunLoopRef rl, Ref obj, RtStringRef mode, std::vector<Ref> Mode::*list, Scheduled &sched) {
    LoopState &ls = rl->fState;
    std::lock_guard<std::mutex> guard(ls.fLock);
    if (ls.fTornDown) return false;
    Mode *m = findMode(ls, mode, true);
    if (!m || listContains(m->*list, obj)) return false;
    std::lock_guard<std::mutex> objGuard(sched.fLock);
    if (!sched.fValid) return false;
    (m->*list).push_back(obj);
    RtRetain(obj);
    RtRetain(rl);
    RtRetain(m->fName);
    sched.fMemberships.push_back({rl, m->fName});
    return true;
}

// Removes obj from (rl, mode). On success the caller owns the reference the mode held.
template <class Ref>
bool removeFromMode(RtRunLoopRef rl, Ref obj, RtStringRef mode, std::vector<Ref> Mode::*list,
                    Scheduled &sched) {
    LoopState &ls = rl->fState;
    Membership dropped{nullptr, nullptr};
    {
        std::lock_guard<std::mutex> guard(ls.fLock);
        Mode *m = findMode(ls, mode, false);
        if (!m) return false;
        auto &v = m->*list;
        auto it = std::find(v.begin(), v.end(), obj);
        if (it == v.end()) return false;
        v.erase(it);
        std::lock_guard<std::mutex> objGuard(sched.fLock);
        auto &ms = sched.fMemberships;
        for (auto mi = ms.begin(); mi != ms.end(); ++mi) {
            if (mi->fLoop == rl && mi->fMode == m->fName) {
                dropped = *mi;
                ms.erase(mi);
                break;
            }
        }
    }
    RtRelease(dropped.fMode);
    RtRelease(dropped.fLoop);
    return true;
}

bool containsInMode(RtRunLoopRef rl, Mode *m, RtTypeRef obj, int kind) {
    std::lock_guard<std::mutex> guard(rl->fState.fLock);
    switch (kind) {
    case 0:
        return listContains(m->fSources, static_cast<RtRunLoopSourceRef>(const_cast<void *>(obj)));
    case 1:
        return listContains(m->fTimers, static_cast<RtRunLoopTimerRef>(const_cast<void *>(obj)));
    default:
        return listContains(m->fWatchers, static_cast<RtFileDescriptorRef>(const_cast<void *>(obj)));
    }
}

// The object's memberships, each retained. With invalidate, also marks it invalid and reports
// through wasValid whether this call was the one that did.
std::vector<Membership> copyMemberships(Scheduled &sched, bool invalidate, bool *wasValid = nullptr) {
    std::lock_guard<std::mutex> guard(sched.fLock);
    if (wasValid) *wasValid = sched.fValid;
    if (invalidate) sched.fValid = false;
    std::vector<Membership> copy = sched.fMemberships;
    for (Membership &m : copy) {
        RtRetain(m.fLoop);
        RtRetain(m.fMode);
    }
    return copy;
}

bool isValid(Scheduled &sched) {
    std::lock_guard<std::mutex> guard(sched.fLock);
    return sched.fValid;
}

// ---- The current thread's loop -------------------------------------------------------------

void tearDown(RtRunLoopRef rl);

RtRunLoopRef createLoop() {
    auto *rl = createObject<__RtRunLoop>(gLoopTypeID, &sLoopClass);
    if (!rl) return nullptr;
    rl->fState.fThread = std::this_thread::get_id();
    rl->fState.fWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return rl;
}

// Owns the thread's loop; its destructor runs at thread exit.
struct CurrentLoop {
    RtRunLoopRef fLoop = nullptr;
    ~CurrentLoop();
};

thread_local CurrentLoop gCurrentLoop;
thread_local bool gCurrentLoopGone = false; // trivially destructible: readable during thread exit

CurrentLoop::~CurrentLoop() {
    gCurrentLoopGone = true;
    if (!fLoop) return;
    tearDown(fLoop);
    RtRelease(fLoop);
    fLoop = nullptr;
}

// Empties every mode of a loop whose thread is exiting. Sources are cancelled; nothing fires.
void tearDown(RtRunLoopRef rl) {
    LoopState &ls = rl->fState;
    std::vector<std::pair<RtRunLoopSourceRef, RtStringRef>> sources;
    std::vector<std::pair<RtRunLoopTimerRef, RtStringRef>> timers;
    std::vector<std::pair<RtFileDescriptorRef, RtStringRef>> watchers;
    {
        std::lock_guard<std::mutex> guard(ls.fLock);
        ls.fTornDown = true;
        for (Mode *m : ls.fModes) {
            for (auto s : m->fSources)
                sources.emplace_back(s, m->fName);
            for (auto t : m->fTimers)
                timers.emplace_back(t, m->fName);
            for (auto w : m->fWatchers)
                watchers.emplace_back(w, m->fName);
        }
    }
    // The mode lists still own their references; removal hands each one to us.
    for (auto &[s, mode] : sources)
        RtRunLoopRemoveSource(rl, s, mode);
    for (auto &[t, mode] : timers)
        RtRunLoopRemoveTimer(rl, t, mode);
    for (auto &[w, mode] : watchers)
        RtRunLoopRemoveFileDescriptor(rl, w, mode);
}

void _finalizeLoop(RtTypeRef obj) {
    auto *rl = static_cast<__RtRunLoop *>(const_cast<void *>(obj));
    LoopState &ls = rl->fState;
    for (Mode *m : ls.fModes) {
        RtRelease(m->fName);
        delete m;
    }
    for (RtStringRef s : ls.fRunningModes)
        RtRelease(s);
    if (ls.fWakeFd >= 0) close(ls.fWakeFd);
    ls.~LoopState();
}

// ---- One run ------------------------------------------------------------------------------

enum { eKindSource = 0, eKindTimer = 1, eKindWatcher = 2 };

template <class Ref> void releaseAll(std::vector<Ref> &v) {
    for (Ref r : v)
        RtRelease(r);
    v.clear();
}

// Sorts due timers or signalled sources by their order, keeping equal orders as they were.
// Usually one or two: insertion sort, since std::stable_sort allocates a scratch buffer on
// every call, even for a single element.
template <class Ref> void sortByOrder(std::vector<Ref> &v) {
    if (v.size() > 16) {
        std::stable_sort(v.begin(), v.end(),
                         [](Ref a, Ref b) { return a->fState.fOrder < b->fState.fOrder; });
        return;
    }
    for (size_t i = 1; i < v.size(); i++) {
        Ref r = v[i];
        size_t j = i;
        for (; j > 0 && v[j - 1]->fState.fOrder > r->fState.fOrder; j--)
            v[j] = v[j - 1];
        v[j] = r;
    }
}

// Fires every valid timer of m whose fire date has come.
void fireTimers(RtRunLoopRef rl, Mode *m, std::vector<RtRunLoopTimerRef> &due) {
    RtAbsoluteTime t = now();
    {
        std::lock_guard<std::mutex> guard(rl->fState.fLock);
        for (RtRunLoopTimerRef timer : m->fTimers) {
            std::lock_guard<std::mutex> tg(timer->fState.fLock);
            if (!timer->fState.fFiring && timer->fState.fFireDate <= t) due.push_back(timer);
        }
        for (RtRunLoopTimerRef timer : due)
            RtRetain(timer);
    }
    sortByOrder(due);
    for (RtRunLoopTimerRef timer : due) {
        TimerState &ts = timer->fState;
        if (!isValid(ts.fSched) || !containsInMode(rl, m, timer, eKindTimer)) continue;
        RtAbsoluteTime scheduled;
        {
            std::lock_guard<std::mutex> tg(ts.fLock);
            if (ts.fFiring || ts.fFireDate > t) continue;
            ts.fFiring = true;
            ts.fRescheduled = false;
            scheduled = ts.fFireDate;
        }
        ts.fCallout(timer, ts.fContext.info);
        bool invalidate = false;
        {
            std::lock_guard<std::mutex> tg(ts.fLock);
            ts.fFiring = false;
            if (!ts.fRescheduled) {
                if (ts.fInterval > 0) {
                    // Skip the firings that were missed rather than firing them in a burst.
                    RtAbsoluteTime after = now();
                    double steps = std::floor((after - scheduled) / ts.fInterval) + 1;
                    ts.fFireDate = scheduled + std::max(1.0, steps) * ts.fInterval;
                } else {
                    invalidate = true;
                }
            }
        }
        if (invalidate) RtRunLoopTimerInvalidate(timer);
    }
    releaseAll(due);
}

// Performs the signalled sources of m in order. Returns true when at least one performed;
// with stopAfterOne it returns right after the first.
bool performSources(RtRunLoopRef rl, Mode *m, bool stopAfterOne, std::vector<RtRunLoopSourceRef> &ready) {
    {
        std::lock_guard<std::mutex> guard(rl->fState.fLock);
        for (RtRunLoopSourceRef s : m->fSources)
            if (s->fState.fSignalled.load(std::memory_order_acquire)) ready.push_back(s);
        for (RtRunLoopSourceRef s : ready)
            RtRetain(s);
    }
    sortByOrder(ready);
    bool performed = false;
    for (RtRunLoopSourceRef s : ready) {
        SourceState &ss = s->fState;
        if (!isValid(ss.fSched) || !containsInMode(rl, m, s, eKindSource)) continue;
        if (!ss.fSignalled.exchange(false, std::memory_order_acq_rel)) continue;
        if (ss.fContext.perform) ss.fContext.perform(ss.fContext.info);
        performed = true;
        if (stopAfterOne) break;
    }
    releaseAll(ready);
    return performed;
}

struct Watch {
    RtFileDescriptorRef fWatcher;
    RtOptionFlags fTypes;
};

// Seconds until the next event that needs no descriptor: 0 when a source is signalled or a
// timer is due, else the earliest timer, capped by the run's deadline.
double secondsToWait(RtRunLoopRef rl, Mode *m, RtAbsoluteTime deadline, std::vector<Watch> &watches,
                     std::vector<pollfd> &fds) {
    RtAbsoluteTime t = now();
    double wait = deadline - t;
    std::lock_guard<std::mutex> guard(rl->fState.fLock);
    for (RtRunLoopSourceRef s : m->fSources)
        if (s->fState.fSignalled.load(std::memory_order_acquire)) wait = 0;
    for (RtRunLoopTimerRef timer : m->fTimers) {
        std::lock_guard<std::mutex> tg(timer->fState.fLock);
        if (!timer->fState.fFiring) wait = std::min(wait, timer->fState.fFireDate - t);
    }
    for (RtFileDescriptorRef w : m->fWatchers) {
        RtOptionFlags types = w->fState.fEnabled.load(std::memory_order_acquire);
        if (!types) continue;
        short events = 0;
        if (types & kRtFileDescriptorReadCallBack) events |= POLLIN;
        if (types & kRtFileDescriptorWriteCallBack) events |= POLLOUT;
        fds.push_back({w->fState.fFd, events, 0});
        watches.push_back({w, types});
        RtRetain(w);
    }
    return std::max(0.0, wait);
}

// Sleeps in ppoll until a watched descriptor is ready, the loop is woken, or wait passes.
void waitForEvents(LoopState &ls, double wait, std::vector<pollfd> &fds) {
    fds.push_back({ls.fWakeFd, POLLIN, 0});
    timespec ts{};
    timespec *timeout = nullptr;
    if (wait < 1e9) { // longer waits are "forever": only an event or a wake-up ends them
        double whole = std::floor(wait);
        ts.tv_sec = time_t(whole);
        ts.tv_nsec = long((wait - whole) * 1e9);
        timeout = &ts;
    }
    bool sleeps = !(timeout && ts.tv_sec == 0 && ts.tv_nsec == 0);
    if (sleeps) ls.fWaiting.store(true, std::memory_order_release);
    int n = ppoll(fds.data(), nfds_t(fds.size()), timeout, nullptr);
    if (sleeps) ls.fWaiting.store(false, std::memory_order_release);
    if (n < 0) {
        for (pollfd &p : fds)
            p.revents = 0;
        return;
    }
    if (fds.back().revents & POLLIN) {
        uint64_t count;
        while (read(ls.fWakeFd, &count, sizeof count) > 0) {
        }
    }
    fds.pop_back();
}

void dispatchWatchers(RtRunLoopRef rl, Mode *m, std::vector<Watch> &watches, std::vector<pollfd> &fds) {
    for (size_t i = 0; i < watches.size(); i++) {
        short re = fds[i].revents;
        if (!re) continue;
        RtFileDescriptorRef w = watches[i].fWatcher;
        // Errors and hang-ups count as readiness: the callback's read or write will see them.
        RtOptionFlags types = 0;
        if (re & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) types |= kRtFileDescriptorReadCallBack;
        if (re & (POLLOUT | POLLHUP | POLLERR | POLLNVAL)) types |= kRtFileDescriptorWriteCallBack;
        types &= watches[i].fTypes & w->fState.fEnabled.load(std::memory_order_acquire);
        if (!types || !isValid(w->fState.fSched) || !containsInMode(rl, m, w, eKindWatcher)) continue;
        w->fState.fCallout(w, types, w->fState.fContext.info);
    }
    for (Watch &wt : watches)
        RtRelease(wt.fWatcher);
    watches.clear();
    fds.clear();
}

// The lists one run fills on each pass, kept for the thread between runs (a synchronous call
// runs its loop several times), one set for each level of runs nested in callbacks.
struct RunScratch {
    std::vector<RtRunLoopTimerRef> fDue;
    std::vector<RtRunLoopSourceRef> fReady;
    std::vector<Watch> fWatches;
    std::vector<pollfd> fFds;
};
thread_local std::vector<std::unique_ptr<RunScratch>> tRunScratch;
thread_local size_t tRunDepth = 0;

int32_t runInMode(RtRunLoopRef rl, RtStringRef modeName, RtTimeInterval seconds,
                  bool returnAfterSourceHandled) {
    LoopState &ls = rl->fState;
    Mode *m;
    {
        std::lock_guard<std::mutex> guard(ls.fLock);
        m = findMode(ls, modeName, false);
        if (!m || m->empty()) return kRtRunLoopRunFinished;
        RtRetain(m->fName);
        ls.fRunningModes.push_back(m->fName);
    }
    struct PopMode {
        LoopState &fLs;
        ~PopMode() {
            RtStringRef top;
            {
                std::lock_guard<std::mutex> guard(fLs.fLock);
                top = fLs.fRunningModes.back();
                fLs.fRunningModes.pop_back();
            }
            RtRelease(top);
        }
    } pop{ls};

    if (ls.fStopRequested.exchange(false)) return kRtRunLoopRunStopped;
    // NaN and negative limits run one pass, like 0; huge ones never time out.
    RtAbsoluteTime deadline = now() + (seconds > 0 ? seconds : 0.0);
    if (tRunScratch.size() <= tRunDepth) tRunScratch.push_back(std::make_unique<RunScratch>());
    RunScratch &scratch = *tRunScratch[tRunDepth]; // stays put when a nested run adds a level
    struct Nest {
        Nest() { tRunDepth++; }
        ~Nest() { tRunDepth--; }
    } nest;
    std::vector<RtRunLoopTimerRef> &due = scratch.fDue;
    std::vector<RtRunLoopSourceRef> &ready = scratch.fReady;
    std::vector<Watch> &watches = scratch.fWatches;
    std::vector<pollfd> &fds = scratch.fFds;
    due.clear();
    ready.clear();
    watches.clear();
    fds.clear();
    bool polled = false;
    for (;;) {
        fireTimers(rl, m, due);
        if (performSources(rl, m, returnAfterSourceHandled, ready) && returnAfterSourceHandled)
            return kRtRunLoopRunHandledSource;
        if (ls.fStopRequested.exchange(false)) return kRtRunLoopRunStopped;
        {
            std::lock_guard<std::mutex> guard(ls.fLock);
            if (m->empty()) return kRtRunLoopRunFinished;
        }
        if (polled && now() >= deadline) return kRtRunLoopRunTimedOut;
        double wait = secondsToWait(rl, m, deadline, watches, fds);
        waitForEvents(ls, wait, fds);
        dispatchWatchers(rl, m, watches, fds);
        polled = true;
    }
}

// ---- Sources ------------------------------------------------------------------------------

void _finalizeSource(RtTypeRef obj) {
    auto *s = static_cast<__RtRunLoopSource *>(const_cast<void *>(obj));
    if (s->fState.fContext.release) s->fState.fContext.release(s->fState.fContext.info);
    s->fState.~SourceState();
}

bool _equalSources(RtTypeRef a, RtTypeRef b) {
    auto *sa = static_cast<const __RtRunLoopSource *>(a);
    auto *sb = static_cast<const __RtRunLoopSource *>(b);
    const RtRunLoopSourceContext &ca = sa->fState.fContext, &cb = sb->fState.fContext;
    if (sa->fState.fOrder != sb->fState.fOrder || ca.perform != cb.perform) return false;
    if (ca.equal && ca.equal == cb.equal) return ca.equal(ca.info, cb.info);
    return ca.info == cb.info;
}

RtHashCode _hashSource(RtTypeRef obj) {
    const RtRunLoopSourceContext &c = static_cast<const __RtRunLoopSource *>(obj)->fState.fContext;
    return c.hash ? c.hash(c.info) : RtHashCode(reinterpret_cast<uintptr_t>(c.info));
}

void _finalizeTimer(RtTypeRef obj) {
    auto *t = static_cast<__RtRunLoopTimer *>(const_cast<void *>(obj));
    if (t->fState.fContext.release) t->fState.fContext.release(t->fState.fContext.info);
    t->fState.~TimerState();
}

void _finalizeWatcher(RtTypeRef obj) {
    auto *w = static_cast<__RtFileDescriptor *>(const_cast<void *>(obj));
    if (w->fState.fContext.release) w->fState.fContext.release(w->fState.fContext.info);
    w->fState.~WatcherState();
}

} // namespace

// ---- The loop -------------------------------------------------------------------------------

RtTypeID RtRunLoopGetTypeID(void) {
    return rt::registerOnce(gLoopTypeID, &sLoopClass);
}

RtRunLoopRef RtRunLoopGetCurrent(void) {
    if (gCurrentLoopGone) return nullptr;
    CurrentLoop &current = gCurrentLoop;
    if (!current.fLoop) current.fLoop = createLoop();
    return current.fLoop;
}

RtStringRef RtRunLoopCopyCurrentMode(RtRunLoopRef rl) {
    if (!rt::isA(rl, RtRunLoopGetTypeID())) return nullptr;
    std::lock_guard<std::mutex> guard(rl->fState.fLock);
    if (rl->fState.fRunningModes.empty()) return nullptr;
    return static_cast<RtStringRef>(RtRetain(rl->fState.fRunningModes.back()));
}

int32_t RtRunLoopRunInMode(RtStringRef mode, RtTimeInterval seconds, bool returnAfterSourceHandled) {
    RtRunLoopRef rl = RtRunLoopGetCurrent();
    if (!rl || !mode) return kRtRunLoopRunFinished;
    return runInMode(rl, mode, seconds, returnAfterSourceHandled);
}

void RtRunLoopRun(void) {
    for (;;) {
        int32_t result = RtRunLoopRunInMode(kRtRunLoopDefaultMode, 1.0e10, false);
        if (result == kRtRunLoopRunStopped || result == kRtRunLoopRunFinished) return;
    }
}

void RtRunLoopStop(RtRunLoopRef rl) {
    if (!rt::isA(rl, RtRunLoopGetTypeID())) return;
    rl->fState.fStopRequested.store(true);
    RtRunLoopWakeUp(rl);
}

void RtRunLoopWakeUp(RtRunLoopRef rl) {
    if (!rt::isA(rl, RtRunLoopGetTypeID()) || rl->fState.fWakeFd < 0) return;
    uint64_t one = 1;
    // A full counter (EAGAIN) already guarantees a wake-up.
    while (write(rl->fState.fWakeFd, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

bool RtRunLoopIsWaiting(RtRunLoopRef rl) {
    return rt::isA(rl, RtRunLoopGetTypeID()) && rl->fState.fWaiting.load(std::memory_order_acquire);
}

// ---- Sources ------------------------------------------------------------------------------

RtTypeID RtRunLoopSourceGetTypeID(void) {
    return rt::registerOnce(gSourceTypeID, &sSourceClass);
}

RtRunLoopSourceRef RtRunLoopSourceCreate(RtAllocatorRef, RtIndex order,
                                         const RtRunLoopSourceContext *context) {
    if (!context) return nullptr;
    auto *s = createObject<__RtRunLoopSource>(gSourceTypeID, &sSourceClass);
    if (!s) return nullptr;
    s->fState.fOrder = order;
    s->fState.fContext = *context;
    if (context->retain && context->info)
        s->fState.fContext.info = const_cast<void *>(context->retain(context->info));
    return s;
}

void RtRunLoopAddSource(RtRunLoopRef rl, RtRunLoopSourceRef source, RtStringRef mode) {
    if (!rt::isA(rl, RtRunLoopGetTypeID()) || !rt::isA(source, RtRunLoopSourceGetTypeID()) || !mode) return;
    if (!addToMode(rl, source, mode, &Mode::fSources, source->fState.fSched)) return;
    const RtRunLoopSourceContext &c = source->fState.fContext;
    if (c.schedule) c.schedule(c.info, rl, mode);
    // A source signalled before it was added may be waiting for a loop that sleeps.
    if (source->fState.fSignalled.load()) wakeIfForeign(rl);
}

void RtRunLoopRemoveSource(RtRunLoopRef rl, RtRunLoopSourceRef source, RtStringRef mode) {
    if (!rt::isA(rl, RtRunLoopGetTypeID()) || !rt::isA(source, RtRunLoopSourceGetTypeID()) || !mode) return;
    if (!removeFromMode(rl, source, mode, &Mode::fSources, source->fState.fSched)) return;
    const RtRunLoopSourceContext &c = source->fState.fContext;
    if (c.cancel) c.cancel(c.info, rl, mode);
    RtRelease(source); // the mode's reference
}

bool RtRunLoopContainsSource(RtRunLoopRef rl, RtRunLoopSourceRef source, RtStringRef mode) {
    if (!rt::isA(rl, RtRunLoopGetTypeID()) || !source || !mode) return false;
    std::lock_guard<std::mutex> guard(rl->fState.fLock);
    Mode *m = findMode(rl->fState, mode, false);
    return m && listContains(m->fSources, source);
}

void RtRunLoopSourceSignal(RtRunLoopSourceRef source) {
    if (!rt::isA(source, RtRunLoopSourceGetTypeID())) return;
    source->fState.fSignalled.store(true, std::memory_order_release);
}

void RtRunLoopSourceInvalidate(RtRunLoopSourceRef source) {
    if (!rt::isA(source, RtRunLoopSourceGetTypeID())) return;
    RtRetain(source); // removal may drop the last reference held by a mode
    for (Membership &m : copyMemberships(source->fState.fSched, true)) {
        RtRunLoopRemoveSource(m.fLoop, source, m.fMode);
        RtRelease(m.fMode);
        RtRelease(m.fLoop);
    }
    source->fState.fSignalled.store(false);
    RtRelease(source);
}

bool RtRunLoopSourceIsValid(RtRunLoopSourceRef source) {
    return rt::isA(source, RtRunLoopSourceGetTypeID()) && isValid(source->fState.fSched);
}

void RtRunLoopSourceGetContext(RtRunLoopSourceRef source, RtRunLoopSourceContext *context) {
    if (!rt::isA(source, RtRunLoopSourceGetTypeID()) || !context) return;
    *context = source->fState.fContext;
}

// ---- Timers -------------------------------------------------------------------------------

RtTypeID RtRunLoopTimerGetTypeID(void) {
    return rt::registerOnce(gTimerTypeID, &sTimerClass);
}

RtRunLoopTimerRef RtRunLoopTimerCreate(RtAllocatorRef, RtAbsoluteTime fireDate, RtTimeInterval interval,
                                       RtOptionFlags, RtIndex order, RtRunLoopTimerCallBack callout,
                                       RtRunLoopTimerContext *context) {
    if (!callout) return nullptr;
    auto *t = createObject<__RtRunLoopTimer>(gTimerTypeID, &sTimerClass);
    if (!t) return nullptr;
    TimerState &ts = t->fState;
    ts.fFireDate = fireDate;
    ts.fInterval = interval > 0 ? interval : 0;
    ts.fOrder = order;
    ts.fCallout = callout;
    if (context) {
        ts.fContext = *context;
        if (context->retain && context->info)
            ts.fContext.info = const_cast<void *>(context->retain(context->info));
    }
    return t;
}

void RtRunLoopAddTimer(RtRunLoopRef rl, RtRunLoopTimerRef timer, RtStringRef mode) {
    if (!rt::isA(rl, RtRunLoopGetTypeID()) || !rt::isA(timer, RtRunLoopTimerGetTypeID()) || !mode) return;
    if (addToMode(rl, timer, mode, &Mode::fTimers, timer->fState.fSched)) wakeIfForeign(rl);
}

void RtRunLoopRemoveTimer(RtRunLoopRef rl, RtRunLoopTimerRef timer, RtStringRef mode) {
    if (!rt::isA(rl, RtRunLoopGetTypeID()) || !rt::isA(timer, RtRunLoopTimerGetTypeID()) || !mode) return;
    if (removeFromMode(rl, timer, mode, &Mode::fTimers, timer->fState.fSched)) RtRelease(timer);
}

bool RtRunLoopContainsTimer(RtRunLoopRef rl, RtRunLoopTimerRef timer, RtStringRef mode) {
    if (!rt::isA(rl, RtRunLoopGetTypeID()) || !timer || !mode) return false;
    std::lock_guard<std::mutex> guard(rl->fState.fLock);
    Mode *m = findMode(rl->fState, mode, false);
    return m && listContains(m->fTimers, timer);
}

RtAbsoluteTime RtRunLoopTimerGetNextFireDate(RtRunLoopTimerRef timer) {
    if (!rt::isA(timer, RtRunLoopTimerGetTypeID())) return 0;
    std::lock_guard<std::mutex> guard(timer->fState.fLock);
    return timer->fState.fFireDate;
}

void RtRunLoopTimerSetNextFireDate(RtRunLoopTimerRef timer, RtAbsoluteTime fireDate) {
    if (!rt::isA(timer, RtRunLoopTimerGetTypeID())) return;
    {
        std::lock_guard<std::mutex> guard(timer->fState.fLock);
        timer->fState.fFireDate = fireDate;
        if (timer->fState.fFiring) timer->fState.fRescheduled = true;
    }
    for (Membership &m : copyMemberships(timer->fState.fSched, false)) {
        wakeIfForeign(m.fLoop);
        RtRelease(m.fMode);
        RtRelease(m.fLoop);
    }
}

RtTimeInterval RtRunLoopTimerGetInterval(RtRunLoopTimerRef timer) {
    return rt::isA(timer, RtRunLoopTimerGetTypeID()) ? timer->fState.fInterval : 0;
}

void RtRunLoopTimerInvalidate(RtRunLoopTimerRef timer) {
    if (!rt::isA(timer, RtRunLoopTimerGetTypeID())) return;
    RtRetain(timer);
    for (Membership &m : copyMemberships(timer->fState.fSched, true)) {
        RtRunLoopRemoveTimer(m.fLoop, timer, m.fMode);
        RtRelease(m.fMode);
        RtRelease(m.fLoop);
    }
    RtRelease(timer);
}

bool RtRunLoopTimerIsValid(RtRunLoopTimerRef timer) {
    return rt::isA(timer, RtRunLoopTimerGetTypeID()) && isValid(timer->fState.fSched);
}

// ---- Descriptor watchers ------------------------------------------------------------------

RtTypeID RtFileDescriptorGetTypeID(void) {
    return rt::registerOnce(gWatcherTypeID, &sWatcherClass);
}

RtFileDescriptorRef RtFileDescriptorCreate(RtAllocatorRef, int fd, bool closeOnInvalidate,
                                           RtFileDescriptorCallBack callout,
                                           const RtFileDescriptorContext *context) {
    if (fd < 0 || !callout) return nullptr;
    auto *w = createObject<__RtFileDescriptor>(gWatcherTypeID, &sWatcherClass);
    if (!w) return nullptr;
    WatcherState &ws = w->fState;
    ws.fFd = fd;
    ws.fCloseOnInvalidate = closeOnInvalidate;
    ws.fCallout = callout;
    if (context) {
        ws.fContext = *context;
        if (context->retain && context->info)
            ws.fContext.info = const_cast<void *>(context->retain(context->info));
    }
    return w;
}

int RtFileDescriptorGetNativeDescriptor(RtFileDescriptorRef watcher) {
    return rt::isA(watcher, RtFileDescriptorGetTypeID()) ? watcher->fState.fFd : -1;
}

static void wakeWatcherLoops(RtFileDescriptorRef watcher) {
    for (Membership &m : copyMemberships(watcher->fState.fSched, false)) {
        wakeIfForeign(m.fLoop);
        RtRelease(m.fMode);
        RtRelease(m.fLoop);
    }
}

void RtFileDescriptorEnableCallBacks(RtFileDescriptorRef watcher, RtOptionFlags callBackTypes) {
    if (!rt::isA(watcher, RtFileDescriptorGetTypeID())) return;
    RtOptionFlags types = callBackTypes & (kRtFileDescriptorReadCallBack | kRtFileDescriptorWriteCallBack);
    RtOptionFlags old = watcher->fState.fEnabled.fetch_or(types);
    if ((old | types) != old) wakeWatcherLoops(watcher);
}

void RtFileDescriptorDisableCallBacks(RtFileDescriptorRef watcher, RtOptionFlags callBackTypes) {
    if (!rt::isA(watcher, RtFileDescriptorGetTypeID())) return;
    watcher->fState.fEnabled.fetch_and(~callBackTypes);
}

void RtRunLoopAddFileDescriptor(RtRunLoopRef rl, RtFileDescriptorRef watcher, RtStringRef mode) {
    if (!rt::isA(rl, RtRunLoopGetTypeID()) || !rt::isA(watcher, RtFileDescriptorGetTypeID()) || !mode) return;
    if (addToMode(rl, watcher, mode, &Mode::fWatchers, watcher->fState.fSched)) wakeIfForeign(rl);
}

void RtRunLoopRemoveFileDescriptor(RtRunLoopRef rl, RtFileDescriptorRef watcher, RtStringRef mode) {
    if (!rt::isA(rl, RtRunLoopGetTypeID()) || !rt::isA(watcher, RtFileDescriptorGetTypeID()) || !mode) return;
    if (removeFromMode(rl, watcher, mode, &Mode::fWatchers, watcher->fState.fSched)) RtRelease(watcher);
}

void RtFileDescriptorInvalidate(RtFileDescriptorRef watcher) {
    if (!rt::isA(watcher, RtFileDescriptorGetTypeID())) return;
    WatcherState &ws = watcher->fState;
    bool wasValid = false;
    RtRetain(watcher);
    for (Membership &m : copyMemberships(ws.fSched, true, &wasValid)) {
        RtRunLoopRemoveFileDescriptor(m.fLoop, watcher, m.fMode);
        RtRelease(m.fMode);
        RtRelease(m.fLoop);
    }
    ws.fEnabled.store(0);
    if (wasValid && ws.fCloseOnInvalidate && ws.fFd >= 0) close(ws.fFd);
    RtRelease(watcher);
}

bool RtFileDescriptorIsValid(RtFileDescriptorRef watcher) {
    return rt::isA(watcher, RtFileDescriptorGetTypeID()) && isValid(watcher->fState.fSched);
}
