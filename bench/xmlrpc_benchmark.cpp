// XML-RPC reading and writing throughput on a reply of about 3 MB: an array of structs with an
// int, a string with entities, a double, a boolean, a date and base64 data. The floor is raw
// expat on the same bytes (element and text callbacks that do nothing), in the same run.
#include <HalvosCore/HalvosCore.h>

#include <benchmark/benchmark.h>
#include <expat.h>

#include <string>

namespace {

// The parameters of the benchmark call: one array of `count` records.
RtDictionaryRef createParameters(int count) {
    RtMutableArrayRef records = RtArrayCreateMutable(nullptr, count, &kRtTypeArrayCallBacks);
    uint8_t bytes[48];
    for (size_t i = 0; i < sizeof bytes; i++)
        bytes[i] = static_cast<uint8_t>(i * 37);
    for (int i = 0; i < count; i++) {
        double ratio = i * 0.25;
        RtNumberRef number = RtNumberCreate(nullptr, kRtNumberSInt32Type, &i);
        RtNumberRef real = RtNumberCreate(nullptr, kRtNumberDoubleType, &ratio);
        RtStringRef name = RtStringCreateWithFormat(nullptr, nullptr, RTSTR("record %d: <Smith & Sons> \"quoted\""), i);
        RtDateRef when = RtDateCreate(nullptr, 31535947.0 + i);
        RtDataRef blob = RtDataCreate(nullptr, bytes, sizeof bytes);
        const void *keys[] = {RTSTR("id"), RTSTR("name"), RTSTR("ratio"), RTSTR("active"), RTSTR("when"), RTSTR("blob")};
        const void *values[] = {number, name, real, (i % 2) ? kRtBooleanTrue : kRtBooleanFalse, when, blob};
        RtDictionaryRef record = RtDictionaryCreate(nullptr, keys, values, 6, &kRtCopyStringDictionaryKeyCallBacks,
                                                    &kRtTypeDictionaryValueCallBacks);
        RtArrayAppendValue(records, record);
        for (RtTypeRef owned : {static_cast<RtTypeRef>(number), static_cast<RtTypeRef>(real),
                                static_cast<RtTypeRef>(name), static_cast<RtTypeRef>(when),
                                static_cast<RtTypeRef>(blob), static_cast<RtTypeRef>(record)})
            RtRelease(owned);
    }
    const void *key = RTSTR("records");
    const void *value = records;
    RtDictionaryRef parameters =
        RtDictionaryCreate(nullptr, &key, &value, 1, &kRtCopyStringDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
    RtRelease(records);
    return parameters;
}

// The same records as a reply document, written once for all the benchmarks.
struct Fixture {
    HVProtocolHandlerRef handler = HVProtocolHandlerCreate(nullptr, kHVXMLRPCProtocol);
    RtDictionaryRef parameters = createParameters(2200);
    RtDataRef reply = HVProtocolHandlerCopyReplyDocument(
        handler, nullptr, RtDictionaryGetValue(parameters, RTSTR("records")));
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
        if (!RtDictionaryGetValue(result, kHVMethodInvocationResult))
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
        RtDataRef request = HVProtocolHandlerCopyRequestDocument(f.handler, RTSTR("records.put"), f.parameters,
                                                                 nullptr, nullptr);
        written += RtDataGetLength(request);
        RtRelease(request);
    }
    state.SetBytesProcessed(written);
}
BENCHMARK(BM_XMLRPCParamsToRequest)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
