// FuzzSupport: what the fuzz targets share. Each target is one LLVMFuzzerTestOneInput over the
// bytes a stranger could send to one reader; a broken invariant aborts, which libFuzzer and the
// corpus replay both report as a failure with the input that caused it.
#pragma once

#include <RtCore/RtCore.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace hvfuzz {

// Owns one runtime reference.
class Held {
  public:
    explicit Held(RtTypeRef ref = nullptr) : fRef(ref) {}
    ~Held() {
        if (fRef) RtRelease(fRef);
    }
    Held(const Held &) = delete;
    Held &operator=(const Held &) = delete;

    RtTypeRef get() const { return fRef; }
    template <class T> T as() const { return static_cast<T>(const_cast<void *>(fRef)); }
    explicit operator bool() const { return fRef != nullptr; }

  private:
    RtTypeRef fRef;
};

inline RtDataRef copyData(const uint8_t *bytes, size_t size) {
    return RtDataCreate(kRtAllocatorDefault, bytes, static_cast<RtIndex>(size));
}

// Aborts with what when condition does not hold: the input broke a promise of the reader.
inline void require(bool condition, const char *what) {
    if (!condition) {
        std::fprintf(stderr, "fuzz invariant broken: %s\n", what);
        std::abort();
    }
}

// Builds the description of value, which walks every nested value the reader produced.
inline void describe(RtTypeRef value) {
    if (value) {
        Held description(RtCopyDescription(value));
    }
}

} // namespace hvfuzz
