// Server: the embeddable server behind HVServerRef. Holds the method registry and the
// properties, owns the listening socket, the libmicrohttpd daemon (epoll, a pool of network
// threads) and the pool of threads that run the methods.
//
// Threads: registration and properties are set on one thread before start() and read-only
// after. The network threads run libmicrohttpd's callbacks (Server.cpp); a request whose body is
// complete is queued, its connection suspended, and a method thread serves it (serve() in
// ServerDispatch.cpp) and resumes the connection with the reply. stop() may come from any
// thread; the state and the queue are guarded by their locks.
#pragma once

#include <HalvosCore/HalvosCore.h>

#include "CPlusRtObject.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

struct MHD_Daemon;
struct MHD_Connection;

namespace hvserver {

// Fault codes, after the usual XML-RPC server conventions.
enum : int32_t {
    eFaultParse = -32700,
    eFaultUnknownMethod = -32601,
    eFaultBadParameters = -32602,
    eFaultInternal = -32603,
};

// What a path serves: one protocol family, or both (told apart by the root element).
enum class Dialect { eXMLRPC, eSOAP, eEither };

// A reply document and what the request log needs to know about it.
struct ServedReply {
    unsigned fStatus = 200; // 200, or 500 for a SOAP fault or a reply that could not be written
    std::string fBody;
    std::string fMethod; // the method called; empty when the request did not parse
    bool fFault = false;
};

// A registered method: its procedure, context (retained through its callbacks), help and
// signature (retained), and the signature as type names for the checks.
struct Method {
    Method() = default;
    Method(const Method &) = delete;
    Method &operator=(const Method &) = delete;
    ~Method();

    HVServerMethodProcPtr fProc = nullptr;
    HVClientContext fContext{};
    RtStringRef fHelp = nullptr;
    RtArrayRef fSignature = nullptr;
    std::vector<std::vector<std::string>> fTypes; // each: result type, then parameter types
};

// What a method produced: exactly one of the two is set; both are new references.
struct Outcome {
    RtTypeRef fValue = nullptr;
    RtDictionaryRef fFault = nullptr;
};

struct Request; // one HTTP request between libmicrohttpd's calls (Server.cpp)

class Server {
  public:
    explicit Server(HVServerRef handle) : fHandle(handle) {}
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    bool addMethod(RtStringRef name, HVServerMethodProcPtr proc, const HVClientContext *context,
                   RtStringRef help, RtArrayRef signature);
    bool setAuthentication(HVServerAuthenticationProcPtr proc, const HVClientContext *context);
    bool setProperty(RtStringRef key, RtTypeRef value);
    // On failure error holds the reason and code an errno value (or -1).
    bool listen(const std::string &address, uint16_t port, std::string &error, int &code);
    bool start(std::string &error, int &code);
    uint16_t port() const { return fPort; }
    void stop() noexcept;

    // Reads body as a request of dialect, runs the method, writes the reply (ServerDispatch.cpp).
    ServedReply serve(Dialect dialect, const std::string &body);

    // ---- for libmicrohttpd's callbacks (Server.cpp) ----
    struct Options {
        std::string fXMLRPCPath = "/RPC2";
        std::string fSOAPPath = "/soap";
        unsigned fThreads = 8;
        size_t fMaxQueued = 1024;
        uint64_t fMaxBody = 1 << 20;
        unsigned fMaxConnections = 10000;
        unsigned fMaxPerAddress = 2000;
        size_t fMaxHead = 16384;
        unsigned fIdleTimeout = 30;
        unsigned fRequestTimeout = 60;
        bool fLog = false;
        bool fHasIndex = false;
        std::string fIndexText;
        std::string fCertificate, fKey;
        std::string fRealm = "HalvosCore";
        // Exact values both ways, and the XML-RPC extension elements read (and written in
        // replies to requests that used them): what hvserve has always done.
        bool fExact = true;
        bool fExtensions = true;
    };
    const Options &options() const { return fOptions; }
    bool authenticate(const char *user, const char *password, const std::string &path);
    bool hasAuthentication() const { return fAuthProc != nullptr; }
    // Queues req for a method thread; false when the queue is full or the server stops.
    bool enqueue(Request *req);
    void requestCompleted(Request *req);

    // The request deadline (Server.cpp): every connection's current request is timed from the
    // moment the connection is ready for it (accepted, or its previous request completed) until
    // it has arrived whole; a sweeping thread cuts the ones past the deadline.
    void connectionStarted(MHD_Connection *connection);
    void connectionClosed(MHD_Connection *connection);
    void requestBegun(MHD_Connection *connection);    // its request line is in
    void requestAnswered(MHD_Connection *connection); // an answer is queued (maybe before the body)
    void requestArrived(MHD_Connection *connection);  // head and body are in: the deadline is met
    void requestEnded(MHD_Connection *connection);    // the connection waits for its next request

  private:
    Outcome callMethod(RtStringRef name, RtDictionaryRef params, RtArrayRef order, RtStringRef protocol,
                       int depth);
    Outcome callRegistered(const std::string &name, const Method &method, RtStringRef nameString,
                           RtDictionaryRef params, RtArrayRef order, RtStringRef protocol);
    Outcome systemMethod(const std::string &name, RtDictionaryRef params, RtArrayRef order,
                         RtStringRef protocol, int depth);
    Outcome multicall(RtTypeRef calls, RtStringRef protocol, int depth);
    void workerLoop();
    void finishStop();
    void warmUp();
    void sweepLoop();
    void stopSweeping();

    enum class State { eIdle, eRunning, eStopping, eStopped };

    HVServerRef fHandle; // the runtime object that owns this server
    Options fOptions;
    std::map<std::string, Method> fMethods;
    HVServerAuthenticationProcPtr fAuthProc = nullptr;
    HVClientContext fAuthContext{};

    int fListenSocket = -1;
    uint16_t fPort = 0;
    MHD_Daemon *fDaemon = nullptr;

    std::mutex fStopLock; // held by stop() and start(): one of them at a time
    std::mutex fLock;     // guards everything below
    std::condition_variable fWake;
    State fState = State::eIdle;
    std::deque<Request *> fQueue;
    size_t fBusy = 0;       // requests a method thread is serving
    size_t fDispatched = 0; // requests queued or served whose reply is not yet sent
    bool fDraining = false; // stop() began: queued requests get 503
    std::vector<std::thread> fWorkers;

    // What the deadline needs to know of a connection.
    struct Arrival {
        double fSince = 0; // when the connection became ready for its current request
        int fFd = -1;
        bool fArriving = true;  // the request is not yet in whole
        bool fBegun = false;    // its request line is in
        bool fAnswered = false; // an answer is queued: cut without one of our own
        bool fCut = false;
    };
    std::mutex fArrivalLock; // guards fArrivals and fSweeping
    std::condition_variable fSweepWake;
    std::unordered_map<MHD_Connection *, Arrival> fArrivals;
    bool fSweeping = false;
    std::thread fSweeper;
};

} // namespace hvserver

// The object behind HVServerRef; owns one server.
struct OpaqueHVServerRef : public CPlusRtObject {
  public:
    OpaqueHVServerRef() : fImpl(nullptr) {}
    hvserver::Server *getImpl() const { return fImpl; }

    static RtTypeID getTypeID() { return ensureTypeID(&sRT, &sID); }
    static HVServerRef create();
    static hvserver::Server *implOf(HVServerRef ref);
    static void _rtDealloc(RtTypeRef obj);

  private:
    hvserver::Server *fImpl;
    static const RtRuntimeClass sRT;
    static RtTypeID sID;
};
