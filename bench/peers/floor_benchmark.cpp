// The floors every comparison is measured against, on the same documents and the same server:
//   BM_Expat_XMLRPCReply, BM_Expat_SOAPReply, BM_Expat_SOAPMultiRefReply
//       expat with empty handlers for the events a tree reader takes, fed 64 KiB per XML_Parse
//       call as the library's tree reader feeds it: what reading the bytes costs before
//       anything is built
//   BM_Expat_XMLRPCReplyPeakRSS   peak memory of that parse, as a multiple of the document
//   BM_Curl_SmallCalls, BM_Curl_LargeCalls
//       libcurl's easy interface posting fixed request bytes on one reused connection and
//       keeping the reply bytes: a call with no document written or read
#include "BenchSupport.h"
#include "ExpatFloor.h"

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <string>

namespace {

using hvbench::parseWithEmptyHandlers;

void runExpat(benchmark::State &state, const std::string &document) {
    for (auto _ : state) {
        if (!parseWithEmptyHandlers(document)) {
            state.SkipWithError("expat refused the document");
            break;
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(document.size()));
}

void BM_Expat_XMLRPCReply(benchmark::State &state) {
    runExpat(state, hvbench::xmlrpcReplyDocument());
}
BENCHMARK(BM_Expat_XMLRPCReply)->Unit(benchmark::kMillisecond);

void BM_Expat_SOAPReply(benchmark::State &state) {
    runExpat(state, hvbench::soapReplyDocument(false));
}
BENCHMARK(BM_Expat_SOAPReply)->Unit(benchmark::kMillisecond);

void BM_Expat_SOAPMultiRefReply(benchmark::State &state) {
    runExpat(state, hvbench::soapReplyDocument(true));
}
BENCHMARK(BM_Expat_SOAPMultiRefReply)->Unit(benchmark::kMillisecond);

void BM_Expat_XMLRPCReplyPeakRSS(benchmark::State &state) {
    const std::string &reply = hvbench::xmlrpcReplyDocument();
    double ratio = 0;
    for (auto _ : state)
        ratio = hvbench::peakRSSRatio(reply.size(), [&] { parseWithEmptyHandlers(reply); });
    if (ratio <= 0) state.SkipWithError("peak memory could not be measured");
    state.counters["peak_rss_ratio"] = ratio;
}
BENCHMARK(BM_Expat_XMLRPCReplyPeakRSS)->Iterations(1)->Unit(benchmark::kMillisecond);

size_t _keep(char *data, size_t size, size_t count, void *reply) {
    static_cast<std::string *>(reply)->append(data, size * count);
    return size * count;
}

void runCurl(benchmark::State &state, const std::string &request, const std::string &replyBody) {
    hvbench::LoopbackReplier server(replyBody);
    CURL *curl = curl_easy_init();
    std::string url = server.url();
    curl_slist *headers = curl_slist_append(nullptr, "Content-Type: text/xml");
    headers = curl_slist_append(headers, "Expect:");
    std::string reply;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(request.size()));
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, _keep);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply);
    for (auto _ : state) {
        reply.clear();
        if (curl_easy_perform(curl) != CURLE_OK || reply != replyBody) {
            state.SkipWithError("plain libcurl post failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
}

void BM_Curl_SmallCalls(benchmark::State &state) {
    runCurl(state, hvbench::kSmallRequestBody, hvbench::kSmallReplyBody);
}
BENCHMARK(BM_Curl_SmallCalls)->UseRealTime();

void BM_Curl_LargeCalls(benchmark::State &state) {
    runCurl(state, hvtest::xmlrpcCall(hvbench::kRecordCount, "records.put"), hvbench::xmlrpcReplyDocument());
}
BENCHMARK(BM_Curl_LargeCalls)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
