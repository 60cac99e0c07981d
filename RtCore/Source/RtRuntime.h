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

// Interior objects live inside a block that another runtime object owns (the nodes of an XML
// tree live in their document's arena) and are never freed on their own. Their count word holds
// kInteriorBit and the owner's address shifted right by 3 (objects are 8-byte aligned, so even a
// tagged 64-bit address fits below bit 61): retain and release act on the owner, so holding any
// interior object keeps the whole block alive.
constexpr uint64_t kInteriorBit = uint64_t(1) << 62;
constexpr uint64_t kInteriorOwnerMask = (uint64_t(1) << 61) - 1;

inline std::atomic<uint64_t> &refCount(RtTypeRef obj) {
    return *reinterpret_cast<std::atomic<uint64_t> *>(
        &const_cast<RtRuntimeBase *>(static_cast<const RtRuntimeBase *>(obj))->_rc);
}

inline const ClassEntry *classOf(RtTypeRef obj) {
    return static_cast<const ClassEntry *>(static_cast<const RtRuntimeBase *>(obj)->_isa);
}

// True when obj is a live runtime object of typeID (NULL is never).
inline bool isA(RtTypeRef obj, RtTypeID typeID) {
    return obj && classOf(obj)->typeID == typeID;
}

// Registers a class once, thread-safely, and returns its id (for the runtime's own classes).
RtTypeID registerOnce(std::atomic<RtTypeID> &slot, const RtRuntimeClass *cls);

// Initialises a statically allocated object (immortal, never freed).
void initStaticObject(RtRuntimeBase *obj, RtTypeID typeID);

// The class entry an object of typeID points at (NULL for an unknown id).
const ClassEntry *classEntry(RtTypeID typeID);

// Initialises an interior object of the class cls owned by owner (a heap runtime object).
inline void initInteriorObject(RtRuntimeBase *obj, const ClassEntry *cls, RtTypeRef owner) {
    obj->_isa = cls;
    obj->_rc = kInteriorBit | (reinterpret_cast<uintptr_t>(owner) >> 3);
}

// The owner of an interior object, from its count word.
inline RtTypeRef interiorOwner(uint64_t countWord) {
    // The owner's address is packed into the count word; the cast back is the point.
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    return reinterpret_cast<RtTypeRef>(static_cast<uintptr_t>((countWord & kInteriorOwnerMask) << 3));
}

} // namespace rt
