// ToolProcess: the tools and examples run as child processes, for ToolsTests and SoakTests.
// Server starts hvserve --port 0 and reads its port; its destructor stops it with SIGTERM and
// expects a clean exit (status 0), so every test also checks hvserve's shutdown.
#ifndef HV_TESTS_TOOLS_TOOLPROCESS_H
#define HV_TESTS_TOOLS_TOOLPROCESS_H

#include "ChildProcess.h"

#include <cstdint>
#include <string>
#include <vector>

namespace hvtest {

// The path of a built tool ("hvcall") or example ("sync_call").
std::string toolPath(const std::string &name);
std::string examplePath(const std::string &name);

// Runs hvcall with args.
Finished hvcall(std::vector<std::string> args);

class Server {
  public:
    explicit Server(std::vector<std::string> extra = {});
    ~Server();
    uint16_t port() const { return fPort; }
    // "http://127.0.0.1:<port>" followed by path.
    std::string url(const std::string &path) const;

  private:
    Child fChild;
    uint16_t fPort = 0;
};

inline bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

} // namespace hvtest

#endif
