// XMLBuffer and entity encoding, each beside a plain baseline measured in the same run:
// std::string appends for the writer, a single-pass escape loop for entityEncodeString.
#include "HalvoUtils.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

namespace {

constexpr int kLines = 100000;

// 100k short lines of the kind the XML-RPC writer produces.
void BM_XMLBufferAddTo(benchmark::State &state) {
    RtStringRef name = RTSTR("parameter");
    for (auto _ : state) {
        XMLBuffer buffer(kRtStringEncodingUTF8);
        for (int i = 0; i < kLines; i++)
            buffer.addTo(4, "<member><name>%@</name><value><int>%d</int></value></member>", name, i);
        RtDataRef data = buffer.copyData();
        benchmark::DoNotOptimize(data);
        RtRelease(data);
    }
    state.SetItemsProcessed(state.iterations() * kLines);
}
BENCHMARK(BM_XMLBufferAddTo)->Unit(benchmark::kMillisecond);

void BM_BaselineStdStringLines(benchmark::State &state) {
    const std::string name = "parameter";
    for (auto _ : state) {
        std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n";
        char line[160];
        for (int i = 0; i < kLines; i++) {
            int n = snprintf(line, sizeof line,
                             "<member><name>%s</name><value><int>%d</int></value></member>", name.c_str(), i);
            out.append("        ");
            out.append(line, static_cast<size_t>(n));
            out.append("\r\n");
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * kLines);
}
BENCHMARK(BM_BaselineStdStringLines)->Unit(benchmark::kMillisecond);

// 1 MB of text with one special character per 200.
std::string sampleText() {
    std::string s;
    s.reserve(1 << 20);
    while (s.size() < (1u << 20)) {
        s.append(199, 'a' + static_cast<char>(s.size() % 26));
        s.push_back("&<>'\""[s.size() % 5]);
    }
    return s;
}

void BM_EntityEncodeString(benchmark::State &state) {
    std::string sample = sampleText();
    RtStringRef text = RtStringCreateWithCString(kRtAllocatorDefault, sample.c_str(), kRtStringEncodingUTF8);
    for (auto _ : state) {
        RtMutableStringRef out = entityEncodeString(text);
        benchmark::DoNotOptimize(out);
        RtRelease(out);
    }
    RtRelease(text);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(sample.size()));
}
BENCHMARK(BM_EntityEncodeString)->Unit(benchmark::kMillisecond);

void BM_BaselineEscapeLoop(benchmark::State &state) {
    std::string sample = sampleText();
    for (auto _ : state) {
        std::string out;
        out.reserve(sample.size() + 64);
        for (char c : sample) {
            switch (c) {
            case '&':
                out.append("&amp;");
                break;
            case '<':
                out.append("&lt;");
                break;
            case '>':
                out.append("&gt;");
                break;
            case '\'':
                out.append("&apos;");
                break;
            case '"':
                out.append("&quot;");
                break;
            default:
                out.push_back(c);
            }
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(sample.size()));
}
BENCHMARK(BM_BaselineEscapeLoop)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
