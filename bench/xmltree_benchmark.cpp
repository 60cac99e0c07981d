// The XML tree reader against raw expat on the same bytes: a ~3 MB XML-RPC reply (an array of
// structs of int, string with entities and non-ASCII text, double, boolean, dateTime.iso8601 and
// base64) and a small one-record reply. The baseline is expat with empty handlers for the same
// events, fed the same way (64 KiB per call), so the ratio is what building the tree costs.
#include "DocumentGenerator.h"
#include "ExpatFloor.h"

#include <RtCore/RtCore.h>

#include <benchmark/benchmark.h>

#include <string>

namespace {

const std::string &largeReply() {
    static const std::string s = hvtest::xmlrpcReplyOfSize(size_t(3) << 20);
    return s;
}

const std::string &smallReply() {
    static const std::string s = hvtest::xmlrpcReply(1);
    return s;
}

using hvbench::parseWithEmptyHandlers;

void runExpat(benchmark::State &state, const std::string &doc) {
    for (auto _ : state) {
        bool ok = parseWithEmptyHandlers(doc);
        benchmark::DoNotOptimize(ok);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(doc.size()));
}

void runTree(benchmark::State &state, const std::string &doc) {
    RtDataRef data = RtDataCreateWithBytesNoCopy(nullptr, reinterpret_cast<const uint8_t *>(doc.data()),
                                                 RtIndex(doc.size()), kRtAllocatorNull);
    for (auto _ : state) {
        RtTreeRef tree = RtXMLTreeCreateFromData(nullptr, data, nullptr, kRtXMLParserAllOptions, 1);
        if (!tree) state.SkipWithError("the reply did not parse");
        RtRelease(tree); // freeing the tree is part of the cost
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(doc.size()));
    RtRelease(data);
}

void BM_ExpatEmptyHandlers3MB(benchmark::State &state) {
    runExpat(state, largeReply());
}
BENCHMARK(BM_ExpatEmptyHandlers3MB)->Unit(benchmark::kMillisecond);

void BM_RtXMLTreeCreate3MB(benchmark::State &state) {
    runTree(state, largeReply());
}
BENCHMARK(BM_RtXMLTreeCreate3MB)->Unit(benchmark::kMillisecond);

void BM_ExpatEmptyHandlersSmallReply(benchmark::State &state) {
    runExpat(state, smallReply());
}
BENCHMARK(BM_ExpatEmptyHandlersSmallReply);

void BM_RtXMLTreeCreateSmallReply(benchmark::State &state) {
    runTree(state, smallReply());
}
BENCHMARK(BM_RtXMLTreeCreateSmallReply);

// What a reader does after the build: visit every node and look at its string, iteratively.
void BM_RtXMLTreeWalk3MB(benchmark::State &state) {
    const std::string &doc = largeReply();
    RtDataRef data =
        RtDataCreate(nullptr, reinterpret_cast<const uint8_t *>(doc.data()), RtIndex(doc.size()));
    RtTreeRef root = RtXMLTreeCreateFromData(nullptr, data, nullptr, kRtXMLParserAllOptions, 1);
    for (auto _ : state) {
        RtIndex length = 0;
        RtTreeRef t = root;
        while (t) {
            length += RtStringGetLength(RtXMLNodeGetString(RtXMLTreeGetNode(t)));
            if (RtTreeRef child = RtTreeGetFirstChild(t)) {
                t = child;
                continue;
            }
            while (t && !RtTreeGetNextSibling(t))
                t = RtTreeGetParent(t);
            if (t) t = RtTreeGetNextSibling(t);
        }
        benchmark::DoNotOptimize(length);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(doc.size()));
    RtRelease(root);
    RtRelease(data);
}
BENCHMARK(BM_RtXMLTreeWalk3MB)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
