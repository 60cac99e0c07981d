#include "PythonPeer.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace hvtest {

namespace {

// The full path of a script in tests/support.
std::string scriptPath(const std::string &name) {
    if (name.find('/') != std::string::npos) return name;
    const char *source = getenv("HV_SOURCE_DIR");
    std::string root = source && *source ? source : HV_SOURCE_DIR;
    return root + "/tests/support/" + name;
}

std::vector<std::string> peerArguments(const std::string &script, const std::vector<std::string> &arguments) {
    std::vector<std::string> argv = {PythonPeer::interpreter(), "-u", scriptPath(script)};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
}

} // namespace

std::string PythonPeer::interpreter() {
    if (const char *chosen = getenv("HV_PYTHON"); chosen && *chosen) return chosen;
    return access("/usr/bin/python3", X_OK) == 0 ? "/usr/bin/python3" : "python3";
}

PythonPeer::PythonPeer(const std::string &script, const std::vector<std::string> &arguments)
    : fChild(peerArguments(script, arguments)) {
    std::string line = fChild.firstLine();
    int port = 0;
    if (std::sscanf(line.c_str(), "PORT %d", &port) == 1 && port > 0 && port < 65536)
        fPort = uint16_t(port);
    else
        fError = scriptPath(script) + ": no port line (\"" + line +
                 "\"): " + fChild.finish(SIGKILL, std::chrono::seconds(2)).err;
}

PythonPeer::~PythonPeer() {
    fChild.finish(SIGTERM, std::chrono::seconds(2));
}

std::string PythonPeer::url(const std::string &path) const {
    return "http://127.0.0.1:" + std::to_string(fPort) + path;
}

} // namespace hvtest
