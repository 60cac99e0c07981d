/* A program outside the project that uses only the installed RtCore: it builds a nested value
 * of every property-list kind, writes it as a property list, reads it back and checks that
 * the two are equal, printing descriptions on the way. Exit status 0 means all went well. */
#include <RtCore/RtCore.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int gFailures = 0;

static void check(bool ok, const char *what) {
    if (!ok) {
        fprintf(stderr, "consumer: FAILED: %s\n", what);
        gFailures++;
    }
}

/* Prints a label and the value's description on standard output. */
static void print(const char *label, RtTypeRef value) {
    RtStringRef desc = RtCopyDescription(value);
    RtIndex size = RtStringGetMaximumSizeForEncoding(RtStringGetLength(desc), kRtStringEncodingUTF8) + 1;
    char *buf = malloc((size_t)size);
    if (buf && RtStringGetCString(desc, buf, size, kRtStringEncodingUTF8)) printf("%s: %s\n", label, buf);
    free(buf);
    RtRelease(desc);
}

static void put(RtMutableDictionaryRef dict, const char *key, RtTypeRef value) {
    RtStringRef k = RtStringCreateWithCString(kRtAllocatorDefault, key, kRtStringEncodingUTF8);
    RtDictionarySetValue(dict, k, value);
    RtRelease(k);
    RtRelease(value);
}

int main(void) {
    long liveAtStart = RtRuntimeGetLiveObjectCount();
    int answer = 42;
    double ratio = 0.625;
    const uint8_t bytes[] = {0xde, 0xad, 0xbe, 0xef};

    RtMutableDictionaryRef inner = RtDictionaryCreateMutable(
        kRtAllocatorDefault, 0, &kRtTypeDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
    put(inner, "data", RtDataCreate(kRtAllocatorDefault, bytes, sizeof bytes));
    put(inner, "when", RtDateCreate(kRtAllocatorDefault, 86400.0 * 365));
    RtMutableArrayRef list = RtArrayCreateMutable(kRtAllocatorDefault, 0, &kRtTypeArrayCallBacks);
    RtArrayAppendValue(list, kRtBooleanTrue);
    RtArrayAppendValue(list, kRtBooleanFalse);
    RtArrayAppendValue(list, inner);
    RtRelease(inner);

    RtMutableDictionaryRef root = RtDictionaryCreateMutable(
        kRtAllocatorDefault, 0, &kRtTypeDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
    put(root, "name",
        RtStringCreateWithCString(kRtAllocatorDefault, "caf\xc3\xa9 & <co>", kRtStringEncodingUTF8));
    put(root, "answer", RtNumberCreate(kRtAllocatorDefault, kRtNumberIntType, &answer));
    put(root, "ratio", RtNumberCreate(kRtAllocatorDefault, kRtNumberDoubleType, &ratio));
    put(root, "list", list);
    RtDictionarySetValue(root, RTSTR("protocol"), RTSTR("ConsumerConstant"));
    print("value", root);

    RtDataRef xml = RtPropertyListCreateXMLData(kRtAllocatorDefault, root);
    check(xml != NULL, "the value is written as a property list");
    if (xml) printf("%.*s", (int)RtDataGetLength(xml), (const char *)RtDataGetBytePtr(xml));

    RtStringRef error = NULL;
    RtTypeRef back =
        RtPropertyListCreateFromXMLData(kRtAllocatorDefault, xml, kRtPropertyListImmutable, &error);
    check(back != NULL, "the property list reads back");
    check(RtEqual(root, back), "the value read back equals the original");
    check(RtDictionaryGetValue((RtDictionaryRef)back, RTSTR("protocol")) == RTSTR("ConsumerConstant"),
          "a constant string reads back as the very constant");
    print("read back", back);

    /* The kinds a property list cannot hold still describe themselves. */
    RtStringRef text =
        RtStringCreateWithCString(kRtAllocatorDefault, "http://[::1]:8080/RPC2?x=1", kRtStringEncodingUTF8);
    RtURLRef url = RtURLCreateWithString(kRtAllocatorDefault, text, NULL);
    check(url != NULL && RtURLGetPortNumber(url) == 8080, "a URL parses");
    print("url", url);
    print("null", kRtNull);

    const char *malformed = "<plist><dict><key>k</key></dict></plist>";
    RtDataRef bad = RtDataCreate(kRtAllocatorDefault, (const uint8_t *)malformed, (RtIndex)strlen(malformed));
    RtTypeRef none =
        RtPropertyListCreateFromXMLData(kRtAllocatorDefault, bad, kRtPropertyListImmutable, &error);
    check(none == NULL && error != NULL, "a malformed property list gives NULL and an error");
    print("error", error);

    RtRelease(error);
    RtRelease(bad);
    RtRelease(url);
    RtRelease(text);
    RtRelease(back);
    RtRelease(xml);
    RtRelease(root);
    check(RtRuntimeGetLiveObjectCount() == liveAtStart, "every object is released");
    printf("consumer: %s\n", gFailures ? "FAILED" : "ok");
    return gFailures ? 1 : 0;
}
