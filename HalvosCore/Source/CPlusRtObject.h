// CPlusRtObject: lets a C++ class of the library be a runtime object, so that the public
// handles are retained, released and described with the runtime's ordinary calls.
// The runtime allocates the instance (its object header first) and frees it after calling the
// class's finalize callback; C++ code never deletes a handle. Registration is lazy and guarded
// by the runtime's own lock; instances are used by one thread at a time.
#pragma once

#include "HalvoClosure.h"

#include <cstddef>

class CPlusRtObject {
  public:
    // Registers cls once and keeps its identifier in *slot; returns the identifier.
    static RtTypeID ensureTypeID(const RtRuntimeClass *cls, RtTypeID *slot);
    // A runtime instance of typeID large enough for size bytes, or NULL (no constructor runs).
    static void *operator new(size_t size, RtTypeID typeID) noexcept;
    // Only reached when a constructor throws; the runtime owns the memory, so drop it there.
    static void operator delete(void *p, RtTypeID typeID) noexcept;
    static void operator delete(void *p) noexcept;

    // The runtime has filled the header; nothing to do.
    CPlusRtObject() {}
    RtIndex getRetainCount() const { return RtGetRetainCount(this); }

  protected:
    RtRuntimeBase fBase;
};

// The object behind HVMethodInvocationRef; owns one invocation.
struct OpaqueHVMethodInvocationRef : public CPlusRtObject {
  public:
    // Stores closure and records this handle in it.
    explicit OpaqueHVMethodInvocationRef(HalvoMethodInvocation *closure);
    HalvoMethodInvocation *getImpl() const { return fClosure; }

    static RtTypeID getTypeID() { return ensureTypeID(&sRT, &sID); }
    // Wraps closure in a new handle; destroys closure and returns NULL when that fails.
    static HVMethodInvocationRef create(HalvoMethodInvocation *closure);
    // The invocation of ref, or NULL for NULL or a runtime object of another type.
    static HalvoMethodInvocation *implOf(HVMethodInvocationRef ref);
    static void _rtDealloc(RtTypeRef obj);
    static RtStringRef _rtCopyDebugDesc(RtTypeRef obj);

  private:
    HalvoMethodInvocation *fClosure;
    static const RtRuntimeClass sRT;
    static RtTypeID sID;
};

// The object behind HVProtocolHandlerRef; owns one protocol handler.
struct OpaqueHVProtocolHandlerRef : public CPlusRtObject {
  public:
    explicit OpaqueHVProtocolHandlerRef(HVProtocolHandler *impl);
    HVProtocolHandler *getImpl() const { return fImpl; }

    static RtTypeID getTypeID() { return ensureTypeID(&sRT, &sID); }
    static HVProtocolHandlerRef create(HVProtocolHandler *impl);
    static HVProtocolHandler *implOf(HVProtocolHandlerRef ref);
    static void _rtDealloc(RtTypeRef obj);
    static RtStringRef _rtCopyDebugDesc(RtTypeRef obj);

  private:
    HVProtocolHandler *fImpl;
    static const RtRuntimeClass sRT;
    static RtTypeID sID;
};
