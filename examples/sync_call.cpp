// sync_call.cpp: one synchronous XML-RPC call, examples.add(2, 3), to URL (default: hvserve's).
#include <HalvosCore/HalvosCore.hpp>
#include <iostream>

int main(int argc, char **argv) try {
    hv::Client client{argc > 1 ? argv[1] : "http://127.0.0.1:8080/RPC2"};
    std::cout << "2 + 3 = " << client.call<int>("examples.add", 2, 3) << "\n";
    return 0;
} catch (const hv::Error &error) { // a fault, a transport error, or a reply that is no int
    std::cerr << error.what() << "\n";
    return 1;
}
