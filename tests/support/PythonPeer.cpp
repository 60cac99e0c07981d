#include "PythonPeer.h"
#include "SupportSocket.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char **environ;

namespace hvtest {

namespace {

// Starts argv[0] with its standard output on outputFd (or inherited when -1); -1 on failure.
pid_t spawnWithOutput(const std::vector<std::string> &argv, int outputFd, std::string &error) {
    std::vector<char *> args;
    for (const std::string &arg : argv)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (outputFd >= 0) posix_spawn_file_actions_adddup2(&actions, outputFd, STDOUT_FILENO);
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        error = "cannot start " + argv[0] + ": " + strerror(rc);
        return -1;
    }
    return pid;
}

} // namespace

std::string PythonPeer::interpreter() {
    if (const char *chosen = getenv("HV_PYTHON"); chosen && *chosen) return chosen;
    return access("/usr/bin/python3", X_OK) == 0 ? "/usr/bin/python3" : "python3";
}

std::string PythonPeer::scriptPath(const std::string &name) {
    if (name.find('/') != std::string::npos) return name;
    const char *source = getenv("HV_SOURCE_DIR");
    std::string root = source && *source ? source : HV_SOURCE_DIR;
    return root + "/tests/support/" + name;
}

bool PythonPeer::hasModule(const std::string &module) {
    std::string error;
    pid_t pid = spawnWithOutput({interpreter(), "-c", "import " + module}, -1, error);
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

PythonPeer::PythonPeer(const std::string &script, const std::vector<std::string> &arguments,
                       std::chrono::milliseconds startTimeout) {
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        fError = std::string("pipe2: ") + strerror(errno);
        return;
    }
    std::vector<std::string> argv = {interpreter(), "-u", scriptPath(script)};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    fPid = spawnWithOutput(argv, pipeFds[1], fError);
    close(pipeFds[1]);
    fOutput = pipeFds[0];
    if (fPid < 0) return;

    // The first line is "PORT <n>"; end of file before it means the script died.
    std::string line;
    auto deadline = std::chrono::steady_clock::now() + startTimeout;
    while (line.find('\n') == std::string::npos) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        long n = left.count() > 0 ? readSome(fOutput, line, -1, int(left.count())) : -1;
        if (n <= 0) {
            fError = n == 0 ? "the script exited before printing its port"
                            : "no port line within " + std::to_string(startTimeout.count()) + " ms";
            break;
        }
    }
    if (fError.empty()) {
        int port = 0;
        if (std::sscanf(line.c_str(), "PORT %d", &port) == 1 && port > 0 && port < 65536)
            fPort = uint16_t(port);
        else
            fError = "unexpected first line: " + line.substr(0, line.find('\n'));
    }
    if (!fError.empty()) {
        fError = argv[2] + ": " + fError;
        stop();
    }
}

PythonPeer::~PythonPeer() {
    stop();
}

std::string PythonPeer::url(const std::string &path) const {
    return "http://127.0.0.1:" + std::to_string(fPort) + path;
}

void PythonPeer::stop() {
    if (fPid > 0) {
        kill(fPid, SIGTERM);
        int status = 0;
        bool reaped = false;
        for (int waited = 0; waited < 2000 && !reaped; waited += 10) {
            reaped = waitpid(fPid, &status, WNOHANG) == fPid;
            if (!reaped) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (!reaped) {
            kill(fPid, SIGKILL);
            waitpid(fPid, &status, 0);
        }
        fPid = -1;
    }
    if (fOutput >= 0) close(fOutput);
    fOutput = -1;
    fPort = 0;
}

} // namespace hvtest
