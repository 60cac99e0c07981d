// The C++ interface's cost over the C API it stands on, each case beside its C twin in the same
// run, against the keep-alive replier of BenchSupport.h. The C++ rows should stay within a few
// per cent of their C twins: the layer adds the argument conversion, one property copy per
// call and the result's conversion to native types.
//   BM_CSmallCall        HVMethodInvocationInvoke of echo("hello"), parameters built by hand
//   BM_CPlusSmallCall    client.call<std::string>("echo", "hello")
//   BM_CLargeReply       records.put of the 5,000 generated records, the 3 MB reply read (C API)
//   BM_CPlusLargeReply   the same through hv::Client, the reply converted to std::vector<Record>
//   BM_CPlusConvertOnly  that conversion alone, from the reply's value already in memory
#include "BenchSupport.h"

#include <HalvosCore/HalvosCore.hpp>

#include <benchmark/benchmark.h>

namespace bench {
struct Record {
    int id = 0;
    std::string name;
    double score = 0;
    bool active = false;
    std::chrono::system_clock::time_point when;
    std::vector<std::byte> blob;
};
HV_RECORD(Record, id, name, score, active, when, blob)
} // namespace bench

namespace {

hvbench::LoopbackReplier &smallServer() {
    static auto *sServer = new hvbench::LoopbackReplier(hvbench::kSmallReplyBody); // lives for the process
    return *sServer;
}

hvbench::LoopbackReplier &largeServer() {
    static auto *sServer = new hvbench::LoopbackReplier(hvbench::xmlrpcReplyDocument());
    return *sServer;
}

hv::Ref<RtURLRef> newURL(const std::string &text) {
    hv::Value string = text;
    return hv::adopt(RtURLCreateWithString(nullptr, static_cast<RtStringRef>(string.get()), nullptr));
}

// The generated records as one array of structs, the single parameter of records.put.
hv::Value recordArray() {
    std::vector<hv::Value> records;
    for (size_t i = 0; i < hvbench::kRecordCount; i++) {
        hvtest::XMLRPCRecord record = hvtest::xmlrpcRecord(i);
        std::vector<unsigned char> bytes = hvbench::recordBlob(record);
        records.push_back(hv::Record{
            {"id", record.id},
            {"name", record.name},
            {"score", record.score},
            {"active", record.active},
            {"when", std::chrono::system_clock::from_time_t(hvbench::recordTime(record))},
            {"blob",
             std::vector<std::byte>(reinterpret_cast<const std::byte *>(bytes.data()),
                                    reinterpret_cast<const std::byte *>(bytes.data() + bytes.size()))}});
    }
    return records;
}

void BM_CSmallCall(benchmark::State &state) {
    hv::Ref<RtURLRef> url = newURL(smallServer().url());
    for (auto _ : state) {
        HVMethodInvocationRef invocation =
            HVMethodInvocationCreate(url.get(), RTSTR("echo"), kHVXMLRPCProtocol);
        const void *keys[] = {RTSTR("text")};
        const void *values[] = {RTSTR("hello")};
        RtDictionaryRef parameters = RtDictionaryCreate(
            nullptr, keys, values, 1, &kRtTypeDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
        RtArrayRef order = RtArrayCreate(nullptr, keys, 1, &kRtTypeArrayCallBacks);
        HVMethodInvocationSetParameters(invocation, parameters, order);
        RtDictionaryRef result = HVMethodInvocationInvoke(invocation);
        bool ok = result && !HVMethodResultIsFault(result) &&
                  RtEqual(RtDictionaryGetValue(result, kHVMethodInvocationResult), RTSTR("hello"));
        RtRelease(result);
        RtRelease(order);
        RtRelease(parameters);
        RtRelease(invocation);
        if (!ok) {
            state.SkipWithError("call failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CSmallCall)->UseRealTime();

void BM_CPlusSmallCall(benchmark::State &state) {
    hv::Client client{smallServer().url()};
    client.setExact(false); // the C twin's writing
    for (auto _ : state) {
        if (client.call<std::string>("echo", "hello") != "hello") {
            state.SkipWithError("call failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CPlusSmallCall)->UseRealTime();

void BM_CLargeReply(benchmark::State &state) {
    hv::Ref<RtURLRef> url = newURL(largeServer().url());
    hv::Value records = recordArray();
    const void *key = RTSTR("records");
    const void *value = records.get();
    hv::Ref<RtDictionaryRef> parameters = hv::adopt(RtDictionaryCreate(
        nullptr, &key, &value, 1, &kRtTypeDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks));
    for (auto _ : state) {
        HVMethodInvocationRef invocation =
            HVMethodInvocationCreate(url.get(), RTSTR("records.put"), kHVXMLRPCProtocol);
        HVMethodInvocationSetParameters(invocation, parameters.get(), nullptr);
        RtDictionaryRef result = HVMethodInvocationInvoke(invocation);
        RtTypeRef reply = result ? RtDictionaryGetValue(result, kHVMethodInvocationResult) : nullptr;
        bool ok = !HVMethodResultIsFault(result) && RtGetTypeID(reply) == RtArrayGetTypeID() &&
                  size_t(RtArrayGetCount(static_cast<RtArrayRef>(reply))) == hvbench::kRecordCount;
        RtRelease(result);
        RtRelease(invocation);
        if (!ok) {
            state.SkipWithError("large call failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CLargeReply)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_CPlusLargeReply(benchmark::State &state) {
    hv::Client client{largeServer().url()};
    client.setExact(false); // the C twin's writing, so that both send the same bytes
    hv::Value records = recordArray();
    for (auto _ : state) {
        if (client.call<std::vector<bench::Record>>("records.put", records).size() != hvbench::kRecordCount) {
            state.SkipWithError("large call failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CPlusLargeReply)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_CPlusConvertOnly(benchmark::State &state) {
    hv::Client client{largeServer().url()};
    hv::Value reply = client.call("records.put", 0);
    for (auto _ : state) {
        if (reply.as<std::vector<bench::Record>>().size() != hvbench::kRecordCount) {
            state.SkipWithError("conversion failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CPlusConvertOnly)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
