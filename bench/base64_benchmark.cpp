// Base64 of 1 MB: the library's writer and reader beside a plain table-driven decoder.
#include "HalvoUtils.h"

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace {

constexpr size_t kSize = 1 << 20;

RtDataRef sampleData() {
    std::vector<uint8_t> bytes(kSize);
    for (size_t i = 0; i < kSize; i++)
        bytes[i] = static_cast<uint8_t>((i * 131 + 7) >> 3);
    return RtDataCreate(kRtAllocatorDefault, bytes.data(), static_cast<RtIndex>(kSize));
}

void BM_Base64Encode(benchmark::State &state) {
    RtDataRef data = sampleData();
    for (auto _ : state) {
        RtStringRef text = encodeBinaryData(data, 4);
        benchmark::DoNotOptimize(text);
        RtRelease(text);
    }
    RtRelease(data);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kSize));
}
BENCHMARK(BM_Base64Encode)->Unit(benchmark::kMillisecond);

void BM_Base64Decode(benchmark::State &state) {
    RtDataRef data = sampleData();
    RtStringRef text = encodeBinaryData(data, 4);
    for (auto _ : state) {
        RtDataRef out = decodeBinaryData(text);
        benchmark::DoNotOptimize(out);
        RtRelease(out);
    }
    state.SetBytesProcessed(state.iterations() * RtStringGetLength(text));
    RtRelease(text);
    RtRelease(data);
}
BENCHMARK(BM_Base64Decode)->Unit(benchmark::kMillisecond);

// The baseline: one table lookup per byte, skipping anything outside the alphabet.
void BM_BaselineTableDecode(benchmark::State &state) {
    RtDataRef data = sampleData();
    RtStringRef text = encodeBinaryData(data, 4);
    const char *in = RtStringGetCStringPtr(text, kRtStringEncodingASCII);
    size_t length = static_cast<size_t>(RtStringGetLength(text));
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    int8_t table[256];
    for (int c = 0; c < 256; c++)
        table[c] = -1;
    for (int k = 0; k < 64; k++)
        table[static_cast<unsigned char>(alphabet[k])] = static_cast<int8_t>(k);
    for (auto _ : state) {
        std::vector<uint8_t> out(length / 4 * 3 + 3);
        size_t n = 0;
        uint32_t acc = 0;
        int count = 0;
        for (size_t i = 0; i < length; i++) {
            int v = table[static_cast<unsigned char>(in[i])];
            if (v < 0) continue;
            acc = (acc << 6) | static_cast<uint32_t>(v);
            if (++count == 4) {
                out[n++] = static_cast<uint8_t>(acc >> 16);
                out[n++] = static_cast<uint8_t>(acc >> 8);
                out[n++] = static_cast<uint8_t>(acc);
                count = 0;
            }
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(length));
    RtRelease(text);
    RtRelease(data);
}
BENCHMARK(BM_BaselineTableDecode)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
