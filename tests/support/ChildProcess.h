// ChildProcess: a program run as a child process with its standard output and error on pipes,
// for the tools' tests, the Python peers and the Python codec of the interoperability tests.
// Owns the child process and the read ends of its pipes; used from one thread.
//
// Contract:
// - Child starts argv[0] (a path, or a name looked up in PATH). firstLine() waits for the first
//   line of standard output; finish() (optionally after a signal) collects the rest and the exit
//   status, killing the child when it outlives the time limit. The destructor kills and reaps.
#ifndef HV_TESTS_SUPPORT_CHILDPROCESS_H
#define HV_TESTS_SUPPORT_CHILDPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace hvtest {

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

} // namespace hvtest

#endif
