/* The public header compiled as plain C11, and a walk through the API as a C program makes it:
 * invocations of the three protocols, parameters, properties, overrides, serialisation and the
 * two handler kinds. Returns 0, or the number of the first step that failed. */
#include <HalvosCore/HalvosCore.h>

#include <stddef.h>

int publicHeaderWalkInC(void);

static RtStringRef upperCaser(HVMethodInvocationRef invocation, RtTypeRef value, void *info) {
    (void)invocation, (void)value, (void)info;
    return NULL;
}

static RtTypeRef structReader(HVMethodInvocationRef invocation, RtTreeRef msgRoot, RtTreeRef root,
                              void *info) {
    (void)invocation, (void)msgRoot, (void)root, (void)info;
    return NULL;
}

int publicHeaderWalkInC(void) {
    RtURLRef url = RtURLCreateWithString(kRtAllocatorDefault, RTSTR("http://127.0.0.1:8080/RPC2"), NULL);
    RtStringRef protocols[3] = {kHVXMLRPCProtocol, kHVSOAP1999Protocol, kHVSOAP2001Protocol};
    int failed = 0;
    for (int i = 0; i < 3 && !failed; i++) {
        HVMethodInvocationRef inv =
            HVMethodInvocationCreate(url, RTSTR("examples.getStateName"), protocols[i]);
        if (!inv || RtGetTypeID(inv) != HVMethodInvocationGetTypeID()) {
            failed = 1;
            break;
        }
        int32_t state = 41;
        RtNumberRef number = RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt32Type, &state);
        const void *keys[1] = {RTSTR("state")};
        const void *values[1] = {number};
        RtDictionaryRef params =
            RtDictionaryCreate(kRtAllocatorDefault, keys, values, 1, &kRtTypeDictionaryKeyCallBacks,
                               &kRtTypeDictionaryValueCallBacks);
        HVMethodInvocationSetParameters(inv, params, NULL);
        HVMethodInvocationSetProperty(inv, kHVHTTPVersion, RTSTR("HTTP/1.0"));
        HVMethodInvocationAddSerializationOverride(inv, RtStringGetTypeID(), upperCaser, NULL);
        HVMethodInvocationAddDeserializationOverride(inv, RTSTR("*"), RTSTR("struct"), structReader, NULL);

        RtArrayRef order = NULL;
        RtDictionaryRef copied = HVMethodInvocationCopyParameters(inv, &order);
        RtTypeRef version = HVMethodInvocationCopyProperty(inv, kHVHTTPVersion);
        if (!copied || !order || RtArrayGetCount(order) != 1 || !RtEqual(version, RTSTR("HTTP/1.0")))
            failed = 2;

        RtDataRef contract = HVMethodInvocationCopySerialization(inv);
        HVMethodInvocationRef again = HVMethodInvocationCreateFromSerialization(contract);
        if (!failed && !again) failed = 3;

        HVProtocolHandlerRef handler = HVProtocolHandlerCreate(kRtAllocatorDefault, protocols[i]);
        if (!failed && (!handler || RtGetTypeID(handler) != HVProtocolHandlerGetTypeID())) failed = 4;
        if (!failed && HVProtocolHandlerCopyProperty(handler, kHVHTTPVersion) != NULL) failed = 5;

        RtRelease(handler);
        RtRelease(again);
        RtRelease(contract);
        RtRelease(version);
        RtRelease(order);
        RtRelease(copied);
        RtRelease(params);
        RtRelease(number);
        RtRelease(inv);
    }
    if (!failed && HVMethodResultIsFault(NULL)) failed = 6;
    if (!failed && HVGetRtTypeIDFromHVTypeID(eHVUnknownType) != 0 && !HV_VERSION_AT_LEAST(0, 0, 0))
        failed = 7;
    RtRelease(url);
    return failed;
}
