// RtRuntime: class registration, instance allocation, reference counting and the polymorphic
// operations every runtime object supports. Thread-safe: the class table is written under a
// lock and read without one (entries never change once published); counts are atomic.
#include "RtRuntime.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

namespace {

constexpr RtTypeID kMaxClasses = 1024;

struct __attribute__((aligned(8))) SentinelAllocator {
    int tag;
};
const SentinelAllocator sNullAllocator{1};
const SentinelAllocator sMallocAllocator{2};

std::mutex gClassLock;
rt::ClassEntry gClasses[kMaxClasses];
std::atomic<RtTypeID> gClassCount{1}; // 0 is kRtNotATypeID
std::atomic<long> gLiveObjects{0};

} // namespace

const RtAllocatorRef kRtAllocatorNull = reinterpret_cast<RtAllocatorRef>(&sNullAllocator);
const RtAllocatorRef kRtAllocatorMalloc = reinterpret_cast<RtAllocatorRef>(&sMallocAllocator);

namespace rt {

RtTypeID registerOnce(std::atomic<RtTypeID> &slot, const RtRuntimeClass *cls) {
    RtTypeID id = slot.load(std::memory_order_acquire);
    if (id != kRtNotATypeID) return id;
    std::lock_guard<std::recursive_mutex> guard(*[] {
        static std::recursive_mutex *m = new std::recursive_mutex; // never freed: process-wide
        return m;
    }());
    id = slot.load(std::memory_order_relaxed);
    if (id == kRtNotATypeID) {
        id = RtRuntimeRegisterClass(cls);
        slot.store(id, std::memory_order_release);
    }
    return id;
}

const ClassEntry *classEntry(RtTypeID typeID) {
    return RtRuntimeGetClassWithTypeID(typeID) ? &gClasses[typeID] : nullptr;
}

void initStaticObject(RtRuntimeBase *obj, RtTypeID typeID) {
    obj->_isa = &gClasses[typeID];
    refCount(obj).store(kImmortalBit | 1, std::memory_order_relaxed);
}

} // namespace rt

RtTypeID RtRuntimeRegisterClass(const RtRuntimeClass *cls) {
    if (!cls) return kRtNotATypeID;
    std::lock_guard<std::mutex> guard(gClassLock);
    RtTypeID id = gClassCount.load(std::memory_order_relaxed);
    if (id >= kMaxClasses) return kRtNotATypeID;
    gClasses[id] = rt::ClassEntry{cls, id};
    gClassCount.store(id + 1, std::memory_order_release);
    return id;
}

const RtRuntimeClass *RtRuntimeGetClassWithTypeID(RtTypeID typeID) {
    if (typeID == kRtNotATypeID || typeID >= gClassCount.load(std::memory_order_acquire)) return nullptr;
    return gClasses[typeID].cls;
}

RtTypeRef RtRuntimeCreateInstance(RtAllocatorRef, RtTypeID typeID, RtIndex extraBytes) {
    const RtRuntimeClass *cls = RtRuntimeGetClassWithTypeID(typeID);
    if (!cls || extraBytes < 0) return nullptr;
    size_t size = sizeof(RtRuntimeBase) + static_cast<size_t>(extraBytes);
    // malloc rather than calloc: glibc's calloc always takes the general allocation path, while
    // malloc serves small blocks from the thread's cache, where the blocks of freed objects
    // wait. The header is written and only the rest zeroed, which also keeps the compiler from
    // turning malloc and a whole-block memset back into calloc.
    auto *obj = static_cast<RtRuntimeBase *>(std::malloc(size));
    if (!obj) return nullptr;
    obj->_isa = &gClasses[typeID];
    rt::refCount(obj).store(1, std::memory_order_relaxed);
    std::memset(reinterpret_cast<char *>(obj) + sizeof(RtRuntimeBase), 0, size - sizeof(RtRuntimeBase));
    gLiveObjects.fetch_add(1, std::memory_order_relaxed);
    if (cls->init) cls->init(obj);
    return obj;
}

void RtRuntimeSetImmortal(RtTypeRef obj) {
    if (!obj || (rt::refCount(obj).load(std::memory_order_relaxed) & rt::kInteriorBit)) return;
    uint64_t old = rt::refCount(obj).fetch_or(rt::kImmortalBit, std::memory_order_acq_rel);
    if (!(old & rt::kImmortalBit)) gLiveObjects.fetch_sub(1, std::memory_order_relaxed);
}

RtTypeRef RtRetain(RtTypeRef obj) {
    if (!obj) return nullptr;
    auto &rc = rt::refCount(obj);
    uint64_t word = rc.load(std::memory_order_relaxed);
    if (word & (rt::kImmortalBit | rt::kInteriorBit)) {
        if (!(word & rt::kImmortalBit)) RtRetain(rt::interiorOwner(word));
        return obj;
    }
    rc.fetch_add(1, std::memory_order_relaxed);
    return obj;
}

void RtRelease(RtTypeRef obj) {
    if (!obj) return;
    auto &rc = rt::refCount(obj);
    uint64_t word = rc.load(std::memory_order_relaxed);
    if (word & (rt::kImmortalBit | rt::kInteriorBit)) {
        if (!(word & rt::kImmortalBit)) RtRelease(rt::interiorOwner(word));
        return;
    }
    if (rc.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    const RtRuntimeClass *cls = rt::classOf(obj)->cls;
    if (cls->finalize) cls->finalize(obj);
    gLiveObjects.fetch_sub(1, std::memory_order_relaxed);
    std::free(const_cast<void *>(obj));
}

RtIndex RtGetRetainCount(RtTypeRef obj) {
    if (!obj) return 0;
    uint64_t rc = rt::refCount(obj).load(std::memory_order_relaxed);
    if (rc & rt::kImmortalBit) return static_cast<RtIndex>(0x7FFFFFFF);
    if (rc & rt::kInteriorBit) return RtGetRetainCount(rt::interiorOwner(rc));
    return static_cast<RtIndex>(rc);
}

RtTypeID RtGetTypeID(RtTypeRef obj) {
    return obj ? rt::classOf(obj)->typeID : kRtNotATypeID;
}

bool RtEqual(RtTypeRef a, RtTypeRef b) {
    if (a == b) return true;
    if (!a || !b) return false;
    const rt::ClassEntry *ca = rt::classOf(a);
    if (ca != rt::classOf(b)) return false;
    return ca->cls->equal ? ca->cls->equal(a, b) : false;
}

RtHashCode RtHash(RtTypeRef obj) {
    if (!obj) return 0;
    const RtRuntimeClass *cls = rt::classOf(obj)->cls;
    return cls->hash ? cls->hash(obj) : reinterpret_cast<RtHashCode>(obj);
}

static RtStringRef genericDescription(RtTypeRef obj) {
    char buf[160];
    std::snprintf(buf, sizeof buf, "<%s %p>", rt::classOf(obj)->cls->className, obj);
    return RtStringCreateWithCString(kRtAllocatorDefault, buf, kRtStringEncodingUTF8);
}

RtStringRef RtCopyFormattingDescription(RtTypeRef obj) {
    if (!obj) return RtStringCreateWithCString(kRtAllocatorDefault, "(null)", kRtStringEncodingUTF8);
    const RtRuntimeClass *cls = rt::classOf(obj)->cls;
    if (cls->copyFormattingDesc) {
        if (RtStringRef s = cls->copyFormattingDesc(obj, nullptr)) return s;
    }
    return RtCopyDescription(obj);
}

RtStringRef RtCopyDescription(RtTypeRef obj) {
    if (!obj) return RtStringCreateWithCString(kRtAllocatorDefault, "(null)", kRtStringEncodingUTF8);
    const RtRuntimeClass *cls = rt::classOf(obj)->cls;
    if (cls->copyDebugDesc) {
        if (RtStringRef s = cls->copyDebugDesc(obj)) return s;
    }
    // A class that only says how it prints with %@ is described the same way.
    if (cls->copyFormattingDesc) {
        if (RtStringRef s = cls->copyFormattingDesc(obj, nullptr)) return s;
    }
    return genericDescription(obj);
}

RtStringRef RtCopyTypeIDDescription(RtTypeID typeID) {
    const RtRuntimeClass *cls = RtRuntimeGetClassWithTypeID(typeID);
    return cls ? RtStringCreateWithCString(kRtAllocatorDefault, cls->className, kRtStringEncodingUTF8)
               : nullptr;
}

void RtShow(RtTypeRef obj) {
    RtStringRef desc = RtCopyDescription(obj);
    RtIndex len = RtStringGetLength(desc);
    RtIndex size = RtStringGetMaximumSizeForEncoding(len, kRtStringEncodingUTF8) + 1;
    char *buf = static_cast<char *>(std::malloc(static_cast<size_t>(size)));
    if (buf && RtStringGetCString(desc, buf, size, kRtStringEncodingUTF8)) std::fprintf(stderr, "%s\n", buf);
    std::free(buf);
    RtRelease(desc);
}

long RtRuntimeGetLiveObjectCount(void) {
    return gLiveObjects.load(std::memory_order_relaxed);
}
