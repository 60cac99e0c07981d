// xmlrpc-c (its C++ library) on the documents and calls the library's own benchmarks use:
//   BM_XmlrpcC_ReplyToValues     parse the 3 MB XML-RPC reply into values (xml::parseResponse)
//   BM_XmlrpcC_ValuesToRequest   write the same 5,000 records as a methodCall (xml::generateCall)
//   BM_XmlrpcC_ReplyPeakRSS      peak memory of one parse, as a multiple of the reply's size
//   BM_XmlrpcC_SmallCalls        echo("hello") calls over loopback with keep-alive (curl transport)
//   BM_XmlrpcC_LargeCalls        calls sending the 5,000 records and reading the 3 MB reply
//   BM_XmlrpcC_AsyncInFlight/32  32 echo("hello") calls in flight at once through the C client's
//                                asynchronous interface (xmlrpc_client_start_rpc, then
//                                xmlrpc_client_event_loop_finish), the whole batch per iteration
// The floors (raw expat, plain libcurl) are in floor_benchmark; the report sets them side by side.
#include "BenchSupport.h"

#include <xmlrpc-c/base.hpp>
#include <xmlrpc-c/client.h>
#include <xmlrpc-c/client.hpp>
#include <xmlrpc-c/xml.hpp>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace {

// The value of the reply's single parameter, read back: checks that the peer saw every record.
bool isRecordArray(const xmlrpc_c::value &value) {
    if (value.type() != xmlrpc_c::value::TYPE_ARRAY) return false;
    std::vector<xmlrpc_c::value> records = xmlrpc_c::value_array(value).vectorValueValue();
    if (records.size() != hvbench::kRecordCount) return false;
    std::map<std::string, xmlrpc_c::value> first = xmlrpc_c::value_struct(records.front());
    hvtest::XMLRPCRecord expected = hvtest::xmlrpcRecord(0);
    return int(xmlrpc_c::value_int(first.at("id"))) == expected.id &&
           std::string(xmlrpc_c::value_string(first.at("name"))) == expected.name;
}

// The records as the peer's values: one array of structs.
xmlrpc_c::paramList recordParameters() {
    std::vector<xmlrpc_c::value> records;
    for (size_t i = 0; i < hvbench::kRecordCount; i++) {
        hvtest::XMLRPCRecord record = hvtest::xmlrpcRecord(i);
        std::map<std::string, xmlrpc_c::value> members;
        members["id"] = xmlrpc_c::value_int(record.id);
        members["name"] = xmlrpc_c::value_string(record.name);
        members["score"] = xmlrpc_c::value_double(record.score);
        members["active"] = xmlrpc_c::value_boolean(record.active);
        members["when"] = xmlrpc_c::value_datetime(hvbench::recordTime(record));
        members["blob"] = xmlrpc_c::value_bytestring(hvbench::recordBlob(record));
        records.push_back(xmlrpc_c::value_struct(members));
    }
    xmlrpc_c::paramList parameters;
    parameters.add(xmlrpc_c::value_array(records));
    return parameters;
}

// xmlrpc-c refuses documents over 512 KB unless told otherwise; the reply is 3 MB.
const bool sLimitRaised = [] {
    xmlrpc_limit_set(XMLRPC_XML_SIZE_LIMIT_ID, size_t(64) << 20);
    return true;
}();

void BM_XmlrpcC_ReplyToValues(benchmark::State &state) {
    const std::string &reply = hvbench::xmlrpcReplyDocument();
    for (auto _ : state) {
        xmlrpc_c::rpcOutcome outcome;
        xmlrpc_c::xml::parseResponse(reply, &outcome);
        if (!outcome.succeeded() || !isRecordArray(outcome.getResult())) {
            state.SkipWithError("xmlrpc-c did not read the reply");
            break;
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(reply.size()));
}
BENCHMARK(BM_XmlrpcC_ReplyToValues)->Unit(benchmark::kMillisecond);

void BM_XmlrpcC_ValuesToRequest(benchmark::State &state) {
    xmlrpc_c::paramList parameters = recordParameters();
    int64_t written = 0;
    for (auto _ : state) {
        std::string call;
        xmlrpc_c::xml::generateCall("records.put", parameters, &call);
        written += int64_t(call.size());
    }
    state.SetBytesProcessed(written);
}
BENCHMARK(BM_XmlrpcC_ValuesToRequest)->Unit(benchmark::kMillisecond);

void BM_XmlrpcC_ReplyPeakRSS(benchmark::State &state) {
    const std::string &reply = hvbench::xmlrpcReplyDocument();
    double ratio = 0;
    for (auto _ : state) {
        ratio = hvbench::peakRSSRatio(reply.size(), [&] {
            xmlrpc_c::rpcOutcome outcome;
            xmlrpc_c::xml::parseResponse(reply, &outcome);
        });
    }
    if (ratio <= 0) state.SkipWithError("peak memory could not be measured");
    state.counters["peak_rss_ratio"] = ratio;
}
BENCHMARK(BM_XmlrpcC_ReplyPeakRSS)->Iterations(1)->Unit(benchmark::kMillisecond);

void runCalls(benchmark::State &state, const std::string &replyBody, const std::string &method,
              const xmlrpc_c::paramList &parameters, bool (*check)(const xmlrpc_c::value &)) {
    hvbench::LoopbackReplier server(replyBody);
    xmlrpc_c::clientXmlTransport_curl transport;
    xmlrpc_c::client_xml client(&transport);
    xmlrpc_c::carriageParm_curl0 carriage(server.url());
    for (auto _ : state) {
        xmlrpc_c::rpcPtr call(method, parameters);
        call->call(&client, &carriage);
        if (!call->isSuccessful() || !check(call->getResult())) {
            state.SkipWithError("xmlrpc-c call failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

bool isHello(const xmlrpc_c::value &value) {
    return value.type() == xmlrpc_c::value::TYPE_STRING &&
           std::string(xmlrpc_c::value_string(value)) == "hello";
}

void BM_XmlrpcC_SmallCalls(benchmark::State &state) {
    xmlrpc_c::paramList parameters;
    parameters.add(xmlrpc_c::value_string("hello"));
    runCalls(state, hvbench::kSmallReplyBody, "echo", parameters, isHello);
}
BENCHMARK(BM_XmlrpcC_SmallCalls)->UseRealTime();

void BM_XmlrpcC_LargeCalls(benchmark::State &state) {
    runCalls(state, hvbench::xmlrpcReplyDocument(), "records.put", recordParameters(), isRecordArray);
}
BENCHMARK(BM_XmlrpcC_LargeCalls)->UseRealTime()->Unit(benchmark::kMillisecond);

struct AsyncBatch {
    int outstanding = 0;
    int failures = 0;
};

void _asyncDelivered(const char *, const char *, xmlrpc_value *, void *info, xmlrpc_env *fault,
                     xmlrpc_value *result) {
    auto *batch = static_cast<AsyncBatch *>(info);
    batch->outstanding--;
    bool ok = !fault->fault_occurred && result;
    if (ok) {
        xmlrpc_env env;
        xmlrpc_env_init(&env);
        const char *text = nullptr;
        xmlrpc_read_string(&env, result, &text);
        ok = !env.fault_occurred && text && std::string(text) == "hello";
        std::free(const_cast<char *>(text));
        xmlrpc_env_clean(&env);
    }
    if (!ok) batch->failures++;
}

void BM_XmlrpcC_AsyncInFlight(benchmark::State &state) {
    const int count = int(state.range(0));
    hvbench::LoopbackReplier server(hvbench::kSmallReplyBody);
    xmlrpc_env env;
    xmlrpc_env_init(&env);
    xmlrpc_client_setup_global_const(&env);
    xmlrpc_clientparms parameters{};
    parameters.transport = "curl";
    xmlrpc_client *client = nullptr;
    xmlrpc_client_create(&env, XMLRPC_CLIENT_NO_FLAGS, "hvbench", "1.0", &parameters,
                         XMLRPC_CPSIZE(transport), &client);
    xmlrpc_server_info *endpoint =
        env.fault_occurred ? nullptr : xmlrpc_server_info_new(&env, server.url().c_str());
    xmlrpc_value *params = env.fault_occurred ? nullptr : xmlrpc_build_value(&env, "(s)", "hello");
    if (env.fault_occurred) state.SkipWithError(env.fault_string);
    for (auto _ : state) {
        if (env.fault_occurred) break;
        AsyncBatch batch;
        for (int i = 0; i < count && !env.fault_occurred; i++) {
            xmlrpc_client_start_rpc(&env, client, endpoint, "echo", params, _asyncDelivered, &batch);
            if (!env.fault_occurred) batch.outstanding++;
        }
        xmlrpc_client_event_loop_finish(client);
        if (env.fault_occurred || batch.failures || batch.outstanding) {
            state.SkipWithError("xmlrpc-c asynchronous calls failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * count);
    if (params) xmlrpc_DECREF(params);
    if (endpoint) xmlrpc_server_info_free(endpoint);
    if (client) xmlrpc_client_destroy(client);
    xmlrpc_client_teardown_global_const();
    xmlrpc_env_clean(&env);
}
BENCHMARK(BM_XmlrpcC_AsyncInFlight)->Arg(32)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
