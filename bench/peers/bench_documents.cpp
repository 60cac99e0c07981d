// Writes the benchmark documents into a directory, for the peers that are not C++ programs
// (python_xmlrpc_peer.py): xmlrpc_reply.xml, soap_reply.xml, soap_multiref_reply.xml.
#include "BenchSupport.h"

#include <cstdio>
#include <string>

static bool writeFile(const std::string &path, const std::string &bytes) {
    FILE *file = std::fopen(path.c_str(), "wb");
    bool ok = file && std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    if (file) ok = std::fclose(file) == 0 && ok;
    return ok;
}

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: bench_documents DIRECTORY\n");
        return 2;
    }
    std::string directory = argv[1];
    bool ok = writeFile(directory + "/xmlrpc_reply.xml", hvbench::xmlrpcReplyDocument()) &&
              writeFile(directory + "/soap_reply.xml", hvbench::soapReplyDocument(false)) &&
              writeFile(directory + "/soap_multiref_reply.xml", hvbench::soapReplyDocument(true));
    if (!ok) std::perror(argv[1]);
    return ok ? 0 : 1;
}
