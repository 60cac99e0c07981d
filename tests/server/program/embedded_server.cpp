// The C++ twin of examples/embedded_server.c: the same three methods on hv::Server, as typed
// lambdas. Prints the port on the first line, serves until SIGINT or SIGTERM.
#include <HalvosCore/HalvosCore.hpp>

#include <climits>
#include <csignal>
#include <cstdio>
#include <pthread.h>

int main() {
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    hv::Server server;
    server.add(
        "examples.add",
        [](int a, int b) {
            long long sum = (long long)a + b;
            if (sum < INT32_MIN || sum > INT32_MAX)
                throw hv::Fault(-32602, "examples.add: the sum does not fit in 32 bits");
            return int(sum);
        },
        "Adds two integers.");
    server.add(
        "examples.echo", [](hv::Value value) { return value; }, "Returns its parameter.");
    server.add(
        "examples.fail", []() -> int { throw hv::Fault(7, "examples.fail failed on purpose"); },
        "Always fails.");
    server.listen(0).start();
    printf("%u\n", unsigned(server.port()));
    fflush(stdout);
    int received = 0;
    sigwait(&stopSignals, &received);
    server.stop();
    return 0;
}
