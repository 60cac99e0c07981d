// The exported HVServer functions and property keys: thin fronts that check the handle, call
// the server, and let no exception out (out of memory becomes a NULL or false).
#include "Server.h"

#include <new>

const RtStringRef kHVServerXMLRPCPath = RTSTR("/HVServerXMLRPCPath");
const RtStringRef kHVServerSOAPPath = RTSTR("/HVServerSOAPPath");
const RtStringRef kHVServerThreads = RTSTR("/HVServerThreads");
const RtStringRef kHVServerMaxQueued = RTSTR("/HVServerMaxQueued");
const RtStringRef kHVServerMaxBodyBytes = RTSTR("/HVServerMaxBodyBytes");
const RtStringRef kHVServerMaxConnections = RTSTR("/HVServerMaxConnections");
const RtStringRef kHVServerIdleTimeout = RTSTR("/HVServerIdleTimeout");
const RtStringRef kHVServerRequestTimeout = RTSTR("/HVServerRequestTimeout");
const RtStringRef kHVServerLogRequests = RTSTR("/HVServerLogRequests");
const RtStringRef kHVServerIndexText = RTSTR("/HVServerIndexText");
const RtStringRef kHVServerTLSCertificate = RTSTR("/HVServerTLSCertificate");
const RtStringRef kHVServerTLSKey = RTSTR("/HVServerTLSKey");
const RtStringRef kHVServerAuthRealm = RTSTR("/HVServerAuthRealm");
const RtStringRef kHVServerMaxConnectionsPerAddress = RTSTR("/HVServerMaxConnectionsPerAddress");
const RtStringRef kHVServerMaxHeadBytes = RTSTR("/HVServerMaxHeadBytes");

// ---- OpaqueHVServerRef -----------------------------------------------------------------------

//                                        version  name                  init     copy
const RtRuntimeClass OpaqueHVServerRef::sRT = {0, "OpaqueHVServerRef", nullptr, nullptr,
                                               // finalize  equal    hash     formatting description
                                               _rtDealloc, nullptr, nullptr, nullptr,
                                               // debug description
                                               nullptr};
RtTypeID OpaqueHVServerRef::sID = kRtNotATypeID;

HVServerRef OpaqueHVServerRef::create() {
    OpaqueHVServerRef *ref = new (getTypeID()) OpaqueHVServerRef();
    if (!ref) return nullptr;
    ref->fImpl = new (std::nothrow) hvserver::Server(ref);
    if (!ref->fImpl) {
        RtRelease(ref);
        return nullptr;
    }
    return ref;
}

hvserver::Server *OpaqueHVServerRef::implOf(HVServerRef ref) {
    if (!ref || RtGetTypeID(ref) != getTypeID()) return nullptr;
    return ref->fImpl;
}

void OpaqueHVServerRef::_rtDealloc(RtTypeRef obj) {
    auto *self = static_cast<OpaqueHVServerRef *>(const_cast<void *>(obj));
    delete self->fImpl; // stops the server first
    self->fImpl = nullptr;
}

// ---- Exported functions ----------------------------------------------------------------------

namespace {

void setError(RtDictionaryRef *error, int code, const std::string &text) {
    if (!error) return;
    *error = nullptr;
    try {
        int32_t c = code;
        RtNumberRef number = RtNumberCreate(nullptr, kRtNumberSInt32Type, &c);
        RtStringRef string = RtStringCreateWithBytes(nullptr, reinterpret_cast<const uint8_t *>(text.data()),
                                                     RtIndex(text.size()), kRtStringEncodingUTF8, false);
        const void *keys[] = {kHVFaultCode, kHVFaultString};
        const void *values[] = {number, string};
        *error = RtDictionaryCreate(nullptr, keys, values, string ? 2 : 1, &kRtTypeDictionaryKeyCallBacks,
                                    &kRtTypeDictionaryValueCallBacks);
        RtRelease(number);
        RtRelease(string);
    } catch (...) {
    }
}

std::string addressText(RtStringRef address) {
    if (!address) return "127.0.0.1";
    char buffer[64];
    if (RtGetTypeID(address) != RtStringGetTypeID() ||
        !RtStringGetCString(address, buffer, sizeof buffer, kRtStringEncodingUTF8))
        return "";
    return buffer;
}

} // namespace

RtTypeID HVServerGetTypeID(void) {
    return OpaqueHVServerRef::getTypeID();
}

HVServerRef HVServerCreate(RtAllocatorRef) {
    try {
        return OpaqueHVServerRef::create();
    } catch (...) {
        return nullptr;
    }
}

bool HVServerAddMethod(HVServerRef server, RtStringRef name, HVServerMethodProcPtr proc,
                       HVClientContext *context, RtStringRef help, RtArrayRef signature) {
    hvserver::Server *impl = OpaqueHVServerRef::implOf(server);
    try {
        return impl && impl->addMethod(name, proc, context, help, signature);
    } catch (...) {
        return false;
    }
}

bool HVServerSetAuthentication(HVServerRef server, HVServerAuthenticationProcPtr proc,
                               HVClientContext *context) {
    hvserver::Server *impl = OpaqueHVServerRef::implOf(server);
    try {
        return impl && impl->setAuthentication(proc, context);
    } catch (...) {
        return false;
    }
}

bool HVServerSetProperty(HVServerRef server, RtStringRef key, RtTypeRef value) {
    hvserver::Server *impl = OpaqueHVServerRef::implOf(server);
    try {
        return impl && key && impl->setProperty(key, value);
    } catch (...) {
        return false;
    }
}

bool HVServerListen(HVServerRef server, RtStringRef address, uint16_t port, RtDictionaryRef *error) {
    if (error) *error = nullptr;
    hvserver::Server *impl = OpaqueHVServerRef::implOf(server);
    if (!impl) return false;
    try {
        std::string text;
        int code = 0;
        if (impl->listen(addressText(address), port, text, code)) return true;
        setError(error, code, text);
    } catch (...) {
        setError(error, -1, "out of memory");
    }
    return false;
}

bool HVServerStart(HVServerRef server, RtDictionaryRef *error) {
    if (error) *error = nullptr;
    hvserver::Server *impl = OpaqueHVServerRef::implOf(server);
    if (!impl) return false;
    try {
        std::string text;
        int code = 0;
        if (impl->start(text, code)) return true;
        setError(error, code, text);
    } catch (...) {
        setError(error, -1, "out of memory");
    }
    return false;
}

uint16_t HVServerGetPort(HVServerRef server) {
    hvserver::Server *impl = OpaqueHVServerRef::implOf(server);
    return impl ? impl->port() : 0;
}

void HVServerStop(HVServerRef server) {
    if (hvserver::Server *impl = OpaqueHVServerRef::implOf(server)) impl->stop();
}
