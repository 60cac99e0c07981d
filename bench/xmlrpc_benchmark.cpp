// XML-RPC reading and writing on the documents every side of the comparison uses
// (bench/BenchSupport.h): the 3 MB reply of 5,000 records of an int, a string with entities and
// non-ASCII text, a double, a boolean, a date and base64 data, and the same records as values.
// The floor is raw expat on the same bytes (element and text callbacks that do nothing) in the
// same run; the peers (xmlrpc-c, Python) run on the same bytes in bench/peers.
//   BM_XMLRPCReplyToResult     the reply into a result dictionary
//   BM_XMLRPCParamsToRequest   the records into a request document
//   BM_XMLRPCReplyPeakRSS      peak memory of one read, as a multiple of the reply's size
#include "BenchValues.h"

#include <HalvosCore/HalvosCore.h>

#include <benchmark/benchmark.h>
#include <expat.h>

#include <string>

namespace {

// The reply bytes and the call's parameters (one array of the records), made once.
struct Fixture {
    HVProtocolHandlerRef handler = HVProtocolHandlerCreate(nullptr, kHVXMLRPCProtocol);
    RtDataRef reply = hvbench::createDataNoCopy(hvbench::xmlrpcReplyDocument());
    RtDictionaryRef parameters = [] {
        RtArrayRef records = hvbench::createRecordArray();
        const void *key = RTSTR("records");
        const void *value = records;
        RtDictionaryRef dictionary = RtDictionaryCreate(
            nullptr, &key, &value, 1, &kRtCopyStringDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
        RtRelease(records);
        return dictionary;
    }();
};

Fixture &fixture() {
    static Fixture *f = new Fixture; // lives for the process, like the benchmarks
    return *f;
}

void _nothingStart(void *, const XML_Char *, const XML_Char **) {}
void _nothingEnd(void *, const XML_Char *) {}
void _nothingText(void *, const XML_Char *, int) {}

} // namespace

static void BM_ExpatRawReply(benchmark::State &state) {
    RtDataRef reply = fixture().reply;
    for (auto _ : state) {
        XML_Parser parser = XML_ParserCreate(nullptr);
        XML_SetElementHandler(parser, _nothingStart, _nothingEnd);
        XML_SetCharacterDataHandler(parser, _nothingText);
        int ok = XML_Parse(parser, reinterpret_cast<const char *>(RtDataGetBytePtr(reply)),
                           static_cast<int>(RtDataGetLength(reply)), 1);
        benchmark::DoNotOptimize(ok);
        XML_ParserFree(parser);
    }
    state.SetBytesProcessed(state.iterations() * RtDataGetLength(reply));
}
BENCHMARK(BM_ExpatRawReply)->Unit(benchmark::kMillisecond);

static void BM_XMLRPCReplyToResult(benchmark::State &state) {
    Fixture &f = fixture();
    for (auto _ : state) {
        RtDictionaryRef result = HVProtocolHandlerCopyReplyDictionary(f.handler, RTSTR("m"), f.reply);
        auto records = static_cast<RtArrayRef>(RtDictionaryGetValue(result, kHVMethodInvocationResult));
        if (!records || RtGetTypeID(records) != RtArrayGetTypeID() ||
            RtArrayGetCount(records) != RtIndex(hvbench::kRecordCount))
            state.SkipWithError("the reply did not read back");
        RtRelease(result);
    }
    state.SetBytesProcessed(state.iterations() * RtDataGetLength(f.reply));
}
BENCHMARK(BM_XMLRPCReplyToResult)->Unit(benchmark::kMillisecond);

static void BM_XMLRPCParamsToRequest(benchmark::State &state) {
    Fixture &f = fixture();
    RtIndex written = 0;
    for (auto _ : state) {
        RtDataRef request = HVProtocolHandlerCopyRequestDocument(f.handler, RTSTR("records.put"),
                                                                 f.parameters, nullptr, nullptr);
        written += RtDataGetLength(request);
        RtRelease(request);
    }
    state.SetBytesProcessed(written);
}
BENCHMARK(BM_XMLRPCParamsToRequest)->Unit(benchmark::kMillisecond);

static void BM_XMLRPCReplyPeakRSS(benchmark::State &state) {
    Fixture &f = fixture();
    double ratio = 0;
    for (auto _ : state) {
        ratio = hvbench::peakRSSRatio(size_t(RtDataGetLength(f.reply)), [&] {
            RtRelease(HVProtocolHandlerCopyReplyDictionary(f.handler, RTSTR("m"), f.reply));
        });
    }
    if (ratio <= 0) state.SkipWithError("peak memory could not be measured");
    state.counters["peak_rss_ratio"] = ratio;
}
BENCHMARK(BM_XMLRPCReplyPeakRSS)->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
