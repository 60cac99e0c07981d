// Runtime objects made of C++ classes, and the two public handle classes.
#include "CPlusRtObject.h"

#include <mutex>

RtTypeID CPlusRtObject::ensureTypeID(const RtRuntimeClass *cls, RtTypeID *slot) {
    RtTypeID id = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
    if (id != kRtNotATypeID) return id;
    // A once-only guard, so that two threads making their first handles register one class.
    static std::mutex sRegistering;
    std::lock_guard<std::mutex> lock(sRegistering);
    id = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
    if (id == kRtNotATypeID) {
        id = RtRuntimeRegisterClass(cls);
        __atomic_store_n(slot, id, __ATOMIC_RELEASE);
    }
    return id;
}

void *CPlusRtObject::operator new(size_t size, RtTypeID typeID) noexcept {
    RtIndex extra = static_cast<RtIndex>(size - sizeof(RtRuntimeBase));
    return const_cast<void *>(RtRuntimeCreateInstance(kRtAllocatorDefault, typeID, extra));
}

void CPlusRtObject::operator delete(void *p, RtTypeID) noexcept {
    RtRelease(p);
}

void CPlusRtObject::operator delete(void *p) noexcept {
    RtRelease(p);
}

// ---- OpaqueHVMethodInvocationRef -------------------------------------------------------------

//                                                  version  name                            init     copy
const RtRuntimeClass OpaqueHVMethodInvocationRef::sRT = {0, "OpaqueHVMethodInvocationRef", nullptr, nullptr,
                                                         // finalize  equal    hash     formatting description
                                                         _rtDealloc, nullptr, nullptr, nullptr,
                                                         // debug description
                                                         _rtCopyDebugDesc};
RtTypeID OpaqueHVMethodInvocationRef::sID = kRtNotATypeID;

OpaqueHVMethodInvocationRef::OpaqueHVMethodInvocationRef(HalvoMethodInvocation *closure) : fClosure(closure) {
    if (fClosure) fClosure->setRtRef(this);
}

HVMethodInvocationRef OpaqueHVMethodInvocationRef::create(HalvoMethodInvocation *closure) {
    if (!closure) return nullptr;
    OpaqueHVMethodInvocationRef *ref = new (getTypeID()) OpaqueHVMethodInvocationRef(closure);
    if (!ref) delete closure;
    return ref;
}

HalvoMethodInvocation *OpaqueHVMethodInvocationRef::implOf(HVMethodInvocationRef ref) {
    if (!ref || RtGetTypeID(ref) != getTypeID()) return nullptr;
    return ref->fClosure;
}

void OpaqueHVMethodInvocationRef::_rtDealloc(RtTypeRef obj) {
    auto *self = static_cast<OpaqueHVMethodInvocationRef *>(const_cast<void *>(obj));
    if (!self || !self->fClosure) return;
    // The invocation sees no handle during its own destruction.
    self->fClosure->setRtRef(nullptr);
    delete self->fClosure;
    self->fClosure = nullptr;
}

// The URL's text with the password of its user-info part (when it has one) shown as "***".
static RtStringRef copyURLTextWithoutPassword(RtURLRef url) {
    RtStringRef text = url ? RtURLGetString(url) : nullptr;
    if (!text) return nullptr;
    RtIndex length = RtStringGetLength(text);
    RtRange scheme = RtStringFind(text, RTSTR("://"), 0);
    RtIndex colon = kRtNotFound, at = kRtNotFound;
    for (RtIndex i = scheme.location == kRtNotFound ? length : scheme.location + 3; i < length; i++) {
        RtUniChar c = RtStringGetCharacterAtIndex(text, i);
        if (c == '/' || c == '?' || c == '#') break; // the end of the authority
        if (c == ':' && colon == kRtNotFound) colon = i;
        if (c == '@') at = i;
    }
    if (at == kRtNotFound || colon == kRtNotFound || colon > at)
        return static_cast<RtStringRef>(RtRetain(text));
    RtMutableStringRef masked = RtStringCreateMutableCopy(kRtAllocatorDefault, 0, text);
    if (masked) RtStringReplace(masked, RtRangeMake(colon + 1, at - colon - 1), RTSTR("***"));
    return masked;
}

RtStringRef OpaqueHVMethodInvocationRef::_rtCopyDebugDesc(RtTypeRef obj) {
    auto *self = static_cast<const OpaqueHVMethodInvocationRef *>(obj);
    HalvoMethodInvocation *closure = self->fClosure;
    RtStringRef url = copyURLTextWithoutPassword(closure ? closure->getServiceURL() : nullptr);
    // The base class's method name: the "MethodName" property, usually absent.
    RtStringRef methodName = closure ? closure->HalvoMethodInvocation::getMethodName() : nullptr;
    RtStringRef description =
        RtStringCreateWithFormat(kRtAllocatorDefault, nullptr, RTSTR("HVMethodInvocation{%d} [%@] [%@]"),
                                 static_cast<int>(self->getRetainCount()), url, methodName);
    safeRtRelease(url);
    return description;
}

// ---- OpaqueHVProtocolHandlerRef --------------------------------------------------------------

//                                                 version  name                           init     copy
const RtRuntimeClass OpaqueHVProtocolHandlerRef::sRT = {0, "OpaqueHVProtocolHandlerRef", nullptr, nullptr,
                                                        // finalize  equal    hash     formatting description
                                                        _rtDealloc, nullptr, nullptr, nullptr,
                                                        // debug description
                                                        _rtCopyDebugDesc};
RtTypeID OpaqueHVProtocolHandlerRef::sID = kRtNotATypeID;

OpaqueHVProtocolHandlerRef::OpaqueHVProtocolHandlerRef(HVProtocolHandler *impl) : fImpl(impl) {
    if (fImpl) fImpl->setRtRef(this);
}

HVProtocolHandlerRef OpaqueHVProtocolHandlerRef::create(HVProtocolHandler *impl) {
    if (!impl) return nullptr;
    OpaqueHVProtocolHandlerRef *ref = new (getTypeID()) OpaqueHVProtocolHandlerRef(impl);
    if (!ref) delete impl;
    return ref;
}

HVProtocolHandler *OpaqueHVProtocolHandlerRef::implOf(HVProtocolHandlerRef ref) {
    if (!ref || RtGetTypeID(ref) != getTypeID()) return nullptr;
    return ref->fImpl;
}

void OpaqueHVProtocolHandlerRef::_rtDealloc(RtTypeRef obj) {
    auto *self = static_cast<OpaqueHVProtocolHandlerRef *>(const_cast<void *>(obj));
    if (!self || !self->fImpl) return;
    self->fImpl->setRtRef(nullptr);
    delete self->fImpl;
    self->fImpl = nullptr;
}

RtStringRef OpaqueHVProtocolHandlerRef::_rtCopyDebugDesc(RtTypeRef obj) {
    auto *self = static_cast<const OpaqueHVProtocolHandlerRef *>(obj);
    return RtStringCreateWithFormat(kRtAllocatorDefault, nullptr, RTSTR("OpaqueHVProtocolHandlerRef{%d}"),
                                    static_cast<int>(self->getRetainCount()));
}
