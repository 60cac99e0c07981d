// Diagnostic switches and printers; everything goes to standard error.
#include "HalvoUtils.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <unistd.h>

int gHVDebug = 0;
int gHVDebugVerbose = 0;

void hvInitStatics() {
    // Once per process: threads making their first objects at the same moment wait for the one
    // that reads the environment, and see the switches it wrote.
    static std::once_flag sInitialized;
    std::call_once(sInitialized, [] {
        gHVDebug = getenv("HVDebug") != nullptr ? 1 : 0;
        gHVDebugVerbose = getenv("HVDebugVerbose") != nullptr ? 1 : 0;
    });
}

RtStringRef hvCreateString(const char *format, va_list args) {
    return rtCreateString(format, args);
}

// Writes text in the default 8-bit encoding with "." for what it cannot hold; tagged lines get
// "HV (pid): " in front and a line feed behind. The text is written by length, whole.
static void writeLossyText(RtStringRef text, bool tagged) {
    RtDataRef bytes =
        RtStringCreateExternalRepresentation(kRtAllocatorDefault, text, kRtStringEncodingDefault8Bit, '.');
    if (!bytes) {
        RtShow(text);
        return;
    }
    flockfile(stderr);
    if (tagged) fprintf(stderr, "HV (%d): ", static_cast<int>(getpid()));
    fwrite(RtDataGetBytePtr(bytes), 1, static_cast<size_t>(RtDataGetLength(bytes)), stderr);
    if (tagged) fputc('\n', stderr);
    funlockfile(stderr);
    RtRelease(bytes);
}

int _hvLogf(const char *format, ...) {
    if (!gHVDebug || !format) return 0;
    va_list args;
    va_start(args, format);
    RtStringRef text = rtCreateString(format, args);
    va_end(args);
    if (text) {
        writeLossyText(text, true);
        RtRelease(text);
    }
    return 0;
}

void hvPrintf(RtStringRef format, ...) {
    if (!format) return;
    va_list args;
    va_start(args, format);
    RtStringRef text = RtStringCreateWithFormatAndArguments(kRtAllocatorDefault, nullptr, format, args);
    va_end(args);
    if (text) {
        writeLossyText(text, false);
        RtRelease(text);
    }
}

void hvDumpDict(const char *label, RtDictionaryRef dict) {
    RtDataRef xml = dict ? RtPropertyListCreateXMLData(kRtAllocatorDefault, dict) : nullptr;
    const char *text = xml ? reinterpret_cast<const char *>(RtDataGetBytePtr(xml)) : "";
    int length = xml ? static_cast<int>(RtDataGetLength(xml)) : 0;
    fprintf(stderr, "%s ---\n--------------\n%.*s\n--------------\n", label ? label : "", length, text);
    safeRtRelease(xml);
}
