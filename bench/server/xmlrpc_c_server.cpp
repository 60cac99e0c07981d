// xmlrpc-c's own HTTP server (Abyss) answering the methods the server benchmark calls on every
// server: examples.add(int, int) and examples.echo(value). Prints the port on the first line.
// usage: xmlrpc_c_server PORT
#include <xmlrpc-c/base.hpp>
#include <xmlrpc-c/registry.hpp>
#include <xmlrpc-c/server_abyss.hpp>

#include <cstdio>
#include <cstdlib>

namespace {

class Add : public xmlrpc_c::method {
  public:
    void execute(const xmlrpc_c::paramList &params, xmlrpc_c::value *result) override {
        int a = params.getInt(0), b = params.getInt(1);
        params.verifyEnd(2);
        *result = xmlrpc_c::value_int(a + b);
    }
};

class Echo : public xmlrpc_c::method {
  public:
    void execute(const xmlrpc_c::paramList &params, xmlrpc_c::value *result) override { *result = params[0]; }
};

} // namespace

int main(int argc, char **argv) {
    int port = argc > 1 ? std::atoi(argv[1]) : 8081;
    xmlrpc_c::registry registry;
    registry.addMethod("examples.add", xmlrpc_c::methodPtr(new Add));
    registry.addMethod("examples.echo", xmlrpc_c::methodPtr(new Echo));
    xmlrpc_c::serverAbyss server(
        xmlrpc_c::serverAbyss::constrOpt().registryP(&registry).portNumber(port).keepaliveMaxConn(1000000));
    std::printf("%d\n", port);
    std::fflush(stdout);
    server.run();
    return 0;
}
