// gSOAP's generated code (soapcpp2, C, rpc/encoded) on the SOAP documents the library's own
// benchmarks use:
//   BM_GSoap_ReplyToValues           read the 2.0 MB getRecords reply into the generated structs
//   BM_GSoap_MultiRefReplyToValues   the same records sent as href/id multi-references
//   BM_GSoap_ReplyPeakRSS, BM_GSoap_MultiRefReplyPeakRSS   peak memory of reading each reply
//   BM_GSoap_ValuesToEnvelope        write the 5,000 records as a putRecords request envelope
//   BM_GSoap_ReplyPeakRSS            peak memory of one read, as a multiple of the reply's size
// Each read frees what the previous one built (gSOAP's context memory), as a reader's caller
// releases its result.
#include "BenchSupport.h"
#include "gsoap_peer.h"

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

namespace {

// The peer reads record 0 back with the generator's values, and all of them.
bool readsRecords(GSoapPeer *peer, const std::string &document) {
    GSoapRecord first{};
    if (gsoapPeerReadReply(peer, document.c_str(), document.size(), &first) != int(hvbench::kRecordCount))
        return false;
    hvtest::XMLRPCRecord expected = hvtest::xmlrpcRecord(0);
    return first.id == expected.id && first.name && expected.name == first.name &&
           first.when == hvbench::recordTime(expected) && first.blobSize == 48;
}

void runRead(benchmark::State &state, const std::string &document) {
    GSoapPeer *peer = gsoapPeerCreate();
    if (!readsRecords(peer, document)) state.SkipWithError("gSOAP did not read the reply");
    for (auto _ : state) {
        if (gsoapPeerReadReply(peer, document.c_str(), document.size(), nullptr) !=
            int(hvbench::kRecordCount)) {
            state.SkipWithError("gSOAP did not read the reply");
            break;
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(document.size()));
    gsoapPeerFree(peer);
}

void BM_GSoap_ReplyToValues(benchmark::State &state) {
    runRead(state, hvbench::soapReplyDocument(false));
}
BENCHMARK(BM_GSoap_ReplyToValues)->Unit(benchmark::kMillisecond);

void BM_GSoap_MultiRefReplyToValues(benchmark::State &state) {
    runRead(state, hvbench::soapReplyDocument(true));
}
BENCHMARK(BM_GSoap_MultiRefReplyToValues)->Unit(benchmark::kMillisecond);

void BM_GSoap_ValuesToEnvelope(benchmark::State &state) {
    std::vector<hvtest::XMLRPCRecord> sources;
    std::vector<std::vector<unsigned char>> blobs;
    for (size_t i = 0; i < hvbench::kRecordCount; i++) {
        sources.push_back(hvtest::xmlrpcRecord(i));
        blobs.push_back(hvbench::recordBlob(sources.back()));
    }
    std::vector<GSoapRecord> records;
    for (size_t i = 0; i < sources.size(); i++) {
        const hvtest::XMLRPCRecord &r = sources[i];
        records.push_back({r.id, r.name.c_str(), r.score, r.active ? 1 : 0, hvbench::recordTime(r),
                           blobs[i].data(), int(blobs[i].size())});
    }
    GSoapPeer *peer = gsoapPeerCreate();
    int64_t written = 0;
    for (auto _ : state) {
        const char *document = nullptr;
        long length = gsoapPeerWriteRequest(peer, records.data(), int(records.size()), &document);
        if (length <= 0) {
            state.SkipWithError("gSOAP wrote no envelope");
            break;
        }
        written += length;
    }
    state.SetBytesProcessed(written);
    gsoapPeerFree(peer);
}
BENCHMARK(BM_GSoap_ValuesToEnvelope)->Unit(benchmark::kMillisecond);

void runPeakRSS(benchmark::State &state, const std::string &reply) {
    GSoapPeer *peer = gsoapPeerCreate();
    double ratio = 0;
    for (auto _ : state)
        ratio = hvbench::peakRSSRatio(
            reply.size(), [&] { gsoapPeerReadReply(peer, reply.c_str(), reply.size(), nullptr); });
    if (ratio <= 0) state.SkipWithError("peak memory could not be measured");
    state.counters["peak_rss_ratio"] = ratio;
    gsoapPeerFree(peer);
}

void BM_GSoap_ReplyPeakRSS(benchmark::State &state) {
    runPeakRSS(state, hvbench::soapReplyDocument(false));
}
BENCHMARK(BM_GSoap_ReplyPeakRSS)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_GSoap_MultiRefReplyPeakRSS(benchmark::State &state) {
    runPeakRSS(state, hvbench::soapReplyDocument(true));
}
BENCHMARK(BM_GSoap_MultiRefReplyPeakRSS)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
