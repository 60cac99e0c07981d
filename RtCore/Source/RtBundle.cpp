// RtBundle: the process-wide registry of loaded libraries by identifier, each with its
// information dictionary. Bundles are immortal; the registry is guarded by a mutex, so any
// thread may register or look up.
#include "RtStringInternal.h"

#include <mutex>
#include <vector>

struct __RtBundle {
    RtRuntimeBase fBase;
    RtStringRef fIdentifier;
    RtDictionaryRef fInfo;
};

const RtStringRef kRtBundleVersionKey = __RtStringMakeConstantString("RtBundleVersion");
const RtStringRef kRtBundleIdentifierKey = __RtStringMakeConstantString("RtBundleIdentifier");

namespace {

RtStringRef _bundleCopyDescription(RtTypeRef obj) {
    auto *b = static_cast<const __RtBundle *>(obj);
    return RtStringCreateWithFormat(nullptr, nullptr, RTSTR("<RtBundle %@ %@>"), b->fIdentifier,
                                    RtDictionaryGetValue(b->fInfo, kRtBundleVersionKey));
}

const RtRuntimeClass sBundleClass = {
    0, "RtBundle", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, _bundleCopyDescription};
std::atomic<RtTypeID> gBundleTypeID{kRtNotATypeID};

struct Registry {
    std::mutex fLock;
    std::vector<__RtBundle *> fBundles; // few libraries register: a list is enough
};

Registry &registry() {
    static Registry *sRegistry = new Registry; // bundles live for the process
    return *sRegistry;
}

__RtBundle *findLocked(Registry &r, RtStringRef identifier) {
    for (__RtBundle *b : r.fBundles)
        if (RtEqual(b->fIdentifier, identifier)) return b;
    return nullptr;
}

} // namespace

RtTypeID RtBundleGetTypeID(void) {
    return rt::registerOnce(gBundleTypeID, &sBundleClass);
}

RtBundleRef RtBundleRegister(RtStringRef identifier, RtDictionaryRef info) {
    if (!rt::isString(identifier) || RtStringGetLength(identifier) == 0) return nullptr;
    if (info && RtGetTypeID(info) != RtDictionaryGetTypeID()) return nullptr;
    Registry &r = registry();
    std::lock_guard<std::mutex> guard(r.fLock);
    if (__RtBundle *existing = findLocked(r, identifier)) return existing;

    auto *b = static_cast<__RtBundle *>(const_cast<void *>(RtRuntimeCreateInstance(
        nullptr, RtBundleGetTypeID(), RtIndex(sizeof(__RtBundle) - sizeof(RtRuntimeBase)))));
    if (!b) return nullptr;
    b->fIdentifier = RtStringCreateCopy(nullptr, identifier);
    // The information always names its bundle, as a dictionary read from a file would.
    RtMutableDictionaryRef all = info ? RtDictionaryCreateMutableCopy(nullptr, 0, info)
                                      : RtDictionaryCreateMutable(nullptr, 0, &kRtTypeDictionaryKeyCallBacks,
                                                                  &kRtTypeDictionaryValueCallBacks);
    if (all && !RtDictionaryContainsKey(all, kRtBundleIdentifierKey))
        RtDictionarySetValue(all, kRtBundleIdentifierKey, b->fIdentifier);
    b->fInfo = all ? RtDictionaryCreateCopy(nullptr, all) : nullptr;
    RtRelease(all);
    RtRuntimeSetImmortal(b); // never freed, like the identifier and dictionary it holds
    r.fBundles.push_back(b);
    return b;
}

RtBundleRef RtBundleGetBundleWithIdentifier(RtStringRef identifier) {
    if (!rt::isString(identifier)) return nullptr;
    Registry &r = registry();
    std::lock_guard<std::mutex> guard(r.fLock);
    return findLocked(r, identifier);
}

RtDictionaryRef RtBundleGetInfoDictionary(RtBundleRef bundle) {
    if (!rt::isA(bundle, RtBundleGetTypeID())) return nullptr;
    return bundle->fInfo;
}

RtTypeRef RtBundleGetValueForInfoDictionaryKey(RtBundleRef bundle, RtStringRef key) {
    RtDictionaryRef info = RtBundleGetInfoDictionary(bundle);
    return info && key ? RtDictionaryGetValue(info, key) : nullptr;
}
