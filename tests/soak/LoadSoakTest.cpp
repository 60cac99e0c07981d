// Load and soak over loopback against hvserve, started and stopped by the test: eight threads,
// each with its own run loop, calling at once in a mix of XML-RPC and both SOAP flavours,
// synchronous and asynchronous; then a long run of sequential calls while the process's resident
// memory is sampled. Every call must come back intact, no runtime object may be left behind,
// and memory must stop growing once the first thousand calls have warmed everything up.
//
// Counts: the full ones (1,000 calls per thread, 20,000 in sequence) under ./hv test --long,
// which sets HV_TEST_LONG=1; a tenth of them otherwise, to keep the ordinary run short.
#include "ToolProcess.h"
#include "TransportHarness.h"

#include <HalvosCore/HalvosCore.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// ASan keeps freed memory in a quarantine of up to 256 MB before reusing it, which would read as
// growth; a small one lets the resident set show what the library really keeps.
extern "C" const char *__asan_default_options() {
    return "quarantine_size_mb=4";
}

using namespace hvit;

namespace {

bool longRun() {
    const char *value = std::getenv("HV_TEST_LONG");
    return value && *value && std::strcmp(value, "0") != 0;
}

// The process's resident set in bytes, from /proc/self/statm.
long residentBytes() {
    long pages = 0, resident = 0;
    FILE *statm = std::fopen("/proc/self/statm", "r");
    if (statm) {
        if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(statm);
    }
    return resident * sysconf(_SC_PAGESIZE);
}

struct CallKind {
    RtStringRef protocol;
    Road road;
};

// The mix every thread and the sequential run go through in turn. Built on first use: the
// protocol constants are set up when the library initialises, after this file's own statics.
const CallKind &callKind(int i) {
    static const CallKind sMix[] = {
        {kHVXMLRPCProtocol, Road::eSync},
        {kHVSOAP2001Protocol, Road::eAsync},
        {kHVXMLRPCProtocol, Road::eAsync},
        {kHVSOAP1999Protocol, Road::eSync},
    };
    return sMix[i % 4];
}

// Calls examples.echo(text) on server; "" when the text came back intact, once, else what went
// wrong. SOAP's result is the dictionary of the reply's return elements, each also at the top of
// the result (hvserve names its one "Result").
std::string echoOnce(const std::string &base, const CallKind &kind, const std::string &text) {
    bool xmlrpc = kind.protocol == kHVXMLRPCProtocol;
    Owned value = S(text.c_str());
    Outcome outcome = Invocation(base + (xmlrpc ? "/RPC2" : "/soap"), "examples.echo", kind.protocol)
                          .param("value", value)
                          .run(kind.road, 0);
    RtTypeRef echoed = outcome.value(xmlrpc ? kHVMethodInvocationResult : RTSTR("Result"));
    if (outcome.callbacks == 1 && !outcome.isFault() && echoed && RtEqual(echoed, value.get())) return "";
    return std::to_string(outcome.callbacks) + " results, " + xmlrpctest::describe(outcome.result.get());
}

// Failures seen by any thread: how many, and the first one's story.
struct Failures {
    std::mutex lock;
    int count = 0;
    std::string first;

    void add(const std::string &what) {
        std::lock_guard<std::mutex> hold(lock);
        if (count++ == 0) first = what;
    }
};

// The first calls of the process fill caches that live for good (each thread's run loop, the
// User-Agent text, the protocols' tables); warm them before counting objects.
void warmUp(const std::string &base) {
    for (int i = 0; i < 4; i++)
        ASSERT_EQ(echoOnce(base, callKind(i), "warm"), "") << "call kind " << i;
}

} // namespace

TEST(Load, EightThreadsEachWithItsOwnRunLoop) {
    hvtest::Server server;
    ASSERT_NE(server.port(), 0);
    const std::string base = server.url("");
    warmUp(base);
    const int kThreads = 8, kCalls = longRun() ? 1000 : 100;
    long liveBefore = RtRuntimeGetLiveObjectCount();

    Failures failures;
    std::atomic<int> done{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kCalls; i++) {
                const CallKind &kind = callKind(t + i);
                std::string text = "thread " + std::to_string(t) + " call " + std::to_string(i) + " <&>";
                std::string problem = echoOnce(base, kind, text);
                if (!problem.empty()) failures.add(text + ": " + problem);
                done++;
            }
        });
    for (std::thread &thread : threads)
        thread.join();

    EXPECT_EQ(done.load(), kThreads * kCalls);
    EXPECT_EQ(failures.count, 0) << failures.first;
    EXPECT_EQ(RtRuntimeGetLiveObjectCount(), liveBefore) << "runtime objects left behind";
}

TEST(Soak, SequentialCallsKeepMemoryFlat) {
    hvtest::Server server;
    ASSERT_NE(server.port(), 0);
    const std::string base = server.url("");
    warmUp(base);
    const int kCalls = longRun() ? 20000 : 2000, kSampleEvery = 1000;
    long liveBefore = RtRuntimeGetLiveObjectCount();

    Failures failures;
    long afterFirstThousand = 0, last = 0;
    for (int i = 1; i <= kCalls; i++) {
        std::string text = "call " + std::to_string(i);
        std::string problem = echoOnce(base, callKind(i), text);
        if (!problem.empty()) failures.add(text + ": " + problem);
        if (i % kSampleEvery == 0) {
            last = residentBytes();
            if (i == kSampleEvery) afterFirstThousand = last;
            std::cout << "soak: " << i << " calls, resident " << last / 1024 << " KiB" << std::endl;
        }
    }
    EXPECT_EQ(failures.count, 0) << failures.first;
    EXPECT_EQ(RtRuntimeGetLiveObjectCount(), liveBefore) << "runtime objects left behind";
    ASSERT_GT(afterFirstThousand, 0);
    EXPECT_LE(last, afterFirstThousand + afterFirstThousand / 20)
        << "resident memory grew from " << afterFirstThousand << " to " << last << " bytes";
}
