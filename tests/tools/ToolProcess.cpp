#include "ToolProcess.h"

#include <gtest/gtest.h>

#include <signal.h>

namespace hvtest {

namespace {

std::string binaryDir() {
    const char *dir = getenv("HV_BINARY_DIR");
    return dir && *dir ? dir : HV_BINARY_DIR;
}

std::vector<std::string> serverArguments(std::vector<std::string> extra) {
    extra.insert(extra.begin(), {toolPath("hvserve"), "--port", "0"});
    return extra;
}

} // namespace

std::string toolPath(const std::string &name) {
    return binaryDir() + "/tools/" + name;
}
std::string examplePath(const std::string &name) {
    return binaryDir() + "/examples/" + name;
}

Finished hvcall(std::vector<std::string> args) {
    args.insert(args.begin(), toolPath("hvcall"));
    return run(args);
}

Server::Server(std::vector<std::string> extra) : fChild(serverArguments(std::move(extra))) {
    fPort = uint16_t(std::atoi(fChild.firstLine().c_str()));
}

Server::~Server() {
    Finished finished = fChild.finish(SIGTERM, std::chrono::seconds(30));
    EXPECT_EQ(finished.status, 0) << "hvserve did not stop cleanly: " << finished.err;
}

std::string Server::url(const std::string &path) const {
    return "http://127.0.0.1:" + std::to_string(fPort) + path;
}

} // namespace hvtest
