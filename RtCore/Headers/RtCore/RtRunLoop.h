/** @file
 * @ingroup RtCore
 * @brief One event loop per thread with modes, sources, timers and descriptor watchers.
 *
 * Only the objects added in the mode that is running fire, so running a private mode isolates
 * one piece of work from everything else on the thread. Callbacks run on the loop's thread.
 * RtRunLoopWakeUp and RtRunLoopStop may be called from any thread. */
#ifndef RTCORE_RTRUNLOOP_H
#define RTCORE_RTRUNLOOP_H

#include <RtCore/RtBase.h>
#include <RtCore/RtDate.h>

RT_EXTERN_C_BEGIN

/** @addtogroup RtCore
 * @{ */

/** A thread's event loop (one per thread, RtRunLoopGetCurrent()). */
typedef struct __RtRunLoop *RtRunLoopRef;
/** A source: work that performs on the loop once signalled (RtRunLoopSourceSignal()). */
typedef struct __RtRunLoopSource *RtRunLoopSourceRef;
/** A timer that fires its callback at a time, once or repeatedly. */
typedef struct __RtRunLoopTimer *RtRunLoopTimerRef;
/** A watcher that calls back when a file descriptor is readable or writable. */
typedef struct __RtFileDescriptor *RtFileDescriptorRef;

/** "kRtRunLoopDefaultMode": the mode RtRunLoopRun() runs. */
RT_EXPORT extern const RtStringRef kRtRunLoopDefaultMode;

/** The results of RtRunLoopRunInMode(). */
enum {
    kRtRunLoopRunFinished = 1,     ///< Nothing in the mode to wait for.
    kRtRunLoopRunStopped = 2,      ///< RtRunLoopStop() was called.
    kRtRunLoopRunTimedOut = 3,     ///< The time limit passed.
    kRtRunLoopRunHandledSource = 4 ///< returnAfterSourceHandled was set and a source performed.
};

/** The runtime type of run loops. */
RT_EXPORT RtTypeID RtRunLoopGetTypeID(void);
/** The calling thread's loop, made on first use; lives as long as the thread. Borrowed.
 * NULL only while the thread is exiting, after its loop was destroyed. */
RT_EXPORT RtRunLoopRef RtRunLoopGetCurrent(void);
/** The mode the loop is running in (innermost when runs are nested) as a new string the caller
 * releases, or NULL when it is not running. */
RT_EXPORT RtStringRef RtRunLoopCopyCurrentMode(RtRunLoopRef rl);
/** Runs the current thread's loop in @p mode for at most @p seconds: waits for and fires the
 * timers, descriptor watchers and signalled sources added in that mode (sources in ascending
 * order). Runs nested inside a callback are allowed.
 * @param returnAfterSourceHandled return as soon as one source has performed.
 * @return one of the kRtRunLoopRun... results; kRtRunLoopRunFinished at once for a NULL mode. */
RT_EXPORT int32_t RtRunLoopRunInMode(RtStringRef mode, RtTimeInterval seconds, bool returnAfterSourceHandled);
/** Runs the current thread's loop in kRtRunLoopDefaultMode until stopped or finished. */
RT_EXPORT void RtRunLoopRun(void);
/** Makes the innermost run of @p rl return kRtRunLoopRunStopped. Any thread may call it. */
RT_EXPORT void RtRunLoopStop(RtRunLoopRef rl);
/** Wakes @p rl if it sleeps, so that it looks at its signalled sources and changed timers. Any
 * thread may call it. */
RT_EXPORT void RtRunLoopWakeUp(RtRunLoopRef rl);
/** True while @p rl sleeps waiting for an event. */
RT_EXPORT bool RtRunLoopIsWaiting(RtRunLoopRef rl);

/* ---- Sources ------------------------------------------------------------------------------ */

/** What a source does, copied by RtRunLoopSourceCreate(). Every callback but perform may be NULL. */
typedef struct {
    RtIndex version;                                     ///< Record version; 0.
    void *info;                                          ///< The caller's pointer, passed to each callback.
    const void *(*retain)(const void *info);             ///< Takes info in when the source is made.
    void (*release)(const void *info);                   ///< Lets info go when the source dies.
    RtStringRef (*copyDescription)(const void *info);    ///< Describes info (new string).
    bool (*equal)(const void *info1, const void *info2); ///< Compares infos, for RtEqual() of sources.
    RtHashCode (*hash)(const void *info);                ///< Hashes info.
    void (*schedule)(void *info, RtRunLoopRef rl, RtStringRef mode); ///< Added to a loop's mode.
    void (*cancel)(void *info, RtRunLoopRef rl, RtStringRef mode);   ///< Removed from a loop's mode.
    void (*perform)(void *info); ///< The work, run on the loop's thread after a signal.
} RtRunLoopSourceContext;

/** The runtime type of run-loop sources. */
RT_EXPORT RtTypeID RtRunLoopSourceGetTypeID(void);
/** A new source (caller releases); the context is copied and info retained through its retain
 * callback. Sources ready in the same pass perform in ascending @p order. NULL when @p context is
 * NULL. */
RT_EXPORT RtRunLoopSourceRef RtRunLoopSourceCreate(RtAllocatorRef alloc, RtIndex order,
                                                   const RtRunLoopSourceContext *context);
/** Adds source to rl in mode (the loop retains it); schedule is called on the first add to a
 * mode. Adding again is a no-op. */
RT_EXPORT void RtRunLoopAddSource(RtRunLoopRef rl, RtRunLoopSourceRef source, RtStringRef mode);
/** Removes @p source from @p rl in @p mode (the loop's reference is released); cancel is called.
 * Does nothing when it is not there. */
RT_EXPORT void RtRunLoopRemoveSource(RtRunLoopRef rl, RtRunLoopSourceRef source, RtStringRef mode);
/** True when @p source was added to @p rl in @p mode. */
RT_EXPORT bool RtRunLoopContainsSource(RtRunLoopRef rl, RtRunLoopSourceRef source, RtStringRef mode);
/** Marks the source so perform runs on the next pass of a loop running a mode that has it.
 * Does not wake a sleeping loop (call RtRunLoopWakeUp for that). Any thread may call it. */
RT_EXPORT void RtRunLoopSourceSignal(RtRunLoopSourceRef source);
/** Removes the source from every loop and mode; it never fires again. */
RT_EXPORT void RtRunLoopSourceInvalidate(RtRunLoopSourceRef source);
/** False once the source was invalidated (or for a non-source). */
RT_EXPORT bool RtRunLoopSourceIsValid(RtRunLoopSourceRef source);
/** Copies the source's context (info and callbacks as stored) into @p context. */
RT_EXPORT void RtRunLoopSourceGetContext(RtRunLoopSourceRef source, RtRunLoopSourceContext *context);

/* ---- Timers ------------------------------------------------------------------------------- */

/** The caller's pointer for a timer and how to keep it, copied by RtRunLoopTimerCreate(). */
typedef struct {
    RtIndex version;                                  ///< Record version; 0.
    void *info;                                       ///< Passed to the callback.
    const void *(*retain)(const void *info);          ///< Takes info in (may be NULL).
    void (*release)(const void *info);                ///< Lets info go when the timer dies (may be NULL).
    RtStringRef (*copyDescription)(const void *info); ///< Describes info (may be NULL).
} RtRunLoopTimerContext;

/** Called on the loop's thread each time @p timer fires, with the context's info. */
typedef void (*RtRunLoopTimerCallBack)(RtRunLoopTimerRef timer, void *info);

/** The runtime type of timers. */
RT_EXPORT RtTypeID RtRunLoopTimerGetTypeID(void);
/** A new timer (caller releases) first firing at @p fireDate, then every @p interval seconds
 * (@p interval <= 0: once). @p flags is unused; @p order as for sources. @p context may be NULL.
 * NULL when @p callout is NULL. */
RT_EXPORT RtRunLoopTimerRef RtRunLoopTimerCreate(RtAllocatorRef alloc, RtAbsoluteTime fireDate,
                                                 RtTimeInterval interval, RtOptionFlags flags, RtIndex order,
                                                 RtRunLoopTimerCallBack callout,
                                                 RtRunLoopTimerContext *context);
/** Adds @p timer to @p rl in @p mode (the loop retains it); adding again is a no-op. A loop
 * sleeping on another thread is woken to take it into account. */
RT_EXPORT void RtRunLoopAddTimer(RtRunLoopRef rl, RtRunLoopTimerRef timer, RtStringRef mode);
/** Removes @p timer from @p rl in @p mode, releasing the loop's reference. */
RT_EXPORT void RtRunLoopRemoveTimer(RtRunLoopRef rl, RtRunLoopTimerRef timer, RtStringRef mode);
/** True when @p timer was added to @p rl in @p mode. */
RT_EXPORT bool RtRunLoopContainsTimer(RtRunLoopRef rl, RtRunLoopTimerRef timer, RtStringRef mode);
/** The time the timer fires next; 0 for a non-timer. */
RT_EXPORT RtAbsoluteTime RtRunLoopTimerGetNextFireDate(RtRunLoopTimerRef timer);
/** Moves the next firing to @p fireDate (also from inside the timer's own callback). */
RT_EXPORT void RtRunLoopTimerSetNextFireDate(RtRunLoopTimerRef timer, RtAbsoluteTime fireDate);
/** The repeat interval given at creation (<= 0 for a one-shot timer). */
RT_EXPORT RtTimeInterval RtRunLoopTimerGetInterval(RtRunLoopTimerRef timer);
/** Removes the timer from every loop and mode; it never fires again. A one-shot timer
 * invalidates itself after firing. */
RT_EXPORT void RtRunLoopTimerInvalidate(RtRunLoopTimerRef timer);
/** False once the timer was invalidated (or for a non-timer). */
RT_EXPORT bool RtRunLoopTimerIsValid(RtRunLoopTimerRef timer);

/* ---- Descriptor watchers ------------------------------------------------------------------ */

/** The readiness kinds a watcher reports (bits of RtOptionFlags). */
enum {
    kRtFileDescriptorReadCallBack = 1, ///< The descriptor is readable (or at end of file).
    kRtFileDescriptorWriteCallBack = 2 ///< The descriptor is writable.
};

/** The caller's pointer for a watcher and how to keep it, copied by RtFileDescriptorCreate(). */
typedef struct {
    RtIndex version;                                  ///< Record version; 0.
    void *info;                                       ///< Passed to the callback.
    const void *(*retain)(const void *info);          ///< Takes info in (may be NULL).
    void (*release)(const void *info);                ///< Lets info go when the watcher dies (may be NULL).
    RtStringRef (*copyDescription)(const void *info); ///< Describes info (may be NULL).
} RtFileDescriptorContext;

/** Called the readiness that occurred (read and/or write bits). */
typedef void (*RtFileDescriptorCallBack)(RtFileDescriptorRef watcher, RtOptionFlags callBackTypes,
                                         void *info);

/** The runtime type of descriptor watchers. */
RT_EXPORT RtTypeID RtFileDescriptorGetTypeID(void);
/** A new watcher of @p fd (caller releases), with no callback kind enabled yet. Callbacks are
 * level-triggered and stay enabled until disabled. The fd is closed on invalidation only when
 * @p closeOnInvalidate. NULL when @p fd is negative or @p callout is NULL; @p context may be NULL. */
RT_EXPORT RtFileDescriptorRef RtFileDescriptorCreate(RtAllocatorRef alloc, int fd, bool closeOnInvalidate,
                                                     RtFileDescriptorCallBack callout,
                                                     const RtFileDescriptorContext *context);
/** The watched descriptor; -1 for a non-watcher. */
RT_EXPORT int RtFileDescriptorGetNativeDescriptor(RtFileDescriptorRef watcher);
/** Enables the kinds in @p callBackTypes (kRtFileDescriptorReadCallBack and/or
 * kRtFileDescriptorWriteCallBack), waking the loops that watch it. */
RT_EXPORT void RtFileDescriptorEnableCallBacks(RtFileDescriptorRef watcher, RtOptionFlags callBackTypes);
/** Disables the kinds in @p callBackTypes. */
RT_EXPORT void RtFileDescriptorDisableCallBacks(RtFileDescriptorRef watcher, RtOptionFlags callBackTypes);
/** Adds @p watcher to @p rl in @p mode (the loop retains it); adding again is a no-op. */
RT_EXPORT void RtRunLoopAddFileDescriptor(RtRunLoopRef rl, RtFileDescriptorRef watcher, RtStringRef mode);
/** Removes @p watcher from @p rl in @p mode, releasing the loop's reference. */
RT_EXPORT void RtRunLoopRemoveFileDescriptor(RtRunLoopRef rl, RtFileDescriptorRef watcher, RtStringRef mode);
/** Removes the watcher from every loop and mode (closing the descriptor when it was made with
 * closeOnInvalidate); it never calls back again. */
RT_EXPORT void RtFileDescriptorInvalidate(RtFileDescriptorRef watcher);
/** False once the watcher was invalidated (or for a non-watcher). */
RT_EXPORT bool RtFileDescriptorIsValid(RtFileDescriptorRef watcher);

/** @} */

RT_EXTERN_C_END

#endif
