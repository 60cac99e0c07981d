// SOAP reading and writing on the documents every side of the comparison uses
// (bench/BenchSupport.h): the rpc/encoded getRecords reply of 5,000 records (an int, a string
// with entities and non-ASCII text, a double, a boolean, a dateTime and base64Binary data), once
// with the records inline and once with every record an href/id multi-reference, and the same
// records as values. The floor is raw expat on the same bytes, with handlers that do nothing,
// fed as the tree reader feeds it, in the same run; gSOAP runs on the same bytes in bench/peers.
//   BM_ExpatEmptyHandlersSOAPReply, BM_ExpatEmptyHandlersSOAPMultiRefReply   the floors
//   BM_SOAPReplyToResult, BM_SOAPMultiRefReplyToResult   the replies into result dictionaries
//   BM_SOAPParamsToRequest   the records into a SOAP-2001 request envelope
//   BM_SOAPReplyPeakRSS, BM_SOAPMultiRefReplyPeakRSS   peak memory of reading each reply, as a
//       multiple of the reply's size
#include "BenchValues.h"
#include "ExpatFloor.h"

#include <HalvosCore/HalvosCore.h>

#include <benchmark/benchmark.h>

#include <string>

namespace {

struct Fixture {
    HVProtocolHandlerRef handler = [] {
        HVProtocolHandlerRef h = HVProtocolHandlerCreate(nullptr, kHVSOAP2001Protocol);
        HVProtocolHandlerSetProperty(h, kHVSOAPMethodNamespaceURI, RTSTR("urn:records"));
        return h;
    }();
    RtDataRef reply = hvbench::createDataNoCopy(hvbench::soapReplyDocument(false));
    RtDataRef multiRefReply = hvbench::createDataNoCopy(hvbench::soapReplyDocument(true));
    RtDictionaryRef parameters = [] {
        RtArrayRef records = hvbench::createRecordArray();
        const void *key = RTSTR("records");
        const void *value = records;
        RtDictionaryRef dictionary = RtDictionaryCreate(
            nullptr, &key, &value, 1, &kRtCopyStringDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
        RtRelease(records);
        return dictionary;
    }();
    RtArrayRef order = [] {
        const void *name = RTSTR("records");
        return RtArrayCreate(nullptr, &name, 1, &kRtTypeArrayCallBacks);
    }();
};

Fixture &fixture() {
    static Fixture *f = new Fixture; // lives for the process, like the benchmarks
    return *f;
}

bool parseWithEmptyHandlers(RtDataRef document) {
    return hvbench::parseWithEmptyHandlers(reinterpret_cast<const char *>(RtDataGetBytePtr(document)),
                                           size_t(RtDataGetLength(document)));
}

void runExpat(benchmark::State &state, RtDataRef document) {
    for (auto _ : state) {
        if (!parseWithEmptyHandlers(document)) {
            state.SkipWithError("expat refused the document");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * RtDataGetLength(document));
}

// The reply into its result dictionary, which is then released, as its owner would.
// Not inlined, for callgrind (--toggle-collect=*readReply*).
__attribute__((noinline)) bool readReply(HVProtocolHandlerRef handler, RtDataRef document) {
    RtDictionaryRef result = HVProtocolHandlerCopyReplyDictionary(handler, RTSTR("getRecords"), document);
    auto records = static_cast<RtArrayRef>(RtDictionaryGetValue(result, RTSTR("return")));
    bool ok = !HVMethodResultIsFault(result) && RtGetTypeID(records) == RtArrayGetTypeID() &&
              RtArrayGetCount(records) == RtIndex(hvbench::kRecordCount);
    RtRelease(result);
    return ok;
}

void runReader(benchmark::State &state, RtDataRef document) {
    HVProtocolHandlerRef handler = fixture().handler;
    for (auto _ : state) {
        if (!readReply(handler, document)) {
            state.SkipWithError("the reply did not read back");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * RtDataGetLength(document));
}

} // namespace

static void BM_ExpatEmptyHandlersSOAPReply(benchmark::State &state) {
    runExpat(state, fixture().reply);
}
BENCHMARK(BM_ExpatEmptyHandlersSOAPReply)->Unit(benchmark::kMillisecond);

static void BM_SOAPReplyToResult(benchmark::State &state) {
    runReader(state, fixture().reply);
}
BENCHMARK(BM_SOAPReplyToResult)->Unit(benchmark::kMillisecond);

static void BM_ExpatEmptyHandlersSOAPMultiRefReply(benchmark::State &state) {
    runExpat(state, fixture().multiRefReply);
}
BENCHMARK(BM_ExpatEmptyHandlersSOAPMultiRefReply)->Unit(benchmark::kMillisecond);

static void BM_SOAPMultiRefReplyToResult(benchmark::State &state) {
    runReader(state, fixture().multiRefReply);
}
BENCHMARK(BM_SOAPMultiRefReplyToResult)->Unit(benchmark::kMillisecond);

static void BM_SOAPParamsToRequest(benchmark::State &state) {
    Fixture &f = fixture();
    RtIndex written = 0;
    for (auto _ : state) {
        RtDataRef request = HVProtocolHandlerCopyRequestDocument(f.handler, RTSTR("putRecords"), f.parameters,
                                                                 f.order, nullptr);
        if (!request) {
            state.SkipWithError("no envelope was written");
            break;
        }
        written += RtDataGetLength(request);
        RtRelease(request);
    }
    state.SetBytesProcessed(written);
}
BENCHMARK(BM_SOAPParamsToRequest)->Unit(benchmark::kMillisecond);

static void runPeakRSS(benchmark::State &state, RtDataRef document) {
    HVProtocolHandlerRef handler = fixture().handler;
    double ratio = 0;
    for (auto _ : state)
        ratio =
            hvbench::peakRSSRatio(size_t(RtDataGetLength(document)), [&] { readReply(handler, document); });
    if (ratio <= 0) state.SkipWithError("peak memory could not be measured");
    state.counters["peak_rss_ratio"] = ratio;
}

static void BM_SOAPReplyPeakRSS(benchmark::State &state) {
    runPeakRSS(state, fixture().reply);
}
BENCHMARK(BM_SOAPReplyPeakRSS)->Iterations(1)->Unit(benchmark::kMillisecond);

static void BM_SOAPMultiRefReplyPeakRSS(benchmark::State &state) {
    runPeakRSS(state, fixture().multiRefReply);
}
BENCHMARK(BM_SOAPMultiRefReplyPeakRSS)->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
