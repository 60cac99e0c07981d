/* async_calls: several calls in flight at once on the caller's own run loop.
 *
 *   async_calls [URL]     (default http://127.0.0.1:8080/RPC2, an hvserve)
 *
 * Each invocation gets a callback and is scheduled on the current thread's run loop; the
 * program then runs the loop until every callback has come. The calls proceed side by side:
 * the two half-second sleeps take about half a second together, not one second. Each result
 * dictionary belongs to the callback, which releases it. */
#include <HalvosCore/HalvosCore.h>

#include <stdio.h>

enum { kCallCount = 4 };

/* What one callback needs to know: which call it was, and the count of calls still running. */
typedef struct {
    const char *label;
    int *running;
    int failed;
} CallState;

static void printValue(const char *label, RtTypeRef value) {
    RtStringRef text = RtStringCreateWithFormat(NULL, NULL, RTSTR("%@"), value);
    char buffer[512];
    if (!RtStringGetCString(text, buffer, sizeof buffer, kRtStringEncodingUTF8))
        snprintf(buffer, sizeof buffer, "...");
    printf("%-22s %s\n", label, buffer);
    RtRelease(text);
}

static void callDone(HVMethodInvocationRef invocation, void *info, RtDictionaryRef result) {
    CallState *state = info;
    (void)invocation;
    if (HVMethodResultIsFault(result)) {
        printValue(state->label, RtDictionaryGetValue(result, kHVFaultString));
        state->failed = 1;
    } else {
        printValue(state->label, RtDictionaryGetValue(result, kHVMethodInvocationResult));
    }
    RtRelease(result);
    --*state->running;
}

/* A new invocation of method with up to two parameters (NULL for none). */
static HVMethodInvocationRef makeCall(RtURLRef url, const char *method, RtTypeRef first, RtTypeRef second) {
    RtStringRef name = RtStringCreateWithCString(NULL, method, kRtStringEncodingUTF8);
    HVMethodInvocationRef invocation = HVMethodInvocationCreate(url, name, kHVXMLRPCProtocol);
    RtRelease(name);

    RtMutableDictionaryRef params =
        RtDictionaryCreateMutable(NULL, 0, &kRtTypeDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
    if (first) RtDictionarySetValue(params, RTSTR("first"), first);
    if (second) RtDictionarySetValue(params, RTSTR("second"), second);
    HVMethodInvocationSetParameters(invocation, params, NULL); /* in the dictionary's order */
    RtRelease(params);

    /* Without a time-out a call waits as long as the connection lasts. */
    int32_t seconds = 10;
    RtNumberRef timeout = RtNumberCreate(NULL, kRtNumberSInt32Type, &seconds);
    HVMethodInvocationSetProperty(invocation, kHVMethodInvocationTimeoutValue, timeout);
    RtRelease(timeout);
    return invocation;
}

int main(int argc, char **argv) {
    const char *where = argc > 1 ? argv[1] : "http://127.0.0.1:8080/RPC2";
    RtStringRef text = RtStringCreateWithCString(NULL, where, kRtStringEncodingUTF8);
    RtURLRef url = RtURLCreateWithString(NULL, text, NULL);
    RtRelease(text);
    if (!url) {
        fprintf(stderr, "async_calls: '%s' is not a URL\n", where);
        return 2;
    }

    int32_t two = 2, forty = 40;
    double half = 0.5;
    RtNumberRef a = RtNumberCreate(NULL, kRtNumberSInt32Type, &two);
    RtNumberRef b = RtNumberCreate(NULL, kRtNumberSInt32Type, &forty);
    RtNumberRef pause = RtNumberCreate(NULL, kRtNumberFloat64Type, &half);
    RtStringRef hello = RtStringCreateWithCString(NULL, "hello", kRtStringEncodingUTF8);

    int running = kCallCount;
    CallState states[kCallCount] = {{"examples.add(2, 40)", &running, 0},
                                    {"examples.echo(hello)", &running, 0},
                                    {"examples.sleep(0.5)", &running, 0},
                                    {"examples.sleep(0.5)", &running, 0}};
    HVMethodInvocationRef calls[kCallCount] = {
        makeCall(url, "examples.add", a, b), makeCall(url, "examples.echo", hello, NULL),
        makeCall(url, "examples.sleep", pause, NULL), makeCall(url, "examples.sleep", pause, NULL)};

    RtRunLoopRef loop = RtRunLoopGetCurrent();
    for (int i = 0; i < kCallCount; i++) {
        HVClientContext context = {0, &states[i], NULL, NULL, NULL};
        HVMethodInvocationSetCallBack(calls[i], callDone, &context);
        HVMethodInvocationScheduleWithRunLoop(calls[i], loop, kRtRunLoopDefaultMode);
    }
    /* Every call ends in exactly one callback, a fault at the latest when its time-out passes. */
    while (running > 0)
        RtRunLoopRunInMode(kRtRunLoopDefaultMode, 1.0, true);

    int failed = 0;
    for (int i = 0; i < kCallCount; i++) {
        HVMethodInvocationUnscheduleFromRunLoop(calls[i], loop, kRtRunLoopDefaultMode);
        RtRelease(calls[i]);
        failed |= states[i].failed;
    }
    RtRelease(hello);
    RtRelease(pause);
    RtRelease(b);
    RtRelease(a);
    RtRelease(url);
    return failed;
}
