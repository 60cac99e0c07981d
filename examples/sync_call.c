/* sync_call: one synchronous XML-RPC call, examples.add(2, 3), to URL (default: hvserve's). */
#include <HalvosCore/HalvosCore.h>
#include <stdio.h>

int main(int argc, char **argv) {
    const char *where = argc > 1 ? argv[1] : "http://127.0.0.1:8080/RPC2";
    RtStringRef text = RtStringCreateWithCString(NULL, where, kRtStringEncodingUTF8);
    RtURLRef url = RtURLCreateWithString(NULL, text, NULL);
    HVMethodInvocationRef call = HVMethodInvocationCreate(url, RTSTR("examples.add"), kHVXMLRPCProtocol);

    int32_t two = 2, three = 3;
    const void *names[] = {RTSTR("a"), RTSTR("b")};
    const void *values[] = {RtNumberCreate(NULL, kRtNumberSInt32Type, &two),
                            RtNumberCreate(NULL, kRtNumberSInt32Type, &three)};
    RtDictionaryRef params = RtDictionaryCreate(NULL, names, values, 2, &kRtTypeDictionaryKeyCallBacks,
                                                &kRtTypeDictionaryValueCallBacks);
    HVMethodInvocationSetParameters(call, params, NULL); /* NULL order: the dictionary's own */

    RtDictionaryRef result = HVMethodInvocationInvoke(call); /* runs this thread's run loop */
    bool fault = HVMethodResultIsFault(result);
    RtTypeRef answer = RtDictionaryGetValue(result, fault ? kHVFaultString : kHVMethodInvocationResult);
    int32_t sum = 0;
    if (!fault && RtNumberGetValue(answer, kRtNumberSInt32Type, &sum))
        printf("2 + 3 = %d\n", sum);
    else
        RtShow(answer); /* the fault string (or an unexpected answer), on stderr */

    const void *owned[] = {result, params, values[0], values[1], call, url, text}; /* Create/Copy: ours */
    for (int i = 0; i < 7; i++)
        RtRelease(owned[i]);
    return fault ? 1 : 0;
}
