// RtData: byte buffers. An immutable data keeps its bytes in the same allocation as the object,
// a no-copy data points at the caller's bytes, a mutable data owns a buffer grown geometrically.
#include "RtRuntime.h"
#include "RtValues.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

struct __RtData {
    RtRuntimeBase fBase;
    uint32_t fFlags;
    uint8_t *fBytes;
    RtIndex fLength;
    RtIndex fCapacity;           // mutable data: bytes allocated
    RtAllocatorRef fDeallocator; // no-copy data: how to free fBytes
};

namespace {

enum : uint32_t { eDataMutable = 1, eDataNoCopy = 2 };

bool isData(RtTypeRef obj) {
    return rt::isA(obj, RtDataGetTypeID());
}
bool isMutableData(RtTypeRef obj) {
    return isData(obj) && (static_cast<const __RtData *>(obj)->fFlags & eDataMutable);
}

void _dataFinalize(RtTypeRef obj) {
    auto *d = static_cast<__RtData *>(const_cast<void *>(obj));
    if (d->fFlags & eDataMutable)
        std::free(d->fBytes);
    else if ((d->fFlags & eDataNoCopy) && d->fDeallocator != kRtAllocatorNull)
        std::free(d->fBytes);
}

bool _dataEqual(RtTypeRef a, RtTypeRef b) {
    auto *x = static_cast<const __RtData *>(a);
    auto *y = static_cast<const __RtData *>(b);
    return x->fLength == y->fLength &&
           (x->fLength == 0 || std::memcmp(x->fBytes, y->fBytes, size_t(x->fLength)) == 0);
}

// Hashes at most the first 80 bytes and the length: enough to spread keys, bounded in cost.
RtHashCode _dataHash(RtTypeRef obj) {
    auto *d = static_cast<const __RtData *>(obj);
    RtIndex n = d->fLength < 80 ? d->fLength : 80;
    return rt::hashBytes(d->fBytes, size_t(n)) ^ static_cast<RtHashCode>(d->fLength);
}

RtStringRef _dataDesc(RtTypeRef obj, RtDictionaryRef) {
    auto *d = static_cast<const __RtData *>(obj);
    constexpr RtIndex kShown = 32;
    char buf[128];
    int n = std::snprintf(buf, sizeof buf, "<RtData %p>{length = %ld, bytes = 0x", obj, d->fLength);
    for (RtIndex i = 0; i < d->fLength && i < kShown; i++)
        n += std::snprintf(buf + n, sizeof buf - size_t(n), "%02x", d->fBytes[i]);
    std::snprintf(buf + n, sizeof buf - size_t(n), "%s}", d->fLength > kShown ? "..." : "");
    return RtStringCreateWithCString(kRtAllocatorDefault, buf, kRtStringEncodingASCII);
}

RtStringRef _dataDebugDesc(RtTypeRef obj) {
    return _dataDesc(obj, nullptr);
}

const RtRuntimeClass sDataClass = {0,          "RtData",  nullptr,   nullptr,       _dataFinalize,
                                   _dataEqual, _dataHash, _dataDesc, _dataDebugDesc};
std::atomic<RtTypeID> sDataTypeID{kRtNotATypeID};

constexpr RtIndex kFieldBytes = sizeof(__RtData) - sizeof(RtRuntimeBase);
// Immutable data keep their bytes right after the fields.
uint8_t *inlineBytes(__RtData *d) {
    return reinterpret_cast<uint8_t *>(d + 1);
}

__RtData *newData(RtAllocatorRef alloc, RtIndex inlineBytes) {
    return static_cast<__RtData *>(
        const_cast<void *>(RtRuntimeCreateInstance(alloc, RtDataGetTypeID(), kFieldBytes + inlineBytes)));
}

constexpr RtIndex kMaxLength = RtIndex(1) << 46;

// Makes room for at least need bytes; false when memory runs out.
bool reserve(__RtData *d, RtIndex need) {
    if (need <= d->fCapacity) return true;
    if (need > kMaxLength) return false;
    RtIndex cap = d->fCapacity < 16 ? 16 : d->fCapacity;
    while (cap < need)
        cap = cap + cap / 2 + 16;
    auto *p = static_cast<uint8_t *>(std::realloc(d->fBytes, size_t(cap)));
    if (!p) return false;
    d->fBytes = p;
    d->fCapacity = cap;
    return true;
}

} // namespace

namespace rt {

RtHashCode hashBytes(const uint8_t *bytes, size_t n) {
    uint64_t h = 14695981039346656037ull;
    for (size_t i = 0; i < n; i++)
        h = (h ^ bytes[i]) * 1099511628211ull;
    return static_cast<RtHashCode>(h);
}

} // namespace rt

RtTypeID RtDataGetTypeID(void) {
    return rt::typeIDOf(sDataTypeID, &sDataClass);
}

RtDataRef RtDataCreate(RtAllocatorRef alloc, const uint8_t *bytes, RtIndex length) {
    if (length < 0 || (length > 0 && !bytes)) return nullptr;
    __RtData *d = newData(alloc, length);
    if (!d) return nullptr;
    d->fBytes = inlineBytes(d);
    d->fLength = length;
    if (length) std::memcpy(d->fBytes, bytes, size_t(length));
    return d;
}

RtDataRef RtDataCreateWithBytesNoCopy(RtAllocatorRef alloc, const uint8_t *bytes, RtIndex length,
                                      RtAllocatorRef bytesDeallocator) {
    if (length < 0 || (length > 0 && !bytes)) return nullptr;
    __RtData *d = newData(alloc, 0);
    if (!d) return nullptr;
    d->fFlags = eDataNoCopy;
    d->fBytes = const_cast<uint8_t *>(bytes);
    d->fLength = length;
    d->fDeallocator = bytesDeallocator;
    return d;
}

RtDataRef RtDataCreateCopy(RtAllocatorRef alloc, RtDataRef data) {
    if (!isData(data)) return nullptr;
    // An immutable data that owns its bytes never changes: sharing it is a copy.
    if (!(data->fFlags & (eDataMutable | eDataNoCopy))) return static_cast<RtDataRef>(RtRetain(data));
    return RtDataCreate(alloc, data->fBytes, data->fLength);
}

RtMutableDataRef RtDataCreateMutable(RtAllocatorRef alloc, RtIndex capacity) {
    if (capacity < 0) return nullptr;
    __RtData *d = newData(alloc, 0);
    if (!d) return nullptr;
    d->fFlags = eDataMutable;
    // The capacity is taken as a size hint; the data still grows past it.
    if (capacity > 0 && !reserve(d, capacity)) {
        RtRelease(d);
        return nullptr;
    }
    return d;
}

RtMutableDataRef RtDataCreateMutableCopy(RtAllocatorRef alloc, RtIndex capacity, RtDataRef data) {
    if (!isData(data)) return nullptr;
    RtMutableDataRef d = RtDataCreateMutable(alloc, capacity > data->fLength ? capacity : data->fLength);
    if (d) RtDataAppendBytes(d, data->fBytes, data->fLength);
    return d;
}

RtIndex RtDataGetLength(RtDataRef data) {
    return isData(data) ? data->fLength : 0;
}

const uint8_t *RtDataGetBytePtr(RtDataRef data) {
    return isData(data) ? data->fBytes : nullptr;
}

uint8_t *RtDataGetMutableBytePtr(RtMutableDataRef data) {
    return isMutableData(data) ? data->fBytes : nullptr;
}

void RtDataGetBytes(RtDataRef data, RtRange range, uint8_t *buffer) {
    if (!isData(data) || !buffer || !rt::rangeInside(range, data->fLength) || range.length == 0) return;
    std::memcpy(buffer, data->fBytes + range.location, size_t(range.length));
}

void RtDataSetLength(RtMutableDataRef data, RtIndex length) {
    if (!isMutableData(data) || length < 0) return;
    if (length > data->fLength) {
        if (!reserve(data, length)) return;
        std::memset(data->fBytes + data->fLength, 0, size_t(length - data->fLength));
    }
    data->fLength = length;
}

void RtDataIncreaseLength(RtMutableDataRef data, RtIndex extraLength) {
    if (isMutableData(data) && extraLength > 0) RtDataSetLength(data, data->fLength + extraLength);
}

void RtDataAppendBytes(RtMutableDataRef data, const uint8_t *bytes, RtIndex length) {
    if (!isMutableData(data)) return;
    RtDataReplaceBytes(data, RtRangeMake(data->fLength, 0), bytes, length);
}

void RtDataReplaceBytes(RtMutableDataRef data, RtRange range, const uint8_t *newBytes, RtIndex newLength) {
    if (!isMutableData(data) || !rt::rangeInside(range, data->fLength) || newLength < 0 ||
        (newLength && !newBytes))
        return;
    // The new bytes may come from this very buffer, which growing can move: take a copy first.
    uint8_t *copy = nullptr;
    if (newLength && newBytes >= data->fBytes && newBytes < data->fBytes + data->fCapacity) {
        copy = static_cast<uint8_t *>(std::malloc(size_t(newLength)));
        if (!copy) return;
        std::memcpy(copy, newBytes, size_t(newLength));
        newBytes = copy;
    }
    RtIndex tail = data->fLength - range.location - range.length;
    RtIndex newTotal = data->fLength - range.length + newLength;
    if (reserve(data, newTotal)) {
        if (tail)
            std::memmove(data->fBytes + range.location + newLength,
                         data->fBytes + range.location + range.length, size_t(tail));
        if (newLength) std::memcpy(data->fBytes + range.location, newBytes, size_t(newLength));
        data->fLength = newTotal;
    }
    std::free(copy);
}

void RtDataDeleteBytes(RtMutableDataRef data, RtRange range) {
    RtDataReplaceBytes(data, range, nullptr, 0);
}
