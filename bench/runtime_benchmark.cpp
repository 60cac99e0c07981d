// Hot paths of the runtime, each beside a baseline measured in the same run.
// Formatting: one line of a document writer ("<%@>%d</%@>" with a string name and an int)
// through RtStringCreateWithFormat (result created and released) against snprintf into a
// stack buffer.
#include <RtCore/RtCore.h>

#include <benchmark/benchmark.h>

#include <cstdio>

namespace {

void BM_SnprintfWriterLine(benchmark::State &state) {
    const char *name = "methodName";
    int value = 0;
    for (auto _ : state) {
        char buf[256];
        int n = std::snprintf(buf, sizeof buf, "<%s>%d</%s>", name, value++, name);
        benchmark::DoNotOptimize(buf);
        benchmark::DoNotOptimize(n);
    }
}
BENCHMARK(BM_SnprintfWriterLine);

void BM_RtStringCreateWithFormatWriterLine(benchmark::State &state) {
    RtStringRef name = RTSTR("methodName");
    int value = 0;
    for (auto _ : state) {
        RtStringRef s = RtStringCreateWithFormat(nullptr, nullptr, RTSTR("<%@>%d</%@>"), name, value++, name);
        benchmark::DoNotOptimize(s);
        RtRelease(s);
    }
}
BENCHMARK(BM_RtStringCreateWithFormatWriterLine);

// The same with a format made at run time: no cached parse.
void BM_RtStringCreateWithFormatUncachedFormat(benchmark::State &state) {
    RtStringRef name = RTSTR("methodName");
    RtStringRef format = RtStringCreateWithCString(nullptr, "<%@>%d</%@>", kRtStringEncodingUTF8);
    int value = 0;
    for (auto _ : state) {
        RtStringRef s = RtStringCreateWithFormat(nullptr, nullptr, format, name, value++, name);
        benchmark::DoNotOptimize(s);
        RtRelease(s);
    }
    RtRelease(format);
}
BENCHMARK(BM_RtStringCreateWithFormatUncachedFormat);

// A document writer appends each formatted line to one growing buffer.
void BM_SnprintfAppendLine(benchmark::State &state) {
    static char doc[1 << 16];
    size_t used = 0;
    int value = 0;
    for (auto _ : state) {
        if (used > sizeof doc - 256) used = 0;
        used += size_t(
            std::snprintf(doc + used, sizeof doc - used, "\t<value><int>%d</int></value>\r\n", value++));
        benchmark::DoNotOptimize(doc);
    }
}
BENCHMARK(BM_SnprintfAppendLine);

void BM_RtStringAppendFormatLine(benchmark::State &state) {
    RtMutableStringRef doc = RtStringCreateMutable(nullptr, 0);
    int value = 0;
    for (auto _ : state) {
        if (RtStringGetLength(doc) > (1 << 16) - 256)
            RtStringDelete(doc, RtRangeMake(0, RtStringGetLength(doc)));
        RtStringAppendFormat(doc, nullptr, RTSTR("\t<value><int>%d</int></value>\r\n"), value++);
    }
    RtRelease(doc);
}
BENCHMARK(BM_RtStringAppendFormatLine);

void BM_SnprintfDouble(benchmark::State &state) {
    double v = 0.1;
    for (auto _ : state) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "<double>%.17g</double>", v);
        v += 1.25;
        benchmark::DoNotOptimize(buf);
    }
}
BENCHMARK(BM_SnprintfDouble);

void BM_RtStringCreateWithFormatDouble(benchmark::State &state) {
    double v = 0.1;
    for (auto _ : state) {
        RtStringRef s = RtStringCreateWithFormat(nullptr, nullptr, RTSTR("<double>%.17g</double>"), v);
        v += 1.25;
        benchmark::DoNotOptimize(s);
        RtRelease(s);
    }
}
BENCHMARK(BM_RtStringCreateWithFormatDouble);

} // namespace

BENCHMARK_MAIN();
