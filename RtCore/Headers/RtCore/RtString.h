/* RtString.h: immutable and mutable Unicode strings.
 *
 * Lengths, indices and ranges count UTF-16 code units. Encodings are 32-bit identifiers
 * (values fixed below). Strings made by RTSTR are immortal and uniqued by their text: the same
 * literal anywhere in the process is the same object. Strings made any other way are fresh. */
#ifndef RTCORE_RTSTRING_H
#define RTCORE_RTSTRING_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

typedef const struct __RtArray *RtArrayRef;
typedef const struct __RtData *RtDataRef;

typedef uint16_t RtUniChar;
typedef uint32_t RtStringEncoding;

#define kRtStringEncodingDefault8Bit ((RtStringEncoding)0x0000) /* a Roman 8-bit encoding */
#define kRtStringEncodingUTF16 ((RtStringEncoding)0x0100)       /* external form has a BOM */
#define kRtStringEncodingUnicode kRtStringEncodingUTF16
#define kRtStringEncodingISOLatin1 ((RtStringEncoding)0x0201)
#define kRtStringEncodingISOLatin2 ((RtStringEncoding)0x0202)
#define kRtStringEncodingISOLatin3 ((RtStringEncoding)0x0203)
#define kRtStringEncodingISOLatin4 ((RtStringEncoding)0x0204)
#define kRtStringEncodingISOLatinCyrillic ((RtStringEncoding)0x0205)
#define kRtStringEncodingISOLatinArabic ((RtStringEncoding)0x0206)
#define kRtStringEncodingISOLatinGreek ((RtStringEncoding)0x0207)
#define kRtStringEncodingISOLatinHebrew ((RtStringEncoding)0x0208)
#define kRtStringEncodingISOLatin5 ((RtStringEncoding)0x0209)
#define kRtStringEncodingISOLatin6 ((RtStringEncoding)0x020A)
#define kRtStringEncodingWindowsLatin1 ((RtStringEncoding)0x0500)
#define kRtStringEncodingASCII ((RtStringEncoding)0x0600)
#define kRtStringEncodingUTF8 ((RtStringEncoding)0x08000100)
#define kRtStringEncodingUTF32 ((RtStringEncoding)0x0c000100)
#define kRtStringEncodingUTF16BE ((RtStringEncoding)0x10000100)
#define kRtStringEncodingUTF16LE ((RtStringEncoding)0x14000100)
#define kRtStringEncodingUTF32BE ((RtStringEncoding)0x18000100)
#define kRtStringEncodingUTF32LE ((RtStringEncoding)0x1c000100)
#define kRtStringEncodingInvalidId ((RtStringEncoding)0xFFFFFFFFu)

/* Comparison and search options. */
enum {
    kRtCompareCaseInsensitive = 1,
    kRtCompareBackwards = 4, /* search from the end */
    kRtCompareAnchored = 8,  /* match only at the start (or the end with Backwards) */
    kRtCompareNumerically = 64
};

RT_EXPORT RtTypeID RtStringGetTypeID(void);

/* ---- Constant strings --------------------------------------------------------------------- */

/* The immortal, uniqued constant string whose UTF-8 text is cStr. Never returns NULL for a
 * valid UTF-8 literal. Prefer the RTSTR macro. */
RT_EXPORT RtStringRef __RtStringMakeConstantString(const char *cStr);
/* The registered constant whose text equals str's, or NULL when none has been made. Used by
 * the property-list reader so that constants read back are the very constant objects. */
RT_EXPORT RtStringRef RtStringGetRegisteredConstant(RtStringRef str);

#ifdef __cplusplus
/* In C++ every use site caches its constant, so RTSTR costs one load after the first call. */
#define RTSTR(cStr)                                                                                          \
    ([]() -> RtStringRef {                                                                                   \
        static const RtStringRef s_ = __RtStringMakeConstantString("" cStr "");                              \
        return s_;                                                                                           \
    }())
#else
#define RTSTR(cStr) __RtStringMakeConstantString("" cStr "")
#endif

/* ---- Creating ----------------------------------------------------------------------------- */

/* A new string from a NUL-terminated C string in encoding; NULL when cStr is NULL or its bytes
 * are not valid in that encoding. */
RT_EXPORT RtStringRef RtStringCreateWithCString(RtAllocatorRef alloc, const char *cStr,
                                                RtStringEncoding encoding);
/* A new string from numBytes bytes in encoding. isExternalRepresentation: a leading byte-order
 * mark is honoured and dropped (UTF-16/32). NULL for invalid bytes. */
RT_EXPORT RtStringRef RtStringCreateWithBytes(RtAllocatorRef alloc, const uint8_t *bytes, RtIndex numBytes,
                                              RtStringEncoding encoding, bool isExternalRepresentation);
/* A new string over cStr's bytes, used in place without copying when encoding is Latin 1 or the
 * default 8-bit encoding, or the bytes are plain ASCII in ASCII, UTF-8 or Windows Latin 1;
 * otherwise the text is converted into a copy at once. contentsDeallocator says what becomes
 * of cStr: kRtAllocatorNull leaves it alone (it must outlive the string, unchanged), NULL or
 * kRtAllocatorMalloc frees it with free() when it is no longer needed. NULL on invalid bytes. */
RT_EXPORT RtStringRef RtStringCreateWithCStringNoCopy(RtAllocatorRef alloc, const char *cStr,
                                                      RtStringEncoding encoding,
                                                      RtAllocatorRef contentsDeallocator);
RT_EXPORT RtStringRef RtStringCreateWithCharacters(RtAllocatorRef alloc, const RtUniChar *chars,
                                                   RtIndex numChars);
/* An immutable copy (may return str retained when str is already immutable). */
RT_EXPORT RtStringRef RtStringCreateCopy(RtAllocatorRef alloc, RtStringRef str);
RT_EXPORT RtStringRef RtStringCreateWithSubstring(RtAllocatorRef alloc, RtStringRef str, RtRange range);
/* printf-style formatting. format is a string (usually RTSTR(...)); understood: the C
 * conversions with flags, width, precision ('*' too) and length modifiers (hh h l ll z j t L),
 * %d %i %u %x %X %o %c %s %p %e %E %f %F %g %G %a %%, plus %@ (any runtime object's formatting
 * description; NULL prints "(null)"), %S (NUL-terminated RtUniChar*) and %C (an RtUniChar).
 * %s takes UTF-8 bytes. Parsed formats of constant strings are cached. formatOptions unused. */
RT_EXPORT RtStringRef RtStringCreateWithFormat(RtAllocatorRef alloc, RtDictionaryRef formatOptions,
                                               RtStringRef format, ...);
RT_EXPORT RtStringRef RtStringCreateWithFormatAndArguments(RtAllocatorRef alloc,
                                                           RtDictionaryRef formatOptions, RtStringRef format,
                                                           va_list arguments);
/* Formats like RtStringCreateWithFormatAndArguments and writes the text as UTF-8 into buffer
 * (bufferSize bytes, no terminator added), without making a string: for writers that build a
 * whole document in one block of bytes. Returns the text's length in UTF-8 bytes; when that is
 * more than bufferSize, the buffer's contents are unspecified and the caller formats again
 * (with a fresh copy of the arguments) into a buffer of that size. Returns -1 when the text
 * holds a lone surrogate, which UTF-8 cannot carry. buffer may be NULL when bufferSize is 0. */
RT_EXPORT RtIndex RtStringFormatUTF8(char *buffer, RtIndex bufferSize, RtDictionaryRef formatOptions,
                                     RtStringRef format, va_list arguments);
/* Splits str at every occurrence of separator; a new array of new strings. */
RT_EXPORT RtArrayRef RtStringCreateArrayBySeparatingStrings(RtAllocatorRef alloc, RtStringRef str,
                                                            RtStringRef separator);
/* The bytes of str in encoding as new data; unrepresentable characters become lossByte, or the
 * call fails (NULL) when lossByte is 0. */
RT_EXPORT RtDataRef RtStringCreateExternalRepresentation(RtAllocatorRef alloc, RtStringRef str,
                                                         RtStringEncoding encoding, uint8_t lossByte);
RT_EXPORT RtStringRef RtStringCreateFromExternalRepresentation(RtAllocatorRef alloc, RtDataRef data,
                                                               RtStringEncoding encoding);

/* ---- Mutable strings ---------------------------------------------------------------------- */

/* maxLength 0 means unlimited. */
RT_EXPORT RtMutableStringRef RtStringCreateMutable(RtAllocatorRef alloc, RtIndex maxLength);
RT_EXPORT RtMutableStringRef RtStringCreateMutableCopy(RtAllocatorRef alloc, RtIndex maxLength,
                                                       RtStringRef str);
RT_EXPORT void RtStringAppend(RtMutableStringRef str, RtStringRef appended);
RT_EXPORT void RtStringAppendCharacters(RtMutableStringRef str, const RtUniChar *chars, RtIndex numChars);
RT_EXPORT void RtStringAppendCString(RtMutableStringRef str, const char *cStr, RtStringEncoding encoding);
RT_EXPORT void RtStringAppendFormat(RtMutableStringRef str, RtDictionaryRef formatOptions, RtStringRef format,
                                    ...);
RT_EXPORT void RtStringAppendFormatAndArguments(RtMutableStringRef str, RtDictionaryRef formatOptions,
                                                RtStringRef format, va_list arguments);
RT_EXPORT void RtStringInsert(RtMutableStringRef str, RtIndex idx, RtStringRef inserted);
RT_EXPORT void RtStringDelete(RtMutableStringRef str, RtRange range);
RT_EXPORT void RtStringReplace(RtMutableStringRef str, RtRange range, RtStringRef replacement);
RT_EXPORT void RtStringReplaceAll(RtMutableStringRef str, RtStringRef replacement);
/* Replaces every occurrence of find within range (options: case-insensitive, backwards,
 * anchored); returns the number of replacements. */
RT_EXPORT RtIndex RtStringFindAndReplace(RtMutableStringRef str, RtStringRef find, RtStringRef replace,
                                         RtRange rangeToSearch, RtOptionFlags compareOptions);
RT_EXPORT void RtStringTrimWhitespace(RtMutableStringRef str);
RT_EXPORT void RtStringLowercase(RtMutableStringRef str);
RT_EXPORT void RtStringUppercase(RtMutableStringRef str);

/* ---- Reading ------------------------------------------------------------------------------ */

RT_EXPORT RtIndex RtStringGetLength(RtStringRef str);
RT_EXPORT RtUniChar RtStringGetCharacterAtIndex(RtStringRef str, RtIndex idx);
RT_EXPORT void RtStringGetCharacters(RtStringRef str, RtRange range, RtUniChar *buffer);
/* Writes str as a NUL-terminated C string in encoding into buffer (bufferSize bytes with the
 * NUL). False when it does not fit or a character cannot be represented. */
RT_EXPORT bool RtStringGetCString(RtStringRef str, char *buffer, RtIndex bufferSize,
                                  RtStringEncoding encoding);
/* A pointer to str's NUL-terminated bytes in encoding when available without conversion
 * (ASCII-only strings for UTF-8/ASCII/Latin 1), else NULL. Valid while str lives unchanged. */
RT_EXPORT const char *RtStringGetCStringPtr(RtStringRef str, RtStringEncoding encoding);
/* Converts the characters of range into buffer (may be NULL to measure). Returns the number of
 * characters converted; stops at the first unrepresentable character when lossByte is 0.
 * usedBufLen receives the bytes written (or needed). */
RT_EXPORT RtIndex RtStringGetBytes(RtStringRef str, RtRange range, RtStringEncoding encoding,
                                   uint8_t lossByte, bool isExternalRepresentation, uint8_t *buffer,
                                   RtIndex maxBufLen, RtIndex *usedBufLen);
RT_EXPORT RtIndex RtStringGetMaximumSizeForEncoding(RtIndex length, RtStringEncoding encoding);
RT_EXPORT int32_t RtStringGetIntValue(RtStringRef str);
RT_EXPORT double RtStringGetDoubleValue(RtStringRef str);

/* ---- Comparing and searching -------------------------------------------------------------- */

RT_EXPORT RtComparisonResult RtStringCompare(RtStringRef a, RtStringRef b, RtOptionFlags compareOptions);
/* A hash of str that ignores case exactly as kRtCompareCaseInsensitive does (Unicode simple case
 * folds, code point by code point): two strings that compare equal that way hash equal. For
 * indexing names matched without case. 0 for NULL or a non-string. Not cached; O(length). */
RT_EXPORT RtHashCode RtStringHashCaseInsensitive(RtStringRef str);
RT_EXPORT RtComparisonResult RtStringCompareWithOptions(RtStringRef a, RtStringRef b, RtRange rangeOfA,
                                                        RtOptionFlags compareOptions);
/* The range of the first (or, with Backwards, last) occurrence; {kRtNotFound, 0} when none. */
RT_EXPORT RtRange RtStringFind(RtStringRef str, RtStringRef find, RtOptionFlags compareOptions);
RT_EXPORT bool RtStringFindWithOptions(RtStringRef str, RtStringRef find, RtRange rangeToSearch,
                                       RtOptionFlags searchOptions, RtRange *result);
RT_EXPORT bool RtStringHasPrefix(RtStringRef str, RtStringRef prefix);
RT_EXPORT bool RtStringHasSuffix(RtStringRef str, RtStringRef suffix);

/* ---- Encodings ---------------------------------------------------------------------------- */

/* The IANA name of an encoding ("UTF-8", "ISO-8859-1", "windows-1252", ...) as a constant
 * string, or NULL. */
RT_EXPORT RtStringRef RtStringConvertEncodingToIANACharSetName(RtStringEncoding encoding);
/* The encoding of an IANA charset name (case-insensitive, aliases through ICU), or
 * kRtStringEncodingInvalidId. */
RT_EXPORT RtStringEncoding RtStringConvertIANACharSetNameToEncoding(RtStringRef name);
RT_EXPORT bool RtStringIsEncodingAvailable(RtStringEncoding encoding);

RT_EXTERN_C_END

#endif
