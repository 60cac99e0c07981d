/* embedded_server: a program that serves its own methods with the library's server, XML-RPC on
 * /RPC2 and SOAP (both schema flavours) on /soap.
 *
 *   examples.add(int a, int b)   a + b; a fault when the sum does not fit in 32 bits
 *   examples.echo(value)         its parameter, whatever its kind
 *   examples.fail()              always the fault 7, "examples.fail failed on purpose"
 *
 * usage: embedded_server [PORT]   (default 0: a free port). Prints the port on the first line,
 * then serves until SIGINT or SIGTERM. */
#define _POSIX_C_SOURCE 200809L
#include <HalvosCore/HalvosCore.h>

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

/* A new fault dictionary with code and text. */
static RtDictionaryRef createFault(int32_t code, const char *text) {
    RtNumberRef number = RtNumberCreate(NULL, kRtNumberSInt32Type, &code);
    RtStringRef string = RtStringCreateWithCString(NULL, text, kRtStringEncodingUTF8);
    const void *keys[] = {kHVFaultCode, kHVFaultString};
    const void *values[] = {number, string};
    RtDictionaryRef fault = RtDictionaryCreate(NULL, keys, values, 2, &kRtTypeDictionaryKeyCallBacks,
                                               &kRtTypeDictionaryValueCallBacks);
    RtRelease(number);
    RtRelease(string);
    return fault;
}

/* The parameter at index (borrowed). */
static RtTypeRef parameter(RtDictionaryRef params, RtArrayRef order, RtIndex index) {
    return RtDictionaryGetValue(params, RtArrayGetValueAtIndex(order, index));
}

/* The server has checked the signature: two numbers that fit in 32 bits (SOAP text included). */
static RtTypeRef add(HVServerRef server, RtStringRef protocol, RtStringRef name, RtDictionaryRef params,
                     RtArrayRef order, RtDictionaryRef *fault, void *info) {
    int32_t a = 0, b = 0;
    (void)server, (void)protocol, (void)name, (void)info;
    RtNumberGetValue(parameter(params, order, 0), kRtNumberSInt32Type, &a);
    RtNumberGetValue(parameter(params, order, 1), kRtNumberSInt32Type, &b);
    int64_t sum = (int64_t)a + b;
    if (sum < INT32_MIN || sum > INT32_MAX) {
        *fault = createFault(-32602, "examples.add: the sum does not fit in 32 bits");
        return NULL;
    }
    int32_t result = (int32_t)sum;
    return RtNumberCreate(NULL, kRtNumberSInt32Type, &result);
}

static RtTypeRef echo(HVServerRef server, RtStringRef protocol, RtStringRef name, RtDictionaryRef params,
                      RtArrayRef order, RtDictionaryRef *fault, void *info) {
    (void)server, (void)protocol, (void)name, (void)fault, (void)info;
    return RtRetain(parameter(params, order, 0));
}

static RtTypeRef fail(HVServerRef server, RtStringRef protocol, RtStringRef name, RtDictionaryRef params,
                      RtArrayRef order, RtDictionaryRef *fault, void *info) {
    (void)server, (void)protocol, (void)name, (void)params, (void)order, (void)info;
    *fault = createFault(7, "examples.fail failed on purpose");
    return NULL;
}

/* A signature of one entry: the result type, then the parameter types. */
static RtArrayRef createSignature(const void **types, RtIndex count) {
    RtArrayRef entry = RtArrayCreate(NULL, types, count, &kRtTypeArrayCallBacks);
    const void *entries[] = {entry};
    RtArrayRef signature = RtArrayCreate(NULL, entries, 1, &kRtTypeArrayCallBacks);
    RtRelease(entry);
    return signature;
}

int main(int argc, char **argv) {
    const void *addTypes[] = {RTSTR("int"), RTSTR("int"), RTSTR("int")};
    const void *echoTypes[] = {RTSTR("value"), RTSTR("value")};
    const void *failTypes[] = {RTSTR("struct")};
    RtArrayRef addSignature = createSignature(addTypes, 3);
    RtArrayRef echoSignature = createSignature(echoTypes, 2);
    RtArrayRef failSignature = createSignature(failTypes, 1);

    HVServerRef server = HVServerCreate(NULL);
    HVServerAddMethod(server, RTSTR("examples.add"), add, NULL, RTSTR("Adds two integers."), addSignature);
    HVServerAddMethod(server, RTSTR("examples.echo"), echo, NULL, RTSTR("Returns its parameter."),
                      echoSignature);
    HVServerAddMethod(server, RTSTR("examples.fail"), fail, NULL, RTSTR("Always fails."), failSignature);
    RtRelease(addSignature);
    RtRelease(echoSignature);
    RtRelease(failSignature);

    /* The stop signals are taken by sigwait below, not by the server's threads. */
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, NULL);

    RtDictionaryRef error = NULL;
    if (!HVServerListen(server, NULL, (uint16_t)(argc > 1 ? atoi(argv[1]) : 0), &error) ||
        !HVServerStart(server, &error)) {
        RtStringRef text = error ? RtDictionaryGetValue(error, kHVFaultString) : NULL;
        char message[256] = "unknown error";
        if (text) RtStringGetCString(text, message, sizeof message, kRtStringEncodingUTF8);
        fprintf(stderr, "embedded_server: %s\n", message);
        RtRelease(error);
        RtRelease(server);
        return 1;
    }
    printf("%u\n", (unsigned)HVServerGetPort(server));
    fflush(stdout);

    int received = 0;
    sigwait(&stopSignals, &received);
    HVServerStop(server); /* running calls finish first */
    RtRelease(server);
    return 0;
}
