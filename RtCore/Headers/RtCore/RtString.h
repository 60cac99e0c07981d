/** @file
 * @ingroup RtCore
 * @brief Immutable and mutable Unicode strings.
 *
 * Lengths, indices and ranges count UTF-16 code units. Encodings are 32-bit identifiers
 * (values fixed below). Strings made by RTSTR are immortal and uniqued by their text: the same
 * literal anywhere in the process is the same object. Strings made any other way are fresh.
 *
 * NULL or non-string arguments make a call do nothing (readers return 0, NULL or false);
 * mutators given an immutable string do nothing. Out-of-range indices and ranges are refused
 * the same way. */
#ifndef RTCORE_RTSTRING_H
#define RTCORE_RTSTRING_H

#include <RtCore/RtBase.h>

RT_EXTERN_C_BEGIN

/** @addtogroup RtCore
 * @{ */

/** An immutable array (declared again from RtArray.h). */
typedef const struct __RtArray *RtArrayRef;
/** An immutable run of bytes (declared again from RtData.h). */
typedef const struct __RtData *RtDataRef;

/** One UTF-16 code unit. */
typedef uint16_t RtUniChar;
/** An encoding identifier: one of the kRtStringEncoding... values. */
typedef uint32_t RtStringEncoding;

/** A Roman 8-bit encoding (the default 8-bit one). */
#define kRtStringEncodingDefault8Bit ((RtStringEncoding)0x0000)
/** UTF-16 in the machine's byte order; the external form has a byte-order mark. */
#define kRtStringEncodingUTF16 ((RtStringEncoding)0x0100)
/** Another name of kRtStringEncodingUTF16. */
#define kRtStringEncodingUnicode kRtStringEncodingUTF16
/** ISO-8859-1. */
#define kRtStringEncodingISOLatin1 ((RtStringEncoding)0x0201)
/** ISO-8859-2. */
#define kRtStringEncodingISOLatin2 ((RtStringEncoding)0x0202)
/** ISO-8859-3. */
#define kRtStringEncodingISOLatin3 ((RtStringEncoding)0x0203)
/** ISO-8859-4. */
#define kRtStringEncodingISOLatin4 ((RtStringEncoding)0x0204)
/** ISO-8859-5. */
#define kRtStringEncodingISOLatinCyrillic ((RtStringEncoding)0x0205)
/** ISO-8859-6. */
#define kRtStringEncodingISOLatinArabic ((RtStringEncoding)0x0206)
/** ISO-8859-7. */
#define kRtStringEncodingISOLatinGreek ((RtStringEncoding)0x0207)
/** ISO-8859-8. */
#define kRtStringEncodingISOLatinHebrew ((RtStringEncoding)0x0208)
/** ISO-8859-9. */
#define kRtStringEncodingISOLatin5 ((RtStringEncoding)0x0209)
/** ISO-8859-10. */
#define kRtStringEncodingISOLatin6 ((RtStringEncoding)0x020A)
/** windows-1252. */
#define kRtStringEncodingWindowsLatin1 ((RtStringEncoding)0x0500)
/** US-ASCII (7 bits). */
#define kRtStringEncodingASCII ((RtStringEncoding)0x0600)
/** UTF-8. */
#define kRtStringEncodingUTF8 ((RtStringEncoding)0x08000100)
/** UTF-32 in the machine's byte order; the external form has a byte-order mark. */
#define kRtStringEncodingUTF32 ((RtStringEncoding)0x0c000100)
/** UTF-16 big-endian, no byte-order mark. */
#define kRtStringEncodingUTF16BE ((RtStringEncoding)0x10000100)
/** UTF-16 little-endian, no byte-order mark. */
#define kRtStringEncodingUTF16LE ((RtStringEncoding)0x14000100)
/** UTF-32 big-endian, no byte-order mark. */
#define kRtStringEncodingUTF32BE ((RtStringEncoding)0x18000100)
/** UTF-32 little-endian, no byte-order mark. */
#define kRtStringEncodingUTF32LE ((RtStringEncoding)0x1c000100)
/** No encoding: what failed look-ups return. */
#define kRtStringEncodingInvalidId ((RtStringEncoding)0xFFFFFFFFu)

/** Comparison and search options (bits of RtOptionFlags). */
enum {
    kRtCompareCaseInsensitive = 1, ///< Ignore case (Unicode simple case folding).
    kRtCompareBackwards = 4,       ///< Search from the end.
    kRtCompareAnchored = 8,        ///< Match only at the start (or the end with Backwards).
    kRtCompareNumerically = 64     ///< Compare runs of digits by their value ("a9" < "a10").
};

/** The runtime type of strings, mutable or not. */
RT_EXPORT RtTypeID RtStringGetTypeID(void);

/* ---- Constant strings --------------------------------------------------------------------- */

/** The immortal, uniqued constant string whose UTF-8 text is cStr. Never returns NULL for a
 * valid UTF-8 literal. Prefer the RTSTR macro. */
RT_EXPORT RtStringRef __RtStringMakeConstantString(const char *cStr);
/** The registered constant whose text equals str's, or NULL when none has been made. Used by
 * the property-list reader so that constants read back are the very constant objects. */
RT_EXPORT RtStringRef RtStringGetRegisteredConstant(RtStringRef str);

/** @def RTSTR(cStr)
 * The immortal constant string of the literal @p cStr (UTF-8): never released, never NULL, the
 * same object for the same text anywhere in the process. In C++ every use site caches its
 * constant, so RTSTR costs one load after the first call. */
#ifdef __cplusplus
#define RTSTR(cStr)                                                                                          \
    ([]() -> RtStringRef {                                                                                   \
        static const RtStringRef s_ = __RtStringMakeConstantString("" cStr "");                              \
        return s_;                                                                                           \
    }())
#else
#define RTSTR(cStr) __RtStringMakeConstantString("" cStr "")
#endif

/* ---- Creating ----------------------------------------------------------------------------- */

/** A new string (caller releases) from a NUL-terminated C string in encoding; NULL when cStr is NULL or its
 * bytes are not valid in that encoding. */
RT_EXPORT RtStringRef RtStringCreateWithCString(RtAllocatorRef alloc, const char *cStr,
                                                RtStringEncoding encoding);
/** A new string (caller releases) from numBytes bytes in encoding. isExternalRepresentation: a leading
 * byte-order mark is honoured and dropped (UTF-16/32). NULL for invalid bytes. */
RT_EXPORT RtStringRef RtStringCreateWithBytes(RtAllocatorRef alloc, const uint8_t *bytes, RtIndex numBytes,
                                              RtStringEncoding encoding, bool isExternalRepresentation);
/** A new string (caller releases) over cStr's bytes, used in place without copying when encoding is Latin 1
 * or the default 8-bit encoding, or the bytes are plain ASCII in ASCII, UTF-8 or Windows Latin 1; otherwise
 * the text is converted into a copy at once. contentsDeallocator says what becomes of cStr: kRtAllocatorNull
 * leaves it alone (it must outlive the string, unchanged), NULL or kRtAllocatorMalloc frees it with free()
 * when it is no longer needed. NULL on invalid bytes. */
RT_EXPORT RtStringRef RtStringCreateWithCStringNoCopy(RtAllocatorRef alloc, const char *cStr,
                                                      RtStringEncoding encoding,
                                                      RtAllocatorRef contentsDeallocator);
/** A new string (caller releases) holding a copy of @p numChars UTF-16 units; lone surrogates
 * are kept. NULL when @p chars is missing or @p numChars negative. */
RT_EXPORT RtStringRef RtStringCreateWithCharacters(RtAllocatorRef alloc, const RtUniChar *chars,
                                                   RtIndex numChars);
/** An immutable copy (may return str retained when str is already immutable). Caller releases. */
RT_EXPORT RtStringRef RtStringCreateCopy(RtAllocatorRef alloc, RtStringRef str);
/** A new string (caller releases) of the characters of @p range; NULL when the range is outside
 * @p str. */
RT_EXPORT RtStringRef RtStringCreateWithSubstring(RtAllocatorRef alloc, RtStringRef str, RtRange range);
/** A new string (caller releases) from printf-style formatting. format is a string (usually RTSTR(...));
 * understood: the C conversions with flags, width, precision ('*' too) and length modifiers (hh h l ll z j t
 * L), %d %i %u %x %X %o %c %s %p %e %E %f %F %g %G %a %%, plus %@ (any runtime object's formatting
 * description; NULL prints "(null)"), %S (NUL-terminated RtUniChar*) and %C (an RtUniChar).
 * %s takes UTF-8 bytes. Parsed formats of constant strings are cached. formatOptions unused. */
RT_EXPORT RtStringRef RtStringCreateWithFormat(RtAllocatorRef alloc, RtDictionaryRef formatOptions,
                                               RtStringRef format, ...);
/** RtStringCreateWithFormat() with the arguments as a va_list, which the call uses up (va_copy
 * it first to format the same arguments twice). */
RT_EXPORT RtStringRef RtStringCreateWithFormatAndArguments(RtAllocatorRef alloc,
                                                           RtDictionaryRef formatOptions, RtStringRef format,
                                                           va_list arguments);
/** Formats like RtStringCreateWithFormatAndArguments and writes the text as UTF-8 into buffer
 * (bufferSize bytes, no terminator added), without making a string: for writers that build a
 * whole document in one block of bytes. Returns the text's length in UTF-8 bytes; when that is
 * more than bufferSize, the buffer's contents are unspecified and the caller formats again
 * (with a fresh copy of the arguments) into a buffer of that size. Returns -1 when the text
 * holds a lone surrogate, which UTF-8 cannot carry. buffer may be NULL when bufferSize is 0. */
RT_EXPORT RtIndex RtStringFormatUTF8(char *buffer, RtIndex bufferSize, RtDictionaryRef formatOptions,
                                     RtStringRef format, va_list arguments);
/** Splits str at every occurrence of separator: a new array of strings (caller releases). A
 * string without the separator gives an array of one string. */
RT_EXPORT RtArrayRef RtStringCreateArrayBySeparatingStrings(RtAllocatorRef alloc, RtStringRef str,
                                                            RtStringRef separator);
/** The bytes of str in encoding as new data (caller releases), with a byte-order mark for
 * kRtStringEncodingUTF16 and kRtStringEncodingUTF32; unrepresentable characters become lossByte, or the
 * call fails (NULL) when lossByte is 0. */
RT_EXPORT RtDataRef RtStringCreateExternalRepresentation(RtAllocatorRef alloc, RtStringRef str,
                                                         RtStringEncoding encoding, uint8_t lossByte);
/** A new string (caller releases) from the bytes of @p data in @p encoding, honouring and
 * dropping a byte-order mark; NULL for invalid bytes or a non-data. */
RT_EXPORT RtStringRef RtStringCreateFromExternalRepresentation(RtAllocatorRef alloc, RtDataRef data,
                                                               RtStringEncoding encoding);

/* ---- Mutable strings ---------------------------------------------------------------------- */

/** A new empty mutable string (caller releases). @p maxLength 0 means unlimited. */
RT_EXPORT RtMutableStringRef RtStringCreateMutable(RtAllocatorRef alloc, RtIndex maxLength);
/** A mutable copy of @p str (caller releases); @p maxLength as for RtStringCreateMutable(). */
RT_EXPORT RtMutableStringRef RtStringCreateMutableCopy(RtAllocatorRef alloc, RtIndex maxLength,
                                                       RtStringRef str);
/** Appends the text of @p appended (which may be @p str itself). */
RT_EXPORT void RtStringAppend(RtMutableStringRef str, RtStringRef appended);
/** Appends @p numChars UTF-16 units. */
RT_EXPORT void RtStringAppendCharacters(RtMutableStringRef str, const RtUniChar *chars, RtIndex numChars);
/** Appends a NUL-terminated C string in @p encoding; nothing when its bytes are invalid there. */
RT_EXPORT void RtStringAppendCString(RtMutableStringRef str, const char *cStr, RtStringEncoding encoding);
/** Appends formatted text (the conversions of RtStringCreateWithFormat()). */
RT_EXPORT void RtStringAppendFormat(RtMutableStringRef str, RtDictionaryRef formatOptions, RtStringRef format,
                                    ...);
/** RtStringAppendFormat() with the arguments as a va_list. */
RT_EXPORT void RtStringAppendFormatAndArguments(RtMutableStringRef str, RtDictionaryRef formatOptions,
                                                RtStringRef format, va_list arguments);
/** Inserts the text of @p inserted before the unit at @p idx (0 to the length). */
RT_EXPORT void RtStringInsert(RtMutableStringRef str, RtIndex idx, RtStringRef inserted);
/** Removes the units of @p range. */
RT_EXPORT void RtStringDelete(RtMutableStringRef str, RtRange range);
/** Replaces the units of @p range with the text of @p replacement. */
RT_EXPORT void RtStringReplace(RtMutableStringRef str, RtRange range, RtStringRef replacement);
/** Replaces the whole text with that of @p replacement. */
RT_EXPORT void RtStringReplaceAll(RtMutableStringRef str, RtStringRef replacement);
/** Replaces every occurrence of find within range (options: case-insensitive, backwards,
 * anchored); returns the number of replacements. */
RT_EXPORT RtIndex RtStringFindAndReplace(RtMutableStringRef str, RtStringRef find, RtStringRef replace,
                                         RtRange rangeToSearch, RtOptionFlags compareOptions);
/** Removes white space (spaces, tabs, line ends) from both ends. */
RT_EXPORT void RtStringTrimWhitespace(RtMutableStringRef str);
/** Converts the text to lower case. */
RT_EXPORT void RtStringLowercase(RtMutableStringRef str);
/** Converts the text to upper case. */
RT_EXPORT void RtStringUppercase(RtMutableStringRef str);

/* ---- Reading ------------------------------------------------------------------------------ */

/** The length in UTF-16 units; 0 for NULL. */
RT_EXPORT RtIndex RtStringGetLength(RtStringRef str);
/** The UTF-16 unit at @p idx; 0 when @p idx is out of range. */
RT_EXPORT RtUniChar RtStringGetCharacterAtIndex(RtStringRef str, RtIndex idx);
/** Copies the UTF-16 units of @p range into @p buffer (range.length units). */
RT_EXPORT void RtStringGetCharacters(RtStringRef str, RtRange range, RtUniChar *buffer);
/** Writes str as a NUL-terminated C string in encoding into buffer (bufferSize bytes with the
 * NUL). False when it does not fit or a character cannot be represented. */
RT_EXPORT bool RtStringGetCString(RtStringRef str, char *buffer, RtIndex bufferSize,
                                  RtStringEncoding encoding);
/** A pointer to str's NUL-terminated bytes in encoding when available without conversion
 * (ASCII-only strings for UTF-8/ASCII/Latin 1), else NULL. Valid while str lives unchanged. */
RT_EXPORT const char *RtStringGetCStringPtr(RtStringRef str, RtStringEncoding encoding);
/** Converts the characters of range into buffer (may be NULL to measure). Returns the number of
 * characters converted; stops at the first unrepresentable character when lossByte is 0.
 * usedBufLen receives the bytes written (or needed). */
RT_EXPORT RtIndex RtStringGetBytes(RtStringRef str, RtRange range, RtStringEncoding encoding,
                                   uint8_t lossByte, bool isExternalRepresentation, uint8_t *buffer,
                                   RtIndex maxBufLen, RtIndex *usedBufLen);
/** The most bytes @p length UTF-16 units can take in @p encoding (no terminator), for sizing a
 * buffer; #kRtNotFound for an unknown encoding or a negative length. */
RT_EXPORT RtIndex RtStringGetMaximumSizeForEncoding(RtIndex length, RtStringEncoding encoding);
/** The decimal integer at the start of the text (after white space, with an optional sign),
 * clamped to the int32_t range; 0 when there is none. */
RT_EXPORT int32_t RtStringGetIntValue(RtStringRef str);
/** The floating-point number at the start of the text (after white space); 0 when there is none
 * or it is out of the double range. */
RT_EXPORT double RtStringGetDoubleValue(RtStringRef str);

/* ---- Comparing and searching -------------------------------------------------------------- */

/** The order of two strings by UTF-16 units, under @p compareOptions (kRtCompareCaseInsensitive,
 * kRtCompareNumerically). */
RT_EXPORT RtComparisonResult RtStringCompare(RtStringRef a, RtStringRef b, RtOptionFlags compareOptions);
/** A hash of str that ignores case exactly as kRtCompareCaseInsensitive does (Unicode simple case
 * folds, code point by code point): two strings that compare equal that way hash equal. For
 * indexing names matched without case. 0 for NULL or a non-string. Not cached; O(length). */
RT_EXPORT RtHashCode RtStringHashCaseInsensitive(RtStringRef str);
/** RtStringCompare() of the characters of @p rangeOfA in @p a with the whole of @p b. */
RT_EXPORT RtComparisonResult RtStringCompareWithOptions(RtStringRef a, RtStringRef b, RtRange rangeOfA,
                                                        RtOptionFlags compareOptions);
/** The range of the first (or, with Backwards, last) occurrence of @p find in @p str;
 * {kRtNotFound, 0} when none. */
RT_EXPORT RtRange RtStringFind(RtStringRef str, RtStringRef find, RtOptionFlags compareOptions);
/** Searches @p rangeToSearch of @p str for @p find. True when found, its range then stored in
 * @p result (may be NULL). */
RT_EXPORT bool RtStringFindWithOptions(RtStringRef str, RtStringRef find, RtRange rangeToSearch,
                                       RtOptionFlags searchOptions, RtRange *result);
/** True when @p str begins with @p prefix (compared exactly). */
RT_EXPORT bool RtStringHasPrefix(RtStringRef str, RtStringRef prefix);
/** True when @p str ends with @p suffix (compared exactly). */
RT_EXPORT bool RtStringHasSuffix(RtStringRef str, RtStringRef suffix);

/* ---- Encodings ---------------------------------------------------------------------------- */

/** The IANA name of an encoding ("UTF-8", "ISO-8859-1", "windows-1252", ...) as a constant
 * string (borrowed, immortal), or NULL. */
RT_EXPORT RtStringRef RtStringConvertEncodingToIANACharSetName(RtStringEncoding encoding);
/** The encoding of an IANA charset name (case-insensitive, aliases through ICU), or
 * kRtStringEncodingInvalidId. */
RT_EXPORT RtStringEncoding RtStringConvertIANACharSetNameToEncoding(RtStringRef name);
/** True when strings can be converted to and from @p encoding. */
RT_EXPORT bool RtStringIsEncodingAvailable(RtStringEncoding encoding);

/** @} */

RT_EXTERN_C_END

#endif
