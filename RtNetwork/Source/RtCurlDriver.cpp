// RtCurlDriver: the thread's libcurl multi handle on the run loop (see RtCurlDriver.h).
#include "RtCurlDriver.h"

#include <cstring>
#include <mutex>
#include <new>

namespace rt {

namespace {

// libcurl's "no time-out pending": a fire date far enough away to mean never.
constexpr RtTimeInterval kNever = 1.0e10;
// Finished easy handles kept for reuse: enough for a few calls in flight at once.
constexpr size_t kSpareEasyHandles = 4;

std::once_flag gCurlInit;
bool gCurlReady = false;

// Owns the thread's reference to its driver; let go when the thread exits (before the thread's
// run loop, which was made first).
thread_local bool gDriverHolderGone = false; // trivially destructible: readable during thread exit

struct DriverHolder {
    CurlDriver *fDriver = nullptr;
    ~DriverHolder() {
        gDriverHolderGone = true;
        if (fDriver) fDriver->release();
    }
};
thread_local DriverHolder gDriverHolder;

} // namespace

CurlDriver *CurlDriver::acquireCurrent() {
    // The loop first: its thread_local must outlive the holder's.
    RtRunLoopRef loop = RtRunLoopGetCurrent();
    if (!loop || gDriverHolderGone) return nullptr;
    std::call_once(gCurlInit, [] { gCurlReady = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK; });
    if (!gCurlReady) return nullptr;
    DriverHolder &holder = gDriverHolder;
    if (!holder.fDriver) {
        CURLM *multi = curl_multi_init();
        if (!multi) return nullptr;
        holder.fDriver = new CurlDriver(loop, multi);
    }
    holder.fDriver->retain();
    return holder.fDriver;
}

CurlDriver::CurlDriver(RtRunLoopRef loop, CURLM *multi) : fLoop(loop), fMulti(multi) {
    RtRetain(fLoop);
    RtRunLoopTimerContext ctx = {0, this, nullptr, nullptr, nullptr};
    fTimer = RtRunLoopTimerCreate(kRtAllocatorDefault, RtAbsoluteTimeGetCurrent() + kNever, kNever, 0, 0,
                                  _timerFired, &ctx);
    curl_multi_setopt(fMulti, CURLMOPT_SOCKETFUNCTION, _socketCallback);
    curl_multi_setopt(fMulti, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(fMulti, CURLMOPT_TIMERFUNCTION, _timerCallback);
    curl_multi_setopt(fMulti, CURLMOPT_TIMERDATA, this);
}

CurlDriver::~CurlDriver() {
    // Cleaning up closes the cached connections; their sockets come back through
    // _socketCallback, which drops their watchers.
    for (CURL *easy : fSpareEasy)
        curl_easy_cleanup(easy);
    releaseHeaderList(fLastHeaders);
    releaseParsedURL(fLastURL);
    curl_multi_cleanup(fMulti);
    while (!fWatchers.empty())
        dropWatcher(fWatchers.begin()->first);
    RtRunLoopTimerInvalidate(fTimer);
    RtRelease(fTimer);
    for (ModeUse &use : fModes)
        RtRelease(use.fMode);
    RtRelease(fLoop);
}

void CurlDriver::release() {
    if (--fRefs == 0) delete this;
}

bool CurlDriver::add(CURL *easy) {
    return curl_multi_add_handle(fMulti, easy) == CURLM_OK;
}

void CurlDriver::remove(CURL *easy) {
    curl_multi_remove_handle(fMulti, easy);
}

CURL *CurlDriver::takeEasy() {
    if (fSpareEasy.empty()) return curl_easy_init();
    CURL *easy = fSpareEasy.back();
    fSpareEasy.pop_back();
    return easy;
}

void CurlDriver::recycleEasy(CURL *easy) {
    if (fSpareEasy.size() >= kSpareEasyHandles) {
        curl_easy_cleanup(easy);
        return;
    }
    // Every option back at its default: nothing of the last request (headers, body, callbacks
    // and their data) reaches the next one.
    curl_easy_reset(easy);
    fSpareEasy.push_back(easy);
}

CurlHeaderList *CurlDriver::shareHeaderList(const std::string &lines) {
    if (fLastHeaders && fLastHeaders->fLines == lines) {
        fLastHeaders->fRefs++;
        return fLastHeaders;
    }
    curl_slist *list = nullptr;
    for (size_t at = 0; at < lines.size();) {
        const char *line = lines.c_str() + at;
        curl_slist *grown = curl_slist_append(list, line);
        if (!grown) {
            curl_slist_free_all(list);
            return nullptr;
        }
        list = grown;
        at += std::strlen(line) + 1;
    }
    auto *shared = new (std::nothrow) CurlHeaderList{list, lines, 2}; // the caller's and the driver's
    if (!shared) {
        curl_slist_free_all(list);
        return nullptr;
    }
    releaseHeaderList(fLastHeaders);
    fLastHeaders = shared;
    return shared;
}

void CurlDriver::releaseHeaderList(CurlHeaderList *list) {
    if (!list || --list->fRefs > 0) return;
    curl_slist_free_all(list->fList);
    delete list;
}

CurlParsedURL *CurlDriver::shareParsedURL(const std::string &text) {
    if (fLastURL && fLastURL->fText == text) {
        fLastURL->fRefs++;
        return fLastURL;
    }
    CURLU *handle = curl_url();
    // The flags libcurl itself parses CURLOPT_URL with.
    if (!handle || curl_url_set(handle, CURLUPART_URL, text.c_str(),
                                CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
        curl_url_cleanup(handle);
        return nullptr;
    }
    auto *shared = new (std::nothrow) CurlParsedURL{handle, text, 2}; // the caller's and the driver's
    if (!shared) {
        curl_url_cleanup(handle);
        return nullptr;
    }
    releaseParsedURL(fLastURL);
    fLastURL = shared;
    return shared;
}

void CurlDriver::releaseParsedURL(CurlParsedURL *url) {
    if (!url || --url->fRefs > 0) return;
    curl_url_cleanup(url->fHandle);
    delete url;
}

void CurlDriver::activateMode(RtStringRef mode) {
    for (ModeUse &use : fModes) {
        if (RtEqual(use.fMode, mode)) {
            if (use.fCount++ == 0) {
                RtRunLoopAddTimer(fLoop, fTimer, use.fMode);
                for (auto &entry : fWatchers)
                    RtRunLoopAddFileDescriptor(fLoop, entry.second, use.fMode);
            }
            return;
        }
    }
    RtStringRef copy = RtStringCreateCopy(kRtAllocatorDefault, mode);
    fModes.push_back({copy, 1});
    RtRunLoopAddTimer(fLoop, fTimer, copy);
    for (auto &entry : fWatchers)
        RtRunLoopAddFileDescriptor(fLoop, entry.second, copy);
}

void CurlDriver::deactivateMode(RtStringRef mode) {
    for (ModeUse &use : fModes) {
        if (!RtEqual(use.fMode, mode) || use.fCount == 0) continue;
        if (--use.fCount == 0) {
            RtRunLoopRemoveTimer(fLoop, fTimer, use.fMode);
            for (auto &entry : fWatchers)
                RtRunLoopRemoveFileDescriptor(fLoop, entry.second, use.fMode);
        }
        return;
    }
}

int CurlDriver::_socketCallback(CURL *, curl_socket_t fd, int what, void *userp, void *) {
    static_cast<CurlDriver *>(userp)->updateSocket(fd, what);
    return 0;
}

int CurlDriver::_timerCallback(CURLM *, long timeoutMs, void *userp) {
    auto *self = static_cast<CurlDriver *>(userp);
    RtTimeInterval wait = timeoutMs < 0 ? kNever : double(timeoutMs) / 1000.0;
    RtRunLoopTimerSetNextFireDate(self->fTimer, RtAbsoluteTimeGetCurrent() + wait);
    return 0;
}

void CurlDriver::updateSocket(curl_socket_t fd, int what) {
    if (what == CURL_POLL_REMOVE) {
        dropWatcher(fd);
        return;
    }
    RtFileDescriptorRef watcher;
    auto it = fWatchers.find(fd);
    if (it != fWatchers.end()) {
        watcher = it->second;
    } else {
        RtFileDescriptorContext ctx = {0, this, nullptr, nullptr, nullptr};
        watcher = RtFileDescriptorCreate(kRtAllocatorDefault, fd, false, _socketReady, &ctx);
        if (!watcher) return;
        fWatchers.emplace(fd, watcher);
        for (ModeUse &use : fModes)
            if (use.fCount > 0) RtRunLoopAddFileDescriptor(fLoop, watcher, use.fMode);
    }
    RtOptionFlags wanted = 0;
    if (what & CURL_POLL_IN) wanted |= kRtFileDescriptorReadCallBack;
    if (what & CURL_POLL_OUT) wanted |= kRtFileDescriptorWriteCallBack;
    RtFileDescriptorDisableCallBacks(watcher, ~wanted);
    RtFileDescriptorEnableCallBacks(watcher, wanted);
}

void CurlDriver::dropWatcher(curl_socket_t fd) {
    auto it = fWatchers.find(fd);
    if (it == fWatchers.end()) return;
    RtFileDescriptorRef watcher = it->second;
    fWatchers.erase(it);
    RtFileDescriptorInvalidate(watcher);
    RtRelease(watcher);
}

void CurlDriver::_socketReady(RtFileDescriptorRef watcher, RtOptionFlags types, void *info) {
    int events = 0;
    if (types & kRtFileDescriptorReadCallBack) events |= CURL_CSELECT_IN;
    if (types & kRtFileDescriptorWriteCallBack) events |= CURL_CSELECT_OUT;
    static_cast<CurlDriver *>(info)->act(RtFileDescriptorGetNativeDescriptor(watcher), events);
}

void CurlDriver::_timerFired(RtRunLoopTimerRef, void *info) {
    static_cast<CurlDriver *>(info)->act(CURL_SOCKET_TIMEOUT, 0);
}

void CurlDriver::act(curl_socket_t fd, int events) {
    retain(); // a finished transfer may drop the last other reference
    int running = 0;
    curl_multi_socket_action(fMulti, fd, events, &running);
    reportFinished();
    release();
}

void CurlDriver::reportFinished() {
    int left = 0;
    while (CURLMsg *msg = curl_multi_info_read(fMulti, &left)) {
        if (msg->msg != CURLMSG_DONE) continue;
        CURL *easy = msg->easy_handle;
        CURLcode result = msg->data.result;
        void *transfer = nullptr;
        curl_easy_getinfo(easy, CURLINFO_PRIVATE, &transfer);
        // Outside libcurl now, so the handle may leave the multi handle; msg dies with it.
        curl_multi_remove_handle(fMulti, easy);
        if (transfer) static_cast<CurlTransfer *>(transfer)->transferDone(result);
    }
}

} // namespace rt
