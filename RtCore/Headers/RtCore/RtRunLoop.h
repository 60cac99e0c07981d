/* RtRunLoop.h: one event loop per thread with modes, sources, timers and descriptor watchers.
 *
 * Only the objects added in the mode that is running fire, so running a private mode isolates
 * one piece of work from everything else on the thread. Callbacks run on the loop's thread.
 * RtRunLoopWakeUp and RtRunLoopStop may be called from any thread. */
#ifndef RTCORE_RTRUNLOOP_H
#define RTCORE_RTRUNLOOP_H

#include <RtCore/RtBase.h>
#include <RtCore/RtDate.h>

RT_EXTERN_C_BEGIN

typedef struct __RtRunLoop *RtRunLoopRef;
typedef struct __RtRunLoopSource *RtRunLoopSourceRef;
typedef struct __RtRunLoopTimer *RtRunLoopTimerRef;
typedef struct __RtFileDescriptor *RtFileDescriptorRef;

/* "kRtRunLoopDefaultMode" */
RT_EXPORT extern const RtStringRef kRtRunLoopDefaultMode;

enum {
    kRtRunLoopRunFinished = 1,     /* nothing in the mode to wait for */
    kRtRunLoopRunStopped = 2,      /* RtRunLoopStop */
    kRtRunLoopRunTimedOut = 3,     /* the time limit passed */
    kRtRunLoopRunHandledSource = 4 /* returnAfterSourceHandled and a source performed */
};

RT_EXPORT RtTypeID RtRunLoopGetTypeID(void);
/* The calling thread's loop, made on first use; lives as long as the thread. Borrowed. */
RT_EXPORT RtRunLoopRef RtRunLoopGetCurrent(void);
/* The mode the loop is running in (new string), or NULL when it is not running. */
RT_EXPORT RtStringRef RtRunLoopCopyCurrentMode(RtRunLoopRef rl);
/* Runs the current thread's loop in mode for at most seconds. Returns one of the four results.
 * Runs nested inside a callback are allowed. */
RT_EXPORT int32_t RtRunLoopRunInMode(RtStringRef mode, RtTimeInterval seconds, bool returnAfterSourceHandled);
/* Runs in the default mode until stopped or finished. */
RT_EXPORT void RtRunLoopRun(void);
RT_EXPORT void RtRunLoopStop(RtRunLoopRef rl);
RT_EXPORT void RtRunLoopWakeUp(RtRunLoopRef rl);
RT_EXPORT bool RtRunLoopIsWaiting(RtRunLoopRef rl);

/* ---- Sources ------------------------------------------------------------------------------ */

typedef struct {
    RtIndex version;
    void *info;
    const void *(*retain)(const void *info);
    void (*release)(const void *info);
    RtStringRef (*copyDescription)(const void *info);
    bool (*equal)(const void *info1, const void *info2);
    RtHashCode (*hash)(const void *info);
    void (*schedule)(void *info, RtRunLoopRef rl, RtStringRef mode);
    void (*cancel)(void *info, RtRunLoopRef rl, RtStringRef mode);
    void (*perform)(void *info);
} RtRunLoopSourceContext;

RT_EXPORT RtTypeID RtRunLoopSourceGetTypeID(void);
/* A new source; the context is copied and info retained through its retain callback. */
RT_EXPORT RtRunLoopSourceRef RtRunLoopSourceCreate(RtAllocatorRef alloc, RtIndex order,
                                                   const RtRunLoopSourceContext *context);
/* Adds source to rl in mode (the loop retains it); schedule is called on the first add to a
 * mode. Adding again is a no-op. */
RT_EXPORT void RtRunLoopAddSource(RtRunLoopRef rl, RtRunLoopSourceRef source, RtStringRef mode);
/* Removes it; cancel is called. */
RT_EXPORT void RtRunLoopRemoveSource(RtRunLoopRef rl, RtRunLoopSourceRef source, RtStringRef mode);
RT_EXPORT bool RtRunLoopContainsSource(RtRunLoopRef rl, RtRunLoopSourceRef source, RtStringRef mode);
/* Marks the source so perform runs on the next pass of a loop running a mode that has it.
 * Does not wake a sleeping loop (call RtRunLoopWakeUp for that). */
RT_EXPORT void RtRunLoopSourceSignal(RtRunLoopSourceRef source);
/* Removes the source from every loop and mode; it never fires again. */
RT_EXPORT void RtRunLoopSourceInvalidate(RtRunLoopSourceRef source);
RT_EXPORT bool RtRunLoopSourceIsValid(RtRunLoopSourceRef source);
RT_EXPORT void RtRunLoopSourceGetContext(RtRunLoopSourceRef source, RtRunLoopSourceContext *context);

/* ---- Timers ------------------------------------------------------------------------------- */

typedef struct {
    RtIndex version;
    void *info;
    const void *(*retain)(const void *info);
    void (*release)(const void *info);
    RtStringRef (*copyDescription)(const void *info);
} RtRunLoopTimerContext;

typedef void (*RtRunLoopTimerCallBack)(RtRunLoopTimerRef timer, void *info);

RT_EXPORT RtTypeID RtRunLoopTimerGetTypeID(void);
/* A timer first firing at fireDate, then every interval seconds (interval <= 0: once).
 * context may be NULL. */
RT_EXPORT RtRunLoopTimerRef RtRunLoopTimerCreate(RtAllocatorRef alloc, RtAbsoluteTime fireDate,
                                                 RtTimeInterval interval, RtOptionFlags flags, RtIndex order,
                                                 RtRunLoopTimerCallBack callout,
                                                 RtRunLoopTimerContext *context);
RT_EXPORT void RtRunLoopAddTimer(RtRunLoopRef rl, RtRunLoopTimerRef timer, RtStringRef mode);
RT_EXPORT void RtRunLoopRemoveTimer(RtRunLoopRef rl, RtRunLoopTimerRef timer, RtStringRef mode);
RT_EXPORT bool RtRunLoopContainsTimer(RtRunLoopRef rl, RtRunLoopTimerRef timer, RtStringRef mode);
RT_EXPORT RtAbsoluteTime RtRunLoopTimerGetNextFireDate(RtRunLoopTimerRef timer);
RT_EXPORT void RtRunLoopTimerSetNextFireDate(RtRunLoopTimerRef timer, RtAbsoluteTime fireDate);
RT_EXPORT RtTimeInterval RtRunLoopTimerGetInterval(RtRunLoopTimerRef timer);
/* A one-shot timer invalidates itself after firing. */
RT_EXPORT void RtRunLoopTimerInvalidate(RtRunLoopTimerRef timer);
RT_EXPORT bool RtRunLoopTimerIsValid(RtRunLoopTimerRef timer);

/* ---- Descriptor watchers ------------------------------------------------------------------ */

enum { kRtFileDescriptorReadCallBack = 1, kRtFileDescriptorWriteCallBack = 2 };

typedef struct {
    RtIndex version;
    void *info;
    const void *(*retain)(const void *info);
    void (*release)(const void *info);
    RtStringRef (*copyDescription)(const void *info);
} RtFileDescriptorContext;

/* Called with the readiness that occurred (read and/or write bits). */
typedef void (*RtFileDescriptorCallBack)(RtFileDescriptorRef watcher, RtOptionFlags callBackTypes,
                                         void *info);

RT_EXPORT RtTypeID RtFileDescriptorGetTypeID(void);
/* A watcher of fd. Callbacks are level-triggered and stay enabled until disabled. The fd is
 * closed on invalidation only when closeOnInvalidate. */
RT_EXPORT RtFileDescriptorRef RtFileDescriptorCreate(RtAllocatorRef alloc, int fd, bool closeOnInvalidate,
                                                     RtFileDescriptorCallBack callout,
                                                     const RtFileDescriptorContext *context);
RT_EXPORT int RtFileDescriptorGetNativeDescriptor(RtFileDescriptorRef watcher);
RT_EXPORT void RtFileDescriptorEnableCallBacks(RtFileDescriptorRef watcher, RtOptionFlags callBackTypes);
RT_EXPORT void RtFileDescriptorDisableCallBacks(RtFileDescriptorRef watcher, RtOptionFlags callBackTypes);
RT_EXPORT void RtRunLoopAddFileDescriptor(RtRunLoopRef rl, RtFileDescriptorRef watcher, RtStringRef mode);
RT_EXPORT void RtRunLoopRemoveFileDescriptor(RtRunLoopRef rl, RtFileDescriptorRef watcher, RtStringRef mode);
RT_EXPORT void RtFileDescriptorInvalidate(RtFileDescriptorRef watcher);
RT_EXPORT bool RtFileDescriptorIsValid(RtFileDescriptorRef watcher);

RT_EXTERN_C_END

#endif
