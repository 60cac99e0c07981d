// Dictionary set and get with string keys, beside std::unordered_map<std::string, const void *>
// doing the same work in the same run. Keys look like the member names documents carry.
// Set: build a map of N keys from prepared keys, then free it. Get: look up every key of a
// map of N keys with key objects equal to, but distinct from, the ones inserted (as a reader's
// parsed names meet a writer's constants), and with the inserted objects themselves.
#include <RtCore/RtCore.h>

#include <benchmark/benchmark.h>

#include <string>
#include <unordered_map>
#include <vector>

namespace {

std::vector<std::string> keyTexts(size_t n) {
    std::vector<std::string> keys;
    for (size_t i = 0; i < n; i++)
        keys.push_back("memberName" + std::to_string(i * 7919 % 100003));
    return keys;
}

// RtCore's side of one benchmark: keys, a second set of equal key objects, and values.
struct RtFixture {
    explicit RtFixture(size_t n) {
        for (const std::string &k : keyTexts(n)) {
            keys.push_back(RtStringCreateWithCString(nullptr, k.c_str(), kRtStringEncodingUTF8));
            probes.push_back(RtStringCreateWithCString(nullptr, k.c_str(), kRtStringEncodingUTF8));
            int v = int(values.size()) + 1000;
            values.push_back(RtNumberCreate(nullptr, kRtNumberIntType, &v));
        }
    }
    ~RtFixture() {
        for (auto *list : {&keys, &probes, &values})
            for (RtTypeRef v : *list)
                RtRelease(v);
    }
    RtMutableDictionaryRef build() const {
        RtMutableDictionaryRef d = RtDictionaryCreateMutable(nullptr, 0, &kRtTypeDictionaryKeyCallBacks,
                                                             &kRtTypeDictionaryValueCallBacks);
        for (size_t i = 0; i < keys.size(); i++)
            RtDictionarySetValue(d, keys[i], values[i]);
        return d;
    }
    std::vector<RtTypeRef> keys, probes, values;
};

using StdMap = std::unordered_map<std::string, const void *>;

StdMap buildStd(const std::vector<std::string> &keys) {
    StdMap m;
    for (const std::string &k : keys)
        m[k] = &k;
    return m;
}

void BM_UnorderedMapSet(benchmark::State &state) {
    std::vector<std::string> keys = keyTexts(size_t(state.range(0)));
    for (auto _ : state) {
        StdMap m = buildStd(keys);
        benchmark::DoNotOptimize(m);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_UnorderedMapSet)->Arg(8)->Arg(64)->Arg(1024)->Arg(16384);

void BM_RtDictionarySet(benchmark::State &state) {
    RtFixture f(size_t(state.range(0)));
    for (auto _ : state) {
        RtMutableDictionaryRef d = f.build();
        benchmark::DoNotOptimize(d);
        RtRelease(d);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_RtDictionarySet)->Arg(8)->Arg(64)->Arg(1024)->Arg(16384);

void BM_UnorderedMapGet(benchmark::State &state) {
    std::vector<std::string> keys = keyTexts(size_t(state.range(0)));
    StdMap m = buildStd(keys);
    std::vector<std::string> probes = keys;
    for (auto _ : state) {
        for (const std::string &k : probes)
            benchmark::DoNotOptimize(m.find(k)->second);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_UnorderedMapGet)->Arg(8)->Arg(64)->Arg(1024)->Arg(16384);

// Looks up every key of a dictionary of state.range(0) keys, with the probes or the keys.
void lookUpAll(benchmark::State &state, bool sameObjects) {
    RtFixture f(size_t(state.range(0)));
    RtMutableDictionaryRef d = f.build();
    const std::vector<RtTypeRef> &lookups = sameObjects ? f.keys : f.probes;
    for (auto _ : state) {
        for (RtTypeRef k : lookups)
            benchmark::DoNotOptimize(RtDictionaryGetValue(d, k));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    RtRelease(d);
}

void BM_RtDictionaryGet(benchmark::State &state) {
    lookUpAll(state, false);
}
BENCHMARK(BM_RtDictionaryGet)->Arg(8)->Arg(64)->Arg(1024)->Arg(16384);

void BM_RtDictionaryGetSameObjects(benchmark::State &state) {
    lookUpAll(state, true);
}
BENCHMARK(BM_RtDictionaryGetSameObjects)->Arg(8)->Arg(64)->Arg(1024)->Arg(16384);

} // namespace

BENCHMARK_MAIN();
