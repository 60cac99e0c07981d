#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace hvtest {

Child::Child(const std::vector<std::string> &argv) {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    std::vector<char *> args;
    for (const std::string &arg : argv)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    if (posix_spawnp(&fPid, args[0], &actions, nullptr, args.data(), environ) != 0) fPid = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    fOut = out[0];
    fErr = err[0];
}

Child::~Child() {
    if (fPid > 0) {
        kill(fPid, SIGKILL);
        waitpid(fPid, nullptr, 0);
    }
    if (fOut >= 0) close(fOut);
    if (fErr >= 0) close(fErr);
}

std::string Child::firstLine(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (fFinished.out.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline)
        if (!pump(100)) break;
    size_t end = fFinished.out.find('\n');
    return end == std::string::npos ? std::string() : fFinished.out.substr(0, end);
}

Finished Child::finish(int sig, std::chrono::milliseconds timeout) {
    if (sig && fPid > 0) kill(fPid, sig);
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline && pump(100)) {
    }
    if (fPid > 0) {
        int status = 0;
        if (waitpid(fPid, &status, WNOHANG) == 0) { // still running after the time limit
            kill(fPid, SIGKILL);
            waitpid(fPid, &status, 0);
        }
        fFinished.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        fPid = -1;
    }
    return fFinished;
}

// Moves what is available into the buffers; false once both pipes have ended.
bool Child::pump(int timeoutMs) {
    if (fOut < 0 && fErr < 0) return false;
    pollfd fds[2] = {{fOut, POLLIN, 0}, {fErr, POLLIN, 0}};
    if (poll(fds, 2, timeoutMs) <= 0) return true;
    std::string *sinks[2] = {&fFinished.out, &fFinished.err};
    int *ends[2] = {&fOut, &fErr};
    for (int i = 0; i < 2; i++) {
        if (!(fds[i].revents & (POLLIN | POLLHUP))) continue;
        char buffer[4096];
        ssize_t got = read(fds[i].fd, buffer, sizeof buffer);
        if (got > 0) {
            sinks[i]->append(buffer, size_t(got));
        } else {
            close(*ends[i]);
            *ends[i] = -1;
        }
    }
    return fOut >= 0 || fErr >= 0;
}

Finished run(const std::vector<std::string> &argv) {
    return Child(argv).finish();
}

} // namespace hvtest
