// RtRuntime.h: internals of RtCore's object model shared by the runtime's own units.
// Owns the class table; every runtime object begins with RtRuntimeBase.
#pragma once

#include <RtCore/RtCore.h>

#include <atomic>
#include <cstdint>

namespace rt {

// The entry of one registered class; an object's _isa points at it.
struct ClassEntry {
    const RtRuntimeClass *cls;
    RtTypeID typeID;
};

constexpr uint64_t kImmortalBit = uint64_t(1) << 63;

inline std::atomic<uint64_t> &refCount(RtTypeRef obj) {
    return *reinterpret_cast<std::atomic<uint64_t> *>(&const_cast<RtRuntimeBase *>(
        static_cast<const RtRuntimeBase *>(obj))->_rc);
}

inline const ClassEntry *classOf(RtTypeRef obj) {
    return static_cast<const ClassEntry *>(static_cast<const RtRuntimeBase *>(obj)->_isa);
}

// True when obj is a live runtime object of typeID (NULL is never).
inline bool isA(RtTypeRef obj, RtTypeID typeID) { return obj && classOf(obj)->typeID == typeID; }

// Registers a class once, thread-safely, and returns its id (for the runtime's own classes).
RtTypeID registerOnce(std::atomic<RtTypeID> &slot, const RtRuntimeClass *cls);

// Initialises a statically allocated object (immortal, never freed).
void initStaticObject(RtRuntimeBase *obj, RtTypeID typeID);

} // namespace rt
