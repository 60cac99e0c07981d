// async_calls.cpp: several calls in flight at once on the caller's own run loop.
//
//   async_calls_cpp [URL]     (default http://127.0.0.1:8080/RPC2, an hvserve)
//
// Each callAsync starts a call on the current thread's run loop and returns at once; the callback
// runs on that loop when the call has ended. client.wait() runs the loop until every call has
// come back, so the two half-second sleeps take about half a second together. A std::future form
// (client.callAsync<T>(method, args...)) runs the calls on a thread of the client's own instead.
#include <HalvosCore/HalvosCore.hpp>

#include <chrono>
#include <cstdio>
#include <string>

int main(int argc, char **argv) {
    hv::Client client{argc > 1 ? argv[1] : "http://127.0.0.1:8080/RPC2"};
    client.setTimeout(std::chrono::seconds(10)); // without one, a call waits as long as the connection lasts
    int failed = 0;
    // Prints what came back, whatever its type, or why nothing did.
    auto print = [&failed](const char *label) {
        return [label, &failed](hv::Result<hv::Value> result) {
            std::string text = !result ? (failed = 1, result.error()->what())
                               : result.value().kind() == hv::Value::Kind::String
                                   ? result.value().as<std::string>()
                                   : result.value().description();
            std::printf("%-22s %s\n", label, text.c_str());
        };
    };
    client.callAsync(print("examples.add(2, 40)"), "examples.add", 2, 40);
    client.callAsync(print("examples.echo(hello)"), "examples.echo", "hello");
    client.callAsync(print("examples.sleep(0.5)"), "examples.sleep", 0.5);
    client.callAsync(print("examples.sleep(0.5)"), "examples.sleep", 0.5);
    client.wait(); // every call ends in its callback, a fault at the latest when its time-out passes
    return failed;
}
