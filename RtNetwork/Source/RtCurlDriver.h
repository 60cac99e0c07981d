// RtCurlDriver: one libcurl multi handle per thread, driven by that thread's run loop.
// Owns the multi handle (and so its connection cache), a few finished easy handles kept for
// the next transfers, one descriptor watcher per socket
// libcurl asks about, and one run-loop timer for libcurl's time-outs. The watchers and the
// timer sit in every mode in which some transfer is active ("activated" modes), so a transfer
// progresses whichever of its modes runs. Used only on the thread that made it; no locks.
// Lives while the thread's holder or any transfer holds a reference.
#pragma once

#include <RtCore/RtCore.h>

#include <curl/curl.h>

#include <string>
#include <unordered_map>
#include <vector>

namespace rt {

// What the driver tells a transfer; the easy handle's CURLOPT_PRIVATE points at it.
class CurlTransfer {
  public:
    // The easy handle has finished and has already been taken out of the multi handle.
    // Called from a watcher or timer callback, never from inside libcurl.
    virtual void transferDone(CURLcode result) = 0;

  protected:
    ~CurlTransfer() = default;
};

// A libcurl header list, shared by the transfers that send the same fields (reference counted,
// one thread). fLines holds the fields, each ended by a NUL.
struct CurlHeaderList {
    curl_slist *fList;
    std::string fLines;
    int fRefs;
};

// A URL libcurl has parsed, shared by the transfers to the same URL text (reference counted,
// one thread). libcurl only reads it: each transfer works on its own copy.
struct CurlParsedURL {
    CURLU *fHandle;
    std::string fText;
    int fRefs;
};

class CurlDriver {
  public:
    // The calling thread's driver (made on first use) with a new reference, or NULL when the
    // thread has no run loop or libcurl cannot start.
    static CurlDriver *acquireCurrent();
    void retain() { fRefs++; }
    void release();

    RtRunLoopRef runLoop() const { return fLoop; }
    // Starts easy (whose CURLOPT_PRIVATE is a CurlTransfer); false when libcurl refuses it.
    bool add(CURL *easy);
    // Stops easy before it is done; it is not reported.
    void remove(CURL *easy);
    // An easy handle with every option at its default: a finished one kept for reuse, else a
    // new one (NULL when libcurl cannot make one). Reuse saves making and freeing the handle and
    // its buffers on every request.
    CURL *takeEasy();
    // Takes back an easy handle that is out of the multi handle, for takeEasy.
    void recycleEasy(CURL *easy);
    // The header list of lines (see CurlHeaderList) with a new reference, or NULL when memory
    // runs out. The last list made is kept: calls that send the same fields (most of a client's
    // calls) share it instead of building and freeing one per request.
    CurlHeaderList *shareHeaderList(const std::string &lines);
    void releaseHeaderList(CurlHeaderList *list);
    // text parsed as libcurl parses CURLOPT_URL, with a new reference; NULL when libcurl
    // rejects it (the transfer then sets CURLOPT_URL and fails as libcurl decides) or memory
    // runs out. The last one is kept, like the header list: libcurl then copies the parts of
    // the URL instead of parsing it again for every transfer.
    CurlParsedURL *shareParsedURL(const std::string &text);
    void releaseParsedURL(CurlParsedURL *url);
    // Counted: the watchers and the timer stay in mode while it has more activations than
    // deactivations.
    void activateMode(RtStringRef mode);
    void deactivateMode(RtStringRef mode);

  private:
    struct ModeUse {
        RtStringRef fMode;
        int fCount;
    };

    CurlDriver(RtRunLoopRef loop, CURLM *multi);
    ~CurlDriver();
    CurlDriver(const CurlDriver &) = delete;
    CurlDriver &operator=(const CurlDriver &) = delete;

    static int _socketCallback(CURL *easy, curl_socket_t fd, int what, void *userp, void *socketp);
    static int _timerCallback(CURLM *multi, long timeoutMs, void *userp);
    static void _socketReady(RtFileDescriptorRef watcher, RtOptionFlags types, void *info);
    static void _timerFired(RtRunLoopTimerRef timer, void *info);

    void updateSocket(curl_socket_t fd, int what);
    void dropWatcher(curl_socket_t fd);
    void act(curl_socket_t fd, int events);
    void reportFinished();

    int fRefs = 1;
    RtRunLoopRef fLoop;
    CURLM *fMulti;
    RtRunLoopTimerRef fTimer = nullptr;
    std::unordered_map<curl_socket_t, RtFileDescriptorRef> fWatchers;
    std::vector<ModeUse> fModes;
    std::vector<CURL *> fSpareEasy;
    CurlHeaderList *fLastHeaders = nullptr;
    CurlParsedURL *fLastURL = nullptr;
};

} // namespace rt
