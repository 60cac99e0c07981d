/* RtData.h: immutable and mutable byte buffers. */
#ifndef RTCORE_RTDATA_H
#define RTCORE_RTDATA_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

typedef const struct __RtData *RtDataRef;
typedef struct __RtData *RtMutableDataRef;

RT_EXPORT RtTypeID RtDataGetTypeID(void);
/* A new data holding a copy of length bytes (bytes may be NULL when length is 0). */
RT_EXPORT RtDataRef RtDataCreate(RtAllocatorRef alloc, const uint8_t *bytes, RtIndex length);
/* A view of bytes without copying. bytesDeallocator: kRtAllocatorNull leaves the bytes alone
 * (the caller keeps them alive longer than the data); kRtAllocatorDefault/Malloc frees them
 * with free() when the data dies. */
RT_EXPORT RtDataRef RtDataCreateWithBytesNoCopy(RtAllocatorRef alloc, const uint8_t *bytes, RtIndex length,
                                                RtAllocatorRef bytesDeallocator);
RT_EXPORT RtDataRef RtDataCreateCopy(RtAllocatorRef alloc, RtDataRef data);
/* capacity is a size hint (0: none); the contents still grow past it. */
RT_EXPORT RtMutableDataRef RtDataCreateMutable(RtAllocatorRef alloc, RtIndex capacity);
RT_EXPORT RtMutableDataRef RtDataCreateMutableCopy(RtAllocatorRef alloc, RtIndex capacity, RtDataRef data);

RT_EXPORT RtIndex RtDataGetLength(RtDataRef data);
/* Pointer to the bytes (NULL or any pointer when the length is 0). */
RT_EXPORT const uint8_t *RtDataGetBytePtr(RtDataRef data);
RT_EXPORT uint8_t *RtDataGetMutableBytePtr(RtMutableDataRef data);
RT_EXPORT void RtDataGetBytes(RtDataRef data, RtRange range, uint8_t *buffer);

RT_EXPORT void RtDataSetLength(RtMutableDataRef data, RtIndex length); /* new bytes are zero */
RT_EXPORT void RtDataIncreaseLength(RtMutableDataRef data, RtIndex extraLength);
RT_EXPORT void RtDataAppendBytes(RtMutableDataRef data, const uint8_t *bytes, RtIndex length);
RT_EXPORT void RtDataReplaceBytes(RtMutableDataRef data, RtRange range, const uint8_t *newBytes,
                                  RtIndex newLength);
RT_EXPORT void RtDataDeleteBytes(RtMutableDataRef data, RtRange range);

RT_EXTERN_C_END

#endif
