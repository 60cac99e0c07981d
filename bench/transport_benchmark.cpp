// XML-RPC calls over loopback, per second, against the minimal keep-alive replier of
// BenchSupport.h. Baseline: a plain libcurl client posting the same request bytes on one reused
// handle, so the ratio is what the library adds (writing the request, the run loop and the
// stream, judging and parsing the reply, the result dictionary).
//   BM_PlainCurlPost            libcurl easy interface, blocking, connection reused
//   BM_InvokeNewInvocation      HVMethodInvocationInvoke of echo("hello"), a new invocation each
//   BM_InvokeSameInvocation     HVMethodInvocationInvoke, one invocation called again and again
//   BM_AsyncSequential          one asynchronous call at a time on the caller's run loop
//   BM_AsyncInFlight/N          N asynchronous calls in flight at once on one run loop
//   BM_InvokeLargeCall          records.put of the 5,000 generated records, the 3 MB reply read
#include "BenchSupport.h"

#include <HalvosCore/HalvosCore.h>

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <string>
#include <vector>

namespace {

hvbench::LoopbackReplier &server() {
    static auto *sServer = new hvbench::LoopbackReplier(hvbench::kSmallReplyBody); // lives for the process
    return *sServer;
}

RtURLRef newURL(const std::string &text) {
    RtStringRef string = RtStringCreateWithCString(nullptr, text.c_str(), kRtStringEncodingUTF8);
    RtURLRef url = RtURLCreateWithString(nullptr, string, nullptr);
    RtRelease(string);
    return url;
}

RtURLRef endpoint() {
    static RtURLRef sURL = newURL(server().url());
    return sURL;
}

// echo("hello"): the small call every benchmark makes.
HVMethodInvocationRef newEchoInvocation() {
    HVMethodInvocationRef invocation = HVMethodInvocationCreate(endpoint(), RTSTR("echo"), kHVXMLRPCProtocol);
    const void *keys[] = {RTSTR("text")};
    const void *values[] = {RTSTR("hello")};
    RtDictionaryRef parameters = RtDictionaryCreate(nullptr, keys, values, 1, &kRtTypeDictionaryKeyCallBacks,
                                                    &kRtTypeDictionaryValueCallBacks);
    RtArrayRef order = RtArrayCreate(nullptr, keys, 1, &kRtTypeArrayCallBacks);
    HVMethodInvocationSetParameters(invocation, parameters, order);
    RtRelease(parameters);
    RtRelease(order);
    return invocation;
}

bool isHello(RtDictionaryRef result) {
    return result && !HVMethodResultIsFault(result) &&
           RtEqual(RtDictionaryGetValue(result, kHVMethodInvocationResult), RTSTR("hello"));
}

size_t _appendToString(char *data, size_t size, size_t count, void *userdata) {
    static_cast<std::string *>(userdata)->append(data, size * count);
    return size * count;
}

void BM_PlainCurlPost(benchmark::State &state) {
    std::string body = hvbench::kSmallRequestBody;
    CURL *curl = curl_easy_init();
    std::string url = server().url();
    curl_slist *headers = curl_slist_append(nullptr, "Content-Type: text/xml");
    headers = curl_slist_append(headers, "Expect:");
    std::string reply;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, _appendToString);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply);
    for (auto _ : state) {
        reply.clear();
        if (curl_easy_perform(curl) != CURLE_OK || reply != hvbench::kSmallReplyBody) {
            state.SkipWithError("plain libcurl post failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
}
BENCHMARK(BM_PlainCurlPost)->UseRealTime();

void BM_InvokeNewInvocation(benchmark::State &state) {
    for (auto _ : state) {
        HVMethodInvocationRef invocation = newEchoInvocation();
        RtDictionaryRef result = HVMethodInvocationInvoke(invocation);
        bool ok = isHello(result);
        RtRelease(result);
        RtRelease(invocation);
        if (!ok) {
            state.SkipWithError("call failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_InvokeNewInvocation)->UseRealTime();

void BM_InvokeSameInvocation(benchmark::State &state) {
    HVMethodInvocationRef invocation = newEchoInvocation();
    for (auto _ : state) {
        RtDictionaryRef result = HVMethodInvocationInvoke(invocation);
        bool ok = isHello(result);
        RtRelease(result);
        if (!ok) {
            state.SkipWithError("call failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    RtRelease(invocation);
}
BENCHMARK(BM_InvokeSameInvocation)->UseRealTime();

struct Pending {
    int outstanding = 0;
    int failures = 0;
};

void _countDelivery(HVMethodInvocationRef, void *info, RtDictionaryRef result) {
    Pending *pending = static_cast<Pending *>(info);
    pending->outstanding--;
    if (!isHello(result)) pending->failures++;
    if (result) RtRelease(result);
}

// Schedules count new invocations on the current loop in one mode and runs it until all
// delivered. Returns false when a call failed.
bool runInFlight(int count) {
    static const RtStringRef kMode = RTSTR("TransportBenchmarkMode");
    RtRunLoopRef loop = RtRunLoopGetCurrent();
    Pending pending;
    HVClientContext context = {0, &pending, nullptr, nullptr, nullptr};
    std::vector<HVMethodInvocationRef> invocations(static_cast<size_t>(count));
    for (HVMethodInvocationRef &invocation : invocations) {
        invocation = newEchoInvocation();
        HVMethodInvocationSetCallBack(invocation, _countDelivery, &context);
        HVMethodInvocationScheduleWithRunLoop(invocation, loop, kMode);
        pending.outstanding++;
    }
    while (pending.outstanding > 0)
        RtRunLoopRunInMode(kMode, 10.0, true);
    for (HVMethodInvocationRef invocation : invocations) {
        HVMethodInvocationUnscheduleFromRunLoop(invocation, loop, kMode);
        RtRelease(invocation);
    }
    return pending.failures == 0;
}

void BM_AsyncSequential(benchmark::State &state) {
    for (auto _ : state) {
        if (!runInFlight(1)) {
            state.SkipWithError("call failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AsyncSequential)->UseRealTime();

void BM_AsyncInFlight(benchmark::State &state) {
    int count = static_cast<int>(state.range(0));
    for (auto _ : state) {
        if (!runInFlight(count)) {
            state.SkipWithError("call failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(BM_AsyncInFlight)->Arg(8)->Arg(32)->UseRealTime();

// The generated records as values: one array of structs, as every peer sends them.
RtDictionaryRef createRecordParameters() {
    RtMutableArrayRef records = RtArrayCreateMutable(nullptr, hvbench::kRecordCount, &kRtTypeArrayCallBacks);
    for (size_t i = 0; i < hvbench::kRecordCount; i++) {
        hvtest::XMLRPCRecord record = hvtest::xmlrpcRecord(i);
        std::vector<unsigned char> bytes = hvbench::recordBlob(record);
        RtTypeRef values[] = {
            RtNumberCreate(nullptr, kRtNumberSInt32Type, &record.id),
            RtStringCreateWithCString(nullptr, record.name.c_str(), kRtStringEncodingUTF8),
            RtNumberCreate(nullptr, kRtNumberFloat64Type, &record.score),
            RtRetain(record.active ? kRtBooleanTrue : kRtBooleanFalse),
            RtDateCreate(nullptr, double(hvbench::recordTime(record)) - kRtAbsoluteTimeIntervalSince1970),
            RtDataCreate(nullptr, bytes.data(), RtIndex(bytes.size())),
        };
        const void *keys[] = {RTSTR("id"),     RTSTR("name"), RTSTR("score"),
                              RTSTR("active"), RTSTR("when"), RTSTR("blob")};
        RtDictionaryRef member = RtDictionaryCreate(nullptr, keys, values, 6, &kRtTypeDictionaryKeyCallBacks,
                                                    &kRtTypeDictionaryValueCallBacks);
        RtArrayAppendValue(records, member);
        RtRelease(member);
        for (RtTypeRef value : values)
            RtRelease(value);
    }
    const void *key = RTSTR("records");
    const void *value = records;
    RtDictionaryRef parameters = RtDictionaryCreate(nullptr, &key, &value, 1, &kRtTypeDictionaryKeyCallBacks,
                                                    &kRtTypeDictionaryValueCallBacks);
    RtRelease(records);
    return parameters;
}

void BM_InvokeLargeCall(benchmark::State &state) {
    static auto *sLarge = new hvbench::LoopbackReplier(hvbench::xmlrpcReplyDocument());
    RtURLRef url = newURL(sLarge->url());
    RtDictionaryRef parameters = createRecordParameters();
    for (auto _ : state) {
        HVMethodInvocationRef invocation =
            HVMethodInvocationCreate(url, RTSTR("records.put"), kHVXMLRPCProtocol);
        HVMethodInvocationSetParameters(invocation, parameters, nullptr);
        RtDictionaryRef result = HVMethodInvocationInvoke(invocation);
        RtTypeRef records = result ? RtDictionaryGetValue(result, kHVMethodInvocationResult) : nullptr;
        bool ok = !HVMethodResultIsFault(result) && records && RtGetTypeID(records) == RtArrayGetTypeID() &&
                  size_t(RtArrayGetCount(static_cast<RtArrayRef>(records))) == hvbench::kRecordCount;
        RtRelease(result);
        RtRelease(invocation);
        if (!ok) {
            state.SkipWithError("large call failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    RtRelease(parameters);
    RtRelease(url);
}
BENCHMARK(BM_InvokeLargeCall)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
