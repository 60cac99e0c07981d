/** @file
 * @ingroup RtCore
 * @brief Immutable and mutable byte buffers.
 *
 * NULL, non-data or out-of-range arguments make a call do nothing (readers return 0 or NULL);
 * a mutator given an immutable data does nothing. */
#ifndef RTCORE_RTDATA_H
#define RTCORE_RTDATA_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

/** @addtogroup RtCore
 * @{ */

/** An immutable run of bytes. */
typedef const struct __RtData *RtDataRef;
/** A run of bytes that can change (RtDataCreateMutable()). */
typedef struct __RtData *RtMutableDataRef;

/** The runtime type of data objects, mutable or not. */
RT_EXPORT RtTypeID RtDataGetTypeID(void);
/** A new data holding a copy of @p length bytes (@p bytes may be NULL when @p length is 0). Caller
 * releases; NULL when @p length is negative or @p bytes is missing. */
RT_EXPORT RtDataRef RtDataCreate(RtAllocatorRef alloc, const uint8_t *bytes, RtIndex length);
/** A new data viewing @p bytes without copying (caller releases). @p bytesDeallocator:
 * kRtAllocatorNull leaves the bytes alone (the caller keeps them alive, unchanged, longer than
 * the data); kRtAllocatorDefault or kRtAllocatorMalloc frees them with free() when the data dies.
 * NULL when @p length is negative or @p bytes is missing. */
RT_EXPORT RtDataRef RtDataCreateWithBytesNoCopy(RtAllocatorRef alloc, const uint8_t *bytes, RtIndex length,
                                                RtAllocatorRef bytesDeallocator);
/** An immutable copy of @p data (caller releases); an immutable data that owns its bytes comes
 * back retained. NULL when @p data is not a data. */
RT_EXPORT RtDataRef RtDataCreateCopy(RtAllocatorRef alloc, RtDataRef data);
/** A new empty mutable data (caller releases); NULL when @p capacity is negative. @p capacity is a
 * size hint (0: none); the contents still grow past it. */
RT_EXPORT RtMutableDataRef RtDataCreateMutable(RtAllocatorRef alloc, RtIndex capacity);
/** A mutable copy of @p data's bytes (caller releases); NULL when @p data is not a data. */
RT_EXPORT RtMutableDataRef RtDataCreateMutableCopy(RtAllocatorRef alloc, RtIndex capacity, RtDataRef data);

/** The number of bytes; 0 for NULL. */
RT_EXPORT RtIndex RtDataGetLength(RtDataRef data);
/** The bytes (NULL or any pointer when the length is 0), valid while @p data lives unchanged. */
RT_EXPORT const uint8_t *RtDataGetBytePtr(RtDataRef data);
/** The bytes of a mutable data, to write in place; NULL for an immutable one. Growing the data
 * may move them. */
RT_EXPORT uint8_t *RtDataGetMutableBytePtr(RtMutableDataRef data);
/** Copies the bytes of @p range into @p buffer (range.length bytes). */
RT_EXPORT void RtDataGetBytes(RtDataRef data, RtRange range, uint8_t *buffer);

/** Truncates or extends the data to @p length bytes; new bytes are zero. */
RT_EXPORT void RtDataSetLength(RtMutableDataRef data, RtIndex length);
/** Extends the data by @p extraLength zero bytes. */
RT_EXPORT void RtDataIncreaseLength(RtMutableDataRef data, RtIndex extraLength);
/** Appends a copy of @p length bytes. */
RT_EXPORT void RtDataAppendBytes(RtMutableDataRef data, const uint8_t *bytes, RtIndex length);
/** Replaces the bytes of @p range with @p newLength bytes from @p newBytes (which may point into
 * the data itself). */
RT_EXPORT void RtDataReplaceBytes(RtMutableDataRef data, RtRange range, const uint8_t *newBytes,
                                  RtIndex newLength);
/** Removes the bytes of @p range. */
RT_EXPORT void RtDataDeleteBytes(RtMutableDataRef data, RtRange range);

/** @} */

RT_EXTERN_C_END

#endif
