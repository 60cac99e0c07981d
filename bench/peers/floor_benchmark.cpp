// The floors every comparison is measured against, on the same documents and the same server:
//   BM_Expat_XMLRPCReply, BM_Expat_SOAPReply, BM_Expat_SOAPMultiRefReply
//       expat with empty handlers for the events a tree reader takes, fed 64 KiB per XML_Parse
//       call as the library's tree reader feeds it: what reading the bytes costs before
//       anything is built
//   BM_Expat_XMLRPCReplyPeakRSS   peak memory of that parse, as a multiple of the document
//   BM_Curl_SmallCalls, BM_Curl_LargeCalls
//       libcurl's easy interface posting fixed request bytes on one reused connection and
//       keeping the reply bytes: a call with no document written or read
//   BM_CurlMulti_InFlight/32
//       libcurl's multi interface with 32 easy handles posting the same small request at once,
//       each on its own reused connection, the whole batch per iteration
#include "BenchSupport.h"
#include "ExpatFloor.h"

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <string>
#include <vector>

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

void BM_CurlMulti_InFlight(benchmark::State &state) {
    const size_t count = size_t(state.range(0));
    const std::string request = hvbench::kSmallRequestBody, replyBody = hvbench::kSmallReplyBody;
    hvbench::LoopbackReplier server(replyBody);
    std::string url = server.url();
    curl_slist *headers = curl_slist_append(nullptr, "Content-Type: text/xml");
    headers = curl_slist_append(headers, "Expect:");
    CURLM *multi = curl_multi_init();
    std::vector<CURL *> handles(count);
    std::vector<std::string> replies(count);
    for (size_t i = 0; i < count; i++) {
        handles[i] = curl_easy_init();
        curl_easy_setopt(handles[i], CURLOPT_URL, url.c_str());
        curl_easy_setopt(handles[i], CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(handles[i], CURLOPT_POSTFIELDS, request.data());
        curl_easy_setopt(handles[i], CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(request.size()));
        curl_easy_setopt(handles[i], CURLOPT_WRITEFUNCTION, _keep);
        curl_easy_setopt(handles[i], CURLOPT_WRITEDATA, &replies[i]);
    }
    for (auto _ : state) {
        for (size_t i = 0; i < count; i++) {
            replies[i].clear();
            curl_multi_add_handle(multi, handles[i]);
        }
        int running = 1;
        while (running > 0) {
            if (curl_multi_perform(multi, &running) != CURLM_OK) break;
            if (running > 0) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
        }
        bool ok = running == 0;
        int left = 0;
        while (CURLMsg *message = curl_multi_info_read(multi, &left))
            ok = ok && message->msg == CURLMSG_DONE && message->data.result == CURLE_OK;
        for (size_t i = 0; i < count; i++) {
            curl_multi_remove_handle(multi, handles[i]);
            ok = ok && replies[i] == replyBody;
        }
        if (!ok) {
            state.SkipWithError("plain libcurl multi post failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * int64_t(count));
    for (CURL *handle : handles)
        curl_easy_cleanup(handle);
    curl_multi_cleanup(multi);
    curl_slist_free_all(headers);
}
BENCHMARK(BM_CurlMulti_InFlight)->Arg(32)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
