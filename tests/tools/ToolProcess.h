// ToolProcess: the tools and examples run as child processes, for ToolsTests.
// Owns the child process and the read ends of its standard output and error.
//
// Contract:
// - Child starts argv[0] (a path) with its output on pipes. firstLine() waits for the first line
//   of standard output; finish() (optionally after a signal) collects the rest and the exit
//   status, killing the child when it outlives the time limit. The destructor kills and reaps.
// - Server starts hvserve --port 0 and reads its port; its destructor stops it with SIGTERM and
//   expects a clean exit (status 0), so every test also checks hvserve's shutdown.
#ifndef HV_TESTS_TOOLS_TOOLPROCESS_H
#define HV_TESTS_TOOLS_TOOLPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace hvtest {

// The path of a built tool ("hvcall") or example ("sync_call").
std::string toolPath(const std::string &name);
std::string examplePath(const std::string &name);

struct Finished {
    int status = -1; // exit status, or -1 when killed or not started
    std::string out, err;
};

class Child {
  public:
    explicit Child(const std::vector<std::string> &argv);
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    // The first line of standard output without its line feed; "" on end or time-out.
    std::string firstLine(std::chrono::milliseconds timeout = std::chrono::seconds(30));
    // Sends sig (unless 0), then collects the rest of the output and the exit status.
    Finished finish(int sig = 0, std::chrono::milliseconds timeout = std::chrono::seconds(60));

  private:
    bool pump(int timeoutMs);

    pid_t fPid = -1;
    int fOut = -1, fErr = -1;
    Finished fFinished;
};

// Runs argv to its end.
Finished run(const std::vector<std::string> &argv);
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
