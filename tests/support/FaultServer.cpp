#include "FaultServer.h"

namespace hvtest {

const char *const kFaultReplyBody = "<?xml version=\"1.0\"?>\n"
                                    "<methodResponse><params><param><value><string>fault server says hello"
                                    "</string></value></param></params></methodResponse>\n";

namespace {

std::string xmlHead(size_t contentLength) {
    return "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nContent-Length: " + std::to_string(contentLength) +
           "\r\n\r\n";
}

// Gives the client time to read what was sent before a reset discards it.
constexpr std::chrono::milliseconds kSettle{100};

} // namespace

FaultScript &FaultScript::add(Step step, std::string bytes, std::chrono::milliseconds interval) {
    fActions.push_back({step, std::move(bytes), interval});
    return *this;
}
FaultScript &FaultScript::readRequest() {
    return add(Step::eReadRequest);
}
FaultScript &FaultScript::send(std::string bytes) {
    return add(Step::eSend, std::move(bytes));
}
FaultScript &FaultScript::trickle(std::string bytes, std::chrono::milliseconds interval) {
    return add(Step::eTrickle, std::move(bytes), interval);
}
FaultScript &FaultScript::sleep(std::chrono::milliseconds duration) {
    return add(Step::eSleep, {}, duration);
}
FaultScript &FaultScript::close() {
    return add(Step::eClose);
}
FaultScript &FaultScript::reset() {
    return add(Step::eReset);
}
FaultScript &FaultScript::stall() {
    return add(Step::eStall);
}

FaultScript FaultScript::closeBeforeStatus() {
    return FaultScript().readRequest().close();
}

FaultScript FaultScript::resetBeforeStatus() {
    return FaultScript().readRequest().reset();
}

FaultScript FaultScript::resetMidHeaders() {
    return FaultScript()
        .readRequest()
        .send("HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nContent-Le")
        .sleep(kSettle)
        .reset();
}

FaultScript FaultScript::resetMidBody() {
    std::string body = kFaultReplyBody;
    return FaultScript()
        .readRequest()
        .send(xmlHead(body.size()) + body.substr(0, body.size() / 2))
        .sleep(kSettle)
        .reset();
}

FaultScript FaultScript::bodyLongerThanLength() {
    std::string body = kFaultReplyBody;
    return FaultScript().readRequest().send(xmlHead(body.size() / 2) + body).close();
}

FaultScript FaultScript::bodyShorterThanLength() {
    std::string body = kFaultReplyBody;
    return FaultScript().readRequest().send(xmlHead(body.size()) + body.substr(0, body.size() / 2)).close();
}

FaultScript FaultScript::brokenChunked() {
    return FaultScript()
        .readRequest()
        .send("HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nTransfer-Encoding: chunked\r\n\r\n"
              "15\r\n<?xml version=\"1.0\"?>\r\nzz-not-hex\r\n<methodResponse>\r\n0\r\n\r\n")
        .close();
}

FaultScript FaultScript::neverAnswer() {
    return FaultScript().readRequest().stall();
}

FaultScript FaultScript::garbageStatusLine() {
    return FaultScript().readRequest().send("SPLORK 42 WHAT\r\nno: headers here\r\n\r\nnonsense").close();
}

FaultScript FaultScript::slowTrickle(std::chrono::milliseconds interval) {
    std::string body = kFaultReplyBody;
    return FaultScript().readRequest().trickle(xmlHead(body.size()) + body, interval).close();
}

FaultScript FaultScript::redirectLoop(const std::string &path) {
    return FaultScript()
        .readRequest()
        .send("HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:{port}" + path +
              "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n")
        .close();
}

FaultScript FaultScript::reply(const std::string &statusAndReason, const std::string &contentType,
                               const std::string &body) {
    return FaultScript().readRequest().send(
        "HTTP/1.1 " + statusAndReason + "\r\nContent-Type: " + contentType +
        "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
}

FaultServer::FaultServer(FaultScript script) : FaultServer(std::vector<FaultScript>{std::move(script)}) {}

FaultServer::FaultServer(std::vector<FaultScript> scripts) : fScripts(std::move(scripts)) {
    if (fScripts.empty()) fScripts.push_back(FaultScript::closeBeforeStatus());
    fServer = std::make_unique<LoopbackServer>(
        [this](Socket &connection, size_t index) { run(connection, index); });
}

FaultServer::~FaultServer() {
    fServer->stop();
}

std::string FaultServer::url(const std::string &path) const {
    return "http://127.0.0.1:" + std::to_string(port()) + path;
}

std::vector<std::string> FaultServer::requests() const {
    std::lock_guard<std::mutex> hold(fLock);
    return fRequests;
}

void FaultServer::run(Socket &connection, size_t index) {
    const FaultScript &script = fScripts[std::min(index, fScripts.size() - 1)];
    const int stop = fServer->stopFd();
    const std::string portText = std::to_string(port());
    auto withPort = [&](std::string bytes) {
        for (size_t at; (at = bytes.find("{port}")) != std::string::npos;)
            bytes.replace(at, 6, portText);
        return bytes;
    };
    std::string pending;
    for (const FaultScript::Action &action : script.actions()) {
        switch (action.fStep) {
        case FaultScript::Step::eReadRequest: {
            size_t length = 0;
            if (!readHTTPMessage(connection.fd(), pending, length, stop, -1)) return;
            std::lock_guard<std::mutex> hold(fLock);
            fRequests.push_back(pending.substr(0, length));
            pending.erase(0, length);
            break;
        }
        case FaultScript::Step::eSend:
            if (!sendAll(connection.fd(), withPort(action.fBytes), stop)) return;
            break;
        case FaultScript::Step::eTrickle:
            for (char byte : withPort(action.fBytes))
                if (!sendAll(connection.fd(), std::string_view(&byte, 1), stop) ||
                    !sleepUnlessStopped(stop, action.fInterval))
                    return;
            break;
        case FaultScript::Step::eSleep:
            if (!sleepUnlessStopped(stop, action.fInterval)) return;
            break;
        case FaultScript::Step::eClose:
            closeGracefully(connection.fd(), stop);
            return;
        case FaultScript::Step::eReset:
            connection.reset();
            return;
        case FaultScript::Step::eStall:
            // Reading keeps the kernel from resetting; the stall ends when the client leaves or the server
            // stops.
            while (readSome(connection.fd(), pending, stop, -1) > 0)
                pending.clear();
            return;
        }
    }
    closeGracefully(connection.fd(), stop);
}

} // namespace hvtest
