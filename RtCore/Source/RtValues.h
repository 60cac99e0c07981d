// RtValues.h: helpers the value units of RtCore share (numbers, dates, data, arrays,
// dictionaries, property lists): the callbacks behind the kRtType... records, nested
// descriptions, number and date text, byte hashing and base64. Owns nothing; any thread.
#pragma once

#include <RtCore/RtCore.h>

#include "RtRuntime.h"

#include <cstddef>
#include <string>

namespace rt {

// The id of the class registered through slot: a single load once registered, so that the
// type checks on every call of the hot paths cost nothing.
inline RtTypeID typeIDOf(std::atomic<RtTypeID> &slot, const RtRuntimeClass *cls) {
    RtTypeID id = slot.load(std::memory_order_acquire);
    return id != kRtNotATypeID ? id : registerOnce(slot, cls);
}

// The callbacks of kRtTypeArrayCallBacks and the kRtType... dictionary records: the runtime's
// own retain, release, description, equality and hash.
const void *typeRetain(RtAllocatorRef allocator, const void *value);
void typeRelease(RtAllocatorRef allocator, const void *value);
RtStringRef typeCopyDescription(const void *value);
bool typeEqual(const void *a, const void *b);
RtHashCode typeHash(const void *value);

// Appends the description of value at nesting level indent. Arrays and dictionaries whose
// elements are runtime objects (copyDesc == typeCopyDescription) nest, indented four spaces a
// level; other values use copyDesc, or their address when copyDesc is NULL.
void appendValueDescription(RtMutableStringRef out, const void *value, RtStringRef (*copyDesc)(const void *),
                            int indent);
// A new string: the nested description of an array or dictionary (the class callbacks).
RtStringRef copyCollectionDescription(RtTypeRef collection);
void appendArrayDescription(RtMutableStringRef out, RtArrayRef array, int indent);
void appendDictionaryDescription(RtMutableStringRef out, RtDictionaryRef dict, int indent);
// Appends four spaces per level, and ASCII text.
void appendIndent(RtMutableStringRef out, int indent);
void appendASCII(RtMutableStringRef out, const char *text);
// Levels beyond this print as "..." so that a collection holding itself still describes.
constexpr int kMaxDescriptionDepth = 32;

// The decimal text of a number: integers exactly, reals as the shortest text that reads back
// as the same value (asDouble: as the same double, even for a float kind), "+infinity",
// "-infinity" or "nan". Returns the length (no NUL), 0 when buf is too small; 40 bytes suffice.
size_t formatNumber(RtNumberRef number, char *buf, size_t size, bool asDouble);

// "YYYY-MM-DDTHH:MM:SS[.ffffff]Z" (compact) or "YYYY-MM-DD HH:MM:SS[.ffffff] +0000" for at, in
// GMT. Returns the length (no NUL), or 0 when buf is too small; 48 bytes suffice.
size_t formatISO8601(RtAbsoluteTime at, char *buf, size_t size, bool compact);

// True when range r lies within [0, len].
inline bool rangeInside(RtRange r, RtIndex len) {
    return r.location >= 0 && r.length >= 0 && r.location <= len && r.length <= len - r.location;
}

// FNV-1a over n bytes.
RtHashCode hashBytes(const uint8_t *bytes, size_t n);

// Base64 of n bytes appended to out, in lines of lineLength characters (0: one line), each
// line after the first preceded by linePrefix.
void appendBase64(std::string &out, const uint8_t *bytes, size_t n, size_t lineLength,
                  const char *linePrefix);
// Decodes base64 text, skipping whitespace; false on any other character or misplaced padding.
bool decodeBase64(const char *text, size_t n, std::string &out);

} // namespace rt
