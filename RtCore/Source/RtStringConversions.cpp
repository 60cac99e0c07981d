// RtStringConversions: strings to and from the other value kinds (arrays of pieces, data of
// encoded bytes). Kept apart from the string core because it stands on RtArray and RtData.
#include "RtStringInternal.h"

RtArrayRef RtStringCreateArrayBySeparatingStrings(RtAllocatorRef alloc, RtStringRef str,
                                                  RtStringRef separator) {
    if (!rt::isString(str) || !rt::isString(separator)) return nullptr;
    RtMutableArrayRef pieces = RtArrayCreateMutable(alloc, 0, &kRtTypeArrayCallBacks);
    if (!pieces) return nullptr;
    RtRange rest = RtRangeMake(0, str->fLength), found;
    while (RtStringFindWithOptions(str, separator, rest, 0, &found)) {
        RtStringRef piece = RtStringCreateWithSubstring(
            alloc, str, RtRangeMake(rest.location, found.location - rest.location));
        RtArrayAppendValue(pieces, piece);
        RtRelease(piece);
        RtIndex next = found.location + found.length;
        rest = RtRangeMake(next, str->fLength - next);
    }
    RtStringRef last = RtStringCreateWithSubstring(alloc, str, rest);
    RtArrayAppendValue(pieces, last);
    RtRelease(last);
    RtArrayRef result = RtArrayCreateCopy(alloc, pieces);
    RtRelease(pieces);
    return result;
}

RtDataRef RtStringCreateExternalRepresentation(RtAllocatorRef alloc, RtStringRef str,
                                               RtStringEncoding encoding, uint8_t lossByte) {
    if (!rt::isString(str)) return nullptr;
    RtRange all = RtRangeMake(0, str->fLength);
    RtIndex size = 0;
    if (RtStringGetBytes(str, all, encoding, lossByte, true, nullptr, 0, &size) != all.length) return nullptr;
    auto *bytes = static_cast<uint8_t *>(std::malloc(size_t(size) + 1));
    if (!bytes) return nullptr;
    RtIndex used = 0;
    RtStringGetBytes(str, all, encoding, lossByte, true, bytes, size, &used);
    RtDataRef data = RtDataCreateWithBytesNoCopy(alloc, bytes, used, kRtAllocatorMalloc);
    if (!data) std::free(bytes);
    return data;
}

RtStringRef RtStringCreateFromExternalRepresentation(RtAllocatorRef alloc, RtDataRef data,
                                                     RtStringEncoding encoding) {
    if (!data || RtGetTypeID(data) != RtDataGetTypeID()) return nullptr;
    return RtStringCreateWithBytes(alloc, RtDataGetBytePtr(data), RtDataGetLength(data), encoding, true);
}
