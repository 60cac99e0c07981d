// PythonPeer: a Python 3 server script from tests/support run as a child process, for the
// interoperability tests (xmlrpc_server.py, spyne_server.py). Owns the child process.
//
// Contract:
// - The script binds 127.0.0.1 at a port of its own choosing and prints "PORT <n>" as the first
//   line of its standard output once it accepts connections.
// - The constructor starts the script and waits up to 30 seconds for that line. When it does not
//   come (no interpreter, a missing module, a crash), ready() is false, error() says why with
//   the script's standard error, and the child is already gone. The constructor never throws.
// - The destructor sends SIGTERM, waits up to two seconds, then SIGKILL, and always reaps.
// - The interpreter is $HV_PYTHON, else /usr/bin/python3 (the system's, where Debian's modules
//   such as spyne live) when present, else python3 on PATH. A script name without '/' is looked
//   up in $HV_SOURCE_DIR/tests/support (the build's source tree when unset).
#ifndef HV_TESTS_SUPPORT_PYTHONPEER_H
#define HV_TESTS_SUPPORT_PYTHONPEER_H

#include "ChildProcess.h"

#include <cstdint>
#include <string>
#include <vector>

namespace hvtest {

class PythonPeer {
  public:
    explicit PythonPeer(const std::string &script, const std::vector<std::string> &arguments = {});
    ~PythonPeer();
    PythonPeer(const PythonPeer &) = delete;
    PythonPeer &operator=(const PythonPeer &) = delete;

    bool ready() const { return fPort != 0; }
    const std::string &error() const { return fError; }
    uint16_t port() const { return fPort; }
    // "http://127.0.0.1:<port>" followed by path.
    std::string url(const std::string &path = "/") const;

    static std::string interpreter();

  private:
    Child fChild;
    uint16_t fPort = 0;
    std::string fError;
};

} // namespace hvtest

#endif
